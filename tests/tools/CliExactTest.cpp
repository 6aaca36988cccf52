// `tessalo cut --exact` says, for each range, which of its pictures it encoded again and which it copied;
// what it says is held against the output file's own pictures, decoded by ffmpeg.
#include <gtest/gtest.h>

#include <regex>

#include "support/TestSupport.h"

namespace {

using tsltest::shellQuote;

// ffmpeg's MD5 of each picture of `file`, in presentation order.
std::vector<std::string> pictureMd5s(const std::string& file) {
    std::vector<std::string> sums;
    std::istringstream lines(tsltest::run("ffmpeg -nostdin -v error -i " + shellQuote(file) +
                                          " -map 0:v:0 -fps_mode passthrough -f framemd5 -"));
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && line[0] != '#') sums.push_back(line.substr(line.rfind(',') + 2));
    return sums;
}

TEST(CliExact, SaysWhichPicturesOfEachRangeItEncodedAgainAndWhichItCopied) {
    const std::string src = tsltest::media("longgop.mp4"), out = tsltest::scratchDir() + "/exact.mp4";
    int status = -1;
    const std::string said = tsltest::run(shellQuote(TSL_CLI_PATH) + " cut " + shellQuote(src) + " -o " +
                                              shellQuote(out) + " -r 1300-6290 -r 7000-7500 --exact",
                                          &status);
    ASSERT_EQ(status, 0) << said;
    // Range 1 starts 1.3 s before the key frame at 5 s: those pictures are made; range 2 lies inside one
    // group and is made whole.
    EXPECT_NE(said.find("range 1  1300-6290 ms  (00:00:01.300 - 00:00:06.290): re-encoded 1320-4960 ms (92 pictures), "
                        "copied 5000-"),
              std::string::npos)
        << said;
    EXPECT_NE(said.find("range 2  7000-7500 ms  (00:00:07.000 - 00:00:07.500): re-encoded 7000-7480 ms (13 pictures)\n"),
              std::string::npos)
        << said;

    // The pictures it says it copied are the source's to the bit, the made ones are not.
    size_t made = 0, copied = 0;
    const std::regex run("(re-encoded|copied) [-0-9]+ ms \\(([0-9]+) picture");
    for (std::sregex_iterator m(said.begin(), said.end(), run), end; m != end; ++m)
        ((*m)[1] == "copied" ? copied : made) += std::stoul((*m)[2]);
    const std::vector<std::string> output = pictureMd5s(out), source = pictureMd5s(src);
    ASSERT_EQ(output.size(), made + copied);
    size_t identical = 0;
    for (const std::string& sum : output) identical += std::count(source.begin(), source.end(), sum) > 0;
    EXPECT_EQ(identical, copied);
}

}  // namespace
