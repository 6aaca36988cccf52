#include "edit/RangeCutter.h"

#include <algorithm>
#include <cstring>

#include "base/Results.h"
#include "mux/TrackInfo.h"

using Take = RangeSelection::Take;

bool RangeCutter::toAnnexB(const uint8_t* sample, int32_t size, uint8_t* out, int32_t capacity,
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

RangeCutter::Result RangeCutter::cut(const EditRange& range) {
    copied = 0;
    if (!open(range)) return Result::Failed;
    for (;;) {
        if (job.stopRequested()) break;
        // A side that ran out of the old buffer gets another go.
        videoMore = !job.videoDone && !videoFinished;
        audioMore = !job.audioDone && !audioFinished;
        const bool passed = samplePass();
        if (writeFailed) return Result::WriteFailed;
        if (madeFailed) return Result::Failed;
        // A stop inside the pass (or seen while a picture was being made)
        // closes the range like one seen before it: the cut thread ends at
        // once and a cancel raises no failure.
        if (!passed || job.stopRequested() || (videoFinished && audioFinished)) break;
        if (!refill()) return Result::Failed;
    }
    job.timeline.closeRange();
    return Result::Finished;
}

// The opening key frame and the first audio record, one read from the lower
// of their positions, and the timeline's opening.
bool RangeCutter::open(const EditRange& range) {
    // A list that an earlier range walked to its end stays exhausted for the
    // job in the original cut: that side starts finished and the range goes
    // on with the other one.
    if (!job.selection.rules().listEndsForTheJob) job.videoDone = job.audioDone = false;
    writeFailed = madeFailed = false;
    RangeSpan span;
    if (job.exact) {
        if (!openExact(range, &span)) return false;
    } else {
        if (!job.selection.open(range, &groupIndex, &span)) return false;
        frameIndex = 0;
    }
    audioIndex = job.selection.firstAudio(job.timeline.audioFrom(span));
    const bool hasAudio = audioIndex < job.audio.size();
    if (!hasAudio && job.selection.rules().needsAudio) return false;
    const FrameRecord* firstAudio = hasAudio ? job.audio[audioIndex] : nullptr;
    // Only a frame-exact range whose pictures are all made copies no video.
    const bool copiesVideo = span.key != nullptr;
    int64_t from = copiesVideo ? span.key->position : -1;
    if (firstAudio) from = copiesVideo ? std::min(from, firstAudio->position) : firstAudio->position;
    if (copiesVideo || firstAudio) {
        if (!readFrom(from)) return false;
    } else {
        window.bufferBytes = 0;
        window.bufferEnd = 0;
    }
    // A frame-exact range's video goes on while it has pictures to make.
    videoFinished = job.exact ? false : job.videoDone;
    audioFinished = job.audioDone || !hasAudio;
    job.timeline.openRange(span, firstAudio);
    return true;
}

bool RangeCutter::openExact(const EditRange& range, RangeSpan* span) {
    if (!job.exact->open(range)) return false;
    *span = job.exact->span();
    job.selection.adopt(range, *span);
    groupIndex = job.exact->plan().copyFrom.group;
    frameIndex = job.exact->plan().copyFrom.frame;
    phase = Phase::Head;
    return true;
}

// The frame-exact range's video steps that copy nothing: a made picture of
// the head or the tail, or the turn from one part to the next. False when
// this step is a copy.
bool RangeCutter::exactStep() {
    ExactCut& exact = *job.exact;
    if (phase == Phase::Copy) {
        if (!(IndexPlace{groupIndex, frameIndex} == exact.plan().copyEnd)) return false;
        phase = Phase::Tail;
        if (!exact.beginTail()) {
            madeFailed = true;
            videoMore = false;
            return true;
        }
    }
    MadePicture picture;
    switch (exact.next(&picture, job.stopRequested)) {
        case ExactCut::Next::Picture:
            writeMade(picture);
            return true;
        case ExactCut::Next::Stopped:  // the pass sees the stop next
            videoMore = false;
            return true;
        case ExactCut::Next::Failed:
            madeFailed = true;
            videoMore = false;
            return true;
        case ExactCut::Next::End:
            break;
    }
    if (phase == Phase::Head && exact.plan().copies) {
        phase = Phase::Copy;
        return false;
    }
    endVideo();
    return true;
}

void RangeCutter::writeMade(const MadePicture& picture) {
    const SampleTimes times = job.timeline.video(picture.record);
    const int32_t result = job.muxer.WriteSampleData(picture.data.data(), int32_t(picture.data.size()), kTrackVideo,
                                                     times.pts, times.dts,
                                                     picture.record.isKey ? kSampleFlagVideoKey : 0u);
    // Unlike a copied sample, a made picture that is lost would leave its
    // place in the range empty: the range fails.
    if (result == kErrFileIo) writeFailed = true;
    else if (result != kOk) madeFailed = true;
    if (result != kOk) videoMore = false;
}

void RangeCutter::endVideo() {
    videoMore = false;
    videoFinished = true;
}

bool RangeCutter::readFrom(int64_t position) {
    // An unknown position (-1 from the demuxer) can't be read from.
    return position >= 0 && window.fill(position);
}

// Keeps what the buffer holds from the next sample needed on, and reads on
// behind it: the file is read strictly forward.
bool RangeCutter::refill() {
    // Made pictures are read elsewhere: a frame-exact range's video reads
    // from the buffer only for a copied stretch still to come.
    const bool videoReads =
        !videoFinished && (!job.exact || (job.exact->plan().copies && phase != Phase::Tail));
    if (!videoReads && audioFinished) return false;  // neither side has anything left to read
    const FrameRecord* audio = audioFinished ? nullptr : job.audio[audioIndex];
    const FrameRecord* video = videoReads ? &videoRecord() : nullptr;
    const int64_t nextPos = !video ? audio->position
                            : !audio ? video->position
                                     : std::min(audio->position, video->position);
    // A next sample beyond what is held (the tracks are stored too far apart
    // for the buffer), or below it (a track whose positions fall), fails the
    // cut here.
    if (!window.keepFrom(nextPos)) return false;
    // Both sides' next samples are read in when one buffer can hold them, so
    // that the pass takes the tracks by their clocks even where the file
    // stores them seconds apart.
    const int64_t farEnd = std::max(audio ? audio->position + audio->size : 0,
                                    video ? video->position + video->size : 0);
    while (farEnd >= window.bufferEnd && farEnd - nextPos < kReadBufferSize)
        if (!window.keepFrom(nextPos)) break;  // the file ends first: the pass finds out
    return true;
}

// The side that is behind on its clock goes first; with the clocks equal,
// video goes first and audio right after it. Once a side has stopped for this
// buffer, the other goes on without regard to the clocks.
bool RangeCutter::samplePass() {
    const CutTimeline& clocks = job.timeline;
    for (;;) {
        if (job.stopRequested()) return false;
        if (!(clocks.audioClock() < clocks.videoClock() && audioMore) && videoMore) videoStep();
        if (writeFailed || madeFailed) return false;
        if (clocks.audioClock() > clocks.videoClock() && videoMore) continue;
        if (audioMore) audioStep();
        if (writeFailed || madeFailed) return false;
        if (!videoMore && !audioMore) return true;
    }
}

void RangeCutter::videoStep() {
    if (job.exact && exactStep()) return;
    const FrameRecord& record = videoRecord();
    const Take take = job.exact ? Take::Keep : job.selection.video(record);
    if (take == Take::End) {
        // In decoding order this ends the range's video: a later picture
        // shown within the range is not looked for.
        endVideo();
        return;
    }
    if (take == Take::Keep) {
        const int64_t length = record.size;
        if (!window.holds(record.position, length)) {
            videoMore = false;
            return;
        }
        int32_t converted = 0;
        // Written or dropped, the sample is done: a sample too short or
        // malformed to convert is left out, and its time with it.
        if (length >= 4 && toAnnexB(window.at(record.position), static_cast<int32_t>(length),
                                    job.sampleBuffer, kSampleBufferSize, &converted)) {
            write(job.sampleBuffer, converted, kTrackVideo, job.timeline.video(record),
                  record.isKey ? kSampleFlagVideoKey : 0u);
            ++copied;
        }
    }
    nextVideo();
}

void RangeCutter::nextVideo() {
    ++frameIndex;
    while (groupIndex < job.groups.size() && frameIndex >= job.groups[groupIndex]->size()) {
        ++groupIndex;
        frameIndex = 0;
    }
    // A frame-exact range meets the index's end as the end of its copied
    // stretch (exactStep); the others end their video here.
    if (groupIndex >= job.groups.size() && !job.exact) {
        job.videoDone = true;
        endVideo();
    }
}

void RangeCutter::audioStep() {
    const FrameRecord& record = *job.audio[audioIndex];
    if (job.selection.audio(record) == Take::End) {
        audioMore = false;
        audioFinished = true;
        return;
    }
    // The record counts the ADTS header the reader put in front; the file
    // holds the raw frame only.
    const int64_t length = int64_t(record.size) - kAdtsHeader;
    if (!window.holds(record.position, std::max<int64_t>(length, 0))) {
        audioMore = false;
        return;
    }
    // A record too small to hold even its header has no bytes to copy; it is
    // dropped like a short video sample.
    if (length > 0)
        write(window.at(record.position), static_cast<int32_t>(length), kTrackAudio,
              job.timeline.audio(record), kSampleFlagAudio);
    if (++audioIndex >= job.audio.size()) {
        job.audioDone = true;
        audioFinished = true;
        audioMore = false;
    }
}

// A sample the muxer refuses is lost without effect on the cut, unless the
// muxer can no longer write the file at all.
void RangeCutter::write(const uint8_t* data, int32_t size, int32_t track, SampleTimes times, uint32_t flags) {
    if (job.muxer.WriteSampleData(data, size, track, times.pts, times.dts, flags) == kErrFileIo) writeFailed = true;
}
