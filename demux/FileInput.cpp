#include "demux/FileInput.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "platform/Utf8.h"

namespace {
// The buffer size of libavformat's own file access, so that the header is
// read in the same steps.
constexpr int kBufferSize = 32768;
}  // namespace

std::unique_ptr<FileInput> FileInput::open(const char* path) {
    const std::wstring wide = utf8ToWide(path);
    if (wide.empty()) return nullptr;
    PlatformFile file = openFileRead(wide);
    int64_t size = 0;
    if (!regularFileSize(file, &size)) {
        closeFile(file);
        return nullptr;
    }
    std::unique_ptr<FileInput> input(new (std::nothrow) FileInput(file, size));
    if (!input) {
        closeFile(file);
        return nullptr;
    }
    AvBlockHolder buffer(static_cast<uint8_t*>(av_malloc(kBufferSize)));
    if (!buffer) return nullptr;
    input->io.reset(avio_alloc_context(buffer.get(), kBufferSize, 0, input.get(), &FileInput::readPacket, nullptr,
                                       &FileInput::seek));
    if (!input->io) return nullptr;
    buffer.release();  // the context owns it now
    return input;
}

FileInput::FileInput(PlatformFile opened, int64_t size) : file(opened), fileSize(size) {}

FileInput::~FileInput() {
    io.reset();
    closeFile(file);
}

bool FileInput::readAt(int64_t offset, uint8_t* buffer, uint32_t length) {
    uint32_t got = 0;
    const bool ok = readFileAt(file, offset, buffer, length, &got);
    fileBytesRead += got;
    return ok && got == length;
}

void FileInput::skipPayloads(bool leaveUnwritten) {
    int64_t size = 0;
    if (regularFileSize(file, &size)) fileSize = size;
    skipping = true;
    unwritten = leaveUnwritten;
    // Direct: a packet's read comes to this layer for the packet's own bytes
    // rather than through the context's buffer and a copy.
    if (unwritten && io) io->direct = 1;
}

int FileInput::readPacket(void* opaque, uint8_t* buffer, int size) {
    auto* self = static_cast<FileInput*>(opaque);
    if (size <= 0) return 0;
    if (self->skipping) {
        if (self->position >= self->fileSize) return AVERROR_EOF;
        const int length = static_cast<int>(std::min<int64_t>(size, self->fileSize - self->position));
        if (!self->unwritten) std::memset(buffer, 0, static_cast<size_t>(length));
        self->position += length;
        return length;
    }
    uint32_t got = 0;
    const bool ok = readFileAt(self->file, self->position, buffer, static_cast<uint32_t>(size), &got);
    self->position += got;
    self->fileBytesRead += got;
    if (got > 0) return static_cast<int>(got);
    return ok ? AVERROR_EOF : AVERROR(EIO);
}

// As lseek does: any position at or above 0 can be reached, the end of the
// file included; reads there find the end.
int64_t FileInput::seek(void* opaque, int64_t offset, int whence) {
    auto* self = static_cast<FileInput*>(opaque);
    if (whence & AVSEEK_SIZE) {
        int64_t size = 0;
        return regularFileSize(self->file, &size) ? size : AVERROR(EIO);
    }
    int64_t base = 0;
    switch (whence & ~AVSEEK_FORCE) {
    case SEEK_SET:
        break;
    case SEEK_CUR:
        base = self->position;
        break;
    case SEEK_END:
        if (!regularFileSize(self->file, &base)) return AVERROR(EIO);
        break;
    default:
        return AVERROR(EINVAL);
    }
    int64_t target = 0;
    if (__builtin_add_overflow(base, offset, &target) || target < 0) return AVERROR(EINVAL);
    self->position = target;
    return target;
}
