// Index walks as the host sees them, against ffprobe: the refusals, the media
// information, the key timestamp queries, many walks, and a new file mid-walk.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/FfprobeJson.h"
#include "support/ProbeIndex.h"
#include "tessalo.h"

namespace {

using tsltest::number;
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

// Every audio stream must pass, not only the first; and the rate test reads
// the time base, so AAC in MPEG-TS (44100 Hz counted in 1/90000) is refused.
TEST_F(HostWalk, RefusalsGiveOneEventNoIndexAndLeaveTheInstanceUsable) {
    const auto mainKeys = tsltest::probeIndex(tsltest::media("main.mp4")).keyPts();
    const std::string dir = tsltest::scratchDir(), aacMp3 = dir + "/aac_mp3.mp4", ts = dir + "/main.ts";
    const std::string ffmpeg = "ffmpeg -nostdin -v quiet -y -i " + tsltest::shellQuote(tsltest::media("main.mp4"));
    int mp3Status = 0, tsStatus = 0;
    tsltest::run(ffmpeg + " -map 0:v -map 0:a -map 0:a -c:v copy -c:a:0 copy -c:a:1 libmp3lame " +
                     tsltest::shellQuote(aacMp3),
                 &mp3Status);
    tsltest::run(ffmpeg + " -c copy " + tsltest::shellQuote(ts), &tsStatus);
    ASSERT_TRUE(mp3Status == 0 && tsStatus == 0);
    for (const char* name : {"empty.mp4", "text.mp4"}) {  // FFmpeg cannot open these: asked, not assumed
        int status = 0;
        tsltest::run("ffprobe -v error " + tsltest::shellQuote(tsltest::media(name)) + " 2>&1", &status);
        ASSERT_NE(status, 0) << name << " opens in ffprobe";
    }
    const std::pair<std::string, int32_t> cases[] = {
        {"/nonexistent/tessalo/missing.mp4", kHostEventFileError},
        {tsltest::media("empty.mp4"), kHostEventFileError},
        {tsltest::media("text.mp4"), kHostEventFileError},
        {tsltest::media("hevc.mp4"), kHostEventBadCodec},
        {tsltest::media("mpeg4.mp4"), kHostEventBadCodec},
        {tsltest::media("mp3audio.mp4"), kHostEventBadCodec},
        {aacMp3, kHostEventBadCodec},
        {tsltest::media("aac22050.mp4"), kHostEventBadSampleRate},
        {ts, kHostEventBadSampleRate},
        {tsltest::media("aac6ch.mp4"), kHostEventBadChannels},
        {tsltest::media("audioonly.mp4"), kHostEventNoVideo}};
    for (const auto& [file, event] : cases) {
        SCOPED_TRACE(file);
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
        const nlohmann::json doc = tsltest::ffprobe(file);
        nlohmann::json video, audio = nlohmann::json::object();  // the first stream of each kind
        for (const auto& s : doc["streams"]) {
            if (s["codec_type"] == "video" && video.is_null()) video = s;
            if (s["codec_type"] == "audio" && audio.empty()) audio = s;
        }
        const tsltest::ProbeIndex truth = tsltest::probeIndex(file);
        ASSERT_TRUE(truth.ok && !video.is_null());
        events.clear();
        ASSERT_EQ(walk(file), kHostEventIndexReady);
        EXPECT_EQ(events.events(), (Events{kHostEventMediaInfo, kHostEventIndexReady}));

        TessaloMediaInfo info;
        TSL_GetMediaInfo(handle, &info);
        const auto [num, den] = tsltest::fraction(video, "r_frame_rate");
        EXPECT_EQ(info.width, number(video, "width"));
        EXPECT_EQ(info.height, number(video, "height"));
        EXPECT_EQ(info.frameRate, num / den);  // truncated
        EXPECT_EQ(info.videoBitRate, number(video, "bit_rate"));
        EXPECT_NEAR(info.durationMs, std::stod(doc["format"].value("duration", "0")) * 1000.0, 0.001);
        EXPECT_EQ(info.sampleRate, number(audio, "sample_rate", -1));
        EXPECT_EQ(info.channels, number(audio, "channels"));
        EXPECT_EQ(info.audioBitRate, number(audio, "bit_rate"));
        EXPECT_TRUE(info.videoCodec == 0 && info.audioCodec == 1 && info.rotation == 0);

        // No fixture has two groups with the same lowest timestamp: each key answers its own group.
        ASSERT_EQ(keyPts(), truth.keyPts());
        for (const std::vector<int64_t>& group : truth.sortedGroupPts()) {
            EXPECT_EQ(TSL_GetPtsCountByKeyPts(handle, group.front()), static_cast<int32_t>(group.size()));
            std::vector<int64_t> pts(group.size() + 1, -7);
            EXPECT_EQ(TSL_GetPtsByKeyPts(handle, group.front(), pts.data()), static_cast<int32_t>(group.size()));
            EXPECT_EQ(pts.back(), -7);
            pts.pop_back();
            EXPECT_EQ(pts, group) << "key " << group.front();
        }
        EXPECT_EQ(TSL_GetPtsCountByKeyPts(handle, -12345), 0);
    }
}

// Shapes of other producers, against ffprobe: a phone's display matrix (which
// ffprobe reads as counter-clockwise degrees), a variable rate whose nominal
// rate is the 1/90000 time base, and a cover picture beside the video, left out.
TEST_F(HostWalk, RotationRateAndCoverArtInTheMediaInformation) {
    const struct { const char* name; int32_t rotation; bool rateIsTimeBase; } cases[] = {
        {"rotated90.mp4", 90, false}, {"vfr.mp4", 0, true}, {"coverart.mp4", 0, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string file = tsltest::media(c.name);
        const nlohmann::json video = tsltest::ffprobe(file)["streams"][0];
        const nlohmann::json side = video.value("side_data_list", nlohmann::json::array());
        const int64_t counterClockwise = side.empty() ? 0 : number(side[0], "rotation");
        const auto [num, den] = tsltest::fraction(video, "r_frame_rate");
        const auto [avgNum, avgDen] = tsltest::fraction(video, "avg_frame_rate");
        ASSERT_EQ(num == 90000 && den == 1, c.rateIsTimeBase);
        events.clear();
        ASSERT_EQ(walk(file), kHostEventIndexReady);
        TessaloMediaInfo info;
        TSL_GetMediaInfo(handle, &info);
        EXPECT_EQ(info.rotation, c.rotation);
        EXPECT_EQ(info.rotation, (360 - counterClockwise) % 360);
        EXPECT_EQ(info.frameRate, c.rateIsTimeBase ? avgNum / avgDen : num / den);
        EXPECT_EQ(info.width, number(video, "width"));
        EXPECT_EQ(keyPts(), tsltest::probeIndex(file).keyPts());
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
    constexpr int32_t kCallReturned = -100;  // a mark among the events; the new walk may already be reporting
    events.record(kCallReturned);
    // The old walk has ended inside the call; if it had a group, it announced
    // its part before the call returned, and never afterwards.
    ASSERT_TRUE(events.waitFor(kHostEventMediaInfo, 2));
    Events seen = events.events();
    const size_t oldReady = seen[1] == kHostEventIndexReady ? 1 : 0;
    ASSERT_TRUE(events.waitFor(kHostEventIndexReady, oldReady + 1));
    seen = events.events();
    const auto mark = std::find(seen.begin(), seen.end(), kCallReturned);
    EXPECT_GE(mark - seen.begin(), static_cast<std::ptrdiff_t>(oldReady + 1)) << "the old walk spoke after the call";
    seen.erase(mark);
    const Events expected = oldReady ? Events{kHostEventMediaInfo, kHostEventIndexReady, kHostEventMediaInfo,
                                              kHostEventIndexReady}
                                     : Events{kHostEventMediaInfo, kHostEventMediaInfo, kHostEventIndexReady};
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(keyPts(), tsltest::probeIndex(tiny).keyPts()) << "nothing of the first file's index remains";
}

}  // namespace
