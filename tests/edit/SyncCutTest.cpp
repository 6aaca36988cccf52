// Sync as a player sees it. The sync fixtures flash white and start a 1 kHz beep at every whole second; ten
// ranges of each are cut with every kind, the outputs decoded by the ffmpeg tools, and each beep's onset
// measured against its flash. Kinds 1 and 2 must keep every beep within 5 ms of its flash and join their
// ranges cleanly; kind 0's figures are printed beside them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "RealHost.h"
#include "support/ProbeIndex.h"

namespace {

using tsltest::shellQuote;

struct Shown {
    std::vector<double> flashes;  // seconds
    std::vector<double> beeps;    // onsets, seconds
};

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

std::string probe(const std::string& path, const std::string& what) {
    return tsltest::run("ffprobe -v error " + what + " -of csv=p=0 " + shellQuote(path));
}

double sampleRate(const std::string& path) {
    return std::stod(probe(path, "-select_streams a:0 -show_entries stream=sample_rate"));
}

// Pictures whose mean brightness is that of the white flash, and the first loud millisecond of each beep
// after at least 20 ms without (the coding's pre-echo before an onset stays below it), on the timeline of
// the decoded file.
Shown measure(const std::string& path) {
    Shown shown;
    const std::string brightness = "-show_entries frame=pts_time:frame_tags=lavfi.signalstats.YAVG -f lavfi";
    for (const auto& f : csv(probe("movie='" + path + "',signalstats", brightness)))
        if (f.size() == 2 && f[1] > 128) shown.flashes.push_back(f[0]);
    const double rate = sampleRate(path);
    const auto frames = csv(probe(path, "-select_streams a:0 -show_entries frame=pts_time,nb_samples"));
    const std::string raw = tsltest::run("ffmpeg -v error -i " + shellQuote(path) + " -map 0:a:0 -ac 1 -f s16le -");
    const auto* samples = reinterpret_cast<const int16_t*>(raw.data());
    const size_t total = raw.size() / 2, window = size_t(rate) / 1000;
    size_t at = 0, quiet = 0;
    for (const auto& f : frames) {
        for (size_t i = 0; i + window <= size_t(f[1]) && at + i + window <= total; i += window) {
            int peak = 0;
            for (size_t k = 0; k < window; ++k) peak = std::max(peak, std::abs(int(samples[at + i + k])));
            if (peak > 8000 && quiet >= 20) shown.beeps.push_back(f[0] + double(i) / rate);
            quiet = peak <= 8000 ? quiet + 1 : 0;
        }
        at += size_t(f[1]);
    }
    return shown;
}

struct Output {
    std::vector<double> judged;  // beep less flash, ms, per judged flash in order; NAN where no flash was found
    bool flashesAsPredicted = false;
};

// `seconds[r]`: the whole seconds range r shows, in order; `judge[r][i]`: whether a beep can be heard there
// (a beep right at a range's opening falls into the first audio frame, which decodes without the frame
// before it).
Output judge(const Shown& shown, const std::vector<std::vector<bool>>& judge) {
    Output out;
    size_t flash = 0, predicted = 0;
    for (const auto& range : judge) predicted += range.size();
    out.flashesAsPredicted = shown.flashes.size() == predicted;
    for (const auto& range : judge)
        for (const bool heard : range) {
            if (!heard) {
                ++flash;
                continue;
            }
            double diff = NAN;
            if (flash < shown.flashes.size() && !shown.beeps.empty()) {
                const double t = shown.flashes[flash];
                const double beep = *std::min_element(shown.beeps.begin(), shown.beeps.end(),
                                                      [t](double a, double b) { return std::abs(a - t) < std::abs(b - t); });
                diff = (beep - t) * 1000;
            }
            out.judged.push_back(diff);
            ++flash;
        }
    return out;
}

// What a player would trip over at the joins: a key frame shown before a picture decoded ahead of it, or
// a gap of a whole frame or more in either track.
std::string joinFaults(const std::string& path, double videoFrame, double audioFrame) {
    std::string faults;
    std::vector<double> shownAt[2];
    double latest = -1e9;
    for (const auto& p : csv(probe(path, "-show_entries packet=stream_index,pts_time,flags"))) {
        const int stream = int(p[0]);
        if (stream == 1 && p[2] == 1 && p[1] <= latest) faults += "key frame at " + std::to_string(p[1]) + " shown early; ";
        if (stream == 1) latest = std::max(latest, p[1]);
        shownAt[stream].push_back(p[1]);
    }
    for (int stream : {0, 1}) {
        std::sort(shownAt[stream].begin(), shownAt[stream].end());
        const double frame = stream ? videoFrame : audioFrame;
        for (size_t i = 1; i < shownAt[stream].size(); ++i)
            if (shownAt[stream][i] - shownAt[stream][i - 1] >= 2 * frame + 0.0015)
                faults += std::string(stream ? "video" : "audio") + " gap at " + std::to_string(shownAt[stream][i]) + "; ";
    }
    return faults;
}

class SyncCut : public ::testing::TestWithParam<std::tuple<const char*, int>> {};

TEST_P(SyncCut, EveryBeepStaysWithItsFlashAcrossTenJoins) {
    const auto [name, fps] = GetParam();
    const std::string src = tsltest::media(name), dir = tsltest::scratchDir();
    const tsltest::ProbeIndex probe = tsltest::probeIndex(src);
    ASSERT_TRUE(probe.ok);
    const std::vector<int64_t> keys = probe.keyPts();
    // B-frames: shown before a picture decoded ahead of them.
    std::vector<int64_t> bFrames;
    int64_t highest = INT64_MIN;
    for (const auto& group : probe.keyGroups)
        for (const auto& r : group) {
            if (r.pts < highest) bFrames.push_back(r.pts);
            highest = std::max(highest, r.pts);
        }
    std::sort(bFrames.begin(), bFrames.end());
    // Range r holds second r + 1: it starts 310 ms before it, inside a group, and ends on the first B-frame
    // 250 ms or more after it. It shows every whole second from its key frame on.
    std::vector<EditRange> ranges;
    std::vector<std::vector<bool>> heard;
    for (int64_t second = 1000; second <= 10000; second += 1000) {
        const int64_t start = second - 310, end = *std::lower_bound(bFrames.begin(), bFrames.end(), second + 250);
        ASSERT_EQ(std::count(keys.begin(), keys.end(), start), 0);
        ranges.push_back({start, end});
        const int64_t key = *(std::upper_bound(keys.begin(), keys.end(), start) - 1);
        heard.emplace_back();
        for (int64_t s = (key + 999) / 1000 * 1000; s <= second; s += 1000) heard.back().push_back(s >= key + 50);
    }

    // The frame-exact cut shows each range from its start: the one whole second inside it, well after the
    // opening.
    const std::vector<std::vector<bool>> heardExact(ranges.size(), std::vector<bool>{true});

    RealHost host;
    ASSERT_TRUE(host.index(src));
    Output outputs[3];
    for (int32_t kind : {0, 1, 2}) {
        const std::string out = dir + "/kind" + std::to_string(kind) + ".mp4";
        ASSERT_EQ(host.cut(src, out, ranges, kind), kHostEventCutDone) << kind;
        outputs[kind] = judge(measure(out), kind == 2 ? heardExact : heard);
        if (kind == 0) continue;
        EXPECT_TRUE(outputs[kind].flashesAsPredicted) << kind;
        EXPECT_EQ(tsltest::run("ffmpeg -nostdin -v warning -i " + shellQuote(out) + " -f null - 2>&1"), "") << kind;
        EXPECT_EQ(joinFaults(out, 1.0 / fps, 1024 / sampleRate(src)), "") << kind;
    }
    std::printf("%s: beep less flash, ms      kind 0   kind 1   kind 2\n", name);
    for (size_t r = 0, j = 0; r < heard.size(); ++r)
        for (size_t s = 0; s < heard[r].size(); ++s) {
            if (!heard[r][s]) continue;
            // Kind 2's one judged second per range is the range's last whole second.
            const double exact = s + 1 == heard[r].size() ? outputs[2].judged[r] : NAN;
            std::printf("  range %2zu (%5lld-%5lld ms)  %8.1f %8.1f %8.1f\n", r + 1,
                        static_cast<long long>(ranges[r].start), static_cast<long long>(ranges[r].end),
                        outputs[0].judged[j], outputs[1].judged[j], exact);
            EXPECT_LE(std::abs(outputs[1].judged[j]), 5.0) << "range " << r + 1;  // NAN fails too
            ++j;
        }
    for (size_t r = 0; r < ranges.size(); ++r) EXPECT_LE(std::abs(outputs[2].judged[r]), 5.0) << "kind 2, range " << r + 1;
}

INSTANTIATE_TEST_SUITE_P(Fixtures, SyncCut,
                         ::testing::Values(std::make_tuple("sync24.mp4", 24), std::make_tuple("sync25.mp4", 25),
                                           std::make_tuple("sync30.mp4", 30)));

}  // namespace
