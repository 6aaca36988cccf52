#include "MediaPackets.h"

extern "C" {
#include <libavformat/avformat.h>
}

MediaStream readStream(const std::string& path, bool audio) {
    MediaStream out;
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) return out;
    if (avformat_find_stream_info(fmt, nullptr) >= 0) {
        int index = av_find_best_stream(fmt, audio ? AVMEDIA_TYPE_AUDIO : AVMEDIA_TYPE_VIDEO,
                                        -1, -1, nullptr, 0);
        if (index >= 0) {
            AVCodecParameters* par = fmt->streams[index]->codecpar;
            out.extraData.assign(par->extradata, par->extradata + par->extradata_size);
            AVPacket* pkt = av_packet_alloc();
            while (av_read_frame(fmt, pkt) >= 0) {
                if (pkt->stream_index == index) {
                    MediaSample s;
                    s.bytes.assign(pkt->data, pkt->data + pkt->size);
                    s.pts = pkt->pts;
                    s.dts = pkt->dts;
                    s.key = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
                    out.samples.push_back(std::move(s));
                }
                av_packet_unref(pkt);
            }
            av_packet_free(&pkt);
            out.ok = true;
        }
    }
    avformat_close_input(&fmt);
    return out;
}
