#pragma once
#include <cstdint>
#include <string>

// The few file calls the picture and cut paths need, with the calling shapes
// they were designed around: wide paths, moves by signed 32-bit distances and
// reads that report how many bytes came.
struct PlatformFile {
    int fd = -1;
    bool isOpen() const { return fd >= 0; }
};

enum class MoveFrom { Begin, Current };

// Opens an existing file for reading; closed handle when it is missing.
PlatformFile openFileRead(const std::wstring& path);
// Opens for reading and writing, creating the file when it is missing.
// Callers that only read through it must never write.
PlatformFile openFileReadWrite(const std::wstring& path);
// Moves the file position by a signed 32-bit distance. False on failure.
bool moveFilePointer(PlatformFile file, int32_t distance, MoveFrom from);
// Reads up to `length` bytes; `got` receives the count, 0 at the end of the file.
bool readFile(PlatformFile file, void* buffer, uint32_t length, uint32_t* got);
// Reads up to `length` bytes at `offset` without moving the file position;
// `got` receives the count, 0 at or past the end of the file.
bool readFileAt(PlatformFile file, int64_t offset, void* buffer, uint32_t length, uint32_t* got);
// The size of a regular file; false for anything else (a directory, a pipe, a device).
bool regularFileSize(PlatformFile file, int64_t* size);
// Closes and marks the handle closed; a closed handle is left alone.
void closeFile(PlatformFile& file);

// Tests observe every move through this hook (null: nobody listens). It is
// called before the move, on the caller's thread.
using FileMoveHook = void (*)(int32_t distance, MoveFrom from);
void setFileMoveHook(FileMoveHook hook);
