// The cut algorithm against a recording FileMuxer (the interleaving of the two
// tracks, the rebuilt timeline, the bytes handed over) and the job around it:
// what cut refuses, and how a running job is stopped, replaced and cancelled.
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>
#include <tuple>

#include "edit/FileEditer.h"
#include "support/TestSupport.h"

namespace Morvel_Tessalo {
struct FileEditerTestAccess {
    static void useMuxer(FileEditer& e, FileMuxer* (*make)()) { e.makeMuxer = make; }
    static bool stopRequested(FileEditer& e) { return e.isStopRequested(); }
    // A cut thread, or anything that a job allocates and its release must free.
    static bool holdsJob(const FileEditer& e) {
        return e.cutThread || e.muxer || e.readBuffer || e.sampleBuffer || e.ranges || e.offsets || e.rangeCount ||
               e.offsetCount;
    }
};
}  // namespace Morvel_Tessalo

inline bool operator==(const EditOffset& a, const EditOffset& b) { return a.first == b.first && a.second == b.second; }

namespace {

using namespace Morvel_Tessalo;
using namespace std::chrono_literals;
using Access = FileEditerTestAccess;
using Bytes = std::vector<uint8_t>;
using Offsets = std::vector<EditOffset>;

using Write = std::tuple<int64_t, int64_t, uint32_t, Bytes>;  // pts, dts, flags, the bytes
struct Log {
    std::string order;             // "V" or "A" per write
    std::vector<Write> tracks[2];  // by kTrackAudio, kTrackVideo
    int completions = 0;
};

// What every recording muxer saw, in creation order (read once the job's threads are joined), and a gate
// that holds the writing thread at the `holdAt`-th write of all until release().
struct Recorder {
    void release() {
        std::lock_guard lock(mutex);
        holdAt = -1;
        changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Log> logs;  // a muxer keeps a pointer to its own
    int writes = 0, holdAt = -1;
} recorder;

struct RecordingMuxer : FileMuxer {
    Log* log = nullptr;
    FileMuxerNotify* notify = nullptr;

    RecordingMuxer() {
        std::lock_guard lock(recorder.mutex);
        state = 1;
        log = &recorder.logs.emplace_back();
    }
    void setNotify(FileMuxerNotify* target) override { notify = target; }
    int32_t WriteSampleData(const uint8_t* data, int32_t size, int32_t track, int64_t pts, int64_t dts,
                            uint32_t flags) override {
        if (const int32_t result = FileMuxer::WriteSampleData(data, size, track, pts, dts, flags)) return result;
        std::unique_lock lock(recorder.mutex);
        log->order += track == kTrackVideo ? "V" : "A";
        log->tracks[track].push_back({pts, dts, flags, Bytes(data, data + size)});
        const int write = ++recorder.writes;
        recorder.changed.notify_all();
        recorder.changed.wait(lock, [&] { return recorder.holdAt != write; });
        return 0;
    }
    // One completion per successful start, on a thread of its own as a real muxer's.
    int32_t stop() override {
        const bool started = state == 2;
        const int32_t result = FileMuxer::stop();
        if (started && notify) {
            std::thread([this] { notify->onMuxComplete(); }).join();
            ++log->completions;
        }
        return result;
    }
};

// A source file of samples behind a 64-byte header, its hand-written index with the origins of its
// timelines, and the bytes the muxer should get for each sample, by track.
struct Source {
    explicit Source(std::string path) : path(std::move(path)) {}
    // One unit of `payload` random bytes whose length prefix says `claim` (by default the truth).
    void video(int64_t pts, int64_t dts, bool key, uint32_t payload, int64_t claim = -1) {
        Bytes unit = noise(4 + payload);
        for (int i = 0; i < 4; ++i) unit[size_t(i)] = uint8_t((claim < 0 ? payload : claim) >> (24 - 8 * i));
        if (key || groups.empty()) groups.push_back(&groupStore.emplace_back());
        groups.back()->push_back(&add(unit, pts, dts, key));
        sent[kTrackVideo].push_back({0, 0, 1});  // a 3-byte start code for the prefix
        sent[kTrackVideo].back().insert(sent[kTrackVideo].back().end(), unit.begin() + 4, unit.end());
    }
    // A raw audio frame; its record counts the 7-byte ADTS header as well.
    void audio(int64_t pts, int32_t size) {
        sent[kTrackAudio].push_back(noise(size_t(size)));
        frames.push_back(&add(sent[kTrackAudio].back(), pts, pts, true, 7));
    }
    FrameRecord& add(const Bytes& sample, int64_t pts, int64_t dts, bool key, int32_t header = 0) {
        store.push_back({uint8_t(key), int32_t(sample.size()) + header, pts, dts, int64_t(file.size())});
        file.insert(file.end(), sample.begin(), sample.end());
        return store.back();
    }
    Bytes noise(size_t size) {
        Bytes bytes(size);
        for (auto& b : bytes) b = uint8_t((seed = seed * 1103515245u + 12345u) >> 16);
        return bytes;
    }
    std::string path;
    Bytes file = Bytes(64, 0xEE);
    uint32_t seed = 1;
    IndexOrigins origins;
    std::deque<FrameRecord> store;
    std::deque<FrameGroup> groupStore;
    std::vector<FrameGroup*> groups;
    std::vector<FrameRecord*> frames;
    std::vector<Bytes> sent[2];
};

// Pictures every 40 ms, a key every `keyEvery`, and audio every 23 ms up to 40 ms past the last picture,
// stored interleaved by time; sizes grow by a byte a sample.
struct ByTime : Source {
    ByTime(const std::string& path, int pictures, int keyEvery, bool withAudio = true) : Source(path) {
        for (int v = 0, a = 0; v <= pictures; ++v) {
            for (; withAudio && 23 * a <= 40 * v; ++a) audio(23 * a, 200 + a);
            if (v < pictures) video(40 * v, 40 * v, v % keyEvery == 0, 700 + uint32_t(v));
        }
    }
};

// Groups of pictures every 40 ms with B-frames, decoded in the order given; the group at 480 opens with a
// leading picture (440) that needs the group before. The index counts dts from the first one, which the
// file decodes 80 ms before it shows it; its audio, every 23 ms, starts 23 ms early (encoder priming).
struct Reordered : Source {
    explicit Reordered(const std::string& dir, bool withAudio = true) : Source(dir + "/reordered.bin") {
        const int shown[] = {0, 3, 1, 2, 5, 4, 6, 10, 7, 8, 9, 12, 11, 15, 13, 14, 16, 19, 17, 18};
        for (int v = 0, a = 0; v < 20; ++v) {
            for (; withAudio && 23 * a <= 40 * v + 80; ++a) audio(23 * a, 90);
            video(40 * shown[v], 40 * v, shown[v] % 6 == 0 && shown[v] != 18, 120);
        }
        origins = {0, -80, -23};
    }
};

// An engine with the recording muxer, whose events are collected; the offsets
// report is taken inside the done event, as a host takes it.
struct Host : ::testing::Test {
    Host() : editer(&Host::notify, this) {
        recorder.logs.clear();  // no thread of an earlier test runs now
        recorder.writes = 0;
        Access::useMuxer(editer, []() -> FileMuxer* { return new RecordingMuxer; });
    }
    ~Host() override { recorder.release(); }  // a failed test must not leave the cut thread held
    static void notify(void* context, int32_t code) {
        auto* self = static_cast<Host*>(context);
        Offsets got(16);  // more than any job here asks for: the engine copies those it has
        int32_t n = 0;
        if (code == kNotifyDone && self->editer.getEditOffsetPts(got.data(), 16, &n))
            self->report.assign(got.begin(), got.begin() + n);
        self->events.record(code);  // after the report: who sees the event sees the report
    }
    // Writes `s` out, with the index box of a real file behind the samples, and hands its index over.
    bool index(Source& s) {
        s.file.resize(s.file.size() + 256, 0xAB);
        std::ofstream(s.path, std::ios::binary).write(reinterpret_cast<const char*>(s.file.data()), s.file.size());
        indexed = &s;
        const VideoTrackInfo video = {320, 240, 25, 1, nullptr, 0};
        const AudioTrackInfo audio = {44100, 2, 16, 1, nullptr, 0};
        editer.setIndexOrigins(s.origins);
        return editer.setFrameIndex(&s.groups, &s.frames, &video, &audio);
    }
    bool cut(const std::string& src, const std::vector<EditRange>& ranges, const Offsets& offsets = {}) {
        return editer.cut(src.c_str(), out.c_str(), ranges.data(), int32_t(ranges.size()), offsets.data(),
                          int32_t(offsets.size()), kind);
    }
    // Waits for the running job's single outcome, done or (with `done` false) failed: the log of its muxer.
    const Log& outcome(bool done = true) {
        events.waitForAny({kNotifyDone, kNotifyFailed});
        editer.stopCut();  // joins the thread that has ended by now
        EXPECT_EQ(events.events(), std::vector<int32_t>{done ? kNotifyDone : kNotifyFailed});
        return recorder.logs.at(recorder.logs.size() - 1);  // throws when the job made no muxer
    }
    // Runs one job on `s`, indexed first unless it is already, to its outcome.
    const Log& job(Source& s, const std::vector<EditRange>& ranges, const Offsets& offsets = {}, bool done = true) {
        EXPECT_TRUE(indexed == &s || index(s));
        events.clear();
        EXPECT_TRUE(cut(s.path, ranges, offsets));
        return outcome(done);
    }

    const std::string dir = tsltest::scratchDir(), out = dir + "/out.mp4";
    int32_t kind = 0;
    Source* indexed = nullptr;
    Offsets report;
    tsltest::EventRecorder events;
    FileEditer editer;
};

using CutOrder = Host;
struct CutSynced : Host {
    CutSynced() { kind = kCutKindSynced; }
};
// 4 s: a key frame every 400 ms.
struct CutJob : Host {
    ByTime s{dir + "/long.bin", 100, 10};
};

// Writes of a track's samples from the timeline's start at a steady `step`:
// video pts 1 + step * i with dts 86 below it, audio the same pts with a first dts of 0.
std::vector<Write> steady(const std::vector<Bytes>& samples, int64_t step, bool video) {
    std::vector<Write> out;
    for (int64_t i = 0, pts = 1; i < int64_t(samples.size()); ++i, pts += step)
        out.push_back({pts, video ? pts - 86 : (i ? pts : 0), video ? (i ? 0 : kSampleFlagVideoKey) : kSampleFlagAudio,
                       samples[size_t(i)]});
    return out;
}

TEST_F(CutOrder, OneRangeInterleavesTheTracksByTimeFromTheTimelinesStart) {
    ByTime s(dir + "/worked.bin", 8, 8);  // one group of eight pictures
    const Log& log = job(s, {{0, 1000}}, {{0, 280}});
    EXPECT_EQ(report, (Offsets{{0, 280}}));  // first range: base 0, key pts 0
    EXPECT_EQ(log.order, "VVVVAAAVAAVAVAAVAAAAAA");
    EXPECT_EQ(log.completions, 1);
    EXPECT_EQ(log.tracks[kTrackVideo], steady(s.sent[kTrackVideo], 40, true));   // pts 1 .. 281, dts -85 .. 195
    EXPECT_EQ(log.tracks[kTrackAudio], steady(s.sent[kTrackAudio], 23, false));  // 1 .. 300, no ADTS header
}

// The first range closes videoPts at 281 + 86 = 367. A second range after it finds both lists exhausted and
// writes nothing, but its offset shows that base.
TEST_F(CutOrder, ARangeAfterTheListsEndWritesNothingButItsOffsetShowsItsBase) {
    ByTime s(dir + "/worked.bin", 8, 8);
    EXPECT_EQ(job(s, {{0, 1000}, {-50, 1000}}, {{-50, -10}}).order.size(), 22u);
    EXPECT_EQ(report, (Offsets{{-50 + 367, -10 + 367}}));
}

// Offsets: inside range 1; inside range 2; just below range 2; straddling both; exactly range 2.
TEST_F(CutOrder, TwoRangesFollowOnWithTheirGapsAndAnOffsetInsideARangeMovesByItsBase) {
    ByTime s(dir + "/worked.bin", 8, 8);
    const Offsets offsets = {{40, 80}, {200, 240}, {199, 240}, {100, 250}, {200, 1000}};
    const auto& [audio, video] = job(s, {{0, 120}, {200, 1000}}, offsets).tracks;
    // Range 1 keeps 4 pictures and 6 audio frames; range 2 opens again on the only key frame, at 0.
    ASSERT_EQ(video.size(), 4u + 8u);
    ASSERT_EQ(audio.size(), 6u + 14u);
    // Range 1 ends on pts 121 / dts 35 and closes videoPts at 121 + 86 = 207;
    // range 2 opens 30 ms on for video (dts too) and 20 ms on for audio.
    EXPECT_EQ(video[3], (Write{121, 35, 0, s.sent[kTrackVideo][3]}));
    EXPECT_EQ(video[4], (Write{207 + 30, 35 + 30, kSampleFlagVideoKey, s.sent[kTrackVideo][0]}));
    EXPECT_EQ(audio[5], (Write{116, 116, kSampleFlagAudio, s.sent[kTrackAudio][5]}));
    EXPECT_EQ(audio[6], (Write{116 + 20, 116 + 20, kSampleFlagAudio, s.sent[kTrackAudio][0]}));
    // An entry inside a range moves once, by that range's base (207 for range 2) less its key pts (0).
    EXPECT_EQ(report, (Offsets{{40, 80}, {407, 447}, {199, 240}, {100, 250}, {407, 1207}}));
}

TEST_F(CutOrder, ADroppedSampleLeavesNoHoleAndReorderedPicturesKeepTheirDistances) {
    Source s(dir + "/drop.bin");
    // Decode order K0 P120 B40 B80 P160; B40's unit claims 1000 bytes it does not hold.
    const int64_t decodeOrder[5][2] = {{0, 0}, {120, 40}, {40, 80}, {80, 120}, {160, 160}};
    for (uint32_t i = 0; i < 5; ++i)
        s.video(decodeOrder[i][0], decodeOrder[i][1], i == 0, 50 + i, i == 2 ? 1000 : -1);
    for (int i = 0; i < 12; ++i) s.audio(23 * i, 100);
    const auto& sent = s.sent[kTrackVideo];  // running sums of the source's differences, B40 spanned
    EXPECT_EQ(job(s, {{0, 1000}}).tracks[kTrackVideo],
              (std::vector<Write>{{1, -85, kSampleFlagVideoKey, sent[0]}, {121, -45, 0, sent[1]}, {81, 35, 0, sent[3]},
                                  {161, 75, 0, sent[4]}}));
}

TEST_F(CutOrder, AFallingPositionFailsTheCutInsteadOfReadingOutsideTheBuffer) {
    // The second audio frame is stored before everything the range opens on.
    Source s(dir + "/falling.bin");
    s.audio(23, 150);
    for (int i = 0; i < 3; ++i) s.video(40 * i, 40 * i, i == 0, 400);
    s.audio(0, 150);
    std::swap(s.frames[0], s.frames[1]);
    EXPECT_EQ(job(s, {{0, 1000}}, {}, false).order, "VVVA");  // the second audio frame is never reached
}

TEST_F(CutSynced, EachRangeMovesAsOneBlockAndLeavesItsLeadingPicturesOut) {
    Reordered s(dir);
    const Log& log = job(s, {{60, 200}, {500, 620}}, {{100, 150}, {500, 600}, {150, 500}});
    const auto& sent = s.sent[kTrackVideo];
    // Range 1 opens on the key at 0, shown at 0 and decoded 80 ms before; it keeps pictures up to 200 and
    // shows them until 240. Range 2 opens on the key at 480, decoded 120 ms before (its leading picture,
    // decoded in between, stays out): its dts must pass 120, so it starts at 241, not at 240.
    EXPECT_EQ(log.tracks[kTrackVideo],
              (std::vector<Write>{{0, -80, kSampleFlagVideoKey, sent[0]}, {120, -40, 0, sent[1]}, {40, 0, 0, sent[2]},
                                  {80, 40, 0, sent[3]}, {200, 80, 0, sent[4]}, {160, 120, 0, sent[5]},
                                  {241, 121, kSampleFlagVideoKey, sent[11]}, {361, 201, 0, sent[13]},
                                  {281, 241, 0, sent[14]}, {321, 281, 0, sent[15]}}));
    // Audio keeps its true distance to the pictures: from the first frame at the key (source 0) while the
    // pictures show; range 2 from the first frame at or after where range 1's audio ends (253).
    std::vector<int64_t> audio, expected;
    for (const auto& [pts, dts, flags, bytes] : log.tracks[kTrackAudio]) audio.push_back(pts == dts ? pts : -1);
    for (int64_t t = 0; t < 240; t += 23) expected.push_back(t);
    for (int64_t t = 506; t < 640; t += 23) expected.push_back(t - 480 + 241);
    EXPECT_EQ(audio, expected);
    EXPECT_EQ(std::get<Bytes>(log.tracks[kTrackAudio].at(0)), s.sent[kTrackAudio][1]);  // the primed frame is not taken
    EXPECT_EQ(report, (Offsets{{100, 150}, {500 - 480 + 241, 600 - 480 + 241}, {150, 500}}));
}

TEST_F(CutSynced, AStartOnAKeyOpensThatKeyAndVideoAloneIsCut) {
    Reordered s(dir, false);
    const Log& log = job(s, {{240, 400}});
    EXPECT_EQ(log.order, "VVVVV");  // the group at 240, video alone
    EXPECT_EQ(log.tracks[kTrackVideo].front(), (Write{0, -80, kSampleFlagVideoKey, s.sent[kTrackVideo][6]}));
}

TEST_F(CutSynced, ARangeStartingAfterThePicturesFailsTheJob) {
    Reordered s(dir, false);
    job(s, {{0, 100}, {761, 900}}, {}, false);  // failed, and nothing else
}

TEST_F(CutJob, IsRefusedWithoutAnIndexAndOpensNothing) {
    const std::string never = dir + "/never.mp4";
    EXPECT_FALSE(cut(never, {{0, 1000}}));
    EXPECT_FALSE(std::filesystem::exists(never));  // nothing is made at the source path
    EXPECT_TRUE(recorder.logs.empty());            // no muxer, so no output either
    ASSERT_TRUE(index(s));
    editer.clearFrameIndex();
    EXPECT_FALSE(cut(s.path, {{0, 1000}}));
}

TEST_F(CutJob, ACancelWithoutAJobSendsNothing) {
    editer.stopCut();
    editer.releaseCut();
    EXPECT_TRUE(events.events().empty());
}

TEST_F(CutJob, TwoJobsInARowStartAlike) {
    const Log& first = job(s, {{1000, 2000}, {3000, 3500}}, {{1000, 1100}});
    const Log& second = job(s, {{1000, 2000}, {3000, 3500}}, {{1000, 1100}});
    EXPECT_EQ(recorder.logs.size(), 2u);
    // The first range opens on the key at 800, picture 20.
    EXPECT_EQ(first.tracks[kTrackVideo].at(0), (Write{1, -85, kSampleFlagVideoKey, s.sent[kTrackVideo][20]}));
    EXPECT_EQ(first.order, second.order);
    EXPECT_TRUE(first.tracks[0] == second.tracks[0] && first.tracks[1] == second.tracks[1]);
}

TEST_F(CutJob, ACancelAfterAJobFreesItSilentlyAndItsReportGoesWithIt) {
    job(s, {{1000, 2000}}, {{1000, 1100}});
    editer.stopCut();
    editer.releaseCut();
    EXPECT_FALSE(Access::holdsJob(editer));
    EXPECT_EQ(events.events(), std::vector<int32_t>{kNotifyDone});  // the job's; none from the cancel
    EditOffset offset{};
    EXPECT_FALSE(editer.getEditOffsetPts(&offset, 1, nullptr));
}

TEST_F(CutJob, AFileWithoutAudioFailsAndItsOutputIsFinalisedAllTheSame) {
    ByTime video(dir + "/video.bin", 20, 10, false);
    const Log& log = job(video, {{0, 1000}}, {}, false);
    EXPECT_EQ(log.order, "");
    EXPECT_EQ(log.completions, 1);
    EXPECT_FALSE(Access::holdsJob(editer));
}

// The jobs below are held at their 5th write until the test lets them go on.
struct HeldJob : CutJob {
    void SetUp() override {
        ASSERT_TRUE(index(s));
        recorder.holdAt = 5;  // before the cut starts the thread
        ASSERT_TRUE(cut(s.path, {{0, 4000}}));
        std::unique_lock lock(recorder.mutex);
        ASSERT_TRUE(recorder.changed.wait_for(lock, 10s, [&] { return recorder.writes == 5; }));
    }
    // Runs `op` on a thread of its own, lets the held job go on once `op` has asked it to stop, and gives
    // `op`'s result.
    template <class Op> auto stopWith(Op op) {
        auto result = std::async(std::launch::async, op);
        for (int i = 0; i < 2000 && !Access::stopRequested(editer); ++i) std::this_thread::sleep_for(5ms);
        EXPECT_TRUE(Access::stopRequested(editer));
        recorder.release();
        return result.get();
    }
};

TEST_F(HeldJob, AnEmptyRangeListIsRefusedAndLeavesItRunning) {
    EXPECT_FALSE(cut(s.path, {}));
    EXPECT_FALSE(Access::stopRequested(editer));
    recorder.release();
    outcome();
}

TEST_F(HeldJob, ANewCutStopsItWithoutItsDoneAndStartsTheTimelineAfresh) {
    ASSERT_TRUE(stopWith([&] { return cut(s.path, {{0, 4000}}); }));
    const Log& second = outcome();  // the second job's done alone
    ASSERT_EQ(recorder.logs.size(), 2u);
    EXPECT_EQ(recorder.logs[0].order.size(), 5u);  // no sample after the stop
    EXPECT_EQ(recorder.logs[0].completions, 1);    // finalised
    EXPECT_EQ(second.tracks[kTrackVideo].at(0), (Write{1, -85, kSampleFlagVideoKey, s.sent[kTrackVideo][0]}));
}

TEST_F(HeldJob, ACancelEndsItWithoutAnOutcomeAndFreesIt) {
    stopWith([&] {
        editer.stopCut();
        editer.releaseCut();
    });
    EXPECT_FALSE(Access::holdsJob(editer));  // thread gone, buffers freed
    EXPECT_TRUE(events.events().empty());
    const Log& log = recorder.logs.at(0);
    EXPECT_EQ(log.order.size(), 5u);
    EXPECT_EQ(log.completions, 1);
}

}  // namespace
