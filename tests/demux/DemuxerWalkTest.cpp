// Whole walks of real files: the events, every packet and the properties the
// demuxer reports, held against what ffprobe says about the same file.
#include <gtest/gtest.h>

#include <cstring>

#include "DemuxRecorder.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;
using demuxtest::kUntouched;

namespace {

int32_t asInt(uint64_t raw) { return static_cast<int32_t>(raw & 0xFFFFFFFFu); }

// A header as a decoder reads it: sync, MPEG-4, no CRC, rate index,
// channel configuration, frame length, fullness 0x7FF, frame count bits.
void expectAdts(const std::vector<uint8_t>& h, int32_t frame, int32_t rate, int32_t channels, size_t i) {
    ASSERT_EQ(h.size(), 7u);
    EXPECT_EQ((h[0] << 8) | h[1], 0xFFF1) << i;
    EXPECT_EQ((h[2] >> 2) & 0xF, rate == 48000 ? 3 : rate == 44100 ? 4 : -1) << i;
    EXPECT_EQ(((h[2] & 1) << 2) | (h[3] >> 6), channels) << i;
    EXPECT_EQ(((h[3] & 3) << 11) | (h[4] << 3) | (h[5] >> 5), frame) << i;
    EXPECT_EQ(((h[5] & 0x1F) << 6) | (h[6] >> 2), 0x7FF) << i;
    EXPECT_EQ(h[6] & 3, ((frame - 7) / 1024) & 3) << i;
}

// avcC to Annex B: each parameter set behind a 4-byte start code. Extra data
// already in start-code form (MPEG-TS) stays as it is.
std::vector<uint8_t> annexB(const std::vector<uint8_t>& avcC) {
    if (avcC.empty() || avcC[0] != 1) return avcC;
    std::vector<uint8_t> out;
    size_t at = 5;
    for (int set = 0; set < 2 && at < avcC.size(); ++set) {
        const int count = set == 0 ? (avcC[at] & 0x1F) : avcC[at];
        ++at;
        for (int i = 0; i < count && at + 2 <= avcC.size(); ++i) {
            const size_t length = (avcC[at] << 8) | avcC[at + 1];
            out.insert(out.end(), {0, 0, 0, 1});
            out.insert(out.end(), avcC.begin() + at + 2, avcC.begin() + at + 2 + length);
            at += 2 + length;
        }
    }
    return out;
}

void expectWalkMatchesFfprobe(const std::string& file, bool compareBytes) {
    const demuxtest::GroundTruth truth = demuxtest::groundTruth(file);
    ASSERT_FALSE(truth.packets.empty()) << "ffprobe gave no packets for " << file;
    const size_t threadsBefore = demuxtest::threadCount();
    demuxtest::Recorder r(file.c_str(), compareBytes);
    ASSERT_EQ(r.start(), 1);
    ASSERT_TRUE(r.waitForEvents(3)) << "no end of file";
    r.demuxer->stop();
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore) << "the reader must be gone after stop";

    // Ready on the caller's thread before any packet; Ended 1 then 2 from the reader.
    const auto events = r.events();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_TRUE(events[0].kind == kDemuxerEventReady && events[0].onStartThread && r.readyBeforePackets);
    EXPECT_TRUE(events[1].kind == kDemuxerEventEnded && events[1].detail == kDemuxerMediaAudio);
    EXPECT_TRUE(events[2].kind == kDemuxerEventEnded && events[2].detail == kDemuxerMediaVideo);
    EXPECT_FALSE(events[1].onStartThread);
    for (const auto& e : events) EXPECT_TRUE(e.dataNull);

    const auto seen = r.packets();
    ASSERT_EQ(seen.size(), truth.packets.size());
    int failures = 0;
    for (size_t i = 0; i < seen.size() && failures < 5; ++i) {
        const auto& s = seen[i];
        const auto& e = truth.packets[i];
        if (!(static_cast<const demuxtest::Packet&>(s) == e) || (compareBytes && !s.bytesMatchFile)) {
            ++failures;
            ADD_FAILURE() << "packet " << i << ": kind/size/pts/dts/key/duration/pos " << s.kind << "/" << s.size
                          << "/" << s.pts << "/" << s.dts << "/" << s.key << "/" << s.duration << "/" << s.pos
                          << ", expected " << e.kind << "/" << e.size << "/" << e.pts << "/" << e.dts << "/" << e.key
                          << "/" << e.duration << "/" << e.pos << ", bytes as in the file: " << s.bytesMatchFile;
        }
        if (s.kind == kDemuxerPacketAudio) expectAdts(s.head, s.size, truth.adtsRate, truth.adtsChannels, i);
    }

    const auto& p = r.property;
    double duration;
    std::memcpy(&duration, &p[kDemuxerPropDuration], sizeof duration);
    EXPECT_NEAR(duration, truth.durationMs, 0.0005);
    EXPECT_EQ(asInt(p[kDemuxerPropWidth]), truth.width);
    EXPECT_EQ(asInt(p[kDemuxerPropHeight]), truth.height);
    EXPECT_EQ(asInt(p[kDemuxerPropFrameRate]), truth.frameRate);
    EXPECT_EQ(asInt(p[kDemuxerPropVideoBitRate]), truth.videoBitRate);
    EXPECT_EQ(p[kDemuxerPropHasVideo] & 0xFF, 1u);
    EXPECT_EQ(asInt(p[kDemuxerPropVideoCodec]), kDemuxerCodecH264);
    const bool audio = truth.sampleRate != -1;
    EXPECT_EQ(p[kDemuxerPropHasAudio] & 0xFF, audio ? 1u : 0u);
    EXPECT_EQ(p[kDemuxerPropAudioCodec], audio ? (kUntouched & ~0xFFFFFFFFull) | kDemuxerCodecAac : kUntouched);
    EXPECT_EQ(p[kDemuxerPropChannels], (kUntouched & ~0xFFFFull) | static_cast<uint64_t>(truth.channels))
        << "16 bits written, the rest as it was";
    EXPECT_EQ(asInt(p[kDemuxerPropSampleRate]), truth.sampleRate);
    EXPECT_EQ(asInt(p[kDemuxerPropAudioBitRate]), truth.audioBitRate);
    EXPECT_EQ(p[16], kUntouched);
    EXPECT_EQ(r.extraData, truth.extraData);
    EXPECT_EQ(r.annexBExtraData, annexB(truth.extraData));
    EXPECT_EQ(r.annexBExtraData.size(), static_cast<size_t>(asInt(p[kDemuxerPropAnnexBExtraDataSize])));

    r.demuxer.reset();
    EXPECT_EQ(r.events().size(), 3u) << "nothing may follow the end";
}

class WalkedFile : public ::testing::TestWithParam<std::string> {};

TEST_P(WalkedFile, MatchesFfprobe) { expectWalkMatchesFfprobe(tsltest::media(GetParam()), true); }

INSTANTIATE_TEST_SUITE_P(Fixtures, WalkedFile,
                         ::testing::Values("main.mp4", "mono48k.mp4", "noaudio.mp4", "faststart.mp4", "main.mov",
                                           "twovideo.mp4", "subtitle.mp4", "tiny.mp4", "large.mp4"),
                         [](const auto& info) {
                             std::string name = info.param;
                             name[name.find('.')] = '_';
                             return name;
                         });

// Two AAC streams: only the first is reported; its rate and channels are the
// properties, while the last stream gives the bit rate and the ADTS fields.
TEST(MadeFile, OnlyTheFirstAudioStreamIsReported) {
    const std::string file =
        demuxtest::makeFile("twoaudio.mp4", "-i " + tsltest::shellQuote(tsltest::media("main.mp4")) + " -i " +
                                                tsltest::shellQuote(tsltest::media("mono48k.mp4")) +
                                                " -map 0:v -map 0:a -map 1:a -c copy");
    const auto truth = demuxtest::groundTruth(file);
    ASSERT_TRUE(truth.sampleRate == 44100 && truth.channels == 2 && truth.adtsRate == 48000 && truth.adtsChannels == 1)
        << "premise: AAC 44100 stereo, then AAC 48000 mono";
    expectWalkMatchesFfprobe(file, true);
}

// Starting inside a group of pictures: video before the first key packet
// never arrives, and the first that does has pts 0 and dts 0.
TEST(MadeFile, VideoBeforeTheFirstKeyIsDropped) {
    const std::string whole =
        demuxtest::makeFile("noaudio.ts", "-i " + tsltest::shellQuote(tsltest::media("noaudio.mp4")) + " -c copy");
    const std::string cut = whole.substr(0, whole.rfind('/')) + "/midgop.ts";
    int status = 0;
    tsltest::run("tail -c +" + std::to_string(188 * 120 + 1) + " " + tsltest::shellQuote(whole) + " > " +
                     tsltest::shellQuote(cut),
                 &status);
    ASSERT_EQ(status, 0);
    const std::string firstFlags = tsltest::run("ffprobe -v quiet -show_entries packet=flags -of csv=p=0 " +
                                                tsltest::shellQuote(cut) + " | head -1");
    ASSERT_EQ(firstFlags.substr(0, 1), "_") << "premise: the file starts with a non-key packet";
    expectWalkMatchesFfprobe(cut, false);  // MPEG-TS splits payloads: no byte comparison
}

// The no-audio values the instance relies on, spelled out.
TEST(NoAudio, PropertiesSayNoAudio) {
    demuxtest::Recorder r(tsltest::media("noaudio.mp4").c_str());
    ASSERT_EQ(r.start(), 1);
    r.demuxer->stop();
    EXPECT_EQ(asInt(r.property[kDemuxerPropSampleRate]), -1);
    EXPECT_EQ(r.property[kDemuxerPropHasAudio] & 0xFF, 0u);
    EXPECT_EQ(r.property[kDemuxerPropChannels] & 0xFFFF, 0u);
    EXPECT_EQ(asInt(r.property[kDemuxerPropAudioBitRate]), 0);
    EXPECT_EQ(r.property[kDemuxerPropAudioCodec], kUntouched);
}

}  // namespace
