#include "decode/SoftMediaDecoderImpl.h"

#include <cstring>

#include "base/BasePacket.h"
#include "base/Results.h"
#include "decode/SoftMediaDecoder.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace Morvel_Tessalo {

SoftMediaDecoderImpl::SoftMediaDecoderImpl(int32_t kind) : mediaKind(kind) {
    codec = new SoftMediaDecoder(kind);
    // A failed init shows later, when open fails.
    codec->init(1);
    output.data = kind == kMediaKindAudio ? reinterpret_cast<uint8_t*>(&audioInfo)
                                          : reinterpret_cast<uint8_t*>(&pictureInfo);
}

SoftMediaDecoderImpl::~SoftMediaDecoderImpl() { delete codec; }

int32_t SoftMediaDecoderImpl::inputData(uint8_t* data, int32_t size, int64_t pts, int64_t dts) {
    // Refused input leaves the packet staged before in place.
    if (!data || size < 1) return kErrInvalidArgument;
    input.data = data;
    input.size = size;
    input.pts = pts;
    input.dts = dts;
    return codec->inputBuffer(&input);
}

int32_t SoftMediaDecoderImpl::outputData(BasePacket* packet) {
    int32_t r = codec->outputBuffer(&output);
    if (r != kOk) return r == kErrInvalidArgument ? 2 : 0;
    if (!packet) return 2;
    if (mediaKind == kMediaKindVideo) return packPicture(packet);
    if (mediaKind == kMediaKindAudio) return copyAudio(packet);
    return 1;
}

int32_t SoftMediaDecoderImpl::packPicture(BasePacket* packet) {
    auto* video = dynamic_cast<VideoPacket*>(packet);
    if (!video) return 2;
    const int32_t width = pictureInfo.width;
    const int32_t height = pictureInfo.height;
    if (width <= 0 || height <= 0) return 2;
    // For odd sizes the chroma planes are (width >> 1) x (height >> 1), which
    // leaves a few bytes at the end of the block unwritten.
    const int64_t packed64 = static_cast<int64_t>(width) * height * 3 / 2;
    if (packed64 > INT32_MAX) return 2;
    const uint32_t packed = static_cast<uint32_t>(packed64);
    if (packed != packet->size || !packet->data) {
        av_free(packet->data);
        packet->data = static_cast<uint8_t*>(av_malloc(packed));
        packet->size = packet->data ? packed : 0;
        if (!packet->data) return 2;
    }
    uint8_t* dst = packet->data;
    const uint8_t* src = pictureInfo.planes[0];
    for (int32_t y = 0; y < height; ++y, src += pictureInfo.strides[0], dst += width)
        std::memcpy(dst, src, width);
    const int32_t cw = width >> 1;
    const int32_t ch = height >> 1;
    for (int plane = 1; plane < 3; ++plane) {
        src = pictureInfo.planes[plane];
        for (int32_t y = 0; y < ch; ++y, src += pictureInfo.strides[plane], dst += cw)
            std::memcpy(dst, src, cw);
    }
    video->keyFrame = output.flags != 0;
    video->pts = output.pts;
    video->dts = output.pts;
    video->width = width;
    video->height = height;
    return 1;
}

int32_t SoftMediaDecoderImpl::copyAudio(BasePacket* packet) {
    if (audioInfo.samples && audioInfo.size > 0) {
        const uint32_t n = static_cast<uint32_t>(audioInfo.size);
        // Grow only: the block keeps its room when a frame is shorter, but
        // `size` always says how many bytes are valid; a later larger frame
        // replaces the block, since its room is no longer known here.
        if (n > packet->size || !packet->data) {
            av_free(packet->data);
            packet->data = static_cast<uint8_t*>(av_malloc(n));
            packet->size = 0;
            if (!packet->data) return 2;
        }
        std::memcpy(packet->data, audioInfo.samples, n);
        packet->size = n;
    }
    packet->keyFrame = output.flags != 0;
    packet->pts = output.pts;
    packet->dts = output.pts;
    if (auto* video = dynamic_cast<VideoPacket*>(packet)) {
        video->sampleRate = audioInfo.sampleRate;
        video->height = audioInfo.channels;
    }
    return 1;
}

int32_t SoftMediaDecoderImpl::open() { return codec->start() == kOk ? 1 : 0; }

int32_t SoftMediaDecoderImpl::close() {
    codec->stop();
    return codec->uninit();
}

void SoftMediaDecoderImpl::setParameter(int32_t id, void* value) {
    switch (id) {
    case kDecoderParamFlush:
        codec->setParameter(kCodecParamFlush, value);
        break;
    case kDecoderParamThreads:
        codec->setParameter(kCodecParamThreads, value);
        break;
    case kDecoderParamExtraSize:
        if (value) extraDataSize = *static_cast<int32_t*>(value);
        break;
    case kDecoderParamExtraData: {
        BaseBuffer extra(static_cast<uint8_t*>(value), extraDataSize, 0, 0, 0);
        codec->setParameter(kCodecParamExtraData, &extra);
        break;
    }
    default:
        break;  // other ids are ignored
    }
}

}  // namespace Morvel_Tessalo
