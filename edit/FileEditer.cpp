#include "edit/FileEditer.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>

#include "base/Log.h"
#include "mux/MPEG4FileMuxer.h"

namespace Morvel_Tessalo {

namespace {

FileMuxer* makeMpeg4Muxer() { return new (std::nothrow) MPEG4FileMuxer(); }

// The engine whose cut thread this is, if any: lets a call that arrives on the
// cut thread (from the failure notification) know itself without reading
// cutThread, which the host's thread writes.
thread_local const void* tCutThreadOf = nullptr;

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
    rangeCutter = nullptr;
}

bool FileEditer::findKeyGroup(const std::vector<FrameGroup*>& groups, int64_t pts, int32_t* index) {
    if (index) *index = 0;
    if (groups.empty() || !index) return false;
    for (size_t i = 0; i < groups.size(); ++i) {
        const FrameGroup* group = groups[i];
        // Groups are never empty in an index the reader built; refuse one that is.
        if (!group || group->empty()) return false;
        if (group->front()->pts >= pts) {
            *index = static_cast<int32_t>(i == 0 ? 0 : i - 1);
            return true;
        }
    }
    *index = static_cast<int32_t>(groups.size() - 1);
    return pts < groups.back()->back()->pts;
}

bool FileEditer::toAnnexB(const uint8_t* sample, int32_t size, uint8_t* out, int32_t capacity,
                          int32_t* outLength) {
    if (outLength) *outLength = 0;
    if (size == 0) return true;
    if (size < 0 || !sample || !out || !outLength) return false;
    // A unit is checked against what is left of the sample, not the whole
    // sample, and a trailing stub too short for a length prefix fails the
    // sample: reading on would leave the sample. Output that would pass
    // `capacity` fails it as well, so a sample over 1 MiB is converted only
    // when its converted form still fits.
    int64_t src = 0;
    int64_t dst = 0;
    while (src < size) {
        if (size - src < 4) return false;
        const uint32_t length = (uint32_t(sample[src]) << 24) | (uint32_t(sample[src + 1]) << 16) |
                                (uint32_t(sample[src + 2]) << 8) | uint32_t(sample[src + 3]);
        src += 4;
        if (int64_t(length) > size - src) return false;
        if (dst + 3 + int64_t(length) > capacity) return false;
        out[dst] = 0;
        out[dst + 1] = 0;
        out[dst + 2] = 1;
        std::memcpy(out + dst + 3, sample + src, length);
        dst += 3 + int64_t(length);
        src += length;
    }
    *outLength = static_cast<int32_t>(dst);
    return true;
}

void FileEditer::setStop(bool value) {
    std::lock_guard<std::mutex> lock(stopMutex);
    stopRequested = value;
}

bool FileEditer::isStopRequested() {
    std::lock_guard<std::mutex> lock(stopMutex);
    return stopRequested;
}

bool FileEditer::cut(const char* src, const char* dst, const EditRange* hostRanges, int32_t hostRangeCount,
                     const EditOffset* hostOffsets, int32_t hostOffsetCount, int32_t kind) {
    // A negative count is refused like 0: there is nothing to copy.
    if (!hostRanges || hostRangeCount <= 0 || !hasAudio || !hasVideo) return false;
    // From the cut thread itself (inside the failure event) the running job
    // can't be joined, and replacing its thread object would abort.
    if (tCutThreadOf == this) {
        setStop(true);
        return false;
    }
    stopCut();
    // What a failed set-up left behind (a muxer, buffers) goes before anything
    // of the new job is made.
    releaseCut();

    sourceFile.close();
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
        case 2:
            handler = [this](const char* path) { return cutReserved(path); };
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

// Kinds 1 and 2 have no cut of their own yet: the request is accepted, its
// arrays are kept until the next cut or a cancel, and no thread or event follows.
bool FileEditer::cutReserved(const char*) { return true; }

bool FileEditer::cutMp4(const char* dst) {
    FileMuxer* made = makeMuxer ? makeMuxer() : nullptr;
    if (!made) return false;
    muxer.reset(made);
    muxer->setNotify(this);

    if (muxer->setOutputFile(dst) != 0) {
        Log("FileEditer", "%s, the dst : %s, set failed", "Morvel_Tessalo::FileEditer::cutMp4", dst ? dst : "");
        return false;
    }
    if (muxer->addAudioTrack(&audioInfo) != 0) return false;
    if (muxer->addVideoTrack(&videoInfo) != 0) return false;
    rangeCutter = &FileEditer::cutRange;

    // From here a muxer thread may run, and its completion would read as a
    // finished job when releaseCut stops it: a failed set-up marks the job
    // failed so that no done-notification comes for a cut that returned false.
    if (muxer->start() != 0) {
        cutFailed = true;
        return false;
    }
    readBuffer.reset(new (std::nothrow) uint8_t[kReadBufferSize]);
    sampleBuffer.reset(new (std::nothrow) uint8_t[kSampleBufferSize]);
    if (!readBuffer || !sampleBuffer) {
        cutFailed = true;
        return false;
    }
    try {
        cutThread.reset(new std::thread(&FileEditer::runCut, this));
    } catch (...) {
        cutFailed = true;
        return false;
    }
    return true;
}

void FileEditer::runCut() {
    tCutThreadOf = this;
    int64_t audioTs = 0;
    int64_t videoPts = 0;
    int64_t videoDts = -86;
    int64_t rangeKeyPts = 0;
    // One byte per offset: set once a range has moved the entry. Without the
    // table (out of memory) no entry is moved, so none can be moved twice.
    std::unique_ptr<uint8_t[]> mapped;
    if (offsetCount > 0) mapped.reset(new (std::nothrow) uint8_t[offsetCount]());

    for (int32_t i = 0; i < rangeCount; ++i) {
        if (isStopRequested()) break;
        const int64_t base = videoPts;
        if (!rangeCutter || !(this->*rangeCutter)(&ranges[i], audioTs, videoPts, videoDts, rangeKeyPts)) {
            cutFailed = true;
            if (notifyCallback) notifyCallback(notifyContext, kNotifyFailed);
            break;
        }
        if (mapped) mapOffsets(ranges[i], base, rangeKeyPts, mapped.get());
    }
    mapped.reset();

    // onMuxComplete reads cutFailed and the host reads offsets on the muxer
    // thread; taking stopMutex here, after the last write to them, orders those
    // writes before its own lock of the same mutex.
    (void)isStopRequested();
    releaseCut();
    sourceFile.close();
}

void FileEditer::mapOffsets(const EditRange& range, int64_t base, int64_t rangeKeyPts, uint8_t* mapped) {
    for (int32_t i = 0; i < offsetCount; ++i) {
        if (mapped[i]) continue;
        EditOffset& entry = offsets[i];
        if (entry.first >= range.start && entry.second <= range.end) {
            entry.first = entry.first - rangeKeyPts + base;
            entry.second = entry.second - rangeKeyPts + base;
            mapped[i] = 1;
        }
    }
}

bool FileEditer::cutRange(const EditRange* range, int64_t& audioTs, int64_t& videoPts, int64_t& videoDts,
                          int64_t& rangeKeyPts) {
    if (!range || !keyGroups || !audioFrames || !readBuffer || !sampleBuffer) return false;
    const std::vector<FrameGroup*>& groups = *keyGroups;
    const std::vector<FrameRecord*>& audio = *audioFrames;
    uint8_t* const buffer = readBuffer.get();

    // Opening: the key group, then the first audio sample at or after its picture.
    int32_t foundGroup = 0;
    if (!findKeyGroup(groups, range->start, &foundGroup)) return false;
    size_t groupIndex = static_cast<size_t>(foundGroup);
    size_t frameIndex = 0;
    const FrameRecord* key = groups[groupIndex]->front();
    size_t audioIndex = 0;
    while (audioIndex < audio.size() && audio[audioIndex]->pts < key->pts) ++audioIndex;
    if (audioIndex == audio.size()) return false;
    const FrameRecord* firstAudio = audio[audioIndex];

    int64_t bufferPos = std::min(key->position, firstAudio->position);
    // An unknown position (-1 from the demuxer) can't be read from.
    if (bufferPos < 0) return false;
    if (!sourceFile.seek(bufferPos)) return false;
    uint32_t got = 0;
    if (!sourceFile.read(buffer, kReadBufferSize, &got) || got == 0) return false;
    int64_t bufferEnd = bufferPos + got;

    // A list that an earlier range walked to its end stays exhausted for the
    // job: that side starts finished and the range goes on with the other one.
    // Leaving its flag set would keep the sample loop waiting for a step that
    // can never run.
    bool videoMore = !videoDone;
    bool audioMore = !audioDone;
    bool videoFinished = videoDone;
    bool audioFinished = audioDone;

    rangeKeyPts = key->pts;
    int64_t lastVideoPts = key->pts;
    int64_t lastVideoDts = key->dts;
    int64_t lastAudioPts = firstAudio->pts;

    if (audioTs == 0) {
        audioTs = 1;
    } else {
        audioTs += 20;
    }
    if (videoPts == 0) {
        videoPts = 1;
        videoDts += 1;
    } else {
        videoPts += 30;
        videoDts += 30;
    }

    auto inside = [&](int64_t position, int64_t length) {
        return position >= bufferPos && position + length < bufferEnd;
    };

    auto videoStep = [&]() {
        const FrameRecord* record = (*groups[groupIndex])[frameIndex];
        if (record->pts > range->end) {
            videoMore = false;
            videoFinished = true;
            return;
        }
        const int64_t length = record->size;
        if (!inside(record->position, length)) {
            videoMore = false;
            return;
        }
        int32_t converted = 0;
        if (length >= 4 &&
            toAnnexB(buffer + (record->position - bufferPos), static_cast<int32_t>(length), sampleBuffer.get(),
                     kSampleBufferSize, &converted)) {
            videoPts += record->pts - lastVideoPts;
            lastVideoPts = record->pts;
            videoDts += record->dts - lastVideoDts;
            lastVideoDts = record->dts;
            muxer->WriteSampleData(sampleBuffer.get(), converted, kTrackVideo, videoPts, videoDts,
                                   record->isKey ? kSampleFlagVideoKey : 0u);
        }
        // Written or dropped, the sample is done; a dropped one leaves the last
        // timestamps where they were, so the next difference spans it.
        ++frameIndex;
        while (groupIndex < groups.size() && frameIndex >= groups[groupIndex]->size()) {
            ++groupIndex;
            frameIndex = 0;
        }
        if (groupIndex >= groups.size()) {
            videoDone = true;
            videoFinished = true;
            videoMore = false;
        }
    };

    auto audioStep = [&]() {
        const FrameRecord* record = audio[audioIndex];
        if (record->pts > range->end) {
            audioMore = false;
            audioFinished = true;
            return;
        }
        // The record counts the 7-byte ADTS header the reader put in front; the
        // file holds the raw frame only.
        const int64_t length = int64_t(record->size) - 7;
        if (!inside(record->position, std::max<int64_t>(length, 0))) {
            audioMore = false;
            return;
        }
        // A record too small to hold even its header has no bytes to copy; it
        // is dropped like a short video sample, without moving the timeline.
        if (length > 0) {
            audioTs += record->pts - lastAudioPts;
            lastAudioPts = record->pts;
            muxer->WriteSampleData(buffer + (record->position - bufferPos), static_cast<int32_t>(length),
                                   kTrackAudio, audioTs, audioTs == 1 ? 0 : audioTs, kSampleFlagAudio);
        }
        ++audioIndex;
        if (audioIndex >= audio.size()) {
            audioDone = true;
            audioFinished = true;
            audioMore = false;
        }
    };

    for (;;) {
        if (isStopRequested()) break;
        if (!videoDone) videoMore = true;
        if (!audioDone) audioMore = true;

        // A stop inside the sample loop closes the range just like one seen
        // before it: the cut thread ends at once and a cancel raises no failure.
        bool stopped = false;
        for (;;) {
            if (isStopRequested()) {
                stopped = true;
                break;
            }
            if (!(audioTs < videoDts && audioMore)) {
                if (!videoDone && videoMore) videoStep();
            }
            if (audioTs > videoDts && videoMore) continue;
            if (!audioDone && audioMore) audioStep();
            if (!videoMore && !audioMore) break;
        }
        if (stopped || (videoFinished && audioFinished)) break;

        int64_t nextPos;
        if (videoFinished) {
            nextPos = audio[audioIndex]->position;
        } else if (audioFinished) {
            nextPos = (*groups[groupIndex])[frameIndex]->position;
        } else {
            nextPos = std::min(audio[audioIndex]->position, (*groups[groupIndex])[frameIndex]->position);
        }
        const int64_t keep = bufferEnd - nextPos;
        if (keep < 0) return false;
        // A position below the buffer's start (a track whose positions fall)
        // would make `keep` cover bytes the buffer never held: such a file fails
        // the cut here, as a file with tracks too far apart does.
        if (nextPos < bufferPos) return false;
        std::memmove(buffer, buffer + (nextPos - bufferPos), static_cast<size_t>(keep));
        if (!sourceFile.read(buffer + keep, static_cast<uint32_t>(kReadBufferSize - keep), &got) || got == 0)
            return false;
        bufferPos = nextPos;
        bufferEnd = nextPos + keep + got;
    }

    if (videoDts + 86 >= videoPts) videoPts += 86;
    return true;
}

void FileEditer::onMuxComplete() {
    const bool stopped = isStopRequested();
    if (!stopped && !cutFailed && notifyCallback) notifyCallback(notifyContext, kNotifyDone);
}

void FileEditer::stopCut() {
    // Called from the cut thread itself (a host calling back from the failure
    // event), a join could never return: ask for the stop and let the next
    // stopCut from another thread join it.
    if (tCutThreadOf == this) {
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
    if (muxer) {
        muxer->stop();
        muxer.reset();
    }
    ranges.reset();
    rangeCount = 0;
    offsets.reset();
    offsetCount = 0;
    readBuffer.reset();
    sampleBuffer.reset();
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
