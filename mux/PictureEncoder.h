#pragma once
// H.264 pictures made to stand between samples copied from a stream: libx264
// through libavcodec, set up from the stream's own look (size, pixel layout,
// profile, level, colour description, rate), so that a player goes from a
// copied sample to a made one and back without noticing. The made pictures
// refer to parameter sets of an id of their own, which the output declares
// beside the stream's.
//
// Every encoder opened with the same look writes the same parameter sets, so
// one set declared for a whole file serves every run of made pictures.
//
// Used on one thread at a time: the host's while a cut is set up, the cut
// thread while it runs.
#include <cstdint>
#include <vector>

#include "base/FFmpegHolders.h"

// What made pictures share with the stream they continue.
struct PictureLook {
    // A picture of the stream without its data: size, layout, sample aspect
    // and colour description.
    FrameHolder picture;
    int profile = FF_PROFILE_UNKNOWN;  // as the H.264 decoder names it
    int level = FF_LEVEL_UNKNOWN;
    AVFieldOrder fields = AV_FIELD_PROGRESSIVE;  // interlaced pictures are made interlaced, in the same order
    int frameRate = 25;
    int parameterSetId = 1;  // of the made pictures' sequence and picture parameter sets
    bool lossless = false;   // the stream is coded losslessly: so are the made pictures

    // The look of `frame`, decoded by `decoder` from the stream; without a
    // picture when there is no memory for one.
    static PictureLook of(const AVCodecContext& decoder, const AVFrame& frame, int frameRate, int parameterSetId);
};

// One made picture: Annex B bytes and its presentation time in milliseconds.
struct EncodedPicture {
    std::vector<uint8_t> data;
    int64_t pts = 0;
    bool key = false;
};

class PictureEncoder {
public:
    // False when libx264 is missing or refuses the look.
    bool open(const PictureLook& look);
    // The made pictures' parameter sets, Annex B (empty before open).
    const std::vector<uint8_t>& parameterSets() const { return sets; }
    // Encodes `frame` (pts in milliseconds); what comes out is added to `out`.
    // The first picture is an IDR picture: a run of made pictures needs
    // nothing before it.
    bool encode(AVFrame& frame, std::vector<EncodedPicture>& out);
    // Ends the run: every picture still inside the encoder comes out.
    bool finish(std::vector<EncodedPicture>& out);

    // The quality the made pictures of a lossy stream are encoded at (x264's
    // constant rate factor): low enough that they pass for the copied ones.
    static constexpr int kQuality = 15;

private:
    bool receive(std::vector<EncodedPicture>& out);

    CodecContextHolder context;
    PacketHolder packet;
    std::vector<uint8_t> sets;
};
