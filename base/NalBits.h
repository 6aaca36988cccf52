#pragma once
// Reads the first fields of an H.264 NAL unit's payload: fixed bits and
// exp-Golomb numbers, with the emulation prevention bytes taken out. Enough
// for the ids and formats at the head of parameter sets and slice headers;
// only the first 64 bytes are looked at.
#include <cstddef>
#include <cstdint>
#include <vector>

class NalBits {
public:
    // `data`: the payload, after the NAL header byte.
    NalBits(const uint8_t* data, size_t size) {
        for (size_t i = 0; i < size && bytes.size() < 64; ++i) {
            if (i >= 2 && data[i] == 3 && data[i - 1] == 0 && data[i - 2] == 0) continue;
            bytes.push_back(data[i]);
        }
    }
    // The next `count` bits (at most 32) as a number; -1 when they run out.
    int64_t bits(int count) {
        int64_t value = 0;
        for (int i = 0; i < count; ++i) {
            const int b = next();
            if (b < 0) return -1;
            value = (value << 1) | b;
        }
        return value;
    }
    // The next unsigned exp-Golomb number; -1 when the bits run out.
    int64_t golomb() {
        int zeros = 0;
        for (int b; (b = next()) != 1; ++zeros)
            if (b < 0 || zeros > 31) return -1;
        const int64_t rest = bits(zeros);
        return rest < 0 ? -1 : (int64_t(1) << zeros) - 1 + rest;
    }

private:
    int next() {
        if (bit >= 8 * bytes.size()) return -1;
        const int b = (bytes[bit / 8] >> (7 - bit % 8)) & 1;
        ++bit;
        return b;
    }
    std::vector<uint8_t> bytes;
    size_t bit = 0;
};

// The head of a sequence parameter set, as far as its bit depths and
// lossless flag: enough to describe the stream in an avcC record and to know
// how its pictures are coded.
struct SpsHead {
    int profile = 0;
    int64_t id = -1;
    int64_t chromaFormat = 1;  // 4:2:0 unless the profile says it
    int64_t lumaDepthMinus8 = 0;
    int64_t chromaDepthMinus8 = 0;
    bool lossless = false;  // qpprime_y_zero_transform_bypass_flag
};

// Reads the head of the sequence parameter set whose payload (after the NAL
// header byte) is `payload`; false when its bits run out.
inline bool readSpsHead(const uint8_t* payload, size_t size, SpsHead* head) {
    if (size < 4) return false;
    NalBits bits(payload, size);
    head->profile = int(bits.bits(8));
    bits.bits(16);  // constraints, level
    head->id = bits.golomb();
    switch (head->profile) {
        case 100: case 110: case 122: case 244: case 44: case 83: case 86:
        case 118: case 128: case 138: case 139: case 134: case 135: case 144:
            head->chromaFormat = bits.golomb();
            if (head->chromaFormat == 3) bits.bits(1);  // separate_colour_plane_flag
            head->lumaDepthMinus8 = bits.golomb();
            head->chromaDepthMinus8 = bits.golomb();
            head->lossless = bits.bits(1) == 1;
            break;
        default:
            break;
    }
    return head->id >= 0 && head->chromaFormat >= 0 && head->lumaDepthMinus8 >= 0 && head->chromaDepthMinus8 >= 0;
}
