// `tessalo cut`: outputs that decode cleanly, the offset report, and jobs
// that fail or are refused.
#include <gtest/gtest.h>

#include <filesystem>

#include "CliRun.h"
#include "support/TestSupport.h"

using clitest::q;
using nlohmann::json;

namespace {

std::vector<int64_t> keysOf(const std::string& file) {
    std::vector<int64_t> keys;
    for (const auto& p : clitest::videoPackets(file))
        if (p.key) keys.push_back(p.ptsMs);
    return keys;
}

bool decodesCleanly(const std::string& file) {
    int status = -1;
    const std::string errors = tsltest::run("ffmpeg -v error -i " + q(file) + " -f null - 2>&1", &status);
    return status == 0 && errors.empty();
}

}  // namespace

TEST(CliCut, TwoRangesMakeAFileThatDecodes) {
    const std::string file = tsltest::media("main.mp4");
    const std::string out = tsltest::scratchDir() + "/out.mp4";
    const auto r = clitest::tessalo("cut " + q(file) + " -o " + q(out) + " -r 1000-2500 -r 00:00:03.000-00:00:04.500");
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(std::filesystem::exists(out));
    EXPECT_TRUE(decodesCleanly(out));
    const json streams = clitest::probe(out, "stream=codec_name")["streams"];
    ASSERT_EQ(streams.size(), 2u);
    std::set<std::string> codecs{streams[0]["codec_name"], streams[1]["codec_name"]};
    EXPECT_EQ(codecs, (std::set<std::string>{"aac", "h264"}));
}

TEST(CliCut, OffsetsInsideARangeMoveToTheOutputTimeline) {
    const std::string file = tsltest::media("main.mp4");
    const std::vector<int64_t> keys = keysOf(file);
    ASSERT_GE(keys.size(), 4u);
    // A range that starts between two keys opens on the key before it; the
    // first range sits at the start of the output, so a time inside it moves
    // back by that key's timestamp.
    const int64_t start = keys[2] + 500, end = keys[3] + 500;
    const int64_t first = keys[3], second = keys[3] + 400;
    const std::string out = tsltest::scratchDir() + "/out.mp4";
    const auto r = clitest::tessalo("cut " + q(file) + " -o " + q(out) + " -r " + std::to_string(start) + "-" +
                                    std::to_string(end) + " --offset " + std::to_string(first) + "-" +
                                    std::to_string(second) + " --offset 0-100 --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const json j = json::parse(r.out);
    EXPECT_EQ(j["ranges"][0]["opensAtKey"], keys[2]);
    ASSERT_EQ(j["offsets"].size(), 2u);
    EXPECT_EQ(j["offsets"][0]["output"]["first"], first - keys[2]);
    EXPECT_EQ(j["offsets"][0]["output"]["second"], second - keys[2]);
    EXPECT_TRUE(j["offsets"][1]["output"].is_null());
    EXPECT_EQ(j["offsets"][1]["source"]["second"], 100);
    EXPECT_TRUE(decodesCleanly(out));
}

TEST(CliCut, ARangeAfterTheEndFailsTheJob) {
    const std::string file = tsltest::media("main.mp4");
    const std::string out = tsltest::scratchDir() + "/out.mp4";
    const auto r = clitest::tessalo("cut " + q(file) + " -o " + q(out) + " -r 0-1000 -r 60000-61000");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("range 2 (60000-61000 ms) starts after the last picture"), std::string::npos) << r.err;
    // What the library wrote before the failure is no cut of the ranges asked for.
    EXPECT_FALSE(std::filesystem::exists(out));
}

TEST(CliCut, RefusedJobsNameTheirCause) {
    const std::string dir = tsltest::scratchDir();
    const auto noAudio = clitest::tessalo("cut " + q(tsltest::media("noaudio.mp4")) + " -o " + q(dir + "/a.mp4") + " -r 0-1000");
    EXPECT_EQ(noAudio.status, 1);
    EXPECT_NE(noAudio.err.find("no audio track"), std::string::npos) << noAudio.err;

    const auto noFolder = clitest::tessalo("cut " + q(tsltest::media("main.mp4")) + " -o " + q(dir + "/none/b.mp4") +
                                           " -r 0-1000 --json");
    EXPECT_EQ(noFolder.status, 1);
    EXPECT_NE(noFolder.err.find("no folder"), std::string::npos) << noFolder.err;
    // Whatever the library prints of its own stays off standard output.
    EXPECT_TRUE(noFolder.out.empty()) << noFolder.out;
}
