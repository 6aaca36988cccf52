// Walks meeting other requests: many walks in a row, a new file or a picture
// request while a walk runs, and destruction in the middle of a walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "support/ProbeIndex.h"
#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

size_t threadCount() {
    size_t n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++n;
    return n;
}

class Concurrency : public ::testing::Test {
protected:
    void SetUp() override {
        handle = TSL_CreateTessalo(&events, &tsltest::EventRecorder::callback);
        ASSERT_NE(handle, nullptr);
    }
    void TearDown() override {
        if (handle) TSL_DestoryTessalo(handle);
    }
    std::vector<int64_t> keyPts() {
        const int32_t count = TSL_GetKeyPtsCount(handle);
        std::vector<int64_t> out(static_cast<size_t>(std::max(count, 0)));
        EXPECT_EQ(TSL_GetKeyPts(handle, out.data()), count);
        return out;
    }
    tsltest::EventRecorder events;
    void* handle = nullptr;
};

TEST_F(Concurrency, TheEndOfAWalkIsNeverLost) {
    // A lost end leaves the worker asleep: the wait below would time out.
    const auto truth = tsltest::probeIndex(tsltest::media("tiny.mp4"));
    ASSERT_TRUE(truth.ok);
    const std::string tiny = tsltest::media("tiny.mp4");
    for (size_t i = 1; i <= 150; ++i) {
        ASSERT_TRUE(TSL_StartPic(handle, tiny.c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventIndexReady, i, std::chrono::seconds(20))) << "walk " << i;
        ASSERT_EQ(keyPts(), truth.keyPts()) << "walk " << i;
    }
    EXPECT_EQ(events.count(kHostEventMediaInfo), 150u);
    EXPECT_EQ(events.events().size(), 300u);
}

TEST_F(Concurrency, ANewFileDuringAWalkReplacesIt) {
    ASSERT_FALSE(tsltest::longWalkFile().empty());
    const auto tiny = tsltest::probeIndex(tsltest::media("tiny.mp4"));
    ASSERT_TRUE(tiny.ok);
    ASSERT_TRUE(TSL_StartPic(handle, tsltest::longWalkFile().c_str()));
    ASSERT_TRUE(events.waitFor(kHostEventMediaInfo));
    ASSERT_TRUE(TSL_StartPic(handle, tsltest::media("tiny.mp4").c_str()));
    // The old walk has ended inside the call; if it had a group, it announced
    // the part it indexed before the call returned, and never afterwards.
    const std::vector<int32_t> old = events.events();
    const size_t oldReady = events.count(kHostEventIndexReady);
    ASSERT_LE(oldReady, 1u);
    const std::vector<int32_t> oldExpected =
        oldReady ? std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}
                 : std::vector<int32_t>{kHostEventMediaInfo};
    EXPECT_EQ(old, oldExpected);

    ASSERT_TRUE(events.waitFor(kHostEventIndexReady, oldReady + 1));
    std::vector<int32_t> expected = old;
    expected.insert(expected.end(), {kHostEventMediaInfo, kHostEventIndexReady});
    EXPECT_EQ(events.events(), expected);
    EXPECT_EQ(keyPts(), tiny.keyPts()) << "nothing of the first file's index remains";
}

TEST_F(Concurrency, DestroyingDuringAWalkReturnsAfterEveryThreadHasEnded) {
    ASSERT_FALSE(tsltest::longWalkFile().empty());
    const size_t before = threadCount();
    for (int i = 0; i < 5; ++i) {
        tsltest::EventRecorder local;
        void* walking = TSL_CreateTessalo(&local, &tsltest::EventRecorder::callback);
        ASSERT_NE(walking, nullptr);
        ASSERT_TRUE(TSL_StartPic(walking, tsltest::longWalkFile().c_str()));
        ASSERT_TRUE(local.waitFor(kHostEventMediaInfo));
        EXPECT_GT(threadCount(), before) << "the walk runs on threads of its own";
        TSL_DestoryTessalo(walking);
        EXPECT_EQ(threadCount(), before);
        // The stopped walk may announce its part from inside the call, and nothing after it.
        const auto seen = local.events();
        EXPECT_TRUE(seen == std::vector<int32_t>{kHostEventMediaInfo} ||
                    seen == (std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}));
    }
}

}  // namespace
