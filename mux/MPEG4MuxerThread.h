#pragma once
#include <cstdint>
#include <memory>

#include "base/BaseBuffer.h"
#include "base/BaseThread.h"

#include "base/FFmpegHolders.h"
#include "mux/AvcRecord.h"

class MPEG4FileMuxer;

// The one thread that touches the output file between start and stop. Each
// turn it writes at most one sample: the ring head with the lower dts, or the
// head of a ring that is full (or of any ring once stopping). Timestamps are
// shifted so that the file starts at 0 and rescaled to each stream's time base.
// On stop it drains both rings, writes the trailer, closes the file and tells
// the owner's notify, once. A failed write, trailer or close marks the file
// failed (MPEG4FileMuxer::writeFailed): the samples still queued are dropped
// and no trailer is written.
class MPEG4MuxerThread : public BaseThread {
public:
    // Made and started by the owner's start, on the host's thread.
    explicit MPEG4MuxerThread(MPEG4FileMuxer* owner);
    // The writing thread's body; every private operation below runs inside it.
    void run() override;

    MPEG4FileMuxer* owner;

    // A flush of libavformat's interleaving queue after this many writes.
    static constexpr int32_t kFlushInterval = 600;

private:
    // One turn of each kind; true when the loop has to end. `wrote` tells
    // whether a sample went to the file.
    bool turnBothTracks(bool* wrote);
    bool turnOneTrack(int32_t track, bool* wrote);
    // Pops the head of `track`'s ring and writes it; the caller holds the
    // ring's mutex (both, in a two-track turn).
    void writeHead(int32_t track);
    // The AVERROR of the write (and of the flush it triggers), or 0.
    int writeSample(uint8_t* data, int32_t size, int32_t track, int64_t pts, int64_t dts,
                    uint32_t flags);
    // The AAC sample in `out` through aac_adtstoasc; on failure it is logged
    // and goes to the file unfiltered.
    void filterAudio(AVPacket* out);
    // Whether a write's result leaves the file unusable.
    bool failsTheFile(int result) const;
    // Marks the file failed and wakes callers waiting for room; the caller
    // holds the ring mutexes of the turn.
    void fail();
    // After a turn that wrote nothing: up to 1 ms, or until a sample is
    // pushed that was not yet pushed when the turn began.
    void waitForPush(uint64_t pushesBefore);
    // Trailer and close, each result looked at.
    void finishFile();

    // State of one run, touched by this thread only.
    BaseBuffer audioScratch;
    BaseBuffer videoScratch;
    std::unique_ptr<uint8_t[]> audioBlock;
    std::unique_ptr<uint8_t[]> videoBlock;
    PacketHolder packet;
    PacketHolder filtered;
    LengthPrefixer prefixer;  // pooled up to a ring slot's size
    int64_t baseTime = 0;
    int32_t writeCounter = 0;
};

// Sees every packet exactly as it goes to av_interleaved_write_frame, and a
// null packet for each flush of the interleaving queue, on the writing
// thread. For tests that need
// the order of writing, which the finished file no longer shows (libavformat
// re-sorts by dts). Set it before start and clear it after stop.
using MuxWriteObserver = void (*)(void* user, const AVPacket* packet);
void setMuxWriteObserver(MuxWriteObserver observer, void* user);
