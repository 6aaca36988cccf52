#include "DemoClip.h"

#include <cmath>
#include <memory>
#include <stdexcept>

#include "Images.h"
#include "Times.h"

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
    AVCodecContext* ctx = nullptr;
    AVStream* stream = nullptr;
    AVFrame* frame = nullptr;
    ~Codec() {
        av_frame_free(&frame);
        avcodec_free_context(&ctx);
    }
};

struct Output {
    AVFormatContext* fmt = nullptr;
    ~Output() {
        if (fmt && !(fmt->oformat->flags & AVFMT_NOFILE)) avio_closep(&fmt->pb);
        avformat_free_context(fmt);
    }
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
                p[0] = c[0], p[1] = c[1], p[2] = c[2];
            } else {
                const auto g = static_cast<uint8_t>((x + shift) * 255 / kWidth % 256);
                p[0] = g, p[1] = static_cast<uint8_t>(255 - g), p[2] = 96;
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
            p[0] = 255, p[1] = 128, p[2] = 0;
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
                    r += p[0], g += p[1], b += p[2];
                }
            r /= 4, g /= 4, b /= 4;
            frame->data[1][y * frame->linesize[1] + x] = static_cast<uint8_t>(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128);
            frame->data[2][y * frame->linesize[2] + x] = static_cast<uint8_t>(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128);
        }
}

// Sends `frame` (null to flush) and writes every packet that comes out.
void encode(AVFormatContext* fmt, Codec& codec, AVFrame* frame) {
    check(avcodec_send_frame(codec.ctx, frame), "encoding");
    std::unique_ptr<AVPacket, void (*)(AVPacket*)> packet(av_packet_alloc(), [](AVPacket* p) { av_packet_free(&p); });
    if (!packet) throw std::runtime_error("making the demo clip: out of memory");
    for (;;) {
        const int rc = avcodec_receive_packet(codec.ctx, packet.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
        check(rc, "encoding");
        // Each picture lasts one frame; without a duration the muxer would
        // end the track's edit list before the last picture is shown.
        if (packet->duration == 0 && codec.ctx->codec_type == AVMEDIA_TYPE_VIDEO) packet->duration = 1;
        av_packet_rescale_ts(packet.get(), codec.ctx->time_base, codec.stream->time_base);
        packet->stream_index = codec.stream->index;
        check(av_interleaved_write_frame(fmt, packet.get()), "writing");
    }
}

void openStream(AVFormatContext* fmt, Codec& codec, const AVCodec* encoder, AVDictionary** options) {
    if (fmt->oformat->flags & AVFMT_GLOBALHEADER) codec.ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    check(avcodec_open2(codec.ctx, encoder, options), encoder->name);
    codec.stream = avformat_new_stream(fmt, nullptr);
    if (!codec.stream) throw std::runtime_error("making the demo clip: out of memory");
    codec.stream->time_base = codec.ctx->time_base;
    check(avcodec_parameters_from_context(codec.stream->codecpar, codec.ctx), "stream parameters");
    codec.frame = av_frame_alloc();
    if (!codec.frame) throw std::runtime_error("making the demo clip: out of memory");
}

}  // namespace

void makeDemoClip(const std::string& path, int seconds) {
    Output out;
    check(avformat_alloc_output_context2(&out.fmt, nullptr, "mp4", path.c_str()), "output format");

    const AVCodec* h264 = avcodec_find_encoder_by_name("libx264");
    if (!h264) throw std::runtime_error("making the demo clip: this FFmpeg has no libx264 encoder");
    Codec video;
    video.ctx = avcodec_alloc_context3(h264);
    if (!video.ctx) throw std::runtime_error("making the demo clip: out of memory");
    video.ctx->width = kWidth;
    video.ctx->height = kHeight;
    video.ctx->pix_fmt = AV_PIX_FMT_YUV420P;
    video.ctx->time_base = AVRational{1, kFps};
    video.ctx->framerate = AVRational{kFps, 1};
    video.ctx->gop_size = kFps;  // a key frame every second
    video.ctx->keyint_min = kFps;
    video.ctx->max_b_frames = 2;
    AVDictionary* videoOptions = nullptr;
    av_dict_set(&videoOptions, "preset", "veryfast", 0);
    av_dict_set(&videoOptions, "crf", "26", 0);
    // No extra key frames at scene changes: the groups stay one second long.
    av_dict_set(&videoOptions, "x264-params", "scenecut=0:log=-1", 0);
    openStream(out.fmt, video, h264, &videoOptions);
    av_dict_free(&videoOptions);
    video.frame->format = AV_PIX_FMT_YUV420P;
    video.frame->width = kWidth;
    video.frame->height = kHeight;
    check(av_frame_get_buffer(video.frame, 0), "picture buffer");

    const AVCodec* aac = avcodec_find_encoder_by_name("aac");
    if (!aac) throw std::runtime_error("making the demo clip: this FFmpeg has no aac encoder");
    Codec audio;
    audio.ctx = avcodec_alloc_context3(aac);
    if (!audio.ctx) throw std::runtime_error("making the demo clip: out of memory");
    audio.ctx->sample_fmt = AV_SAMPLE_FMT_FLTP;
    audio.ctx->sample_rate = kSampleRate;
    const AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    check(av_channel_layout_copy(&audio.ctx->ch_layout, &stereo), "channel layout");
    audio.ctx->bit_rate = 128000;
    audio.ctx->time_base = AVRational{1, kSampleRate};
    openStream(out.fmt, audio, aac, nullptr);
    audio.frame->format = AV_SAMPLE_FMT_FLTP;
    audio.frame->nb_samples = audio.ctx->frame_size;
    audio.frame->sample_rate = kSampleRate;
    check(av_channel_layout_copy(&audio.frame->ch_layout, &stereo), "channel layout");
    check(av_frame_get_buffer(audio.frame, 0), "sound buffer");

    check(avio_open(&out.fmt->pb, path.c_str(), AVIO_FLAG_WRITE), ("cannot write " + path).c_str());
    check(avformat_write_header(out.fmt, nullptr), "header");

    const int64_t frames = static_cast<int64_t>(seconds) * kFps;
    const int64_t samples = static_cast<int64_t>(seconds) * kSampleRate;
    Image picture{kWidth, kHeight, std::vector<uint8_t>(static_cast<size_t>(kWidth) * kHeight * 3)};
    int64_t frameIndex = 0, sampleIndex = 0;
    double phase = 0;
    while (frameIndex < frames || sampleIndex < samples) {
        const bool videoNext = sampleIndex >= samples ||
            (frameIndex < frames && av_compare_ts(frameIndex, video.ctx->time_base, sampleIndex, audio.ctx->time_base) <= 0);
        if (videoNext) {
            check(av_frame_make_writable(video.frame), "picture buffer");
            drawPicture(picture, static_cast<int>(frameIndex));
            toYuv420(picture, video.frame);
            video.frame->pts = frameIndex++;
            encode(out.fmt, video, video.frame);
        } else {
            check(av_frame_make_writable(audio.frame), "sound buffer");
            for (int i = 0; i < audio.frame->nb_samples; ++i) {
                const double t = static_cast<double>(sampleIndex + i) / kSampleRate;
                // A tone that steps up each second, so the cut's seams can be heard;
                // the phase runs on across steps, so the steps do not click.
                const double pitch = 440.0 * std::pow(2.0, (static_cast<int>(t) % 5) / 12.0);
                phase = std::fmod(phase + 2 * M_PI * pitch / kSampleRate, 2 * M_PI);
                const float v = static_cast<float>(0.25 * std::sin(phase));
                reinterpret_cast<float*>(audio.frame->data[0])[i] = v;
                reinterpret_cast<float*>(audio.frame->data[1])[i] = v;
            }
            audio.frame->pts = sampleIndex;
            sampleIndex += audio.frame->nb_samples;
            encode(out.fmt, audio, audio.frame);
        }
    }
    encode(out.fmt, video, nullptr);
    encode(out.fmt, audio, nullptr);
    check(av_write_trailer(out.fmt), "trailer");
}

}  // namespace tslcli
