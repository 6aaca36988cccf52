#pragma once
// The cut engine. This header currently declares the interface that the
// instance relies on; the engine's fields and the cut itself land with it.
#include <cstdint>
#include <vector>

#include "api/tessalo.h"
#include "instance/FrameRecord.h"
#include "mux/FileMuxerNotify.h"
#include "mux/TrackInfo.h"

namespace Morvel_Tessalo {

using EditerNotifyCallback = void (*)(void* context, int32_t code);

constexpr int32_t kNotifyDone = 0;
constexpr int32_t kNotifyFailed = 1;

class FileEditer : public FileMuxerNotify {
public:
    FileEditer(EditerNotifyCallback notifyCallback, void* notifyContext);
    ~FileEditer();
    FileEditer(const FileEditer&) = delete;
    FileEditer& operator=(const FileEditer&) = delete;

    bool setFrameIndex(std::vector<FrameGroup*>* keyGroups, std::vector<FrameRecord*>* audioFrames,
                       const VideoTrackInfo* videoTrackInfo, const AudioTrackInfo* audioTrackInfo);
    void clearFrameIndex();

    bool cut(const char* src, const char* dst, const EditRange* ranges, int32_t rangeCount,
             const EditOffset* offsets, int32_t offsetCount, int32_t kind);
    void stopCut();
    void releaseCut();
    bool getEditOffsetPts(EditOffset* out, int32_t count, int32_t* outCount);

    void onMuxComplete() override;

private:
    EditerNotifyCallback notifyCallback;
    void* notifyContext;
};

}  // namespace Morvel_Tessalo
