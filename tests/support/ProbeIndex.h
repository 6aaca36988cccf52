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
#include <map>
#include <nlohmann/json.hpp>
#include <string>
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
    const std::string text = run("ffprobe -v error -show_entries stream=index,codec_type,time_base:"
                                 "stream_disposition=attached_pic:packet=stream_index,pts,dts,size,pos,flags -of json " +
                                 shellQuote(file), &status);
    if (status != 0) return index;
    const nlohmann::json doc = nlohmann::json::parse(text);
    std::map<int, std::pair<int64_t, int64_t>> timeBase;  // stream -> (num, den)
    std::map<int, std::string> kind;
    int firstAudio = -1;
    for (const auto& s : doc["streams"]) {
        const int id = s["index"].get<int>();
        kind[id] = s["codec_type"].get<std::string>();
        // A cover picture is no video stream of the index.
        if (s.value("disposition", nlohmann::json::object()).value("attached_pic", 0) == 1) kind[id] = "cover";
        timeBase[id] = fraction(s, "time_base");
        if (firstAudio < 0 && kind[id] == "audio") firstAudio = id;
    }
    // Audio ticks per second are a whole number, as the walk takes them.
    const auto toMs = [&](int64_t value, int64_t base, int stream, bool audio) {
        const auto [num, den] = timeBase[stream];
        const double ticks = num <= 0 || den == 0 ? 0.0 : audio ? double(den / num) : double(den) / double(num);
        return static_cast<int64_t>(std::trunc(double(value - base) * 1000.0 / ticks));
    };
    bool keySeen = false, audioSeen = false;
    int64_t videoPtsBase = 0, videoDtsBase = 0, audioPtsBase = 0;
    for (const auto& p : doc["packets"]) {
        const int stream = static_cast<int>(number(p, "stream_index", -1));
        const int64_t dts = number(p, "dts"), pts = number(p, "pts", dts);
        const std::string flags = p.value("flags", std::string());
        ProbeRecord r;
        r.size = static_cast<int32_t>(number(p, "size"));
        r.position = number(p, "pos", -1);
        r.isKey = flags.find_first_not_of('_') != std::string::npos;
        if (kind[stream] == "video") {
            if (!keySeen && (flags.empty() || flags[0] != 'K')) continue;
            if (!keySeen) {
                keySeen = true;
                videoPtsBase = pts;
                videoDtsBase = dts;
            }
            r.pts = toMs(pts, videoPtsBase, stream, false);
            r.dts = toMs(dts, videoDtsBase, stream, false);
            if (r.isKey) index.keyGroups.emplace_back();
            index.keyGroups.back().push_back(r);
        } else if (stream == firstAudio) {
            if (!audioSeen) {
                audioSeen = true;
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

}  // namespace tsltest
