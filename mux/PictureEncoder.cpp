#include "mux/PictureEncoder.h"

#include <string>

extern "C" {
#include <libavutil/opt.h>
}

namespace {

// x264's name for the profile the decoder found; the constraint and intra
// flags FFmpeg adds above the profile number do not change it.
const char* x264Profile(int profile) {
    switch (profile & 0xFF) {
        case 66: return "baseline";
        case 77:
        case 88: return "main";
        case 100: return "high";
        case 110: return "high10";
        case 122: return "high422";
        case 244: return "high444";
        default: return nullptr;
    }
}

}  // namespace

PictureLook PictureLook::of(const AVCodecContext& decoder, const AVFrame& frame, int frameRate, int parameterSetId) {
    PictureLook look;
    look.picture.reset(av_frame_alloc());
    if (look.picture && av_frame_copy_props(look.picture.get(), &frame) >= 0) {
        look.picture->width = frame.width;
        look.picture->height = frame.height;
        look.picture->format = frame.format;
    } else {
        look.picture.reset();
    }
    look.profile = decoder.profile;
    look.level = decoder.level;
    // The stream's field order as the decoder found it; a picture's own flags only where it found none.
    if (decoder.field_order != AV_FIELD_UNKNOWN) look.fields = decoder.field_order;
    else if (frame.interlaced_frame) look.fields = frame.top_field_first ? AV_FIELD_TT : AV_FIELD_BB;
    look.frameRate = frameRate > 0 ? frameRate : 25;
    look.parameterSetId = parameterSetId;
    return look;
}

bool PictureEncoder::open(const PictureLook& look) {
    const AVCodec* x264 = avcodec_find_encoder_by_name("libx264");
    if (!x264 || !look.picture) return false;
    context.reset(avcodec_alloc_context3(x264));
    packet.reset(av_packet_alloc());
    if (!context || !packet) return false;
    AVCodecContext& c = *context;
    const AVFrame& picture = *look.picture;
    c.width = picture.width;
    c.height = picture.height;
    c.pix_fmt = static_cast<AVPixelFormat>(picture.format);
    c.color_range = picture.color_range;
    c.color_primaries = picture.color_primaries;
    c.color_trc = picture.color_trc;
    c.colorspace = picture.colorspace;
    c.chroma_sample_location = picture.chroma_location;
    c.sample_aspect_ratio = picture.sample_aspect_ratio;
    c.time_base = AVRational{1, 1000};
    c.framerate = AVRational{look.frameRate, 1};
    c.field_order = look.fields;
    if (look.fields != AV_FIELD_PROGRESSIVE) c.flags |= AV_CODEC_FLAG_INTERLACED_DCT | AV_CODEC_FLAG_INTERLACED_ME;
    if (look.level > 0) c.level = look.level;
    // The parameter sets go to the file's sample description, not in front
    // of the first picture.
    c.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;

    AVDictionary* raw = nullptr;
    if (const char* profile = x264Profile(look.profile)) av_dict_set(&raw, "profile", profile, 0);
    av_dict_set(&raw, "preset", "veryfast", 0);
    // A lossless stream's pictures are continued losslessly: lower quality
    // would show, and its decoders expect the transform bypass to go on.
    if (look.lossless) av_dict_set_int(&raw, "qp", 0, 0);
    else av_dict_set_int(&raw, "crf", kQuality, 0);
    // No reordering (a made picture is decoded when it is shown, so its dts
    // can sit anywhere below its pts), one IDR picture at the start and none
    // after it, and parameter sets of the run's own id.
    const std::string params = "bframes=0:keyint=infinite:scenecut=0:open-gop=0:sps-id=" +
                               std::to_string(look.parameterSetId) + ":log=-1";
    av_dict_set(&raw, "x264-params", params.c_str(), 0);
    DictionaryHolder options(raw);
    raw = options.release();
    const int opened = avcodec_open2(&c, x264, &raw);
    options.reset(raw);
    if (opened < 0 || !c.extradata || c.extradata_size <= 0) return false;
    sets.assign(c.extradata, c.extradata + c.extradata_size);
    return true;
}

bool PictureEncoder::encode(AVFrame& frame, std::vector<EncodedPicture>& out) {
    if (!context) return false;
    frame.pict_type = AV_PICTURE_TYPE_NONE;
    // libx264 takes each picture's field order over the stream's: every one gets the stream's.
    if (context->field_order != AV_FIELD_PROGRESSIVE) {
        frame.interlaced_frame = 1;
        frame.top_field_first = context->field_order == AV_FIELD_TT || context->field_order == AV_FIELD_TB;
    }
    if (avcodec_send_frame(context.get(), &frame) < 0) return false;
    return receive(out);
}

bool PictureEncoder::finish(std::vector<EncodedPicture>& out) {
    if (!context) return false;
    if (avcodec_send_frame(context.get(), nullptr) < 0) return false;
    return receive(out);
}

bool PictureEncoder::receive(std::vector<EncodedPicture>& out) {
    for (;;) {
        const int got = avcodec_receive_packet(context.get(), packet.get());
        if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return true;
        if (got < 0) return false;
        EncodedPicture picture;
        picture.data.assign(packet->data, packet->data + packet->size);
        picture.pts = packet->pts;
        picture.key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        av_packet_unref(packet.get());
        out.push_back(std::move(picture));
    }
}
