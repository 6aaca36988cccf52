#pragma once
// The one place where FFmpeg objects are given back: each holder is a
// unique_ptr whose deleter calls the object's own free function. Code that
// owns an FFmpeg object keeps it in one of these and never frees it by hand;
// the few places where FFmpeg's own objects must give something back early
// (an output file closed before its context, a codec context's extra data or
// channel layout replaced) go through the helpers here too.
#include <cstdint>
#include <cstring>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/buffer.h>
#include <libavutil/channel_layout.h>
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
// Closes the file of an output context when it has one open, and gives
// avio_closep's result (0 when there was nothing to close): a writer that
// closes before its context goes can see a close that failed.
inline int closeOutputFile(AVFormatContext* context) {
    if (!context->pb || !context->oformat || (context->oformat->flags & AVFMT_NOFILE)) return 0;
    return avio_closep(&context->pb);
}
// An output context owns its file too: the file is closed when it is still
// open (a writer that never reached its trailer) before the context goes.
struct OutputFormatFree {
    void operator()(AVFormatContext* context) const {
        closeOutputFile(context);
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
// The pool goes once the last of its buffers is given back.
struct BufferPoolFree {
    void operator()(AVBufferPool* pool) const { av_buffer_pool_uninit(&pool); }
};

// An AVChannelLayout held by value, unspecified at first: a custom layout's
// channel map goes with it.
struct ChannelLayoutHolder {
    ChannelLayoutHolder() = default;
    ~ChannelLayoutHolder() { av_channel_layout_uninit(&layout); }
    ChannelLayoutHolder(const ChannelLayoutHolder&) = delete;
    ChannelLayoutHolder& operator=(const ChannelLayoutHolder&) = delete;
    AVChannelLayout layout{};
};

// Gives a layout that FFmpeg owns (a codec context's) the default layout of
// `channels`, freeing the map of the one it had.
inline void setDefaultLayout(AVChannelLayout* layout, int channels) {
    av_channel_layout_uninit(layout);
    av_channel_layout_default(layout, channels);
}

// Gives a codec context a copy of `size` bytes of extra data, in place of
// any it had. FFmpeg reads extradata with its wide bit readers, so the copy
// has AV_INPUT_BUFFER_PADDING_SIZE zeroed bytes behind it. False (the context
// then has none) when there is no memory.
inline bool replaceExtraData(AVCodecContext* context, const uint8_t* data, int size) {
    av_freep(&context->extradata);
    context->extradata_size = 0;
    auto* copy = static_cast<uint8_t*>(av_mallocz(static_cast<size_t>(size) + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!copy) return false;
    std::memcpy(copy, data, static_cast<size_t>(size));
    context->extradata = copy;
    context->extradata_size = size;
    return true;
}

}  // namespace ffmpeg_holders

using ffmpeg_holders::ChannelLayoutHolder;
using ffmpeg_holders::closeOutputFile;
using ffmpeg_holders::setDefaultLayout;
using ffmpeg_holders::replaceExtraData;

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
// Any other object that FFmpeg allocates with av_malloc and frees with
// av_free (av_md5_alloc's context, for one).
template <class T>
using AvObjectHolder = std::unique_ptr<T, ffmpeg_holders::BlockFree>;
// AVDictionary is built through a pointer-to-pointer: fill a raw pointer, then
// hand it to a holder (or use DictionaryHolder::release / reset around the calls).
using DictionaryHolder = std::unique_ptr<AVDictionary, ffmpeg_holders::DictionaryFree>;
// An I/O context made with avio_alloc_context, with its buffer.
using IOContextHolder = std::unique_ptr<AVIOContext, ffmpeg_holders::IOContextFree>;
using ParserHolder = std::unique_ptr<AVCodecParserContext, ffmpeg_holders::ParserFree>;
using BufferPoolHolder = std::unique_ptr<AVBufferPool, ffmpeg_holders::BufferPoolFree>;

// Opens `path` for reading; null when libavformat cannot (the reason is in
// `error` when given: FFmpeg's code, below zero).
inline InputFormatHolder openInput(const char* path, int* error = nullptr) {
    AVFormatContext* context = nullptr;
    const int result = avformat_open_input(&context, path, nullptr, nullptr);
    if (error) *error = result < 0 ? result : 0;
    return InputFormatHolder(result < 0 ? nullptr : context);
}
