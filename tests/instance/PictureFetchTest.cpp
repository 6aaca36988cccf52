// The picture fetch on hand-made indexes: file reads the walk's index never
// asks for (positions out of order, a gap past one 32-bit move, unknown
// positions, samples longer than the read buffer) stay inside the read buffer
// and either decode correctly or end the request cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "decode/DecoderBase.h"
#include "instance/TessaloImpl.h"
#include "platform/PlatformFile.h"
#include "support/TestSupport.h"

extern "C" {
#include <libavformat/avformat.h>
}

using namespace Morvel_Tessalo;
using Groups = std::vector<std::vector<FrameRecord>>;

namespace {

// main.mp4's video samples as index records (times in stream ticks), its
// avcC, and ffmpeg's MD5 of each key picture as the ground truth.
struct Source {
    const std::string path = tsltest::media("main.mp4");
    Groups groups;
    std::vector<uint8_t> extra;
    std::vector<std::string> keyMd5;
    Source() {
        AVFormatContext* fmt = nullptr;
        if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) return;
        avformat_find_stream_info(fmt, nullptr);
        const int index = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        const AVCodecParameters* par = fmt->streams[index]->codecpar;
        extra.assign(par->extradata, par->extradata + par->extradata_size);
        AVPacket* pkt = av_packet_alloc();
        while (av_read_frame(fmt, pkt) >= 0) {
            const uint8_t key = (pkt->flags & AV_PKT_FLAG_KEY) ? 1 : 0;
            if (pkt->stream_index == index && key) groups.emplace_back();
            if (pkt->stream_index == index && !groups.empty())
                groups.back().push_back({key, pkt->size, pkt->pts, pkt->dts, pkt->pos});
            av_packet_unref(pkt);
        }
        av_packet_free(&pkt);
        avformat_close_input(&fmt);
        std::istringstream lines(tsltest::run("ffmpeg -v error -skip_frame nokey -i " + tsltest::shellQuote(path) +
                                              " -map 0:v:0 -pix_fmt yuv420p -f framemd5 -"));
        for (std::string line; std::getline(lines, line);)
            if (!line.empty() && line[0] != '#') keyMd5.push_back(line.substr(line.rfind(',') + 2));
    }
};

std::vector<int64_t> keysOf(const Groups& groups) {
    std::vector<int64_t> keys;
    for (const auto& g : groups) keys.push_back(g.front().pts);
    return keys;
}

// One request on an instance whose index, path and avcC are set by hand, run
// as the worker runs it but on this thread; collects events and picture MD5s.
struct Fetch {
    TessaloImpl impl{this, &Fetch::callback};
    std::vector<int32_t> events;
    std::vector<std::string> md5s;
    bool result = false;

    static int32_t callback(void* user, int32_t event) {
        auto* self = static_cast<Fetch*>(user);
        self->events.push_back(event);
        if (event == kHostEventPicReady)
            self->md5s.push_back(tsltest::md5(self->impl.outputPicture.get(), size_t(self->impl.outputPictureSize)));
        return 0;
    }
    Fetch(const std::string& file, const Groups& groups, const std::vector<uint8_t>& extra,
          const std::vector<int64_t>& asked) {
        impl.path.reset(new char[file.size() + 1]);
        std::memcpy(impl.path.get(), file.c_str(), file.size() + 1);
        impl.extraDataSize = static_cast<int32_t>(extra.size());
        impl.extraData.reset(new uint8_t[extra.size()]);
        std::memcpy(impl.extraData.get(), extra.data(), extra.size());
        for (const auto& g : groups) {
            impl.keyGroups.push_back(new FrameGroup);
            for (const FrameRecord& r : g) impl.keyGroups.back()->push_back(new FrameRecord(r));
        }
        impl.askedPts = asked;
        impl.locateStart();
        result = impl.fetchPictures();
        if (impl.decoder) impl.decoder->close();  // the owner closes; the destructor deletes
    }
};

size_t movesFromBegin = 0;
void countMove(int32_t, MoveFrom from) { movesFromBegin += from == MoveFrom::Begin; }

}  // namespace

// Groups after the first lie 3 GiB further on, in a sparse copy: the jump
// there cannot be one 32-bit move, and the pictures must still be right.
TEST(PictureFetch, GapBeyondOneThirtyTwoBitMove) {
    Source src;
    ASSERT_EQ(src.groups.size(), 5u);
    ASSERT_EQ(src.keyMd5.size(), 5u);
    const std::string sparse = tsltest::scratchDir() + "/sparse.mp4";
    const std::string in = tsltest::shellQuote(src.path), out = tsltest::shellQuote(sparse);
    int status = 0;  // a copy, and the file again 3072 MiB in
    tsltest::run("cp " + in + " " + out + " && dd status=none conv=notrunc bs=1M seek=3072 if=" + in + " of=" + out,
                 &status);
    ASSERT_EQ(status, 0);
    for (size_t g = 1; g < src.groups.size(); ++g)
        for (FrameRecord& r : src.groups[g]) r.position += 3LL << 30;
    movesFromBegin = 0;
    setFileMoveHook(&countMove);
    Fetch fetch(sparse, src.groups, src.extra, keysOf(src.groups));
    setFileMoveHook(nullptr);
    std::filesystem::remove(sparse);
    EXPECT_TRUE(fetch.result);
    EXPECT_EQ(fetch.md5s, src.keyMd5);
    EXPECT_EQ(fetch.events.back(), kHostEventPicReady);
    EXPECT_GE(movesFromBegin, 2u) << "the 3 GiB jump restarts from the beginning of the file";
}

// Groups in the opposite order of the file: each key sample lies before the
// bytes held and is read again from its own place. The last group (first in
// the file) keeps its other samples, which push the pictures out.
TEST(PictureFetch, SampleBeforeTheBufferIsReadFromItsPlace) {
    Source src;
    ASSERT_EQ(src.groups.size(), src.keyMd5.size());
    std::reverse(src.groups.begin(), src.groups.end());
    std::reverse(src.keyMd5.begin(), src.keyMd5.end());
    for (size_t g = 0; g + 1 < src.groups.size(); ++g) src.groups[g].resize(1);
    Fetch fetch(src.path, src.groups, src.extra, keysOf(src.groups));
    EXPECT_TRUE(fetch.result);
    EXPECT_EQ(fetch.md5s, src.keyMd5) << "key pictures depend on themselves only";
}

TEST(PictureFetch, UnknownPositionsAndOversizedSamplesEndTheRequest) {
    const Source src;
    ASSERT_GE(src.groups.size(), 2u);
    // The first sample without a position: nothing unrelated is decoded.
    Groups groups = src.groups;
    groups[0][0].position = -1;
    Fetch first(src.path, groups, src.extra, keysOf(groups));
    EXPECT_FALSE(first.result);
    EXPECT_EQ(first.events, (std::vector<int32_t>{kHostEventFileError}));
    // A later sample without a position, longer than the read buffer, or
    // reaching past the end of the file: the request ends there, as at the
    // end of the file, with neither a file nor a decode error.
    const int64_t fileSize = static_cast<int64_t>(std::filesystem::file_size(src.path));
    for (int variant = 0; variant < 3; ++variant) {
        groups = {src.groups[0]};
        FrameRecord& bad = groups[0][3];
        if (variant == 0) bad.position = -1;
        if (variant == 1) bad.size = kReadBufferSize + 1;
        if (variant == 2) bad.size = 0x100000, bad.position = fileSize - 100;
        std::vector<int64_t> asked;
        for (const FrameRecord& r : groups[0]) asked.push_back(r.pts);
        std::sort(asked.begin(), asked.end());
        Fetch fetch(src.path, groups, src.extra, asked);
        EXPECT_TRUE(fetch.result) << "variant " << variant;
        EXPECT_LT(fetch.md5s.size(), asked.size()) << "variant " << variant;
        for (int32_t e : fetch.events) EXPECT_TRUE(e != kHostEventFileError && e != kHostEventDecodeError) << e;
    }
}
