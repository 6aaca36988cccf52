#pragma once
#include <cstdint>
#include <vector>

// One sample of the frame index: where it lies in the file and its times in
// milliseconds on the index's timeline.
struct FrameRecord {
    uint8_t isKey = 0;
    int32_t size = 0;
    int64_t pts = 0;
    int64_t dts = 0;
    int64_t position = 0;
};

// One key sample and every sample after it up to the next key sample. The
// vector owns its records: whoever empties it deletes them.
using FrameGroup = std::vector<FrameRecord*>;
