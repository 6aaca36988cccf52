#include "edit/ExactPlan.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

namespace {

// Every picture of the index whose pts lies in [from, to], rising.
std::vector<int64_t> picturesWithin(const std::vector<FrameGroup*>& groups, int64_t from, int64_t to) {
    std::vector<int64_t> shown;
    for (const FrameGroup* group : groups)
        for (const FrameRecord* record : *group)
            if (record->pts >= from && record->pts <= to) shown.push_back(record->pts);
    std::sort(shown.begin(), shown.end());
    shown.erase(std::unique(shown.begin(), shown.end()), shown.end());
    return shown;
}

// The pts of the first picture shown after `pts`; past the last one, a
// picture is shown for a mean frame's length.
int64_t nextShownAfter(const std::vector<FrameGroup*>& groups, int64_t pts, double frameMs) {
    int64_t next = std::numeric_limits<int64_t>::max();
    for (const FrameGroup* group : groups)
        for (const FrameRecord* record : *group)
            if (record->pts > pts) next = std::min(next, record->pts);
    return next == std::numeric_limits<int64_t>::max() ? pts + std::llround(frameMs) : next;
}

// The last group at or before `group` whose key frame is an IDR picture; the
// first group when none is.
size_t idrAtOrBefore(size_t group, const std::function<bool(size_t)>& isIdr) {
    while (group > 0 && !isIdr(group)) --group;
    return group;
}

// The group of the last key frame shown at or before `pts` (the first group when none is).
size_t groupShownBy(const std::vector<FrameGroup*>& groups, int64_t pts) {
    size_t found = 0;
    for (size_t g = 0; g < groups.size() && groups[g]->front()->pts <= pts; ++g) found = g;
    return found;
}

// The samples copied from the IDR key frame of group `from`: in decoding
// order, while each is shown inside [its pts, end]. Then, from the back, the
// stretch gives up samples until every picture of the range it leaves out is
// shown after all it keeps: the made tail then follows the copied stretch on
// screen as it does in decoding order.
void planCopy(const std::vector<FrameGroup*>& groups, size_t from, const std::vector<int64_t>& shown, int64_t end,
              ExactPlan& plan) {
    const int64_t keyPts = groups[from]->front()->pts;
    std::vector<IndexPlace> places;
    std::multiset<int64_t> kept;
    IndexPlace at{from, 0};
    for (; at.group < groups.size(); ++at.group, at.frame = 0) {
        const FrameGroup& group = *groups[at.group];
        for (; at.frame < group.size(); ++at.frame) {
            const int64_t pts = group[at.frame]->pts;
            if (pts > end || pts < keyPts) break;
            places.push_back(at);
            kept.insert(pts);
        }
        if (at.frame < group.size()) break;
    }
    auto lowestLeft = [&] {
        for (const int64_t pts : shown)
            if (pts >= keyPts && !kept.count(pts)) return pts;
        return std::numeric_limits<int64_t>::max();
    };
    while (places.size() > 1 && lowestLeft() < *kept.rbegin()) {
        at = places.back();
        places.pop_back();
        kept.erase(kept.find((*groups[at.group])[at.frame]->pts));
    }
    const IndexPlace last = places.back();
    plan.copies = true;
    plan.copyFrom = IndexPlace{from, 0};
    plan.copyEnd = at;
    plan.lastCopiedDts = (*groups[last.group])[last.frame]->dts;
    plan.lead = keyPts - groups[from]->front()->dts;
    for (const int64_t pts : shown) {
        if (kept.count(pts)) continue;
        (pts < keyPts ? plan.head : plan.tail).push_back(pts);
    }
}

}  // namespace

ExactPlan planExactRange(const std::vector<FrameGroup*>& groups, const EditRange& range,
                         const std::function<bool(size_t)>& isIdr, double frameMs) {
    ExactPlan plan;
    for (const FrameGroup* group : groups)
        if (!group || group->empty()) return plan;
    const std::vector<int64_t> shown = picturesWithin(groups, range.start, range.end);
    if (shown.empty()) return plan;
    plan.shows = true;
    plan.firstShown = shown.front();
    plan.lastShown = shown.back();
    plan.shownEnd = nextShownAfter(groups, plan.lastShown, frameMs);

    for (size_t g = 0; g < groups.size(); ++g) {
        const int64_t keyPts = groups[g]->front()->pts;
        if (keyPts < range.start || keyPts > range.end || !isIdr(g)) continue;
        planCopy(groups, g, shown, range.end, plan);
        break;
    }
    if (!plan.copies) plan.head = shown;
    if (!plan.head.empty()) plan.headFrom = idrAtOrBefore(groupShownBy(groups, plan.head.front()), isIdr);
    if (!plan.tail.empty())
        plan.tailFrom = idrAtOrBefore(std::min(plan.copyEnd.group, groups.size() - 1), isIdr);
    return plan;
}
