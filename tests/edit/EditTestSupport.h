#pragma once
// Shared by the cut engine's tests: a recording FileMuxer that stands in for the
// MP4 writer, a synthetic source file with a hand-written index, and a host.
#include <condition_variable>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "edit/FileEditer.h"
#include "support/TestSupport.h"

namespace Morvel_Tessalo {
struct FileEditerTestAccess {
    static void useMuxer(FileEditer& e, FileMuxer* (*make)()) { e.makeMuxer = make; }
    static bool stopRequested(FileEditer& e) { return e.isStopRequested(); }
    // A cut thread, or anything that a job allocates and its release must free.
    static bool holdsJob(const FileEditer& e) {
        return e.cutThread || e.muxer || e.readBuffer || e.sampleBuffer || e.ranges || e.offsets || e.rangeCount ||
               e.offsetCount;
    }
};
}  // namespace Morvel_Tessalo

inline bool operator==(const EditOffset& a, const EditOffset& b) { return a.first == b.first && a.second == b.second; }

namespace edittest {

using Morvel_Tessalo::kNotifyDone;
using Morvel_Tessalo::kNotifyFailed;
using Bytes = std::vector<uint8_t>;
using Lock = std::lock_guard<std::mutex>;

struct Write {
    int64_t pts, dts;
    uint32_t flags;
    Bytes bytes;
    bool operator==(const Write& o) const { return std::tie(pts, dts, flags, bytes) == std::tie(o.pts, o.dts, o.flags, o.bytes); }
};
struct Log {
    std::string order;             // "V" or "A" per write
    std::vector<Write> tracks[2];  // by kTrackAudio, kTrackVideo
    int completions = 0;
};

// What every recording muxer saw, in creation order, and a gate that holds the
// writing thread at a given total of writes until release().
inline struct Recorder {
    void reset(int holdAt = -1) { Lock lock(mutex); logs.clear(), total = 0, hold = holdAt, held = false; }
    std::vector<Log> snapshot() { Lock lock(mutex); return logs; }
    // Lets the held thread go on; the next one is held at a total of `next` writes.
    void release(int next = -1) { Lock lock(mutex); hold = next, held = false, changed.notify_all(); }
    bool waitHeld() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return held; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Log> logs;
    int total = 0, hold = -1;
    bool held = false;
} recorder;

class RecordingMuxer : public FileMuxer {
public:
    RecordingMuxer() {
        Lock lock(recorder.mutex);
        state = 1, index = recorder.logs.size(), recorder.logs.emplace_back();
    }
    void setNotify(FileMuxerNotify* target) override { notify = target; }
    int32_t WriteSampleData(const uint8_t* data, int32_t size, int32_t track, int64_t pts, int64_t dts,
                            uint32_t flags) override {
        if (const int32_t result = FileMuxer::WriteSampleData(data, size, track, pts, dts, flags)) return result;
        std::unique_lock<std::mutex> lock(recorder.mutex);
        recorder.logs[index].order += track == kTrackVideo ? "V" : "A";
        recorder.logs[index].tracks[track].push_back({pts, dts, flags, Bytes(data, data + size)});
        const int total = ++recorder.total;
        if (total != recorder.hold) return 0;
        recorder.held = true;
        recorder.changed.notify_all();
        recorder.changed.wait(lock, [&] { return recorder.hold != total; });
        return 0;
    }
    // One completion per successful start, on a thread of its own as a real muxer's.
    int32_t stop() override {
        const bool started = state == 2;
        const int32_t result = FileMuxer::stop();
        if (started && notify) std::thread([this] {
            notify->onMuxComplete();
            Lock lock(recorder.mutex);
            ++recorder.logs[index].completions;
        }).join();
        return result;
    }

private:
    size_t index = 0;
    FileMuxerNotify* notify = nullptr;
};

// A hand-written frame index; its records live as long as it does.
struct Index {
    void add(bool video, const FrameRecord& record) {
        store.push_back(record);
        if (!video) return frames.push_back(&store.back());
        if (record.isKey || groups.empty()) groups.push_back(&groupStore.emplace_back());
        groups.back()->push_back(&store.back());
    }
    std::deque<FrameRecord> store;
    std::deque<FrameGroup> groupStore;
    std::vector<FrameGroup*> groups;
    std::vector<FrameRecord*> frames;
};

// A source file written sample by sample behind a 64-byte header, its index,
// and the bytes the muxer should get for each sample, by track.
struct Source : Index {
    explicit Source(const std::string& path) : path(path), file(path, std::ios::binary) { put(Bytes(64, 0xEE)); }
    // One unit of `payload` random bytes whose length prefix says `claim` (by default the truth).
    void video(int64_t pts, int64_t dts, bool key, uint32_t payload, int64_t claim = -1) {
        Bytes bytes = noise(4 + payload);
        for (int i = 0; i < 4; ++i) bytes[size_t(i)] = uint8_t((claim < 0 ? payload : claim) >> (24 - 8 * i));
        add(true, {uint8_t(key), int32_t(bytes.size()), pts, dts, end});
        put(bytes);
        bytes.erase(bytes.begin()), bytes[0] = bytes[1] = 0, bytes[2] = 1;  // 3-byte start code
        sent[kTrackVideo].push_back(bytes);
    }
    // A raw audio frame; its record counts the 7-byte ADTS header as well.
    void audio(int64_t pts, int32_t size) {
        add(false, {1, size + 7, pts, pts, end});
        sent[kTrackAudio].push_back(put(noise(size_t(size))));
    }
    void skip(int64_t bytes) { file.seekp(end += bytes); }  // leaves a hole of zeros
    Index& finish() { return put(Bytes(256, 0xAB)), file.close(), *this; }  // writes the index box of a real file
    Bytes noise(size_t size) {
        Bytes bytes(size);
        for (auto& b : bytes) b = uint8_t((seed = seed * 1103515245u + 12345u) >> 16);
        return bytes;
    }
    const Bytes& put(const Bytes& bytes) {
        file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        return end += int64_t(bytes.size()), bytes;
    }
    std::string path;
    std::ofstream file;
    int64_t end = 0;
    uint32_t seed = 1;
    std::vector<Bytes> sent[2];
};

const VideoTrackInfo kVideo = {320, 240, 25, 1, nullptr, 0};
const AudioTrackInfo kAudio = {44100, 2, 16, 1, nullptr, 0};

// An engine, with the recording muxer unless told otherwise, whose events are
// collected; the offsets report is taken inside the done event, as a host takes it.
struct Host {
    explicit Host(bool record = true) : editer(&Host::notify, this) {
        recorder.reset();
        if (record) Morvel_Tessalo::FileEditerTestAccess::useMuxer(editer, []() -> FileMuxer* { return new RecordingMuxer; });
    }
    ~Host() { recorder.release(); }  // a failed test must not leave the cut thread held
    static void notify(void* context, int32_t code) {
        auto* self = static_cast<Host*>(context);
        std::vector<EditOffset> got(self->asked);
        int32_t n = 0;
        if (code == kNotifyDone && !got.empty() && self->editer.getEditOffsetPts(got.data(), int32_t(got.size()), &n))
            self->report.assign(got.begin(), got.begin() + n);
        self->events.record(code);  // after the report: who sees the event sees the report
    }
    bool index(Index& i, const VideoTrackInfo& video = kVideo, const AudioTrackInfo& audio = kAudio) {
        return editer.setFrameIndex(&i.groups, &i.frames, &video, &audio);
    }
    bool cut(const std::string& src, const std::vector<EditRange>& ranges, const std::vector<EditOffset>& offsets = {}) {
        asked = offsets.size();
        return editer.cut(src.c_str(), out.c_str(), ranges.data(), int32_t(ranges.size()), offsets.data(),
                          int32_t(offsets.size()), 0);
    }
    // Runs one job to its outcome: true when it is done, false when it failed.
    bool cutAndWait(const std::string& src, const std::vector<EditRange>& ranges, const std::vector<EditOffset>& offsets = {}) {
        events.clear();
        const bool done = cut(src, ranges, offsets) && events.waitForAny({kNotifyDone, kNotifyFailed}) == kNotifyDone;
        editer.stopCut();  // joins the thread that has ended by now
        return done;
    }

    std::string dir = tsltest::scratchDir(), out = dir + "/out.mp4";
    size_t asked = 0;
    std::vector<EditOffset> report;
    tsltest::EventRecorder events;
    Morvel_Tessalo::FileEditer editer;
};

}  // namespace edittest
