// The codec layer on real libavcodec: its state machine, the threading and
// extra-data set-up that start makes, and decoding real samples.
#include <gtest/gtest.h>

#include <cstring>

#include "MediaPackets.h"
#include "base/BaseBuffer.h"
#include "base/Results.h"
#include "decode/DecoderBase.h"
#include "decode/FrameInfo.h"
#include "decode/SoftMediaDecoder.h"
#include "support/TestSupport.h"

using Morvel_Tessalo::kMediaKindAudio;
using Morvel_Tessalo::kMediaKindVideo;

namespace {

const MediaStream& mainVideo() {
    static MediaStream s = readStream(tsltest::media("main.mp4"), false);
    return s;
}

BaseBuffer bufferOf(const std::vector<uint8_t>& bytes) {
    return BaseBuffer(const_cast<uint8_t*>(bytes.data()), static_cast<int32_t>(bytes.size()), 0, 0, 0);
}

// An H.264 codec in state 1 with main.mp4's configuration staged.
void initWithExtra(SoftMediaDecoder& c) {
    ASSERT_EQ(c.init(1), kOk);
    BaseBuffer extra = bufferOf(mainVideo().extraData);
    ASSERT_EQ(c.setParameter(kCodecParamExtraData, &extra), kOk);
}

}  // namespace

TEST(SoftMediaDecoderState, RefusesCallsOutOfOrder) {
    SoftMediaDecoder c(kMediaKindVideo);
    PlanarPictureInfo info;
    BaseBuffer out(reinterpret_cast<uint8_t*>(&info), 0, 0, 0, 0);
    EXPECT_EQ(c.start(), kErrInvalidState);
    EXPECT_EQ(c.uninit(), kErrInvalidState);
    EXPECT_EQ(c.outputBuffer(&out), kErrInvalidState);
    EXPECT_EQ(c.setParameter(kCodecParamFlush, nullptr), kErrInvalidState);

    EXPECT_EQ(c.init(2), kErrUnsupported);  // no video codec of type 2
    EXPECT_EQ(c.state, kCodecStateUninit);
    ASSERT_NO_FATAL_FAILURE(initWithExtra(c));
    EXPECT_EQ(c.init(1), kErrInvalidState);
    EXPECT_EQ(c.stop(), kErrInvalidState);

    int32_t threads = 4;
    ASSERT_EQ(c.setParameter(kCodecParamThreads, &threads), kOk);
    ASSERT_EQ(c.start(), kOk);
    EXPECT_EQ(c.uninit(), kErrInvalidState);
    BaseBuffer extra = bufferOf(mainVideo().extraData);
    EXPECT_EQ(c.setParameter(kCodecParamExtraData, &extra), kErrInvalidState);
    int32_t more = 8;
    EXPECT_EQ(c.setParameter(kCodecParamThreads, &more), kOk);
    EXPECT_EQ(c.threadCount, 4);

    // Nothing staged: no decode call at all.
    EXPECT_EQ(c.outputBuffer(&out), kErrNoFrame);
    // A refused input leaves the staged packet alone.
    BaseBuffer sample = bufferOf(mainVideo().samples[0].bytes);
    ASSERT_EQ(c.inputBuffer(&sample), kOk);
    BaseBuffer empty(sample.data, 0, 0, 0, 0);
    EXPECT_EQ(c.inputBuffer(&empty), kErrInvalidArgument);
    EXPECT_EQ(c.inputBuffer(nullptr), kErrInvalidArgument);
    EXPECT_EQ(c.packet->data, sample.data);
    EXPECT_EQ(c.packet->size, sample.size);
    BaseBuffer noRecord;
    EXPECT_EQ(c.outputBuffer(&noRecord), kErrInvalidArgument);

    // Parameters outside the table, and audio parameters on video.
    int32_t v = 44100;
    EXPECT_EQ(c.setParameter(99, &v), kErrUnsupported);
    EXPECT_EQ(c.setParameter(kCodecParamSampleRate, &v), kErrUnsupported);

    EXPECT_EQ(c.stop(), kOk);
    EXPECT_EQ(c.inputBuffer(&sample), kErrInvalidState);
    EXPECT_EQ(c.uninit(), kOk);
    EXPECT_EQ(c.state, kCodecStateUninit);
    EXPECT_EQ(c.init(1), kOk);  // usable again
    EXPECT_EQ(c.uninit(), kOk);
}

TEST(SoftMediaDecoderState, AudioParametersAndSampleWidths) {
    SoftMediaDecoder c(kMediaKindAudio);
    ASSERT_EQ(c.init(1), kOk);
    EXPECT_EQ(c.context->sample_fmt, AV_SAMPLE_FMT_S16);
    int32_t bits = 8;
    EXPECT_EQ(c.setParameter(kCodecParamSampleBits, &bits), kOk);
    EXPECT_EQ(c.context->sample_fmt, AV_SAMPLE_FMT_U8);
    bits = 32;
    EXPECT_EQ(c.setParameter(kCodecParamSampleBits, &bits), kOk);
    EXPECT_EQ(c.context->sample_fmt, AV_SAMPLE_FMT_S32);
    bits = 24;
    EXPECT_EQ(c.setParameter(kCodecParamSampleBits, &bits), kErrInvalidArgument);
    EXPECT_EQ(c.context->sample_fmt, AV_SAMPLE_FMT_S32);
    int32_t rate = 48000, channels = 1;
    EXPECT_EQ(c.setParameter(kCodecParamSampleRate, &rate), kOk);
    EXPECT_EQ(c.setParameter(kCodecParamChannels, &channels), kOk);
    EXPECT_EQ(c.context->sample_rate, 48000);
    EXPECT_EQ(c.context->ch_layout.nb_channels, 1);
    EXPECT_EQ(c.uninit(), kOk);
    // Audio type 3 does not exist.
    EXPECT_EQ(c.init(3), kErrUnsupported);
}

TEST(SoftMediaDecoderStart, ThreadingBranchFollowsTheCount) {
    for (int32_t threads : {1, 2}) {
        SoftMediaDecoder c(kMediaKindVideo);
        ASSERT_NO_FATAL_FAILURE(initWithExtra(c));
        c.context->flags |= AV_CODEC_FLAG_LOW_DELAY;
        ASSERT_EQ(c.setParameter(kCodecParamThreads, &threads), kOk);
        ASSERT_EQ(c.start(), kOk);
        EXPECT_EQ(c.context->thread_count, threads);
        if (threads == 1) {
            EXPECT_NE(c.context->flags2 & AV_CODEC_FLAG2_CHUNKS, 0);
            EXPECT_NE(c.context->flags & AV_CODEC_FLAG_LOW_DELAY, 0);
        } else {
            EXPECT_EQ(c.context->flags2 & AV_CODEC_FLAG2_CHUNKS, 0);
            EXPECT_EQ(c.context->flags & AV_CODEC_FLAG_LOW_DELAY, 0);
            EXPECT_EQ(c.context->thread_type, FF_THREAD_FRAME);
            EXPECT_EQ(c.context->skip_loop_filter, AVDISCARD_NONE);
        }
        EXPECT_EQ(c.stop(), kOk);
        EXPECT_EQ(c.uninit(), kOk);
    }
}

TEST(SoftMediaDecoderStart, ExtraDataIsStagedOnceAndPadded) {
    const std::vector<uint8_t>& avcc = mainVideo().extraData;
    ASSERT_GT(avcc.size(), 8u);
    SoftMediaDecoder c(kMediaKindVideo);
    ASSERT_NO_FATAL_FAILURE(initWithExtra(c));
    ASSERT_EQ(c.start(), kOk);
    ASSERT_EQ(c.context->extradata_size, static_cast<int>(avcc.size()));
    EXPECT_EQ(0, std::memcmp(c.context->extradata, avcc.data(), avcc.size()));
    for (int i = 0; i < AV_INPUT_BUFFER_PADDING_SIZE; ++i)
        ASSERT_EQ(c.context->extradata[avcc.size() + i], 0) << "padding byte " << i;
    EXPECT_EQ(c.extraData->size, 0);  // consumed

    // A second start opens without the configuration, and does not crash.
    ASSERT_EQ(c.stop(), kOk);
    ASSERT_EQ(c.start(), kOk);
    EXPECT_EQ(c.context->extradata_size, 0);
    ASSERT_EQ(c.stop(), kOk);
    EXPECT_EQ(c.uninit(), kOk);
}

TEST(SoftMediaDecoderDecode, FlushReachesTheDecoderWithoutInput) {
    SoftMediaDecoder c(kMediaKindVideo);
    ASSERT_NO_FATAL_FAILURE(initWithExtra(c));
    ASSERT_EQ(c.start(), kOk);
    PlanarPictureInfo info;
    BaseBuffer out(reinterpret_cast<uint8_t*>(&info), 0, 0, 0, 0);
    ASSERT_EQ(c.setParameter(kCodecParamFlush, nullptr), kOk);
    EXPECT_TRUE(c.flushing);
    EXPECT_EQ(c.outputBuffer(&out), kErrNoFrame);
    EXPECT_EQ(c.stop(), kOk);
    ASSERT_EQ(c.start(), kOk);
    EXPECT_FALSE(c.flushing);  // start clears it
    EXPECT_EQ(c.stop(), kOk);
    EXPECT_EQ(c.uninit(), kOk);
}
