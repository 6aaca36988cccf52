// Index walks as the host sees them, against ffprobe: the refusals, the media
// information, the key timestamp queries, many walks, and a new file mid-walk.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "support/ProbeIndex.h"
#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

using Events = std::vector<int32_t>;

class HostWalk : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(handle, nullptr); }
    void TearDown() override { TSL_DestoryTessalo(handle); }
    // Starts a walk of `file` and waits for its end; returns the ending event.
    int32_t walk(const std::string& file) {
        if (!TSL_StartPic(handle, file.c_str())) return -2;  // a file's problem is never the export's result
        return events.waitForAny({kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec,
                                  kHostEventBadSampleRate, kHostEventBadChannels, kHostEventNoVideo});
    }
    std::vector<int64_t> keyPts() {
        std::vector<int64_t> out(static_cast<size_t>(std::max(TSL_GetKeyPtsCount(handle), 0)));
        EXPECT_EQ(TSL_GetKeyPts(handle, out.data()), static_cast<int32_t>(out.size()));
        return out;
    }
    tsltest::EventRecorder events;
    void* handle = TSL_CreateTessalo(&events, &tsltest::EventRecorder::callback);
};

TEST_F(HostWalk, RefusalsGiveOneEventNoIndexAndLeaveTheInstanceUsable) {
    const auto mainKeys = tsltest::probeIndex(tsltest::media("main.mp4")).keyPts();
    for (const char* name : {"empty.mp4", "text.mp4"}) {  // FFmpeg cannot open these: asked, not assumed
        int status = 0;
        tsltest::run("ffprobe -v error " + tsltest::shellQuote(tsltest::media(name)) + " 2>&1", &status);
        ASSERT_NE(status, 0) << name << " opens in ffprobe";
    }
    const std::pair<const char*, int32_t> cases[] = {
        {"missing.mp4", kHostEventFileError},    {"hevc.mp4", kHostEventBadCodec},
        {"mpeg4.mp4", kHostEventBadCodec},       {"mp3audio.mp4", kHostEventBadCodec},
        {"coverart.mp4", kHostEventBadCodec},    {"aac22050.mp4", kHostEventBadSampleRate},
        {"aac6ch.mp4", kHostEventBadChannels},   {"audioonly.mp4", kHostEventNoVideo},
        {"empty.mp4", kHostEventFileError},      {"text.mp4", kHostEventFileError}};
    for (const auto& [name, event] : cases) {
        SCOPED_TRACE(name);
        const std::string file = name == std::string("missing.mp4") ? "/nonexistent/tessalo/missing.mp4"
                                                                     : tsltest::media(name);
        events.clear();
        ASSERT_EQ(walk(file), event);
        EXPECT_EQ(TSL_GetKeyPtsCount(handle), 0);
        // The next walk joins the refused one: only then is its event list final.
        ASSERT_TRUE(TSL_StartPic(handle, tsltest::media("main.mp4").c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventIndexReady));
        EXPECT_EQ(events.events(), (Events{event, kHostEventMediaInfo, kHostEventIndexReady}));
        EXPECT_EQ(keyPts(), mainKeys);
    }
}

// The media information, and every key timestamp query, against ffprobe.
TEST_F(HostWalk, MediaInformationAndIndexEqualFfprobe) {
    for (const char* name : {"main.mp4", "mono48k.mp4", "noaudio.mp4", "main.mov"}) {
        SCOPED_TRACE(name);
        const std::string file = tsltest::media(name);
        std::map<std::string, std::string> v, a;  // key=value lines of ffprobe for a stream and the format
        for (auto [out, args] : {std::pair{&v, "-select_streams v:0 -show_entries stream=width,height,"
                                               "r_frame_rate,bit_rate:format=duration"},
                                 std::pair{&a, "-select_streams a:0 -show_entries stream=sample_rate,channels,"
                                               "bit_rate"}}) {
            std::istringstream lines(tsltest::run("ffprobe -v error " + std::string(args) +
                                                  " -of default=noprint_wrappers=1 " + tsltest::shellQuote(file)));
            for (std::string line; std::getline(lines, line);)
                if (const size_t eq = line.find('='); eq != std::string::npos) (*out)[line.substr(0, eq)] = line.substr(eq + 1);
        }
        const tsltest::ProbeIndex truth = tsltest::probeIndex(file);
        ASSERT_TRUE(truth.ok && !v.empty());
        events.clear();
        ASSERT_EQ(walk(file), kHostEventIndexReady);
        EXPECT_EQ(events.events(), (Events{kHostEventMediaInfo, kHostEventIndexReady}));

        TessaloMediaInfo info;
        TSL_GetMediaInfo(handle, &info);
        EXPECT_EQ(info.width, std::stoi(v["width"]));
        EXPECT_EQ(info.height, std::stoi(v["height"]));
        const std::string rate = v["r_frame_rate"];
        EXPECT_EQ(info.frameRate, static_cast<int32_t>(std::stod(rate) / std::stod(rate.substr(rate.find('/') + 1))));
        EXPECT_EQ(info.videoBitRate, std::stoi(v["bit_rate"]));
        EXPECT_NEAR(info.durationMs, std::stod(v["duration"]) * 1000.0, 0.001);
        EXPECT_EQ(info.sampleRate, a.empty() ? -1 : std::stoi(a["sample_rate"]));
        EXPECT_EQ(info.channels, a.empty() ? 0 : std::stoi(a["channels"]));
        EXPECT_EQ(info.audioBitRate, a.empty() ? 0 : std::stoi(a["bit_rate"]));
        EXPECT_TRUE(info.videoCodec == 0 && info.audioCodec == 1 && info.reserved == 0);

        const std::vector<int64_t> keys = keyPts();
        EXPECT_EQ(keys, truth.keyPts());
        const auto groups = truth.sortedGroupPts();
        for (int64_t key : keys) {
            // The count is the first group's with this lowest pts; the values are all such groups', in order.
            std::vector<int64_t> expected;
            size_t firstSize = 0;
            for (const auto& group : groups) {
                if (group.front() != key) continue;
                if (expected.empty()) firstSize = group.size();
                expected.insert(expected.end(), group.begin(), group.end());
            }
            EXPECT_EQ(TSL_GetPtsCountByKeyPts(handle, key), static_cast<int32_t>(firstSize));
            std::vector<int64_t> pts(expected.size() + 1, -7);
            EXPECT_EQ(TSL_GetPtsByKeyPts(handle, key, pts.data()), static_cast<int32_t>(expected.size()));
            EXPECT_EQ(pts.back(), -7);
            pts.pop_back();
            EXPECT_EQ(pts, expected) << "key " << key;
        }
        EXPECT_EQ(TSL_GetPtsCountByKeyPts(handle, -12345), 0);
    }
}

// A lost end of walk leaves the worker asleep: the wait would time out.
TEST_F(HostWalk, ManyWalksLoseNoEnd) {
    const std::string tiny = tsltest::media("tiny.mp4");
    const auto keys = tsltest::probeIndex(tiny).keyPts();
    for (size_t i = 1; i <= 150; ++i) {
        ASSERT_TRUE(TSL_StartPic(handle, tiny.c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventIndexReady, i, std::chrono::seconds(20))) << "walk " << i;
        ASSERT_EQ(keyPts(), keys) << "walk " << i;
    }
    EXPECT_EQ(events.count(kHostEventMediaInfo), 150u);
    EXPECT_EQ(events.events().size(), 300u);
}

TEST_F(HostWalk, ANewFileDuringAWalkReplacesIt) {
    const std::string tiny = tsltest::media("tiny.mp4");
    ASSERT_TRUE(TSL_StartPic(handle, tsltest::longWalkFile().c_str()));
    ASSERT_TRUE(events.waitFor(kHostEventMediaInfo));
    ASSERT_TRUE(TSL_StartPic(handle, tiny.c_str()));
    // The old walk has ended inside the call; if it had a group, it announced
    // its part before the call returned, and never afterwards.
    Events expected = events.events();
    const size_t oldReady = events.count(kHostEventIndexReady);
    EXPECT_EQ(expected, (oldReady ? Events{kHostEventMediaInfo, kHostEventIndexReady} : Events{kHostEventMediaInfo}));
    ASSERT_TRUE(events.waitFor(kHostEventIndexReady, oldReady + 1));
    expected.insert(expected.end(), {kHostEventMediaInfo, kHostEventIndexReady});
    EXPECT_EQ(events.events(), expected);
    EXPECT_EQ(keyPts(), tsltest::probeIndex(tiny).keyPts()) << "nothing of the first file's index remains";
}

}  // namespace
