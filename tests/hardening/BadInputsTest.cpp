// Files that users did not make: each must end its walk in a defined event, with no crash, no hang, and the
// file's bytes exactly as they were — the cut opens its source for writing, so this proves it never writes.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <set>
#include <tuple>

#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

using namespace std::chrono_literals;
using tsltest::media;

// SOURCE cut to FRACTION of its size, with JUNK over three stretches of its media data: no valid slice.
std::string damagedCopy(const std::string& source, const std::string& out, double fraction, bool junk) {
    std::ifstream in(source, std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(in), {});
    if (junk)
        for (const double at : {0.2, 0.45, 0.7})
            for (size_t i = 0; i < 4096; ++i) bytes[static_cast<size_t>(bytes.size() * at) + i] = char(i * 131 + 7);
    std::ofstream(out, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size() * fraction));
    return out;
}

std::string hashOf(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return "missing";
    return S_ISDIR(st.st_mode) ? "directory" : tsltest::fileMd5(path);
}

TEST(BadInputs, EachEndsInItsEventWithNothingWrittenOrLost) {
    const std::string dir = tsltest::scratchDir(), faststart = media("faststart.mp4");
    const std::set<int32_t> openFails = {kHostEventFileError}, badCodec = {kHostEventBadCodec};
    const std::set<int32_t> indexOrReadError = {kHostEventIndexReady, kHostEventError, kHostEventFileError};
    const std::vector<std::tuple<std::string, std::string, std::set<int32_t>>> inputs = {
        {"zero bytes", media("empty.mp4"), openFails},
        {"a directory", dir, openFails},
        {"a text file", media("text.mp4"), openFails},
        {"no moov (truncated moov-at-end file)", media("truncated_nomoov.mp4"), openFails},
        {"HEVC", media("hevc.mp4"), badCodec},
        {"VP9 in WebM", media("vp9.webm"), badCodec},
        {"MPEG-4 Part 2", media("mpeg4.mp4"), badCodec},
        {"MP3 audio", media("mp3audio.mp4"), badCodec},
        {"AAC at 22050 Hz", media("aac22050.mp4"), {kHostEventBadSampleRate}},
        {"AAC with 6 channels", media("aac6ch.mp4"), {kHostEventBadChannels}},
        {"audio only", media("audioonly.mp4"), {kHostEventNoVideo}},
        {"cover-art track (left out, accepted)", media("coverart.mp4"), {kHostEventIndexReady}},
        {"two video streams (accepted)", media("twovideo.mp4"), {kHostEventIndexReady}},
        {"moov at the end (accepted)", media("main.mp4"), {kHostEventIndexReady}},
        {"corrupted sample bytes", damagedCopy(media("main.mp4"), dir + "/junk.mp4", 1.0, true), indexOrReadError},
        {"truncated at 10%", damagedCopy(faststart, dir + "/cut10.mp4", 0.1, false), indexOrReadError},
        {"truncated at 35%", damagedCopy(faststart, dir + "/cut35.mp4", 0.35, false), indexOrReadError},
        {"truncated at 60%", damagedCopy(faststart, dir + "/cut60.mp4", 0.6, false), indexOrReadError},
        {"truncated at 90%", damagedCopy(faststart, dir + "/cut90.mp4", 0.9, false), indexOrReadError},
        {"path of 5000 bytes", "/tmp/" + std::string(4995, 'x'), openFails},
        {"path that is not UTF-8", dir + "/bad\xFF\xFE.mp4", openFails},
    };
    for (const auto& [label, path, expected] : inputs) {
        SCOPED_TRACE(label);
        const std::string before = hashOf(path);
        tsltest::EventRecorder events;
        void* handle = TSL_CreateTessalo(&events, tsltest::EventRecorder::callback);
        ASSERT_TRUE(TSL_StartPic(handle, path.c_str()));
        const int32_t outcome = events.waitForAny({kHostEventIndexReady, kHostEventFileError, kHostEventError,
                                                   kHostEventBadCodec, kHostEventBadSampleRate, kHostEventBadChannels,
                                                   kHostEventNoVideo}, 60s);
        EXPECT_TRUE(expected.count(outcome)) << "walk ended with " << outcome;
        if (outcome == kHostEventIndexReady) {  // everything a host could do next must end too
            std::vector<int64_t> pts(static_cast<size_t>(TSL_GetKeyPtsCount(handle)));
            ASSERT_FALSE(pts.empty());
            ASSERT_EQ(TSL_GetKeyPts(handle, pts.data()), static_cast<int32_t>(pts.size()));
            ASSERT_TRUE(TSL_GetPicByPts(handle, pts.data(), static_cast<int32_t>(pts.size())));
            EXPECT_NE(events.waitForAny({kHostEventPicDone, kHostEventFileError, kHostEventError}, 60s), -1);
            const EditRange range = {pts.front(), pts.back() + 500};
            const std::string out = dir + "/out.mp4";
            if (TSL_CutFile(handle, path.c_str(), out.c_str(), &range, 1, nullptr, 0, kCutKindMp4)) {
                EXPECT_NE(events.waitForAny({kHostEventCutDone, kHostEventCutFailed}, 60s), -1);
            }
            TSL_CancelFile(handle);
        }
        TSL_DestoryTessalo(handle);
        EXPECT_EQ(hashOf(path), before) << "the input changed";
        EXPECT_LE(events.count(kHostEventMediaInfo), 1u);
    }
}

}  // namespace
