// The host that the benchmark runner launches once per job, so that a job is
// timed as a host lives it: a fresh process that creates an instance, indexes
// the clip (TSL_StartPic to kHostEventIndexReady) and makes one request.
// It prints one line:
//   HOST index_s=… request_s=… walk_rchar=… walk_read_bytes=… pictures=…
// index_s from TSL_CreateTessalo to kHostEventIndexReady, request_s from the
// request to its last event, and the bytes the process read during the walk
// (/proc/self/io: rchar counts every read call, read_bytes what came from
// the storage device rather than the page cache).
// Jobs:
//   bench_host index CLIP
//   bench_host picture CLIP MS            the first picture at or after MS
//   bench_host keys_bgr24 CLIP            every key picture as 24-bit BGR
//   bench_host cut CLIP OUT A-B[,C-D...] [KIND]  ranges in ms into OUT (kind 0 unless given)
//   bench_host read_frame CLIP            the reference: a plain av_read_frame loop
// Each picture is copied out with TSL_GetPic inside kHostEventPicReady.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "base/FFmpegHolders.h"
#include "tessalo.h"

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

struct IoCounts {
    long long rchar = 0, readBytes = 0;
};

IoCounts ioCounts() {
    IoCounts counts;
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value) {
        if (key == "rchar:") counts.rchar = value;
        if (key == "read_bytes:") counts.readBytes = value;
    }
    return counts;
}

struct Host {
    void* handle = nullptr;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int32_t> events;
    std::vector<uint8_t> picture;
    int pictures = 0;

    // Waits for the first of `wanted` after event number `from`; -1 after 10 minutes.
    int32_t waitAny(size_t from, std::initializer_list<int32_t> wanted) {
        std::unique_lock<std::mutex> lock(mutex);
        int32_t found = -1;
        changed.wait_for(lock, std::chrono::minutes(10), [&] {
            for (size_t i = from; i < events.size() && found < 0; ++i)
                if (std::find(wanted.begin(), wanted.end(), events[i]) != wanted.end()) found = events[i];
            return found >= 0;
        });
        return found;
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return events.size();
    }
};

int32_t onHostEvent(void* user, int32_t event) {
    auto* host = static_cast<Host*>(user);
    if (event == kHostEventPicReady) {
        const int32_t size = TSL_GetOnePicSize(host->handle);
        if (size > 0) {
            if (host->picture.size() < static_cast<size_t>(size)) host->picture.resize(static_cast<size_t>(size));
            int64_t pts = 0;
            uint8_t key = 0;
            TSL_GetPic(host->handle, host->picture.data(), &pts, &key);
        }
        ++host->pictures;
    }
    std::lock_guard<std::mutex> lock(host->mutex);
    host->events.push_back(event);
    host->changed.notify_all();
    return 0;
}

std::vector<int64_t> keyPts(void* handle) {
    std::vector<int64_t> keys(static_cast<size_t>(std::max(TSL_GetKeyPtsCount(handle), 0)));
    keys.resize(static_cast<size_t>(std::max(TSL_GetKeyPts(handle, keys.data()), 0)));
    return keys;
}

// The first timestamp at or after `ms` in the group that holds it.
std::vector<int64_t> pictureAt(void* handle, int64_t ms) {
    const std::vector<int64_t> keys = keyPts(handle);
    auto key = std::upper_bound(keys.begin(), keys.end(), ms);
    if (key == keys.begin()) return {};
    std::vector<int64_t> group(static_cast<size_t>(std::max(TSL_GetPtsCountByKeyPts(handle, *--key), 0)));
    group.resize(static_cast<size_t>(std::max(TSL_GetPtsByKeyPts(handle, *key, group.data()), 0)));
    for (int64_t pts : group)
        if (pts >= ms) return {pts};
    return {};
}

std::vector<EditRange> parseRanges(const std::string& text) {
    std::vector<EditRange> ranges;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        EditRange range{};
        if (std::sscanf(item.c_str(), "%lld-%lld", reinterpret_cast<long long*>(&range.start),
                        reinterpret_cast<long long*>(&range.end)) == 2)
            ranges.push_back(range);
    }
    return ranges;
}

bool requestPictures(Host& host, const std::vector<int64_t>& pts) {
    const size_t from = host.count();
    if (pts.empty() || !TSL_GetPicByPts(host.handle, pts.data(), static_cast<int32_t>(pts.size()))) return false;
    return host.waitAny(from, {kHostEventPicDone, kHostEventError, kHostEventFileError}) == kHostEventPicDone;
}

bool runRequest(Host& host, int argc, char** argv) {
    const std::string job = argv[1], clip = argv[2];
    if (job == "index") return true;
    if (job == "picture" && argc > 3) return requestPictures(host, pictureAt(host.handle, std::atoll(argv[3])));
    if (job == "keys_bgr24") {
        TSL_SetOutputPicFormat(host.handle, kPicFormatBgr24);
        return requestPictures(host, keyPts(host.handle));
    }
    if (job == "cut" && argc > 4) {
        const std::vector<EditRange> ranges = parseRanges(argv[4]);
        const int32_t kind = argc > 5 ? std::atoi(argv[5]) : kCutKindMp4;
        const size_t from = host.count();
        if (ranges.empty() || !TSL_CutFile(host.handle, clip.c_str(), argv[3], ranges.data(),
                                           static_cast<int32_t>(ranges.size()), nullptr, 0, kind))
            return false;
        const bool done = host.waitAny(from, {kHostEventCutDone, kHostEventCutFailed}) == kHostEventCutDone;
        TSL_CancelFile(host.handle);  // joins the cut thread that has ended
        return done;
    }
    return false;
}

int readFrameLoop(const char* clip) {
    const InputFormatHolder input = openInput(clip);
    AVFormatContext* context = input.get();
    if (!context) return 1;
    int status = avformat_find_stream_info(context, nullptr) < 0 ? 1 : 0;
    const PacketHolder holder(av_packet_alloc());
    AVPacket* packet = holder.get();
    long packets = 0;
    while (status == 0 && packet && av_read_frame(context, packet) == 0) {
        ++packets;
        av_packet_unref(packet);
    }
    std::printf("HOST packets=%ld\n", packets);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: bench_host index|picture|keys_bgr24|cut|read_frame CLIP [...]\n");
        return 2;
    }
    if (std::strcmp(argv[1], "read_frame") == 0) return readFrameLoop(argv[2]);

    Host host;
    const auto start = Clock::now();
    host.handle = TSL_CreateTessalo(&host, onHostEvent);
    const IoCounts before = ioCounts();
    if (!host.handle || !TSL_StartPic(host.handle, argv[2]) ||
        host.waitAny(0, {kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec,
                         kHostEventBadSampleRate, kHostEventBadChannels, kHostEventNoVideo}) != kHostEventIndexReady) {
        std::fprintf(stderr, "bench_host: cannot index %s\n", argv[2]);
        return 1;
    }
    const IoCounts walked = ioCounts();
    const double indexSeconds = since(start);
    const auto requestStart = Clock::now();
    const bool ok = runRequest(host, argc, argv);
    const double requestSeconds = since(requestStart);
    TSL_DestoryTessalo(host.handle);
    if (!ok) {
        std::fprintf(stderr, "bench_host: %s failed on %s\n", argv[1], argv[2]);
        return 1;
    }
    std::printf("HOST index_s=%.4f request_s=%.4f walk_rchar=%lld walk_read_bytes=%lld pictures=%d\n", indexSeconds,
                requestSeconds, walked.rchar - before.rchar, walked.readBytes - before.readBytes, host.pictures);
    return 0;
}
