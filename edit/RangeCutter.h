#pragma once
// Cuts the ranges of one job, one at a time: opens each range through the
// kind's selection, reads the source forward through a sliding buffer, turns
// video samples into start-code form, asks the kind's timeline for every
// sample's output times and hands the samples to the muxer, keeping the two
// tracks level so that one pass over the file serves both. Made by the cut
// thread for its job and used on that thread only.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "api/tessalo.h"
#include "edit/CutTimeline.h"
#include "edit/ExactCut.h"
#include "edit/FileOperator.h"
#include "edit/RangeSelection.h"
#include "platform/ReadWindow.h"
#include "instance/FrameRecord.h"
#include "mux/FileMuxer.h"

class RangeCutter {
public:
    // What every range of the job shares; all of it outlives the cutter.
    struct Job {
        const std::vector<FrameGroup*>& groups;
        const std::vector<FrameRecord*>& audio;
        RangeSelection& selection;
        CutTimeline& timeline;
        FileMuxer& muxer;
        FileOperator& source;
        uint8_t* readBuffer;    // kReadBufferSize bytes
        uint8_t* sampleBuffer;  // kSampleBufferSize bytes
        std::function<bool()> stopRequested;
        // A track that has walked to the end of its list (kept across ranges
        // when the kind's rules say so).
        bool& videoDone;
        bool& audioDone;
        // The frame-exact cut's made pictures; null for the kinds that only copy.
        ExactCut* exact = nullptr;
    };

    enum class Result {
        Finished,     // the range is cut, or a stop was honoured
        Failed,       // the range could not be cut: no group opens it, no audio, or the source can't be read
        WriteFailed,  // the muxer can no longer write the file
    };

    explicit RangeCutter(const Job& job) : job(job) {
        window.file = job.source.handle();
        window.buffer = job.readBuffer;
    }
    Result cut(const EditRange& range);
    // Video samples copied from the source for the last range cut.
    size_t copiedPictures() const { return copied; }

    static constexpr int32_t kReadBufferSize = ::kReadBufferSize;  // 20 MiB of source at a time
    static constexpr int32_t kSampleBufferSize = 0x100000;  // one converted video sample
    // 4-byte length prefixes to 3-byte start codes, into `out` of `capacity`
    // bytes. False (and 0 out) when the sample is malformed or does not fit.
    static bool toAnnexB(const uint8_t* sample, int32_t size, uint8_t* out, int32_t capacity, int32_t* outLength);
    // The bytes of the ADTS header that the index counts in front of each audio frame.
    static constexpr int64_t kAdtsHeader = 7;

private:
    bool open(const EditRange& range);
    // The frame-exact cut's opening: the range planned, its copied stretch found.
    bool openExact(const EditRange& range, RangeSpan* span);
    bool exactStep();
    void writeMade(const MadePicture& picture);
    // Nothing more of the range's video.
    void endVideo();
    bool readFrom(int64_t position);
    bool refill();
    // One pass over the buffer; false when a stop or a write failure ended it.
    bool samplePass();
    void videoStep();
    void audioStep();
    void nextVideo();
    void write(const uint8_t* data, int32_t size, int32_t track, SampleTimes times, uint32_t flags);
    const FrameRecord& videoRecord() const { return *(*job.groups[groupIndex])[frameIndex]; }

    Job job;
    // The range being cut.
    size_t groupIndex = 0;
    size_t frameIndex = 0;
    size_t audioIndex = 0;
    bool videoMore = false;  // that side can go on in the present buffer
    bool audioMore = false;
    bool videoFinished = false;  // that side has nothing more for this range
    bool audioFinished = false;
    bool writeFailed = false;
    bool madeFailed = false;  // a picture could not be made or written
    // Where a frame-exact range's video is: making its head, copying, making its tail.
    enum class Phase { Head, Copy, Tail } phase = Phase::Head;
    size_t copied = 0;
    ReadWindow window;  // over the job's read buffer and source
};
