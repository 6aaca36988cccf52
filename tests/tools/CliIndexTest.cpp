// `tessalo info`, `keys` and `group` on the fixtures, their JSON read back and
// held against what ffprobe finds in the same files.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "CliRun.h"
#include "support/TestSupport.h"

using clitest::q;
using nlohmann::json;

namespace {

struct Expected {
    std::vector<int64_t> keys;          // key timestamps in ms
    std::vector<std::vector<int64_t>> groups;  // each group's timestamps, sorted
};

// Groups as ffprobe sees them: a key packet and the packets that follow it in stream order.
Expected fromProbe(const std::string& file) {
    Expected e;
    for (const auto& p : clitest::videoPackets(file)) {
        if (p.key) {
            e.groups.emplace_back();
        }
        if (!e.groups.empty()) e.groups.back().push_back(p.ptsMs);
    }
    for (auto& g : e.groups) {
        std::sort(g.begin(), g.end());
        e.keys.push_back(g.front());
    }
    return e;
}

}  // namespace

class CliInfo : public ::testing::TestWithParam<const char*> {};

TEST_P(CliInfo, JsonAgreesWithFfprobe) {
    const std::string file = tsltest::media(GetParam());
    const auto r = clitest::tessalo("info " + q(file) + " --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const json info = json::parse(r.out);

    const json video = clitest::probe(file, "stream=width,height", "v:0")["streams"][0];
    EXPECT_EQ(info["video"]["width"], video["width"]);
    EXPECT_EQ(info["video"]["height"], video["height"]);
    EXPECT_EQ(info["video"]["codec"], "h264");

    const json audio = clitest::probe(file, "stream=sample_rate,channels", "a:0")["streams"];
    if (audio.empty()) {
        EXPECT_TRUE(info["audio"].is_null());
    } else {
        EXPECT_EQ(std::to_string(info["audio"]["sampleRate"].get<int>()), audio[0]["sample_rate"].get<std::string>());
        EXPECT_EQ(info["audio"]["channels"], audio[0]["channels"]);
    }

    const Expected e = fromProbe(file);
    size_t samples = 0;
    int64_t last = 0;
    for (const auto& g : e.groups) {
        samples += g.size();
        last = std::max(last, g.back());
    }
    EXPECT_EQ(info["index"]["groups"], e.keys.size());
    EXPECT_EQ(info["index"]["videoSamples"], samples);
    EXPECT_EQ(info["index"]["firstPtsMs"], *std::min_element(e.keys.begin(), e.keys.end()));
    EXPECT_EQ(info["index"]["lastPtsMs"], last);
    EXPECT_TRUE(r.err.empty()) << r.err;
}

INSTANTIATE_TEST_SUITE_P(Fixtures, CliInfo, ::testing::Values("main.mp4", "mono48k.mp4", "noaudio.mp4", "main.mov"));

TEST(CliKeys, EveryKeyPacketWithItsGroupSize) {
    const std::string file = tsltest::media("main.mp4");
    const auto r = clitest::tessalo("keys " + q(file) + " --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const json keys = json::parse(r.out)["keys"];
    const Expected e = fromProbe(file);
    ASSERT_EQ(keys.size(), e.keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
        EXPECT_EQ(keys[i]["pts"], e.keys[i]);
        EXPECT_EQ(keys[i]["pictures"], e.groups[i].size());
    }

    // The plain listing has one line per key after its heading.
    const auto text = clitest::tessalo("keys " + q(file));
    ASSERT_EQ(text.status, 0);
    EXPECT_EQ(static_cast<size_t>(std::count(text.out.begin(), text.out.end(), '\n')), e.keys.size() + 1);
}

TEST(CliGroup, TimestampsOfOneGroupInEitherTimeSyntax) {
    const std::string file = tsltest::media("main.mp4");
    const Expected e = fromProbe(file);
    ASSERT_GE(e.keys.size(), 3u);
    const int64_t key = e.keys[2];

    const auto r = clitest::tessalo("group " + q(file) + " " + std::to_string(key) + " --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const json j = json::parse(r.out);
    EXPECT_EQ(j["key"], key);
    EXPECT_EQ(j["pts"].get<std::vector<int64_t>>(), e.groups[2]);

    char clock[32];
    std::snprintf(clock, sizeof clock, "00:00:%02lld.%03lld", static_cast<long long>(key / 1000),
                  static_cast<long long>(key % 1000));
    const auto same = clitest::tessalo("group " + q(file) + " " + clock + " --json");
    ASSERT_EQ(same.status, 0) << same.err;
    EXPECT_EQ(same.out, r.out);
    const auto shortClock = clitest::tessalo("group " + q(file) + " " + std::string(clock).substr(3) + " --json");
    EXPECT_EQ(shortClock.out, r.out);
}

TEST(CliGroup, NoGroupAtATimestampThatIsNoKey) {
    const std::string file = tsltest::media("main.mp4");
    const Expected e = fromProbe(file);
    const int64_t between = e.keys[1] + 1;
    const auto r = clitest::tessalo("group " + q(file) + " " + std::to_string(between));
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.empty());
    EXPECT_NE(r.err.find("no group"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(std::to_string(e.keys[1]) + " ms and " + std::to_string(e.keys[2]) + " ms"), std::string::npos)
        << r.err;
}

TEST(CliInfo, TwoVideoStreamsFeedOneIndex) {
    // Both streams' packets land in the index, and a key timestamp that opens
    // a group in each stream lists both groups.
    const std::string file = tsltest::media("twovideo.mp4");
    const auto r = clitest::tessalo("info " + q(file) + " --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const json packets = clitest::probe(file, "packet=stream_index", "v")["packets"];
    EXPECT_EQ(json::parse(r.out)["index"]["videoSamples"], packets.size());

    const auto g = clitest::tessalo("group " + q(file) + " 0 --json");
    ASSERT_EQ(g.status, 0) << g.err;
    size_t firstSecond = 0;
    const json times = clitest::probe(file, "packet=pts_time", "v");
    for (const auto& p : times["packets"])
        firstSecond += std::stod(p["pts_time"].get<std::string>()) < 1.0;
    EXPECT_EQ(json::parse(g.out)["pts"].size(), firstSecond);
}
