#pragma once
// One instance of the library, driven from the program's main thread. The
// library reports through a callback on its own threads; this class turns
// those reports into blocking calls with a bounded wait, so that a library
// that falls silent becomes an error message instead of a stuck program.
// Its events are the only sign of work the library gives: a wait ends once
// none has come for `idle`, and an index walk or a cut, which report only
// their end, also get the time a slow disk takes to read the whole source.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tessalo.h"

namespace tslcli {

// What ended a wait: the event code, or kSilent when nothing more arrived.
constexpr int32_t kSilent = -1;

struct Picture {
    int64_t pts = 0;
    bool key = false;
    std::vector<uint8_t> bytes;
};

struct PictureRun {
    int32_t end = kSilent;   // kHostEventPicDone, a failure event, or kSilent
    size_t delivered = 0;
    bool noPicture = false;  // the library said the request found nothing
    int decodeErrors = 0;
};

struct CutRun {
    int32_t end = kSilent;  // kHostEventCutDone, kHostEventCutFailed, or kSilent
    bool accepted = false;  // TSL_CutFile took the job
    bool reportRead = false;
    std::vector<EditOffset> offsets;  // the offsets as the library rewrote them
};

class Session {
public:
    // `idle`: how long the library may send no event before a wait gives up.
    explicit Session(std::chrono::milliseconds idle);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool valid() const { return handle != nullptr; }

    // Indexes `path`. Returns kHostEventIndexReady, the failure event, or kSilent.
    int32_t index(const std::string& path);
    // Valid once index() returned kHostEventIndexReady.
    TessaloMediaInfo mediaInfo() const;
    std::vector<int64_t> keys() const;
    // Every timestamp of every group that opens at `key`.
    std::vector<int64_t> group(int64_t key) const;
    // Pictures in the first group with this key timestamp; 0 when none.
    int32_t groupSize(int64_t key) const { return std::max(0, TSL_GetPtsCountByKeyPts(handle, key)); }

    // One picture request. `onPicture` runs on the calling thread, in order of
    // arrival; an exception from it abandons the request and propagates.
    PictureRun pictures(const std::vector<int64_t>& pts, int32_t format,
                        const std::function<void(const Picture&)>& onPicture);

    // One cut job of `kind` with all ranges; the job is released before return.
    CutRun cut(const std::string& src, const std::string& dst, const std::vector<EditRange>& ranges,
               const std::vector<EditOffset>& offsets, int32_t kind);

private:
    // The library's threads: the callback, and what it does for an event.
    static int32_t onEvent(void* user, int32_t event);
    void receive(int32_t event);
    void takePicture();
    // Waits until `done` holds (lock held while testing) or no event has come
    // for `quiet`; returns whether `done` held.
    bool waitUntil(std::unique_lock<std::mutex>& lock, const std::function<bool()>& done,
                   std::chrono::milliseconds quiet);
    // `idle`, plus the time a slow disk takes to read all of `path`.
    std::chrono::milliseconds wholeFileBudget(const std::string& path) const;
    // First event at or after `from` that is one of `wanted`, or kSilent.
    int32_t firstOf(size_t from, std::initializer_list<int32_t> wanted) const;

    void* handle = nullptr;
    std::chrono::milliseconds idle;
    std::string indexedPath;

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<int32_t> events;
    std::deque<Picture> queue;  // pictures copied out in the callback, not yet handled
    bool draining = false;       // the host thread takes pictures; the callback may wait for room
    int32_t offsetCount = 0;
    std::vector<EditOffset> report;
    bool reportRead = false;
};

// The library's name for an event code, for messages.
const char* eventName(int32_t event);

}  // namespace tslcli
