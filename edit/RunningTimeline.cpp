#include "edit/RunningTimeline.h"

int64_t RunningTimeline::audioFrom(const RangeSpan& span) const { return span.key->pts; }

void RunningTimeline::openRange(const RangeSpan& span, const FrameRecord* firstAudio) {
    base = videoPts;
    rangeKeyPts = span.key->pts;
    lastVideoPts = span.key->pts;
    lastVideoDts = span.key->dts;
    if (firstAudio) lastAudioPts = firstAudio->pts;
    audioTs = audioTs == 0 ? 1 : audioTs + 20;
    if (videoPts == 0) {
        videoPts = 1;
        videoDts += 1;
    } else {
        videoPts += 30;
        videoDts += 30;
    }
}

SampleTimes RunningTimeline::video(const FrameRecord& record) {
    videoPts += record.pts - lastVideoPts;
    lastVideoPts = record.pts;
    videoDts += record.dts - lastVideoDts;
    lastVideoDts = record.dts;
    return {videoPts, videoDts};
}

SampleTimes RunningTimeline::audio(const FrameRecord& record) {
    audioTs += record.pts - lastAudioPts;
    lastAudioPts = record.pts;
    // The very first audio sample of the output is decoded at 0.
    return {audioTs, audioTs == 1 ? 0 : audioTs};
}

void RunningTimeline::closeRange() {
    if (videoDts + kLead >= videoPts) videoPts += kLead;
}

int64_t RunningTimeline::toOutput(int64_t pts) const { return pts - rangeKeyPts + base; }
