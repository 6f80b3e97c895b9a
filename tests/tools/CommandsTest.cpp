#include <gtest/gtest.h>

#include "velmora/Commands.h"

using namespace VelmoraTool;

TEST(FuseStatistics, PercentilesInterpolateBetweenRanks) {
    EXPECT_EQ(percentile({}, 0.5), 0.0);
    EXPECT_EQ(percentile({7.0}, 0.9), 7.0);
    EXPECT_DOUBLE_EQ(percentile({1.0, 2.0, 3.0, 4.0}, 0.5), 2.5);
    const std::vector<double> tens{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_DOUBLE_EQ(percentile(tens, 0.9), 9.1);
    EXPECT_DOUBLE_EQ(percentile(tens, 1.0), 10.0);
    EXPECT_DOUBLE_EQ(percentile(tens, 0.0), 1.0);
}

TEST(CommandArguments, CompoundArgumentsParseOrFail) {
    uint32_t width = 0, height = 0;
    EXPECT_TRUE(parseSize("64x48", width, height));
    EXPECT_EQ(width, 64u);
    EXPECT_EQ(height, 48u);
    for (const char* bad : {"64x", "x48", "0x48", "64*48", "-64x48", "70000x10"}) {
        EXPECT_FALSE(parseSize(bad, width, height)) << bad;
    }
    uint64_t first = 0, last = 0;
    EXPECT_TRUE(parseFrameRange("3:9", first, last));
    EXPECT_EQ(first, 3u);
    EXPECT_EQ(last, 9u);
    EXPECT_TRUE(parseFrameRange("12:", first, last));
    EXPECT_EQ(first, 12u);
    EXPECT_EQ(last, UINT64_MAX);
    for (const char* bad : {"9:3", "3", ":9", "a:b", "3:9:1"}) {
        EXPECT_FALSE(parseFrameRange(bad, first, last)) << bad;
    }
    Intrinsics intrinsics;
    EXPECT_TRUE(parseIntrinsics("517.3,516.5,318.6,255.3", intrinsics));
    EXPECT_EQ(intrinsics.fy, 516.5);
    EXPECT_EQ(intrinsics.cx, 318.6);
    for (const char* bad : {"1,2,3", "1,2,3,4,5", "1,-2,3,4", "1,2,,4", "1,2,3,nan", "1,2,3,4x"}) {
        EXPECT_FALSE(parseIntrinsics(bad, intrinsics)) << bad;
    }
}
