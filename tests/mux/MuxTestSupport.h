#pragma once
// Helpers of the mux tests: ffprobe/ffmpeg ground truth on a written file, a
// notify that counts, and a recording of what the writing thread hands to
// libavformat.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "mux/FileMuxerNotify.h"
#include "mux/MPEG4FileMuxer.h"

namespace muxtest {

struct StreamCount {
    int index;
    std::string type;  // "audio" / "video"
    long packets;
};
// ffprobe -count_packets of every stream, in stream order.
std::vector<StreamCount> countPackets(const std::string& path);
// "K" or "_" per sample of stream `index`, from the container's own sync-sample
// table as the mov reader indexes it (packet flags would be redone by the
// reader's H.264 parser from the picture content).
std::string keyFlags(const std::string& path, int index);
// One ffprobe entry per line for the packets of `type`, e.g. "pts_time" or "size".
std::vector<std::string> packetField(const std::string& path, char type, const std::string& field);
// The same for a "*_time" field, rounded to whole milliseconds.
std::vector<int64_t> packetMs(const std::string& path, char type, const std::string& field);
// A format-level entry, e.g. "format_name" or "format_tags=major_brand".
std::string formatEntry(const std::string& path, const std::string& entry);
// What `ffmpeg -v error -i path -f null -` prints; `status` gets its exit status.
std::string decodeErrors(const std::string& path, int* status);

// Counts onMuxComplete and checks that it comes with the ring mutexes free.
class CountingNotify : public FileMuxerNotify {
public:
    explicit CountingNotify(MPEG4FileMuxer* muxer) : muxer(muxer) {}
    void onMuxComplete() override;
    std::atomic<int> calls{0};
    std::atomic<bool> calledWithLockHeld{false};

private:
    MPEG4FileMuxer* muxer;
};

// What reached av_interleaved_write_frame, in order; installed for its life.
class WriteLog {
public:
    struct Entry {
        int stream;        // -1 for a flush
        int64_t dtsMs;     // dts rescaled back to milliseconds
        int64_t ptsMs;
        bool key;
        int size;
    };
    explicit WriteLog(MPEG4FileMuxer* muxer);
    ~WriteLog();
    std::vector<Entry> entries() const;
    size_t writes() const;  // packets, flushes not counted
    bool waitForWrites(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    static void observe(void* user, const AVPacket* packet);
    MPEG4FileMuxer* muxer;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<Entry> log;
};

}  // namespace muxtest

#include "FixtureSamples.h"

namespace muxtest {
// A fixture's samples, read once per process.
const muxfixture::Clip& clip(const std::string& name);
// Hands every sample of `clip` to the muxer with `offsetMs` added to its
// timestamps; returns how many calls did not return 0.
int writeClip(FileMuxer& muxer, const muxfixture::Clip& clip, int64_t offsetMs = 0, bool withAudio = true);
}  // namespace muxtest
