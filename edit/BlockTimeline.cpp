#include "edit/BlockTimeline.h"

#include <algorithm>
#include <cmath>

BlockTimeline::BlockTimeline(SourceTimes sourceTimes, double audioFrameMs)
    : times(sourceTimes), audioFrameLength(std::llround(audioFrameMs)) {}

int64_t BlockTimeline::originFor(const RangeSpan& span) const {
    if (!picturesShown) return 0;
    const int64_t decodingLead = span.keyPts - span.keyDts;
    return std::max(picturesEnd, lastVideoDts + 1 + decodingLead);
}

int64_t BlockTimeline::audioFrom(const RangeSpan& span) const {
    // The first audio of the output starts with the opening picture; later
    // audio goes on where the audio written so far ends.
    if (!audioWritten) return span.keyPts;
    return span.keyPts + (audioEnd - originFor(span)) - kRounding;
}

void BlockTimeline::openRange(const RangeSpan& span, const FrameRecord* firstAudio) {
    keyPts = span.keyPts;
    origin = originFor(span);
    rangeShows = span.showsPictures;
    rangeShownEnd = span.shownEnd;
    videoDtsClock = span.keyDts - keyPts + origin;
    audioClockValue = firstAudio ? times.audioPts(*firstAudio) - keyPts + origin : videoDtsClock;
}

SampleTimes BlockTimeline::video(const FrameRecord& record) {
    const SampleTimes out{times.videoPts(record) - keyPts + origin, times.videoDts(record) - keyPts + origin};
    lastVideoDts = out.dts;
    videoDtsClock = out.dts;
    return out;
}

SampleTimes BlockTimeline::audio(const FrameRecord& record) {
    const int64_t pts = times.audioPts(record) - keyPts + origin;
    audioWritten = true;
    audioEnd = pts + audioFrameLength;
    audioClockValue = pts;
    return {pts, pts};
}

void BlockTimeline::closeRange() {
    if (!rangeShows) return;
    picturesShown = true;
    picturesEnd = rangeShownEnd - keyPts + origin;
}
