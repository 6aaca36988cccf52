// `tessalo info`, `keys` and `group` held against ffprobe; refused files with
// their cause and status 1; command-line mistakes with status 2.
#include <gtest/gtest.h>

#include "CliRun.h"

using clitest::q;
using clitest::tessalo;
using nlohmann::json;

class CliIndex : public ::testing::TestWithParam<const char*> {};

TEST_P(CliIndex, InfoKeysAndGroupAgreeWithFfprobe) {
    const std::string file = tsltest::media(GetParam());
    const tsltest::ProbeIndex truth = tsltest::probeIndex(file);
    const auto groups = truth.sortedGroupPts();
    const auto keys = truth.keyPts();
    ASSERT_GE(keys.size(), 3u);

    const auto r = tessalo("info " + q(file) + " --json");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    const json info = json::parse(r.out);
    const json video = clitest::probe(file, "stream=width,height", "v:0")["streams"][0];
    EXPECT_EQ(info["video"]["width"], video["width"]);
    EXPECT_EQ(info["video"]["height"], video["height"]);
    EXPECT_EQ(info["video"]["codec"], "h264");
    const json audio = clitest::probe(file, "stream=sample_rate,channels", "a:0")["streams"];
    ASSERT_EQ(info["audio"].is_null(), audio.empty());
    if (!audio.empty()) {
        EXPECT_EQ(std::to_string(info["audio"]["sampleRate"].get<int>()), audio[0]["sample_rate"]);
        EXPECT_EQ(info["audio"]["channels"], audio[0]["channels"]);
    }
    size_t samples = 0;
    int64_t last = 0;
    for (const auto& g : groups) samples += g.size(), last = std::max(last, g.back());
    EXPECT_EQ(info["index"]["groups"], keys.size());
    EXPECT_EQ(info["index"]["videoSamples"], samples);
    EXPECT_EQ(info["index"]["firstPtsMs"], keys.front());
    EXPECT_EQ(info["index"]["lastPtsMs"], last);

    const json listed = json::parse(tessalo("keys " + q(file) + " --json").out)["keys"];
    ASSERT_EQ(listed.size(), keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
        EXPECT_EQ(listed[i]["pts"], keys[i]);
        EXPECT_EQ(listed[i]["pictures"], groups[i].size());
    }

    // One group, asked for in milliseconds and in clock time.
    const auto g = tessalo("group " + q(file) + " " + std::to_string(keys[2]) + " --json");
    ASSERT_EQ(g.status, 0) << g.err;
    EXPECT_EQ(json::parse(g.out)["pts"].get<std::vector<int64_t>>(), groups[2]);
    char clock[32];
    std::snprintf(clock, sizeof clock, "00:00:%02lld.%03lld", static_cast<long long>(keys[2] / 1000),
                  static_cast<long long>(keys[2] % 1000));
    EXPECT_EQ(tessalo("group " + q(file) + " " + clock + " --json").out, g.out);

    const auto none = tessalo("group " + q(file) + " " + std::to_string(keys[1] + 1));
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("nearest key timestamps are " + std::to_string(keys[1]) + " ms and " +
                            std::to_string(keys[2]) + " ms"),
              std::string::npos) << none.err;
}

INSTANTIATE_TEST_SUITE_P(Fixtures, CliIndex, ::testing::Values("main.mp4", "mono48k.mp4", "noaudio.mp4", "main.mov"));

TEST(CliIndexTwoVideo, BothStreamsFeedOneIndex) {
    // A key timestamp that opens a group in each stream lists both groups.
    const std::string file = tsltest::media("twovideo.mp4");
    const json packets = clitest::probe(file, "packet=pts_time", "v")["packets"];
    EXPECT_EQ(json::parse(tessalo("info " + q(file) + " --json").out)["index"]["videoSamples"], packets.size());
    size_t firstSecond = 0;
    for (const auto& p : packets) firstSecond += std::stod(p["pts_time"].get<std::string>()) < 1.0;
    EXPECT_EQ(json::parse(tessalo("group " + q(file) + " 0 --json").out)["pts"].size(), firstSecond);
}

TEST(CliRefusal, EachRefusedOrMissingFileGivesItsCauseAndStatusOne) {
    const auto m = [](const char* name) { return q(tsltest::media(name)); };
    const auto field = [](const char* name, const char* select, const char* key) {
        const json v = clitest::probe(tsltest::media(name), std::string("stream=") + key, select)["streams"][0][key];
        return v.is_string() ? v.get<std::string>() : std::to_string(v.get<int>());
    };
    // Every key packet dropped: the library indexes nothing and says nothing; the walk must not hang.
    const std::string missing = tsltest::scratchDir() + "/no-such-file.mp4", nokeys = tsltest::scratchDir() + "/nokeys.mp4";
    tsltest::run("ffmpeg -nostdin -v error -y -i " + m("main.mp4") + " -c copy -bsf:v noise=drop=key " + q(nokeys));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"info " + m("hevc.mp4"), "video codec " + field("hevc.mp4", "v:0", "codec_name") + " is not supported: H.264 only"},
        {"info " + m("mpeg4.mp4"), "video codec " + field("mpeg4.mp4", "v:0", "codec_name") + " is not supported: H.264 only"},
        {"info " + m("mp3audio.mp4"), "audio codec " + field("mp3audio.mp4", "a:0", "codec_name") + " is not supported: AAC only"},
        {"info " + m("aac22050.mp4"), "audio sample rate " + field("aac22050.mp4", "a:0", "sample_rate") +
                                          " Hz is not supported: 44100 or 48000 only"},
        {"info " + m("aac6ch.mp4"), field("aac6ch.mp4", "a:0", "channels") + " audio channels are not supported: 1 to 3 only"},
        {"info " + m("audioonly.mp4"), "no H.264 video stream"},
        {"info " + m("text.mp4"), "cannot open " + tsltest::media("text.mp4")},
        {"keys " + m("empty.mp4"), "cannot open " + tsltest::media("empty.mp4")},
        {"thumbs " + q(missing), "cannot open " + missing + ": No such file or directory"},
        {"--timeout 2 keys " + q(nokeys), "holds no H.264 key frame"},
    };
    for (const auto& [args, says] : cases) {
        const auto r = tessalo(args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_NE(r.err.find(says), std::string::npos) << args << ": " << r.err;
    }
}

TEST(CliUsage, BadArgumentsGiveStatusTwoAndTouchNothing) {
    const std::string main = q(tsltest::media("main.mp4")), out = tsltest::scratchDir() + "/out.mp4";
    const std::string cut = "cut " + main + " -o " + q(out) + " -r ";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {cut + "1.5-1000", "bad time '1.5'"},
        {cut + "00:00:0x.000-00:00:02.000", "bad time"},
        {cut + "00:00:75.000-00:01:30.000", "minutes and seconds"},
        {cut + "3000-1000", "ends before it starts"},
        {cut + "1000", "START-END"},
        {cut + "0-1000 --offset 900-100", "ends before it starts"},
        {"cut " + main + " -r 0-1000", "--output"},
        {"cut " + main + " -o " + main + " -r 0-1000", "is the source file itself"},
        {"group " + main + " soon", "bad time 'soon'"},
        {"thumbs " + main + " --columns 0", "--columns"},
        {"explode " + main, ""},
        {"", "subcommand"},
    };
    for (const auto& [args, says] : cases) {
        const auto r = tessalo(args);
        EXPECT_EQ(r.status, 2) << args;
        EXPECT_NE(r.err.find(says), std::string::npos) << args << ": " << r.err;
        EXPECT_FALSE(std::filesystem::exists(out)) << args;
    }
}
