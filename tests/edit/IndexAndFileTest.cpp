// The engine's small pieces: which group opens a range, the frame-exact plan of a range on made-up decoding
// orders where its rules show, the conversion of a sample to start codes, and the source file's seeks.
#include <gtest/gtest.h>

#include <deque>
#include <fstream>

#include "edit/ExactPlan.h"
#include "edit/FileEditer.h"
#include "edit/FileOperator.h"
#include "support/TestSupport.h"

using Bytes = std::vector<uint8_t>;
using Morvel_Tessalo::FileEditer;

namespace {

// An index of made-up groups: each record is {pts, dts}; the first of a group is its key frame.
struct MadeUpIndex {
    MadeUpIndex(std::initializer_list<std::initializer_list<std::pair<int64_t, int64_t>>> layout) {
        for (const auto& group : layout) {
            groups.push_back(&owned.emplace_back());
            for (const auto& [pts, dts] : group) {
                records.push_back(FrameRecord{uint8_t(groups.back()->empty()), 100, pts, dts, 0});
                groups.back()->push_back(&records.back());
            }
        }
    }
    std::deque<FrameRecord> records;
    std::deque<FrameGroup> owned;
    std::vector<FrameGroup*> groups;
};

TEST(FindKeyGroup, AnEqualPtsSelectsTheGroupBeforeAndTheLastGroupNeedsALaterFrame) {
    // Key frames at 0, 2000 and 4000; the last group ends on 5920 though it shows 5960.
    const MadeUpIndex index{{{0, 0}, {120, 1}, {40, 2}, {80, 3}}, {{2000, 4}, {2120, 5}, {2040, 6}},
                            {{4000, 7}, {4120, 8}, {4040, 9}, {5960, 10}, {5920, 11}}};
    // The group that opens a range starting at a pts; -1 where none does.
    const std::pair<int64_t, int32_t> cases[] = {{-500, 0}, {0, 0},    {1, 0},    {2000, 0},  {2001, 1},
                                                 {4000, 1}, {4001, 2}, {5919, 2}, {5920, -1}, {5940, -1}};
    int32_t group = -1;
    for (const auto& [pts, expected] : cases)
        EXPECT_EQ(FileEditer::findKeyGroup(index.groups, pts, &group) ? group : -1, expected) << pts;
    EXPECT_FALSE(FileEditer::findKeyGroup({}, 0, &group));
}

const auto everyKeyIsIdr = [](size_t) { return true; };

// A range planned on two closed groups: I0 P3 B1 B2 P6 B4 B5, then I7 P10 B8 B9.
ExactPlan planTwoGroups(const EditRange& range, const std::function<bool(size_t)>& isIdr = everyKeyIsIdr) {
    const MadeUpIndex index{{{0, -2}, {3, -1}, {1, 0}, {2, 1}, {6, 2}, {4, 3}, {5, 4}},
                            {{7, 5}, {10, 6}, {8, 7}, {9, 8}}};
    return planExactRange(index.groups, range, isIdr, 1);
}

TEST(ExactPlan, MakesTheHeadCopiesFromTheFirstIdrKeyInsideAndMakesTheTailPastTheLastCleanPoint) {
    const ExactPlan plan = planTwoGroups({2, 8});
    EXPECT_EQ(plan.head, (std::vector<int64_t>{2, 3, 4, 5, 6}));
    EXPECT_EQ(plan.headFrom, 0u);
    ASSERT_TRUE(plan.copies);
    EXPECT_EQ(plan.copyFrom, (IndexPlace{1, 0}));
    EXPECT_EQ(plan.copyEnd, (IndexPlace{1, 1}));  // P10 is shown past the end
    EXPECT_EQ(plan.tail, (std::vector<int64_t>{8}));
    EXPECT_EQ(plan.tailFrom, 1u);
    EXPECT_EQ(plan.lead, 2);
    EXPECT_EQ(plan.shownEnd, 9);
}

TEST(ExactPlan, CopiesARangeFromAKeyFrameToACleanEndWhole) {
    const ExactPlan plan = planTwoGroups({0, 6});
    EXPECT_TRUE(plan.head.empty());
    EXPECT_TRUE(plan.tail.empty());
    EXPECT_EQ(plan.copyEnd, (IndexPlace{1, 0}));
}

TEST(ExactPlan, GivesUpCopiedPicturesShownAfterOnesItMustMake) {
    // I0 P4, then P9 past the end, then B2 B1 B3 that P4 is shown after: copying P4 would put made
    // pictures on screen before a copied one.
    const MadeUpIndex index{{{0, -1}, {4, 0}, {9, 1}, {2, 2}, {1, 3}, {3, 4}}};
    const ExactPlan plan = planExactRange(index.groups, {0, 5}, everyKeyIsIdr, 1);
    EXPECT_EQ(plan.copyEnd, (IndexPlace{0, 1}));
    EXPECT_EQ(plan.tail, (std::vector<int64_t>{1, 2, 3, 4}));
}

TEST(ExactPlan, MakesWholeARangeWithoutAnIdrKeyInsideAndDecodesItFromTheLastIdrBefore) {
    const ExactPlan plan = planTwoGroups({8, 9}, [](size_t g) { return g == 0; });
    EXPECT_FALSE(plan.copies);
    EXPECT_EQ(plan.head, (std::vector<int64_t>{8, 9}));
    EXPECT_EQ(plan.headFrom, 0u);
}

TEST(ExactPlan, ARangePastEveryPictureShowsNothing) {
    EXPECT_FALSE(planTwoGroups({20, 30}).shows);
}

// Length-prefixed units of the given sizes (unit i filled with i + 1), and their start-code form.
std::pair<Bytes, Bytes> units(std::vector<uint32_t> sizes) {
    Bytes in, out;
    for (size_t i = 0; i < sizes.size(); ++i) {
        for (int shift = 24; shift >= 0; shift -= 8) in.push_back(uint8_t(sizes[i] >> shift));
        out.insert(out.end(), {0, 0, 1});
        in.insert(in.end(), sizes[i], uint8_t(i + 1));
        out.insert(out.end(), sizes[i], uint8_t(i + 1));
    }
    return {in, out};
}

// Rows: one unit, several (one empty), four of 1 MiB that fill the buffer, none; then failures: one that
// converts to 1 MiB + 1 byte, a length above the sample, a unit past the end, a stub too short for a prefix.
TEST(ToAnnexB, GivesThreeByteStartCodesWithinTheBufferOrFailsTheSample) {
    const int32_t cap = FileEditer::kSampleBufferSize;
    const uint32_t quarter = uint32_t(cap) / 4 - 3;  // 1 MiB + 4 bytes in, exactly 1 MiB out
    const auto [several, severalOut] = units({2, 0, 3});
    const auto [big, bigOut] = units({quarter, quarter, quarter, quarter});
    Bytes tooLong = units({2}).first, runaway = units({20, 8}).first, stub = units({3}).first;
    tooLong[0] = 0x7F;                   // a length above the whole sample
    runaway.resize(runaway.size() - 5);  // the second unit runs past the end
    stub.insert(stub.end(), {0, 0});     // too short for a length prefix
    const struct { Bytes sample, expected; bool ok; } cases[] = {
        {{0, 0, 0, 2, 0x65, 0x66}, {0, 0, 1, 0x65, 0x66}, true}, {several, severalOut, true}, {big, bigOut, true},
        {{}, {}, true}, {units({uint32_t(cap) - 2}).first, {}, false},
        {tooLong, {}, false}, {runaway, {}, false}, {stub, {}, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sample.size());
        const Bytes sample = c.sample;      // exactly sized: ASan sees any read past it
        Bytes out(size_t(cap) + 16, 0xCC);  // guard bytes behind the buffer
        int32_t length = -1;
        EXPECT_EQ(FileEditer::toAnnexB(sample.data(), int32_t(sample.size()), out.data(), cap, &length), c.ok);
        EXPECT_EQ(Bytes(out.begin() + cap, out.end()), Bytes(16, 0xCC)) << "wrote past the buffer";
        EXPECT_EQ(Bytes(out.begin(), out.begin() + std::max(length, 0)), c.expected);
    }
}

std::vector<std::pair<int32_t, MoveFrom>> gMoves;  // the hook runs on the seeking thread

TEST(FileOperator, AFarSeekTakesThirtyTwoBitStepsAndASeekToZeroMakesNoMove) {
    const std::string path = tsltest::scratchDir() + "/abc.bin";
    std::ofstream(path) << "abc";
    FileOperator file;
    ASSERT_TRUE(file.open(path.c_str()));
    setFileMoveHook([](int32_t distance, MoveFrom from) { gMoves.emplace_back(distance, from); });
    EXPECT_TRUE(file.seek(5LL << 30));
    EXPECT_TRUE(file.seek(0));
    EXPECT_TRUE(file.seek(2));
    setFileMoveHook(nullptr);
    const int32_t rest = int32_t((5LL << 30) - 2LL * 0x7FFFFFFE);
    EXPECT_EQ(gMoves, (std::vector<std::pair<int32_t, MoveFrom>>{
                          {0x7FFFFFFE, MoveFrom::Begin}, {0x7FFFFFFE, MoveFrom::Current}, {rest, MoveFrom::Current},
                          {2, MoveFrom::Begin}}));
    char byte = 0;
    uint32_t got = 0;
    EXPECT_TRUE(file.read(&byte, 1, &got));
    EXPECT_EQ(std::make_pair(got, byte), std::make_pair(1u, 'c'));
}

}  // namespace
