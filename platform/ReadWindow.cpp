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

bool ReadWindow::fill(int64_t position, int32_t size) {
    if (position < 0 || !moveTo(file, position)) return false;
    restartAt(position);
    return readOn(std::max(size, kReadStep));
}

bool ReadWindow::bring(int64_t position, int32_t size) {
    // A position of -1 (none known), a negative size or a sample longer
    // than the whole buffer cannot be held: the walk ends there rather
    // than feed bytes that are not the sample's.
    if (position < 0 || size < 0 || size > kReadBufferSize) return false;
    if (position > bufferEnd) {
        if (!skipTo(position)) return false;
    } else if (position < start()) {
        // Samples lie at ascending positions; one that does not is read
        // again from its own place instead of from before the buffer.
        if (!moveTo(file, position)) return false;
        restartAt(position);
    }
    // Read on until the sample is whole; a sample whose head alone is held
    // moves to the front when the buffer is full. The file may end inside it.
    if (bufferBytes == 0 && !readOn(std::max(size, kReadStep))) return false;
    while (position + size > bufferEnd)
        if (!keepFrom(position)) return false;
    sampleOffset = static_cast<int32_t>(position - start());
    return true;
}

bool ReadWindow::keepFrom(int64_t position) {
    if (position < start()) return false;
    if (position > bufferEnd) {
        // Bytes of no interest lie between: stepped over, as far as one
        // whole buffer read from the bytes held would have reached.
        return position - start() <= kReadBufferSize && skipTo(position) && readOn(kReadStep);
    }
    const int64_t keep = bufferEnd - position;
    // A short tail moves at once, so the bytes in use stay in the buffer's
    // first few steps, in the processor's cache, instead of sweeping through
    // 20 MiB.
    if (keep <= kReadStep || bufferBytes > kReadBufferSize - kReadStep) {
        std::memmove(buffer, buffer + (bufferBytes - keep), static_cast<size_t>(keep));
        bufferBytes = static_cast<int32_t>(keep);
    }
    return readOn(kReadStep);
}

bool ReadWindow::skipTo(int64_t position) {
    const int64_t gap = position - bufferEnd;
    // A gap past one 32-bit move is made absolutely, in steps.
    if (!(gap <= INT32_MAX ? moveFilePointer(file, static_cast<int32_t>(gap), MoveFrom::Current)
                           : moveTo(file, position)))
        return false;
    restartAt(position);
    return true;
}

void ReadWindow::restartAt(int64_t position) {
    bufferBytes = 0;
    bufferEnd = position;
    sampleOffset = 0;
}

bool ReadWindow::readOn(int64_t length) {
    const int64_t room = kReadBufferSize - bufferBytes;
    uint32_t got = 0;
    if (!readFile(file, buffer + bufferBytes, static_cast<uint32_t>(std::min(room, length)), &got) || got == 0)
        return false;
    bufferBytes += static_cast<int32_t>(got);
    bufferEnd += got;
    return true;
}
