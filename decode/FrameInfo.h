#pragma once
#include <cstdint>

// What the codec layer hands out for one decoded frame. The pointers lead
// into the decoding library's own frame and stay valid only until the next
// decode call; SoftMediaDecoderImpl copies them out before that.

constexpr uint32_t kPlanarFormatTag = 0x60000001u;  // planar YUV; pixelFormat says which

struct PlanarPictureInfo {
    uint8_t* planes[3] = {nullptr, nullptr, nullptr};  // Y, U, V (U and V null for grey)
    int32_t strides[3] = {0, 0, 0};
    int32_t width = 0;
    int32_t height = 0;
    int64_t pts = 0;
    uint32_t formatTag = 0;
    int32_t pixelFormat = 0;  // AVPixelFormat as decoded (0: 8-bit 4:2:0)
    int32_t colorRange = 0;   // AVColorRange
    int32_t colorSpace = 2;   // AVColorSpace
};

struct AudioFrameInfo {
    uint8_t* samples = nullptr;
    int32_t size = 0;  // bytes
    int32_t sampleRate = 0;
    int32_t channels = 0;
};
