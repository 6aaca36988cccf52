// Picture requests through the exports on real files, held against ffmpeg's decode of the same file:
// identical where the file is 8-bit 4:2:0, close where the library converts; then the requests' events.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "support/ApiHost.h"
#include "support/ProbeIndex.h"

namespace {

using namespace tsltest;

struct Fixture {
    const char* name;
    bool identical;  // 8-bit 4:2:0 in limited range: the decoder's own bytes
};

class EveryPicture : public ::testing::TestWithParam<Fixture> {};

// Key mode: all keys, one key alone, keys past skipped groups (the decoder starts again where it jumps).
// Run mode: each group, the last one drained whole, and two groups in a row. Each request gives every picture
// under its own timestamp and nothing but the pictures between PicStart and PicDone.
TEST_P(EveryPicture, ComesInBothModesUnderItsOwnTimestampAsFfmpegDecodesIt) {
    const auto [name, identical] = GetParam();
    const std::string path = media(name);
    Host host;
    ASSERT_TRUE(host.index(path));
    const std::vector<int64_t> keys = host.keyPts(), all = host.allPts();
    const Decoded want = decodePictures(path);
    ASSERT_EQ(want.pictures.size(), all.size()) << "ffmpeg decodes as many pictures as the index holds";
    // In open groups and intra refresh a group's lowest timestamp is a leading picture, not its key picture.
    const bool closed = std::string(name) == "main.mp4";
    std::vector<std::pair<std::vector<int64_t>, bool>> requests{{keys, closed}, {{keys.back()}, closed}};
    if (keys.size() >= 4) requests.push_back({{keys[0], keys[1], keys.back()}, closed});
    for (int64_t key : keys) requests.push_back({host.groupPts(key), false});
    if (keys.size() >= 2) {
        const size_t two = host.groupPts(keys[0]).size() + host.groupPts(keys[1]).size();
        requests.push_back({std::vector<int64_t>(all.begin(), all.begin() + std::ptrdiff_t(two)), false});
    }
    double lowest = INFINITY;  // PSNR against ffmpeg's picture at the same place of `all`
    for (const auto& [asked, keyPictures] : requests) {
        Events expected(asked.size() + 2, kHostEventPicReady);
        expected.front() = kHostEventPicStart;
        expected.back() = kHostEventPicDone;
        EXPECT_EQ(host.request(asked), expected);
        for (size_t i = 0; i < host.pictures.size() && i < asked.size(); ++i) {
            const Picture& p = host.pictures[i];
            EXPECT_EQ(p.pts, asked[i]);
            EXPECT_TRUE(!keyPictures || p.key == 1) << "key picture " << p.pts;
            const size_t place = size_t(std::find(all.begin(), all.end(), asked[i]) - all.begin());
            lowest = std::min(lowest, psnr({p.bytes.begin(), p.bytes.end()}, want.pictures.at(place)));
        }
    }
    EXPECT_TRUE(!identical || lowest == INFINITY) << lowest << " dB: not the decoder's own bytes";
    EXPECT_GE(lowest, 45.0);
    std::printf("[ PSNR     ] %-18s lowest %.2f dB over %zu pictures\n", name, lowest, all.size());
}

INSTANTIATE_TEST_SUITE_P(
    Files, EveryPicture,
    ::testing::ValuesIn(std::vector<Fixture>{
        {"main.mp4", true},         {"yuv420p10le.mp4", false}, {"yuv422p.mp4", false},     {"yuv422p10le.mp4", false},
        {"yuv444p.mp4", false},     {"yuv444p10le.mp4", false}, {"gray.mp4", false},        {"yuvj420p.mp4", false},
        {"bt709_720p.mp4", true},   {"opengop.mp4", true},      {"intrarefresh.mp4", true}, {"shortlast.mp4", true},
        {"coverart.mp4", true},     {"rotated90.mp4", true},    {"vfr.mp4", true}}),
    [](const auto& info) { return std::string(info.param.name, std::strchr(info.param.name, '.')); });

// A long key-mode request (every key of a file of 600 groups) given up at once by another request, many
// times: the stop may come before the worker began, while it plans, or between samples, and is never lost.
// The first request delivers at most the picture that was on its way when the stop came, ends with NoPic
// exactly when it delivered nothing, then PicDone; the second follows whole. A format set while the first
// runs changes neither.
TEST(PictureRequests, AStopRacingTheStartIsNeverLost) {
    constexpr int32_t kStopSent = -100;  // marks, among the events, when the second request was made
    Host host;
    ASSERT_TRUE(host.index(media("long_walk.mp4")));
    const std::vector<int64_t> keys = host.keyPts();
    ASSERT_EQ(keys.size(), 600u);
    for (int round = 0; round < 60; ++round) {
        SCOPED_TRACE(round);
        host.events.clear();
        ASSERT_TRUE(host.send(keys));
        TSL_SetOutputPicFormat(host.handle, kPicFormatBgr24);  // too late for this request, and ignored
        host.events.record(kStopSent);
        ASSERT_TRUE(host.send({keys[1]}));
        ASSERT_TRUE(host.events.waitFor(kHostEventPicDone, 2, kWait));
        Events seen = host.events.events();
        const auto marker = std::find(seen.begin(), seen.end(), kStopSent);
        const auto firstDone = std::find(seen.begin(), seen.end(), kHostEventPicDone);
        ASSERT_TRUE(marker < firstDone);
        EXPECT_LE(std::count(marker, firstDone, kHostEventPicReady), 1) << "pictures after the stop";
        seen.erase(marker);
        const auto split = std::find(seen.begin(), seen.end(), kHostEventPicDone) + 1;
        const Events first(seen.begin(), split), second(split, seen.end());
        const bool none = std::count(first.begin(), first.end(), kHostEventPicReady) == 0;
        // A stop before the worker began skips even its PicStart.
        EXPECT_TRUE(first[0] == kHostEventPicStart || first[0] == kHostEventNoPic) << first[0];
        EXPECT_EQ(std::count(first.begin(), first.end(), kHostEventNoPic), none ? 1 : 0);
        EXPECT_TRUE(!none || (first.size() >= 2 && first.end()[-2] == kHostEventNoPic));
        EXPECT_EQ(second, kOnePicture);
        for (const Picture& p : host.pictures) EXPECT_EQ(p.bytes.size(), 64u * 48 * 3 / 2) << "still I420";
    }
}

// No path: PicStart, FileError and no PicDone. A failed walk leaves the path set and the index empty. On an
// index, a timestamp of no key asked alone fails, and so does one of no picture; a count below one is refused.
TEST(PictureRequests, ARequestThatCannotStartFailsWithoutPicDoneAndTheNextIsServed) {
    Host host;
    EXPECT_EQ(host.request({0}), (Events{kHostEventPicStart, kHostEventFileError}));
    EXPECT_FALSE(host.events.waitFor(kHostEventPicDone, 1, std::chrono::milliseconds(200)));
    const Events failed{kHostEventPicStart, kHostEventError};
    EXPECT_FALSE(host.index(media("text.mp4")));
    EXPECT_EQ(host.request({0}), failed);
    EXPECT_EQ(host.request({0, 40}), failed);
    ASSERT_TRUE(host.index(media("main.mp4")));
    EXPECT_EQ(host.request({host.allPts().at(1)}), failed);
    EXPECT_EQ(host.request({-5}), failed);
    EXPECT_FALSE(TSL_GetPicByPts(host.handle, host.keyPts().data(), 0));
    EXPECT_EQ(host.request({0}), kOnePicture);
}

// halves.mp4 is red above blue: formats 3 and 2 give a bottom-up BGR block, its first pixel the bottom-left
// (blue), its last the top-right (red). Bars made in RGB (75% white, yellow, cyan, green, magenta, red, blue,
// black, 20 pixels each), one file in BT.709 limited range, one in BT.601 full range: the middle of each bar,
// top and bottom row, comes back within 3 of the colour it was made from.
TEST(PictureRequests, TwentyFourBitPicturesAreBottomUpBgrInTheColoursTheyWereMadeIn) {
    Host host;
    ASSERT_TRUE(host.index(media("halves.mp4")));
    for (int32_t format : {3, 2}) {
        TSL_SetOutputPicFormat(host.handle, format);
        ASSERT_EQ(host.request({0}), kOnePicture);
        const std::vector<uint8_t>& b = host.pictures.at(0).bytes;
        ASSERT_EQ(b.size(), 3u * 320 * 240) << format;
        EXPECT_TRUE(b[0] > 200 && b[1] < 60 && b[2] < 60) << "blue, format " << format;
        EXPECT_TRUE(b.end()[-3] < 60 && b.end()[-2] < 60 && b.end()[-1] > 200) << "red, format " << format;
    }
    const uint8_t rgb[8][3] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                               {191, 0, 191},   {191, 0, 0},   {0, 0, 191},   {0, 0, 0}};
    TSL_SetOutputPicFormat(host.handle, kPicFormatBgr24);
    for (const char* name : {"bars709.mp4", "barsfull.mp4"}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(host.index(media(name)));
        ASSERT_EQ(host.request({host.keyPts().at(0)}), kOnePicture);
        const std::vector<uint8_t>& bgr = host.pictures.at(0).bytes;
        ASSERT_EQ(bgr.size(), 160u * 120 * 3);
        for (size_t row : {size_t{0}, size_t{119}})
            for (int bar = 0; bar < 8; ++bar)
                for (int c = 0; c < 3; ++c)
                    EXPECT_NEAR(bgr[(row * 160 + bar * 20 + 10) * 3 + c], rgb[bar][2 - c], 3) << bar << " " << row;
    }
}

// The first non-key sample of the second group gets a length prefix that claims far more bytes than it has.
TEST(PictureRequests, ACorruptedSampleIsReportedAndTheRequestGoesOn) {
    const std::string copy = scratchDir() + "/corrupt.mp4";
    std::filesystem::copy_file(media("main.mp4"), copy);
    const ProbeIndex probe = probeIndex(copy);
    ASSERT_TRUE(probe.keyGroups.size() >= 3 && probe.keyGroups[1].size() >= 2);
    std::fstream(copy, std::ios::in | std::ios::out | std::ios::binary)
        .seekp(probe.keyGroups[1][1].position)
        .write("\x7f\xff\xff\xff\x7f\xff\xff\xff", 8);
    Host host;
    ASSERT_TRUE(host.index(copy));
    const std::vector<int64_t> asked = host.groupPts(host.keyPts().at(1));
    EXPECT_EQ(host.request(asked).back(), kHostEventPicDone);
    EXPECT_GE(host.events.count(kHostEventDecodeError), 1u);
    EXPECT_GT(host.events.count(kHostEventPicReady), asked.size() / 2) << "the request went on";
}

// large.mp4 is above 20 MiB, without B-frames: the samples that straddle the end of the first read buffer
// are carried over into the refilled one and decode as ffmpeg's.
TEST(PictureRequests, SamplesAcrossTheReadBufferDecodeIdentically) {
    const std::string path = media("large.mp4");
    std::vector<ProbeRecord> samples;  // stream order
    for (const auto& group : probeIndex(path).keyGroups) samples.insert(samples.end(), group.begin(), group.end());
    ASSERT_FALSE(samples.empty());
    const int64_t boundary = samples[0].position + 0x1400000;
    size_t straddling = samples.size();
    for (size_t i = 0; i < samples.size(); ++i)
        if (samples[i].position < boundary && samples[i].position + samples[i].size > boundary) straddling = i;
    ASSERT_LT(straddling, samples.size()) << "no sample crosses the first buffer's end";
    Host host;
    ASSERT_TRUE(host.index(path));
    const std::vector<std::string> want = ffmpegFrameMd5(path, false);
    EXPECT_EQ(host.request(host.allPts()).back(), kHostEventPicDone);
    EXPECT_EQ(host.events.count(kHostEventNoPic) + host.events.count(kHostEventDecodeError), 0u);
    ASSERT_GT(host.pictures.size(), straddling + 2);
    for (size_t i = 0; i < host.pictures.size() && i < want.size(); ++i)
        ASSERT_EQ(md5(host.pictures[i].bytes.data(), host.pictures[i].bytes.size()), want[i]) << "picture " << i;
}

}  // namespace
