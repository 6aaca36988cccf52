// The frame index of TessaloImpl: every video sample twice (stream order and
// presentation order, in groups opened by key samples) and every audio sample.
#include <algorithm>
#include <memory>

#include "edit/FileEditer.h"
#include "instance/TessaloImpl.h"

namespace Morvel_Tessalo {

namespace {

std::unique_ptr<FrameRecord> makeRecord(int64_t pts, int64_t dts, bool isKey, int64_t position, int32_t size) {
    std::unique_ptr<FrameRecord> record(new FrameRecord());
    record->isKey = isKey ? 1 : 0;
    record->size = size;
    record->pts = pts;
    record->dts = dts;
    record->position = position;
    return record;
}

// Opens a group with `record` or appends it to `current`. A sample without
// the key mark and with no open group is dropped: the reader never sends one,
// and a record outside every group would have no meaning for any reader.
void addToGroups(std::unique_ptr<FrameRecord> record, bool isKey, FrameGroup** current,
                 std::vector<FrameGroup*>* groups) {
    if (isKey) {
        std::unique_ptr<FrameGroup> group(new FrameGroup());
        group->push_back(record.get());
        record.release();
        groups->push_back(group.get());
        *current = group.release();
    } else if (*current) {
        (*current)->push_back(record.get());
        record.release();
    }
}

void deleteGroups(std::vector<FrameGroup*>* groups) {
    for (FrameGroup* group : *groups) {
        for (FrameRecord* record : *group) delete record;
        delete group;
    }
    groups->clear();
}

}  // namespace

void TessaloImpl::addVideoFrame(int64_t pts, int64_t dts, bool isKey, int64_t position, int32_t size) {
    addToGroups(makeRecord(pts, dts, isKey, position, size), isKey, &currentSortedGroup, &sortedKeyGroups);
    addToGroups(makeRecord(pts, dts, isKey, position, size), isKey, &currentKeyGroup, &keyGroups);
}

void TessaloImpl::addAudioFrame(int64_t pts, int64_t dts, bool isKey, int64_t position, int32_t size) {
    std::unique_ptr<FrameRecord> record = makeRecord(pts, dts, isKey, position, size);
    audioFrames.push_back(record.get());
    record.release();
}

void TessaloImpl::sortIndex() {
    for (FrameGroup* group : sortedKeyGroups) {
        std::sort(group->begin(), group->end(),
                  [](const FrameRecord* a, const FrameRecord* b) { return a->pts < b->pts; });
    }
}

void TessaloImpl::clearIndex() {
    deleteGroups(&sortedKeyGroups);
    deleteGroups(&keyGroups);
    currentSortedGroup = nullptr;
    currentKeyGroup = nullptr;
    for (FrameRecord* record : audioFrames) delete record;
    audioFrames.clear();
    if (editor) editor->clearFrameIndex();
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
