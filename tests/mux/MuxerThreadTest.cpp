// The writing thread: which head goes first, where the file's timeline
// starts, when a lone track is held back, draining on stop, the periodic
// flush, the AAC filter, and the one notification on every path.
#include <gtest/gtest.h>

#include <thread>

#include "MuxTestSupport.h"
#include "base/Results.h"
#include "support/TestSupport.h"

namespace {

using muxtest::CountingNotify;
using muxtest::WriteLog;

struct Written {
    int stream;
    int64_t dtsMs;
    bool operator==(const Written& o) const { return stream == o.stream && dtsMs == o.dtsMs; }
};
std::ostream& operator<<(std::ostream& os, const Written& w) {
    return os << (w.stream == 0 ? "audio " : w.stream == 1 ? "video " : "flush ") << w.dtsMs;
}

class MuxerThreadTest : public testing::Test {
protected:
    void SetUp() override {
        dir = tsltest::scratchDir();
        clip = muxtest::clip("main.mp4");
        ASSERT_FALSE(clip.samples.empty());
        path = dir + "/out.mp4";
        muxer = std::make_unique<MPEG4FileMuxer>();
        notify = std::make_unique<CountingNotify>(muxer.get());
        log = std::make_unique<WriteLog>(muxer.get());
        muxer->setNotify(notify.get());
    }
    void TearDown() override {
        log.reset();
        muxer.reset();
    }

    void start(bool audio = true, bool video = true) {
        ASSERT_EQ(kOk, muxer->setOutputFile(path.c_str()));
        AudioTrackInfo audioInfo = clip.audioInfo();
        VideoTrackInfo videoInfo = clip.videoInfo();
        if (audio) {
            ASSERT_EQ(kOk, muxer->addAudioTrack(&audioInfo));
        }
        if (video) {
            ASSERT_EQ(kOk, muxer->addVideoTrack(&videoInfo));
        }
        ASSERT_EQ(kOk, muxer->start());
    }
    // The n-th real sample of a track, sent with the given timestamps.
    int32_t send(int32_t track, int64_t dts, size_t n, int64_t pts) {
        size_t seen = 0;
        for (const muxfixture::Sample& s : clip.samples) {
            if (s.track != track || seen++ != n % (track == kTrackAudio ? clip.audioCount : clip.videoCount))
                continue;
            return muxer->WriteSampleData(s.bytes.data(), static_cast<int32_t>(s.bytes.size()), track, pts, dts,
                                          s.flags);
        }
        return -1;
    }
    int32_t send(int32_t track, int64_t dts, size_t n = 0) { return send(track, dts, n, dts); }

    std::vector<Written> written() const {
        std::vector<Written> out;
        for (const WriteLog::Entry& e : log->entries()) out.push_back({e.stream, e.dtsMs});
        return out;
    }
    int32_t audioRingCount() {
        pthread_mutex_lock(&muxer->audioMutex);
        const int32_t count = muxer->audioQueue.count;
        pthread_mutex_unlock(&muxer->audioMutex);
        return count;
    }
    void stopAndCheckNotified() {
        ASSERT_EQ(kOk, muxer->stop());
        EXPECT_EQ(1, notify->calls.load());
        EXPECT_FALSE(notify->calledWithLockHeld.load());
    }

    std::string dir;
    std::string path;
    muxfixture::Clip clip;
    std::unique_ptr<MPEG4FileMuxer> muxer;
    std::unique_ptr<CountingNotify> notify;
    std::unique_ptr<WriteLog> log;
};

// The lower dts goes first and a tie goes to video, whatever the moment at
// which the thread looks: a lone track waits for the other.
TEST_F(MuxerThreadTest, HeadsGoInDtsOrderWithTiesToVideo) {
    start();
    EXPECT_EQ(kOk, send(kTrackVideo, 0, 0));
    EXPECT_EQ(kOk, send(kTrackAudio, 0, 0));
    EXPECT_EQ(kOk, send(kTrackAudio, 23, 1));
    EXPECT_EQ(kOk, send(kTrackVideo, 40, 1));
    EXPECT_EQ(kOk, send(kTrackAudio, 46, 2));
    stopAndCheckNotified();
    EXPECT_EQ((std::vector<Written>{{1, 0}, {0, 0}, {0, 23}, {1, 40}, {0, 46}}), written());

    // The file holds them on the same timeline (ffprobe, milliseconds).
    EXPECT_EQ((std::vector<int64_t>{0, 23, 46}), muxtest::packetMs(path, 'a', "dts_time"));
    EXPECT_EQ((std::vector<int64_t>{0, 40}), muxtest::packetMs(path, 'v', "dts_time"));
}

TEST_F(MuxerThreadTest, TimelineStartsAtTheLowerFirstHead) {
    start();
    // Video first: alone it waits, so both heads are seen together.
    EXPECT_EQ(kOk, send(kTrackVideo, 1040, 0));
    EXPECT_EQ(kOk, send(kTrackAudio, 1000, 0));
    stopAndCheckNotified();
    const std::vector<WriteLog::Entry> entries = log->entries();
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(0, entries[0].stream);
    EXPECT_EQ(0, entries[0].dtsMs);
    EXPECT_EQ(1, entries[1].stream);
    EXPECT_EQ(40, entries[1].dtsMs);
    EXPECT_EQ(40, entries[1].ptsMs);
    EXPECT_EQ((std::vector<int64_t>{0}), muxtest::packetMs(path, 'a', "pts_time"));
    EXPECT_EQ((std::vector<int64_t>{40}), muxtest::packetMs(path, 'v', "pts_time"));
}

TEST_F(MuxerThreadTest, SingleSampleIsWrittenAtZeroOnStop) {
    start();
    EXPECT_EQ(kOk, send(kTrackAudio, 5000, 3));
    stopAndCheckNotified();
    EXPECT_EQ((std::vector<Written>{{0, 0}}), written());
    EXPECT_EQ((std::vector<int64_t>{0}), muxtest::packetMs(path, 'a', "dts_time"));
}

// Audio alone on a two-track file is held back until its ring is full; then
// one sample per arrival keeps the ring near full; stop drains the rest.
TEST_F(MuxerThreadTest, LoneAudioWaitsForAFullRing) {
    start();
    for (int i = 0; i < 299; ++i) ASSERT_EQ(kOk, send(kTrackAudio, i * 23, static_cast<size_t>(i)));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, log->writes());
    EXPECT_EQ(299, audioRingCount());

    ASSERT_EQ(kOk, send(kTrackAudio, 299 * 23, 299));
    ASSERT_TRUE(log->waitForWrites(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(1u, log->writes());
    EXPECT_EQ(299, audioRingCount());

    ASSERT_EQ(kOk, send(kTrackAudio, 300 * 23, 300));
    ASSERT_TRUE(log->waitForWrites(2));
    stopAndCheckNotified();
    const std::vector<Written> all = written();
    ASSERT_EQ(301u, all.size());
    for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ((Written{0, static_cast<int64_t>(i) * 23}), all[i]);
    const std::vector<muxtest::StreamCount> counts = muxtest::countPackets(path);
    ASSERT_EQ(1u, counts.size());  // the empty video track is left out
    EXPECT_EQ("audio", counts[0].type);
    EXPECT_EQ(301, counts[0].packets);
}

TEST_F(MuxerThreadTest, CutWithoutSamplesStillFinishesTheFile) {
    start();
    stopAndCheckNotified();
    EXPECT_TRUE(written().empty());
    int status = -1;
    const std::string probe =
        tsltest::run("ffprobe -v error -show_entries format=nb_streams -of csv=p=0 " + tsltest::shellQuote(path) +
                         " 2>&1",
                     &status);
    EXPECT_EQ(0, status) << probe;  // header and trailer are there: the file opens
}

// 600 writes, counted over both tracks, then a flush; the flush itself is
// not counted. Two passes over the fixture give more than 600 samples.
TEST_F(MuxerThreadTest, FlushesTheInterleavingQueueEvery600Writes) {
    int64_t end = 0;
    for (const muxfixture::Sample& s : clip.samples) end = std::max(end, std::max(s.pts, s.dts));
    ASSERT_GT(clip.samples.size() * 2, 600u);
    start();
    EXPECT_EQ(0, muxtest::writeClip(*muxer, clip));
    EXPECT_EQ(0, muxtest::writeClip(*muxer, clip, end + 100));
    stopAndCheckNotified();

    const std::vector<WriteLog::Entry> entries = log->entries();
    std::vector<size_t> flushesAfter;
    size_t writes = 0;
    for (const WriteLog::Entry& e : entries) {
        if (e.stream < 0) {
            flushesAfter.push_back(writes);
        } else {
            ++writes;
        }
    }
    EXPECT_EQ(clip.samples.size() * 2, writes);
    std::vector<size_t> expected;
    for (size_t n = 600; n <= writes; n += 600) expected.push_back(n);
    EXPECT_EQ(expected, flushesAfter);

    // Key marks as given, and every audio packet a key packet.
    size_t videoIndex = 0;
    std::vector<bool> sourceKeys;
    for (const muxfixture::Sample& s : clip.samples)
        if (s.track == kTrackVideo) sourceKeys.push_back(s.flags == kSampleFlagVideoKey);
    for (const WriteLog::Entry& e : entries) {
        if (e.stream == 0) {
            EXPECT_TRUE(e.key);
        } else if (e.stream == 1) {
            EXPECT_EQ(sourceKeys[videoIndex % sourceKeys.size()], e.key) << "video sample " << videoIndex;
            ++videoIndex;
        }
    }
    int status = -1;
    EXPECT_EQ("", muxtest::decodeErrors(path, &status));
    EXPECT_EQ(0, status);
}

// Any bit of 0x40000100 makes a video key packet; audio is always key.
TEST_F(MuxerThreadTest, KeyFlagFromAnyBitOfTheVideoKeyFlag) {
    start(false, true);
    // A P frame: a reader's parser would mark an IDR picture as key by itself.
    size_t index = 0;
    while (clip.samples[index].track != kTrackVideo || clip.samples[index].flags != 0) ++index;
    const muxfixture::Sample& s = clip.samples[index];
    const uint32_t flags[] = {kSampleFlagVideoKey, 0x00000100u, 0x40000000u, 0u, kSampleFlagAudio};
    for (size_t i = 0; i < 5; ++i)
        ASSERT_EQ(kOk, muxer->WriteSampleData(s.bytes.data(), static_cast<int32_t>(s.bytes.size()), kTrackVideo,
                                              static_cast<int64_t>(i) * 40, static_cast<int64_t>(i) * 40, flags[i]));
    stopAndCheckNotified();
    std::vector<bool> keys;
    for (const WriteLog::Entry& e : log->entries()) keys.push_back(e.key);
    // kSampleFlagAudio (0x40000400) shares bit 30 with the key flag.
    EXPECT_EQ((std::vector<bool>{true, true, true, false, true}), keys);
    EXPECT_EQ("KKK_K", muxtest::keyFlags(path, 0));
}

// On a file with one track the first sample anchors the timeline, and each
// sample is written as it comes.
TEST_F(MuxerThreadTest, VideoOnlyFileStartsAtItsFirstSample) {
    const muxfixture::Clip& noaudio = muxtest::clip("noaudio.mp4");
    ASSERT_FALSE(noaudio.hasAudio);
    clip = noaudio;
    start(false, true);
    EXPECT_EQ(0, muxtest::writeClip(*muxer, clip, 3000));
    stopAndCheckNotified();
    const std::vector<WriteLog::Entry> entries = log->entries();
    ASSERT_EQ(clip.videoCount, entries.size());
    EXPECT_EQ(0, entries.front().dtsMs);
    EXPECT_EQ(clip.samples[1].dts - clip.samples[0].dts, entries[1].dtsMs);
    EXPECT_EQ(muxtest::keyFlags(tsltest::media("noaudio.mp4"), 0), muxtest::keyFlags(path, 0));
    int status = -1;
    EXPECT_EQ("", muxtest::decodeErrors(path, &status));
    EXPECT_EQ(0, status);
}

// ADTS-wrapped frames lose their 7-byte header on the way into an MP4;
// raw frames pass unchanged (the other tests send raw frames).
TEST_F(MuxerThreadTest, AdtsHeadersAreStrippedFromAudio) {
    start();
    const int frequencyIndex = clip.sampleRate == 48000 ? 3 : 4;
    std::vector<int> rawSizes;
    for (const muxfixture::Sample& s : clip.samples) {
        std::vector<uint8_t> bytes = s.bytes;
        if (s.track == kTrackAudio) {
            const size_t length = bytes.size() + 7;
            const uint8_t header[7] = {0xFF,
                                       0xF1,
                                       static_cast<uint8_t>((1 << 6) | (frequencyIndex << 2) | ((clip.channels >> 2) & 1)),
                                       static_cast<uint8_t>(((clip.channels & 3) << 6) | ((length >> 11) & 3)),
                                       static_cast<uint8_t>((length >> 3) & 0xFF),
                                       static_cast<uint8_t>(((length & 7) << 5) | 0x1F),
                                       0xFC};
            bytes.insert(bytes.begin(), header, header + 7);
            rawSizes.push_back(static_cast<int>(s.bytes.size()));
        }
        ASSERT_EQ(kOk, muxer->WriteSampleData(bytes.data(), static_cast<int32_t>(bytes.size()), s.track, s.pts,
                                              s.dts, s.flags));
    }
    stopAndCheckNotified();
    std::vector<int> fileSizes;
    for (const std::string& size : muxtest::packetField(path, 'a', "size")) fileSizes.push_back(std::stoi(size));
    EXPECT_EQ(rawSizes, fileSizes);
    int status = -1;
    EXPECT_EQ("", muxtest::decodeErrors(path, &status));
    EXPECT_EQ(0, status);
}

// libx264 will not open at an odd size; the file still declares the true one.
TEST_F(MuxerThreadTest, OddPictureSizeIsKept) {
    const std::string source = dir + "/odd.mp4";
    int status = -1;
    tsltest::run("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=64x48:rate=25:duration=0.4 "
                 "-vf scale=65:49,format=yuv444p -c:v libx264 -preset ultrafast " + tsltest::shellQuote(source) + " 2>&1",
                 &status);
    ASSERT_EQ(0, status);
    muxfixture::Clip odd;
    ASSERT_EQ("", muxfixture::readClip(source, &odd));
    ASSERT_EQ(65, odd.width);
    clip = odd;
    start(false, true);
    EXPECT_EQ(0, muxtest::writeClip(*muxer, clip));
    stopAndCheckNotified();
    EXPECT_EQ("65,49", tsltest::run("ffprobe -v error -select_streams v:0 -show_entries stream=width,height "
                                    "-of csv=p=0 " + tsltest::shellQuote(path)).substr(0, 5));
    EXPECT_EQ("", muxtest::decodeErrors(path, &status));
    EXPECT_EQ(0, status);
}

}  // namespace
