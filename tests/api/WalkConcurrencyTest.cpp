// Walks meeting other requests: many walks in a row, a new file or a picture
// request while a walk runs, and destruction in the middle of a walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "instance/ProbeIndex.h"
#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

size_t threadCount() {
    size_t n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++n;
    return n;
}

// A file with many small packets, so that a walk lasts long enough to be
// interrupted: five minutes of 64x48 video at 50 fps, a key every 25.
// Made once with the ffmpeg tool and kept in the build tree.
const std::string& longFile() {
    static const std::string path = [] {
        const std::filesystem::path file = std::filesystem::path(TSL_BUILD_DIR) / "scratch" / "long_walk.mp4";
        if (!std::filesystem::exists(file)) {
            std::filesystem::create_directories(file.parent_path());
            const std::string tmp = file.string() + ".tmp.mp4";
            int status = 0;
            tsltest::run("ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc2=size=64x48:rate=50:duration=300 "
                         "-c:v libx264 -preset ultrafast -bf 2 -g 25 -pix_fmt yuv420p " + tsltest::shellQuote(tmp),
                         &status);
            if (status == 0) std::filesystem::rename(tmp, file);
        }
        return file.string();
    }();
    return path;
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
    ASSERT_FALSE(longFile().empty());
    const auto tiny = tsltest::probeIndex(tsltest::media("tiny.mp4"));
    ASSERT_TRUE(tiny.ok);
    ASSERT_TRUE(TSL_StartPic(handle, longFile().c_str()));
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

TEST_F(Concurrency, APictureRequestStopsTheWalkWhichAnnouncesItsUnsortedPart) {
    const auto truth = tsltest::probeIndex(longFile());
    ASSERT_TRUE(truth.ok);
    // The stop has to land while the reader is inside the file: a pause after
    // the media information lets it index a part first. Too short a pause
    // finds nothing indexed, too long a one a finished walk; both are retried
    // with another pause. The pause only makes the interesting case likely,
    // nothing is concluded from it.
    for (int pauseMs : {20, 5, 60, 2, 120, 10, 40}) {
        tsltest::EventRecorder local;
        void* walking = TSL_CreateTessalo(&local, &tsltest::EventRecorder::callback);
        ASSERT_NE(walking, nullptr);
        ASSERT_TRUE(TSL_StartPic(walking, longFile().c_str()));
        ASSERT_TRUE(local.waitFor(kHostEventMediaInfo));
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        const int64_t asked[1] = {0};
        ASSERT_TRUE(TSL_GetPicByPts(walking, asked, 1));
        // The walk ended inside the call: its announcement, if any, is in.
        const std::vector<int32_t> beforeFetch = local.events();
        ASSERT_TRUE(local.waitFor(kHostEventPicStart));
        const size_t groups = static_cast<size_t>(TSL_GetKeyPtsCount(walking));
        if (groups == 0) {
            EXPECT_EQ(beforeFetch, std::vector<int32_t>{kHostEventMediaInfo}) << "an empty index is not announced";
        } else {
            EXPECT_EQ(beforeFetch, (std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}));
            EXPECT_EQ(local.events()[2], kHostEventPicStart);
        }
        if (groups == 0 || groups >= truth.keyGroups.size()) {
            TSL_DestoryTessalo(walking);
            continue;
        }

        // Each group is reported in arrival order, never sorted; the last one may be short.
        std::vector<int64_t> keys(groups);
        ASSERT_EQ(TSL_GetKeyPts(walking, keys.data()), static_cast<int32_t>(groups));
        for (size_t g = 0; g < groups; ++g) {
            const auto& stream = truth.keyGroups[g];
            EXPECT_EQ(keys[g], stream.front().pts);
            const int32_t count = TSL_GetPtsCountByKeyPts(walking, keys[g]);
            ASSERT_GE(count, 1);
            ASSERT_LE(static_cast<size_t>(count), stream.size());
            if (g + 1 < groups) {
                EXPECT_EQ(static_cast<size_t>(count), stream.size());
            }
            std::vector<int64_t> pts(static_cast<size_t>(count));
            ASSERT_EQ(TSL_GetPtsByKeyPts(walking, keys[g], pts.data()), count);
            for (size_t i = 0; i < pts.size(); ++i) EXPECT_EQ(pts[i], stream[i].pts) << "group " << g << " at " << i;
        }
        TSL_DestoryTessalo(walking);
        return;
    }
    GTEST_SKIP() << "no stop landed inside a walk";
}

TEST_F(Concurrency, DestroyingDuringAWalkReturnsAfterEveryThreadHasEnded) {
    ASSERT_FALSE(longFile().empty());
    const size_t before = threadCount();
    for (int i = 0; i < 5; ++i) {
        tsltest::EventRecorder local;
        void* walking = TSL_CreateTessalo(&local, &tsltest::EventRecorder::callback);
        ASSERT_NE(walking, nullptr);
        ASSERT_TRUE(TSL_StartPic(walking, longFile().c_str()));
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
