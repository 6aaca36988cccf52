#pragma once
#include <cstdint>

class BaseBuffer;

// Parameter ids of BaseCodec::setParameter.
constexpr int32_t kCodecParamExtraData = 2;            // BaseBuffer*; state 1 only
constexpr int32_t kCodecParamFlush = 3;                // ignored; state 3 only
constexpr int32_t kCodecParamThreads = 7;              // int32_t*; effective in state 1 only
constexpr int32_t kCodecParamDrain = 8;                // ignored; state 3 only: no more input, out with the rest
constexpr int32_t kCodecParamResume = 9;               // ignored; state 3 only: input again after a drain
constexpr int32_t kCodecParamSampleRate = 0x40000002;  // int32_t*; audio only
constexpr int32_t kCodecParamSampleBits = 0x40000003;  // int32_t*: 8, 16 or 32; audio only
constexpr int32_t kCodecParamChannels = 0x40000004;    // int32_t*; audio only

// States of a codec.
constexpr int32_t kCodecStateUninit = 0;
constexpr int32_t kCodecStateInit = 1;
constexpr int32_t kCodecStateStarted = 3;
constexpr int32_t kCodecStateStopped = 6;

// A small state machine for codecs: pick a codec, set parameters, start, push
// one buffer in, pull one buffer out, stop. Every default does nothing and
// succeeds; results are 0 or one of the codes of base/Results.h. A codec
// lives on one thread, its owner's (the worker thread for the decoder).
class BaseCodec {
public:
    virtual ~BaseCodec() = default;
    virtual int32_t init(int32_t /*codecType*/) { return 0; }
    virtual int32_t uninit() { return 0; }
    virtual int32_t reservedOperation(int32_t /*a*/, int32_t /*b*/) { return 0; }
    virtual int32_t setParameter(int32_t /*id*/, void* /*value*/) { return 0; }
    virtual int32_t start() { return 0; }
    virtual int32_t stop() { return 0; }
    virtual int32_t inputBuffer(BaseBuffer* /*buffer*/) { return 0; }
    virtual int32_t outputBuffer(BaseBuffer* /*out*/) { return 0; }
};
