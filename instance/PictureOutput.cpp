// Picture output: the decoder's packed picture in the host's chosen form.
#include "instance/PictureOutput.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}
#include <libyuv/convert_argb.h>

namespace Morvel_Tessalo {

namespace {

// Gives `*block` exactly `size` bytes. The block follows the current picture:
// a later file with larger pictures, or a switch from format 0 to 24-bit, would
// otherwise overrun a block sized for the first picture, and a smaller one
// would have TSL_GetPic copy stale bytes. Pictures of one size and format, the
// usual run, keep the block and allocate nothing.
bool fitBlock(std::unique_ptr<uint8_t[]>* block, int32_t* blockSize, int64_t size) {
    if (size <= 0 || size > INT32_MAX) return false;
    if (*block && *blockSize == size) return true;
    block->reset(new (std::nothrow) uint8_t[static_cast<size_t>(size)]);
    *blockSize = *block ? static_cast<int32_t>(size) : 0;
    return *block != nullptr;
}

bool isI420(const PictureLayout& layout) { return layout.pixelFormat == AV_PIX_FMT_YUV420P && layout.bitDepth == 8; }

// Whether every plane the layout names lies inside the block, with rows at
// least as long as the picture is wide.
bool layoutFits(const VideoPacket& picture) {
    const PictureLayout& l = picture.layout;
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(l.pixelFormat));
    if (!d || l.planeCount != d->nb_components || (l.planeCount != 1 && l.planeCount != 3)) return false;
    const int64_t sampleBytes = l.bitDepth > 8 ? 2 : 1;
    for (int p = 0; p < l.planeCount; ++p) {
        // The I420 block keeps width >> 1 chroma columns and height >> 1 rows.
        const int sx = p == 0 ? 0 : d->log2_chroma_w, sy = p == 0 ? 0 : d->log2_chroma_h;
        const int64_t w = p && isI420(l) ? picture.width >> 1 : (int64_t{picture.width} + (1 << sx) - 1) >> sx;
        const int64_t h = p && isI420(l) ? picture.height >> 1 : (int64_t{picture.height} + (1 << sy) - 1) >> sy;
        if (l.offsets[p] < 0 || l.strides[p] < w * sampleBytes ||
            l.offsets[p] + int64_t{l.strides[p]} * h > int64_t{picture.size})
            return false;
    }
    return true;
}

// libyuv's constants for a BT.601 picture, the matrix of every stream that
// names none (FFmpeg's own conversions take it so too), or null. libyuv's
// BT.709 and BT.2020 tables miss saturated colours by up to 9 levels in
// blue: those pictures go through libswscale, which is exact to 1.
const libyuv::YuvConstants* yuvConstants(const PictureLayout& layout) {
    switch (layout.matrix) {
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M:
    case AVCOL_SPC_UNSPECIFIED:
        return layout.fullRange ? &libyuv::kYuvJPEGConstants : &libyuv::kYuvI601Constants;
    default:
        return nullptr;
    }
}

// 8-bit 4:2:0 to bottom-up BGR through libyuv, straight from the block.
void i420ToBgr(const VideoPacket& picture, const libyuv::YuvConstants* constants, uint8_t* out) {
    const int32_t width = picture.width, height = picture.height;
    const uint8_t* y = picture.data;
    const uint8_t* u = picture.data + picture.layout.offsets[1];
    const uint8_t* v = picture.data + picture.layout.offsets[2];
    const int32_t cw = width >> 1, ch = height >> 1;
    int32_t chromaStride = cw;
    // libyuv reads (width + 1) / 2 chroma samples a row and (height + 1) / 2
    // rows, one more than the block holds for odd sizes: those go through a
    // copy of the chroma with the last column and row repeated. Even sizes,
    // every H.264 picture in practice, convert in place.
    std::vector<uint8_t> padded;
    if ((width & 1) || (height & 1)) {
        const int32_t pw = (width + 1) / 2, ph = (height + 1) / 2;
        padded.assign(static_cast<size_t>(pw) * ph * 2, 0x80);
        for (int plane = 0; plane < 2; ++plane) {
            const uint8_t* src = plane == 0 ? u : v;
            uint8_t* dst = padded.data() + static_cast<size_t>(plane) * pw * ph;
            for (int32_t row = 0; row < ph; ++row) {
                const int32_t from = std::min(row, ch - 1);
                if (from < 0 || cw == 0) break;  // 1-pixel sizes: neutral chroma
                std::memcpy(dst + static_cast<size_t>(row) * pw, src + static_cast<size_t>(from) * cw, cw);
                if (pw > cw) dst[static_cast<size_t>(row) * pw + cw] = src[static_cast<size_t>(from) * cw + cw - 1];
            }
        }
        u = padded.data();
        v = padded.data() + static_cast<size_t>(pw) * ph;
        chromaStride = pw;
    }
    // Negative height: the first row written is the picture's bottom row.
    libyuv::I420ToRGB24Matrix(y, width, u, chromaStride, v, chromaStride, out, 3 * width, constants, width,
                              -height);
}

// Any layout to `target` (8-bit I420 in limited range, or BGR24) through
// libswscale. The source matrix and range come from the layout; I420 keeps
// the matrix, so only the range and the depth change on that way.
bool scalePicture(const VideoPacket& picture, ScalerHolder* scaler, AVPixelFormat target, uint8_t* const dst[4],
                  const int dstStride[4]) {
    const PictureLayout& l = picture.layout;
    auto source = static_cast<AVPixelFormat>(l.pixelFormat);
    // libswscale picks a plain copy for equal formats before it looks at the
    // ranges: a full-range 8-bit source is named by its yuvj format, which
    // tells the range from the start.
    if (l.fullRange && source == AV_PIX_FMT_YUV420P) source = AV_PIX_FMT_YUVJ420P;
    if (l.fullRange && source == AV_PIX_FMT_YUV422P) source = AV_PIX_FMT_YUVJ422P;
    if (l.fullRange && source == AV_PIX_FMT_YUV444P) source = AV_PIX_FMT_YUVJ444P;
    // Bicubic chroma, as the ffmpeg tool converts; full chroma and accurate
    // rounding for the 24-bit output, whose colours are the point.
    const int flags = SWS_BICUBIC | SWS_ACCURATE_RND | (target == AV_PIX_FMT_BGR24 ? SWS_FULL_CHR_H_INT : 0);
    scaler->reset(sws_getCachedContext(scaler->release(), picture.width, picture.height, source, picture.width,
                                       picture.height, target, flags, nullptr, nullptr, nullptr));
    if (!*scaler) return false;
    const int* coefficients = sws_getCoefficients(l.matrix);
    sws_setColorspaceDetails(scaler->get(), coefficients, l.fullRange ? 1 : 0, coefficients,
                             target == AV_PIX_FMT_BGR24 ? 1 : 0, 0, 1 << 16, 1 << 16);
    const uint8_t* src[4] = {nullptr, nullptr, nullptr, nullptr};
    int srcStride[4] = {0, 0, 0, 0};
    for (int p = 0; p < l.planeCount; ++p) {
        src[p] = picture.data + l.offsets[p];
        srcStride[p] = l.strides[p];
    }
    return sws_scale(scaler->get(), src, srcStride, 0, picture.height, dst, dstStride) == picture.height;
}

}  // namespace

void convertPicture(const VideoPacket& picture, ScalerHolder* scaler, std::unique_ptr<uint8_t[]>* outputPicture,
                    int32_t* outputPictureSize, int32_t outputFormat) {
    const int32_t width = picture.width, height = picture.height;
    if (!picture.data || picture.size == 0 || width <= 0 || height <= 0 || !layoutFits(picture)) return;
    const PictureLayout& layout = picture.layout;
    if (outputFormat == 0) {
        if (isI420(layout) && !layout.fullRange) {
            // The decoder's block is already the host's: byte for byte.
            if (fitBlock(outputPicture, outputPictureSize, picture.size))
                std::memcpy(outputPicture->get(), picture.data, picture.size);
            return;
        }
        const int32_t cw = (width + 1) / 2, ch = (height + 1) / 2;
        if (!fitBlock(outputPicture, outputPictureSize, int64_t{width} * height + 2 * int64_t{cw} * ch)) return;
        uint8_t* y = outputPicture->get();
        uint8_t* const dst[4] = {y, y + int64_t{width} * height, y + int64_t{width} * height + int64_t{cw} * ch,
                                 nullptr};
        const int dstStride[4] = {width, cw, cw, 0};
        scalePicture(picture, scaler, AV_PIX_FMT_YUV420P, dst, dstStride);
        return;
    }

    // The conversion writes 3 x width x height bytes whatever the format
    // number says; a format whose buffer size is smaller (or an error) must
    // not shrink the block below that.
    const int64_t rgbBytes = 3 * int64_t{width} * height;
    const int64_t named = av_image_get_buffer_size(static_cast<AVPixelFormat>(outputFormat), width, height, 1);
    if (!fitBlock(outputPicture, outputPictureSize, std::max(named, rgbBytes))) return;
    const libyuv::YuvConstants* constants = yuvConstants(layout);
    if (isI420(layout) && constants) {
        i420ToBgr(picture, constants, outputPicture->get());
        return;
    }
    // Bottom-up through a negative stride from the last row.
    uint8_t* const dst[4] = {outputPicture->get() + (rgbBytes - 3 * width), nullptr, nullptr, nullptr};
    const int dstStride[4] = {-3 * width, 0, 0, 0};
    scalePicture(picture, scaler, AV_PIX_FMT_BGR24, dst, dstStride);
}

}  // namespace Morvel_Tessalo
