// One short end-to-end flow through the exports, for valgrind memcheck:
// index a file, one key-mode and one run-mode picture request, one cut.
// Usage: flow_once FILE OUT.mp4   (exit 0 when every step ended as expected)
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

#include "tessalo.h"

namespace {
struct Waiter {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int32_t> events;
    void* handle = nullptr;
    bool waitFor(std::initializer_list<int32_t> wanted, size_t from, int32_t* got) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(120), [&] {
            for (size_t i = from; i < events.size(); ++i)
                for (int32_t w : wanted)
                    if (events[i] == w) return *got = w, true;
            return false;
        });
    }
    size_t mark() {
        std::lock_guard<std::mutex> lock(mutex);
        return events.size();
    }
};

int32_t onEvent(void* user, int32_t event) {
    auto* w = static_cast<Waiter*>(user);
    if (event == kHostEventPicReady) {
        std::vector<uint8_t> picture(static_cast<size_t>(TSL_GetOnePicSize(w->handle)));
        int64_t pts;
        uint8_t key;
        TSL_GetPic(w->handle, picture.data(), &pts, &key);
    }
    if (event == kHostEventCutDone) {
        EditOffset offsets[1];
        int32_t count = 0;
        TSL_GetEditOffsetPts(w->handle, offsets, 1, &count);
    }
    {
        std::lock_guard<std::mutex> lock(w->mutex);
        w->events.push_back(event);
    }
    w->changed.notify_all();
    return 0;
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    Waiter w;
    void* t = TSL_CreateTessalo(&w, onEvent);
    w.handle = t;
    int32_t got = -1;
    size_t from = w.mark();
    TSL_StartPic(t, argv[1]);
    if (!w.waitFor({kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec}, from, &got) ||
        got != kHostEventIndexReady)
        return std::fprintf(stderr, "walk failed: %d\n", got), 1;
    std::vector<int64_t> keys(static_cast<size_t>(TSL_GetKeyPtsCount(t)));
    TSL_GetKeyPts(t, keys.data());
    TSL_SetOutputPicFormat(t, 3);
    from = w.mark();
    TSL_GetPicByPts(t, keys.data(), static_cast<int32_t>(keys.size()));
    if (!w.waitFor({kHostEventPicDone}, from, &got)) return std::fprintf(stderr, "key mode hung\n"), 1;
    std::vector<int64_t> group(static_cast<size_t>(TSL_GetPtsCountByKeyPts(t, keys[0])));
    TSL_GetPtsByKeyPts(t, keys[0], group.data());
    from = w.mark();
    TSL_GetPicByPts(t, group.data(), static_cast<int32_t>(group.size()));
    if (!w.waitFor({kHostEventPicDone}, from, &got)) return std::fprintf(stderr, "run mode hung\n"), 1;
    const EditRange range = {0, keys.back()};
    const EditOffset offset = {0, 100};
    from = w.mark();
    if (!TSL_CutFile(t, argv[1], argv[2], &range, 1, &offset, 1, kCutKindMp4)) return std::fprintf(stderr, "cut refused\n"), 1;
    if (!w.waitFor({kHostEventCutDone, kHostEventCutFailed}, from, &got) || got != kHostEventCutDone)
        return std::fprintf(stderr, "cut failed: %d\n", got), 1;
    TSL_CancelFile(t);
    TSL_DestoryTessalo(t);
    std::puts("flow complete");
    return 0;
}
