// The exports as a host meets them: null handles, a new instance, creation and destruction, the symbol
// list and the header's layouts; walks against ffprobe; calls made from inside callbacks and around a
// running cut.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "support/ApiHost.h"
#include "support/ProbeIndex.h"

extern "C" int tslHeaderCheckC(void);

namespace {

using namespace tsltest;

TEST(NullHandle, EveryExportAnswersWithoutLookingFurther) {
    TessaloMediaInfo info;
    std::memset(&info, 0x5A, sizeof info);
    int64_t pts = 77, out[1] = {5};
    uint8_t isKey = 9, buffer[16] = {};
    const EditRange range{0, 1000};
    EditOffset offsets[1] = {{1, 2}};
    int32_t outCount = 42;
    const std::string file = media("main.mp4");
    TSL_DestoryTessalo(nullptr);
    TSL_SetOutputPicFormat(nullptr, 3);
    TSL_CancelFile(nullptr);
    TSL_GetMediaInfo(nullptr, &info);
    EXPECT_EQ(info.width, 0x5A5A5A5A);
    EXPECT_EQ((std::vector<bool>{TSL_StartPic(nullptr, file.c_str()), TSL_GetPicByPts(nullptr, out, 1),
                                 TSL_CutFile(nullptr, file.c_str(), "/tmp/x.mp4", &range, 1, offsets, 1, kCutKindMp4),
                                 TSL_GetEditOffsetPts(nullptr, offsets, 1, &outCount)}),
              std::vector<bool>(4, false));
    EXPECT_EQ((std::vector<int64_t>{TSL_GetOnePicSize(nullptr), TSL_GetPic(nullptr, buffer, &pts, &isKey),
                                    TSL_GetPicPts(nullptr), TSL_GetKeyPtsCount(nullptr), TSL_GetKeyPts(nullptr, out),
                                    TSL_GetPtsCountByKeyPts(nullptr, 0), TSL_GetPtsByKeyPts(nullptr, 0, out)}),
              std::vector<int64_t>(7, -1));
    EXPECT_TRUE(pts == 77 && isKey == 9 && out[0] == 5 && outCount == 42 && offsets[0].first == 1)
        << "nothing written through a null handle";
}

TEST(NewInstance, NeedsACallbackAndKnowsNothingYet) {
    EXPECT_EQ(TSL_CreateTessalo(nullptr, nullptr), nullptr);
    void* handle = TSL_CreateTessalo(nullptr, [](void*, int32_t) { return int32_t{0}; });
    ASSERT_NE(handle, nullptr);
    int64_t out[1] = {5}, pts = 99;
    uint8_t buffer[4] = {1, 2, 3, 4}, isKey = 7;
    EXPECT_EQ((std::vector<int64_t>{TSL_GetOnePicSize(handle), TSL_GetPicPts(handle), TSL_GetKeyPtsCount(handle),
                                    TSL_GetKeyPts(handle, out), TSL_GetPtsByKeyPts(handle, 0, out),
                                    TSL_GetPic(handle, buffer, &pts, &isKey)}),
              (std::vector<int64_t>{0, -1, 0, 0, 0, 0}));
    EXPECT_TRUE(out[0] == 5 && pts == -1 && isKey == 0 && buffer[0] == 1) << pts << " " << int{isKey};
    unsigned char info[sizeof(TessaloMediaInfo)], zeros[sizeof info] = {};
    std::memset(info, 0xA5, sizeof info);
    TSL_GetMediaInfo(handle, reinterpret_cast<TessaloMediaInfo*>(info));
    EXPECT_EQ(std::memcmp(info, zeros, sizeof info), 0) << "48 zero bytes";
    TSL_DestoryTessalo(handle);
}

// Creation starts no thread. Destruction in the middle of a walk returns after its threads have ended; the
// stopped walk may announce its part from inside the call, nothing after.
TEST(Create, InstancesComeAndGoAndLeaveNoThread) {
    const size_t before = threadCount();
    for (int i = 0; i < 300; ++i) {
        Host a, b;
        ASSERT_TRUE(a.handle && b.handle && a.handle != b.handle);
        EXPECT_EQ(threadCount(), before) << "creating an instance starts no thread";
    }
    for (int i = 0; i < 5; ++i) {
        EventRecorder events;
        void* walking = TSL_CreateTessalo(&events, &EventRecorder::callback);
        ASSERT_TRUE(TSL_StartPic(walking, media("long_walk.mp4").c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventMediaInfo));
        EXPECT_GT(threadCount(), before) << "the walk runs on threads of its own";
        TSL_DestoryTessalo(walking);
        EXPECT_EQ(threadCount(), before);
        const auto seen = events.events();
        EXPECT_TRUE(seen == Events{kHostEventMediaInfo} || seen == (Events{kHostEventMediaInfo, kHostEventIndexReady}));
    }
}

// Inside every callback the host calls the three exports that wait for the library's threads: each would
// wait for the thread it runs on (or for one that waits for it), so each refuses at once and changes nothing.
TEST(Reentrancy, WaitingExportsRefuseFromInsideEveryCallback) {
    Host host;
    const std::string path = media("main.mp4");
    EventRecorder accepted, all;
    host.inside = [&](int32_t event) {
        const int64_t key = 0;
        if (TSL_GetPicByPts(host.handle, &key, 1) || TSL_StartPic(host.handle, path.c_str())) accepted.record(event);
        TSL_DestoryTessalo(host.handle);
        all.record(event);
    };
    ASSERT_EQ(host.walk("/nonexistent/reentrant.mp4"), kHostEventFileError);
    ASSERT_TRUE(host.index(path));
    ASSERT_EQ(host.request({0}).back(), kHostEventPicDone);
    ASSERT_EQ(host.request({-5, -6}).back(), kHostEventPicDone);  // DecodeError each, NoPic
    ASSERT_EQ(host.cut(path, scratchDir() + "/cut.mp4", {0, 1000}, kCutKindMp4), kHostEventCutDone);
    TSL_CancelFile(host.handle);
    EXPECT_EQ(accepted.events(), Events{}) << "a waiting export was accepted in a callback";
    for (int32_t event : {kHostEventFileError, kHostEventMediaInfo, kHostEventIndexReady, kHostEventPicStart,
                          kHostEventPicReady, kHostEventDecodeError, kHostEventNoPic, kHostEventPicDone,
                          kHostEventCutDone})
        EXPECT_GT(all.count(event), 0u) << "no callback of event " << event;
    // The instance lived through every refused destruction and still serves.
    EXPECT_EQ(host.request({0}), kOnePicture);
}

TEST(SharedObject, ExportsExactlyTheSixteenFunctions) {
    int status = 0;
    const std::string symbols = run("nm -D --defined-only " + shellQuote(TSL_BUILD_DIR "/libtessalo.so") +
                                    " | awk '{print $3}' | sort | tr '\\n' ' '", &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(symbols,
              "TSL_CancelFile TSL_CreateTessalo TSL_CutFile TSL_DestoryTessalo TSL_GetEditOffsetPts TSL_GetKeyPts "
              "TSL_GetKeyPtsCount TSL_GetMediaInfo TSL_GetOnePicSize TSL_GetPic TSL_GetPicByPts TSL_GetPicPts "
              "TSL_GetPtsByKeyPts TSL_GetPtsCountByKeyPts TSL_SetOutputPicFormat TSL_StartPic ");
}

TEST(PublicHeader, RecordLayoutsMatchBetweenCAndCxx) {
    EXPECT_EQ(tslHeaderCheckC(), 48 + 16 + 16 + 15);  // the C translation unit saw the same sizes as this one
    EXPECT_EQ((std::vector<size_t>{offsetof(TessaloMediaInfo, height), offsetof(TessaloMediaInfo, width),
                                   offsetof(TessaloMediaInfo, channels), offsetof(TessaloMediaInfo, videoCodec),
                                   offsetof(EditOffset, second)}),
              (std::vector<size_t>{0, 4, 20, 40, 8}));
}

// The media information and every key timestamp query against ffprobe, on shapes of other producers too:
// a phone's display matrix (ffprobe reads it as counter-clockwise degrees), a variable rate whose nominal
// rate is the 1/90000 time base, and a cover picture beside the video, left out.
TEST(HostWalk, MediaInformationAndKeyQueriesEqualFfprobe) {
    const struct { const char* name; int32_t rotation; bool rateIsTimeBase; } rows[] = {
        {"main.mp4", 0, false},      {"mono48k.mp4", 0, false}, {"noaudio.mp4", 0, false},  {"main.mov", 0, false},
        {"rotated90.mp4", 90, false}, {"vfr.mp4", 0, true},      {"coverart.mp4", 0, false}};
    Host host;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string file = media(row.name);
        const nlohmann::json doc = ffprobe(file);
        nlohmann::json video, audio = nlohmann::json::object();  // the first stream of each kind
        for (const auto& s : doc["streams"]) {
            if (s["codec_type"] == "video" && video.is_null()) video = s;
            if (s["codec_type"] == "audio" && audio.empty()) audio = s;
        }
        const ProbeIndex truth = probeIndex(file);
        ASSERT_TRUE(truth.ok && !video.is_null());
        ASSERT_EQ(host.walk(file), kHostEventIndexReady);
        EXPECT_EQ(host.events.events(), (Events{kHostEventMediaInfo, kHostEventIndexReady}));
        TessaloMediaInfo info;
        TSL_GetMediaInfo(host.handle, &info);
        const nlohmann::json side = video.value("side_data_list", nlohmann::json::array());
        const auto [num, den] = fraction(video, "r_frame_rate");
        const auto [avgNum, avgDen] = fraction(video, "avg_frame_rate");
        ASSERT_EQ(num == 90000 && den == 1, row.rateIsTimeBase);
        EXPECT_EQ(info.rotation, row.rotation);
        EXPECT_EQ(info.rotation, (360 - (side.empty() ? 0 : number(side[0], "rotation"))) % 360);
        EXPECT_EQ(info.width, number(video, "width"));
        EXPECT_EQ(info.height, number(video, "height"));
        EXPECT_EQ(info.frameRate, row.rateIsTimeBase ? avgNum / avgDen : num / den);  // truncated
        EXPECT_EQ(info.videoBitRate, number(video, "bit_rate"));
        EXPECT_NEAR(info.durationMs, std::stod(doc["format"].value("duration", "0")) * 1000.0, 0.001);
        EXPECT_EQ(info.sampleRate, number(audio, "sample_rate", -1));
        EXPECT_EQ(info.channels, number(audio, "channels"));
        EXPECT_EQ(info.audioBitRate, number(audio, "bit_rate"));
        EXPECT_TRUE(info.videoCodec == 0 && info.audioCodec == 1);
        // No fixture has two groups with the same lowest timestamp: each key answers its own group.
        ASSERT_EQ(host.keyPts(), truth.keyPts());
        for (const std::vector<int64_t>& group : truth.sortedGroupPts()) {
            EXPECT_EQ(TSL_GetPtsCountByKeyPts(host.handle, group.front()), int32_t(group.size()));
            EXPECT_EQ(host.groupPts(group.front()), group) << "key " << group.front();
        }
        EXPECT_EQ(TSL_GetPtsCountByKeyPts(host.handle, -12345), 0);
    }
}

// A lost end of walk leaves the worker asleep: the wait would time out.
TEST(HostWalk, ManyWalksLoseNoEnd) {
    const std::string tiny = media("tiny.mp4");
    const auto keys = probeIndex(tiny).keyPts();
    Host host;
    for (size_t i = 1; i <= 150; ++i) {
        ASSERT_TRUE(TSL_StartPic(host.handle, tiny.c_str()));
        ASSERT_TRUE(host.events.waitFor(kHostEventIndexReady, i, std::chrono::seconds(20))) << "walk " << i;
        ASSERT_EQ(host.keyPts(), keys) << "walk " << i;
    }
    EXPECT_EQ(host.events.count(kHostEventMediaInfo), 150u);
    EXPECT_EQ(host.events.events().size(), 300u);
}

// The old walk ends inside the call; if it had a group, it announced its part before the call returned, and
// never afterwards.
TEST(HostWalk, ANewFileDuringAWalkReplacesIt) {
    const std::string tiny = media("tiny.mp4");
    Host host;
    ASSERT_TRUE(TSL_StartPic(host.handle, media("long_walk.mp4").c_str()));
    ASSERT_TRUE(host.events.waitFor(kHostEventMediaInfo));
    ASSERT_TRUE(TSL_StartPic(host.handle, tiny.c_str()));
    constexpr int32_t kCallReturned = -100;  // a mark among the events; the new walk may already be reporting
    host.events.record(kCallReturned);
    ASSERT_TRUE(host.events.waitFor(kHostEventMediaInfo, 2));
    const Events old = host.events.events()[1] == kHostEventIndexReady
                           ? Events{kHostEventMediaInfo, kHostEventIndexReady} : Events{kHostEventMediaInfo};
    ASSERT_TRUE(host.events.waitFor(kHostEventIndexReady, old.size()));
    Events seen = host.events.events();
    const auto mark = std::find(seen.begin(), seen.end(), kCallReturned);
    EXPECT_GE(size_t(mark - seen.begin()), old.size()) << "the old walk spoke after the call";
    seen.erase(mark);
    Events expected = old;
    expected.insert(expected.end(), {kHostEventMediaInfo, kHostEventIndexReady});
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(host.keyPts(), probeIndex(tiny).keyPts()) << "nothing of the first file's index remains";
}

// Inside the done event, which runs on the muxer thread while the cut thread waits for it, neither a cut nor
// a cancel waits for a thread that waits for the callback: the cut is refused, the cancel only asks the
// finished job to stop, and the job's own thread releases it.
TEST(CutCallbacks, CancelAndCutFromInsideDoneReturnAtOnce) {
    const std::string src = media("main.mp4"), dir = scratchDir();
    const size_t threads = threadCount();
    {
        Host host;
        ASSERT_TRUE(host.index(src));
        EventRecorder cutInside;  // what the cut export answered inside the first done event
        host.inside = [&](int32_t event) {
            if (event != kHostEventCutDone || !cutInside.events().empty()) return;
            TSL_CancelFile(host.handle);
            cutInside.record(host.startCut(src, "/nonexistent/x.mp4", {0, 1000}));
            TSL_CancelFile(host.handle);
        };
        ASSERT_EQ(host.cut(src, dir + "/out.mp4", {1000, 3000}), kHostEventCutDone);
        EXPECT_EQ(cutInside.events(), Events{false});
        TSL_CancelFile(host.handle);  // joins the cut thread, which has released its job
        EXPECT_EQ(decodeErrors(dir + "/out.mp4"), "");
        EXPECT_EQ(host.cut(src, dir + "/again.mp4", {0, 2000}), kHostEventCutDone) << "the engine takes the next job";
    }
    EXPECT_EQ(threadCount(), threads);
}

// The cut reads the index that a new walk clears: the walk stops the cut first, and no outcome of that cut
// comes after it.
TEST(CutCallbacks, ANewWalkStopsARunningCutFirst) {
    Host host;
    const std::string large = media("large.mp4");
    ASSERT_TRUE(host.index(large));
    ASSERT_TRUE(host.startCut(large, scratchDir() + "/out.mp4", {0, 3000}));
    ASSERT_TRUE(TSL_StartPic(host.handle, media("main.mp4").c_str()));
    const size_t outcomes = host.events.count(kHostEventCutDone) + host.events.count(kHostEventCutFailed);
    ASSERT_TRUE(host.events.waitFor(kHostEventIndexReady, 2));
    EXPECT_EQ(host.events.count(kHostEventCutDone) + host.events.count(kHostEventCutFailed), outcomes);
    EXPECT_GT(TSL_GetKeyPtsCount(host.handle), 0);
}

}  // namespace
