#include "base/BaseBufferQueue.h"

#include <cstring>
#include <new>

#include "base/Results.h"

BaseBufferQueue::BaseBufferQueue(int32_t type, int32_t capacity)
    : capacity(capacity > 0 ? capacity : 0), type(type) {
    entries = new (std::nothrow) BaseBuffer[this->capacity > 0 ? this->capacity : 1];
    if (!entries) this->capacity = 0;
}

BaseBufferQueue::~BaseBufferQueue() {
    if (!entries) return;
    for (int32_t i = 0; i < capacity; ++i) delete[] entries[i].data;
    delete[] entries;
}

int32_t BaseBufferQueue::allocBuffers(int32_t size) {
    if (size < 0) return kErrInvalidArgument;
    for (int32_t i = 0; i < capacity; ++i) {
        delete[] entries[i].data;
        entries[i].data = new (std::nothrow) uint8_t[size > 0 ? size : 1];
        if (!entries[i].data) {
            // Leave a ring that refuses every sample rather than a half-built one.
            bufferSize = 0;
            return kErrGeneric;
        }
        entries[i].size = 0;
    }
    bufferSize = size;
    writeIndex = readIndex = count = 0;
    return kOk;
}

int32_t BaseBufferQueue::push(const BaseBuffer* buffer) {
    // The order of tests matters: an oversize sample is reported as such even
    // when the ring is also full.
    if (!buffer || !buffer->data || buffer->size < 0) return kErrInvalidArgument;
    if (buffer->size > bufferSize) return kErrBufferTooSmall;
    if (count == capacity) return kErrQueueState;
    BaseBuffer& slot = entries[writeIndex];
    if (buffer->size > 0) std::memcpy(slot.data, buffer->data, static_cast<size_t>(buffer->size));
    slot.size = buffer->size;
    slot.pts = buffer->pts;
    slot.flags = buffer->flags;
    slot.dts = buffer->dts;
    if (++writeIndex == capacity) writeIndex = 0;
    ++count;
    return kOk;
}

int32_t BaseBufferQueue::pop(BaseBuffer* out) {
    if (!out || !out->data) return kErrInvalidArgument;
    if (count == 0) return kErrQueueState;
    const BaseBuffer& slot = entries[readIndex];
    if (slot.size > 0) std::memcpy(out->data, slot.data, static_cast<size_t>(slot.size));
    out->size = slot.size;
    out->pts = slot.pts;
    out->flags = slot.flags;
    out->dts = slot.dts;
    if (++readIndex == capacity) readIndex = 0;
    --count;
    return kOk;
}
