// The cut algorithm against a recording FileMuxer (the interleaving of the two
// tracks, the rebuilt timeline, the bytes handed over) and the job around it:
// what cut refuses, and how a running job is stopped, replaced and cancelled.
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
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

using Morvel_Tessalo::kNotifyDone;
using Morvel_Tessalo::kNotifyFailed;
using Access = Morvel_Tessalo::FileEditerTestAccess;
using Bytes = std::vector<uint8_t>;
using Lock = std::lock_guard<std::mutex>;
using Ranges = std::vector<EditRange>;
using Offsets = std::vector<EditOffset>;
using namespace std::chrono_literals;

struct Write {
    int64_t pts, dts;
    uint32_t flags;
    Bytes bytes;
    bool operator==(const Write& o) const {
        return std::tie(pts, dts, flags, bytes) == std::tie(o.pts, o.dts, o.flags, o.bytes);
    }
};
struct Log {
    std::string order;             // "V" or "A" per write
    std::vector<Write> tracks[2];  // by kTrackAudio, kTrackVideo
    int completions = 0;
};

// What every recording muxer saw, in creation order, and a gate that holds the
// writing thread at a given total of writes until release().
struct Recorder {
    void reset(int holdAt = -1) {
        Lock lock(mutex);
        logs.clear();
        total = 0;
        hold = holdAt;
        held = false;
    }
    std::vector<Log> snapshot() {
        Lock lock(mutex);
        return logs;
    }
    void release() {  // lets the held thread go on
        Lock lock(mutex);
        hold = -1;
        held = false;
        changed.notify_all();
    }
    bool waitHeld() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 10s, [&] { return held; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Log> logs;
    int total = 0, hold = -1;
    bool held = false;
} recorder;

class RecordingMuxer : public FileMuxer {
public:
    RecordingMuxer() {
        Lock lock(recorder.mutex);
        state = 1;
        index = recorder.logs.size();
        recorder.logs.emplace_back();
    }
    void setNotify(FileMuxerNotify* target) override { notify = target; }
    int32_t WriteSampleData(const uint8_t* data, int32_t size, int32_t track, int64_t pts, int64_t dts,
                            uint32_t flags) override {
        if (const int32_t result = FileMuxer::WriteSampleData(data, size, track, pts, dts, flags)) return result;
        std::unique_lock<std::mutex> lock(recorder.mutex);
        recorder.logs[index].order += track == kTrackVideo ? "V" : "A";
        recorder.logs[index].tracks[track].push_back({pts, dts, flags, Bytes(data, data + size)});
        const int total = ++recorder.total;
        if (total != recorder.hold) return 0;
        recorder.held = true;
        recorder.changed.notify_all();
        recorder.changed.wait(lock, [&] { return recorder.hold != total; });
        return 0;
    }
    // One completion per successful start, on a thread of its own as a real muxer's.
    int32_t stop() override {
        const bool started = state == 2;
        const int32_t result = FileMuxer::stop();
        if (started && notify) std::thread([this] {
            notify->onMuxComplete();
            Lock lock(recorder.mutex);
            ++recorder.logs[index].completions;
        }).join();
        return result;
    }

private:
    size_t index = 0;
    FileMuxerNotify* notify = nullptr;
};

// A source file written sample by sample behind a 64-byte header, its hand-written
// index, and the bytes the muxer should get for each sample, by track.
struct Source {
    explicit Source(const std::string& path) : path(path), file(path, std::ios::binary) { put(Bytes(64, 0xEE)); }
    // One unit of `payload` random bytes whose length prefix says `claim` (by default the truth).
    void video(int64_t pts, int64_t dts, bool key, uint32_t payload, int64_t claim = -1) {
        Bytes bytes = noise(4 + payload);
        for (int i = 0; i < 4; ++i) bytes[size_t(i)] = uint8_t((claim < 0 ? payload : claim) >> (24 - 8 * i));
        store.push_back({uint8_t(key), int32_t(bytes.size()), pts, dts, end});
        if (key || groups.empty()) groups.push_back(&groupStore.emplace_back());
        groups.back()->push_back(&store.back());
        put(bytes);
        bytes.erase(bytes.begin());
        bytes[0] = bytes[1] = 0;
        bytes[2] = 1;  // 3-byte start code
        sent[kTrackVideo].push_back(bytes);
    }
    // A raw audio frame; its record counts the 7-byte ADTS header as well.
    void audio(int64_t pts, int32_t size) {
        frames.push_back(&store.emplace_back(FrameRecord{1, size + 7, pts, pts, end}));
        sent[kTrackAudio].push_back(put(noise(size_t(size))));
    }
    Source& finish() {  // the index box of a real file
        put(Bytes(256, 0xAB));
        file.close();
        return *this;
    }
    Bytes noise(size_t size) {
        Bytes bytes(size);
        for (auto& b : bytes) b = uint8_t((seed = seed * 1103515245u + 12345u) >> 16);
        return bytes;
    }
    const Bytes& put(const Bytes& bytes) {
        file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        end += int64_t(bytes.size());
        return bytes;
    }
    std::string path;
    std::ofstream file;
    int64_t end = 0;
    uint32_t seed = 1;
    std::deque<FrameRecord> store;
    std::deque<FrameGroup> groupStore;
    std::vector<FrameGroup*> groups;
    std::vector<FrameRecord*> frames;
    std::vector<Bytes> sent[2];
};

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

// An engine with the recording muxer, whose events are collected; the offsets
// report is taken inside the done event, as a host takes it.
struct Host {
    Host() : editer(&Host::notify, this) {
        recorder.reset();
        Access::useMuxer(editer, []() -> FileMuxer* { return new RecordingMuxer; });
    }
    ~Host() { recorder.release(); }  // a failed test must not leave the cut thread held
    static void notify(void* context, int32_t code) {
        auto* self = static_cast<Host*>(context);
        Offsets got(self->asked);
        int32_t n = 0;
        if (code == kNotifyDone && !got.empty() && self->editer.getEditOffsetPts(got.data(), int32_t(got.size()), &n))
            self->report.assign(got.begin(), got.begin() + n);
        self->events.record(code);  // after the report: who sees the event sees the report
    }
    bool index(Source& s, const IndexOrigins& origins = {}) {
        const VideoTrackInfo video = {320, 240, 25, 1, nullptr, 0};
        const AudioTrackInfo audio = {44100, 2, 16, 1, nullptr, 0};
        editer.setIndexOrigins(origins);
        return editer.setFrameIndex(&s.groups, &s.frames, &video, &audio);
    }
    bool cut(const std::string& src, const Ranges& ranges, const Offsets& offsets = {}) {
        asked = offsets.size();
        return editer.cut(src.c_str(), out.c_str(), ranges.data(), int32_t(ranges.size()), offsets.data(),
                          int32_t(offsets.size()), kind);
    }
    // Runs one job to its outcome: true when it is done, false when it failed.
    bool cutAndWait(const std::string& src, const Ranges& ranges, const Offsets& offsets = {}) {
        events.clear();
        const bool done = cut(src, ranges, offsets) && events.waitForAny({kNotifyDone, kNotifyFailed}) == kNotifyDone;
        editer.stopCut();  // joins the thread that has ended by now
        return done;
    }

    const std::string dir = tsltest::scratchDir(), out = dir + "/out.mp4";
    int32_t kind = 0;
    size_t asked = 0;
    Offsets report;
    tsltest::EventRecorder events;
    Morvel_Tessalo::FileEditer editer;
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

std::pair<int64_t, int64_t> firstVideo(const Log& log) {
    const auto& video = log.tracks[kTrackVideo];
    return video.empty() ? std::make_pair(int64_t(-1), int64_t(-1)) : std::make_pair(video[0].pts, video[0].dts);
}

// One group of eight frames every 40 ms, audio every 23 ms, stored interleaved by time.
struct Worked : Source {
    explicit Worked(const std::string& dir) : Source(dir + "/worked.bin") {
        for (int64_t v = 0, a = 0; v < 9; ++v) {
            for (; a * 23 <= v * 40 && a < 14; ++a) audio(a * 23, 200 + int32_t(a));
            if (v < 8) video(v * 40, v * 40, v == 0, 700 + uint32_t(v));
        }
        finish();
    }
};

TEST(CutOrder, OneRangeInterleavesTheTracksByTimeFromTheTimelinesStart) {
    Host h;
    Worked s(h.dir);
    ASSERT_TRUE(h.index(s));
    ASSERT_TRUE(h.cutAndWait(s.path, {{0, 1000}}, {{0, 280}}));
    EXPECT_EQ(h.report, (Offsets{{0, 280}}));  // first range: base 0, key pts 0
    const Log log = recorder.snapshot().at(0);
    EXPECT_EQ(log.order, "VVVVAAAVAAVAVAAVAAAAAA");
    EXPECT_EQ(log.completions, 1);
    EXPECT_EQ(log.tracks[kTrackVideo], steady(s.sent[kTrackVideo], 40, true));   // pts 1 .. 281, dts -85 .. 195
    EXPECT_EQ(log.tracks[kTrackAudio], steady(s.sent[kTrackAudio], 23, false));  // 1 .. 300, no ADTS header
}

// The first range closes videoPts at 281 + 86 = 367. A second range after it finds both lists exhausted and
// writes nothing, but its offset shows that base.
TEST(CutOrder, ARangeAfterTheListsEndWritesNothingButItsOffsetShowsItsBase) {
    Host h;
    Worked s(h.dir);
    ASSERT_TRUE(h.index(s));
    ASSERT_TRUE(h.cutAndWait(s.path, {{0, 1000}, {-50, 1000}}, {{-50, -10}}));
    EXPECT_EQ(recorder.snapshot().at(0).order.size(), 22u);
    EXPECT_EQ(h.report, (Offsets{{-50 + 367, -10 + 367}}));
}

// Offsets: inside range 1; inside range 2; just below range 2; straddling both; exactly range 2.
TEST(CutOrder, TwoRangesFollowOnWithTheirGapsAndAnOffsetInsideARangeMovesByItsBase) {
    Host h;
    Worked s(h.dir);
    ASSERT_TRUE(h.index(s));
    const Offsets offsets = {{40, 80}, {200, 240}, {199, 240}, {100, 250}, {200, 1000}};
    ASSERT_TRUE(h.cutAndWait(s.path, {{0, 120}, {200, 1000}}, offsets));
    const Log log = recorder.snapshot().at(0);
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
    EXPECT_EQ(h.report, (Offsets{{40, 80}, {407, 447}, {199, 240}, {100, 250}, {407, 1207}}));
}

TEST(CutOrder, ADroppedSampleLeavesNoHoleAndReorderedPicturesKeepTheirDistances) {
    Host h;
    Source s(h.dir + "/drop.bin");
    // Decode order K0 P120 B40 B80 P160; B40's unit claims 1000 bytes it does not hold.
    const int64_t decodeOrder[5][2] = {{0, 0}, {120, 40}, {40, 80}, {80, 120}, {160, 160}};
    for (uint32_t i = 0; i < 5; ++i)
        s.video(decodeOrder[i][0], decodeOrder[i][1], i == 0, 50 + i, i == 2 ? 1000 : -1);
    for (int i = 0; i < 12; ++i) s.audio(23 * i, 100);
    ASSERT_TRUE(h.index(s.finish()));
    ASSERT_TRUE(h.cutAndWait(s.path, {{0, 1000}}));
    const auto& sent = s.sent[kTrackVideo];  // running sums of the source's differences, B40 spanned
    EXPECT_EQ(recorder.snapshot().at(0).tracks[kTrackVideo],
              (std::vector<Write>{{1, -85, kSampleFlagVideoKey, sent[0]}, {121, -45, 0, sent[1]}, {81, 35, 0, sent[3]},
                                  {161, 75, 0, sent[4]}}));
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
        finish();
    }
    static constexpr IndexOrigins kOrigins{0, -80, -23};
};

TEST(CutSynced, EachRangeMovesAsOneBlockAndLeavesItsLeadingPicturesOut) {
    Host h;
    h.kind = kCutKindSynced;
    Reordered s(h.dir);
    ASSERT_TRUE(h.index(s, Reordered::kOrigins));
    ASSERT_TRUE(h.cutAndWait(s.path, {{60, 200}, {500, 620}}, {{100, 150}, {500, 600}, {150, 500}}));
    const Log log = recorder.snapshot().at(0);
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
    std::vector<int64_t> audio;
    for (const Write& w : log.tracks[kTrackAudio]) audio.push_back(w.pts == w.dts ? w.pts : -1);
    std::vector<int64_t> expected;
    for (int64_t t = 0; t < 240; t += 23) expected.push_back(t);
    for (int64_t t = 506; t < 640; t += 23) expected.push_back(t - 480 + 241);
    EXPECT_EQ(audio, expected);
    EXPECT_EQ(log.tracks[kTrackAudio].front().bytes, s.sent[kTrackAudio][1]);  // the primed frame is not taken
    EXPECT_EQ(h.report, (Offsets{{100, 150}, {500 - 480 + 241, 600 - 480 + 241}, {150, 500}}));
}

TEST(CutSynced, AStartOnAKeyOpensThatKeyAndVideoAloneIsCut) {
    Host h;
    h.kind = kCutKindSynced;
    Reordered s(h.dir, false);
    ASSERT_TRUE(h.index(s, Reordered::kOrigins));
    ASSERT_TRUE(h.cutAndWait(s.path, {{240, 400}}));
    const Log log = recorder.snapshot().at(0);
    EXPECT_EQ(log.order, "VVVVV");  // the group at 240, video alone
    EXPECT_EQ(log.tracks[kTrackVideo].front(), (Write{0, -80, kSampleFlagVideoKey, s.sent[kTrackVideo][6]}));
}

TEST(CutSynced, ARangeStartingAfterThePicturesFailsTheJob) {
    Host h;
    h.kind = kCutKindSynced;
    Reordered s(h.dir, false);
    ASSERT_TRUE(h.index(s, Reordered::kOrigins));
    EXPECT_FALSE(h.cutAndWait(s.path, {{0, 100}, {761, 900}}));
    EXPECT_EQ(h.events.events(), std::vector<int32_t>{kNotifyFailed});
}

bool waitStopRequested(Morvel_Tessalo::FileEditer& editer) {
    for (int i = 0; i < 2000 && !Access::stopRequested(editer); ++i) std::this_thread::sleep_for(5ms);
    return Access::stopRequested(editer);
}

TEST(CutJob, IsRefusedWithoutAnIndexAndOpensNothing) {
    Host h;
    const std::string never = h.dir + "/never.mp4";
    EXPECT_FALSE(h.cut(never, {{0, 1000}}));
    EXPECT_FALSE(std::filesystem::exists(never));  // the source open, which creates, never ran
    EXPECT_EQ(recorder.snapshot().size(), 0u);      // no muxer, so no output either
    Long s(h.dir);
    ASSERT_TRUE(h.index(s));
    h.editer.clearFrameIndex();
    EXPECT_FALSE(h.cut(s.path, {{0, 1000}}));
}

TEST(CutJob, ACancelWithoutAJobSendsNothing) {
    Host h;
    h.editer.stopCut();
    h.editer.releaseCut();
    EXPECT_TRUE(h.events.events().empty());
}

TEST(CutJob, TwoJobsInARowStartAlike) {
    Host h;
    Long s(h.dir);
    ASSERT_TRUE(h.index(s));
    for (int job = 0; job < 2; ++job) ASSERT_TRUE(h.cutAndWait(s.path, {{1000, 2000}, {3000, 3500}}, {{1000, 1100}}));
    const auto logs = recorder.snapshot();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(firstVideo(logs[0]), std::make_pair(int64_t(1), int64_t(-85)));
    EXPECT_EQ(logs[0].order, logs[1].order);
    EXPECT_TRUE(logs[0].tracks[0] == logs[1].tracks[0] && logs[0].tracks[1] == logs[1].tracks[1]);
}

TEST(CutJob, ACancelAfterAJobFreesItSilentlyAndItsReportGoesWithIt) {
    Host h;
    Long s(h.dir);
    ASSERT_TRUE(h.index(s));
    ASSERT_TRUE(h.cutAndWait(s.path, {{1000, 2000}}, {{1000, 1100}}));
    h.editer.stopCut();
    h.editer.releaseCut();
    EXPECT_FALSE(Access::holdsJob(h.editer));
    EXPECT_EQ(h.events.events(), std::vector<int32_t>{kNotifyDone});  // the job's; none from the cancel
    EditOffset out{};
    EXPECT_FALSE(h.editer.getEditOffsetPts(&out, 1, nullptr));
}

TEST(CutJob, AFileWithoutAudioFailsAndItsOutputIsFinalisedAllTheSame) {
    Host h;
    Source video(h.dir + "/video.bin");
    for (int i = 0; i < 20; ++i) video.video(40 * i, 40 * i, i % 10 == 0, 300);
    ASSERT_TRUE(h.index(video.finish()));
    EXPECT_FALSE(h.cutAndWait(video.path, {{0, 1000}}));
    EXPECT_EQ(h.events.events(), std::vector<int32_t>{kNotifyFailed});
    const Log log = recorder.snapshot().at(0);
    EXPECT_EQ(log.order, "");
    EXPECT_EQ(log.completions, 1);
    EXPECT_FALSE(Access::holdsJob(h.editer));
}

// The jobs below are held at their 5th write until the test lets them go on.
struct HeldJob : ::testing::Test {
    void SetUp() override {
        ASSERT_TRUE(h.index(s));
        recorder.reset(5);
        ASSERT_TRUE(h.cut(s.path, {{0, 4000}}));
        ASSERT_TRUE(recorder.waitHeld());
    }
    Host h;
    Long s{h.dir};
};

TEST_F(HeldJob, AnEmptyRangeListIsRefusedAndLeavesItRunning) {
    EXPECT_FALSE(h.cut(s.path, {}));
    EXPECT_FALSE(Access::stopRequested(h.editer));
    recorder.release();
    EXPECT_EQ(h.events.waitForAny({kNotifyDone, kNotifyFailed}), kNotifyDone);
}

TEST_F(HeldJob, ANewCutStopsItWithoutItsDoneAndStartsTheTimelineAfresh) {
    bool second = false;
    std::thread host([&] { second = h.cut(s.path, {{0, 4000}}); });
    EXPECT_TRUE(waitStopRequested(h.editer));
    recorder.release();
    host.join();
    ASSERT_TRUE(second);
    EXPECT_EQ(h.events.waitForAny({kNotifyDone, kNotifyFailed}), kNotifyDone);
    h.editer.stopCut();
    EXPECT_EQ(h.events.events(), std::vector<int32_t>{kNotifyDone});  // the second job's alone
    const auto logs = recorder.snapshot();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs[0].order.size(), 5u);  // no sample after the stop
    EXPECT_EQ(logs[0].completions, 1);    // finalised
    EXPECT_EQ(firstVideo(logs[1]), std::make_pair(int64_t(1), int64_t(-85)));
}

TEST_F(HeldJob, ACancelEndsItWithoutAnOutcomeAndFreesIt) {
    std::thread cancel([&] {
        h.editer.stopCut();
        h.editer.releaseCut();
    });
    EXPECT_TRUE(waitStopRequested(h.editer));
    recorder.release();
    cancel.join();
    EXPECT_FALSE(Access::holdsJob(h.editer));  // thread gone, buffers freed
    EXPECT_TRUE(h.events.events().empty());
    const Log log = recorder.snapshot().at(0);
    EXPECT_EQ(log.order.size(), 5u);
    EXPECT_EQ(log.completions, 1);
}

}  // namespace
