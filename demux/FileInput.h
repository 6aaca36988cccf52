#pragma once
// The I/O layer through which libavformat reads a media file when the index
// comes from the file's sample tables. Until skipPayloads it hands over the
// file's real bytes, so the header, the sample tables and the stream
// information are parsed from the file itself. From then on every read of
// bytes that exist in the file is answered with zeros, without touching the
// file, and a read at or past the end ends as the file does: libavformat's
// packets keep their sizes, positions, timestamps and flags, and a table that
// points past the end of a truncated file still finds nothing there.
//
// Threads: open and readAt run on the thread that opens the parser; the I/O
// callbacks run on whichever thread calls libavformat (the opener during the
// header and stream information, then the reader thread); skipPayloads runs
// on the reader thread before its first read. The calls never overlap.
#include <cstdint>
#include <memory>

#include "base/FFmpegHolders.h"
#include "platform/PlatformFile.h"

class FileInput {
public:
    // A regular file opened for reading, with its I/O context; null for a
    // path that is not a regular file this process can open.
    static std::unique_ptr<FileInput> open(const char* path);
    ~FileInput();
    FileInput(const FileInput&) = delete;
    FileInput& operator=(const FileInput&) = delete;

    // The context to hand libavformat as AVFormatContext.pb; owned here, so
    // the format context that uses it must be closed first.
    AVIOContext* context() const { return io.get(); }
    // The file's size when it was opened, or when payloads were last skipped.
    int64_t size() const { return fileSize; }
    // Reads `length` bytes at `offset` straight from the file, outside the
    // context; false unless all of them came.
    bool readAt(int64_t offset, uint8_t* buffer, uint32_t length);
    // From now on the context serves the file's bytes without reading them:
    // as zeros, or, with `unwritten` (no parser of libavformat looks into a
    // packet, and neither does the reader), by leaving the bytes asked for
    // as they are and handing reads straight to the packets, so a walk costs
    // no filling or copying of payloads.
    void skipPayloads(bool unwritten);
    // Bytes taken from the file so far, through the context and readAt.
    int64_t bytesRead() const { return fileBytesRead; }

private:
    explicit FileInput(PlatformFile opened, int64_t size);
    static int readPacket(void* opaque, uint8_t* buffer, int size);
    static int64_t seek(void* opaque, int64_t offset, int whence);

    PlatformFile file;
    int64_t fileSize = 0;
    int64_t position = 0;
    int64_t fileBytesRead = 0;
    bool skipping = false;
    bool unwritten = false;
    IOContextHolder io;
};
