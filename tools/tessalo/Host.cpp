#include "Host.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <filesystem>
#include <stdexcept>

#include "Causes.h"

namespace tslcli {
namespace {

// The slowest disk a walk or a cut is expected to read from, in bytes a
// second: a network share or a USB stick.
constexpr uint64_t kSlowDisk = 20u << 20;

// Pictures copied out but not yet written; the callback waits for room so
// that a slow disk cannot make the queue grow without bound.
constexpr size_t kQueueLimit = 4;

}  // namespace

Session::Session(std::chrono::milliseconds idleLimit) : idle(idleLimit) {
    handle = TSL_CreateTessalo(this, &Session::onEvent);
}

Session::~Session() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        draining = false;
    }
    changed.notify_all();
    // Ends every thread of the instance; no callback runs after it returns.
    if (handle) TSL_DestoryTessalo(handle);
}

int32_t Session::onEvent(void* user, int32_t event) {
    static_cast<Session*>(user)->receive(event);
    return 0;
}

void Session::receive(int32_t event) {
    // Runs on the library's threads. Only the calls that are allowed here.
    if (event == kHostEventPicReady) takePicture();
    if (event == kHostEventCutDone) {
        std::lock_guard<std::mutex> lock(mutex);
        if (offsetCount > 0) {
            report.assign(static_cast<size_t>(offsetCount), EditOffset{0, 0});
            int32_t written = 0;
            reportRead = TSL_GetEditOffsetPts(handle, report.data(), offsetCount, &written);
            if (reportRead) report.resize(static_cast<size_t>(std::max<int32_t>(0, std::min(written, offsetCount))));
        }
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
    }
    changed.notify_all();
}

void Session::takePicture() {
    Picture picture;
    const int32_t size = TSL_GetOnePicSize(handle);
    if (size <= 0) return;
    picture.bytes.resize(static_cast<size_t>(size));
    uint8_t key = 0;
    const int32_t copied = TSL_GetPic(handle, picture.bytes.data(), &picture.pts, &key);
    if (copied <= 0) return;
    picture.bytes.resize(static_cast<size_t>(copied));
    picture.key = key != 0;

    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return !draining || queue.size() < kQueueLimit; });
    if (draining) queue.push_back(std::move(picture));
}

bool Session::waitUntil(std::unique_lock<std::mutex>& lock, const std::function<bool()>& done,
                        std::chrono::milliseconds quiet) {
    using clock = std::chrono::steady_clock;
    auto lastEvent = clock::now();
    size_t eventsSeen = events.size();
    while (!done()) {
        changed.wait_until(lock, lastEvent + quiet);
        if (done()) return true;
        if (events.size() != eventsSeen) {
            lastEvent = clock::now();
            eventsSeen = events.size();
        } else if (clock::now() - lastEvent >= quiet) {
            return false;
        }
    }
    return true;
}

std::chrono::milliseconds Session::wholeFileBudget(const std::string& path) const {
    std::error_code error;
    const uintmax_t bytes = std::filesystem::file_size(path, error);
    if (error) return idle;
    return idle + std::chrono::milliseconds(bytes / (kSlowDisk / 1000));
}

int32_t Session::firstOf(size_t from, std::initializer_list<int32_t> wanted) const {
    for (size_t i = from; i < events.size(); ++i)
        if (std::find(wanted.begin(), wanted.end(), events[i]) != wanted.end()) return events[i];
    return kSilent;
}

int32_t Session::index(const std::string& path) {
    std::unique_lock<std::mutex> lock(mutex);
    const size_t from = events.size();
    lock.unlock();
    if (!TSL_StartPic(handle, path.c_str())) return kHostEventError;
    lock.lock();
    indexedPath = path;
    const std::initializer_list<int32_t> ends = {kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec,
                       kHostEventBadSampleRate, kHostEventBadChannels, kHostEventNoVideo, kHostEventUnassigned};
    waitUntil(lock, [&] { return firstOf(from, ends) != kSilent; }, wholeFileBudget(path));
    return firstOf(from, ends);
}

TessaloMediaInfo Session::mediaInfo() const {
    TessaloMediaInfo info{};
    TSL_GetMediaInfo(handle, &info);
    return info;
}

std::vector<int64_t> Session::keys() const {
    const int32_t count = TSL_GetKeyPtsCount(handle);
    if (count <= 0) return {};
    std::vector<int64_t> out(static_cast<size_t>(count));
    const int32_t written = TSL_GetKeyPts(handle, out.data());
    out.resize(static_cast<size_t>(std::clamp(written, 0, count)));
    return out;
}

std::vector<int64_t> Session::group(int64_t key) const {
    const int32_t count = TSL_GetPtsCountByKeyPts(handle, key);
    if (count <= 0) return {};
    size_t sharing = 0;
    for (const int64_t k : keys()) sharing += k == key;
    if (sharing <= 1) {
        std::vector<int64_t> out(static_cast<size_t>(count));
        const int32_t written = TSL_GetPtsByKeyPts(handle, key, out.data());
        out.resize(static_cast<size_t>(std::clamp(written, 0, count)));
        return out;
    }
    // Several groups open at this timestamp (two video streams both start
    // groups at 0, 1000, ...). The count covers only the first of them, but
    // the list covers all, and the others' sizes are not exposed. Every
    // timestamp of the list is a video sample of the file: the file's own
    // count of them bounds the list.
    const int64_t samples = videoSampleCount(indexedPath);
    if (samples < count || samples > INT32_MAX)
        throw std::runtime_error("cannot tell how many pictures the groups at " + std::to_string(key) + " ms hold");
    std::vector<int64_t> out(static_cast<size_t>(samples));
    const int32_t written = TSL_GetPtsByKeyPts(handle, key, out.data());
    out.resize(static_cast<size_t>(std::clamp<int64_t>(written, 0, samples)));
    return out;
}

PictureRun Session::pictures(const std::vector<int64_t>& pts, int32_t format,
                             const std::function<void(const Picture&)>& onPicture) {
    PictureRun run;
    TSL_SetOutputPicFormat(handle, format);
    std::unique_lock<std::mutex> lock(mutex);
    const size_t from = events.size();
    queue.clear();
    draining = true;
    lock.unlock();
    if (!TSL_GetPicByPts(handle, pts.data(), static_cast<int32_t>(pts.size()))) {
        lock.lock();
        draining = false;
        run.end = kHostEventError;
        return run;
    }
    lock.lock();
    const std::initializer_list<int32_t> ends = {kHostEventPicDone, kHostEventFileError, kHostEventError};
    for (;;) {
        const bool settled = waitUntil(lock, [&] { return !queue.empty() || firstOf(from, ends) != kSilent; }, idle);
        if (!queue.empty()) {
            Picture picture = std::move(queue.front());
            queue.pop_front();
            lock.unlock();
            changed.notify_all();
            try {
                onPicture(picture);
            } catch (...) {
                lock.lock();
                draining = false;
                queue.clear();
                lock.unlock();
                changed.notify_all();
                throw;
            }
            ++run.delivered;
            lock.lock();
            continue;
        }
        if (!settled) break;
        run.end = firstOf(from, ends);
        break;
    }
    draining = false;
    for (size_t i = from; i < events.size(); ++i) {
        if (events[i] == kHostEventNoPic) run.noPicture = true;
        if (events[i] == kHostEventDecodeError) ++run.decodeErrors;
    }
    lock.unlock();
    changed.notify_all();
    return run;
}

CutRun Session::cut(const std::string& src, const std::string& dst, const std::vector<EditRange>& ranges,
                    const std::vector<EditOffset>& offsets, int32_t kind) {
    CutRun run;
    std::unique_lock<std::mutex> lock(mutex);
    const size_t from = events.size();
    offsetCount = static_cast<int32_t>(offsets.size());
    report.clear();
    reportRead = false;
    lock.unlock();
    run.accepted = TSL_CutFile(handle, src.c_str(), dst.c_str(), ranges.data(), static_cast<int32_t>(ranges.size()),
                               offsets.empty() ? nullptr : offsets.data(), static_cast<int32_t>(offsets.size()),
                               kind);
    if (run.accepted) {
        lock.lock();
        waitUntil(lock, [&] { return firstOf(from, {kHostEventCutDone, kHostEventCutFailed}) != kSilent; },
                  wholeFileBudget(src));
        run.end = firstOf(from, {kHostEventCutDone, kHostEventCutFailed});
        run.offsets = report;
        run.reportRead = reportRead;
        lock.unlock();
    }
    // Releases the job in every case: after a completed job it only joins the
    // thread; after a silent one it stops it.
    TSL_CancelFile(handle);
    return run;
}

const char* eventName(int32_t event) {
    switch (event) {
        case kHostEventMediaInfo: return "media info";
        case kHostEventIndexReady: return "index ready";
        case kHostEventPicStart: return "picture start";
        case kHostEventPicReady: return "picture ready";
        case kHostEventPicDone: return "picture done";
        case kHostEventFileError: return "file error";
        case kHostEventError: return "error";
        case kHostEventBadCodec: return "bad codec";
        case kHostEventBadSampleRate: return "bad sample rate";
        case kHostEventBadChannels: return "bad channels";
        case kHostEventNoPic: return "no picture";
        case kHostEventDecodeError: return "decode error";
        case kHostEventUnassigned: return "unassigned";
        case kHostEventNoVideo: return "no video";
        case kHostEventCutFailed: return "cut failed";
        case kHostEventCutDone: return "cut done";
        default: return "unknown event";
    }
}

}  // namespace tslcli
