// The built `tessalo` program run as a user runs it, held against what ffprobe and ffmpeg find in the same
// files: the index commands, pictures and sheet, the cut and the demo; refusals exit 1 with their cause,
// command-line mistakes exit 2.
#include <gtest/gtest.h>

#include <fstream>

#include "support/ProbeIndex.h"

namespace {

using nlohmann::json;
using tsltest::media;

std::string q(const std::string& s) { return tsltest::shellQuote(s); }
std::string num(int64_t v) { return std::to_string(v); }

struct CliResult {
    int status = -1;
    std::string out, err;
};

// Runs `tessalo ARGS` (ARGS already quoted) with its standard error kept apart.
CliResult tessalo(const std::string& args) {
    CliResult r;
    std::filesystem::create_directories(std::string(TSL_BUILD_DIR) + "/scratch");
    const std::string errFile = std::string(TSL_BUILD_DIR) + "/scratch/cli-stderr-" + num(::getpid());
    r.out = tsltest::run(q(TSL_CLI_PATH) + " " + args + " 2>" + q(errFile), &r.status);
    std::ifstream in(errFile);
    r.err.assign(std::istreambuf_iterator<char>(in), {});
    std::filesystem::remove(errFile);
    return r;
}

json probe(const std::string& file, const std::string& entries, const std::string& streams = "") {
    const std::string select = streams.empty() ? "" : " -select_streams " + streams;
    return json::parse(
        tsltest::run("ffprobe -v error" + select + " -show_entries " + entries + " -of json " + q(file)));
}

std::pair<int, int> sizeOf(const std::string& picture) {
    const json s = probe(picture, "stream=width,height")["streams"][0];
    return {s["width"], s["height"]};
}

// RGB24 bytes as ffmpeg decodes them: a PNG, or picture FRAME (presentation order) of a video.
std::vector<uint8_t> rgb(const std::string& file, int frame = -1) {
    const std::string select = frame < 0 ? "" : " -frames:v 1 -vf " + q("select=eq(n\\," + num(frame) + ")");
    const std::string raw = tsltest::run("ffmpeg -v error -i " + q(file) + select + " -f rawvideo -pix_fmt rgb24 -");
    return {raw.begin(), raw.end()};
}

double meanDiff(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    if (a.size() != b.size() || a.empty()) return 1e9;
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) sum += std::abs(int(a[i]) - int(b[i]));
    return sum / static_cast<double>(a.size());
}

std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The name `thumbs` and `frames` give the picture at MS.
std::string pngName(const char* prefix, int64_t ms) {
    char name[64];
    std::snprintf(name, sizeof name, "%s_%09lldms.png", prefix, static_cast<long long>(ms));
    return name;
}

class CliIndex : public ::testing::TestWithParam<const char*> {};

TEST_P(CliIndex, InfoKeysAndGroupAgreeWithFfprobe) {
    const std::string file = media(GetParam());
    const tsltest::ProbeIndex truth = tsltest::probeIndex(file);
    const auto groups = truth.sortedGroupPts();
    const auto keys = truth.keyPts();
    ASSERT_GE(keys.size(), 3u);

    const auto r = tessalo("info " + q(file) + " --json");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    const json info = json::parse(r.out);
    const json video = probe(file, "stream=width,height", "v:0")["streams"][0];
    EXPECT_EQ(info["video"]["width"], video["width"]);
    EXPECT_EQ(info["video"]["height"], video["height"]);
    const json audio = probe(file, "stream=sample_rate,channels", "a:0")["streams"];
    ASSERT_EQ(info["audio"].is_null(), audio.empty());
    if (!audio.empty()) {
        EXPECT_EQ(num(info["audio"]["sampleRate"].get<int>()), audio[0]["sample_rate"]);
        EXPECT_EQ(info["audio"]["channels"], audio[0]["channels"]);
    }
    size_t samples = 0;
    int64_t last = 0;
    for (const auto& g : groups) {
        samples += g.size();
        last = std::max(last, g.back());
    }
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

    // One group, asked for in milliseconds and in clock time; then a time that opens no group.
    const auto g = tessalo("group " + q(file) + " " + num(keys[2]) + " --json");
    ASSERT_EQ(g.status, 0) << g.err;
    EXPECT_EQ(json::parse(g.out)["pts"].get<std::vector<int64_t>>(), groups[2]);
    char clock[32];
    std::snprintf(clock, sizeof clock, "00:00:%02lld.%03lld", static_cast<long long>(keys[2] / 1000),
                  static_cast<long long>(keys[2] % 1000));
    EXPECT_EQ(tessalo("group " + q(file) + " " + clock + " --json").out, g.out);
    const auto none = tessalo("group " + q(file) + " " + num(keys[1] + 1));
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("nearest key timestamps are " + num(keys[1]) + " ms and " + num(keys[2]) + " ms"),
              std::string::npos) << none.err;
}

INSTANTIATE_TEST_SUITE_P(Fixtures, CliIndex, ::testing::Values("main.mp4", "noaudio.mp4"));

TEST(CliRefusal, EachRefusedOrMissingFileGivesItsCauseAndStatusOne) {
    const auto m = [](const char* name) { return q(media(name)); };
    // Every key packet dropped: the library indexes nothing and says nothing; the walk must not hang.
    const std::string dir = tsltest::scratchDir(), missing = dir + "/no-such-file.mp4", nokeys = dir + "/nokeys.mp4";
    tsltest::run("ffmpeg -nostdin -v error -y -i " + m("main.mp4") + " -c copy -bsf:v noise=drop=key " + q(nokeys));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"info " + m("hevc.mp4"), "video codec hevc is not supported: H.264 only"},
        {"info " + m("vp9.webm"), "video codec vp9 is not supported: H.264 only"},
        {"info " + m("mpeg4.mp4"), "video codec mpeg4 is not supported: H.264 only"},
        {"info " + m("mp3audio.mp4"), "audio codec mp3 is not supported: AAC only"},
        {"info " + m("aac22050.mp4"), "audio sample rate 22050 Hz is not supported: 44100 or 48000 only"},
        {"info " + m("aac6ch.mp4"), "6 audio channels are not supported: 1 to 3 only"},
        {"info " + m("audioonly.mp4"), "no H.264 video stream"},
        {"info " + m("text.mp4"), "cannot open " + media("text.mp4")},
        {"keys " + m("empty.mp4"), "cannot open " + media("empty.mp4")},
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
    const std::string main = q(media("main.mp4")), out = tsltest::scratchDir() + "/out.mp4";
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

TEST(CliThumbs, OnePngPerKeyUprightInItsColoursAndASheetSizedByItsColumns) {
    const std::string file = media("main.mp4"), dir = tsltest::scratchDir();
    std::vector<std::string> names{"sheet.png"};
    for (const int64_t key : tsltest::probeIndex(file).keyPts()) names.push_back(pngName("key", key));
    std::sort(names.begin(), names.end());
    const int keys = static_cast<int>(names.size()) - 1;
    // Cells of the 160-wide thumbnail over a 14-pixel label band, 4-pixel margins.
    const int thumbW = 160, thumbH = 240 * 160 / 320, margin = 4, band = 14;
    for (const int columns : {2, 9}) {
        const std::string out = dir + "/c" + num(columns);
        const auto r = tessalo("thumbs " + q(file) + " -o " + q(out) + " --columns " + num(columns));
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(r.err.empty()) << r.err;  // not a terminal: no progress bar
        EXPECT_EQ(listDir(out), names);
        const int used = std::min(columns, keys), rows = (keys + used - 1) / used;
        EXPECT_EQ(sizeOf(out + "/sheet.png"),
                  std::make_pair(margin + used * (thumbW + margin), margin + rows * (thumbH + band + margin)));
    }
    // Top half red, bottom half blue: catches a picture upside down or with red and blue swapped.
    const auto r = tessalo("thumbs " + q(media("halves.mp4")) + " -o " + q(dir) + " --sheet " + q(dir + "/my.png"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(std::filesystem::exists(dir + "/my.png"));
    const std::string key0 = dir + "/" + pngName("key", 0);
    const auto [w, h] = sizeOf(key0);
    const auto pixels = rgb(key0);
    ASSERT_EQ(pixels.size(), static_cast<size_t>(w) * h * 3);
    const uint8_t* top = &pixels[(static_cast<size_t>(h) / 4 * w + w / 2) * 3];
    const uint8_t* bottom = &pixels[(static_cast<size_t>(h) * 3 / 4 * w + w / 2) * 3];
    EXPECT_TRUE(top[0] > 200 && top[2] < 60 && bottom[0] < 60 && bottom[2] > 200);
}

// Stored landscape, shown turned a quarter clockwise: the pictures come out as
// ffmpeg shows the file (it turns by the display matrix too), and info says so.
TEST(CliThumbs, ATurnedFileGivesUprightPortraitPictures) {
    const std::string file = media("rotated90.mp4"), dir = tsltest::scratchDir();
    const auto r = tessalo("thumbs " + q(file) + " -o " + q(dir));
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string key0 = dir + "/" + pngName("key", 0);
    EXPECT_EQ(sizeOf(key0), std::make_pair(120, 160));
    EXPECT_LT(meanDiff(rgb(key0), rgb(file, 0)), 6.0);
    EXPECT_EQ(json::parse(tessalo("info " + q(file) + " --json").out)["video"]["rotation"], 90);
    EXPECT_NE(tessalo("info " + q(file)).out.find("rotation       90 degrees clockwise"), std::string::npos);
}

TEST(CliFrames, EveryPictureOfAGroupUnderItsOwnTimestamp) {
    const std::string file = media("main.mp4"), dir = tsltest::scratchDir();
    const auto group = tsltest::probeIndex(file).sortedGroupPts().at(1);
    ASSERT_GE(group.size(), 13u);
    const auto r = tessalo("frames " + q(file) + " " + num(group[0]) + " -o " + q(dir));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    std::vector<std::string> names;
    for (const int64_t pts : group) names.push_back(pngName("frame", pts));
    EXPECT_EQ(listDir(dir), names);
    // The picture named by a time inside the group is the one ffmpeg decodes there, closer to it than to
    // its neighbours (the pattern moves every frame).
    const int n = static_cast<int>(group[12] / (group[1] - group[0]));
    const auto ours = rgb(dir + "/" + pngName("frame", group[12]));
    const double same = meanDiff(ours, rgb(file, n));
    EXPECT_LT(same, 6.0);
    EXPECT_LT(same, meanDiff(ours, rgb(file, n - 1)));
    EXPECT_LT(same, meanDiff(ours, rgb(file, n + 1)));
}

TEST(CliCut, TwoRangesDecodeAndOffsetsMoveToTheOutput) {
    const std::string file = media("main.mp4"), dir = tsltest::scratchDir(), out = dir + "/out.mp4";
    const auto keys = tsltest::probeIndex(file).keyPts();
    ASSERT_GE(keys.size(), 5u);
    // A range starting between keys opens on the key before it, at the start
    // of the output: a time inside it moves back by that key's timestamp.
    const int64_t start = keys[2] + 500, end = keys[3] + 500, first = keys[3], second = keys[3] + 400;
    const auto ms = [](int64_t a, int64_t b) { return num(a) + "-" + num(b); };
    const auto r = tessalo("cut " + q(file) + " -o " + q(out) + " -r " + ms(start, end) + " -r " +
                           ms(keys[4], keys[4] + 500) + " --offset " + ms(first, second) + " --offset 0-100 --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const json j = json::parse(r.out);
    EXPECT_EQ(j["ranges"][0]["opensAtKey"], keys[2]);
    ASSERT_EQ(j["offsets"].size(), 2u);
    EXPECT_EQ(j["offsets"][0]["output"]["first"], first - keys[2]);
    EXPECT_EQ(j["offsets"][0]["output"]["second"], second - keys[2]);
    EXPECT_TRUE(j["offsets"][1]["output"].is_null());  // before every range
    EXPECT_EQ(j["offsets"][1]["source"]["second"], 100);
    EXPECT_EQ(tsltest::decodeErrors(out), "");
    EXPECT_EQ(probe(out, "stream=codec_name")["streams"].size(), 2u);
}

TEST(CliCut, AFailedJobNamesItsCauseInOneLineAndLeavesNoOutput) {
    const std::string file = media("main.mp4"), dir = tsltest::scratchDir();
    const std::vector<std::pair<std::string, std::string>> cases = {
        {q(file) + " -o " + q(dir + "/a.mp4") + " -r 0-1000 -r 60000-61000",
         "range 2 (60000-61000 ms) starts after the last picture"},
        {q(media("noaudio.mp4")) + " -o " + q(dir + "/b.mp4") + " -r 0-1000 --kind 0", "no audio track"},
        {q(file) + " -o " + q(dir + "/none/c.mp4") + " -r 0-1000", "no folder"},
    };
    for (const auto& [args, says] : cases) {
        const auto failed = tessalo("cut " + args + " --json");
        EXPECT_EQ(failed.status, 1) << args;
        EXPECT_TRUE(failed.out.empty()) << failed.out;  // whatever the library prints stays off stdout
        EXPECT_EQ(failed.err.rfind("tessalo: ", 0), 0u) << failed.err;  // and off the message
        EXPECT_EQ(std::count(failed.err.begin(), failed.err.end(), '\n'), 1) << failed.err;
        EXPECT_NE(failed.err.find(says), std::string::npos) << failed.err;
    }
    // What was written before the range failed is no cut of the ranges asked for.
    EXPECT_FALSE(std::filesystem::exists(dir + "/a.mp4"));
}

// A cut whose output can't be written names the cause in one sentence, leaves no output and exits 1: a
// file size limit that the output passes mid-way (the program ignores SIGXFSZ itself), in both kinds, and
// an output that can't even take its header.
TEST(CliCut, AnUnwritableOutputIsExplainedAndRemoved) {
    const std::string file = media("main.mp4"), dir = tsltest::scratchDir();
    std::filesystem::create_symlink("/dev/full", dir + "/full.mp4");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"ulimit -f 200; exec ", " -o " + q(dir + "/big.mp4") + " --kind 0"},
        {"ulimit -f 200; exec ", " -o " + q(dir + "/big.mp4")},
        {"exec ", " -o " + q(dir + "/full.mp4")},
    };
    for (const auto& [limit, output] : cases) {
        int status = -1;
        const std::string err = tsltest::run("sh -c " + q(limit + q(TSL_CLI_PATH) + " cut " + q(file) + output +
                                                  " -r 0-4500 2>&1 >/dev/null"), &status);
        EXPECT_EQ(status, 1) << output;
        const bool full = output.find("full.mp4") != std::string::npos;
        const std::string cause = full ? "/full.mp4: writing to it failed\n"
                                       : "/big.mp4: the file would pass the size limit of this process\n";
        EXPECT_EQ(err, "tessalo: could not write " + dir + cause);
        EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(dir + (full ? "/full.mp4" : "/big.mp4"))));
    }
    EXPECT_TRUE(std::filesystem::exists("/dev/full"));
}

// Where the system lets a test make mounts of its own (a mount namespace).
bool mountsAllowed(const std::string& dir) {
    int status = -1;
    tsltest::run("unshare -rm sh -c " + q("mount -t tmpfs -o size=64k none " + q(dir)) + " 2>/dev/null", &status);
    return status == 0;
}

// A disk that fills (a small tmpfs) is named as such, and nothing is left on it.
TEST(CliCut, AFullDiskIsNamed) {
    const std::string small = tsltest::scratchDir() + "/small";
    std::filesystem::create_directories(small);
    if (!mountsAllowed(small)) GTEST_SKIP() << "no mount namespace here";
    int status = -1;
    const std::string cut = q(TSL_CLI_PATH) + " cut " + q(media("main.mp4")) + " -r 0-4500 -o ";
    std::string script = "mount -t tmpfs -o size=64k none " + q(small) + " && " + cut + q(small + "/out.mp4") +
                         " >/dev/null; rc=$?; ls -A " + q(small) + "; exit $rc";
    EXPECT_EQ(tsltest::run("unshare -rm sh -c " + q(script) + " 2>&1", &status),
              "tessalo: could not write " + small + "/out.mp4: the disk is full\n");  // and nothing listed
    EXPECT_EQ(status, 1);
}

TEST(CliCut, ASourceOnAReadOnlyMountIsCut) {
    const std::string dir = tsltest::scratchDir(), readOnly = dir + "/ro";
    std::filesystem::create_directories(readOnly);
    std::filesystem::copy_file(media("main.mp4"), readOnly + "/main.mp4");
    if (!mountsAllowed(readOnly)) GTEST_SKIP() << "no mount namespace here";
    int status = -1;
    const std::string script = "mount --bind " + q(readOnly) + " " + q(readOnly) + " && mount -o remount,bind,ro " +
                               q(readOnly) + " && ! touch " + q(readOnly + "/main.mp4") + " 2>/dev/null && " +
                               q(TSL_CLI_PATH) + " cut " + q(readOnly + "/main.mp4") + " -r 1000-2000 -o " +
                               q(dir + "/out.mp4");
    tsltest::run("unshare -rm sh -c " + q(script) + " 2>&1", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(tsltest::decodeErrors(dir + "/out.mp4"), "");
}

TEST(CliDemo, MakesAnH264AacClipThenThumbsASheetAndACut) {
    const std::string dir = tsltest::scratchDir() + "/demo", clip = dir + "/demo.mp4";
    const auto r = tessalo("demo -o " + q(dir));
    ASSERT_EQ(r.status, 0) << r.err;
    const json streams = probe(clip, "stream=codec_name")["streams"];
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["codec_name"], "h264");
    EXPECT_EQ(streams[1]["codec_name"], "aac");
    const auto keys = tsltest::probeIndex(clip).keyPts();
    EXPECT_GE(keys.size(), 2u);
    EXPECT_EQ(listDir(dir + "/thumbs").size(), keys.size());
    EXPECT_TRUE(std::filesystem::exists(dir + "/sheet.png"));
    EXPECT_EQ(tsltest::decodeErrors(dir + "/cut.mp4"), "");
    EXPECT_NE(r.out.find(dir + "/cut.mp4"), std::string::npos);
}

}  // namespace
