// FileMuxer's states, MPEG4FileMuxer's refusals and writing thread, and the MP4 form of H.264 it makes
// itself; ffprobe and ffmpeg judge the files, libavformat's own writer the avcC record.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "FixtureSamples.h"
#include "base/Results.h"
#include "mux/AvcRecord.h"
#include "mux/MPEG4FileMuxer.h"
#include "mux/MPEG4MuxerThread.h"
#include "support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using tsltest::probe;
using Written = std::pair<int, int64_t>;  // stream, dts in ms
const char kDeduceFailed[] = "Could not deduce output format from file extension.\n";
const char kCounts[] = "-count_packets -show_entries stream=codec_type,nb_read_packets";

std::string printed(const std::function<void()>& call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

// `entry` of each packet of `stream`, in ms.
std::vector<int64_t> timesMs(const std::string& path, const std::string& stream, const char* entry = "dts_time") {
    int status = -1;
    std::istringstream in(probe(path, "-select_streams " + stream + " -show_entries packet=" + entry, &status));
    EXPECT_EQ(0, status);  // the file opens
    std::vector<int64_t> out;
    for (std::string line; std::getline(in, line);)  // side data adds lines
        if (!line.empty() && line[0] != ',') out.push_back(std::llround(std::stod(line) * 1000));
    return out;
}

// "K"/"_" per sample of stream `index` from the sync-sample table (packet flags are redone by a parser).
std::string keyFlags(const std::string& path, int index) {
    const std::string text = tsltest::run("ffprobe -v trace " + tsltest::shellQuote(path) + " 2>&1");
    const std::regex entry("AVIndex stream " + std::to_string(index) + ", .*keyframe ([01])");
    std::string out;
    for (std::sregex_iterator at(text.begin(), text.end(), entry), end; at != end; ++at)
        out += (*at)[1] == "1" ? 'K' : '_';
    return out;
}

muxfixture::Clip& mainClip() {
    static muxfixture::Clip clip;
    static const std::string error = muxfixture::readClip(tsltest::media("main.mp4"), &clip);
    EXPECT_EQ("", error);
    return clip;
}

// A muxer with main.mp4's tracks, a notify that counts, a log of what reached av_interleaved_write_frame.
struct Session : FileMuxerNotify {
    explicit Session(std::string path) : path(std::move(path)) {
        muxer.setNotify(this);
        setMuxWriteObserver(&Session::observe, this);
    }
    ~Session() { setMuxWriteObserver(nullptr, nullptr); }
    void start(bool audio = true) {
        AudioTrackInfo audioInfo = clip.audioInfo();
        VideoTrackInfo videoInfo = clip.videoInfo();
        ASSERT_TRUE(muxer.setOutputFile(path.c_str()) == kOk && (!audio || muxer.addAudioTrack(&audioInfo) == kOk) &&
                    muxer.addVideoTrack(&videoInfo) == kOk && muxer.start() == kOk);
    }
    // The n-th real sample of a track, sent at `dts`.
    int32_t send(int32_t track, int64_t dts, size_t n = 0) {
        n %= track == kTrackAudio ? clip.audioCount : clip.videoCount;
        for (const muxfixture::Sample& s : clip.samples)
            if (s.track == track && n-- == 0)
                return muxer.WriteSampleData(s.bytes.data(), int32_t(s.bytes.size()), track, dts, dts, s.flags);
        return -1;
    }
    void stop() {
        ASSERT_EQ(kOk, muxer.stop());
        EXPECT_EQ(1, muxer.state);
        EXPECT_EQ(1, calls.load());
        EXPECT_FALSE(lockHeld.load());
    }
    std::vector<Written> written() { std::lock_guard<std::mutex> lock(mutex); return log; }
    void onMuxComplete() override {  // must come with both ring mutexes free
        for (std::mutex* ring : {&muxer.audioMutex, &muxer.videoMutex})
            ring->try_lock() ? ring->unlock() : void(lockHeld = true);
        ++calls;
    }
    static void observe(void* user, const AVPacket* p) {
        auto* self = static_cast<Session*>(user);
        if (!p) return;  // a flush of the interleaving queue
        std::lock_guard<std::mutex> lock(self->mutex);
        const AVRational tb = self->muxer.formatContext->streams[p->stream_index]->time_base;
        self->log.emplace_back(p->stream_index, av_rescale_q(p->dts, tb, {1, 1000}));
    }
    const std::string path;
    muxfixture::Clip& clip = mainClip();
    std::mutex mutex;
    std::vector<Written> log;
    std::atomic<int> calls{0};
    std::atomic<bool> lockHeld{false};
    MPEG4FileMuxer muxer;
};

TEST(FileMuxerBase, ACallOutOfItsStateIsRefusedAndSaysSo) {
    FileMuxer m;  // state 0 until an implementation finishes constructing
    uint8_t byte = 0;
    VideoTrackInfo video{};
    AudioTrackInfo audio{};
    // What a call prints (a line feed only after the video message), returns, and leaves as state.
    const auto step = [&](const char* text, int32_t result, int32_t state, const std::function<int32_t()>& call) {
        EXPECT_EQ(text, printed([&] { EXPECT_EQ(result, call()); }));
        EXPECT_EQ(state, m.state);
    };
    const auto write = [&] { return m.WriteSampleData(&byte, 1, kTrackVideo, 0, 0, 0); };
    step("start() is called in invalid state 0", kErrInvalidState, 0, [&] { return m.start(); });
    m.state = 1;
    step("stop() is called in invalid state 1", kErrInvalidState, 1, [&] { return m.stop(); });
    step("WriteSampleData() is called in invalid state 1", kErrInvalidState, 1, write);
    step("", kOk, 1, [&] { return m.setOutputFile("x.mp4") | m.addAudioTrack(&audio) | m.addVideoTrack(&video); });
    step("", kOk, 2, [&] { return m.start(); });
    step("", kOk, 2, write);
    step("start() is called in invalid state 2", kErrInvalidState, 2, [&] { return m.start(); });
    step("addVideoTrack() must be called after constructor and before start().\n", kErrInvalidState, 2,
         [&] { return m.addVideoTrack(&video); });
    step("addAudioTrack() must be called after constructor and before start().", kErrInvalidState, 2,
         [&] { return m.addAudioTrack(&audio); });
    step("", kOk, 3, [&] { return m.stop(); });
    step("stop() is called in invalid state 3", kErrInvalidState, 3, [&] { return m.stop(); });
}

// All of main.mp4 into each container a name picks, directly or by its last three bytes. The whole file is moved
// so that the lower first dts of the tracks is 0; told to keep its times, the writer moves nothing: the first
// picture shows at its own pts (0), decoded at a negative dts, and each track starts where it was sent (the
// clip's audio at -23 ms).
TEST(Mux, TheWholeFixtureGoesIntoEachContainerItsNamePicksAtShiftedOrKeptTimes) {
    const std::string dir = tsltest::scratchDir(), source = tsltest::media("main.mp4");
    const std::string counts = probe(source, kCounts + std::string(" -select_streams a")) +
                               probe(source, kCounts + std::string(" -select_streams v"));
    const std::string keys = keyFlags(source, 0);
    ASSERT_TRUE(keys.find('K') != std::string::npos && keys.find('_') != std::string::npos);
    // The first video pts and dts and the first audio pts, in ms: the source's are the clip's.
    const auto heads = [](const std::string& path) {
        return std::vector<int64_t>{timesMs(path, "v", "pts_time").at(0), timesMs(path, "v").at(0),
                                    timesMs(path, "a", "pts_time").at(0)};
    };
    const std::vector<int64_t> kept = heads(source);
    ASSERT_TRUE(kept[0] == 0 && kept[1] < 0);  // B-frames
    const struct {
        const char *name, *printed, *format;
        bool keepTimes;
    } cases[] = {{"out.mp4", "", "mp4", false}, {"out.mov", "", "mov", false}, {"out.3gp", "", "3gp", false},
                 {"out_mp4", kDeduceFailed, "mp4", false}, {"out.xmov", kDeduceFailed, "mov", false},
                 {"kept.mp4", "", "mp4", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Session r(dir + "/" + c.name);
        r.muxer.shiftToZero = !c.keepTimes;
        EXPECT_EQ(c.printed, printed([&] { r.start(); }));
        EXPECT_STREQ(c.format, r.muxer.outputFormat ? r.muxer.outputFormat->name : "");
        for (const muxfixture::Sample& s : r.clip.samples)
            ASSERT_EQ(kOk, r.muxer.WriteSampleData(s.bytes.data(), int32_t(s.bytes.size()), s.track, s.pts, s.dts,
                                                   s.flags));
        r.stop();
        EXPECT_EQ(tsltest::decodeErrors(r.path), "");
        EXPECT_EQ(counts, probe(r.path, kCounts));
        EXPECT_EQ(keys, keyFlags(r.path, 1));
        const int64_t shift = c.keepTimes ? 0 : -std::min(kept[1], kept[2]);  // audio's dts is its pts
        EXPECT_EQ(heads(r.path), (std::vector<int64_t>{kept[0] + shift, kept[1] + shift, kept[2] + shift}));
    }
}

// Refused before anything is written: a name that picks no container (the fallback is exact and in lower case),
// tracks of another codec or sample size, and a start without a track (which leaves state 3 and tells the owner
// nothing).
TEST(Mux, ASetUpItCannotWriteIsRefusedBeforeAnyHeader) {
    const std::string dir = tsltest::scratchDir();
    for (const char* name : {"a.xyz", "a_MP4"}) {
        MPEG4FileMuxer muxer;
        const std::string bad = dir + "/" + name;
        EXPECT_EQ(std::string(kDeduceFailed) + "unsupported file format!",
                  printed([&] { EXPECT_EQ(kErrUnsupported, muxer.setOutputFile(bad.c_str())); }));
        EXPECT_FALSE(std::filesystem::exists(bad));
    }
    Session r(dir + "/out.mp4");
    ASSERT_EQ(kOk, r.muxer.setOutputFile(r.path.c_str()));
    VideoTrackInfo video = r.clip.videoInfo();
    AudioTrackInfo audio = r.clip.audioInfo();
    video.codecType = audio.codecType = 2;
    EXPECT_EQ(kErrNotFound, r.muxer.addVideoTrack(&video));
    EXPECT_EQ(kErrNotFound, r.muxer.addAudioTrack(&audio));
    audio.codecType = 1;
    audio.sampleBits = 24;
    EXPECT_EQ(kErrInvalidArgument, r.muxer.addAudioTrack(&audio));
    EXPECT_EQ("", printed([&] { EXPECT_EQ(kErrInvalidState, r.muxer.start()); }));
    EXPECT_EQ(3, r.muxer.state);
    EXPECT_EQ(0u, std::filesystem::file_size(r.path));
    EXPECT_EQ(0, r.calls.load());
}

// Per track: a lower dts is refused, and not stored, only while the last one is above 0.
TEST(Mux, ALowerDtsIsRefusedWhileTheTracksLastIsAboveZero) {
    Session r(tsltest::scratchDir() + "/out.mp4");
    r.start();  // video alone on a two-track file stays in its ring
    EXPECT_EQ(kOk, r.send(kTrackVideo, 100));
    EXPECT_EQ(kErrInvalidArgument, r.send(kTrackVideo, 50));
    EXPECT_EQ(kErrInvalidArgument, r.send(kTrackVideo, 80));  // the last dts is still 100
    EXPECT_EQ(kOk, r.send(kTrackVideo, 100));
    for (int64_t dts : {-23, -40, 0, -10, 5}) EXPECT_EQ(kOk, r.send(kTrackAudio, dts));
    EXPECT_EQ(kErrInvalidArgument, r.send(kTrackAudio, 4));
    r.stop();
    const std::vector<Written> log = r.written();  // rebased on the audio head, -23
    EXPECT_EQ(2, std::count(log.begin(), log.end(), Written{kTrackVideo, 123}));
    EXPECT_EQ(2, std::count_if(log.begin(), log.end(), [](const Written& w) { return w.first == kTrackVideo; }));
}

// An output that cannot take the header fails the start. A file that cannot be written fails as a whole:
// samples are refused at once instead of waiting for room, stop says so, and the owner is still told once that
// the thread has ended.
TEST(Mux, AnOutputThatCannotBeWrittenFailsTheStartOrTheWholeFile) {
    const std::string dir = tsltest::scratchDir();
    std::filesystem::create_symlink("/dev/full", dir + "/full.mp4");
    MPEG4FileMuxer muxer;
    AudioTrackInfo audio = mainClip().audioInfo();
    ASSERT_TRUE(muxer.setOutputFile((dir + "/full.mp4").c_str()) == kOk && muxer.addAudioTrack(&audio) == kOk);
    EXPECT_EQ(kErrFileIo, muxer.start());
    Session r(dir + "/out.mp4");
    r.start();
    tsltest::FileSizeLimit limit(200000);
    int32_t result = kOk;
    for (size_t n = 0; n < 100000 && result == kOk; ++n) result = r.send(kTrackVideo, int64_t(n) * 40, n);
    EXPECT_EQ(kErrFileIo, result);
    EXPECT_TRUE(r.muxer.writeFailed());
    EXPECT_EQ(kErrFileIo, r.send(kTrackAudio, 0));
    EXPECT_EQ(kErrFileIo, r.muxer.stop());
    EXPECT_EQ(1, r.calls.load());
}

// 524288 bytes is the largest video sample that fits a ring element.
TEST(Mux, AnOversizeVideoSampleNeverReachesTheFile) {
    Session r(tsltest::scratchDir() + "/out.mp4");
    std::vector<uint8_t> big = r.clip.samples[0].bytes;  // a key frame, padded by a filler NAL unit
    big.insert(big.end(), {0, 0, 1, 0x0C});
    big.resize(524289, 0xFF);
    r.start(false);
    EXPECT_EQ(kErrBufferTooSmall,
              r.muxer.WriteSampleData(big.data(), 524289, kTrackVideo, 0, 0, kSampleFlagVideoKey));
    EXPECT_EQ(kOk, r.muxer.WriteSampleData(big.data(), 524288, kTrackVideo, 0, 0, kSampleFlagVideoKey));
    r.stop();
    EXPECT_EQ("video,1\n", probe(r.path, kCounts));
    EXPECT_EQ(tsltest::decodeErrors(r.path), "");
}

// With the thread held, 200 video samples fill the ring; the 201st returns only after a write.
TEST(Mux, AFullRingBlocksUntilTheThreadHasWrittenOne) {
    Session r(tsltest::scratchDir() + "/out.mp4");
    r.start();
    r.muxer.audioMutex.lock();  // the thread takes this one first
    std::atomic<int> returned{0};
    std::thread caller([&] {
        for (int i = 0; i < 201 && r.send(kTrackVideo, i * 40, i) == kOk; ++i) ++returned;
    });
    for (int i = 0; returned < 200 && i < 10000; ++i) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(200, returned.load()) << "the 201st sample did not wait for room";
    EXPECT_TRUE(r.written().empty());
    r.muxer.audioMutex.unlock();
    caller.join();
    EXPECT_EQ(201, returned.load());
    r.stop();
    EXPECT_EQ("video,201\n", probe(r.path, kCounts));  // none overwritten
}

// Audio alone on a two-track file is held back until its ring is full.
TEST(Mux, LoneAudioWaitsForAFullRing) {
    Session r(tsltest::scratchDir() + "/out.mp4");
    r.start();
    for (int i = 0; i < 299; ++i) ASSERT_EQ(kOk, r.send(kTrackAudio, i * 23, i));
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(r.written().empty());
    ASSERT_EQ(kOk, r.send(kTrackAudio, 299 * 23, 299));
    for (int i = 0; i < 1000 && r.written().empty(); ++i) std::this_thread::sleep_for(10ms);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ((std::vector<Written>{{0, 0}}), r.written());
    r.stop();
    EXPECT_EQ("audio,300\n", probe(r.path, kCounts));
}

// Rows: both tracks; video ahead; a single sample, then stop; no samples (header and trailer all the same).
TEST(Mux, TheLowerDtsGoesFirstATieToVideoAndTheFileStartsAtTheLowerFirstHead) {
    const std::string dir = tsltest::scratchDir();
    const struct {
        std::vector<std::pair<int32_t, int64_t>> sent;  // track, dts
        std::vector<Written> written;
    } cases[] = {
        {{{kTrackVideo, 0}, {kTrackAudio, 0}, {kTrackAudio, 23}, {kTrackVideo, 40}, {kTrackAudio, 46}},
         {{1, 0}, {0, 0}, {0, 23}, {1, 40}, {0, 46}}},
        {{{kTrackVideo, 1040}, {kTrackAudio, 1000}}, {{0, 0}, {1, 40}}},
        {{{kTrackAudio, 5000}}, {{0, 0}}},
        {{}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent.size());
        Session r(dir + "/" + std::to_string(c.sent.size()) + ".mp4");
        r.start();
        for (size_t n = 0; n < c.sent.size(); ++n) ASSERT_EQ(kOk, r.send(c.sent[n].first, c.sent[n].second, n));
        r.stop();
        EXPECT_EQ(c.written, r.written());
        std::vector<int64_t> audioDts, videoDts;
        for (auto [stream, dts] : c.written) (stream ? videoDts : audioDts).push_back(dts);
        EXPECT_EQ(audioDts, timesMs(r.path, "a"));
        EXPECT_EQ(videoDts, timesMs(r.path, "v"));
    }
}

TEST(AvcRecord, IsTheRecordLibavformatWritesForEveryProfileAndLayout) {
    // High 4:2:0, High 4:2:2 10-bit, High 4:4:4 and lossless High 4:4:4 from x264, and GStreamer's file;
    // each stream goes through libavformat's own writer from its start-code form first.
    const std::string dir = tsltest::scratchDir();
    for (const char* name : {"main.mp4", "yuv422p10le.mp4", "yuv444p.mp4", "tables_gst.mp4", "large.mp4"}) {
        SCOPED_TRACE(name);
        const std::string stream = dir + "/" + name + ".h264", written = dir + "/" + name;
        tsltest::run("ffmpeg -nostdin -v error -i " + tsltest::shellQuote(tsltest::media(name)) +
                     " -map 0:v:0 -c copy -bsf:v h264_mp4toannexb -f h264 " + stream +
                     " && ffmpeg -nostdin -v error -i " + stream + " -c copy " + written);
        muxfixture::Clip clip;  // with the parameter sets back in start-code form
        ASSERT_EQ("", muxfixture::readClip(written, &clip));
        const InputFormatHolder input = openInput(written.c_str());
        const AVCodecParameters* par = input->streams[0]->codecpar;
        EXPECT_EQ(avcRecord(clip.annexB.data(), clip.annexB.size()),
                  std::vector<uint8_t>(par->extradata, par->extradata + par->extradata_size));
    }
}

TEST(AvcRecord, NeedsASequenceAndAPictureParameterSet) {
    const uint8_t spsOnly[] = {0, 0, 0, 1, 0x67, 0x64, 0x00, 0x1F, 0xAC};
    EXPECT_TRUE(avcRecord(spsOnly, sizeof spsOnly).empty());
    EXPECT_TRUE(avcRecord(nullptr, 0).empty());
}

TEST(LengthPrefixer, GivesEachUnitItsLengthWhateverItsStartCodeAndLeavesOutTrailingZeros) {
    // A 4-byte start code, a 3-byte one after a unit that ends in a zero byte, bytes before the first
    // start code, and a unit that holds 0x01 and 0x00 0x00 0x03 inside.
    const uint8_t sample[] = {0xAA, 0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x65, 0x01, 0, 0, 3, 1, 0x88, 0,
                              0, 0, 1, 0x41, 0x9A};
    // Then 8 zero bytes of padding, for a decoder that reads past the end.
    const std::vector<uint8_t> expected = {0, 0, 0, 2, 0x09, 0xF0, 0, 0, 0, 7, 0x65, 0x01, 0, 0, 3, 1, 0x88,
                                           0, 0, 0, 2, 0x41, 0x9A, 0, 0, 0, 0, 0, 0, 0, 0};
    // From the pool, and from an allocation of its own when the pool's buffers are too small.
    for (const size_t pooled : {expected.size() - 8, expected.size() - 9}) {
        LengthPrefixer prefixer(pooled);
        PacketHolder packet(av_packet_alloc());
        ASSERT_TRUE(prefixer.convert(sample, sizeof sample, packet.get()));
        ASSERT_EQ(size_t(packet->size), expected.size() - 8);
        EXPECT_EQ(std::vector<uint8_t>(packet->data, packet->data + expected.size()), expected);
        EXPECT_NE(packet->buf, nullptr);  // reference-counted: libavformat keeps it without a copy
        ASSERT_TRUE(prefixer.convert(sample, 1, packet.get()));
        EXPECT_EQ(packet->size, 0);
    }
}

}  // namespace
