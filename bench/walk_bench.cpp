// The index walk against a plain av_read_frame loop over the same file.
// Ours: TSL_StartPic until kHostEventIndexReady, through the exports. The
// reference: open, find the stream info, read every packet, close. Runs
// alternate (after one warm-up of each, so both read from the page cache).
// Usage: walk_bench [CLIP] [RUNS]
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include "demux/DemuxerAVImpl.h"
#include "tessalo.h"

namespace {

using Clock = std::chrono::steady_clock;

struct WalkWaiter {
    std::mutex mutex;
    std::condition_variable changed;
    int32_t outcome = -1;
};

int32_t onHostEvent(void* user, int32_t event) {
    auto* waiter = static_cast<WalkWaiter*>(user);
    if (event == kHostEventMediaInfo) return 0;
    std::lock_guard<std::mutex> lock(waiter->mutex);
    if (waiter->outcome < 0) waiter->outcome = event;
    waiter->changed.notify_all();
    return 0;
}

// Seconds for one walk through the exports; negative when it did not end in
// kHostEventIndexReady.
double walkOnce(const std::string& clip) {
    WalkWaiter waiter;
    void* handle = TSL_CreateTessalo(&waiter, onHostEvent);
    if (!handle) return -1;
    const auto start = Clock::now();
    if (!TSL_StartPic(handle, clip.c_str())) {
        TSL_DestoryTessalo(handle);
        return -1;
    }
    int32_t outcome;
    {
        std::unique_lock<std::mutex> lock(waiter.mutex);
        waiter.changed.wait(lock, [&] { return waiter.outcome >= 0; });
        outcome = waiter.outcome;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    TSL_DestoryTessalo(handle);
    return outcome == kHostEventIndexReady ? seconds : -1;
}

// Seconds for the demuxer alone (no instance, no index): its share of a walk.
struct DemuxerWaiter {
    std::mutex mutex;
    std::condition_variable changed;
    int ends = 0;
    bool failed = false;
};

int onPacket(int, Morvel_Tessalo::DemuxerPacket*, void*) { return 1; }

void onDemuxerEvent(int kind, int detail, void*, void* user) {
    auto* waiter = static_cast<DemuxerWaiter*>(user);
    std::lock_guard<std::mutex> lock(waiter->mutex);
    if (kind == Morvel_Tessalo::kDemuxerEventEnded && detail == Morvel_Tessalo::kDemuxerMediaVideo) ++waiter->ends;
    if (kind == Morvel_Tessalo::kDemuxerEventError) waiter->failed = true;
    waiter->changed.notify_all();
}

double demuxerOnce(const std::string& clip) {
    DemuxerWaiter waiter;
    const auto start = Clock::now();
    Morvel_Tessalo::DemuxerAVImpl demuxer;
    demuxer.init(onPacket, onDemuxerEvent, &waiter);
    demuxer.setProperty(Morvel_Tessalo::kDemuxerPropPath, clip.c_str());
    if (!demuxer.start()) return -1;
    {
        std::unique_lock<std::mutex> lock(waiter.mutex);
        waiter.changed.wait(lock, [&] { return waiter.ends > 0 || waiter.failed; });
        if (waiter.failed) return -1;
    }
    demuxer.stop();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Seconds for the plain loop; negative on failure. `packets` gets the count.
double readFrameOnce(const std::string& clip, long* packets) {
    const auto start = Clock::now();
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, clip.c_str(), nullptr, nullptr) != 0) return -1;
    if (avformat_find_stream_info(context, nullptr) < 0) {
        avformat_close_input(&context);
        return -1;
    }
    AVPacket* packet = av_packet_alloc();
    long count = 0;
    while (packet && av_read_frame(context, packet) == 0) {
        ++count;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    *packets = count;
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string clip = argc > 1 ? argv[1] : "/tmp/benchclip/long.mp4";
    const int runs = std::max(1, argc > 2 ? std::atoi(argv[2]) : 5);
    av_log_set_level(AV_LOG_QUIET);

    long packets = 0;
    if (walkOnce(clip) < 0 || readFrameOnce(clip, &packets) < 0) {
        std::fprintf(stderr, "walk_bench: cannot walk %s\n", clip.c_str());
        return 1;
    }
    std::vector<double> ours, demuxerOnly, reference;
    for (int i = 0; i < runs; ++i) {
        const double walk = walkOnce(clip);
        const double plain = readFrameOnce(clip, &packets);
        const double demux = demuxerOnce(clip);
        if (walk < 0 || plain < 0 || demux < 0) {
            std::fprintf(stderr, "walk_bench: run %d failed\n", i);
            return 1;
        }
        ours.push_back(walk);
        reference.push_back(plain);
        demuxerOnly.push_back(demux);
        std::fprintf(stderr, "run %d: walk %.3f s, demuxer alone %.3f s, av_read_frame %.3f s (%ld packets)\n", i,
                     walk, demux, plain, packets);
    }
    const double refMedian = median(reference);
    std::printf("RESULT name=walk median_s=%.3f ref_median_s=%.3f ratio=%.2f target=1.15\n", median(ours),
                refMedian, median(ours) / refMedian);
    std::printf("RESULT name=walk_demuxer_only median_s=%.3f ref_median_s=%.3f ratio=%.2f target=1.15\n",
                median(demuxerOnly), refMedian, median(demuxerOnly) / refMedian);
    return 0;
}
