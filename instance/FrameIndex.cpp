// The frame index of TessaloImpl: every video sample twice (stream order and
// presentation order, in groups opened by key samples) and every audio sample.
#include <algorithm>
#include <new>

#include "edit/FileEditer.h"
#include "instance/TessaloImpl.h"

namespace Morvel_Tessalo {

namespace {

FrameRecord makeRecord(int64_t pts, int64_t dts, bool isKey, int64_t position, int32_t size) {
    FrameRecord record;
    record.isKey = isKey ? 1 : 0;
    record.size = size;
    record.pts = pts;
    record.dts = dts;
    record.position = position;
    return record;
}

}  // namespace

// Opens a group with `record` or appends it to `current`. A sample without
// the key mark and with no open group is dropped: the reader never sends one,
// and a record outside every group would have no meaning for any reader.
void TessaloImpl::addToGroups(const FrameRecord& record, FrameGroup** current, std::vector<FrameGroup*>* groups) {
    if (!record.isKey && !*current) return;
    frameRecords.push_back(record);
    FrameRecord* stored = &frameRecords.back();
    if (!record.isKey) {
        (*current)->push_back(stored);
        return;
    }
    // Listed only once it holds its key record: no reader ever sees an empty group.
    frameGroups.emplace_back(1, stored);
    groups->push_back(&frameGroups.back());
    *current = &frameGroups.back();
}

bool TessaloImpl::addVideoFrame(int64_t pts, int64_t dts, bool isKey, int64_t position, int32_t size) {
    const FrameRecord record = makeRecord(pts, dts, isKey, position, size);
    try {
        addToGroups(record, &currentSortedGroup, &sortedKeyGroups);
        addToGroups(record, &currentKeyGroup, &keyGroups);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool TessaloImpl::addAudioFrame(int64_t pts, int64_t dts, bool isKey, int64_t position, int32_t size) {
    try {
        frameRecords.push_back(makeRecord(pts, dts, isKey, position, size));
        audioFrames.push_back(&frameRecords.back());
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void TessaloImpl::sortIndex() {
    for (FrameGroup* group : sortedKeyGroups) {
        std::sort(group->begin(), group->end(),
                  [](const FrameRecord* a, const FrameRecord* b) { return a->pts < b->pts; });
    }
}

void TessaloImpl::clearIndex() {
    sortedKeyGroups.clear();
    keyGroups.clear();
    currentSortedGroup = nullptr;
    currentKeyGroup = nullptr;
    audioFrames.clear();
    if (editor) editor->clearFrameIndex();
    // The lists above point into these; they go last.
    frameGroups.clear();
    frameRecords.clear();
}
// A null `out` writes nothing and gives 0 in the three queries below: the
// host's block is not optional, but a missing one must not crash the library.

int32_t TessaloImpl::getKeyPts(int64_t* out) {
    if (!out) return 0;
    int32_t written = 0;
    for (const FrameGroup* group : sortedKeyGroups) out[written++] = group->front()->pts;
    return written;
}

int32_t TessaloImpl::getPtsCountByKeyPts(int64_t keyPts) {
    for (const FrameGroup* group : sortedKeyGroups) {
        if (group->front()->pts == keyPts) return static_cast<int32_t>(group->size());
    }
    return 0;
}

int32_t TessaloImpl::getPtsByKeyPts(int64_t keyPts, int64_t* out) {
    if (!out) return 0;
    int32_t written = 0;
    for (const FrameGroup* group : sortedKeyGroups) {
        if (group->front()->pts != keyPts) continue;
        for (const FrameRecord* record : *group) out[written++] = record->pts;
    }
    return written;
}

}  // namespace Morvel_Tessalo
