// One short end-to-end flow through the exports, for valgrind memcheck:
// index a file, one key-mode and one run-mode picture request, one cut.
// Usage: flow_once FILE OUT.mp4   (exit 0 when every step ended as expected)
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "tessalo.h"

namespace {
void* gHandle = nullptr;
std::atomic<int32_t> gLast{-1};  // the latest event; a step's ending event stays the latest until the next step

int32_t onEvent(void*, int32_t event) {
    if (event == kHostEventPicReady) {
        std::vector<uint8_t> picture(static_cast<size_t>(TSL_GetOnePicSize(gHandle)));
        int64_t pts;
        uint8_t key;
        TSL_GetPic(gHandle, picture.data(), &pts, &key);
    }
    if (event == kHostEventCutDone) {
        EditOffset offsets[1];
        int32_t count = 0;
        TSL_GetEditOffsetPts(gHandle, offsets, 1, &count);
    }
    gLast = event;
    return 0;
}

// Waits up to two minutes for the step under way to end in one of `ends`; returns that end, or -1.
int32_t await(std::initializer_list<int32_t> ends) {
    for (int waited = 0; waited < 120000; waited += 5) {
        const int32_t e = gLast.load();
        if (std::find(ends.begin(), ends.end(), e) != ends.end()) {
            gLast = -1;
            return e;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return -1;
}

int failed(const char* step) {
    std::fprintf(stderr, "%s\n", step);
    return 1;
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    void* t = TSL_CreateTessalo(nullptr, onEvent);
    gHandle = t;
    TSL_StartPic(t, argv[1]);
    if (await({kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec}) !=
        kHostEventIndexReady)
        return failed("walk failed");
    std::vector<int64_t> keys(static_cast<size_t>(TSL_GetKeyPtsCount(t)));
    TSL_GetKeyPts(t, keys.data());
    TSL_SetOutputPicFormat(t, 3);
    TSL_GetPicByPts(t, keys.data(), static_cast<int32_t>(keys.size()));
    if (await({kHostEventPicDone}) < 0) return failed("key mode hung");
    std::vector<int64_t> group(static_cast<size_t>(TSL_GetPtsCountByKeyPts(t, keys[0])));
    TSL_GetPtsByKeyPts(t, keys[0], group.data());
    TSL_GetPicByPts(t, group.data(), static_cast<int32_t>(group.size()));
    if (await({kHostEventPicDone}) < 0) return failed("run mode hung");
    const EditRange range = {0, keys.back()};
    const EditOffset offset = {0, 100};
    if (!TSL_CutFile(t, argv[1], argv[2], &range, 1, &offset, 1, kCutKindMp4)) return failed("cut refused");
    if (await({kHostEventCutDone, kHostEventCutFailed}) != kHostEventCutDone) return failed("cut failed");
    TSL_CancelFile(t);
    TSL_DestoryTessalo(t);
    std::puts("flow complete");
    return 0;
}
