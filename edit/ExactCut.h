#pragma once
// The pictures a frame-exact cut (kind 2) makes for each range: the plan of
// the range (ExactPlan), then the head and the tail decoded from the source
// and encoded again one at a time (PictureMaker), each with the index times
// the range cutter places it by. The copied stretch between them is left to
// the range cutter, which copies it as the synced cut does.
//
// Threads: prepare runs on the host's thread while the cut is set up (it
// reads the key frames it plans from and decodes one picture); open and the
// accessors run on the cut thread. The object has its own handle on the
// source, so its reads never move the range cutter's.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "api/tessalo.h"
#include "edit/CutTimeline.h"
#include "edit/ExactPlan.h"
#include "edit/FileOperator.h"
#include "edit/PictureMaker.h"
#include "edit/SourceTimes.h"
#include "instance/FrameRecord.h"
#include "mux/PictureEncoder.h"

// A picture the cut made: its bytes (start codes) and the index times it is
// placed by, as if it were a record of the index.
struct MadePicture {
    FrameRecord record;
    std::vector<uint8_t> data;
};

class ExactCut {
public:
    // `sets`: the source's parameter sets in start-code form; `frameRate` its
    // nominal rate. Both, and `groups`, outlive the object.
    ExactCut(const std::vector<FrameGroup*>& groups, const std::vector<uint8_t>& sets, int32_t frameRate,
             double frameMs, SourceTimes times);

    // Host's thread. Opens the source, plans every range and, when one needs
    // pictures made, learns the stream's look from one decoded picture and
    // the parameter sets that pictures made in that look carry. False when
    // the source can't be read or no encoder matches the stream.
    bool prepare(const char* source, const EditRange* ranges, int32_t count);
    // The parameter sets to declare beside the source's: empty when no range
    // makes a picture.
    const std::vector<uint8_t>& madeSets() const { return declaredSets; }

    // Cut thread. Plans `range` and gets ready to make its head; false when
    // the range shows no picture (or there is no memory for its plan).
    bool open(const EditRange& range);
    const ExactPlan& plan() const { return rangePlan; }
    // The span the timeline places the range by: its first shown picture,
    // decoded ahead of its pts by the copied stretch's lead.
    RangeSpan span() const;

    using Next = PictureMaker::Next;
    // Cut thread. The next made picture of the head, or of the tail once
    // beginTail was called, with the index times it is placed by: the head
    // is decoded as far ahead of its pts as the copied stretch is; the tail
    // follows the stretch's last dts and never runs ahead of its own pts.
    Next next(MadePicture* picture, const std::function<bool()>& stop);
    // The copied stretch has been written: the tail comes next. False when
    // there is no memory for it.
    bool beginTail();
    // The pictures made for the range so far.
    size_t made() const { return madeCount; }

private:
    bool isIdr(size_t group);
    bool readSample(const FrameRecord& record, std::vector<uint8_t>& bytes);
    // The sample in start-code form in `annexB` (0 bytes when it is malformed);
    // false when it can't be read.
    bool readStartCodes(const FrameRecord& record, int32_t* converted);
    ExactPlan planRange(const EditRange& range);
    bool learnLook(size_t group);
    std::unique_ptr<PictureMaker> makerFor(size_t from, const std::vector<int64_t>& wanted);

    const std::vector<FrameGroup*>& groups;
    const std::vector<uint8_t>& sourceSets;
    int32_t frameRate;
    double frameMs;
    SourceTimes times;
    FileOperator source;
    std::vector<int8_t> idr;  // per group: -1 not yet read, 0 no, 1 yes
    std::vector<uint8_t> sampleBytes;
    std::vector<uint8_t> annexB;
    PictureLook look;
    std::vector<uint8_t> declaredSets;
    // The range now open.
    ExactPlan rangePlan;
    std::unique_ptr<PictureMaker> maker;
    bool inTail = false;
    int64_t lastTailDts = 0;
    size_t madeCount = 0;
};
