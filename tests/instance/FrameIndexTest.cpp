// The frame index as the walk builds it, fed packet by packet the way the
// reader thread does (onDemuxerPacket), and read back through its queries.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "demux/DemuxerBase.h"
#include "instance/TessaloImpl.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

struct Sample {
    int64_t pts;
    bool key;
};

class FrameIndexTest : public ::testing::Test {
protected:
    tsltest::EventRecorder events;
    TessaloImpl instance{&events, &tsltest::EventRecorder::callback};

    // Feeds video samples; dts counts up in steps of 40 in arrival order, and
    // position and size are derived from the arrival number, so every record
    // can be told apart.
    void feed(const std::vector<Sample>& samples) {
        for (const Sample& s : samples) {
            DemuxerPacket packet{};
            packet.pts = s.pts;
            packet.dts = fed * 40;
            packet.key = s.key;
            packet.pos = 1000 + fed * 100;
            packet.size = 10 + static_cast<int32_t>(fed);
            EXPECT_EQ(TessaloImpl::onDemuxerPacket(kDemuxerPacketVideo, &packet, &instance), 1);
            ++fed;
        }
    }
    static std::vector<int64_t> ptsOf(const FrameGroup& group) {
        std::vector<int64_t> out;
        for (const FrameRecord* r : group) out.push_back(r->pts);
        return out;
    }
    std::vector<int64_t> keyPts() {
        std::vector<int64_t> out(instance.sortedKeyGroups.size() + 1, -7);
        const int32_t n = instance.getKeyPts(out.data());
        EXPECT_EQ(out.back(), -7) << "wrote past the count of groups";
        out.resize(static_cast<size_t>(n));
        return out;
    }
    std::vector<int64_t> ptsByKeyPts(int64_t key) {
        std::vector<int64_t> out(64, -7);
        const int32_t n = instance.getPtsByKeyPts(key, out.data());
        for (size_t i = static_cast<size_t>(n); i < out.size(); ++i) EXPECT_EQ(out[i], -7);
        out.resize(static_cast<size_t>(n));
        return out;
    }
    int64_t fed = 0;
};

TEST_F(FrameIndexTest, ReorderedGroupsKeepStreamOrderAndSortTheHostsView) {
    feed({{0, true}, {120, false}, {40, false}, {80, false}, {160, true}, {240, false}, {200, false}});
    ASSERT_EQ(instance.keyGroups.size(), 2u);
    ASSERT_EQ(instance.sortedKeyGroups.size(), 2u);
    // Before the end of the walk both lists are in arrival order.
    EXPECT_EQ(ptsOf(*instance.sortedKeyGroups[0]), (std::vector<int64_t>{0, 120, 40, 80}));

    instance.sortIndex();
    EXPECT_EQ(ptsOf(*instance.keyGroups[0]), (std::vector<int64_t>{0, 120, 40, 80}));
    EXPECT_EQ(ptsOf(*instance.keyGroups[1]), (std::vector<int64_t>{160, 240, 200}));
    EXPECT_EQ(ptsOf(*instance.sortedKeyGroups[0]), (std::vector<int64_t>{0, 40, 80, 120}));
    EXPECT_EQ(ptsOf(*instance.sortedKeyGroups[1]), (std::vector<int64_t>{160, 200, 240}));

    EXPECT_EQ(keyPts(), (std::vector<int64_t>{0, 160}));
    EXPECT_EQ(instance.getPtsCountByKeyPts(160), 3);
    EXPECT_EQ(instance.getPtsCountByKeyPts(0), 4);
    EXPECT_EQ(ptsByKeyPts(0), (std::vector<int64_t>{0, 40, 80, 120}));
    EXPECT_EQ(ptsByKeyPts(160), (std::vector<int64_t>{160, 200, 240}));
    // A picture's own timestamp that opens no group matches nothing.
    EXPECT_EQ(instance.getPtsCountByKeyPts(40), 0);
    EXPECT_EQ(ptsByKeyPts(40), std::vector<int64_t>{});
    EXPECT_EQ(instance.getPtsCountByKeyPts(-1), 0);
}

TEST_F(FrameIndexTest, TheTwoViewsHoldEqualButSeparateRecords) {
    feed({{0, true}, {120, false}, {40, false}, {160, true}});
    instance.sortIndex();
    const FrameGroup& stream = *instance.keyGroups[0];
    const FrameGroup& sorted = *instance.sortedKeyGroups[0];
    ASSERT_EQ(stream.size(), 3u);
    ASSERT_EQ(sorted.size(), 3u);
    // pts 40 arrived third: second in the sorted view, with the same values.
    const FrameRecord* a = stream[2];
    const FrameRecord* b = sorted[1];
    EXPECT_NE(a, b) << "a record is shared between the two views";
    for (const FrameRecord* r : {a, b}) {
        EXPECT_EQ(r->pts, 40);
        EXPECT_EQ(r->dts, 80);
        EXPECT_EQ(r->position, 1200);
        EXPECT_EQ(r->size, 12);
        EXPECT_EQ(r->isKey, 0);
    }
    EXPECT_EQ(sorted[0]->isKey, 1);
}

TEST_F(FrameIndexTest, AKeySampleShownLateIsNotTheGroupsKeyTimestamp) {
    feed({{100, true}, {60, false}, {80, false}});
    instance.sortIndex();
    EXPECT_EQ(keyPts(), (std::vector<int64_t>{60}));
    EXPECT_EQ(instance.keyGroups[0]->front()->pts, 100);
    EXPECT_EQ(instance.getPtsCountByKeyPts(100), 0);
    EXPECT_EQ(instance.getPtsCountByKeyPts(60), 3);
    EXPECT_EQ(ptsByKeyPts(60), (std::vector<int64_t>{60, 80, 100}));
}

TEST_F(FrameIndexTest, GroupsSharingTheirLowestTimestamp) {
    feed({{0, true}, {40, false}, {0, true}, {80, false}, {120, false}});
    instance.sortIndex();
    EXPECT_EQ(keyPts(), (std::vector<int64_t>{0, 0}));
    // The count is the first group's, the values are both groups', in order.
    EXPECT_EQ(instance.getPtsCountByKeyPts(0), 2);
    EXPECT_EQ(ptsByKeyPts(0), (std::vector<int64_t>{0, 40, 0, 80, 120}));
}

TEST_F(FrameIndexTest, OneKeySampleAlone) {
    feed({{0, true}});
    instance.sortIndex();
    ASSERT_EQ(instance.keyGroups.size(), 1u);
    ASSERT_EQ(instance.sortedKeyGroups.size(), 1u);
    EXPECT_EQ(instance.keyGroups[0]->size(), 1u);
    EXPECT_EQ(instance.sortedKeyGroups[0]->size(), 1u);
    EXPECT_EQ(ptsByKeyPts(0), (std::vector<int64_t>{0}));
    EXPECT_TRUE(instance.audioFrames.empty());
}

TEST_F(FrameIndexTest, AnUnsortedIndexReportsEachGroupsFirstArrival) {
    // A walk stopped before the end of the file never sorts.
    feed({{0, true}, {120, false}, {40, false}, {160, true}, {240, false}, {200, false}});
    EXPECT_EQ(keyPts(), (std::vector<int64_t>{0, 160}));
    EXPECT_EQ(ptsByKeyPts(160), (std::vector<int64_t>{160, 240, 200}));
}

TEST_F(FrameIndexTest, EmptyIndexAndForeignTimestampsGiveNothing) {
    int64_t out[4] = {-7, -7, -7, -7};
    EXPECT_EQ(instance.getKeyPts(out), 0);
    EXPECT_EQ(instance.getPtsCountByKeyPts(0), 0);
    EXPECT_EQ(instance.getPtsByKeyPts(0, out), 0);
    EXPECT_EQ(out[0], -7);
    // A block the host forgot: nothing written, no crash.
    feed({{0, true}, {40, false}});
    EXPECT_EQ(instance.getKeyPts(nullptr), 0);
    EXPECT_EQ(instance.getPtsByKeyPts(0, nullptr), 0);
}

TEST_F(FrameIndexTest, ClearingEmptiesEveryListAndANewWalkStartsFresh) {
    feed({{0, true}, {40, false}, {80, true}});
    DemuxerPacket audio{};
    audio.size = 9;
    TessaloImpl::onDemuxerPacket(kDemuxerPacketAudio, &audio, &instance);
    instance.clearIndex();
    EXPECT_TRUE(instance.keyGroups.empty());
    EXPECT_TRUE(instance.sortedKeyGroups.empty());
    EXPECT_TRUE(instance.audioFrames.empty());
    // A non-key sample now finds no group left over from the former file,
    // and one with no group at all is dropped, not indexed loose.
    feed({{500, false}, {600, true}});
    ASSERT_EQ(instance.keyGroups.size(), 1u);
    EXPECT_EQ(ptsOf(*instance.keyGroups[0]), (std::vector<int64_t>{600}));
}

}  // namespace
