// convertPicture's block as pictures and formats change, and reads that stay
// inside the packed source. The colours of each format through the exports
// are the picture request tests' business.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "instance/PictureOutput.h"

using namespace Morvel_Tessalo;

namespace {

// A packed I420 picture of (w * h * 3) / 2 bytes, as the decoder allocates it:
// luma `y`, neutral chroma planes of (w >> 1) x (h >> 1), then filler. Exactly
// sized on the heap, so a read past its end is caught by the sanitizers.
std::vector<uint8_t> packed(int w, int h, uint8_t y) {
    std::vector<uint8_t> b(static_cast<size_t>(w * h * 3 / 2), 0x77);
    std::fill(b.begin(), b.begin() + w * h + 2 * (w >> 1) * (h >> 1), 128);
    std::fill(b.begin(), b.begin() + w * h, y);
    return b;
}

struct Output {
    std::unique_ptr<uint8_t[]> block;
    int32_t size = 0;
    ScalerHolder scaler;
    // The bytes as the decoder's packed 8-bit 4:2:0 picture of w x h.
    void convert(const std::vector<uint8_t>& src, int w, int h, int32_t format) {
        VideoPacket picture;
        ASSERT_TRUE(picture.replaceBlock(static_cast<uint32_t>(src.size())));
        picture.size = static_cast<uint32_t>(src.size());
        std::memcpy(picture.data, src.data(), src.size());
        picture.width = w;
        picture.height = h;
        picture.layout = PictureLayout{AV_PIX_FMT_YUV420P, 8, 3, {0, w * h, w * h + (w >> 1) * (h >> 1)},
                                       {w, w >> 1, w >> 1}, AVCOL_SPC_UNSPECIFIED, false};
        convertPicture(picture, &scaler, &block, &size, format);
    }
};

}  // namespace

// Small, then larger (the block must grow, not be overrun), then formats whose
// own buffer is smaller than what the conversion writes or that FFmpeg does
// not know, then back to planar at the small size.
TEST(ConvertPicture, TheBlockFollowsPicturesAndFormats) {
    Output out;
    const std::vector<uint8_t> small = packed(6, 4, 20);
    out.convert(small, 6, 4, 0);
    ASSERT_EQ(out.size, 36);
    EXPECT_EQ(std::vector<uint8_t>(out.block.get(), out.block.get() + 36), small);
    // White and black in turn, so that a block left as it was shows.
    for (auto [format, y] : {std::pair{int32_t{AV_PIX_FMT_BGR24}, 235}, std::pair{int32_t{AV_PIX_FMT_GRAY8}, 16},
                             std::pair{int32_t{100000}, 235}}) {
        out.convert(packed(64, 48, static_cast<uint8_t>(y)), 64, 48, format);
        ASSERT_EQ(out.size, 3 * 64 * 48) << format;
        EXPECT_NEAR(out.block[3 * 64 * 48 - 1], y == 16 ? 0 : 255, 3) << format;
    }
    out.convert(small, 6, 4, 0);
    EXPECT_EQ(out.size, 36);
}

TEST(ConvertPicture, OddSizesStayInsideTheSource) {
    for (auto [w, h] : {std::pair{5, 3}, std::pair{7, 4}, std::pair{6, 5}, std::pair{1, 1}}) {
        Output out;
        out.convert(packed(w, h, 235), w, h, AV_PIX_FMT_BGR24);
        ASSERT_EQ(out.size, 3 * w * h) << w << "x" << h;
        // Every pixel white: the repeated chroma edge is neutral like the rest.
        for (int i = 0; i < out.size; ++i) ASSERT_GE(out.block[i], 250) << w << "x" << h << " byte " << i;
    }
}

TEST(ConvertPicture, ASourceShorterThanItsSizeClaimsIsRefusedNotReadPast) {
    Output out;
    out.convert(std::vector<uint8_t>(10, 16), 6, 4, AV_PIX_FMT_BGR24);
    EXPECT_EQ(out.size, 0);
    EXPECT_EQ(out.block, nullptr);
}
