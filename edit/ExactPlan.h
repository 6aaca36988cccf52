#pragma once
// What a frame-exact cut makes and what it copies of one range. The range
// shows exactly the source pictures whose pts lies in [start, end]. From the
// first IDR key frame inside the range, samples are copied in decoding order
// for as long as each one is shown inside the range: such a stretch needs
// nothing before it and nothing after it. The pictures shown before it (the
// head) and those inside the range that come only after a sample shown past
// its end (the tail) are made again from decoded pictures. A range without an
// IDR key frame inside it is made whole.
//
// Times are the index's: video pts (which every timeline of the cut shares)
// and the index's own dts. Runs on the thread that plans: the host's while a
// cut is set up, the cut thread while it runs.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "api/tessalo.h"
#include "instance/FrameRecord.h"

// A sample's place in the index: group, and frame within the group.
struct IndexPlace {
    size_t group = 0;
    size_t frame = 0;
    bool operator==(const IndexPlace& other) const { return group == other.group && frame == other.frame; }
};

struct ExactPlan {
    bool shows = false;          // some picture lies inside the range
    std::vector<int64_t> head;   // pts of the pictures made before the copied stretch, rising
    size_t headFrom = 0;         // the group whose (IDR) key frame the head is decoded from
    bool copies = false;         // there is a copied stretch
    IndexPlace copyFrom;         // its first sample, a key frame
    IndexPlace copyEnd;          // the first sample after it (group = the number of groups at the end)
    int64_t lastCopiedDts = 0;   // the index dts of its last sample
    std::vector<int64_t> tail;   // pts of the pictures made after it, rising
    size_t tailFrom = 0;         // the group whose (IDR) key frame the tail is decoded from
    int64_t firstShown = 0;      // pts of the first and the last picture shown
    int64_t lastShown = 0;
    int64_t shownEnd = 0;        // when the last picture stops being shown
    int64_t lead = 0;            // pts - dts of the copied key frame: how far decoding runs ahead

    size_t made() const { return head.size() + tail.size(); }
};

// `isIdr(g)`: whether group g's key frame is an IDR picture (decoding can
// start there, and nothing after it looks back past it).
ExactPlan planExactRange(const std::vector<FrameGroup*>& groups, const EditRange& range,
                         const std::function<bool(size_t)>& isIdr, double frameMs);
