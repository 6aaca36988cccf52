#pragma once
// What the picture path needs to know of an H.264 sample before it decodes
// it: whether decoding can start there with nothing before it.
#include <cstdint>

// Bytes of the length prefix in front of each NAL unit of the samples that
// this extra data describes: 1 to 4 for an avcC record, 0 when the samples
// carry start codes instead (or the extra data says nothing usable).
int32_t nalLengthSize(const uint8_t* extraData, int32_t size);

// Whether the first coded slice of the sample is an IDR slice: a picture that
// needs nothing before it, and that no later picture decodes before. Any
// other sample, and a sample whose first slice is not found in `size` bytes,
// gives false.
bool sampleStartsWithIdr(const uint8_t* data, int32_t size, int32_t lengthSize);
