#pragma once
// A host of the exports: it walks files, asks for pictures and cuts, and takes each picture inside
// kHostEventPicReady as a real host does. Shared by the tests that go through the shared library.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "support/TestSupport.h"
#include "tessalo.h"

namespace tsltest {

using Events = std::vector<int32_t>;
const Events kOnePicture{kHostEventPicStart, kHostEventPicReady, kHostEventPicDone};
const Events kWalkEnds{kHostEventIndexReady, kHostEventFileError, kHostEventError,  kHostEventBadCodec,
                       kHostEventBadSampleRate, kHostEventBadChannels, kHostEventNoVideo};
constexpr std::chrono::seconds kWait{60};
constexpr int32_t kRefused = -2;  // the export said no; -1 is an end that never came

struct Picture {
    int64_t pts = 0;
    uint8_t key = 0;
    std::vector<uint8_t> bytes;
};

class Host {
public:
    Host() : handle(TSL_CreateTessalo(this, &Host::callback)) {}
    ~Host() { TSL_DestoryTessalo(handle); }
    // Walks `path` to its end: the ending event.
    int32_t walk(const std::string& path) {
        events.clear();
        return TSL_StartPic(handle, path.c_str()) ? events.waitForAny(kWalkEnds, kWait) : kRefused;
    }
    bool index(const std::string& path) { return walk(path) == kHostEventIndexReady; }
    bool send(const std::vector<int64_t>& pts) { return TSL_GetPicByPts(handle, pts.data(), int32_t(pts.size())); }
    // Sends a request and waits for its end: its events, from PicStart on.
    Events request(const std::vector<int64_t>& pts) {
        events.clear();
        pictures.clear();
        if (!send(pts)) return {};
        events.waitForAny({kHostEventPicDone, kHostEventError, kHostEventFileError}, kWait);
        return events.events();
    }
    bool startCut(const std::string& src, const std::string& dst, EditRange range, int32_t kind = kCutKindSynced) {
        return TSL_CutFile(handle, src.c_str(), dst.c_str(), &range, 1, nullptr, 0, kind);
    }
    // One range cut to its end: the ending event.
    int32_t cut(const std::string& src, const std::string& dst, EditRange range, int32_t kind = kCutKindSynced) {
        events.clear();
        return startCut(src, dst, range, kind) ? events.waitForAny({kHostEventCutDone, kHostEventCutFailed}, kWait)
                                               : kRefused;
    }
    std::vector<int64_t> keyPts() {
        std::vector<int64_t> out(size_t(std::max(TSL_GetKeyPtsCount(handle), 0)));
        out.resize(size_t(std::max(TSL_GetKeyPts(handle, out.data()), 0)));
        return out;
    }
    std::vector<int64_t> groupPts(int64_t key) {
        std::vector<int64_t> out(size_t(std::max(TSL_GetPtsCountByKeyPts(handle, key), 0)));
        out.resize(size_t(std::max(TSL_GetPtsByKeyPts(handle, key, out.data()), 0)));
        return out;
    }
    // Every timestamp of the file in presentation order, group after group.
    std::vector<int64_t> allPts() {
        std::vector<int64_t> all;
        for (int64_t key : keyPts())
            for (int64_t pts : groupPts(key)) all.push_back(pts);
        return all;
    }

    void* handle;
    EventRecorder events;
    std::vector<Picture> pictures;            // filled before each event is recorded; read once a request has ended
    std::function<void(int32_t)> inside;  // what the host does inside each callback, before the event is recorded

private:
    static int32_t callback(void* user, int32_t event) {
        auto* self = static_cast<Host*>(user);
        if (event == kHostEventPicReady) {
            Picture pic;
            pic.bytes.resize(size_t(std::max(TSL_GetOnePicSize(self->handle), 0)));
            EXPECT_EQ(pic.bytes.empty() ? 0 : TSL_GetPic(self->handle, pic.bytes.data(), &pic.pts, &pic.key),
                      int32_t(pic.bytes.size()));
            EXPECT_EQ(TSL_GetPicPts(self->handle), pic.pts);
            self->pictures.push_back(std::move(pic));
        }
        if (self->inside) self->inside(event);
        self->events.record(event);
        return 0;
    }
};

}  // namespace tsltest
