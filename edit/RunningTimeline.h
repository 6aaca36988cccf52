#pragma once
// The original cut's timeline (kind 0). Only the differences between
// neighbouring source timestamps survive: every output time is a running sum,
// which closes the gaps between ranges. Each range opens with fixed steps
// (20 ms of audio, 30 ms of video) and the first one at pts 1 on both tracks,
// its video dts 86 ms below; a range closes by moving the video pts 86 ms on
// when the dts has come that near it.
#include "edit/CutTimeline.h"

class RunningTimeline final : public CutTimeline {
public:
    int64_t audioFrom(const RangeSpan& span) const override;
    void openRange(const RangeSpan& span, const FrameRecord* firstAudio) override;
    SampleTimes video(const FrameRecord& record) override;
    SampleTimes audio(const FrameRecord& record) override;
    void closeRange() override;
    int64_t toOutput(int64_t pts) const override;
    int64_t videoClock() const override { return videoDts; }
    int64_t audioClock() const override { return audioTs; }

    static constexpr int64_t kLead = 86;  // video pts ahead of dts at the start, and the closing step

private:
    int64_t audioTs = 0;
    int64_t videoPts = 0;
    int64_t videoDts = -kLead;
    // The source times the running sums stand on.
    int64_t lastVideoPts = 0;
    int64_t lastVideoDts = 0;
    int64_t lastAudioPts = 0;
    // The range's opening key frame's pts, and videoPts before the range opened.
    int64_t rangeKeyPts = 0;
    int64_t base = 0;
};
