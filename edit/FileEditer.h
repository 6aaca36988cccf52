#pragma once
// The cut engine: copies stretches of an MP4 source into a new file without
// decoding. Everything it knows about the source comes from the instance's
// frame index; sample bytes are read straight from the file at the recorded
// positions and handed to a FileMuxer with a rebuilt timeline.
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "api/tessalo.h"
#include "edit/FileOperator.h"
#include "instance/FrameRecord.h"
#include "mux/FileMuxer.h"
#include "mux/FileMuxerNotify.h"
#include "mux/TrackInfo.h"

namespace Morvel_Tessalo {

using EditerNotifyCallback = void (*)(void* context, int32_t code);

// Codes of the engine's notification to the instance.
constexpr int32_t kNotifyDone = 0;    // output file complete (muxer thread)
constexpr int32_t kNotifyFailed = 1;  // a range failed (cut thread)

// Final: the destructor is not virtual, and nothing derives from the engine.
class FileEditer final : public FileMuxerNotify {
public:
    FileEditer(EditerNotifyCallback notifyCallback, void* notifyContext);
    ~FileEditer();
    FileEditer(const FileEditer&) = delete;
    FileEditer& operator=(const FileEditer&) = delete;

    // Hands over the instance's index by reference and copies the two track
    // records (with private copies of their extra data). False only when a
    // copy of extra data could not be allocated.
    bool setFrameIndex(std::vector<FrameGroup*>* keyGroups, std::vector<FrameRecord*>* audioFrames,
                       const VideoTrackInfo* videoTrackInfo, const AudioTrackInfo* audioTrackInfo);
    void clearFrameIndex();

    // Starts a cut job; true means the job runs, not that it has succeeded.
    bool cut(const char* src, const char* dst, const EditRange* ranges, int32_t rangeCount,
             const EditOffset* offsets, int32_t offsetCount, int32_t kind);
    // Ends the cut thread, if any, and joins it.
    void stopCut();
    // Frees what a job holds: muxer, arrays, buffers. The source stays open.
    void releaseCut();
    // Copies the offsets report; complete only inside the done notification.
    bool getEditOffsetPts(EditOffset* out, int32_t count, int32_t* outCount);

    // From the muxer thread, after the trailer is written and the file closed.
    void onMuxComplete() override;

    // The group that opens a range starting at `pts`. A pts equal to a key
    // frame's selects the group before it (except for the first group).
    static bool findKeyGroup(const std::vector<FrameGroup*>& groups, int64_t pts, int32_t* index);
    // 4-byte length prefixes to 3-byte start codes, into `out` of `capacity`
    // bytes. False (and 0 out) when the sample is malformed or does not fit.
    static bool toAnnexB(const uint8_t* sample, int32_t size, uint8_t* out, int32_t capacity,
                         int32_t* outLength);

    static constexpr int32_t kReadBufferSize = 0x1400000;   // 20 MiB of source at a time
    static constexpr int32_t kSampleBufferSize = 0x100000;  // one converted video sample

private:
    friend struct FileEditerTestAccess;

    using RangeCutter = bool (FileEditer::*)(const EditRange* range, int64_t& audioTs, int64_t& videoPts,
                                             int64_t& videoDts, int64_t& rangeKeyPts);
    using MuxerFactory = FileMuxer* (*)();

    bool cutMp4(const char* dst);
    bool cutReserved(const char* dst);
    void runCut();
    bool cutRange(const EditRange* range, int64_t& audioTs, int64_t& videoPts, int64_t& videoDts,
                  int64_t& rangeKeyPts);
    void mapOffsets(const EditRange& range, int64_t base, int64_t rangeKeyPts, uint8_t* mapped);
    void setStop(bool value);
    bool isStopRequested();

    std::vector<FrameGroup*>* keyGroups = nullptr;
    std::vector<FrameRecord*>* audioFrames = nullptr;
    std::unique_ptr<EditRange[]> ranges;
    int32_t rangeCount = 0;
    std::unique_ptr<EditOffset[]> offsets;
    int32_t offsetCount = 0;
    std::unique_ptr<FileMuxer> muxer;
    EditerNotifyCallback notifyCallback;
    void* notifyContext;
    bool stopRequested = true;  // guarded by stopMutex
    bool cutFailed = false;
    bool hasVideo = false;
    bool hasAudio = false;
    bool videoDone = false;
    bool audioDone = false;
    std::unique_ptr<uint8_t[]> readBuffer;
    std::unique_ptr<uint8_t[]> sampleBuffer;
    RangeCutter rangeCutter = nullptr;
    std::unique_ptr<std::thread> cutThread;
    std::mutex stopMutex;
    FileOperator sourceFile;
    VideoTrackInfo videoInfo{};
    AudioTrackInfo audioInfo{};

    // Owners of the extra-data copies that videoInfo and audioInfo point at.
    std::unique_ptr<uint8_t[]> videoExtraData;
    std::unique_ptr<uint8_t[]> audioExtraData;
    // Makes the job's muxer: an MPEG4FileMuxer. Tests put a recorder here.
    MuxerFactory makeMuxer;
};

}  // namespace Morvel_Tessalo
