// Driving the reader: pause through the packet callback and resume; stop in
// the middle of a walk, during a pause, after the end and by destruction;
// the path property; the ADTS header table.
#include <gtest/gtest.h>

#include <atomic>

#include "DemuxRecorder.h"
#include "demux/AVStreamParse.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;
using namespace std::chrono_literals;

namespace {

TEST(Pause, ZeroFromThePacketCallbackHoldsTheReaderUntilResume) {
    const std::string file = tsltest::media("main.mp4");
    const size_t total = demuxtest::groundTruth(file).packets.size();
    demuxtest::Recorder r(file.c_str());
    r.answer = [](size_t n) { return n == 9 ? 0 : 1; };
    ASSERT_EQ(r.start(), 1);
    ASSERT_TRUE(r.waitForPackets(10));
    // Unpaused, the reader would have the rest of this small file out well within this.
    EXPECT_FALSE(r.waitForPackets(11, 300ms));
    // A wake-up only ends a pause that has begun, so resume until the flow restarts.
    bool flowing = false;
    for (int attempt = 0; attempt < 50 && !flowing; ++attempt) {
        r.demuxer->resume(0);
        flowing = r.waitForPackets(11, 200ms);
    }
    ASSERT_TRUE(flowing);
    ASSERT_TRUE(r.waitForEvents(3));
    EXPECT_EQ(r.packetCount(), total);
}

TEST(Stop, DuringAPauseReturnsAndSendsNothingFurther) {
    const size_t threadsBefore = demuxtest::threadCount();
    demuxtest::Recorder r(tsltest::media("main.mp4").c_str());
    r.answer = [](size_t n) { return n == 4 ? 0 : 1; };
    ASSERT_EQ(r.start(), 1);
    ASSERT_TRUE(r.waitForPackets(5));
    r.demuxer->stop();
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore);
    EXPECT_EQ(r.packetCount(), 5u);
    EXPECT_EQ(r.events().size(), 1u) << "only the ready event";
}

TEST(Stop, InTheMiddleOfAWalkEndsTheReader) {
    const std::string file = tsltest::media("large.mp4");
    const size_t total = demuxtest::groundTruth(file).packets.size();
    const size_t threadsBefore = demuxtest::threadCount();
    demuxtest::Recorder r(file.c_str());
    std::atomic<bool> stopping{false};
    // Packet 10 holds the reader until the test is about to stop, then gives
    // stop a moment to set its state before the next pass looks at it.
    r.afterPacket = [&](size_t n) {
        while (n == 10 && !stopping) std::this_thread::sleep_for(1ms);
        if (n == 10) std::this_thread::sleep_for(100ms);
    };
    ASSERT_EQ(r.start(), 1);
    ASSERT_TRUE(r.waitForPackets(11));
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore + 1) << "the reader runs";
    stopping = true;
    r.demuxer->stop();
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore) << "stop returns with the reader gone";
    const size_t delivered = r.packetCount();
    EXPECT_LT(delivered, total);
    EXPECT_EQ(r.events().size(), 1u) << "no end of file after a stop";
    r.demuxer.reset();
    EXPECT_EQ(r.packetCount(), delivered);
}

TEST(Stop, AfterTheEndAndByDestructionSendsNothing) {
    demuxtest::Recorder r(tsltest::media("tiny.mp4").c_str());
    ASSERT_EQ(r.start(), 1);
    ASSERT_TRUE(r.waitForEvents(3));
    const size_t packets = r.packetCount();
    r.demuxer->stop();
    r.demuxer->stop();
    r.demuxer.reset();
    EXPECT_EQ(r.packetCount(), packets);
    EXPECT_EQ(r.events().size(), 3u);

    const size_t threadsBefore = demuxtest::threadCount();
    {
        demuxtest::Recorder walking(tsltest::media("large.mp4").c_str());
        ASSERT_EQ(walking.start(), 1);
        ASSERT_TRUE(walking.waitForPackets(1));
    }
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore) << "destroying a walking demuxer ends its reader";
}

TEST(PathProperty, OnlyIdZeroCountsAndTheLastOneWins) {
    demuxtest::Recorder r(tsltest::media("no-such-file.mp4").c_str());
    r.demuxer->setProperty(kDemuxerPropPath, tsltest::media("tiny.mp4").c_str());
    r.demuxer->setProperty(1, tsltest::media("no-such-file.mp4").c_str());
    ASSERT_EQ(r.start(), 1);
    ASSERT_TRUE(r.waitForEvents(3));
}

// The parser keeps a 2047-byte copy; FFmpeg gets the whole path.
TEST(PathProperty, APathLongerThanTheCopyStillOpens) {
    std::string path = tsltest::media("");
    while (path.size() < 2100) path += "./";
    demuxtest::Recorder r((path + "tiny.mp4").c_str());
    ASSERT_EQ(r.start(), 1);
    ASSERT_TRUE(r.waitForEvents(3));
}

TEST(PathProperty, NothingIsWrittenBeforeStart) {
    DemuxerAVImpl demuxer;
    for (int id = 0; id <= 16; ++id) {
        uint64_t storage = demuxtest::kUntouched;
        demuxer.getProperty(id, &storage);
        EXPECT_EQ(storage, demuxtest::kUntouched) << "id " << id;
    }
    demuxer.stop();
}

std::vector<uint8_t> header(int32_t payload, int32_t rate, int32_t channels) {
    std::vector<uint8_t> packet(payload), out(payload + kAdtsHeaderSize);
    for (int32_t i = 0; i < payload; ++i) packet[i] = static_cast<uint8_t>(i * 7);
    int32_t size = payload;
    AVStreamParse::wrapAdts(packet.data(), out.data(), &size, rate, channels);
    EXPECT_EQ(size, payload + kAdtsHeaderSize);
    EXPECT_TRUE(std::equal(packet.begin(), packet.end(), out.begin() + kAdtsHeaderSize)) << "payload unchanged";
    return {out.begin(), out.begin() + kAdtsHeaderSize};
}

TEST(WrapAdts, HeaderTable) {
    using Bytes = std::vector<uint8_t>;
    EXPECT_EQ(header(100, 44100, 2), (Bytes{0xFF, 0xF1, 0x10, 0x80, 0x0D, 0x7F, 0xFC}));  // the worked example
    EXPECT_EQ(header(100, 48000, 1), (Bytes{0xFF, 0xF1, 0x0C, 0x40, 0x0D, 0x7F, 0xFC}));
    // Six channels: bit 2 into byte 2, the low bits into byte 3.
    EXPECT_EQ(header(100, 48000, 6), (Bytes{0xFF, 0xF1, 0x0D, 0x80, 0x0D, 0x7F, 0xFC}));
    // L = 2007: bits 3..10 and 0..2; the last byte carries 2000 / 1024 = 1.
    EXPECT_EQ(header(2000, 44100, 2), (Bytes{0xFF, 0xF1, 0x10, 0x80, 0xFA, 0xFF, 0xFD}));
    // L = 4107 reaches bit 12; 4100 / 1024 = 4 keeps only its low two bits (0).
    EXPECT_EQ(header(4100, 44100, 2), (Bytes{0xFF, 0xF1, 0x10, 0x82, 0x01, 0x7F, 0xFC}));
}

}  // namespace
