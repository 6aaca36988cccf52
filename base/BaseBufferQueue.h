#pragma once
#include <cstdint>
#include <memory>

#include "base/BaseBuffer.h"

// A fixed ring of BaseBuffer elements, each with a block of `bufferSize` bytes.
// push copies bytes in, pop copies them out; all `capacity` slots are usable.
// No lock inside: the owner holds its own mutex around every call, which may
// come from any thread (the muxer pushes on the cut thread and pops on its
// writing thread).
class BaseBufferQueue {
public:
    BaseBufferQueue(int32_t type, int32_t capacity);
    virtual ~BaseBufferQueue() = default;
    BaseBufferQueue(const BaseBufferQueue&) = delete;
    BaseBufferQueue& operator=(const BaseBufferQueue&) = delete;

    // Gives every element its block; called once, right after construction.
    int32_t allocBuffers(int32_t bufferSize);
    int32_t push(const BaseBuffer* buffer);
    int32_t pop(BaseBuffer* out);
    // Discards the head, which a reader may have used in place (entries[readIndex]).
    void dropHead();

    std::unique_ptr<BaseBuffer[]> entries;  // each element's data is its block in `blocks`
    int32_t bufferSize = 0;
    int32_t capacity = 0;
    int32_t writeIndex = 0;
    int32_t readIndex = 0;
    int32_t count = 0;
    int32_t type = 0;

private:
    std::unique_ptr<std::unique_ptr<uint8_t[]>[]> blocks;
};
