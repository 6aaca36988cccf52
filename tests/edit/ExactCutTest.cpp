// Frame-exact cuts (kind 2). The plan is checked on made-up decoding orders where its rules show; real
// cuts of a file with 5 s groups and B-frame pyramids are decoded by ffmpeg and compared picture by
// picture with the source's own decode.
#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <set>
#include <thread>

#include "RealHost.h"
#include "edit/ExactPlan.h"

namespace {

using tsltest::shellQuote;

// An index of made-up groups: each record is {pts, dts}; the first of a group is its key frame.
struct MadeUpIndex {
    MadeUpIndex(std::initializer_list<std::initializer_list<std::pair<int64_t, int64_t>>> layout) {
        for (const auto& group : layout) {
            owned.emplace_back();
            for (const auto& [pts, dts] : group) {
                records.push_back(FrameRecord{uint8_t(owned.back().empty()), 100, pts, dts, 0});
                owned.back().push_back(&records.back());
            }
        }
        for (FrameGroup& group : owned) groups.push_back(&group);
    }
    std::deque<FrameRecord> records;
    std::deque<FrameGroup> owned;
    std::vector<FrameGroup*> groups;
};

const auto everyKeyIsIdr = [](size_t) { return true; };

// Two closed groups: I0 P3 B1 B2 P6 B4 B5, then I7 P10 B8 B9.
MadeUpIndex twoGroups() {
    return {{{0, -2}, {3, -1}, {1, 0}, {2, 1}, {6, 2}, {4, 3}, {5, 4}}, {{7, 5}, {10, 6}, {8, 7}, {9, 8}}};
}

TEST(ExactPlan, MakesTheHeadCopiesFromTheFirstIdrKeyInsideAndMakesTheTailPastTheLastCleanPoint) {
    const MadeUpIndex index = twoGroups();
    const ExactPlan plan = planExactRange(index.groups, {2, 8}, everyKeyIsIdr, 1);
    EXPECT_EQ(plan.head, (std::vector<int64_t>{2, 3, 4, 5, 6}));
    EXPECT_EQ(plan.headFrom, 0u);
    ASSERT_TRUE(plan.copies);
    EXPECT_EQ(plan.copyFrom, (IndexPlace{1, 0}));
    EXPECT_EQ(plan.copyEnd, (IndexPlace{1, 1}));  // P10 is shown past the end
    EXPECT_EQ(plan.tail, (std::vector<int64_t>{8}));
    EXPECT_EQ(plan.tailFrom, 1u);
    EXPECT_EQ(plan.lead, 2);
    EXPECT_EQ(plan.shownEnd, 9);
}

TEST(ExactPlan, CopiesARangeFromAKeyFrameToACleanEndWhole) {
    const MadeUpIndex index = twoGroups();
    const ExactPlan plan = planExactRange(index.groups, {0, 6}, everyKeyIsIdr, 1);
    EXPECT_TRUE(plan.head.empty());
    EXPECT_TRUE(plan.tail.empty());
    EXPECT_EQ(plan.copyEnd, (IndexPlace{1, 0}));
}

TEST(ExactPlan, GivesUpCopiedPicturesShownAfterOnesItMustMake) {
    // I0 P4, then P9 past the end, then B2 B1 B3 that P4 is shown after: copying P4 would put made
    // pictures on screen before a copied one.
    const MadeUpIndex index{{{0, -1}, {4, 0}, {9, 1}, {2, 2}, {1, 3}, {3, 4}}};
    const ExactPlan plan = planExactRange(index.groups, {0, 5}, everyKeyIsIdr, 1);
    EXPECT_EQ(plan.copyEnd, (IndexPlace{0, 1}));
    EXPECT_EQ(plan.tail, (std::vector<int64_t>{1, 2, 3, 4}));
}

TEST(ExactPlan, MakesWholeARangeWithoutAnIdrKeyInsideAndDecodesItFromTheLastIdrBefore) {
    const MadeUpIndex index = twoGroups();
    const ExactPlan plan = planExactRange(index.groups, {8, 9}, [](size_t g) { return g == 0; }, 1);
    EXPECT_FALSE(plan.copies);
    EXPECT_EQ(plan.head, (std::vector<int64_t>{8, 9}));
    EXPECT_EQ(plan.headFrom, 0u);
    EXPECT_FALSE(planExactRange(index.groups, {20, 30}, everyKeyIsIdr, 1).shows);
}

// The pictures of the first video stream as ffmpeg decodes them, 8-bit 4:2:0, in presentation order.
struct Decoded {
    std::vector<std::string> pictures;
    std::vector<int64_t> pts;  // ms
};

Decoded decode(const std::string& path) {
    Decoded d;
    const std::string q = shellQuote(path);
    const std::string size =
        tsltest::run("ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=p=0:s=x " + q);
    const int width = std::stoi(size), height = std::stoi(size.substr(size.find('x') + 1));
    const std::string raw = tsltest::run("ffmpeg -nostdin -v error -i " + q +
                                         " -map 0:v:0 -fps_mode passthrough -pix_fmt yuv420p -f rawvideo -");
    const size_t bytes = size_t(width) * height * 3 / 2;
    for (size_t at = 0; at + bytes <= raw.size(); at += bytes) d.pictures.push_back(raw.substr(at, bytes));
    std::istringstream times(
        tsltest::run("ffprobe -v error -select_streams v:0 -show_entries frame=pts_time -of csv=p=0 " + q));
    for (std::string t; std::getline(times, t);)
        if (!t.empty()) d.pts.push_back(std::llround(std::stod(t) * 1000));
    return d;
}

double psnr(const std::string& a, const std::string& b) {
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        const double diff = double(uint8_t(a[i])) - double(uint8_t(b[i]));
        sum += diff * diff;
    }
    return sum == 0 ? INFINITY : 10 * std::log10(255.0 * 255.0 * double(a.size()) / sum);
}

class ExactCut : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(host.index(src)); }
    std::string src = tsltest::media("longgop.mp4");
    std::string dir = tsltest::scratchDir();
    RealHost host;
};

TEST_F(ExactCut, EachRangeShowsExactlyItsSourcePicturesAndMakesOnlyWhatItMust) {
    // Key frames at 0, 5000 and 10000 ms. Inside groups across a key frame; inside one group; from a key
    // frame to the picture before the next one; across three groups.
    const std::vector<EditRange> ranges{{1300, 6290}, {7000, 7500}, {5000, 9960}, {2000, 11100}};
    const std::string out = dir + "/exact.mp4";
    ASSERT_EQ(host.cut(src, out, ranges, kCutKindExact), kHostEventCutDone);
    EXPECT_EQ(tsltest::run("ffmpeg -nostdin -v warning -i " + shellQuote(out) + " -f null - 2>&1"), "");

    const Decoded source = decode(src), output = decode(out);
    std::vector<size_t> expected;  // source picture of each output picture
    for (const EditRange& r : ranges)
        for (size_t i = 0; i < source.pts.size(); ++i)
            if (source.pts[i] >= r.start && source.pts[i] <= r.end) expected.push_back(i);
    ASSERT_EQ(output.pictures.size(), expected.size());
    size_t differing = 0;
    for (size_t k = 0; k < expected.size(); ++k) {
        const size_t i = expected[k];
        const double own = psnr(output.pictures[k], source.pictures[i]);
        if (std::isinf(own)) continue;  // copied
        ++differing;
        EXPECT_GE(own, 40.0) << "output picture " << k << ", source pts " << source.pts[i];
        for (size_t j : {i - 1, i + 1}) {
            if (j < source.pictures.size()) {
                EXPECT_GT(own, psnr(output.pictures[k], source.pictures[j])) << "output picture " << k;
            }
        }
    }

    const auto& counts = host.in.editor->lastExactJob();
    ASSERT_EQ(counts.size(), ranges.size());
    size_t made = 0;
    for (size_t r = 0; r < ranges.size(); ++r) {
        size_t inside = 0, beforeKey = 0;
        for (const int64_t pts : source.pts) {
            inside += pts >= ranges[r].start && pts <= ranges[r].end;
            // Made for sure: the pictures before the range's first key frame.
            beforeKey += pts >= ranges[r].start && pts < std::min<int64_t>(ranges[r].end + 1, (ranges[r].start + 4999) / 5000 * 5000);
        }
        EXPECT_EQ(counts[r].made + counts[r].copied, inside) << "range " << r + 1;
        EXPECT_GE(counts[r].made, beforeKey) << "range " << r + 1;
        made += counts[r].made;
    }
    EXPECT_EQ(counts[1].copied, 0u);
    EXPECT_EQ(counts[2].made, 0u);
    // What the library says it made is what differs from the source.
    EXPECT_EQ(made, differing);
}

// The index of the picture shown at `ms`: the last one that starts at or before it.
size_t shownAt(const Decoded& d, int64_t ms) {
    size_t at = 0;
    for (size_t i = 0; i < d.pts.size(); ++i)
        if (d.pts[i] <= ms) at = i;
    return at;
}

TEST_F(ExactCut, EachRewrittenOffsetIsWhereTheOutputShowsTheSourcePictureOfItsTime) {
    const std::vector<EditRange> ranges{{1300, 6290}, {7000, 7500}};
    // Inside made and copied pictures, and one pair across both ranges, which stays as given.
    const std::vector<EditOffset> offsets{{1500, 1700}, {5020, 6000}, {7100, 7480}, {6000, 7200}};
    const std::string out = dir + "/offsets.mp4";
    ASSERT_EQ(host.cut(src, out, ranges, kCutKindExact, offsets), kHostEventCutDone);
    ASSERT_EQ(host.report.size(), offsets.size());
    EXPECT_EQ(host.report[3].first, offsets[3].first);
    const Decoded source = decode(src), output = decode(out);
    for (size_t i : {0, 1, 2}) {
        SCOPED_TRACE(offsets[i].first);
        EXPECT_EQ(host.report[i].second - host.report[i].first, offsets[i].second - offsets[i].first);
        const std::string& shown = output.pictures[shownAt(output, host.report[i].first)];
        const size_t own = shownAt(source, offsets[i].first);
        EXPECT_GE(psnr(shown, source.pictures[own]), 40.0);
        EXPECT_GT(psnr(shown, source.pictures[own]), psnr(shown, source.pictures[own + 1]));
        EXPECT_GT(psnr(shown, source.pictures[own]), psnr(shown, source.pictures[own - 1]));
    }
}

TEST(ExactCutLook, AnInterlacedStreamsMadePicturesAreInterlacedInItsFieldOrder) {
    const std::string src = tsltest::media("interlaced.mp4"), out = tsltest::scratchDir() + "/exact.mp4";
    RealHost host;
    ASSERT_TRUE(host.index(src));
    ASSERT_EQ(host.cut(src, out, {{500, 2500}}, kCutKindExact), kHostEventCutDone);
    ASSERT_GT(host.in.editor->lastExactJob().at(0).made, 0u);
    // What ffmpeg makes of each picture's fields, and of the stream's: made pictures as the source's.
    const auto fields = [](const std::string& file) {
        const std::string probe = "ffprobe -v error -select_streams v:0 -of csv=p=0 -show_entries ";
        std::set<std::string> kinds;
        std::istringstream lines(tsltest::run(probe + "frame=interlaced_frame,top_field_first " + file));
        for (std::string line; std::getline(lines, line);)
            if (line.size() > 1) kinds.insert(line.substr(0, 3));
        return std::make_pair(kinds, tsltest::run(probe + "stream=field_order " + file));
    };
    const auto source = fields(src), output = fields(out);
    EXPECT_EQ(source.second, "tt\n");
    EXPECT_EQ(output, source);
}

TEST(ExactCutStop, AStopAtAnyMomentOfTheMakingEndsTheJobWithoutAFailure) {
    // A file without audio, made whole: the video is all there is to stop. Stops come from just after
    // the job starts to after it may have ended, so that some land while a picture is being made.
    const std::string src = tsltest::media("noaudio.mp4"), out = tsltest::scratchDir() + "/stopped.mp4";
    RealHost host;
    ASSERT_TRUE(host.index(src));
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

TEST_F(ExactCut, ARangeFromAKeyFrameToACleanEndIsTheSyncedCutByteForByte) {
    // From the key frame at 5 s up to the next one at 10 s: the pictures and the sound of those 5 s.
    const std::vector<EditRange> ranges{{5000, 9999}};
    ASSERT_EQ(host.cut(src, dir + "/kind1.mp4", ranges, kCutKindSynced), kHostEventCutDone);
    ASSERT_EQ(host.cut(src, dir + "/kind2.mp4", ranges, kCutKindExact), kHostEventCutDone);
    EXPECT_EQ(tsltest::fileMd5(dir + "/kind2.mp4"), tsltest::fileMd5(dir + "/kind1.mp4"));
}

}  // namespace
