#include "platform/PlatformFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/Utf8.h"

namespace {
std::atomic<FileMoveHook> gMoveHook{nullptr};
std::atomic<FileOpenHook> gOpenHook{nullptr};

PlatformFile openWith(const std::wstring& path, int flags) {
    PlatformFile file;
    if (path.empty()) return file;
    const std::string bytes = wideToUtf8(path);
    if (bytes.empty()) return file;
    file.fd = ::open(bytes.c_str(), flags | O_CLOEXEC);
    if (FileOpenHook hook = gOpenHook.load()) hook(bytes, flags | O_CLOEXEC);
    return file;
}

// Reads until `length` bytes or the end of the file, from the file position
// (offset -1) or from `offset` without moving it.
bool readAll(PlatformFile file, void* buffer, uint32_t length, uint32_t* got, int64_t offset) {
    if (got) *got = 0;
    if (!file.isOpen() || (!buffer && length > 0)) return false;
    uint32_t total = 0;
    auto* out = static_cast<uint8_t*>(buffer);
    while (total < length) {
        const ssize_t n = offset < 0 ? ::read(file.fd, out + total, length - total)
                                     : ::pread(file.fd, out + total, length - total, static_cast<off_t>(offset + total));
        if (n < 0) {
            if (errno == EINTR) continue;
            if (got) *got = total;
            return false;
        }
        if (n == 0) break;
        total += static_cast<uint32_t>(n);
    }
    if (got) *got = total;
    return true;
}
}  // namespace

PlatformFile openFileRead(const std::wstring& path) { return openWith(path, O_RDONLY); }

bool moveFilePointer(PlatformFile file, int32_t distance, MoveFrom from) {
    if (FileMoveHook hook = gMoveHook.load()) hook(distance, from);
    if (!file.isOpen()) return false;
    return ::lseek(file.fd, static_cast<off_t>(distance), from == MoveFrom::Begin ? SEEK_SET : SEEK_CUR) >= 0;
}

bool moveFileForward(PlatformFile file, int64_t position) {
    MoveFrom from = MoveFrom::Begin;
    for (int64_t remaining = position; remaining > 0; remaining -= kFileMoveStep) {
        const int32_t step = static_cast<int32_t>(remaining < kFileMoveStep ? remaining : kFileMoveStep);
        if (!moveFilePointer(file, step, from)) return false;
        from = MoveFrom::Current;
    }
    return true;
}

bool readFile(PlatformFile file, void* buffer, uint32_t length, uint32_t* got) {
    return readAll(file, buffer, length, got, -1);
}

bool readFileAt(PlatformFile file, int64_t offset, void* buffer, uint32_t length, uint32_t* got) {
    if (offset < 0) {
        if (got) *got = 0;
        return false;
    }
    return readAll(file, buffer, length, got, offset);
}

bool regularFileSize(PlatformFile file, int64_t* size) {
    struct stat facts {};
    if (!file.isOpen() || ::fstat(file.fd, &facts) != 0 || !S_ISREG(facts.st_mode)) return false;
    *size = static_cast<int64_t>(facts.st_size);
    return true;
}

void closeFile(PlatformFile& file) {
    if (file.fd >= 0) ::close(file.fd);
    file.fd = -1;
}

bool removeFile(const char* path) { return path && *path && ::unlink(path) == 0; }

bool sameFile(const char* a, const char* b) {
    struct stat first {};
    struct stat second {};
    if (!a || !b || ::stat(a, &first) != 0 || ::stat(b, &second) != 0) return false;
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

void setFileMoveHook(FileMoveHook hook) { gMoveHook.store(hook); }

void setFileOpenHook(FileOpenHook hook) { gOpenHook.store(hook); }
