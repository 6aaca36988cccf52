// Files that users did not make: each must end its walk in a defined event, with no crash, no hang and the
// file's bytes exactly as they were; a refusal leaves no index and the instance ready for the next file.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "support/ApiHost.h"
#include "support/ProbeIndex.h"

namespace {

using namespace tsltest;

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

// A directory has no bytes of its own; a file that cannot be read, none too ("").
std::string hashOf(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_directory(path, error) ? "directory" : fileMd5(path);
}

// Every audio stream must pass, not only the first (AAC then MP3); and the rate test reads the time base,
// so AAC in MPEG-TS (44100 Hz counted in 1/90000) is refused.
TEST(BadInputs, EachEndsInItsEventChangesNothingAndARefusalLeavesTheInstanceUsable) {
    const std::string dir = scratchDir(), faststart = media("faststart.mp4"), main = media("main.mp4");
    int status = 0;
    for (const char* name : {"empty.mp4", "text.mp4"}) {  // FFmpeg cannot open these: asked, not assumed
        probe(media(name), "", &status);
        ASSERT_NE(status, 0) << name << " opens in ffprobe";
    }
    const std::vector<int64_t> mainKeys = probeIndex(main).keyPts();
    const std::set<int32_t> openFails = {kHostEventFileError}, badCodec = {kHostEventBadCodec};
    const std::set<int32_t> indexOrReadError = {kHostEventIndexReady, kHostEventError, kHostEventFileError};
    const std::vector<std::tuple<std::string, std::string, std::set<int32_t>>> inputs = {
        {"missing", "/nonexistent/tessalo/missing.mp4", openFails},
        {"zero bytes", media("empty.mp4"), openFails},
        {"a directory", dir, openFails},
        {"a text file", media("text.mp4"), openFails},
        {"no moov (truncated moov-at-end file)", media("truncated_nomoov.mp4"), openFails},
        {"HEVC", media("hevc.mp4"), badCodec},
        {"VP9 in WebM", media("vp9.webm"), badCodec},
        {"MPEG-4 Visual", media("mpeg4.mp4"), badCodec},
        {"MP3 audio", media("mp3audio.mp4"), badCodec},
        {"AAC and MP3 audio", media("aac_mp3.mp4"), badCodec},
        {"AAC at 22050 Hz", media("aac22050.mp4"), {kHostEventBadSampleRate}},
        {"AAC in MPEG-TS", media("main.ts"), {kHostEventBadSampleRate}},
        {"AAC with 6 channels", media("aac6ch.mp4"), {kHostEventBadChannels}},
        {"audio only", media("audioonly.mp4"), {kHostEventNoVideo}},
        {"cover-art track (left out, accepted)", media("coverart.mp4"), {kHostEventIndexReady}},
        {"two video streams (accepted)", media("twovideo.mp4"), {kHostEventIndexReady}},
        {"moov at the end (accepted)", main, {kHostEventIndexReady}},
        {"corrupted sample bytes", damagedCopy(main, dir + "/junk.mp4", 1.0, true), indexOrReadError},
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
        {
            Host host;
            const int32_t outcome = host.walk(path);
            EXPECT_TRUE(expected.count(outcome)) << "walk ended with " << outcome;
            EXPECT_LE(host.events.count(kHostEventMediaInfo), 1u);
            if (outcome == kHostEventIndexReady) {  // everything a host could do next must end too
                const std::vector<int64_t> keys = host.keyPts();
                ASSERT_FALSE(keys.empty());
                const Events request = host.request(keys);
                const std::set<int32_t> requestEnds{kHostEventPicDone, kHostEventError, kHostEventFileError};
                EXPECT_TRUE(!request.empty() && requestEnds.count(request.back()));
                EXPECT_NE(host.cut(path, dir + "/out.mp4", {keys.front(), keys.back() + 500}, kCutKindMp4), -1);
                TSL_CancelFile(host.handle);
            } else if (expected.size() == 1) {  // a refusal: one event, no index, and the next walk as any other
                EXPECT_EQ(TSL_GetKeyPtsCount(host.handle), 0);
                // The next walk joins the refused one: only then is its event list final.
                ASSERT_TRUE(TSL_StartPic(host.handle, main.c_str()));
                ASSERT_TRUE(host.events.waitFor(kHostEventIndexReady));
                EXPECT_EQ(host.events.events(), (Events{outcome, kHostEventMediaInfo, kHostEventIndexReady}));
                EXPECT_EQ(host.keyPts(), mainKeys);
            }
        }
        EXPECT_EQ(hashOf(path), before) << "the input changed";
    }
}

}  // namespace
