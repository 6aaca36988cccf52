// Index walks of real files through the instance, record by record against
// ffprobe (what the cut engine reads and the host never sees), and a walk
// stopped part way.
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "instance/TessaloImpl.h"
#include "base/FFmpegHolders.h"
#include "support/ProbeIndex.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

// Records as comparable rows: key, size, pts, dts, position.
using Row = std::tuple<bool, int32_t, int64_t, int64_t, int64_t>;
std::vector<Row> rows(const std::vector<FrameRecord*>& records) {
    std::vector<Row> out;
    for (const FrameRecord* r : records) out.emplace_back(r->isKey != 0, r->size, r->pts, r->dts, r->position);
    return out;
}
std::vector<Row> rows(const std::vector<tsltest::ProbeRecord>& records) {
    std::vector<Row> out;
    for (const auto& r : records) out.emplace_back(r.isKey, r.size, r.pts, r.dts, r.position);
    return out;
}

// B-frames, 48000 Hz mono, no audio, moov first, MOV, both video streams in
// one index, a subtitle track, a file above 20 MiB; two AAC streams (only the
// first is indexed); and an MPEG-TS that starts inside a group, whose video
// before the first key packet is dropped.
TEST(Walk, IndexEqualsFfprobe) {
    const std::string dir = tsltest::scratchDir(), twoAudio = dir + "/twoaudio.mp4", ts = dir + "/noaudio.ts",
                      midGop = dir + "/midgop.ts", ffmpeg = "ffmpeg -nostdin -v quiet -y -i ";
    const auto quote = [](const std::string& name) { return tsltest::shellQuote(tsltest::media(name)); };
    int status = 0;
    tsltest::run(ffmpeg + quote("main.mp4") + " -i " + quote("mono48k.mp4") + " -map 0:v -map 0:a -map 1:a -c copy " +
                     tsltest::shellQuote(twoAudio) + " && " + ffmpeg + quote("noaudio.mp4") + " -c copy " +
                     tsltest::shellQuote(ts) + " && tail -c +" + std::to_string(188 * 120 + 1) + " " +
                     tsltest::shellQuote(ts) + " > " + tsltest::shellQuote(midGop),
                 &status);
    ASSERT_EQ(status, 0);
    std::vector<std::string> files{twoAudio, midGop};
    for (const char* name : {"main.mp4", "mono48k.mp4", "noaudio.mp4", "faststart.mp4", "main.mov", "twovideo.mp4",
                             "subtitle.mp4", "large.mp4"})
        files.push_back(tsltest::media(name));
    const std::string flags = tsltest::run("ffprobe -v error -select_streams v -show_entries packet=flags "
                                           "-of csv=p=0 " + tsltest::shellQuote(midGop));
    ASSERT_TRUE(!flags.empty() && flags[0] != 'K') << "premise: the first video packet is no key packet";
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        const tsltest::ProbeIndex truth = tsltest::probeIndex(file);
        ASSERT_TRUE(truth.ok);
        ASSERT_GT(truth.keyGroups.size(), 1u);
        tsltest::EventRecorder events;
        TessaloImpl in(&events, &tsltest::EventRecorder::callback);
        ASSERT_TRUE(in.startPic(file.c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventIndexReady));
        in.stopWorker();  // the worker has sent its last event; join it
        EXPECT_EQ(events.events(), (std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}));
        // Stream order; the host's sorted view is the exports' tests' business.
        ASSERT_EQ(in.keyGroups.size(), truth.keyGroups.size());
        for (size_t g = 0; g < truth.keyGroups.size(); ++g)
            EXPECT_EQ(rows(*in.keyGroups[g]), rows(truth.keyGroups[g])) << "group " << g;
        EXPECT_EQ(rows(in.audioFrames), rows(truth.audioFrames)) << "audio";
    }
}

// What TSL_GetPicByPts and TSL_StartPic do first: stop the walk. The walk
// then announces the part indexed so far, from inside the stop, unsorted.
TEST(Walk, AStoppedWalkAnnouncesItsUnsortedPart) {
    const tsltest::ProbeIndex truth = tsltest::probeIndex(tsltest::longWalkFile());
    ASSERT_TRUE(truth.ok);
    // The stop has to land while the reader is inside the file, after a pause
    // that lets it index a part. A pause that finds nothing indexed, or a
    // finished walk, is retried with another; it only makes the case likely.
    for (int pauseMs : {20, 5, 60, 2, 120, 10, 40}) {
        tsltest::EventRecorder events;
        TessaloImpl instance(&events, &tsltest::EventRecorder::callback);
        ASSERT_TRUE(instance.startPic(tsltest::longWalkFile().c_str()));
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
            const FrameGroup& sorted = *instance.sortedKeyGroups[g];
            // Arrival order; all but the last group are whole.
            const size_t whole = truth.keyGroups[g].size();
            ASSERT_TRUE(g + 1 < groups ? sorted.size() == whole : sorted.size() <= whole) << "group " << g;
            for (size_t i = 0; i < sorted.size(); ++i)
                EXPECT_EQ(sorted[i]->pts, truth.keyGroups[g][i].pts) << "group " << g << " at " << i;
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
