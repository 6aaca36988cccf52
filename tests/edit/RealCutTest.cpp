// Real cuts of the fixtures as a host makes them: the instance walks the file,
// the cut runs through the MP4 writer, and the ffmpeg tools judge the output.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "RealHost.h"
#include "support/ProbeIndex.h"

namespace {

// Ranges after the first end on a key frame or run to the end: one ending on a
// B-frame misses the 86 ms closing step, and ffmpeg then reports the next
// range's key frame as non-monotonic. That is the timeline as designed.
TEST(RealCut, DoneOnceAndTheOutputHoldsWhatTheIndexPredicts) {
    const struct {
        const char *source, *output;
        std::vector<EditRange> ranges;
    } cases[] = {{"main.mp4", "one.mp4", {{1000, 3000}}},
                 {"main.mov", "one.mov", {{1500, 2500}}},
                 {"main.mp4", "several.mov", {{300, 1000}, {2000, 3000}, {3100, 4000}}},
                 {"main.mov", "several.mp4", {{0, 900}, {2000, 3000}, {4000, 4500}}},
                 {"large.mp4", "large.mp4", {{0, 2900}}}};  // over the 20 MiB read buffer
    const std::string dir = tsltest::scratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.output);
        const std::string src = tsltest::media(c.source), out = dir + "/" + c.output, md5 = tsltest::fileMd5(src);
        const tsltest::ProbeIndex probe = tsltest::probeIndex(src);
        ASSERT_TRUE(probe.ok);
        std::vector<tsltest::ProbeRecord> decodeOrder;
        for (const auto& group : probe.keyGroups) decodeOrder.insert(decodeOrder.end(), group.begin(), group.end());
        // A range puts out the samples in decode order from the last key frame below
        // its start (or the first) up to the first one shown after its end.
        size_t expected = 0;
        std::vector<int64_t> keyPts;
        std::vector<EditOffset> offsets;  // one per range, exactly the range
        for (const auto& range : c.ranges) {
            size_t from = 0;
            for (size_t i = 0; i < decodeOrder.size(); ++i)
                from = decodeOrder[i].isKey && decodeOrder[i].pts < range.start ? i : from;
            for (size_t i = from; i < decodeOrder.size() && decodeOrder[i].pts <= range.end; ++i) ++expected;
            keyPts.push_back(decodeOrder[from].pts);
            offsets.push_back({range.start, range.end});
        }

        RealHost host;
        host.asked = offsets.size();
        ASSERT_TRUE(host.in.startPic(src.c_str()));
        ASSERT_TRUE(host.events.waitFor(kHostEventIndexReady));
        ASSERT_TRUE(host.in.editor->cut(src.c_str(), out.c_str(), c.ranges.data(), int32_t(c.ranges.size()),
                                        offsets.data(), int32_t(offsets.size()), 0));
        ASSERT_NE(host.events.waitForAny({kHostEventCutDone, kHostEventCutFailed}), -1);
        host.in.editor->stopCut();
        host.in.editor->releaseCut();
        const std::vector<int32_t> expectedEvents = {kHostEventMediaInfo, kHostEventIndexReady, kHostEventCutDone};
        EXPECT_EQ(host.events.events(), expectedEvents);
        ASSERT_EQ(host.report.size(), c.ranges.size());
        // The first range's base is 0; later ranges follow on, each as long as it was.
        EXPECT_EQ(host.report[0].first, c.ranges[0].start - keyPts[0]);
        EXPECT_EQ(host.report[0].second, c.ranges[0].end - keyPts[0]);
        for (size_t i = 1; i < c.ranges.size(); ++i) {
            EXPECT_GT(host.report[i].first, host.report[i - 1].second);
            EXPECT_EQ(host.report[i].second - host.report[i].first, c.ranges[i].end - c.ranges[i].start);
        }

        EXPECT_EQ(tsltest::decodeErrors(out), "");
        const std::string quoted = tsltest::shellQuote(out);
        const auto probeOut = [&](const std::string& options) {
            return nlohmann::json::parse(tsltest::run("ffprobe -v error -of json " + options + quoted));
        };
        const auto streams = probeOut("-count_packets -show_entries stream=codec_type,nb_read_packets ")["streams"];
        ASSERT_EQ(streams.size(), 2u);
        EXPECT_EQ(streams[0]["codec_type"], "audio");
        EXPECT_EQ(streams[1]["nb_read_packets"], std::to_string(expected));
        const auto first = probeOut("-select_streams v -read_intervals %+#1 -show_entries packet=flags ")["packets"];
        ASSERT_FALSE(first.empty());
        EXPECT_EQ(first[0]["flags"].get<std::string>().substr(0, 1), "K");
        EXPECT_EQ(tsltest::fileMd5(src), md5);
    }
}

}  // namespace
