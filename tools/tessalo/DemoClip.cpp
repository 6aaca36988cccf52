#include "DemoClip.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <stdexcept>

#include "Images.h"
#include "Times.h"
#include "base/FFmpegHolders.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

namespace tslcli {
namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 360;
constexpr int kFps = 25;
constexpr int kSampleRate = 44100;

void check(int rc, const char* what) {
    if (rc < 0) {
        char text[AV_ERROR_MAX_STRING_SIZE] = "";
        av_strerror(rc, text, sizeof text);
        throw std::runtime_error(std::string("making the demo clip: ") + what + ": " + text);
    }
}

struct Codec {
    CodecContextHolder ctx;
    AVStream* stream = nullptr;
    FrameHolder frame;
};

// The picture: colour bars sliding sideways, a square bouncing across them,
// and the clip's own clock in large digits.
void drawPicture(Image& image, int index) {
    static const uint8_t bars[7][3] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235}, {16, 235, 16},
                                       {235, 16, 235},  {235, 16, 16},  {16, 16, 235}};
    const int shift = index * 4;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            uint8_t* p = &image.rgb[(static_cast<size_t>(y) * kWidth + x) * 3];
            if (y < kHeight * 2 / 3) {
                const uint8_t* c = bars[((x + shift) * 7 / kWidth) % 7];
                std::copy(c, c + 3, p);
            } else {
                const auto g = static_cast<uint8_t>((x + shift) * 255 / kWidth % 256);
                const uint8_t gradient[3] = {g, static_cast<uint8_t>(255 - g), 96};
                std::copy(gradient, gradient + 3, p);
            }
        }
    const int side = 48;
    const int travel = kWidth - side;
    const int pos = index * 6 % (2 * travel);
    const int left = pos < travel ? pos : 2 * travel - pos;
    const int top = kHeight / 3 - side / 2 + static_cast<int>(40 * std::sin(index * 0.2));
    for (int y = top; y < top + side; ++y)
        for (int x = left; x < left + side; ++x) {
            uint8_t* p = &image.rgb[(static_cast<size_t>(y) * kWidth + x) * 3];
            static const uint8_t orange[3] = {255, 128, 0};
            std::copy(orange, orange + 3, p);
        }
    const std::string clock = clockText(static_cast<int64_t>(index) * 1000 / kFps);
    const int scale = 4;
    const int x = (kWidth - labelWidth(clock, scale)) / 2;
    const int y = kHeight - 7 * scale - 24;
    for (int yy = y - 8; yy < y + 7 * scale + 8; ++yy)
        for (int xx = x - 8; xx < x + labelWidth(clock, scale) + 8; ++xx) {
            uint8_t* p = &image.rgb[(static_cast<size_t>(yy) * kWidth + xx) * 3];
            p[0] = p[1] = p[2] = 0;
        }
    drawLabel(image, x, y, clock, 255, scale);
}

// BT.601 limited range, chroma averaged over each 2x2 block.
void toYuv420(const Image& image, AVFrame* frame) {
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const uint8_t* p = &image.rgb[(static_cast<size_t>(y) * kWidth + x) * 3];
            frame->data[0][y * frame->linesize[0] + x] =
                static_cast<uint8_t>(((66 * p[0] + 129 * p[1] + 25 * p[2] + 128) >> 8) + 16);
        }
    for (int y = 0; y < kHeight / 2; ++y)
        for (int x = 0; x < kWidth / 2; ++x) {
            int r = 0, g = 0, b = 0;
            for (int dy = 0; dy < 2; ++dy)
                for (int dx = 0; dx < 2; ++dx) {
                    const uint8_t* p = &image.rgb[(static_cast<size_t>(2 * y + dy) * kWidth + 2 * x + dx) * 3];
                    r += p[0];
                    g += p[1];
                    b += p[2];
                }
            r /= 4;
            g /= 4;
            b /= 4;
            frame->data[1][y * frame->linesize[1] + x] = static_cast<uint8_t>(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128);
            frame->data[2][y * frame->linesize[2] + x] = static_cast<uint8_t>(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128);
        }
}

[[noreturn]] void outOfMemory() { throw std::runtime_error("making the demo clip: out of memory"); }

// Sends `frame` (null to flush) and writes every packet that comes out.
void encode(AVFormatContext* fmt, Codec& codec, AVFrame* frame) {
    AVCodecContext* context = codec.ctx.get();
    check(avcodec_send_frame(context, frame), "encoding");
    const PacketHolder packet(av_packet_alloc());
    if (!packet) outOfMemory();
    for (;;) {
        const int rc = avcodec_receive_packet(context, packet.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
        check(rc, "encoding");
        // Each picture lasts one frame; without a duration the muxer would
        // end the track's edit list before the last picture is shown.
        if (packet->duration == 0 && context->codec_type == AVMEDIA_TYPE_VIDEO) packet->duration = 1;
        av_packet_rescale_ts(packet.get(), context->time_base, codec.stream->time_base);
        packet->stream_index = codec.stream->index;
        check(av_interleaved_write_frame(fmt, packet.get()), "writing");
    }
}

// Opens the encoder with `options` (which it may rewrite; the holder keeps
// whatever it leaves) and gives it a stream and a frame.
void openStream(AVFormatContext* fmt, Codec& codec, const AVCodec* encoder, DictionaryHolder* options) {
    if (fmt->oformat->flags & AVFMT_GLOBALHEADER) codec.ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    AVDictionary* raw = options ? options->release() : nullptr;
    const int rc = avcodec_open2(codec.ctx.get(), encoder, options ? &raw : nullptr);
    if (options) options->reset(raw);
    check(rc, encoder->name);
    codec.stream = avformat_new_stream(fmt, nullptr);
    if (!codec.stream) outOfMemory();
    codec.stream->time_base = codec.ctx->time_base;
    check(avcodec_parameters_from_context(codec.stream->codecpar, codec.ctx.get()), "stream parameters");
    codec.frame.reset(av_frame_alloc());
    if (!codec.frame) outOfMemory();
}

// The encoder called `name`, with a context for it in `codec`.
const AVCodec* makeEncoderContext(Codec& codec, const char* name) {
    const AVCodec* encoder = avcodec_find_encoder_by_name(name);
    if (!encoder) throw std::runtime_error(std::string("making the demo clip: this FFmpeg has no ") + name + " encoder");
    codec.ctx.reset(avcodec_alloc_context3(encoder));
    if (!codec.ctx) outOfMemory();
    return encoder;
}

// H.264 at 25 pictures a second, a key frame every second, with B-frames.
void openVideo(AVFormatContext* fmt, Codec& video) {
    const AVCodec* h264 = makeEncoderContext(video, "libx264");
    AVCodecContext* c = video.ctx.get();
    c->width = kWidth;
    c->height = kHeight;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    c->time_base = AVRational{1, kFps};
    c->framerate = AVRational{kFps, 1};
    c->gop_size = kFps;
    c->keyint_min = kFps;
    c->max_b_frames = 2;
    AVDictionary* raw = nullptr;
    av_dict_set(&raw, "preset", "veryfast", 0);
    av_dict_set(&raw, "crf", "26", 0);
    // No extra key frames at scene changes: the groups stay one second long.
    av_dict_set(&raw, "x264-params", "scenecut=0:log=-1", 0);
    DictionaryHolder options(raw);
    openStream(fmt, video, h264, &options);
    video.frame->format = AV_PIX_FMT_YUV420P;
    video.frame->width = kWidth;
    video.frame->height = kHeight;
    check(av_frame_get_buffer(video.frame.get(), 0), "picture buffer");
}

// AAC stereo at 44.1 kHz.
void openAudio(AVFormatContext* fmt, Codec& audio) {
    const AVCodec* aac = makeEncoderContext(audio, "aac");
    AVCodecContext* c = audio.ctx.get();
    c->sample_fmt = AV_SAMPLE_FMT_FLTP;
    c->sample_rate = kSampleRate;
    const AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    check(av_channel_layout_copy(&c->ch_layout, &stereo), "channel layout");
    c->bit_rate = 128000;
    c->time_base = AVRational{1, kSampleRate};
    openStream(fmt, audio, aac, nullptr);
    audio.frame->format = AV_SAMPLE_FMT_FLTP;
    audio.frame->nb_samples = c->frame_size;
    audio.frame->sample_rate = kSampleRate;
    check(av_channel_layout_copy(&audio.frame->ch_layout, &stereo), "channel layout");
    check(av_frame_get_buffer(audio.frame.get(), 0), "sound buffer");
}

// One frame of a tone that steps up each second, so the cut's seams can be
// heard; the phase runs on across steps, so the steps do not click.
void fillTone(AVFrame* frame, int64_t firstSample, double* phase) {
    for (int i = 0; i < frame->nb_samples; ++i) {
        const double t = static_cast<double>(firstSample + i) / kSampleRate;
        const double pitch = 440.0 * std::pow(2.0, (static_cast<int>(t) % 5) / 12.0);
        *phase = std::fmod(*phase + 2 * M_PI * pitch / kSampleRate, 2 * M_PI);
        const float v = static_cast<float>(0.25 * std::sin(*phase));
        reinterpret_cast<float*>(frame->data[0])[i] = v;
        reinterpret_cast<float*>(frame->data[1])[i] = v;
    }
}

// Pictures and sound in time order, then both encoders flushed.
void writeSamples(AVFormatContext* fmt, Codec& video, Codec& audio, int seconds) {
    const int64_t frames = static_cast<int64_t>(seconds) * kFps;
    const int64_t samples = static_cast<int64_t>(seconds) * kSampleRate;
    Image picture{kWidth, kHeight, std::vector<uint8_t>(static_cast<size_t>(kWidth) * kHeight * 3)};
    int64_t frameIndex = 0, sampleIndex = 0;
    double phase = 0;
    while (frameIndex < frames || sampleIndex < samples) {
        const bool videoNext = sampleIndex >= samples ||
            (frameIndex < frames && av_compare_ts(frameIndex, video.ctx->time_base, sampleIndex, audio.ctx->time_base) <= 0);
        Codec& codec = videoNext ? video : audio;
        check(av_frame_make_writable(codec.frame.get()), videoNext ? "picture buffer" : "sound buffer");
        if (videoNext) {
            drawPicture(picture, static_cast<int>(frameIndex));
            toYuv420(picture, video.frame.get());
            video.frame->pts = frameIndex++;
        } else {
            fillTone(audio.frame.get(), sampleIndex, &phase);
            audio.frame->pts = sampleIndex;
            sampleIndex += audio.frame->nb_samples;
        }
        encode(fmt, codec, codec.frame.get());
    }
    encode(fmt, video, nullptr);
    encode(fmt, audio, nullptr);
}

}  // namespace

void makeDemoClip(const std::string& path, int seconds) {
    AVFormatContext* context = nullptr;
    check(avformat_alloc_output_context2(&context, nullptr, "mp4", path.c_str()), "output format");
    const OutputFormatHolder out(context);
    Codec video;
    openVideo(context, video);
    Codec audio;
    openAudio(context, audio);
    check(avio_open(&context->pb, path.c_str(), AVIO_FLAG_WRITE), ("cannot write " + path).c_str());
    check(avformat_write_header(context, nullptr), "header");
    writeSamples(context, video, audio, seconds);
    check(av_write_trailer(context), "trailer");
}

}  // namespace tslcli
