#pragma once
// Which pictures of a frame-exact cut's output were encoded again and which
// were copied, read back from the file itself: a made picture's slices refer
// to a picture parameter set that the source does not have.
#include <cstdint>
#include <string>
#include <vector>

namespace tslcli {

struct OutputPicture {
    int64_t pts = 0;  // ms on the output's timeline
    bool made = false;
};

// The output's pictures in presentation order; empty when either file can't be read.
std::vector<OutputPicture> outputPictures(const std::string& source, const std::string& output);

// "re-encoded 1300-4960 ms (92), copied 5000-6240 ms (32)": the runs of made
// and copied pictures of one range, `pts` its source pictures in order and
// `made` whether each was made.
std::string runsText(const std::vector<int64_t>& pts, const std::vector<bool>& made);

}  // namespace tslcli
