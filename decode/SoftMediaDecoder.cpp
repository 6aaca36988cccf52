#include "decode/SoftMediaDecoder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "base/BaseBuffer.h"
#include "base/Log.h"
#include "base/Results.h"
#include "decode/DecoderBase.h"
#include "decode/FrameInfo.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

using Morvel_Tessalo::kMediaKindAudio;
using Morvel_Tessalo::kMediaKindVideo;

namespace {

// Codec id for each (kind, codec type) pair that init accepts.
AVCodecID codecIdFor(int32_t kind, int32_t type) {
    if (kind == kMediaKindVideo) {
        switch (type) {
        case 1: return AV_CODEC_ID_H264;
        case 3: return AV_CODEC_ID_MPEG2TS;
        case 4: return AV_CODEC_ID_MPEG4;
        case 6: return AV_CODEC_ID_VP8;
        default: return AV_CODEC_ID_NONE;
        }
    }
    if (kind == kMediaKindAudio) {
        switch (type) {
        case 0: return AV_CODEC_ID_MP3;
        case 1: return AV_CODEC_ID_AAC;
        case 2: return AV_CODEC_ID_AC3;
        default: return AV_CODEC_ID_NONE;
        }
    }
    return AV_CODEC_ID_NONE;
}

bool isNoFrame(int r) { return r == AVERROR(EAGAIN) || r == AVERROR_EOF; }

}  // namespace

SoftMediaDecoder::SoftMediaDecoder(int32_t kind) : mediaKind(kind) {
    // Codec registration is automatic in current FFmpeg: nothing to call here.
}

SoftMediaDecoder::~SoftMediaDecoder() {
    // context and frame belong to uninit, which the owner calls first; the
    // holders release them anyway if it did not.
}

bool SoftMediaDecoder::makeContext() {
    context.reset(avcodec_alloc_context3(decoder));
    if (!context) return false;
    if (mediaKind == kMediaKindAudio) context->sample_fmt = AV_SAMPLE_FMT_S16;
    return true;
}

int32_t SoftMediaDecoder::init(int32_t type) {
    if (state != kCodecStateUninit) return kErrInvalidState;
    AVCodecID id = codecIdFor(mediaKind, type);
    decoder = id == AV_CODEC_ID_NONE ? nullptr : avcodec_find_decoder(id);
    if (!decoder) {
        Log("SoftMediaDecoder", "no decoder for kind %d type %d", mediaKind, type);
        return kErrUnsupported;
    }
    if (!makeContext()) return kErrGeneric;
    if (mediaKind == kMediaKindAudio && !audioOut) {
        audioOut.reset(static_cast<uint8_t*>(av_malloc(kCodecAudioOutRoom)));
        if (!audioOut) return kErrGeneric;
    }
    frame.reset(av_frame_alloc());
    if (!frame) return kErrGeneric;
    if (!packet) {
        packet.reset(av_packet_alloc());
        if (!packet) return kErrGeneric;
    }
    codecType = type;
    state = kCodecStateInit;
    return kOk;
}

int32_t SoftMediaDecoder::uninit() {
    if (state != kCodecStateInit && state != kCodecStateStopped) return kErrInvalidState;
    if (decoder) {
        context.reset();
        frame.reset();
    }
    state = kCodecStateUninit;
    return kOk;
}

int32_t SoftMediaDecoder::setParameter(int32_t id, void* value) {
    switch (id) {
    case kCodecParamExtraData:
        return stageExtraData(static_cast<BaseBuffer*>(value));
    case kCodecParamFlush:
        if (state != kCodecStateStarted) return kErrInvalidState;
        flushing = true;
        avcodec_flush_buffers(context.get());
        return kOk;
    case kCodecParamThreads:
        if (state == kCodecStateInit && value) threadCount = *static_cast<int32_t*>(value);
        return kOk;
    case kCodecParamDrain:
        // The next decode calls send the end of the stream and collect, one
        // by one, the pictures that frame threads and reordering still hold.
        if (state != kCodecStateStarted) return kErrInvalidState;
        draining = true;
        return kOk;
    case kCodecParamResume:
        // A drained decoder takes no input until it has been reset; the reset
        // also forgets what it knew of references and recovery points.
        if (state != kCodecStateStarted) return kErrInvalidState;
        avcodec_flush_buffers(context.get());
        draining = false;
        return kOk;
    case kCodecParamSampleRate:
    case kCodecParamSampleBits:
    case kCodecParamChannels:
        return setAudioParameter(id, value);
    default:
        return kErrUnsupported;
    }
}

int32_t SoftMediaDecoder::stageExtraData(const BaseBuffer* in) {
    if (state != kCodecStateInit) return kErrInvalidState;
    if (!in) return kErrInvalidArgument;
    if (!extraData) {
        extraDataBlock.reset(static_cast<uint8_t*>(av_malloc(kCodecExtraDataRoom)));
        if (!extraDataBlock) return kErrGeneric;
        extraData.reset(new (std::nothrow) BaseBuffer(extraDataBlock.get(), 0, 0, 0, 0));
        if (!extraData) return kErrGeneric;
    }
    // Private data larger than the staging block is cut to the block: no
    // H.264 or AAC configuration comes near 1 MiB, and nothing may overrun.
    int32_t n = std::clamp(in->size, 0, kCodecExtraDataRoom);
    if (n > 0 && in->data) std::memcpy(extraData->data, in->data, n);
    extraData->size = in->data ? n : 0;
    return kOk;
}

int32_t SoftMediaDecoder::setAudioParameter(int32_t id, void* value) {
    if (mediaKind != kMediaKindAudio) return kErrUnsupported;
    // The audio settings go straight to the context; without one (before
    // init) there is nothing to set.
    if (!context) return kErrInvalidState;
    if (!value) return kErrInvalidArgument;
    int32_t v = *static_cast<int32_t*>(value);
    if (id == kCodecParamSampleRate) {
        context->sample_rate = v;
    } else if (id == kCodecParamSampleBits) {
        if (v == 8) context->sample_fmt = AV_SAMPLE_FMT_U8;
        else if (v == 16) context->sample_fmt = AV_SAMPLE_FMT_S16;
        else if (v == 32) context->sample_fmt = AV_SAMPLE_FMT_S32;
        else return kErrInvalidArgument;
    } else {
        setDefaultLayout(&context->ch_layout, v);
    }
    return kOk;
}

int32_t SoftMediaDecoder::start() {
    if (state != kCodecStateInit && state != kCodecStateStopped) return kErrInvalidState;
    // A stopped context cannot be opened again in current FFmpeg, so a start
    // after stop opens a fresh one with the same codec.
    if (state == kCodecStateStopped && !makeContext()) return kErrGeneric;
    AVCodecContext* c = context.get();
    if (mediaKind == kMediaKindVideo && threadCount >= 2 && codecType == 1) {
        // Frame threading: AVCodec is const now, so the thread type on the
        // context takes the place of setting the capability on the codec.
        c->thread_type = FF_THREAD_FRAME;
        c->flags &= ~AV_CODEC_FLAG_LOW_DELAY;  // the truncated flag no longer exists
        c->flags2 &= ~AV_CODEC_FLAG2_CHUNKS;
        c->thread_count = threadCount;
        c->skip_loop_filter = AVDISCARD_NONE;
    } else {
        c->thread_count = threadCount;
        c->flags2 |= AV_CODEC_FLAG2_CHUNKS;
    }
    if (extraData && extraData->data && extraData->size > 0) {
        if (!replaceExtraData(c, extraData->data, static_cast<int>(extraData->size))) return kErrGeneric;
        extraData->size = 0;
    }
    if (avcodec_open2(c, decoder, nullptr) < 0) {
        Log("SoftMediaDecoder", "avcodec_open2 failed");
        return kErrInvalidState;
    }
    flushing = false;
    draining = false;
    state = kCodecStateStarted;
    return kOk;
}

int32_t SoftMediaDecoder::stop() {
    if (state != kCodecStateStarted) return kErrInvalidState;
    // avcodec_close is discouraged now; freeing the context closes it and
    // frees its extradata, and start makes a new one.
    context.reset();
    resampler.reset();
    packet->data = nullptr;
    packet->size = 0;
    state = kCodecStateStopped;
    return kOk;
}

int32_t SoftMediaDecoder::inputBuffer(BaseBuffer* buffer) {
    if (state != kCodecStateStarted) return kErrInvalidState;
    if (!buffer || !buffer->data || buffer->size < 1) return kErrInvalidArgument;
    // The packet only points at the caller's bytes; they are not reference
    // counted, so avcodec_send_packet makes the one padded copy that FFmpeg
    // needs to keep them past the call (frame threads decode later).
    packet->data = buffer->data;
    packet->size = buffer->size;
    packet->pts = buffer->pts;
    packet->dts = buffer->dts;
    return kOk;
}

// One send and one receive: the successor of one decode call per packet.
// Returns 0 with a frame in `frame`, kErrNoFrame, or kErrInvalidArgument.
int32_t SoftMediaDecoder::decodeOnce(bool clearAfterSend) {
    AVCodecContext* c = context.get();
    AVPacket* p = packet->size > 0 ? packet.get() : nullptr;  // empty: drain
    bool got = false;
    int sent = avcodec_send_packet(c, p);
    if (sent == AVERROR(EAGAIN)) {
        // The decoder holds a finished frame and takes no input until it is
        // collected: collect it, then the sample goes in, so none is dropped.
        int r = avcodec_receive_frame(c, frame.get());
        if (r == 0) got = true;
        else if (!isNoFrame(r)) sent = r;
        if (r == 0 || isNoFrame(r)) sent = avcodec_send_packet(c, p);
    }
    if (clearAfterSend) {
        packet->data = nullptr;
        packet->size = 0;
    }
    if (sent < 0 && sent != AVERROR_EOF) {
        if (got) return kOk;  // the sample's error shows with a later frame
        return kErrInvalidArgument;
    }
    if (got) return kOk;
    int r = avcodec_receive_frame(c, frame.get());
    if (r == 0) return kOk;
    return isNoFrame(r) ? kErrNoFrame : kErrInvalidArgument;
}

int32_t SoftMediaDecoder::outputBuffer(BaseBuffer* out) {
    if (state != kCodecStateStarted) return kErrInvalidState;
    if (!flushing && !draining && packet->size == 0) return kErrNoFrame;
    av_frame_unref(frame.get());
    if (!out || !out->data) return kErrInvalidArgument;
    if (mediaKind == kMediaKindVideo) return outputVideo(out);
    if (mediaKind == kMediaKindAudio) return outputAudio(out);
    return kOk;
}

int32_t SoftMediaDecoder::outputVideo(BaseBuffer* out) {
    int32_t r = decodeOnce(!flushing);
    if (r != kOk) return r;
    AVFrame* f = frame.get();
    auto* info = reinterpret_cast<PlanarPictureInfo*>(out->data);
    for (int i = 0; i < 3; ++i) {
        info->planes[i] = f->data[i];
        info->strides[i] = f->linesize[i];
    }
    info->formatTag = kPlanarFormatTag;
    info->pixelFormat = f->format;
    info->colorRange = f->color_range;
    info->colorSpace = f->colorspace;
    info->width = f->width;
    info->height = f->height;
    // frame->pts is the successor of pkt_pts: the pts of the packet this
    // picture came from.
    info->pts = f->pts;
    out->pts = f->pts;
    out->flags = f->key_frame ? 1u : 0u;
    return kOk;
}

int32_t SoftMediaDecoder::outputAudio(BaseBuffer* out) {
    // The staged packet stays in place for audio.
    if (decodeOnce(false) != kOk) return kErrNoFrame;
    AVFrame* f = frame.get();
    auto* info = reinterpret_cast<AudioFrameInfo*>(out->data);
    if (context->sample_fmt == AV_SAMPLE_FMT_S16) {
        info->samples = f->data[0];
        info->size = f->linesize[0];
        info->channels = f->ch_layout.nb_channels;
        info->sampleRate = f->sample_rate;
    } else if (convertAudio() == kOk) {
        info->samples = audioOut.get();
        info->size = f->nb_samples * 4;
        info->channels = 2;
        info->sampleRate = f->sample_rate;
    }
    out->pts = f->pts;
    return kOk;
}

int32_t SoftMediaDecoder::convertAudio() {
    AVFrame* f = frame.get();
    // The input layout is the frame's own when it carries one: that is what
    // swr_convert will read. A frame with only a channel count gets the
    // default layout for that count.
    ChannelLayoutHolder in;
    AVChannelLayout& inLayout = in.layout;
    if (f->ch_layout.order != AV_CHANNEL_ORDER_UNSPEC) {
        if (av_channel_layout_copy(&inLayout, &f->ch_layout) < 0) return kErrGeneric;
    } else {
        av_channel_layout_default(&inLayout, f->ch_layout.nb_channels);
    }
    ChannelLayoutHolder out;
    AVChannelLayout& outLayout = out.layout;
    av_channel_layout_default(&outLayout, 2);  // stereo
    if (f->ch_layout.nb_channels == 2 && f->ch_layout.order != AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_copy(&outLayout, &f->ch_layout);
    // The room is counted in samples per channel here, and audioOut holds
    // kCodecAudioOutRoom bytes of 16-bit stereo: never ask for more than fits.
    int outSize = std::min(f->nb_samples * 4, kCodecAudioOutRoom / 4);
    int32_t result = kOk;
    if (!resampler) resampler.reset(swr_alloc());
    if (!resampler) {
        result = kErrNoContext;
    } else {
        SwrContext* s = resampler.get();
        if (swr_alloc_set_opts2(&s, &outLayout, AV_SAMPLE_FMT_S16, f->sample_rate, &inLayout,
                                context->sample_fmt, f->sample_rate, 0, nullptr) < 0) {
            resampler.reset();
            result = kErrNotFound;
        } else if (swr_init(s) < 0) {
            resampler.reset();
            result = kErrNoContext;
        } else {
            uint8_t* dst = audioOut.get();
            int n = swr_convert(s, &dst, outSize, const_cast<const uint8_t**>(f->extended_data),
                                f->nb_samples);
            if (n < 0) {
                resampler.reset();
                result = kErrGeneric;
            } else if (n == outSize) {
                resampler.reset();
                result = kErrNoFrame;
            }
        }
    }
    return result;
}
