// convertPicture: the host's block for each format, its size as pictures and
// formats change, and reads that stay inside the packed source.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "instance/TessaloImpl.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

using Morvel_Tessalo::convertPicture;

namespace {

// A packed I420 picture of (w * h * 3) / 2 bytes, as the decoder allocates it:
// luma `yTop` in the upper half of the rows, `yBottom` below, neutral chroma
// planes of (w >> 1) x (h >> 1), then filler. Exactly sized on the heap, so a
// read past its end is caught by the sanitizers.
std::vector<uint8_t> packed(int w, int h, uint8_t yTop, uint8_t yBottom) {
    std::vector<uint8_t> b(static_cast<size_t>(w * h * 3 / 2), 0x77);
    std::fill(b.begin(), b.begin() + w * h + 2 * (w >> 1) * (h >> 1), 128);
    for (int i = 0; i < w * h; ++i) b[i] = i / w < h / 2 ? yTop : yBottom;
    return b;
}

struct Output {
    std::unique_ptr<uint8_t[]> block;
    int32_t size = 0;
    void convert(const std::vector<uint8_t>& src, int w, int h, int32_t format) {
        convertPicture(src.data(), static_cast<int32_t>(src.size()), w, h, &block, &size, format);
    }
};

}  // namespace

TEST(ConvertPicture, BlockFollowsPicturesAndFormats) {
    Output out;
    const std::vector<uint8_t> a = packed(6, 4, 20, 200);
    out.convert(a, 6, 4, 0);  // planar: a copy of the source
    ASSERT_EQ(out.size, 36);
    EXPECT_EQ(std::vector<uint8_t>(out.block.get(), out.block.get() + 36), a);
    // 24-bit: bottom-up BGR, three bytes a pixel; twice the planar bytes.
    out.convert(packed(6, 4, 235, 16), 6, 4, AV_PIX_FMT_BGR24);
    ASSERT_EQ(out.size, 72);
    for (int i = 0; i < 72; ++i) {
        if (i < 36) EXPECT_LE(out.block[i], 3) << "bottom rows black, byte " << i;
        else EXPECT_GE(out.block[i], 252) << "top rows white, byte " << i;
    }
    out.convert(packed(64, 48, 235, 235), 64, 48, AV_PIX_FMT_BGR24);  // larger
    ASSERT_EQ(out.size, 3 * 64 * 48);
    EXPECT_GE(out.block[3 * 64 * 48 - 1], 252);
    // A format whose own buffer is smaller than what the conversion writes,
    // and one FFmpeg does not know: the block still holds 3 x w x h.
    for (int32_t format : {int32_t{AV_PIX_FMT_GRAY8}, int32_t{100000}}) {
        out.convert(packed(64, 48, 16, 16), 64, 48, format);
        EXPECT_EQ(out.size, 3 * 64 * 48) << format;
        EXPECT_LE(out.block[3 * 64 * 48 - 1], 3) << format;
    }
    // Back to planar at the small size: the host is told the picture's size.
    out.convert(a, 6, 4, 0);
    EXPECT_EQ(out.size, 36);
}

TEST(ConvertPicture, OddSizesStayInsideTheSource) {
    for (auto [w, h] : {std::pair{5, 3}, std::pair{7, 4}, std::pair{6, 5}, std::pair{1, 1}}) {
        Output out;
        out.convert(packed(w, h, 235, 235), w, h, AV_PIX_FMT_BGR24);
        ASSERT_EQ(out.size, 3 * w * h) << w << "x" << h;
        // Every pixel white: the repeated chroma edge is neutral like the rest.
        for (int i = 0; i < out.size; ++i) ASSERT_GE(out.block[i], 250) << w << "x" << h << " byte " << i;
    }
    // A source shorter than its size claims is refused, not read past.
    Output out;
    out.convert(std::vector<uint8_t>(10, 16), 6, 4, AV_PIX_FMT_BGR24);
    EXPECT_EQ(out.size, 0);
    EXPECT_EQ(out.block, nullptr);
}
