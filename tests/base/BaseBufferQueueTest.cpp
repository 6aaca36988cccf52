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
        : bytes(size_t(size), uint8_t(n)), buffer(bytes.data(), size, n, 0x40000100u + uint32_t(n), n - 7) {}
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
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(ring.pop(&out) == kOk && out.pts == 1 && block[15] == 1) << "slot " << i << " lost or overwritten";
    // Empty: a null target is refused before the emptiness, and a refused pop leaves the target alone.
    std::memset(block, 0x5A, sizeof block);
    BaseBuffer kept(block, 99, 98, 97, 96), nullData;
    EXPECT_EQ(ring.pop(&nullData), kErrInvalidArgument);
    EXPECT_EQ(ring.pop(nullptr), kErrInvalidArgument);
    EXPECT_EQ(ring.pop(&kept), kErrQueueState);
    EXPECT_TRUE(kept.size == 99 && kept.pts == 98 && kept.flags == 97u && kept.dts == 96 && block[0] == 0x5A);
}

// Three in, three out, nine times: the indices go round the ring of four several times.
TEST(BaseBufferQueue, FirstInFirstOutAcrossTheWrapWithFieldsIntact) {
    BaseBufferQueue ring(1, 4);
    ASSERT_EQ(ring.allocBuffers(32), kOk);
    int64_t nextIn = 0, nextOut = 0;
    for (int round = 0; round < 9; ++round) {
        for (int i = 0; i < 3; ++i, ++nextIn) {
            Sample in(int32_t(1 + nextIn % 32), nextIn);
            ASSERT_EQ(ring.push(&in.buffer), kOk) << nextIn;
        }
        for (int i = 0; i < 3; ++i, ++nextOut) {
            const Sample want(int32_t(1 + nextOut % 32), nextOut);
            std::vector<uint8_t> block(32, 0xEE), expected = want.bytes;
            expected.resize(block.size(), 0xEE);  // nothing copied past the sample
            BaseBuffer out(block.data(), 0, 0, 0, 0);
            ASSERT_EQ(ring.pop(&out), kOk);
            EXPECT_EQ(out.data, block.data());  // the caller's pointer stays
            EXPECT_TRUE(out.size == want.buffer.size && out.pts == nextOut && out.dts == nextOut - 7 &&
                        out.flags == want.buffer.flags) << nextOut;
            EXPECT_EQ(block, expected) << nextOut;
        }
    }
    EXPECT_TRUE(ring.count == 0 && ring.readIndex == ring.writeIndex && ring.readIndex == 27 % 4);
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
