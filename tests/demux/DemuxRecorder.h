#pragma once
// What the demuxer tests share: a recorder behind the demuxer's two
// callbacks, and what ffprobe says the demuxer must report for a file.
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "demux/DemuxerAVImpl.h"

namespace demuxtest {

// Storage for a property read starts as this: what stays of it was not written.
constexpr uint64_t kUntouched = 0xA5A5A5A5A5A5A5A5ull;

struct SeenEvent {
    int kind, detail;
    bool dataNull, onStartThread;
};

struct Packet {
    int kind;
    int32_t size;
    int64_t pts, dts;
    bool key;
    int64_t duration, pos;
    bool operator==(const Packet& o) const {
        return kind == o.kind && size == o.size && pts == o.pts && dts == o.dts && key == o.key &&
               duration == o.duration && pos == o.pos;
    }
};

struct SeenPacket : Packet {
    std::vector<uint8_t> head;  // first 7 bytes: the ADTS header for audio
    bool bytesMatchFile;        // payload equals the file's bytes at pos
};

// Owns one demuxer wired to its callbacks. The demuxer goes first when the
// recorder dies, so its reader never reports into a dead recorder.
class Recorder {
public:
    // `file` is the demuxer's path; `compareBytes` loads it to check payloads
    // in place (MP4/MOV store each sample whole at its position).
    explicit Recorder(const char* file, bool compareBytes = false);
    ~Recorder();
    int start();  // start() on this thread

    // The packet callback's answer by 0-based packet number (default 1), and
    // a hook run on the reader after each packet; both set before start.
    std::function<int(size_t)> answer;
    std::function<void(size_t)> afterPacket;

    std::vector<SeenEvent> events() const;
    std::vector<SeenPacket> packets() const;
    size_t packetCount() const;
    bool waitForEvents(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(60)) const;
    bool waitForPackets(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(60)) const;

    // Read inside kDemuxerEventReady, in the instance's order, then 5, 7, 16.
    std::array<uint64_t, 17> property;
    std::vector<uint8_t> extraData, annexBExtraData;  // copies of ids 9 and 11
    bool readyBeforePackets = false;

private:
    static int onPacket(int kind, Morvel_Tessalo::DemuxerPacket* packet, void* user);
    static void onEvent(int kind, int detail, void* data, void* user);
    std::vector<uint8_t> fileBytes;
    std::thread::id startThread;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<SeenEvent> seenEvents;
    std::vector<SeenPacket> seenPackets;

public:
    std::unique_ptr<Morvel_Tessalo::DemuxerAVImpl> demuxer;
};

// The reports and properties due for a file, derived from ffprobe's account
// of it and the reporting rules, not from the code under test.
struct GroundTruth {
    std::vector<Packet> packets;
    int32_t adtsRate = 0, adtsChannels = 0;  // last audio stream: time-base denominator, channels (0 as 2)
    int32_t width = 0, height = 0, frameRate = 0, videoBitRate = 0;  // last video stream
    int32_t sampleRate = -1, channels = 0;                           // first audio stream
    int32_t audioBitRate = 0;                                        // last audio stream
    double durationMs = 0;
    std::vector<uint8_t> extraData;  // last video stream, as stored
};
GroundTruth groundTruth(const std::string& file);

// Makes a file with the ffmpeg tool in a scratch directory; its path.
std::string makeFile(const std::string& name, const std::string& arguments);

// Threads of this process, from /proc/self/task.
size_t threadCount();

}  // namespace demuxtest
