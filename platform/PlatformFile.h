#pragma once
#include <cstdint>
#include <string>

// The few file calls the picture and cut paths need, with the calling shapes
// they were designed around: wide paths, moves by signed 32-bit distances and
// reads that report how many bytes came. Any thread; a handle is used by one
// thread at a time (the worker's reads, the cut thread's, the reader's).
struct PlatformFile {
    int fd = -1;
    bool isOpen() const { return fd >= 0; }
};

enum class MoveFrom { Begin, Current };

// Opens an existing file for reading; closed handle when it is missing. Both
// the picture and the cut paths read their source through it: a source on
// read-only media, or one the user may read but not write, is usable, and a
// missing one is never created.
PlatformFile openFileRead(const std::wstring& path);
// Moves the file position by a signed 32-bit distance. False on failure.
bool moveFilePointer(PlatformFile file, int32_t distance, MoveFrom from);
// The largest single move: 2 GiB less 2 bytes.
constexpr int64_t kFileMoveStep = 0x7FFFFFFE;
// Moves to an absolute `position` in steps a 32-bit distance can take: the
// first from the start of the file, the rest from where it stands. A
// position at or below 0 makes no move.
bool moveFileForward(PlatformFile file, int64_t position);
// The bytes of a source file that the picture path and the cut each hold
// in memory at once: 20 MiB.
constexpr int32_t kReadBufferSize = 0x1400000;
// What one read of that buffer asks for at most (unless a sample is longer):
// a reader goes on with the first bytes instead of waiting for 20 MiB, and a
// short stretch of the file costs no more than itself.
constexpr int32_t kReadStep = 256 << 10;
// Reads up to `length` bytes; `got` receives the count, 0 at the end of the file.
bool readFile(PlatformFile file, void* buffer, uint32_t length, uint32_t* got);
// Reads up to `length` bytes at `offset` without moving the file position;
// `got` receives the count, 0 at or past the end of the file.
bool readFileAt(PlatformFile file, int64_t offset, void* buffer, uint32_t length, uint32_t* got);
// The size of a regular file; false for anything else (a directory, a pipe, a device).
bool regularFileSize(PlatformFile file, int64_t* size);
// Closes and marks the handle closed; a closed handle is left alone.
void closeFile(PlatformFile& file);

// Removes the file (or link) at a UTF-8 path; false when nothing was removed.
bool removeFile(const char* path);
// Whether two UTF-8 paths name one existing file (the same device and inode).
bool sameFile(const char* a, const char* b);

// Tests observe every move through this hook (null: nobody listens). It is
// called before the move, on the caller's thread.
using FileMoveHook = void (*)(int32_t distance, MoveFrom from);
void setFileMoveHook(FileMoveHook hook);
// Tests observe every open: the UTF-8 path and the flags given to open(2),
// after the call, on the caller's thread.
using FileOpenHook = void (*)(const std::string& path, int flags);
void setFileOpenHook(FileOpenHook hook);
