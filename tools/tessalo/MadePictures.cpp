#include "MadePictures.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "base/FFmpegHolders.h"
#include "base/NalBits.h"

namespace tslcli {
namespace {

// The exp-Golomb number after `skip` others at the head of a NAL unit's payload; -1 past its end.
int64_t golomb(const uint8_t* data, size_t size, int skip) {
    NalBits bits(data, size);
    for (int i = 0; i < skip; ++i) bits.golomb();
    return bits.golomb();
}

struct Input {
    InputFormatHolder context;
    bool open(const std::string& path) {
        AVFormatContext* opened = nullptr;
        if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) return false;
        context.reset(opened);
        return avformat_find_stream_info(opened, nullptr) >= 0;
    }
    const AVStream* video() const {
        const int index = av_find_best_stream(context.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        return index < 0 ? nullptr : context->streams[index];
    }
};

// The ids of the picture parameter sets of an avcC record.
std::set<int64_t> pictureSetIds(const AVCodecParameters& par) {
    std::set<int64_t> ids;
    const uint8_t* d = par.extradata;
    const size_t n = size_t(par.extradata_size);
    if (!d || n < 7 || d[0] != 1) return ids;
    size_t at = 6;
    for (int sets = d[5] & 0x1F; sets > 0 && at + 2 <= n; --sets) at += 2 + (size_t(d[at]) << 8 | d[at + 1]);
    if (at >= n) return ids;
    for (int sets = d[at++]; sets > 0 && at + 3 <= n; --sets) {
        const size_t length = size_t(d[at]) << 8 | d[at + 1];
        if (at + 2 + length > n) break;
        ids.insert(golomb(d + at + 3, length - 1, 0));
        at += 2 + length;
    }
    return ids;
}

// The picture parameter set id of the first slice of a sample (4-byte
// lengths), or -1.
int64_t slicePictureSet(const AVPacket& packet, int lengthSize) {
    size_t at = 0;
    const size_t n = size_t(packet.size);
    while (at + size_t(lengthSize) < n) {
        size_t length = 0;
        for (int i = 0; i < lengthSize; ++i) length = length << 8 | packet.data[at + size_t(i)];
        at += size_t(lengthSize);
        if (length == 0 || at + length > n) return -1;
        const int type = packet.data[at] & 0x1F;
        // first_mb_in_slice, slice_type, then the set's id.
        if (type >= 1 && type <= 5) return golomb(packet.data + at + 1, length - 1, 2);
        at += length;
    }
    return -1;
}

}  // namespace

std::vector<OutputPicture> outputPictures(const std::string& source, const std::string& output) {
    Input in, out;
    if (!in.open(source) || !out.open(output) || !in.video() || !out.video()) return {};
    const std::set<int64_t> sourceSets = pictureSetIds(*in.video()->codecpar);
    const AVStream& stream = *out.video();
    if (!stream.codecpar->extradata || stream.codecpar->extradata_size < 5) return {};
    const int lengthSize = (stream.codecpar->extradata[4] & 3) + 1;
    std::vector<OutputPicture> pictures;
    PacketHolder holder(av_packet_alloc());
    AVPacket* packet = holder.get();
    while (packet && av_read_frame(out.context.get(), packet) >= 0) {
        if (packet->stream_index == stream.index) {
            const int64_t id = slicePictureSet(*packet, lengthSize);
            const int64_t pts = std::llround(double(packet->pts) * av_q2d(stream.time_base) * 1000);
            pictures.push_back({pts, id >= 0 && !sourceSets.count(id)});
        }
        av_packet_unref(packet);
    }
    std::sort(pictures.begin(), pictures.end(), [](const OutputPicture& a, const OutputPicture& b) { return a.pts < b.pts; });
    return pictures;
}

std::string runsText(const std::vector<int64_t>& pts, const std::vector<bool>& made) {
    std::string text;
    for (size_t i = 0; i < pts.size();) {
        size_t j = i;
        while (j + 1 < pts.size() && made[j + 1] == made[i]) ++j;
        if (!text.empty()) text += ", ";
        text += made[i] ? "re-encoded " : "copied ";
        text += std::to_string(pts[i]) + (j > i ? "-" + std::to_string(pts[j]) : "") + " ms (" +
                std::to_string(j - i + 1) + (j > i ? " pictures)" : " picture)");
        i = j + 1;
    }
    return text;
}

}  // namespace tslcli
