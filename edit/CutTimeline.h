#pragma once
// Where a cut puts each sample on the output's timeline. Each cut kind has one
// timeline object for a whole job; the range cutter tells it when a range
// opens and closes and asks it for the output times of every sample it writes,
// in the order of writing. All times are milliseconds. Runs on the cut thread.
#include <cstdint>

#include "instance/FrameRecord.h"

struct SampleTimes {
    int64_t pts;
    int64_t dts;
};

// What one range keeps of the video, as the selection found it; times on the
// source timeline of the kind (SourceTimes).
struct RangeSpan {
    const FrameRecord* key = nullptr;  // the opening key frame
    int64_t keyPts = 0;
    int64_t keyDts = 0;
    bool showsPictures = false;  // at least one picture is kept
    int64_t shownEnd = 0;        // when the last kept picture stops being shown
};

class CutTimeline {
public:
    virtual ~CutTimeline() = default;

    // The earliest source time of the audio that the range opening on `span`
    // takes; the selection starts its audio at the first record from there.
    virtual int64_t audioFrom(const RangeSpan& span) const = 0;
    // A range opens; `firstAudio` is its first audio record, null without one.
    virtual void openRange(const RangeSpan& span, const FrameRecord* firstAudio) = 0;
    // Output times of the next sample written, which the timeline counts as written.
    virtual SampleTimes video(const FrameRecord& record) = 0;
    virtual SampleTimes audio(const FrameRecord& record) = 0;
    // The range has ended (also after a stop).
    virtual void closeRange() = 0;
    // The output time of source instant `pts` of the range that closed last:
    // what the offsets report gives for a time inside that range.
    virtual int64_t toOutput(int64_t pts) const = 0;

    // Output dts of each track's last sample written, or of its first one to
    // come at the opening of a range: the range cutter keeps the tracks level
    // on these, so that the source is read forward in one pass.
    virtual int64_t videoClock() const = 0;
    virtual int64_t audioClock() const = 0;
};
