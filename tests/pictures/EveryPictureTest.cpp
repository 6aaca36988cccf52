// Every picture of every group of files from other encoders, muxers and
// pixel layouts, in key mode and in run mode, against ffmpeg's decode of the
// same frame: identical where the file is 8-bit 4:2:0, close where the
// library converts. Then the colours of the 24-bit output.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "pictures/PictureHost.h"

namespace {

using namespace pictest;

// ffmpeg's decode of every picture, in presentation order, as 8-bit I420.
std::vector<std::vector<uint8_t>> ffmpegPictures(const std::string& path, size_t pictureBytes) {
    const std::string raw = tsltest::run("ffmpeg -v error -noautorotate -i " + tsltest::shellQuote(path) +
                                         " -map 0:v:0 -fps_mode passthrough -pix_fmt yuv420p -f rawvideo -");
    std::vector<std::vector<uint8_t>> pictures;
    for (size_t at = 0; pictureBytes && at + pictureBytes <= raw.size(); at += pictureBytes)
        pictures.emplace_back(raw.begin() + at, raw.begin() + at + pictureBytes);
    return pictures;
}

double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    if (a.size() != b.size() || a.empty()) return 0;
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) sum += (a[i] - b[i]) * double(a[i] - b[i]);
    return sum == 0 ? std::numeric_limits<double>::infinity() : 10 * std::log10(255.0 * 255.0 * a.size() / sum);
}

struct Fixture {
    const char* name;
    bool identical;  // 8-bit 4:2:0 in limited range: the decoder's own bytes
};

class EveryPicture : public ::testing::TestWithParam<Fixture> {};

// Asks for `asked`, expects every picture under its own timestamp and no
// event but the pictures between PicStart and PicDone; returns the lowest
// PSNR against ffmpeg's picture of the same timestamp.
double expectAll(Host& host, const std::vector<int64_t>& asked, const std::vector<int64_t>& all,
                 const std::vector<std::vector<uint8_t>>& want) {
    Events expected{kHostEventPicStart};
    expected.insert(expected.end(), asked.size(), kHostEventPicReady);
    expected.push_back(kHostEventPicDone);
    EXPECT_EQ(host.request(asked), expected);
    double lowest = std::numeric_limits<double>::infinity();
    for (size_t i = 0; i < host.pictures.size() && i < asked.size(); ++i) {
        EXPECT_EQ(host.pictures[i].pts, asked[i]);
        const size_t place = std::find(all.begin(), all.end(), asked[i]) - all.begin();
        lowest = std::min(lowest, place < want.size() ? psnr(host.pictures[i].bytes, want[place]) : 0.0);
    }
    return lowest;
}

TEST_P(EveryPicture, InBothModesUnderItsOwnTimestamp) {
    const Fixture& f = GetParam();
    const std::string path = tsltest::media(f.name);
    Host host;
    ASSERT_TRUE(host.index(path));
    TessaloMediaInfo info{};
    TSL_GetMediaInfo(host.handle, &info);
    const std::vector<int64_t> keys = host.keyPts(), all = host.allPts();
    const auto want = ffmpegPictures(path, size_t(info.width) * info.height * 3 / 2);
    ASSERT_EQ(want.size(), all.size()) << "ffmpeg decodes as many pictures as the index holds";
    double lowest = expectAll(host, keys, all, want);
    // Key mode past skipped groups: the decoder starts again where it jumps.
    if (keys.size() >= 4) lowest = std::min(lowest, expectAll(host, {keys[0], keys[1], keys.back()}, all, want));
    for (int64_t key : keys) lowest = std::min(lowest, expectAll(host, host.groupPts(key), all, want));
    if (f.identical) EXPECT_EQ(lowest, std::numeric_limits<double>::infinity());
    EXPECT_GE(lowest, 45.0);
    std::printf("[ PSNR     ] %-18s lowest %.2f dB over %zu pictures, %zu keys\n", f.name, lowest, all.size(),
                keys.size());
}

INSTANTIATE_TEST_SUITE_P(Files, EveryPicture,
                         ::testing::Values(Fixture{"yuv420p10le.mp4", false}, Fixture{"yuv422p.mp4", false},
                                           Fixture{"yuv422p10le.mp4", false}, Fixture{"yuv444p.mp4", false},
                                           Fixture{"yuv444p10le.mp4", false}, Fixture{"gray.mp4", false},
                                           Fixture{"yuvj420p.mp4", false}, Fixture{"bt709_720p.mp4", true},
                                           Fixture{"opengop.mp4", true}, Fixture{"intrarefresh.mp4", true},
                                           Fixture{"shortlast.mp4", true}, Fixture{"coverart.mp4", true},
                                           Fixture{"rotated90.mp4", true}, Fixture{"vfr.mp4", true}),
                         [](const auto& info) {
                             std::string name = info.param.name;
                             return name.substr(0, name.find('.'));
                         });

// Bars made in RGB: 75% white, yellow, cyan, green, magenta, red, blue, then
// black, each 20 pixels wide; one file in BT.709 limited range, one in
// BT.601 full range. The middle of each bar, bottom row and top row, comes
// back within 3 of the colour it was made from.
TEST(TwentyFourBitPictures, ColourBarsKeepTheirColoursThroughMatrixAndRange) {
    const uint8_t rgb[8][3] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                               {191, 0, 191},   {191, 0, 0},   {0, 0, 191},   {0, 0, 0}};
    for (const char* name : {"bars709.mp4", "barsfull.mp4"}) {
        SCOPED_TRACE(name);
        Host host;
        ASSERT_TRUE(host.index(tsltest::media(name)));
        TSL_SetOutputPicFormat(host.handle, kPicFormatBgr24);
        ASSERT_EQ(host.request({host.keyPts().at(0)}), kOnePicture);
        const std::vector<uint8_t>& bgr = host.pictures.at(0).bytes;
        ASSERT_EQ(bgr.size(), 160u * 120 * 3);
        for (size_t row : {size_t{0}, size_t{119}})
            for (int bar = 0; bar < 8; ++bar)
                for (int c = 0; c < 3; ++c)
                    EXPECT_NEAR(bgr[(row * 160 + bar * 20 + 10) * 3 + c], rgb[bar][2 - c], 3)
                        << "bar " << bar << " row " << row << " byte " << c;
    }
}

}  // namespace
