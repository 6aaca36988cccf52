#include "mux/FileMuxer.h"

#include <cstdio>

#include "base/Results.h"

// These messages reach standard output on purpose: a wrong calling order is a
// programming error of the caller, and it is what a developer sees first.

int32_t FileMuxer::setOutputFile(const char*) { return kOk; }

int32_t FileMuxer::addVideoTrack(const VideoTrackInfo*) {
    if (state == 1) return kOk;
    printf("addVideoTrack() must be called after constructor and before start().\n");
    return kErrInvalidState;
}

int32_t FileMuxer::addAudioTrack(const AudioTrackInfo*) {
    if (state == 1) return kOk;
    printf("addAudioTrack() must be called after constructor and before start().");
    return kErrInvalidState;
}

int32_t FileMuxer::start() {
    if (state == 1) {
        state = 2;
        return kOk;
    }
    printf("start() is called in invalid state %d", state);
    return kErrInvalidState;
}

int32_t FileMuxer::WriteSampleData(const uint8_t*, int32_t, int32_t, int64_t, int64_t, uint32_t) {
    if (state == 2) return kOk;
    printf("WriteSampleData() is called in invalid state %d", state);
    return kErrInvalidState;
}

int32_t FileMuxer::stop() {
    if (state == 2) {
        state = 3;
        return kOk;
    }
    printf("stop() is called in invalid state %d", state);
    return kErrInvalidState;
}

void FileMuxer::setNotify(FileMuxerNotify*) {}

bool FileMuxer::writeFailed() const { return false; }
