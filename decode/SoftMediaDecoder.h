#pragma once
#include <cstdint>
#include <memory>

#include "decode/BaseCodec.h"

#include "base/FFmpegHolders.h"

class BaseBuffer;

// Room for codec private data, and for one frame of converted audio.
constexpr int32_t kCodecExtraDataRoom = 0x100000;
constexpr int32_t kCodecAudioOutRoom = 0x100000;

// BaseCodec on libavcodec: H.264 (and a few other) video into planar 4:2:0
// plane pointers, or audio into interleaved 16-bit stereo through
// libswresample. One buffer in, one buffer out; the input is never copied here.
// Every operation runs on the thread of the picture request that owns it (the
// instance's worker thread).
class SoftMediaDecoder : public BaseCodec {
public:
    explicit SoftMediaDecoder(int32_t mediaKind);
    ~SoftMediaDecoder() override;
    SoftMediaDecoder(const SoftMediaDecoder&) = delete;
    SoftMediaDecoder& operator=(const SoftMediaDecoder&) = delete;

    int32_t init(int32_t codecType) override;
    int32_t uninit() override;
    int32_t setParameter(int32_t id, void* value) override;
    int32_t start() override;
    int32_t stop() override;
    int32_t inputBuffer(BaseBuffer* buffer) override;
    int32_t outputBuffer(BaseBuffer* out) override;

    int32_t state = kCodecStateUninit;
    int32_t mediaKind = 0;
    int32_t codecType = 0;
    int32_t threadCount = 1;
    bool flushing = false;
    bool draining = false;  // set by kCodecParamDrain, cleared by kCodecParamResume and start
    CodecContextHolder context;
    const AVCodec* decoder = nullptr;
    PacketHolder packet;  // its bytes are the caller's
    FrameHolder frame;
    ResamplerHolder resampler;
    std::unique_ptr<BaseBuffer> extraData;  // staging; data is extraDataBlock
    AvBlockHolder extraDataBlock;  // kCodecExtraDataRoom bytes
    AvBlockHolder audioOut;

private:
    int32_t stageExtraData(const BaseBuffer* in);
    int32_t setAudioParameter(int32_t id, void* value);
    int32_t decodeOnce(bool clearAfterSend);
    int32_t outputVideo(BaseBuffer* out);
    int32_t outputAudio(BaseBuffer* out);
    int32_t convertAudio();
    bool makeContext();
};
