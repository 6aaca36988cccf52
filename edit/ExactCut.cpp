#include "edit/ExactCut.h"

#include <algorithm>
#include <new>

#include "base/NalBits.h"
#include "decode/H264Sample.h"
#include "decode/PictureDecoder.h"
#include "edit/PictureMaker.h"
#include "edit/RangeCutter.h"
#include "mux/AvcRecord.h"

namespace {

// The lowest id that no sequence or picture parameter set of `sets` (start
// codes) uses, so that made pictures never refer to one of the source's.
int unusedParameterSetId(const std::vector<uint8_t>& sets) {
    std::vector<bool> used(32, false);
    for (const auto& [at, size] : nalUnits(sets.data(), sets.size())) {
        const int type = sets[at] & 0x1F;
        SpsHead sps;
        int64_t id = -1;
        if (type == 7 && readSpsHead(sets.data() + at + 1, size - 1, &sps)) id = sps.id;
        if (type == 8) id = NalBits(sets.data() + at + 1, size - 1).golomb();
        if (id >= 0 && id < 32) used[size_t(id)] = true;
    }
    for (int id = 1; id < 32; ++id)
        if (!used[size_t(id)]) return id;
    return 0;
}

// Whether the first sequence parameter set of `sets` codes losslessly.
bool codesLosslessly(const std::vector<uint8_t>& sets) {
    for (const auto& [at, size] : nalUnits(sets.data(), sets.size())) {
        if ((sets[at] & 0x1F) != 7) continue;
        SpsHead sps;
        return readSpsHead(sets.data() + at + 1, size - 1, &sps) && sps.lossless;
    }
    return false;
}

}  // namespace

ExactCut::ExactCut(const std::vector<FrameGroup*>& keyGroups, const std::vector<uint8_t>& sets, int32_t rate,
                   double meanFrameMs, SourceTimes sourceTimes)
    : groups(keyGroups),
      sourceSets(sets),
      frameRate(rate),
      frameMs(meanFrameMs),
      times(sourceTimes),
      idr(keyGroups.size(), -1) {}

bool ExactCut::prepare(const char* path, const EditRange* ranges, int32_t count) {
    if (!source.open(path)) return false;
    declaredSets.clear();
    for (int32_t i = 0; i < count; ++i) {
        const ExactPlan planned = planRange(ranges[i]);
        if (planned.made() == 0) continue;
        if (!learnLook(planned.head.empty() ? planned.tailFrom : planned.headFrom)) return false;
        PictureEncoder encoder;
        if (!encoder.open(look)) return false;
        declaredSets = encoder.parameterSets();
        return true;
    }
    return true;
}

bool ExactCut::readSample(const FrameRecord& record, std::vector<uint8_t>& bytes) {
    if (record.size <= 0 || record.position < 0) return false;
    bytes.resize(size_t(record.size));
    uint32_t got = 0;
    return source.seek(record.position) && source.read(bytes.data(), uint32_t(record.size), &got) &&
           got == uint32_t(record.size);
}

bool ExactCut::readStartCodes(const FrameRecord& record, int32_t* converted) {
    *converted = 0;
    if (!readSample(record, sampleBytes)) return false;
    // Start codes are one byte shorter than length prefixes: the sample's own size always holds them.
    annexB.resize(sampleBytes.size());
    // A malformed sample is passed over: the pictures that need it fail on their own.
    RangeCutter::toAnnexB(sampleBytes.data(), int32_t(sampleBytes.size()), annexB.data(), int32_t(annexB.size()),
                          converted);
    return true;
}

bool ExactCut::isIdr(size_t group) {
    if (group >= idr.size()) return false;
    if (idr[group] < 0) {
        // Samples hold 4-byte length prefixes: the cut's copy turns them into start codes the same way.
        idr[group] = readSample(*groups[group]->front(), sampleBytes) &&
                     firstSliceType(sampleBytes.data(), int32_t(sampleBytes.size()), 4) == kNalIdrSlice;
    }
    return idr[group] == 1;
}

ExactPlan ExactCut::planRange(const EditRange& range) {
    return planExactRange(groups, range, [this](size_t g) { return isIdr(g); }, frameMs);
}

// The look of the first picture that decodes from `group`'s key frame.
bool ExactCut::learnLook(size_t group) {
    PictureDecoder decoder;
    if (group >= groups.size() || !decoder.open(sourceSets.data(), int32_t(sourceSets.size()))) return false;
    bool learnt = false;
    auto take = [&](AVFrame& frame) {
        look = PictureLook::of(decoder.codec(), frame, frameRate, unusedParameterSetId(sourceSets));
        look.lossless = codesLosslessly(sourceSets);
        learnt = true;
        return false;
    };
    for (const FrameRecord* record : *groups[group]) {
        int32_t converted = 0;
        if (!readStartCodes(*record, &converted)) return false;
        if (converted > 0) decoder.decode(annexB.data(), converted, record->pts, take);
        if (learnt) return true;
    }
    decoder.drain(take);
    return learnt;
}

std::unique_ptr<PictureMaker> ExactCut::makerFor(size_t from, const std::vector<int64_t>& wanted) {
    if (wanted.empty()) return nullptr;
    auto reader = [this](const FrameRecord& record, int32_t* size) -> const uint8_t* {
        return readStartCodes(record, size) ? annexB.data() : nullptr;
    };
    return std::make_unique<PictureMaker>(groups, reader, sourceSets, look, declaredSets, from, wanted);
}

bool ExactCut::open(const EditRange& range) {
    maker.reset();
    inTail = false;
    madeCount = 0;
    try {
        rangePlan = planRange(range);
        if (!rangePlan.shows) return false;
        maker = makerFor(rangePlan.headFrom, rangePlan.head);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool ExactCut::beginTail() {
    inTail = true;
    lastTailDts = rangePlan.lastCopiedDts;
    try {
        maker = makerFor(rangePlan.tailFrom, rangePlan.tail);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

ExactCut::Next ExactCut::next(MadePicture* picture, const std::function<bool()>& stop) {
    if (!maker) return Next::End;
    EncodedPicture encoded;
    const Next got = maker->next(&encoded, stop);
    if (got == Next::End) maker.reset();
    if (got != Next::Picture) return got;
    FrameRecord& record = picture->record;
    record.isKey = encoded.key;
    record.pts = encoded.pts;
    record.dts = encoded.pts - rangePlan.lead;
    if (inTail) record.dts = lastTailDts = std::max(record.dts, lastTailDts + 1);
    picture->data = std::move(encoded.data);
    ++madeCount;
    return Next::Picture;
}

RangeSpan ExactCut::span() const {
    RangeSpan span;
    span.key = rangePlan.copies ? (*groups[rangePlan.copyFrom.group])[rangePlan.copyFrom.frame] : nullptr;
    FrameRecord first;
    first.pts = rangePlan.firstShown;
    first.dts = rangePlan.firstShown - rangePlan.lead;
    span.keyPts = times.videoPts(first);
    span.keyDts = times.videoDts(first);
    span.showsPictures = rangePlan.shows;
    span.shownEnd = rangePlan.shownEnd;
    return span;
}
