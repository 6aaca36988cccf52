// convertPicture: the host's block for each format, its size as pictures and
// formats change, and reads that stay inside the packed source.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "instance/TessaloImpl.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

using Morvel_Tessalo::convertPicture;

namespace {

// A packed I420 picture: luma `yTop` in the upper half of the rows and
// `yBottom` in the lower half, neutral chroma. Heap-allocated to its exact
// size so that a read past its end is caught by the sanitizers.
std::vector<uint8_t> packed(int w, int h, uint8_t yTop, uint8_t yBottom) {
    std::vector<uint8_t> b(static_cast<size_t>(w * h + 2 * (w >> 1) * (h >> 1)), 128);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) b[y * w + x] = y < h / 2 ? yTop : yBottom;
    // A size that is (w * h * 3) / 2, as the decoder allocates it.
    b.resize(static_cast<size_t>(w * h * 3 / 2), 0x77);
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

TEST(ConvertPicture, FormatZeroCopiesTheBlockAndReusesIt) {
    Output out;
    std::vector<uint8_t> a = packed(6, 4, 20, 200);
    out.convert(a, 6, 4, 0);
    ASSERT_EQ(out.size, 36);
    EXPECT_EQ(std::vector<uint8_t>(out.block.get(), out.block.get() + 36), a);
    uint8_t* first = out.block.get();
    std::vector<uint8_t> b = packed(6, 4, 90, 30);
    out.convert(b, 6, 4, 0);
    EXPECT_EQ(out.block.get(), first);
    EXPECT_EQ(std::vector<uint8_t>(out.block.get(), out.block.get() + 36), b);
}

TEST(ConvertPicture, TwentyFourBitIsBottomUpBgrOfThreeBytesAPixel) {
    Output out;
    // Top rows white, bottom rows black (studio range).
    out.convert(packed(6, 4, 235, 16), 6, 4, AV_PIX_FMT_BGR24);
    ASSERT_EQ(out.size, 72);
    const uint8_t* p = out.block.get();
    for (int row = 0; row < 4; ++row)
        for (int i = 0; i < 18; ++i) {
            // Row 0 of the block is the picture's bottom row.
            if (row < 2) EXPECT_LE(p[row * 18 + i], 3) << "row " << row << " byte " << i;
            else EXPECT_GE(p[row * 18 + i], 252) << "row " << row << " byte " << i;
        }
}

TEST(ConvertPicture, BlockFollowsLargerPicturesAndFormatChanges) {
    Output out;
    out.convert(packed(6, 4, 16, 16), 6, 4, 0);
    ASSERT_EQ(out.size, 36);
    // From planar to 24-bit: twice the bytes are needed.
    out.convert(packed(6, 4, 16, 16), 6, 4, AV_PIX_FMT_BGR24);
    EXPECT_EQ(out.size, 72);
    // A larger picture.
    out.convert(packed(64, 48, 235, 235), 64, 48, AV_PIX_FMT_BGR24);
    ASSERT_EQ(out.size, 3 * 64 * 48);
    EXPECT_GE(out.block[3 * 64 * 48 - 1], 252);
    // A format whose own buffer is smaller than what the conversion writes,
    // and one that FFmpeg does not know: the block still holds 3 x w x h.
    out.convert(packed(64, 48, 16, 16), 64, 48, AV_PIX_FMT_GRAY8);
    EXPECT_EQ(out.size, 3 * 64 * 48);
    out.convert(packed(64, 48, 16, 16), 64, 48, 100000);
    EXPECT_EQ(out.size, 3 * 64 * 48);
    EXPECT_LE(out.block[3 * 64 * 48 - 1], 3);
    // Back to planar at the small size: the host is told the picture's size.
    out.convert(packed(6, 4, 16, 16), 6, 4, 0);
    EXPECT_EQ(out.size, 36);
}

TEST(ConvertPicture, OddSizesStayInsideTheSource) {
    for (auto [w, h] : {std::pair{5, 3}, std::pair{7, 4}, std::pair{6, 5}, std::pair{1, 1}}) {
        Output out;
        std::vector<uint8_t> src = packed(w, h, 235, 235);
        out.convert(src, w, h, AV_PIX_FMT_BGR24);
        ASSERT_EQ(out.size, 3 * w * h) << w << "x" << h;
        // Every pixel white: the repeated chroma edge is neutral like the rest.
        for (int i = 0; i < out.size; ++i) ASSERT_GE(out.block[i], 250) << w << "x" << h << " byte " << i;
    }
    // A source shorter than its size claims is refused, not read past.
    Output out;
    std::vector<uint8_t> shortSrc(10, 16);
    out.convert(shortSrc, 6, 4, AV_PIX_FMT_BGR24);
    EXPECT_EQ(out.size, 0);
    EXPECT_EQ(out.block, nullptr);
}
