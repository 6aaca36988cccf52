#pragma once

// How a muxer tells its owner that the file is finished. Called on the muxer's
// writing thread, once per successful start, after the trailer is written and
// the file closed. Never deleted through this interface.
class FileMuxerNotify {
public:
    virtual void onMuxComplete() = 0;

protected:
    ~FileMuxerNotify() = default;
};
