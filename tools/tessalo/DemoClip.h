#pragma once
#include <string>

namespace tslcli {

// Encodes a sample clip with the FFmpeg libraries: a moving test pattern with
// a running clock, 640x360 at 25 fps, H.264 (libx264, B-frames, a key frame
// every second) and a stereo AAC tone at 44100 Hz, into an MP4 at `path`.
// Throws std::runtime_error naming what failed.
void makeDemoClip(const std::string& path, int seconds);

}  // namespace tslcli
