// The codec's state machine, the packing of pictures into one I420 block, and the audio side,
// which only these tests create. Video decoding against ffmpeg is shown through the exports.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <numeric>

#include "base/BasePacket.h"
#include "base/FFmpegHolders.h"
#include "base/Results.h"
#include "decode/SoftMediaDecoder.h"
#include "decode/SoftMediaDecoderImpl.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

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

// Stands in for the decoder's codec: planes of a chosen shape, each byte telling its plane, row and column.
struct ScriptedCodec : BaseCodec {
    explicit ScriptedCodec(SoftMediaDecoderImpl& owner) { owner.codec.reset(this); }
    int32_t outputBuffer(BaseBuffer* out) override {
        *reinterpret_cast<PlanarPictureInfo*>(out->data) = info;
        out->pts = 1234;
        out->flags = 1;
        return result;
    }
    // `w` x `h` samples of `bytes` bytes, chroma `cw` x `ch`; each stride `pad` bytes longer than a row.
    void shape(int32_t w, int32_t h, int32_t cw, int32_t ch, int32_t bytes, int32_t pad) {
        info.width = w;
        info.height = h;
        rows.clear();
        for (int p = 0; p < 3; ++p) {
            const int32_t pw = (p ? cw : w) * bytes, ph = p ? ch : h, stride = pw + pad;
            planes[p].assign(size_t(stride) * (ph + 1), 0xEE);  // a row more than is read
            offsets[p] = int32_t(rows.size());
            strides[p] = pw;
            for (int i = 0; i < pw * ph; ++i)
                rows.push_back(planes[p][i / pw * stride + i % pw] = uint8_t(p * 0x50 + i / pw * 8 + i % pw));
            info.planes[p] = planes[p].data();
            info.strides[p] = stride;
        }
    }
    int32_t result = kOk;
    PlanarPictureInfo info;
    std::vector<uint8_t> planes[3];
    // Packed: Y rows, then U, then V, without the stride tails.
    std::vector<uint8_t> rows;
    std::vector<int32_t> offsets{0, 0, 0}, strides{0, 0, 0};
};

// Each plane's rows without their stride tails, one plane after another, with what the output step needs to read
// them. 8-bit 4:2:0 keeps the I420 block of old (w * h * 3 / 2 bytes, chroma rounded down); other layouts pack
// whole (chroma of an odd width rounded up). Full range travels beside the format, and a layout no output step
// could read is a failure, not a wrong picture.
TEST(SoftMediaDecoderImpl, PacksEachLayoutIntoOneBlockAndSaysWhatItIs) {
    SoftMediaDecoderImpl d(kMediaKindVideo);
    auto* codec = new ScriptedCodec(d);
    codec->info.colorSpace = AVCOL_SPC_BT709;
    const struct {
        AVPixelFormat format;
        int32_t depth, w, h, cw, ch, pad;
        uint32_t size;
        bool sameBlock;  // the row before's block is kept, and what this packing leaves alone in it
    } cases[] = {
        {AV_PIX_FMT_YUV420P, 8, 6, 4, 3, 2, 10, 36, false}, {AV_PIX_FMT_YUV420P, 8, 6, 4, 3, 2, 2, 36, true},
        {AV_PIX_FMT_YUV420P, 8, 5, 3, 2, 1, 3, 22, false}, {AV_PIX_FMT_YUV420P, 8, 5, 3, 2, 1, 1, 22, true},
        {AV_PIX_FMT_YUV420P, 8, 8, 6, 4, 3, 0, 72, false}, {AV_PIX_FMT_YUV422P10LE, 10, 5, 3, 3, 3, 4, 66, false},
        {AV_PIX_FMT_YUVJ420P, 8, 6, 4, 3, 2, 0, 36, false}};
    VideoPacket packet;
    const uint8_t* block = nullptr;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "format " << c.format << ", " << c.w << "x" << c.h << "+" << c.pad);
        codec->shape(c.w, c.h, c.cw, c.ch, c.depth > 8 ? 2 : 1, c.pad);
        codec->info.pixelFormat = c.format;
        if (packet.data) std::memset(packet.data, 0xC3, packet.size);  // marks what the packing leaves alone
        ASSERT_EQ(d.outputData(&packet), 1);
        ASSERT_EQ(packet.size, c.size);
        std::vector<uint8_t> expected = codec->rows;
        expected.resize(c.sameBlock ? c.size : expected.size(), 0xC3);
        EXPECT_EQ(std::vector<uint8_t>(packet.data, packet.data + expected.size()), expected);
        EXPECT_TRUE(!c.sameBlock || packet.data == block) << "the block was replaced";
        const PictureLayout& l = packet.layout;
        const bool full = c.format == AV_PIX_FMT_YUVJ420P;
        EXPECT_TRUE(l.pixelFormat == (full ? AV_PIX_FMT_YUV420P : c.format) && l.fullRange == full &&
                    l.bitDepth == c.depth && l.planeCount == 3 && l.matrix == AVCOL_SPC_BT709);
        EXPECT_EQ(std::vector<int32_t>(l.strides, l.strides + 3), codec->strides);
        EXPECT_EQ(std::vector<int32_t>(l.offsets, l.offsets + 3), codec->offsets);
        EXPECT_TRUE(packet.width == c.w && packet.height == c.h && packet.pts == 1234 && packet.keyFrame);
        block = packet.data;
    }
    codec->result = kErrNoFrame;
    EXPECT_EQ(d.outputData(&packet), 0);
    codec->result = kErrInvalidArgument;
    EXPECT_EQ(d.outputData(&packet), 2);
    codec->result = kOk;
    codec->info.pixelFormat = AV_PIX_FMT_RGB24;
    EXPECT_EQ(d.outputData(&packet), 2);
}

// Real AAC frames come out as interleaved 16-bit stereo, equal to ffmpeg's own conversion.
TEST(SoftMediaDecoderImpl, AudioIsConvertedToInterleavedStereo) {
    const std::string source = tsltest::media("main.mp4");
    const InputFormatHolder input = openInput(source.c_str());
    ASSERT_TRUE(input && avformat_find_stream_info(input.get(), nullptr) >= 0);
    const int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    ASSERT_GE(index, 0);
    const AVCodecParameters* par = input->streams[index]->codecpar;
    SoftMediaDecoderImpl d(kMediaKindAudio);
    int32_t size = par->extradata_size;
    d.setParameter(kDecoderParamExtraSize, &size);  // the length comes first
    d.setParameter(kDecoderParamExtraData, par->extradata);
    ASSERT_EQ(d.open(), 1);
    std::vector<int16_t> pcm(20 * 2048), ref(pcm.size());
    VideoPacket packet;
    PacketHolder p(av_packet_alloc());
    size_t frames = 0;
    for (; frames < 20 && av_read_frame(input.get(), p.get()) >= 0; av_packet_unref(p.get())) {
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
    const std::string bytes = tsltest::run("ffmpeg -v error -flags2 +skip_manual -i " + tsltest::shellQuote(source) +
                                           " -map 0:a -f s16le -ac 2 - 2>/dev/null | head -c " +
                                           std::to_string(20 * 4096));
    ASSERT_EQ(bytes.size(), ref.size() * 2);
    std::memcpy(ref.data(), bytes.data(), bytes.size());
    const auto louder = [](int a, int b) { return std::max(a, std::abs(b)); };
    EXPECT_LE(std::inner_product(pcm.begin(), pcm.end(), ref.begin(), 0, louder, std::minus<int>()), 1);
    EXPECT_GT(std::accumulate(pcm.begin(), pcm.end(), 0, louder), 1000);  // not silence: the tone is there
}

}  // namespace
