// Files that users did not make: every one must end in a defined event, with
// no crash, no hang, and the file's bytes exactly as they were — the cut opens
// its source for writing, so this also proves that it never writes.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "tessalo.h"

namespace {

using tsltest::EventRecorder;
using namespace std::chrono_literals;

const std::vector<int32_t> kWalkEnd = {kHostEventIndexReady, kHostEventFileError, kHostEventError,
                                       kHostEventBadCodec,   kHostEventBadSampleRate, kHostEventBadChannels,
                                       kHostEventNoVideo};

struct BadInput {
    std::string label;
    std::string path;
    std::set<int32_t> expected;  // the walk's outcome: one of these
};

std::string copyWithCut(const std::string& source, const std::string& dir, double fraction) {
    const auto size = std::filesystem::file_size(source);
    const std::string out = dir + "/cut_" + std::to_string(static_cast<int>(fraction * 100)) + ".mp4";
    std::ifstream in(source, std::ios::binary);
    std::vector<char> bytes(static_cast<size_t>(size * fraction));
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    std::ofstream(out, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return out;
}

// Overwrites a stretch in the middle of the media data with a pattern that
// no decoder accepts as a valid slice.
std::string corruptedCopy(const std::string& source, const std::string& dir) {
    const std::string out = dir + "/corrupted.mp4";
    std::filesystem::copy_file(source, out, std::filesystem::copy_options::overwrite_existing);
    const auto size = std::filesystem::file_size(out);
    std::fstream f(out, std::ios::binary | std::ios::in | std::ios::out);
    std::vector<char> junk(4096);
    for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<char>((i * 131 + 7) & 0xFF);
    for (double at : {0.2, 0.45, 0.7}) {
        f.seekp(static_cast<std::streamoff>(size * at));
        f.write(junk.data(), static_cast<std::streamsize>(junk.size()));
    }
    return out;
}

std::vector<BadInput> badInputs(const std::string& dir) {
    const std::set<int32_t> openFails = {kHostEventFileError};
    const std::set<int32_t> indexOrReadError = {kHostEventIndexReady, kHostEventError, kHostEventFileError};
    std::vector<BadInput> inputs = {
        {"zero bytes", tsltest::media("empty.mp4"), openFails},
        {"a directory", dir, openFails},
        {"a text file", tsltest::media("text.mp4"), openFails},
        {"no moov (truncated moov-at-end file)", tsltest::media("truncated_nomoov.mp4"), openFails},
        {"HEVC", tsltest::media("hevc.mp4"), {kHostEventBadCodec}},
        {"VP9 in WebM", tsltest::media("vp9.webm"), {kHostEventBadCodec}},
        {"MPEG-4 Part 2", tsltest::media("mpeg4.mp4"), {kHostEventBadCodec}},
        {"MP3 audio", tsltest::media("mp3audio.mp4"), {kHostEventBadCodec}},
        {"AAC at 22050 Hz", tsltest::media("aac22050.mp4"), {kHostEventBadSampleRate}},
        {"AAC with 6 channels", tsltest::media("aac6ch.mp4"), {kHostEventBadChannels}},
        {"audio only", tsltest::media("audioonly.mp4"), {kHostEventNoVideo}},
        {"cover-art track", tsltest::media("coverart.mp4"), {kHostEventBadCodec}},
        {"two video streams (accepted)", tsltest::media("twovideo.mp4"), {kHostEventIndexReady}},
        {"moov at the end (accepted)", tsltest::media("main.mp4"), {kHostEventIndexReady}},
        {"corrupted sample bytes", corruptedCopy(tsltest::media("main.mp4"), dir), indexOrReadError},
        {"path of 5000 bytes", "/tmp/" + std::string(4995, 'x'), openFails},
        {"path that is not UTF-8", dir + "/bad\xFF\xFE.mp4", openFails},
    };
    for (double fraction : {0.1, 0.35, 0.6, 0.9})
        inputs.push_back({"truncated at " + std::to_string(static_cast<int>(fraction * 100)) + "%",
                          copyWithCut(tsltest::media("faststart.mp4"), dir, fraction), indexOrReadError});
    return inputs;
}

std::string hashOf(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return "missing";
    return S_ISDIR(st.st_mode) ? "directory" : tsltest::fileMd5(path);
}

TEST(BadInputs, EachEndsInItsEventWithNothingWrittenOrLost) {
    const std::string dir = tsltest::scratchDir();
    const auto inputs = badInputs(dir);
    ASSERT_GE(inputs.size(), 15u);
    for (const BadInput& input : inputs) {
        SCOPED_TRACE(input.label);
        const std::string before = hashOf(input.path);
        EventRecorder events;
        void* handle = TSL_CreateTessalo(&events, EventRecorder::callback);
        ASSERT_NE(handle, nullptr);
        ASSERT_TRUE(TSL_StartPic(handle, input.path.c_str()));
        const int32_t outcome = events.waitForAny(kWalkEnd, 60s);
        EXPECT_TRUE(input.expected.count(outcome)) << "walk ended with " << outcome;

        if (outcome == kHostEventIndexReady) {
            // Everything a host could do next must end too.
            const int32_t keys = TSL_GetKeyPtsCount(handle);
            ASSERT_GT(keys, 0);
            std::vector<int64_t> pts(static_cast<size_t>(keys));
            ASSERT_EQ(TSL_GetKeyPts(handle, pts.data()), keys);
            ASSERT_TRUE(TSL_GetPicByPts(handle, pts.data(), keys));
            EXPECT_NE(events.waitForAny({kHostEventPicDone, kHostEventFileError, kHostEventError}, 60s), -1);
            const EditRange range = {pts.front(), pts.back() + 500};
            const std::string out = dir + "/out.mp4";
            if (TSL_CutFile(handle, input.path.c_str(), out.c_str(), &range, 1, nullptr, 0, kCutKindMp4)) {
                EXPECT_NE(events.waitForAny({kHostEventCutDone, kHostEventCutFailed}, 60s), -1);
            }
            TSL_CancelFile(handle);
        }
        TSL_DestoryTessalo(handle);
        EXPECT_EQ(hashOf(input.path), before) << "the input changed";
        const auto seen = events.events();
        EXPECT_EQ(std::count(seen.begin(), seen.end(), kHostEventMediaInfo) > 1, false);
    }
}

}  // namespace
