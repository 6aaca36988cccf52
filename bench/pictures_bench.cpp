// Picture requests against the ffmpeg tool doing the same decoding.
//  keys_bgr24: every key picture of the clip as 24-bit pixels, against
//    ffmpeg -skip_frame nokey -i CLIP -pix_fmt bgr24 -f rawvideo -y /dev/null
//    (and the same with -fps_mode passthrough, which writes no duplicates)
//  deep_picture: the pictures of one group three quarters into the clip, up
//    to its last picture, against ffmpeg -ss T -i CLIP -frames:v 1 -f rawvideo,
//    which decodes the same group from its key frame to T.
//  keys_bgr24_10bit, keys_bgr24_444: every key picture as BGR24 of a 720p
//    clip in 10-bit 4:2:0 and in 8-bit 4:4:4 (made once beside CLIP), which
//    go through libswscale, against the same ffmpeg command.
// The index walk is made once beforehand and is not timed: a host asks for
// pictures of a file it has indexed. Each picture is copied out with TSL_GetPic
// inside kHostEventPicReady, as a host does. Runs alternate with the reference.
// Usage: pictures_bench [CLIP] [RUNS]
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "tessalo.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Host {
    void* handle = nullptr;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int32_t> events;
    std::vector<uint8_t> picture;
    int delivered = 0;
};

int32_t onHostEvent(void* user, int32_t event) {
    auto* host = static_cast<Host*>(user);
    if (event == kHostEventPicReady) {
        const int32_t size = TSL_GetOnePicSize(host->handle);
        if (size > 0) {
            if (host->picture.size() < static_cast<size_t>(size)) host->picture.resize(static_cast<size_t>(size));
            int64_t pts = 0;
            uint8_t key = 0;
            TSL_GetPic(host->handle, host->picture.data(), &pts, &key);
        }
        ++host->delivered;
    }
    std::lock_guard<std::mutex> lock(host->mutex);
    host->events.push_back(event);
    host->changed.notify_all();
    return 0;
}

bool waitForAny(Host& host, std::initializer_list<int32_t> wanted) {
    std::unique_lock<std::mutex> lock(host.mutex);
    return host.changed.wait_for(lock, std::chrono::minutes(10), [&] {
        for (int32_t e : host.events)
            for (int32_t w : wanted)
                if (e == w) return true;
        return false;
    });
}

bool hasEvent(Host& host, int32_t event) {
    std::lock_guard<std::mutex> lock(host.mutex);
    return std::find(host.events.begin(), host.events.end(), event) != host.events.end();
}

// Seconds for one request; negative when it did not end in kHostEventPicDone.
double requestOnce(Host& host, const std::vector<int64_t>& pts, int* delivered) {
    {
        std::lock_guard<std::mutex> lock(host.mutex);
        host.events.clear();
    }
    host.delivered = 0;
    const auto start = Clock::now();
    if (!TSL_GetPicByPts(host.handle, pts.data(), static_cast<int32_t>(pts.size()))) return -1;
    if (!waitForAny(host, {kHostEventPicDone, kHostEventError, kHostEventFileError})) return -1;
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    *delivered = host.delivered;
    return hasEvent(host, kHostEventPicDone) ? seconds : -1;
}

double commandOnce(const std::string& command) {
    const auto start = Clock::now();
    const int rc = std::system(command.c_str());
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return rc == 0 ? seconds : -1;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::string quote(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// Runs ours and the reference alternately; prints one RESULT line.
bool compare(const char* name, Host& host, const std::vector<int64_t>& pts, const std::string& reference,
             int runs, double target) {
    int delivered = 0;
    if (requestOnce(host, pts, &delivered) < 0 || commandOnce(reference) < 0) {  // warm-up
        std::fprintf(stderr, "pictures_bench: %s failed to run\n", name);
        return false;
    }
    std::vector<double> ours, theirs;
    for (int i = 0; i < runs; ++i) {
        const double a = requestOnce(host, pts, &delivered);
        const double b = commandOnce(reference);
        if (a < 0 || b < 0) {
            std::fprintf(stderr, "pictures_bench: %s run %d failed\n", name, i);
            return false;
        }
        ours.push_back(a);
        theirs.push_back(b);
        std::fprintf(stderr, "%s run %d: ours %.3f s (%d pictures), ffmpeg %.3f s\n", name, i, a, delivered, b);
    }
    const double m = median(ours), r = median(theirs);
    std::printf("RESULT name=%s median_s=%.3f ref_median_s=%.3f ratio=%.2f target=%.2f\n", name, m, r, m / r, target);
    return true;
}

// The key pictures of a short 720p clip in another pixel layout, made once
// beside the long clip, as BGR24.
bool keysOfLayout(const std::string& longClip, const std::string& layout, int runs) {
    const std::string clip = longClip.substr(0, longClip.rfind('.')) + "_" + layout + ".mp4";
    const std::string make = "[ -s " + quote(clip) + " ] || ffmpeg -nostdin -v error -y -f lavfi -i "
                             "testsrc2=size=1280x720:rate=30:duration=60 -c:v libx264 -preset ultrafast -g 60 "
                             "-pix_fmt " + layout + " " + quote(clip);
    Host host;
    host.handle = TSL_CreateTessalo(&host, onHostEvent);
    if (std::system(make.c_str()) != 0 || !host.handle || !TSL_StartPic(host.handle, clip.c_str()) ||
        !waitForAny(host, {kHostEventIndexReady, kHostEventFileError, kHostEventError}) ||
        !hasEvent(host, kHostEventIndexReady)) {
        std::fprintf(stderr, "pictures_bench: cannot make or index %s\n", clip.c_str());
        return false;
    }
    std::vector<int64_t> keys(static_cast<size_t>(TSL_GetKeyPtsCount(host.handle)));
    keys.resize(static_cast<size_t>(TSL_GetKeyPts(host.handle, keys.data())));
    TSL_SetOutputPicFormat(host.handle, kPicFormatBgr24);
    const std::string name = "keys_bgr24_" + std::string(layout == "yuv444p" ? "444" : "10bit");
    const bool ok = compare(name.c_str(), host, keys,
                            "ffmpeg -nostdin -v error -skip_frame nokey -i " + quote(clip) +
                                " -fps_mode passthrough -pix_fmt bgr24 -f rawvideo -y /dev/null",
                            runs, 1.0);
    TSL_DestoryTessalo(host.handle);
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string clip = argc > 1 ? argv[1] : "/tmp/benchclip/long.mp4";
    const int runs = std::max(1, argc > 2 ? std::atoi(argv[2]) : 5);

    Host host;
    host.handle = TSL_CreateTessalo(&host, onHostEvent);
    if (!host.handle || !TSL_StartPic(host.handle, clip.c_str()) ||
        !waitForAny(host, {kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec}) ||
        !hasEvent(host, kHostEventIndexReady)) {
        std::fprintf(stderr, "pictures_bench: cannot index %s\n", clip.c_str());
        return 1;
    }
    std::vector<int64_t> keys(static_cast<size_t>(TSL_GetKeyPtsCount(host.handle)));
    keys.resize(static_cast<size_t>(TSL_GetKeyPts(host.handle, keys.data())));
    if (keys.size() < 2) {
        std::fprintf(stderr, "pictures_bench: too few groups in %s\n", clip.c_str());
        return 1;
    }
    const std::string in = " -i " + quote(clip);
    bool ok = true;

    TSL_SetOutputPicFormat(host.handle, kPicFormatBgr24);
    ok &= compare("keys_bgr24", host, keys,
                  "ffmpeg -nostdin -v error -skip_frame nokey" + in + " -pix_fmt bgr24 -f rawvideo -y /dev/null",
                  runs, 0.6);
    // The command above lets ffmpeg duplicate frames up to the clip's
    // constant rate (about 60 written per key picture); the same decoding
    // with every picture written once is the fairer second reference.
    ok &= compare("keys_bgr24_passthrough", host, keys,
                  "ffmpeg -nostdin -v error -skip_frame nokey" + in +
                      " -fps_mode passthrough -pix_fmt bgr24 -f rawvideo -y /dev/null",
                  runs, 0.6);

    // A group three quarters in, asked up to its last picture.
    const int64_t key = keys[keys.size() * 3 / 4];
    std::vector<int64_t> group(static_cast<size_t>(TSL_GetPtsCountByKeyPts(host.handle, key)));
    group.resize(static_cast<size_t>(TSL_GetPtsByKeyPts(host.handle, key, group.data())));
    TSL_SetOutputPicFormat(host.handle, kPicFormatI420);
    char seek[64];
    std::snprintf(seek, sizeof seek, " -ss %.3f", static_cast<double>(group.back()) / 1000.0);
    ok &= compare("deep_picture", host, group,
                  "ffmpeg -nostdin -v error" + std::string(seek) + in + " -frames:v 1 -f rawvideo -y /dev/null", runs,
                  1.0);

    TSL_DestoryTessalo(host.handle);
    for (const char* layout : {"yuv420p10le", "yuv444p"}) ok &= keysOfLayout(clip, layout, runs);
    return ok ? 0 : 1;
}
