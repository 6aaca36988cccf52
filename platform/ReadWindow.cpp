#include "platform/ReadWindow.h"

#include <algorithm>
#include <climits>
#include <cstring>

bool moveTo(PlatformFile file, int64_t position) {
    // A position of 0 makes no move forward: the start has to be asked for.
    return position > 0 ? moveFileForward(file, position) : moveFilePointer(file, 0, MoveFrom::Begin);
}

bool readAt(PlatformFile file, int64_t position, uint8_t* into, uint32_t size) {
    if (position < 0 || !moveTo(file, position)) return false;
    uint32_t done = 0;
    while (done < size) {
        uint32_t got = 0;
        if (!readFile(file, into + done, size - done, &got) || got == 0) return false;
        done += got;
    }
    return true;
}

bool ReadWindow::fill(int64_t position) {
    uint32_t got = 0;
    if (position < 0 || !moveTo(file, position) || !readFile(file, buffer, uint32_t(step), &got) || got == 0)
        return false;
    bufferBytes = static_cast<int32_t>(got);
    bufferEnd = position + bufferBytes;
    sampleOffset = 0;
    return true;
}

bool ReadWindow::bring(int64_t position, int32_t size) {
    // A position of -1 (none known), a negative size or a sample longer
    // than the whole buffer cannot be held: the walk ends there rather
    // than feed bytes that are not the sample's.
    if (position < 0 || size < 0 || size > kReadBufferSize) return false;
    const int64_t bufferStart = bufferEnd - bufferBytes;
    if (position > bufferEnd) {
        const int64_t gap = position - bufferEnd;
        if (gap <= INT32_MAX) {
            if (!moveFilePointer(file, static_cast<int32_t>(gap), MoveFrom::Current)) return false;
        } else if (!moveTo(file, position)) {
            // A gap past one 32-bit move: position absolutely, in steps.
            return false;
        }
    } else if (position < bufferStart) {
        // Samples lie at ascending positions; one that does not is read
        // again from its own place instead of from before the buffer.
        if (!moveTo(file, position)) return false;
    } else if (position + size > bufferEnd) {
        // The sample's head is held: it moves to the front and the rest follows.
        sampleOffset = 0;
        return keepFrom(position) && size <= bufferBytes;
    } else {
        sampleOffset = static_cast<int32_t>(position - bufferStart);
        return true;
    }
    sampleOffset = 0;
    uint32_t got = 0;
    if (!readFile(file, buffer, static_cast<uint32_t>(kReadBufferSize), &got) || got == 0) return false;
    bufferBytes = static_cast<int32_t>(got);
    bufferEnd = position + bufferBytes;
    // The file ended inside the sample.
    return size <= bufferBytes;
}

bool ReadWindow::keepFrom(int64_t position) {
    const int64_t keep = bufferEnd - position;
    if (position < start() || keep < 0) return false;
    if (bufferBytes > kReadBufferSize - step) {
        std::memmove(buffer, buffer + (bufferBytes - keep), static_cast<size_t>(keep));
        bufferBytes = static_cast<int32_t>(keep);
    }
    const int32_t room = kReadBufferSize - bufferBytes;
    uint32_t got = 0;
    if (!readFile(file, buffer + bufferBytes, static_cast<uint32_t>(std::min(room, step)), &got) || got == 0)
        return false;
    bufferBytes += static_cast<int32_t>(got);
    bufferEnd += got;
    return true;
}
