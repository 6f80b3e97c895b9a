// Collision and clearance on hand-made depth grids: the three outcomes of a point, the order and
// priority rules of the box scan, missing blocks against unobserved samples, the sphere's filter,
// the clearance searches within and across blocks, and host input of absurd size.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "solid/query/CollisionDetection.h"
#include "support/FusedGrid.h"

namespace Solid {
namespace {

constexpr float kSpacing = 0.02f;
constexpr float kDimension = 8 * kSpacing;  // block edge, metres
constexpr float kThreshold = 0.0f;
// Encoded depth values.
constexpr short kFree = kMaxDepthValue;  // +1.0, in front of the band
constexpr short kSolid = -kMaxDepthValue;
constexpr short kObserved = 1;  // weight of a sample seen once
constexpr short kUnobserved = 0;

// Sample at lattice index `i` of block `key`; the block is created if missing.
void setSample(DepthGrid& grid, const KeyType& key, const Index3& i, short value, short weight) {
    grid.ensure(key);
    grid.get(key)->at(i(0), i(1), i(2)) = Vec2S(value, weight);
}

// A block whose every sample has been seen and lies in free space.
void addFreeBlock(DepthGrid& grid, const KeyType& key) {
    grid.ensure(key);
    DepthGrid::Ptr block = grid.get(key);
    for (uint32_t i = 0; i < block->dataSize(); ++i) {
        block->data()[i] = Vec2S(kFree, kObserved);
    }
}

Vec3 worldLatticePoint(const KeyType& key, const Index3& i) {
    return Vec3(kDimension * key(0) + kSpacing * i(0), kDimension * key(1) + kSpacing * i(1),
                kDimension * key(2) + kSpacing * i(2));
}

void expectNear(const Vec3& actual, const Vec3& expected) {
    for (int a = 0; a < 3; ++a) {
        EXPECT_NEAR(actual(a), expected(a), 1e-5f) << "axis " << a;
    }
}

class Collision : public ::testing::Test {
protected:
    void SetUp() override { Velmora::Test::configureGrid(grid, kSpacing); }
    DepthGrid grid;
    const Vec3 untouched = Vec3(-7.0f, -7.0f, -7.0f);
};

TEST_F(Collision, PointInMissingBlockUnobservedSampleSurfaceAndFreeSpace) {
    // A block below zero on x: keys come from the floor, not from truncation.
    const KeyType key(-1, 0, 2);
    addFreeBlock(grid, key);
    setSample(grid, key, Index3(3, 5, 0), 0, kObserved);  // exactly on the surface
    setSample(grid, key, Index3(4, 5, 0), kFree, kUnobserved);
    const Vec3 origin = worldLatticePoint(key, Index3(0, 0, 0));

    Vec3 point = untouched;
    // 3.4 and 0.4 cells round to lattice point (3, 5, 0).
    const Vec3 nearSurface = origin + Vec3(3.4f, 5.0f, 0.4f) * kSpacing;
    EXPECT_EQ(checkCollision(grid, nearSurface, point, kThreshold), COLLISION);
    expectNear(point, worldLatticePoint(key, Index3(3, 5, 0)));
    // A threshold below the value turns the same sample into free space.
    point = untouched;
    EXPECT_EQ(checkCollision(grid, nearSurface, point, -0.1f), NO_COLLISION);
    EXPECT_EQ(point, untouched);
    // 3.6 cells rounds up, to the unobserved sample.
    EXPECT_EQ(checkCollision(grid, origin + Vec3(3.6f, 5.0f, 0.0f) * kSpacing, point, kThreshold),
              UNKNOWN);
    EXPECT_EQ(point, untouched);
    EXPECT_EQ(checkCollision(grid, origin + Vec3(1.0f, 1.0f, 1.0f) * kSpacing, point, kThreshold),
              NO_COLLISION);
    // The block below x = -kDimension was never created.
    EXPECT_EQ(checkCollision(grid, origin - Vec3(0.01f, 0.0f, 0.0f), point, kThreshold), UNKNOWN);
    EXPECT_EQ(point, untouched);
    EXPECT_EQ(checkCollision(grid, Vec3(std::nanf(""), 0.0f, 0.0f), point, kThreshold), UNKNOWN);
    EXPECT_EQ(checkCollision(grid, Vec3(1e30f, -1e30f, 0.0f), point, kThreshold), UNKNOWN);
}

TEST_F(Collision, BoxScanOrderAndPriorities) {
    const KeyType first(0, 0, 0);
    const KeyType second(2, 0, 0);  // (1, 0, 0) stays missing
    addFreeBlock(grid, first);
    addFreeBlock(grid, second);
    const Box box{Vec3(0.05f, 0.01f, 0.01f), Vec3(0.40f, 0.15f, 0.15f)};

    // Everything seen and free, but the box also covers the missing block: UNKNOWN, at that
    // block's first lattice point inside the box.
    Vec3 point = untouched;
    EXPECT_EQ(checkCollision(grid, box, point, kThreshold), UNKNOWN);
    expectNear(point, Vec3(kDimension, 0.02f, 0.02f));

    // An occupied sample in a later block still wins, with its own position.
    setSample(grid, second, Index3(3, 4, 4), -100, kObserved);
    EXPECT_EQ(checkCollision(grid, box, point, kThreshold), COLLISION);
    expectNear(point, worldLatticePoint(second, Index3(3, 4, 4)));

    // Within one block: of two unobserved samples the first in z, y, x order names the UNKNOWN.
    const Box inFirst{Vec3(0.01f, 0.01f, 0.01f), Vec3(0.15f, 0.15f, 0.15f)};
    setSample(grid, first, Index3(1, 3, 2), kFree, kUnobserved);
    setSample(grid, first, Index3(5, 2, 1), kFree, kUnobserved);
    point = untouched;
    EXPECT_EQ(checkCollision(grid, inFirst, point, kThreshold), UNKNOWN);
    expectNear(point, worldLatticePoint(first, Index3(5, 2, 1)));
    // ... and an occupied sample after both of them still turns it into COLLISION.
    setSample(grid, first, Index3(2, 2, 6), kSolid, kObserved);
    EXPECT_EQ(checkCollision(grid, inFirst, point, kThreshold), COLLISION);
    expectNear(point, worldLatticePoint(first, Index3(2, 2, 6)));
    // A box that rounds away from those samples is free.
    const Box clear{Vec3(0.07f, 0.07f, 0.07f), Vec3(0.09f, 0.09f, 0.09f)};
    EXPECT_EQ(checkCollision(grid, clear, point, kThreshold), NO_COLLISION);

    // Inverted on z across blocks: nothing is scanned. Inverted within one block, the block's
    // empty lattice range is UNKNOWN. A NaN corner: unknown space.
    const Box invertedZ{Vec3(0.01f, 0.01f, 0.30f), Vec3(0.15f, 0.15f, 0.01f)};
    EXPECT_EQ(checkCollision(grid, invertedZ, point, kThreshold), NO_COLLISION);
    const Box invertedInBlock{Vec3(0.01f, 0.01f, 0.15f), Vec3(0.15f, 0.15f, 0.01f)};
    EXPECT_EQ(checkCollision(grid, invertedInBlock, point, kThreshold), UNKNOWN);
    const Box withNaN{Vec3(0.01f, std::nanf(""), 0.01f), Vec3(0.15f, 0.15f, 0.15f)};
    EXPECT_EQ(checkCollision(grid, withNaN, point, kThreshold), UNKNOWN);

    // Block level, in block-local metres: an inverted box has an empty range, UNKNOWN without a
    // point.
    point = untouched;
    const Box localInverted{Vec3(0.10f, 0.0f, 0.0f), Vec3(0.02f, 0.1f, 0.1f)};
    EXPECT_EQ(checkCollision(*grid.get(first), localInverted, point, kThreshold), UNKNOWN);
    EXPECT_EQ(point, untouched);
}

TEST_F(Collision, SphereIgnoresSamplesOutsideButNotMissingBlocks) {
    const KeyType key(0, 0, 0);
    addFreeBlock(grid, key);
    // Sphere of radius 0.06 around the block's centre; its bounding box corner is unobserved.
    const Sphere sphere{Vec3(0.08f, 0.08f, 0.08f), 0.06f};
    setSample(grid, key, Index3(1, 1, 1), kFree, kUnobserved);
    Vec3 point = untouched;
    EXPECT_EQ(checkCollision(grid, sphere, point, kThreshold), NO_COLLISION);
    EXPECT_EQ(point, untouched);
    const Box bounds{Vec3(0.02f, 0.02f, 0.02f), Vec3(0.14f, 0.14f, 0.14f)};
    EXPECT_EQ(checkCollision(grid, bounds, point, kThreshold), UNKNOWN);
    expectNear(point, Vec3(0.02f, 0.02f, 0.02f));

    // Inside the sphere it counts: the centre sample occupied.
    setSample(grid, key, Index3(4, 4, 4), kSolid, kObserved);
    EXPECT_EQ(checkCollision(grid, sphere, point, kThreshold), COLLISION);
    expectNear(point, Vec3(0.08f, 0.08f, 0.08f));

    // A sphere whose bounding box reaches into a missing block only at a corner outside the
    // sphere: the block test does not use the filter, so it is UNKNOWN.
    DepthGrid pair;
    Velmora::Test::configureGrid(pair, kSpacing);
    addFreeBlock(pair, key);
    const Sphere nearCorner{Vec3(0.11f, 0.11f, 0.11f), 0.06f};
    EXPECT_EQ(checkCollision(pair, nearCorner, point, kThreshold), UNKNOWN);
    for (int x = 0; x <= 1; ++x) {
        for (int y = 0; y <= 1; ++y) {
            for (int z = 0; z <= 1; ++z) {
                addFreeBlock(pair, KeyType(x, y, z));
            }
        }
    }
    EXPECT_EQ(checkCollision(pair, nearCorner, point, kThreshold), NO_COLLISION);
    // A negative radius makes an inverted box: nothing to scan.
    EXPECT_EQ(checkCollision(pair, Sphere{Vec3(0.1f, 0.1f, 0.1f), -1.0f}, point, kThreshold),
              NO_COLLISION);
}

TEST_F(Collision, ClearanceWithinAndAcrossBlocks) {
    // Block (0,0,0) is solid from lattice x = 6 on; block (1,0,0) is free. An unobserved sample
    // (value +1) is never an obstacle.
    const KeyType wall(0, 0, 0);
    addFreeBlock(grid, wall);
    addFreeBlock(grid, KeyType(1, 0, 0));
    for (int z = 0; z < 9; ++z) {
        for (int y = 0; y < 9; ++y) {
            for (int x = 6; x < 9; ++x) {
                setSample(grid, wall, Index3(x, y, z), kSolid, kObserved);
            }
        }
    }
    setSample(grid, wall, Index3(1, 4, 4), kFree, kUnobserved);

    // Point 9 cm in front of the solid face x = 0.12.
    std::pair<float, Vec3> found = clearanceDistance(grid, Vec3(0.03f, 0.08f, 0.08f), 0.2f, 0.0f);
    EXPECT_NEAR(found.first, 0.09f, 1e-5f);
    expectNear(found.second, Vec3(0.12f, 0.08f, 0.08f));
    // Nothing within 5 cm: exactly the search distance and the origin.
    found = clearanceDistance(grid, Vec3(0.03f, 0.08f, 0.08f), 0.05f, 0.0f);
    EXPECT_EQ(found.first, 0.05f);
    EXPECT_EQ(found.second, Vec3(0.0f, 0.0f, 0.0f));
    // From the neighbouring block: 1 cm behind its lower face lies the solid x = 0.16 plane.
    // The blocks searched are the point's own plus whole blocks within the distance, so a search
    // shorter than a block edge stays in the point's block.
    found = clearanceDistance(grid, Vec3(0.17f, 0.08f, 0.08f), 0.2f, 0.0f);
    EXPECT_NEAR(found.first, 0.01f, 1e-5f);
    expectNear(found.second, Vec3(0.16f, 0.08f, 0.08f));
    found = clearanceDistance(grid, Vec3(0.17f, 0.08f, 0.08f), 0.1f, 0.0f);
    EXPECT_EQ(found.first, 0.1f);

    // A box 7 cm in front of the face; the first nearest sample in z, y, x order is reported.
    const Box box{Vec3(0.02f, 0.07f, 0.07f), Vec3(0.05f, 0.09f, 0.09f)};
    found = clearanceDistance(grid, box, 0.2f, 0.0f);
    EXPECT_NEAR(found.first, 0.07f, 1e-5f);
    expectNear(found.second, Vec3(0.12f, 0.08f, 0.08f));
    // A box that reaches into the solid part, searched at a threshold that counts those samples:
    // minus the deepest penetration, 3 cm at lattice x = 0.14 in [0.11, 0.17].
    const Box into{Vec3(0.11f, 0.01f, 0.01f), Vec3(0.17f, 0.15f, 0.15f)};
    found = clearanceDistance(*grid.get(wall), into, 0.2f, 0.0f);
    EXPECT_NEAR(found.first, -0.03f, 1e-5f);
    EXPECT_NEAR(found.second(0), 0.14f, 1e-5f);

    // Absurd search distances and positions end, and find the same nearest sample.
    found = clearanceDistance(grid, Vec3(0.03f, 0.08f, 0.08f),
                              std::numeric_limits<float>::infinity(), 0.0f);
    EXPECT_NEAR(found.first, 0.09f, 1e-5f);
    found = clearanceDistance(grid, Vec3(-100.0f, 0.08f, 0.08f), 1e30f, 0.0f);
    EXPECT_NEAR(found.first, 100.12f, 1e-3f);
    found = clearanceDistance(grid, Vec3(std::nanf(""), 0.0f, 0.0f), 1.0f, 0.0f);
    EXPECT_EQ(found.first, 1.0f);
    found = clearanceDistance(grid, box, -1.0f, 0.0f);
    EXPECT_EQ(found.first, -1.0f);
}

TEST_F(Collision, HugeBoxesVisitOnlyExistingBlocksWithTheSameAnswer) {
    // Millions of keys but a handful of blocks: the scan goes over the blocks that exist.
    const Box huge{Vec3(-500.0f, -0.01f, -0.01f), Vec3(500.0f, 0.15f, 0.15f)};
    const KeyType low(static_cast<int>(std::floor(-500.0f / kDimension)), -1, -1);
    Vec3 point = untouched;
    // No block at all: the first key of the range is missing.
    EXPECT_EQ(checkCollision(grid, huge, point, kThreshold), UNKNOWN);
    expectNear(point, Vec3(std::floor(0.5f - 500.0f / kSpacing) * kSpacing, 0.0f, 0.0f));

    // With the first key present, the first missing key is the next one along x.
    addFreeBlock(grid, low);
    EXPECT_EQ(checkCollision(grid, huge, point, kThreshold), UNKNOWN);
    EXPECT_NEAR(point(0), kDimension * (low(0) + 1), 1e-3f);

    // An occupied sample far along the range is found.
    setSample(grid, KeyType(3000, 0, 0), Index3(2, 3, 4), kSolid, kObserved);
    EXPECT_EQ(checkCollision(grid, huge, point, kThreshold), COLLISION);
    expectNear(point, worldLatticePoint(KeyType(3000, 0, 0), Index3(2, 3, 4)));
    const float inf = std::numeric_limits<float>::infinity();
    const Box everything{Vec3(-inf, -inf, -inf), Vec3(inf, inf, inf)};
    EXPECT_EQ(checkCollision(grid, everything, point, kThreshold), COLLISION);
    expectNear(point, worldLatticePoint(KeyType(3000, 0, 0), Index3(2, 3, 4)));

    // The box clearance over the huge range finds it too.
    const Box farBox{Vec3(-1.0f, 0.0f, 0.0f), Vec3(-0.5f, 0.1f, 0.1f)};
    const std::pair<float, Vec3> found = clearanceDistance(grid, farBox, 1e6f, kThreshold);
    EXPECT_NEAR(found.first, kDimension * 3000 + 2 * kSpacing + 0.5f, 1e-2f);
}

}  // namespace
}  // namespace Solid
