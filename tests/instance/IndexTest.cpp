// The frame index: fed packet by packet as the reader thread feeds it and read back through its queries;
// walks of real files, record by record against ffprobe (what the cut engine reads and the host never
// sees); the index from the sample tables against the walk that reads every byte; a walk stopped part way.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <thread>
#include <tuple>

#include "base/FFmpegHolders.h"
#include "demux/AVStreamParse.h"
#include "demux/DemuxerBase.h"
#include "instance/TessaloImpl.h"
#include "support/ProbeIndex.h"

using namespace Morvel_Tessalo;
using Pts = std::vector<int64_t>;

namespace {

class FrameIndex : public ::testing::Test {
protected:
    tsltest::EventRecorder events;
    TessaloImpl instance{&events, &tsltest::EventRecorder::callback};

    // Video samples in arrival order; a key is marked by `keys` holding its pts.
    void feed(const Pts& pts, const Pts& keys) {
        for (int64_t p : pts) {
            DemuxerPacket packet{nullptr, 0, p, 0, std::find(keys.begin(), keys.end(), p) != keys.end(), 0, 0};
            EXPECT_EQ(TessaloImpl::onDemuxerPacket(kDemuxerPacketVideo, &packet, &instance), 1);
        }
    }
    static Pts ptsOf(const FrameGroup& group) {
        Pts out;
        for (const FrameRecord* r : group) out.push_back(r->pts);
        return out;
    }
    // The query's answer; a sentinel past the count must stay untouched.
    template <typename Query> static Pts ask(Query query) {
        Pts out(64, -7);
        const int32_t n = query(out.data());
        for (size_t i = static_cast<size_t>(n); i < out.size(); ++i) EXPECT_EQ(out[i], -7) << "wrote past " << n;
        out.resize(static_cast<size_t>(n));
        return out;
    }
    Pts keyPts() { return ask([&](int64_t* o) { return instance.getKeyPts(o); }); }
    Pts ptsFor(int64_t key) { return ask([&](int64_t* o) { return instance.getPtsByKeyPts(key, o); }); }
};

TEST_F(FrameIndex, ReorderedGroupsKeepStreamOrderAndSortTheHostsView) {
    EXPECT_EQ(keyPts(), Pts{});
    EXPECT_EQ(instance.getPtsCountByKeyPts(0), 0);
    feed({0, 120, 40, 80, 160, 240, 200}, {0, 160});
    // Until the walk ends (a stopped walk never gets there) the host sees arrival order.
    EXPECT_EQ(keyPts(), (Pts{0, 160}));
    EXPECT_EQ(ptsFor(160), (Pts{160, 240, 200}));
    instance.sortIndex();
    ASSERT_EQ(instance.keyGroups.size(), 2u);
    EXPECT_EQ(ptsOf(*instance.keyGroups[0]), (Pts{0, 120, 40, 80}));
    EXPECT_EQ(ptsOf(*instance.keyGroups[1]), (Pts{160, 240, 200}));
    EXPECT_EQ(keyPts(), (Pts{0, 160}));
    EXPECT_EQ(instance.getPtsCountByKeyPts(160), 3);
    EXPECT_EQ(ptsFor(0), (Pts{0, 40, 80, 120}));
    EXPECT_EQ(ptsFor(160), (Pts{160, 200, 240}));
    // A timestamp that opens no group matches nothing; a missing block is not written.
    EXPECT_EQ(instance.getPtsCountByKeyPts(40), 0);
    EXPECT_EQ(ptsFor(40), Pts{});
    EXPECT_EQ(instance.getKeyPts(nullptr), 0);
    EXPECT_EQ(instance.getPtsByKeyPts(0, nullptr), 0);
}

// A key sample shown after others of its group does not name the group; two
// groups with the same lowest timestamp answer together, counted as the first.
TEST_F(FrameIndex, KeyTimestampIsTheGroupsLowest) {
    feed({100, 60, 80}, {100});
    feed({60, 70}, {60});
    instance.sortIndex();
    EXPECT_EQ(keyPts(), (Pts{60, 60}));
    EXPECT_EQ(instance.getPtsCountByKeyPts(100), 0);
    EXPECT_EQ(instance.getPtsCountByKeyPts(60), 3);
    EXPECT_EQ(ptsFor(60), (Pts{60, 80, 100, 60, 70}));
}

// Records (the index's by pointer, ffprobe's by value) as comparable rows: key, size, pts, dts, position.
using Row = std::tuple<int, int32_t, int64_t, int64_t, int64_t>;
template <typename R> Row row(const R& r) { return {r.isKey, r.size, r.pts, r.dts, r.position}; }
template <typename R> Row row(R* r) { return row(*r); }
template <typename List> std::vector<Row> rows(const List& list) {
    std::vector<Row> out;
    for (const auto& r : list) out.push_back(row(r));
    return out;
}
std::vector<std::vector<Row>> rows(const std::vector<FrameGroup*>& groups) {
    std::vector<std::vector<Row>> out;
    for (const FrameGroup* g : groups) out.push_back(rows(*g));
    return out;
}

std::string bytes(const void* data, size_t size) { return {static_cast<const char*>(data), size}; }

// Bytes this process has read through system calls so far.
int64_t bytesReadByProcess() {
    std::ifstream io("/proc/self/io");
    std::string key;
    int64_t value = 0;
    while (io >> key >> value)
        if (key == "rchar:") return value;
    return -1;
}

// A walk of `file` to its end, whole or, where the sample tables vouch for the file, from them.
struct Walk {
    tsltest::EventRecorder events;
    TessaloImpl in{&events, &tsltest::EventRecorder::callback};
    int64_t bytesRead = bytesReadByProcess();

    Walk(const std::string& file, bool full) {
        setFullWalkForced(full);
        EXPECT_TRUE(in.startPic(file.c_str()));
        EXPECT_NE(events.waitForAny({kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec,
                                     kHostEventBadSampleRate, kHostEventBadChannels, kHostEventNoVideo}), -1);
        in.stopWorker();
        bytesRead = bytesReadByProcess() - bytesRead;
        setFullWalkForced(false);
    }
    // All that the walk left for the host and the cut engine.
    auto result() const {
        return std::tuple(events.events(), bytes(&in.mediaInfo, sizeof in.mediaInfo),
                          bytes(in.extraData.get(), size_t(in.extraDataSize)),
                          bytes(in.annexBExtraData.get(), size_t(in.annexBExtraDataSize)), rows(in.keyGroups),
                          rows(in.sortedKeyGroups), rows(in.audioFrames));
    }
};

// B-frames, 48000 Hz mono, no audio, moov first, MOV, both video streams in one index, a subtitle track, a
// file above 20 MiB; two AAC streams (only the first is indexed); and an MPEG-TS that starts inside a group,
// whose video before the first key packet is dropped.
TEST(Walk, TheIndexEqualsFfprobesPackets) {
    ASSERT_NE(tsltest::probe(tsltest::media("midgop.ts"), "-select_streams v -show_entries packet=flags").substr(0, 1),
              "K") << "premise: the first video packet is no key packet";
    for (const char* name : {"main.mp4", "mono48k.mp4", "noaudio.mp4", "faststart.mp4", "main.mov", "twovideo.mp4",
                             "subtitle.mp4", "large.mp4", "twoaudio.mp4", "midgop.ts"}) {
        SCOPED_TRACE(name);
        const tsltest::ProbeIndex truth = tsltest::probeIndex(tsltest::media(name));
        ASSERT_TRUE(truth.ok);
        ASSERT_GT(truth.keyGroups.size(), 1u);
        const Walk w(tsltest::media(name), false);
        EXPECT_EQ(w.events.events(), (std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}));
        // Stream order; the host's sorted view is the exports' tests' business.
        ASSERT_EQ(w.in.keyGroups.size(), truth.keyGroups.size());
        for (size_t g = 0; g < truth.keyGroups.size(); ++g)
            EXPECT_EQ(rows(*w.in.keyGroups[g]), rows(truth.keyGroups[g])) << "group " << g;
        EXPECT_EQ(rows(w.in.audioFrames), rows(truth.audioFrames)) << "audio";
    }
}

struct Fixture {
    const char* name;
    bool fromTables;  // false: the file takes the full walk
};

class TableIndex : public ::testing::TestWithParam<Fixture> {};

TEST_P(TableIndex, EqualsTheWalkThatReadsEveryByte) {
    const std::string file = tsltest::media(GetParam().name);
    const Walk full(file, true), tables(file, false);
    ASSERT_EQ(full.events.events(), (std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}));
    EXPECT_EQ(tables.result(), full.result());
    if (GetParam().fromTables)
        EXPECT_LT(tables.bytesRead * 3, full.bytesRead * 2) << "payloads stay in the file";
    else
        EXPECT_GE(tables.bytesRead, full.bytesRead) << "the full walk";
}

// B-frames (with the edit that delays them) and the movie box at the end; at
// the start; audio that starts before the video; negative composition
// offsets; variable frame rate; two video streams; a subtitle track; MOV; a
// file above 20 MiB; tables that point past the end of a truncated file; a
// cover picture; GStreamer's MP4 and MOV. Then what the tables cannot vouch for: movie fragments, no
// sync sample table (every sample a sync sample, to the tables only), MPEG-TS.
INSTANTIATE_TEST_SUITE_P(Fixtures, TableIndex,
                         ::testing::ValuesIn(std::vector<Fixture>{
                             {"main.mp4", true}, {"faststart.mp4", true}, {"tables_audiofirst.mp4", true},
                             {"tables_negcts.mp4", true}, {"tables_vfr.mp4", true}, {"twovideo.mp4", true},
                             {"subtitle.mp4", true}, {"main.mov", true}, {"large.mp4", true},
                             {"truncated.mp4", true}, {"coverart.mp4", true}, {"tables_gst.mp4", true},
                             {"tables_gst.mov", true}, {"tables_fragmented.mp4", false},
                             {"tables_nostss.mp4", false}, {"tables_ts.ts", false}}),
                         [](const auto& info) { return std::regex_replace(info.param.name, std::regex("\\W"), "_"); });

// What TSL_GetPicByPts and TSL_StartPic do first: stop the walk. The walk
// then announces the part indexed so far, from inside the stop, unsorted.
TEST(Walk, AStoppedWalkAnnouncesItsUnsortedPart) {
    const std::string file = tsltest::media("long_walk.mp4");
    const tsltest::ProbeIndex truth = tsltest::probeIndex(file);
    ASSERT_TRUE(truth.ok);
    // The stop has to land while the reader is inside the file, after a pause
    // that lets it index a part. A pause that finds nothing indexed, or a
    // finished walk, is retried with another; it only makes the case likely.
    for (int pauseMs : {20, 5, 60, 2, 120, 10, 40}) {
        tsltest::EventRecorder events;
        TessaloImpl instance(&events, &tsltest::EventRecorder::callback);
        ASSERT_TRUE(instance.startPic(file.c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventMediaInfo));
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        instance.stopWorker();
        EXPECT_EQ(instance.demuxer, nullptr) << "the reader has ended with the worker";
        const size_t groups = instance.keyGroups.size();
        std::vector<int32_t> expected{kHostEventMediaInfo};
        if (groups) expected.push_back(kHostEventIndexReady);  // an empty index is never announced
        EXPECT_EQ(events.events(), expected);
        if (groups == 0 || groups >= truth.keyGroups.size()) continue;

        ASSERT_EQ(instance.sortedKeyGroups.size(), groups);
        for (size_t g = 0; g < groups; ++g) {
            // Arrival order; all but the last group are whole.
            std::vector<Row> sorted = rows(*instance.sortedKeyGroups[g]), whole = rows(truth.keyGroups[g]);
            if (g + 1 == groups) whole.resize(std::min(whole.size(), sorted.size()));
            EXPECT_EQ(sorted, whole) << "group " << g;
        }
        return;
    }
    GTEST_SKIP() << "no stop landed inside a walk";
}

// The event says which rule broke; FFmpeg's own code stays beside it, and a
// refusal of the library's own (a codec it does not take) carries none.
TEST(Walk, AFailureKeepsFFmpegsCodeBesideItsEvent) {
    const struct { std::string path; int32_t event; int code; } cases[] = {
        {tsltest::scratchDir() + "/absent.mp4", kHostEventFileError, AVERROR(ENOENT)},
        {tsltest::media("text.mp4"), kHostEventFileError, AVERROR_INVALIDDATA},
        {tsltest::media("hevc.mp4"), kHostEventBadCodec, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        tsltest::EventRecorder events;
        TessaloImpl instance(&events, &tsltest::EventRecorder::callback);
        instance.failureCode = 1;  // a walk starts without a cause
        ASSERT_TRUE(instance.startPic(c.path.c_str()));
        ASSERT_TRUE(events.waitFor(c.event));
        instance.stopWorker();
        EXPECT_EQ(instance.failureCode, c.code);
    }
}

}  // namespace
