// The two byte rewrites that run on every sample: length prefixes to start
// codes (cut path) and the ADTS header in front of audio (read loop). Output
// blocks are sized exactly, so ASan sees any write past them; results are
// checked against a plain model.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "demux/AVStreamParse.h"
#include "edit/FileEditer.h"

namespace {
void check(bool ok) {
    if (!ok) std::abort();
}

// What a correct conversion gives: each 4-byte big-endian length and its unit
// become 00 00 01 and the unit. Empty when a unit runs past the sample.
bool model(const uint8_t* in, size_t size, std::vector<uint8_t>* out) {
    size_t at = 0;
    while (at < size) {
        if (size - at < 4) return false;
        const uint32_t length = (uint32_t(in[at]) << 24) | (uint32_t(in[at + 1]) << 16) | (uint32_t(in[at + 2]) << 8) | in[at + 3];
        at += 4;
        if (length > size - at) return false;
        out->insert(out->end(), {0, 0, 1});
        out->insert(out->end(), in + at, in + at + length);
        at += length;
    }
    return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const int32_t capacity = (data[0] << 8 | data[1]) % 4096;
    const uint8_t mode = data[2];
    const uint8_t* sample = data + 3;
    const size_t sampleSize = size - 3;

    std::vector<uint8_t> in(sample, sample + sampleSize);  // exact size: reads past it are caught
    std::unique_ptr<uint8_t[]> out(new uint8_t[capacity > 0 ? capacity : 1]);
    int32_t outLength = -1;
    const bool ok = Morvel_Tessalo::FileEditer::toAnnexB(in.data(), static_cast<int32_t>(in.size()), out.get(),
                                                         capacity, &outLength);
    std::vector<uint8_t> expected;
    const bool wellFormed = model(in.data(), in.size(), &expected);
    if (ok) {
        check(wellFormed && outLength >= 0 && outLength <= capacity);
        check(static_cast<size_t>(outLength) == expected.size());
        check(expected.empty() || std::memcmp(out.get(), expected.data(), expected.size()) == 0);
    } else {
        check(!wellFormed || expected.size() > static_cast<size_t>(capacity));
    }

    // The ADTS header: 7 bytes in front, length field counting them.
    static const int32_t kRates[] = {44100, 48000};
    const int32_t rate = kRates[mode & 1];
    const int32_t channels = 1 + (mode >> 1) % 3;
    int32_t adtsSize = static_cast<int32_t>(sampleSize % 8000);
    std::vector<uint8_t> adts(static_cast<size_t>(adtsSize) + 7);
    AVStreamParse::wrapAdts(in.data(), adts.data(), &adtsSize, rate, channels);
    check(adtsSize == static_cast<int32_t>(adts.size()));
    check(adts[0] == 0xFF && (adts[1] & 0xF0) == 0xF0);
    const int32_t frameLength = ((adts[3] & 0x03) << 11) | (adts[4] << 3) | (adts[5] >> 5);
    check(frameLength == adtsSize);
    check(((adts[2] >> 2) & 0x0F) == (rate == 44100 ? 4 : 3));
    check(adts.size() == 7 || std::memcmp(adts.data() + 7, in.data(), adts.size() - 7) == 0);
    return 0;
}
