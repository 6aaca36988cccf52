#pragma once
// An instance as a host drives it for real cuts: it walks the file, then runs cut jobs to their end event,
// taking the offsets report inside the done event as a host does.
#include "edit/FileEditer.h"
#include "instance/TessaloImpl.h"
#include "support/TestSupport.h"

struct RealHost {
    RealHost() = default;
    // Walks `src` at once; a walk that fails shows in the cut that follows, refused without an index.
    explicit RealHost(const std::string& src) { index(src); }
    static int32_t callback(void* user, int32_t event) {
        auto* self = static_cast<RealHost*>(user);
        std::vector<EditOffset> got(self->asked);
        int32_t n = 0;
        if (event == kHostEventCutDone && self->in.editor->getEditOffsetPts(got.data(), int32_t(got.size()), &n))
            self->report.assign(got.begin(), got.begin() + n);
        self->events.record(event);
        return 0;
    }
    bool index(const std::string& src) { return in.startPic(src.c_str()) && events.waitFor(kHostEventIndexReady); }
    // One job from cut to its end event, then released: the event, or -1 when the cut was refused.
    int32_t cut(const std::string& src, const std::string& out, const std::vector<EditRange>& ranges, int32_t kind,
                const std::vector<EditOffset>& offsets = {}) {
        events.clear();
        report.clear();
        asked = offsets.size();
        if (!in.editor->cut(src.c_str(), out.c_str(), ranges.data(), int32_t(ranges.size()), offsets.data(),
                            int32_t(offsets.size()), kind))
            return -1;
        const int32_t end = events.waitForAny({kHostEventCutDone, kHostEventCutFailed});
        in.editor->stopCut();
        in.editor->releaseCut();
        return end;
    }

    tsltest::EventRecorder events;
    size_t asked = 0;
    std::vector<EditOffset> report;
    Morvel_Tessalo::TessaloImpl in{this, &RealHost::callback};  // last: its threads end before the rest goes
};
