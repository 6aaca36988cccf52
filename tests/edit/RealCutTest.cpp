// Real cuts of the fixtures as a host makes them: the instance walks the file, the cut runs through the MP4
// writer, and the ffmpeg tools judge the output. The frame-exact cuts are decoded by ffmpeg and compared
// picture by picture with the source's own decode (longgop.mp4: 5 s groups, B-frame pyramids).
#include <gtest/gtest.h>

#include <fcntl.h>

#include <filesystem>
#include <set>
#include <thread>

#include "RealHost.h"
#include "platform/PlatformFile.h"
#include "support/ProbeIndex.h"

namespace {

using namespace tsltest;
using namespace std::chrono_literals;

// The pictures a range puts out, in decode order, from a key frame up to the first picture shown after the
// range's end. The original cut opens on the last key frame before the range's start; the synced one on the
// last at or before it, and leaves out what is shown before that key. Both open on the first one if none is.
std::vector<int64_t> cutPts(const ProbeIndex& truth, const EditRange& range, bool synced) {
    const auto& groups = truth.keyGroups;
    size_t g = 0;
    while (g + 1 < groups.size() && groups[g + 1].front().pts < range.start + (synced ? 1 : 0)) ++g;
    std::vector<int64_t> out;
    for (size_t i = g; i < groups.size(); ++i)
        for (const ProbeRecord& r : groups[i]) {
            if (r.pts > range.end) return out;
            if (!synced || r.pts >= groups[g].front().pts) out.push_back(r.pts);
        }
    return out;
}

// `shown` is the source's picture `own` within `least` dB, and nearer to it than to either neighbour.
void expectShows(const std::string& shown, const Decoded& source, size_t own, double least) {
    const double same = psnr(shown, source.pictures.at(own));
    EXPECT_GE(same, least) << "source pts " << source.pts[own];
    for (size_t j : {own - 1, own + 1}) EXPECT_GT(same, psnr(shown, source.pictures.at(j))) << source.pts[own];
}

// Ranges after the first end on a key frame or run to the end: one ending on a B-frame misses the 86 ms
// closing step, and ffmpeg then reports the next range's key frame as non-monotonic. That is the timeline
// as designed.
TEST(RealCut, IsDoneOnceAndTheOutputHoldsWhatTheIndexPredicts) {
    const struct { const char *source, *output; std::vector<EditRange> ranges; } cases[] = {
        {"main.mp4", "one.mp4", {{1000, 3000}}},
        {"main.mov", "one.mov", {{1500, 2500}}},
        {"main.mp4", "several.mov", {{300, 1000}, {2000, 3000}, {3100, 4000}}},
        {"main.mov", "several.mp4", {{0, 900}, {2000, 3000}, {4000, 4500}}},
        {"large.mp4", "large.mp4", {{0, 2900}}},                     // over the 20 MiB read buffer
        {"coarse.mp4", "coarse.mp4", {{500, 2500}, {3000, 6000}}}};  // tracks 3 s apart in the file
    const std::string dir = scratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.output);
        const std::string src = media(c.source), out = dir + "/" + c.output, md5 = fileMd5(src);
        const ProbeIndex truth = probeIndex(src);
        ASSERT_TRUE(truth.ok);
        size_t expected = 0;
        std::vector<EditOffset> offsets;  // one per range, exactly the range
        for (const auto& range : c.ranges) {
            expected += cutPts(truth, range, false).size();
            offsets.push_back({range.start, range.end});
        }
        RealHost host(src);
        ASSERT_EQ(host.cut(src, out, c.ranges, kCutKindMp4, offsets), kHostEventCutDone);
        EXPECT_EQ(host.events.events(), std::vector<int32_t>{kHostEventCutDone});
        ASSERT_EQ(host.report.size(), c.ranges.size());
        // The first range's base is its key frame; later ranges follow on, each as long as it was.
        const int64_t key = cutPts(truth, c.ranges[0], false).front();
        for (size_t i = 0; i < c.ranges.size(); ++i) {
            const auto [first, second] = host.report[i];
            EXPECT_EQ(second - first, c.ranges[i].end - c.ranges[i].start) << i;
            EXPECT_TRUE(i ? first > host.report[i - 1].second : first == c.ranges[0].start - key) << first;
        }
        EXPECT_EQ(decodeErrors(out), "");
        EXPECT_EQ(probe(out, "-show_entries stream=codec_type"), "audio\nvideo\n");
        EXPECT_EQ(probe(out, "-select_streams v -count_packets -show_entries stream=nb_read_packets"),
                  std::to_string(expected) + "\n");
        EXPECT_EQ(probe(out, "-select_streams v -read_intervals %+#1 -show_entries packet=flags").substr(0, 1), "K");
        EXPECT_EQ(fileMd5(src), md5);
    }
}

// Kind 1 cuts a file without audio into one video track holding exactly the pictures from each range's key
// frame (at or before its start) to its end; kind 0 refuses to place video alone (its audio track, with no
// sample rate, is refused before any thread starts).
TEST(RealCut, KindOneCutsVideoAloneIntoTheIndexsPicturesAndKindZeroRefusesIt) {
    const std::string src = media("noaudio.mp4"), out = scratchDir() + "/video.mp4";
    const std::vector<EditRange> ranges = {{1300, 2300}, {3000, 3700}};
    const ProbeIndex truth = probeIndex(src);
    std::vector<int64_t> shownPts;  // the source's pictures in the order shown
    for (const auto& group : truth.sortedGroupPts()) shownPts.insert(shownPts.end(), group.begin(), group.end());
    const Decoded source = decodePictures(src);
    ASSERT_EQ(source.pictures.size(), shownPts.size());
    std::vector<std::string> expected;
    for (const EditRange& range : ranges) {
        const std::vector<int64_t> kept = cutPts(truth, range, true);
        for (size_t i = 0; i < shownPts.size(); ++i)
            if (std::count(kept.begin(), kept.end(), shownPts[i])) expected.push_back(source.pictures[i]);
    }
    RealHost host(src);
    EXPECT_EQ(host.cut(src, out, ranges, kCutKindMp4), -1);
    EXPECT_FALSE(std::filesystem::exists(out));
    ASSERT_EQ(host.cut(src, out, ranges, kCutKindSynced), kHostEventCutDone);
    EXPECT_EQ(probe(out, "-show_entries stream=codec_type"), "video\n");
    EXPECT_EQ(decodePictures(out).pictures, expected);
    EXPECT_EQ(decodeErrors(out), "");
}

// A rewritten offset is the output time at which the source instant `first` is shown, as long as it was:
// the picture there is the source's picture of that time (copied by kind 1, made again within 40 dB by kind
// 2) and not its neighbour. The last pair of each row spans both ranges and stays as given.
TEST(CutOffsets, EachRewrittenOffsetIsWhereTheOutputShowsTheSourcePictureOfItsTime) {
    const struct {
        const char* source;
        int32_t kind;
        std::vector<EditRange> ranges;
        std::vector<EditOffset> offsets;
    } rows[] = {{"main.mp4", kCutKindSynced, {{1300, 2500}, {3420, 4600}},
                 {{1500, 1700}, {3420, 4000}, {4100, 4310}, {2490, 2500}, {2400, 3500}}},
                {"longgop.mp4", kCutKindExact, {{1300, 6290}, {7000, 7500}},  // inside made and copied pictures
                 {{1500, 1700}, {5020, 6000}, {7100, 7480}, {6000, 7200}}}};
    const std::string dir = scratchDir();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.source);
        const std::string src = media(row.source), out = dir + "/" + row.source;
        RealHost host(src);
        ASSERT_EQ(host.cut(src, out, row.ranges, row.kind, row.offsets), kHostEventCutDone);
        ASSERT_EQ(host.report.size(), row.offsets.size());
        const Decoded source = decodePictures(src), output = decodePictures(out);
        for (size_t i = 0; i < row.offsets.size(); ++i) {
            const auto [first, second] = row.offsets[i];
            SCOPED_TRACE(first);
            if (i + 1 == row.offsets.size()) {
                EXPECT_EQ(host.report[i].first, first);
                continue;
            }
            EXPECT_EQ(host.report[i].second - host.report[i].first, second - first);
            expectShows(output.pictures[shownAt(output.pts, host.report[i].first)], source, shownAt(source.pts, first),
                        row.kind == kCutKindSynced ? INFINITY : 40.0);
        }
    }
}

// A phone's portrait video stays portrait: the synced and frame-exact cuts' files carry the source's display
// rotation (the original cut's file stays as it always was).
TEST(RealCut, SyncedAndExactCutsTurnForDisplayAsTheSourceDoes) {
    const std::string src = media("rotated90.mp4"), dir = scratchDir();
    const std::string rotation = "-select_streams v:0 -show_entries stream_side_data=rotation";
    ASSERT_NE(probe(src, rotation), "");
    RealHost host(src);
    for (int32_t kind : {kCutKindSynced, kCutKindExact}) {
        const std::string out = dir + "/kind" + std::to_string(kind) + ".mp4";
        ASSERT_EQ(host.cut(src, out, {{300, 1500}}, kind), kHostEventCutDone);
        EXPECT_EQ(probe(out, rotation), probe(src, rotation)) << kind;
    }
}

// The source is opened for reading only, in both kinds: a file the user may read but not write is cut, and
// a missing one is not created. (Tests run as root in CI, where file permissions do not bind; the record of
// open(2) flags is what proves the mode.)
TEST(RealCut, TheSourceIsOpenedReadOnly) {
    static std::vector<std::pair<std::string, int>> opens;
    const std::string dir = scratchDir(), src = dir + "/readonly.mp4", missing = dir + "/missing.mp4";
    std::filesystem::copy_file(media("main.mp4"), src);
    std::filesystem::permissions(src, std::filesystem::perms::owner_read | std::filesystem::perms::group_read);
    RealHost host(src);
    setFileOpenHook([](const std::string& path, int flags) { opens.emplace_back(path, flags); });
    for (int32_t kind : {kCutKindMp4, kCutKindSynced})
        EXPECT_EQ(host.cut(src, dir + "/out.mp4", {{1000, 2000}}, kind), kHostEventCutDone) << kind;
    EXPECT_EQ(host.cut(missing, dir + "/out.mp4", {{1000, 2000}}, kCutKindSynced), -1);
    setFileOpenHook(nullptr);
    EXPECT_FALSE(std::filesystem::exists(missing));
    ASSERT_EQ(opens.size(), 3u);
    for (const auto& [path, flags] : opens) EXPECT_EQ(flags & (O_ACCMODE | O_CREAT | O_TRUNC), O_RDONLY) << path;
}

// A disk that fills in the middle of a cut (a file size limit past which writes fail) ends the job with its
// failure and no done, the cut thread gone, no output left and the source unchanged, in both kinds; an
// output that cannot even take its header is refused.
TEST(RealCut, AFullDiskFailsTheCutAndLeavesNoOutput) {
    const std::string src = media("main.mp4"), dir = scratchDir(), md5 = fileMd5(src);
    const size_t threads = threadCount();
    RealHost host(src);
    for (int32_t kind : {kCutKindMp4, kCutKindSynced}) {
        const std::string out = dir + "/out" + std::to_string(kind) + ".mp4";
        {
            FileSizeLimit limit(150000);
            EXPECT_EQ(host.cut(src, out, {{0, 4500}}, kind), kHostEventCutFailed) << kind;
        }
        EXPECT_EQ(host.events.count(kHostEventCutDone), 0u);
        // Down to the threads of before within 5 s: the walk's worker also ends on its own after its event.
        for (int i = 0; i < 500 && threadCount() != threads; ++i) std::this_thread::sleep_for(10ms);
        EXPECT_EQ(threadCount(), threads);
        EXPECT_FALSE(std::filesystem::exists(out));
    }
    std::filesystem::create_symlink("/dev/full", dir + "/full.mp4");
    EXPECT_EQ(host.cut(src, dir + "/full.mp4", {{0, 4500}}, kCutKindSynced), -1);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(dir + "/full.mp4")));
    EXPECT_EQ(fileMd5(src), md5);
}

// Key frames at 0, 5000 and 10000 ms. Ranges inside groups across a key frame; inside one group; from a key
// frame to the picture before the next one; across three groups.
TEST(ExactCut, EachRangeShowsExactlyItsSourcePicturesAndMakesOnlyWhatItMust) {
    const std::string src = media("longgop.mp4"), out = scratchDir() + "/exact.mp4";
    const std::vector<EditRange> ranges{{1300, 6290}, {7000, 7500}, {5000, 9960}, {2000, 11100}};
    RealHost host(src);
    ASSERT_EQ(host.cut(src, out, ranges, kCutKindExact), kHostEventCutDone);
    EXPECT_EQ(run("ffmpeg -nostdin -v warning -i " + shellQuote(out) + " -f null - 2>&1"), "");
    const Decoded source = decodePictures(src), output = decodePictures(out);
    const auto& counts = host.in.editor->lastExactJob();
    ASSERT_EQ(counts.size(), ranges.size());
    size_t k = 0, made = 0, differing = 0;  // k: the output picture that shows the next source picture in range
    for (size_t r = 0; r < ranges.size(); ++r) {
        SCOPED_TRACE("range " + std::to_string(r + 1));
        const auto [start, end] = ranges[r];
        const int64_t key = std::min<int64_t>(end + 1, (start + 4999) / 5000 * 5000);
        size_t inside = 0, beforeKey = 0;  // made for sure: the pictures before the range's first key frame
        for (size_t i = 0; i < source.pts.size(); ++i) {
            if (source.pts[i] < start || source.pts[i] > end) continue;
            ++inside;
            beforeKey += source.pts[i] < key;
            if (std::isinf(psnr(output.pictures.at(k++), source.pictures[i]))) continue;  // copied
            ++differing;
            expectShows(output.pictures[k - 1], source, i, 40.0);
        }
        EXPECT_EQ(counts[r].made + counts[r].copied, inside);
        EXPECT_GE(counts[r].made, beforeKey);
        made += counts[r].made;
    }
    EXPECT_EQ(k, output.pictures.size());
    EXPECT_EQ(counts[1].copied, 0u);
    EXPECT_EQ(counts[2].made, 0u);
    EXPECT_EQ(made, differing) << "what the library says it made is what differs from the source";
}

// What ffmpeg makes of each picture's fields, and of the stream's: made pictures as the source's.
TEST(ExactCut, AnInterlacedStreamsMadePicturesAreInterlacedInItsFieldOrder) {
    const std::string src = media("interlaced.mp4"), out = scratchDir() + "/exact.mp4";
    RealHost host(src);
    ASSERT_EQ(host.cut(src, out, {{500, 2500}}, kCutKindExact), kHostEventCutDone);
    ASSERT_GT(host.in.editor->lastExactJob().at(0).made, 0u);
    const auto fields = [](const std::string& file) {
        std::set<std::string> kinds;
        std::istringstream lines(
            probe(file, "-select_streams v:0 -show_entries frame=interlaced_frame,top_field_first"));
        for (std::string line; std::getline(lines, line);)
            if (line.size() > 1) kinds.insert(line.substr(0, 3));
        return std::make_pair(kinds, probe(file, "-select_streams v:0 -show_entries stream=field_order"));
    };
    const auto source = fields(src);
    EXPECT_EQ(source.second, "tt\n");
    EXPECT_EQ(fields(out), source);
}

// A file without audio, made whole: the video is all there is to stop. Stops come from just after the job
// starts to after it may have ended, so that some land while a picture is being made.
TEST(ExactCut, AStopAtAnyMomentOfTheMakingEndsTheJobWithoutAFailure) {
    const std::string src = media("noaudio.mp4"), out = scratchDir() + "/stopped.mp4";
    RealHost host(src);
    const EditRange range{100, 4900};
    for (int ms = 0; ms <= 120; ms += 6) {
        host.events.clear();
        ASSERT_TRUE(host.in.editor->cut(src.c_str(), out.c_str(), &range, 1, nullptr, 0, kCutKindExact));
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        host.in.editor->stopCut();
        host.in.editor->releaseCut();
        EXPECT_EQ(host.events.count(kHostEventCutFailed), 0u) << ms << " ms";
    }
}

// From the key frame at 5 s up to the next one at 10 s: the pictures and the sound of those 5 s.
TEST(ExactCut, ARangeFromAKeyFrameToACleanEndIsTheSyncedCutByteForByte) {
    const std::string src = media("longgop.mp4"), dir = scratchDir();
    RealHost host(src);
    ASSERT_EQ(host.cut(src, dir + "/kind1.mp4", {{5000, 9999}}, kCutKindSynced), kHostEventCutDone);
    ASSERT_EQ(host.cut(src, dir + "/kind2.mp4", {{5000, 9999}}, kCutKindExact), kHostEventCutDone);
    EXPECT_EQ(fileMd5(dir + "/kind2.mp4"), fileMd5(dir + "/kind1.mp4"));
}

}  // namespace
