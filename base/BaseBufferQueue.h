#pragma once
#include <cstdint>

#include "base/BaseBuffer.h"

// A fixed ring of BaseBuffer elements, each with a block of `bufferSize` bytes.
// push copies bytes in, pop copies them out; all `capacity` slots are usable.
// No lock inside: the owner holds its own mutex around every call.
class BaseBufferQueue {
public:
    BaseBufferQueue(int32_t type, int32_t capacity);
    virtual ~BaseBufferQueue();
    BaseBufferQueue(const BaseBufferQueue&) = delete;
    BaseBufferQueue& operator=(const BaseBufferQueue&) = delete;

    // Gives every element its block; called once, right after construction.
    int32_t allocBuffers(int32_t bufferSize);
    int32_t push(const BaseBuffer* buffer);
    int32_t pop(BaseBuffer* out);

    BaseBuffer* entries = nullptr;
    int32_t bufferSize = 0;
    int32_t capacity = 0;
    int32_t writeIndex = 0;
    int32_t readIndex = 0;
    int32_t count = 0;
    int32_t type = 0;
};
