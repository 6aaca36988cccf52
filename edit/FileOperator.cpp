#include "edit/FileOperator.h"

#include <string>

#include "platform/Utf8.h"

FileOperator::~FileOperator() { close(); }

bool FileOperator::open(const char* path) {
    const std::wstring wide = utf8ToWide(path);
    if (wide.empty()) return false;
    file = openFileRead(wide);
    return file.isOpen();
}

bool FileOperator::seek(int64_t position) {
    // A position of 0 makes no move at all: the handle is fresh at each cut
    // and every sample of a real MP4 lies behind its ftyp box, so no range
    // ever needs to go back to byte 0 after a read.
    return moveFileForward(file, position);
}

bool FileOperator::read(void* buffer, uint32_t count, uint32_t* got) {
    uint32_t n = 0;
    const bool ok = readFile(file, buffer, count, &n);
    if (got) *got = n;
    return ok;
}

void FileOperator::close() { closeFile(file); }
