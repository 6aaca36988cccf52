#pragma once
// The stretch of a source file that a picture request or a cut holds in
// memory (kReadBufferSize bytes), read forward through the file, and the
// plain reads beside it. Used by one thread at a time: a picture request's
// worker, or a cut's thread.
#include <cstdint>

#include "platform/PlatformFile.h"

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

    // Fills the buffer from `position`, the first sample's, with that
    // sample's `size` bytes at least when the file has them; false when
    // nothing can be read there.
    bool fill(int64_t position, int32_t size = 0);
    // Makes the sample at `position` of `size` bytes addressable at
    // buffer + sampleOffset. False ends the request's walk through the samples.
    bool bring(int64_t position, int32_t size);
    // The current sample lies whole in the bytes held.
    bool holds(int32_t size) const { return int64_t{sampleOffset} + size <= bufferBytes; }

    // The file position of the first byte held.
    int64_t start() const { return bufferEnd - bufferBytes; }
    // [position, position + length) lies in the bytes held, short of their
    // end: a sample that reaches the end is taken again with what follows it.
    bool holds(int64_t position, int64_t length) const {
        return position >= start() && position + length < bufferEnd;
    }
    // The held byte of file position `position`.
    uint8_t* at(int64_t position) const { return buffer + (position - start()); }
    // Reads on behind the bytes held, which first move to the front from
    // `position` on when the buffer has no room left for a step; a `position`
    // past them that one whole buffer from the bytes held would still reach
    // is moved to. False for a `position` before the bytes held or out of
    // that reach, or when nothing more comes.
    bool keepFrom(int64_t position);

private:
    // Moves the file forward to `position`, past the bytes held, and
    // empties the buffer there.
    bool skipTo(int64_t position);
    // Empties the buffer at `position`, where the file stands now.
    void restartAt(int64_t position);
    // Reads up to `length` bytes behind those held, as many as fit; false
    // when none come.
    bool readOn(int64_t length);
};
