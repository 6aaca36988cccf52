#pragma once
// The one place where FFmpeg objects are given back: each holder is a
// unique_ptr whose deleter calls the object's own free function. Code that
// owns an FFmpeg object keeps it in one of these and never frees it by hand.
#include <cstdint>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace ffmpeg_holders {

struct InputFormatFree {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
// An output context owns its file too: the file is closed when it is still
// open (a writer that never reached its trailer) before the context goes.
struct OutputFormatFree {
    void operator()(AVFormatContext* context) const {
        if (context->pb && context->oformat && !(context->oformat->flags & AVFMT_NOFILE))
            avio_closep(&context->pb);
        avformat_free_context(context);
    }
};
struct CodecContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct ResamplerFree {
    void operator()(SwrContext* resampler) const { swr_free(&resampler); }
};
struct ScalerFree {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};
struct BitstreamFilterFree {
    void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
};
struct BlockFree {
    void operator()(void* block) const { av_free(block); }
};
struct DictionaryFree {
    void operator()(AVDictionary* dictionary) const { av_dict_free(&dictionary); }
};
// libavformat may swap the buffer a custom I/O context was given for one of
// its own: the one in use goes with the context.
struct IOContextFree {
    void operator()(AVIOContext* io) const {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
struct ParserFree {
    void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
};

}  // namespace ffmpeg_holders

using InputFormatHolder = std::unique_ptr<AVFormatContext, ffmpeg_holders::InputFormatFree>;
using OutputFormatHolder = std::unique_ptr<AVFormatContext, ffmpeg_holders::OutputFormatFree>;
using CodecContextHolder = std::unique_ptr<AVCodecContext, ffmpeg_holders::CodecContextFree>;
using PacketHolder = std::unique_ptr<AVPacket, ffmpeg_holders::PacketFree>;
using FrameHolder = std::unique_ptr<AVFrame, ffmpeg_holders::FrameFree>;
using ResamplerHolder = std::unique_ptr<SwrContext, ffmpeg_holders::ResamplerFree>;
using ScalerHolder = std::unique_ptr<SwsContext, ffmpeg_holders::ScalerFree>;
using BitstreamFilterHolder = std::unique_ptr<AVBSFContext, ffmpeg_holders::BitstreamFilterFree>;
// A block from av_malloc (extradata, buffers handed to FFmpeg).
using AvBlockHolder = std::unique_ptr<uint8_t, ffmpeg_holders::BlockFree>;
// AVDictionary is built through a pointer-to-pointer: fill a raw pointer, then
// hand it to a holder (or use DictionaryHolder::release / reset around the calls).
using DictionaryHolder = std::unique_ptr<AVDictionary, ffmpeg_holders::DictionaryFree>;
// An I/O context made with avio_alloc_context, with its buffer.
using IOContextHolder = std::unique_ptr<AVIOContext, ffmpeg_holders::IOContextFree>;
using ParserHolder = std::unique_ptr<AVCodecParserContext, ffmpeg_holders::ParserFree>;
