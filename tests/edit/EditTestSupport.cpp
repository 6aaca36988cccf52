#include "EditTestSupport.h"

#include <unistd.h>

#include <fstream>
#include <thread>

namespace edittest {

// Keeps the muxer contract's observable side: the calling order, every
// sample with its bytes, and one completion per successful start, delivered
// on a thread of its own as the writing thread of a real muxer does.
class RecordingMuxer : public FileMuxer {
public:
    explicit RecordingMuxer(std::shared_ptr<MuxerLog> log) : log(std::move(log)) { state = 1; }
    ~RecordingMuxer() override { note("delete"); }

    int32_t setOutputFile(const char* path) override {
        note("setOutputFile");
        auto& recorder = MuxerRecorder::instance();
        std::lock_guard<std::mutex> lock(recorder.mutex);
        log->outputPath = path ? path : "";
        return recorder.refuseOutput ? -5 : 0;
    }
    int32_t addAudioTrack(const AudioTrackInfo* info) override {
        note("addAudioTrack");
        return FileMuxer::addAudioTrack(info);
    }
    int32_t addVideoTrack(const VideoTrackInfo* info) override {
        note("addVideoTrack");
        auto& recorder = MuxerRecorder::instance();
        std::lock_guard<std::mutex> lock(recorder.mutex);
        if (info && info->extraData && info->extraDataSize > 0)
            log->videoExtraData.assign(info->extraData, info->extraData + info->extraDataSize);
        return FileMuxer::addVideoTrack(info);
    }
    int32_t start() override {
        note("start");
        return FileMuxer::start();
    }
    int32_t WriteSampleData(const uint8_t* data, int32_t size, int32_t track, int64_t pts, int64_t dts,
                            uint32_t flags) override {
        const int32_t result = FileMuxer::WriteSampleData(data, size, track, pts, dts, flags);
        if (result != 0) return result;
        auto& recorder = MuxerRecorder::instance();
        std::unique_lock<std::mutex> lock(recorder.mutex);
        log->writes.push_back({track, pts, dts, flags, std::vector<uint8_t>(data, data + size)});
        if (++recorder.totalWrites == recorder.pauseAt) {
            recorder.paused = true;
            recorder.changed.notify_all();
            recorder.changed.wait(lock, [&] { return recorder.released; });
        }
        return 0;
    }
    int32_t stop() override {
        note("stop");
        const bool wasStarted = state == 2;
        const int32_t result = FileMuxer::stop();
        if (wasStarted && notify) {
            std::thread writer([this] {
                notify->onMuxComplete();
                auto& recorder = MuxerRecorder::instance();
                std::lock_guard<std::mutex> lock(recorder.mutex);
                ++log->completions;
            });
            writer.join();
        }
        state = 1;
        return result;
    }
    void setNotify(FileMuxerNotify* target) override {
        note("setNotify");
        notify = target;
    }

private:
    void note(const char* call) {
        auto& recorder = MuxerRecorder::instance();
        std::lock_guard<std::mutex> lock(recorder.mutex);
        log->calls.push_back(call);
    }
    std::shared_ptr<MuxerLog> log;
    FileMuxerNotify* notify = nullptr;
};

MuxerRecorder& MuxerRecorder::instance() {
    static MuxerRecorder recorder;
    return recorder;
}

FileMuxer* MuxerRecorder::make() {
    auto& recorder = instance();
    auto log = std::make_shared<MuxerLog>();
    {
        std::lock_guard<std::mutex> lock(recorder.mutex);
        recorder.logs.push_back(log);
    }
    return new RecordingMuxer(log);
}

void MuxerRecorder::reset() {
    std::lock_guard<std::mutex> lock(mutex);
    logs.clear();
    totalWrites = 0;
    pauseAt = -1;
    paused = false;
    released = false;
    refuseOutput = false;
}

std::shared_ptr<MuxerLog> MuxerRecorder::log(size_t index) const {
    std::lock_guard<std::mutex> lock(mutex);
    return index < logs.size() ? logs[index] : nullptr;
}

size_t MuxerRecorder::muxerCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return logs.size();
}

std::vector<Write> MuxerRecorder::writes(size_t index) const {
    std::lock_guard<std::mutex> lock(mutex);
    return index < logs.size() ? logs[index]->writes : std::vector<Write>{};
}

std::vector<std::string> MuxerRecorder::calls(size_t index) const {
    std::lock_guard<std::mutex> lock(mutex);
    return index < logs.size() ? logs[index]->calls : std::vector<std::string>{};
}

void MuxerRecorder::pauseAfter(int writes) {
    std::lock_guard<std::mutex> lock(mutex);
    pauseAt = writes;
    paused = false;
    released = false;
}

bool MuxerRecorder::waitPaused(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return paused; });
}

void MuxerRecorder::release() {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
    changed.notify_all();
}

void MuxerRecorder::failOutput(bool fail) {
    std::lock_guard<std::mutex> lock(mutex);
    refuseOutput = fail;
}

SyntheticSource::SyntheticSource(const std::string& path, size_t headerBytes) : filePath(path) {
    std::ofstream(path, std::ios::binary | std::ios::trunc);
    append(std::vector<uint8_t>(headerBytes, 0xEE));
}

SyntheticSource::~SyntheticSource() {
    for (FrameGroup* group : keyGroups) {
        for (FrameRecord* record : *group) delete record;
        delete group;
    }
    for (FrameRecord* record : audioFrames) delete record;
}

void SyntheticSource::append(const std::vector<uint8_t>& bytes) {
    std::fstream out(filePath, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(end);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    end += static_cast<int64_t>(bytes.size());
}

std::vector<uint8_t> SyntheticSource::addVideo(int64_t pts, int64_t dts, bool key, int32_t payload,
                                               int32_t rawSize) {
    std::vector<uint8_t> bytes;
    if (rawSize >= 0) {
        bytes.resize(static_cast<size_t>(rawSize));
    } else {
        bytes.resize(4 + static_cast<size_t>(payload));
        bytes[0] = uint8_t(payload >> 24);
        bytes[1] = uint8_t(payload >> 16);
        bytes[2] = uint8_t(payload >> 8);
        bytes[3] = uint8_t(payload);
    }
    for (size_t i = rawSize >= 0 ? 0 : 4; i < bytes.size(); ++i) {
        seed = seed * 1103515245u + 12345u;
        bytes[i] = uint8_t(seed >> 16);
    }
    auto* record = new FrameRecord{uint8_t(key ? 1 : 0), int32_t(bytes.size()), pts, dts, end};
    if (key || keyGroups.empty()) keyGroups.push_back(new FrameGroup);
    keyGroups.back()->push_back(record);
    append(bytes);
    return bytes;
}

std::vector<uint8_t> SyntheticSource::addAudio(int64_t pts, int32_t size) {
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    for (auto& b : bytes) {
        seed = seed * 1103515245u + 12345u;
        b = uint8_t(seed >> 16);
    }
    audioFrames.push_back(new FrameRecord{1, size + 7, pts, pts, end});
    append(bytes);
    return bytes;
}

void SyntheticSource::skip(int64_t bytes) {
    end += bytes;
    // Extending by truncate leaves a hole that costs no disk and no time.
    if (truncate(filePath.c_str(), end) != 0) end -= bytes;
}

void SyntheticSource::finish(int64_t trailerBytes) {
    if (trailerBytes > 0) append(std::vector<uint8_t>(static_cast<size_t>(trailerBytes), 0xAB));
}

std::vector<uint8_t> annexB(const std::vector<uint8_t>& sample) {
    std::vector<uint8_t> out;
    size_t at = 0;
    while (at + 4 <= sample.size()) {
        const size_t length = (size_t(sample[at]) << 24) | (size_t(sample[at + 1]) << 16) |
                              (size_t(sample[at + 2]) << 8) | size_t(sample[at + 3]);
        out.insert(out.end(), {0, 0, 1});
        out.insert(out.end(), sample.begin() + long(at + 4), sample.begin() + long(at + 4 + length));
        at += 4 + length;
    }
    return out;
}

void recordNotify(void* recorder, int32_t code) { static_cast<tsltest::EventRecorder*>(recorder)->record(code); }

}  // namespace edittest
