// The instance extractor on grids whose label histograms are painted by hand: the winning label
// of a sample, the pieces of a block and their identities, and the joining of pieces into
// instances that keep, merge or lose their identity from one update to the next.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

#include "solid/instances/InstanceExtractor.h"
#include "support/FieldGrid.h"

namespace Solid {
namespace {

constexpr float kCell = 0.1f;  // metres; a block is 0.8 m

template <typename Grid>
struct PaintedGrid {
    Grid grid;
    PaintedGrid() { grid.set(Size(9, 9, 9), Vec3(kCell, kCell, kCell)); }

    // Adds `votes` for `label` to every sample of the blocks `from` to `to` (inclusive keys),
    // border samples included, whose lattice point lies in the world box [lo, hi]. Painting by
    // world position gives a border sample the votes of the neighbour's sample it shares.
    void paint(const Index3& from, const Index3& to, const Vec3& lo, const Vec3& hi, uint8_t label,
               uint8_t votes = 1) {
        Test::writeLattice(grid, from, to, [&](auto& sample, const Vec3& p) {
            bool inside = true;
            for (int a = 0; a < 3; ++a)
                inside = inside && p[a] >= lo[a] - 1e-4f && p[a] <= hi[a] + 1e-4f;
            sample.labels[label] += inside ? votes : 0;
        });
    }
    // A rod of `label` along x through the blocks bx0..bx1 of row (y, z) = (0, 0).
    void rod(int bx0, int bx1, uint8_t label, uint8_t votes = 1) {
        paint(Index3(bx0, 0, 0), Index3(bx1, 0, 0), Vec3(bx0 * 0.8f, 0.3f, 0.3f),
              Vec3(bx1 * 0.8f + 0.8f, 0.5f, 0.5f), label, votes);
    }
    uint16_t instanceAt(const Index3& key, int i, int j, int k) {
        return grid.get(key)->at(i, j, k).instance;
    }
};

IndexSet keys(std::initializer_list<Index3> list) {
    IndexSet set;
    for (const Index3& key : list)
        set.insert(key);
    return set;
}
IndexSet row(int bx0, int bx1) {
    IndexSet set;
    for (int x = bx0; x <= bx1; ++x)
        set.insert(Index3(x, 0, 0));
    return set;
}

// Every identity is either in the pool or held by exactly one piece.
void expectPoolComplete(const InstanceExtractor& extractor) {
    std::vector<int> seen(kMaxLocalId + 1, 0);
    for (LocalID id : extractor.availableIds())
        ++seen[id];
    for (const auto& block : extractor.blockInstances())
        for (const BlockInstance& piece : block.second)
            ++seen[piece.localId];
    for (uint32_t id = 1; id <= kMaxLocalId; ++id)
        ASSERT_EQ(seen[id], 1) << "identity " << id;
}

template <typename Grid>
class BlockInstancesTest : public ::testing::Test {};
using LabelledGrids = ::testing::Types<LabelGrid, LabelDepthGrid>;
TYPED_TEST_SUITE(BlockInstancesTest, LabelledGrids);

// The winning label of one sample, by histogram: (counts of labels 0..3, winner).
TYPED_TEST(BlockInstancesTest, WinningLabelOfASample) {
    // Counts of labels 0..3 and the winner: a tie goes to the lower label, else the largest
    // count; label 0 winning makes no instance.
    const std::pair<std::vector<uint8_t>, uint16_t> cases[] = {
        {{0, 2, 2, 0}, 1}, {{0, 1, 3, 2}, 2}, {{5, 3, 0, 4}, 0}};
    for (const auto& [counts, winner] : cases) {
        PaintedGrid<TypeParam> painted;
        const Index3 key(0, 0, 0);
        painted.grid.ensure(key);
        for (uint8_t label = 0; label < counts.size(); ++label)
            painted.grid.get(key)->at(2, 3, 4).labels[label] = counts[label];
        InstanceExtractor extractor;
        extractor.updateBlockInstances(painted.grid, keys({key}), false);
        const uint16_t id = painted.instanceAt(key, 2, 3, 4);
        const auto pieces = extractor.blockInstances().find(key);
        ASSERT_EQ(pieces == extractor.blockInstances().end(), winner == 0);
        EXPECT_EQ(id == 0, winner == 0);
        if (winner == 0)
            continue;
        const BlockInstance& piece = pieces->second.at(0);
        EXPECT_EQ(piece.label, winner);
        EXPECT_EQ(piece.localId, id);
        // The sample's cell, widened by the margin, in world metres.
        EXPECT_FLOAT_EQ(piece.box.min[0], 2 * kCell - kCell / 2 - kInstanceBoxMargin);
        EXPECT_FLOAT_EQ(piece.box.max[2], 4 * kCell + kCell / 2 + kInstanceBoxMargin);
    }
}

TYPED_TEST(BlockInstancesTest, OnePiecePerLabelWithBoxesGrownAndFreshIdsEachUpdate) {
    PaintedGrid<TypeParam> painted;
    const Index3 key(1, 0, 0);
    // Two separate patches of label 4 and one of label 6 in the same block.
    painted.paint(key, key, Vec3(0.8f, 0, 0), Vec3(0.9f, 0.1f, 0.1f), 4);
    painted.paint(key, key, Vec3(1.4f, 0.6f, 0.6f), Vec3(1.6f, 0.8f, 0.8f), 4);
    painted.paint(key, key, Vec3(1.2f, 0.4f, 0), Vec3(1.2f, 0.4f, 0), 6);
    InstanceExtractor extractor;
    extractor.updateBlockInstances(painted.grid, keys({key, Index3(7, 7, 7)}), false);
    const auto& pieces = extractor.blockInstances().at(key);
    ASSERT_EQ(pieces.size(), 2u);
    const BlockInstance& four = pieces[0].label == 4 ? pieces[0] : pieces[1];
    EXPECT_NEAR(four.box.min[0], 0.8f - kCell / 2 - kInstanceBoxMargin, 1e-5f);
    EXPECT_NEAR(four.box.max[0], 1.6f + kCell / 2 + kInstanceBoxMargin, 1e-5f);
    EXPECT_EQ(painted.instanceAt(key, 0, 0, 0), four.localId);
    EXPECT_EQ(painted.instanceAt(key, 8, 8, 8), four.localId);  // a border sample
    EXPECT_EQ(extractor.getInstances().size(), 2u);

    // Updating again hands out new identities; the old ones go to the back of the pool.
    const std::set<LocalID> before = {pieces[0].localId, pieces[1].localId};
    extractor.updateBlockInstances(painted.grid, keys({key}), false);
    const auto& again = extractor.blockInstances().at(key);
    ASSERT_EQ(again.size(), 2u);
    for (const BlockInstance& piece : again)
        EXPECT_EQ(before.count(piece.localId), 0u);
    const auto& pool = extractor.availableIds();
    EXPECT_EQ(std::set<LocalID>(pool.end() - 2, pool.end()), before);
    expectPoolComplete(extractor);

    // Deferred merge: the tables are not to be read until a merge.
    extractor.updateBlockInstances(painted.grid, keys({key}), true);
    EXPECT_FALSE(extractor.merged());
    EXPECT_DEATH(extractor.getInstances(), "mergeLastCalled");
    EXPECT_DEATH(extractor.getGlobalInstanceId(1), "mergeLastCalled");
    extractor.mergeBlockInstances(keys({key}));
    EXPECT_TRUE(extractor.merged());
}

class GlobalInstancesTest : public ::testing::Test {
protected:
    PaintedGrid<LabelGrid> painted;
    InstanceExtractor extractor;

    void update(const IndexSet& blocks) {
        extractor.updateBlockInstances(painted.grid, blocks, false);
    }
    // The instances of `label`, by id.
    std::vector<const Instance*> ofLabel(uint16_t label) {
        std::vector<const Instance*> found;
        for (const auto& entry : extractor.getInstances())
            if (entry.second.label == label)
                found.push_back(&entry.second);
        return found;
    }
    GlobalID onlyOfLabel(uint16_t label) {
        const auto found = ofLabel(label);
        EXPECT_EQ(found.size(), 1u) << "label " << label;
        return found.empty() ? 0 : found[0]->id;
    }
};

TEST_F(GlobalInstancesTest, ARegionAcrossBlocksIsOneInstanceWithItsBox) {
    painted.rod(0, 3, 7);
    painted.rod(5, 5, 7);  // the same label, out of reach
    painted.paint(Index3(0, 0, 0), Index3(0, 0, 0), Vec3(0.1f, 0.6f, 0.6f), Vec3(0.2f, 0.7f, 0.7f),
                  9);  // another label in a shared block
    // Two patches of one label in adjacent blocks whose boxes do not meet: apart.
    painted.paint(Index3(0, 0, 0), Index3(0, 0, 0), Vec3(0.6f, 0.6f, 0.0f), Vec3(0.8f, 0.8f, 0.1f),
                  5);
    painted.paint(Index3(1, 0, 0), Index3(1, 0, 0), Vec3(0.8f, 0.0f, 0.0f), Vec3(1.0f, 0.1f, 0.1f),
                  5);
    update(row(0, 5));
    EXPECT_NE(onlyOfLabel(9), 0);
    EXPECT_EQ(ofLabel(5).size(), 2u);
    const auto rods = ofLabel(7);
    ASSERT_EQ(rods.size(), 2u);
    const Instance& rod = rods[0]->boundingBoxes.size() == 4 ? *rods[0] : *rods[1];
    EXPECT_EQ(rod.boundingBoxes.size(), 4u);
    EXPECT_NEAR(rod.box.min[0], -kCell / 2 - kInstanceBoxMargin, 1e-5f);
    EXPECT_NEAR(rod.box.max[0], 3.2f + kCell / 2 + kInstanceBoxMargin, 1e-5f);
    EXPECT_EQ(extractor.numCreatedNodes(), 6u);
    expectPoolComplete(extractor);
}

TEST_F(GlobalInstancesTest, ANewRegionMetByAGrowingOneIsTakenByTheFlood) {
    painted.rod(0, 0, 7);
    painted.paint(Index3(0, 0, 0), Index3(0, 0, 0), Vec3(0.7f, 0.7f, 0.7f), Vec3(0.8f, 0.8f, 0.8f),
                  7);
    update(row(0, 0));
    const GlobalID old = onlyOfLabel(7);
    // A diagonal neighbour block, touching the rod's block only at a corner.
    painted.paint(Index3(1, 1, 1), Index3(1, 1, 1), Vec3(0.8f, 0.8f, 0.8f), Vec3(1.0f, 1.0f, 1.0f),
                  7);
    update(keys({Index3(1, 1, 1)}));
    EXPECT_EQ(onlyOfLabel(7), old);
    EXPECT_EQ(extractor.numCreatedNodes(), 2u);
    EXPECT_TRUE(extractor.getInstances().at(old).boundingBoxes.contains(Index3(1, 1, 1)));
}

TEST_F(GlobalInstancesTest, ParentsCompressChainsAndGuardTheirRange) {
    // Three rods; the first two grow together, then what they became grows into the third.
    painted.rod(0, 0, 7);
    painted.rod(3, 3, 7);
    painted.rod(6, 6, 7);
    update(row(0, 6));
    ASSERT_EQ(ofLabel(7).size(), 3u);
    // The gap between the first two fills, and each grows on its outer side too, so that both
    // grow whichever floods the gap first: they merge without a new identity, the earlier
    // pointing to the later.
    painted.rod(-1, 2, 7);
    painted.rod(4, 4, 7);
    update(keys({Index3(-1, 0, 0), Index3(1, 0, 0), Index3(2, 0, 0), Index3(4, 0, 0)}));
    ASSERT_EQ(ofLabel(7).size(), 2u);
    EXPECT_EQ(extractor.numCreatedNodes(), 4u);
    const GlobalID joined =
        extractor.getGlobalInstanceId(extractor.blockInstances().at(Index3(-1, 0, 0))[0].localId);
    int pointing = 0;
    for (GlobalID id = 1; id <= 3; ++id)
        pointing += extractor.getParentID(id) == joined;
    EXPECT_EQ(pointing, 2);
    for (int x = -1; x <= 4; ++x)
        for (const BlockInstance& piece : extractor.blockInstances().at(Index3(x, 0, 0)))
            EXPECT_EQ(extractor.getGlobalInstanceId(piece.localId), joined);
    expectPoolComplete(extractor);
    painted.rod(-2, -2, 7);
    painted.rod(5, 5, 7);
    painted.rod(7, 7, 7);
    update(keys({Index3(-2, 0, 0), Index3(5, 0, 0), Index3(7, 0, 0)}));
    const GlobalID root = onlyOfLabel(7);
    for (GlobalID id = 1; id <= 3; ++id)
        EXPECT_EQ(extractor.getParentID(id), root) << id;
    EXPECT_EQ(extractor.getParentID(0), 0);
    EXPECT_DEATH(extractor.getParentID(4), "id < numCreatedNodes\\(\\)");
    EXPECT_DEATH(extractor.getGlobalInstanceId(999), "");
    const Instance& survivor = extractor.getInstances().at(root);
    EXPECT_DEATH(extractor.shouldMergeInstances(survivor, survivor), "instA.id != instB.id");
}

}  // namespace
}  // namespace Solid
