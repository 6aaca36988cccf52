#pragma once
#include <cstdint>

#include "mux/FileMuxerNotify.h"
#include "mux/TrackInfo.h"

// The writer interface of the cut engine: name the output, declare the tracks
// (audio first), start, hand over samples, stop. The base operations hold the
// state machine and complain about a wrong calling order; implementations
// call them first.
//
// Threads: the cut engine names the output, declares the tracks, sets the
// notify and starts on the host's thread (TSL_CutFile); WriteSampleData runs
// on the cut thread; stop runs on whichever thread ends the job (the cut
// thread, or the host's in TSL_CancelFile). The calls never overlap.
class FileMuxer {
public:
    // 0 under construction, 1 ready, 2 started, 3 stopped.
    int32_t state = 0;

    virtual ~FileMuxer() = default;
    virtual int32_t setOutputFile(const char* path);
    virtual int32_t addVideoTrack(const VideoTrackInfo* info);
    virtual int32_t addAudioTrack(const AudioTrackInfo* info);
    virtual int32_t start();
    virtual int32_t WriteSampleData(const uint8_t* data, int32_t size, int32_t track, int64_t pts,
                                    int64_t dts, uint32_t flags);
    virtual int32_t stop();
    virtual void setNotify(FileMuxerNotify* notify);
    // True once the file could not be written (a full disk, an I/O error):
    // what it holds is unusable. Any thread; final for the muxer's life.
    virtual bool writeFailed() const;

    // Set before start. True (the default): the writer moves the whole file so
    // that the lowest first dts of the tracks is 0. False: samples keep the
    // times they are given, so a first picture shown at 0 may be decoded
    // earlier, at a negative dts, which MP4 expresses with an edit list.
    bool shiftToZero = true;
    // Set before addVideoTrack: the degrees, clockwise, by which a player is
    // to turn the pictures for display (a phone's portrait video); 0 for none.
    int32_t displayRotation = 0;
};
