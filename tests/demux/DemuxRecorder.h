#pragma once
// What the demuxer tests share: a recorder behind the demuxer's two
// callbacks, and the packets that ffprobe says the demuxer must report.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "demux/DemuxerAVImpl.h"

namespace demuxtest {

struct SeenEvent {
    int kind;
    int detail;
    bool dataNull;
    bool onStartThread;  // came on the thread that called start
};

struct SeenPacket {
    int kind;
    int32_t size;
    int64_t pts;
    int64_t dts;
    bool key;
    int64_t duration;
    int64_t pos;
    std::vector<uint8_t> head;  // the first 7 bytes (the ADTS header for audio)
    bool bytesMatchFile;        // payload equals the file's bytes at pos
};

// The properties as the instance reads them, inside kDemuxerEventReady.
struct Properties {
    double duration = -1;
    int32_t width = -1, height = -1, frameRate = -1, videoBitRate = -1;
    uint8_t hasVideo = 0xEE, hasAudio = 0xEE;
    int32_t videoCodec = 0x5A5A, audioCodec = 0x5A5A;  // sentinels: "written nothing"
    const uint8_t* extraData = nullptr;
    int32_t extraDataSize = -1;
    const uint8_t* annexBExtraData = nullptr;
    int32_t annexBExtraDataSize = -1;
    uint32_t channelsWide = 0xABCD0000u;  // id 13 writes the low 16 bits only
    int32_t sampleRate = -2, audioBitRate = -2;
    std::vector<uint8_t> extraDataCopy, annexBCopy;
    uint64_t beyondTable = 0x1122334455667788ull;  // id 16
};

class Recorder {
public:
    // `file`: when given, every payload is compared with the file's bytes at
    // its position (video as stored, audio after its 7-byte header).
    explicit Recorder(const std::string& file = "");

    // Wires the demuxer's callbacks to this recorder.
    void attach(Morvel_Tessalo::DemuxerAVImpl* demuxer);
    // Calls start on this thread and remembers the thread.
    int start();

    static int onPacket(int kind, Morvel_Tessalo::DemuxerPacket* packet, void* user);
    static void onEvent(int kind, int detail, void* data, void* user);

    // Decides the packet callback's answer from the 0-based packet number;
    // set before start. Default: always 1.
    std::function<int(size_t)> answer;
    // Runs on the reader thread after a packet was recorded, outside the lock.
    std::function<void(size_t)> afterPacket;

    std::vector<SeenEvent> events() const;
    std::vector<SeenPacket> packets() const;
    size_t packetCount() const;
    bool waitForEvents(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(60)) const;
    bool waitForPackets(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(60)) const;

    Properties properties;
    bool readyBeforePackets = false;

private:
    Morvel_Tessalo::DemuxerAVImpl* demuxer = nullptr;
    std::vector<uint8_t> fileBytes;
    std::thread::id startThread;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<SeenEvent> seenEvents;
    std::vector<SeenPacket> seenPackets;
};

// One packet that the demuxer must report, derived from ffprobe's account of
// the file and the reporting rules, not from the code under test.
struct ExpectedPacket {
    int kind;
    int32_t size;
    int64_t pts;
    int64_t dts;
    bool key;
    int64_t duration;
    int64_t pos;
};

struct GroundTruth {
    std::vector<ExpectedPacket> packets;
    int32_t adtsRate = 0;      // time-base denominator of the last audio stream
    int32_t adtsChannels = 0;  // its channel count, 0 read as 2
    size_t totalPackets = 0;   // every packet in the file, any stream
};

GroundTruth groundTruth(const std::string& file);

// Threads of this process, from /proc/self/task.
size_t threadCount();

}  // namespace demuxtest
