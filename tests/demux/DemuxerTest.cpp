// The demuxer driven as the instance drives it: the files it refuses, whole
// walks held against ffprobe's account of the same file, pausing, stopping,
// the path property and the ADTS header.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "demux/AVStreamParse.h"
#include "demux/DemuxerAVImpl.h"
#include "support/FfprobeJson.h"

using namespace Morvel_Tessalo;
using namespace std::chrono_literals;
using tsltest::number;

namespace {

// Storage for a property read starts as this: what stays of it was not written.
constexpr uint64_t kUntouched = 0xA5A5A5A5A5A5A5A5ull;
using Properties = std::array<uint64_t, 17>;

// kind, detail, data null, on the thread that made the recorder, packets before it
using Event = std::tuple<int, int, bool, bool, size_t>;
// kind, size, pts, dts, key, duration, pos, MD5 of the payload (behind the ADTS header for audio)
using Packet = std::tuple<int, int64_t, int64_t, int64_t, bool, int64_t, int64_t, std::string>;

size_t threadCount() {
    static std::once_flag warm;  // TSan starts a helper thread along with the first thread
    std::call_once(warm, [] { std::thread([] {}).join(); });
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
}

// One demuxer wired to its callbacks, started on the thread that makes this;
// what it saw is read once a wait found it complete, or after stop.
struct Recorder {
    explicit Recorder(const char* file) {
        property.fill(kUntouched);
        demuxer->init(&Recorder::onPacket, &Recorder::onEvent, this);
        if (file) demuxer->setProperty(kDemuxerPropPath, file);
    }
    bool waitFor(size_t eventCount, size_t packetCount, std::chrono::milliseconds timeout = 60s) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout,
                                [&] { return events.size() >= eventCount && packets.size() >= packetCount; });
    }
    static int onPacket(int kind, DemuxerPacket* p, void* user) {
        auto* self = static_cast<Recorder*>(user);
        const int32_t skip = kind == kDemuxerPacketAudio ? 7 : 0;
        Packet packet{kind, p->size, p->pts, p->dts, p->key, p->duration, p->pos,
                      tsltest::md5(p->data + skip, std::max(p->size - skip, 0))};
        size_t number;
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            number = self->packets.size();
            self->packets.push_back(std::move(packet));
            self->heads.emplace_back(p->data, p->data + std::min<int32_t>(p->size, 7));
            self->changed.notify_all();
        }
        return self->answer ? self->answer(number) : 1;
    }
    static void onEvent(int kind, int detail, void* data, void* user) {
        auto* self = static_cast<Recorder*>(user);
        if (kind == kDemuxerEventReady) {  // in the instance's order, then 5, 7 and 16
            for (int id : {15, 14, 13, 8, 0, 4, 2, 1, 3, 6, 10, 9, 12, 11, 5, 7, 16})
                self->demuxer->getProperty(id, &self->property[id]);
            const auto block = [&](int pointer, int size) {
                const auto* bytes = reinterpret_cast<const char*>(self->property[pointer]);
                return bytes ? std::string(bytes, static_cast<int32_t>(self->property[size])) : std::string();
            };
            self->extraData = block(kDemuxerPropExtraData, kDemuxerPropExtraDataSize);
            self->annexBExtraData = block(kDemuxerPropAnnexBExtraData, kDemuxerPropAnnexBExtraDataSize);
        }
        std::lock_guard<std::mutex> lock(self->mutex);
        self->events.emplace_back(kind, detail, !data, std::this_thread::get_id() == self->owner, self->packets.size());
        self->changed.notify_all();
    }

    std::function<int(size_t)> answer;  // the packet callback's answer by 0-based number (default 1)
    Properties property;
    std::string extraData, annexBExtraData;  // copies of ids 9 and 11
    std::vector<Event> events;
    std::vector<Packet> packets;
    std::vector<std::vector<uint8_t>> heads;  // first 7 bytes of each packet: the ADTS header for audio
    std::thread::id owner = std::this_thread::get_id();
    std::mutex mutex;
    std::condition_variable changed;
    std::unique_ptr<DemuxerAVImpl> demuxer = std::make_unique<DemuxerAVImpl>();  // last: it goes first
};

// The reports and properties due for a file, derived from ffprobe's account
// of it and the reporting rules, not from the code under test.
struct Truth {
    std::vector<Packet> packets;
    size_t videoDropped = 0;       // video before the first key packet
    Properties property;           // as stored: each id writes its width; 9 to 12 are below
    std::string extraDataMd5, firstPicture;  // last video stream: its extra data, its first picture in Annex B
    double durationMs = 0;         // id 0
    int64_t adtsRate = 0, adtsChannels = 0;  // last audio stream: time-base rate, channels (0 as 2)
};

Truth groundTruth(const std::string& file) {
    const nlohmann::json doc = tsltest::ffprobe(file);
    Truth t;
    t.property.fill(kUntouched);
    const auto put = [&](int id, int64_t value, int bytes) {
        const uint64_t mask = (1ull << (8 * bytes)) - 1;
        t.property[id] = (kUntouched & ~mask) | (static_cast<uint64_t>(value) & mask);
    };
    put(kDemuxerPropSampleRate, -1, 4), put(kDemuxerPropChannels, 0, 2), put(kDemuxerPropAudioBitRate, 0, 4);
    put(kDemuxerPropHasAudio, 0, 1), put(kDemuxerPropHasVideo, 1, 1), put(kDemuxerPropVideoCodec, kDemuxerCodecH264, 4);
    // Reported: video streams with a picture size, and of the audio streams with a sample rate only the first.
    std::vector<int64_t> video;
    int64_t firstAudio = -1;
    std::vector<std::pair<int64_t, int64_t>> timeBase;
    for (const auto& s : doc["streams"]) {
        timeBase.push_back(tsltest::fraction(s, "time_base"));
        const std::string type = s.value("codec_type", "");
        if (type == "video" && number(s, "width") > 0 && number(s, "height") > 0) {  // the last one's properties
            video.push_back(number(s, "index"));
            const auto rate = tsltest::fraction(s, "r_frame_rate");
            put(kDemuxerPropWidth, number(s, "width"), 4), put(kDemuxerPropHeight, number(s, "height"), 4);
            put(kDemuxerPropFrameRate, rate.first / rate.second, 4);
            put(kDemuxerPropVideoBitRate, number(s, "bit_rate"), 4);
            t.extraDataMd5 = s.value("extradata_hash", "MD5:").substr(4);
        } else if (type == "audio" && number(s, "sample_rate") != 0) {
            const int64_t channels = number(s, "channels");
            if (firstAudio < 0) {
                firstAudio = number(s, "index");
                put(kDemuxerPropSampleRate, number(s, "sample_rate"), 4), put(kDemuxerPropChannels, channels, 2);
                put(kDemuxerPropHasAudio, 1, 1), put(kDemuxerPropAudioCodec, kDemuxerCodecAac, 4);
            }
            put(kDemuxerPropAudioBitRate, number(s, "bit_rate"), 4);  // the last audio stream's
            t.adtsRate = timeBase.back().second, t.adtsChannels = channels == 0 ? 2 : channels;
        }
    }
    t.durationMs = std::stod(doc["format"].value("duration", "0")) * 1000.0;
    t.firstPicture = tsltest::run("ffmpeg -v quiet -i " + tsltest::shellQuote(file) + " -map 0:" +
                                  std::to_string(video.empty() ? 0 : video.back()) +
                                  " -c copy -bsf:v h264_mp4toannexb -frames:v 1 -f h264 -");
    // Video waits for the first key packet; pts and dts count from their own
    // bases, shared by all video streams; a missing pts is the dts.
    bool keySeen = false;
    std::optional<int64_t> videoPts, videoDts, audioPts;
    for (const auto& p : doc["packets"]) {
        const int64_t index = number(p, "stream_index"), dts = number(p, "dts"), pts = number(p, "pts", dts);
        const std::string flags = p.value("flags", ""), md5 = p.value("data_hash", "MD5:").substr(4);
        const bool key = flags.find_first_not_of('_') != std::string::npos;
        const auto [num, den] = timeBase.at(index);
        const int64_t size = number(p, "size"), duration = number(p, "duration"), pos = number(p, "pos", -1);
        if (std::find(video.begin(), video.end(), index) != video.end()) {
            keySeen = keySeen || flags[0] == 'K';  // K: AV_PKT_FLAG_KEY
            t.videoDropped += !keySeen;
            if (!keySeen) continue;
            if (!videoPts) videoPts = pts, videoDts = dts;
            t.packets.emplace_back(kDemuxerPacketVideo, size, (pts - *videoPts) * 1000 * num / den,
                                   (dts - *videoDts) * 1000 * num / den, key, duration, pos, md5);  // truncating
        } else if (index == firstAudio) {
            if (!audioPts) audioPts = pts;
            const int64_t ms = (pts - *audioPts) * 1000 / (den / num);  // whole ticks per second
            t.packets.emplace_back(kDemuxerPacketAudio, size + 7, ms, ms, key, duration, pos, md5);
        }
    }
    return t;
}

// A header as a decoder reads it: sync, MPEG-4, no CRC, rate index, channel
// configuration, frame length, fullness 0x7FF, frame count bits.
bool validAdts(const std::vector<uint8_t>& h, int64_t frame, int64_t rate, int64_t channels) {
    return h.size() == 7 && h[0] == 0xFF && h[1] == 0xF1 && ((h[2] >> 2) & 0xF) == (rate == 48000 ? 3 : 4) &&
           (((h[2] & 1) << 2) | (h[3] >> 6)) == channels && (((h[3] & 3) << 11) | (h[4] << 3) | (h[5] >> 5)) == frame &&
           (((h[5] & 0x1F) << 6) | (h[6] >> 2)) == 0x7FF && (h[6] & 3) == (((frame - 7) / 1024) & 3);
}

// Walks `file` to its end and holds every report against ffprobe.
void expectWalkMatchesFfprobe(const std::string& file) {
    const Truth truth = groundTruth(file);
    ASSERT_FALSE(truth.packets.empty()) << "ffprobe gave no packets";
    const size_t threadsBefore = threadCount();
    Recorder r(file.c_str());
    ASSERT_EQ(r.demuxer->start(), 1);
    ASSERT_TRUE(r.waitFor(3, 0)) << "no end of file";
    r.demuxer->stop();
    EXPECT_EQ(threadCount(), threadsBefore) << "the reader must be gone after stop";
    // Ready on the caller's thread before any packet; Ended audio (1) then video (2) from the reader, after all.
    const size_t n = truth.packets.size();
    EXPECT_EQ(r.events, (std::vector<Event>{{kDemuxerEventReady, 0, true, true, 0},
                                            {kDemuxerEventEnded, kDemuxerMediaAudio, true, false, n},
                                            {kDemuxerEventEnded, kDemuxerMediaVideo, true, false, n}}));
    ASSERT_EQ(r.packets.size(), truth.packets.size());
    for (size_t i = 0; i < r.packets.size(); ++i) {
        const Packet& p = r.packets[i];
        if (p != truth.packets[i] || (std::get<0>(p) == kDemuxerPacketAudio &&
                                      !validAdts(r.heads[i], std::get<1>(p), truth.adtsRate, truth.adtsChannels))) {
            ADD_FAILURE() << "packet " << i << ": " << ::testing::PrintToString(p) << ", expected "
                          << ::testing::PrintToString(truth.packets[i]) << "; head "
                          << ::testing::PrintToString(r.heads[i]);
            break;
        }
    }
    double duration;
    std::memcpy(&duration, &r.property[kDemuxerPropDuration], sizeof duration);
    EXPECT_NEAR(duration, truth.durationMs, 0.0005);
    for (int id : {1, 2, 3, 4, 5, 6, 7, 8, 13, 14, 15, 16})  // 9 to 12: the extra data, below
        EXPECT_EQ(r.property[id], truth.property[id]) << "property " << id;
    EXPECT_EQ(tsltest::md5(reinterpret_cast<const uint8_t*>(r.extraData.data()), r.extraData.size()),
              truth.extraDataMd5);
    // Annex B extra data: the parameter sets behind start codes, as FFmpeg puts them before the first picture.
    EXPECT_TRUE(r.annexBExtraData.size() > 8 && truth.firstPicture.find(r.annexBExtraData) != std::string::npos);
    r.demuxer.reset();
    EXPECT_EQ(r.events.size(), 3u) << "nothing may follow the end";
}

std::string makeFile(const std::string& dir, const std::string& name, const std::string& arguments) {
    int status = 0;
    tsltest::run("ffmpeg -nostdin -v quiet -y " + arguments + " " + tsltest::shellQuote(dir + "/" + name), &status);
    EXPECT_EQ(status, 0) << "could not make " << name;
    return dir + "/" + name;
}

}  // namespace

// Every file the system does not take ends start() with 0 and exactly one
// event naming the reason, on the caller's thread, with no reader left.
TEST(Demuxer, EachRefusalGivesItsOneEventAndZero) {
    const std::string dir = tsltest::scratchDir(), main = "-i " + tsltest::shellQuote(tsltest::media("main.mp4"));
    // Every audio stream must pass, not only the first; and the rate test reads
    // the time base, so AAC in MPEG-TS (44100 Hz counted in 1/90000) is refused.
    const std::string aacMp3 = makeFile(dir, "aac_mp3.mp4", main + " -map 0:v -map 0:a -map 0:a -c:v copy -c:a:0 copy "
                                                                   "-c:a:1 libmp3lame"),
                      ts = makeFile(dir, "main.ts", main + " -c copy");
    const std::tuple<int, int, std::vector<std::string>> table[] = {
        {kDemuxerEventOpenFailed, 0, {"", "no-such-file.mp4", "empty.mp4", "text.mp4", "truncated_nomoov.mp4"}},
        // coverart.mp4: the cover is a PNG video stream with a picture size.
        {kDemuxerEventError, kDemuxerErrorCodec,
         {"hevc.mp4", "mpeg4.mp4", "mp3audio.mp4", "coverart.mp4", "vp9.webm", aacMp3}},
        {kDemuxerEventError, kDemuxerErrorSampleRate, {"aac22050.mp4", ts}},
        {kDemuxerEventError, kDemuxerErrorChannels, {"aac6ch.mp4"}},
        {kDemuxerEventError, kDemuxerErrorNoVideo, {"audioonly.mp4"}}};
    for (const auto& [kind, detail, files] : table)
        for (const std::string& file : files) {
            SCOPED_TRACE(file.empty() ? "no path" : file);
            const std::string path = file.find('/') == std::string::npos ? tsltest::media(file) : file;
            const size_t threadsBefore = threadCount();
            Recorder r(file.empty() ? nullptr : path.c_str());
            EXPECT_EQ(r.demuxer->start(), 0);
            EXPECT_EQ(threadCount(), threadsBefore);
            r.demuxer->stop();  // still safe to stop and destroy, and silent
            r.demuxer.reset();
            EXPECT_EQ(r.events, (std::vector<Event>{{kind, detail, true, true, 0}}));
            EXPECT_TRUE(r.packets.empty());
        }
}

// B-frames, 48000 Hz mono, no audio, moov first, MOV, two video streams (both
// delivered as video), a subtitle track, a tiny picture, a file above 20 MiB;
// then two made files.
TEST(Demuxer, WalksMatchFfprobe) {
    for (const char* name : {"main.mp4", "mono48k.mp4", "noaudio.mp4", "faststart.mp4", "main.mov", "twovideo.mp4",
                             "subtitle.mp4", "tiny.mp4", "large.mp4"}) {
        SCOPED_TRACE(name);
        expectWalkMatchesFfprobe(tsltest::media(name));
    }
    const std::string dir = tsltest::scratchDir(), main = tsltest::shellQuote(tsltest::media("main.mp4"));
    // Two AAC streams: only the first is reported; its rate and channels are
    // the properties, while the last stream gives the bit rate and the ADTS fields.
    const std::string two = makeFile(dir, "twoaudio.mp4", "-i " + main + " -i " +
                                     tsltest::shellQuote(tsltest::media("mono48k.mp4")) +
                                     " -map 0:v -map 0:a -map 1:a -c copy");
    const Truth t = groundTruth(two);
    ASSERT_TRUE(static_cast<int32_t>(t.property[kDemuxerPropSampleRate]) == 44100 &&
                (t.property[kDemuxerPropChannels] & 0xFFFF) == 2 && t.adtsRate == 48000 && t.adtsChannels == 1)
        << "premise: AAC 44100 Hz stereo, then 48000 Hz mono";
    expectWalkMatchesFfprobe(two);
    // Starting inside a group of pictures (MPEG-TS cut short): video before
    // the first key packet never arrives.
    const std::string ts = makeFile(dir, "noaudio.ts", "-i " + tsltest::shellQuote(tsltest::media("noaudio.mp4")) +
                                    " -c copy"), cut = dir + "/midgop.ts";
    tsltest::run("tail -c +" + std::to_string(188 * 120 + 1) + " " + tsltest::shellQuote(ts) + " > " +
                 tsltest::shellQuote(cut));
    ASSERT_GT(groundTruth(cut).videoDropped, 0u) << "premise: video comes before the first key packet";
    expectWalkMatchesFfprobe(cut);
}

// Before start nothing is written; only id 0 sets the path and the last one
// wins, even past the parser's 2047-byte copy (FFmpeg gets the whole path).
// Zero from the packet callback holds the reader until resume; after the end
// stop (twice) and destruction send nothing more.
TEST(Demuxer, PathPauseResumeAndTheEnd) {
    Recorder r(tsltest::media("no-such-file.mp4").c_str());
    for (int id = 0; id <= 16; ++id) {
        uint64_t storage = kUntouched;
        r.demuxer->getProperty(id, &storage);
        EXPECT_EQ(storage, kUntouched) << "id " << id;
    }
    std::string path = tsltest::media("");
    while (path.size() < 2100) path += "./";
    r.demuxer->setProperty(kDemuxerPropPath, (path + "main.mp4").c_str());
    r.demuxer->setProperty(1, tsltest::media("no-such-file.mp4").c_str());
    r.answer = [](size_t n) { return n == 9 ? 0 : 1; };
    ASSERT_EQ(r.demuxer->start(), 1);
    ASSERT_TRUE(r.waitFor(1, 10));
    // Unpaused, the reader would have the rest of this small file out well within this.
    EXPECT_FALSE(r.waitFor(1, 11, 300ms));
    // A wake-up only ends a pause that has begun, so resume until the flow restarts.
    bool flowing = false;
    for (int attempt = 0; attempt < 50 && !flowing; ++attempt) {
        r.demuxer->resume(0);
        flowing = r.waitFor(1, 11, 200ms);
    }
    ASSERT_TRUE(flowing);
    ASSERT_TRUE(r.waitFor(3, 0));
    const size_t total = groundTruth(tsltest::media("main.mp4")).packets.size();
    EXPECT_EQ(r.packets.size(), total);
    r.demuxer->stop();
    r.demuxer->stop();
    r.demuxer.reset();
    EXPECT_EQ(r.packets.size(), total);
    EXPECT_EQ(r.events.size(), 3u);
}

// stop returns with the reader gone, whether the reader is in its loop or
// paused, and nothing follows; destroying a walking demuxer ends it too.
TEST(Demuxer, StopEndsTheReader) {
    const std::string file = tsltest::media("large.mp4");
    const size_t total = groundTruth(file).packets.size();
    for (bool paused : {false, true}) {
        SCOPED_TRACE(paused ? "paused" : "reading");
        const size_t threadsBefore = threadCount();
        Recorder r(file.c_str());
        std::atomic<bool> stopping{false};
        // Packet 10 pauses the reader, or holds it until the test is about to
        // stop and then gives stop a moment to set its state before the next pass.
        r.answer = [&](size_t n) {
            while (!paused && n == 10 && !stopping) std::this_thread::sleep_for(1ms);
            if (n == 10 && !paused) std::this_thread::sleep_for(100ms);
            return paused && n == 10 ? 0 : 1;
        };
        ASSERT_EQ(r.demuxer->start(), 1);
        ASSERT_TRUE(r.waitFor(1, 11));
        EXPECT_EQ(threadCount(), threadsBefore + 1) << "the reader runs";
        stopping = true;
        r.demuxer->stop();
        EXPECT_EQ(threadCount(), threadsBefore) << "stop returns with the reader gone";
        const size_t delivered = r.packets.size();
        EXPECT_TRUE(paused ? delivered == 11 : delivered < total) << delivered;
        EXPECT_EQ(r.events.size(), 1u) << "only the ready event";
        r.demuxer.reset();
        EXPECT_EQ(r.packets.size(), delivered);
    }
    const size_t threadsBefore = threadCount();
    {
        Recorder walking(file.c_str());
        ASSERT_EQ(walking.demuxer->start(), 1);
        ASSERT_TRUE(walking.waitFor(1, 1));
    }
    EXPECT_EQ(threadCount(), threadsBefore) << "destroying a walking demuxer ends its reader";
}

// 44100 Hz stereo is the worked example; then 48000 Hz mono, six channels
// across bytes 2 and 3, and lengths 2007 and 4107 with the frame count bits.
TEST(Demuxer, AdtsHeaders) {
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
