#include "Host.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <climits>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace tslcli {
namespace {

// Bytes this process has read and written so far (all threads), from
// /proc/self/io, and the bytes that reading it cost. The library's threads
// show their work here even when they send no event for a long time, as
// during an index walk or a cut. Zero where the file is missing.
struct IoCount {
    uint64_t total = 0;
    uint64_t selfCost = 0;
};

IoCount processIo() {
    IoCount io;
    const int fd = ::open("/proc/self/io", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return io;
    char text[1024];
    const ssize_t n = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    if (n <= 0) return io;
    text[n] = '\0';
    io.selfCost = static_cast<uint64_t>(n);
    for (const char* field : {"rchar:", "wchar:"})
        if (const char* at = std::strstr(text, field)) io.total += std::strtoull(at + std::strlen(field), nullptr, 10);
    return io;
}

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

bool Session::waitUntil(std::unique_lock<std::mutex>& lock, const std::function<bool()>& done) {
    using clock = std::chrono::steady_clock;
    auto lastSign = clock::now();
    size_t eventsSeen = events.size();
    IoCount io = processIo();
    while (!done()) {
        changed.wait_for(lock, std::chrono::milliseconds(200));
        if (done()) return true;
        const IoCount now = processIo();
        const bool moved = now.total > io.total + io.selfCost;
        const auto at = clock::now();
        if (events.size() != eventsSeen || moved) {
            lastSign = at;
            eventsSeen = events.size();
        } else if (at - lastSign >= idle) {
            return false;
        }
        io = now;
    }
    return true;
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
    const std::initializer_list<int32_t> ends = {kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec,
                       kHostEventBadSampleRate, kHostEventBadChannels, kHostEventNoVideo, kHostEventUnassigned};
    waitUntil(lock, [&] { return firstOf(from, ends) != kSilent; });
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
    // the list covers all, and the others' sizes are not exposed. The one
    // bound is the interface's own: the result is a 32-bit count. So the
    // block is a reservation of that many values that the system backs only
    // where the library writes.
    const size_t room = static_cast<size_t>(INT32_MAX);
    const size_t bytes = room * sizeof(int64_t);
    void* block = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (block == MAP_FAILED) throw std::runtime_error("no memory for the timestamps of the groups at " + std::to_string(key) + " ms");
    const int32_t written = TSL_GetPtsByKeyPts(handle, key, static_cast<int64_t*>(block));
    const int64_t* values = static_cast<const int64_t*>(block);
    std::vector<int64_t> out(values, values + std::max(0, written));
    ::munmap(block, bytes);
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
        const bool settled = waitUntil(lock, [&] { return !queue.empty() || firstOf(from, ends) != kSilent; });
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
        waitUntil(lock, [&] { return firstOf(from, {kHostEventCutDone, kHostEventCutFailed}) != kSilent; });
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
