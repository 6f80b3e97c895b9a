// The kernel table of the grid driver: which kernel each Acceleration value runs on the depth
// grid and on the combined grid, the fallbacks for blocks that are not 9-cubes, the set-up of the
// fast kernels' tables, and the multi-threaded pass next to readers of the grid.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

#include "solid/fusion/GridIntegration.h"
#include "solid/fusion/IntegrationFast.h"
#include "support/RenderedBlocks.h"
#include "support/TestBlock.h"

namespace Solid {
namespace {

using Test::RenderedDepth;
using Test::TestBlock;
using Velmora::Test::AnalyticScene;

constexpr float kSpacing = 0.02f;
constexpr float kRamp = 0.1f;
constexpr float kMaxWeight = 30.0f;

struct Room {
    AnalyticScene scene = AnalyticScene::room(4.0, 3.0, 2.5);
    RenderedDepth view{scene, Test::roomCamera(96, 72, {2.4, 1.6, 1.3}, {4.0, 3.0, 0.6})};
    LabelDepthFrame labelled;
    Room() {
        static_cast<DepthFrame&>(labelled) = view.frame;
        const AR::CV::Size2i size(view.rendered.width, view.rendered.height);
        labelled.labels.set(view.rendered.labels.data(), size, size, false);
    }
};

// Fuses the room's frame into `grid` with the frame path's arguments and `acceleration`.
template <typename Grid, typename Frame>
IndexSet fuse(Grid& grid, const Frame& frame, Acceleration acceleration) {
    const ConstantErrorModel model(kRamp);
    IntegrationStats stats;
    return integrate(grid, frame, model, kMaxWeight, stats, acceleration, 1, 0.0f, 0.0f, nullptr, 1,
                     1, 1, static_cast<SaturationManager<float, Grid>*>(nullptr));
}

// Every block of `keys` in `grid` holds what `expected` makes of a fresh block, with the
// block-to-camera transform of the frame's `pose`.
template <typename Grid, typename Expected>
void expectBlocks(const Grid& grid, const Matrix4& pose, const IndexSet& keys,
                  const Expected& expected) {
    using Sample = typename Grid::SampleType;
    const VolumeConfig& config = grid.config();
    ASSERT_FALSE(keys.empty());
    for (const KeyType& key : keys) {
        std::vector<Sample> samples(config.numSamples, creationSample<Sample>());
        Volume<Sample, ReferencedVolumeData> fresh(samples.data(), &config);
        expected(fresh, blockToCamera(pose, grid.dimension(), key));
        auto block = grid.get(key);
        ASSERT_TRUE(block);
        ASSERT_EQ(0, std::memcmp(block->data(), samples.data(), config.numSamples * sizeof(Sample)))
            << "block " << key(0) << " " << key(1) << " " << key(2);
    }
}

using DepthKernel = std::function<void(IntegrationHelper::FastVolume&, const Matrix4&)>;

// 9-cube blocks run the kernel of each value; on 8-cube blocks the 9-cube kernels (3 to 6) give
// way to the reference, while 1 and 2 run anywhere.
TEST(GridAcceleration, DepthGridRunsTheKernelOfEachValue) {
    const Room room;
    const DepthFrame& frame = room.view.frame;
    const DepthKernel kernels[] = {
        [&](IntegrationHelper::FastVolume& v, const Matrix4& T) {
            integrate(v, frame, T, kRamp, kMaxWeight, 1);
        },
        [&](IntegrationHelper::FastVolume& v, const Matrix4& T) {
            integrateFast(v, frame, T, kRamp, kMaxWeight, 1);
        },
        [&](IntegrationHelper::FastVolume& v, const Matrix4& T) {
            integrateFastFixed(v, frame, T, kRamp, kMaxWeight, 1);
        },
        [&](IntegrationHelper::FastVolume& v, const Matrix4& T) {
            integrateFast8(v, frame, T, kRamp, kMaxWeight, 1);
        },
        [&](IntegrationHelper::FastVolume& v, const Matrix4& T) {
            integrateTavric(v, frame, T, kRamp, kMaxWeight, 1);
        },
        [&](IntegrationHelper::FastVolume& v, const Matrix4& T) {
            integrateFast8Weighted(v, frame, T, kRamp, 1.0f, kMaxWeight, 1);
        },
        [&](IntegrationHelper::FastVolume& v, const Matrix4& T) {
            integrateRef(v, frame, T, kRamp, kMaxWeight, 1);
        },
    };
    for (const int side : {9, 8}) {
        IndexSet referenceKeys;
        for (int value = kAccelerationReference; value <= kAccelerationMultiThreaded; ++value) {
            SCOPED_TRACE(testing::Message() << "side " << side << ", value " << value);
            DepthGrid grid;
            grid.set(Size(side, side, side), Vec3(kSpacing, kSpacing, kSpacing));
            const IndexSet keys = fuse(grid, frame, static_cast<Acceleration>(value));
            if (value == kAccelerationReference) {
                referenceKeys = keys;
                ASSERT_GT(keys.size(), 20u);
            }
            EXPECT_EQ(keys.size(), referenceKeys.size());
            const bool anyShape = value <= kAccelerationFastFixed;
            expectBlocks(grid, frame.pose, keys,
                         kernels[side == 9 || anyShape ? value : kAccelerationReference]);
        }
    }
}

TEST(GridAcceleration, CombinedGridTable) {
    const Room room;
    const LabelDepthFrame& frame = room.labelled;
    const DepthFrame& depthOnly = frame;
    using Block = Volume<LabelDepthVolumeSample, ReferencedVolumeData>;
    IndexSet referenceKeys;
    for (int value = kAccelerationReference; value <= kAccelerationMultiThreaded; ++value) {
        SCOPED_TRACE(value);
        LabelDepthGrid grid;
        grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
        const IndexSet keys = fuse(grid, frame, static_cast<Acceleration>(value));
        if (value == kAccelerationReference) {
            referenceKeys = keys;
        }
        // Value 5 fuses nothing, yet its blocks exist and are all returned.
        EXPECT_EQ(keys.size(), referenceKeys.size());
        expectBlocks(grid, frame.pose, keys, [&](Block& v, const Matrix4& T) {
            if (value == kAccelerationReference) {
                integrate(v, frame, T, kRamp, kMaxWeight, 1, 0.0f);
            } else if (value != kAccelerationFast8Weighted) {
                integrate(v, depthOnly, T, kRamp, kMaxWeight, 1);
            }
        });
    }
    // The reference row counts labels: some sample of the walls has a non-zero counter.
    LabelDepthGrid grid;
    grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
    fuse(grid, frame, kAccelerationReference);
    int counted = 0;
    grid.for_each([&](const KeyType&, const Block& block) {
        for (uint32_t i = 0; i < block.dataSize(); ++i) {
            for (unsigned char c : block.data()[i].labels) {
                counted += c;
            }
        }
    });
    EXPECT_GT(counted, 0);
}

TEST(GridAcceleration, EmptySelectionStillSetsUpTheFastTables) {
    const Room room;
    DepthGrid grid;
    grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
    const ConstantErrorModel model(kRamp);
    for (int value : {kAccelerationFast, kAccelerationFastFixed, kAccelerationFast8}) {
        ASSERT_TRUE(setupIntegrateFast(5));
        IntegrationStats stats;
        stats.integratedBlocks = 7;
        integrateBlocks(grid, room.view.frame, IndexSet(), model, kMaxWeight, stats,
                        static_cast<Acceleration>(value));
        EXPECT_EQ(stats.integratedBlocks, 0u);
        // The table is now the one of the cap 30: an update at that cap passes.
        Vec2S sample(short(0), short(29));
        updateFast(sample, 0.5f, 30);
        EXPECT_EQ(sample(1), 30);
    }
    EXPECT_EQ(grid.size(), 0u);
}

TEST(GridAccelerationDeathTest, FastTablesAreSetUpOnlyForTheirValuesAndMustSucceed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Room room;
    DepthGrid grid;
    grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
    const ConstantErrorModel model(kRamp);
    IntegrationStats stats;
    ASSERT_TRUE(setupIntegrateFast(5));
    integrateBlocks(grid, room.view.frame, IndexSet(), model, kMaxWeight, stats,
                    kAccelerationTavric);
    Vec2S sample(short(0), short(3));
    EXPECT_DEATH(updateFast(sample, 0.5f, 30), "gInitializedLUTMaxWeight");
    EXPECT_DEATH(
        integrateBlocks(grid, room.view.frame, IndexSet(), model, 64.0f, stats, kAccelerationFast),
        "setUp");
}

// The reader copies one block of the view under its lock while the pool fuses three frames: each
// copy must be one of the states the block goes through when the frames are fused on one thread
// (inner samples; the border plane is the neighbours' copy), in order. A sample written outside
// the block's lock, or a block published before its creation values, shows up as a copy of no
// state.
TEST(GridAccelerationConcurrency, ReaderSeesOnlyWholeFrameStatesOfABlock) {
    const Room room;
    const DepthFrame& frame = room.view.frame;
    const Size size(9, 9, 9);
    auto inner = [](const DepthVolume& block) {
        std::vector<Vec2S> samples;
        for (int z = 0; z < 8; ++z)
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x)
                    samples.push_back(block.at(x, y, z));
        return samples;
    };
    DepthGrid serial;
    serial.set(size, Vec3(kSpacing, kSpacing, kSpacing));
    const KeyType key = *fuse(serial, frame, kAccelerationMultiThreaded).begin();
    std::vector<std::vector<Vec2S>> states = {std::vector<Vec2S>(512, creationSample<Vec2S>()),
                                              inner(*serial.get(key))};
    for (int f = 0; f < 2; ++f) {
        fuse(serial, frame, kAccelerationMultiThreaded);
        states.push_back(inner(*serial.get(key)));
    }

    DepthGrid pooled;
    pooled.set(size, Vec3(kSpacing, kSpacing, kSpacing));
    std::atomic<bool> stop{false};
    std::atomic<bool> started{false};
    int copies = 0;
    int torn = 0;
    std::thread reader([&] {
        size_t reached = 0;
        do {
            if (auto block = pooled.get(key)) {
                const std::vector<Vec2S> seen = inner(*block);
                size_t k = reached;
                while (k < states.size() && seen != states[k])
                    ++k;
                torn += k == states.size();
                reached = k == states.size() ? reached : k;
                ++copies;
            }
            started = true;
        } while (!stop.load());
    });
    while (!started.load()) {
        std::this_thread::yield();
    }
    for (int frameIndex = 0; frameIndex < 3; ++frameIndex) {
        fuse(pooled, frame, kAccelerationMultiThreaded);
    }
    stop = true;
    reader.join();
    EXPECT_EQ(torn, 0) << copies;
    EXPECT_EQ(inner(*pooled.get(key)), states.back());
}

}  // namespace
}  // namespace Solid
