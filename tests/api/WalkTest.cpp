// Index walks as the host sees them: the events of each file, the media
// information and the key timestamp queries, against ffprobe.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>

#include "support/ProbeIndex.h"
#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

const std::vector<int32_t> kWalkEnds = {kHostEventIndexReady, kHostEventFileError, kHostEventError,
                                        kHostEventBadCodec,   kHostEventBadSampleRate, kHostEventBadChannels,
                                        kHostEventNoVideo,    kHostEventUnassigned};

class HostWalk : public ::testing::Test {
protected:
    void SetUp() override {
        handle = TSL_CreateTessalo(&events, &tsltest::EventRecorder::callback);
        ASSERT_NE(handle, nullptr);
    }
    void TearDown() override { TSL_DestoryTessalo(handle); }

    // key=value lines of ffprobe for one stream (or the format) of a file.
    static std::map<std::string, std::string> probe(const std::string& file, const std::string& args) {
        std::map<std::string, std::string> out;
        std::istringstream lines(
            tsltest::run("ffprobe -v error " + args + " -of default=noprint_wrappers=1 " + tsltest::shellQuote(file)));
        std::string line;
        while (std::getline(lines, line)) {
            const size_t eq = line.find('=');
            if (eq != std::string::npos) out[line.substr(0, eq)] = line.substr(eq + 1);
        }
        return out;
    }

    std::vector<int64_t> keyPts() {
        const int32_t count = TSL_GetKeyPtsCount(handle);
        std::vector<int64_t> out(static_cast<size_t>(std::max(count, 0)));
        EXPECT_EQ(TSL_GetKeyPts(handle, out.data()), count);
        return out;
    }

    tsltest::EventRecorder events;
    void* handle = nullptr;
};

TEST_F(HostWalk, RefusalsGiveOneEventNoIndexAndLeaveTheInstanceUsable) {
    struct Case {
        std::string file;
        int32_t event;
    };
    std::vector<Case> cases = {
        {"/nonexistent/tessalo/missing.mp4", kHostEventFileError},
        {tsltest::media("hevc.mp4"), kHostEventBadCodec},
        {tsltest::media("mpeg4.mp4"), kHostEventBadCodec},
        {tsltest::media("mp3audio.mp4"), kHostEventBadCodec},
        {tsltest::media("coverart.mp4"), kHostEventBadCodec},
        {tsltest::media("aac22050.mp4"), kHostEventBadSampleRate},
        {tsltest::media("aac6ch.mp4"), kHostEventBadChannels},
        {tsltest::media("audioonly.mp4"), kHostEventNoVideo},
    };
    // Files that FFmpeg cannot open at all are the demuxer's open failure;
    // whether it can is asked of ffprobe, not assumed.
    for (const char* name : {"empty.mp4", "text.mp4"}) {
        int status = 0;
        tsltest::run("ffprobe -v error " + tsltest::shellQuote(tsltest::media(name)) + " 2>&1", &status);
        ASSERT_NE(status, 0) << name << " opens in ffprobe; this test expects it not to";
        cases.push_back({tsltest::media(name), kHostEventFileError});
    }
    const size_t mainGroups = tsltest::probeIndex(tsltest::media("main.mp4")).keyGroups.size();

    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        events.clear();
        ASSERT_TRUE(TSL_StartPic(handle, c.file.c_str())) << "a file's problem is never the export's result";
        ASSERT_EQ(events.waitForAny(kWalkEnds), c.event);
        EXPECT_EQ(TSL_GetKeyPtsCount(handle), 0);
        // The next walk joins the refused one: only then is its event list final.
        ASSERT_TRUE(TSL_StartPic(handle, tsltest::media("main.mp4").c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventIndexReady));
        EXPECT_EQ(events.events(), (std::vector<int32_t>{c.event, kHostEventMediaInfo, kHostEventIndexReady}));
        EXPECT_EQ(static_cast<size_t>(TSL_GetKeyPtsCount(handle)), mainGroups);
    }
}

TEST_F(HostWalk, MediaInformationEqualsFfprobe) {
    for (const char* name : {"main.mp4", "mono48k.mp4", "noaudio.mp4", "main.mov"}) {
        SCOPED_TRACE(name);
        const std::string file = tsltest::media(name);
        auto video = probe(file, "-select_streams v:0 -show_entries stream=width,height,r_frame_rate,bit_rate");
        auto audio = probe(file, "-select_streams a:0 -show_entries stream=sample_rate,channels,bit_rate");
        auto format = probe(file, "-show_entries format=duration");
        ASSERT_FALSE(video.empty());

        events.clear();
        ASSERT_TRUE(TSL_StartPic(handle, file.c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventIndexReady));
        TessaloMediaInfo info;
        TSL_GetMediaInfo(handle, &info);

        EXPECT_EQ(info.width, std::stoi(video["width"]));
        EXPECT_EQ(info.height, std::stoi(video["height"]));
        const std::string rate = video["r_frame_rate"];
        const double fps = std::stod(rate.substr(0, rate.find('/'))) / std::stod(rate.substr(rate.find('/') + 1));
        EXPECT_EQ(info.frameRate, static_cast<int32_t>(fps));
        EXPECT_EQ(info.videoBitRate, std::stoi(video["bit_rate"]));
        EXPECT_EQ(info.videoCodec, 0);
        EXPECT_EQ(info.audioCodec, 1);
        EXPECT_EQ(info.reserved, 0);
        EXPECT_NEAR(info.durationMs, std::stod(format["duration"]) * 1000.0, 0.001);
        if (audio.empty()) {
            EXPECT_EQ(info.sampleRate, -1);
            EXPECT_EQ(info.channels, 0);
            EXPECT_EQ(info.audioBitRate, 0);
        } else {
            EXPECT_EQ(info.sampleRate, std::stoi(audio["sample_rate"]));
            EXPECT_EQ(info.channels, std::stoi(audio["channels"]));
            EXPECT_EQ(info.audioBitRate, std::stoi(audio["bit_rate"]));
        }
    }
}

TEST_F(HostWalk, KeyTimestampQueriesEqualFfprobe) {
    for (const char* name : {"main.mp4", "noaudio.mp4", "twovideo.mp4", "main.mov"}) {
        SCOPED_TRACE(name);
        const tsltest::ProbeIndex truth = tsltest::probeIndex(tsltest::media(name));
        ASSERT_TRUE(truth.ok);
        ASSERT_GT(truth.keyGroups.size(), 1u);
        events.clear();
        ASSERT_TRUE(TSL_StartPic(handle, tsltest::media(name).c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventIndexReady));
        EXPECT_EQ(events.events(), (std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}));

        const std::vector<int64_t> keys = keyPts();
        EXPECT_EQ(keys, truth.keyPts());
        const auto groups = truth.sortedGroupPts();
        for (size_t g = 0; g < keys.size() && g < groups.size(); ++g) {
            // Every group with this lowest timestamp, in order.
            std::vector<int64_t> expected;
            size_t firstSize = 0;
            for (const auto& group : groups) {
                if (group.front() != keys[g]) continue;
                if (expected.empty()) firstSize = group.size();
                expected.insert(expected.end(), group.begin(), group.end());
            }
            EXPECT_EQ(TSL_GetPtsCountByKeyPts(handle, keys[g]), static_cast<int32_t>(firstSize));
            std::vector<int64_t> pts(expected.size() + 1, -7);
            EXPECT_EQ(TSL_GetPtsByKeyPts(handle, keys[g], pts.data()), static_cast<int32_t>(expected.size()));
            EXPECT_EQ(pts.back(), -7);
            pts.pop_back();
            EXPECT_EQ(pts, expected) << "group " << g;
        }
        int64_t untouched = -7;
        EXPECT_EQ(TSL_GetPtsCountByKeyPts(handle, -12345), 0);
        EXPECT_EQ(TSL_GetPtsByKeyPts(handle, -12345, &untouched), 0);
        EXPECT_EQ(untouched, -7);
    }
}

TEST_F(HostWalk, TheNextFileTakesTheFormerIndexAwayFromTheCutEngine) {
    const std::string source = tsltest::media("main.mp4");
    const std::string output = tsltest::scratchDir() + "/cut.mp4";
    const EditRange range{0, 1000};
    const EditOffset offset{0, 0};
    ASSERT_TRUE(TSL_StartPic(handle, source.c_str()));
    ASSERT_TRUE(events.waitFor(kHostEventIndexReady));
    ASSERT_TRUE(TSL_CutFile(handle, source.c_str(), output.c_str(), &range, 1, &offset, 1, kCutKindMp4))
        << "after the walk the engine has the index";
    ASSERT_NE(events.waitForAny({kHostEventCutDone, kHostEventCutFailed}), -1);
    TSL_CancelFile(handle);

    events.clear();
    ASSERT_TRUE(TSL_StartPic(handle, tsltest::media("hevc.mp4").c_str()));
    ASSERT_EQ(events.waitForAny(kWalkEnds), kHostEventBadCodec);
    EXPECT_FALSE(TSL_CutFile(handle, source.c_str(), output.c_str(), &range, 1, &offset, 1, kCutKindMp4))
        << "the refused file left no index, and the former one is gone";
}

}  // namespace
