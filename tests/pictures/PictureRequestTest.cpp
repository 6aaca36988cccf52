// Picture requests through the exports, on real fixtures, checked against
// ffmpeg's own decoding of the same file.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "PictureHost.h"
#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

using Events = std::vector<int32_t>;

size_t countOf(const Events& e, int32_t event) { return static_cast<size_t>(std::count(e.begin(), e.end(), event)); }

// Position of `pts` in the file's presentation order.
size_t placeOf(const std::vector<int64_t>& all, int64_t pts) {
    return static_cast<size_t>(std::find(all.begin(), all.end(), pts) - all.begin());
}

class MainFile : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(host.index(tsltest::media("main.mp4")));
        keys = host.keyPts();
        all = host.allPts();
        ASSERT_EQ(keys.size(), 5u);
    }
    PictureHost host;
    std::vector<int64_t> keys;
    std::vector<int64_t> all;
};

}  // namespace

TEST_F(MainFile, KeyModeGivesEveryKeyPictureOnce) {
    const std::vector<std::string> want = ffmpegFrameMd5(tsltest::media("main.mp4"), true);
    ASSERT_EQ(want.size(), keys.size());
    Events e = host.request(keys);
    ASSERT_FALSE(e.empty());
    EXPECT_EQ(e.front(), kHostEventPicStart);
    EXPECT_EQ(e.back(), kHostEventPicDone);
    EXPECT_EQ(countOf(e, kHostEventNoPic), 0u);
    EXPECT_EQ(countOf(e, kHostEventDecodeError), 0u);
    std::vector<DeliveredPicture> pics = host.pictures();
    ASSERT_EQ(pics.size(), keys.size());
    for (size_t i = 0; i < pics.size(); ++i) {
        EXPECT_EQ(pics[i].pts, keys[i]) << "picture " << i;
        EXPECT_EQ(pics[i].key, 1) << "picture " << i;
        EXPECT_EQ(pics[i].size, 320 * 240 * 3 / 2);
        EXPECT_EQ(pics[i].md5, want[i]) << "picture " << i;
    }
}

TEST_F(MainFile, OneKeyTimestampAlone) {
    const std::vector<std::string> want = ffmpegFrameMd5(tsltest::media("main.mp4"), true);
    for (size_t k : {size_t(0), size_t(2), keys.size() - 1}) {
        Events e = host.request({keys[k]});
        EXPECT_EQ(e, (Events{kHostEventPicStart, kHostEventPicReady, kHostEventPicDone})) << "key " << k;
        std::vector<DeliveredPicture> pics = host.pictures();
        ASSERT_EQ(pics.size(), 1u);
        EXPECT_EQ(pics[0].pts, keys[k]);
        EXPECT_EQ(pics[0].key, 1);
        EXPECT_EQ(pics[0].md5, want[k]) << "key " << k;
    }
}

TEST_F(MainFile, RunModeDeliversAWholeGroupInOrder) {
    const std::vector<std::string> want = ffmpegFrameMd5(tsltest::media("main.mp4"), false);
    ASSERT_EQ(want.size(), all.size());
    const std::vector<int64_t> group = host.groupPts(keys[1]);
    ASSERT_GT(group.size(), 2u);
    Events e = host.request(group);
    EXPECT_EQ(e.front(), kHostEventPicStart);
    EXPECT_EQ(e.back(), kHostEventPicDone);
    std::vector<DeliveredPicture> pics = host.pictures();
    ASSERT_EQ(pics.size(), group.size());
    const size_t first = placeOf(all, group[0]);
    for (size_t i = 0; i < pics.size(); ++i) {
        EXPECT_EQ(pics[i].pts, group[i]) << "picture " << i;
        EXPECT_EQ(pics[i].md5, want[first + i]) << "picture " << i;
    }
    EXPECT_EQ(pics[0].key, 1);
}

TEST_F(MainFile, LastGroupInRunModeEndsShort) {
    const std::vector<std::string> want = ffmpegFrameMd5(tsltest::media("main.mp4"), false);
    const std::vector<int64_t> group = host.groupPts(keys.back());
    Events e = host.request(group);
    EXPECT_EQ(e.front(), kHostEventPicStart);
    EXPECT_EQ(e.back(), kHostEventPicDone);
    EXPECT_EQ(countOf(e, kHostEventNoPic), 0u);
    std::vector<DeliveredPicture> pics = host.pictures();
    // Nothing flushes the decoder: the pictures it still holds never come.
    EXPECT_GT(pics.size(), 0u);
    EXPECT_LT(pics.size(), group.size());
    const size_t first = placeOf(all, group[0]);
    for (size_t i = 0; i < pics.size(); ++i) {
        EXPECT_EQ(pics[i].pts, group[i]);
        EXPECT_EQ(pics[i].md5, want[first + i]) << "picture " << i;
    }
}

TEST_F(MainFile, RefusedRequests) {
    // A timestamp that is no key sample's, asked alone.
    ASSERT_GT(all.size(), 2u);
    EXPECT_EQ(host.request({all[1]}), (Events{kHostEventPicStart, kHostEventError}));
    EXPECT_EQ(host.request({-5}), (Events{kHostEventPicStart, kHostEventError}));
    // The instance still serves the next request.
    EXPECT_EQ(host.request({keys[0]}), (Events{kHostEventPicStart, kHostEventPicReady, kHostEventPicDone}));
}

TEST_F(MainFile, NewRequestGivesUpTheOld) {
    for (int round = 0; round < 3; ++round) {
        host.clear();
        ASSERT_TRUE(host.send(all));
        ASSERT_TRUE(host.send({keys[1]}));
        ASSERT_TRUE(host.waitFor(kHostEventPicDone, 2));
        Events e = host.events();
        // First request: PicStart ... [NoPic] PicDone, where a stop that
        // comes before the worker began skips even its PicStart; then the
        // second request whole.
        ASSERT_GE(e.size(), 5u);
        EXPECT_TRUE(e[0] == kHostEventPicStart || e[0] == kHostEventNoPic) << e[0];
        auto firstDone = std::find(e.begin(), e.end(), kHostEventPicDone);
        ASSERT_NE(firstDone, e.end());
        Events first(e.begin(), firstDone + 1);
        Events second(firstDone + 1, e.end());
        size_t ready = countOf(first, kHostEventPicReady);
        EXPECT_EQ(countOf(first, kHostEventNoPic), ready == 0 ? 1u : 0u);
        if (ready == 0) {
            EXPECT_EQ(first[first.size() - 2], kHostEventNoPic);
        }
        EXPECT_EQ(second, (Events{kHostEventPicStart, kHostEventPicReady, kHostEventPicDone}));
    }
}

TEST(PictureRequests, WithoutAFileOrAnIndex) {
    PictureHost fresh;
    const int64_t zero = 0;
    fresh.clear();
    EXPECT_EQ(fresh.request({zero}), (Events{kHostEventPicStart, kHostEventFileError}));
    EXPECT_EQ(TSL_GetOnePicSize(fresh.handle), 0);
    EXPECT_EQ(TSL_GetPicPts(fresh.handle), -1);

    // A failed walk leaves the path set and the index empty.
    EXPECT_FALSE(fresh.index(tsltest::media("text.mp4")));
    EXPECT_EQ(fresh.request({zero}), (Events{kHostEventPicStart, kHostEventError}));
    EXPECT_EQ(fresh.request({zero, 40}), (Events{kHostEventPicStart, kHostEventError}));
}

TEST(PictureRequests, TwentyFourBitPicturesAreBottomUpBgr) {
    PictureHost host;
    host.keepBytes = true;
    TSL_SetOutputPicFormat(host.handle, kPicFormatBgr24);
    ASSERT_TRUE(host.index(tsltest::media("halves.mp4")));
    TessaloMediaInfo info{};
    TSL_GetMediaInfo(host.handle, &info);
    ASSERT_EQ(info.width, 320);
    ASSERT_EQ(info.height, 240);
    const std::vector<int64_t> keys = host.keyPts();
    ASSERT_FALSE(keys.empty());
    std::vector<uint8_t> bgr;
    for (int32_t format : {3, 2}) {
        host.clear();
        TSL_SetOutputPicFormat(host.handle, format);
        Events e = host.request({keys[0]});
        ASSERT_EQ(e, (Events{kHostEventPicStart, kHostEventPicReady, kHostEventPicDone}));
        std::vector<DeliveredPicture> pics = host.pictures();
        ASSERT_EQ(pics.size(), 1u);
        ASSERT_EQ(pics[0].size, 3 * 320 * 240);
        ASSERT_EQ(TSL_GetOnePicSize(host.handle), 3 * 320 * 240);
        const std::vector<uint8_t>& b = pics[0].bytes;
        // First pixel in the block: the bottom-left, blue (bytes B, G, R).
        EXPECT_GT(b[0], 200);
        EXPECT_LT(b[1], 60);
        EXPECT_LT(b[2], 60);
        // Last pixel: the top-right, red.
        EXPECT_LT(b[b.size() - 3], 60);
        EXPECT_LT(b[b.size() - 2], 60);
        EXPECT_GT(b[b.size() - 1], 200);
        if (bgr.empty()) bgr = b;
        else EXPECT_EQ(b, bgr) << "format 2 gives the same bytes as format 3";
    }
    // Back to planar: the block follows, and Y of the top row is red's luma.
    host.clear();
    TSL_SetOutputPicFormat(host.handle, kPicFormatI420);
    ASSERT_EQ(host.request({keys[0]}).size(), 3u);
    EXPECT_EQ(TSL_GetOnePicSize(host.handle), 320 * 240 * 3 / 2);
}

namespace {

struct Packet {
    int64_t pos = 0;
    int32_t size = 0;
    bool key = false;
};

// The video packets of a file in stream order, from ffprobe.
std::vector<Packet> probeVideoPackets(const std::string& path) {
    int status = -1;
    std::string text = tsltest::run("ffprobe -v error -select_streams v:0 -show_entries packet=pos,size,flags "
                                    "-of csv=p=0 " + tsltest::shellQuote(path), &status);
    EXPECT_EQ(status, 0);
    std::vector<Packet> out;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        Packet p;
        char flags[8] = {0};
        long long size = 0, pos = 0;
        if (sscanf(line.c_str(), "%lld,%lld,%7s", &size, &pos, flags) != 3) continue;
        p.size = static_cast<int32_t>(size);
        p.pos = pos;
        p.key = flags[0] == 'K';
        out.push_back(p);
    }
    return out;
}

}  // namespace

TEST(PictureRequests, CorruptedSampleReportsAndGoesOn) {
    const std::string dir = tsltest::scratchDir();
    const std::string copy = dir + "/corrupt.mp4";
    std::filesystem::copy_file(tsltest::media("main.mp4"), copy);
    std::vector<Packet> packets = probeVideoPackets(copy);
    // The first non-key sample of the second group: its length prefix is
    // made to claim far more bytes than the sample has.
    size_t keysSeen = 0, victim = 0;
    for (size_t i = 0; i < packets.size() && !victim; ++i) {
        if (packets[i].key) ++keysSeen;
        else if (keysSeen == 2) victim = i;
    }
    ASSERT_GT(victim, 0u);
    {
        std::fstream f(copy, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(packets[victim].pos);
        const char junk[8] = {'\x7f', '\xff', '\xff', '\xff', '\x7f', '\xff', '\xff', '\xff'};
        f.write(junk, sizeof junk);
    }
    PictureHost host;
    ASSERT_TRUE(host.index(copy));
    std::vector<int64_t> keys = host.keyPts();
    ASSERT_GE(keys.size(), 3u);
    std::vector<int64_t> asked = host.groupPts(keys[1]);
    Events e = host.request(asked);
    EXPECT_GE(countOf(e, kHostEventDecodeError), 1u);
    EXPECT_EQ(e.back(), kHostEventPicDone);
    EXPECT_GT(countOf(e, kHostEventPicReady), asked.size() / 2) << "the request went on";
}

// large.mp4 is above 20 MiB: the samples that straddle the end of the first
// buffer are carried over into the refilled one and decode as ffmpeg's.
TEST(PictureRequests, SamplesAcrossTheReadBufferDecodeIdentically) {
    const std::string path = tsltest::media("large.mp4");
    std::vector<Packet> packets = probeVideoPackets(path);
    ASSERT_FALSE(packets.empty());
    const int64_t boundary = packets[0].pos + 0x1400000;
    size_t straddling = packets.size();
    for (size_t i = 0; i < packets.size(); ++i)
        if (packets[i].pos < boundary && packets[i].pos + packets[i].size > boundary) straddling = i;
    ASSERT_LT(straddling, packets.size()) << "no sample crosses the first buffer's end";

    PictureHost host;
    ASSERT_TRUE(host.index(path));
    std::vector<int64_t> all = host.allPts();
    ASSERT_EQ(all.size(), packets.size());
    const std::vector<std::string> want = ffmpegFrameMd5(path, false);
    ASSERT_EQ(want.size(), all.size());
    Events e = host.request(all);
    EXPECT_EQ(e.back(), kHostEventPicDone);
    EXPECT_EQ(countOf(e, kHostEventDecodeError), 0u);
    std::vector<DeliveredPicture> pics = host.pictures();
    // Without B-frames presentation order is stream order: the straddling
    // sample and those after it must be among the pictures delivered.
    ASSERT_GT(pics.size(), straddling + 2);
    for (size_t i = 0; i < pics.size(); ++i) {
        EXPECT_EQ(pics[i].pts, all[i]);
        ASSERT_EQ(pics[i].md5, want[i]) << "picture " << i;
    }
}
