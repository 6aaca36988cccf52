#pragma once
#include <cstdint>
#include <memory>

// Copies `size` bytes that someone else owns (FFmpeg, the demuxer) into a
// block of our own, and says in `*copied` how many it holds. A missing
// source, a size of 0 or below, or no memory give a null block and 0, so
// that no later user sees a size without bytes. Never throws.
std::unique_ptr<uint8_t[]> copyBytes(const uint8_t* source, int32_t size, int32_t* copied);
