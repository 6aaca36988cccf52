#include "support/TestSupport.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern "C" {
#include <libavutil/md5.h>
#include <libavutil/mem.h>
}


namespace tsltest {

std::string media(const std::string& name) { return std::string(TSL_MEDIA_DIR) + "/" + name; }

std::string scratchDir() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "scratch";
    std::replace(name.begin(), name.end(), '/', '_');
    const std::filesystem::path dir = std::filesystem::path(TSL_BUILD_DIR) / "scratch" / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir.string();
}

std::string run(const std::string& command, int* status) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        if (status) *status = -1;
        return out;
    }
    std::array<char, 65536> chunk;
    size_t n;
    while ((n = fread(chunk.data(), 1, chunk.size(), pipe)) > 0) out.append(chunk.data(), n);
    const int rc = pclose(pipe);
    if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

std::string md5(const uint8_t* data, size_t size) {
    uint8_t digest[16];
    av_md5_sum(digest, data, size);
    char hex[33];
    for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

std::string fileMd5(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    return md5(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string shellQuote(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::vector<std::string> ffmpegFrameMd5(const std::string& path, bool keysOnly) {
    std::istringstream lines(run(std::string("ffmpeg -v error ") + (keysOnly ? "-skip_frame nokey " : "") + "-i " +
                                 shellQuote(path) + " -map 0:v:0 -fps_mode passthrough -pix_fmt yuv420p -f framemd5 -"));
    std::vector<std::string> md5s;
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && line[0] != '#') md5s.push_back(line.substr(line.rfind(',') + 2));
    return md5s;
}

std::string probe(const std::string& path, const std::string& args, int* status) {
    return run("ffprobe -v error " + args + " -of csv=p=0 " + shellQuote(path), status);
}

Decoded decodePictures(const std::string& path) {
    Decoded d;
    const std::string size = probe(path, "-select_streams v:0 -show_entries stream=width,height");
    const size_t bytes = size_t(std::stoi(size)) * size_t(std::stoi(size.substr(size.find(',') + 1))) * 3 / 2;
    const std::string raw = run("ffmpeg -nostdin -v error -noautorotate -i " + shellQuote(path) +
                                " -map 0:v:0 -fps_mode passthrough -pix_fmt yuv420p -f rawvideo -");
    for (size_t at = 0; at + bytes <= raw.size(); at += bytes) d.pictures.push_back(raw.substr(at, bytes));
    std::istringstream times(probe(path, "-select_streams v:0 -show_entries frame=pts_time"));
    for (std::string t; std::getline(times, t);)
        if (!t.empty() && t[0] != ',') d.pts.push_back(std::llround(std::stod(t) * 1000));  // side data adds lines
    return d;
}

size_t shownAt(const std::vector<int64_t>& pts, int64_t ms) {
    size_t at = 0;
    for (size_t i = 0; i < pts.size(); ++i)
        if (pts[i] <= ms) at = i;
    return at;
}

double psnr(const std::string& a, const std::string& b) {
    if (a.size() != b.size() || a.empty()) return 0;
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        const double diff = double(uint8_t(a[i])) - double(uint8_t(b[i]));
        sum += diff * diff;
    }
    return sum == 0 ? INFINITY : 10 * std::log10(255.0 * 255.0 * double(a.size()) / sum);
}

std::string decodeErrors(const std::string& path) {
    int status = -1;
    std::string errors = run("ffmpeg -nostdin -v error -i " + shellQuote(path) + " -f null - 2>&1", &status);
    if (status != 0 && errors.empty()) errors = "ffmpeg exited with status " + std::to_string(status);
    return errors;
}

size_t threadCount() {
    static std::once_flag warm;  // TSan starts a helper thread along with the first thread
    std::call_once(warm, [] { std::thread([] {}).join(); });
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

FileSizeLimit::FileSizeLimit(uint64_t bytes) {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    saved[0] = limit.rlim_cur;
    saved[1] = limit.rlim_max;
    savedHandler = signal(SIGXFSZ, SIG_IGN);
    limit.rlim_cur = bytes;
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
}

FileSizeLimit::~FileSizeLimit() {
    const rlimit limit{saved[0], saved[1]};
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, savedHandler);
}

int32_t EventRecorder::callback(void* user, int32_t event) {
    static_cast<EventRecorder*>(user)->record(event);
    return 0;
}

void EventRecorder::record(int32_t event) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(event);
    }
    changed.notify_all();
}

std::vector<int32_t> EventRecorder::events() const {
    std::lock_guard<std::mutex> lock(mutex);
    return seen;
}

size_t EventRecorder::count(int32_t event) const {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<size_t>(std::count(seen.begin(), seen.end(), event));
}

void EventRecorder::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    seen.clear();
}

bool EventRecorder::waitFor(int32_t event, size_t times, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] {
        return static_cast<size_t>(std::count(seen.begin(), seen.end(), event)) >= times;
    });
}

int32_t EventRecorder::waitForAny(const std::vector<int32_t>& events, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex);
    int32_t found = -1;
    changed.wait_for(lock, timeout, [&] {
        for (int32_t e : seen)
            if (std::find(events.begin(), events.end(), e) != events.end()) {
                found = e;
                return true;
            }
        return false;
    });
    return found;
}

}  // namespace tsltest
