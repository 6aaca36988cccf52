#include "instance/FetchPlan.h"

#include <algorithm>

#include "decode/H264Sample.h"
#include "platform/ReadWindow.h"
#include "platform/Utf8.h"

namespace Morvel_Tessalo {

FetchPlan::FetchPlan(const std::vector<FrameGroup*>& all)
    : groups(all), feeds(all.size(), kSkip), idr(all.size(), false) {}

void FetchPlan::setFeed(size_t g, Feed value) {
    if (g < feeds.size()) feeds[g] = std::max(feeds[g], value);
}

void FetchPlan::markIdr(size_t g) {
    if (g < idr.size()) idr[g] = true;
}

const FrameRecord* FetchPlan::next(bool* restart) {
    *restart = false;
    if (started && group < groups.size() && feeds[group] == kWhole && sample + 1 < groups[group]->size()) {
        const bool last = ++sample + 1 == groups[group]->size();
        contiguous = last;
        return (*groups[group])[sample];
    }
    // The next group with anything to feed.
    const size_t from = started ? group + 1 : 0;
    const bool followsOn = started && contiguous;
    for (group = from; group < groups.size() && (feeds[group] == kSkip || groups[group]->empty()); ++group) {
    }
    if (group >= groups.size()) return nullptr;
    *restart = started && !idr[group] && !(followsOn && group == from);
    started = true;
    sample = 0;
    contiguous = groups[group]->size() == 1;
    return groups[group]->front();
}

KeyProbe::KeyProbe(const char* path, int32_t size) : lengthSize(size) {
    if (path) file = openFileRead(utf8ToWide(path));
}

KeyProbe::~KeyProbe() { closeFile(file); }

bool KeyProbe::startsWithIdr(const FrameRecord& key) {
    // The first slice follows the parameter sets and SEI of the sample, a
    // few hundred bytes in: a key sample is read whole only when its first
    // bytes hold no slice.
    constexpr int32_t kFirstBytes = 0x1000, kEnough = 0x100000;
    if (!file.isOpen() || key.size <= 0) return false;
    for (int32_t size = std::min(key.size, kFirstBytes);; size = std::min(key.size, kEnough)) {
        bytes.resize(static_cast<size_t>(size));
        if (!readAt(file, key.position, bytes.data(), static_cast<uint32_t>(size))) return false;
        const int type = firstSliceType(bytes.data(), size, lengthSize);
        if (type >= 0 || size == std::min(key.size, kEnough)) return type == kNalIdrSlice;
    }
}

}  // namespace Morvel_Tessalo
