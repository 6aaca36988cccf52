// Picture requests through the exports, on real fixtures, checked against
// ffmpeg's own decoding of the same file.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "pictures/PictureHost.h"
#include "support/ProbeIndex.h"

namespace {

using namespace pictest;

// Asks for `asked` and expects PicDone after the pictures ffmpeg decodes at
// the places of `asked` in `all`, in order; returns how many came.
size_t expectLikeFfmpeg(Host& host, const std::vector<int64_t>& asked, const std::vector<int64_t>& all,
                        const std::vector<std::string>& want) {
    const Events e = host.request(asked);
    EXPECT_TRUE(!e.empty() && e.front() == kHostEventPicStart && e.back() == kHostEventPicDone);
    EXPECT_EQ(host.events.count(kHostEventNoPic) + host.events.count(kHostEventDecodeError), 0u);
    EXPECT_LE(host.pictures.size(), asked.size());
    for (size_t i = 0; i < std::min(host.pictures.size(), asked.size()); ++i) {
        const size_t place = std::find(all.begin(), all.end(), asked[i]) - all.begin();
        EXPECT_EQ(host.pictures[i].pts, asked[i]) << "picture " << i;
        const auto& bytes = host.pictures[i].bytes;
        EXPECT_EQ(tsltest::md5(bytes.data(), bytes.size()), place < want.size() ? want[place] : "") << "picture " << i;
    }
    return host.pictures.size();
}

}  // namespace

// main.mp4: B-frames, five groups of 320 x 240, indexed afresh for each
// request; ffmpeg's pictures of it are decoded once for all.
class MainFileRequests : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        keyMd5 = tsltest::ffmpegFrameMd5(tsltest::media("main.mp4"), true);
        allMd5 = tsltest::ffmpegFrameMd5(tsltest::media("main.mp4"), false);
    }
    void SetUp() override {
        ASSERT_TRUE(host.index(tsltest::media("main.mp4")));
        keys = host.keyPts();
        all = host.allPts();
        ASSERT_EQ(keys.size(), 5u);
        ASSERT_TRUE(keyMd5.size() == keys.size() && allMd5.size() == all.size());
    }
    static std::vector<std::string> keyMd5, allMd5;
    Host host;
    std::vector<int64_t> keys, all;
};
std::vector<std::string> MainFileRequests::keyMd5, MainFileRequests::allMd5;

TEST_F(MainFileRequests, KeyModeGivesEveryKeyPictureInI420) {
    EXPECT_EQ(expectLikeFfmpeg(host, keys, keys, keyMd5), keys.size());
    for (const Picture& p : host.pictures) EXPECT_TRUE(p.key == 1 && p.bytes.size() == 320 * 240 * 3 / 2) << p.pts;
}

TEST_F(MainFileRequests, AKeyAskedAloneComesAloneAsAKeyPicture) {
    for (int64_t key : {keys[0], keys[2], keys.back()}) {
        EXPECT_EQ(expectLikeFfmpeg(host, {key}, keys, keyMd5), 1u);
        EXPECT_EQ(host.events.events(), kOnePicture);
        EXPECT_EQ(host.pictures.at(0).key, 1);
    }
}

TEST_F(MainFileRequests, RunModeGivesTwoGroupsInARowWhereFfmpegHasThem) {
    std::vector<int64_t> run = host.groupPts(keys[1]);
    const std::vector<int64_t> next = host.groupPts(keys[2]);
    run.insert(run.end(), next.begin(), next.end());
    EXPECT_EQ(expectLikeFfmpeg(host, run, all, allMd5), run.size());
}

// The decoder is drained once the samples run out.
TEST_F(MainFileRequests, TheLastGroupComesWhole) {
    const std::vector<int64_t> last = host.groupPts(keys.back());
    EXPECT_EQ(expectLikeFfmpeg(host, last, all, allMd5), last.size());
}

TEST_F(MainFileRequests, ATimestampOfNoKeyAskedAloneFailsAndTheNextRequestIsServed) {
    EXPECT_EQ(host.request({all[1]}), (Events{kHostEventPicStart, kHostEventError}));
    EXPECT_EQ(host.request({-5}), (Events{kHostEventPicStart, kHostEventError}));
    EXPECT_EQ(host.request({keys[0]}), kOnePicture);
}

TEST_F(MainFileRequests, ACountBelowOneIsRefused) {
    EXPECT_FALSE(TSL_GetPicByPts(host.handle, keys.data(), 0));
}

// A long key-mode request (every key of a file of 600 groups) given up at once
// by another request, many times: the stop may come before the worker began,
// while it plans, or between samples, and is never lost. The first request
// delivers at most the picture that was on its way when the stop came, ends
// with NoPic exactly when it delivered nothing, then PicDone; the second
// follows whole. A format set while the first runs changes neither.
TEST(PictureRequests, AStopRacingTheStartIsNeverLost) {
    constexpr int32_t kStopSent = -100;  // marks, among the events, when the second request was made
    Host host;
    ASSERT_TRUE(host.index(tsltest::longWalkFile()));
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

// No path: PicStart, FileError and no PicDone. A failed walk leaves the path
// set and the index empty: PicStart, Error.
TEST(PictureRequests, WithoutAFileOrAnIndex) {
    Host host;
    EXPECT_EQ(host.request({0}), (Events{kHostEventPicStart, kHostEventFileError}));
    EXPECT_FALSE(host.events.waitFor(kHostEventPicDone, 1, std::chrono::milliseconds(200)));
    EXPECT_FALSE(host.index(tsltest::media("text.mp4")));
    EXPECT_EQ(host.request({0}), (Events{kHostEventPicStart, kHostEventError}));
    EXPECT_EQ(host.request({0, 40}), (Events{kHostEventPicStart, kHostEventError}));
}

// halves.mp4 is red above blue. Formats 3 and 2 give a bottom-up BGR block:
// its first pixel is the bottom-left (blue), its last the top-right (red).
TEST(PictureRequests, TwentyFourBitPicturesAreBottomUpBgr) {
    Host host;
    ASSERT_TRUE(host.index(tsltest::media("halves.mp4")));
    TessaloMediaInfo info{};
    TSL_GetMediaInfo(host.handle, &info);
    ASSERT_TRUE(info.width == 320 && info.height == 240);
    const std::vector<int64_t> keys = host.keyPts();
    ASSERT_FALSE(keys.empty());
    for (int32_t format : {3, 2}) {
        TSL_SetOutputPicFormat(host.handle, format);
        ASSERT_EQ(host.request({keys[0]}), kOnePicture);
        const std::vector<uint8_t>& b = host.pictures.at(0).bytes;
        ASSERT_EQ(b.size(), 3u * 320 * 240) << format;  // as TSL_GetOnePicSize said
        EXPECT_TRUE(b[0] > 200 && b[1] < 60 && b[2] < 60) << "blue, format " << format;
        EXPECT_TRUE(b.end()[-3] < 60 && b.end()[-2] < 60 && b.end()[-1] > 200) << "red, format " << format;
    }
}

// The first non-key sample of the second group gets a length prefix that
// claims far more bytes than the sample has.
TEST(PictureRequests, CorruptedSampleReportsAndGoesOn) {
    const std::string copy = tsltest::scratchDir() + "/corrupt.mp4";
    std::filesystem::copy_file(tsltest::media("main.mp4"), copy);
    const tsltest::ProbeIndex probe = tsltest::probeIndex(copy);
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

// large.mp4 is above 20 MiB: the samples that straddle the end of the first
// buffer are carried over into the refilled one and decode as ffmpeg's.
TEST(PictureRequests, SamplesAcrossTheReadBufferDecodeIdentically) {
    const std::string path = tsltest::media("large.mp4");
    std::vector<tsltest::ProbeRecord> samples;  // stream order
    for (const auto& group : tsltest::probeIndex(path).keyGroups)
        samples.insert(samples.end(), group.begin(), group.end());
    ASSERT_FALSE(samples.empty());
    const int64_t boundary = samples[0].position + 0x1400000;
    size_t straddling = samples.size();
    for (size_t i = 0; i < samples.size(); ++i)
        if (samples[i].position < boundary && samples[i].position + samples[i].size > boundary) straddling = i;
    ASSERT_LT(straddling, samples.size()) << "no sample crosses the first buffer's end";
    Host host;
    ASSERT_TRUE(host.index(path));
    const std::vector<int64_t> all = host.allPts();
    // Without B-frames presentation order is stream order: the straddling
    // sample and those after it must be among the pictures delivered.
    EXPECT_GT(expectLikeFfmpeg(host, all, all, tsltest::ffmpegFrameMd5(path, false)), straddling + 2);
}
