#include "DemuxRecorder.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>

#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace demuxtest {

Recorder::Recorder(const char* file, bool compareBytes) : demuxer(std::make_unique<DemuxerAVImpl>()) {
    property.fill(kUntouched);
    if (compareBytes && file) {
        std::ifstream in(file, std::ios::binary);
        fileBytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    demuxer->init(&Recorder::onPacket, &Recorder::onEvent, this);
    if (file) demuxer->setProperty(kDemuxerPropPath, file);
}

Recorder::~Recorder() { demuxer.reset(); }

int Recorder::start() {
    startThread = std::this_thread::get_id();
    return demuxer->start();
}

int Recorder::onPacket(int kind, DemuxerPacket* p, void* user) {
    auto* self = static_cast<Recorder*>(user);
    SeenPacket seen{{kind, p->size, p->pts, p->dts, p->key, p->duration, p->pos}, {}, false};
    seen.head.assign(p->data, p->data + std::min<int32_t>(7, std::max<int32_t>(p->size, 0)));
    const size_t skip = kind == kDemuxerPacketAudio ? 7 : 0;
    if (!self->fileBytes.empty() && p->pos >= 0 && p->size >= static_cast<int32_t>(skip)) {
        const size_t at = static_cast<size_t>(p->pos), length = p->size - skip;
        seen.bytesMatchFile = at + length <= self->fileBytes.size() &&
                              std::memcmp(p->data + skip, self->fileBytes.data() + at, length) == 0;
    }
    size_t number;
    {
        std::lock_guard<std::mutex> lock(self->mutex);
        number = self->seenPackets.size();
        self->seenPackets.push_back(std::move(seen));
    }
    self->changed.notify_all();
    if (self->afterPacket) self->afterPacket(number);
    return self->answer ? self->answer(number) : 1;
}

void Recorder::onEvent(int kind, int detail, void* data, void* user) {
    auto* self = static_cast<Recorder*>(user);
    if (kind == kDemuxerEventReady) {
        for (int id : {15, 14, 13, 8, 0, 4, 2, 1, 3, 6, 10, 9, 12, 11, 5, 7, 16})
            self->demuxer->getProperty(id, &self->property[id]);
        auto copy = [&](int pointerId, int sizeId, std::vector<uint8_t>* out) {
            const auto* bytes = reinterpret_cast<const uint8_t*>(self->property[pointerId]);
            const auto size = static_cast<int32_t>(self->property[sizeId]);
            if (bytes && size > 0) out->assign(bytes, bytes + size);
        };
        copy(9, 10, &self->extraData);
        copy(11, 12, &self->annexBExtraData);
    }
    {
        std::lock_guard<std::mutex> lock(self->mutex);
        if (kind == kDemuxerEventReady) self->readyBeforePackets = self->seenPackets.empty();
        self->seenEvents.push_back({kind, detail, data == nullptr, std::this_thread::get_id() == self->startThread});
    }
    self->changed.notify_all();
}

std::vector<SeenEvent> Recorder::events() const {
    std::lock_guard<std::mutex> lock(mutex);
    return seenEvents;
}

std::vector<SeenPacket> Recorder::packets() const {
    std::lock_guard<std::mutex> lock(mutex);
    return seenPackets;
}

size_t Recorder::packetCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return seenPackets.size();
}

bool Recorder::waitForEvents(size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return seenEvents.size() >= n; });
}

bool Recorder::waitForPackets(size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return seenPackets.size() >= n; });
}

namespace {

// ffprobe writes some numbers as strings ("size": "4680") and unknowns as "N/A".
std::optional<int64_t> number(const nlohmann::json& object, const char* key) {
    if (!object.contains(key)) return std::nullopt;
    const auto& v = object[key];
    if (v.is_number_integer()) return v.get<int64_t>();
    if (v.is_string() && !v.get<std::string>().empty() && v.get<std::string>() != "N/A")
        return std::stoll(v.get<std::string>());
    return std::nullopt;
}

std::pair<int64_t, int64_t> fraction(const nlohmann::json& object, const char* key) {
    const std::string text = object.value(key, std::string("0/1"));
    return {std::stoll(text.substr(0, text.find('/'))), std::stoll(text.substr(text.find('/') + 1))};
}

// ffprobe's -show_data hexdump: "00000000: 0164 000d ...  .d.." per line.
std::vector<uint8_t> fromHexdump(const std::string& dump) {
    std::vector<uint8_t> bytes;
    for (size_t line = 0; line < dump.size();) {
        size_t end = std::min(dump.find('\n', line), dump.size());
        const size_t colon = dump.find(": ", line);
        if (colon < end) {
            std::string digits;
            for (char c : dump.substr(colon + 2, 39))  // 8 groups of 4 digits
                if (isxdigit(static_cast<unsigned char>(c))) digits += c;
            for (size_t i = 0; i + 1 < digits.size(); i += 2)
                bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
        }
        line = end + 1;
    }
    return bytes;
}

}  // namespace

GroundTruth groundTruth(const std::string& file) {
    // Two runs: -show_data would dump every packet's bytes too.
    int status = 0, packetStatus = 0;
    const std::string quoted = tsltest::shellQuote(file);
    const std::string streams = tsltest::run("ffprobe -v quiet -show_streams -show_format -show_data -of json " + quoted, &status);
    const std::string packets = tsltest::run("ffprobe -v quiet -show_packets -of json " + quoted, &packetStatus);
    GroundTruth t;
    if (status != 0 || packetStatus != 0) return t;
    const auto doc = nlohmann::json::parse(streams);

    // Reported: video streams with a picture size, and of the audio streams
    // with a sample rate only the first.
    std::vector<int64_t> video;
    int64_t firstAudio = -1;
    std::vector<std::pair<int64_t, int64_t>> timeBase;
    for (const auto& s : doc["streams"]) {
        timeBase.push_back(fraction(s, "time_base"));
        const int64_t index = *number(s, "index");
        const std::string type = s.value("codec_type", std::string());
        if (type == "video" && number(s, "width").value_or(0) > 0 && number(s, "height").value_or(0) > 0) {
            video.push_back(index);
            t.width = static_cast<int32_t>(*number(s, "width"));
            t.height = static_cast<int32_t>(*number(s, "height"));
            const auto rate = fraction(s, "r_frame_rate");
            t.frameRate = static_cast<int32_t>(rate.first / rate.second);
            t.videoBitRate = static_cast<int32_t>(number(s, "bit_rate").value_or(0));
            t.extraData = fromHexdump(s.value("extradata", std::string()));
        }
        if (type == "audio" && number(s, "sample_rate").value_or(0) != 0) {
            if (firstAudio < 0) {
                firstAudio = index;
                t.sampleRate = static_cast<int32_t>(*number(s, "sample_rate"));
                t.channels = static_cast<int32_t>(number(s, "channels").value_or(0));
            }
            t.audioBitRate = static_cast<int32_t>(number(s, "bit_rate").value_or(0));
            t.adtsRate = static_cast<int32_t>(timeBase.back().second);
            const int64_t channels = number(s, "channels").value_or(0);
            t.adtsChannels = static_cast<int32_t>(channels == 0 ? 2 : channels);
        }
    }
    t.durationMs = std::stod(doc["format"].value("duration", std::string("0"))) * 1000.0;

    // Video waits for the first key packet; pts and dts count from their own
    // bases, shared by all video streams; a missing pts is the dts.
    bool keySeen = false;
    std::optional<int64_t> videoPts, videoDts, audioPts;
    const auto packetDoc = nlohmann::json::parse(packets);
    for (const auto& p : packetDoc["packets"]) {
        const int64_t index = *number(p, "stream_index");
        const std::string flags = p.value("flags", std::string());
        const bool key = flags.find_first_not_of('_') != std::string::npos;
        const int64_t dts = number(p, "dts").value_or(0);
        const int64_t pts = number(p, "pts").value_or(dts);
        const auto [num, den] = timeBase[index];
        Packet e{0, static_cast<int32_t>(*number(p, "size")), 0, 0, key, number(p, "duration").value_or(0),
                 number(p, "pos").value_or(-1)};
        if (std::find(video.begin(), video.end(), index) != video.end()) {
            if (!keySeen && flags.rfind('K', 0) != 0) continue;  // K: AV_PKT_FLAG_KEY
            keySeen = true;
            if (!videoPts) videoPts = pts;
            if (!videoDts) videoDts = dts;
            e.kind = kDemuxerPacketVideo;
            e.pts = (pts - *videoPts) * 1000 * num / den;  // integer division truncates
            e.dts = (dts - *videoDts) * 1000 * num / den;
        } else if (index == firstAudio) {
            if (!audioPts) audioPts = pts;
            e.kind = kDemuxerPacketAudio;
            e.size += 7;
            e.pts = e.dts = (pts - *audioPts) * 1000 / (den / num);  // whole ticks per second
        } else {
            continue;
        }
        t.packets.push_back(e);
    }
    return t;
}

std::string makeFile(const std::string& name, const std::string& arguments) {
    const std::string out = tsltest::scratchDir() + "/" + name;
    int status = 0;
    tsltest::run("ffmpeg -nostdin -v quiet -y " + arguments + " " + tsltest::shellQuote(out), &status);
    EXPECT_EQ(status, 0) << "could not make " << name;
    return out;
}

size_t threadCount() {
    size_t count = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
        closedir(dir);
    }
    return count;
}

}  // namespace demuxtest
