// Sync as a player sees it. The sync fixtures flash white and start a 1 kHz beep at every whole second; ten
// ranges of each are cut with kinds 1 and 2, the outputs decoded by the ffmpeg tools, and each beep's onset
// measured against its flash: every beep within 5 ms of its flash, and the ranges joined cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include "RealHost.h"
#include "support/ProbeIndex.h"

namespace {

using tsltest::probe;
using tsltest::shellQuote;

// ffprobe's comma-separated values as numbers; packet flags read 1 for a key packet ("K_"), else 0.
std::vector<std::vector<double>> csv(const std::string& text) {
    std::vector<std::vector<double>> rows;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::vector<double> row;
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, ',');)
            row.push_back(cell.empty() || cell[0] == '_' ? 0 : cell[0] == 'K' ? 1 : std::stod(cell));
        if (!row.empty()) rows.push_back(row);
    }
    return rows;
}

double sampleRate(const std::string& path) {
    return std::stod(probe(path, "-select_streams a:0 -show_entries stream=sample_rate"));
}

// Pictures whose mean brightness is that of the white flash, and the first loud millisecond of each beep
// after at least 20 ms without (the coding's pre-echo before an onset stays below it), on the timeline of
// the decoded file: {flashes, beeps}, in seconds.
std::pair<std::vector<double>, std::vector<double>> measure(const std::string& path) {
    std::vector<double> flashes, beeps;
    const std::string brightness = "-show_entries frame=pts_time:frame_tags=lavfi.signalstats.YAVG -f lavfi";
    for (const auto& f : csv(probe("movie='" + path + "',signalstats", brightness)))
        if (f.size() == 2 && f[1] > 128) flashes.push_back(f[0]);
    const double rate = sampleRate(path);
    const std::string raw = tsltest::run("ffmpeg -v error -i " + shellQuote(path) + " -map 0:a:0 -ac 1 -f s16le -");
    const auto* samples = reinterpret_cast<const int16_t*>(raw.data());
    const size_t total = raw.size() / 2, window = size_t(rate) / 1000;
    size_t at = 0, quiet = 0;
    for (const auto& f : csv(probe(path, "-select_streams a:0 -show_entries frame=pts_time,nb_samples"))) {
        for (size_t i = 0; i + window <= size_t(f[1]) && at + i + window <= total; i += window) {
            int peak = 0;
            for (size_t k = 0; k < window; ++k) peak = std::max(peak, std::abs(int(samples[at + i + k])));
            if (peak > 8000 && quiet >= 20) beeps.push_back(f[0] + double(i) / rate);
            quiet = peak <= 8000 ? quiet + 1 : 0;
        }
        at += size_t(f[1]);
    }
    return {flashes, beeps};
}

// What a player would trip over at the joins: a key frame shown before a picture decoded ahead of it, or
// a gap of a whole frame or more in either track (stream 0 audio, 1 video).
void expectCleanJoins(const std::string& path, double audioFrame, double videoFrame) {
    std::vector<double> shownAt[2];
    double latest = -1e9;  // the latest picture shown so far
    for (const auto& p : csv(probe(path, "-show_entries packet=stream_index,pts_time,flags"))) {
        const int stream = int(p[0]);
        EXPECT_FALSE(stream == 1 && p[2] == 1 && p[1] <= latest) << "key frame at " << p[1] << " shown early";
        if (stream == 1) latest = std::max(latest, p[1]);
        shownAt[stream].push_back(p[1]);
    }
    for (int stream : {0, 1}) {
        std::sort(shownAt[stream].begin(), shownAt[stream].end());
        const double frame = stream ? videoFrame : audioFrame;
        for (size_t i = 1; i < shownAt[stream].size(); ++i)
            EXPECT_LT(shownAt[stream][i] - shownAt[stream][i - 1], 2 * frame + 0.0015)
                << "stream " << stream << " has a gap at " << shownAt[stream][i];
    }
}

class SyncCut : public ::testing::TestWithParam<int> {};  // frames a second

TEST_P(SyncCut, EveryBeepStaysWithItsFlashAcrossTenJoins) {
    const std::string src = tsltest::media("sync" + std::to_string(GetParam()) + ".mp4"), dir = tsltest::scratchDir();
    const tsltest::ProbeIndex truth = tsltest::probeIndex(src);
    ASSERT_TRUE(truth.ok);
    const std::vector<int64_t> keys = truth.keyPts();
    std::vector<int64_t> bFrames;  // shown before a picture decoded ahead of them
    int64_t highest = INT64_MIN;
    for (const auto& group : truth.keyGroups)
        for (const auto& r : group) {
            if (r.pts < highest) bFrames.push_back(r.pts);
            highest = std::max(highest, r.pts);
        }
    std::sort(bFrames.begin(), bFrames.end());
    // Range r holds second r + 1: it starts 310 ms before it, inside a group, and ends on the first B-frame
    // 250 ms or more after it. It shows every whole second from its key frame on; a beep right at a range's
    // opening falls into the first audio frame, which decodes without the frame before it, and is not heard.
    std::vector<EditRange> ranges;
    std::vector<bool> heard;  // by flash the output shows, in order
    for (int64_t second = 1000; second <= 10000; second += 1000) {
        const int64_t start = second - 310, end = *std::lower_bound(bFrames.begin(), bFrames.end(), second + 250);
        ASSERT_EQ(std::count(keys.begin(), keys.end(), start), 0);
        ranges.push_back({start, end});
        const int64_t key = *(std::upper_bound(keys.begin(), keys.end(), start) - 1);
        for (int64_t s = (key + 999) / 1000 * 1000; s <= second; s += 1000) heard.push_back(s >= key + 50);
    }

    RealHost host;
    ASSERT_TRUE(host.index(src));
    for (int32_t kind : {kCutKindSynced, kCutKindExact}) {
        SCOPED_TRACE(kind);
        const std::string out = dir + "/kind" + std::to_string(kind) + ".mp4";
        ASSERT_EQ(host.cut(src, out, ranges, kind), kHostEventCutDone);
        // The frame-exact cut shows each range from its start: the one whole second inside it, well after the
        // opening.
        const bool exact = kind == kCutKindExact;
        const auto [flashes, beeps] = measure(out);
        EXPECT_EQ(flashes.size(), exact ? ranges.size() : heard.size());
        for (size_t i = 0; i < flashes.size() && (exact || i < heard.size()); ++i) {
            if (!exact && !heard[i]) continue;
            double off = INFINITY;  // ms from the flash to the nearest beep
            for (double beep : beeps) off = std::min(off, std::abs(beep - flashes[i]) * 1000);
            EXPECT_LE(off, 5.0) << "flash " << i << " at " << flashes[i] << " s";
        }
        EXPECT_EQ(tsltest::run("ffmpeg -nostdin -v warning -i " + shellQuote(out) + " -f null - 2>&1"), "");
        expectCleanJoins(out, 1024 / sampleRate(src), 1.0 / GetParam());
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, SyncCut, ::testing::Values(24, 25, 30));

}  // namespace
