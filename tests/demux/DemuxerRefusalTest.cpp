// Every file the system does not take ends start() with 0 and exactly one
// event that names the reason, sent on the caller's thread, before any reader
// exists; the demuxer stays safe to stop and destroy afterwards.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "DemuxRecorder.h"
#include "support/TestSupport.h"

extern "C" {
#include <libavformat/avformat.h>
}

using Morvel_Tessalo::DemuxerAVImpl;
using namespace Morvel_Tessalo;

namespace {

struct Refusal {
    std::string file;
    int kind;
    int detail;
};

void PrintTo(const Refusal& r, std::ostream* os) { *os << r.file; }

// Runs one start on `path` (null: no path set) and checks the single event.
void expectRefused(const char* path, int kind, int detail) {
    const size_t threadsBefore = demuxtest::threadCount();
    auto demuxer = std::make_unique<DemuxerAVImpl>();
    demuxtest::Recorder recorder;
    recorder.attach(demuxer.get());
    if (path) demuxer->setProperty(kDemuxerPropPath, path);
    EXPECT_EQ(recorder.start(), 0);
    const auto events = recorder.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, kind);
    EXPECT_EQ(events[0].detail, detail);
    EXPECT_TRUE(events[0].dataNull);
    EXPECT_TRUE(events[0].onStartThread);
    EXPECT_EQ(recorder.packetCount(), 0u);
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore) << "a refused file must leave no reader behind";
    demuxer->stop();
    demuxer->stop();  // a second stop finds nothing left to do
    demuxer.reset();
    EXPECT_EQ(recorder.events().size(), 1u);
}

class RefusedFile : public ::testing::TestWithParam<Refusal> {};

TEST_P(RefusedFile, GivesItsOneEventAndZero) {
    const Refusal& r = GetParam();
    expectRefused(tsltest::media(r.file).c_str(), r.kind, r.detail);
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, RefusedFile,
    ::testing::Values(Refusal{"hevc.mp4", kDemuxerEventError, kDemuxerErrorCodec},
                      Refusal{"mpeg4.mp4", kDemuxerEventError, kDemuxerErrorCodec},
                      Refusal{"mp3audio.mp4", kDemuxerEventError, kDemuxerErrorCodec},
                      // The cover is a PNG video stream with a picture size: a
                      // second video codec, refused like any other.
                      Refusal{"coverart.mp4", kDemuxerEventError, kDemuxerErrorCodec},
                      Refusal{"vp9.webm", kDemuxerEventError, kDemuxerErrorCodec},
                      Refusal{"aac22050.mp4", kDemuxerEventError, kDemuxerErrorSampleRate},
                      Refusal{"aac6ch.mp4", kDemuxerEventError, kDemuxerErrorChannels},
                      Refusal{"audioonly.mp4", kDemuxerEventError, kDemuxerErrorNoVideo},
                      Refusal{"missing-file.mp4", kDemuxerEventOpenFailed, 0}),
    [](const ::testing::TestParamInfo<Refusal>& info) {
        std::string name = info.param.file;
        for (char& c : name)
            if (!isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

TEST(RefusedInput, NoPathGivesOpenFailed) { expectRefused(nullptr, kDemuxerEventOpenFailed, 0); }

// Files that FFmpeg itself cannot open: whatever its answer, it is the
// open-failed event. The test asks libavformat first, so a future FFmpeg that
// opens one of them shows up as a changed premise rather than a false pass.
TEST(RefusedInput, UnopenableFilesGiveOpenFailed) {
    for (const char* name : {"empty.mp4", "text.mp4", "truncated_nomoov.mp4"}) {
        SCOPED_TRACE(name);
        const std::string path = tsltest::media(name);
        AVFormatContext* probe = nullptr;
        const int opened = avformat_open_input(&probe, path.c_str(), nullptr, nullptr);
        avformat_close_input(&probe);
        ASSERT_NE(opened, 0) << "premise: FFmpeg cannot open " << name;
        expectRefused(path.c_str(), kDemuxerEventOpenFailed, 0);
    }
}

class MadeFiles : public ::testing::Test {
protected:
    static void SetUpTestSuite() { dir = new std::string(tsltest::scratchDir()); }
    static void TearDownTestSuite() {
        delete dir;
        dir = nullptr;
    }
    static std::string make(const std::string& name, const std::string& arguments) {
        const std::string out = *dir + "/" + name;
        int status = 0;
        tsltest::run("ffmpeg -nostdin -hide_banner -loglevel error -y " + arguments + " " + tsltest::shellQuote(out),
                     &status);
        EXPECT_EQ(status, 0) << "could not make " << name;
        return out;
    }
    static std::string* dir;
};
std::string* MadeFiles::dir = nullptr;

// Every audio stream must pass, not only the first one.
TEST_F(MadeFiles, SecondAudioStreamInAnotherCodecIsRefused) {
    const std::string main = tsltest::shellQuote(tsltest::media("main.mp4"));
    const std::string file =
        make("aac_then_mp3.mp4", "-i " + main + " -map 0:v -map 0:a -map 0:a -c:v copy -c:a:0 copy -c:a:1 libmp3lame");
    expectRefused(file.c_str(), kDemuxerEventError, kDemuxerErrorCodec);
}

// The rate test reads the time base, not the sample rate: AAC in MPEG-TS is
// 44100 Hz but counts in 1/90000.
TEST_F(MadeFiles, AacWithA90kTimeBaseIsRefusedForItsRate) {
    const std::string file = make("main.ts", "-i " + tsltest::shellQuote(tsltest::media("main.mp4")) + " -c copy");
    int status = 0;
    const std::string probe = tsltest::run(
        "ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate,time_base -of csv=p=0 " +
            tsltest::shellQuote(file),
        &status);
    ASSERT_NE(probe.find("44100,1/90000"), std::string::npos) << "premise: " << probe;
    expectRefused(file.c_str(), kDemuxerEventError, kDemuxerErrorSampleRate);
}

}  // namespace
