#pragma once
#include <cstdint>

namespace Morvel_Tessalo {

// One decoded picture in a single owned block. `size` is both the bytes held
// and the block's capacity; the decoder allocates and replaces the block.
class BasePacket {
public:
    BasePacket() = default;
    virtual ~BasePacket();
    BasePacket(const BasePacket&) = delete;
    BasePacket& operator=(const BasePacket&) = delete;

    int64_t pts = 0;
    int64_t dts = 0;
    uint32_t size = 0;
    uint8_t* data = nullptr;
    bool keyFrame = false;
};

// A picture (or, for an audio frame, samples with the channel count in
// `height` and `sampleRate` set).
class VideoPacket : public BasePacket {
public:
    int32_t width = 0;
    int32_t height = 0;
    int32_t sampleRate = 0;
};

}  // namespace Morvel_Tessalo
