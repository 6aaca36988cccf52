// The read window over a file whose every byte tells its own position, so a
// byte handed out at the wrong place shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <vector>

#include "platform/ReadWindow.h"
#include "platform/Utf8.h"
#include "support/TestSupport.h"

namespace {

struct WindowOverFile {
    static constexpr int64_t kFileSize = kReadBufferSize + (4 << 20);
    std::vector<uint8_t> bytes = std::vector<uint8_t>(size_t(kFileSize));
    std::unique_ptr<uint8_t[]> buffer{new uint8_t[kReadBufferSize]};
    FileCloser closer;
    ReadWindow window;

    WindowOverFile() {
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 7 + (i >> 12));
        const std::string path = tsltest::scratchDir() + "/positions.bin";
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), kFileSize);
        closer.file = openFileRead(utf8ToWide(path.c_str()));
        window.file = closer.file;
        window.buffer = buffer.get();
    }
    bool holdsTheFile(int64_t position, int64_t length) const {
        return position >= window.start() && position + length <= window.bufferEnd &&
               std::equal(window.at(position), window.at(position + length), bytes.begin() + position);
    }
};

TEST(ReadWindow, BringsSamplesOfAnySizeWholeAsTheFileHasThem) {
    WindowOverFile w;
    ASSERT_TRUE(w.window.fill(1000, 3 * kReadStep));
    EXPECT_TRUE(w.window.holds(3 * kReadStep)) << "the first sample is whole after the fill alone";
    // Samples longer than a read, straddling the bytes held, after gaps and
    // before them, and one across the first 20 MiB.
    const std::vector<std::pair<int64_t, int32_t>> samples = {
        {1000, 3 * kReadStep}, {900'000, 10}, {1'100'000, 5 * kReadStep + 17}, {600, 4000},
        {kReadBufferSize - 100'000, 2 * kReadStep}, {kReadBufferSize + (2 << 20), 100}};
    for (const auto& [position, size] : samples) {
        SCOPED_TRACE(position);
        ASSERT_TRUE(w.window.bring(position, size));
        ASSERT_TRUE(w.window.holds(size));
        EXPECT_EQ(w.window.buffer + w.window.sampleOffset, w.window.at(position));
        EXPECT_TRUE(w.holdsTheFile(position, size));
    }
    EXPECT_FALSE(w.window.bring(WindowOverFile::kFileSize - 10, 11)) << "the file ends inside the sample";
}

TEST(ReadWindow, KeepsFromAPlaceWithinOneBufferOfWhatItHoldsAndNoFurther) {
    WindowOverFile w;
    ASSERT_TRUE(w.window.fill(0));
    const int64_t past = w.window.bufferEnd + (8 << 20);
    ASSERT_TRUE(w.window.keepFrom(past)) << "bytes of no interest are stepped over";
    EXPECT_EQ(w.window.start(), past);
    EXPECT_TRUE(w.holdsTheFile(past, kReadStep));
    EXPECT_FALSE(w.window.keepFrom(past - 1)) << "the file is read forward only";
    EXPECT_FALSE(w.window.keepFrom(past + kReadBufferSize + 1)) << "beyond one buffer's reach";
}

}  // namespace
