#pragma once
#include <cstdint>

namespace Morvel_Tessalo {

// One packet as reported to the instance. `data` is valid only until the
// packet callback returns.
struct DemuxerPacket {
    uint8_t* data;
    int32_t size;      // audio: includes the 7-byte ADTS header
    int64_t pts;       // ms, relative to the first delivered packet of the same kind
    int64_t dts;       // ms; audio carries its pts here
    bool key;          // any of the low 16 bits of AVPacket.flags
    int64_t duration;  // stream ticks, not converted
    int64_t pos;       // byte offset in the file
};

// Non-zero lets the reader go on; zero pauses it until resume or stop.
using DemuxerPacketCallback = int (*)(int kind, DemuxerPacket* packet, void* user);
// The data pointer is null in every event; the result is not read.
using DemuxerEventCallback = void (*)(int kind, int detail, void* data, void* user);

// Packet kinds.
constexpr int kDemuxerPacketVideo = 1;
constexpr int kDemuxerPacketAudio = 0x10;

// Event kinds.
constexpr int kDemuxerEventEnded = 0;
constexpr int kDemuxerEventReady = 1;
constexpr int kDemuxerEventError = 2;
constexpr int kDemuxerEventOpenFailed = 3;

// Details of kDemuxerEventEnded.
constexpr int kDemuxerMediaAudio = 1;
constexpr int kDemuxerMediaVideo = 2;

// Details of kDemuxerEventError.
constexpr int kDemuxerErrorGeneral = 0;
constexpr int kDemuxerErrorUnassigned = 1;
constexpr int kDemuxerErrorNoVideo = 2;
constexpr int kDemuxerErrorCodec = 3;
constexpr int kDemuxerErrorSampleRate = 4;
constexpr int kDemuxerErrorChannels = 5;

// Property ids of getProperty, with the width each writes.
constexpr int kDemuxerPropDuration = 0;               // double
constexpr int kDemuxerPropWidth = 1;                  // int32
constexpr int kDemuxerPropHeight = 2;                 // int32
constexpr int kDemuxerPropFrameRate = 3;              // int32
constexpr int kDemuxerPropVideoBitRate = 4;           // int32
constexpr int kDemuxerPropHasVideo = 5;               // one byte
constexpr int kDemuxerPropVideoCodec = 6;             // int32, written only for H.264
constexpr int kDemuxerPropHasAudio = 7;               // one byte
constexpr int kDemuxerPropAudioCodec = 8;             // int32, written only for AAC
constexpr int kDemuxerPropExtraData = 9;              // pointer
constexpr int kDemuxerPropExtraDataSize = 10;         // int32
constexpr int kDemuxerPropAnnexBExtraData = 11;       // pointer
constexpr int kDemuxerPropAnnexBExtraDataSize = 12;   // int32
constexpr int kDemuxerPropChannels = 13;              // 16 bits only
constexpr int kDemuxerPropSampleRate = 14;            // int32
constexpr int kDemuxerPropAudioBitRate = 15;          // int32
constexpr int kDemuxerPropRotation = 16;              // int32: 0, 90, 180 or 270 degrees clockwise
// After the walk: the origins of the index's timelines (IndexOrigins of
// instance/FrameRecord.h). Written by the reader; read once it has ended.
constexpr int kDemuxerPropIndexOrigins = 17;          // IndexOrigins

// Inside a failure event (or once the reader has ended): FFmpeg's error code
// behind it, 0 when the failure came from no FFmpeg call (a refused codec,
// rate or channel count). Id 18 is none.
constexpr int kDemuxerPropFailureCode = 19;          // int32

// The only id of setProperty.
constexpr int kDemuxerPropPath = 0;

constexpr int32_t kDemuxerCodecH264 = 0;
constexpr int32_t kDemuxerCodecAac = 1;

// Reads one media file for the instance: reports every packet and the file's
// properties. Lives for one walk.
//
// Threads: init, setProperty and start run on the instance's worker, and
// start raises the ready event and any refusal there; packets, the end and
// read failures are raised on the reader thread that start leaves running.
// getProperty is asked on the worker (inside the ready event, and once the
// reader has ended); stop runs on the worker or, when the instance goes, on
// the host's thread; resume on any thread but the reader.
class DemuxerBase {
public:
    virtual void init(DemuxerPacketCallback packetCallback, DemuxerEventCallback eventCallback, void* userData);
    virtual ~DemuxerBase() = default;
    virtual int start() = 0;
    virtual void stop() = 0;
    virtual void resume(int ignored) = 0;
    virtual void setProperty(int id, const char* value) = 0;
    virtual void getProperty(int id, void* storage) = 0;
    virtual int notifyPacket(int kind, DemuxerPacket* packet);
    virtual void notifyEvent(int kind, int detail, void* data);

protected:
    DemuxerPacketCallback packetCallback = nullptr;
    DemuxerEventCallback eventCallback = nullptr;
    void* userData = nullptr;
};

}  // namespace Morvel_Tessalo
