// The picture fetch on hand-made indexes: the file reads that the walk's
// index never asks for (positions out of order, a gap past one 32-bit move,
// unknown positions, samples longer than the read buffer) stay inside the
// read buffer and either decode correctly or end the request cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "decode/DecoderBase.h"
#include "instance/TessaloImpl.h"
#include "platform/PlatformFile.h"
#include "support/TestSupport.h"

extern "C" {
#include <libavformat/avformat.h>
}

using namespace Morvel_Tessalo;

namespace {

// The video samples of a file as index records (times in stream ticks).
std::vector<std::vector<FrameRecord>> videoGroups(const std::string& path, std::vector<uint8_t>* extra) {
    std::vector<std::vector<FrameRecord>> groups;
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) return groups;
    avformat_find_stream_info(fmt, nullptr);
    const int index = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    AVCodecParameters* par = fmt->streams[index]->codecpar;
    extra->assign(par->extradata, par->extradata + par->extradata_size);
    AVPacket* pkt = av_packet_alloc();
    while (av_read_frame(fmt, pkt) >= 0) {
        if (pkt->stream_index == index) {
            FrameRecord r;
            r.isKey = (pkt->flags & AV_PKT_FLAG_KEY) ? 1 : 0;
            r.size = pkt->size;
            r.pts = pkt->pts;
            r.dts = pkt->dts;
            r.position = pkt->pos;
            if (r.isKey) groups.emplace_back();
            if (!groups.empty()) groups.back().push_back(r);
        }
        av_packet_unref(pkt);
    }
    av_packet_free(&pkt);
    avformat_close_input(&fmt);
    return groups;
}

std::vector<std::string> ffmpegKeyMd5(const std::string& path) {
    std::string text = tsltest::run("ffmpeg -v error -skip_frame nokey -i " + tsltest::shellQuote(path) +
                                    " -map 0:v:0 -pix_fmt yuv420p -f framemd5 -");
    std::vector<std::string> md5s;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
        if (!line.empty() && line[0] != '#') md5s.push_back(line.substr(line.rfind(',') + 2));
    return md5s;
}

// An instance whose index, path and configuration the test sets by hand.
struct Fetch {
    static int32_t callback(void* user, int32_t event) {
        auto* self = static_cast<Fetch*>(user);
        self->events.push_back(event);
        if (event == kHostEventPicReady)
            self->md5s.push_back(tsltest::md5(self->impl->outputPicture.get(),
                                              static_cast<size_t>(self->impl->outputPictureSize)));
        return 0;
    }
    Fetch(const std::string& file, const std::vector<std::vector<FrameRecord>>& groups,
          const std::vector<uint8_t>& extra) {
        impl = std::make_unique<TessaloImpl>(this, &Fetch::callback);
        impl->path.reset(new char[file.size() + 1]);
        std::memcpy(impl->path.get(), file.c_str(), file.size() + 1);
        impl->extraDataSize = static_cast<int32_t>(extra.size());
        impl->extraData.reset(new uint8_t[extra.size()]);
        std::memcpy(impl->extraData.get(), extra.data(), extra.size());
        for (const auto& g : groups) {
            auto* group = new FrameGroup;
            for (const FrameRecord& r : g) group->push_back(new FrameRecord(r));
            impl->keyGroups.push_back(group);
        }
    }
    // One request as the worker makes it, without the thread.
    bool run(const std::vector<int64_t>& asked) {
        events.clear();
        md5s.clear();
        impl->askedPts = asked;
        impl->runDelivered = 0;
        impl->keyDelivered = 0;
        impl->locateStart();
        bool result = impl->fetchPictures();
        impl->setState(kStateStopped);
        if (impl->decoder) {
            impl->decoder->close();
            delete impl->decoder;
            impl->decoder = nullptr;
        }
        return result;
    }
    std::unique_ptr<TessaloImpl> impl;
    std::vector<int32_t> events;
    std::vector<std::string> md5s;
};

std::vector<int64_t> keysOf(const std::vector<std::vector<FrameRecord>>& groups) {
    std::vector<int64_t> keys;
    for (const auto& g : groups) keys.push_back(g.front().pts);
    return keys;
}

std::mutex movesMutex;
std::vector<std::pair<int32_t, MoveFrom>> moves;
void recordMove(int32_t distance, MoveFrom from) {
    std::lock_guard<std::mutex> lock(movesMutex);
    moves.emplace_back(distance, from);
}

}  // namespace

// Groups after the first lie 3 GiB further on, in a sparse copy: the jump
// there cannot be one 32-bit move, and the pictures must still be right.
TEST(PictureFetch, GapBeyondOneThirtyTwoBitMove) {
    const std::string source = tsltest::media("main.mp4");
    std::vector<uint8_t> extra;
    auto groups = videoGroups(source, &extra);
    ASSERT_EQ(groups.size(), 5u);
    const std::vector<std::string> want = ffmpegKeyMd5(source);
    ASSERT_EQ(want.size(), 5u);

    const std::string sparse = tsltest::scratchDir() + "/sparse.mp4";
    const int64_t shift = 3LL << 30;
    {
        std::ifstream in(source, std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::ofstream out(sparse, std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        out.seekp(shift);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    for (size_t g = 1; g < groups.size(); ++g)
        for (FrameRecord& r : groups[g]) r.position += shift;

    Fetch fetch(sparse, groups, extra);
    moves.clear();
    setFileMoveHook(&recordMove);
    EXPECT_TRUE(fetch.run(keysOf(groups)));
    setFileMoveHook(nullptr);
    EXPECT_EQ(fetch.md5s, want);
    EXPECT_EQ(fetch.events.back(), kHostEventPicReady);
    // Every move is within the signed 32-bit range by construction; the jump
    // of 3 GiB had to restart from the beginning of the file.
    size_t fromBegin = 0;
    for (auto& [d, from] : moves) fromBegin += from == MoveFrom::Begin;
    EXPECT_GE(fromBegin, 2u);
    std::filesystem::remove(sparse);
}

// Groups given in the opposite order of the file: each key sample lies
// before the bytes held, and is read again from its own place.
TEST(PictureFetch, SampleBeforeTheBufferIsReadFromItsPlace) {
    const std::string source = tsltest::media("main.mp4");
    std::vector<uint8_t> extra;
    auto groups = videoGroups(source, &extra);
    std::vector<std::string> want = ffmpegKeyMd5(source);
    ASSERT_EQ(groups.size(), want.size());
    std::reverse(groups.begin(), groups.end());
    std::reverse(want.begin(), want.end());
    // The last group (first in the file) keeps its other samples so that
    // they push the pictures out; the others are reduced to their key.
    for (size_t g = 0; g + 1 < groups.size(); ++g) groups[g].resize(1);
    Fetch fetch(source, groups, extra);
    EXPECT_TRUE(fetch.run(keysOf(groups)));
    // Key pictures only depend on themselves: each equals ffmpeg's.
    EXPECT_EQ(fetch.md5s, want);
}

TEST(PictureFetch, UnknownPositionsAndOversizedSamplesEndTheRequest) {
    const std::string source = tsltest::media("main.mp4");
    std::vector<uint8_t> extra;
    const auto original = videoGroups(source, &extra);
    ASSERT_GE(original.size(), 2u);

    // The first sample without a position: nothing unrelated is decoded.
    auto groups = original;
    groups[0][0].position = -1;
    {
        Fetch fetch(source, groups, extra);
        EXPECT_FALSE(fetch.run(keysOf(groups)));
        EXPECT_EQ(fetch.events, (std::vector<int32_t>{kHostEventFileError}));
    }
    // A later sample without a position, or longer than the read buffer:
    // the walk through the samples ends there, as at the end of the file.
    for (int variant = 0; variant < 2; ++variant) {
        groups = original;
        FrameRecord& bad = groups[0][3];
        if (variant == 0) bad.position = -1;
        else bad.size = kReadBufferSize + 1;
        std::vector<int64_t> asked;
        for (const FrameRecord& r : groups[0]) asked.push_back(r.pts);
        std::sort(asked.begin(), asked.end());
        Fetch fetch(source, groups, extra);
        EXPECT_TRUE(fetch.run(asked)) << "variant " << variant;
        EXPECT_LT(fetch.md5s.size(), asked.size()) << "variant " << variant;
        for (int32_t e : fetch.events) EXPECT_NE(e, kHostEventFileError);
    }
    // A sample that reaches past the end of the file is not fed.
    groups = original;
    groups.resize(1);
    groups[0].resize(2);
    groups[0][1].size = 0x100000;
    groups[0][1].position = static_cast<int64_t>(std::filesystem::file_size(source)) - 100;
    {
        Fetch fetch(source, groups, extra);
        EXPECT_TRUE(fetch.run({groups[0][0].pts, groups[0][1].pts}));
        for (int32_t e : fetch.events) EXPECT_NE(e, kHostEventDecodeError);
    }
}
