#pragma once
// The layer that talks to FFmpeg's demuxing: opens one input, decides which
// streams of it are accepted, keeps what the demuxer reports as properties,
// and runs the reader thread that reports every packet.
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "base/FFmpegHolders.h"
#include "demux/FileInput.h"

// One packet as the reader reports it with kParsePacket. A local of the read
// loop: `data` is valid only during the notification.
struct ParsedPacket {
    uint8_t* data;
    int32_t size;
    int64_t pos;       // AVPacket.pos
    int64_t pts;       // ms, relative to the first delivered packet of the kind
    int64_t dts;       // ms, relative in the same way
    int64_t duration;  // AVPacket.duration, stream ticks
    uint16_t flags;    // low 16 bits of AVPacket.flags
};

// Where the parser's notifications go. The result is read only for
// kParsePacket: 1 asks the reader to pause.
using ParseNotify = int (*)(int kind, int detail, void* data, void* user);

// Notification kinds.
constexpr int kParseOpened = 0;  // detail 0: every property can be read now
constexpr int kParseEnded = 1;   // detail 1 then 2, at the end of the file
constexpr int kParsePacket = 2;  // detail 2 video, 1 audio; data: ParsedPacket*
constexpr int kParseError = 3;   // detail: an error detail of the demuxer

// Parser states (3 and 4 are not used).
constexpr int32_t kParseStateIdle = 0;
constexpr int32_t kParseStateOpened = 1;
constexpr int32_t kParseStateRunning = 2;
constexpr int32_t kParseStateStopping = 5;

// Capacity of every per-stream table; also the bound on stream indexes.
constexpr int kParseTableSize = 10;
// Bytes of the path copy, terminator included.
constexpr size_t kParsePathSize = 2048;
// Bytes of the ADTS header put in front of every audio packet.
constexpr int32_t kAdtsHeaderSize = 7;

// For the tests that hold the index from the sample tables against the walk
// that reads every byte: while set, every parser opens its input as it did
// before the tables were used, by path, with libavformat's own file access
// and parsers. Any thread; takes effect at the next open.
void setFullWalkForced(bool forced);

// The time a timeline counts from: the first packet's, in stream ticks.
struct TimelineBase {
    bool set = false;
    int64_t ticks = 0;
};

// Fields are public: the demuxer reads them as properties and wakes the
// reader through the mutex and condition.
//
// Threads: init, open, scanStreams (with the notifications it sends) and
// what they call run on the thread that starts the demuxer, the instance's
// worker; readLoop and the notifications it sends on the reader thread that
// scanStreams starts; stop on the thread that ends the demuxer (the worker,
// or the host's when the instance goes).
class AVStreamParse {
public:
    AVStreamParse();
    ~AVStreamParse();
    AVStreamParse(const AVStreamParse&) = delete;
    AVStreamParse& operator=(const AVStreamParse&) = delete;

    // 0 on success, 1 when `function` is null.
    int init(ParseNotify function, void* user);
    // 0 when the input is open, 1 on failure (`source` may be null). An MP4
    // or MOV file whose sample tables can stand in for its payloads is read
    // through a FileInput that stops fetching payloads when the walk begins;
    // any other input is opened by path and read in full.
    int open(const char* source);
    // 0 when the file was accepted and the reader runs, 1 on failure.
    int scanStreams();
    // Closes the decoders opened by the scan and the input.
    void closeInput();
    // Opens a decoder on the stream's own codec context; null when there is
    // no decoder or it does not open.
    const AVCodec* openDecoder(AVStream* stream);
    // Body of the reader thread.
    void readLoop();
    bool anyStreamParsed() const;
    // Ends the reader (waits for it), closes the input, releases the path.
    // Never on the reader thread.
    void stop();

    // Writes the 7-byte ADTS header for a packet of `*size` bytes followed by
    // the packet's bytes into `destination`, which must hold `*size` + 7
    // bytes; `*size` grows by 7.
    static void wrapAdts(const uint8_t* packet, uint8_t* destination, int32_t* size, int32_t rate,
                         int32_t channels);

    std::unique_ptr<char[]> path;  // kParsePathSize bytes once init ran
    // The I/O layer under formatContext when the walk comes from the tables,
    // else null. It must outlive the context: closeInput closes both, in order.
    std::unique_ptr<FileInput> input;
    InputFormatHolder formatContext;
    uint16_t audioCount = 0;
    uint16_t videoCount = 0;
    uint16_t subtitleCount = 0;
    int32_t width = 0;
    int32_t height = 0;
    int16_t firstAudio = -1;
    int16_t firstVideo = -1;
    int16_t firstSubtitle = -1;
    double frameRate = 0.0;
    int32_t rotation = 0;  // display rotation of the last accepted video stream: 0, 90, 180 or 270 clockwise
    double duration = 0.0;  // ms
    // FFmpeg's error (below 0) behind the last failure of the open, the scan
    // or the reads; 0 while none came from FFmpeg. Written by the thread that
    // fails, before it raises the failure.
    int failureCode = 0;
    int32_t state = kParseStateIdle;  // guarded by mutex once the reader runs
    uint16_t channels[kParseTableSize];
    int32_t sampleRates[kParseTableSize];
    int32_t audioList[kParseTableSize];
    int32_t videoList[kParseTableSize];
    int32_t subtitleList[kParseTableSize];
    int32_t videoCodecId = 0;
    int32_t audioCodecId = 0;
    AVRational audioTimeBase{0, 0};
    AVRational videoTimeBase{0, 0};
    bool hasVideo = false;
    bool hasAudio = false;
    bool hasSubtitle = false;
    std::unique_ptr<std::thread> reader;
    std::mutex mutex;
    std::condition_variable condition;
    ParseNotify notify = nullptr;
    std::unique_ptr<uint8_t[]> extraData;
    int32_t extraDataSize = 0;
    void* notifyData = nullptr;
    std::unique_ptr<uint8_t[]> annexBExtraData;
    int32_t annexBExtraDataSize = 0;
    int32_t audioBitRate = 0;
    int32_t audioRate = 0;  // time base denominator of the last accepted audio stream
    int32_t audioChannels = 0;
    int32_t videoBitRate = 0;
    // The timestamps, in ms of each stream's own time, that the read loop
    // counts from: the first video packet's pts and dts, the first audio
    // packet's pts. Written by the reader thread; read after it has ended.
    double videoPtsOrigin = 0;
    double videoDtsOrigin = 0;
    double audioPtsOrigin = 0;

    // FFmpeg 5.1 streams carry no codec context of their own: the contexts
    // that openDecoder opens live here, one slot per stream index.
    std::vector<CodecContextHolder> codecContexts;

private:
    // What the read loop carries from one packet to the next (reader thread).
    struct ReadCursor {
        bool keySeen = false;
        int readFailures = 0;
        std::unique_ptr<uint8_t[]> scratch;  // an audio packet behind its ADTS header
        size_t scratchSize = 0;
        TimelineBase videoPts;
        TimelineBase videoDts;
        TimelineBase audioPts;
    };
    // Reader thread: one read packet to the notify function; its answer, or
    // 0 for a packet that is not reported.
    void prepareScratch(ReadCursor* cursor);
    int reportPacket(AVPacket* packet, ReadCursor* cursor);
    int reportVideo(const AVPacket* packet, const AVStream* stream, ReadCursor* cursor);
    int reportAudio(const AVPacket* packet, const AVStream* stream, ReadCursor* cursor);

    // The opening thread (the worker).
    void resetFields();
    bool openFromTables(const char* source);
    int scanVideo(AVStream* stream, int index);
    int scanAudio(AVStream* stream, int index);
    // The opening thread during the scan, the reader thread afterwards.
    int sendNotify(int kind, int detail, void* data);
    // Reader thread.
    bool isStopping();
    void pause();
};
