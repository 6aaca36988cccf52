#include "MuxTestSupport.h"

#include <cmath>
#include <sstream>

#include "mux/MPEG4MuxerThread.h"
#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace muxtest {

using tsltest::run;
using tsltest::shellQuote;

namespace {
std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) out.push_back(line);
    return out;
}
}  // namespace

std::vector<StreamCount> countPackets(const std::string& path) {
    std::vector<StreamCount> out;
    const std::string text = run("ffprobe -v error -count_packets -show_entries "
                                 "stream=index,codec_type,nb_read_packets -of csv=p=0 " +
                                 shellQuote(path));
    for (const std::string& line : lines(text)) {
        std::istringstream in(line);
        std::string index, type, packets;
        std::getline(in, index, ',');
        std::getline(in, type, ',');
        std::getline(in, packets, ',');
        out.push_back({std::stoi(index), type, std::stol(packets)});
    }
    return out;
}

std::string keyFlags(const std::string& path, int index) {
    std::string out;
    const std::string prefix = "AVIndex stream " + std::to_string(index) + ", ";
    for (const std::string& line : lines(run("ffprobe -v trace " + shellQuote(path) + " 2>&1"))) {
        const size_t at = line.find(prefix);
        if (at == std::string::npos) continue;
        const size_t key = line.find("keyframe ", at);
        if (key != std::string::npos) out += line[key + 9] == '1' ? 'K' : '_';
    }
    return out;
}

std::vector<std::string> packetField(const std::string& path, char type, const std::string& field) {
    return lines(run(std::string("ffprobe -v error -select_streams ") + type + ":0 -show_entries packet=" +
                     field + " -of csv=p=0 " + shellQuote(path)));
}

std::vector<int64_t> packetMs(const std::string& path, char type, const std::string& field) {
    std::vector<int64_t> out;
    for (const std::string& value : packetField(path, type, field))
        out.push_back(static_cast<int64_t>(std::llround(std::stod(value) * 1000.0)));
    return out;
}

std::string formatEntry(const std::string& path, const std::string& entry) {
    std::string text = run("ffprobe -v error -show_entries " + entry +
                           " -of default=noprint_wrappers=1:nokey=1 " + shellQuote(path));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

std::string decodeErrors(const std::string& path, int* status) {
    return run("ffmpeg -nostdin -v error -i " + shellQuote(path) + " -f null - 2>&1", status);
}

void CountingNotify::onMuxComplete() {
    // The thread must have let go of both ring mutexes before it notifies.
    for (pthread_mutex_t* mutex : {&muxer->audioMutex, &muxer->videoMutex}) {
        if (pthread_mutex_trylock(mutex) == 0)
            pthread_mutex_unlock(mutex);
        else
            calledWithLockHeld = true;
    }
    ++calls;
}

WriteLog::WriteLog(MPEG4FileMuxer* muxer) : muxer(muxer) { setMuxWriteObserver(&WriteLog::observe, this); }

WriteLog::~WriteLog() { setMuxWriteObserver(nullptr, nullptr); }

void WriteLog::observe(void* user, const AVPacket* packet) {
    auto* self = static_cast<WriteLog*>(user);
    Entry entry{-1, 0, 0, false, 0};
    if (packet) {
        const AVRational tb = self->muxer->formatContext->streams[packet->stream_index]->time_base;
        entry = Entry{packet->stream_index, av_rescale_q(packet->dts, tb, AVRational{1, 1000}),
                      av_rescale_q(packet->pts, tb, AVRational{1, 1000}),
                      (packet->flags & AV_PKT_FLAG_KEY) != 0, packet->size};
    }
    std::lock_guard<std::mutex> lock(self->mutex);
    self->log.push_back(entry);
    self->changed.notify_all();
}

std::vector<WriteLog::Entry> WriteLog::entries() const {
    std::lock_guard<std::mutex> lock(mutex);
    return log;
}

size_t WriteLog::writes() const {
    std::lock_guard<std::mutex> lock(mutex);
    size_t n = 0;
    for (const Entry& e : log) n += e.stream >= 0;
    return n;
}

bool WriteLog::waitForWrites(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] {
        size_t n = 0;
        for (const Entry& e : log) n += e.stream >= 0;
        return n >= count;
    });
}

}  // namespace muxtest

#include <map>

namespace muxtest {

const muxfixture::Clip& clip(const std::string& name) {
    static std::mutex mutex;
    static std::map<std::string, muxfixture::Clip> clips;
    std::lock_guard<std::mutex> lock(mutex);
    auto found = clips.find(name);
    if (found != clips.end()) return found->second;
    muxfixture::Clip& made = clips[name];
    const std::string error = muxfixture::readClip(tsltest::media(name), &made);
    if (!error.empty()) ADD_FAILURE() << name << ": " << error;
    return made;
}

int writeClip(FileMuxer& muxer, const muxfixture::Clip& clip, int64_t offsetMs, bool withAudio) {
    int refused = 0;
    for (const muxfixture::Sample& s : clip.samples) {
        if (s.track == kTrackAudio && !withAudio) continue;
        refused += muxer.WriteSampleData(s.bytes.data(), static_cast<int32_t>(s.bytes.size()), s.track,
                                         s.pts + offsetMs, s.dts + offsetMs, s.flags) != 0;
    }
    return refused;
}

}  // namespace muxtest
