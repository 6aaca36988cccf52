// The exports as a host meets them before and around any file: null handles,
// a new instance's answers, refused arguments, creation and destruction.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

int32_t ignoreEvents(void*, int32_t) { return 0; }

TEST(NullHandle, EveryExportAnswersWithoutLookingFurther) {
    TessaloMediaInfo info;
    std::memset(&info, 0x5A, sizeof info);
    uint8_t buffer[16] = {};
    int64_t pts = 77;
    uint8_t isKey = 9;
    int64_t out[4] = {5, 5, 5, 5};
    const int64_t asked[1] = {0};
    EditRange range{0, 1000};
    EditOffset offsets[2] = {{1, 2}, {3, 4}};
    int32_t outCount = 42;

    TSL_DestoryTessalo(nullptr);
    EXPECT_FALSE(TSL_StartPic(nullptr, tsltest::media("main.mp4").c_str()));
    TSL_GetMediaInfo(nullptr, &info);
    EXPECT_EQ(info.width, 0x5A5A5A5A);
    EXPECT_FALSE(TSL_GetPicByPts(nullptr, asked, 1));
    EXPECT_EQ(TSL_GetOnePicSize(nullptr), -1);
    EXPECT_EQ(TSL_GetPic(nullptr, buffer, &pts, &isKey), -1);
    EXPECT_EQ(pts, 77);
    EXPECT_EQ(isKey, 9);
    EXPECT_EQ(TSL_GetPicPts(nullptr), int64_t{-1});
    TSL_SetOutputPicFormat(nullptr, 3);
    EXPECT_EQ(TSL_GetKeyPtsCount(nullptr), -1);
    EXPECT_EQ(TSL_GetKeyPts(nullptr, out), -1);
    EXPECT_EQ(TSL_GetPtsCountByKeyPts(nullptr, 0), -1);
    EXPECT_EQ(TSL_GetPtsByKeyPts(nullptr, 0, out), -1);
    EXPECT_EQ(out[0], 5);
    EXPECT_FALSE(TSL_CutFile(nullptr, tsltest::media("main.mp4").c_str(), "/tmp/never.mp4", &range, 1, offsets, 2,
                             kCutKindMp4));
    TSL_CancelFile(nullptr);
    EXPECT_FALSE(TSL_GetEditOffsetPts(nullptr, offsets, 2, &outCount));
    EXPECT_EQ(outCount, 42);
    EXPECT_EQ(offsets[0].first, 1);
}

TEST(Create, NeedsACallbackButNoUserPointer) {
    int user = 0;
    EXPECT_EQ(TSL_CreateTessalo(&user, nullptr), nullptr);

    // A null user comes back as null in each event.
    static std::vector<void*> users;
    users.clear();
    void* handle = TSL_CreateTessalo(nullptr, [](void* user, int32_t) -> int32_t {
        users.push_back(user);
        return 0;
    });
    ASSERT_NE(handle, nullptr);
    ASSERT_TRUE(TSL_StartPic(handle, "/nonexistent/tessalo/missing.mp4"));
    TSL_DestoryTessalo(handle);  // joins the worker: its events are all in
    ASSERT_EQ(users.size(), 1u);
    EXPECT_EQ(users[0], nullptr);
}

TEST(NewInstance, KnowsNothingYet) {
    void* handle = TSL_CreateTessalo(nullptr, &ignoreEvents);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(TSL_GetOnePicSize(handle), 0);
    EXPECT_EQ(TSL_GetPicPts(handle), int64_t{-1});
    EXPECT_EQ(TSL_GetKeyPtsCount(handle), 0);
    int64_t out[2] = {5, 5};
    EXPECT_EQ(TSL_GetKeyPts(handle, out), 0);
    EXPECT_EQ(TSL_GetPtsCountByKeyPts(handle, 0), 0);
    EXPECT_EQ(TSL_GetPtsByKeyPts(handle, 0, out), 0);
    EXPECT_EQ(out[0], 5);

    unsigned char info[sizeof(TessaloMediaInfo)];
    std::memset(info, 0xA5, sizeof info);
    TSL_GetMediaInfo(handle, reinterpret_cast<TessaloMediaInfo*>(info));
    const unsigned char zeros[sizeof info] = {};
    EXPECT_EQ(std::memcmp(info, zeros, sizeof info), 0) << "48 zero bytes";
    TSL_GetMediaInfo(handle, nullptr);

    uint8_t buffer[4] = {1, 2, 3, 4};
    int64_t pts = 99;
    uint8_t isKey = 7;
    EXPECT_EQ(TSL_GetPic(handle, buffer, &pts, &isKey), 0);
    EXPECT_EQ(pts, -1);
    EXPECT_EQ(isKey, 0);
    EXPECT_EQ(buffer[0], 1) << "no picture, nothing copied";

    pts = 99;
    isKey = 7;
    EXPECT_EQ(TSL_GetPic(handle, nullptr, &pts, &isKey), -1);
    EXPECT_EQ(pts, 99);
    EXPECT_EQ(isKey, 7);
    TSL_DestoryTessalo(handle);
}

TEST(NewInstance, APictureRequestWithoutAFileFailsWithoutPicDone) {
    tsltest::EventRecorder events;
    void* handle = TSL_CreateTessalo(&events, &tsltest::EventRecorder::callback);
    ASSERT_NE(handle, nullptr);
    const int64_t asked[1] = {0};
    ASSERT_TRUE(TSL_GetPicByPts(handle, asked, 1));
    ASSERT_NE(events.waitForAny({kHostEventFileError, kHostEventPicDone}), -1);
    TSL_DestoryTessalo(handle);  // joins the request: its events are all in
    EXPECT_EQ(events.events(), (std::vector<int32_t>{kHostEventPicStart, kHostEventFileError}));
}

TEST(Arguments, OutsideTheInterfaceAreRefusedWithoutAnEvent) {
    tsltest::EventRecorder events;
    void* handle = TSL_CreateTessalo(&events, &tsltest::EventRecorder::callback);
    ASSERT_NE(handle, nullptr);
    const int64_t asked[1] = {0};
    EXPECT_FALSE(TSL_StartPic(handle, nullptr));
    EXPECT_FALSE(TSL_GetPicByPts(handle, asked, 0));
    EXPECT_FALSE(TSL_GetPicByPts(handle, asked, -3));
    EXPECT_FALSE(TSL_GetPicByPts(handle, nullptr, 1));

    EditOffset offsets[1] = {{8, 9}};
    int32_t outCount = 42;
    EXPECT_FALSE(TSL_GetEditOffsetPts(handle, offsets, 0, &outCount));
    EXPECT_FALSE(TSL_GetEditOffsetPts(handle, nullptr, 1, &outCount));
    EXPECT_EQ(outCount, 42);
    // No cut job has run: the engine holds no offsets.
    EXPECT_FALSE(TSL_GetEditOffsetPts(handle, offsets, 1, &outCount));
    TSL_CancelFile(handle);
    TSL_DestoryTessalo(handle);
    EXPECT_TRUE(events.events().empty());
}

size_t threadCount() {
    size_t n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++n;
    return n;
}

TEST(Create, ManyInstancesComeAndGoWithoutThreads) {
    const size_t before = threadCount();
    for (int i = 0; i < 300; ++i) {
        void* handle = TSL_CreateTessalo(&i, &ignoreEvents);
        ASSERT_NE(handle, nullptr);
        if (i % 3 == 0) {
            EXPECT_EQ(threadCount(), before) << "creating an instance starts no thread";
        }
        TSL_DestoryTessalo(handle);
    }
    // Several side by side.
    void* a = TSL_CreateTessalo(nullptr, &ignoreEvents);
    void* b = TSL_CreateTessalo(nullptr, &ignoreEvents);
    EXPECT_NE(a, b);
    TSL_DestoryTessalo(a);
    TSL_DestoryTessalo(b);
    EXPECT_EQ(threadCount(), before);
}

}  // namespace

namespace {

TEST(SharedObject, ExportsExactlyTheSixteenFunctions) {
    int status = 0;
    const std::string symbols = tsltest::run(
        "nm -D --defined-only " + tsltest::shellQuote(std::string(TSL_BUILD_DIR) + "/libtessalo.so") +
            " | awk '{print $3}' | sort | tr '\\n' ' '",
        &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(symbols,
              "TSL_CancelFile TSL_CreateTessalo TSL_CutFile TSL_DestoryTessalo TSL_GetEditOffsetPts TSL_GetKeyPts "
              "TSL_GetKeyPtsCount TSL_GetMediaInfo TSL_GetOnePicSize TSL_GetPic TSL_GetPicByPts TSL_GetPicPts "
              "TSL_GetPtsByKeyPts TSL_GetPtsCountByKeyPts TSL_SetOutputPicFormat TSL_StartPic ");
}

}  // namespace
