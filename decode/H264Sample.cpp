#include "decode/H264Sample.h"

namespace {

// A coded slice of a picture (types 1 to 5); parameter sets, SEI and the
// like come before it in the same sample.
bool isSlice(int type) { return type >= 1 && type <= 5; }

// The type of the first slice NAL unit, or -1.
int firstSliceLengthPrefixed(const uint8_t* data, int64_t size, int32_t lengthSize) {
    int64_t at = 0;
    while (at + lengthSize < size) {
        int64_t length = 0;
        for (int32_t i = 0; i < lengthSize; ++i) length = (length << 8) | data[at + i];
        at += lengthSize;
        const int type = data[at] & 0x1F;
        if (isSlice(type)) return type;
        at += length;
    }
    return -1;
}

int firstSliceStartCodes(const uint8_t* data, int64_t size) {
    for (int64_t at = 0; at + 3 < size; ++at) {
        if (data[at] != 0 || data[at + 1] != 0 || data[at + 2] != 1) continue;
        const int type = data[at + 3] & 0x1F;
        if (isSlice(type)) return type;
        at += 2;
    }
    return -1;
}

}  // namespace

int32_t nalLengthSize(const uint8_t* extraData, int32_t size) {
    // avcC: configurationVersion 1, then profile, compatibility, level, and
    // lengthSizeMinusOne in the low two bits of the fifth byte.
    if (!extraData || size < 5 || extraData[0] != 1) return 0;
    return (extraData[4] & 3) + 1;
}

int firstSliceType(const uint8_t* data, int32_t size, int32_t lengthSize) {
    if (!data || size <= 0) return -1;
    return lengthSize > 0 ? firstSliceLengthPrefixed(data, size, lengthSize) : firstSliceStartCodes(data, size);
}
