// Real cuts of the fixtures as a host makes them: the instance walks the file,
// the cut runs through the MP4 writer, and the ffmpeg tools judge the output.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <fcntl.h>

#include <filesystem>
#include <sstream>
#include <thread>

#include "RealHost.h"
#include "platform/PlatformFile.h"
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

// Each decoded picture of a file's first video stream: its time in ms and its MD5, in the order shown.
std::vector<std::pair<int64_t, std::string>> pictures(const std::string& path) {
    std::istringstream times(tsltest::run("ffprobe -v error -select_streams v:0 -show_entries frame=pts_time "
                                          "-of csv=p=0 " + tsltest::shellQuote(path)));
    const std::vector<std::string> md5s = tsltest::ffmpegFrameMd5(path, false);
    std::vector<std::pair<int64_t, std::string>> out;
    for (std::string line; std::getline(times, line) && out.size() < md5s.size();)
        if (!line.empty() && line != ",")  // a frame's side data adds a line of its own
            out.emplace_back(std::llround(std::stod(line) * 1000), md5s[out.size()]);
    return out;
}

// The picture shown at `ms`: the last one that starts at or before it.
std::string shownAt(const std::vector<std::pair<int64_t, std::string>>& shown, int64_t ms) {
    std::string md5;
    for (const auto& [at, picture] : shown)
        if (at <= ms) md5 = picture;
    return md5;
}

// Kind 1 cuts a file without audio into one video track holding exactly the pictures from each range's key
// frame (at or before its start) to its end; kind 0 refuses to place video alone (its audio track, with no
// sample rate, is refused before any thread starts).
TEST(RealCut, KindOneCutsVideoAloneIntoTheIndexsPictures) {
    const std::string src = tsltest::media("noaudio.mp4"), out = tsltest::scratchDir() + "/video.mp4";
    const std::vector<EditRange> ranges = {{1300, 2300}, {3000, 3700}};
    const tsltest::ProbeIndex probe = tsltest::probeIndex(src);
    std::vector<int64_t> shownPts;  // the source's pictures in the order shown
    for (const auto& group : probe.sortedGroupPts()) shownPts.insert(shownPts.end(), group.begin(), group.end());
    const auto source = pictures(src);
    ASSERT_EQ(source.size(), shownPts.size());
    std::vector<std::string> expected;
    for (const EditRange& range : ranges) {
        const auto& groups = probe.keyGroups;
        size_t g = 0;
        while (g + 1 < groups.size() && groups[g + 1].front().pts <= range.start) ++g;
        std::vector<int64_t> kept;
        for (size_t i = g, stop = 0; i < groups.size() && !stop; ++i)
            for (const auto& r : groups[i])
                if ((stop = r.pts > range.end)) break;
                else if (r.pts >= groups[g].front().pts) kept.push_back(r.pts);
        std::sort(kept.begin(), kept.end());
        for (int64_t pts : kept)
            expected.push_back(source[size_t(std::find(shownPts.begin(), shownPts.end(), pts) - shownPts.begin())].second);
    }
    RealHost host;
    ASSERT_TRUE(host.index(src));
    EXPECT_EQ(host.cut(src, out, ranges, kCutKindMp4), -1);
    EXPECT_FALSE(std::filesystem::exists(out));
    ASSERT_EQ(host.cut(src, out, ranges, kCutKindSynced), kHostEventCutDone);
    EXPECT_EQ(tsltest::run("ffprobe -v error -show_entries stream=codec_type -of csv=p=0 " + tsltest::shellQuote(out)),
              "video\n");
    std::vector<std::string> got;
    for (const auto& [at, md5] : pictures(out)) got.push_back(md5);
    EXPECT_EQ(got, expected);
    EXPECT_EQ(tsltest::decodeErrors(out), "");
}

// Kind 1 rewrites an offset that one range holds to the output time at which that source instant is shown:
// the picture there is the source's picture at `first`.
TEST(RealCut, KindOneOffsetsPointAtTheSamePicture) {
    const std::string src = tsltest::media("main.mp4"), out = tsltest::scratchDir() + "/out.mp4";
    const std::vector<EditRange> ranges = {{1300, 2500}, {3420, 4600}};
    const std::vector<EditOffset> offsets = {{1500, 1700}, {3420, 4000}, {2400, 3500}, {4100, 4310}, {2490, 2500}};
    RealHost host;
    ASSERT_TRUE(host.index(src));
    ASSERT_EQ(host.cut(src, out, ranges, kCutKindSynced, offsets), kHostEventCutDone);
    ASSERT_EQ(host.report.size(), offsets.size());
    EXPECT_EQ(host.report[2].first, offsets[2].first);  // straddles both ranges: left as given
    const auto source = pictures(src), output = pictures(out);
    for (size_t i : {0, 1, 3, 4}) {
        SCOPED_TRACE(offsets[i].first);
        EXPECT_EQ(host.report[i].second - host.report[i].first, offsets[i].second - offsets[i].first);
        EXPECT_FALSE(shownAt(source, offsets[i].first).empty());
        EXPECT_EQ(shownAt(output, host.report[i].first), shownAt(source, offsets[i].first));
    }
}

// A phone's portrait video stays portrait: the synced and frame-exact cuts' files carry the source's display
// rotation (the original cut's file stays as it always was).
TEST(RealCut, SyncedAndExactCutsTurnForDisplayAsTheSourceDoes) {
    const std::string src = tsltest::media("rotated90.mp4"), dir = tsltest::scratchDir();
    const auto rotation = [](const std::string& file) {
        return tsltest::run("ffprobe -v error -select_streams v:0 -show_entries stream_side_data=rotation -of csv=p=0 " +
                            tsltest::shellQuote(file));
    };
    ASSERT_NE(rotation(src), "");
    RealHost host;
    ASSERT_TRUE(host.index(src));
    for (int32_t kind : {kCutKindSynced, kCutKindExact}) {
        const std::string out = dir + "/kind" + std::to_string(kind) + ".mp4";
        ASSERT_EQ(host.cut(src, out, {{300, 1500}}, kind), kHostEventCutDone);
        EXPECT_EQ(rotation(out), rotation(src)) << kind;
    }
}

// The source is opened for reading only, in both kinds: a file the user may read but not write is cut,
// and a missing one is not created. (Tests run as root in CI, where file permissions do not bind; the
// record of open(2) flags is what proves the mode. The program's tests cut from a read-only mount too.)
TEST(RealCut, TheSourceIsOpenedReadOnly) {
    static std::vector<std::pair<std::string, int>> opens;
    const std::string dir = tsltest::scratchDir(), src = dir + "/readonly.mp4", missing = dir + "/missing.mp4";
    std::filesystem::copy_file(tsltest::media("main.mp4"), src);
    std::filesystem::permissions(src, std::filesystem::perms::owner_read | std::filesystem::perms::group_read);
    RealHost host;
    ASSERT_TRUE(host.index(src));
    setFileOpenHook([](const std::string& path, int flags) { opens.emplace_back(path, flags); });
    for (int32_t kind : {kCutKindMp4, kCutKindSynced})
        EXPECT_EQ(host.cut(src, dir + "/out.mp4", {{1000, 2000}}, kind), kHostEventCutDone) << kind;
    EXPECT_EQ(host.cut(missing, dir + "/out.mp4", {{1000, 2000}}, kCutKindSynced), -1);
    setFileOpenHook(nullptr);
    EXPECT_FALSE(std::filesystem::exists(missing));
    ASSERT_EQ(opens.size(), 3u);
    for (const auto& [path, flags] : opens) EXPECT_EQ(flags & (O_ACCMODE | O_CREAT | O_TRUNC), O_RDONLY) << path;
}

// A disk that fills in the middle of a cut (a file size limit past which writes fail) ends the job with
// its failure and no done, the cut thread gone, no output left and the source unchanged, in both kinds; an
// output that cannot even take its header is refused.
TEST(RealCut, AFullDiskFailsTheCutAndLeavesNoOutput) {
    const std::string src = tsltest::media("main.mp4"), dir = tsltest::scratchDir(), md5 = tsltest::fileMd5(src);
    const size_t threads = tsltest::threadCount();
    // Down to the threads of before, within a while: the walk's worker ends on its own after its event.
    const auto threadsBack = [threads] {
        for (int i = 0; i < 500 && tsltest::threadCount() != threads; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return tsltest::threadCount() == threads;
    };
    RealHost host;
    ASSERT_TRUE(host.index(src));
    for (int32_t kind : {kCutKindMp4, kCutKindSynced}) {
        const std::string out = dir + "/out" + std::to_string(kind) + ".mp4";
        {
            tsltest::FileSizeLimit limit(150000);
            EXPECT_EQ(host.cut(src, out, {{0, 4500}}, kind), kHostEventCutFailed) << kind;
        }
        EXPECT_EQ(host.events.count(kHostEventCutDone), 0u);
        EXPECT_TRUE(threadsBack());
        EXPECT_FALSE(std::filesystem::exists(out));
    }
    std::filesystem::create_symlink("/dev/full", dir + "/full.mp4");
    EXPECT_EQ(host.cut(src, dir + "/full.mp4", {{0, 4500}}, kCutKindSynced), -1);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(dir + "/full.mp4")));
    EXPECT_EQ(tsltest::fileMd5(src), md5);
}

}  // namespace
