// Cuts through the exports against ffmpeg's stream copy of the same stretches.
// The clip is indexed once (TSL_StartPic to kHostEventIndexReady); then, in
// alternation after one warm-up of each:
//   cut_one:  one 300-second range (100 s to 400 s) into one file, from
//             TSL_CutFile to kHostEventCutDone, against
//             `ffmpeg -ss 100 -to 400 -i CLIP -c copy`;
//   cut_five: five 30-second ranges into one file, against ffmpeg cutting the
//             five segments with -c copy and joining them with the concat demuxer;
//   the same two cuts with cut kind 1 (synced), against kind 0.
// The peak resident memory of a cut is measured in a child process that only
// indexes the clip and makes the one-range cut (ru_maxrss from wait4).
// Usage: cut_bench [CLIP] [RUNS]   (CLIP defaults to /tmp/benchclip/long.mp4,
// made by bench/make_long_clip.sh)
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "tessalo.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

struct Events {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int32_t> seen;

    // Waits for the first of `wanted` seen after `from` events; -1 after 10 minutes.
    int32_t waitAny(size_t from, const std::vector<int32_t>& wanted) {
        std::unique_lock<std::mutex> lock(mutex);
        int32_t found = -1;
        changed.wait_for(lock, std::chrono::minutes(10), [&] {
            for (size_t i = from; i < seen.size(); ++i)
                if (std::find(wanted.begin(), wanted.end(), seen[i]) != wanted.end()) {
                    found = seen[i];
                    return true;
                }
            return false;
        });
        return found;
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.size();
    }
};

int32_t onHostEvent(void* user, int32_t event) {
    auto* events = static_cast<Events*>(user);
    std::lock_guard<std::mutex> lock(events->mutex);
    events->seen.push_back(event);
    events->changed.notify_all();
    return 0;
}

bool indexClip(void* handle, Events& events, const std::string& clip) {
    const size_t from = events.count();
    if (!TSL_StartPic(handle, clip.c_str())) return false;
    const int32_t outcome = events.waitAny(
        from, {kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec,
               kHostEventBadSampleRate, kHostEventBadChannels, kHostEventNoVideo});
    return outcome == kHostEventIndexReady;
}

// Seconds from TSL_CutFile to kHostEventCutDone; negative on failure.
double cutOnce(void* handle, Events& events, const std::string& clip, const std::string& out,
               const std::vector<EditRange>& ranges, int32_t kind = kCutKindMp4) {
    const size_t from = events.count();
    const auto start = Clock::now();
    if (!TSL_CutFile(handle, clip.c_str(), out.c_str(), ranges.data(), int32_t(ranges.size()), nullptr, 0, kind))
        return -1;
    const int32_t outcome = events.waitAny(from, {kHostEventCutDone, kHostEventCutFailed});
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    TSL_CancelFile(handle);  // joins the cut thread that has ended
    return outcome == kHostEventCutDone ? seconds : -1;
}

double timeCommand(const std::string& command) {
    const auto start = Clock::now();
    if (std::system(command.c_str()) != 0) return -1;
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string seconds(int64_t ms) { return std::to_string(ms / 1000) + "." + std::to_string(ms % 1000 / 100); }

double ffmpegOne(const std::string& clip, const std::string& out, const EditRange& range) {
    return timeCommand("ffmpeg -nostdin -v error -y -ss " + seconds(range.start) + " -to " + seconds(range.end) +
                       " -i '" + clip + "' -c copy '" + out + "'");
}

double ffmpegConcat(const std::string& clip, const std::string& dir, const std::vector<EditRange>& ranges) {
    const auto start = Clock::now();
    std::ofstream list(dir + "/segments.txt");
    for (size_t i = 0; i < ranges.size(); ++i) {
        const std::string segment = dir + "/segment" + std::to_string(i) + ".mp4";
        if (ffmpegOne(clip, segment, ranges[i]) < 0) return -1;
        list << "file '" << segment << "'\n";
    }
    list.close();
    if (timeCommand("ffmpeg -nostdin -v error -y -f concat -safe 0 -i '" + dir + "/segments.txt' -c copy '" + dir +
                    "/concat.mp4'") < 0)
        return -1;
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

const std::vector<EditRange> kOneRange = {{100000, 400000}};
const std::vector<EditRange> kFiveRanges = {
    {20000, 50000}, {110000, 140000}, {230000, 260000}, {350000, 380000}, {480000, 510000}};

// The child: index and one cut, nothing else, so that its peak is the cut's.
int peakChild(const std::string& clip, const std::string& out) {
    Events events;
    void* handle = TSL_CreateTessalo(&events, onHostEvent);
    if (!handle || !indexClip(handle, events, clip)) return 2;
    const double s = cutOnce(handle, events, clip, out, kOneRange);
    TSL_DestoryTessalo(handle);
    return s < 0 ? 3 : 0;
}

// Peak resident MiB of the child, or negative.
double peakRssMiB(const std::string& clip, const std::string& out) {
    std::string self = "/proc/self/exe";
    std::vector<std::string> args = {"cut_bench", "--peak-child", clip, out};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv.data(), environ) != 0) return -1;
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    return double(usage.ru_maxrss) / 1024.0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 3 && std::string(argv[1]) == "--peak-child") return peakChild(argv[2], argv[3]);

    const std::string clip = argc > 1 ? argv[1] : "/tmp/benchclip/long.mp4";
    const int runs = std::max(1, argc > 2 ? std::atoi(argv[2]) : 3);
    char dirTemplate[] = "/tmp/cut_bench.XXXXXX";
    if (!mkdtemp(dirTemplate)) return 1;
    const std::string dir = dirTemplate;

    Events events;
    void* handle = TSL_CreateTessalo(&events, onHostEvent);
    if (!handle || !indexClip(handle, events, clip)) {
        std::fprintf(stderr, "cut_bench: cannot index %s\n", clip.c_str());
        return 1;
    }

    TessaloMediaInfo info{};
    TSL_GetMediaInfo(handle, &info);
    if (info.durationMs > 0 && info.durationMs < 510000.0) {
        std::fprintf(stderr, "cut_bench: %s lasts %.0f s; the ranges need 510 s (bench/make_long_clip.sh makes 600)\n",
                     clip.c_str(), info.durationMs / 1000.0);
        return 1;
    }

    // One warm-up of each, so that all of them read from the page cache.
    if (cutOnce(handle, events, clip, dir + "/ours_one.mp4", kOneRange) < 0 ||
        ffmpegOne(clip, dir + "/ref_one.mp4", kOneRange[0]) < 0 ||
        cutOnce(handle, events, clip, dir + "/ours_five.mp4", kFiveRanges) < 0 ||
        ffmpegConcat(clip, dir, kFiveRanges) < 0) {
        std::fprintf(stderr, "cut_bench: a warm-up cut failed on %s\n", clip.c_str());
        return 1;
    }

    std::vector<double> oneOurs, oneRef, fiveOurs, fiveRef, oneSynced, fiveSynced;
    for (int i = 0; i < runs; ++i) {
        oneOurs.push_back(cutOnce(handle, events, clip, dir + "/ours_one.mp4", kOneRange));
        oneSynced.push_back(cutOnce(handle, events, clip, dir + "/ours_one.mp4", kOneRange, kCutKindSynced));
        oneRef.push_back(ffmpegOne(clip, dir + "/ref_one.mp4", kOneRange[0]));
        fiveOurs.push_back(cutOnce(handle, events, clip, dir + "/ours_five.mp4", kFiveRanges));
        fiveSynced.push_back(cutOnce(handle, events, clip, dir + "/ours_five.mp4", kFiveRanges, kCutKindSynced));
        fiveRef.push_back(ffmpegConcat(clip, dir, kFiveRanges));
        std::fprintf(stderr, "run %d: one range %.3f s (ffmpeg %.3f s), five ranges %.3f s (ffmpeg %.3f s)\n", i,
                     oneOurs.back(), oneRef.back(), fiveOurs.back(), fiveRef.back());
        std::fprintf(stderr, "run %d: kind 1: one range %.3f s, five ranges %.3f s\n", i, oneSynced.back(),
                     fiveSynced.back());
        for (double v :
             {oneOurs.back(), oneRef.back(), fiveOurs.back(), fiveRef.back(), oneSynced.back(), fiveSynced.back()})
            if (v < 0) {
                std::fprintf(stderr, "cut_bench: run %d failed\n", i);
                return 1;
            }
    }
    TSL_DestoryTessalo(handle);

    const double one = median(oneOurs), oneR = median(oneRef), five = median(fiveOurs), fiveR = median(fiveRef);
    std::printf("RESULT name=cut_one median_s=%.3f ref_median_s=%.3f ratio=%.2f target=1.5\n", one, oneR, one / oneR);
    std::printf("RESULT name=cut_five median_s=%.3f ref_median_s=%.3f ratio=%.2f target=1.0\n", five, fiveR,
                five / fiveR);
    // Kind 1 against kind 0: the same engine with another timeline, so as fast.
    const double oneS = median(oneSynced), fiveS = median(fiveSynced);
    std::printf("RESULT name=cut_one_kind1_vs_kind0 median_s=%.3f ref_median_s=%.3f ratio=%.2f target=1.0\n", oneS,
                one, oneS / one);
    std::printf("RESULT name=cut_five_kind1_vs_kind0 median_s=%.3f ref_median_s=%.3f ratio=%.2f target=1.0\n", fiveS,
                five, fiveS / five);
    const double peak = peakRssMiB(clip, dir + "/peak.mp4");
    std::printf("RESULT name=cut_peak_rss_mib value=%.0f target=160\n", peak);
    std::fflush(stdout);
    std::system(("rm -rf '" + dir + "'").c_str());
    return peak < 0 ? 1 : 0;
}
