#pragma once
// Helpers shared by the test executables: fixture paths, running the ffmpeg
// tools for ground truth, file hashes, and a recorder of host events.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace tsltest {

// Absolute path of a generated fixture (tests/media/make_media.sh).
std::string media(const std::string& name);
// A fresh, empty scratch directory for this test; removed by the caller's fixture if wanted.
std::string scratchDir();
// Runs a shell command and returns its standard output; `status` gets the exit status.
std::string run(const std::string& command, int* status = nullptr);
// MD5 of a file's bytes, hex; empty when unreadable.
std::string fileMd5(const std::string& path);
// MD5 of a block, hex.
std::string md5(const uint8_t* data, size_t size);
// Quotes a string for the shell.
std::string shellQuote(const std::string& s);
// ffprobe's comma-separated account of what `args` select in `path`, without section names.
std::string probe(const std::string& path, const std::string& args, int* status = nullptr);
// ffmpeg's MD5 of each I420 picture of the first video stream, in presentation
// order; with `keysOnly`, of the key pictures alone.
std::vector<std::string> ffmpegFrameMd5(const std::string& path, bool keysOnly);
// The pictures of the first video stream as ffmpeg decodes them (8-bit 4:2:0, as stored, not turned),
// in presentation order, with the time of each in ms.
struct Decoded {
    std::vector<int64_t> pts;
    std::vector<std::string> pictures;
};
Decoded decodePictures(const std::string& path);
// Index of the picture shown at `ms`: the last one that starts at or before it.
size_t shownAt(const std::vector<int64_t>& pts, int64_t ms);
// Peak signal-to-noise ratio of two pictures of the same size, in dB; infinite when equal.
double psnr(const std::string& a, const std::string& b);
// What ffmpeg reports while decoding the whole file: empty when it decodes cleanly.
std::string decodeErrors(const std::string& path);
// Threads of this process now.
size_t threadCount();

// While it lives, files of this process (and of the processes it starts) cannot
// grow past `bytes`: a write beyond fails with EFBIG instead of raising SIGXFSZ,
// as on a disk that fills. Tests run one per process under ctest.
class FileSizeLimit {
public:
    explicit FileSizeLimit(uint64_t bytes);
    ~FileSizeLimit();
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    uint64_t saved[2];
    void (*savedHandler)(int);
};

// Collects host events in arrival order; safe from any thread.
class EventRecorder {
public:
    // The host callback shape; `user` must be an EventRecorder.
    static int32_t callback(void* user, int32_t event);

    void record(int32_t event);
    std::vector<int32_t> events() const;
    size_t count(int32_t event) const;
    void clear();
    // Waits until `event` has been seen `times` times; false on timeout.
    bool waitFor(int32_t event, size_t times = 1,
                 std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
    // Waits until any of `events` has been seen; returns it, or -1 on timeout.
    int32_t waitForAny(const std::vector<int32_t>& events,
                       std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

private:
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<int32_t> seen;
};

}  // namespace tsltest
