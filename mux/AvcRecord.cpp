#include "mux/AvcRecord.h"

#include <cstring>
#include <new>

#include "base/NalBits.h"

namespace {

// The NAL units of a start-code stream: where each payload begins and how
// long it is, its trailing zero bytes (which belong to the next start code)
// left out. A start code's 0x01 is found with memchr: the bytes between start
// codes are looked at once, at memory speed.
void findUnits(const uint8_t* data, size_t size, std::vector<std::pair<size_t, size_t>>& units) {
    units.clear();
    size_t unit = SIZE_MAX;
    auto close = [&](size_t end) {
        if (unit == SIZE_MAX) return;
        while (end > unit && data[end - 1] == 0) --end;
        if (end > unit) units.emplace_back(unit, end - unit);
    };
    for (size_t at = 2; at < size;) {
        const auto* one = static_cast<const uint8_t*>(std::memchr(data + at, 1, size - at));
        if (!one) break;
        const size_t found = size_t(one - data);
        if (data[found - 1] == 0 && data[found - 2] == 0) {
            close(found - 2);
            unit = found + 1;
        }
        at = found + 1;
    }
    close(size);
}

void put16(std::vector<uint8_t>& out, size_t value) {
    out.push_back(uint8_t(value >> 8));
    out.push_back(uint8_t(value));
}

}  // namespace

std::vector<std::pair<size_t, size_t>> nalUnits(const uint8_t* data, size_t size) {
    std::vector<std::pair<size_t, size_t>> units;
    if (data) findUnits(data, size, units);
    return units;
}

std::vector<uint8_t> avcRecord(const uint8_t* sets, size_t size) {
    if (!sets || size < 4) return {};
    const std::vector<std::pair<size_t, size_t>> units = nalUnits(sets, size);
    std::vector<std::pair<size_t, size_t>> sps, pps, spsExt;
    for (const auto& unit : units) {
        const int type = sets[unit.first] & 0x1F;
        if (unit.second > 0xFFFF) return {};
        if (type == 7 && unit.second >= 4) sps.push_back(unit);
        if (type == 8) pps.push_back(unit);
        if (type == 13) spsExt.push_back(unit);
    }
    if (sps.empty() || pps.empty() || sps.size() > 31 || pps.size() > 255) return {};
    const uint8_t* first = sets + sps.front().first;
    std::vector<uint8_t> record{1, first[1], first[2], first[3], 0xFF, uint8_t(0xE0 | sps.size())};
    for (const auto& unit : sps) {
        put16(record, unit.second);
        record.insert(record.end(), sets + unit.first, sets + unit.first + unit.second);
    }
    record.push_back(uint8_t(pps.size()));
    for (const auto& unit : pps) {
        put16(record, unit.second);
        record.insert(record.end(), sets + unit.first, sets + unit.first + unit.second);
    }
    // The profiles with a chroma format and bit depths say them in the record too.
    const int profile = first[1];
    if (profile != 66 && profile != 77 && profile != 88) {
        SpsHead head;
        if (!readSpsHead(first + 1, sps.front().second - 1, &head)) return {};
        record.push_back(uint8_t(0xFC | head.chromaFormat));
        record.push_back(uint8_t(0xF8 | head.lumaDepthMinus8));
        record.push_back(uint8_t(0xF8 | head.chromaDepthMinus8));
        record.push_back(uint8_t(spsExt.size()));
        for (const auto& unit : spsExt) {
            put16(record, unit.second);
            record.insert(record.end(), sets + unit.first, sets + unit.first + unit.second);
        }
    }
    return record;
}

LengthPrefixer::LengthPrefixer(size_t pooled)
    : pooled(pooled), pool(av_buffer_pool_init(pooled + AV_INPUT_BUFFER_PADDING_SIZE, nullptr)) {}

bool LengthPrefixer::takeBuffer(size_t size, AVPacket* out) {
    av_packet_unref(out);
    if (size > pooled || !pool) return size <= size_t(INT32_MAX) - AV_INPUT_BUFFER_PADDING_SIZE &&
                                      av_new_packet(out, int(size)) == 0;
    out->buf = av_buffer_pool_get(pool.get());
    if (!out->buf) return false;
    out->data = out->buf->data;
    out->size = int(size);
    std::memset(out->data + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    return true;
}

bool LengthPrefixer::convert(const uint8_t* sample, size_t size, AVPacket* out) {
    // On the writing thread nothing may throw: a list of units that cannot
    // grow fails the sample as a buffer that cannot be had does.
    try {
        findUnits(sample, size, units);
    } catch (const std::bad_alloc&) {
        av_packet_unref(out);
        return false;
    }
    size_t total = 0;
    for (const auto& unit : units) total += 4 + unit.second;
    if (!takeBuffer(total, out)) return false;
    uint8_t* to = out->data;
    for (const auto& unit : units) {
        const uint32_t length = uint32_t(unit.second);
        to[0] = uint8_t(length >> 24);
        to[1] = uint8_t(length >> 16);
        to[2] = uint8_t(length >> 8);
        to[3] = uint8_t(length);
        std::memcpy(to + 4, sample + unit.first, unit.second);
        to += 4 + unit.second;
    }
    return true;
}
