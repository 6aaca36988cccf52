#pragma once
#include <cstdint>

namespace Morvel_Tessalo {

class BasePacket;

constexpr int32_t kMediaKindVideo = 0;
constexpr int32_t kMediaKindAudio = 1;

// Parameter ids of setParameter.
constexpr int32_t kDecoderParamFlush = 0;      // value: null
constexpr int32_t kDecoderParamThreads = 1;    // value: pointer to int32 count
constexpr int32_t kDecoderParamExtraSize = 2;  // value: pointer to int32 length
constexpr int32_t kDecoderParamExtraData = 3;  // value: the bytes
// Id 4 is ignored, like every id not listed here.
// The end of the input: each following outputData gives one of the pictures
// still inside the decoder, then 0 once none is left. Value: null.
constexpr int32_t kDecoderParamDrain = 5;
// After a drain: the decoder takes input again, with nothing of the pictures
// before it, as if new, so that it can start at another point of the stream.
// Value: null.
constexpr int32_t kDecoderParamResume = 6;

// Compressed samples in, whole pictures out in one contiguous block. Every
// operation runs on the worker thread of the picture request that made it.
class DecoderBase {
public:
    virtual ~DecoderBase() = default;
    // 0, kErrInvalidState or kErrInvalidArgument. The bytes must stay valid
    // until the following outputData has returned.
    virtual int32_t inputData(uint8_t* data, int32_t size, int64_t pts, int64_t dts) = 0;
    // 0: no picture now; 1: a picture is in `packet`; 2: failure.
    virtual int32_t outputData(BasePacket* packet) = 0;
    // 1 when the codec started, else 0.
    virtual int32_t open() = 0;
    virtual int32_t close() = 0;
    virtual void setParameter(int32_t id, void* value) = 0;
};

}  // namespace Morvel_Tessalo
