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
