// Files the library refuses, each with a sentence that names the cause and
// exit status 1; mistakes on the command line with exit status 2.
#include <gtest/gtest.h>

#include <filesystem>

#include "CliRun.h"
#include "support/TestSupport.h"

using clitest::q;

namespace {

std::string audioField(const std::string& file, const char* field) {
    const auto s = clitest::probe(file, std::string("stream=") + field, "a:0")["streams"][0][field];
    return s.is_string() ? s.get<std::string>() : std::to_string(s.get<int>());
}

std::string videoCodec(const std::string& file) {
    return clitest::probe(file, "stream=codec_name", "v:0")["streams"][0]["codec_name"];
}

void expectRefused(const std::string& file, const std::string& sentence) {
    const auto r = clitest::tessalo("info " + q(file));
    EXPECT_EQ(r.status, 1) << file;
    EXPECT_TRUE(r.out.empty()) << r.out;
    EXPECT_NE(r.err.find(sentence), std::string::npos) << file << ": " << r.err;
}

}  // namespace

TEST(CliRefusal, EachRefusedFixtureGivesItsCause) {
    for (const char* name : {"hevc.mp4", "mpeg4.mp4"}) {
        const std::string file = tsltest::media(name);
        expectRefused(file, "video codec " + videoCodec(file) + " is not supported: H.264 only");
    }
    const std::string mp3 = tsltest::media("mp3audio.mp4");
    expectRefused(mp3, "audio codec " + audioField(mp3, "codec_name") + " is not supported: AAC only");
    const std::string rate = tsltest::media("aac22050.mp4");
    expectRefused(rate, "audio sample rate " + audioField(rate, "sample_rate") +
                            " Hz is not supported: 44100 or 48000 only");
    const std::string six = tsltest::media("aac6ch.mp4");
    expectRefused(six, audioField(six, "channels") + " audio channels are not supported: 1 to 3 only");
    expectRefused(tsltest::media("audioonly.mp4"), "no H.264 video stream");
    expectRefused(tsltest::media("text.mp4"), "cannot open " + tsltest::media("text.mp4"));
    expectRefused(tsltest::media("empty.mp4"), "cannot open " + tsltest::media("empty.mp4"));
}

TEST(CliRefusal, MissingFile) {
    const std::string missing = tsltest::scratchDir() + "/no-such-file.mp4";
    for (const char* command : {"info", "keys", "thumbs"}) {
        const auto r = clitest::tessalo(std::string(command) + " " + q(missing));
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_NE(r.err.find("cannot open " + missing + ": No such file or directory"), std::string::npos) << r.err;
    }
}

TEST(CliUsage, BadArgumentsGiveStatusTwoAndTouchNothing) {
    const std::string main = q(tsltest::media("main.mp4"));
    const std::string out = tsltest::scratchDir() + "/out.mp4";
    struct Case {
        std::string args;
        std::string says;
    };
    const std::vector<Case> cases = {
        {"cut " + main + " -o " + q(out) + " -r 1.5-1000", "bad time '1.5'"},
        {"cut " + main + " -o " + q(out) + " -r 00:00:0x.000-00:00:02.000", "bad time"},
        {"cut " + main + " -o " + q(out) + " -r 00:00:75.000-00:01:30.000", "minutes and seconds"},
        {"cut " + main + " -o " + q(out) + " -r 3000-1000", "ends before it starts"},
        {"cut " + main + " -o " + q(out) + " -r 1000", "START-END"},
        {"cut " + main + " -o " + q(out) + " -r 0-1000 --offset 900-100", "ends before it starts"},
        {"cut " + main + " -r 0-1000", "--output"},
        {"cut " + main + " -o " + main + " -r 0-1000", "is the source file itself"},
        {"group " + main + " soon", "bad time 'soon'"},
        {"thumbs " + main + " --columns 0", "--columns"},
        {"explode " + main, ""},
        {"", "subcommand"},
    };
    for (const Case& c : cases) {
        const auto r = clitest::tessalo(c.args);
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << c.args << ": " << r.err;
        EXPECT_FALSE(std::filesystem::exists(out)) << c.args;
    }
}

TEST(CliRefusal, AWalkThatEndsWithoutAnyEventIsReportedNotWaitedOnForever) {
    // Every key packet dropped: the library indexes nothing and says nothing.
    const std::string file = tsltest::scratchDir() + "/nokeys.mp4";
    int status = -1;
    tsltest::run("ffmpeg -nostdin -v error -y -i " + q(tsltest::media("main.mp4")) +
                     " -map 0:v -map 0:a -c copy -bsf:v noise=drop=key " + q(file) + " 2>&1",
                 &status);
    ASSERT_EQ(status, 0);
    const auto r = clitest::tessalo("--timeout 2 keys " + q(file));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("holds no H.264 key frame"), std::string::npos) << r.err;
}
