// Block selection one pixel at a time: the blocks it hits (its own and the face neighbours the
// ramp reaches, never a diagonal one), the pixel step, the best-distance filter and the three
// block filters; and the border copy into all seven lower neighbours.
#include <gtest/gtest.h>

#include <set>
#include <tuple>
#include <vector>

#include "solid/fusion/BlockSelection.h"
#include "solid/fusion/BorderCopy.h"
#include "support/TestBlock.h"

namespace Solid {
namespace {

using Solid::Test::OwnedFrame;
using Keys = std::set<std::tuple<int, int, int>>;

constexpr float kSpacing = 0.02f;  // blocks of 8 cells: 0.16 m
constexpr float kRamp = 0.03f;

DepthGrid& emptyGrid() {
    static DepthGrid grid;
    if (grid.config().numSamples == 0) {
        grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
    }
    return grid;
}

// One pixel at depth 1 m whose point lies at `local` within block (0, 0, 0) after the half-voxel
// shift of the search.
OwnedFrame pixelAt(const Vec3& local) {
    OwnedFrame f(1, 1, 1.0f);
    f.frame.pose = Solid::Test::translation(kSpacing / 2 - local(0), kSpacing / 2 - local(1),
                                            1.0f + kSpacing / 2 - local(2));
    return f;
}

Keys keysOf(const BlockInfoMapType& map) {
    Keys keys;
    for (const auto& entry : map) {
        keys.insert({entry.first(0), entry.first(1), entry.first(2)});
        EXPECT_EQ(entry.second.bestSampleDistance, 1.0f);
    }
    return keys;
}

BlockInfoMapType hits(const DepthGrid& grid, const DepthFrame& frame, int step, float maxBest,
                      IntegrationStats& stats) {
    BlockInfoMapType map;
    findHitBlocks(map, stats, grid, frame, ConstantErrorModel(kRamp), step, maxBest);
    return map;
}

TEST(BlockSelection, APixelHitsItsBlockAndTheFaceNeighboursWithinTheRamp) {
    const struct {
        Vec3 local;
        Keys expected;
    } cases[] = {
        {Vec3(0.08f, 0.08f, 0.08f), {{0, 0, 0}}},
        // Near the lower x and y faces: both face neighbours, but not the diagonal block.
        {Vec3(0.01f, 0.02f, 0.08f), {{0, 0, 0}, {-1, 0, 0}, {0, -1, 0}}},
        {Vec3(0.14f, 0.08f, 0.15f), {{0, 0, 0}, {1, 0, 0}, {0, 0, 1}}},
        {Vec3(0.01f, 0.15f, 0.01f), {{0, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, 0, -1}}},
    };
    for (const auto& c : cases) {
        const OwnedFrame f = pixelAt(c.local);
        IntegrationStats stats;
        EXPECT_EQ(keysOf(hits(emptyGrid(), f.frame, 1, 0.0f, stats)), c.expected)
            << c.local(0) << " " << c.local(1) << " " << c.local(2);
        EXPECT_EQ(stats.acceptedPoints, 1u);
    }
}

TEST(BlockSelection, PixelStepVisitsEveryNthPixelOfEveryNthRow) {
    OwnedFrame f(5, 4, 1.0f);
    f.setIntrinsics(100.0f, 100.0f, -6.0f, -6.0f);  // every point lies inside one block
    f.depth[6] = 0.0f;                              // pixel (1, 1): a hole
    for (const auto& [step, visited, accepted] :
         {std::tuple<int, size_t, size_t>{1, 20, 19}, {2, 6, 6}, {3, 4, 4}, {4, 2, 2}}) {
        IntegrationStats stats;
        const BlockInfoMapType map = hits(emptyGrid(), f.frame, step, 0.0f, stats);
        EXPECT_EQ(stats.visitedPoints, visited) << step;
        EXPECT_EQ(stats.acceptedPoints, accepted) << step;
        uint32_t total = 0;
        for (const auto& entry : map) {
            total += entry.second.numHits;
        }
        EXPECT_EQ(total, accepted) << step;  // the points lie mid-block: one hit each
    }
}

TEST(BlockSelection, BestDistanceFilterIgnoresPixelsFartherThanItsFactor) {
    DepthGrid grid;
    grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
    grid.ensure(KeyType(0, 0, 0));
    grid.get(KeyType(0, 0, 0))->setBestSampleDistance(0.5f);
    const OwnedFrame f = pixelAt(Vec3(0.08f, 0.08f, 0.08f));
    for (const auto& [factor, kept] :
         {std::pair<float, bool>{0.0f, true}, {1.9f, false}, {2.1f, true}}) {
        IntegrationStats stats;
        EXPECT_EQ(hits(grid, f.frame, 1, factor, stats).size(), kept ? 1u : 0u) << factor;
        EXPECT_EQ(stats.acceptedPoints, kept ? 1u : 0u) << factor;
    }
}

TEST(BlockSelection, AllowListAndHitDensityFilters) {
    BlockInfoMapType map;
    const uint32_t counts[] = {9, 10, 39, 40};
    for (int i = 0; i < 4; ++i) {
        map[KeyType(i, 0, 0)].numHits = counts[i];
    }
    BlockInfoMapType all = map;
    filterNonSpecifiedBlocks(all, nullptr);
    EXPECT_EQ(all.size(), 4u);
    IndexSet allowed;
    allowed.insert(KeyType(1, 0, 0));
    allowed.insert(KeyType(7, 0, 0));
    BlockInfoMapType some = map;
    filterNonSpecifiedBlocks(some, &allowed);
    EXPECT_EQ(some.size(), 1u);
    EXPECT_EQ(some.count(KeyType(1, 0, 0)), 1u);

    // Threshold: a fraction of a 9x9 face, divided by the square of the pixel step.
    const struct {
        float fraction;
        int step;
        size_t kept;
    } cases[] = {{0.0f, 1, 4}, {0.5f, 1, 1}, {0.5f, 2, 3}, {0.5f, 3, 4}, {0.13f, 1, 3}};
    for (const auto& c : cases) {
        BlockInfoMapType filtered = map;
        filterLowHitDensityBlocks(filtered, c.fraction, 9, c.step);
        EXPECT_EQ(filtered.size(), c.kept) << c.fraction << " step " << c.step;
    }
}

TEST(BlockSelection, SaturationCountsViewsPerDirectionAndDistanceClass) {
    SaturationManager<float, DepthGrid> manager(2, 4);
    manager.distances().push_back(1.0f);
    manager.directions().push_back(Vec3(1.0f, 0.0f, 0.0f));
    manager.directions().push_back(Vec3(-1.0f, 0.0f, 0.0f));
    const KeyType key(0, 0, 0);
    const Vec3 nearRight(0.5f, 0.0f, 0.0f), farRight(3.0f, 0.0f, 0.0f), nearLeft(-0.5f, 0, 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(manager.update(key, nearRight)) << i;
    }
    EXPECT_FALSE(manager.update(key, nearRight));
    EXPECT_TRUE(manager.update(KeyType(1, 0, 0), nearRight));  // blocks count apart
    EXPECT_TRUE(manager.update(key, farRight));
    EXPECT_TRUE(manager.update(key, nearLeft));

    // The filter drops a block once its class is full, and keeps a new one.
    const OwnedFrame f = pixelAt(Vec3(0.08f, 0.08f, 0.08f));
    SaturationManager<float, DepthGrid> one(1, 1);
    one.directions().push_back(Vec3(0.0f, 0.0f, 1.0f));
    for (size_t expected : {1u, 0u}) {
        IntegrationStats stats;
        BlockInfoMapType map = hits(emptyGrid(), f.frame, 1, 0.0f, stats);
        filterSaturatedBlocks(map, emptyGrid(), f.frame, &one);
        EXPECT_EQ(map.size(), expected);
    }
}

// Block (1, 1, 1) with distinct samples copies its planes 0 into planes 8 of the seven lower
// neighbours: faces, edges and the corner sample (8, 8, 8). Nothing else of them changes, but for
// the border column of the z face, which is copied as part of whole rows.
TEST(BorderCopy, EveryLowerNeighbourReceivesExactlyItsPlanes) {
    DepthGrid grid;
    grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
    for (int k = 0; k < 8; ++k) {
        grid.ensure(KeyType(k & 1, (k >> 1) & 1, k >> 2));
    }
    const KeyType source(1, 1, 1);
    auto index = [](int x, int y, int z) { return short(x + 9 * y + 81 * z); };
    {
        auto block = grid.get(source);
        for (int z = 0; z < 9; ++z)
            for (int y = 0; y < 9; ++y)
                for (int x = 0; x < 9; ++x)
                    block->at(x, y, z) = Vec2S(index(x, y, z), short(1));
    }
    IndexSet updated;
    copySubvolumeBorder(source, *grid.get(source), grid, updated);
    EXPECT_EQ(updated.size(), 7u);
    for (int k = 0; k < 7; ++k) {
        const int o[3] = {k & 1, (k >> 1) & 1, k >> 2};  // 0: one block lower on that axis
        auto dst = grid.get(KeyType(o[0], o[1], o[2]));
        EXPECT_TRUE(updated.contains(KeyType(o[0], o[1], o[2])));
        for (int z = 0; z < 9; ++z)
            for (int y = 0; y < 9; ++y)
                for (int x = 0; x < 9; ++x) {
                    const int p[3] = {x, y, z};
                    bool copied = true;
                    int from[3];
                    for (int a = 0; a < 3; ++a) {
                        const bool wholeRow = k == 3 && a == 0;
                        copied = copied && (o[a] == 0 ? p[a] == 8 : p[a] < 8 || wholeRow);
                        from[a] = o[a] == 0 ? 0 : p[a];
                    }
                    const Vec2S expected = copied
                                               ? Vec2S(index(from[0], from[1], from[2]), short(1))
                                               : creationSample<Vec2S>();
                    ASSERT_EQ(dst->at(x, y, z), expected) << k << ": " << x << y << z;
                }
    }
}

}  // namespace
}  // namespace Solid
