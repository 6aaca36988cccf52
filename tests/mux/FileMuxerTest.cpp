// The base state machine of FileMuxer: the calling-order complaints, their
// exact text on standard output, and the states they leave.
#include <gtest/gtest.h>

#include <string>

#include "base/Results.h"
#include "mux/FileMuxer.h"

namespace {

// Runs `call` with standard output captured; returns what it printed.
template <typename Call>
std::string printed(Call call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

TEST(FileMuxerBase, AcceptsTheCallingOrderSilently) {
    FileMuxer muxer;
    muxer.state = 1;  // what an implementation's constructor leaves
    VideoTrackInfo video{};
    AudioTrackInfo audio{};
    const std::string out = printed([&] {
        EXPECT_EQ(kOk, muxer.setOutputFile("x.mp4"));
        EXPECT_EQ(kOk, muxer.addAudioTrack(&audio));
        EXPECT_EQ(kOk, muxer.addVideoTrack(&video));
        EXPECT_EQ(kOk, muxer.start());
        EXPECT_EQ(2, muxer.state);
        uint8_t byte = 0;
        EXPECT_EQ(kOk, muxer.WriteSampleData(&byte, 1, kTrackVideo, 0, 0, 0));
        EXPECT_EQ(kOk, muxer.stop());
        EXPECT_EQ(3, muxer.state);
    });
    EXPECT_EQ("", out);
}

TEST(FileMuxerBase, ComplainsAboutWrongOrderWithoutChangingState) {
    FileMuxer muxer;
    muxer.state = 1;  // what an implementation's constructor leaves
    uint8_t byte = 0;

    // stop and WriteSampleData before start; no line feed on these.
    EXPECT_EQ("stop() is called in invalid state 1", printed([&] { EXPECT_EQ(kErrInvalidState, muxer.stop()); }));
    EXPECT_EQ("WriteSampleData() is called in invalid state 1",
              printed([&] { EXPECT_EQ(kErrInvalidState, muxer.WriteSampleData(&byte, 1, 0, 0, 0, 0)); }));
    EXPECT_EQ(1, muxer.state);

    ASSERT_EQ(kOk, muxer.start());
    EXPECT_EQ("start() is called in invalid state 2", printed([&] { EXPECT_EQ(kErrInvalidState, muxer.start()); }));
    EXPECT_EQ(2, muxer.state);

    // Only the video message ends in a line feed.
    VideoTrackInfo video{};
    AudioTrackInfo audio{};
    EXPECT_EQ("addVideoTrack() must be called after constructor and before start().\n",
              printed([&] { EXPECT_EQ(kErrInvalidState, muxer.addVideoTrack(&video)); }));
    EXPECT_EQ("addAudioTrack() must be called after constructor and before start().",
              printed([&] { EXPECT_EQ(kErrInvalidState, muxer.addAudioTrack(&audio)); }));

    ASSERT_EQ(kOk, muxer.stop());
    EXPECT_EQ("start() is called in invalid state 3", printed([&] { EXPECT_EQ(kErrInvalidState, muxer.start()); }));
    EXPECT_EQ("stop() is called in invalid state 3", printed([&] { EXPECT_EQ(kErrInvalidState, muxer.stop()); }));
    EXPECT_EQ(3, muxer.state);
}

TEST(FileMuxerBase, UnderConstructionRefusesEverything) {
    FileMuxer muxer;  // state 0 until an implementation finishes constructing
    EXPECT_EQ("start() is called in invalid state 0", printed([&] { EXPECT_EQ(kErrInvalidState, muxer.start()); }));
    EXPECT_EQ(0, muxer.state);
}

}  // namespace
