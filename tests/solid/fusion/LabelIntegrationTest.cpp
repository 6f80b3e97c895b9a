// Split-mode label fusion: votes against a depth image (strict band in metres) and against the
// depth grid (strict band in units of the truncation), and what never votes.
#include <gtest/gtest.h>

#include <vector>

#include "solid/fusion/LabelIntegration.h"
#include "support/TestBlock.h"

namespace Solid {
namespace {

using Test::TestBlock;
using Test::translation;

constexpr int kWidth = 64;
constexpr int kHeight = 64;

struct LabelScene {
    explicit LabelScene(float depth, unsigned char label)
        : depthPixels(kWidth * kHeight, depth), labelPixels(kWidth * kHeight, label) {
        const AR::CV::Size2i size(kWidth, kHeight);
        depthFrame.depth.set(depthPixels.data(), size, size, false);
        labelFrame.labels.set(labelPixels.data(), size, size, false);
        for (Matrix4* m : {&depthFrame.projection, &labelFrame.projection}) {
            (*m)(0, 0) = 100.0f;
            (*m)(1, 1) = 100.0f;
            (*m)(0, 2) = 31.5f;
            (*m)(1, 2) = 31.5f;
        }
    }
    std::vector<float> depthPixels;
    std::vector<unsigned char> labelPixels;
    DepthFrame depthFrame;
    LabelFrame labelFrame;
};

int votesOnAxis(const TestBlock<LabelVolumeSample>& block, unsigned char label, int z) {
    return block.volume.at(0, 0, z).labels[label];
}

TEST(LabelIntegration, DepthMapBandIsStrictAndInMetres) {
    LabelScene scene(1.0f, 6);
    scene.labelFrame.pose = translation(0.0f, 0.0f, 1.0f);  // lattice (0,0,z) on the axis
    TestBlock<LabelVolumeSample> block;
    IntegrateVolumeStats stats;
    // 2 cm band: z = 0 sits on the surface; z = 1 is 2 cm (times c0 > 1) away and does not vote.
    integrateLabelsWithDepthMap(block.volume, scene.labelFrame, scene.depthFrame, 0.1f, 1, 0.02f,
                                Vec3(0, 0, 0), &stats);
    EXPECT_EQ(votesOnAxis(block, 6, 0), 1);
    EXPECT_EQ(votesOnAxis(block, 6, 1), 0);
    EXPECT_GT(stats.votes, 0u);
    // Band 0: sqrt(3) times the spacing, 3.46 cm: z = 1 votes now, z = 2 (4 cm) not.
    TestBlock<LabelVolumeSample> wide;
    integrateLabelsWithDepthMap(wide.volume, scene.labelFrame, scene.depthFrame, 0.1f, 1, 0.0f,
                                Vec3(0, 0, 0), nullptr);
    EXPECT_EQ(votesOnAxis(wide, 6, 1), 1);
    EXPECT_EQ(votesOnAxis(wide, 6, 2), 0);
    // The border planes are never visited.
    EXPECT_EQ(wide.volume.at(8, 0, 0).labels[6], 0);

    // A hole in the depth image means no vote, however near the sample is.
    LabelScene holes(0.0f, 6);
    holes.labelFrame.pose = translation(0.0f, 0.0f, 1.0f);
    TestBlock<LabelVolumeSample> none;
    integrateLabelsWithDepthMap(none.volume, holes.labelFrame, holes.depthFrame, 0.1f, 1, 0.02f,
                                Vec3(0, 0, 0), nullptr);
    // And a block behind the camera gets nothing.
    scene.labelFrame.pose = translation(0.0f, 0.0f, -1.0f);
    integrateLabelsWithDepthMap(none.volume, scene.labelFrame, scene.depthFrame, 0.1f, 1, 0.02f,
                                Vec3(0, 0, 0), nullptr);
    for (const LabelVolumeSample& s : none.samples) {
        ASSERT_EQ(s.labels[6], 0);
    }
}

TEST(LabelIntegration, DepthGridBandAndTheGridLevelLoop) {
    DepthGrid depthGrid;
    LabelGrid labelGrid;
    depthGrid.set(Size(9, 9, 9), Vec3(0.02f, 0.02f, 0.02f));
    labelGrid.set(Size(9, 9, 9), Vec3(0.02f, 0.02f, 0.02f));
    // Block (0, 0, 6) spans z = 0.96 .. 1.12 m. Lattice plane 2 (z = 1.0 m) holds the surface;
    // plane 1 lies just outside the 0.2 band (6554 / 32766 > 0.2), plane 3 just inside it.
    const KeyType key(0, 0, 6);
    depthGrid.ensure(key);
    labelGrid.ensure(key);
    {
        auto block = depthGrid.get(key);
        for (int z = 0; z < 9; ++z)
            for (int y = 0; y < 9; ++y)
                for (int x = 0; x < 9; ++x) {
                    const short value = z == 1   ? 6554
                                        : z == 2 ? 0
                                        : z == 3 ? -6553
                                        : z < 1  ? 20000
                                                 : -20000;
                    block->at(x, y, z) = Vec2S(value, short(y == 3 ? 0 : 1));
                }
    }
    LabelScene scene(0.0f, 4);
    scene.labelFrame.pose = Matrix4::identity();  // world = camera, looking along +z
    IndexSet blocks;
    blocks.insert(key);
    IntegrationStats stats;
    const DepthFrame noDepth;  // empty: the blocks read the depth grid
    // Band 0.02 m of a 0.1 m truncation: |value| < 0.2 votes.
    integrate(labelGrid, depthGrid, scene.labelFrame, blocks, ConstantErrorModel(0.1f), stats,
              0.02f, noDepth);
    EXPECT_EQ(stats.integratedBlocks, 1u);
    EXPECT_EQ(stats.totalBlocks, 1u);
    auto labels = labelGrid.get(key);
    int voted = 0;
    for (int z = 0; z < 8; ++z)
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x) {
                const int count = labels->at(x, y, z).labels[4];
                // Row y = 3 is unobserved (weight 0) and reads -2.0: no votes there; x, y are
                // in front of the camera only where they project into the 64x64 image.
                if ((z != 2 && z != 3) || y == 3) {
                    ASSERT_EQ(count, 0) << x << " " << y << " " << z;
                } else {
                    voted += count;
                }
            }
    EXPECT_GT(voted, 30);
}

TEST(LabelIntegrationDeathTest, EmptyLabelsOrMissingBlocksAbort) {
    LabelScene scene(1.0f, 1);
    TestBlock<LabelVolumeSample> block;
    LabelFrame empty;
    EXPECT_DEATH(integrateLabelsWithDepthMap(block.volume, empty, scene.depthFrame, 0.1f, 1, 0.02f,
                                             Vec3(0, 0, 0), nullptr),
                 "labels.numPixels");
    DepthGrid depthGrid;
    LabelGrid labelGrid;
    depthGrid.set(Size(9, 9, 9), Vec3(0.02f, 0.02f, 0.02f));
    labelGrid.set(Size(9, 9, 9), Vec3(0.02f, 0.02f, 0.02f));
    IndexSet blocks;
    blocks.insert(KeyType(1, 2, 3));
    IntegrationStats stats;
    EXPECT_DEATH(integrate(labelGrid, depthGrid, scene.labelFrame, blocks, ConstantErrorModel(0.1f),
                           stats, 0.02f, scene.depthFrame),
                 "block");
}

}  // namespace
}  // namespace Solid
