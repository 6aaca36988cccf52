// The engine's small pieces: which group opens a range, the conversion of a
// sample to start codes, and the source file handle's seeks.
#include <gtest/gtest.h>

#include <fstream>
#include <mutex>

#include "EditTestSupport.h"
#include "edit/FileEditer.h"
#include "edit/FileOperator.h"
#include "platform/PlatformFile.h"

using Morvel_Tessalo::FileEditer;

namespace {

// Groups whose records are given as (pts) lists in decode order; the first of each is the key.
class Groups {
public:
    explicit Groups(const std::vector<std::vector<int64_t>>& ptsLists) {
        for (const auto& list : ptsLists) {
            auto* group = new FrameGroup;
            for (int64_t pts : list) group->push_back(new FrameRecord{uint8_t(group->empty()), 10, pts, pts, 0});
            groups.push_back(group);
        }
    }
    ~Groups() {
        for (auto* group : groups) {
            for (auto* record : *group) delete record;
            delete group;
        }
    }
    std::vector<FrameGroup*> groups;
};

int32_t groupFor(const Groups& g, int64_t pts, bool* found = nullptr) {
    int32_t index = -1;
    const bool ok = FileEditer::findKeyGroup(g.groups, pts, &index);
    if (found) *found = ok;
    return ok ? index : -1;
}

TEST(FindKeyGroup, EqualPtsSelectsTheGroupBeforeAndTheLastGroupNeedsALaterFrame) {
    // Key frames at 0, 2000 and 4000; the last group shows pictures up to 5960.
    Groups g({{0, 120, 40, 80}, {2000, 2120, 2040}, {4000, 4120, 4040, 5960, 5920}});
    EXPECT_EQ(groupFor(g, -500), 0);  // before the first key frame
    EXPECT_EQ(groupFor(g, 0), 0);     // the first group has no group before it
    EXPECT_EQ(groupFor(g, 1), 0);
    EXPECT_EQ(groupFor(g, 2000), 0);  // equal to a key frame: the group before it
    EXPECT_EQ(groupFor(g, 2001), 1);
    EXPECT_EQ(groupFor(g, 4000), 1);
    EXPECT_EQ(groupFor(g, 4001), 2);  // the last frame in decode order (5920) is above it
    EXPECT_EQ(groupFor(g, 5919), 2);

    // Past every key frame, the last frame in decode order decides, not the highest pts.
    bool found = true;
    groupFor(g, 5920, &found);
    EXPECT_FALSE(found);
    groupFor(g, 5940, &found);
    EXPECT_FALSE(found);  // 5960 is shown later, but 5920 comes last in decode order
}

TEST(FindKeyGroup, SingleGroupAndEmptyIndex) {
    Groups one(std::vector<std::vector<int64_t>>{{0}});
    bool found = true;
    EXPECT_EQ(groupFor(one, 0), 0);
    groupFor(one, 1, &found);
    EXPECT_FALSE(found);  // the one frame is both key and last
    Groups none(std::vector<std::vector<int64_t>>{});
    groupFor(none, 0, &found);
    EXPECT_FALSE(found);
}

std::vector<uint8_t> convert(const std::vector<uint8_t>& sample, int32_t capacity, bool* ok) {
    std::vector<uint8_t> out(static_cast<size_t>(capacity) + 16, 0xCC);  // guard bytes behind capacity
    int32_t length = -1;
    *ok = FileEditer::toAnnexB(sample.data(), static_cast<int32_t>(sample.size()), out.data(), capacity, &length);
    for (size_t i = static_cast<size_t>(capacity); i < out.size(); ++i) EXPECT_EQ(out[i], 0xCC) << "wrote past capacity";
    EXPECT_GE(length, 0);
    out.resize(static_cast<size_t>(std::max(length, 0)));
    return out;
}

std::vector<uint8_t> unit(uint32_t length, uint8_t fill) {
    std::vector<uint8_t> bytes = {uint8_t(length >> 24), uint8_t(length >> 16), uint8_t(length >> 8), uint8_t(length)};
    bytes.insert(bytes.end(), length, fill);
    return bytes;
}

TEST(ToAnnexB, UnitsGetThreeByteStartCodes) {
    bool ok = false;
    // One unit filling the sample: one byte shorter.
    auto single = unit(5, 0x65);
    auto out = convert(single, 1 << 20, &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(out, (std::vector<uint8_t>{0, 0, 1, 0x65, 0x65, 0x65, 0x65, 0x65}));

    // Several units, including an empty one, keep their order and bytes.
    auto many = unit(2, 0x09);
    auto second = unit(0, 0);
    auto third = unit(3, 0x41);
    many.insert(many.end(), second.begin(), second.end());
    many.insert(many.end(), third.begin(), third.end());
    out = convert(many, 1 << 20, &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(out, (std::vector<uint8_t>{0, 0, 1, 9, 9, 0, 0, 1, 0, 0, 1, 0x41, 0x41, 0x41}));
    EXPECT_EQ(out, edittest::annexB(many));

    // An empty sample converts to nothing, successfully.
    int32_t length = 7;
    EXPECT_TRUE(FileEditer::toAnnexB(nullptr, 0, nullptr, 0, &length));
    EXPECT_EQ(length, 0);
}

TEST(ToAnnexB, MalformedSamplesFailWithoutLeavingEitherBuffer) {
    bool ok = true;
    // A length above the whole sample's size.
    auto huge = unit(2, 1);
    huge[0] = 0x7F;
    EXPECT_TRUE(convert(huge, 1 << 20, &ok).empty());
    EXPECT_FALSE(ok);

    // A second unit that runs past the end, though its length is below the sample's size.
    auto first = unit(20, 1);
    auto runaway = unit(8, 2);
    runaway.resize(runaway.size() - 5);  // 3 of 8 bytes present
    first.insert(first.end(), runaway.begin(), runaway.end());
    ASSERT_LT(8u, first.size());
    // Copy into an exactly sized heap block so that ASan sees any read past the sample.
    std::unique_ptr<uint8_t[]> exact(new uint8_t[first.size()]);
    std::copy(first.begin(), first.end(), exact.get());
    std::vector<uint8_t> out(64);
    int32_t length = 9;
    EXPECT_FALSE(FileEditer::toAnnexB(exact.get(), int32_t(first.size()), out.data(), 64, &length));
    EXPECT_EQ(length, 0);

    // A stub too short for a length prefix at the end.
    auto stub = unit(3, 1);
    stub.push_back(0);
    stub.push_back(0);
    EXPECT_TRUE(convert(stub, 1 << 20, &ok).empty());
    EXPECT_FALSE(ok);

    EXPECT_FALSE(FileEditer::toAnnexB(huge.data(), -1, out.data(), 64, &length));
}

TEST(ToAnnexB, OutputIsBoundedByTheSampleBuffer) {
    bool ok = false;
    // Over 1 MiB in, but one byte per unit lost brings it to exactly 1 MiB out: converted.
    const uint32_t cap = FileEditer::kSampleBufferSize;
    std::vector<uint8_t> sample;
    const uint32_t units = 4;
    const uint32_t payload = (cap - 3 * units) / units;  // 3 * units + units * payload == cap
    ASSERT_EQ(units * (payload + 3), cap);
    for (uint32_t i = 0; i < units; ++i) {
        auto u = unit(payload, uint8_t(i));
        sample.insert(sample.end(), u.begin(), u.end());
    }
    ASSERT_GT(sample.size(), cap);
    auto out = convert(sample, int32_t(cap), &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(out.size(), cap);
    EXPECT_EQ(out, edittest::annexB(sample));

    // One byte more of payload no longer fits: the sample fails instead of overrunning.
    auto bigger = unit(cap - 2, 7);  // converts to cap + 1 bytes
    convert(bigger, int32_t(cap), &ok);
    EXPECT_FALSE(ok);
}

std::mutex gMovesMutex;
std::vector<std::pair<int32_t, MoveFrom>> gMoves;
void recordMove(int32_t distance, MoveFrom from) {
    std::lock_guard<std::mutex> lock(gMovesMutex);
    gMoves.emplace_back(distance, from);
}

TEST(FileOperator, FarSeeksTakeSteps_AndZeroMakesNoMove) {
    const std::string path = tsltest::scratchDir() + "/sparse.bin";
    { std::ofstream(path) << "abc"; }
    FileOperator file;
    ASSERT_TRUE(file.open(path.c_str()));
    gMoves.clear();
    setFileMoveHook(recordMove);
    const int64_t fiveGiB = 5LL << 30;
    EXPECT_TRUE(file.seek(fiveGiB));
    const auto far = gMoves;
    gMoves.clear();
    EXPECT_TRUE(file.seek(0));
    EXPECT_TRUE(file.seek(-7));
    const auto none = gMoves;
    EXPECT_TRUE(file.seek(2));
    setFileMoveHook(nullptr);

    ASSERT_EQ(far.size(), 3u);
    EXPECT_EQ(far[0], std::make_pair(int32_t(0x7FFFFFFE), MoveFrom::Begin));
    EXPECT_EQ(far[1], std::make_pair(int32_t(0x7FFFFFFE), MoveFrom::Current));
    EXPECT_EQ(far[2].first, int32_t(fiveGiB - 2LL * 0x7FFFFFFE));
    EXPECT_EQ(far[2].second, MoveFrom::Current);
    EXPECT_TRUE(none.empty());
    ASSERT_EQ(gMoves.size(), 1u);  // a near seek is one move from the start

    char byte = 0;
    uint32_t got = 0;
    ASSERT_TRUE(file.read(&byte, 1, &got));
    EXPECT_EQ(got, 1u);
    EXPECT_EQ(byte, 'c');
    ASSERT_TRUE(file.read(&byte, 1, &got));
    EXPECT_EQ(got, 0u);  // the end of the file
}

TEST(FileOperator, OpenCreatesAMissingFileAndNeverWrites) {
    const std::string dir = tsltest::scratchDir();
    const std::string missing = dir + "/new.mp4";
    FileOperator file;
    ASSERT_TRUE(file.open(missing.c_str()));
    file.close();
    EXPECT_FALSE(file.isOpen());
    EXPECT_TRUE(std::ifstream(missing).good());
    EXPECT_FALSE(file.open(""));
    EXPECT_FALSE(file.open(nullptr));
    EXPECT_FALSE(file.open((dir + "/no/such/dir/x.mp4").c_str()));

    const std::string existing = tsltest::media("main.mp4");
    const std::string before = tsltest::fileMd5(existing);
    std::vector<uint8_t> bytes(1 << 16);
    ASSERT_TRUE(file.open(existing.c_str()));
    uint32_t got = 0;
    ASSERT_TRUE(file.seek(100));
    ASSERT_TRUE(file.read(bytes.data(), uint32_t(bytes.size()), &got));
    EXPECT_EQ(got, bytes.size());
    file.close();
    EXPECT_EQ(tsltest::fileMd5(existing), before);
}

}  // namespace
