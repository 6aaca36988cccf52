#pragma once
// Which samples of the index a picture request feeds its decoder, in stream
// order, and where the decoder has to start afresh. Worker thread.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "instance/FrameRecord.h"
#include "platform/PlatformFile.h"

namespace Morvel_Tessalo {

class FetchPlan {
public:
    enum Feed : uint8_t {
        kSkip,     // nothing of the group
        kKeyOnly,  // its key sample alone: an IDR picture, whole by itself
        kWhole,    // every sample, in stream order
    };

    explicit FetchPlan(const std::vector<FrameGroup*>& groups);

    void setFeed(size_t group, Feed feed);
    Feed feed(size_t group) const { return group < feeds.size() ? feeds[group] : kSkip; }
    // The group's key sample is known to be an IDR picture.
    void markIdr(size_t group);

    // The next sample to feed, or null when the plan is done. `*restart` is
    // set when the sample opens a group that the samples before it do not
    // lead into and whose key is not known to be IDR: a decoder that has
    // seen other samples must then start afresh, so that it judges the
    // pictures of that point as a new decoder would.
    const FrameRecord* next(bool* restart);

private:
    const std::vector<FrameGroup*>& groups;
    std::vector<Feed> feeds;
    std::vector<bool> idr;
    size_t group = 0;
    size_t sample = 0;
    bool started = false;
    bool contiguous = false;  // the last sample given was the last of its group
};

// Reads key samples on a handle of its own, so that the request's read
// window stays where it is, and tells which start with an IDR picture.
class KeyProbe {
public:
    KeyProbe(const char* path, int32_t lengthSize);
    ~KeyProbe();
    KeyProbe(const KeyProbe&) = delete;
    KeyProbe& operator=(const KeyProbe&) = delete;

    // False also when the sample cannot be read: the caller then decodes
    // from further back, which costs time but never a wrong picture.
    bool startsWithIdr(const FrameRecord& key);

private:
    PlatformFile file;
    int32_t lengthSize;
    std::vector<uint8_t> bytes;
};

}  // namespace Morvel_Tessalo
