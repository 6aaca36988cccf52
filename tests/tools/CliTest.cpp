// The built `tessalo` program run as a user runs it, held against what ffprobe and ffmpeg find in the same
// files: the index commands, pictures and sheet, the cut and the demo; refusals exit 1 with their cause,
// command-line mistakes exit 2. What the program shows of the library is the library's tests' business.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "support/ProbeIndex.h"

namespace {

using nlohmann::json;
using tsltest::media;
using tsltest::probe;

std::string q(const std::string& s) { return tsltest::shellQuote(s); }
std::string num(int64_t v) { return std::to_string(v); }
std::string num(const json& v) { return std::to_string(v.get<int64_t>()); }

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

// The program exits with `status`, names the cause on its standard error and prints nothing else.
void expectRefused(const std::string& args, int status, const std::string& says) {
    const auto r = tessalo(args);
    EXPECT_EQ(r.status, status) << args;
    EXPECT_TRUE(r.out.empty()) << args << ": " << r.out;
    EXPECT_NE(r.err.find(says), std::string::npos) << args << ": " << r.err;
}

std::pair<int, int> sizeOf(const std::string& picture) {
    const std::string size = probe(picture, "-show_entries stream=width,height");
    return {std::stoi(size), std::stoi(size.substr(size.find(',') + 1))};
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

// Clock time of `ms` under a minute.
std::string clock(int64_t ms) {
    char text[32];
    std::snprintf(text, sizeof text, "00:00:%02lld.%03lld", static_cast<long long>(ms / 1000),
                  static_cast<long long>(ms % 1000));
    return text;
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
    EXPECT_EQ(num(info["video"]["width"]) + "," + num(info["video"]["height"]) + "\n",
              probe(file, "-select_streams v:0 -show_entries stream=width,height"));
    EXPECT_EQ(info["audio"].is_null() ? "" : num(info["audio"]["sampleRate"]) + "," + num(info["audio"]["channels"]) + "\n",
              probe(file, "-select_streams a:0 -show_entries stream=sample_rate,channels"));
    size_t samples = 0;
    int64_t last = 0;
    json listed = json::array();
    for (const auto& g : groups) {
        samples += g.size();
        last = std::max(last, g.back());
        listed.push_back({{"pictures", g.size()}, {"pts", g.front()}, {"time", clock(g.front())}});
    }
    EXPECT_EQ(info["index"], (json{{"groups", keys.size()}, {"videoSamples", samples}, {"firstPtsMs", keys.front()},
                                   {"lastPtsMs", last}}));
    EXPECT_EQ(json::parse(tessalo("keys " + q(file) + " --json").out)["keys"], listed);

    // One group, asked for in milliseconds and in clock time; then a time that opens no group.
    const auto g = tessalo("group " + q(file) + " " + num(keys[2]) + " --json");
    ASSERT_EQ(g.status, 0) << g.err;
    EXPECT_EQ(json::parse(g.out)["pts"].get<std::vector<int64_t>>(), groups[2]);
    EXPECT_EQ(tessalo("group " + q(file) + " " + clock(keys[2]) + " --json").out, g.out);
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
    for (const auto& [args, says] : cases) expectRefused(args, 1, says);
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
        expectRefused(args, 2, says);
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
    EXPECT_EQ(probe(out, "-show_entries stream=codec_type"), "audio\nvideo\n");
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
        expectRefused("cut " + args + " --json", 1, says);  // whatever the library prints stays off stdout
        const std::string err = tessalo("cut " + args).err;  // and off the message: one line of the program's
        EXPECT_TRUE(err.rfind("tessalo: ", 0) == 0 && std::count(err.begin(), err.end(), '\n') == 1) << err;
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

// A disk that fills (a small tmpfs, where the system lets a test mount one) is named as such, and nothing is
// left on it.
TEST(CliCut, AFullDiskIsNamed) {
    const std::string small = tsltest::scratchDir() + "/small";
    std::filesystem::create_directories(small);
    int status = -1;
    tsltest::run("unshare -rm sh -c " + q("mount -t tmpfs -o size=64k none " + q(small)) + " 2>/dev/null", &status);
    if (status != 0) GTEST_SKIP() << "no mount namespace here";
    const std::string cut = q(TSL_CLI_PATH) + " cut " + q(media("main.mp4")) + " -r 0-4500 -o ";
    std::string script = "mount -t tmpfs -o size=64k none " + q(small) + " && " + cut + q(small + "/out.mp4") +
                         " >/dev/null; rc=$?; ls -A " + q(small) + "; exit $rc";
    EXPECT_EQ(tsltest::run("unshare -rm sh -c " + q(script) + " 2>&1", &status),
              "tessalo: could not write " + small + "/out.mp4: the disk is full\n");  // and nothing listed
    EXPECT_EQ(status, 1);
}

TEST(CliDemo, MakesAnH264AacClipThenThumbsASheetAndACut) {
    const std::string dir = tsltest::scratchDir() + "/demo", clip = dir + "/demo.mp4";
    const auto r = tessalo("demo -o " + q(dir));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(probe(clip, "-show_entries stream=codec_name"), "h264\naac\n");
    const auto keys = tsltest::probeIndex(clip).keyPts();
    EXPECT_GE(keys.size(), 2u);
    EXPECT_EQ(listDir(dir + "/thumbs").size(), keys.size());
    EXPECT_TRUE(std::filesystem::exists(dir + "/sheet.png"));
    EXPECT_EQ(tsltest::decodeErrors(dir + "/cut.mp4"), "");
    EXPECT_NE(r.out.find(dir + "/cut.mp4"), std::string::npos);
}

// `cut --exact` says, for each range, which of its pictures it encoded again and which it copied: range 1
// starts 1.3 s before the key frame at 5 s, so those pictures are made; range 2 lies inside one group and
// is made whole. The pictures it says it copied are the source's to the bit.
TEST(CliExact, SaysWhichPicturesOfEachRangeItEncodedAgainAndWhichItCopied) {
    const std::string src = media("longgop.mp4"), out = tsltest::scratchDir() + "/exact.mp4";
    const auto r = tessalo("cut " + q(src) + " -o " + q(out) + " -r 1300-6290 -r 7000-7500 --exact");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("range 1  1300-6290 ms  (00:00:01.300 - 00:00:06.290): re-encoded 1320-4960 ms "
                         "(92 pictures), copied 5000-"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("range 2  7000-7500 ms  (00:00:07.000 - 00:00:07.500): re-encoded 7000-7480 ms "
                         "(13 pictures)\n"), std::string::npos) << r.out;
    size_t made = 0, copied = 0, identical = 0;
    const std::regex said("(re-encoded|copied) [-0-9]+ ms \\(([0-9]+) picture");
    for (std::sregex_iterator m(r.out.begin(), r.out.end(), said), end; m != end; ++m)
        ((*m)[1] == "copied" ? copied : made) += std::stoul((*m)[2]);
    const std::vector<std::string> output = tsltest::ffmpegFrameMd5(out, false), source = tsltest::ffmpegFrameMd5(src, false);
    ASSERT_EQ(output.size(), made + copied);
    for (const std::string& sum : output) identical += std::count(source.begin(), source.end(), sum) > 0;
    EXPECT_EQ(identical, copied);
}

}  // namespace
