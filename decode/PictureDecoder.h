#pragma once
// H.264 samples in, pictures out in the layout the stream holds (no
// conversion): for code that hands the pictures on to an encoder. Samples
// carry start codes; each picture comes out with the pts its sample was sent
// with. Pictures the decoder marks as damaged, or that it could only guess
// from missing references, are not handed out.
//
// Used on one thread at a time (the host's while a cut is set up, the cut
// thread while it runs); the decoder's own frame threads stay inside it.
#include <cstdint>
#include <functional>

#include "base/FFmpegHolders.h"

class PictureDecoder {
public:
    // `take` gets each picture; it returns false to stop the decoding.
    using Take = std::function<bool(AVFrame& picture)>;

    // Opens a decoder for the stream whose parameter sets (start-code form)
    // are `sets`. False when the decoder can't be had.
    bool open(const uint8_t* sets, int32_t size);
    // Sends one sample. A sample the decoder refuses is passed over (the
    // pictures that needed it do not come); false only when `take` stopped
    // the decoding or the decoder failed for good.
    bool decode(const uint8_t* sample, int32_t size, int64_t pts, const Take& take);
    // Every picture still inside the decoder comes out.
    bool drain(const Take& take);
    const AVCodecContext& codec() const { return *context; }

private:
    bool receive(const Take& take);

    CodecContextHolder context;
    PacketHolder packet;
    FrameHolder frame;
};
