// The cut algorithm against the recording muxer (the interleaving of the two
// tracks, the rebuilt timeline, the bytes handed over, reads across the buffer)
// and the job around it: what cut refuses, and how a running job is stopped,
// replaced and cancelled, with the muxer holding the cut thread inside a write.
#include <gtest/gtest.h>

#include <filesystem>

#include "EditTestSupport.h"

using namespace edittest;
using Access = Morvel_Tessalo::FileEditerTestAccess;

namespace {

// Writes of a track's samples from the timeline's start at a steady `step`:
// video pts 1 + step * i with dts 86 below it, audio the same pts with a first dts of 0.
std::vector<Write> steady(const std::vector<Bytes>& samples, int64_t step, bool video) {
    std::vector<Write> out;
    for (int64_t i = 0, pts = 1; i < int64_t(samples.size()); ++i, pts += step)
        out.push_back({pts, video ? pts - 86 : (i ? pts : 0), video ? (i ? 0 : kSampleFlagVideoKey) : kSampleFlagAudio,
                       samples[size_t(i)]});
    return out;
}

TEST(CutOrder, TheWorkedOrder_OneRangeThenTwoRangesWithTheirGapsAndOffsets) {
    // One group of eight frames every 40 ms, audio every 23 ms, stored interleaved by time.
    Host h;
    Source s(h.dir + "/worked.bin");
    for (int64_t v = 0, a = 0; v < 9; ++v) {
        for (; a * 23 <= v * 40 && a < 14; ++a) s.audio(a * 23, 200 + int32_t(a));
        if (v < 8) s.video(v * 40, v * 40, v == 0, 700 + uint32_t(v));
    }
    ASSERT_TRUE(h.index(s.finish()));
    ASSERT_TRUE(h.cutAndWait(s.path, {{0, 1000}}, {{0, 280}}));
    EXPECT_EQ(h.report, (std::vector<EditOffset>{{0, 280}}));  // first range: base 0, key pts 0
    Log log = recorder.snapshot().at(0);
    EXPECT_EQ(log.order, "VVVVAAAVAAVAVAAVAAAAAA");
    EXPECT_EQ(log.completions, 1);
    EXPECT_EQ(log.tracks[kTrackVideo], steady(s.sent[kTrackVideo], 40, true));   // pts 1 .. 281, dts -85 .. 195
    EXPECT_EQ(log.tracks[kTrackAudio], steady(s.sent[kTrackAudio], 23, false));  // 1 .. 300, no ADTS header

    // The range closed videoPts at 281 + 86 = 367. A second range after it finds
    // both lists exhausted and writes nothing, but its offset shows that base.
    ASSERT_TRUE(h.cutAndWait(s.path, {{0, 1000}, {-50, 1000}}, {{-50, -10}}));
    EXPECT_EQ(recorder.snapshot().at(1).order.size(), 22u);
    EXPECT_EQ(h.report, (std::vector<EditOffset>{{-50 + 367, -10 + 367}}));

    // Offsets: inside range 1; inside range 2; just below range 2; straddling both; exactly range 2.
    ASSERT_TRUE(h.cutAndWait(s.path, {{0, 120}, {200, 1000}}, {{40, 80}, {200, 240}, {199, 240}, {100, 250}, {200, 1000}}));
    log = recorder.snapshot().at(2);
    const auto &video = log.tracks[kTrackVideo], &audio = log.tracks[kTrackAudio];
    // Range 1 keeps 4 pictures and 6 audio frames; range 2 opens again on the only key frame, at 0.
    ASSERT_EQ(video.size(), 4u + 8u);
    ASSERT_EQ(audio.size(), 6u + 14u);
    // Range 1 ends on pts 121 / dts 35 and closes videoPts at 121 + 86 = 207;
    // range 2 opens 30 ms on for video (dts too) and 20 ms on for audio.
    EXPECT_EQ(std::make_pair(video[3].pts, video[3].dts), std::make_pair(int64_t(121), int64_t(35)));
    EXPECT_EQ(video[4], (Write{207 + 30, 35 + 30, kSampleFlagVideoKey, s.sent[kTrackVideo][0]}));
    EXPECT_EQ(audio[5].pts, 116);
    EXPECT_EQ(audio[6], (Write{116 + 20, 116 + 20, kSampleFlagAudio, s.sent[kTrackAudio][0]}));
    // An entry inside a range moves once, by that range's base (207 for range 2) less its key pts (0).
    EXPECT_EQ(h.report, (std::vector<EditOffset>{{40, 80}, {407, 447}, {199, 240}, {100, 250}, {407, 1207}}));
}

TEST(CutOrder, DroppedSamplesLeaveNoHoleAndReorderedPicturesKeepTheirDistances) {
    Host h;
    Source s(h.dir + "/drop.bin");
    // Decode order K0 P120 B40 B80 P160; B40's unit claims 1000 bytes it does not hold.
    s.video(0, 0, true, 50), s.video(120, 40, false, 51), s.video(40, 80, false, 52, 1000);
    s.video(80, 120, false, 53), s.video(160, 160, false, 54);
    for (int i = 0; i < 12; ++i) s.audio(23 * i, 100);
    ASSERT_TRUE(h.index(s.finish()));
    ASSERT_TRUE(h.cutAndWait(s.path, {{0, 1000}}));
    const auto& sent = s.sent[kTrackVideo];  // running sums of the source's differences, B40 spanned
    EXPECT_EQ(recorder.snapshot().at(0).tracks[kTrackVideo],
              (std::vector<Write>{{1, -85, kSampleFlagVideoKey, sent[0]}, {121, -45, 0, sent[1]}, {81, 35, 0, sent[3]},
                                  {161, 75, 0, sent[4]}}));
}

TEST(CutOrder, SamplesEitherSideOfTheReadBufferAreCopiedWhole) {
    Host h;
    Source s(h.dir + "/big.bin");
    s.video(0, 0, true, 1000), s.audio(0, 300);
    // The next sample ends exactly where the first 20 MiB read (from byte 64) stops.
    s.skip(64 + Morvel_Tessalo::FileEditer::kReadBufferSize - 5000 - s.end);
    s.video(40, 40, false, 4996);
    ASSERT_EQ(s.end, 64 + Morvel_Tessalo::FileEditer::kReadBufferSize);
    s.audio(23, 300), s.video(80, 80, false, 900), s.audio(46, 300);
    ASSERT_TRUE(h.index(s.finish()));
    ASSERT_TRUE(h.cutAndWait(s.path, {{0, 1000}}));
    const Log log = recorder.snapshot().at(0);
    EXPECT_EQ(log.tracks[kTrackVideo], steady(s.sent[kTrackVideo], 40, true));
    EXPECT_EQ(log.tracks[kTrackAudio], steady(s.sent[kTrackAudio], 23, false));
}

TEST(CutOrder, AFallingPositionFailsTheCutInsteadOfReadingOutsideTheBuffer) {
    // The second audio frame is stored before everything the range opens on.
    Host h;
    Source s(h.dir + "/falling.bin");
    s.audio(23, 150);
    for (int i = 0; i < 3; ++i) s.video(40 * i, 40 * i, i == 0, 400);
    s.audio(0, 150);
    std::swap(s.frames[0], s.frames[1]);
    ASSERT_TRUE(h.index(s.finish()));
    EXPECT_FALSE(h.cutAndWait(s.path, {{0, 1000}}));
    EXPECT_EQ(h.events.events(), std::vector<int32_t>{kNotifyFailed});
    EXPECT_EQ(recorder.snapshot().at(0).order, "VVVA");  // the second audio frame is never reached
}

// 4 s stored by time: a key frame every 400 ms, audio every 23 ms.
struct Long : Source {
    explicit Long(const std::string& dir) : Source(dir + "/long.bin") {
        for (int v = 0, a = 0; v < 100; ++v) {
            for (; 23 * a <= 40 * v; ++a) audio(23 * a, 100);
            video(40 * v, 40 * v, v % 10 == 0, 200);
        }
        finish();
    }
};

bool waitStopRequested(Morvel_Tessalo::FileEditer& editer) {
    for (int i = 0; i < 2000 && !Access::stopRequested(editer); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return Access::stopRequested(editer);
}

TEST(CutJob, RefusedWithoutAnIndex_CancelWithNoJob_TwoJobsStartAlike_CancelAfterAJob_NoAudioFails) {
    Host h;
    const std::string never = h.dir + "/never.mp4";
    EXPECT_FALSE(h.cut(never, {{0, 1000}}));
    EXPECT_FALSE(std::filesystem::exists(never));  // the source open, which creates, never ran
    EXPECT_EQ(recorder.snapshot().size(), 0u);      // no muxer, so no output either
    h.editer.stopCut(), h.editer.releaseCut();
    EXPECT_TRUE(h.events.events().empty());
    Long s(h.dir);
    ASSERT_TRUE(h.index(s));
    for (int job = 0; job < 2; ++job) ASSERT_TRUE(h.cutAndWait(s.path, {{1000, 2000}, {3000, 3500}}, {{1000, 1100}}));
    h.editer.stopCut(), h.editer.releaseCut();
    EXPECT_FALSE(Access::holdsJob(h.editer));
    EXPECT_EQ(h.events.events(), std::vector<int32_t>{kNotifyDone});  // the second job's; none from the cancel
    EditOffset out{};
    EXPECT_FALSE(h.editer.getEditOffsetPts(&out, 1, nullptr));  // the report went with the job
    const auto logs = recorder.snapshot();
    ASSERT_EQ(logs.size(), 2u);
    ASSERT_EQ(logs[0].order[0], 'V');
    EXPECT_EQ(std::make_pair(logs[0].tracks[kTrackVideo][0].pts, logs[0].tracks[kTrackVideo][0].dts), std::make_pair(int64_t(1), int64_t(-85)));
    EXPECT_EQ(logs[0].order, logs[1].order);
    EXPECT_TRUE(logs[0].tracks[0] == logs[1].tracks[0] && logs[0].tracks[1] == logs[1].tracks[1]);
    h.editer.clearFrameIndex();
    EXPECT_FALSE(h.cut(s.path, {{0, 1000}}));

    // A file without audio: the job runs and fails; the output is finalised all the same.
    Source video(h.dir + "/video.bin");
    for (int i = 0; i < 20; ++i) video.video(40 * i, 40 * i, i % 10 == 0, 300);
    ASSERT_TRUE(h.index(video.finish()));
    EXPECT_FALSE(h.cutAndWait(video.path, {{0, 1000}}));
    EXPECT_EQ(h.events.events(), std::vector<int32_t>{kNotifyFailed});
    const Log log = recorder.snapshot().at(2);
    EXPECT_EQ(std::make_pair(log.order, log.completions), std::make_pair(std::string(), 1));
    EXPECT_FALSE(Access::holdsJob(h.editer));
}

TEST(CutJob, ANewCutStopsTheRunningOneWithoutItsDone_AnEmptyListDoesNot_ACancelEndsTheNewOne) {
    Host h;
    Long s(h.dir);
    ASSERT_TRUE(h.index(s));
    recorder.reset(5);
    ASSERT_TRUE(h.cut(s.path, {{0, 4000}}));
    ASSERT_TRUE(recorder.waitHeld());
    EXPECT_FALSE(h.cut(s.path, {}));
    EXPECT_FALSE(Access::stopRequested(h.editer));  // the held job goes on

    bool second = false;
    std::thread host([&] { second = h.cut(s.path, {{0, 4000}}); });
    EXPECT_TRUE(waitStopRequested(h.editer));
    recorder.release(5 + 10);  // the second job is held at its 10th write
    host.join();
    ASSERT_TRUE(second);
    ASSERT_TRUE(recorder.waitHeld());
    std::thread cancel([&] { h.editer.stopCut(), h.editer.releaseCut(); });
    EXPECT_TRUE(waitStopRequested(h.editer));
    recorder.release();
    cancel.join();
    EXPECT_FALSE(Access::holdsJob(h.editer));  // thread gone, buffers freed
    EXPECT_TRUE(h.events.events().empty());    // neither job reports an outcome
    const auto logs = recorder.snapshot();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs[0].order.size(), 5u);  // no sample after the stop
    EXPECT_EQ(logs[1].order.size(), 10u);
    EXPECT_EQ(std::make_pair(logs[0].completions, logs[1].completions), std::make_pair(1, 1));  // both finalised
    // The second job starts from the timeline's starting values.
    ASSERT_EQ(logs[1].order[0], 'V');
    EXPECT_EQ(std::make_pair(logs[1].tracks[kTrackVideo][0].pts, logs[1].tracks[kTrackVideo][0].dts), std::make_pair(int64_t(1), int64_t(-85)));
}

}  // namespace
