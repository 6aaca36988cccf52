#pragma once
#include <cstdint>
#include <memory>

#include "base/BaseBuffer.h"
#include "decode/DecoderBase.h"
#include "decode/FrameInfo.h"

class BaseCodec;

namespace Morvel_Tessalo {

// The one decoder: a SoftMediaDecoder behind it, input staged without a
// copy, each decoded picture packed into one block of a VideoPacket (its
// planes without row padding, described by the packet's layout) so that no
// pointer into the decoding library's memory leaves this class. An 8-bit
// 4:2:0 picture packs into exactly the I420 block that format 0 hands out.
// Worker thread, as DecoderBase says.
class SoftMediaDecoderImpl : public DecoderBase {
public:
    explicit SoftMediaDecoderImpl(int32_t mediaKind);
    // Frees the codec without closing it: the owner calls close first.
    ~SoftMediaDecoderImpl() override;
    SoftMediaDecoderImpl(const SoftMediaDecoderImpl&) = delete;
    SoftMediaDecoderImpl& operator=(const SoftMediaDecoderImpl&) = delete;

    int32_t inputData(uint8_t* data, int32_t size, int64_t pts, int64_t dts) override;
    int32_t outputData(BasePacket* packet) override;
    int32_t open() override;
    int32_t close() override;
    void setParameter(int32_t id, void* value) override;

    std::unique_ptr<BaseCodec> codec;
    BaseBuffer input;
    BaseBuffer output;  // data points at audioInfo or pictureInfo, by kind
    AudioFrameInfo audioInfo;
    PlanarPictureInfo pictureInfo;
    int32_t extraDataSize = 0;
    int32_t mediaKind = kMediaKindVideo;

private:
    int32_t packPicture(BasePacket* packet);
    int32_t copyAudio(BasePacket* packet);
};

}  // namespace Morvel_Tessalo
