#pragma once
// Shared by the cut engine's tests: a way into the engine's private state, a
// recording FileMuxer that stands in for the MP4 writer where the muxer
// contract is what is being looked at, and a synthetic source file with an
// index that the tests write by hand.
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "edit/FileEditer.h"
#include "support/TestSupport.h"

namespace Morvel_Tessalo {

struct FileEditerTestAccess {
    static void useMuxerFactory(FileEditer& editer, FileMuxer* (*factory)()) { editer.makeMuxer = factory; }
    static bool stopRequested(FileEditer& editer) { return editer.isStopRequested(); }
    static bool hasThread(const FileEditer& editer) { return editer.cutThread != nullptr; }
    // Anything that a job allocates and its release must free.
    static bool holdsJobResources(const FileEditer& editer) {
        return editer.muxer || editer.readBuffer || editer.sampleBuffer || editer.ranges || editer.offsets ||
               editer.rangeCount != 0 || editer.offsetCount != 0;
    }
    static const VideoTrackInfo& videoInfo(const FileEditer& editer) { return editer.videoInfo; }
};

}  // namespace Morvel_Tessalo

namespace edittest {

struct Write {
    int32_t track;
    int64_t pts;
    int64_t dts;
    uint32_t flags;
    std::vector<uint8_t> bytes;
};

// What one recording muxer saw. Outlives the muxer, which the engine deletes.
struct MuxerLog {
    std::vector<std::string> calls;
    std::vector<Write> writes;
    std::vector<uint8_t> videoExtraData;
    std::string outputPath;
    int completions = 0;
};

// The muxers made since the last reset, in creation order, and a gate that
// holds the writing caller after a given number of writes (over all muxers).
class MuxerRecorder {
public:
    static MuxerRecorder& instance();
    static FileMuxer* make();

    void reset();
    std::shared_ptr<MuxerLog> log(size_t index) const;
    size_t muxerCount() const;
    // Snapshots, safe while a cut thread writes.
    std::vector<Write> writes(size_t index) const;
    std::vector<std::string> calls(size_t index) const;

    // The next write that brings the total to `writes` blocks until release().
    void pauseAfter(int writes);
    bool waitPaused(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void release();
    // Later muxers refuse setOutputFile.
    void failOutput(bool fail);

private:
    friend class RecordingMuxer;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<MuxerLog>> logs;
    int totalWrites = 0;
    int pauseAt = -1;
    bool paused = false;
    bool released = false;
    bool refuseOutput = false;
};

// A source file written sample by sample, and the index that describes it.
class SyntheticSource {
public:
    explicit SyntheticSource(const std::string& path, size_t headerBytes = 64);
    ~SyntheticSource();
    SyntheticSource(const SyntheticSource&) = delete;
    SyntheticSource& operator=(const SyntheticSource&) = delete;

    // A video sample of one length-prefixed unit with `payload` bytes (or a raw
    // sample of exactly `rawSize` bytes when rawSize >= 0). Returns its bytes.
    std::vector<uint8_t> addVideo(int64_t pts, int64_t dts, bool key, int32_t payload, int32_t rawSize = -1);
    // An audio frame of `bytes` raw bytes; its record counts 7 more.
    std::vector<uint8_t> addAudio(int64_t pts, int32_t bytes);
    // Skips `bytes` of the file (a hole of zeros) before the next sample.
    void skip(int64_t bytes);
    // Writes `bytes` after the last sample (the index box of a real file).
    void finish(int64_t trailerBytes = 256);

    const std::string& path() const { return filePath; }
    std::vector<FrameGroup*>* groups() { return &keyGroups; }
    std::vector<FrameRecord*>* audio() { return &audioFrames; }
    int64_t position() const { return end; }

private:
    void append(const std::vector<uint8_t>& bytes);
    std::string filePath;
    int64_t end = 0;
    uint32_t seed = 1;
    std::vector<FrameGroup*> keyGroups;
    std::vector<FrameRecord*> audioFrames;
};

// The converted form of a sample that SyntheticSource wrote: start codes for length prefixes.
std::vector<uint8_t> annexB(const std::vector<uint8_t>& sample);

// Notification codes of an engine, collected like host events.
void recordNotify(void* recorder, int32_t code);

}  // namespace edittest
