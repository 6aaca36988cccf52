#include "edit/FileEditer.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>

#include "base/Log.h"
#include "base/Results.h"
#include "edit/BlockTimeline.h"
#include "edit/RangeSelection.h"
#include "edit/RunningTimeline.h"
#include "mux/MPEG4FileMuxer.h"
#include "platform/PlatformFile.h"

namespace Morvel_Tessalo {

namespace {

FileMuxer* makeMpeg4Muxer() { return new (std::nothrow) MPEG4FileMuxer(); }

// The engine whose cut thread this is, if any: lets a call that arrives on the
// cut thread (from the failure notification) know itself without reading
// cutThread, which the host's thread writes.
thread_local const void* tCutThreadOf = nullptr;
// The engine whose done notification runs on this thread (the muxer thread),
// if any: the cut thread waits for that thread, so nothing called from the
// notification may wait for either.
thread_local const void* tDoneOf = nullptr;

// Private copy of a track's extra data. False when the block can't be had;
// the record is then left without extra data rather than with the caller's pointer.
template <typename TrackInfo>
bool copyTrack(const TrackInfo& from, TrackInfo& to, std::unique_ptr<uint8_t[]>& owner) {
    owner.reset();
    to = from;
    to.extraData = nullptr;
    to.extraDataSize = 0;
    if (!from.extraData || from.extraDataSize <= 0) return true;
    owner.reset(new (std::nothrow) uint8_t[from.extraDataSize]);
    if (!owner) return false;
    std::memcpy(owner.get(), from.extraData, static_cast<size_t>(from.extraDataSize));
    to.extraData = owner.get();
    to.extraDataSize = from.extraDataSize;
    return true;
}

}  // namespace

FileEditer::FileEditer(EditerNotifyCallback callback, void* context)
    : notifyCallback(callback), notifyContext(context), makeMuxer(makeMpeg4Muxer) {}

FileEditer::~FileEditer() {
    stopCut();
    releaseCut();
    clearFrameIndex();
    sourceFile.close();
}

bool FileEditer::setFrameIndex(std::vector<FrameGroup*>* groups, std::vector<FrameRecord*>* audio,
                               const VideoTrackInfo* videoTrackInfo, const AudioTrackInfo* audioTrackInfo) {
    keyGroups = groups;
    audioFrames = audio;
    hasVideo = false;
    hasAudio = false;
    if (videoTrackInfo) {
        hasVideo = true;
        if (!copyTrack(*videoTrackInfo, videoInfo, videoExtraData)) return false;
    }
    if (audioTrackInfo) {
        hasAudio = true;
        if (!copyTrack(*audioTrackInfo, audioInfo, audioExtraData)) return false;
    }
    return true;
}

void FileEditer::clearFrameIndex() {
    keyGroups = nullptr;
    audioFrames = nullptr;
    videoExtraData.reset();
    audioExtraData.reset();
    videoInfo = VideoTrackInfo{};
    audioInfo = AudioTrackInfo{};
    hasVideo = false;
    hasAudio = false;
    indexOrigins = IndexOrigins{};
    displayRotation = 0;
}

bool FileEditer::findKeyGroup(const std::vector<FrameGroup*>& groups, int64_t pts, int32_t* index) {
    return RangeSelection::groupBefore(groups, pts, index);
}

bool FileEditer::toAnnexB(const uint8_t* sample, int32_t size, uint8_t* out, int32_t capacity,
                          int32_t* outLength) {
    return RangeCutter::toAnnexB(sample, size, out, capacity, outLength);
}

void FileEditer::setStop(bool value) {
    std::lock_guard<std::mutex> lock(stopMutex);
    stopRequested = value;
}

bool FileEditer::isStopRequested() {
    std::lock_guard<std::mutex> lock(stopMutex);
    return stopRequested;
}

bool FileEditer::onJobThread() const { return tCutThreadOf == this || tDoneOf == this; }

bool FileEditer::cut(const char* src, const char* dst, const EditRange* hostRanges, int32_t hostRangeCount,
                     const EditOffset* hostOffsets, int32_t hostOffsetCount, int32_t kind) {
    // A negative count is refused like 0: there is nothing to copy.
    if (!hostRanges || hostRangeCount <= 0 || !hasAudio || !hasVideo) return false;
    // From the job's own threads (inside its notifications) the running job
    // can't be joined, and replacing its thread object would abort.
    if (onJobThread()) {
        setStop(true);
        return false;
    }
    // Opening the output truncates it: never the source itself.
    if (sameFile(src, dst)) return false;
    stopCut();
    // What a failed set-up left behind goes before anything of the new job is made.
    releaseCut();

    sourceFile.close();
    sourcePath = src ? src : "";
    if (!sourceFile.open(src)) {
        Log("FileEditer", "%s, src : %s, open failed", "Morvel_Tessalo::FileEditer::cut", src ? src : "");
        return false;
    }

    std::function<bool(const char*)> handler;
    switch (kind) {
        case 0:
            handler = [this](const char* path) { return cutMp4(path); };
            break;
        case 1:
            handler = [this](const char* path) { return cutSynced(path); };
            break;
        case 2:
            handler = [this](const char* path) { return startJob(path, 2); };
            break;
        default:
            return false;
    }

    setStop(false);
    videoDone = false;
    audioDone = false;
    cutFailed = false;

    ranges.reset(new (std::nothrow) EditRange[hostRangeCount]);
    rangeCount = 0;
    if (!ranges) return false;
    std::memcpy(ranges.get(), hostRanges, sizeof(EditRange) * static_cast<size_t>(hostRangeCount));
    rangeCount = hostRangeCount;

    if (hostOffsets && hostOffsetCount > 0) {
        offsets.reset(new (std::nothrow) EditOffset[hostOffsetCount]);
        offsetCount = 0;
        if (!offsets) return false;
        std::memcpy(offsets.get(), hostOffsets, sizeof(EditOffset) * static_cast<size_t>(hostOffsetCount));
        offsetCount = hostOffsetCount;
    }

    return handler(dst);
}

bool FileEditer::cutMp4(const char* dst) { return startJob(dst, 0); }

bool FileEditer::cutSynced(const char* dst) { return startJob(dst, 1); }

bool FileEditer::startJob(const char* dst, int32_t kind) {
    FileMuxer* made = makeMuxer ? makeMuxer() : nullptr;
    if (!made) return false;
    muxer.reset(made);
    muxer->setNotify(this);
    // The synced cut's times are final, its first picture shown at 0; the
    // original one leaves the writer to move the file's start to 0.
    muxer->shiftToZero = kind == 0;
    // The original cut's file is as it always was: upright as stored.
    muxer->displayRotation = kind == 0 ? 0 : displayRotation;
    jobKind = kind;
    outputPath.clear();
    madeAndCopied.clear();
    try {
        madeAndCopied.reserve(size_t(rangeCount));
    } catch (const std::bad_alloc&) {
        return false;
    }

    if (muxer->setOutputFile(dst) != 0) {
        Log("FileEditer", "%s, the dst : %s, set failed", "Morvel_Tessalo::FileEditer::cutMp4", dst ? dst : "");
        return false;
    }
    outputPath = dst;
    // The synced cuts write a file without audio as one video track.
    const bool withAudio = kind == 0 || (audioFrames && !audioFrames->empty());
    if (withAudio && muxer->addAudioTrack(&audioInfo) != 0) return failSetUp();
    VideoTrackInfo declared = videoInfo;
    std::vector<uint8_t> sets;
    if (kind == 2) {
        if (!prepareExact(&sets)) return failSetUp();
        declared.extraData = sets.data();
        declared.extraDataSize = static_cast<int32_t>(sets.size());
    }
    if (muxer->addVideoTrack(&declared) != 0) return failSetUp();
    if (muxer->start() != 0) return failSetUp();
    readBuffer.reset(new (std::nothrow) uint8_t[kReadBufferSize]);
    sampleBuffer.reset(new (std::nothrow) uint8_t[kSampleBufferSize]);
    if (!readBuffer || !sampleBuffer) return failSetUp();
    try {
        cutThread.reset(new std::thread(&FileEditer::runCut, this));
    } catch (...) {
        return failSetUp();
    }
    return true;
}

// The frame-exact cut plans its ranges before the file is begun: the
// parameter sets of the pictures it will make are declared in the file's
// header, beside the source's, in `sets` (the source's alone when it makes none).
bool FileEditer::prepareExact(std::vector<uint8_t>* sets) {
    sourceSets.assign(videoInfo.extraData, videoInfo.extraData + std::max(videoInfo.extraDataSize, 0));
    try {
        exact = std::make_unique<ExactCut>(*keyGroups, sourceSets, videoInfo.frameRate, meanVideoFrameMs(),
                                           SourceTimes::fromOrigins(indexOrigins));
        if (!exact->prepare(sourcePath.c_str(), ranges.get(), rangeCount)) return false;
        *sets = sourceSets;
        sets->insert(sets->end(), exact->madeSets().begin(), exact->madeSets().end());
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

double FileEditer::meanVideoFrameMs() const {
    return RangeSelection(SelectionRules::synced(), SourceTimes{}, *keyGroups, *audioFrames).videoFrameMs();
}

// A set-up that fails once the output exists leaves nothing behind: a muxer
// thread that may run would read a completion as a finished job, so the job
// counts as failed, and the output, which has at most a header, goes.
bool FileEditer::failSetUp() {
    cutFailed = true;
    releaseCut();
    removeFile(outputPath.c_str());
    return false;
}

void FileEditer::runCut() {
    tCutThreadOf = this;
    // The original cut reads the index's own values; the synced ones move
    // both tracks onto one timeline first.
    const bool synced = jobKind != 0;
    const SourceTimes times = synced ? SourceTimes::fromOrigins(indexOrigins) : SourceTimes::asIndexed();
    const SelectionRules rules = jobKind == 2 ? SelectionRules::exact()
                                 : synced     ? SelectionRules::synced()
                                              : SelectionRules::original();
    RangeSelection selection(rules, times, *keyGroups, *audioFrames);
    std::unique_ptr<CutTimeline> timeline;
    if (synced)
        timeline = std::make_unique<BlockTimeline>(times, selection.audioFrameMs());
    else
        timeline = std::make_unique<RunningTimeline>();
    RangeCutter cutter({*keyGroups, *audioFrames, selection, *timeline, *muxer, sourceFile, readBuffer.get(),
                        sampleBuffer.get(), [this] { return isStopRequested(); }, videoDone, audioDone,
                        exact.get()});
    // One byte per offset: set once a range has moved the entry. Without the
    // table (out of memory) no entry is moved, so none can be moved twice.
    std::unique_ptr<uint8_t[]> mapped;
    if (offsetCount > 0) mapped.reset(new (std::nothrow) uint8_t[offsetCount]());

    bool writeFailed = false;
    for (int32_t i = 0; i < rangeCount; ++i) {
        if (isStopRequested()) break;
        const RangeCutter::Result result = cutter.cut(ranges[i]);
        // Room for every range was made before the thread started.
        if (exact) madeAndCopied.push_back({exact->made(), cutter.copiedPictures()});
        if (result == RangeCutter::Result::Finished) {
            if (mapped) mapOffsets(ranges[i], *timeline, mapped.get());
            continue;
        }
        cutFailed = true;
        writeFailed = result == RangeCutter::Result::WriteFailed;
        // A range that can't be cut fails the job at once; the file, complete
        // with what it holds, stays. A file that can't be written is told of
        // once it is gone.
        if (!writeFailed && notifyCallback) notifyCallback(notifyContext, kNotifyFailed);
        break;
    }
    mapped.reset();
    const bool alreadyTold = cutFailed && !writeFailed;

    // onMuxComplete reads cutFailed and the host reads offsets on the muxer
    // thread. Both were written before finishJob stops the muxer, and its
    // writing thread ends, and raises the done event, only once it has seen
    // that stop: the stop orders those writes before the event.
    if (finishJob(writeFailed) && !alreadyTold && notifyCallback) notifyCallback(notifyContext, kNotifyFailed);
}

bool FileEditer::finishJob(bool writeFailed) {
    const bool unwritable = releaseJob() || writeFailed;
    sourceFile.close();
    if (unwritable) removeFile(outputPath.c_str());
    return unwritable;
}

bool FileEditer::releaseJob() {
    // The muxer's stop drains what is queued, writes the trailer and closes
    // the file; it says whether all of that could be written.
    const bool unwritable = muxer && muxer->stop() == kErrFileIo;
    muxer.reset();
    ranges.reset();
    rangeCount = 0;
    offsets.reset();
    offsetCount = 0;
    readBuffer.reset();
    sampleBuffer.reset();
    exact.reset();
    return unwritable;
}

void FileEditer::mapOffsets(const EditRange& range, const CutTimeline& timeline, uint8_t* mapped) {
    for (int32_t i = 0; i < offsetCount; ++i) {
        if (mapped[i]) continue;
        EditOffset& entry = offsets[i];
        if (entry.first >= range.start && entry.second <= range.end) {
            entry.first = timeline.toOutput(entry.first);
            entry.second = timeline.toOutput(entry.second);
            mapped[i] = 1;
        }
    }
}

void FileEditer::onMuxComplete() {
    // A file that could not be written is no finished cut, whatever else.
    if (isStopRequested() || cutFailed || !notifyCallback || (muxer && muxer->writeFailed())) return;
    tDoneOf = this;
    notifyCallback(notifyContext, kNotifyDone);
    tDoneOf = nullptr;
}

void FileEditer::stopCut() {
    // From the job's own threads a join could never return: ask for the stop
    // and let the next stopCut from another thread join.
    if (onJobThread()) {
        setStop(true);
        return;
    }
    if (!cutThread) return;
    if (cutThread->joinable()) {
        setStop(true);
        cutThread->join();
    }
    cutThread.reset();
}

void FileEditer::releaseCut() {
    // The job's own thread releases the job as it ends.
    if (!onJobThread()) releaseJob();
}

bool FileEditer::getEditOffsetPts(EditOffset* out, int32_t count, int32_t* outCount) {
    if (!out || count <= 0 || !offsets) return false;
    // A count above the job's is the host's mistake; copying only what exists
    // keeps the read inside the array.
    const int32_t n = std::min(count, offsetCount);
    std::memcpy(out, offsets.get(), sizeof(EditOffset) * static_cast<size_t>(n));
    if (outCount) *outCount = n;
    return true;
}

}  // namespace Morvel_Tessalo
