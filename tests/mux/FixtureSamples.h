#pragma once
// Reads every sample of an MP4 into memory in the form the cut engine hands
// to a muxer: video turned from length prefixes into 00 00 01 start codes,
// Annex B extra data from the h264_mp4toannexb filter, raw AAC frames,
// timestamps in milliseconds. Shared by the mux tests and the mux benchmark.
#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include "mux/TrackInfo.h"

namespace muxfixture {

struct Sample {
    std::vector<uint8_t> bytes;
    int32_t track = kTrackVideo;
    int64_t pts = 0;
    int64_t dts = 0;
    uint32_t flags = 0;
};

struct Clip {
    int32_t width = 0;
    int32_t height = 0;
    int32_t frameRate = 0;
    std::vector<uint8_t> annexB;
    bool hasAudio = false;
    int32_t sampleRate = 0;
    int32_t channels = 0;
    std::vector<Sample> samples;  // file order: each track in rising dts
    size_t videoCount = 0;
    size_t audioCount = 0;

    VideoTrackInfo videoInfo() {
        return VideoTrackInfo{width, height, frameRate, 1, annexB.data(),
                              static_cast<int32_t>(annexB.size())};
    }
    AudioTrackInfo audioInfo() const { return AudioTrackInfo{sampleRate, channels, 16, 1, nullptr, 0}; }
};

// Length-prefixed NAL units to start-code form; false on a malformed sample.
inline bool toStartCodes(const uint8_t* data, int size, int prefix, std::vector<uint8_t>* out) {
    out->clear();
    int at = 0;
    while (at < size) {
        if (size - at < prefix) return false;
        uint32_t length = 0;
        for (int i = 0; i < prefix; ++i) length = (length << 8) | data[at + i];
        at += prefix;
        if (length > static_cast<uint32_t>(size - at)) return false;
        out->insert(out->end(), {0, 0, 1});
        out->insert(out->end(), data + at, data + at + length);
        at += static_cast<int>(length);
    }
    return true;
}

// Fills `clip` from the first H.264 and first AAC stream of `path`; empty
// string on success, else what went wrong.
inline std::string readClip(const std::string& path, Clip* clip) {
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) return "cannot open " + path;
    struct Closer {
        AVFormatContext** context;
        ~Closer() { avformat_close_input(context); }
    } closer{&input};
    if (avformat_find_stream_info(input, nullptr) < 0) return "no stream info";
    const int video = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const int audio = av_find_best_stream(input, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (video < 0) return "no video";
    AVStream* videoStream = input->streams[video];
    const AVCodecParameters* vp = videoStream->codecpar;
    if (vp->codec_id != AV_CODEC_ID_H264 || vp->extradata_size < 7) return "not avcC H.264";
    const int prefix = (vp->extradata[4] & 3) + 1;

    const AVBitStreamFilter* filter = av_bsf_get_by_name("h264_mp4toannexb");
    AVBSFContext* bsf = nullptr;
    if (!filter || av_bsf_alloc(filter, &bsf) < 0) return "no h264_mp4toannexb";
    avcodec_parameters_copy(bsf->par_in, vp);
    const bool converted = av_bsf_init(bsf) >= 0;
    if (converted)
        clip->annexB.assign(bsf->par_out->extradata, bsf->par_out->extradata + bsf->par_out->extradata_size);
    av_bsf_free(&bsf);
    if (!converted) return "h264_mp4toannexb failed";

    clip->width = vp->width;
    clip->height = vp->height;
    const AVRational rate = videoStream->avg_frame_rate.num > 0 ? videoStream->avg_frame_rate
                                                               : videoStream->r_frame_rate;
    clip->frameRate = rate.den > 0 ? (rate.num + rate.den / 2) / rate.den : 25;
    if (audio >= 0 && input->streams[audio]->codecpar->codec_id == AV_CODEC_ID_AAC) {
        clip->hasAudio = true;
        clip->sampleRate = input->streams[audio]->codecpar->sample_rate;
        clip->channels = input->streams[audio]->codecpar->ch_layout.nb_channels;
    }

    AVPacket* packet = av_packet_alloc();
    const AVRational ms{1, 1000};
    std::string error;
    while (av_read_frame(input, packet) >= 0) {
        const bool isVideo = packet->stream_index == video;
        const bool isAudio = clip->hasAudio && packet->stream_index == audio;
        if (isVideo || isAudio) {
            const AVRational tb = input->streams[packet->stream_index]->time_base;
            Sample sample;
            sample.track = isVideo ? kTrackVideo : kTrackAudio;
            sample.dts = av_rescale_q(packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts, tb, ms);
            sample.pts = av_rescale_q(packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts, tb, ms);
            if (isVideo) {
                if (!toStartCodes(packet->data, packet->size, prefix, &sample.bytes)) error = "bad NAL lengths";
                sample.flags = (packet->flags & AV_PKT_FLAG_KEY) ? kSampleFlagVideoKey : 0;
                ++clip->videoCount;
            } else {
                sample.bytes.assign(packet->data, packet->data + packet->size);
                sample.flags = kSampleFlagAudio;
                ++clip->audioCount;
            }
            clip->samples.push_back(std::move(sample));
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    return error;
}

}  // namespace muxfixture
