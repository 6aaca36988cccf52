#include "Commands.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Causes.h"
#include "DemoClip.h"
#include "Host.h"
#include "Images.h"
#include "MadePictures.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace tslcli {
namespace {

// An instance with its file indexed, or a JobFailure naming why not.
struct Indexed {
    Session session;
    TessaloMediaInfo info{};
    std::vector<int64_t> keys;

    Indexed(const Settings& s, const std::string& path) : session(s.idle) {
        if (!session.valid()) throw JobFailure("the library could not make an instance");
        const int32_t end = session.index(path);
        if (end != kHostEventIndexReady) throw JobFailure(refusalCause(end, path));
        info = session.mediaInfo();
        keys = session.keys();
        if (keys.empty()) throw JobFailure(path + " holds no key pictures");
    }
};

struct Summary {
    int64_t videoSamples = 0;
    int64_t firstPts = 0;
    int64_t lastPts = 0;
};

Summary summarize(const Indexed& ix) {
    Summary sum;
    sum.firstPts = sum.lastPts = ix.keys.front();
    // A key timestamp that opens several groups (one per video stream) lists
    // them all at once, so each distinct key is asked once.
    std::vector<int64_t> distinct = ix.keys;
    std::sort(distinct.begin(), distinct.end());
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
    for (const int64_t key : distinct) {
        const std::vector<int64_t> pts = ix.session.group(key);
        sum.videoSamples += static_cast<int64_t>(pts.size());
        for (const int64_t p : pts) {
            sum.firstPts = std::min(sum.firstPts, p);
            sum.lastPts = std::max(sum.lastPts, p);
        }
    }
    return sum;
}

// Shows how far a picture request has got, on a terminal only.
class Progress {
public:
    Progress(size_t total, const char* what) : total(total), what(what), shown(isatty(STDERR_FILENO) == 1) {}
    void step(size_t done) {
        if (!shown) return;
        const size_t width = 30;
        const size_t filled = total ? std::min(width, done * width / total) : width;
        std::fprintf(stderr, "\r[%s%s] %zu/%zu %s", std::string(filled, '#').c_str(),
                     std::string(width - filled, '.').c_str(), done, total, what);
        std::fflush(stderr);
    }
    // Clears the bar, so that what follows starts on a clean line.
    void finish() {
        if (shown) std::fprintf(stderr, "\r\033[K");
        shown = false;
    }
    ~Progress() { finish(); }

private:
    size_t total;
    const char* what;
    bool shown;
};

void makeDir(const std::string& dir) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec || !fs::is_directory(dir)) throw JobFailure("cannot make the folder " + dir + ": " + ec.message());
}

std::string joinPath(const std::string& dir, const std::string& name) { return (fs::path(dir) / name).string(); }

// Sentence for a picture request that ended badly, or empty.
std::string pictureTrouble(const PictureRun& run, const std::string& path) {
    switch (run.end) {
        case kHostEventPicDone: return "";
        case kHostEventFileError: return "the library could not read the pictures of " + path;
        case kHostEventError: return "the library could not decode the pictures of " + path;
        case kSilent: return "the library gave no answer while delivering the pictures of " + path;
        default: return std::string("the picture request ended with event ") + eventName(run.end);
    }
}

// A delivered picture as it is meant to be seen: the library hands pictures
// over as stored, and the stream's display rotation turns them upright.
Image upright(const TessaloMediaInfo& info, const Picture& picture) {
    return rotateClockwise(fromBottomUpBgr(picture.bytes, info.width, info.height), info.rotation);
}

json mediaJson(const TessaloMediaInfo& info) {
    json video = {{"codec", info.videoCodec == 0 ? "h264" : "unknown"},
                  {"width", info.width},
                  {"height", info.height},
                  {"frameRate", info.frameRate},
                  {"rotation", info.rotation},
                  {"bitRate", info.videoBitRate}};
    json audio = nullptr;
    if (info.sampleRate > 0)
        audio = {{"codec", info.audioCodec == 1 ? "aac" : "unknown"},
                 {"sampleRate", info.sampleRate},
                 {"channels", info.channels & 0xFFFF},
                 {"bitRate", info.audioBitRate}};
    return {{"video", video}, {"audio", audio}, {"durationMs", info.durationMs}};
}

}  // namespace

std::string pictureName(const char* prefix, int64_t pts) {
    char name[64];
    std::snprintf(name, sizeof name, "%s_%s%09lldms.png", prefix, pts < 0 ? "-" : "",
                  static_cast<long long>(pts < 0 ? -pts : pts));
    return name;
}

int runInfo(const Settings& s, const std::string& file, std::ostream& out) {
    Indexed ix(s, file);
    const Summary sum = summarize(ix);
    const TessaloMediaInfo& info = ix.info;
    if (s.json) {
        json j = mediaJson(info);
        j["file"] = file;
        j["index"] = {{"groups", ix.keys.size()},
                      {"videoSamples", sum.videoSamples},
                      {"firstPtsMs", sum.firstPts},
                      {"lastPtsMs", sum.lastPts}};
        out << j.dump(2) << "\n";
        return 0;
    }
    const int channels = info.channels & 0xFFFF;
    out << "file           " << file << "\n"
        << "video          H.264 " << info.width << "x" << info.height << ", " << info.frameRate << " fps, "
        << info.videoBitRate / 1000 << " kb/s\n"
        << "rotation       " << info.rotation << " degrees clockwise"
        << (info.rotation ? " (pictures are stored turned; thumbs and frames are written upright)" : "") << "\n";
    if (info.sampleRate > 0)
        out << "audio          AAC " << info.sampleRate << " Hz, " << channels << " channel" << (channels == 1 ? "" : "s")
            << ", " << info.audioBitRate / 1000 << " kb/s\n";
    else
        out << "audio          none\n";
    out << "duration       " << std::fixed << std::setprecision(3) << info.durationMs << " ms ("
        << clockText(static_cast<int64_t>(info.durationMs)) << ")\n"
        << "groups         " << ix.keys.size() << "\n"
        << "video samples  " << sum.videoSamples << "\n"
        << "first pts      " << sum.firstPts << " ms (" << clockText(sum.firstPts) << ")\n"
        << "last pts       " << sum.lastPts << " ms (" << clockText(sum.lastPts) << ")\n"
        << "audio samples  not reported by the library\n";
    return 0;
}

int runKeys(const Settings& s, const std::string& file, std::ostream& out) {
    Indexed ix(s, file);
    if (s.json) {
        json keys = json::array();
        for (const int64_t key : ix.keys)
            keys.push_back({{"pts", key}, {"time", clockText(key)}, {"pictures", ix.session.groupSize(key)}});
        out << json{{"file", file}, {"keys", keys}}.dump(2) << "\n";
        return 0;
    }
    out << "key pts (ms)  time          pictures\n";
    for (const int64_t key : ix.keys)
        out << std::left << std::setw(14) << key << std::setw(14) << clockText(key) << ix.session.groupSize(key) << "\n";
    return 0;
}

namespace {

// The timestamps of the group at `key`, or a JobFailure that points at the
// key timestamps nearest to it.
std::vector<int64_t> groupOrFail(const Indexed& ix, const std::string& file, int64_t key) {
    std::vector<int64_t> pts = ix.session.group(key);
    if (!pts.empty()) return pts;
    std::string hint;
    const auto after = std::lower_bound(ix.keys.begin(), ix.keys.end(), key);
    if (after != ix.keys.begin()) hint += std::to_string(*(after - 1)) + " ms";
    if (after != ix.keys.end()) hint += (hint.empty() ? "" : " and ") + std::to_string(*after) + " ms";
    throw JobFailure("no group of " + file + " starts at " + std::to_string(key) + " ms; the nearest key timestamps are " +
                     hint + " (see 'tessalo keys')");
}

}  // namespace

int runGroup(const Settings& s, const std::string& file, int64_t key, std::ostream& out) {
    Indexed ix(s, file);
    const std::vector<int64_t> pts = groupOrFail(ix, file, key);
    if (s.json) {
        out << json{{"file", file}, {"key", key}, {"pts", pts}}.dump(2) << "\n";
        return 0;
    }
    for (const int64_t p : pts) out << std::left << std::setw(14) << p << clockText(p) << "\n";
    return 0;
}

int runThumbs(const Settings& s, const std::string& file, const ThumbOptions& o, std::ostream& out) {
    Indexed ix(s, file);
    makeDir(o.dir);
    const std::string sheetPath = o.sheet.empty() ? joinPath(o.dir, "sheet.png") : o.sheet;

    std::vector<std::pair<int64_t, Image>> thumbs;
    Progress progress(ix.keys.size(), "key pictures");
    // One key-mode request: all key timestamps in order, one picture a group.
    const PictureRun run = ix.session.pictures(ix.keys, kPicFormatBgr24, [&](const Picture& picture) {
        const Image image = upright(ix.info, picture);
        writePng(joinPath(o.dir, pictureName("key", picture.pts)), image);
        thumbs.emplace_back(picture.pts, shrinkToWidth(image, o.thumbWidth));
        progress.step(thumbs.size());
    });
    progress.finish();

    std::stable_sort(thumbs.begin(), thumbs.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Image> cells;
    std::vector<std::string> labels;
    for (auto& [pts, image] : thumbs) {
        cells.push_back(std::move(image));
        labels.push_back(clockText(pts));
    }
    if (!cells.empty()) {
        const Image sheet = contactSheet(cells, labels, o.columns);
        writePng(sheetPath, sheet);
        out << "wrote " << cells.size() << " key picture" << (cells.size() == 1 ? "" : "s") << " to " << o.dir << "\n"
            << "contact sheet " << sheetPath << " (" << sheet.width << "x" << sheet.height << ", "
            << std::min<size_t>(static_cast<size_t>(o.columns), cells.size()) << " columns)\n";
    }
    const std::string trouble = pictureTrouble(run, file);
    if (!trouble.empty()) throw JobFailure(trouble);
    if (cells.empty()) throw JobFailure("the library delivered no key picture of " + file);
    if (cells.size() < ix.keys.size())
        std::cerr << "tessalo: warning: the library delivered " << cells.size() << " of " << ix.keys.size()
                  << " key pictures of " << file
                  << (run.decodeErrors ? " (" + std::to_string(run.decodeErrors) + " samples failed to decode)" : "")
                  << "\n";
    return 0;
}

int runFrames(const Settings& s, const std::string& file, int64_t key, const std::string& dir, std::ostream& out) {
    Indexed ix(s, file);
    const std::vector<int64_t> pts = groupOrFail(ix, file, key);
    makeDir(dir);
    size_t written = 0;
    std::set<int64_t> delivered;
    Progress progress(pts.size(), "pictures");
    // One run-mode request: the group's own timestamps, every picture in turn.
    const PictureRun run = ix.session.pictures(pts, kPicFormatBgr24, [&](const Picture& picture) {
        writePng(joinPath(dir, pictureName("frame", picture.pts)), upright(ix.info, picture));
        delivered.insert(picture.pts);
        progress.step(++written);
    });
    progress.finish();
    out << "wrote " << written << " picture" << (written == 1 ? "" : "s") << " of the group at " << key << " ms to "
        << dir << "\n";
    const std::string trouble = pictureTrouble(run, file);
    if (!trouble.empty()) throw JobFailure(trouble);
    if (written == 0) throw JobFailure("the library delivered no picture of the group at " + std::to_string(key) + " ms");
    if (written < pts.size()) {
        // The library feeds the decoder only the group's own samples; at the
        // end of a file the last pictures can stay inside the decoder.
        std::string missing;
        size_t listed = 0, absent = 0;
        for (const int64_t p : pts) {
            if (delivered.count(p)) continue;
            if (++absent <= 10) missing += (listed++ ? ", " : "") + std::to_string(p);
        }
        missing += " ms";
        if (absent > listed) missing += " and " + std::to_string(absent - listed) + " more";
        std::cerr << "tessalo: warning: the library delivered " << written << " of " << pts.size()
                  << " pictures of the group at " << key << " ms; missing " << missing
                  << (run.decodeErrors ? " (" + std::to_string(run.decodeErrors) + " samples failed to decode)" : "")
                  << "\n";
    }
    return 0;
}

namespace {

std::string spanText(int64_t a, int64_t b) { return std::to_string(a) + "-" + std::to_string(b) + " ms"; }

// The key frame a range's output opens on. The synced cut takes the last key
// at or before the start (the first key when there is none). The original
// one takes the group before the first key at or after the start (the first
// group when that is the first key), so a start right on a key timestamp
// still opens one group earlier.
int64_t openingKey(const std::vector<int64_t>& keys, int64_t start, int32_t kind) {
    if (kind == kCutKindSynced) {
        const auto after = std::upper_bound(keys.begin(), keys.end(), start);
        return after == keys.begin() ? keys.front() : *(after - 1);
    }
    const auto at = std::lower_bound(keys.begin(), keys.end(), start);
    if (at == keys.end()) return keys.back();
    return at == keys.begin() ? *at : *(at - 1);
}

// Why the library would not take the job at all.
std::string refusedCut(const Indexed& ix, const std::string& file, const std::string& output, int32_t kind,
                       uint64_t needed) {
    if (ix.info.sampleRate <= 0 && kind == kCutKindMp4)
        return "cannot cut " + file + ": it has no audio track, and cut kind 0 cuts only files with video and audio";
    const fs::path parent = fs::path(output).parent_path();
    if (!parent.empty() && !fs::is_directory(parent)) return "cannot write " + output + ": no folder " + parent.string();
    if (access(parent.empty() ? "." : parent.c_str(), W_OK) != 0) return "cannot write " + output + ": folder not writable";
    // A name the library knows, in a folder that takes files: the output
    // could not even take its header.
    const std::string extension = fs::path(output).extension().string();
    if (extension == ".mp4" || extension == ".mov") return writeFailure(output, needed);
    return "the library refused to cut " + file + " into " + output + " (check that the output name ends in .mp4 or .mov)";
}

// About the bytes the cut of `ranges` writes: the source's share of their length.
uint64_t neededBytes(const Indexed& ix, const std::string& file, const std::vector<TimeSpan>& ranges) {
    std::error_code ec;
    const double size = double(fs::file_size(file, ec));
    if (ec || ix.info.durationMs <= 0) return 0;
    double kept = 0;
    for (const TimeSpan& r : ranges) kept += double(std::max<int64_t>(0, r.end - r.start));
    return uint64_t(size * std::min(1.0, kept / ix.info.durationMs));
}

// The first range that the cut cannot open: one that starts after the last picture.
std::string failedCut(const Indexed& ix, const std::vector<TimeSpan>& ranges, const std::string& file) {
    const Summary sum = summarize(ix);
    for (size_t i = 0; i < ranges.size(); ++i)
        if (ranges[i].start > sum.lastPts)
            return "the cut failed: range " + std::to_string(i + 1) + " (" + spanText(ranges[i].start, ranges[i].end) +
                   ") starts after the last picture of " + file + " at " + std::to_string(sum.lastPts) + " ms";
    return "the cut of " + file + " failed in the library (a range could not be read or cut)";
}

// For each range of a frame-exact cut, its source pictures and whether each
// was made again, read from the output; empty when the output does not hold
// the pictures the ranges asked for.
struct RangePictures {
    std::vector<int64_t> pts;
    std::vector<bool> made;
};

std::vector<RangePictures> exactRanges(const Indexed& ix, const std::string& file, const std::string& output,
                                       const std::vector<TimeSpan>& ranges) {
    std::vector<int64_t> all;
    for (const int64_t key : ix.keys) {
        const std::vector<int64_t> group = ix.session.group(key);
        all.insert(all.end(), group.begin(), group.end());
    }
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    const std::vector<OutputPicture> shown = outputPictures(file, output);
    std::vector<RangePictures> result;
    size_t at = 0;
    for (const TimeSpan& r : ranges) {
        RangePictures range;
        for (const int64_t pts : all) {
            if (pts < r.start || pts > r.end) continue;
            if (at >= shown.size()) return {};
            range.pts.push_back(pts);
            range.made.push_back(shown[at++].made);
        }
        result.push_back(std::move(range));
    }
    if (at != shown.size()) return {};
    return result;
}

// Throws the job's failure when the library did not finish the cut; a
// partial output is no cut of the ranges asked for and goes.
void requireFinishedCut(const Indexed& ix, const Settings& s, const CutRun& run, const std::string& file,
                        const std::string& output, const std::vector<TimeSpan>& ranges) {
    const uint64_t needed = neededBytes(ix, file, ranges);
    if (!run.accepted) throw JobFailure(refusedCut(ix, file, output, s.cutKind, needed));
    // The library removes an output that it could not write, and leaves one
    // whose ranges could not all be cut.
    if (run.end == kHostEventCutFailed && !fs::exists(fs::symlink_status(output)))
        throw JobFailure(writeFailure(output, needed));
    if (run.end == kHostEventCutDone) return;
    std::error_code ec;
    fs::remove(output, ec);
    if (run.end == kHostEventCutFailed) throw JobFailure(failedCut(ix, ranges, file));
    throw JobFailure("the library gave no answer while cutting " + file);
}

// The library moves an offset pair to the output's timeline when one range,
// as given, holds both times; the others it leaves as they were.
json offsetsReport(const CutRun& run, const std::vector<TimeSpan>& ranges, const std::vector<TimeSpan>& offsets) {
    json report = json::array();
    for (size_t i = 0; i < offsets.size(); ++i) {
        const bool inside = std::any_of(ranges.begin(), ranges.end(), [&](const TimeSpan& r) {
            return offsets[i].start >= r.start && offsets[i].end <= r.end;
        });
        json entry = {{"source", {{"first", offsets[i].start}, {"second", offsets[i].end}}}, {"output", nullptr}};
        if (inside && run.reportRead && i < run.offsets.size())
            entry["output"] = {{"first", run.offsets[i].first}, {"second", run.offsets[i].second}};
        report.push_back(entry);
    }
    return report;
}

json cutJson(const Indexed& ix, const Settings& s, const std::vector<TimeSpan>& ranges,
             const std::vector<RangePictures>& made) {
    json jr = json::array();
    for (size_t i = 0; i < ranges.size(); ++i) {
        json entry = {{"start", ranges[i].start}, {"end", ranges[i].end}};
        if (s.cutKind != kCutKindExact) entry["opensAtKey"] = openingKey(ix.keys, ranges[i].start, s.cutKind);
        if (!made.empty()) {
            const size_t count = size_t(std::count(made[i].made.begin(), made[i].made.end(), true));
            entry["reencoded"] = count;
            entry["copied"] = made[i].made.size() - count;
        }
        jr.push_back(entry);
    }
    return jr;
}

void printCut(const Indexed& ix, const Settings& s, const std::string& file, const std::string& output,
              const std::vector<TimeSpan>& ranges, const std::vector<RangePictures>& made, const json& report,
              std::ostream& out) {
    out << "cut " << file << " -> " << output << " (" << ranges.size() << " range" << (ranges.size() == 1 ? "" : "s")
        << ")\n";
    for (size_t i = 0; i < ranges.size(); ++i) {
        out << "  range " << i + 1 << "  " << spanText(ranges[i].start, ranges[i].end) << "  ("
            << clockText(ranges[i].start) << " - " << clockText(ranges[i].end) << ")";
        if (s.cutKind != kCutKindExact)
            out << ", opens on the key frame at " << openingKey(ix.keys, ranges[i].start, s.cutKind) << " ms";
        else if (!made.empty())
            out << ": " << runsText(made[i].pts, made[i].made);
        out << "\n";
    }
    if (!report.empty()) out << "offsets on the output's timeline:\n";
    for (const json& e : report) {
        out << "  " << spanText(e["source"]["first"], e["source"]["second"]) << " -> ";
        if (e["output"].is_null())
            out << "not inside one kept range; left as given\n";
        else
            out << spanText(e["output"]["first"], e["output"]["second"]) << "\n";
    }
}

}  // namespace

int runCut(const Settings& s, const std::string& file, const std::string& output, const std::vector<TimeSpan>& ranges,
           const std::vector<TimeSpan>& offsets, std::ostream& out) {
    // The library opens the output for writing while it still reads the source.
    std::error_code ec;
    if (fs::equivalent(file, output, ec)) throw UsageError("the output " + output + " is the source file itself");
    Indexed ix(s, file);
    std::vector<EditRange> editRanges;
    for (const TimeSpan& r : ranges) editRanges.push_back({r.start, r.end});
    std::vector<EditOffset> editOffsets;
    for (const TimeSpan& o : offsets) editOffsets.push_back({o.start, o.end});

    const CutRun run = ix.session.cut(file, output, editRanges, editOffsets, s.cutKind);
    requireFinishedCut(ix, s, run, file, output, ranges);
    const json report = offsetsReport(run, ranges, offsets);
    const bool exact = s.cutKind == kCutKindExact;
    const std::vector<RangePictures> made = exact ? exactRanges(ix, file, output, ranges) : std::vector<RangePictures>{};
    if (exact && made.empty())
        std::cerr << "tessalo: warning: the output does not hold exactly the pictures of the ranges\n";
    if (s.json)
        out << json{{"source", file}, {"output", output}, {"ranges", cutJson(ix, s, ranges, made)}, {"offsets", report}}
                   .dump(2)
            << "\n";
    else
        printCut(ix, s, file, output, ranges, made, report, out);
    return 0;
}

int runDemo(const Settings& s, const std::string& dir, std::ostream& out) {
    makeDir(dir);
    const std::string clip = joinPath(dir, "demo.mp4");
    out << "== making " << clip << " (10 s, 640x360, H.264 with B-frames + AAC 44100 Hz stereo)\n";
    makeDemoClip(clip, 10);
    Settings plain = s;
    plain.json = false;
    out << "\n== tessalo info " << clip << "\n";
    runInfo(plain, clip, out);
    ThumbOptions thumbs;
    thumbs.dir = joinPath(dir, "thumbs");
    thumbs.sheet = joinPath(dir, "sheet.png");
    thumbs.columns = 5;
    out << "\n== tessalo thumbs " << clip << " -o " << thumbs.dir << " --sheet " << thumbs.sheet << " --columns 5\n";
    runThumbs(plain, clip, thumbs, out);
    const std::string cut = joinPath(dir, "cut.mp4");
    // A start just after a key keeps the cut on that key: the output holds
    // seconds 2 to 4 and 6 to 8 of the clip.
    out << "\n== tessalo cut " << clip << " -o " << cut << " -r 2040-3999 -r 00:00:06.040-00:00:07.999 --offset 2500-3500\n";
    runCut(plain, clip, cut, {{2040, 3999}, {6040, 7999}}, {{2500, 3500}}, out);
    out << "\nmade in " << dir << ":\n"
        << "  demo.mp4    the sample clip\n"
        << "  thumbs/     one PNG per key picture\n"
        << "  sheet.png   the contact sheet\n"
        << "  cut.mp4     seconds 2-4 and 6-8 of the clip, one behind the other\n";
    return 0;
}

}  // namespace tslcli
