#include "CliRun.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include "support/TestSupport.h"

namespace clitest {

std::string q(const std::string& s) { return tsltest::shellQuote(s); }

CliResult tessalo(const std::string& args) {
    CliResult r;
    static int calls = 0;
    const std::filesystem::path dir = std::filesystem::path(TSL_BUILD_DIR) / "scratch" / "cli-stderr";
    std::filesystem::create_directories(dir);
    const std::string errFile = (dir / (std::to_string(::getpid()) + "-" + std::to_string(++calls))).string();
    r.out = tsltest::run(q(TSL_CLI_PATH) + " " + args + " 2>" + q(errFile), &r.status);
    std::ifstream in(errFile);
    std::stringstream text;
    text << in.rdbuf();
    r.err = text.str();
    std::filesystem::remove(errFile);
    return r;
}

nlohmann::json probe(const std::string& file, const std::string& entries, const std::string& select) {
    const std::string cmd = "ffprobe -v error " + (select.empty() ? "" : "-select_streams " + select + " ") +
        "-show_entries " + entries + " -of json " + q(file);
    return nlohmann::json::parse(tsltest::run(cmd));
}

std::vector<VideoPacket> videoPackets(const std::string& file) {
    const nlohmann::json p = probe(file, "packet=pts_time,flags", "v:0");
    std::vector<VideoPacket> out;
    double first = 0;
    for (const auto& packet : p["packets"]) {
        const double t = std::stod(packet["pts_time"].get<std::string>());
        if (out.empty()) first = t;
        out.push_back({static_cast<int64_t>(std::llround((t - first) * 1000)),
                       packet["flags"].get<std::string>().find('K') != std::string::npos});
    }
    return out;
}

std::vector<uint8_t> ffmpegFrameRgb(const std::string& file, int frame) {
    const std::string raw = tsltest::run("ffmpeg -v error -i " + q(file) + " -vf " + q("select=eq(n\\," + std::to_string(frame) + ")") +
                                         " -frames:v 1 -f rawvideo -pix_fmt rgb24 -");
    return {raw.begin(), raw.end()};
}

std::vector<uint8_t> pngRgb(const std::string& png, int* width, int* height) {
    if (width || height) {
        const nlohmann::json s = probe(png, "stream=width,height");
        if (width) *width = s["streams"][0]["width"];
        if (height) *height = s["streams"][0]["height"];
    }
    const std::string raw = tsltest::run("ffmpeg -v error -i " + q(png) + " -f rawvideo -pix_fmt rgb24 -");
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
    if (!std::filesystem::is_directory(dir)) return names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace clitest
