// Calls a host makes around a running cut, through the exports: from inside the done event, which runs on
// the muxer thread while the cut thread waits for it, and a new walk while a cut still reads the index.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

struct Host {
    static int32_t onEvent(void* user, int32_t event) {
        auto* self = static_cast<Host*>(user);
        if (event == kHostEventCutDone && self->insideDone) self->insideDone(self->handle);
        self->events.record(event);
        return 0;
    }
    Host() { handle = TSL_CreateTessalo(this, &Host::onEvent); }
    ~Host() { TSL_DestoryTessalo(handle); }
    bool index(const std::string& file) {
        return TSL_StartPic(handle, file.c_str()) && events.waitFor(kHostEventIndexReady);
    }
    bool cut(const std::string& src, const std::string& dst, EditRange range) {
        return TSL_CutFile(handle, src.c_str(), dst.c_str(), &range, 1, nullptr, 0, kCutKindSynced);
    }

    void* handle = nullptr;
    void (*insideDone)(void* handle) = nullptr;
    tsltest::EventRecorder events;
};

std::atomic<int> calledInside{0};
std::atomic<bool> cutInside{true};

// Neither waits for a thread that waits for the callback: the cut is refused, the cancel only asks the
// finished job to stop, and the job's own thread releases it.
TEST(CutCallbacks, CancelAndCutFromInsideDoneReturnAtOnce) {
    const std::string src = tsltest::media("main.mp4"), dir = tsltest::scratchDir();
    const size_t threads = tsltest::threadCount();
    {
        Host host;
        ASSERT_TRUE(host.index(src));
        host.insideDone = [](void* handle) {
            TSL_CancelFile(handle);
            const EditRange range{0, 1000};
            cutInside = TSL_CutFile(handle, tsltest::media("main.mp4").c_str(), "/nonexistent/x.mp4", &range, 1,
                                    nullptr, 0, kCutKindSynced);
            TSL_CancelFile(handle);
            ++calledInside;
        };
        ASSERT_TRUE(host.cut(src, dir + "/out.mp4", {1000, 3000}));
        ASSERT_TRUE(host.events.waitFor(kHostEventCutDone));
        EXPECT_EQ(calledInside.load(), 1);
        EXPECT_FALSE(cutInside.load());
        TSL_CancelFile(host.handle);  // joins the cut thread, which has released its job
        EXPECT_EQ(tsltest::decodeErrors(dir + "/out.mp4"), "");
        host.insideDone = nullptr;
        ASSERT_TRUE(host.cut(src, dir + "/again.mp4", {0, 2000}));  // the engine takes the next job
        EXPECT_TRUE(host.events.waitFor(kHostEventCutDone, 2));
    }
    EXPECT_EQ(tsltest::threadCount(), threads);
}

// The cut reads the index that a new walk clears: the walk stops the cut first, and no outcome of that cut
// comes after it.
TEST(CutCallbacks, ANewWalkStopsARunningCutFirst) {
    const std::string dir = tsltest::scratchDir();
    Host host;
    ASSERT_TRUE(host.index(tsltest::media("large.mp4")));
    ASSERT_TRUE(host.cut(tsltest::media("large.mp4"), dir + "/out.mp4", {0, 3000}));
    ASSERT_TRUE(TSL_StartPic(host.handle, tsltest::media("main.mp4").c_str()));
    const size_t outcomes = host.events.count(kHostEventCutDone) + host.events.count(kHostEventCutFailed);
    ASSERT_TRUE(host.events.waitFor(kHostEventIndexReady, 2));
    EXPECT_EQ(host.events.count(kHostEventCutDone) + host.events.count(kHostEventCutFailed), outcomes);
    EXPECT_GT(TSL_GetKeyPtsCount(host.handle), 0);
}

}  // namespace
