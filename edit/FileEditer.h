#pragma once
// The cut engine: copies stretches of an MP4 source into a new file without
// decoding. Everything it knows about the source comes from the instance's
// frame index; sample bytes are read straight from the file at the recorded
// positions and handed to a FileMuxer with a rebuilt timeline.
//
// Three kinds of cut: kind 0 keeps the original running timeline, kind 1 moves
// each range as one block and so keeps the source's own audio-video offset
// (see RunningTimeline and BlockTimeline; RangeSelection says which samples
// each keeps), and kind 2 shows exactly the pictures of each range on kind
// 1's timeline, making again those it can't copy (ExactCut). A job whose file
// can't be written fails and its output goes.
//
// Threads: the host's thread runs cut (for kind 2 it reads the key frames its
// ranges start from and decodes one picture), stopCut, releaseCut and
// getEditOffsetPts; the cut thread runs runCut and sends the failure
// notification; the muxer thread runs onMuxComplete and sends the done
// notification. Called from inside either notification, cut refuses and
// stopCut and releaseCut only ask the job to stop: they never wait for the
// thread they run on.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "api/tessalo.h"
#include "edit/ExactCut.h"
#include "edit/FileOperator.h"
#include "edit/RangeCutter.h"
#include "instance/FrameRecord.h"
#include "mux/FileMuxer.h"
#include "mux/FileMuxerNotify.h"
#include "mux/TrackInfo.h"

class CutTimeline;

namespace Morvel_Tessalo {

using EditerNotifyCallback = void (*)(void* context, int32_t code);

// Codes of the engine's notification to the instance.
constexpr int32_t kNotifyDone = 0;    // output file complete (muxer thread)
constexpr int32_t kNotifyFailed = 1;  // a range failed or the file could not be written (cut thread)

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
    // Where the index's timelines start on the file's own (for kind 1).
    void setIndexOrigins(const IndexOrigins& origins) { indexOrigins = origins; }
    // The source's display rotation, clockwise degrees: the synced and
    // frame-exact cuts' files are turned for display as the source is.
    void setDisplayRotation(int32_t degrees) { displayRotation = degrees; }
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

    // For each range of the last frame-exact job: the pictures it made and
    // the video samples it copied. Read once the job's thread has ended.
    struct MadeAndCopied {
        size_t made;
        size_t copied;
    };
    const std::vector<MadeAndCopied>& lastExactJob() const { return madeAndCopied; }

    // The group that opens a range of the original cut starting at `pts` (see
    // RangeSelection::groupBefore).
    static bool findKeyGroup(const std::vector<FrameGroup*>& groups, int64_t pts, int32_t* index);
    // 4-byte length prefixes to 3-byte start codes (see RangeCutter::toAnnexB).
    static bool toAnnexB(const uint8_t* sample, int32_t size, uint8_t* out, int32_t capacity,
                         int32_t* outLength);

    static constexpr int32_t kReadBufferSize = RangeCutter::kReadBufferSize;
    static constexpr int32_t kSampleBufferSize = RangeCutter::kSampleBufferSize;

private:
    friend struct FileEditerTestAccess;

    using MuxerFactory = FileMuxer* (*)();

    bool cutMp4(const char* dst);
    bool cutSynced(const char* dst);
    bool prepareExact(std::vector<uint8_t>* sets);
    double meanVideoFrameMs() const;
    // The set-up shared by the kinds: muxer, tracks, buffers, thread.
    bool startJob(const char* dst, int32_t kind);
    bool failSetUp();
    void runCut();
    void mapOffsets(const EditRange& range, const CutTimeline& timeline, uint8_t* mapped);
    // Stops the muxer and frees the job; true when the file could not be written.
    bool releaseJob();
    // releaseJob, then closes the source and removes an output that could not
    // be written; true when that happened.
    bool finishJob(bool writeFailed);
    void setStop(bool value);
    bool isStopRequested();
    // On the thread that runs this engine's cut, or inside its done notification.
    bool onJobThread() const;

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
    std::atomic<bool> cutFailed{false};  // written on the cut thread, read on the muxer thread
    bool hasVideo = false;
    bool hasAudio = false;
    bool videoDone = false;
    bool audioDone = false;
    std::unique_ptr<uint8_t[]> readBuffer;
    std::unique_ptr<uint8_t[]> sampleBuffer;
    std::unique_ptr<std::thread> cutThread;
    std::mutex stopMutex;
    FileOperator sourceFile;
    VideoTrackInfo videoInfo{};
    AudioTrackInfo audioInfo{};

    // Owners of the extra-data copies that videoInfo and audioInfo point at.
    std::unique_ptr<uint8_t[]> videoExtraData;
    std::unique_ptr<uint8_t[]> audioExtraData;
    IndexOrigins indexOrigins;
    int32_t displayRotation = 0;
    // The running job's kind and output path (kept to remove an output that
    // could not be written).
    int32_t jobKind = 0;
    std::string outputPath;
    std::string sourcePath;
    // The frame-exact cut's made pictures, and the source's parameter sets they read.
    std::vector<uint8_t> sourceSets;
    std::unique_ptr<ExactCut> exact;
    std::vector<MadeAndCopied> madeAndCopied;
    // Makes the job's muxer: an MPEG4FileMuxer. Tests put a recorder here.
    MuxerFactory makeMuxer;
};

}  // namespace Morvel_Tessalo
