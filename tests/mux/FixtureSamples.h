#pragma once
// Every sample of an MP4 in memory as the cut engine hands it to a muxer (for the mux tests and
// benchmark): video in 00 00 01 start-code form with Annex B extra data, raw AAC, milliseconds.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include "base/FFmpegHolders.h"
#include "mux/TrackInfo.h"

namespace muxfixture {

struct Sample {
    std::vector<uint8_t> bytes;
    int32_t track = kTrackVideo;
    int64_t pts = 0, dts = 0;
    uint32_t flags = 0;
};

struct Clip {
    int32_t width = 0, height = 0, frameRate = 0, sampleRate = 0, channels = 0;
    std::vector<uint8_t> annexB;
    bool hasAudio = false;
    std::vector<Sample> samples;  // file order: each track in rising dts
    size_t videoCount = 0, audioCount = 0;

    VideoTrackInfo videoInfo() { return {width, height, frameRate, 1, annexB.data(), int32_t(annexB.size())}; }
    AudioTrackInfo audioInfo() const { return {sampleRate, channels, 16, 1, nullptr, 0}; }
};

// Fills `clip` from the best H.264 and AAC streams of `path`; "" on success, else what went wrong.
inline std::string readClip(const std::string& path, Clip* clip) {
    const InputFormatHolder holder = openInput(path.c_str());
    AVFormatContext* input = holder.get();
    if (!input) return "cannot open " + path;
    const int video = avformat_find_stream_info(input, nullptr) < 0
                          ? -1 : av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const int audio = av_find_best_stream(input, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    const AVCodecParameters* vp = video < 0 ? nullptr : input->streams[video]->codecpar;
    if (!vp || vp->codec_id != AV_CODEC_ID_H264 || vp->extradata_size < 7) return "no avcC H.264 video";
    AVBSFContext* bsf = nullptr;
    const AVBitStreamFilter* filter = av_bsf_get_by_name("h264_mp4toannexb");
    if (filter && av_bsf_alloc(filter, &bsf) >= 0) {
        const BitstreamFilterHolder owned(bsf);
        if (avcodec_parameters_copy(bsf->par_in, vp) >= 0 && av_bsf_init(bsf) >= 0)
            clip->annexB.assign(bsf->par_out->extradata, bsf->par_out->extradata + bsf->par_out->extradata_size);
    }
    if (clip->annexB.empty()) return "h264_mp4toannexb failed";
    const AVRational rate = input->streams[video]->avg_frame_rate;
    clip->width = vp->width;
    clip->height = vp->height;
    clip->frameRate = rate.num > 0 && rate.den > 0 ? (rate.num + rate.den / 2) / rate.den : 25;
    const AVCodecParameters* ap = audio < 0 ? nullptr : input->streams[audio]->codecpar;
    if ((clip->hasAudio = ap && ap->codec_id == AV_CODEC_ID_AAC)) {
        clip->sampleRate = ap->sample_rate;
        clip->channels = ap->ch_layout.nb_channels;
    }
    const int prefix = (vp->extradata[4] & 3) + 1;
    const PacketHolder packet(av_packet_alloc());
    for (AVPacket* p = packet.get(); av_read_frame(input, p) >= 0; av_packet_unref(p)) {
        const bool isVideo = p->stream_index == video;
        if (!isVideo && !(clip->hasAudio && p->stream_index == audio)) continue;
        const AVRational tb = input->streams[p->stream_index]->time_base;
        Sample s{{}, isVideo ? kTrackVideo : kTrackAudio,
                 av_rescale_q(p->pts != AV_NOPTS_VALUE ? p->pts : p->dts, tb, {1, 1000}),
                 av_rescale_q(p->dts != AV_NOPTS_VALUE ? p->dts : p->pts, tb, {1, 1000}),
                 isVideo ? ((p->flags & AV_PKT_FLAG_KEY) ? kSampleFlagVideoKey : 0) : kSampleFlagAudio};
        for (int at = 0; isVideo && at < p->size;) {  // length-prefixed NAL units to start codes
            uint32_t length = 0;  // a cut-off prefix reads as too long
            for (int i = 0; i < prefix; ++i) length = (length << 8) | (at < p->size ? p->data[at++] : 0xFF);
            if (length > uint32_t(p->size - at)) return "bad NAL lengths";
            s.bytes.insert(s.bytes.end(), {0, 0, 1});
            s.bytes.insert(s.bytes.end(), p->data + at, p->data + at + length);
            at += int(length);
        }
        if (!isVideo) s.bytes.assign(p->data, p->data + p->size);
        ++(isVideo ? clip->videoCount : clip->audioCount);
        clip->samples.push_back(std::move(s));
    }
    return "";
}

}  // namespace muxfixture
