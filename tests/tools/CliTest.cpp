// The built `tessalo` program run as a user runs it, held against what ffprobe and ffmpeg find in the same
// files: the index commands, pictures and sheet, the cut and the demo; refusals exit 1 with their cause,
// command-line mistakes exit 2. What the program shows of the library is the library's tests' business.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "support/ProbeIndex.h"

namespace {

using nlohmann::json;
using tsltest::media;
using tsltest::probe;
using tsltest::psnr;

std::string q(const std::string& s) { return tsltest::shellQuote(s); }
std::string num(int64_t v) { return std::to_string(v); }

// Runs `tessalo ARGS` (ARGS already quoted) after the shell commands `before`: its exit status, standard output
// and standard error.
std::tuple<int, std::string, std::string> tessalo(const std::string& args, const std::string& before = "") {
    const std::string errFile = std::string(TSL_BUILD_DIR) + "/cli-stderr-" + num(::getpid());
    int status = -1;
    std::string out = tsltest::run(before + q(TSL_CLI_PATH) + " " + args + " 2>" + q(errFile), &status);
    return {status, out, tsltest::run("cat " + q(errFile) + "; rm " + q(errFile))};
}

// Runs `tessalo ARGS`, which exits with `status`: done, it says nothing on its standard error (not a terminal:
// no progress bar); refused, it names the cause `says` there and prints nothing else. Its standard output.
std::string expectExit(const std::string& args, int status, const std::string& says = "") {
    const auto [got, out, err] = tessalo(args);
    EXPECT_EQ(got, status) << args << ": " << err;
    EXPECT_TRUE(status ? out.empty() && err.find(says) != std::string::npos : err.empty())
        << args << ": " << out << err;
    return out;
}
std::string succeeds(const std::string& args) { return expectExit(args, 0); }

std::string sizeOf(const std::string& picture) { return probe(picture, "-show_entries stream=width,height"); }

// RGB24 bytes of the first picture ffmpeg makes of `file` through the filter `vf`; `nth` picks picture N of a
// video (presentation order). Two pictures above 32.6 dB differ by less than 6 of 255 on average.
std::string rgb(const std::string& file, const std::string& vf = "null") {
    return tsltest::run("ffmpeg -v error -i " + q(file) + " -frames:v 1 -vf " + q(vf) +
                        " -f rawvideo -pix_fmt rgb24 -");
}
std::string nth(int n) { return "select=eq(n\\," + num(n) + ")"; }

std::set<std::string> listDir(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) names.insert(e.path().filename().string());
    return names;
}

// V in `width` digits, zeros first.
std::string digits(int64_t v, int width) {
    const std::string text = num(v);
    return std::string(size_t(std::max(0, width - int(text.size()))), '0') + text;
}
// The name `thumbs` and `frames` give the picture at MS, and its clock time (under a minute).
std::string pngName(const std::string& prefix, int64_t ms) { return prefix + "_" + digits(ms, 9) + "ms.png"; }
std::string clock(int64_t ms) { return "00:00:" + digits(ms / 1000, 2) + "." + digits(ms % 1000, 3); }

class CliIndex : public ::testing::TestWithParam<const char*> {};

TEST_P(CliIndex, InfoKeysAndGroupAgreeWithFfprobe) {
    const std::string file = media(GetParam());
    const auto groups = tsltest::probeIndex(file).sortedGroupPts();
    ASSERT_GE(groups.size(), 3u);
    const json info = json::parse(succeeds("info " + q(file) + " --json")), &audio = info["audio"];
    EXPECT_EQ(info["video"]["width"].dump() + "," + info["video"]["height"].dump() + "\n",
              probe(file, "-select_streams v:0 -show_entries stream=width,height"));
    EXPECT_EQ(audio.is_null() ? "" : audio["sampleRate"].dump() + "," + audio["channels"].dump() + "\n",
              probe(file, "-select_streams a:0 -show_entries stream=sample_rate,channels"));
    size_t samples = 0;
    json listed = json::array();
    for (const auto& g : groups) {
        samples += g.size();
        listed.push_back({{"pictures", g.size()}, {"pts", g.front()}, {"time", clock(g.front())}});
    }
    // Closed groups: the last shown picture is the last group's.
    EXPECT_EQ(info["index"], (json{{"groups", groups.size()}, {"videoSamples", samples},
                                   {"firstPtsMs", groups[0].front()}, {"lastPtsMs", groups.back().back()}}));
    EXPECT_EQ(json::parse(succeeds("keys " + q(file) + " --json"))["keys"], listed);
    // One group, asked for in milliseconds and in clock time; then a time that opens no group.
    const int64_t key1 = groups[1].front(), key2 = groups[2].front();
    const std::string group = succeeds("group " + q(file) + " " + num(key2) + " --json");
    EXPECT_EQ(json::parse(group)["pts"].get<std::vector<int64_t>>(), groups[2]);
    EXPECT_EQ(succeeds("group " + q(file) + " " + clock(key2) + " --json"), group);
    expectExit("group " + q(file) + " " + num(key1 + 1), 1,
               "nearest key timestamps are " + num(key1) + " ms and " + num(key2) + " ms");
}

INSTANTIATE_TEST_SUITE_P(Fixtures, CliIndex, ::testing::Values("main.mp4", "noaudio.mp4"));

// Refused or missing files exit 1, command-line mistakes 2; neither writes an output.
TEST(CliRefusal, EachRefusedFileOrBadArgumentGivesItsCauseAndStatusAndTouchesNothing) {
    const auto m = [](const char* name) { return q(media(name)); };
    const std::string dir = tsltest::scratchDir(), missing = dir + "/no-such-file.mp4", out = dir + "/out.mp4";
    const std::string main = m("main.mp4"), cut = "cut " + main + " -o " + q(out) + " -r ";
    const std::vector<std::tuple<std::string, int, std::string>> cases = {
        {"info " + m("hevc.mp4"), 1, "video codec hevc is not supported: H.264 only"},
        {"info " + m("vp9.webm"), 1, "video codec vp9 is not supported: H.264 only"},
        {"info " + m("mpeg4.mp4"), 1, "video codec mpeg4 is not supported: H.264 only"},
        {"info " + m("mp3audio.mp4"), 1, "audio codec mp3 is not supported: AAC only"},
        {"info " + m("aac22050.mp4"), 1, "audio sample rate 22050 Hz is not supported: 44100 or 48000 only"},
        {"info " + m("aac6ch.mp4"), 1, "6 audio channels are not supported: 1 to 3 only"},
        {"info " + m("audioonly.mp4"), 1, "no H.264 video stream"},
        {"info " + m("text.mp4"), 1, "cannot open " + media("text.mp4")},
        {"keys " + m("empty.mp4"), 1, "cannot open " + media("empty.mp4")},
        {"thumbs " + q(missing), 1, "cannot open " + missing + ": No such file or directory"},
        // Every key packet dropped: the library indexes nothing and says nothing; the walk must not hang.
        {"--timeout 2 keys " + m("nokeys.mp4"), 1, "holds no H.264 key frame"},
        {cut + "1.5-1000", 2, "bad time '1.5'"},
        {cut + "00:00:0x.000-00:00:02.000", 2, "bad time"},
        {cut + "00:00:75.000-00:01:30.000", 2, "minutes and seconds"},
        {cut + "3000-1000", 2, "ends before it starts"},
        {cut + "1000", 2, "START-END"},
        {cut + "0-1000 --offset 900-100", 2, "ends before it starts"},
        {"cut " + main + " -r 0-1000", 2, "--output"},
        {"cut " + main + " -o " + main + " -r 0-1000", 2, "is the source file itself"},
        {"group " + main + " soon", 2, "bad time 'soon'"},
        {"thumbs " + main + " --columns 0", 2, "--columns"},
        {"explode " + main, 2, ""},
        {"", 2, "subcommand"},
    };
    for (const auto& [args, status, says] : cases) {
        expectExit(args, status, says);
        EXPECT_FALSE(std::filesystem::exists(out)) << args;
    }
}

TEST(CliThumbs, OnePngPerKeyUprightInItsColoursAndASheetSizedByItsColumns) {
    const std::string file = media("main.mp4"), dir = tsltest::scratchDir();
    std::set<std::string> names{"sheet.png"};
    for (const int64_t key : tsltest::probeIndex(file).keyPts()) names.insert(pngName("key", key));
    const int keys = static_cast<int>(names.size()) - 1;
    // Cells of the 160-wide thumbnail over a 14-pixel label band, 4-pixel margins.
    const int thumbW = 160, thumbH = 240 * 160 / 320, margin = 4, band = 14;
    for (const int columns : {2, 9}) {
        const std::string out = dir + "/c" + num(columns);
        succeeds("thumbs " + q(file) + " -o " + q(out) + " --columns " + num(columns));
        EXPECT_EQ(listDir(out), names);
        const int used = std::min(columns, keys), rows = (keys + used - 1) / used;
        EXPECT_EQ(sizeOf(out + "/sheet.png"), num(margin + used * (thumbW + margin)) + "," +
                                                  num(margin + rows * (thumbH + band + margin)) + "\n");
    }
    // Top half red, bottom half blue: catches a picture upside down or with red and blue swapped.
    succeeds("thumbs " + q(media("halves.mp4")) + " -o " + q(dir) + " --sheet " + q(dir + "/my.png"));
    EXPECT_TRUE(std::filesystem::exists(dir + "/my.png"));
    const std::string px = rgb(dir + "/" + pngName("key", 0), "scale=1:2:flags=area");  // each half's mean
    ASSERT_EQ(px.size(), 6u);
    EXPECT_TRUE(uint8_t(px[0]) > 200 && uint8_t(px[2]) < 60 && uint8_t(px[3]) < 60 && uint8_t(px[5]) > 200);
}

// Stored landscape, shown turned a quarter clockwise: the pictures come out as ffmpeg shows the file (it
// turns by the display matrix too), and info says so.
TEST(CliThumbs, ATurnedFileGivesUprightPortraitPictures) {
    const std::string turned = media("rotated90.mp4"), dir = tsltest::scratchDir();
    const std::string key0 = dir + "/" + pngName("key", 0);
    succeeds("thumbs " + q(turned) + " -o " + q(dir));
    EXPECT_EQ(sizeOf(key0), "120,160\n");
    EXPECT_GT(psnr(rgb(key0), rgb(turned)), 32.6);
    EXPECT_EQ(json::parse(succeeds("info " + q(turned) + " --json"))["video"]["rotation"], 90);
    EXPECT_NE(succeeds("info " + q(turned)).find("rotation       90 degrees clockwise"), std::string::npos);
}

TEST(CliFrames, EveryPictureOfAGroupUnderItsOwnTimestamp) {
    const std::string file = media("main.mp4"), dir = tsltest::scratchDir();
    const auto group = tsltest::probeIndex(file).sortedGroupPts().at(1);
    ASSERT_GE(group.size(), 13u);
    succeeds("frames " + q(file) + " " + num(group[0]) + " -o " + q(dir));
    std::set<std::string> names;
    for (const int64_t pts : group) names.insert(pngName("frame", pts));
    EXPECT_EQ(listDir(dir), names);
    // The picture named by a time inside the group is the one ffmpeg decodes there, closer to it than to
    // its neighbours (the pattern moves every frame).
    const int n = static_cast<int>(group[12] / (group[1] - group[0]));
    const std::string ours = rgb(dir + "/" + pngName("frame", group[12]));
    const double same = psnr(ours, rgb(file, nth(n)));
    EXPECT_GT(same, 32.6);
    EXPECT_GT(same, psnr(ours, rgb(file, nth(n - 1))));
    EXPECT_GT(same, psnr(ours, rgb(file, nth(n + 1))));
}

TEST(CliCut, TwoRangesDecodeAndOffsetsMoveToTheOutput) {
    const std::string file = media("main.mp4"), out = tsltest::scratchDir() + "/out.mp4";
    const auto keys = tsltest::probeIndex(file).keyPts();
    ASSERT_GE(keys.size(), 5u);
    // A range starting between keys opens on the key before it, at the start
    // of the output: a time inside it moves back by that key's timestamp.
    const int64_t start = keys[2] + 500, end = keys[3] + 500, first = keys[3], second = keys[3] + 400;
    const auto ms = [](int64_t a, int64_t b) { return num(a) + "-" + num(b); };
    const json j = json::parse(succeeds("cut " + q(file) + " -o " + q(out) + " -r " + ms(start, end) + " -r " +
                                        ms(keys[4], keys[4] + 500) + " --offset " + ms(first, second) +
                                        " --offset 0-100 --json"));
    EXPECT_EQ(j["ranges"][0]["opensAtKey"], keys[2]);
    ASSERT_EQ(j["offsets"].size(), 2u);
    EXPECT_EQ(j["offsets"][0]["output"], (json{{"first", first - keys[2]}, {"second", second - keys[2]}}));
    EXPECT_TRUE(j["offsets"][1]["output"].is_null());  // before every range
    EXPECT_EQ(j["offsets"][1]["source"]["second"], 100);
    EXPECT_EQ(tsltest::decodeErrors(out), "");
    EXPECT_EQ(probe(out, "-show_entries stream=codec_type"), "audio\nvideo\n");
}

// A cut that fails exits 1 and names its cause in one line of the program's, whatever the library prints, and
// leaves no output: what was written before a range failed is no cut of the ranges asked for. A file size limit
// that the output passes mid-way (the program ignores SIGXFSZ itself), in both kinds, and an output that can't
// even take its header are named as such; a cause ending in a line break is the whole message.
TEST(CliCut, AFailedJobNamesItsCauseInOneLineAndLeavesNoOutput) {
    const std::string dir = tsltest::scratchDir(), limit = "ulimit -f 200; ";
    const std::string big = "the file would pass the size limit of this process\n";
    std::filesystem::create_symlink("/dev/full", dir + "/full.mp4");
    const struct { std::string before, source, more, out, says; } cases[] = {
        {"", "main.mp4", "-r 0-1000 -r 60000-61000", "a.mp4",
         "the cut failed: range 2 (60000-61000 ms) starts after the last picture"},
        {"", "noaudio.mp4", "-r 0-1000 --kind 0", "b.mp4", "cannot cut " + media("noaudio.mp4") + ": it has no audio"},
        {"", "main.mp4", "-r 0-1000", "none/c.mp4", "cannot write " + dir + "/none/c.mp4: no folder"},
        {limit, "main.mp4", "-r 0-4500 --kind 0", "big.mp4", "could not write " + dir + "/big.mp4: " + big},
        {limit, "main.mp4", "-r 0-4500", "big.mp4", "could not write " + dir + "/big.mp4: " + big},
        {"", "main.mp4", "-r 0-4500", "full.mp4", "could not write " + dir + "/full.mp4: writing to it failed\n"}};
    for (const auto& c : cases) {
        const std::string out = dir + "/" + c.out;
        const std::string args = "cut " + q(media(c.source)) + " -o " + q(out) + " " + c.more + " --json";
        const auto [status, said, err] = tessalo(args, c.before);
        EXPECT_EQ(status, 1) << c.more;
        EXPECT_EQ(said, "") << c.more;  // whatever the library prints stays off stdout
        EXPECT_TRUE(err.rfind("tessalo: " + c.says, 0) == 0 && std::count(err.begin(), err.end(), '\n') == 1) << err;
        EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(out))) << out;
    }
    EXPECT_TRUE(std::filesystem::exists("/dev/full"));
}

// A disk that fills (a small tmpfs, where the system lets a test mount one) is named as such, and nothing is
// left on it.
TEST(CliCut, AFullDiskIsNamed) {
    const std::string small = tsltest::scratchDir() + "/small", mount = "mount -t tmpfs -o size=64k none " + q(small);
    std::filesystem::create_directories(small);
    int status = -1;
    tsltest::run("unshare -rm sh -c " + q(mount) + " 2>/dev/null", &status);
    if (status != 0) GTEST_SKIP() << "no mount namespace here";
    const std::string script = mount + " && " + q(TSL_CLI_PATH) + " cut " + q(media("main.mp4")) + " -r 0-4500 -o " +
                               q(small + "/out.mp4") + " >/dev/null; rc=$?; ls -A " + q(small) + "; exit $rc";
    EXPECT_EQ(tsltest::run("unshare -rm sh -c " + q(script) + " 2>&1", &status),
              "tessalo: could not write " + small + "/out.mp4: the disk is full\n");  // and nothing listed
    EXPECT_EQ(status, 1);
}

TEST(CliDemo, MakesAnH264AacClipThenThumbsASheetAndACut) {
    const std::string dir = tsltest::scratchDir() + "/demo", clip = dir + "/demo.mp4";
    const std::string out = succeeds("demo -o " + q(dir));
    EXPECT_EQ(probe(clip, "-show_entries stream=codec_name"), "h264\naac\n");
    const auto keys = tsltest::probeIndex(clip).keyPts();
    EXPECT_GE(keys.size(), 2u);
    EXPECT_EQ(listDir(dir + "/thumbs").size(), keys.size());
    EXPECT_TRUE(std::filesystem::exists(dir + "/sheet.png"));
    EXPECT_EQ(tsltest::decodeErrors(dir + "/cut.mp4"), "");
    EXPECT_NE(out.find(dir + "/cut.mp4"), std::string::npos);
}

// `cut --exact` says, for each range, which of its pictures it encoded again and which it copied: range 1
// starts 1.3 s before the key frame at 5 s, so those pictures are made; range 2 lies inside one group and
// is made whole. The pictures it says it copied are the source's to the bit.
TEST(CliExact, SaysWhichPicturesOfEachRangeItEncodedAgainAndWhichItCopied) {
    const std::string src = media("longgop.mp4"), out = tsltest::scratchDir() + "/exact.mp4";
    const std::string said = succeeds("cut " + q(src) + " -o " + q(out) + " -r 1300-6290 -r 7000-7500 --exact");
    EXPECT_NE(said.find("range 1  1300-6290 ms  (00:00:01.300 - 00:00:06.290): re-encoded 1320-4960 ms "
                        "(92 pictures), copied 5000-"), std::string::npos) << said;
    EXPECT_NE(said.find("range 2  7000-7500 ms  (00:00:07.000 - 00:00:07.500): re-encoded 7000-7480 ms "
                        "(13 pictures)\n"), std::string::npos) << said;
    size_t made = 0, copied = 0, identical = 0;
    const std::regex count("(re-encoded|copied) [-0-9]+ ms \\(([0-9]+) picture");
    for (std::sregex_iterator m(said.begin(), said.end(), count), end; m != end; ++m)
        ((*m)[1] == "copied" ? copied : made) += std::stoul((*m)[2]);
    const auto output = tsltest::ffmpegFrameMd5(out, false), source = tsltest::ffmpegFrameMd5(src, false);
    ASSERT_EQ(output.size(), made + copied);
    for (const std::string& sum : output) identical += std::count(source.begin(), source.end(), sum) > 0;
    EXPECT_EQ(identical, copied);
}

}  // namespace
