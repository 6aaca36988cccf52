#include "decode/SoftMediaDecoderImpl.h"

#include <cstring>
#include <new>

#include "base/BasePacket.h"
#include "base/Results.h"
#include "decode/SoftMediaDecoder.h"

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
}

namespace Morvel_Tessalo {

SoftMediaDecoderImpl::SoftMediaDecoderImpl(int32_t kind) : mediaKind(kind) {
    // Made on the worker's thread, where nothing may throw: without memory
    // for the codec, open fails and every other operation does nothing.
    codec.reset(new (std::nothrow) SoftMediaDecoder(kind));
    // A failed init shows later, when open fails.
    if (codec) codec->init(1);
    output.data = kind == kMediaKindAudio ? reinterpret_cast<uint8_t*>(&audioInfo)
                                          : reinterpret_cast<uint8_t*>(&pictureInfo);
}

SoftMediaDecoderImpl::~SoftMediaDecoderImpl() = default;

int32_t SoftMediaDecoderImpl::inputData(uint8_t* data, int32_t size, int64_t pts, int64_t dts) {
    // Refused input leaves the packet staged before in place.
    if (!data || size < 1) return kErrInvalidArgument;
    if (!codec) return kErrInvalidState;
    input.data = data;
    input.size = size;
    input.pts = pts;
    input.dts = dts;
    return codec->inputBuffer(&input);
}

int32_t SoftMediaDecoderImpl::outputData(BasePacket* packet) {
    if (!codec) return 2;
    int32_t r = codec->outputBuffer(&output);
    if (r != kOk) return r == kErrInvalidArgument ? 2 : 0;
    if (!packet) return 2;
    if (mediaKind == kMediaKindVideo) return packPicture(packet);
    if (mediaKind == kMediaKindAudio) return copyAudio(packet);
    return 1;
}

namespace {

// The packed layout of a picture of this format and size: the planes one
// after another, rows without padding. False for a format that is not planar
// YUV or grey of 8 to 16 bits, which no output step could read.
bool describePlanes(const PlanarPictureInfo& info, PictureLayout* layout, int32_t rows[3], int64_t* blockSize) {
    AVPixelFormat format = static_cast<AVPixelFormat>(info.pixelFormat);
    bool fullRange = info.colorRange == AVCOL_RANGE_JPEG;
    // The yuvj formats are their yuv twins in full range; the range travels
    // on its own, so that one name means one layout.
    switch (format) {
    case AV_PIX_FMT_YUVJ420P: format = AV_PIX_FMT_YUV420P, fullRange = true; break;
    case AV_PIX_FMT_YUVJ422P: format = AV_PIX_FMT_YUV422P, fullRange = true; break;
    case AV_PIX_FMT_YUVJ444P: format = AV_PIX_FMT_YUV444P, fullRange = true; break;
    default: break;
    }
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
    if (!d || !(d->flags & AV_PIX_FMT_FLAG_PLANAR) || (d->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_BE)) ||
        (d->nb_components != 1 && d->nb_components != 3) || d->comp[0].depth < 8 || d->comp[0].depth > 16)
        return false;
    const int64_t sampleBytes = d->comp[0].depth > 8 ? 2 : 1;
    // 8-bit 4:2:0 keeps the I420 block of old, whose chroma rows are
    // width >> 1 bytes even for an odd width (H.264 never gives one); every
    // other format keeps its whole chroma planes.
    const bool i420 = format == AV_PIX_FMT_YUV420P;
    const int64_t w = info.width, h = info.height;
    const int64_t cw = i420 ? w >> 1 : (w + (1 << d->log2_chroma_w) - 1) >> d->log2_chroma_w;
    const int64_t ch = i420 ? h >> 1 : (h + (1 << d->log2_chroma_h) - 1) >> d->log2_chroma_h;
    layout->pixelFormat = format;
    layout->bitDepth = d->comp[0].depth;
    layout->planeCount = d->nb_components;
    layout->matrix = info.colorSpace;
    layout->fullRange = fullRange;
    int64_t offset = 0;
    for (int p = 0; p < layout->planeCount; ++p) {
        const int64_t stride = (p ? cw : w) * sampleBytes;
        layout->offsets[p] = static_cast<int32_t>(offset);
        layout->strides[p] = static_cast<int32_t>(stride);
        rows[p] = static_cast<int32_t>(p ? ch : h);
        offset += stride * rows[p];
        if (offset > INT32_MAX) return false;
    }
    *blockSize = i420 ? w * h * 3 / 2 : offset;
    return true;
}

}  // namespace

int32_t SoftMediaDecoderImpl::packPicture(BasePacket* packet) {
    auto* video = dynamic_cast<VideoPacket*>(packet);
    if (!video) return 2;
    const int32_t width = pictureInfo.width;
    const int32_t height = pictureInfo.height;
    if (width <= 0 || height <= 0) return 2;
    PictureLayout layout;
    int32_t rows[3] = {0, 0, 0};
    int64_t packed64 = 0;
    if (!describePlanes(pictureInfo, &layout, rows, &packed64) || packed64 > INT32_MAX) return 2;
    const uint32_t packed = static_cast<uint32_t>(packed64);
    if (packed != packet->size || !packet->data) {
        const bool replaced = packet->replaceBlock(packed);
        packet->size = replaced ? packed : 0;
        if (!replaced) return 2;
    }
    for (int plane = 0; plane < layout.planeCount; ++plane) {
        const uint8_t* src = pictureInfo.planes[plane];
        uint8_t* dst = packet->data + layout.offsets[plane];
        for (int32_t y = 0; y < rows[plane]; ++y, src += pictureInfo.strides[plane], dst += layout.strides[plane])
            std::memcpy(dst, src, static_cast<size_t>(layout.strides[plane]));
    }
    video->layout = layout;
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
            packet->size = 0;
            if (!packet->replaceBlock(n)) return 2;
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

int32_t SoftMediaDecoderImpl::open() { return codec && codec->start() == kOk ? 1 : 0; }

int32_t SoftMediaDecoderImpl::close() {
    if (!codec) return kOk;
    codec->stop();
    return codec->uninit();
}

void SoftMediaDecoderImpl::setParameter(int32_t id, void* value) {
    if (!codec) return;
    switch (id) {
    case kDecoderParamFlush:
        codec->setParameter(kCodecParamFlush, value);
        break;
    case kDecoderParamThreads:
        codec->setParameter(kCodecParamThreads, value);
        break;
    case kDecoderParamDrain:
        codec->setParameter(kCodecParamDrain, value);
        break;
    case kDecoderParamResume:
        codec->setParameter(kCodecParamResume, value);
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
