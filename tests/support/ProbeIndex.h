#pragma once
// Ground truth for the frame index, computed from `ffprobe -show_packets -of
// json` alone: the same packets in the same order as FFmpeg's reader gives
// them, turned into index records by the rules the walk follows (video before
// the first key packet dropped, separate pts and dts bases, truncating
// millisecond conversion, audio of the first audio stream 7 bytes larger).
// Shared by the instance and api tests; header-only.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/FfprobeJson.h"

namespace tsltest {

struct ProbeRecord {
    bool isKey = false;
    int32_t size = 0;
    int64_t pts = 0;
    int64_t dts = 0;
    int64_t position = 0;
};

struct ProbeIndex {
    std::vector<std::vector<ProbeRecord>> keyGroups;  // stream order
    std::vector<ProbeRecord> audioFrames;
    bool ok = false;

    // Each group sorted by pts: what the host sees.
    std::vector<std::vector<int64_t>> sortedGroupPts() const {
        std::vector<std::vector<int64_t>> out;
        for (const auto& group : keyGroups) {
            std::vector<int64_t> pts;
            for (const auto& r : group) pts.push_back(r.pts);
            std::sort(pts.begin(), pts.end());
            out.push_back(pts);
        }
        return out;
    }
    std::vector<int64_t> keyPts() const {
        std::vector<int64_t> out;
        for (const auto& pts : sortedGroupPts()) out.push_back(pts.front());
        return out;
    }
};

inline ProbeIndex probeIndex(const std::string& file) {
    ProbeIndex index;
    int status = 0;
    const std::string streamsJson = run("ffprobe -v error -show_entries stream=index,codec_type,time_base:stream_disposition=attached_pic -of json " +
                                        shellQuote(file), &status);
    if (status != 0) return index;
    const std::string packetsJson = run("ffprobe -v error -show_entries "
                                        "packet=codec_type,stream_index,pts,dts,size,pos,flags -of json " +
                                        shellQuote(file), &status);
    if (status != 0) return index;

    std::map<int, std::pair<int64_t, int64_t>> timeBase;  // stream -> (num, den)
    std::map<int, std::string> kind;
    int firstAudio = -1;
    const nlohmann::json streams = nlohmann::json::parse(streamsJson), packets = nlohmann::json::parse(packetsJson);
    for (const auto& s : streams["streams"]) {
        const int id = s["index"].get<int>();
        kind[id] = s["codec_type"].get<std::string>();
        // A cover picture is no video stream of the index.
        if (s.value("disposition", nlohmann::json::object()).value("attached_pic", 0) == 1) kind[id] = "cover";
        timeBase[id] = fraction(s, "time_base");
        if (firstAudio < 0 && kind[id] == "audio") firstAudio = id;
    }
    auto toMs = [&](int64_t value, int64_t base, int stream, bool audio) -> int64_t {
        const auto [num, den] = timeBase[stream];
        double ticks = 0.0;
        if (num > 0 && den != 0) ticks = audio ? static_cast<double>(den / num) : static_cast<double>(den) / num;
        return static_cast<int64_t>(std::trunc(static_cast<double>(value - base) * 1000.0 / ticks));
    };

    bool keySeen = false;
    bool videoBases = false, audioBase = false;
    int64_t videoPtsBase = 0, videoDtsBase = 0, audioPtsBase = 0;
    for (const auto& p : packets["packets"]) {
        const int stream = static_cast<int>(number(p, "stream_index", -1));
        const int64_t dts = number(p, "dts");
        const int64_t pts = number(p, "pts", dts);
        const std::string flags = p.value("flags", std::string());
        const bool anyFlag = flags.find_first_not_of('_') != std::string::npos;
        ProbeRecord r;
        r.size = static_cast<int32_t>(number(p, "size"));
        r.position = number(p, "pos", -1);
        r.isKey = anyFlag;
        if (kind[stream] == "video") {
            if (!keySeen) {
                if (flags.empty() || flags[0] != 'K') continue;
                keySeen = true;
            }
            if (!videoBases) {
                videoBases = true;
                videoPtsBase = pts;
                videoDtsBase = dts;
            }
            r.pts = toMs(pts, videoPtsBase, stream, false);
            r.dts = toMs(dts, videoDtsBase, stream, false);
            if (r.isKey) index.keyGroups.emplace_back();
            index.keyGroups.back().push_back(r);
        } else if (stream == firstAudio) {
            if (!audioBase) {
                audioBase = true;
                audioPtsBase = pts;
            }
            r.pts = r.dts = toMs(pts, audioPtsBase, stream, true);
            r.size += 7;
            index.audioFrames.push_back(r);
        }
    }
    index.ok = true;
    return index;
}

// A file with many small packets, so that a walk lasts long enough to be
// interrupted: five minutes of 64x48 video at 50 fps, a key every 25 frames.
// Made once with the ffmpeg tool and kept in the build tree.
inline const std::string& longWalkFile() {
    static const std::string path = [] {
        const std::filesystem::path file = std::filesystem::path(TSL_BUILD_DIR) / "media" / "long_walk.mp4";
        if (!std::filesystem::exists(file)) {
            // Per process: two test programs may make it at the same time.
            const std::string tmp = file.string() + "." + std::to_string(getpid()) + ".mp4";
            int status = 0;
            run("ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc2=size=64x48:rate=50:duration=300 "
                "-c:v libx264 -preset ultrafast -bf 2 -g 25 -pix_fmt yuv420p " + shellQuote(tmp), &status);
            if (status == 0) std::filesystem::rename(tmp, file);
        }
        return file.string();
    }();
    return path;
}

// main.mp4's video with its AAC 44100 Hz stereo and then mono48k.mp4's AAC 48000 Hz mono: only the
// first audio stream is indexed. Made once per test program.
inline const std::string& twoAudioFile() {
    static const std::string path = [] {
        const std::string file = std::string(TSL_BUILD_DIR) + "/scratch/twoaudio-" + std::to_string(getpid()) + ".mp4";
        std::filesystem::create_directories(std::string(TSL_BUILD_DIR) + "/scratch");
        run("ffmpeg -nostdin -v quiet -y -i " + shellQuote(std::string(TSL_MEDIA_DIR) + "/main.mp4") + " -i " +
            shellQuote(std::string(TSL_MEDIA_DIR) + "/mono48k.mp4") + " -map 0:v -map 0:a -map 1:a -c copy " +
            shellQuote(file));
        return file;
    }();
    return path;
}

}  // namespace tsltest
