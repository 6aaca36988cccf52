#pragma once
// Reads the packets of one stream of a fixture with libavformat, as the
// ground-truth side of the decoder tests.
#include <cstdint>
#include <string>
#include <vector>

struct MediaSample {
    std::vector<uint8_t> bytes;
    int64_t pts = 0;
    int64_t dts = 0;
    bool key = false;
};

struct MediaStream {
    std::vector<uint8_t> extraData;
    std::vector<MediaSample> samples;
    bool ok = false;
};

// `audio` picks the first audio stream, else the first video stream.
MediaStream readStream(const std::string& path, bool audio);
