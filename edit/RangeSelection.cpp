#include "edit/RangeSelection.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr int64_t kNoPts = std::numeric_limits<int64_t>::min();

// The mean distance between the first and last of `count` values.
double meanStep(int64_t first, int64_t last, size_t count, double fallback) {
    return count > 1 && last > first ? double(last - first) / double(count - 1) : fallback;
}

}  // namespace

RangeSelection::RangeSelection(const SelectionRules& rules, const SourceTimes& sourceTimes,
                               const std::vector<FrameGroup*>& keyGroups, const std::vector<FrameRecord*>& audio)
    : rule(rules), times(sourceTimes), groups(keyGroups), audioList(audio) {
    int64_t lowest = std::numeric_limits<int64_t>::max(), highest = kNoPts;
    size_t pictures = 0;
    for (const FrameGroup* group : groups)
        for (const FrameRecord* record : *group) {
            lowest = std::min(lowest, record->pts);
            highest = std::max(highest, record->pts);
            ++pictures;
        }
    videoFrame = meanStep(lowest, highest, pictures, videoFrame);
    if (!audioList.empty())
        audioFrame = meanStep(audioList.front()->pts, audioList.back()->pts, audioList.size(), audioFrame);
}

bool RangeSelection::groupBefore(const std::vector<FrameGroup*>& groups, int64_t pts, int32_t* index) {
    if (index) *index = 0;
    if (groups.empty() || !index) return false;
    for (size_t i = 0; i < groups.size(); ++i) {
        const FrameGroup* group = groups[i];
        // Groups are never empty in an index the reader built; refuse one that is.
        if (!group || group->empty()) return false;
        if (group->front()->pts >= pts) {
            *index = static_cast<int32_t>(i == 0 ? 0 : i - 1);
            return true;
        }
    }
    *index = static_cast<int32_t>(groups.size() - 1);
    return pts < groups.back()->back()->pts;
}

bool RangeSelection::groupAtOrBefore(const std::vector<FrameGroup*>& groups, int64_t pts, int32_t* index) {
    if (index) *index = 0;
    if (groups.empty() || !index) return false;
    size_t found = 0;
    for (size_t i = 0; i < groups.size(); ++i) {
        if (!groups[i] || groups[i]->empty()) return false;
        if (groups[i]->front()->pts > pts) break;
        found = i;
    }
    *index = static_cast<int32_t>(found);
    if (found + 1 < groups.size()) return true;
    const FrameGroup& last = *groups.back();
    return std::any_of(last.begin(), last.end(), [pts](const FrameRecord* r) { return r->pts >= pts; });
}

bool RangeSelection::open(const EditRange& range, size_t* group, RangeSpan* opened) {
    int32_t index = 0;
    const bool found = rule.keyAtStartOpensItsGroup ? groupAtOrBefore(groups, range.start, &index)
                                                    : groupBefore(groups, range.start, &index);
    if (!found) return false;
    rangeEnd = range.end;
    span = RangeSpan{};
    span.key = groups[size_t(index)]->front();
    span.keyPts = times.videoPts(*span.key);
    span.keyDts = times.videoDts(*span.key);
    span = scanPictures(size_t(index));
    *group = size_t(index);
    *opened = span;
    return true;
}

RangeSelection::Take RangeSelection::video(const FrameRecord& record) const {
    const int64_t pts = times.videoPts(record);
    if (rule.dropLeadingPictures && pts < span.keyPts) return Take::Skip;
    return pts > rangeEnd ? Take::End : Take::Keep;
}

RangeSelection::Take RangeSelection::audio(const FrameRecord& record) const {
    if (rule.audioEndsWithPictures) {
        const int64_t pts = times.audioPts(record);
        if (rule.audioWithinRange && pts > rangeEnd) return Take::End;
        return pts < span.shownEnd ? Take::Keep : Take::End;
    }
    return record.pts > rangeEnd ? Take::End : Take::Keep;
}

size_t RangeSelection::firstAudio(int64_t from) const {
    if (rule.audioEndsWithPictures && !span.showsPictures) return audioList.size();
    size_t index = 0;
    while (index < audioList.size() && times.audioPts(*audioList[index]) < from) ++index;
    return index;
}

// Walks the range's pictures in decoding order as the cut will, for the last
// one it shows and when that one stops being shown.
RangeSpan RangeSelection::scanPictures(size_t group) const {
    RangeSpan scanned = span;
    int64_t lastShown = kNoPts;
    for (size_t g = group; g < groups.size(); ++g)
        for (size_t f = 0; f < groups[g]->size(); ++f) {
            const Take take = video(*(*groups[g])[f]);
            if (take == Take::Skip) continue;
            if (take == Take::End) {
                if (lastShown != kNoPts) scanned.shownEnd = nextShownAfter(g, f, lastShown);
                scanned.showsPictures = lastShown != kNoPts;
                return scanned;
            }
            lastShown = std::max(lastShown, times.videoPts(*(*groups[g])[f]));
        }
    scanned.showsPictures = lastShown != kNoPts;
    if (scanned.showsPictures) scanned.shownEnd = lastShown + std::llround(videoFrame);
    return scanned;
}

// The pts of the picture shown after `pts` in the source: it comes within the
// rest of this group or the next one in decoding order. Past the last one, a
// picture is shown for a mean frame's length.
int64_t RangeSelection::nextShownAfter(size_t group, size_t frame, int64_t pts) const {
    int64_t next = std::numeric_limits<int64_t>::max();
    for (size_t g = group; g < groups.size() && g <= group + 1; ++g)
        for (size_t f = g == group ? frame : 0; f < groups[g]->size(); ++f) {
            const int64_t candidate = times.videoPts(*(*groups[g])[f]);
            if (candidate > pts) next = std::min(next, candidate);
        }
    return next == std::numeric_limits<int64_t>::max() ? pts + std::llround(videoFrame) : next;
}
