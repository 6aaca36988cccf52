#include "Causes.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <string>
#include <vector>

#include "Host.h"
#include "base/FFmpegHolders.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

namespace tslcli {
namespace {

struct Track {
    AVMediaType type;
    AVCodecID codec;
    bool cover;  // an attached picture, which the library leaves out
    int sampleRate;
    int channels;
};

struct Facts {
    bool opened = false;
    std::string openError;
    std::vector<Track> tracks;
    bool keyPackets = false;  // an H.264 track has at least one key packet
    int64_t videoSamples = 0;  // in the tracks the library can index, when asked for
};

bool indexable(const Track& t) { return t.type == AVMEDIA_TYPE_VIDEO && !t.cover; }

// The video samples that the tables declare; -1 when a track declares none.
int64_t declaredVideoSamples(const AVFormatContext* format) {
    int64_t total = 0;
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVStream* s = format->streams[i];
        if (s->codecpar->codec_type != AVMEDIA_TYPE_VIDEO || (s->disposition & AV_DISPOSITION_ATTACHED_PIC)) continue;
        if (s->nb_frames <= 0) return -1;
        total += s->nb_frames;
    }
    return total;
}

enum class Count { nothing, keyPackets, videoSamples };

// Reads packets until the count asked for is known.
void countPackets(AVFormatContext* format, Count count, Facts* facts) {
    const PacketHolder holder(av_packet_alloc());
    AVPacket* packet = holder.get();
    while (packet && !facts->keyPackets && av_read_frame(format, packet) >= 0) {
        const Track& t = facts->tracks[static_cast<size_t>(packet->stream_index)];
        if (count == Count::videoSamples) {
            facts->videoSamples += indexable(t);
        } else {
            facts->keyPackets = indexable(t) && t.codec == AV_CODEC_ID_H264 && (packet->flags & AV_PKT_FLAG_KEY);
        }
        av_packet_unref(packet);
    }
}

Facts probe(const std::string& path, Count count) {
    Facts facts;
    int rc = 0;
    const InputFormatHolder input = openInput(path.c_str(), &rc);
    AVFormatContext* format = input.get();
    if (!format) {
        char text[AV_ERROR_MAX_STRING_SIZE] = "";
        av_strerror(rc, text, sizeof text);
        facts.openError = text;
        return facts;
    }
    facts.opened = true;
    avformat_find_stream_info(format, nullptr);
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVStream* s = format->streams[i];
        facts.tracks.push_back({s->codecpar->codec_type, s->codecpar->codec_id,
                                (s->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0, s->codecpar->sample_rate,
                                s->codecpar->ch_layout.nb_channels});
    }
    if (count == Count::videoSamples) facts.videoSamples = declaredVideoSamples(format);
    if (count == Count::keyPackets || facts.videoSamples < 0) {
        facts.videoSamples = 0;
        countPackets(format, count, &facts);
    }
    return facts;
}

std::string codecName(AVCodecID id) {
    const char* name = avcodec_get_name(id);
    return name ? name : "unknown";
}

const Track* firstVideo(const Facts& f, bool h264) {
    for (const Track& t : f.tracks)
        if (t.type == AVMEDIA_TYPE_VIDEO && !t.cover && (t.codec == AV_CODEC_ID_H264) == h264) return &t;
    return nullptr;
}

std::string badVideo(const Facts& f) {
    if (const Track* t = firstVideo(f, false)) return "video codec " + codecName(t->codec) + " is not supported: H.264 only";
    return "";
}

}  // namespace

std::string writeFailure(const std::string& output, uint64_t needed) {
    // The library says only that the file could not be written. Asking the
    // file system for a file as large as the cut in the same folder, without
    // writing it, tells a full disk and a file size limit from other faults.
    std::filesystem::path folder = std::filesystem::path(output).parent_path();
    if (folder.empty()) folder = ".";
    const std::string probe = (folder / (".tessalo-space-" + std::to_string(::getpid()))).string();
    int reason = 0;
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        reason = errno;
    } else {
        reason = ::posix_fallocate(fd, 0, static_cast<off_t>(std::max<uint64_t>(needed, 1)));
        ::close(fd);
        ::unlink(probe.c_str());
    }
    if (reason == ENOSPC || reason == EDQUOT) return "could not write " + output + ": the disk is full";
    if (reason == EFBIG) return "could not write " + output + ": the file would pass the size limit of this process";
    return "could not write " + output + ": writing to it failed";
}

void quietFfmpeg() {
    av_log_set_level(AV_LOG_QUIET);
    av_log_set_callback([](void*, int, const char*, va_list) {});
}

int64_t videoSampleCount(const std::string& path) {
    const Facts f = probe(path, Count::videoSamples);
    return f.opened ? f.videoSamples : -1;
}

std::string refusalCause(int32_t event, const std::string& path) {
    quietFfmpeg();  // the library may have set FFmpeg's log up its own way meanwhile
    const Facts f = probe(path, event == kSilent ? Count::keyPackets : Count::nothing);
    if (event == kHostEventFileError || !f.opened)
        return "cannot open " + path + (f.opened ? "" : ": " + f.openError);

    switch (event) {
        case kHostEventBadCodec:
        case kHostEventNoVideo: {
            if (!firstVideo(f, true)) {
                const std::string video = badVideo(f);
                if (!video.empty()) return video;
                return "no H.264 video stream in " + path;
            }
            for (const Track& t : f.tracks)
                if (t.type == AVMEDIA_TYPE_AUDIO && t.codec != AV_CODEC_ID_AAC)
                    return "audio codec " + codecName(t.codec) + " is not supported: AAC only";
            const std::string video = badVideo(f);
            if (!video.empty()) return video;
            return event == kHostEventNoVideo ? "no usable H.264 video stream in " + path
                                              : "a stream of " + path + " has a codec that is not supported: H.264 video and AAC audio only";
        }
        case kHostEventBadSampleRate:
            for (const Track& t : f.tracks)
                if (t.type == AVMEDIA_TYPE_AUDIO && t.sampleRate != 44100 && t.sampleRate != 48000)
                    return "audio sample rate " + std::to_string(t.sampleRate) + " Hz is not supported: 44100 or 48000 only";
            return "the audio sample rate of " + path + " is not supported: 44100 or 48000 Hz only";
        case kHostEventBadChannels:
            for (const Track& t : f.tracks)
                if (t.type == AVMEDIA_TYPE_AUDIO && (t.channels < 1 || t.channels > 3))
                    return std::to_string(t.channels) + " audio channel" + (t.channels == 1 ? " is" : "s are") +
                           " not supported: 1 to 3 only";
            return "the audio channel count of " + path + " is not supported: 1 to 3 only";
        case kHostEventError:
            return "the library could not read " + path + " (set-up failure or repeated read errors)";
        case kHostEventUnassigned:
            return "the library reported an unexplained demuxer error for " + path;
        case kSilent:
            // Pictures before the first key frame cannot be decoded, so they are not indexed.
            if (!f.keyPackets) return path + " holds no H.264 key frame: there is nothing to index";
            return "the library gave no answer while indexing " + path;
        default:
            return "the library refused " + path + " (event " + std::to_string(event) + ", " + eventName(event) + ")";
    }
}

}  // namespace tslcli
