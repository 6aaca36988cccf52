// MPEG4FileMuxer up to the rings: naming the output, declaring tracks, start
// and stop on every path, and what WriteSampleData lets through.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "MuxTestSupport.h"
#include "base/Results.h"
#include "support/TestSupport.h"

namespace {

using muxtest::CountingNotify;
using muxtest::WriteLog;
namespace fs = std::filesystem;

template <typename Call>
std::string printed(Call call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

const char kDeduceFailed[] = "Could not deduce output format from file extension.\n";

class MPEG4FileMuxerTest : public testing::Test {
protected:
    void SetUp() override {
        dir = tsltest::scratchDir();
        clip = muxtest::clip("main.mp4");
        ASSERT_FALSE(clip.samples.empty());
    }

    // setOutputFile and both tracks, audio first; start when asked.
    void prepare(MPEG4FileMuxer& muxer, const std::string& path, bool start = true) {
        ASSERT_EQ(kOk, muxer.setOutputFile(path.c_str()));
        AudioTrackInfo audio = clip.audioInfo();
        VideoTrackInfo video = clip.videoInfo();
        ASSERT_EQ(kOk, muxer.addAudioTrack(&audio));
        ASSERT_EQ(kOk, muxer.addVideoTrack(&video));
        if (start) {
            ASSERT_EQ(kOk, muxer.start());
        }
    }

    const muxfixture::Sample& nth(int32_t track, size_t n) const {
        for (const muxfixture::Sample& s : clip.samples)
            if (s.track == track && n-- == 0) return s;
        return clip.samples.front();
    }
    int32_t write(MPEG4FileMuxer& muxer, int32_t track, int64_t dts, size_t n = 0) {
        const muxfixture::Sample& s = nth(track, n);
        return muxer.WriteSampleData(s.bytes.data(), static_cast<int32_t>(s.bytes.size()), track, dts, dts,
                                     s.flags);
    }
    static int32_t ringCount(MPEG4FileMuxer& muxer, int32_t track) {
        pthread_mutex_t* mutex = track == kTrackAudio ? &muxer.audioMutex : &muxer.videoMutex;
        pthread_mutex_lock(mutex);
        const int32_t count = track == kTrackAudio ? muxer.audioQueue.count : muxer.videoQueue.count;
        pthread_mutex_unlock(mutex);
        return count;
    }

    std::string dir;
    muxfixture::Clip clip;
};

TEST_F(MPEG4FileMuxerTest, OutputFormatFollowsTheName) {
    struct Case {
        const char* name;
        const char* printed;
        int32_t result;
        const char* format;
    } cases[] = {
        {"a.mp4", "", kOk, "mp4"},
        {"a.mov", "", kOk, "mov"},
        {"a.flv", "", kOk, "flv"},
        {"a.3gp", "", kOk, "3gp"},
        // Unknown to libavformat: the last three bytes, exactly and in lower case.
        {"a_flv", kDeduceFailed, kOk, "flv"},
        {"a.x3gp", kDeduceFailed, kOk, "3gp"},
        {"a_MP4", "Could not deduce output format from file extension.\nunsupported file format!",
         kErrUnsupported, nullptr},
        {"a.xyz", "Could not deduce output format from file extension.\nunsupported file format!",
         kErrUnsupported, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir + "/" + c.name;
        MPEG4FileMuxer muxer;
        int32_t result = 0;
        EXPECT_EQ(c.printed, printed([&] { result = muxer.setOutputFile(path.c_str()); }));
        EXPECT_EQ(c.result, result);
        if (c.format) {
            ASSERT_NE(nullptr, muxer.outputFormat);
            EXPECT_STREQ(c.format, muxer.outputFormat->name);
            EXPECT_TRUE(fs::exists(path));
        } else {
            EXPECT_EQ(nullptr, muxer.formatContext);
            EXPECT_FALSE(fs::exists(path));
        }
    }
    // Shorter than three bytes matches nothing.
    MPEG4FileMuxer muxer;
    printed([&] { EXPECT_EQ(kErrUnsupported, muxer.setOutputFile("mp")); });
}

TEST_F(MPEG4FileMuxerTest, OutputThatCannotBeOpened) {
    const std::string path = dir + "/missing/out.mp4";
    MPEG4FileMuxer muxer;
    int32_t result = 0;
    EXPECT_EQ("Could not open '" + path + "'\n", printed([&] { result = muxer.setOutputFile(path.c_str()); }));
    EXPECT_EQ(kErrFileIo, result);
}

TEST_F(MPEG4FileMuxerTest, TrackRefusals) {
    MPEG4FileMuxer muxer;
    VideoTrackInfo video = clip.videoInfo();
    AudioTrackInfo audio = clip.audioInfo();
    // Before any output context there is no stream to make.
    EXPECT_EQ(kErrInvalidArgument, muxer.addVideoTrack(&video));
    ASSERT_EQ(kOk, muxer.setOutputFile((dir + "/out.mp4").c_str()));

    video.codecType = 2;
    EXPECT_EQ(kErrNotFound, muxer.addVideoTrack(&video));
    EXPECT_FALSE(muxer.hasVideo);
    audio.codecType = 2;
    EXPECT_EQ(kErrNotFound, muxer.addAudioTrack(&audio));
    audio.codecType = 1;
    audio.sampleBits = 24;
    EXPECT_EQ(kErrInvalidArgument, muxer.addAudioTrack(&audio));
    EXPECT_FALSE(muxer.hasAudio);
    EXPECT_EQ(nullptr, muxer.audioCodecContext);

    for (int32_t bits : {8, 16, 32}) {
        SCOPED_TRACE(bits);
        MPEG4FileMuxer fresh;
        ASSERT_EQ(kOk, fresh.setOutputFile((dir + "/bits.mp4").c_str()));
        AudioTrackInfo good = clip.audioInfo();
        good.sampleBits = bits;
        EXPECT_EQ(kOk, fresh.addAudioTrack(&good));
        EXPECT_TRUE(fresh.hasAudio);
        // The mp4 writer takes the encoder's AudioSpecificConfig as private data.
        ASSERT_NE(nullptr, fresh.audioStream);
        EXPECT_GE(fresh.audioStream->codecpar->extradata_size, 2);
    }
}

TEST_F(MPEG4FileMuxerTest, StartWithoutTracksWritesNoHeader) {
    const std::string path = dir + "/out.mp4";
    {
        MPEG4FileMuxer muxer;
        ASSERT_EQ(kOk, muxer.setOutputFile(path.c_str()));
        EXPECT_EQ("", printed([&] { EXPECT_EQ(kErrInvalidState, muxer.start()); }));
        EXPECT_EQ(3, muxer.state);
        EXPECT_EQ("start() is called in invalid state 3",
                  printed([&] { EXPECT_EQ(kErrInvalidState, muxer.start()); }));
    }
    EXPECT_EQ(0u, fs::file_size(path));
}

TEST_F(MPEG4FileMuxerTest, CallingOrderComplaints) {
    MPEG4FileMuxer muxer;
    EXPECT_EQ("stop() is called in invalid state 1", printed([&] { EXPECT_EQ(kErrInvalidState, muxer.stop()); }));
    EXPECT_EQ("WriteSampleData() is called in invalid state 1",
              printed([&] { EXPECT_EQ(kErrInvalidState, write(muxer, kTrackVideo, 0)); }));
    prepare(muxer, dir + "/out.mp4");
    EXPECT_EQ("start() is called in invalid state 2", printed([&] { EXPECT_EQ(kErrInvalidState, muxer.start()); }));
    EXPECT_EQ(kErrInvalidState, muxer.WriteSampleData(nth(kTrackAudio, 0).bytes.data(), 10, 2, 0, 0, 0));
    EXPECT_EQ(kOk, muxer.stop());
    EXPECT_EQ(1, muxer.state);
    EXPECT_EQ("stop() is called in invalid state 1", printed([&] { EXPECT_EQ(kErrInvalidState, muxer.stop()); }));
}

// The header fails on a stream whose track was refused (sampleBits 24 leaves
// an empty audio stream behind). No thread runs: stop and writes must neither
// hang nor crash, and nobody is told of a file that was never started.
TEST_F(MPEG4FileMuxerTest, StopAfterFailedHeaderIsSafe) {
    MPEG4FileMuxer muxer;
    CountingNotify notify(&muxer);
    muxer.setNotify(&notify);
    ASSERT_EQ(kOk, muxer.setOutputFile((dir + "/out.mp4").c_str()));
    AudioTrackInfo audio = clip.audioInfo();
    audio.sampleBits = 24;
    VideoTrackInfo video = clip.videoInfo();
    ASSERT_EQ(kErrInvalidArgument, muxer.addAudioTrack(&audio));
    ASSERT_EQ(kOk, muxer.addVideoTrack(&video));
    EXPECT_EQ(kErrFileIo, muxer.start());
    EXPECT_EQ(2, muxer.state);
    for (int i = 0; i < 250; ++i) ASSERT_EQ(kErrInvalidState, write(muxer, kTrackVideo, i * 40));
    EXPECT_EQ(kOk, muxer.stop());
    EXPECT_EQ(1, muxer.state);
    EXPECT_EQ(0, notify.calls.load());
}

// Each track keeps its own last dts. A lower dts is refused only when the
// last one is above 0; a refused sample is not stored and leaves the last dts.
TEST_F(MPEG4FileMuxerTest, DtsOrderPerTrack) {
    MPEG4FileMuxer muxer;
    WriteLog log(&muxer);
    // With only video arriving on a two-track file nothing is written before
    // the ring fills, so the ring's count is what was stored.
    prepare(muxer, dir + "/out.mp4");
    EXPECT_EQ(kOk, write(muxer, kTrackVideo, 100));
    EXPECT_EQ(kErrInvalidArgument, write(muxer, kTrackVideo, 50));
    EXPECT_EQ(100, muxer.lastVideoDts);
    EXPECT_EQ(kErrInvalidArgument, write(muxer, kTrackVideo, 80));
    EXPECT_EQ(kOk, write(muxer, kTrackVideo, 100));  // equal passes
    EXPECT_EQ(kOk, write(muxer, kTrackVideo, 140));
    EXPECT_EQ(3, ringCount(muxer, kTrackVideo));

    // The audio track has its own order: the first sample passes whatever its dts.
    EXPECT_EQ(kOk, write(muxer, kTrackAudio, -23));
    EXPECT_EQ(kOk, write(muxer, kTrackAudio, -40));  // last one negative
    EXPECT_EQ(kOk, write(muxer, kTrackAudio, 0));
    EXPECT_EQ(kOk, write(muxer, kTrackAudio, -10));  // last one 0
    EXPECT_EQ(kOk, write(muxer, kTrackAudio, 5));
    EXPECT_EQ(kErrInvalidArgument, write(muxer, kTrackAudio, 4));
    EXPECT_EQ(5, muxer.lastAudioDts);

    ASSERT_EQ(kOk, muxer.stop());
    EXPECT_EQ(kTimestampUnset, muxer.lastVideoDts);
    std::vector<int64_t> video;
    size_t audio = 0;
    for (const WriteLog::Entry& e : log.entries()) {
        if (e.stream == 1) video.push_back(e.dtsMs);
        if (e.stream == 0) ++audio;
    }
    // Rebased on the lower first head (-23 audio against 100 video).
    EXPECT_EQ((std::vector<int64_t>{123, 123, 163}), video);
    EXPECT_EQ(5u, audio);
}

// 524288 bytes is the largest video sample that fits a ring element.
TEST_F(MPEG4FileMuxerTest, OversizeSamplesNeverReachTheFile) {
    const std::string path = dir + "/out.mp4";
    std::vector<uint8_t> big = nth(kTrackVideo, 0).bytes;  // a key frame
    // A filler-data NAL unit (type 12) pads it; decoders skip it.
    big.insert(big.end(), {0, 0, 1, 0x0C});
    big.resize(0x80000 - 1, 0xFF);
    big.push_back(0x80);
    ASSERT_EQ(524288u, big.size());
    std::vector<uint8_t> tooBig = big;
    tooBig.insert(tooBig.end() - 1, 0xFF);

    std::vector<WriteLog::Entry> entries;
    {
        MPEG4FileMuxer muxer;
        WriteLog log(&muxer);
        ASSERT_EQ(kOk, muxer.setOutputFile(path.c_str()));
        VideoTrackInfo video = clip.videoInfo();
        ASSERT_EQ(kOk, muxer.addVideoTrack(&video));
        ASSERT_EQ(kOk, muxer.start());
        EXPECT_EQ(kErrBufferTooSmall,
                  muxer.WriteSampleData(tooBig.data(), 524289, kTrackVideo, 0, 0, kSampleFlagVideoKey));
        EXPECT_EQ(kOk, muxer.WriteSampleData(big.data(), 524288, kTrackVideo, 0, 0, kSampleFlagVideoKey));
        ASSERT_EQ(kOk, muxer.stop());
        entries = log.entries();
    }
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(524288, entries[0].size);
    const std::vector<muxtest::StreamCount> counts = muxtest::countPackets(path);
    ASSERT_EQ(1u, counts.size());
    EXPECT_EQ(1, counts[0].packets);
    int status = -1;
    EXPECT_EQ("", muxtest::decodeErrors(path, &status));
    EXPECT_EQ(0, status);

    // The audio element is 4096 bytes.
    MPEG4FileMuxer muxer;
    prepare(muxer, dir + "/audio.mp4");
    std::vector<uint8_t> frame(4097, 0);
    EXPECT_EQ(kErrBufferTooSmall, muxer.WriteSampleData(frame.data(), 4097, kTrackAudio, 0, 0, kSampleFlagAudio));
    EXPECT_EQ(kOk, muxer.WriteSampleData(frame.data(), 4096, kTrackAudio, 0, 0, kSampleFlagAudio));
    EXPECT_EQ(1, ringCount(muxer, kTrackAudio));
    EXPECT_EQ(kOk, muxer.stop());
}

// With the writing thread held at the start of its turn, 200 video samples
// fill the ring and the 201st waits; it returns only after a write.
TEST_F(MPEG4FileMuxerTest, FullRingBlocksUntilTheThreadHasWrittenOne) {
    const std::string path = dir + "/out.mp4";
    MPEG4FileMuxer muxer;
    WriteLog log(&muxer);
    prepare(muxer, path);

    pthread_mutex_lock(&muxer.audioMutex);  // the thread takes this one first
    std::atomic<int> returned{0};
    std::atomic<size_t> writesWhenLastReturned{0};
    std::thread caller([&] {
        for (int i = 0; i < 201; ++i) {
            if (write(muxer, kTrackVideo, i * 40, static_cast<size_t>(i) % clip.videoCount) != kOk) break;
            if (i == 200) writesWhenLastReturned = log.writes();
            ++returned;
        }
    });
    for (int spins = 0; returned.load() < 200 && spins < 10000; ++spins)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(200, returned.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(200, returned.load()) << "the 201st sample did not wait for room";
    EXPECT_EQ(0u, log.writes());
    pthread_mutex_unlock(&muxer.audioMutex);
    caller.join();
    EXPECT_EQ(201, returned.load());
    EXPECT_GE(writesWhenLastReturned.load(), 1u);

    ASSERT_EQ(kOk, muxer.stop());
    // The mp4 writer leaves out a track without samples.
    const std::vector<muxtest::StreamCount> counts = muxtest::countPackets(path);
    ASSERT_EQ(1u, counts.size());
    EXPECT_EQ("video", counts[0].type);
    EXPECT_EQ(201, counts[0].packets);
}

// Deleting a started muxer without stop ends the thread the way stop would.
TEST_F(MPEG4FileMuxerTest, DeleteWithoutStopFinishesTheFile) {
    const std::string path = dir + "/out.mp4";
    auto muxer = std::make_unique<MPEG4FileMuxer>();
    CountingNotify notify(muxer.get());
    muxer->setNotify(&notify);
    prepare(*muxer, path);
    EXPECT_EQ(0, muxtest::writeClip(*muxer, clip));
    muxer.reset();
    EXPECT_EQ(1, notify.calls.load());
    int status = -1;
    EXPECT_EQ("", muxtest::decodeErrors(path, &status));
    EXPECT_EQ(0, status);
}

}  // namespace
