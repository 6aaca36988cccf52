// The index from the sample tables against the walk that reads every byte:
// the same events, every record of both group lists and of the audio list,
// and the same media information, fixture by fixture. Files the tables
// cannot vouch for take the full walk, which shows in the bytes read.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <tuple>

#include "demux/AVStreamParse.h"
#include "instance/TessaloImpl.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

using Row = std::tuple<int, int32_t, int64_t, int64_t, int64_t>;

std::vector<Row> rows(const std::vector<FrameRecord*>& records) {
    std::vector<Row> out;
    for (const FrameRecord* r : records) out.emplace_back(r->isKey, r->size, r->pts, r->dts, r->position);
    return out;
}

std::vector<std::vector<Row>> rows(const std::vector<FrameGroup*>& groups) {
    std::vector<std::vector<Row>> out;
    for (const FrameGroup* g : groups) out.push_back(rows(*g));
    return out;
}

std::string bytes(const void* data, size_t size) {
    return data ? std::string(static_cast<const char*>(data), size) : std::string();
}

// Bytes this process has read through system calls so far.
int64_t bytesReadByProcess() {
    std::ifstream io("/proc/self/io");
    std::string key;
    int64_t value = 0;
    while (io >> key >> value)
        if (key == "rchar:") return value;
    return -1;
}

struct Walk {
    std::vector<int32_t> events;
    std::vector<std::vector<Row>> groups, sortedGroups;
    std::vector<Row> audio;
    std::string mediaInfo, extraData, annexBExtraData;
    int64_t bytesRead = 0;
};

Walk walk(const std::string& file, bool full) {
    setFullWalkForced(full);
    Walk w;
    const int64_t before = bytesReadByProcess();
    tsltest::EventRecorder events;
    {
        TessaloImpl in(&events, &tsltest::EventRecorder::callback);
        EXPECT_TRUE(in.startPic(file.c_str()));
        EXPECT_NE(events.waitForAny({kHostEventIndexReady, kHostEventFileError, kHostEventError, kHostEventBadCodec,
                                     kHostEventBadSampleRate, kHostEventBadChannels, kHostEventNoVideo}),
                  -1);
        in.stopWorker();
        w.groups = rows(in.keyGroups);
        w.sortedGroups = rows(in.sortedKeyGroups);
        w.audio = rows(in.audioFrames);
        w.mediaInfo = bytes(&in.mediaInfo, sizeof in.mediaInfo);
        w.extraData = bytes(in.extraData.get(), static_cast<size_t>(in.extraDataSize));
        w.annexBExtraData = bytes(in.annexBExtraData.get(), static_cast<size_t>(in.annexBExtraDataSize));
    }
    w.bytesRead = bytesReadByProcess() - before;
    w.events = events.events();
    setFullWalkForced(false);
    return w;
}

struct Fixture {
    const char* name;
    bool fromTables;  // false: the file takes the full walk
};

class TableIndex : public ::testing::TestWithParam<Fixture> {};

TEST_P(TableIndex, EqualsTheWalkThatReadsEveryByte) {
    const std::string file = tsltest::media(GetParam().name);
    const Walk full = walk(file, true), tables = walk(file, false);
    EXPECT_EQ(tables.events, full.events);
    EXPECT_EQ(tables.mediaInfo, full.mediaInfo);
    EXPECT_EQ(tables.extraData, full.extraData);
    EXPECT_EQ(tables.annexBExtraData, full.annexBExtraData);
    ASSERT_EQ(tables.groups.size(), full.groups.size());
    for (size_t g = 0; g < full.groups.size(); ++g) {
        EXPECT_EQ(tables.groups[g], full.groups[g]) << "group " << g;
        EXPECT_EQ(tables.sortedGroups[g], full.sortedGroups[g]) << "sorted group " << g;
    }
    EXPECT_EQ(tables.audio, full.audio);
    if (full.groups.empty()) return;  // refused: neither walk went past the header
    if (GetParam().fromTables)
        EXPECT_LT(tables.bytesRead * 3, full.bytesRead * 2) << "payloads stay in the file";
    else
        EXPECT_GE(tables.bytesRead, full.bytesRead) << "the full walk";
    std::printf("%s: %lld bytes read from the tables, %lld by the full walk\n", GetParam().name,
                static_cast<long long>(tables.bytesRead), static_cast<long long>(full.bytesRead));
}

// B-frames (with the edit that delays them) and the movie box at the end; at
// the start; audio that starts before the video; negative composition
// offsets; variable frame rate; two video streams; a subtitle track; MOV; a
// file above 20 MiB; tables that point past the end of a truncated file; a
// cover picture; GStreamer's MP4 and MOV. Then what the tables cannot vouch for: movie fragments, no
// sync sample table (every sample a sync sample, to the tables only), MPEG-TS.
INSTANTIATE_TEST_SUITE_P(
    Fixtures, TableIndex,
    ::testing::Values(Fixture{"main.mp4", true}, Fixture{"faststart.mp4", true},
                      Fixture{"tables_audiofirst.mp4", true}, Fixture{"tables_negcts.mp4", true},
                      Fixture{"tables_vfr.mp4", true}, Fixture{"twovideo.mp4", true}, Fixture{"subtitle.mp4", true},
                      Fixture{"main.mov", true}, Fixture{"large.mp4", true}, Fixture{"truncated.mp4", true},
                      Fixture{"coverart.mp4", true}, Fixture{"tables_gst.mp4", true}, Fixture{"tables_gst.mov", true},
                      Fixture{"tables_fragmented.mp4", false},
                      Fixture{"tables_nostss.mp4", false}, Fixture{"tables_ts.ts", false}),
    [](const ::testing::TestParamInfo<Fixture>& info) {
        std::string name = info.param.name;
        for (char& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

}  // namespace
