// Drives a BaseBufferQueue with push/pop sequences from the fuzzer and checks
// every answer and every byte against a plain std::deque model.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "base/BaseBufferQueue.h"
#include "base/Results.h"

namespace {
struct Element {
    std::vector<uint8_t> bytes;
    int64_t pts, dts;
    uint32_t flags;
};
void check(bool ok) {
    if (!ok) std::abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const int32_t capacity = 1 + data[0] % 16;
    const int32_t bufferSize = data[1] % 64;
    BaseBufferQueue ring(1, capacity);
    check(ring.allocBuffers(bufferSize) == kOk);
    std::deque<Element> model;
    uint8_t scratch[64];
    for (size_t i = 2; i + 1 < size; i += 2) {
        const uint8_t op = data[i], arg = data[i + 1];
        if (op & 1) {
            const int32_t length = arg % 80;  // sometimes too large on purpose
            std::vector<uint8_t> bytes(static_cast<size_t>(length) + 1, static_cast<uint8_t>(i));
            BaseBuffer in(bytes.data(), length, static_cast<int64_t>(i), op, -static_cast<int64_t>(i));
            const int32_t expected = length > bufferSize ? kErrBufferTooSmall
                                     : static_cast<int32_t>(model.size()) == capacity ? kErrQueueState
                                                                                       : kOk;
            check(ring.push(&in) == expected);
            if (expected == kOk) model.push_back({std::vector<uint8_t>(bytes.begin(), bytes.begin() + length), in.pts, in.dts, in.flags});
        } else {
            std::memset(scratch, 0xA5, sizeof scratch);
            BaseBuffer out(scratch, -1, -1, 0, -1);
            const int32_t result = ring.pop(&out);
            if (model.empty()) {
                check(result == kErrQueueState && out.size == -1 && out.pts == -1);
            } else {
                check(result == kOk && out.data == scratch);
                const Element& e = model.front();
                check(out.size == static_cast<int32_t>(e.bytes.size()) && out.pts == e.pts && out.dts == e.dts &&
                      out.flags == e.flags);
                check(e.bytes.empty() || std::memcmp(scratch, e.bytes.data(), e.bytes.size()) == 0);
                model.pop_front();
            }
        }
        check(ring.count == static_cast<int32_t>(model.size()));
        check(ring.readIndex >= 0 && ring.readIndex < capacity && ring.writeIndex >= 0 && ring.writeIndex < capacity);
    }
    return 0;
}
