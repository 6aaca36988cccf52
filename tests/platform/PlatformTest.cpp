// The split of far seeks into 32-bit moves is tested where it is done (the cut
// and picture paths); here the calls themselves and the wide paths.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <fstream>

#include "platform/PlatformFile.h"
#include "platform/Utf8.h"
#include "support/TestSupport.h"

namespace {

TEST(PlatformFile, ReadsReportCountsAndZeroAtTheEnd) {
    const std::string path = tsltest::scratchDir() + "/ten.bin";
    std::ofstream(path, std::ios::binary) << "0123456789";
    PlatformFile file = openFileRead(utf8ToWide(path.c_str()));
    ASSERT_TRUE(file.isOpen());
    char buffer[16] = {};
    uint32_t got = 0;
    ASSERT_TRUE(moveFilePointer(file, 2, MoveFrom::Begin) && moveFilePointer(file, 2, MoveFrom::Current));
    ASSERT_TRUE(readFile(file, buffer, 4, &got));
    EXPECT_EQ(std::string(buffer, got), "4567");
    ASSERT_TRUE(readFile(file, buffer, 16, &got));
    EXPECT_EQ(got, 2u);  // a short read at the end
    ASSERT_TRUE(readFile(file, buffer, 16, &got));
    EXPECT_EQ(got, 0u);
    EXPECT_FALSE(moveFilePointer(file, -100, MoveFrom::Begin));
    closeFile(file);
    EXPECT_FALSE(file.isOpen());
    closeFile(file);  // closing twice is harmless
    EXPECT_FALSE(readFile(file, buffer, 1, &got));
}

std::vector<std::pair<std::string, int>> gOpens;  // the hook runs on the opening thread

const std::string kNonAsciiName = "/vid\xC3\xA9o \xE6\x97\xA5\xE6\x9C\xAC\xF0\x9F\x8E\xAC.mp4";

TEST(PlatformFile, AMissingFileIsNotCreated) {
    const std::string name = tsltest::scratchDir() + kNonAsciiName;
    EXPECT_FALSE(openFileRead(utf8ToWide(name.c_str())).isOpen());
    EXPECT_FALSE(std::ifstream(name).good()) << "a missing file was created";
    EXPECT_FALSE(openFileRead(std::wstring()).isOpen());
}

TEST(PlatformFile, NonAsciiPathsOpenReadOnlyUnderTheirUtf8Name) {
    const std::string name = tsltest::scratchDir() + kNonAsciiName;
    const std::wstring wide = utf8ToWide(name.c_str());
    ASSERT_FALSE(wide.empty());
    std::ofstream(name) << "x";
    gOpens.clear();
    setFileOpenHook([](const std::string& path, int flags) { gOpens.emplace_back(path, flags); });
    PlatformFile file = openFileRead(wide);
    setFileOpenHook(nullptr);
    EXPECT_TRUE(file.isOpen());
    closeFile(file);
    ASSERT_EQ(gOpens.size(), 1u);
    EXPECT_EQ(gOpens[0].first, name) << "the name given to open(2) is the UTF-8 one";
    EXPECT_EQ(gOpens[0].second & (O_ACCMODE | O_CREAT | O_TRUNC), O_RDONLY);
}

TEST(Utf8ToWide, ConvertsValidAndRejectsInvalid) {
    EXPECT_EQ(utf8ToWide("abc"), L"abc");
    EXPECT_EQ(utf8ToWide("vid\xC3\xA9o \xE6\x97\xA5"), L"vid\u00E9o \u65E5");
    EXPECT_EQ(utf8ToWide("\xF0\x9F\x8E\xAC"), std::wstring(1, static_cast<wchar_t>(0x1F3AC)));
    EXPECT_TRUE(utf8ToWide(nullptr).empty());
    EXPECT_TRUE(utf8ToWide("").empty());
    // Not a lead byte, a stray continuation, a truncated sequence, an overlong '/', a surrogate, past U+10FFFF,
    // and a sequence cut off at the end.
    for (const char* s : {"\xFF", "abc\x80", "\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "ok\xE6\x97"})
        EXPECT_TRUE(utf8ToWide(s).empty()) << s;
}

}  // namespace
