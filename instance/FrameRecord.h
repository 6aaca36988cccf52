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

// Where the zero of each timeline of the index lies on the file's own
// presentation timeline, in milliseconds. Video pts count from the first
// video packet's pts, video dts from its dts and audio from the first audio
// packet's pts, so the lists alone lose the offset between the tracks (AAC
// priming, edit lists, B-frame decoding lead): a record's time on the file's
// timeline is its value plus its list's origin.
struct IndexOrigins {
    double videoPts = 0;
    double videoDts = 0;
    double audioPts = 0;
};

// One key sample and every sample after it up to the next key sample. The
// group points at records that the index owns (TessaloImpl::frameRecords):
// emptying or reordering a group frees nothing.
using FrameGroup = std::vector<FrameRecord*>;
