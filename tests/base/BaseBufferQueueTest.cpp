#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "base/BaseBufferQueue.h"
#include "base/BaseThread.h"
#include "base/Results.h"

namespace {

// Every field derives from `n`, so a field lost or swapped in the ring shows.
struct Sample {
    std::vector<uint8_t> bytes;
    BaseBuffer buffer;
    Sample(int32_t size, int64_t n)
        : bytes(static_cast<size_t>(size), static_cast<uint8_t>(n)),
          buffer(bytes.data(), size, n, 0x40000100u + static_cast<uint32_t>(n), n - 7) {}
};

TEST(BaseBufferQueue, RefusalsLeaveTheRingUntouched) {
    BaseBufferQueue ring(1, 3);
    ASSERT_EQ(ring.allocBuffers(16), kOk);
    Sample fits(16, 1), other(16, 2), tooBig(17, 3);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(ring.push(&fits.buffer), kOk) << "exactly bufferSize fits";
    BaseBuffer noData(nullptr, 4, 0, 0, 0);
    EXPECT_EQ(ring.push(&tooBig.buffer), kErrBufferTooSmall);  // the size is tested before fullness
    EXPECT_EQ(ring.push(&other.buffer), kErrQueueState);
    EXPECT_EQ(ring.push(nullptr), kErrInvalidArgument);
    EXPECT_EQ(ring.push(&noData), kErrInvalidArgument);
    EXPECT_TRUE(ring.writeIndex == 0 && ring.readIndex == 0 && ring.count == 3);
    uint8_t block[16];
    BaseBuffer out(block, 0, 0, 0, 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(ring.pop(&out), kOk);
        EXPECT_TRUE(out.pts == 1 && block[15] == 1) << "slot " << i << " written by a refused push";
    }
    // Empty: a null target is refused before the emptiness, and a refused pop leaves the target alone.
    std::memset(block, 0x5A, sizeof block);
    BaseBuffer kept(block, 99, 98, 97, 96), nullData;
    EXPECT_EQ(ring.pop(&nullData), kErrInvalidArgument);
    EXPECT_EQ(ring.pop(nullptr), kErrInvalidArgument);
    EXPECT_EQ(ring.pop(&kept), kErrQueueState);
    EXPECT_TRUE(kept.size == 99 && kept.pts == 98 && kept.flags == 97u && kept.dts == 96 && block[0] == 0x5A);
}

TEST(BaseBufferQueue, FirstInFirstOutAcrossTheWrapWithFieldsIntact) {
    const int32_t capacity = 4;
    BaseBufferQueue ring(1, capacity);
    ASSERT_EQ(ring.allocBuffers(32), kOk);
    uint8_t block[32];
    int64_t nextIn = 0, nextOut = 0;
    // Three in, three out: the indices go round the ring several times.
    for (int round = 0; round < 9; ++round) {
        for (int i = 0; i < 3; ++i, ++nextIn) {
            Sample s(static_cast<int32_t>(1 + nextIn % 32), nextIn);
            ASSERT_EQ(ring.push(&s.buffer), kOk) << nextIn;
        }
        for (int i = 0; i < 3; ++i, ++nextOut) {
            std::memset(block, 0xEE, sizeof block);
            BaseBuffer out(block, 0, 0, 0, 0);
            ASSERT_EQ(ring.pop(&out), kOk);
            EXPECT_EQ(out.data, block);  // the caller's pointer stays
            EXPECT_EQ(out.size, 1 + nextOut % 32);
            EXPECT_TRUE(out.pts == nextOut && out.dts == nextOut - 7) << nextOut;
            EXPECT_EQ(out.flags, 0x40000100u + static_cast<uint32_t>(nextOut));
            for (int32_t b = 0; b < out.size; ++b) ASSERT_EQ(block[b], static_cast<uint8_t>(nextOut));
            EXPECT_TRUE(out.size == 32 || block[out.size] == 0xEE) << "copied past the sample";
        }
    }
    EXPECT_EQ(ring.count, 0);
    EXPECT_TRUE(ring.readIndex == ring.writeIndex && ring.readIndex == (9 * 3) % capacity);
}

class CountingThread : public BaseThread {
public:
    std::atomic<int> turns{0};
    std::atomic<bool> finished{false};
    void run() override {
        while (!stopRequested.load()) ++turns;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // a slow ending, which the join must wait for
        finished = true;
    }
};

TEST(BaseThread, TheEntryIgnoresANullObject) { EXPECT_EQ(threadEntry(nullptr), nullptr); }

TEST(BaseThread, RunsUntilAskedToStopAndTheJoinWaitsForItsEnd) {
    auto* thread = new CountingThread;
    std::unique_ptr<BaseThread> base(thread);  // goes through the virtual destructor
    ASSERT_TRUE(thread->startThread());
    while (thread->turns.load() == 0) {}
    thread->stopAndJoin();
    EXPECT_TRUE(thread->finished.load()) << "returned before the thread ended";
}

}  // namespace
