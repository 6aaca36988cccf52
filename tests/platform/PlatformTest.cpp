#include <gtest/gtest.h>

#include <unistd.h>

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

TEST(PlatformFile, MovesAreObservableAndLargeSeeksTakeThirtyTwoBitSteps) {
    const std::string dir = tsltest::scratchDir();
    const std::string path = dir + "/sparse.bin";
    { std::ofstream(path) << "x"; }
    PlatformFile file = openFileRead(utf8ToWide(path.c_str()));
    ASSERT_TRUE(file.isOpen());
    gMoves.clear();
    setFileMoveHook(recordMove);
    // Three 32-bit moves reach 5 GiB: the first from the start, the rest onwards.
    const int32_t rest = static_cast<int32_t>((5LL << 30) - 2LL * 0x7FFFFFFE);
    EXPECT_TRUE(moveFilePointer(file, 0x7FFFFFFE, MoveFrom::Begin));
    EXPECT_TRUE(moveFilePointer(file, 0x7FFFFFFE, MoveFrom::Current));
    EXPECT_TRUE(moveFilePointer(file, rest, MoveFrom::Current));
    setFileMoveHook(nullptr);
    EXPECT_EQ(lseek(file.fd, 0, SEEK_CUR), 5LL << 30);  // past the end is a valid position
    ASSERT_EQ(gMoves.size(), 3u);
    EXPECT_EQ(gMoves[2], rest);
    EXPECT_TRUE(moveFilePointer(file, 0, MoveFrom::Begin));
    EXPECT_EQ(gMoves.size(), 3u);  // the hook was removed
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
