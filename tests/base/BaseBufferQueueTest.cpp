#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "base/BaseBufferQueue.h"
#include "base/BasePacket.h"
#include "base/BaseThread.h"
#include "base/Results.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace {

struct Sample {
    std::vector<uint8_t> bytes;
    BaseBuffer buffer;
    Sample(int32_t size, uint8_t fill, int64_t pts) : bytes(static_cast<size_t>(size ? size : 1), fill) {
        buffer = BaseBuffer(bytes.data(), size, pts, 0x40000100u + static_cast<uint32_t>(pts), pts - 7);
    }
};

struct RingState {
    int32_t writeIndex, readIndex, count;
    bool operator==(const RingState& o) const {
        return writeIndex == o.writeIndex && readIndex == o.readIndex && count == o.count;
    }
};
RingState stateOf(const BaseBufferQueue& q) { return {q.writeIndex, q.readIndex, q.count}; }

TEST(BaseBufferQueue, RefusalsLeaveTheRingUntouchedAndTestSizeBeforeFullness) {
    BaseBufferQueue ring(1, 3);
    ring.allocBuffers(16);
    Sample ok(16, 0xAB, 1), tooBig(17, 0xCD, 2);
    EXPECT_EQ(ring.push(&ok.buffer), kOk);  // exactly bufferSize fits
    EXPECT_EQ(ring.push(&ok.buffer), kOk);
    EXPECT_EQ(ring.push(&ok.buffer), kOk);
    const RingState full = stateOf(ring);
    EXPECT_EQ(ring.push(&tooBig.buffer), kErrBufferTooSmall);  // size first, even when full
    EXPECT_EQ(ring.push(&ok.buffer), kErrQueueState);
    EXPECT_EQ(ring.push(nullptr), kErrInvalidArgument);
    BaseBuffer noData(nullptr, 4, 0, 0, 0);
    EXPECT_EQ(ring.push(&noData), kErrInvalidArgument);
    EXPECT_TRUE(stateOf(ring) == full);
    EXPECT_EQ(ring.count, 3);
}

TEST(BaseBufferQueue, BeforeAllocBuffersEveryNonEmptySampleIsTooLarge) {
    BaseBufferQueue ring(0, 2);
    Sample one(1, 1, 0);
    EXPECT_EQ(ring.bufferSize, 0);
    EXPECT_EQ(ring.push(&one.buffer), kErrBufferTooSmall);
    EXPECT_EQ(ring.count, 0);
}

TEST(BaseBufferQueue, PopRefusalsLeaveTargetAndRingAlone) {
    BaseBufferQueue ring(0, 2);
    ring.allocBuffers(8);
    uint8_t block[8];
    std::memset(block, 0x5A, sizeof block);
    BaseBuffer out(block, 99, 98, 97, 96);
    EXPECT_EQ(ring.pop(&out), kErrQueueState);  // empty
    EXPECT_EQ(out.size, 99);
    EXPECT_EQ(out.pts, 98);
    EXPECT_EQ(out.flags, 97u);
    EXPECT_EQ(out.dts, 96);
    EXPECT_EQ(block[0], 0x5A);
    BaseBuffer nullData;
    EXPECT_EQ(ring.pop(&nullData), kErrInvalidArgument);  // null target beats empty
    EXPECT_EQ(ring.pop(nullptr), kErrInvalidArgument);
}

TEST(BaseBufferQueue, FirstInFirstOutAcrossTheWrapWithFieldsIntact) {
    const int32_t capacity = 4;
    BaseBufferQueue ring(1, capacity);
    ASSERT_EQ(ring.allocBuffers(32), kOk);
    uint8_t block[32];
    int64_t nextIn = 0, nextOut = 0;
    // Uneven pushes and pops walk the indices around the ring several times.
    for (int round = 0; round < 9; ++round) {
        for (int i = 0; i < 3; ++i, ++nextIn) {
            Sample s(static_cast<int32_t>(1 + nextIn % 32), static_cast<uint8_t>(nextIn), nextIn);
            ASSERT_EQ(ring.push(&s.buffer), kOk) << nextIn;
        }
        for (int i = 0; i < 3; ++i, ++nextOut) {
            std::memset(block, 0xEE, sizeof block);
            BaseBuffer out(block, 0, 0, 0, 0);
            ASSERT_EQ(ring.pop(&out), kOk);
            EXPECT_EQ(out.data, block);  // the caller's pointer stays
            EXPECT_EQ(out.size, 1 + nextOut % 32);
            EXPECT_EQ(out.pts, nextOut);
            EXPECT_EQ(out.dts, nextOut - 7);
            EXPECT_EQ(out.flags, 0x40000100u + static_cast<uint32_t>(nextOut));
            for (int32_t b = 0; b < out.size; ++b) ASSERT_EQ(block[b], static_cast<uint8_t>(nextOut));
            EXPECT_EQ(block[out.size < 32 ? out.size : 31], out.size < 32 ? 0xEE : static_cast<uint8_t>(nextOut));
        }
    }
    EXPECT_EQ(ring.count, 0);
    EXPECT_EQ(ring.readIndex, ring.writeIndex);
    EXPECT_EQ(ring.readIndex, (9 * 3) % capacity);
}

TEST(BaseBufferQueue, CapacityPushesAndPopsReturnTheIndicesToZero) {
    BaseBufferQueue ring(0, 5);
    ring.allocBuffers(4);
    Sample s(4, 9, 3);
    uint8_t block[4];
    BaseBuffer out(block, 0, 0, 0, 0);
    for (int i = 0; i < 5; ++i) ASSERT_EQ(ring.push(&s.buffer), kOk);
    EXPECT_EQ(ring.push(&s.buffer), kErrQueueState);
    for (int i = 0; i < 5; ++i) ASSERT_EQ(ring.pop(&out), kOk);
    EXPECT_EQ(ring.writeIndex, 0);
    EXPECT_EQ(ring.readIndex, 0);
    EXPECT_EQ(ring.pop(&out), kErrQueueState);
}

TEST(BasePacket, OwnsItsBlockButBufferDoesNot) {
    uint8_t mine[4] = {1, 2, 3, 4};
    { BaseBuffer b(mine, 4, 0, 0, 0); }
    EXPECT_EQ(mine[3], 4);  // still ours; ASan would flag a free of a stack block
    { Morvel_Tessalo::VideoPacket empty; EXPECT_EQ(empty.data, nullptr); }
    {
        Morvel_Tessalo::VideoPacket p;  // LSan checks that the block is freed
        p.data = static_cast<uint8_t*>(av_malloc(64));
        p.size = 64;
        EXPECT_EQ(p.width, 0);
        EXPECT_EQ(p.keyFrame, false);
    }
}

class CountingThread : public BaseThread {
public:
    std::atomic<int> turns{0};
    void run() override {
        while (!stopRequested.load()) ++turns;
    }
};

TEST(BaseThread, RunsUntilAskedToStopAndEntryIgnoresNull) {
    EXPECT_EQ(threadEntry(nullptr), nullptr);
    auto* thread = new CountingThread;
    ASSERT_TRUE(thread->startThread());
    while (thread->turns.load() == 0) {}
    thread->stopAndJoin();
    const int after = thread->turns.load();
    EXPECT_GT(after, 0);
    BaseThread* base = thread;
    delete base;  // through the virtual destructor
}

}  // namespace
