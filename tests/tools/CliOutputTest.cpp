// What `thumbs`, `frames`, `cut` and `demo` write, checked with ffprobe and ffmpeg.
#include <gtest/gtest.h>

#include "CliRun.h"

using clitest::q;
using clitest::tessalo;
using nlohmann::json;

TEST(CliThumbs, OnePngPerKeyUprightInItsColoursAndASheetSizedByItsColumns) {
    const std::string file = tsltest::media("main.mp4"), dir = tsltest::scratchDir();
    std::vector<std::string> names{"sheet.png"};
    for (const int64_t key : tsltest::probeIndex(file).keyPts()) names.push_back(clitest::pngName("key", key));
    std::sort(names.begin(), names.end());
    const int keys = static_cast<int>(names.size()) - 1;
    // Cells of the 160-wide thumbnail over a 14-pixel label band, 4-pixel margins.
    const int thumbW = 160, thumbH = 240 * 160 / 320, margin = 4, band = 14;
    for (const int columns : {2, 5, 9}) {
        const std::string out = dir + "/c" + std::to_string(columns);
        const auto r = tessalo("thumbs " + q(file) + " -o " + q(out) + " --columns " + std::to_string(columns));
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(r.err.empty()) << r.err;  // not a terminal: no progress bar
        EXPECT_EQ(clitest::listDir(out), names);
        const int used = std::min(columns, keys), rows = (keys + used - 1) / used;
        int w = 0, h = 0;
        clitest::rgb(out + "/sheet.png", &w, &h);
        EXPECT_EQ(w, margin + used * (thumbW + margin)) << columns;
        EXPECT_EQ(h, margin + rows * (thumbH + band + margin)) << columns;
    }
    // Top half red, bottom half blue: catches a picture upside down or with red and blue swapped.
    const auto r = tessalo("thumbs " + q(tsltest::media("halves.mp4")) + " -o " + q(dir) + " --sheet " + q(dir + "/my.png"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(std::filesystem::exists(dir + "/my.png"));
    int w = 0, h = 0;
    const auto rgb = clitest::rgb(dir + "/" + clitest::pngName("key", 0), &w, &h);
    ASSERT_EQ(rgb.size(), static_cast<size_t>(w) * h * 3);
    const uint8_t* top = &rgb[(static_cast<size_t>(h) / 4 * w + w / 2) * 3];
    const uint8_t* bottom = &rgb[(static_cast<size_t>(h) * 3 / 4 * w + w / 2) * 3];
    EXPECT_TRUE(top[0] > 200 && top[2] < 60 && bottom[0] < 60 && bottom[2] > 200);
}

TEST(CliFrames, EveryPictureOfAGroupUnderItsOwnTimestamp) {
    const std::string file = tsltest::media("main.mp4"), dir = tsltest::scratchDir();
    const auto groups = tsltest::probeIndex(file).sortedGroupPts();
    ASSERT_GE(groups.size(), 3u);
    for (const size_t i : {size_t{1}, groups.size() - 1}) {
        const auto& group = groups[i];
        const bool last = i + 1 == groups.size();
        const std::string out = dir + "/" + std::to_string(group[0]);
        const auto r = tessalo("frames " + q(file) + " " + std::to_string(group[0]) + " -o " + q(out));
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(last || r.err.empty()) << r.err;
        const auto names = clitest::listDir(out);
        // At the end of a file the decoder may keep its last pictures: those are named on stderr.
        for (const int64_t pts : group) {
            const std::string t = " " + std::to_string(pts);
            const bool named = r.err.find(t + ",") != std::string::npos || r.err.find(t + " ms") != std::string::npos;
            EXPECT_TRUE(std::count(names.begin(), names.end(), clitest::pngName("frame", pts)) == 1 ||
                        (named && last)) << pts << ": " << r.err;
        }
        EXPECT_LE(names.size(), group.size());
    }
    // A picture from the middle of the group is the one ffmpeg decodes at that
    // time, closer to it than to its neighbours (the pattern moves every frame).
    ASSERT_GE(groups[1].size(), 13u);
    const int64_t middle = groups[1][12];
    const int n = static_cast<int>(middle / (groups[1][1] - groups[1][0]));
    const auto ours = clitest::rgb(dir + "/" + std::to_string(groups[1][0]) + "/" + clitest::pngName("frame", middle));
    const double same = clitest::meanDiff(ours, clitest::rgb(file, nullptr, nullptr, n));
    EXPECT_LT(same, 6.0);
    EXPECT_LT(same, clitest::meanDiff(ours, clitest::rgb(file, nullptr, nullptr, n - 1)));
    EXPECT_LT(same, clitest::meanDiff(ours, clitest::rgb(file, nullptr, nullptr, n + 1)));
}

TEST(CliCut, TwoRangesDecodeOffsetsMoveToTheOutputAndFailedJobsNameTheirCause) {
    const std::string file = tsltest::media("main.mp4"), dir = tsltest::scratchDir(), out = dir + "/out.mp4";
    const auto keys = tsltest::probeIndex(file).keyPts();
    ASSERT_GE(keys.size(), 5u);
    // A range starting between keys opens on the key before it, at the start
    // of the output: a time inside it moves back by that key's timestamp.
    const int64_t start = keys[2] + 500, end = keys[3] + 500, first = keys[3], second = keys[3] + 400;
    const auto ms = [](int64_t a, int64_t b) { return std::to_string(a) + "-" + std::to_string(b); };
    const auto r = tessalo("cut " + q(file) + " -o " + q(out) + " -r " + ms(start, end) + " -r " + ms(keys[4], keys[4] + 500) +
                           " --offset " + ms(first, second) + " --offset 0-100 --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const json j = json::parse(r.out);
    EXPECT_EQ(j["ranges"][0]["opensAtKey"], keys[2]);
    ASSERT_EQ(j["offsets"].size(), 2u);
    EXPECT_EQ(j["offsets"][0]["output"]["first"], first - keys[2]);
    EXPECT_EQ(j["offsets"][0]["output"]["second"], second - keys[2]);
    EXPECT_TRUE(j["offsets"][1]["output"].is_null());  // before every range
    EXPECT_EQ(j["offsets"][1]["source"]["second"], 100);
    EXPECT_TRUE(clitest::decodesCleanly(out));
    EXPECT_EQ(clitest::probe(out, "stream=codec_name")["streams"].size(), 2u);

    const std::vector<std::pair<std::string, std::string>> cases = {
        {q(file) + " -o " + q(dir + "/a.mp4") + " -r 0-1000 -r 60000-61000",
         "range 2 (60000-61000 ms) starts after the last picture"},
        {q(tsltest::media("noaudio.mp4")) + " -o " + q(dir + "/b.mp4") + " -r 0-1000", "no audio track"},
        {q(file) + " -o " + q(dir + "/none/c.mp4") + " -r 0-1000", "no folder"},
    };
    for (const auto& [args, says] : cases) {
        const auto r = tessalo("cut " + args + " --json");
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_TRUE(r.out.empty()) << r.out;  // whatever the library prints stays off stdout
        EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
    }
    // What was written before the range failed is no cut of the ranges asked for.
    EXPECT_FALSE(std::filesystem::exists(dir + "/a.mp4"));
}

TEST(CliDemo, MakesAClipWithKeysEverySecondThenThumbsASheetAndACut) {
    const std::string dir = tsltest::scratchDir() + "/demo";
    const auto r = tessalo("demo -o " + q(dir));
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string clip = dir + "/demo.mp4";
    const auto v = clitest::probe(clip, "stream=codec_name,has_b_frames", "v:0")["streams"][0];
    EXPECT_EQ(v["codec_name"], "h264");
    EXPECT_GT(v["has_b_frames"].get<int>(), 0);
    EXPECT_EQ(clitest::probe(clip, "stream=codec_name", "a:0")["streams"][0]["codec_name"], "aac");
    const auto keys = tsltest::probeIndex(clip).keyPts();
    ASSERT_GE(keys.size(), 9u);
    for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(keys[i], static_cast<int64_t>(i) * 1000);
    EXPECT_EQ(clitest::listDir(dir + "/thumbs").size(), keys.size());
    EXPECT_TRUE(std::filesystem::exists(dir + "/sheet.png"));
    EXPECT_TRUE(clitest::decodesCleanly(dir + "/cut.mp4"));
    EXPECT_NE(r.out.find(dir + "/cut.mp4"), std::string::npos);
}
