#pragma once
// The stretch of a source file that a picture request holds in memory, and
// the plain reads behind it. Worker thread.
#include <cstdint>

#include "platform/PlatformFile.h"

namespace Morvel_Tessalo {

using ::kReadBufferSize;

// Closes the file when the request ends, however it ends.
struct FileCloser {
    PlatformFile file;
    ~FileCloser() { closeFile(file); }
};

// Moves to an absolute position in steps that fit a signed 32-bit distance:
// the first from the start of the file, the rest from where it stands.
bool moveTo(PlatformFile file, int64_t position);

// Reads `size` bytes at `position` into `into`; false when any is missing.
bool readAt(PlatformFile file, int64_t position, uint8_t* into, uint32_t size);

// The buffer holds the file's bytes from bufferEnd - bufferBytes up to
// bufferEnd, and the file's read position stands at bufferEnd.
struct ReadWindow {
    PlatformFile file;
    uint8_t* buffer = nullptr;  // kReadBufferSize bytes
    int32_t bufferBytes = 0;
    int64_t bufferEnd = 0;  // file position just past the last byte held
    int32_t sampleOffset = 0;

    // Fills the buffer from `position`, the first sample's; false when
    // nothing can be read there.
    bool fill(int64_t position);
    // Makes the sample at `position` of `size` bytes addressable at
    // buffer + sampleOffset. False ends the request's walk through the samples.
    bool bring(int64_t position, int32_t size);
    // The current sample lies whole in the bytes held.
    bool holds(int32_t size) const { return int64_t{sampleOffset} + size <= bufferBytes; }
};

}  // namespace Morvel_Tessalo
