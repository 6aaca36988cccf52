#include <gtest/gtest.h>

#include <cstddef>

#include "tessalo.h"

extern "C" int tslHeaderCheckC(void);

TEST(PublicHeader, RecordLayoutsMatchBetweenCAndCxx) {
    // The C translation unit saw the same sizes as this one.
    EXPECT_EQ(tslHeaderCheckC(), 48 + 16 + 15);
    EXPECT_EQ(offsetof(TessaloMediaInfo, height), 0u);
    EXPECT_EQ(offsetof(TessaloMediaInfo, width), 4u);
    EXPECT_EQ(offsetof(TessaloMediaInfo, channels), 20u);
    EXPECT_EQ(offsetof(TessaloMediaInfo, videoCodec), 40u);
    EXPECT_EQ(offsetof(EditOffset, second), 8u);
}
