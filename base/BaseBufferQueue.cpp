#include "base/BaseBufferQueue.h"

#include <cstring>
#include <new>

#include "base/Results.h"

BaseBufferQueue::BaseBufferQueue(int32_t type, int32_t capacity)
    : capacity(capacity > 0 ? capacity : 0), type(type) {
    const size_t slots = this->capacity > 0 ? static_cast<size_t>(this->capacity) : 1;
    entries.reset(new (std::nothrow) BaseBuffer[slots]);
    blocks.reset(new (std::nothrow) std::unique_ptr<uint8_t[]>[slots]);
    if (!entries || !blocks) this->capacity = 0;
}

int32_t BaseBufferQueue::allocBuffers(int32_t size) {
    if (size < 0) return kErrInvalidArgument;
    for (int32_t i = 0; i < capacity; ++i) {
        blocks[i].reset(new (std::nothrow) uint8_t[size > 0 ? size : 1]);
        entries[i].data = blocks[i].get();
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

void BaseBufferQueue::dropHead() {
    if (count == 0) return;
    if (++readIndex == capacity) readIndex = 0;
    --count;
}
