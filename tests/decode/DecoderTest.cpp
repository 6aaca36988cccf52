// The codec's state machine, the packing of pictures into one I420 block, and the audio side,
// which only these tests create. Video decoding against ffmpeg is shown through the exports.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "base/BasePacket.h"
#include "base/FFmpegHolders.h"
#include "base/Results.h"
#include "decode/SoftMediaDecoder.h"
#include "decode/SoftMediaDecoderImpl.h"
#include "support/TestSupport.h"

extern "C" {
#include <libavformat/avformat.h>
}

using namespace Morvel_Tessalo;

namespace {

const std::string kMain = tsltest::media("main.mp4");

TEST(SoftMediaDecoder, RefusesCallsOutOfOrder) {
    SoftMediaDecoder c(kMediaKindVideo);
    uint8_t bytes[8] = {};  // staged only: nothing here decodes
    BaseBuffer out, extra(bytes, 0, 0, 0, 0), sample(bytes, 8, 0, 0, 0), empty(bytes, 0, 0, 0, 0);
    EXPECT_EQ(c.start(), kErrInvalidState);
    EXPECT_EQ(c.uninit(), kErrInvalidState);
    EXPECT_EQ(c.outputBuffer(&out), kErrInvalidState);
    EXPECT_EQ(c.setParameter(kCodecParamFlush, nullptr), kErrInvalidState);
    EXPECT_EQ(c.init(2), kErrUnsupported);  // no video codec of type 2
    ASSERT_EQ(c.init(1), kOk);
    EXPECT_EQ(c.init(1), kErrInvalidState);
    EXPECT_EQ(c.stop(), kErrInvalidState);
    EXPECT_EQ(c.inputBuffer(&sample), kErrInvalidState);
    ASSERT_EQ(c.setParameter(kCodecParamExtraData, &extra), kOk);
    ASSERT_EQ(c.start(), kOk);
    EXPECT_EQ(c.uninit(), kErrInvalidState);
    EXPECT_EQ(c.setParameter(kCodecParamExtraData, &extra), kErrInvalidState);
    EXPECT_EQ(c.outputBuffer(&out), kErrNoFrame);  // nothing staged
    ASSERT_EQ(c.inputBuffer(&sample), kOk);
    EXPECT_EQ(c.inputBuffer(&empty), kErrInvalidArgument);
    EXPECT_EQ(c.packet->data, sample.data);  // a refused input leaves the staged packet alone
    EXPECT_EQ(c.stop(), kOk);
    EXPECT_EQ(c.inputBuffer(&sample), kErrInvalidState);
    EXPECT_EQ(c.uninit(), kOk);
}

// FFmpeg sets the active thread type only once it has really started its threads.
TEST(SoftMediaDecoder, H264AskedForSeveralThreadsRunsFrameThreaded) {
    for (int32_t threads : {1, 4}) {
        SoftMediaDecoder c(kMediaKindVideo);
        ASSERT_EQ(c.init(1), kOk);
        ASSERT_EQ(c.setParameter(kCodecParamThreads, &threads), kOk);
        ASSERT_EQ(c.start(), kOk);
        EXPECT_EQ(c.context->active_thread_type, threads >= 2 ? FF_THREAD_FRAME : 0) << threads;
        EXPECT_EQ(c.context->thread_count, threads);
    }
}

// Stands in for the codec: planes of a chosen shape, each byte telling its plane, row and column.
struct ScriptedCodec : BaseCodec {
    int32_t outputBuffer(BaseBuffer* out) override {
        *reinterpret_cast<PlanarPictureInfo*>(out->data) = info;
        out->pts = 1234;
        out->flags = 1;
        return result;
    }
    void shape(int32_t w, int32_t h, int32_t pad) {
        info.width = w;
        info.height = h;
        for (int p = 0; p < 3; ++p) {
            const int32_t pw = p ? w >> 1 : w, ph = p ? h >> 1 : h, stride = pw + pad;
            planes[p].assign(static_cast<size_t>(stride) * (ph + 1), 0xEE);  // a row more than is read
            for (int i = 0; i < pw * ph; ++i)
                planes[p][i / pw * stride + i % pw] = static_cast<uint8_t>(p * 0x50 + i / pw * 8 + i % pw);
            info.planes[p] = planes[p].data();
            info.strides[p] = stride;
        }
    }
    int32_t result = kOk;
    PlanarPictureInfo info;
    std::vector<uint8_t> planes[3];
};

TEST(SoftMediaDecoderImpl, PacksPlanesIntoOneBlock) {
    SoftMediaDecoderImpl d(kMediaKindVideo);
    auto* codec = new ScriptedCodec;
    d.codec.reset(codec);
    // Y rows, then U, then V, without the stride tails: each byte as shape() wrote it.
    const auto packed = [](int32_t w, int32_t h) {
        std::vector<uint8_t> out;
        for (int p = 0; p < 3; ++p)
            for (int r = 0; r < (p ? h >> 1 : h); ++r)
                for (int c = 0; c < (p ? w >> 1 : w); ++c) out.push_back(static_cast<uint8_t>(p * 0x50 + r * 8 + c));
        return out;
    };
    const struct { int32_t w, h, pad; uint32_t size; bool sameBlock; std::vector<uint8_t> packed; } cases[] = {
        {6, 4, 10, 36, false, packed(6, 4)}, {6, 4, 2, 36, true, packed(6, 4)}, {5, 3, 3, 22, false, packed(5, 3)},
        {5, 3, 1, 22, true, packed(5, 3)}, {8, 6, 0, 72, false, {}}};
    VideoPacket packet;
    const uint8_t* block = nullptr;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " stride " << c.w + c.pad);
        codec->shape(c.w, c.h, c.pad);
        if (packet.data) std::memset(packet.data, 0xC3, packet.size);  // marks what the packing leaves alone
        ASSERT_EQ(d.outputData(&packet), 1);
        ASSERT_EQ(packet.size, c.size);
        EXPECT_EQ(std::vector<uint8_t>(packet.data, packet.data + c.packed.size()), c.packed);
        EXPECT_TRUE(!c.sameBlock || packet.data == block) << "the block was replaced";
        for (size_t i = c.packed.size(); c.sameBlock && i < packet.size; ++i) EXPECT_EQ(packet.data[i], 0xC3) << i;
        EXPECT_TRUE(packet.width == c.w && packet.height == c.h && packet.pts == 1234 && packet.keyFrame);
        block = packet.data;
    }
    codec->result = kErrNoFrame;
    EXPECT_EQ(d.outputData(&packet), 0);
    codec->result = kErrInvalidArgument;
    EXPECT_EQ(d.outputData(&packet), 2);
}

// Other layouts pack whole (chroma of an odd width rounded up), with what the
// output step needs to read them; full range travels beside the format, and
// a layout no output step could read is a failure, not a wrong picture.
TEST(SoftMediaDecoderImpl, PacksOtherLayoutsAndSaysWhatTheyAre) {
    SoftMediaDecoderImpl d(kMediaKindVideo);
    auto* codec = new ScriptedCodec;
    d.codec.reset(codec);
    VideoPacket packet;
    // 4:2:2, 10 bits, 5 x 3: rows of 10 and 6 bytes, chroma three columns wide.
    codec->shape(10, 3, 4);  // luma: 3 rows of 10 bytes, 5 two-byte samples each
    for (int p = 1; p < 3; ++p) {  // chroma: 3 rows of 6 bytes, stride 8
        codec->planes[p].assign(24, 0xEE);
        for (int i = 0; i < 18; ++i) codec->planes[p][i / 6 * 8 + i % 6] = static_cast<uint8_t>(p * 0x50 + i);
        codec->info.planes[p] = codec->planes[p].data();
        codec->info.strides[p] = 8;
    }
    codec->info.width = 5;
    codec->info.pixelFormat = AV_PIX_FMT_YUV422P10LE;
    codec->info.colorSpace = AVCOL_SPC_BT709;
    ASSERT_EQ(d.outputData(&packet), 1);
    const PictureLayout& l = packet.layout;
    EXPECT_TRUE(l.pixelFormat == AV_PIX_FMT_YUV422P10LE && l.bitDepth == 10 && l.planeCount == 3 && !l.fullRange &&
                l.matrix == AVCOL_SPC_BT709);
    EXPECT_EQ(std::vector<int32_t>(l.strides, l.strides + 3), (std::vector<int32_t>{10, 6, 6}));
    EXPECT_EQ(std::vector<int32_t>(l.offsets, l.offsets + 3), (std::vector<int32_t>{0, 30, 48}));
    ASSERT_EQ(packet.size, 66u);
    EXPECT_EQ(packet.data[36], 0x50 + 6) << "second chroma row, without the stride's tail";
    EXPECT_EQ(packet.data[65], 0xA0 + 17) << "last byte of the last plane";
    // 8-bit 4:2:0 in full range: the I420 block of old, its range told apart.
    codec->shape(6, 4, 0);
    codec->info.pixelFormat = AV_PIX_FMT_YUVJ420P;
    ASSERT_EQ(d.outputData(&packet), 1);
    EXPECT_TRUE(packet.layout.pixelFormat == AV_PIX_FMT_YUV420P && packet.layout.fullRange && packet.size == 36u);
    codec->info.pixelFormat = AV_PIX_FMT_RGB24;
    EXPECT_EQ(d.outputData(&packet), 2);
}

// Real AAC frames come out as interleaved 16-bit stereo, equal to ffmpeg's own conversion.
TEST(SoftMediaDecoderImpl, AudioIsConvertedToInterleavedStereo) {
    const InputFormatHolder input = openInput(kMain.c_str());
    AVFormatContext* fmt = input.get();
    ASSERT_TRUE(fmt);
    ASSERT_GE(avformat_find_stream_info(fmt, nullptr), 0);
    const int index = av_find_best_stream(fmt, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    ASSERT_GE(index, 0);
    const AVCodecParameters* par = fmt->streams[index]->codecpar;
    SoftMediaDecoderImpl d(kMediaKindAudio);
    int32_t size = par->extradata_size;
    d.setParameter(kDecoderParamExtraSize, &size);  // the length comes first
    d.setParameter(kDecoderParamExtraData, par->extradata);
    ASSERT_EQ(d.open(), 1);
    std::vector<int16_t> pcm(20 * 2048), ref(pcm.size());
    VideoPacket packet;
    PacketHolder p(av_packet_alloc());
    size_t frames = 0;
    for (; frames < 20 && av_read_frame(fmt, p.get()) >= 0; av_packet_unref(p.get())) {
        if (p->stream_index != index) continue;
        ASSERT_EQ(d.inputData(p->data, p->size, p->pts, p->dts), kOk);
        ASSERT_EQ(d.outputData(&packet), 1) << "frame " << frames;
        ASSERT_EQ(packet.size, 1024u * 4);
        EXPECT_TRUE(packet.sampleRate == 44100 && packet.height == 2 && packet.pts == p->pts);
        std::memcpy(pcm.data() + frames++ * 2048, packet.data, packet.size);
    }
    EXPECT_EQ(d.close(), kOk);
    ASSERT_EQ(frames, 20u);
    // ffmpeg without its priming skip, so that frame k is samples [2048k, 2048(k+1)).
    const std::string bytes = tsltest::run("ffmpeg -v error -flags2 +skip_manual -i " + tsltest::shellQuote(kMain) +
                                           " -map 0:a -f s16le -ac 2 - 2>/dev/null | head -c " +
                                           std::to_string(20 * 4096));
    ASSERT_EQ(bytes.size(), ref.size() * 2);
    std::memcpy(ref.data(), bytes.data(), bytes.size());
    int maxDiff = 0, loudest = 0;
    for (size_t i = 0; i < pcm.size(); ++i) {
        maxDiff = std::max(maxDiff, std::abs(pcm[i] - ref[i]));
        loudest = std::max(loudest, std::abs(int(pcm[i])));
    }
    EXPECT_LE(maxDiff, 1);
    EXPECT_GT(loudest, 1000);  // not silence: the tone is there
}

}  // namespace
