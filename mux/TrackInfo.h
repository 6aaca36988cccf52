#pragma once
#include <cstdint>

// Declares the video track to a muxer. `extraData` is the Annex B form of the
// stream's parameter sets; the muxer copies what it keeps.
struct VideoTrackInfo {
    int32_t width;
    int32_t height;
    int32_t frameRate;
    int32_t codecType;  // 1: H.264, nothing else is accepted
    uint8_t* extraData;
    int32_t extraDataSize;
};

// Declares the audio track. The instance always gives 16 sample bits and no extra data.
struct AudioTrackInfo {
    int32_t sampleRate;
    int32_t channels;
    int32_t sampleBits;  // 8, 16 or 32
    int32_t codecType;   // 1: AAC, nothing else is accepted
    uint8_t* extraData;
    int32_t extraDataSize;
};

constexpr int32_t kTrackAudio = 0;
constexpr int32_t kTrackVideo = 1;
constexpr uint32_t kSampleFlagVideoKey = 0x40000100u;
constexpr uint32_t kSampleFlagAudio = 0x40000400u;
constexpr int64_t kTimestampUnset = -99999;
