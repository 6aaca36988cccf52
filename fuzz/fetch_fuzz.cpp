// The picture path's buffer logic: index records with positions and sizes
// from the fuzzer, asked timestamps from the fuzzer, against a real small
// file. Whatever the records say, every read must stay inside the read buffer
// and the request must end.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "decode/DecoderBase.h"
#include "instance/TessaloImpl.h"

using namespace Morvel_Tessalo;

namespace {
int32_t ignoreEvents(void*, int32_t) { return 0; }

struct Reader {
    const uint8_t* data;
    size_t size, at = 0;
    uint8_t byte() { return at < size ? data[at++] : 0; }
    int64_t wide() {
        int64_t v = 0;
        for (int i = 0; i < 5; ++i) v = (v << 8) | byte();
        return (byte() & 1) ? -v : v;
    }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string file = std::string(TSL_MEDIA_DIR) + "/tiny.mp4";
    Reader in{data, size};
    auto impl = std::make_unique<TessaloImpl>(nullptr, ignoreEvents);
    impl->path.reset(new char[file.size() + 1]);
    std::memcpy(impl->path.get(), file.c_str(), file.size() + 1);
    const int groups = 1 + in.byte() % 4;
    std::vector<int64_t> asked;
    for (int g = 0; g < groups; ++g) {
        const int records = 1 + in.byte() % 6;
        for (int r = 0; r < records; ++r) {
            const uint8_t shape = in.byte();
            // Mostly plausible sizes and positions, sometimes absurd ones.
            const int32_t sampleSize = (shape & 1) ? static_cast<int32_t>(in.wide()) : in.byte() * 64;
            const int64_t position = (shape & 2) ? in.wide() : (shape & 4) ? -1 : in.byte() * 97;
            const int64_t pts = (shape & 8) ? in.wide() : g * 1000 + r * 40;
            // The same record in both orders; the sorted groups stay as the fuzzer gave them.
            if (!impl->addVideoFrame(pts, pts, r == 0, position, sampleSize)) return 0;
            if (in.byte() & 1) asked.push_back(pts);
        }
    }
    if (asked.empty()) asked.push_back(in.wide());
    impl->askedPts = asked;
    impl->setState(kStateRunning);
    impl->locateStart();
    impl->fetchPictures();
    impl->setState(kStateStopped);
    if (impl->decoder) {
        impl->decoder->close();
        impl->decoder.reset();
    }
    return 0;
}
