#pragma once
#include <cstdint>

// Describes a block of media bytes. It never owns `data`: who does depends on
// who filled it in (a ring element, a caller's stack buffer, a decoder record).
class BaseBuffer {
public:
    BaseBuffer() = default;
    BaseBuffer(uint8_t* data, int32_t size, int64_t pts, uint32_t flags, int64_t dts)
        : data(data), size(size), pts(pts), flags(flags), dts(dts) {}
    virtual ~BaseBuffer() = default;

    uint8_t* data = nullptr;
    int32_t size = 0;
    int64_t pts = 0;
    uint32_t flags = 0;
    int64_t dts = 0;
};
