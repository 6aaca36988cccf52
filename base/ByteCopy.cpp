#include "base/ByteCopy.h"

#include <cstring>
#include <new>

#include "base/Log.h"

std::unique_ptr<uint8_t[]> copyBytes(const uint8_t* source, int32_t size, int32_t* copied) {
    *copied = 0;
    if (!source || size <= 0) return nullptr;
    std::unique_ptr<uint8_t[]> block(new (std::nothrow) uint8_t[static_cast<size_t>(size)]);
    if (!block) {
        Log("copyBytes", "no memory for %d bytes", size);
        return nullptr;
    }
    std::memcpy(block.get(), source, static_cast<size_t>(size));
    *copied = size;
    return block;
}
