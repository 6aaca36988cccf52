#pragma once
#include <cstdint>

// Signed 32-bit results of the codec layer, the muxer and the rings: 0 is success.
constexpr int32_t kOk = 0;
constexpr int32_t kErrInvalidState = -40;      // wrong state for the operation
constexpr int32_t kErrInvalidArgument = -22;   // null/bad argument, failed video decode, dts out of order
constexpr int32_t kErrBufferTooSmall = -12;    // a sample larger than a ring's element
constexpr int32_t kErrQueueState = -120;       // ring full on push, empty on pop
constexpr int32_t kErrFileIo = -5;             // output file or header failure
constexpr int32_t kErrNoContext = -19;         // no output context or resampler
constexpr int32_t kErrNoFrame = -1009;         // nothing decoded, more input needed
constexpr int32_t kErrNotFound = -1010;        // codec type other than 1, resampler options refused
constexpr int32_t kErrGeneric = static_cast<int32_t>(0x80000000u);      // allocation, encoder, thread
constexpr int32_t kErrUnsupported = static_cast<int32_t>(0x80000001u);  // no such codec/parameter/format
