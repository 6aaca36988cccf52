// Every file the system does not take ends start() with 0 and exactly one
// event naming the reason, on the caller's thread, with no reader left; the
// demuxer stays safe to stop and destroy.
#include <gtest/gtest.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include "DemuxRecorder.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

void expectRefused(const char* path, int kind, int detail) {
    const size_t threadsBefore = demuxtest::threadCount();
    demuxtest::Recorder r(path);
    EXPECT_EQ(r.start(), 0);
    const auto events = r.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, kind);
    EXPECT_EQ(events[0].detail, detail);
    EXPECT_TRUE(events[0].dataNull && events[0].onStartThread);
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore);
    r.demuxer->stop();
    r.demuxer.reset();
    EXPECT_EQ(r.events().size(), 1u);
    EXPECT_EQ(r.packetCount(), 0u);
}

struct Refusal {
    const char* file;
    int kind, detail;
};

class RefusedFile : public ::testing::TestWithParam<Refusal> {};

TEST_P(RefusedFile, GivesItsOneEventAndZero) {
    expectRefused(tsltest::media(GetParam().file).c_str(), GetParam().kind, GetParam().detail);
}

// coverart.mp4: the cover is a PNG video stream with a picture size, so it is
// a second video codec and refused like any other.
INSTANTIATE_TEST_SUITE_P(Fixtures, RefusedFile,
                         ::testing::Values(Refusal{"hevc.mp4", kDemuxerEventError, kDemuxerErrorCodec},
                                           Refusal{"mpeg4.mp4", kDemuxerEventError, kDemuxerErrorCodec},
                                           Refusal{"mp3audio.mp4", kDemuxerEventError, kDemuxerErrorCodec},
                                           Refusal{"coverart.mp4", kDemuxerEventError, kDemuxerErrorCodec},
                                           Refusal{"vp9.webm", kDemuxerEventError, kDemuxerErrorCodec},
                                           Refusal{"aac22050.mp4", kDemuxerEventError, kDemuxerErrorSampleRate},
                                           Refusal{"aac6ch.mp4", kDemuxerEventError, kDemuxerErrorChannels},
                                           Refusal{"audioonly.mp4", kDemuxerEventError, kDemuxerErrorNoVideo},
                                           Refusal{"no-such-file.mp4", kDemuxerEventOpenFailed, 0}),
                         [](const auto& info) {
                             std::string name = info.param.file;
                             for (char& c : name) c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return name;
                         });

TEST(Refused, NoPathGivesOpenFailed) { expectRefused(nullptr, kDemuxerEventOpenFailed, 0); }

// What FFmpeg answers for these decides the event; the test asks it first.
TEST(Refused, FilesFFmpegCannotOpenGiveOpenFailed) {
    for (const char* name : {"empty.mp4", "text.mp4", "truncated_nomoov.mp4"}) {
        SCOPED_TRACE(name);
        const std::string path = tsltest::media(name);
        AVFormatContext* probe = nullptr;
        const int opened = avformat_open_input(&probe, path.c_str(), nullptr, nullptr);
        avformat_close_input(&probe);
        ASSERT_NE(opened, 0) << "premise: FFmpeg cannot open it";
        expectRefused(path.c_str(), kDemuxerEventOpenFailed, 0);
    }
}

// Every audio stream must pass, not only the first.
TEST(Refused, SecondAudioStreamInAnotherCodec) {
    expectRefused(demuxtest::makeFile("aac_mp3.mp4", "-i " + tsltest::shellQuote(tsltest::media("main.mp4")) +
                                                         " -map 0:v -map 0:a -map 0:a -c:v copy -c:a:0 copy "
                                                         "-c:a:1 libmp3lame")
                      .c_str(),
                  kDemuxerEventError, kDemuxerErrorCodec);
}

// The rate test reads the time base: AAC in MPEG-TS is 44100 Hz counted in 1/90000.
TEST(Refused, AacCountingIn90kHz) {
    const std::string file =
        demuxtest::makeFile("main.ts", "-i " + tsltest::shellQuote(tsltest::media("main.mp4")) + " -c copy");
    const std::string probe = tsltest::run(
        "ffprobe -v quiet -select_streams a:0 -show_entries stream=sample_rate,time_base -of csv=p=0 " +
        tsltest::shellQuote(file));
    ASSERT_EQ(probe.substr(0, 13), "44100,1/90000") << "premise";
    expectRefused(file.c_str(), kDemuxerEventError, kDemuxerErrorSampleRate);
}

}  // namespace
