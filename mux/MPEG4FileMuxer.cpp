#include "mux/MPEG4FileMuxer.h"

#include <cstdio>
#include <cstring>

#include "base/Log.h"
#include "base/Results.h"
#include "mux/AvcRecord.h"
#include "mux/MPEG4MuxerThread.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
#include <libavutil/mem.h>
}

namespace {

bool nameIsOneOf(const char* name, const char* const* names, size_t count) {
    for (size_t i = 0; i < count; ++i)
        if (std::strcmp(name, names[i]) == 0) return true;
    return false;
}

bool nameContainsOneOf(const char* name, const char* const* names, size_t count) {
    for (size_t i = 0; i < count; ++i)
        if (std::strstr(name, names[i])) return true;
    return false;
}

}  // namespace

MPEG4FileMuxer::MPEG4FileMuxer()
    : videoQueue(1, kVideoRingCapacity), audioQueue(0, kAudioRingCapacity) {
    lastVideoDts = kTimestampUnset;
    lastAudioDts = kTimestampUnset;
    hasAudio = false;
    hasVideo = false;
    state = 1;
    installFFmpegLogSink();
    avformat_network_init();
    // A failed allocation leaves a ring that refuses every sample (-12 from push).
    audioQueue.allocBuffers(kAudioElementSize);
    videoQueue.allocBuffers(kVideoElementSize);
}

MPEG4FileMuxer::~MPEG4FileMuxer() {
    // Deleted without stop after a successful start: end the thread the same
    // way stop would, so that nothing runs on freed fields.
    if (muxerThread) {
        muxerThread->stopAndJoin();
        muxerThread.reset();
    }
    aacFilter.reset();
    audioCodecContext.reset();
    videoCodecContext.reset();
    formatContext.reset();
    avformat_network_deinit();
}

void MPEG4FileMuxer::setNotify(FileMuxerNotify* n) { notify = n; }

bool MPEG4FileMuxer::writeFailed() const { return fileFailed.load(); }

int32_t MPEG4FileMuxer::setOutputFile(const char* path) {
    // Only before start, and only once: a second context would orphan the
    // streams of the first, and during a run the thread is using it.
    if (state != 1 || formatContext) return kErrInvalidState;
    if (!path) return kErrInvalidArgument;
    outputPath = path;

    AVFormatContext* context = nullptr;
    avformat_alloc_output_context2(&context, nullptr, nullptr, path);
    if (!context) {
        printf("Could not deduce output format from file extension.\n");
        static const char* const kFallbacks[] = {"mp4", "flv", "mov", "3gp"};
        const size_t length = std::strlen(path);
        const char* match = nullptr;
        if (length >= 3) {
            for (const char* name : kFallbacks)
                if (std::memcmp(path + length - 3, name, 3) == 0) {
                    match = name;
                    break;
                }
        }
        if (!match) {
            printf("unsupported file format!");
            return kErrUnsupported;
        }
        avformat_alloc_output_context2(&context, nullptr, match, path);
    }
    if (!context) {
        printf("avformat_alloc_output_context2 return failed!\n");
        return kErrNoContext;
    }
    formatContext.reset(context);
    outputFormat = context->oformat;

    if (!(outputFormat->flags & AVFMT_NOFILE)) {
        if (avio_open(&context->pb, path, AVIO_FLAG_WRITE) < 0) {
            printf("Could not open '%s'\n", path);
            return kErrFileIo;
        }
    }
    // The format record is const and shared by the process in this FFmpeg:
    // its default codecs are left alone; each track names its own codec.
    return kOk;
}

AVStream* MPEG4FileMuxer::newTrackStream(AVCodecID codec, const AVCodec** encoder) {
    *encoder = avcodec_find_encoder(codec);
    if (!*encoder) return nullptr;
    AVStream* stream = avformat_new_stream(formatContext.get(), *encoder);
    if (stream) stream->id = static_cast<int>(formatContext->nb_streams) - 1;
    return stream;
}

int32_t MPEG4FileMuxer::addVideoTrack(const VideoTrackInfo* info) {
    if (!info) return kErrInvalidArgument;
    if (info->codecType != 1) return kErrNotFound;
    // Tracks go into an output context, so without one (or a second time)
    // there is no stream to make.
    if (!formatContext || videoStream || state != 1) return kErrInvalidArgument;

    AVStream* stream = newTrackStream(AV_CODEC_ID_H264, &videoEncoder);
    if (!stream) return kErrInvalidArgument;
    videoStream = stream;

    CodecContextHolder context(avcodec_alloc_context3(videoEncoder));
    if (!context) return kErrGeneric;
    context->codec_type = AVMEDIA_TYPE_VIDEO;
    context->codec_id = AV_CODEC_ID_H264;

    // A frame rate that yields no valid time base cannot open an encoder:
    // refuse it as the failed open would, without computing an overflow.
    const int64_t rate = static_cast<int64_t>(info->frameRate) * 1000;
    if (rate <= 0 || rate > INT32_MAX) return kErrGeneric;
    const AVRational timeBase{1000, static_cast<int>(rate)};
    stream->time_base = timeBase;
    context->time_base = timeBase;
    stream->r_frame_rate = AVRational{static_cast<int>(rate), 1000};
    stream->start_time = 0;

    context->pix_fmt = AV_PIX_FMT_YUV420P;
    // libx264 refuses odd sizes. Nothing is ever encoded, so the encoder opens
    // with the size rounded up to even; the stream keeps the true size.
    context->width = info->width + (info->width & 1);
    context->height = info->height + (info->height & 1);
    // One thread is enough for an encoder that encodes nothing.
    context->thread_count = 1;
    if (info->extraData && info->extraDataSize > 0 && !setVideoExtraData(context.get(), info)) return kErrGeneric;

    if (avcodec_open2(context.get(), videoEncoder, nullptr) < 0) return kErrGeneric;
    if (avcodec_parameters_from_context(stream->codecpar, context.get()) < 0) return kErrGeneric;
    stream->codecpar->width = info->width;
    stream->codecpar->height = info->height;
    if (displayRotation % 360 != 0) {
        // The track header's matrix, as the source's. (The angle given here
        // turns clockwise; the one av_display_rotation_get reads back, counterclockwise.)
        auto* matrix = reinterpret_cast<int32_t*>(
            av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t)));
        if (!matrix) return kErrGeneric;
        av_display_rotation_set(matrix, double(displayRotation));
    }
    videoCodecContext = std::move(context);
    hasVideo = true;
    return kOk;
}

bool MPEG4FileMuxer::setVideoExtraData(AVCodecContext* context, const VideoTrackInfo* info) {
    // Parameter sets that make an avcC record go to the file as one, and the
    // samples then get their length prefixes on the writing thread:
    // libavformat writes both as they are instead of scanning every sample
    // for start codes again.
    const std::vector<uint8_t> record = avcRecord(info->extraData, size_t(info->extraDataSize));
    videoLengthPrefixed = !record.empty();
    return videoLengthPrefixed ? replaceExtraData(context, record.data(), int(record.size()))
                               : replaceExtraData(context, info->extraData, info->extraDataSize);
}

int32_t MPEG4FileMuxer::addAudioTrack(const AudioTrackInfo* info) {
    if (!info) return kErrInvalidArgument;
    if (info->codecType != 1) return kErrNotFound;
    if (!formatContext || audioStream || state != 1) return kErrInvalidArgument;

    AVStream* stream = newTrackStream(AV_CODEC_ID_AAC, &audioEncoder);
    if (!stream) return kErrInvalidArgument;
    audioStream = stream;

    CodecContextHolder context(avcodec_alloc_context3(audioEncoder));
    if (!context) return kErrGeneric;
    context->codec_id = AV_CODEC_ID_AAC;
    context->codec_type = AVMEDIA_TYPE_AUDIO;
    const AVRational timeBase{1, info->sampleRate};
    stream->time_base = timeBase;
    stream->start_time = 0;
    context->time_base = timeBase;

    context->sample_rate = info->sampleRate;
    if (info->channels > 0) av_channel_layout_default(&context->ch_layout, info->channels);
    context->frame_size = 0x1000;
    switch (info->sampleBits) {
        case 8:
        case 16:
        case 32:
            break;
        default:
            return kErrInvalidArgument;
    }
    // The AAC encoder takes planar float only. It never encodes anything here,
    // so the declared sample width is validated above and not passed on.
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->block_align = 0;

    static const char* const kGlobalHeaderFormats[] = {"mp4", "mov", "3gp", "flv"};
    if (nameIsOneOf(outputFormat->name, kGlobalHeaderFormats, 4))
        context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;

    if (avcodec_open2(context.get(), audioEncoder, nullptr) < 0) return kErrGeneric;
    if (avcodec_parameters_from_context(stream->codecpar, context.get()) < 0) return kErrGeneric;
    audioCodecContext = std::move(context);
    hasAudio = true;
    return kOk;
}

int32_t MPEG4FileMuxer::start() {
    if (FileMuxer::start() != kOk) return kErrInvalidState;
    // After a stop the context is gone while hasAudio/hasVideo stay: a muxer
    // is not reused, and a start then must not reach a freed context.
    if ((!hasAudio && !hasVideo) || !formatContext) {
        FileMuxer::stop();
        return kErrInvalidState;
    }
    av_dump_format(formatContext.get(), 0, outputPath, 1);
    // Positive results mean success in this FFmpeg (how the streams were initialised).
    if (avformat_write_header(formatContext.get(), nullptr) < 0) return kErrFileIo;

    static const char* const kFilterFormats[] = {"flv", "mp4", "mov", "3gp"};
    if (nameContainsOneOf(outputFormat->name, kFilterFormats, 4) && hasAudio &&
        audioStream->codecpar->codec_id == AV_CODEC_ID_AAC) {
        // Without the filter samples go to the file unfiltered, as with a
        // filter that could not be made.
        const AVBitStreamFilter* filter = av_bsf_get_by_name("aac_adtstoasc");
        AVBSFContext* context = nullptr;
        if (filter && av_bsf_alloc(filter, &context) >= 0) {
            BitstreamFilterHolder holder(context);
            if (avcodec_parameters_copy(context->par_in, audioStream->codecpar) >= 0) {
                context->time_base_in = audioStream->time_base;
                if (av_bsf_init(context) >= 0) aacFilter = std::move(holder);
            }
        }
    }

    std::unique_ptr<MPEG4MuxerThread> thread(new (std::nothrow) MPEG4MuxerThread(this));
    if (!thread || !thread->startThread()) return kErrGeneric;
    muxerThread = std::move(thread);
    return kOk;
}

int32_t MPEG4FileMuxer::WriteSampleData(const uint8_t* data, int32_t size, int32_t track,
                                        int64_t pts, int64_t dts, uint32_t flags) {
    if (FileMuxer::WriteSampleData(data, size, track, pts, dts, flags) != kOk)
        return kErrInvalidState;
    if (track != kTrackAudio && track != kTrackVideo) return kErrInvalidState;
    // After a start that failed no thread drains the rings: a caller must not
    // wait for room that never comes.
    if (!muxerThread) return kErrInvalidState;

    // push only reads the bytes.
    BaseBuffer buffer(const_cast<uint8_t*>(data), size, pts, flags, dts);
    const bool audio = track == kTrackAudio;
    int64_t& lastDts = audio ? lastAudioDts : lastVideoDts;
    if (dts < lastDts && lastDts > 0) return kErrInvalidArgument;
    lastDts = dts;

    std::condition_variable& room = audio ? audioRoom : videoRoom;
    BaseBufferQueue& queue = audio ? audioQueue : videoQueue;
    std::unique_lock<std::mutex> lock(audio ? audioMutex : videoMutex);
    // A writer that has failed drains nothing more into the file: waiting for
    // room would hold the caller until stop, so it is told at once.
    room.wait(lock, [&] { return queue.count < queue.capacity || fileFailed.load(); });
    if (fileFailed.load()) return kErrFileIo;
    // push's refusal (oversize or null bytes) is passed on: it names the reason.
    const int32_t result = queue.push(&buffer);
    lock.unlock();
    {
        std::lock_guard<std::mutex> count(pushMutex);
        pushCount.fetch_add(1);
    }
    pushed.notify_one();
    return result;
}

int32_t MPEG4FileMuxer::stop() {
    if (FileMuxer::stop() != kOk) return kErrInvalidState;
    const bool started = muxerThread != nullptr;
    if (muxerThread) {
        muxerThread->stopAndJoin();
        muxerThread.reset();
    }
    // With no thread (the header or the thread start failed) the file is
    // closed by the context's holder below and has no trailer.
    audioCodecContext.reset();
    videoCodecContext.reset();
    formatContext.reset();
    audioStream = nullptr;
    videoStream = nullptr;
    outputFormat = nullptr;
    aacFilter.reset();
    lastVideoDts = kTimestampUnset;
    lastAudioDts = kTimestampUnset;
    state = 1;
    videoQueue.writeIndex = videoQueue.readIndex = videoQueue.count = 0;
    audioQueue.writeIndex = audioQueue.readIndex = audioQueue.count = 0;
    return started && fileFailed.load() ? kErrFileIo : kOk;
}
