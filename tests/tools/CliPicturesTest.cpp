// `tessalo thumbs` and `frames`: the PNG files they write, what is in them,
// and the contact sheet's geometry.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "CliRun.h"
#include "support/TestSupport.h"

using clitest::q;

namespace {

std::string keyName(const char* prefix, int64_t ms) {
    char name[64];
    std::snprintf(name, sizeof name, "%s_%09lldms.png", prefix, static_cast<long long>(ms));
    return name;
}

// Picture index in presentation order of a timestamp, at a constant frame duration.
int frameAt(int64_t ms, int64_t frameMs) { return static_cast<int>(ms / frameMs); }

}  // namespace

TEST(CliThumbs, OnePngPerKeyAndASheetSizedByItsColumns) {
    const std::string file = tsltest::media("main.mp4");
    const std::string dir = tsltest::scratchDir();
    std::vector<std::string> expected;
    for (const auto& p : clitest::videoPackets(file))
        if (p.key) expected.push_back(keyName("key", p.ptsMs));
    ASSERT_EQ(expected.size(), 5u);

    // Sheet geometry, as the program documents it: cells of the thumbnail
    // (160 wide, height in proportion) over a 14-pixel label band, 4-pixel margins.
    const int thumbW = 160, thumbH = 240 * 160 / 320, margin = 4, band = 14;
    for (const int columns : {2, 5, 9}) {
        const std::string out = dir + "/c" + std::to_string(columns);
        const auto r = clitest::tessalo("thumbs " + q(file) + " -o " + q(out) + " --columns " + std::to_string(columns));
        ASSERT_EQ(r.status, 0) << r.err;
        // Not a terminal: no progress bar.
        EXPECT_TRUE(r.err.empty()) << r.err;

        std::vector<std::string> names = expected;
        names.push_back("sheet.png");
        std::sort(names.begin(), names.end());
        EXPECT_EQ(clitest::listDir(out), names);

        const int used = std::min<int>(columns, static_cast<int>(expected.size()));
        const int rows = (static_cast<int>(expected.size()) + used - 1) / used;
        int w = 0, h = 0;
        clitest::pngRgb(out + "/sheet.png", &w, &h);
        EXPECT_EQ(w, margin + used * (thumbW + margin)) << columns << " columns";
        EXPECT_EQ(h, margin + rows * (thumbH + band + margin)) << columns << " columns";
    }

    int w = 0, h = 0;
    clitest::pngRgb(dir + "/c2/" + expected[1], &w, &h);
    EXPECT_EQ(w, 320);
    EXPECT_EQ(h, 240);

    // Each picture has its timestamp printed in light dots under it; the
    // empty sixth cell of the two-column sheet has none.
    const auto sheet = clitest::pngRgb(dir + "/c2/sheet.png", &w, &h);
    ASSERT_EQ(sheet.size(), static_cast<size_t>(w) * h * 3);
    const auto lightDots = [&](int row, int column) {
        int n = 0;
        const int left = margin + column * (thumbW + margin), top = margin + row * (thumbH + band + margin) + thumbH;
        for (int y = top; y < top + band; ++y)
            for (int x = left; x < left + thumbW; ++x) {
                const uint8_t* p = &sheet[(static_cast<size_t>(y) * w + x) * 3];
                n += p[0] > 200 && p[1] > 200 && p[2] > 200;
            }
        return n;
    };
    EXPECT_GT(lightDots(0, 0), 40);
    EXPECT_GT(lightDots(2, 0), 40);
    EXPECT_EQ(lightDots(2, 1), 0);
}

TEST(CliThumbs, PicturesStandUprightInTheirOwnColours) {
    // Top half red, bottom half blue: catches a picture upside down or with
    // blue and red swapped.
    const std::string dir = tsltest::scratchDir();
    const auto r = clitest::tessalo("thumbs " + q(tsltest::media("halves.mp4")) + " -o " + q(dir) + " --sheet " +
                                    q(dir + "/my-sheet.png"));
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(std::filesystem::exists(dir + "/my-sheet.png"));
    int w = 0, h = 0;
    const auto rgb = clitest::pngRgb(dir + "/" + keyName("key", 0), &w, &h);
    ASSERT_EQ(rgb.size(), static_cast<size_t>(w) * h * 3);
    const uint8_t* top = &rgb[(static_cast<size_t>(h) / 4 * w + w / 2) * 3];
    const uint8_t* bottom = &rgb[(static_cast<size_t>(h) * 3 / 4 * w + w / 2) * 3];
    EXPECT_GT(top[0], 200);
    EXPECT_LT(top[2], 60);
    EXPECT_LT(bottom[0], 60);
    EXPECT_GT(bottom[2], 200);
}

TEST(CliFrames, EveryPictureOfAGroupUnderItsOwnTimestamp) {
    const std::string file = tsltest::media("main.mp4");
    const std::string dir = tsltest::scratchDir();
    const auto packets = clitest::videoPackets(file);
    std::vector<int64_t> keys;
    for (const auto& p : packets)
        if (p.key) keys.push_back(p.ptsMs);
    ASSERT_GE(keys.size(), 2u);
    std::vector<int64_t> group;
    for (const auto& p : packets)
        if (p.ptsMs >= keys[1] && (keys.size() < 3 || p.ptsMs < keys[2])) group.push_back(p.ptsMs);
    std::sort(group.begin(), group.end());
    ASSERT_GE(group.size(), 13u);
    std::vector<std::string> expected;
    for (const int64_t pts : group) expected.push_back(keyName("frame", pts));

    const auto r = clitest::tessalo("frames " + q(file) + " " + std::to_string(keys[1]) + " -o " + q(dir));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    ASSERT_EQ(clitest::listDir(dir), expected);

    // A picture from the middle of the group is the one ffmpeg decodes at that
    // time, and closer to it than to its neighbours (the pattern moves every frame).
    const int64_t frameMs = group[1] - group[0];
    const int64_t middle = group[12];
    const auto ours = clitest::pngRgb(dir + "/" + keyName("frame", middle));
    const int n = frameAt(middle, frameMs);
    const double same = clitest::meanDiff(ours, clitest::ffmpegFrameRgb(file, n));
    EXPECT_LT(same, 6.0);
    EXPECT_LT(same, clitest::meanDiff(ours, clitest::ffmpegFrameRgb(file, n - 1)));
    EXPECT_LT(same, clitest::meanDiff(ours, clitest::ffmpegFrameRgb(file, n + 1)));
}

TEST(CliFrames, TheLastGroupOfAFileAccountsForEveryTimestamp) {
    // At the end of a file the decoder can keep its last pictures; whatever
    // the library delivers is written, and the rest is named on stderr.
    const std::string file = tsltest::media("main.mp4");
    const std::string dir = tsltest::scratchDir();
    const auto packets = clitest::videoPackets(file);
    int64_t lastKey = 0;
    for (const auto& p : packets)
        if (p.key) lastKey = p.ptsMs;
    std::vector<int64_t> group;
    for (const auto& p : packets)
        if (p.ptsMs >= lastKey) group.push_back(p.ptsMs);

    const auto r = clitest::tessalo("frames " + q(file) + " " + std::to_string(lastKey) + " -o " + q(dir));
    ASSERT_EQ(r.status, 0) << r.err;
    const auto names = clitest::listDir(dir);
    EXPECT_FALSE(names.empty());
    for (const int64_t pts : group) {
        const bool written = std::count(names.begin(), names.end(), keyName("frame", pts)) == 1;
        const std::string t = " " + std::to_string(pts);
        const bool named = r.err.find(t + ",") != std::string::npos || r.err.find(t + " ms") != std::string::npos;
        EXPECT_TRUE(written || named) << pts << " neither written nor reported missing: " << r.err;
    }
    EXPECT_LE(names.size(), group.size());
}
