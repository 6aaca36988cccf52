#pragma once
#include <cstdint>

#include "platform/PlatformFile.h"

// The cut engine's handle on its source file: opened by path, read strictly
// forward in large blocks after one absolute seek per range. It is closed on
// destruction, and that is the last thing that happens to it.
class FileOperator {
public:
    FileOperator() = default;
    ~FileOperator();
    FileOperator(const FileOperator&) = delete;
    FileOperator& operator=(const FileOperator&) = delete;

    // Opens `path` (UTF-8) for reading only: the engine never writes to its
    // source, so a read-only source is cut and a missing one is not created.
    // An earlier handle is not closed: the caller closes first.
    bool open(const char* path);
    // Absolute seek. The platform moves by signed 32-bit distances, so a far
    // position is reached in steps. Positions at or below 0 make no move.
    bool seek(int64_t position);
    // Reads up to `count` bytes from the current position into `buffer`;
    // `got` receives how many came, 0 at the end of the file.
    bool read(void* buffer, uint32_t count, uint32_t* got);
    void close();
    bool isOpen() const { return file.isOpen(); }
    // The handle itself, for a ReadWindow that reads through it.
    PlatformFile handle() const { return file; }

    // The largest single move: 2 GiB less 2 bytes.
    static constexpr int64_t kMaxMove = kFileMoveStep;

private:
    PlatformFile file;
};
