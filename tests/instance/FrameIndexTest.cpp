// The frame index as the walk builds it, fed packet by packet the way the
// reader thread does (onDemuxerPacket), and read back through its queries.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "demux/DemuxerBase.h"
#include "instance/TessaloImpl.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;
using Pts = std::vector<int64_t>;

namespace {

class FrameIndexTest : public ::testing::Test {
protected:
    tsltest::EventRecorder events;
    TessaloImpl instance{&events, &tsltest::EventRecorder::callback};

    // Video samples in arrival order; a key is marked by `keys` holding its pts.
    void feed(const Pts& pts, const Pts& keys) {
        for (int64_t p : pts) {
            DemuxerPacket packet{};
            packet.pts = p;
            packet.key = std::find(keys.begin(), keys.end(), p) != keys.end();
            EXPECT_EQ(TessaloImpl::onDemuxerPacket(kDemuxerPacketVideo, &packet, &instance), 1);
        }
    }
    static Pts ptsOf(const FrameGroup& group) {
        Pts out;
        for (const FrameRecord* r : group) out.push_back(r->pts);
        return out;
    }
    // The query's answer; a sentinel past the count must stay untouched.
    template <typename Query> static Pts ask(Query query) {
        Pts out(64, -7);
        const int32_t n = query(out.data());
        for (size_t i = static_cast<size_t>(n); i < out.size(); ++i) EXPECT_EQ(out[i], -7) << "wrote past " << n;
        out.resize(static_cast<size_t>(n));
        return out;
    }
    Pts keyPts() { return ask([&](int64_t* o) { return instance.getKeyPts(o); }); }
    Pts ptsFor(int64_t key) { return ask([&](int64_t* o) { return instance.getPtsByKeyPts(key, o); }); }
};

TEST_F(FrameIndexTest, ReorderedGroupsKeepStreamOrderAndSortTheHostsView) {
    EXPECT_EQ(keyPts(), Pts{});
    EXPECT_EQ(instance.getPtsCountByKeyPts(0), 0);
    feed({0, 120, 40, 80, 160, 240, 200}, {0, 160});
    // Until the walk ends (a stopped walk never gets there) the host sees arrival order.
    EXPECT_EQ(keyPts(), (Pts{0, 160}));
    EXPECT_EQ(ptsFor(160), (Pts{160, 240, 200}));
    instance.sortIndex();
    ASSERT_EQ(instance.keyGroups.size(), 2u);
    EXPECT_EQ(ptsOf(*instance.keyGroups[0]), (Pts{0, 120, 40, 80}));
    EXPECT_EQ(ptsOf(*instance.keyGroups[1]), (Pts{160, 240, 200}));
    EXPECT_EQ(keyPts(), (Pts{0, 160}));
    EXPECT_EQ(instance.getPtsCountByKeyPts(160), 3);
    EXPECT_EQ(ptsFor(0), (Pts{0, 40, 80, 120}));
    EXPECT_EQ(ptsFor(160), (Pts{160, 200, 240}));
    // A timestamp that opens no group matches nothing; a missing block is not written.
    EXPECT_EQ(instance.getPtsCountByKeyPts(40), 0);
    EXPECT_EQ(ptsFor(40), Pts{});
    EXPECT_EQ(instance.getKeyPts(nullptr), 0);
    EXPECT_EQ(instance.getPtsByKeyPts(0, nullptr), 0);
}

// A key sample shown after others of its group does not name the group; two
// groups with the same lowest timestamp answer together, counted as the first.
TEST_F(FrameIndexTest, KeyTimestampIsTheGroupsLowest) {
    feed({100, 60, 80}, {100});
    feed({60, 70}, {60});
    instance.sortIndex();
    EXPECT_EQ(keyPts(), (Pts{60, 60}));
    EXPECT_EQ(instance.getPtsCountByKeyPts(100), 0);
    EXPECT_EQ(instance.getPtsCountByKeyPts(60), 3);
    EXPECT_EQ(ptsFor(60), (Pts{60, 80, 100, 60, 70}));
}

}  // namespace
