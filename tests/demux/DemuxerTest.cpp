// The demuxer driven as the instance drives it. The instance's walk tests hold
// every packet's times, size and position against ffprobe; here is what only
// the demuxer shows: payloads, ADTS headers, extra data, property widths, its
// events and reader thread, pausing, stopping and the path property.
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "demux/AVStreamParse.h"
#include "demux/DemuxerAVImpl.h"
#include "instance/FrameRecord.h"
#include "support/ProbeIndex.h"

using namespace Morvel_Tessalo;
using namespace std::chrono_literals;
using tsltest::number;

namespace {

// Storage for a property read starts as this: what stays of it was not written.
constexpr uint64_t kUntouched = 0xA5A5A5A5A5A5A5A5ull;

// kind, detail, on the thread that made the recorder, packets before it
using Event = std::tuple<int, int, bool, size_t>;

struct Packet {
    int kind;
    int32_t size;
    int64_t duration, pos;
    std::string md5;            // of the payload, behind the ADTS header for audio
    std::vector<uint8_t> head;  // the first 7 bytes: the ADTS header for audio
};

// One demuxer wired to its callbacks, started on the thread that makes this;
// what it saw is read once a wait found it complete, or after stop.
struct Recorder {
    explicit Recorder(const std::string& file) {
        property.fill(kUntouched);
        demuxer->init(&Recorder::onPacket, &Recorder::onEvent, this);
        demuxer->setProperty(kDemuxerPropPath, file.c_str());
    }
    bool waitFor(size_t eventCount, size_t packetCount, std::chrono::milliseconds timeout = 60s) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout,
                                [&] { return events.size() >= eventCount && packets.size() >= packetCount; });
    }
    static int onPacket(int kind, DemuxerPacket* p, void* user) {
        auto* self = static_cast<Recorder*>(user);
        const int32_t skip = kind == kDemuxerPacketAudio ? kAdtsHeaderSize : 0;
        std::lock_guard<std::mutex> lock(self->mutex);
        self->packets.push_back({kind, p->size, p->duration, p->pos,
                                 tsltest::md5(p->data + skip, std::max(p->size - skip, 0)),
                                 std::vector<uint8_t>(p->data, p->data + std::min<int32_t>(p->size, 7))});
        self->changed.notify_all();
        return self->answer ? self->answer(self->packets.size() - 1) : 1;
    }
    static void onEvent(int kind, int detail, void*, void* user) {
        auto* self = static_cast<Recorder*>(user);
        if (kind == kDemuxerEventReady) {
            // Id 17 (the index origins) is wider than a slot and only answers after the walk: 18 stands there.
            for (int id = 0; id <= 17; ++id) self->demuxer->getProperty(id == 17 ? 18 : id, &self->property[id]);
            const auto block = [&](int pointer, int size) {
                const auto* bytes = reinterpret_cast<const char*>(self->property[pointer]);
                return bytes ? std::string(bytes, static_cast<int32_t>(self->property[size])) : std::string();
            };
            self->extraData = block(kDemuxerPropExtraData, kDemuxerPropExtraDataSize);
            self->annexBExtraData = block(kDemuxerPropAnnexBExtraData, kDemuxerPropAnnexBExtraDataSize);
        }
        std::lock_guard<std::mutex> lock(self->mutex);
        self->events.emplace_back(kind, detail, std::this_thread::get_id() == self->owner, self->packets.size());
        self->changed.notify_all();
    }

    std::function<int(size_t)> answer;  // the packet callback's answer by 0-based number (default 1)
    std::array<uint64_t, 18> property;
    std::string extraData, annexBExtraData;  // copies of ids 9 and 11
    std::vector<Event> events;
    std::vector<Packet> packets;
    std::thread::id owner = std::this_thread::get_id();
    std::mutex mutex;
    std::condition_variable changed;
    std::unique_ptr<DemuxerAVImpl> demuxer = std::make_unique<DemuxerAVImpl>();  // last: it goes first
};

// A header as a decoder reads it: sync, MPEG-4, no CRC, rate index, channel
// configuration, frame length, fullness 0x7FF, frame count bits.
bool validAdts(const std::vector<uint8_t>& h, int64_t frame, int64_t rate, int64_t channels) {
    return h.size() == 7 && h[0] == 0xFF && h[1] == 0xF1 && ((h[2] >> 2) & 0xF) == (rate == 48000 ? 3 : 4) &&
           (((h[2] & 1) << 2) | (h[3] >> 6)) == channels && (((h[3] & 3) << 11) | (h[4] << 3) | (h[5] >> 5)) == frame &&
           (((h[5] & 0x1F) << 6) | (h[6] >> 2)) == 0x7FF && (h[6] & 3) == (((frame - 7) / 1024) & 3);
}

// Walks `file` to its end and holds each packet against ffprobe's packet at
// the same position, and the extra data against the stream's.
void expectWalkMatchesFfprobe(const std::string& file) {
    const nlohmann::json doc = tsltest::ffprobe(file);
    const tsltest::ProbeIndex index = tsltest::probeIndex(file);
    ASSERT_TRUE(index.ok);
    std::map<int64_t, nlohmann::json> atPos;
    for (const auto& p : doc["packets"]) atPos[number(p, "pos")] = p;
    // The extra data is the last video stream's; the ADTS fields are the last audio stream's.
    int64_t lastVideo = 0, adtsRate = 0, adtsChannels = 0;
    std::string extraDataMd5;
    for (const auto& s : doc["streams"]) {
        if (s.value("codec_type", "") == "video") {
            lastVideo = number(s, "index");
            extraDataMd5 = s.value("extradata_hash", "MD5:").substr(4);
        } else if (s.value("codec_type", "") == "audio") {
            adtsRate = tsltest::fraction(s, "time_base").second;
            adtsChannels = number(s, "channels");
        }
    }
    size_t total = index.audioFrames.size();  // what the index gets is all a walk delivers
    for (const auto& group : index.keyGroups) total += group.size();
    const size_t threadsBefore = tsltest::threadCount();
    Recorder r(file);
    ASSERT_EQ(r.demuxer->start(), 1);
    ASSERT_TRUE(r.waitFor(3, 0)) << "no end of file";
    r.demuxer->stop();
    EXPECT_EQ(tsltest::threadCount(), threadsBefore) << "the reader must be gone after stop";
    // Ready on the caller's thread before any packet; audio (1) then video (2) end from the reader, after all.
    EXPECT_EQ(r.events, (std::vector<Event>{{kDemuxerEventReady, 0, true, 0},
                                            {kDemuxerEventEnded, kDemuxerMediaAudio, false, total},
                                            {kDemuxerEventEnded, kDemuxerMediaVideo, false, total}}));
    ASSERT_EQ(r.packets.size(), total);
    for (const Packet& p : r.packets) {
        const nlohmann::json& truth = atPos[p.pos];
        const bool audio = truth.value("codec_type", "") == "audio";
        if (p.kind != (audio ? kDemuxerPacketAudio : kDemuxerPacketVideo) ||
            p.size != number(truth, "size") + (audio ? kAdtsHeaderSize : 0) ||
            p.md5 != truth.value("data_hash", "MD5:").substr(4) || p.duration != number(truth, "duration") ||
            (audio && !validAdts(p.head, p.size, adtsRate, adtsChannels))) {
            ADD_FAILURE() << "packet at " << p.pos << " of kind " << p.kind << ", size " << p.size << ", head "
                          << ::testing::PrintToString(p.head) << "; ffprobe: " << truth.dump();
            break;
        }
    }
    // Each id writes its own width and no more (18, in the last slot, is no id); no fixture here is turned.
    const int width[18] = {8, 4, 4, 4, 4, 1, 4, 1, 4, 8, 4, 8, 4, 2, 4, 4, 4, 0};
    EXPECT_EQ(static_cast<int32_t>(r.property[kDemuxerPropRotation]), 0);
    for (int id = 0; id <= 17; ++id) {
        const uint64_t above = width[id] == 8 ? 0 : ~0ull << 8 * width[id];
        EXPECT_EQ(r.property[id] & above, kUntouched & above) << "property " << id;
    }
    EXPECT_EQ(tsltest::md5(reinterpret_cast<const uint8_t*>(r.extraData.data()), r.extraData.size()), extraDataMd5);
    // Annex B extra data: the parameter sets behind start codes, as FFmpeg puts them before the first picture.
    const std::string firstPicture = tsltest::run("ffmpeg -v quiet -i " + tsltest::shellQuote(file) + " -map 0:" +
        std::to_string(lastVideo) + " -c copy -bsf:v h264_mp4toannexb -frames:v 1 -f h264 -");
    EXPECT_TRUE(r.annexBExtraData.size() > 8 && firstPicture.find(r.annexBExtraData) != std::string::npos);
    // After the walk: where the index's timelines start, the first indexed video packet's pts and dts and the
    // first indexed audio packet's pts, in ms (0 without audio).
    IndexOrigins origins;
    r.demuxer->getProperty(kDemuxerPropIndexOrigins, &origins);
    const auto ms = [&](const std::vector<tsltest::ProbeRecord>& records, const char* key) {
        return records.empty() ? 0.0 : std::stod(atPos[records[0].position].value(key, std::string("0"))) * 1000;
    };
    EXPECT_NEAR(origins.videoPts, ms(index.keyGroups[0], "pts_time"), 0.01);
    EXPECT_NEAR(origins.videoDts, ms(index.keyGroups[0], "dts_time"), 0.01);
    EXPECT_NEAR(origins.audioPts, ms(index.audioFrames, "pts_time"), 0.01);
    r.demuxer.reset();
    EXPECT_EQ(r.events.size(), 3u) << "nothing may follow the end";
}

}  // namespace

// B-frames, 48000 Hz mono, no audio, two video streams, a subtitle track, a tiny picture; then AAC 44100 Hz
// stereo followed by 48000 Hz mono. Payloads are only there when the walk reads every byte: the index from
// the sample tables leaves them in the file.
TEST(Demuxer, AFullWalkDeliversEveryPacketAsFfprobeReadsIt) {
    setFullWalkForced(true);
    struct Unforce {
        ~Unforce() { setFullWalkForced(false); }
    } unforce;
    for (const char* name :
         {"main.mp4", "mono48k.mp4", "noaudio.mp4", "twovideo.mp4", "subtitle.mp4", "tiny.mp4", "twoaudio.mp4"}) {
        SCOPED_TRACE(name);
        expectWalkMatchesFfprobe(tsltest::media(name));
    }
}

TEST(Demuxer, WritesNoPropertyBeforeStart) {
    Recorder r(tsltest::media("main.mp4"));
    for (int id = 0; id <= 17; ++id) {
        uint64_t storage = kUntouched;
        r.demuxer->getProperty(id, &storage);
        EXPECT_EQ(storage, kUntouched) << "id " << id;
    }
}

// Only id 0 sets the path and the last one wins, even past the parser's 2047-byte copy (FFmpeg gets it all).
TEST(Demuxer, TheLastPathOfIdZeroIsOpened) {
    Recorder r(tsltest::media("no-such-file.mp4"));
    std::string path = tsltest::media("");
    while (path.size() < 2100) path += "./";
    r.demuxer->setProperty(kDemuxerPropPath, (path + "large.mp4").c_str());
    r.demuxer->setProperty(1, tsltest::media("no-such-file.mp4").c_str());
    ASSERT_EQ(r.demuxer->start(), 1);
    EXPECT_TRUE(r.waitFor(1, 1));
}

// Zero from the packet callback holds the reader until resume.
TEST(Demuxer, AZeroAnswerPausesTheReaderUntilResume) {
    Recorder r(tsltest::media("large.mp4"));
    r.answer = [](size_t n) { return n == 9 ? 0 : 1; };
    ASSERT_EQ(r.demuxer->start(), 1);
    ASSERT_TRUE(r.waitFor(1, 10));
    // Unpaused, the reader would have the next packet out well within this.
    EXPECT_FALSE(r.waitFor(1, 11, 300ms));
    // A wake-up only ends a pause that has begun, so resume until the flow restarts.
    bool flowing = false;
    for (int attempt = 0; attempt < 50 && !flowing; ++attempt) {
        r.demuxer->resume(0);
        flowing = r.waitFor(1, 11, 200ms);
    }
    EXPECT_TRUE(flowing);
}

// Stop ends a paused reader before it returns, and neither a second stop nor destruction sends anything.
TEST(Demuxer, StopEndsAPausedReaderAndNothingFollows) {
    const size_t threadsBefore = tsltest::threadCount();
    Recorder r(tsltest::media("large.mp4"));
    r.answer = [](size_t n) { return n == 19 ? 0 : 1; };
    ASSERT_EQ(r.demuxer->start(), 1);
    ASSERT_TRUE(r.waitFor(1, 20));
    EXPECT_EQ(tsltest::threadCount(), threadsBefore + 1) << "the reader runs";
    r.demuxer->stop();
    EXPECT_EQ(tsltest::threadCount(), threadsBefore) << "stop returns with the reader gone";
    r.demuxer->stop();
    r.demuxer.reset();
    EXPECT_EQ(r.packets.size(), 20u);
    EXPECT_EQ(r.events.size(), 1u) << "only the ready event";
}

TEST(Demuxer, DestroyingAWalkingDemuxerEndsItsReader) {
    const size_t threadsBefore = tsltest::threadCount();
    {
        Recorder walking(tsltest::media("large.mp4"));
        ASSERT_EQ(walking.demuxer->start(), 1);
        ASSERT_TRUE(walking.waitFor(1, 1));
    }
    EXPECT_EQ(tsltest::threadCount(), threadsBefore);
}

// 44100 Hz stereo is the worked example; then 48000 Hz mono, six channels across bytes 2 and 3, and lengths
// 2007 and 4107 with the frame count bits.
TEST(Demuxer, AnAdtsHeaderCarriesRateChannelsAndLengthBeforeTheUnchangedPayload) {
    using Bytes = std::vector<uint8_t>;
    const std::tuple<int32_t, int32_t, int32_t, Bytes> rows[] = {
        {100, 44100, 2, {0xFF, 0xF1, 0x10, 0x80, 0x0D, 0x7F, 0xFC}},
        {100, 48000, 1, {0xFF, 0xF1, 0x0C, 0x40, 0x0D, 0x7F, 0xFC}},
        {100, 48000, 6, {0xFF, 0xF1, 0x0D, 0x80, 0x0D, 0x7F, 0xFC}},
        {2000, 44100, 2, {0xFF, 0xF1, 0x10, 0x80, 0xFA, 0xFF, 0xFD}},
        {4100, 44100, 2, {0xFF, 0xF1, 0x10, 0x82, 0x01, 0x7F, 0xFC}}};
    for (const auto& [payload, rate, channels, header] : rows) {
        Bytes in(payload), out(payload + kAdtsHeaderSize);
        for (int32_t i = 0; i < payload; ++i) in[i] = static_cast<uint8_t>(i * 7);
        int32_t size = payload;
        AVStreamParse::wrapAdts(in.data(), out.data(), &size, rate, channels);
        EXPECT_EQ(size, payload + kAdtsHeaderSize);
        EXPECT_EQ(Bytes(out.begin(), out.begin() + kAdtsHeaderSize), header) << payload;
        EXPECT_EQ(Bytes(out.begin() + kAdtsHeaderSize, out.end()), in) << "payload unchanged";
    }
}
