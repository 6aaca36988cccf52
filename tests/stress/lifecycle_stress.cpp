// Lifecycle stress: three host threads, each driving its own instances through random sequences of the
// exports with random short delays, on real files. Checks the event-order rules a host relies on; a
// watchdog aborts when no thread makes progress for a minute (a deadlock); leaks are LeakSanitizer's.
// Usage: lifecycle_stress MEDIA_DIR [RUNS] [SEED]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tessalo.h"

namespace {

// Host-side marks in an instance's log, beside its events.
constexpr int32_t kMarkCancelReturned = -100;
constexpr int32_t kMarkCutStarted = -101;
constexpr int32_t kMarkCutReturned = -102;

std::atomic<long> gProgress{0};
std::atomic<int> gFailures{0};

void fail(const char* rule, const std::vector<int32_t>& log) {
    std::fprintf(stderr, "rule broken: %s\n  log:", rule);
    for (const int32_t e : log) std::fprintf(stderr, " %d", e);
    std::fprintf(stderr, "\n");
    ++gFailures;
}

struct Log {
    std::mutex mutex;
    std::vector<int32_t> entries;
    std::atomic<int> indexReady{0};
    void* handle = nullptr;
    void add(int32_t e) {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(e);
    }
};

int32_t onEvent(void* user, int32_t event) {
    auto* log = static_cast<Log*>(user);
    if (event == kHostEventPicReady) {  // what a host does here: size a block and copy the picture into it
        std::vector<uint8_t> picture(static_cast<size_t>(std::max(TSL_GetOnePicSize(log->handle), 0)));
        int64_t pts = 0;
        uint8_t key = 0;
        if (!picture.empty() && TSL_GetPic(log->handle, picture.data(), &pts, &key) != int32_t(picture.size()))
            fail("TSL_GetPic copied a size other than TSL_GetOnePicSize", {});
    }
    if (event == kHostEventIndexReady) ++log->indexReady;
    log->add(event);
    ++gProgress;
    return 0;
}

// The order rules over one instance's complete log; returns the first rule broken, or null.
const char* brokenRule(const std::vector<int32_t>& log) {
    bool inRequest = false, cancelled = false, insideCutCall = false;
    // While TSL_CutFile runs it ends the earlier job, whose CutDone may come then if that job had just
    // finished: one such CutDone belongs to the earlier job, if it was still open, not to the new one.
    bool jobOpen = false, earlierJobOpen = false;
    int cutDone = 0;
    for (size_t i = 0; i < log.size(); ++i) {
        const int32_t e = log[i];
        if (e == kHostEventPicStart && inRequest) return "PicStart while an earlier request had not ended";
        if (e == kHostEventPicReady && !inRequest) return "PicReady outside a request";
        if (e == kHostEventNoPic && (i + 1 == log.size() || log[i + 1] != kHostEventPicDone))
            return "NoPic not right before PicDone";
        // A request given up before its worker began ends with NoPic and PicDone, without PicStart.
        if (e == kHostEventPicDone && !inRequest && (i == 0 || log[i - 1] != kHostEventNoPic))
            return "PicDone without PicStart or NoPic";
        if (e == kHostEventCutDone && cancelled) return "CutDone after TSL_CancelFile returned";
        if (e == kHostEventCutDone && insideCutCall && earlierJobOpen) {
            earlierJobOpen = false;
            continue;
        }
        if (e == kHostEventCutDone && ++cutDone > 1) return "two CutDone for one job";
        if (e == kHostEventCutDone) jobOpen = false;
        if (e == kMarkCutStarted) {
            cutDone = 0;
            cancelled = false;
            insideCutCall = true;
            earlierJobOpen = jobOpen;
            jobOpen = true;
        }
        if (e == kMarkCutReturned) insideCutCall = earlierJobOpen = false;
        if (e == kMarkCancelReturned) cancelled = true, jobOpen = false;
        if (e == kHostEventPicStart) inRequest = true;
        // A failed request ends without PicDone.
        if (e == kHostEventPicDone || e == kHostEventFileError || e == kHostEventError) inRequest = false;
    }
    return nullptr;
}

void drive(const std::string& media, unsigned seed, std::atomic<int>& runsLeft) {
    std::mt19937 rng(seed);
    const std::vector<std::string> files = {media + "/main.mp4", media + "/tiny.mp4", media + "/noaudio.mp4",
                                            media + "/main.mov", media + "/hevc.mp4", media + "/empty.mp4"};
    const std::string out = "/tmp/tessalo_stress_" + std::to_string(seed) + ".mp4";
    const auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    const auto nap = [&] { std::this_thread::sleep_for(std::chrono::milliseconds(pick(15))); };
    while (runsLeft.fetch_sub(1) > 0) {
        const auto owned = std::make_unique<Log>();
        Log* log = owned.get();
        void* handle = TSL_CreateTessalo(log, onEvent);
        log->handle = handle;
        int readyBefore = 0;
        for (int step = 0; step < 10; ++step) {
            const bool indexed = log->indexReady > readyBefore;
            const size_t action = pick(6);
            if (action <= 1) {
                // A running cut reads the index: the host ends it before a new walk.
                TSL_CancelFile(handle);
                log->add(kMarkCancelReturned);
                TSL_StartPic(handle, files[pick(files.size())].c_str());
                readyBefore = log->indexReady;
            } else if (action == 2 && indexed) {  // all keys (key mode), or one key's group (run mode)
                std::vector<int64_t> pts(static_cast<size_t>(std::max(TSL_GetKeyPtsCount(handle), 0)));
                bool ok = !pts.empty() && TSL_GetKeyPts(handle, pts.data()) == int32_t(pts.size());
                if (ok && pick(2)) {
                    const int64_t key = pts[pick(pts.size())];
                    pts.resize(static_cast<size_t>(std::max(TSL_GetPtsCountByKeyPts(handle, key), 0)));
                    ok = !pts.empty() && TSL_GetPtsByKeyPts(handle, key, pts.data()) == int32_t(pts.size());
                }
                if (ok) TSL_GetPicByPts(handle, pts.data(), int32_t(pts.size()));
            } else if (action == 3 && indexed) {
                // Starts inside groups, so that the frame-exact cut makes pictures.
                const EditRange ranges[2] = {{130, 900}, {1800, 2600}};
                const int32_t kinds[3] = {kCutKindMp4, kCutKindSynced, kCutKindExact};
                log->add(kMarkCutStarted);
                TSL_CutFile(handle, files[0].c_str(), out.c_str(), ranges, 1 + int32_t(pick(2)), nullptr, 0,
                            kinds[pick(3)]);
                log->add(kMarkCutReturned);
            } else if (action == 4) {
                TSL_CancelFile(handle);
                log->add(kMarkCancelReturned);
            } else if (action == 5) {
                TSL_SetOutputPicFormat(handle, pick(2) ? 0 : 3);
            }
            nap();
            ++gProgress;
        }
        TSL_DestoryTessalo(handle);  // ends every thread: the log is complete now
        if (const char* rule = brokenRule(log->entries)) fail(rule, log->entries);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s MEDIA_DIR [RUNS] [SEED]\n", argv[0]);
        return 2;
    }
    const int runs = argc > 2 ? std::atoi(argv[2]) : 200;
    const unsigned seed = argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)) : 20261122u;
    std::atomic<int> runsLeft{runs};
    std::atomic<bool> done{false};
    std::thread watchdog([&] {
        long last = -1;
        int idle = 0;
        while (!done.load()) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            const long now = gProgress.load();
            idle = now == last ? idle + 1 : 0;
            last = now;
            if (idle >= 60) {
                std::fprintf(stderr, "watchdog: no progress for 60 s, a deadlock\n");
                std::abort();
            }
        }
    });
    std::vector<std::thread> hosts;
    for (unsigned i = 0; i < 3; ++i) hosts.emplace_back(drive, std::string(argv[1]), seed + i, std::ref(runsLeft));
    for (auto& t : hosts) t.join();
    done = true;
    watchdog.join();
    const int failures = gFailures.load();
    std::printf("lifecycle stress: %d runs on 3 instances at once, %d rule failures\n", runs, failures);
    std::printf("%d passed, %d failed\n", failures == 0 ? 1 : 0, failures == 0 ? 0 : 1);
    return failures == 0 ? 0 : 1;
}
