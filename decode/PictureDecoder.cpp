#include "decode/PictureDecoder.h"

#include <cstring>

bool PictureDecoder::open(const uint8_t* sets, int32_t size) {
    const AVCodec* h264 = avcodec_find_decoder(AV_CODEC_ID_H264);
    if (!h264) return false;
    context.reset(avcodec_alloc_context3(h264));
    packet.reset(av_packet_alloc());
    frame.reset(av_frame_alloc());
    if (!context || !packet || !frame) return false;
    if (sets && size > 0) {
        // FFmpeg reads extradata with wide bit readers: zeroed padding behind it.
        context->extradata = static_cast<uint8_t*>(av_mallocz(size_t(size) + AV_INPUT_BUFFER_PADDING_SIZE));
        if (!context->extradata) return false;
        std::memcpy(context->extradata, sets, size_t(size));
        context->extradata_size = size;
    }
    // A picture that is not whole must not be taken for the one asked.
    context->flags &= ~AV_CODEC_FLAG_OUTPUT_CORRUPT;
    context->thread_type = FF_THREAD_FRAME;
    context->thread_count = 2;
    return avcodec_open2(context.get(), h264, nullptr) >= 0;
}

bool PictureDecoder::decode(const uint8_t* sample, int32_t size, int64_t pts, const Take& take) {
    if (!context) return false;
    // The decoder copies the bytes it keeps: the packet only lends them.
    packet->data = const_cast<uint8_t*>(sample);
    packet->size = size;
    packet->pts = pts;
    packet->dts = AV_NOPTS_VALUE;
    int sent = avcodec_send_packet(context.get(), packet.get());
    while (sent == AVERROR(EAGAIN)) {
        // Full: what is ready comes out first.
        if (!receive(take)) return false;
        sent = avcodec_send_packet(context.get(), packet.get());
    }
    packet->data = nullptr;
    packet->size = 0;
    if (sent < 0 && sent != AVERROR_INVALIDDATA) return false;
    return receive(take);
}

bool PictureDecoder::drain(const Take& take) {
    if (!context) return false;
    const int sent = avcodec_send_packet(context.get(), nullptr);
    if (sent < 0 && sent != AVERROR_EOF) return false;
    return receive(take);
}

bool PictureDecoder::receive(const Take& take) {
    for (;;) {
        const int got = avcodec_receive_frame(context.get(), frame.get());
        if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return true;
        // A damaged sample fails its own picture, not the run.
        if (got == AVERROR_INVALIDDATA) continue;
        if (got < 0) return false;
        const bool whole = !(frame->flags & AV_FRAME_FLAG_CORRUPT) && frame->decode_error_flags == 0;
        const bool goOn = !whole || take(*frame);
        av_frame_unref(frame.get());
        if (!goOn) return false;
    }
}
