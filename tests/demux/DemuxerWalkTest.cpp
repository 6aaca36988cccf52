// A full walk of real files: the packets and the properties the demuxer
// reports are held against what ffprobe says about the same file.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "DemuxRecorder.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

// Checks an ADTS header as a decoder would read it.
void expectAdtsHeader(const std::vector<uint8_t>& h, int32_t frameSize, int32_t rate, int32_t channels,
                      size_t number) {
    ASSERT_EQ(h.size(), 7u) << "packet " << number;
    const int expectedIndex = rate == 48000 ? 3 : rate == 44100 ? 4 : -1;
    EXPECT_EQ(h[0], 0xFF) << "packet " << number;
    EXPECT_EQ(h[1], 0xF1) << "sync, MPEG-4, layer 0, no CRC; packet " << number;
    EXPECT_EQ((h[2] >> 2) & 0x0F, expectedIndex) << "rate index; packet " << number;
    EXPECT_EQ(((h[2] & 1) << 2) | (h[3] >> 6), channels) << "channel configuration; packet " << number;
    const int length = ((h[3] & 3) << 11) | (h[4] << 3) | (h[5] >> 5);
    EXPECT_EQ(length, frameSize) << "frame length; packet " << number;
    EXPECT_EQ(((h[5] & 0x1F) << 6) | (h[6] >> 2), 0x7FF) << "buffer fullness; packet " << number;
    EXPECT_EQ(h[6] & 3, ((frameSize - 7) / 1024) & 3) << "packet " << number;
}

// Walks `file` to its end and compares every report with the ground truth.
// `compareBytes`: the payloads lie in the file whole at their positions
// (true for MP4/MOV, not for MPEG-TS, which splits them).
void expectWalkMatchesFfprobe(const std::string& file, bool compareBytes) {
    const demuxtest::GroundTruth truth = demuxtest::groundTruth(file);
    ASSERT_FALSE(truth.packets.empty()) << "ffprobe gave no packets for " << file;
    const size_t threadsBefore = demuxtest::threadCount();

    auto demuxer = std::make_unique<DemuxerAVImpl>();
    demuxtest::Recorder recorder(compareBytes ? file : "");
    recorder.attach(demuxer.get());
    demuxer->setProperty(kDemuxerPropPath, file.c_str());
    ASSERT_EQ(recorder.start(), 1);
    ASSERT_TRUE(recorder.waitForEvents(3)) << "no end of file";
    demuxer->stop();
    EXPECT_EQ(demuxtest::threadCount(), threadsBefore) << "the reader must be gone after stop";

    const auto events = recorder.events();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].kind, kDemuxerEventReady);
    EXPECT_TRUE(events[0].onStartThread);
    EXPECT_TRUE(recorder.readyBeforePackets);
    EXPECT_EQ(events[1].kind, kDemuxerEventEnded);
    EXPECT_EQ(events[1].detail, kDemuxerMediaAudio);
    EXPECT_EQ(events[2].kind, kDemuxerEventEnded);
    EXPECT_EQ(events[2].detail, kDemuxerMediaVideo);
    for (const auto& e : events) EXPECT_TRUE(e.dataNull);
    EXPECT_FALSE(events[1].onStartThread) << "the end comes from the reader thread";

    const auto seen = recorder.packets();
    ASSERT_EQ(seen.size(), truth.packets.size());
    int mismatches = 0;
    for (size_t i = 0; i < seen.size() && mismatches < 5; ++i) {
        const auto& s = seen[i];
        const auto& e = truth.packets[i];
        const bool same = s.kind == e.kind && s.size == e.size && s.pts == e.pts && s.dts == e.dts &&
                          s.key == e.key && s.duration == e.duration && s.pos == e.pos;
        if (!same) {
            ++mismatches;
            ADD_FAILURE() << "packet " << i << ": got kind " << s.kind << " size " << s.size << " pts " << s.pts
                          << " dts " << s.dts << " key " << s.key << " duration " << s.duration << " pos " << s.pos
                          << "; expected kind " << e.kind << " size " << e.size << " pts " << e.pts << " dts "
                          << e.dts << " key " << e.key << " duration " << e.duration << " pos " << e.pos;
        }
        if (s.kind == kDemuxerPacketAudio) {
            expectAdtsHeader(s.head, s.size, truth.adtsRate, truth.adtsChannels, i);
        }
        if (compareBytes && !s.bytesMatchFile) {
            ++mismatches;
            ADD_FAILURE() << "packet " << i << ": payload differs from the file's bytes at " << s.pos;
        }
    }
    demuxer.reset();
    EXPECT_EQ(recorder.events().size(), 3u) << "nothing may follow the end";
}

class WalkedFile : public ::testing::TestWithParam<std::string> {};

TEST_P(WalkedFile, PacketsMatchFfprobe) { expectWalkMatchesFfprobe(tsltest::media(GetParam()), true); }

INSTANTIATE_TEST_SUITE_P(Fixtures, WalkedFile,
                         ::testing::Values("main.mp4", "mono48k.mp4", "noaudio.mp4", "faststart.mp4", "main.mov",
                                           "twovideo.mp4", "subtitle.mp4", "tiny.mp4", "large.mp4"),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string name = info.param;
                             for (char& c : name)
                                 if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                             return name;
                         });

// Properties against ffprobe's streams and format.
struct ProbedProperties {
    int32_t width = 0, height = 0, frameRate = 0, videoBitRate = 0;
    int32_t sampleRate = -1, channels = 0, audioBitRate = 0;
    bool hasAudio = false;
    double durationMs = 0;
    std::vector<uint8_t> extraData;
};

int64_t asNumber(const nlohmann::json& value) {
    if (value.is_number_integer()) return value.get<int64_t>();
    if (value.is_string() && value.get<std::string>() != "N/A") return std::stoll(value.get<std::string>());
    return 0;
}

std::vector<uint8_t> fromHexdump(const std::string& dump) {
    std::vector<uint8_t> bytes;
    size_t line = 0;
    while (line < dump.size()) {
        size_t end = dump.find('\n', line);
        if (end == std::string::npos) end = dump.size();
        const std::string text = dump.substr(line, end - line);
        const size_t colon = text.find(": ");
        if (colon != std::string::npos) {
            const std::string hex = text.substr(colon + 2, 39);  // 8 groups of 4 digits
            std::string digits;
            for (char c : hex)
                if (isxdigit(static_cast<unsigned char>(c))) digits += c;
            for (size_t i = 0; i + 1 < digits.size(); i += 2)
                bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
        }
        line = end + 1;
    }
    return bytes;
}

ProbedProperties probe(const std::string& file) {
    int status = 0;
    const auto doc = nlohmann::json::parse(
        tsltest::run("ffprobe -v error -show_streams -show_format -show_data -of json " + tsltest::shellQuote(file) +
                         " 2>/dev/null",
                     &status));
    EXPECT_EQ(status, 0);
    ProbedProperties p;
    bool firstAudio = true;
    for (const auto& s : doc["streams"]) {
        const std::string type = s.value("codec_type", std::string());
        if (type == "video" && asNumber(s.value("width", nlohmann::json(0))) > 0) {
            p.width = static_cast<int32_t>(asNumber(s["width"]));
            p.height = static_cast<int32_t>(asNumber(s["height"]));
            const std::string rate = s.value("r_frame_rate", std::string("0/1"));
            const double num = std::stod(rate.substr(0, rate.find('/')));
            const double den = std::stod(rate.substr(rate.find('/') + 1));
            p.frameRate = static_cast<int32_t>(num / den);
            p.videoBitRate = static_cast<int32_t>(asNumber(s.value("bit_rate", nlohmann::json("0"))));
            p.extraData = fromHexdump(s.value("extradata", std::string()));
        }
        if (type == "audio" && asNumber(s.value("sample_rate", nlohmann::json("0"))) != 0) {
            if (firstAudio) {
                p.sampleRate = static_cast<int32_t>(asNumber(s["sample_rate"]));
                p.channels = static_cast<int32_t>(asNumber(s["channels"]));
                firstAudio = false;
            }
            p.hasAudio = true;
            p.audioBitRate = static_cast<int32_t>(asNumber(s.value("bit_rate", nlohmann::json("0"))));
        }
    }
    p.durationMs = std::stod(doc["format"].value("duration", std::string("0"))) * 1000.0;
    return p;
}

// The Annex B form of an avcC record: each parameter set behind a 4-byte start code.
std::vector<uint8_t> annexBFromAvcC(const std::vector<uint8_t>& avcC) {
    std::vector<uint8_t> out;
    if (avcC.size() < 7 || avcC[0] != 1) return out;
    size_t at = 5;
    for (int kind = 0; kind < 2; ++kind) {
        if (at >= avcC.size()) break;
        int count = kind == 0 ? (avcC[at] & 0x1F) : avcC[at];
        ++at;
        for (int i = 0; i < count && at + 2 <= avcC.size(); ++i) {
            const size_t length = (avcC[at] << 8) | avcC[at + 1];
            at += 2;
            if (at + length > avcC.size()) return {};
            out.insert(out.end(), {0, 0, 0, 1});
            out.insert(out.end(), avcC.begin() + at, avcC.begin() + at + length);
            at += length;
        }
    }
    return out;
}

demuxtest::Properties readyProperties(const std::string& file) {
    auto demuxer = std::make_unique<DemuxerAVImpl>();
    demuxtest::Recorder recorder;
    recorder.attach(demuxer.get());
    demuxer->setProperty(kDemuxerPropPath, file.c_str());
    EXPECT_EQ(recorder.start(), 1);
    demuxer->stop();
    return recorder.properties;
}

void expectPropertiesMatchFfprobe(const std::string& file) {
    const ProbedProperties want = probe(file);
    const demuxtest::Properties got = readyProperties(file);
    EXPECT_EQ(got.width, want.width);
    EXPECT_EQ(got.height, want.height);
    EXPECT_EQ(got.frameRate, want.frameRate);
    EXPECT_EQ(got.videoBitRate, want.videoBitRate);
    EXPECT_NEAR(got.duration, want.durationMs, 0.0005);
    EXPECT_EQ(got.hasVideo, 1);
    EXPECT_EQ(got.videoCodec, kDemuxerCodecH264);
    EXPECT_EQ(got.sampleRate, want.sampleRate);
    EXPECT_EQ(got.channelsWide, 0xABCD0000u | static_cast<uint32_t>(want.channels))
        << "only the low 16 bits are written";
    EXPECT_EQ(got.audioBitRate, want.audioBitRate);
    EXPECT_EQ(got.hasAudio, want.hasAudio ? 1 : 0);
    EXPECT_EQ(got.audioCodec, want.hasAudio ? kDemuxerCodecAac : 0x5A5A) << "without audio id 8 writes nothing";
    EXPECT_EQ(got.beyondTable, 0x1122334455667788ull) << "id 16 writes nothing";
    EXPECT_EQ(got.extraDataCopy, want.extraData);
    const std::vector<uint8_t> annexB = annexBFromAvcC(want.extraData);
    ASSERT_FALSE(annexB.empty());
    EXPECT_EQ(got.annexBCopy, annexB);
}

class PropertiesOf : public ::testing::TestWithParam<std::string> {};

TEST_P(PropertiesOf, MatchFfprobe) { expectPropertiesMatchFfprobe(tsltest::media(GetParam())); }

INSTANTIATE_TEST_SUITE_P(Fixtures, PropertiesOf,
                         ::testing::Values("main.mp4", "mono48k.mp4", "noaudio.mp4", "twovideo.mp4", "main.mov"),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string name = info.param;
                             for (char& c : name)
                                 if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                             return name;
                         });

// The values the instance relies on for a file without audio, spelled out.
TEST(PropertiesWithoutAudio, AreTheNoAudioValues) {
    const demuxtest::Properties got = readyProperties(tsltest::media("noaudio.mp4"));
    EXPECT_EQ(got.sampleRate, -1);
    EXPECT_EQ(got.hasAudio, 0);
    EXPECT_EQ(got.channelsWide, 0xABCD0000u);
    EXPECT_EQ(got.audioBitRate, 0);
    EXPECT_EQ(got.audioCodec, 0x5A5A);
    EXPECT_EQ(got.hasVideo, 1);
}

class MadeWalkFiles : public ::testing::Test {
protected:
    std::string make(const std::string& name, const std::string& arguments) {
        if (dir.empty()) dir = tsltest::scratchDir();
        const std::string out = dir + "/" + name;
        int status = 0;
        tsltest::run("ffmpeg -nostdin -hide_banner -loglevel error -y " + arguments + " " + tsltest::shellQuote(out),
                     &status);
        EXPECT_EQ(status, 0) << "could not make " << name;
        return out;
    }
    std::string dir;
};

// Two AAC streams: only the first is reported; the tables give the first
// stream's rate and channels, the last stream fills the audio bit rate and
// the rate and channels that the ADTS header carries.
TEST_F(MadeWalkFiles, OnlyTheFirstAudioStreamIsReported) {
    const std::string file = make("twoaudio.mp4", "-i " + tsltest::shellQuote(tsltest::media("main.mp4")) + " -i " +
                                                      tsltest::shellQuote(tsltest::media("mono48k.mp4")) +
                                                      " -map 0:v -map 0:a -map 1:a -c copy");
    expectWalkMatchesFfprobe(file, true);
    const ProbedProperties want = probe(file);
    const demuxtest::Properties got = readyProperties(file);
    EXPECT_EQ(got.sampleRate, 44100);
    EXPECT_EQ(got.channelsWide & 0xFFFF, 2u);
    EXPECT_EQ(got.audioBitRate, want.audioBitRate) << "the last audio stream's bit rate";
    const auto truth = demuxtest::groundTruth(file);
    EXPECT_EQ(truth.adtsRate, 48000);
    EXPECT_EQ(truth.adtsChannels, 1);
}

// A stream that starts inside a group of pictures: the packets before the
// first key packet never arrive, and the first one that does has pts and dts 0.
TEST_F(MadeWalkFiles, VideoBeforeTheFirstKeyIsDropped) {
    const std::string whole =
        make("noaudio.ts", "-i " + tsltest::shellQuote(tsltest::media("noaudio.mp4")) + " -c copy -an");
    const std::string cut = dir + "/midgop.ts";
    int status = 0;
    // Skip 120 TS packets (188 bytes each): well into the first second's group.
    tsltest::run("tail -c +" + std::to_string(188 * 120 + 1) + " " + tsltest::shellQuote(whole) + " > " +
                     tsltest::shellQuote(cut),
                 &status);
    ASSERT_EQ(status, 0);
    const std::string first = tsltest::run(
        "ffprobe -v error -select_streams v:0 -show_entries packet=flags -read_intervals %+#1 -of csv=p=0 " +
        tsltest::shellQuote(cut) + " 2>/dev/null");
    ASSERT_EQ(first.substr(0, 1), "_") << "premise: the cut file must start with a non-key packet";
    expectWalkMatchesFfprobe(cut, false);
    const auto truth = demuxtest::groundTruth(cut);
    ASSERT_FALSE(truth.packets.empty());
    EXPECT_TRUE(truth.packets[0].key);
    EXPECT_EQ(truth.packets[0].pts, 0);
    EXPECT_EQ(truth.packets[0].dts, 0);
}

}  // namespace
