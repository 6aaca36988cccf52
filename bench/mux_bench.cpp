// Samples per second through MPEG4FileMuxer: every sample of a real clip,
// read into memory first (video in start-code form, as the cut engine hands
// it over), then timed from the first WriteSampleData to the return of stop,
// when the trailer is written and the file closed.
// Usage: mux_bench [CLIP] [RUNS]   (CLIP defaults to /tmp/benchclip/long.mp4,
// made by bench/make_long_clip.sh)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "base/Results.h"
#include "mux/MPEG4FileMuxer.h"
#include "tests/mux/FixtureSamples.h"

namespace {

using Clock = std::chrono::steady_clock;

// Seconds for one muxing of all samples; negative on failure.
double muxOnce(muxfixture::Clip& clip, const std::string& output) {
    MPEG4FileMuxer muxer;
    if (muxer.setOutputFile(output.c_str()) != kOk) return -1;
    AudioTrackInfo audio = clip.audioInfo();
    VideoTrackInfo video = clip.videoInfo();
    if (clip.hasAudio && muxer.addAudioTrack(&audio) != kOk) return -1;
    if (muxer.addVideoTrack(&video) != kOk) return -1;
    if (muxer.start() != kOk) return -1;
    size_t refused = 0;
    const auto begin = Clock::now();
    for (const muxfixture::Sample& s : clip.samples)
        refused += muxer.WriteSampleData(s.bytes.data(), static_cast<int32_t>(s.bytes.size()), s.track, s.pts,
                                         s.dts, s.flags) != kOk;
    if (muxer.stop() != kOk) return -1;
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    if (refused) std::fprintf(stderr, "%zu samples refused\n", refused);
    return seconds;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string path = argc > 1 ? argv[1] : "/tmp/benchclip/long.mp4";
    const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;

    muxfixture::Clip clip;
    const std::string error = muxfixture::readClip(path, &clip);
    if (!error.empty() || clip.samples.empty()) {
        std::fprintf(stderr, "cannot read %s: %s\n", path.c_str(), error.c_str());
        return 1;
    }
    std::fprintf(stderr, "%zu samples (%zu video, %zu audio) in memory\n", clip.samples.size(), clip.videoCount,
                 clip.audioCount);

    const std::string output = "/tmp/tessalo_mux_bench_" + std::to_string(getpid()) + ".mp4";
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) {
        const double seconds = muxOnce(clip, output);
        if (seconds < 0) {
            std::fprintf(stderr, "muxing failed\n");
            std::remove(output.c_str());
            return 1;
        }
        times.push_back(seconds);
    }
    std::remove(output.c_str());
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2];
    std::printf("RESULT name=mux_samples_per_s value=%.0f\n", static_cast<double>(clip.samples.size()) / median);
    std::printf("RESULT name=mux_write median_s=%.3f\n", median);
    return 0;
}
