#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "base/BaseBufferQueue.h"
#include "base/ThreadMutex.h"
#include "mux/FileMuxer.h"

#include "base/FFmpegHolders.h"

class MPEG4MuxerThread;

// Writes already-compressed H.264 and AAC samples into a new file through
// libavformat; the container follows from the file name. The caller's thread
// only copies each sample into a ring; MPEG4MuxerThread drains the rings into
// the file in decoding-time order.
//
// Every result of writing is looked at: once a write, the trailer or the
// closing of the file fails, the file is unusable, writeFailed() says so,
// WriteSampleData refuses further samples with kErrFileIo instead of waiting
// for room, and stop() returns kErrFileIo.
//
// The fields are public because MPEG4MuxerThread works on them directly; the
// rings and their mutex/condition pairs are the only state the two threads
// share. Each operation runs on the thread FileMuxer names for it; the
// writing thread runs MPEG4MuxerThread::run only.
class MPEG4FileMuxer : public FileMuxer {
public:
    // Ring geometry: the largest samples that can reach the file.
    static constexpr int32_t kVideoRingCapacity = 200;
    static constexpr int32_t kVideoElementSize = 0x80000;  // 512 KiB
    static constexpr int32_t kAudioRingCapacity = 300;
    static constexpr int32_t kAudioElementSize = 0x1000;   // 4 KiB

    MPEG4FileMuxer();
    ~MPEG4FileMuxer() override;
    MPEG4FileMuxer(const MPEG4FileMuxer&) = delete;
    MPEG4FileMuxer& operator=(const MPEG4FileMuxer&) = delete;

    int32_t setOutputFile(const char* path) override;
    int32_t addVideoTrack(const VideoTrackInfo* info) override;
    int32_t addAudioTrack(const AudioTrackInfo* info) override;
    int32_t start() override;
    int32_t WriteSampleData(const uint8_t* data, int32_t size, int32_t track, int64_t pts,
                            int64_t dts, uint32_t flags) override;
    int32_t stop() override;
    void setNotify(FileMuxerNotify* notify) override;
    bool writeFailed() const override;

    FileMuxerNotify* notify = nullptr;
    OutputFormatHolder formatContext;
    const AVOutputFormat* outputFormat = nullptr;
    AVStream* videoStream = nullptr;
    AVStream* audioStream = nullptr;
    const AVCodec* videoEncoder = nullptr;
    const AVCodec* audioEncoder = nullptr;
    // The streams no longer carry a codec context: each track keeps the
    // encoder context it opened, freed where the codecs are closed.
    CodecContextHolder videoCodecContext;
    CodecContextHolder audioCodecContext;
    BitstreamFilterHolder aacFilter;
    // Each guards its track's ring; the writing thread takes audio's first.
    std::mutex audioMutex;
    std::mutex videoMutex;
    // Signalled when the writing thread has freed elements of the ring.
    std::condition_variable audioRoom;
    std::condition_variable videoRoom;
    // Samples pushed so far, counted under pushMutex; `pushed` is signalled
    // at each, for a writing thread that found nothing to write.
    std::mutex pushMutex;
    std::condition_variable pushed;
    std::atomic<uint64_t> pushCount{0};
    BaseBufferQueue videoQueue;
    BaseBufferQueue audioQueue;
    const char* outputPath = nullptr;
    int64_t lastVideoDts;
    int64_t lastAudioDts;
    bool hasAudio = false;
    bool hasVideo = false;
    // The video track's record is avcC: the writing thread turns the samples'
    // start codes into length prefixes.
    bool videoLengthPrefixed = false;
    ThreadMutex threadMutex;
    std::unique_ptr<MPEG4MuxerThread> muxerThread;
    // Set by the writing thread when the file could not be written, under the
    // ring mutexes it holds; from then on samples are refused with kErrFileIo
    // and a caller waiting for room is woken.
    std::atomic<bool> fileFailed{false};

private:
    // The encoder of `codec` and a new stream for it, numbered by its place;
    // null when either cannot be had.
    AVStream* newTrackStream(AVCodecID codec, const AVCodec** encoder);
    // The video track's parameter sets on its codec context, as an avcC
    // record when they make one (and then the samples are length-prefixed
    // as they are written); false when no copy could be had.
    bool setVideoExtraData(AVCodecContext* context, const VideoTrackInfo* info);
};
