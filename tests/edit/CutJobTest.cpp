// The job around the cut: what cut accepts and refuses, and how a running
// job is stopped, replaced, cancelled and released, observed through a
// recording muxer that can hold the cut thread inside a write.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "EditTestSupport.h"

using Morvel_Tessalo::FileEditer;
using Morvel_Tessalo::FileEditerTestAccess;
using Morvel_Tessalo::kNotifyDone;
using Morvel_Tessalo::kNotifyFailed;
using edittest::MuxerRecorder;

namespace {

const AudioTrackInfo kAudio = {44100, 2, 16, 1, nullptr, 0};

// Many groups so that a job has plenty to write while the test holds it.
struct LongSource {
    explicit LongSource(const std::string& path) : source(path) {
        // 4 s: a key frame every 400 ms, audio every 23 ms, stored by time.
        int a = 0;
        for (int v = 0; v < 100; ++v) {
            for (; 23 * a <= 40 * v; ++a) source.addAudio(23 * a, 100);
            source.addVideo(40 * v, 40 * v, v % 10 == 0, 200);
        }
        source.finish();
    }
    edittest::SyntheticSource source;
};

class CutJob : public ::testing::Test {
protected:
    CutJob() : editer(&edittest::recordNotify, &events) {
        MuxerRecorder::instance().reset();
        FileEditerTestAccess::useMuxerFactory(editer, &MuxerRecorder::make);
        dir = tsltest::scratchDir();
        extra = {0, 0, 0, 1, 0x67, 0x42, 0, 0, 0, 1, 0x68, 0xCE};
        video = {320, 240, 25, 1, extra.data(), int32_t(extra.size())};
    }
    ~CutJob() override { MuxerRecorder::instance().release(); }

    bool start(const std::string& src, const std::vector<EditRange>& ranges, int32_t kind = 0,
               const std::vector<EditOffset>& offsets = {}) {
        return editer.cut(src.c_str(), (dir + "/out.mp4").c_str(), ranges.data(), int32_t(ranges.size()),
                          offsets.empty() ? nullptr : offsets.data(), int32_t(offsets.size()), kind);
    }
    // Waits until a stop has been asked for: the engine's flag is the only sign.
    bool waitStopRequested() {
        for (int i = 0; i < 2000; ++i) {
            if (FileEditerTestAccess::stopRequested(editer)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    std::string dir;
    std::vector<uint8_t> extra;
    VideoTrackInfo video{};
    tsltest::EventRecorder events;
    FileEditer editer;
};

TEST_F(CutJob, RefusedBeforeAnIndexAndAfterItIsCleared) {
    const std::string src = dir + "/never.mp4";
    EXPECT_FALSE(start(src, {{0, 1000}}));
    EXPECT_FALSE(std::filesystem::exists(src));  // the source open (which creates) never ran
    EXPECT_EQ(MuxerRecorder::instance().muxerCount(), 0u);

    LongSource s(dir + "/long.bin");
    ASSERT_TRUE(editer.setFrameIndex(s.source.groups(), s.source.audio(), &video, &kAudio));
    editer.clearFrameIndex();
    EXPECT_FALSE(start(s.source.path(), {{0, 1000}}));
    EXPECT_EQ(MuxerRecorder::instance().muxerCount(), 0u);
}

TEST_F(CutJob, TheTrackRecordsAreCopiedWithTheirExtraData) {
    LongSource s(dir + "/long.bin");
    ASSERT_TRUE(editer.setFrameIndex(s.source.groups(), s.source.audio(), &video, &kAudio));
    const std::vector<uint8_t> original = extra;
    std::fill(extra.begin(), extra.end(), 0x55);  // the instance reuses its block
    video = VideoTrackInfo{};                      // and zeroes its record
    ASSERT_TRUE(start(s.source.path(), {{0, 200}}));
    ASSERT_TRUE(events.waitFor(kNotifyDone));
    editer.stopCut();
    EXPECT_EQ(MuxerRecorder::instance().log(0)->videoExtraData, original);
}

TEST_F(CutJob, ArgumentsAndKinds) {
    LongSource s(dir + "/long.bin");
    ASSERT_TRUE(editer.setFrameIndex(s.source.groups(), s.source.audio(), &video, &kAudio));
    const EditRange range = {0, 200};
    EXPECT_FALSE(editer.cut(s.source.path().c_str(), (dir + "/o.mp4").c_str(), nullptr, 1, nullptr, 0, 0));
    EXPECT_FALSE(editer.cut(s.source.path().c_str(), (dir + "/o.mp4").c_str(), &range, 0, nullptr, 0, 0));
    EXPECT_FALSE(editer.cut(s.source.path().c_str(), (dir + "/o.mp4").c_str(), &range, -3, nullptr, 0, 0));
    EXPECT_FALSE(start(dir + "/no/such/dir/src.mp4", {range}));  // the source can't be opened
    EXPECT_FALSE(start(s.source.path(), {range}, 3));            // no handler for the kind
    EXPECT_EQ(MuxerRecorder::instance().muxerCount(), 0u);

    // Kinds 1 and 2 are accepted and do nothing: no muxer, no thread, no event;
    // the copied arrays wait for the cancel.
    const std::vector<EditOffset> offsets = {{10, 20}};
    EXPECT_TRUE(start(s.source.path(), {range}, 1, offsets));
    EXPECT_TRUE(start(s.source.path(), {range}, 2, offsets));
    EXPECT_FALSE(FileEditerTestAccess::hasThread(editer));
    EXPECT_TRUE(FileEditerTestAccess::holdsJobResources(editer));
    EditOffset out{};
    int32_t count = 0;
    EXPECT_TRUE(editer.getEditOffsetPts(&out, 1, &count));
    EXPECT_EQ(out.first, 10);
    EXPECT_EQ(count, 1);
    editer.stopCut();
    editer.releaseCut();
    EXPECT_FALSE(FileEditerTestAccess::holdsJobResources(editer));
    EXPECT_FALSE(editer.getEditOffsetPts(&out, 1, &count));
    EXPECT_EQ(MuxerRecorder::instance().muxerCount(), 0u);
    EXPECT_TRUE(events.events().empty());

    // An output that the muxer refuses fails the set-up; the next cut clears what it left.
    MuxerRecorder::instance().failOutput(true);
    EXPECT_FALSE(start(s.source.path(), {range}));
    EXPECT_TRUE(FileEditerTestAccess::holdsJobResources(editer));
    MuxerRecorder::instance().failOutput(false);
    ASSERT_TRUE(start(s.source.path(), {range}));
    ASSERT_TRUE(events.waitFor(kNotifyDone));
    editer.stopCut();
    const auto firstCalls = MuxerRecorder::instance().calls(0);
    EXPECT_EQ(firstCalls.back(), "delete");  // the refused muxer went before the new job began
    EXPECT_EQ(MuxerRecorder::instance().log(0)->completions, 0);
    EXPECT_EQ(events.count(kNotifyDone), 1u);
}

TEST_F(CutJob, CancelWithNoJobAndAfterAJob) {
    editer.stopCut();
    editer.releaseCut();
    EXPECT_TRUE(events.events().empty());

    LongSource s(dir + "/long.bin");
    ASSERT_TRUE(editer.setFrameIndex(s.source.groups(), s.source.audio(), &video, &kAudio));
    ASSERT_TRUE(start(s.source.path(), {{0, 400}}, 0, {{0, 400}}));
    ASSERT_TRUE(events.waitFor(kNotifyDone));
    editer.stopCut();
    editer.releaseCut();
    EXPECT_FALSE(FileEditerTestAccess::hasThread(editer));
    EXPECT_FALSE(FileEditerTestAccess::holdsJobResources(editer));
    EXPECT_EQ(events.events(), std::vector<int32_t>{kNotifyDone});
    EditOffset out{};
    int32_t count = 0;
    EXPECT_FALSE(editer.getEditOffsetPts(&out, 1, &count));  // the report went with the job
}

TEST_F(CutJob, CancelDuringAJobEndsItPromptlyWithoutCompletion) {
    LongSource s(dir + "/long.bin");
    ASSERT_TRUE(editer.setFrameIndex(s.source.groups(), s.source.audio(), &video, &kAudio));
    MuxerRecorder::instance().pauseAfter(10);
    ASSERT_TRUE(start(s.source.path(), {{0, 4000}}));
    ASSERT_TRUE(MuxerRecorder::instance().waitPaused());

    std::thread host([&] {
        editer.stopCut();
        editer.releaseCut();
    });
    ASSERT_TRUE(waitStopRequested());
    MuxerRecorder::instance().release();
    host.join();

    EXPECT_FALSE(FileEditerTestAccess::hasThread(editer));
    EXPECT_FALSE(FileEditerTestAccess::holdsJobResources(editer));
    // The stop was honoured before the next sample, the output was finalised,
    // and a cancel reports neither outcome.
    EXPECT_EQ(MuxerRecorder::instance().writes(0).size(), 10u);
    EXPECT_EQ(MuxerRecorder::instance().log(0)->completions, 1);
    EXPECT_TRUE(events.events().empty());
}

TEST_F(CutJob, ANewCutStopsTheRunningOne_AnEmptyRangeListDoesNot) {
    LongSource s(dir + "/long.bin");
    ASSERT_TRUE(editer.setFrameIndex(s.source.groups(), s.source.audio(), &video, &kAudio));
    MuxerRecorder::instance().pauseAfter(5);
    ASSERT_TRUE(start(s.source.path(), {{0, 4000}}));
    ASSERT_TRUE(MuxerRecorder::instance().waitPaused());

    // Refused before anything is touched: the held job is still the one running.
    EXPECT_FALSE(start(s.source.path(), {}));
    EXPECT_FALSE(FileEditerTestAccess::stopRequested(editer));

    bool second = false;
    std::thread host([&] { second = start(s.source.path(), {{0, 400}}); });
    ASSERT_TRUE(waitStopRequested());
    MuxerRecorder::instance().release();
    host.join();
    ASSERT_TRUE(second);
    ASSERT_TRUE(events.waitFor(kNotifyDone));
    editer.stopCut();

    ASSERT_EQ(MuxerRecorder::instance().muxerCount(), 2u);
    EXPECT_EQ(MuxerRecorder::instance().log(0)->completions, 1);  // finalised, but not reported
    EXPECT_EQ(MuxerRecorder::instance().writes(0).size(), 5u);
    EXPECT_EQ(events.events(), std::vector<int32_t>{kNotifyDone});  // the second job's only
    // The second job starts from the timeline's starting values.
    const auto writes = MuxerRecorder::instance().writes(1);
    ASSERT_FALSE(writes.empty());
    EXPECT_EQ(writes[0].track, kTrackVideo);
    EXPECT_EQ(writes[0].pts, 1);
    EXPECT_EQ(writes[0].dts, -85);
}

TEST_F(CutJob, TwoJobsInARowStartAlike) {
    LongSource s(dir + "/long.bin");
    ASSERT_TRUE(editer.setFrameIndex(s.source.groups(), s.source.audio(), &video, &kAudio));
    for (int job = 0; job < 2; ++job) {
        ASSERT_TRUE(start(s.source.path(), {{1000, 2000}, {3000, 3500}}));
        ASSERT_TRUE(events.waitFor(kNotifyDone, size_t(job + 1)));
        editer.stopCut();
    }
    const auto first = MuxerRecorder::instance().writes(0);
    const auto second = MuxerRecorder::instance().writes(1);
    ASSERT_FALSE(first.empty());
    ASSERT_EQ(first.size(), second.size());
    for (size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(first[i].track, second[i].track);
        EXPECT_EQ(first[i].pts, second[i].pts);
        EXPECT_EQ(first[i].dts, second[i].dts);
    }
    EXPECT_EQ(first[0].pts, 1);
}

TEST_F(CutJob, AFileWithoutAudioFails) {
    edittest::SyntheticSource source(dir + "/video.bin");
    for (int i = 0; i < 20; ++i) source.addVideo(40 * i, 40 * i, i % 10 == 0, 300);
    source.finish();
    ASSERT_TRUE(editer.setFrameIndex(source.groups(), source.audio(), &video, &kAudio));
    ASSERT_TRUE(start(source.path(), {{0, 1000}}));
    ASSERT_TRUE(events.waitFor(kNotifyFailed));
    editer.stopCut();
    EXPECT_EQ(events.events(), std::vector<int32_t>{kNotifyFailed});
    EXPECT_TRUE(MuxerRecorder::instance().writes(0).empty());
    EXPECT_EQ(MuxerRecorder::instance().log(0)->completions, 1);  // finalised all the same
    EXPECT_FALSE(FileEditerTestAccess::holdsJobResources(editer));
}

// A host that ignores the rule and calls back in from the failure event, on the
// cut thread: the engine can't join that thread there, so it neither hangs nor
// replaces the running thread object; a later stop from another thread joins it.
struct ReentrantHost {
    static void notify(void* context, int32_t code) {
        auto* self = static_cast<ReentrantHost*>(context);
        if (code == kNotifyFailed) {
            self->editer->stopCut();
            const EditRange range = {0, 100};
            self->secondCut = self->editer->cut(self->src.c_str(), self->dst.c_str(), &range, 1, nullptr, 0, 0);
        }
        self->events.record(code);
    }
    FileEditer* editer = nullptr;
    std::string src, dst;
    bool secondCut = true;
    tsltest::EventRecorder events;
};

TEST_F(CutJob, CallsFromTheFailureNotificationNeitherHangNorAbort) {
    edittest::SyntheticSource source(dir + "/video.bin");
    for (int i = 0; i < 5; ++i) source.addVideo(40 * i, 40 * i, i == 0, 300);
    source.finish();
    ReentrantHost host;
    FileEditer reentrant(&ReentrantHost::notify, &host);
    FileEditerTestAccess::useMuxerFactory(reentrant, &MuxerRecorder::make);
    host.editer = &reentrant;
    host.src = source.path();
    host.dst = dir + "/again.mp4";
    ASSERT_TRUE(reentrant.setFrameIndex(source.groups(), source.audio(), &video, &kAudio));
    const EditRange range = {0, 1000};
    ASSERT_TRUE(reentrant.cut(source.path().c_str(), (dir + "/out.mp4").c_str(), &range, 1, nullptr, 0, 0));
    ASSERT_TRUE(host.events.waitFor(kNotifyFailed));
    reentrant.stopCut();
    EXPECT_FALSE(host.secondCut);
    EXPECT_FALSE(FileEditerTestAccess::hasThread(reentrant));
    EXPECT_EQ(MuxerRecorder::instance().muxerCount(), 1u);
}

}  // namespace
