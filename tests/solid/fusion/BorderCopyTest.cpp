// Border copying at the lowest keys of the key range: a neighbour below INT_MIN does not exist,
// so nothing wraps around to the block at INT_MAX.
#include <gtest/gtest.h>

#include <climits>

#include "solid/fusion/BorderCopy.h"
#include "support/FusedGrid.h"

namespace Solid {
namespace {

TEST(BorderCopyKeyRange, NoNeighbourBelowTheLowestKey) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, 0.02f);
    const KeyType lowest(INT_MIN, 0, 0);
    const KeyType below(INT_MIN, -1, 0);   // the one lower neighbour that exists
    const KeyType highest(INT_MAX, 0, 0);  // where x - 1 of `lowest` would wrap to
    for (const KeyType& key : {lowest, below, highest}) {
        ASSERT_TRUE(grid.ensure(key));
    }
    const Vec2S observed(1234, 7);
    grid.get(lowest)->at(0, 0, 0) = observed;
    const Vec2S untouched = grid.get(highest)->at(8, 0, 0);

    IndexSet blocks;
    blocks.insert(lowest);
    IntegrationStats stats;
    copyBorders(grid, stats, blocks);

    EXPECT_EQ(stats.copiedBorderBlocks, 1u);
    EXPECT_TRUE(blocks.contains(below));
    EXPECT_FALSE(blocks.contains(highest));
    EXPECT_EQ(grid.get(below)->at(0, 8, 0), observed);
    EXPECT_EQ(grid.get(highest)->at(8, 0, 0), untouched);
}

}  // namespace
}  // namespace Solid
