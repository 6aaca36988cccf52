// Driving the reader: pause through the packet callback and resume, stop in
// the middle of a walk, during a pause and after the end; the path property;
// and the ADTS header table.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "DemuxRecorder.h"
#include "demux/AVStreamParse.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;
using namespace std::chrono_literals;

namespace {

// The recorder outlives the demuxer: destroying a walking demuxer ends its
// reader, which may still be reporting into the recorder until then.
struct Walk {
    demuxtest::Recorder recorder;
    std::unique_ptr<DemuxerAVImpl> demuxer = std::make_unique<DemuxerAVImpl>();
    explicit Walk(const std::string& file) {
        recorder.attach(demuxer.get());
        demuxer->setProperty(kDemuxerPropPath, file.c_str());
    }
};

bool hasEnded(const std::vector<demuxtest::SeenEvent>& events) {
    for (const auto& e : events)
        if (e.kind == kDemuxerEventEnded) return true;
    return false;
}

TEST(Pause, ZeroFromThePacketCallbackHoldsTheReaderUntilResume) {
    const std::string file = tsltest::media("main.mp4");
    const size_t total = demuxtest::groundTruth(file).packets.size();
    ASSERT_GT(total, 20u);
    Walk walk(file);
    walk.recorder.answer = [](size_t number) { return number == 9 ? 0 : 1; };
    ASSERT_EQ(walk.recorder.start(), 1);
    ASSERT_TRUE(walk.recorder.waitForPackets(10));
    // A reader that did not pause would deliver the rest of this small file
    // well within this wait.
    EXPECT_FALSE(walk.recorder.waitForPackets(11, 300ms));
    EXPECT_EQ(walk.recorder.packetCount(), 10u);
    // Resume until the flow starts again: a wake-up can only end a pause that
    // has begun, and the reader enters it just after the callback returned.
    bool flowing = false;
    for (int attempt = 0; attempt < 50 && !flowing; ++attempt) {
        walk.demuxer->resume(0);
        flowing = walk.recorder.waitForPackets(11, 200ms);
    }
    ASSERT_TRUE(flowing);
    ASSERT_TRUE(walk.recorder.waitForEvents(3));
    EXPECT_EQ(walk.recorder.packetCount(), total);
    walk.demuxer->stop();
}

TEST(Stop, DuringAPauseReturnsAndSendsNothingFurther) {
    const size_t threadsBefore = demuxtest::threadCount();
    Walk walk(tsltest::media("main.mp4"));
    walk.recorder.answer = [](size_t number) { return number == 4 ? 0 : 1; };
    ASSERT_EQ(walk.recorder.start(), 1);
    ASSERT_TRUE(walk.recorder.waitForPackets(5));
    walk.demuxer->stop();
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore);
    EXPECT_EQ(walk.recorder.packetCount(), 5u);
    EXPECT_EQ(walk.recorder.events().size(), 1u) << "only the ready event";
}

TEST(Stop, InTheMiddleOfAWalkEndsTheReader) {
    const std::string file = tsltest::media("large.mp4");
    const size_t total = demuxtest::groundTruth(file).packets.size();
    const size_t threadsBefore = demuxtest::threadCount();
    Walk walk(file);
    std::atomic<bool> stopping{false};
    // Packet 10 holds the reader until the test is about to stop it, then
    // gives stop a moment to set its state before the next pass looks.
    walk.recorder.afterPacket = [&](size_t number) {
        if (number != 10) return;
        while (!stopping.load()) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(100ms);
    };
    ASSERT_EQ(walk.recorder.start(), 1);
    ASSERT_TRUE(walk.recorder.waitForPackets(11));
    EXPECT_GT(demuxtest::threadCount(), threadsBefore) << "the reader runs";
    stopping = true;
    walk.demuxer->stop();
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore) << "stop returns with the reader gone";
    const size_t delivered = walk.recorder.packetCount();
    EXPECT_LT(delivered, total);
    EXPECT_FALSE(hasEnded(walk.recorder.events()));
    walk.demuxer.reset();
    EXPECT_EQ(walk.recorder.packetCount(), delivered);
}

TEST(Stop, AfterTheEndReturnsAtOnceAndSendsNothing) {
    Walk walk(tsltest::media("tiny.mp4"));
    ASSERT_EQ(walk.recorder.start(), 1);
    ASSERT_TRUE(walk.recorder.waitForEvents(3));
    const size_t packets = walk.recorder.packetCount();
    walk.demuxer->stop();
    walk.demuxer->stop();
    walk.demuxer.reset();  // the destructor's own stop finds nothing to do
    EXPECT_EQ(walk.recorder.packetCount(), packets);
    EXPECT_EQ(walk.recorder.events().size(), 3u);
}

TEST(Stop, DestroyingAWalkingDemuxerEndsItsReader) {
    const size_t threadsBefore = demuxtest::threadCount();
    {
        Walk walk(tsltest::media("large.mp4"));
        ASSERT_EQ(walk.recorder.start(), 1);
        ASSERT_TRUE(walk.recorder.waitForPackets(1));
    }
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore);
}

TEST(PathProperty, OnlyIdZeroAndTheLastOneCounts) {
    Walk walk(tsltest::media("missing-file.mp4"));
    walk.demuxer->setProperty(kDemuxerPropPath, tsltest::media("tiny.mp4").c_str());
    walk.demuxer->setProperty(1, tsltest::media("missing-file.mp4").c_str());
    ASSERT_EQ(walk.recorder.start(), 1);
    ASSERT_TRUE(walk.recorder.waitForEvents(3));
    EXPECT_EQ(walk.recorder.events()[0].kind, kDemuxerEventReady);
    walk.demuxer->stop();
}

TEST(PathProperty, NoPropertyIsWrittenBeforeStart) {
    DemuxerAVImpl demuxer;
    for (int id = 0; id <= 16; ++id) {
        uint64_t storage = 0x0123456789ABCDEFull;
        demuxer.getProperty(id, &storage);
        EXPECT_EQ(storage, 0x0123456789ABCDEFull) << "id " << id;
    }
    demuxer.stop();  // before any start: nothing to do
}

// A path longer than the parser's 2048-byte copy still reaches FFmpeg whole.
TEST(PathProperty, APathBeyondTheCopyStillOpens) {
    std::string path = tsltest::media("tiny.mp4");
    const std::string dir = path.substr(0, path.rfind('/'));
    std::string longPath = dir;
    while (longPath.size() < 2100) longPath += "/.";
    longPath += "/tiny.mp4";
    Walk walk(longPath);
    ASSERT_EQ(walk.recorder.start(), 1);
    ASSERT_TRUE(walk.recorder.waitForEvents(3));
    walk.demuxer->stop();
}

std::vector<uint8_t> wrap(int32_t payload, int32_t rate, int32_t channels) {
    std::vector<uint8_t> packet(payload);
    for (int32_t i = 0; i < payload; ++i) packet[i] = static_cast<uint8_t>(i * 7);
    std::vector<uint8_t> out(payload + kAdtsHeaderSize, 0xAA);
    int32_t size = payload;
    AVStreamParse::wrapAdts(packet.data(), out.data(), &size, rate, channels);
    EXPECT_EQ(size, payload + kAdtsHeaderSize);
    EXPECT_TRUE(std::equal(packet.begin(), packet.end(), out.begin() + kAdtsHeaderSize)) << "payload unchanged";
    out.resize(kAdtsHeaderSize);
    return out;
}

TEST(WrapAdts, HeaderTable) {
    // The worked example: 100 bytes at 44100 Hz, two channels.
    EXPECT_EQ(wrap(100, 44100, 2), (std::vector<uint8_t>{0xFF, 0xF1, 0x10, 0x80, 0x0D, 0x7F, 0xFC}));
    // 48000 Hz mono: rate index 3, channel bits 01.
    EXPECT_EQ(wrap(100, 48000, 1), (std::vector<uint8_t>{0xFF, 0xF1, 0x0C, 0x40, 0x0D, 0x7F, 0xFC}));
    // Six channels: bit 2 of the count goes to byte 2, the low two bits to byte 3.
    const auto six = wrap(100, 48000, 6);
    EXPECT_EQ(six[2], 0x0D);
    EXPECT_EQ(six[3], 0x80);
    // 2000 bytes: L = 2007 reaches bit 10 (byte 3 bits stay 0 until 2048);
    // the last byte carries 2000 / 1024 = 1.
    const auto big = wrap(2000, 44100, 2);
    EXPECT_EQ(big[3] & 3, (2007 >> 11) & 3);
    EXPECT_EQ(big[4], (2007 >> 3) & 0xFF);
    EXPECT_EQ(big[5], ((2007 & 7) << 5) | 0x1F);
    EXPECT_EQ(big[6], 0xFD);
    // 4100 bytes: L = 4107 sets bit 12 of the length into byte 3.
    EXPECT_EQ(wrap(4100, 44100, 2)[3], 0x80 | 2);
}

}  // namespace
