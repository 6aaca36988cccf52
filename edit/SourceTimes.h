#pragma once
// The times of index records on one source timeline for both tracks: the
// video pts timeline of the index. Video dts and audio pts are counted in the
// index from origins of their own; a cut that keeps the source's own offset
// between the tracks moves them onto the video pts timeline first.
#include <cmath>
#include <cstdint>

#include "instance/FrameRecord.h"

struct SourceTimes {
    int64_t videoDtsShift = 0;  // added to a video record's dts
    int64_t audioShift = 0;     // added to an audio record's pts

    // The index's own values, as the original cut reads them.
    static SourceTimes asIndexed() { return {}; }
    // The true offsets between the index's timelines. The dts shift rounds
    // down: the index truncates each time, and a picture decoded no later
    // than it is shown must keep a dts at or below its pts.
    static SourceTimes fromOrigins(const IndexOrigins& origins) {
        return {static_cast<int64_t>(std::floor(origins.videoDts - origins.videoPts)),
                std::llround(origins.audioPts - origins.videoPts)};
    }

    int64_t videoPts(const FrameRecord& record) const { return record.pts; }
    int64_t videoDts(const FrameRecord& record) const { return record.dts + videoDtsShift; }
    int64_t audioPts(const FrameRecord& record) const { return record.pts + audioShift; }
};
