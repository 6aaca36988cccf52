// Allocation failures on the library's threads. This program replaces
// operator new: while `failing` is set, every throwing allocation on a thread
// other than the test's own (and not exempted) throws, as it would with no
// memory left. The instance must turn that into the job's failure event, stay
// usable, and refuse a re-entrant call made from that event.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>

#include "instance/TessaloImpl.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

std::atomic<bool> failing{false};
const std::thread::id testThread = std::this_thread::get_id();
thread_local bool exempt = false;

bool mustFail() { return failing.load() && !exempt && std::this_thread::get_id() != testThread; }

// Counts events without allocating: it runs where allocation fails.
struct Counter {
    static int32_t callback(void* user, int32_t event) {
        auto* self = static_cast<Counter*>(user);
        if (event == kHostEventMediaInfo && self->failAfterMediaInfo) {
            exempt = true;  // the worker still starts the reader; the reader fails
            failing = true;
        }
        if (event == kHostEventError && self->impl)
            self->refusedInside = !self->impl->startPic(self->tiny.c_str());
        if (event >= 0 && event < 16) ++self->seen[static_cast<size_t>(event)];
        return 0;
    }
    bool waitFor(int32_t event, int times = 1) const {
        for (int i = 0; i < 3000 && seen[static_cast<size_t>(event)] < times; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return seen[static_cast<size_t>(event)] >= times;
    }
    std::array<std::atomic<int>, 16> seen{};
    std::atomic<bool> refusedInside{false};
    bool failAfterMediaInfo = false;
    TessaloImpl* impl = nullptr;
    const std::string tiny = tsltest::media("tiny.mp4");
};

}  // namespace

// Every block of these replacements comes from malloc and goes back with free;
// GCC, inlining the deletes into code it compiled against the built-in new,
// cannot see that and warns of a mismatch.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t size) {
    if (mustFail()) throw std::bad_alloc();
    if (void* block = std::malloc(size ? size : 1)) return block;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size ? size : 1); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size ? size : 1); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

// The worker of a picture request cannot make its decoder: the request fails
// with kHostEventError and no PicDone; the next request is served.
TEST(AllocationFailure, OnTheWorkerFailsThatRequestOnly) {
    Counter counter;
    TessaloImpl impl(&counter, &Counter::callback);
    ASSERT_TRUE(impl.startPic(tsltest::media("main.mp4").c_str()) && counter.waitFor(kHostEventIndexReady));
    const int64_t key = 0;
    failing = true;
    ASSERT_TRUE(impl.getPicByPts(&key, 1));
    EXPECT_TRUE(counter.waitFor(kHostEventError));
    failing = false;
    ASSERT_TRUE(impl.getPicByPts(&key, 1));  // joins the failed worker first
    EXPECT_TRUE(counter.waitFor(kHostEventPicDone));
    impl.stopWorker();
    EXPECT_EQ(counter.seen[kHostEventPicStart], 2);
    EXPECT_EQ(counter.seen[kHostEventPicReady], 1);
    EXPECT_EQ(counter.seen[kHostEventPicDone], 1);
}

// The reader cannot grow the index: kHostEventError on the reader's thread,
// inside which TSL_StartPic's operation refuses instead of waiting for that
// very thread; the walk ends at the next stop and the instance walks again.
TEST(AllocationFailure, OnTheReaderFailsTheWalkAndRefusesAReentrantStart) {
    Counter counter;
    TessaloImpl impl(&counter, &Counter::callback);
    counter.impl = &impl;
    counter.failAfterMediaInfo = true;
    ASSERT_TRUE(impl.startPic(tsltest::media("main.mp4").c_str()));
    EXPECT_TRUE(counter.waitFor(kHostEventError));
    failing = false;
    EXPECT_TRUE(counter.refusedInside);
    counter.impl = nullptr;
    counter.failAfterMediaInfo = false;
    ASSERT_TRUE(impl.startPic(counter.tiny.c_str()));
    EXPECT_TRUE(counter.waitFor(kHostEventIndexReady));
    impl.stopWorker();
    EXPECT_EQ(impl.keyGroups.size(), 1u);
}
