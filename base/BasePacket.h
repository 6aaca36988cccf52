#pragma once
#include <cstdint>

#include "base/FFmpegHolders.h"

namespace Morvel_Tessalo {

// One decoded picture in a single owned block. `size` is both the bytes held
// and the block's capacity; the decoder replaces the block through
// replaceBlock, and `data` always points at the block held (or is null).
class BasePacket {
public:
    BasePacket() = default;
    virtual ~BasePacket() = default;
    BasePacket(const BasePacket&) = delete;
    BasePacket& operator=(const BasePacket&) = delete;

    // Gives the old block back and takes a new one of `capacity` bytes, from
    // av_malloc so that it carries FFmpeg's alignment. False, with `data`
    // null, when there is no memory; `size` is left to the caller. On the
    // thread of the decoder that fills the packet (the worker).
    bool replaceBlock(uint32_t capacity);

    int64_t pts = 0;
    int64_t dts = 0;
    uint32_t size = 0;
    uint8_t* data = nullptr;
    bool keyFrame = false;

private:
    AvBlockHolder block;
};

// Where the planes of a decoded picture lie in a VideoPacket's block and what
// their samples mean. The planes follow one another, each row without
// padding; the output step reads nothing about a picture from anywhere else.
struct PictureLayout {
    int32_t pixelFormat = -1;        // AVPixelFormat of the planes; never a yuvj format (see fullRange)
    int32_t bitDepth = 8;            // bits per sample; above 8 a sample takes two bytes, little-endian
    int32_t planeCount = 0;          // 3, or 1 for a grey picture
    int32_t offsets[3] = {0, 0, 0};  // bytes from the block's start to each plane
    int32_t strides[3] = {0, 0, 0};  // bytes from one row of a plane to the next
    int32_t matrix = 2;              // AVColorSpace of the picture's YUV (2: the stream does not say)
    bool fullRange = false;          // samples span 0..max, not the limited (studio) range
};

// A picture (or, for an audio frame, samples with the channel count in
// `height` and `sampleRate` set).
class VideoPacket : public BasePacket {
public:
    int32_t width = 0;
    int32_t height = 0;
    int32_t sampleRate = 0;
    PictureLayout layout;  // pictures only
};

}  // namespace Morvel_Tessalo
