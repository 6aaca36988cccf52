// The whole library on mutated MP4 bytes: a walk, then a key-mode and a
// run-mode picture request, then a cut, all through the exports. Each stage
// waits a bounded time; a stage that never ends is a hang and aborts.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "tessalo.h"

namespace {
struct Events {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int32_t> seen;
    void* handle = nullptr;
    std::vector<uint8_t> picture;
};

int32_t onEvent(void* user, int32_t event) {
    auto* e = static_cast<Events*>(user);
    if (event == kHostEventPicReady) {
        const int32_t size = TSL_GetOnePicSize(e->handle);
        if (size > 0) {
            e->picture.resize(static_cast<size_t>(size));
            int64_t pts;
            uint8_t key;
            TSL_GetPic(e->handle, e->picture.data(), &pts, &key);
        }
    }
    {
        std::lock_guard<std::mutex> lock(e->mutex);
        e->seen.push_back(event);
    }
    e->changed.notify_all();
    return 0;
}

// Waits for one of `ends` after position `from`; nothing at all for `quiet`
// means the stage produced no event (a walk with no video packet does that).
int32_t waitEnd(Events& e, size_t from, std::initializer_list<int32_t> ends, bool quietIsAnEnd) {
    std::unique_lock<std::mutex> lock(e.mutex);
    int32_t found = -1;
    auto done = [&] {
        for (size_t i = from; i < e.seen.size(); ++i)
            for (int32_t end : ends)
                if (e.seen[i] == end) return found = end, true;
        return false;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    size_t lastCount = e.seen.size();
    while (!done()) {
        if (e.changed.wait_for(lock, std::chrono::milliseconds(500)) == std::cv_status::timeout && quietIsAnEnd &&
            e.seen.size() == lastCount)
            return -1;
        lastCount = e.seen.size();
        if (std::chrono::steady_clock::now() > deadline) {
            std::fprintf(stderr, "a stage did not end within 20 s\n");
            std::abort();
        }
    }
    return found;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string dir = [] {
        char pattern[] = "/tmp/tessalo_fuzz_XXXXXX";
        return std::string(mkdtemp(pattern));
    }();
    const std::string input = dir + "/input.mp4", output = dir + "/out.mp4";
    if (FILE* f = std::fopen(input.c_str(), "wb")) {
        std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    Events e;
    void* t = TSL_CreateTessalo(&e, onEvent);
    e.handle = t;
    TSL_StartPic(t, input.c_str());
    const int32_t walk = waitEnd(e, 0,
                                 {kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec,
                                  kHostEventBadSampleRate, kHostEventBadChannels, kHostEventNoVideo},
                                 true);
    if (walk == kHostEventIndexReady) {
        std::vector<int64_t> keys(static_cast<size_t>(TSL_GetKeyPtsCount(t)));
        if (!keys.empty() && TSL_GetKeyPts(t, keys.data()) == static_cast<int32_t>(keys.size())) {
            size_t from = e.seen.size();
            TSL_SetOutputPicFormat(t, 3);
            if (TSL_GetPicByPts(t, keys.data(), static_cast<int32_t>(keys.size())))
                waitEnd(e, from, {kHostEventPicDone, kHostEventFileError, kHostEventError}, false);
            std::vector<int64_t> group(static_cast<size_t>(TSL_GetPtsCountByKeyPts(t, keys[0])));
            if (!group.empty() && TSL_GetPtsByKeyPts(t, keys[0], group.data()) > 0) {
                from = e.seen.size();
                if (TSL_GetPicByPts(t, group.data(), static_cast<int32_t>(group.size())))
                    waitEnd(e, from, {kHostEventPicDone, kHostEventFileError, kHostEventError}, false);
            }
            const EditRange range = {keys.front(), keys.back() + 1000};
            from = e.seen.size();
            if (TSL_CutFile(t, input.c_str(), output.c_str(), &range, 1, nullptr, 0, kCutKindMp4))
                waitEnd(e, from, {kHostEventCutDone, kHostEventCutFailed}, false);
            TSL_CancelFile(t);
            // Half the inputs are also cut frame-exactly from inside the first group: the damaged samples
            // go through the decoder and the pictures made of them through the encoder.
            if (size % 2) {
                const EditRange inside = {keys.front() + 30, keys.front() + 400};
                from = e.seen.size();
                if (TSL_CutFile(t, input.c_str(), output.c_str(), &inside, 1, nullptr, 0, kCutKindExact))
                    waitEnd(e, from, {kHostEventCutDone, kHostEventCutFailed}, false);
                TSL_CancelFile(t);
            }
        }
    }
    TSL_DestoryTessalo(t);
    return 0;
}
