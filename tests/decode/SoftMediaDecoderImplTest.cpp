// The decoder interface: packing pictures into one I420 block, the results it
// maps, the parameter plumbing, and real decoding checked against ffmpeg.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>

#include "MediaPackets.h"
#include "base/BasePacket.h"
#include "base/Results.h"
#include "decode/BaseCodec.h"
#include "decode/FrameInfo.h"
#include "decode/SoftMediaDecoder.h"
#include "decode/SoftMediaDecoderImpl.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

// Stands in for the codec so that the packing sees planes of a chosen shape.
class ScriptedCodec : public BaseCodec {
public:
    int32_t outputBuffer(BaseBuffer* out) override {
        if (result != kOk) return result;
        auto* info = reinterpret_cast<PlanarPictureInfo*>(out->data);
        for (int i = 0; i < 3; ++i) {
            info->planes[i] = planes[i].data();
            info->strides[i] = strides[i];
        }
        info->width = width;
        info->height = height;
        out->pts = pts;
        out->flags = key ? 1 : 0;
        return kOk;
    }
    int32_t setParameter(int32_t id, void* value) override {
        lastId = id;
        if (id == kCodecParamExtraData) {
            auto* b = static_cast<BaseBuffer*>(value);
            extraSize = b->size;
            extraBytes = b->data;
        }
        return kOk;
    }
    // A picture whose every byte tells its plane, row and column.
    void shape(int32_t w, int32_t h, int32_t pad) {
        width = w;
        height = h;
        int32_t cw = w >> 1, ch = h >> 1;
        strides[0] = w + pad;
        strides[1] = strides[2] = cw + pad;
        // One chroma row and column more than the packing reads, as a
        // decoder's frame has for odd sizes.
        planes[0].assign(static_cast<size_t>(strides[0]) * h, 0xEE);
        for (int p = 1; p < 3; ++p) planes[p].assign(static_cast<size_t>(strides[p]) * (ch + 1), 0xEE);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) planes[0][y * strides[0] + x] = static_cast<uint8_t>(y * 16 + x);
        for (int p = 1; p < 3; ++p)
            for (int y = 0; y < ch; ++y)
                for (int x = 0; x < cw; ++x)
                    planes[p][y * strides[p] + x] = static_cast<uint8_t>(0x80 * (p - 1) + 0x40 + y * 8 + x);
    }
    // The packing as it must come out: rows without their tails, Y U V.
    std::vector<uint8_t> expectedPacked() const {
        std::vector<uint8_t> v;
        for (int y = 0; y < height; ++y)
            v.insert(v.end(), planes[0].begin() + y * strides[0], planes[0].begin() + y * strides[0] + width);
        for (int p = 1; p < 3; ++p)
            for (int y = 0; y < (height >> 1); ++y)
                v.insert(v.end(), planes[p].begin() + y * strides[p],
                         planes[p].begin() + y * strides[p] + (width >> 1));
        return v;
    }

    int32_t result = kOk;
    std::vector<uint8_t> planes[3];
    int32_t strides[3] = {0, 0, 0};
    int32_t width = 0, height = 0;
    int64_t pts = 0;
    bool key = false;
    int32_t lastId = -1;
    int32_t extraSize = -1;
    uint8_t* extraBytes = nullptr;
};

struct ScriptedDecoder {
    ScriptedDecoder() : impl(kMediaKindVideo) {
        delete impl.codec;
        impl.codec = codec = new ScriptedCodec;
    }
    SoftMediaDecoderImpl impl;
    ScriptedCodec* codec;
};

}  // namespace

TEST(SoftMediaDecoderImplPacking, StridesWiderThanTheWidthArePackedAway) {
    ScriptedDecoder d;
    d.codec->shape(6, 4, 10);
    d.codec->pts = 1234;
    d.codec->key = true;
    VideoPacket packet;
    ASSERT_EQ(d.impl.outputData(&packet), 1);
    ASSERT_EQ(packet.size, 36u);  // 24 Y + 6 U + 6 V
    std::vector<uint8_t> want = d.codec->expectedPacked();
    ASSERT_EQ(want.size(), 36u);
    EXPECT_EQ(0, std::memcmp(packet.data, want.data(), 36));
    EXPECT_EQ(packet.width, 6);
    EXPECT_EQ(packet.height, 4);
    EXPECT_EQ(packet.pts, 1234);
    EXPECT_EQ(packet.dts, 1234);
    EXPECT_TRUE(packet.keyFrame);
}

TEST(SoftMediaDecoderImplPacking, OddSizesLeaveTheBlockTailUntouched) {
    ScriptedDecoder d;
    d.codec->shape(5, 3, 3);
    VideoPacket packet;
    ASSERT_EQ(d.impl.outputData(&packet), 1);
    ASSERT_EQ(packet.size, 22u);
    // Same size again: the block is kept, so a marked tail must survive.
    uint8_t* block = packet.data;
    std::memset(block, 0x5A, 22);
    ASSERT_EQ(d.impl.outputData(&packet), 1);
    EXPECT_EQ(packet.data, block);
    std::vector<uint8_t> want = d.codec->expectedPacked();
    ASSERT_EQ(want.size(), 19u);  // 15 Y, 2 U, 2 V
    EXPECT_EQ(0, std::memcmp(packet.data, want.data(), 19));
    for (int i = 19; i < 22; ++i) EXPECT_EQ(packet.data[i], 0x5A) << "byte " << i;
    EXPECT_FALSE(packet.keyFrame);
}

TEST(SoftMediaDecoderImplPacking, BlockIsReplacedOnlyWhenTheSizeChanges) {
    ScriptedDecoder d;
    VideoPacket packet;
    d.codec->shape(6, 4, 2);
    ASSERT_EQ(d.impl.outputData(&packet), 1);
    uint8_t* first = packet.data;
    ASSERT_EQ(d.impl.outputData(&packet), 1);
    EXPECT_EQ(packet.data, first);
    d.codec->shape(8, 6, 0);
    ASSERT_EQ(d.impl.outputData(&packet), 1);
    EXPECT_EQ(packet.size, 72u);
    std::vector<uint8_t> want = d.codec->expectedPacked();
    EXPECT_EQ(0, std::memcmp(packet.data, want.data(), want.size()));
    d.codec->shape(2, 2, 0);
    ASSERT_EQ(d.impl.outputData(&packet), 1);
    EXPECT_EQ(packet.size, 6u);
    EXPECT_EQ(packet.width, 2);
}

TEST(SoftMediaDecoderImplPacking, CodecResultsMapToNoneOrFailure) {
    ScriptedDecoder d;
    VideoPacket packet;
    d.codec->result = kErrNoFrame;
    EXPECT_EQ(d.impl.outputData(&packet), 0);
    d.codec->result = kErrInvalidState;
    EXPECT_EQ(d.impl.outputData(&packet), 0);
    d.codec->result = kErrInvalidArgument;
    EXPECT_EQ(d.impl.outputData(&packet), 2);
    EXPECT_EQ(packet.data, nullptr);
    EXPECT_EQ(packet.size, 0u);
}

TEST(SoftMediaDecoderImplParameters, ExtraDataLengthComesFromTheEarlierCall) {
    ScriptedDecoder d;
    uint8_t bytes[40] = {1};
    d.impl.setParameter(kDecoderParamExtraData, bytes);  // no length yet
    EXPECT_EQ(d.codec->lastId, kCodecParamExtraData);
    EXPECT_EQ(d.codec->extraSize, 0);
    int32_t n = 40;
    d.impl.setParameter(kDecoderParamExtraSize, &n);
    EXPECT_EQ(d.codec->lastId, kCodecParamExtraData);  // the codec saw nothing new
    d.impl.setParameter(kDecoderParamExtraData, bytes);
    EXPECT_EQ(d.codec->extraSize, 40);
    EXPECT_EQ(d.codec->extraBytes, bytes);
    d.codec->lastId = -1;
    d.impl.setParameter(4, &n);
    EXPECT_EQ(d.codec->lastId, -1);
    int32_t threads = 4;
    d.impl.setParameter(kDecoderParamThreads, &threads);
    EXPECT_EQ(d.codec->lastId, kCodecParamThreads);
    d.impl.setParameter(kDecoderParamFlush, nullptr);
    EXPECT_EQ(d.codec->lastId, kCodecParamFlush);
}

TEST(SoftMediaDecoderImplOpen, FailsAfterAFailedInitAndRefusesEmptyInput) {
    SoftMediaDecoderImpl bad(7);  // no such kind: init refuses it
    EXPECT_EQ(bad.open(), 0);
    SoftMediaDecoderImpl video(kMediaKindVideo);
    const MediaStream& s = readStream(tsltest::media("main.mp4"), false);
    int32_t n = static_cast<int32_t>(s.extraData.size());
    video.setParameter(kDecoderParamExtraSize, &n);
    video.setParameter(kDecoderParamExtraData, const_cast<uint8_t*>(s.extraData.data()));
    ASSERT_EQ(video.open(), 1);
    uint8_t byte = 0;
    EXPECT_EQ(video.inputData(nullptr, 10, 0, 0), kErrInvalidArgument);
    EXPECT_EQ(video.inputData(&byte, 0, 0, 0), kErrInvalidArgument);
    VideoPacket packet;
    EXPECT_EQ(video.outputData(&packet), 0);
    EXPECT_EQ(video.close(), kOk);
}

namespace {

// ffmpeg's md5 of each key picture of a file, in presentation order.
std::vector<std::string> ffmpegKeyMd5(const std::string& path) {
    int status = -1;
    std::string text = tsltest::run("ffmpeg -v error -skip_frame nokey -i " + tsltest::shellQuote(path) +
                                        " -map 0:v:0 -pix_fmt yuv420p -f framemd5 -",
                                    &status);
    EXPECT_EQ(status, 0);
    std::vector<std::string> md5s;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#') continue;
        md5s.push_back(line.substr(line.rfind(',') + 2));
    }
    return md5s;
}

}  // namespace

// The key samples of main.mp4, four decoding threads as the instance asks:
// pictures lag their samples, carry their own pts, and each equals ffmpeg's.
TEST(SoftMediaDecoderImplDecode, KeyPicturesMatchFfmpeg) {
    const std::string path = tsltest::media("main.mp4");
    const MediaStream s = readStream(path, false);
    ASSERT_TRUE(s.ok);
    std::vector<std::string> want = ffmpegKeyMd5(path);
    ASSERT_EQ(want.size(), 5u);

    SoftMediaDecoderImpl d(kMediaKindVideo);
    int32_t n = static_cast<int32_t>(s.extraData.size());
    int32_t threads = 4;
    d.setParameter(kDecoderParamExtraSize, &n);
    d.setParameter(kDecoderParamExtraData, const_cast<uint8_t*>(s.extraData.data()));
    d.setParameter(kDecoderParamThreads, &threads);
    ASSERT_EQ(d.open(), 1);

    // Key samples, then the rest of the last group to push the pictures out.
    size_t lastKey = 0;
    for (size_t i = 0; i < s.samples.size(); ++i)
        if (s.samples[i].key) lastKey = i;
    std::map<int64_t, std::string> keyPictures;  // pts -> md5
    VideoPacket packet;
    int emptyCalls = 0;
    bool pictureSeen = false;
    for (size_t i = 0; i < s.samples.size(); ++i) {
        const MediaSample& m = s.samples[i];
        if (!m.key && i < lastKey) continue;
        ASSERT_EQ(d.inputData(const_cast<uint8_t*>(m.bytes.data()), static_cast<int32_t>(m.bytes.size()),
                              m.pts, m.dts),
                  kOk);
        int32_t r = d.outputData(&packet);
        ASSERT_NE(r, 2);
        if (r == 0 && !pictureSeen) ++emptyCalls;
        if (r != 1) continue;
        if (!pictureSeen) {
            EXPECT_NE(packet.pts, m.pts) << "the first picture is an earlier sample's";
            pictureSeen = true;
        }
        ASSERT_EQ(packet.size, 320u * 240 * 3 / 2);
        if (packet.keyFrame) keyPictures[packet.pts] = tsltest::md5(packet.data, packet.size);
    }
    EXPECT_GT(emptyCalls, 0) << "frame threading holds the first pictures back";
    EXPECT_EQ(d.close(), kOk);

    std::vector<std::string> got;
    for (auto& [pts, md5] : keyPictures) got.push_back(md5);
    EXPECT_EQ(got, want);
}

// AAC of main.mp4 through the audio side: planar float comes out as
// interleaved 16-bit stereo, equal to ffmpeg's own conversion.
TEST(SoftMediaDecoderImplDecode, AudioIsConvertedToInterleavedStereo) {
    const std::string path = tsltest::media("main.mp4");
    const MediaStream s = readStream(path, true);
    ASSERT_TRUE(s.ok);
    ASSERT_GT(s.samples.size(), 20u);
    SoftMediaDecoderImpl d(kMediaKindAudio);
    int32_t n = static_cast<int32_t>(s.extraData.size());
    d.setParameter(kDecoderParamExtraSize, &n);
    d.setParameter(kDecoderParamExtraData, const_cast<uint8_t*>(s.extraData.data()));
    ASSERT_EQ(d.open(), 1);
    std::vector<uint8_t> pcm;
    VideoPacket packet;
    const size_t frames = 20;
    for (size_t i = 0; i < frames; ++i) {
        const MediaSample& m = s.samples[i];
        ASSERT_EQ(d.inputData(const_cast<uint8_t*>(m.bytes.data()), static_cast<int32_t>(m.bytes.size()),
                              m.pts, m.dts),
                  kOk);
        ASSERT_EQ(d.outputData(&packet), 1) << "frame " << i;
        ASSERT_EQ(packet.size, 1024u * 4);
        EXPECT_EQ(packet.sampleRate, 44100);
        EXPECT_EQ(packet.height, 2);
        EXPECT_EQ(packet.pts, m.pts);
        pcm.insert(pcm.end(), packet.data, packet.data + packet.size);
    }
    EXPECT_EQ(d.close(), kOk);

    // ffmpeg without its priming skip, so that frame k is bytes [4096k, 4096(k+1)).
    int status = -1;
    std::string ref = tsltest::run("ffmpeg -v error -flags2 +skip_manual -i " + tsltest::shellQuote(path) +
                                       " -map 0:a -f s16le -ac 2 - 2>/dev/null | head -c " + std::to_string(pcm.size()),
                                   &status);
    ASSERT_EQ(ref.size(), pcm.size());
    int maxDiff = 0;
    for (size_t i = 0; i + 1 < pcm.size(); i += 2) {
        int16_t a, b;
        std::memcpy(&a, &pcm[i], 2);
        std::memcpy(&b, &ref[i], 2);
        maxDiff = std::max(maxDiff, std::abs(a - b));
    }
    EXPECT_LE(maxDiff, 1);
    // Not silence: the tone is there.
    EXPECT_NE(std::count(pcm.begin(), pcm.end(), 0), static_cast<long>(pcm.size()));
}

TEST(SoftMediaDecoderImplDecode, MonoAudioBecomesStereo) {
    const MediaStream s = readStream(tsltest::media("mono48k.mp4"), true);
    ASSERT_TRUE(s.ok);
    SoftMediaDecoderImpl d(kMediaKindAudio);
    int32_t n = static_cast<int32_t>(s.extraData.size());
    d.setParameter(kDecoderParamExtraSize, &n);
    d.setParameter(kDecoderParamExtraData, const_cast<uint8_t*>(s.extraData.data()));
    ASSERT_EQ(d.open(), 1);
    VideoPacket packet;
    for (size_t i = 0; i < 5; ++i) {
        const MediaSample& m = s.samples[i];
        d.inputData(const_cast<uint8_t*>(m.bytes.data()), static_cast<int32_t>(m.bytes.size()), m.pts, m.dts);
        ASSERT_EQ(d.outputData(&packet), 1);
        EXPECT_EQ(packet.size, 1024u * 4);
        EXPECT_EQ(packet.sampleRate, 48000);
        EXPECT_EQ(packet.height, 2);
        // Both channels carry the one mono signal.
        for (size_t k = 0; k + 3 < packet.size; k += 4)
            ASSERT_EQ(0, std::memcmp(packet.data + k, packet.data + k + 2, 2)) << "sample " << k / 4;
    }
    EXPECT_EQ(d.close(), kOk);
}
