#pragma once
// Makes the pictures of one run of a frame-exact cut, one at a time: decodes
// the source from a key frame on, in decoding order, and encodes again the
// pictures whose pts it is asked for, as they come out of the decoder. Only
// what the encoder holds is kept in memory, however long the run. Used on
// the cut thread.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "decode/PictureDecoder.h"
#include "edit/ExactPlan.h"
#include "instance/FrameRecord.h"
#include "mux/PictureEncoder.h"

class PictureMaker {
public:
    // The sample of a record in start-code form; null when it can't be read,
    // 0 bytes when it is malformed.
    using Reader = std::function<const uint8_t*(const FrameRecord& record, int32_t* size)>;

    // Decodes from group `from`'s key frame; `wanted`: the pts to make, rising.
    // Every picture is made in `look`, whose encoder must write `sets`.
    PictureMaker(const std::vector<FrameGroup*>& groups, Reader reader, const std::vector<uint8_t>& sourceSets,
                 const PictureLook& look, const std::vector<uint8_t>& sets, size_t from, std::vector<int64_t> wanted);

    enum class Next { Picture, End, Stopped, Failed };
    // The next made picture, in presentation order. End once all are made;
    // Failed when one could not be decoded whole or encoded in the look.
    // `stop` is asked before each sample that goes into the decoder.
    Next next(EncodedPicture* picture, const std::function<bool()>& stop);

private:
    bool step();
    bool take(AVFrame& frame);

    const std::vector<FrameGroup*>& groups;
    Reader read;
    const PictureLook& look;
    const std::vector<uint8_t>& sets;
    std::vector<int64_t> wanted;
    IndexPlace at;
    PictureDecoder decoder;
    PictureEncoder encoder;
    bool opened = false;
    bool failed = false;
    bool finished = false;
    size_t sent = 0;  // wanted pictures handed to the encoder
    std::vector<EncodedPicture> encoded;
    std::deque<EncodedPicture> ready;
};
