// The MP4 form of H.264 that the muxer makes itself must be the one libavformat would have made from the
// start-code form: the same avcC record and the same length-prefixed samples.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "mux/AvcRecord.h"
#include "support/TestSupport.h"

namespace {

// The parameter sets of `file`'s video in start-code form, and the avcC record libavformat wrote.
struct Sets {
    std::vector<uint8_t> annexB;
    std::vector<uint8_t> record;
};

Sets setsOf(const std::string& file) {
    Sets sets;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, file.c_str(), nullptr, nullptr) < 0) return sets;
    InputFormatHolder input(raw);
    const AVCodecParameters* par = input->streams[av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0)]->codecpar;
    sets.record.assign(par->extradata, par->extradata + par->extradata_size);
    const AVBitStreamFilter* definition = av_bsf_get_by_name("h264_mp4toannexb");
    AVBSFContext* made = nullptr;
    if (av_bsf_alloc(definition, &made) < 0) return sets;
    BitstreamFilterHolder filter(made);
    avcodec_parameters_copy(filter->par_in, par);
    if (av_bsf_init(filter.get()) >= 0)
        sets.annexB.assign(filter->par_out->extradata, filter->par_out->extradata + filter->par_out->extradata_size);
    return sets;
}

TEST(AvcRecord, IsTheRecordLibavformatWritesForEveryProfileAndLayout) {
    // High 4:2:0, High 4:2:2 10-bit, High 4:4:4 and lossless High 4:4:4 from x264, and GStreamer's file;
    // each stream goes through libavformat's own writer from its start-code form first.
    const std::string dir = tsltest::scratchDir();
    for (const char* name : {"main.mp4", "yuv422p10le.mp4", "yuv444p.mp4", "tables_gst.mp4", "large.mp4"}) {
        const std::string stream = dir + "/" + name + ".h264", written = dir + "/" + name;
        tsltest::run("ffmpeg -nostdin -v error -i " + tsltest::shellQuote(tsltest::media(name)) +
                     " -map 0:v:0 -c copy -bsf:v h264_mp4toannexb -f h264 " + stream + " && ffmpeg -nostdin -v error -i " +
                     stream + " -c copy " + written);
        const Sets sets = setsOf(written);
        ASSERT_FALSE(sets.annexB.empty()) << name;
        EXPECT_EQ(avcRecord(sets.annexB.data(), sets.annexB.size()), sets.record) << name;
    }
}

TEST(AvcRecord, NeedsASequenceAndAPictureParameterSet) {
    const uint8_t spsOnly[] = {0, 0, 0, 1, 0x67, 0x64, 0x00, 0x1F, 0xAC};
    EXPECT_TRUE(avcRecord(spsOnly, sizeof spsOnly).empty());
    EXPECT_TRUE(avcRecord(nullptr, 0).empty());
}

TEST(LengthPrefixer, GivesEachUnitItsLengthWhateverItsStartCodeAndLeavesOutTrailingZeros) {
    // A 4-byte start code, a 3-byte one after a unit that ends in a zero byte, bytes before the first
    // start code, and a unit that holds 0x01 and 0x00 0x00 0x03 inside.
    const uint8_t sample[] = {0xAA, 0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x65, 0x01, 0, 0, 3, 1, 0x88, 0,
                              0, 0, 1, 0x41, 0x9A};
    const uint8_t expected[] = {0, 0, 0, 2, 0x09, 0xF0, 0, 0, 0, 7, 0x65, 0x01, 0, 0, 3, 1, 0x88,
                                0, 0, 0, 2, 0x41, 0x9A};
    // From the pool, and from an allocation of its own when the pool's buffers are too small.
    for (const size_t pooled : {sizeof expected, sizeof expected - 1}) {
        LengthPrefixer prefixer(pooled);
        PacketHolder packet(av_packet_alloc());
        ASSERT_TRUE(prefixer.convert(sample, sizeof sample, packet.get()));
        ASSERT_EQ(size_t(packet->size), sizeof expected);
        EXPECT_EQ(std::memcmp(packet->data, expected, sizeof expected), 0);
        EXPECT_NE(packet->buf, nullptr);  // reference-counted: libavformat keeps it without a copy
        const std::vector<uint8_t> padding(packet->data + packet->size, packet->data + packet->size + 8);
        EXPECT_EQ(padding, std::vector<uint8_t>(8, 0)) << "a decoder may read past the end";
        ASSERT_TRUE(prefixer.convert(sample, 1, packet.get()));
        EXPECT_EQ(packet->size, 0);
    }
}

}  // namespace
