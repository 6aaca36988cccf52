// The cut algorithm against a recording muxer: the interleaving of the two
// tracks, the rebuilt timeline, the bytes handed over, and the way a range
// opens and closes. The source is a synthetic file whose index the test writes.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "EditTestSupport.h"

using Morvel_Tessalo::FileEditer;
using Morvel_Tessalo::FileEditerTestAccess;
using Morvel_Tessalo::kNotifyDone;
using Morvel_Tessalo::kNotifyFailed;
using edittest::MuxerRecorder;
using edittest::Write;

namespace {

const VideoTrackInfo kVideo = {320, 240, 25, 1, nullptr, 0};
const AudioTrackInfo kAudio = {44100, 2, 16, 1, nullptr, 0};

// An engine with the recording muxer, its notifications, and an offsets
// report captured inside the done-notification as a host would take it.
struct Harness {
    Harness() : dir(tsltest::scratchDir()), editer(&Harness::notify, this) {
        MuxerRecorder::instance().reset();
        FileEditerTestAccess::useMuxerFactory(editer, &MuxerRecorder::make);
    }
    static void notify(void* context, int32_t code) {
        auto* self = static_cast<Harness*>(context);
        if (code == kNotifyDone) {
            std::vector<EditOffset> report(self->wantOffsets);
            int32_t count = 0;
            if (!report.empty() && self->editer.getEditOffsetPts(report.data(), int32_t(report.size()), &count)) {
                report.resize(size_t(count));
                std::lock_guard<std::mutex> lock(self->reportMutex);
                self->report = report;
            }
        }
        self->events.record(code);
    }
    bool cutAndWait(const std::string& src, const std::vector<EditRange>& ranges,
                    const std::vector<EditOffset>& offsets = {}) {
        wantOffsets = offsets.size();
        if (!editer.cut(src.c_str(), (dir + "/out.mp4").c_str(), ranges.data(),
                        int32_t(ranges.size()), offsets.empty() ? nullptr : offsets.data(), int32_t(offsets.size()), 0))
            return false;
        const int32_t code = events.waitForAny({kNotifyDone, kNotifyFailed});
        editer.stopCut();  // joins the thread that has ended by now
        return code == kNotifyDone;
    }

    std::string dir;
    tsltest::EventRecorder events;
    std::mutex reportMutex;
    std::vector<EditOffset> report;
    size_t wantOffsets = 0;
    FileEditer editer;
};

// One group of eight frames every 40 ms in display order, audio every 23 ms,
// stored interleaved by time behind a 64-byte header and before an index box.
struct WorkedSource {
    explicit WorkedSource(const std::string& path) : source(path) {
        int64_t a = 0;
        for (int64_t v = 0; v < 8; ++v) {
            for (; a * 23 <= v * 40 && a < 14; ++a) audio.push_back(source.addAudio(a * 23, 200 + int32_t(a)));
            video.push_back(source.addVideo(v * 40, v * 40, v == 0, 700 + int32_t(v)));
        }
        for (; a < 14; ++a) audio.push_back(source.addAudio(a * 23, 200 + int32_t(a)));
        source.finish();
    }
    edittest::SyntheticSource source;
    std::vector<std::vector<uint8_t>> video, audio;
};

std::string order(const std::vector<Write>& writes) {
    std::string letters;
    for (const auto& w : writes) letters += (letters.empty() ? "" : " ") + std::string(w.track == kTrackVideo ? "V" : "A");
    return letters;
}

std::vector<Write> track(const std::vector<Write>& writes, int32_t which) {
    std::vector<Write> out;
    for (const auto& w : writes)
        if (w.track == which) out.push_back(w);
    return out;
}

TEST(CutOrder, OneRangeInterleavesTracksAndRebuildsTheTimeline) {
    Harness h;
    WorkedSource s(h.dir + "/worked.bin");
    ASSERT_EQ(s.audio.size(), 14u);
    ASSERT_TRUE(h.editer.setFrameIndex(s.source.groups(), s.source.audio(), &kVideo, &kAudio));
    ASSERT_TRUE(h.cutAndWait(s.source.path(), {{0, 1000}}, {{0, 280}}));

    const auto writes = MuxerRecorder::instance().writes(0);
    EXPECT_EQ(order(writes), "V V V V A A A V A A V A V A A V A A A A A A");

    const auto video = track(writes, kTrackVideo);
    ASSERT_EQ(video.size(), 8u);
    for (size_t i = 0; i < video.size(); ++i) {
        EXPECT_EQ(video[i].pts, 1 + 40 * int64_t(i));
        EXPECT_EQ(video[i].dts, -85 + 40 * int64_t(i));
        EXPECT_EQ(video[i].flags, i == 0 ? kSampleFlagVideoKey : 0u);
        EXPECT_EQ(video[i].bytes, edittest::annexB(s.video[i])) << "video sample " << i;
    }
    const auto audio = track(writes, kTrackAudio);
    ASSERT_EQ(audio.size(), 14u);
    for (size_t i = 0; i < audio.size(); ++i) {
        EXPECT_EQ(audio[i].pts, 1 + 23 * int64_t(i));
        EXPECT_EQ(audio[i].dts, i == 0 ? 0 : audio[i].pts);  // only the very first audio dts is 0
        EXPECT_EQ(audio[i].flags, kSampleFlagAudio);
        EXPECT_EQ(audio[i].bytes, s.audio[i]) << "audio sample " << i;  // copied byte for byte, no header
    }

    // The calling order of the contract, audio declared first, and one completion.
    const auto calls = MuxerRecorder::instance().calls(0);
    ASSERT_GE(calls.size(), 7u);
    EXPECT_EQ(std::vector<std::string>(calls.begin(), calls.begin() + 5),
              (std::vector<std::string>{"setNotify", "setOutputFile", "addAudioTrack", "addVideoTrack", "start"}));
    EXPECT_EQ(calls[calls.size() - 2], "stop");
    EXPECT_EQ(calls.back(), "delete");
    EXPECT_EQ(MuxerRecorder::instance().log(0)->completions, 1);
    EXPECT_EQ(h.events.count(kNotifyDone), 1u);
    EXPECT_EQ(h.events.count(kNotifyFailed), 0u);

    // The closing step made videoPts 367: it shows where an offset at the range's end maps.
    std::lock_guard<std::mutex> lock(h.reportMutex);
    ASSERT_EQ(h.report.size(), 1u);
    EXPECT_EQ(h.report[0].first, 0);  // first range: base 0, key pts 0
    EXPECT_EQ(h.report[0].second, 280);
}

TEST(CutOrder, TwoRangesLeaveGapsAndTheOffsetsReportFollows) {
    Harness h;
    WorkedSource s(h.dir + "/worked.bin");
    ASSERT_TRUE(h.editer.setFrameIndex(s.source.groups(), s.source.audio(), &kVideo, &kAudio));
    // Offsets: inside range 1; inside range 2; one below range 2's start though
    // inside its widened output; one straddling both; one exactly range 2.
    const std::vector<EditOffset> offsets = {{40, 80}, {200, 240}, {199, 240}, {100, 250}, {200, 1000}};
    ASSERT_TRUE(h.cutAndWait(s.source.path(), {{0, 120}, {200, 1000}}, offsets));

    const auto writes = MuxerRecorder::instance().writes(0);
    const auto video = track(writes, kTrackVideo);
    const auto audio = track(writes, kTrackAudio);
    // Range 1 keeps pts 0..120 (4 frames, 6 audio frames); range 2 opens again on
    // the only key frame, at 0, and runs to the end (8 frames, 14 audio frames).
    ASSERT_EQ(video.size(), 4u + 8u);
    ASSERT_EQ(audio.size(), 6u + 14u);

    // Where range 1 left the timeline, from its own last samples and the closing rule.
    const Write& lastVideo = video[3];
    const int64_t closingPts = lastVideo.dts + 86 >= lastVideo.pts ? lastVideo.pts + 86 : lastVideo.pts;
    EXPECT_EQ(lastVideo.pts, 121);
    EXPECT_EQ(closingPts, 207);
    EXPECT_EQ(video[4].pts, closingPts + 30);
    EXPECT_EQ(video[4].dts, lastVideo.dts + 30);
    EXPECT_EQ(video[4].flags, kSampleFlagVideoKey);
    EXPECT_EQ(audio[6].pts, audio[5].pts + 20);
    EXPECT_EQ(audio[6].dts, audio[6].pts);
    for (size_t i = 5; i < video.size(); ++i) EXPECT_EQ(video[i].pts - video[i - 1].pts, 40);

    std::lock_guard<std::mutex> lock(h.reportMutex);
    ASSERT_EQ(h.report.size(), offsets.size());
    EXPECT_EQ(h.report[0].first, 40);  // range 1: base 0, key 0
    EXPECT_EQ(h.report[0].second, 80);
    EXPECT_EQ(h.report[1].first, 200 - 0 + closingPts);  // range 2: base is videoPts before it
    EXPECT_EQ(h.report[1].second, 240 - 0 + closingPts);
    EXPECT_EQ(h.report[2].first, 199);  // not inside the range as the host gave it
    EXPECT_EQ(h.report[3].first, 100);  // straddles: stays
    EXPECT_EQ(h.report[4].first, 200 + closingPts);
    EXPECT_EQ(h.report[4].second, 1000 + closingPts);
}

TEST(CutOrder, RangeEdges) {
    // A range before every picture writes nothing and still succeeds.
    {
        Harness h;
        WorkedSource s(h.dir + "/worked.bin");
        ASSERT_TRUE(h.editer.setFrameIndex(s.source.groups(), s.source.audio(), &kVideo, &kAudio));
        ASSERT_TRUE(h.cutAndWait(s.source.path(), {{-500, -1}}));
        EXPECT_TRUE(MuxerRecorder::instance().writes(0).empty());
    }
    // A sample whose pts equals the end is written; the first one above it ends the side.
    {
        Harness h;
        WorkedSource s(h.dir + "/worked.bin");
        ASSERT_TRUE(h.editer.setFrameIndex(s.source.groups(), s.source.audio(), &kVideo, &kAudio));
        ASSERT_TRUE(h.cutAndWait(s.source.path(), {{0, 92}}));
        const auto writes = MuxerRecorder::instance().writes(0);
        EXPECT_EQ(track(writes, kTrackVideo).size(), 3u);  // 0, 40, 80
        EXPECT_EQ(track(writes, kTrackAudio).size(), 5u);  // 0 .. 92
    }
    // A range that starts past the last picture in decode order fails.
    {
        Harness h;
        WorkedSource s(h.dir + "/worked.bin");
        ASSERT_TRUE(h.editer.setFrameIndex(s.source.groups(), s.source.audio(), &kVideo, &kAudio));
        EXPECT_FALSE(h.cutAndWait(s.source.path(), {{280, 1000}}));
        EXPECT_EQ(h.events.count(kNotifyFailed), 1u);
        EXPECT_EQ(h.events.count(kNotifyDone), 0u);
        EXPECT_EQ(MuxerRecorder::instance().log(0)->completions, 1);  // the output is still finalised
    }
}

TEST(CutOrder, DroppedSamplesLeaveNoHoleAndReorderedPicturesKeepTheirDistances) {
    Harness h;
    edittest::SyntheticSource source(h.dir + "/drop.bin");
    // Decode order with B-frames: K0 120 40 80 | K160 ...; the pts=40 sample is 3 bytes.
    auto k0 = source.addVideo(0, 0, true, 50);
    auto p120 = source.addVideo(120, 40, false, 51);
    source.addVideo(40, 80, false, 0, 3);
    auto b80 = source.addVideo(80, 120, false, 52);
    // A sample whose unit claims more than it holds fails conversion: dropped too.
    auto bad = source.addVideo(200, 160, false, 10);
    {
        // Rewrite its prefix to claim 1000 bytes. The record keeps the true size.
        std::fstream f(source.path(), std::ios::binary | std::ios::in | std::ios::out);
        f.seekp(source.position() - 14);
        const char prefix[4] = {0, 0, 3, char(0xE8)};
        f.write(prefix, 4);
    }
    auto last = source.addVideo(160, 200, false, 53);
    for (int i = 0; i < 12; ++i) source.addAudio(23 * i, 100);
    source.finish();
    ASSERT_TRUE(h.editer.setFrameIndex(source.groups(), source.audio(), &kVideo, &kAudio));
    ASSERT_TRUE(h.cutAndWait(source.path(), {{0, 1000}}));

    const auto video = track(MuxerRecorder::instance().writes(0), kTrackVideo);
    ASSERT_EQ(video.size(), 4u);
    const int64_t pts[] = {1, 121, 81, 161};  // running sums of source pts differences
    const int64_t dts[] = {-85, -45, 35, 115};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(video[i].pts, pts[i]) << i;
        EXPECT_EQ(video[i].dts, dts[i]) << i;
    }
    EXPECT_EQ(video[2].bytes, edittest::annexB(b80));
    EXPECT_EQ(video[3].bytes, edittest::annexB(last));
}

TEST(CutOrder, ReadsCrossTheBufferAndFailWhereTheyMust) {
    const int64_t kBuffer = FileEditer::kReadBufferSize;
    // Samples either side of a 20 MiB boundary, one ending exactly on it.
    {
        Harness h;
        edittest::SyntheticSource source(h.dir + "/big.bin");
        std::vector<std::vector<uint8_t>> video;
        video.push_back(source.addVideo(0, 0, true, 1000));
        source.addAudio(0, 300);
        const int64_t start = 64;  // the header: the first buffer begins here
        // Fill so that the next video sample ends exactly at start + kBuffer.
        source.skip(kBuffer - (source.position() - start) - 5000);
        video.push_back(source.addVideo(40, 40, false, 5000 - 4));
        ASSERT_EQ(source.position(), start + kBuffer);
        source.addAudio(23, 300);
        video.push_back(source.addVideo(80, 80, false, 900));
        source.addAudio(46, 300);
        source.finish();
        ASSERT_TRUE(h.editer.setFrameIndex(source.groups(), source.audio(), &kVideo, &kAudio));
        ASSERT_TRUE(h.cutAndWait(source.path(), {{0, 1000}}));
        const auto writes = MuxerRecorder::instance().writes(0);
        const auto got = track(writes, kTrackVideo);
        ASSERT_EQ(got.size(), 3u);
        for (size_t i = 0; i < 3; ++i) EXPECT_EQ(got[i].bytes, edittest::annexB(video[i])) << i;
        EXPECT_EQ(track(writes, kTrackAudio).size(), 3u);
    }
    // The two tracks stored further apart than the buffer can bridge: failure at the refill.
    {
        Harness h;
        edittest::SyntheticSource source(h.dir + "/apart.bin");
        for (int i = 0; i < 5; ++i) source.addVideo(40 * i, 40 * i, i == 0, 500);
        source.skip(kBuffer + 1000);
        for (int i = 0; i < 9; ++i) source.addAudio(23 * i, 200);
        source.finish();
        ASSERT_TRUE(h.editer.setFrameIndex(source.groups(), source.audio(), &kVideo, &kAudio));
        EXPECT_FALSE(h.cutAndWait(source.path(), {{0, 1000}}));
        EXPECT_EQ(h.events.count(kNotifyFailed), 1u);
        // Video ran ahead while audio was out of reach: what was written stays written.
        EXPECT_FALSE(MuxerRecorder::instance().writes(0).empty());
    }
    // Sample data up to the very last byte of the file: the last sample can never be taken.
    {
        Harness h;
        edittest::SyntheticSource source(h.dir + "/noindex.bin");
        for (int i = 0; i < 4; ++i) {
            source.addAudio(23 * i, 200);
            source.addVideo(40 * i, 40 * i, i == 0, 500);
        }
        ASSERT_TRUE(h.editer.setFrameIndex(source.groups(), source.audio(), &kVideo, &kAudio));
        EXPECT_FALSE(h.cutAndWait(source.path(), {{0, 1000}}));
        EXPECT_EQ(track(MuxerRecorder::instance().writes(0), kTrackVideo).size(), 3u);
    }
}

TEST(CutOrder, APositionBelowTheBufferFailsTheCutInsteadOfReadingOutsideIt) {
    // The second audio frame is stored before everything the range opens on,
    // so the refill would have to start below the buffer's first byte.
    Harness h;
    edittest::SyntheticSource source(h.dir + "/falling.bin");
    source.addAudio(23, 150);  // stored first, but the second in time
    for (int i = 0; i < 3; ++i) source.addVideo(40 * i, 40 * i, i == 0, 400);
    source.addAudio(0, 150);
    source.finish();
    std::swap((*source.audio())[0], (*source.audio())[1]);
    ASSERT_TRUE(h.editer.setFrameIndex(source.groups(), source.audio(), &kVideo, &kAudio));
    EXPECT_FALSE(h.cutAndWait(source.path(), {{0, 1000}}));
    EXPECT_EQ(h.events.count(kNotifyFailed), 1u);
    EXPECT_EQ(track(MuxerRecorder::instance().writes(0), kTrackAudio).size(), 1u);
}

TEST(CutOrder, RangesAfterAnExhaustedListEndInOrder) {
    // The first range walks both lists to their ends; the second, out of order,
    // finds both exhausted and ends without writing, instead of waiting forever.
    Harness h;
    WorkedSource s(h.dir + "/worked.bin");
    ASSERT_TRUE(h.editer.setFrameIndex(s.source.groups(), s.source.audio(), &kVideo, &kAudio));
    ASSERT_TRUE(h.cutAndWait(s.source.path(), {{0, 1000}, {0, 100}}));
    EXPECT_EQ(MuxerRecorder::instance().writes(0).size(), 22u);
}

}  // namespace
