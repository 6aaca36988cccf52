// `tessalo demo`: the clip it encodes itself and what it makes from it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "CliRun.h"
#include "support/TestSupport.h"

using clitest::q;

TEST(CliDemo, MakesAClipWithKeysEverySecondThenThumbsASheetAndACut) {
    const std::string dir = tsltest::scratchDir() + "/demo";
    const auto r = clitest::tessalo("demo -o " + q(dir));
    ASSERT_EQ(r.status, 0) << r.err;

    const std::string clip = dir + "/demo.mp4";
    const auto v = clitest::probe(clip, "stream=codec_name,width,height,has_b_frames", "v:0")["streams"][0];
    EXPECT_EQ(v["codec_name"], "h264");
    EXPECT_EQ(v["width"], 640);
    EXPECT_EQ(v["height"], 360);
    EXPECT_GT(v["has_b_frames"].get<int>(), 0);
    const auto a = clitest::probe(clip, "stream=codec_name,sample_rate", "a:0")["streams"][0];
    EXPECT_EQ(a["codec_name"], "aac");
    EXPECT_EQ(a["sample_rate"], "44100");

    std::vector<int64_t> keys;
    for (const auto& p : clitest::videoPackets(clip))
        if (p.key) keys.push_back(p.ptsMs);
    ASSERT_GE(keys.size(), 9u);
    for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(keys[i], static_cast<int64_t>(i) * 1000);

    const auto thumbs = clitest::listDir(dir + "/thumbs");
    EXPECT_EQ(thumbs.size(), keys.size());
    EXPECT_TRUE(std::filesystem::exists(dir + "/sheet.png"));
    int status = -1;
    const std::string errors = tsltest::run("ffmpeg -v error -i " + q(dir + "/cut.mp4") + " -f null - 2>&1", &status);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(errors.empty()) << errors;
    EXPECT_NE(r.out.find(dir + "/cut.mp4"), std::string::npos);
}
