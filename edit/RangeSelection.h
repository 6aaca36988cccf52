#pragma once
// Which samples of the frame index one range keeps. The kinds of cut differ
// only in a few rules, which SelectionRules names; the walk through the index
// is the same for all of them. Times are on the kind's source timeline
// (SourceTimes). Runs on the cut thread.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "api/tessalo.h"
#include "edit/CutTimeline.h"
#include "edit/SourceTimes.h"
#include "instance/FrameRecord.h"

struct SelectionRules {
    // A start equal to a key frame's pts opens that key frame's group (true)
    // or the group before it (false, the original cut).
    bool keyAtStartOpensItsGroup = false;
    // Pictures that follow the opening key frame in decoding order but are
    // shown before it (an open group's leading pictures, which need the group
    // before) are not kept.
    bool dropLeadingPictures = false;
    // Audio ends where the kept pictures stop being shown (true) or at the
    // range's end (false).
    bool audioEndsWithPictures = false;
    // A range without audio fails (the original cut cannot place video alone).
    bool needsAudio = true;
    // A track walked to the end of its list stays ended for the rest of the
    // job (true, the original cut) or only for that range.
    bool listEndsForTheJob = true;

    // With audioEndsWithPictures: nor does audio run past the range's end
    // (the frame-exact cut's audio stays inside the range as its pictures do).
    bool audioWithinRange = false;

    // The original cut (kind 0), the synced cut (kind 1) and the frame-exact cut (kind 2).
    static SelectionRules original() { return {}; }
    static SelectionRules synced() { return {true, true, true, false, false}; }
    static SelectionRules exact() {
        SelectionRules rules = synced();
        rules.audioWithinRange = true;
        return rules;
    }
};

class RangeSelection {
public:
    RangeSelection(const SelectionRules& rules, const SourceTimes& times, const std::vector<FrameGroup*>& groups,
                   const std::vector<FrameRecord*>& audio);

    // Opens `range`: the group it opens on and what it keeps of the video.
    // False when no group opens it (it starts after the last picture).
    bool open(const EditRange& range, size_t* group, RangeSpan* span);
    // Opens `range` on a span found elsewhere (the frame-exact cut's): the
    // audio rules then apply to it as to one this selection found.
    void adopt(const EditRange& range, const RangeSpan& opened) {
        rangeEnd = range.end;
        span = opened;
    }
    // The first audio record at or after source time `from`, or the list's
    // size when there is none or the range takes no audio.
    size_t firstAudio(int64_t from) const;

    enum class Take { Keep, Skip, End };
    // For the next video record in decoding order and the next audio record
    // of the range now open.
    Take video(const FrameRecord& record) const;
    Take audio(const FrameRecord& record) const;

    const SelectionRules& rules() const { return rule; }
    // The mean length of a frame of each track, from the whole index.
    double videoFrameMs() const { return videoFrame; }
    double audioFrameMs() const { return audioFrame; }

    // The group that opens a range starting at `pts` in the original cut: a
    // pts equal to a key frame's selects the group before it (except for the
    // first group); false when every group's key is below `pts` and so is the
    // last group's last frame in decoding order.
    static bool groupBefore(const std::vector<FrameGroup*>& groups, int64_t pts, int32_t* index);
    // The group of the last key frame at or before `pts` (the first group when
    // there is none); false when `pts` is after every picture.
    static bool groupAtOrBefore(const std::vector<FrameGroup*>& groups, int64_t pts, int32_t* index);

private:
    RangeSpan scanPictures(size_t group) const;
    int64_t nextShownAfter(size_t group, size_t frame, int64_t pts) const;

    SelectionRules rule;
    SourceTimes times;
    const std::vector<FrameGroup*>& groups;
    const std::vector<FrameRecord*>& audioList;
    double videoFrame = 40;
    double audioFrame = 1024000.0 / 44100;
    // The range now open.
    int64_t rangeEnd = 0;
    RangeSpan span;
};
