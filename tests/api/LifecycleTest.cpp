// The exports as a host meets them before and around any file: null handles,
// a new instance's answers, creation and destruction, and the symbol list.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "support/ProbeIndex.h"
#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

int32_t ignoreEvents(void*, int32_t) { return 0; }

TEST(NullHandle, EveryExportAnswersWithoutLookingFurther) {
    TessaloMediaInfo info;
    std::memset(&info, 0x5A, sizeof info);
    int64_t pts = 77, out[1] = {5};
    uint8_t isKey = 9, buffer[16] = {};
    EditRange range{0, 1000};
    EditOffset offsets[1] = {{1, 2}};
    int32_t outCount = 42;
    const std::string file = tsltest::media("main.mp4");
    TSL_DestoryTessalo(nullptr);
    TSL_SetOutputPicFormat(nullptr, 3);
    TSL_CancelFile(nullptr);
    TSL_GetMediaInfo(nullptr, &info);
    EXPECT_EQ(info.width, 0x5A5A5A5A);
    EXPECT_FALSE(TSL_StartPic(nullptr, file.c_str()));
    EXPECT_FALSE(TSL_GetPicByPts(nullptr, out, 1));
    EXPECT_EQ(TSL_GetOnePicSize(nullptr), -1);
    EXPECT_EQ(TSL_GetPic(nullptr, buffer, &pts, &isKey), -1);
    EXPECT_EQ(TSL_GetPicPts(nullptr), -1);
    EXPECT_EQ(TSL_GetKeyPtsCount(nullptr), -1);
    EXPECT_EQ(TSL_GetKeyPts(nullptr, out), -1);
    EXPECT_EQ(TSL_GetPtsCountByKeyPts(nullptr, 0), -1);
    EXPECT_EQ(TSL_GetPtsByKeyPts(nullptr, 0, out), -1);
    EXPECT_FALSE(TSL_CutFile(nullptr, file.c_str(), "/tmp/never.mp4", &range, 1, offsets, 1, kCutKindMp4));
    EXPECT_FALSE(TSL_GetEditOffsetPts(nullptr, offsets, 1, &outCount));
    EXPECT_TRUE(pts == 77 && isKey == 9 && out[0] == 5 && outCount == 42 && offsets[0].first == 1)
        << "nothing written through a null handle";
}

TEST(NewInstance, KnowsNothingYet) {
    EXPECT_EQ(TSL_CreateTessalo(nullptr, nullptr), nullptr) << "a callback is needed";
    void* handle = TSL_CreateTessalo(nullptr, &ignoreEvents);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(TSL_GetOnePicSize(handle), 0);
    EXPECT_EQ(TSL_GetPicPts(handle), -1);
    EXPECT_EQ(TSL_GetKeyPtsCount(handle), 0);
    int64_t out[1] = {5};
    EXPECT_EQ(TSL_GetKeyPts(handle, out), 0);
    EXPECT_EQ(TSL_GetPtsByKeyPts(handle, 0, out), 0);
    EXPECT_EQ(out[0], 5);

    unsigned char info[sizeof(TessaloMediaInfo)], zeros[sizeof info] = {};
    std::memset(info, 0xA5, sizeof info);
    TSL_GetMediaInfo(handle, reinterpret_cast<TessaloMediaInfo*>(info));
    EXPECT_EQ(std::memcmp(info, zeros, sizeof info), 0) << "48 zero bytes";

    uint8_t buffer[4] = {1, 2, 3, 4}, isKey = 7;
    int64_t pts = 99;
    EXPECT_EQ(TSL_GetPic(handle, buffer, &pts, &isKey), 0);
    EXPECT_TRUE(pts == -1 && isKey == 0 && buffer[0] == 1) << pts << " " << int{isKey};
    TSL_DestoryTessalo(handle);
}

TEST(Create, ManyInstancesComeAndGoWithoutAThread) {
    std::thread([] {}).join();  // TSan's helper thread, if any, starts with the first thread
    const size_t before = tsltest::threadCount();
    for (int i = 0; i < 300; ++i) {
        void* a = TSL_CreateTessalo(&i, &ignoreEvents);
        void* b = TSL_CreateTessalo(nullptr, &ignoreEvents);
        ASSERT_TRUE(a && b && a != b);
        EXPECT_EQ(tsltest::threadCount(), before) << "creating an instance starts no thread";
        TSL_DestoryTessalo(a);
        TSL_DestoryTessalo(b);
    }
    EXPECT_EQ(tsltest::threadCount(), before);
}

// Destruction in the middle of a walk returns after its threads have ended;
// the stopped walk may announce its part from inside the call, nothing after.
TEST(Create, DestructionMidWalkEndsEveryThread) {
    std::thread([] {}).join();  // as above
    const size_t before = tsltest::threadCount();
    for (int i = 0; i < 5; ++i) {
        tsltest::EventRecorder events;
        void* walking = TSL_CreateTessalo(&events, &tsltest::EventRecorder::callback);
        ASSERT_TRUE(TSL_StartPic(walking, tsltest::longWalkFile().c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventMediaInfo));
        EXPECT_GT(tsltest::threadCount(), before) << "the walk runs on threads of its own";
        TSL_DestoryTessalo(walking);
        EXPECT_EQ(tsltest::threadCount(), before);
        const auto seen = events.events();
        EXPECT_TRUE(seen == std::vector<int32_t>{kHostEventMediaInfo} ||
                    seen == (std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}));
    }
}

// A host that, inside every callback, calls the three exports that wait for
// the library's threads: each would wait for the thread it runs on (or for
// one that waits for it), so each refuses at once and changes nothing.
struct ReentrantHost {
    static int32_t callback(void* user, int32_t event) {
        auto* self = static_cast<ReentrantHost*>(user);
        const int64_t key = 0;
        const bool accepted = TSL_GetPicByPts(self->handle, &key, 1) || TSL_StartPic(self->handle, self->path.c_str());
        TSL_DestoryTessalo(self->handle);
        if (accepted) self->accepted.record(event);
        self->all.record(event);
        self->events.record(event);
        return 0;
    }
    std::string path = tsltest::media("main.mp4");
    tsltest::EventRecorder events, accepted, all;
    void* handle = TSL_CreateTessalo(this, &ReentrantHost::callback);
};

TEST(Reentrancy, WaitingExportsRefuseFromInsideEveryCallback) {
    ReentrantHost host;
    const auto finished = [&](std::initializer_list<int32_t> ends) { return host.events.waitForAny(ends) >= 0; };
    ASSERT_TRUE(TSL_StartPic(host.handle, "/nonexistent/reentrant.mp4"));
    ASSERT_TRUE(finished({kHostEventFileError}));
    host.events.clear();
    ASSERT_TRUE(TSL_StartPic(host.handle, host.path.c_str()));
    ASSERT_TRUE(finished({kHostEventIndexReady}));
    const int64_t key = 0, unknown[2] = {-5, -6};
    host.events.clear();
    ASSERT_TRUE(TSL_GetPicByPts(host.handle, &key, 1));  // PicStart, PicReady, PicDone
    ASSERT_TRUE(finished({kHostEventPicDone}));
    host.events.clear();
    ASSERT_TRUE(TSL_GetPicByPts(host.handle, unknown, 2));  // DecodeError for each, NoPic, PicDone
    ASSERT_TRUE(finished({kHostEventPicDone}));
    const std::string out = tsltest::scratchDir() + "/cut.mp4";
    const EditRange range{0, 1000};
    host.events.clear();
    ASSERT_TRUE(TSL_CutFile(host.handle, host.path.c_str(), out.c_str(), &range, 1, nullptr, 0, kCutKindMp4));
    ASSERT_TRUE(finished({kHostEventCutDone, kHostEventCutFailed}));
    TSL_CancelFile(host.handle);
    EXPECT_EQ(host.accepted.events(), std::vector<int32_t>{}) << "a waiting export was accepted in a callback";
    for (int32_t event : {kHostEventFileError, kHostEventMediaInfo, kHostEventIndexReady, kHostEventPicStart,
                          kHostEventPicReady, kHostEventDecodeError, kHostEventNoPic, kHostEventPicDone,
                          kHostEventCutDone})
        EXPECT_GT(host.all.count(event), 0u) << "no callback of event " << event;
    // The instance lived through every refused destruction and still serves.
    host.events.clear();
    ASSERT_TRUE(TSL_GetPicByPts(host.handle, &key, 1));
    ASSERT_TRUE(finished({kHostEventPicDone}));
    EXPECT_EQ(host.events.events(), (std::vector<int32_t>{kHostEventPicStart, kHostEventPicReady, kHostEventPicDone}));
    TSL_DestoryTessalo(host.handle);
}

TEST(SharedObject, ExportsExactlyTheSixteenFunctions) {
    int status = 0;
    const std::string symbols = tsltest::run("nm -D --defined-only " +
                                                 tsltest::shellQuote(std::string(TSL_BUILD_DIR) + "/libtessalo.so") +
                                                 " | awk '{print $3}' | sort | tr '\\n' ' '",
                                             &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(symbols,
              "TSL_CancelFile TSL_CreateTessalo TSL_CutFile TSL_DestoryTessalo TSL_GetEditOffsetPts TSL_GetKeyPts "
              "TSL_GetKeyPtsCount TSL_GetMediaInfo TSL_GetOnePicSize TSL_GetPic TSL_GetPicByPts TSL_GetPicPts "
              "TSL_GetPtsByKeyPts TSL_GetPtsCountByKeyPts TSL_SetOutputPicFormat TSL_StartPic ");
}

}  // namespace
