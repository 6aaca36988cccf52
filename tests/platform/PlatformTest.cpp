#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <vector>

#include "platform/PlatformFile.h"
#include "platform/Utf8.h"
#include "support/TestSupport.h"

namespace {

std::mutex gMovesMutex;
std::vector<int32_t> gMoves;
void recordMove(int32_t distance, MoveFrom) {
    std::lock_guard<std::mutex> lock(gMovesMutex);
    gMoves.push_back(distance);
}

// Seeks the way the cut engine does: absolute position in steps of at most
// 0x7FFFFFFE bytes, the first from the start and the rest from the current one.
bool seekAbsolute(PlatformFile file, int64_t position) {
    bool first = true;
    do {
        const int64_t step = position > 0x7FFFFFFE ? 0x7FFFFFFE : position;
        if (step == 0 && !first) break;
        if (step > 0 && !moveFilePointer(file, static_cast<int32_t>(step), first ? MoveFrom::Begin : MoveFrom::Current))
            return false;
        position -= step;
        first = false;
    } while (position > 0);
    return true;
}

TEST(PlatformFile, MovesAreObservableAndLargeSeeksTakeThirtyTwoBitSteps) {
    const std::string dir = tsltest::scratchDir();
    const std::string path = dir + "/sparse.bin";
    { std::ofstream(path) << "x"; }
    PlatformFile file = openFileRead(utf8ToWide(path.c_str()));
    ASSERT_TRUE(file.isOpen());
    gMoves.clear();
    setFileMoveHook(recordMove);
    EXPECT_TRUE(seekAbsolute(file, 5LL << 30));  // past the end is a valid position
    setFileMoveHook(nullptr);
    ASSERT_EQ(gMoves.size(), 3u);
    EXPECT_EQ(gMoves[0], 0x7FFFFFFE);
    EXPECT_EQ(gMoves[1], 0x7FFFFFFE);
    EXPECT_EQ(static_cast<int64_t>(gMoves[2]), (5LL << 30) - 2LL * 0x7FFFFFFE);
    uint32_t got = 99;
    EXPECT_TRUE(readFile(file, nullptr, 0, &got));
    EXPECT_EQ(got, 0u);
    closeFile(file);
    EXPECT_FALSE(file.isOpen());
    closeFile(file);  // closing twice is harmless
}

TEST(PlatformFile, ReadsReportCountsAndZeroAtTheEnd) {
    const std::string path = tsltest::scratchDir() + "/ten.bin";
    { std::ofstream(path, std::ios::binary) << "0123456789"; }
    PlatformFile file = openFileRead(utf8ToWide(path.c_str()));
    ASSERT_TRUE(file.isOpen());
    char buffer[16] = {};
    uint32_t got = 0;
    ASSERT_TRUE(moveFilePointer(file, 4, MoveFrom::Begin));
    ASSERT_TRUE(readFile(file, buffer, 4, &got));
    EXPECT_EQ(got, 4u);
    EXPECT_EQ(std::string(buffer, 4), "4567");
    ASSERT_TRUE(readFile(file, buffer, 16, &got));
    EXPECT_EQ(got, 2u);  // a short read at the end
    ASSERT_TRUE(readFile(file, buffer, 16, &got));
    EXPECT_EQ(got, 0u);
    EXPECT_FALSE(moveFilePointer(file, -100, MoveFrom::Begin));
    closeFile(file);
    EXPECT_FALSE(readFile(file, buffer, 1, &got));
}

TEST(PlatformFile, OpenModesAndNonAsciiPaths) {
    const std::string dir = tsltest::scratchDir();
    const std::string name = dir + "/vid\xC3\xA9o \xE6\x97\xA5\xE6\x9C\xAC.mp4";  // "vidéo 日本.mp4"
    const std::wstring wide = utf8ToWide(name.c_str());
    ASSERT_FALSE(wide.empty());
    EXPECT_NE(wide.find(L'\u00E9'), std::wstring::npos);
    EXPECT_NE(wide.find(L'\u65E5'), std::wstring::npos);
    PlatformFile missing = openFileRead(wide);
    EXPECT_FALSE(missing.isOpen());  // read-only open never creates
    PlatformFile created = openFileReadWrite(wide);
    ASSERT_TRUE(created.isOpen());
    closeFile(created);
    std::ifstream check(name);
    EXPECT_TRUE(check.good());  // the bytes on disk are the UTF-8 name
    PlatformFile again = openFileRead(wide);
    EXPECT_TRUE(again.isOpen());
    closeFile(again);
    EXPECT_FALSE(openFileRead(std::wstring()).isOpen());
}

TEST(Utf8ToWide, ConvertsValidAndRejectsInvalid) {
    EXPECT_EQ(utf8ToWide("abc"), L"abc");
    EXPECT_EQ(utf8ToWide("\xF0\x9F\x8E\xAC"), std::wstring(1, static_cast<wchar_t>(0x1F3AC)));
    EXPECT_TRUE(utf8ToWide(nullptr).empty());
    EXPECT_TRUE(utf8ToWide("").empty());
    const char* invalid[] = {
        "\xFF",                 // not a lead byte
        "abc\x80",              // stray continuation
        "\xC3",                 // truncated sequence
        "\xC0\xAF",             // overlong '/'
        "\xED\xA0\x80",         // a surrogate
        "\xF4\x90\x80\x80",     // past U+10FFFF
        "ok\xE6\x97",           // truncated at the end
    };
    for (const char* s : invalid) EXPECT_TRUE(utf8ToWide(s).empty()) << s;
    const std::string round = "vid\xC3\xA9o \xE6\x97\xA5\xF0\x9F\x8E\xAC";
    EXPECT_EQ(wideToUtf8(utf8ToWide(round.c_str())), round);
}

}  // namespace
