// Whole files written from a real fixture's samples, checked with ffprobe and
// ffmpeg: they decode cleanly, audio is stream 0 and video stream 1, every
// sample arrived, and key frames stay where they were.
#include <gtest/gtest.h>

#include <filesystem>

#include "MuxTestSupport.h"
#include "base/Results.h"
#include "support/TestSupport.h"

namespace {

using muxtest::CountingNotify;

struct FileCase {
    const char* fixture;
    const char* outputName;
    const char* fallbackMessage;  // what setOutputFile prints, "" when the name is known
    const char* majorBrand;       // "" when not an ISO file
};

void PrintTo(const FileCase& c, std::ostream* os) { *os << c.fixture << " -> " << c.outputName; }

class MuxerFile : public testing::TestWithParam<FileCase> {};

TEST_P(MuxerFile, WritesEverySampleIntoADecodableFile) {
    const FileCase& param = GetParam();
    const muxfixture::Clip& clip = muxtest::clip(param.fixture);
    ASSERT_TRUE(clip.hasAudio);
    const std::string out = tsltest::scratchDir() + "/" + param.outputName;

    {
        MPEG4FileMuxer muxer;
        CountingNotify notify(&muxer);
        muxer.setNotify(&notify);
        testing::internal::CaptureStdout();
        const int32_t opened = muxer.setOutputFile(out.c_str());
        EXPECT_EQ(param.fallbackMessage, testing::internal::GetCapturedStdout());
        ASSERT_EQ(kOk, opened);
        AudioTrackInfo audio = clip.audioInfo();
        muxfixture::Clip copy = clip;  // VideoTrackInfo points into its extra data
        VideoTrackInfo video = copy.videoInfo();
        ASSERT_EQ(kOk, muxer.addAudioTrack(&audio));
        ASSERT_EQ(kOk, muxer.addVideoTrack(&video));
        ASSERT_EQ(kOk, muxer.start());
        EXPECT_EQ(0, muxtest::writeClip(muxer, clip));
        ASSERT_EQ(kOk, muxer.stop());
        EXPECT_EQ(1, muxer.state);
        EXPECT_EQ(1, notify.calls.load());
        EXPECT_FALSE(notify.calledWithLockHeld.load());
    }

    int status = -1;
    EXPECT_EQ("", muxtest::decodeErrors(out, &status));
    EXPECT_EQ(0, status);

    // Ground truth for the counts and keys: ffprobe on the source fixture.
    const std::string source = tsltest::media(param.fixture);
    std::vector<muxtest::StreamCount> sourceCounts = muxtest::countPackets(source);
    long sourceAudio = 0, sourceVideo = 0;
    for (const auto& s : sourceCounts) (s.type == "audio" ? sourceAudio : sourceVideo) += s.packets;
    EXPECT_EQ(static_cast<long>(clip.audioCount), sourceAudio);
    EXPECT_EQ(static_cast<long>(clip.videoCount), sourceVideo);

    const std::vector<muxtest::StreamCount> counts = muxtest::countPackets(out);
    ASSERT_EQ(2u, counts.size());
    EXPECT_EQ("audio", counts[0].type);
    EXPECT_EQ(sourceAudio, counts[0].packets);
    EXPECT_EQ("video", counts[1].type);
    EXPECT_EQ(sourceVideo, counts[1].packets);

    const std::string keys = muxtest::keyFlags(out, 1);
    EXPECT_EQ(muxtest::keyFlags(source, 0), keys);
    EXPECT_NE(std::string::npos, keys.find('K'));
    EXPECT_NE(std::string::npos, keys.find('_'));

    if (*param.majorBrand) {
        EXPECT_EQ(param.majorBrand, muxtest::formatEntry(out, "format_tags=major_brand"));
    }
}

const char kDeduceFailed[] = "Could not deduce output format from file extension.\n";

INSTANTIATE_TEST_SUITE_P(
    Containers, MuxerFile,
    testing::Values(FileCase{"main.mp4", "out.mp4", "", "isom"},
                    FileCase{"main.mp4", "out.mov", "", "qt  "},
                    FileCase{"mono48k.mp4", "out.mp4", "", "isom"},
                    // No extension libavformat knows: the last three bytes decide.
                    FileCase{"main.mp4", "out_mp4", kDeduceFailed, "isom"},
                    FileCase{"tiny.mp4", "out.xmov", kDeduceFailed, "qt  "}));

}  // namespace

namespace {

// The other two formats of the fallback list, by their own extensions.
TEST(MuxerOtherFormats, FlvAndThreeGpDecodeWithEverySample) {
    const muxfixture::Clip& clip = muxtest::clip("tiny.mp4");
    for (const char* name : {"out.flv", "out.3gp"}) {
        SCOPED_TRACE(name);
        const std::string out = tsltest::scratchDir() + "/" + name;
        {
            MPEG4FileMuxer muxer;
            CountingNotify notify(&muxer);
            muxer.setNotify(&notify);
            ASSERT_EQ(kOk, muxer.setOutputFile(out.c_str()));
            AudioTrackInfo audio = clip.audioInfo();
            muxfixture::Clip copy = clip;
            VideoTrackInfo video = copy.videoInfo();
            ASSERT_EQ(kOk, muxer.addAudioTrack(&audio));
            ASSERT_EQ(kOk, muxer.addVideoTrack(&video));
            ASSERT_EQ(kOk, muxer.start());
            EXPECT_EQ(0, muxtest::writeClip(muxer, clip));
            ASSERT_EQ(kOk, muxer.stop());
            EXPECT_EQ(1, notify.calls.load());
        }
        int status = -1;
        EXPECT_EQ("", muxtest::decodeErrors(out, &status));
        EXPECT_EQ(0, status);
        long audio = 0, video = 0;
        for (const auto& s : muxtest::countPackets(out)) (s.type == "audio" ? audio : video) += s.packets;
        EXPECT_EQ(static_cast<long>(clip.audioCount), audio);
        EXPECT_EQ(static_cast<long>(clip.videoCount), video);
    }
}

}  // namespace
