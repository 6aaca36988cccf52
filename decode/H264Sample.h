#pragma once
// What the picture path needs to know of an H.264 sample before it decodes
// it: whether decoding can start there with nothing before it. Pure
// functions, called on the worker thread.
#include <cstdint>

// Bytes of the length prefix in front of each NAL unit of the samples that
// this extra data describes: 1 to 4 for an avcC record, 0 when the samples
// carry start codes instead (or the extra data says nothing usable).
int32_t nalLengthSize(const uint8_t* extraData, int32_t size);

constexpr int kNalIdrSlice = 5;

// nal_unit_type of the first coded slice (1 to 5) of the sample, or -1 when
// none begins in these `size` bytes. An IDR slice (5) starts a picture that
// needs nothing before it, and that no later picture decodes before.
int firstSliceType(const uint8_t* data, int32_t size, int32_t lengthSize);
