#pragma once
// The synced cut's timeline (kind 1). Each range moves as one block: every
// sample of range r, on both tracks, keeps its source distance to the range's
// opening key frame K_r, so its output time is its source time - K_r + O_r
// (video pts, video dts and audio pts alike; audio dts = pts), and the offset
// between the tracks inside a range is the source's own.
//
// O_0 = 0: the first range's key frame is shown at 0. Each next range starts
// right where the pictures of the ranges before it stop being shown, or later
// when its key frame's decoding lead would put its dts at or below the last
// dts written: no picture of range r+1 is shown before the last picture of
// range r, and video dts rise strictly. Its audio starts with the first record
// that falls at or after the end of the audio written so far (to rounding), so
// a join leaves less than one audio frame of silence and no overlap.
//
// A frame-exact cut builds on this: pictures it makes itself for the head of a
// range are placed by the same shift as the samples it copies.
#include "edit/CutTimeline.h"
#include "edit/SourceTimes.h"

class BlockTimeline : public CutTimeline {
public:
    // `audioFrameMs`: the length of one audio frame of the source.
    BlockTimeline(SourceTimes times, double audioFrameMs);

    int64_t audioFrom(const RangeSpan& span) const override;
    void openRange(const RangeSpan& span, const FrameRecord* firstAudio) override;
    SampleTimes video(const FrameRecord& record) override;
    SampleTimes audio(const FrameRecord& record) override;
    void closeRange() override;
    int64_t toOutput(int64_t pts) const override { return pts - keyPts + origin; }
    int64_t videoClock() const override { return videoDtsClock; }
    int64_t audioClock() const override { return audioClockValue; }

    // O_r for a range opening on `span`, given the ranges before it.
    int64_t originFor(const RangeSpan& span) const;

    // Output times are whole milliseconds: two frames of one track that follow
    // each other in the source may land this much closer than their length.
    static constexpr int64_t kRounding = 1;

private:
    SourceTimes times;
    int64_t audioFrameLength;
    // The range now open: K_r, O_r, and where its pictures stop being shown.
    int64_t keyPts = 0;
    int64_t origin = 0;
    bool rangeShows = false;
    int64_t rangeShownEnd = 0;
    // The output so far.
    bool picturesShown = false;  // some range has shown pictures
    int64_t picturesEnd = 0;     // when the last of them stops being shown
    int64_t lastVideoDts = 0;
    bool audioWritten = false;
    int64_t audioEnd = 0;  // when the last audio frame written ends
    int64_t videoDtsClock = 0;
    int64_t audioClockValue = 0;
};
