#pragma once
// A host for the picture tests: it indexes a file through the exports and,
// inside each kHostEventPicReady, takes the picture as a real host would.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

struct DeliveredPicture {
    int64_t pts = 0;
    uint8_t key = 0;
    int32_t size = 0;
    std::string md5;
    std::vector<uint8_t> bytes;  // kept only when the host asks for them
};

class PictureHost {
public:
    PictureHost();
    ~PictureHost();

    // Walks `path`; true when kHostEventIndexReady came.
    bool index(const std::string& path);
    // Sends a request and waits for its end (PicDone, Error or FileError).
    // Returns the request's events, from its PicStart on.
    std::vector<int32_t> request(const std::vector<int64_t>& pts);
    // Sends a request and returns at once.
    bool send(const std::vector<int64_t>& pts);
    // Waits until `event` has been seen `times` times in all.
    bool waitFor(int32_t event, size_t times);

    std::vector<int64_t> keyPts();
    std::vector<int64_t> groupPts(int64_t key);
    // Every timestamp of the file in presentation order, group after group.
    std::vector<int64_t> allPts();

    std::vector<int32_t> events();
    std::vector<DeliveredPicture> pictures();
    void clear();

    void* handle = nullptr;
    bool keepBytes = false;

private:
    static int32_t callback(void* user, int32_t event);
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<int32_t> seen;
    std::vector<DeliveredPicture> delivered;
};

// ffmpeg's md5 of each picture of the first video stream in presentation
// order; with `keysOnly`, of the key pictures alone.
std::vector<std::string> ffmpegFrameMd5(const std::string& path, bool keysOnly);
