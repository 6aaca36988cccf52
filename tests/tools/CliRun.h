#pragma once
// Running the built `tessalo` program as a user would, and asking ffprobe and
// ffmpeg what the files really hold.
#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace clitest {

struct CliResult {
    int status = -1;
    std::string out;  // standard output
    std::string err;  // standard error
};

// Runs `tessalo ARGS` (ARGS already quoted as needed) with stderr redirected to a file.
CliResult tessalo(const std::string& args);

// Quotes one argument for the shell.
std::string q(const std::string& s);

// ffprobe -show_entries ... -of json, parsed.
nlohmann::json probe(const std::string& file, const std::string& entries, const std::string& select = "");

struct VideoPacket {
    int64_t ptsMs;  // relative to the first video packet in stream order
    bool key;
};
// Video packets of the first video stream in stream order, as ffprobe reports them.
std::vector<VideoPacket> videoPackets(const std::string& file);

// One picture of a file, decoded by ffmpeg, as top-down RGB24; `frame` counts in presentation order.
std::vector<uint8_t> ffmpegFrameRgb(const std::string& file, int frame);
// A PNG decoded by ffmpeg as RGB24, with its size.
std::vector<uint8_t> pngRgb(const std::string& png, int* width = nullptr, int* height = nullptr);
// Mean absolute difference of two equally sized pictures.
double meanDiff(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b);

// Sorted names of the files in a folder.
std::vector<std::string> listDir(const std::string& dir);

}  // namespace clitest
