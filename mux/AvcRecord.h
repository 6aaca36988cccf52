#pragma once
// H.264 in the form an MP4 stores it, made once by the muxer from the
// start-code form it is handed: the parameter sets as an avcC record, and
// each sample with 4-byte length prefixes. libavformat then writes both as
// they are, instead of scanning every sample for start codes again.
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "base/FFmpegHolders.h"

// The NAL units of a start-code stream: where each payload begins and how
// long it is, the zero bytes of the next start code left out.
std::vector<std::pair<size_t, size_t>> nalUnits(const uint8_t* data, size_t size);

// The avcC record (4-byte lengths) of the parameter sets in `sets` (start
// codes); empty when they hold no sequence or no picture parameter set.
std::vector<uint8_t> avcRecord(const uint8_t* sets, size_t size);

// Turns samples in start-code form into length-prefixed ones. Used by one
// thread at a time (the muxer's writing thread).
class LengthPrefixer {
public:
    // Samples of up to `pooled` bytes once converted take their buffers from
    // a pool that libavformat gives them back to, rather than from one
    // allocation each.
    explicit LengthPrefixer(size_t pooled);

    // `out` gets a reference-counted buffer with the sample's NAL units, each
    // behind its 4-byte length; its other fields are reset. False when no
    // buffer could be had.
    bool convert(const uint8_t* sample, size_t size, AVPacket* out);

private:
    // A buffer of `size` bytes and zeroed padding in `out`.
    bool takeBuffer(size_t size, AVPacket* out);

    std::vector<std::pair<size_t, size_t>> units;  // offset and length of each NAL unit
    size_t pooled;
    BufferPoolHolder pool;
};
