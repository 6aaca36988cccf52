#include "mux/MPEG4MuxerThread.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <new>

#include "base/Log.h"
#include "mux/MPEG4FileMuxer.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace {

std::atomic<MuxWriteObserver> writeObserver{nullptr};
std::atomic<void*> writeObserverUser{nullptr};

void observe(const AVPacket* packet) {
    if (MuxWriteObserver observer = writeObserver.load()) observer(writeObserverUser.load(), packet);
}

// Slots freed before a caller waiting for room is woken.
int32_t roomBatch(const BaseBufferQueue& queue) { return queue.capacity / 8; }

bool formatTakesFilteredAudio(const char* name) {
    return std::strcmp(name, "mp4") == 0 || std::strcmp(name, "mov") == 0 ||
           std::strcmp(name, "3gp") == 0 || std::strcmp(name, "flv") == 0;
}

}  // namespace

void setMuxWriteObserver(MuxWriteObserver observer, void* user) {
    writeObserverUser.store(user);
    writeObserver.store(observer);
}

MPEG4MuxerThread::MPEG4MuxerThread(MPEG4FileMuxer* owner)
    : owner(owner), prefixer(MPEG4FileMuxer::kVideoElementSize) {}

void MPEG4MuxerThread::run() {
    audioBlock.reset(new (std::nothrow) uint8_t[MPEG4FileMuxer::kAudioElementSize]);
    videoBlock.reset(new (std::nothrow) uint8_t[MPEG4FileMuxer::kVideoElementSize]);
    packet.reset(av_packet_alloc());
    filtered.reset(av_packet_alloc());
    audioScratch = BaseBuffer(audioBlock.get(), 0, 0, 0, 0);
    videoScratch = BaseBuffer(videoBlock.get(), 0, 0, 0, 0);
    // A muxer told to keep its times anchors at 0 from the start.
    baseTime = owner->shiftToZero ? kTimestampUnset : 0;
    writeCounter = 0;

    for (;;) {
        const uint64_t pushesBefore = owner->pushCount.load();
        bool wrote = false;
        bool end;
        if (owner->hasAudio && owner->hasVideo)
            end = turnBothTracks(&wrote);
        else
            end = turnOneTrack(owner->hasVideo ? kTrackVideo : kTrackAudio, &wrote);
        if (end) break;
        // A turn that wrote goes straight on: the pause is only for an idle
        // turn, so that writing is limited by the file and not by sleeping,
        // and it ends with the next push.
        if (!wrote) waitForPush(pushesBefore);
    }

    audioScratch = BaseBuffer();
    videoScratch = BaseBuffer();
    audioBlock.reset();
    videoBlock.reset();
    filtered.reset();
    packet.reset();

    finishFile();
    if (owner->notify) owner->notify->onMuxComplete();
}

void MPEG4MuxerThread::waitForPush(uint64_t pushesBefore) {
    // A push made since the turn began is in the rings already: no wait.
    std::unique_lock<std::mutex> lock(owner->pushMutex);
    owner->pushed.wait_for(lock, std::chrono::milliseconds(1),
                           [&] { return owner->pushCount.load() != pushesBefore; });
}

void MPEG4MuxerThread::finishFile() {
    AVFormatContext* context = owner->formatContext.get();
    // A file whose samples could not all be written gets no trailer: it is
    // unusable whatever follows, and writing on only fills the disk further.
    bool good = !owner->fileFailed.load() && av_write_trailer(context) >= 0;
    if (!(context->oformat->flags & AVFMT_NOFILE) && context->pb) {
        // Closing flushes without reporting it: the flush is made and its
        // error read here, so that no byte is lost unnoticed.
        avio_flush(context->pb);
        good = good && context->pb->error >= 0;
        good = closeOutputFile(context) >= 0 && good;
    }
    if (!good) owner->fileFailed.store(true);
}

bool MPEG4MuxerThread::failsTheFile(int result) const {
    if (result >= 0) return false;
    const AVFormatContext* context = owner->formatContext.get();
    // libavformat refuses a single packet whose times it cannot take
    // (EINVAL) and goes on with the next; the file stays whole. An error of
    // the output itself, or any other failure, leaves it unusable.
    if (result == AVERROR(EINVAL) && !(context->pb && context->pb->error < 0)) {
        Log("MPEG4MuxerThread", "a packet was refused: %d", result);
        return false;
    }
    return true;
}

void MPEG4MuxerThread::fail() {
    owner->fileFailed.store(true);
    owner->audioRoom.notify_all();
    owner->videoRoom.notify_all();
}

bool MPEG4MuxerThread::turnBothTracks(bool* wrote) {
    BaseBufferQueue& audio = owner->audioQueue;
    BaseBufferQueue& video = owner->videoQueue;
    std::unique_lock<std::mutex> audioLock(owner->audioMutex);
    const bool audioEmpty = audio.count == 0;
    std::unique_lock<std::mutex> videoLock(owner->videoMutex);
    const bool videoEmpty = video.count == 0;
    // Read under the ring mutexes: a stop seen here comes after every push
    // that the caller made, so rings found empty now stay empty.
    const bool stopping = stopRequested.load();

    int32_t track = -1;
    if (!audioEmpty && !videoEmpty) {
        const int64_t audioDts = audio.entries[audio.readIndex].dts;
        const int64_t videoDts = video.entries[video.readIndex].dts;
        if (baseTime == kTimestampUnset) baseTime = audioDts < videoDts ? audioDts : videoDts;
        track = audioDts < videoDts ? kTrackAudio : kTrackVideo;
    } else if (!audioEmpty) {
        // Wait for the video track to catch up, unless the ring can take no more.
        if (audio.count == audio.capacity || stopping) track = kTrackAudio;
    } else if (!videoEmpty) {
        if (video.count == video.capacity || stopping) track = kTrackVideo;
    }
    if (track >= 0) {
        writeHead(track);
        *wrote = true;
    } else {
        // Nothing can be written until the cut thread pushes again: a caller
        // waiting for room that writeHead has not yet woken must go on now.
        owner->audioRoom.notify_all();
        owner->videoRoom.notify_all();
    }
    return audioEmpty && videoEmpty && stopping;
}

bool MPEG4MuxerThread::turnOneTrack(int32_t track, bool* wrote) {
    const bool isAudio = track == kTrackAudio;
    BaseBufferQueue& queue = isAudio ? owner->audioQueue : owner->videoQueue;
    std::lock_guard<std::mutex> lock(isAudio ? owner->audioMutex : owner->videoMutex);
    if (queue.count == 0) return stopRequested.load();
    writeHead(track);
    *wrote = true;
    return false;
}

void MPEG4MuxerThread::writeHead(int32_t track) {
    const bool isAudio = track == kTrackAudio;
    BaseBufferQueue& queue = isAudio ? owner->audioQueue : owner->videoQueue;
    BaseBuffer& scratch = isAudio ? audioScratch : videoScratch;
    // Anchored once, on the first head written. (Anchoring again while the
    // base is negative would put two samples of a negative timeline at 0.)
    if (baseTime == kTimestampUnset) baseTime = queue.entries[queue.readIndex].dts;
    if (!isAudio && owner->videoLengthPrefixed && !owner->fileFailed.load()) {
        // The sample is copied once, out of its slot, as its start codes
        // become length prefixes; the ring's mutex is held meanwhile.
        const BaseBuffer& head = queue.entries[queue.readIndex];
        const int result =
            writeSample(head.data, head.size, track, head.pts - baseTime, head.dts - baseTime, head.flags);
        queue.dropHead();
        if (failsTheFile(result)) fail();
    } else if (scratch.data && !owner->fileFailed.load()) {
        if (queue.pop(&scratch) == 0 &&
            failsTheFile(writeSample(scratch.data, scratch.size, track, scratch.pts - baseTime,
                                     scratch.dts - baseTime, scratch.flags)))
            fail();
    } else {
        // No scratch block could be had, or the file has failed: drop the
        // head so that a caller waiting for room is never stuck.
        queue.dropHead();
    }
    // A caller waiting for room is woken once a batch of slots is free, not
    // at every one: woken for each, it would push one sample and wait again,
    // two thread switches a sample, for as long as the cut runs ahead.
    if (queue.count <= queue.capacity - roomBatch(queue) || owner->fileFailed.load())
        (isAudio ? owner->audioRoom : owner->videoRoom).notify_all();
}

int MPEG4MuxerThread::writeSample(uint8_t* data, int32_t size, int32_t track, int64_t pts,
                                  int64_t dts, uint32_t flags) {
    AVFormatContext* context = owner->formatContext.get();
    AVStream* stream = track == kTrackVideo ? owner->videoStream : owner->audioStream;
    if (!packet || !stream) return 0;
    AVPacket* out = packet.get();
    av_packet_unref(out);
    if (track == kTrackVideo && owner->videoLengthPrefixed) {
        // Reference-counted: libavformat keeps the packet as it is, without a copy of its own.
        if (!prefixer.convert(data, size_t(size), out)) return AVERROR(ENOMEM);
    } else {
        // Not reference-counted: libavformat copies the bytes it keeps, so the
        // scratch block can take the next sample at once.
        out->data = data;
        out->size = size;
    }

    // The header may have changed the stream's time base: read it now.
    const AVRational milliseconds{1, 1000};
    out->pts = av_rescale_q(pts, milliseconds, stream->time_base);
    out->dts = av_rescale_q(dts, milliseconds, stream->time_base);
    out->stream_index = stream->id;
    // Durations stay unset, but this libavformat no longer derives a missing
    // video duration from the frame rate as older ones did: the last video
    // sample would get 0 and fall outside the edit list. One frame period it is.
    out->duration = 0;
    if (track == kTrackVideo && stream->r_frame_rate.num > 0 && stream->r_frame_rate.den > 0)
        out->duration = av_rescale_q(1, av_inv_q(stream->r_frame_rate), stream->time_base);
    out->pos = 0;
    if (track == kTrackVideo)
        out->flags = (flags & 0x40000100u) ? AV_PKT_FLAG_KEY : 0;
    else
        out->flags = AV_PKT_FLAG_KEY;

    if (track == kTrackAudio && formatTakesFilteredAudio(context->oformat->name) &&
        stream->codecpar->codec_id == AV_CODEC_ID_AAC && owner->aacFilter && filtered)
        filterAudio(out);

    observe(out);
    int result = av_interleaved_write_frame(context, out);
    if (++writeCounter == kFlushInterval) {
        observe(nullptr);
        const int flushed = av_interleaved_write_frame(context, nullptr);
        if (result >= 0) result = flushed;
        writeCounter = 0;
    }
    return result;
}

void MPEG4MuxerThread::filterAudio(AVPacket* out) {
    AVBSFContext* filter = owner->aacFilter.get();
    AVPacket* copy = filtered.get();
    av_packet_unref(copy);
    int result = av_packet_ref(copy, out);
    if (result >= 0) result = av_bsf_send_packet(filter, copy);
    if (result >= 0) result = av_bsf_receive_packet(filter, copy);
    if (result >= 0) {
        av_packet_unref(out);
        av_packet_move_ref(out, copy);
        return;
    }
    av_packet_unref(copy);
    const AVCodecContext* codec = owner->audioCodecContext.get();
    Log("MPEG4MuxerThread", "%s failed for stream %d, codec %s", filter->filter->name, out->stream_index,
        codec && codec->codec ? codec->codec->name : "copy");
}
