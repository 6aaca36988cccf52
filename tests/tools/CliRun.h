#pragma once
// Running the built `tessalo` program as a user would, and asking ffprobe and
// ffmpeg what the files really hold.
#include <fstream>

#include "support/ProbeIndex.h"  // the index as ffprobe's packets give it

namespace clitest {

inline std::string q(const std::string& s) { return tsltest::shellQuote(s); }

struct CliResult { int status = -1; std::string out, err; };

// Runs `tessalo ARGS` (ARGS already quoted) with stderr captured in a file.
inline CliResult tessalo(const std::string& args) {
    CliResult r;
    std::filesystem::create_directories(std::string(TSL_BUILD_DIR) + "/scratch");
    const std::string errFile = std::string(TSL_BUILD_DIR) + "/scratch/cli-stderr-" + std::to_string(::getpid());
    r.out = tsltest::run(q(TSL_CLI_PATH) + " " + args + " 2>" + q(errFile), &r.status);
    std::ifstream in(errFile);
    r.err.assign(std::istreambuf_iterator<char>(in), {});
    std::filesystem::remove(errFile);
    return r;
}

// ffprobe -show_entries ENTRIES -of json, parsed.
inline nlohmann::json probe(const std::string& file, const std::string& entries, const std::string& select = "") {
    return nlohmann::json::parse(tsltest::run("ffprobe -v error " + (select.empty() ? "" : "-select_streams " + select) +
                                              " -show_entries " + entries + " -of json " + q(file)));
}

inline bool decodesCleanly(const std::string& file) {
    int status = -1;
    const std::string errors = tsltest::run("ffmpeg -v error -i " + q(file) + " -f null - 2>&1", &status);
    return status == 0 && errors.empty();
}

// A picture decoded by ffmpeg as RGB24: a PNG, or picture FRAME (presentation order) of a video.
inline std::vector<uint8_t> rgb(const std::string& file, int* width = nullptr, int* height = nullptr, int frame = -1) {
    if (width) {
        const auto s = probe(file, "stream=width,height")["streams"][0];
        *width = s["width"], *height = s["height"];
    }
    const std::string raw = tsltest::run("ffmpeg -v error -i " + q(file) + (frame < 0 ? "" : " -frames:v 1 -vf " +
        q("select=eq(n\\," + std::to_string(frame) + ")")) + " -f rawvideo -pix_fmt rgb24 -");
    return {raw.begin(), raw.end()};
}

inline double meanDiff(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    if (a.size() != b.size() || a.empty()) return 1e9;
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) sum += std::abs(int(a[i]) - int(b[i]));
    return sum / static_cast<double>(a.size());
}

// Sorted names of the files in a folder.
inline std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The name `thumbs` and `frames` give the picture at MS.
inline std::string pngName(const char* prefix, int64_t ms) {
    char name[64];
    std::snprintf(name, sizeof name, "%s_%09lldms.png", prefix, static_cast<long long>(ms));
    return name;
}

}  // namespace clitest
