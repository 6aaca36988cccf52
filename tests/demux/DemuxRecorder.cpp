#include "DemuxRecorder.h"

#include <dirent.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>

#include "support/TestSupport.h"

using Morvel_Tessalo::DemuxerAVImpl;
using Morvel_Tessalo::DemuxerPacket;

namespace demuxtest {

Recorder::Recorder(const std::string& file) {
    if (file.empty()) return;
    std::ifstream in(file, std::ios::binary);
    fileBytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void Recorder::attach(DemuxerAVImpl* target) {
    demuxer = target;
    demuxer->init(&Recorder::onPacket, &Recorder::onEvent, this);
}

int Recorder::start() {
    startThread = std::this_thread::get_id();
    return demuxer->start();
}

int Recorder::onPacket(int kind, DemuxerPacket* packet, void* user) {
    auto* self = static_cast<Recorder*>(user);
    SeenPacket seen{kind,        packet->size,     packet->pts, packet->dts, packet->key,
                    packet->duration, packet->pos, {},          false};
    const size_t headSize = std::min<size_t>(7, packet->size > 0 ? packet->size : 0);
    seen.head.assign(packet->data, packet->data + headSize);
    if (!self->fileBytes.empty() && packet->pos >= 0) {
        const size_t skip = kind == Morvel_Tessalo::kDemuxerPacketAudio ? 7 : 0;
        const size_t payload = packet->size >= static_cast<int32_t>(skip) ? packet->size - skip : 0;
        const size_t at = static_cast<size_t>(packet->pos);
        seen.bytesMatchFile = at + payload <= self->fileBytes.size() &&
                              std::memcmp(packet->data + skip, self->fileBytes.data() + at, payload) == 0;
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
    const bool onStart = std::this_thread::get_id() == self->startThread;
    if (kind == Morvel_Tessalo::kDemuxerEventReady && self->demuxer) {
        // Read as the instance does, in its order.
        Properties& p = self->properties;
        DemuxerAVImpl* d = self->demuxer;
        d->getProperty(15, &p.audioBitRate);
        d->getProperty(14, &p.sampleRate);
        d->getProperty(13, &p.channelsWide);
        d->getProperty(8, &p.audioCodec);
        d->getProperty(0, &p.duration);
        d->getProperty(4, &p.videoBitRate);
        d->getProperty(2, &p.height);
        d->getProperty(1, &p.width);
        d->getProperty(3, &p.frameRate);
        d->getProperty(6, &p.videoCodec);
        d->getProperty(10, &p.extraDataSize);
        d->getProperty(9, &p.extraData);
        d->getProperty(12, &p.annexBExtraDataSize);
        d->getProperty(11, &p.annexBExtraData);
        d->getProperty(5, &p.hasVideo);
        d->getProperty(7, &p.hasAudio);
        d->getProperty(16, &p.beyondTable);
        if (p.extraData && p.extraDataSize > 0)
            p.extraDataCopy.assign(p.extraData, p.extraData + p.extraDataSize);
        if (p.annexBExtraData && p.annexBExtraDataSize > 0)
            p.annexBCopy.assign(p.annexBExtraData, p.annexBExtraData + p.annexBExtraDataSize);
    }
    {
        std::lock_guard<std::mutex> lock(self->mutex);
        if (kind == Morvel_Tessalo::kDemuxerEventReady) self->readyBeforePackets = self->seenPackets.empty();
        self->seenEvents.push_back({kind, detail, data == nullptr, onStart});
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

bool Recorder::waitForEvents(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return seenEvents.size() >= count; });
}

bool Recorder::waitForPackets(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return seenPackets.size() >= count; });
}

namespace {

// ffprobe writes some numbers as strings ("size": "4680").
std::optional<int64_t> number(const nlohmann::json& object, const char* key) {
    if (!object.contains(key)) return std::nullopt;
    const auto& value = object[key];
    if (value.is_number_integer()) return value.get<int64_t>();
    if (value.is_string()) {
        const std::string text = value.get<std::string>();
        if (text.empty() || text == "N/A") return std::nullopt;
        return std::stoll(text);
    }
    return std::nullopt;
}

struct Rational {
    int64_t num = 0, den = 0;
};

Rational rational(const std::string& text) {
    Rational r;
    const auto slash = text.find('/');
    if (slash == std::string::npos) return r;
    r.num = std::stoll(text.substr(0, slash));
    r.den = std::stoll(text.substr(slash + 1));
    return r;
}

}  // namespace

GroundTruth groundTruth(const std::string& file) {
    int status = 0;
    const std::string out = tsltest::run(
        "ffprobe -v error -show_entries stream=index,codec_type,time_base,sample_rate,channels,width,height "
        "-show_packets -of json " + tsltest::shellQuote(file) + " 2>/dev/null",
        &status);
    GroundTruth truth;
    if (status != 0) return truth;
    const auto doc = nlohmann::json::parse(out);

    // Which streams are reported: video streams with a picture size; of the
    // audio streams with a sample rate, only the first. The ADTS header takes
    // the rate and channels of the last such audio stream.
    std::vector<int64_t> video;
    int64_t firstAudio = -1;
    std::vector<Rational> timeBase(doc["streams"].size());
    for (const auto& stream : doc["streams"]) {
        const int64_t index = *number(stream, "index");
        timeBase[index] = rational(stream.value("time_base", std::string()));
        const std::string type = stream.value("codec_type", std::string());
        if (type == "video" && number(stream, "width").value_or(0) > 0 && number(stream, "height").value_or(0) > 0)
            video.push_back(index);
        if (type == "audio" && number(stream, "sample_rate").value_or(0) != 0) {
            if (firstAudio < 0) firstAudio = index;
            truth.adtsRate = static_cast<int32_t>(timeBase[index].den);
            const int64_t channels = number(stream, "channels").value_or(0);
            truth.adtsChannels = static_cast<int32_t>(channels == 0 ? 2 : channels);
        }
    }

    bool keySeen = false;
    std::optional<int64_t> videoPtsBase, videoDtsBase, audioPtsBase;
    for (const auto& packet : doc["packets"]) {
        ++truth.totalPackets;
        const int64_t index = *number(packet, "stream_index");
        const std::string flags = packet.value("flags", std::string());
        const bool key = flags.find_first_not_of('_') != std::string::npos;
        const std::optional<int64_t> dts = number(packet, "dts");
        const int64_t pts = number(packet, "pts").value_or(dts.value_or(INT64_MIN));
        const int64_t size = *number(packet, "size");
        const int64_t pos = number(packet, "pos").value_or(-1);
        const int64_t duration = number(packet, "duration").value_or(0);
        const Rational tb = timeBase[index];
        if (std::find(video.begin(), video.end(), index) != video.end()) {
            if (!keySeen && (flags.empty() || flags[0] != 'K')) continue;  // AV_PKT_FLAG_KEY
            keySeen = true;
            if (!videoPtsBase) videoPtsBase = pts;
            if (!videoDtsBase) videoDtsBase = dts;
            // ms = ticks * 1000 * num / den, truncated towards zero.
            auto ms = [&](int64_t ticks) { return ticks * 1000 * tb.num / tb.den; };
            truth.packets.push_back({Morvel_Tessalo::kDemuxerPacketVideo, static_cast<int32_t>(size),
                                     ms(pts - *videoPtsBase), ms(*dts - *videoDtsBase), key, duration, pos});
        } else if (index == firstAudio) {
            if (!audioPtsBase) audioPtsBase = pts;
            // Audio counts whole ticks per second: den / num, remainder dropped.
            const int64_t ms = (pts - *audioPtsBase) * 1000 / (tb.den / tb.num);
            truth.packets.push_back({Morvel_Tessalo::kDemuxerPacketAudio, static_cast<int32_t>(size + 7), ms, ms,
                                     key, duration, pos});
        }
    }
    return truth;
}

size_t threadCount() {
    size_t count = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.') ++count;
        closedir(dir);
    }
    return count;
}

}  // namespace demuxtest
