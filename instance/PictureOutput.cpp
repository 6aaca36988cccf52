// Picture output: the decoder's packed I420 block in the host's chosen form.
#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "instance/TessaloImpl.h"

extern "C" {
#include <libavutil/imgutils.h>
}
#include <libyuv/convert_argb.h>

namespace Morvel_Tessalo {

namespace {

// Gives `*block` exactly `size` bytes. The block follows the current picture:
// a later file with larger pictures, or a switch from format 0 to 24-bit, would
// otherwise overrun a block sized for the first picture, and a smaller one
// would have TSL_GetPic copy stale bytes. Pictures of one size and format, the
// usual run, keep the block and allocate nothing.
bool fitBlock(std::unique_ptr<uint8_t[]>* block, int32_t* blockSize, int32_t size) {
    if (*block && *blockSize == size) return true;
    block->reset(new (std::nothrow) uint8_t[static_cast<size_t>(size)]);
    *blockSize = *block ? size : 0;
    return *block != nullptr;
}

}  // namespace

void convertPicture(const uint8_t* source, int32_t sourceSize, int32_t width, int32_t height,
                    std::unique_ptr<uint8_t[]>* outputPicture, int32_t* outputPictureSize,
                    int32_t outputFormat) {
    if (!source || sourceSize <= 0 || width <= 0 || height <= 0) return;
    if (outputFormat == 0) {
        if (!fitBlock(outputPicture, outputPictureSize, sourceSize)) return;
        std::memcpy(outputPicture->get(), source, static_cast<size_t>(sourceSize));
        return;
    }

    // The packed block holds chroma planes of (width >> 1) x (height >> 1)
    // right behind Y; anything shorter is not a picture of this size.
    const int64_t lumaBytes = static_cast<int64_t>(width) * height;
    const int32_t cw = width >> 1;
    const int32_t ch = height >> 1;
    const int64_t chromaBytes = static_cast<int64_t>(cw) * ch;
    if (lumaBytes + 2 * chromaBytes > sourceSize) return;

    // The conversion writes 3 x width x height bytes whatever the format
    // number says; a format whose buffer size is smaller (or an error) must
    // not shrink the block below that.
    const int64_t rgbBytes = 3 * lumaBytes;
    if (rgbBytes > INT32_MAX) return;
    int32_t size = av_image_get_buffer_size(static_cast<AVPixelFormat>(outputFormat), width, height, 1);
    size = std::max(size, static_cast<int32_t>(rgbBytes));
    if (!fitBlock(outputPicture, outputPictureSize, size)) return;

    const uint8_t* y = source;
    const uint8_t* u = source + lumaBytes;
    const uint8_t* v = u + chromaBytes;
    int32_t chromaStride = cw;
    // I420ToRGB24 reads (width + 1) / 2 chroma samples a row and (height + 1)
    // / 2 rows, one more than the packed block holds for odd sizes: those go
    // through a copy of the chroma with the last column and row repeated.
    // Even sizes, every H.264 picture in practice, convert in place.
    std::vector<uint8_t> padded;
    if ((width & 1) || (height & 1)) {
        const int32_t pw = (width + 1) / 2;
        const int32_t ph = (height + 1) / 2;
        padded.assign(static_cast<size_t>(pw) * ph * 2, 0x80);
        for (int plane = 0; plane < 2; ++plane) {
            const uint8_t* src = plane == 0 ? u : v;
            uint8_t* dst = padded.data() + static_cast<size_t>(plane) * pw * ph;
            for (int32_t row = 0; row < ph; ++row) {
                int32_t from = std::min(row, ch - 1);
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
    libyuv::I420ToRGB24(y, width, u, chromaStride, v, chromaStride, outputPicture->get(), 3 * width, width,
                        -height);
}

}  // namespace Morvel_Tessalo
