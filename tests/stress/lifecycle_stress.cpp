// Lifecycle stress: several instances at once, each driven by its own thread
// through random sequences of the exports with random short delays, on real
// files. Checks the event-order rules a host relies on, and that nothing
// deadlocks (a watchdog aborts when no thread makes progress for a minute).
// Leaks are LeakSanitizer's business in the ASan build.
//
// Usage: lifecycle_stress MEDIA_DIR [RUNS] [SEED]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tessalo.h"

namespace {

constexpr int32_t kMarkCancelReturned = -100;  // logged by the host thread, not an event
constexpr int32_t kMarkCutStarted = -101;
constexpr int32_t kMarkRequestStarted = -102;

std::atomic<long> gProgress{0};
std::atomic<int> gFailures{0};

struct Log {
    std::mutex mutex;
    std::vector<int32_t> entries;
    std::vector<uint8_t> picture;
    void* handle = nullptr;  // only read inside PicReady, which the host thread never races with destroy
    void add(int32_t e) {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(e);
    }
    size_t count(int32_t e) {
        std::lock_guard<std::mutex> lock(mutex);
        size_t n = 0;
        for (int32_t x : entries) n += (x == e);
        return n;
    }
};

int32_t onEvent(void* user, int32_t event) {
    auto* log = static_cast<Log*>(user);
    if (event == kHostEventPicReady) {
        // What a host does inside this event: size the block, copy the picture.
        const int32_t size = TSL_GetOnePicSize(log->handle);
        if (size > 0) {
            std::lock_guard<std::mutex> lock(log->mutex);
            log->picture.resize(static_cast<size_t>(size));
            int64_t pts = 0;
            uint8_t key = 0;
            if (TSL_GetPic(log->handle, log->picture.data(), &pts, &key) != size) {
                std::fprintf(stderr, "TSL_GetPic copied a size other than TSL_GetOnePicSize\n");
                ++gFailures;
            }
        }
    }
    log->add(event);
    ++gProgress;
    return 0;
}

void fail(const char* rule, const std::vector<int32_t>& entries) {
    std::fprintf(stderr, "rule broken: %s\n  log:", rule);
    for (int32_t e : entries) std::fprintf(stderr, " %d", e);
    std::fprintf(stderr, "\n");
    ++gFailures;
}

// The order rules over one instance's log of events and host-side marks.
void checkOrder(const std::vector<int32_t>& log) {
    bool inRequest = false, cancelled = false;
    int cutDone = 0;
    for (size_t i = 0; i < log.size(); ++i) {
        const int32_t e = log[i];
        switch (e) {
            case kMarkRequestStarted: break;
            case kHostEventPicStart:
                if (inRequest) return fail("PicStart while an earlier request had not ended", log);
                inRequest = true;
                break;
            case kHostEventPicReady:
                if (!inRequest) return fail("PicReady outside a request", log);
                break;
            case kHostEventNoPic:
                if (i + 1 >= log.size() || log[i + 1] != kHostEventPicDone)
                    return fail("NoPic not right before PicDone", log);
                break;
            case kHostEventPicDone:
                // A request given up before its worker began ends with NoPic, PicDone and no PicStart.
                if (!inRequest && (i == 0 || log[i - 1] != kHostEventNoPic))
                    return fail("PicDone without PicStart or NoPic", log);
                inRequest = false;
                break;
            case kHostEventFileError:
            case kHostEventError:
                inRequest = false;  // a failed request ends without PicDone
                break;
            case kMarkCutStarted:
                cutDone = 0;
                cancelled = false;
                break;
            case kMarkCancelReturned: cancelled = true; break;
            case kHostEventCutDone:
                if (cancelled) return fail("CutDone after TSL_CancelFile returned", log);
                if (++cutDone > 1) return fail("two CutDone for one job", log);
                break;
            default: break;
        }
    }
}

void drive(const std::string& media, int runs, unsigned seed, std::atomic<int>& runsLeft) {
    std::mt19937 rng(seed);
    const std::vector<std::string> files = {media + "/main.mp4", media + "/tiny.mp4", media + "/noaudio.mp4",
                                            media + "/main.mov", media + "/hevc.mp4", media + "/empty.mp4"};
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    auto nap = [&] { std::this_thread::sleep_for(std::chrono::milliseconds(pick(15))); };
    (void)runs;
    while (runsLeft.fetch_sub(1) > 0) {
        auto* log = new Log;
        void* handle = TSL_CreateTessalo(log, onEvent);
        log->handle = handle;
        size_t readyBefore = 0;
        bool cutRunning = false;
        const std::string out = "/tmp/tessalo_stress_" + std::to_string(seed) + ".mp4";
        for (int step = 0; step < 10; ++step) {
            const bool indexed = log->count(kHostEventIndexReady) > readyBefore;
            switch (pick(7)) {
                case 0:
                case 1:
                    if (cutRunning) {  // a running cut reads the index: end it first
                        TSL_CancelFile(handle);
                        log->add(kMarkCancelReturned);
                        cutRunning = false;
                    }
                    TSL_StartPic(handle, files[static_cast<size_t>(pick(static_cast<int>(files.size())))].c_str());
                    readyBefore = log->count(kHostEventIndexReady);
                    break;
                case 2:
                    if (indexed) {
                        const int32_t n = TSL_GetKeyPtsCount(handle);
                        std::vector<int64_t> keys(static_cast<size_t>(n > 0 ? n : 1));
                        if (n > 0 && TSL_GetKeyPts(handle, keys.data()) == n) {
                            if (pick(2)) {
                                log->add(kMarkRequestStarted);
                                TSL_GetPicByPts(handle, keys.data(), n);
                            } else {
                                const int64_t key = keys[static_cast<size_t>(pick(n))];
                                const int32_t count = TSL_GetPtsCountByKeyPts(handle, key);
                                std::vector<int64_t> group(static_cast<size_t>(count > 0 ? count : 1));
                                if (count > 0 && TSL_GetPtsByKeyPts(handle, key, group.data()) == count) {
                                    log->add(kMarkRequestStarted);
                                    TSL_GetPicByPts(handle, group.data(), count);
                                }
                            }
                        }
                    }
                    break;
                case 3:
                    if (indexed) {
                        const EditRange ranges[2] = {{0, 900}, {1800, 2600}};
                        log->add(kMarkCutStarted);
                        cutRunning = TSL_CutFile(handle, files[0].c_str(), out.c_str(), ranges, 1 + pick(2), nullptr, 0,
                                                 kCutKindMp4) || cutRunning;
                    }
                    break;
                case 4:
                    TSL_CancelFile(handle);
                    log->add(kMarkCancelReturned);
                    cutRunning = false;
                    break;
                case 5: TSL_SetOutputPicFormat(handle, pick(2) ? 0 : 3); break;
                case 6: nap(); break;
            }
            nap();
            ++gProgress;
        }
        TSL_DestoryTessalo(handle);  // ends every thread; the log is complete now
        checkOrder(log->entries);
        delete log;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s MEDIA_DIR [RUNS] [SEED]\n", argv[0]);
        return 2;
    }
    const std::string media = argv[1];
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
            idle = (now == last) ? idle + 1 : 0;
            last = now;
            if (idle >= 60) {
                std::fprintf(stderr, "watchdog: no progress for 60 s, a deadlock\n");
                std::abort();
            }
        }
    });
    std::vector<std::thread> hosts;
    for (unsigned i = 0; i < 3; ++i) hosts.emplace_back(drive, media, runs, seed + i, std::ref(runsLeft));
    for (auto& t : hosts) t.join();
    done = true;
    watchdog.join();
    std::printf("lifecycle stress: %d runs on 3 instances at once, %d rule failures\n", runs, gFailures.load());
    std::printf("%d passed, %d failed\n", gFailures.load() == 0 ? 1 : 0, gFailures.load() == 0 ? 0 : 1);
    return gFailures.load() == 0 ? 0 : 1;
}
