// The portable depth-fusion kernel and its entry: the reciprocal table, hand-checked updates of
// single samples, the bounds test, the untouched upper faces, the stride defaults, the fallback
// of the dispatcher, and a voxel-by-voxel recomputation of the update rule on random inputs
// (which also covers the skipped voxels: holes, and samples more than a ramp behind).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "vision/DepthFusion.h"
#include "vision/FusionInputs.h"

namespace {

constexpr unsigned kSamplesPerBlock = 729;
constexpr float kRadialConstant = 1.0028380155563354f;  // the correction factor on the axis

// A block collapsed to one camera-space point: every step is zero, so all 512 fused voxels see
// the same pixel and the same signed distance, and each gets the same update.
struct PointScene {
    static constexpr unsigned kWidth = 16;
    static constexpr unsigned kHeight = 12;
    static constexpr float kFocal = 100.0f;
    static constexpr float kDepth = 1.0f;  // metres, the point's camera z
    static constexpr float kRamp = 0.1f;

    TvrBlockRecord block{};
    std::vector<float> depth = std::vector<float>(kWidth * kHeight, 0.0f);
    std::vector<short> volume = std::vector<short>(2 * kSamplesPerBlock, 0);
    TvrIntrinsics intrinsics = tvrMakeIntrinsics(kFocal, kFocal, 0.0f, 0.0f);

    // Puts the point on pixel (u, v), camera z kDepth.
    explicit PointScene(unsigned u, unsigned v, uint32_t clip) {
        block.clip = clip;
        block.ramp = kRamp;
        block.origin[0] = static_cast<float>(u) / kFocal * kDepth;
        block.origin[1] = static_cast<float>(v) / kFocal * kDepth;
        block.origin[2] = kDepth;
    }

    // Depth at which the increment t * 32766 of a point on the optical axis is `scaled`: there the
    // signed distance is (d - z) / ramp times the radial constant.
    static float depthForScaledIncrement(float scaled) {
        return kDepth + scaled / 32766.0f * kRamp / kRadialConstant;
    }

    void fill(short value, short weight) {
        for (unsigned s = 0; s < kSamplesPerBlock; ++s) {
            volume[2 * s] = value;
            volume[2 * s + 1] = weight;
        }
    }

    void fuse(int maxWeight) {
        ASSERT_EQ(tvrDepthFusion8x8x8xNs16Portable(&block, volume.data(), 1, kTvrBlockBytes,
                                                   depth.data(), kWidth, kHeight, kWidth * 4,
                                                   intrinsics.values, maxWeight),
                  kTvrSuccess);
    }

    // Expects (value, weight) on every fused voxel and (oldValue, oldWeight) on the upper faces.
    void expectSamples(short value, short weight, short oldValue, short oldWeight) const {
        for (unsigned z = 0; z <= kTvrCubeCells; ++z) {
            for (unsigned y = 0; y <= kTvrCubeCells; ++y) {
                for (unsigned x = 0; x <= kTvrCubeCells; ++x) {
                    const bool fused = x < kTvrCubeCells && y < kTvrCubeCells && z < kTvrCubeCells;
                    const size_t at = (kTvrPlaneBytes * z + kTvrRowBytes * y + 4 * x) / 2;
                    ASSERT_EQ(volume[at], fused ? value : oldValue) << x << " " << y << " " << z;
                    ASSERT_EQ(volume[at + 1], fused ? weight : oldWeight)
                        << x << " " << y << " " << z;
                }
            }
        }
    }
};

TEST(TvrDivisionTable, ReciprocalsWithTheGapAndTheZeroTail) {
    for (unsigned w = 0; w < 100; ++w) {
        EXPECT_EQ(kTvrDivisionTable.entries[w], static_cast<int32_t>(65536.0 / (w + 1))) << w;
    }
    const int32_t gap[] = {541, 537, 532, 528, 524, 520, 516};
    for (unsigned w = 100; w < 107; ++w) {
        EXPECT_EQ(kTvrDivisionTable.entries[w], gap[w - 100]) << w;
    }
    for (unsigned w = 107; w < kTvrDivisionTableSize; ++w) {
        EXPECT_EQ(kTvrDivisionTable.entries[w], 0) << w;
    }
}

TEST(TvrDepthFusionPortable, HandCheckedUpdatesOfOneSample) {
    const float farDepth = PointScene::kDepth + 10 * PointScene::kRamp;
    struct Case {
        const char* what;
        short value, weight;
        float depth;
        int maxWeight;
        short newValue, newWeight;
    };
    const Case cases[] = {
        // First observation: acc = -3, (-3 * 65536) >> 16 = -3, whatever value was stored.
        {"negative first increment", 12345, 0, PointScene::depthForScaledIncrement(-3.5f), 30, -3,
         1},
        // Saturated: acc = 30 * 0 + 32766, (32766 * 2114) >> 16 = 1056 = floor(32766 / 31); the
        // weight stays at the limit.
        {"weight at the limit", 0, 30, farDepth, 30, 1056, 30},
        // acc = 3 * -1 + 0 = -3, (-3 * 16384) >> 16 = -1: the shift floors, -3 / 4 would give 0.
        {"negative accumulation floors", -1, 3, PointScene::depthForScaledIncrement(0.5f), 30, -1,
         4},
        // A weight above the limit stays: acc = 50 * 100 + 32766, table[50] = 1285:
        // (37766 * 1285) >> 16 = 740.
        {"weight above the limit", 100, 50, farDepth, 30, 740, 50},
        // No clamp: acc = 1 * -32768 - 32765 = -65533, (-65533 * 32768) >> 16 = -32767.
        {"no clamp of the new value", -32768, 1, PointScene::depthForScaledIncrement(-32765.5f), 30,
         -32767, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // On the optical axis, pixel (0, 0), so the radial correction is the constant alone.
        PointScene scene(0, 0, kTvrClipBit);
        scene.fill(c.value, c.weight);
        std::fill(scene.depth.begin(), scene.depth.end(), c.depth);
        scene.fuse(c.maxWeight);
        scene.expectSamples(c.newValue, c.newWeight, c.value, c.weight);
    }
}

TEST(TvrDepthFusionPortable, BoundsTestOnlyWithTheClipBit) {
    // The point projects to pixel (width, 0): one past the end of row 0, which is the first pixel
    // of row 1 in memory. Only that pixel has a measurement.
    for (const uint32_t clip : {0u, kTvrClipBit}) {
        SCOPED_TRACE(clip);
        PointScene scene(PointScene::kWidth, 0, clip);
        scene.fill(0, 0);
        scene.depth[PointScene::kWidth] = PointScene::kDepth + 10 * PointScene::kRamp;
        scene.fuse(30);
        if (clip) {
            scene.expectSamples(0, 0, 0, 0);
        } else {
            scene.expectSamples(32766, 1, 0, 0);
        }
    }
    // Inside the image both read the same pixel.
    for (const uint32_t clip : {0u, kTvrClipBit}) {
        PointScene scene(5, 7, clip);
        scene.fill(0, 0);
        scene.depth[7 * PointScene::kWidth + 5] = PointScene::kDepth + 10 * PointScene::kRamp;
        scene.fuse(30);
        scene.expectSamples(32766, 1, 0, 0);
    }
}

TEST(TvrDepthFusionEntry, ZeroStridesTakeTheirDefaults) {
    const float farDepth = PointScene::kDepth + 10 * PointScene::kRamp;
    // Depth stride 0 is width * 2 bytes: row 1 starts width / 2 floats in.
    {
        PointScene scene(0, 1, kTvrClipBit);
        scene.depth[PointScene::kWidth / 2] = farDepth;
        ASSERT_EQ(tvrDepthFusion8x8x8xNs16(&scene.block, scene.volume.data(), 1, kTvrBlockBytes,
                                           scene.depth.data(), PointScene::kWidth,
                                           PointScene::kHeight, 0, scene.intrinsics.values, 30),
                  kTvrSuccess);
        scene.expectSamples(32766, 1, 0, 0);
    }
    // Volume stride 0 is 2048 bytes: block 1 starts 1024 shorts in, overlapping block 0.
    PointScene scene(2, 2, kTvrClipBit);
    std::fill(scene.depth.begin(), scene.depth.end(), farDepth);
    TvrBlockRecord blocks[2] = {scene.block, scene.block};
    blocks[1].volumeIndex = 1;
    std::vector<short> volumes(kTvrDefaultVolumeStride / 2 + 2 * kSamplesPerBlock, 0);
    ASSERT_EQ(tvrDepthFusion8x8x8xNs16(blocks, volumes.data(), 2, 0, scene.depth.data(),
                                       PointScene::kWidth, PointScene::kHeight,
                                       PointScene::kWidth * 4, scene.intrinsics.values, 30),
              kTvrSuccess);
    // Short 1024 is voxel (0, 0, 0) of block 1 (with 2916 it would be an unfused x = 8 voxel of
    // block 0). Voxel (0, 0, 7) of block 0, short 1134, is voxel (1, 6, 0) of block 1: fused twice.
    EXPECT_EQ(volumes[kTvrDefaultVolumeStride / 2], 32766);
    EXPECT_EQ(volumes[kTvrDefaultVolumeStride / 2 + 1], 1);
    const size_t block0Voxel007 = kTvrPlaneBytes * 7 / 2;
    EXPECT_EQ(volumes[block0Voxel007], 32766);
    EXPECT_EQ(volumes[block0Voxel007 + 1], 2) << "fused by both blocks";
    EXPECT_EQ(volumes[0], 32766);
    EXPECT_EQ(volumes[1], 1);
}

TEST(TvrDepthFusionEntry, ModesAndFallbackToPortable) {
    const TvrMode initial = tvrGetMode();
    EXPECT_TRUE(tvrModeSupported(initial));
    EXPECT_TRUE(tvrModeSupported(kTvrModePortable));
#if defined(__x86_64__)
    EXPECT_FALSE(tvrSetMode(kTvrModeNeon));
    EXPECT_EQ(tvrGetMode(), initial);
#endif
    // The reserved slot has no implementation: the entry must fall back to the portable kernel.
    ASSERT_TRUE(tvrSetMode(kTvrModeReserved));
    const VisionTest::Comparison fallback =
        VisionTest::compareWithPortable(tvrDepthFusion8x8x8xNs16, 11, 40);
    ASSERT_TRUE(tvrSetMode(initial));
    EXPECT_EQ(fallback.failed, 0u) << fallback.firstFailure;
    EXPECT_GT(fallback.changedSamples, 0u);
}

// The update rule written voxel by voxel, without the streaming of the kernel: each position is
// summed from the origin, each inverse depth interpolated from the nodes afresh, pixel bounds
// tested on the float coordinate, and the average floored by a division.
std::vector<short> fuseVoxelByVoxel(const VisionTest::FusionCase& c) {
    std::vector<short> volumes = c.volumes;
    const float* k = c.intrinsics.values;
    const size_t rowFloats = c.depthStrideBytes / 4;
    for (const TvrBlockRecord& b : c.blocks) {
        short* samples = volumes.data() + c.volumeStrideBytes / 2 * b.volumeIndex;
        auto node = [&](unsigned i, unsigned j, unsigned kk) {
            return 1.0f / (b.origin[2] + static_cast<float>(4 * i) * b.xStep[2] +
                           static_cast<float>(4 * j) * b.yStep[2] +
                           static_cast<float>(4 * kk) * b.zStep[2]);
        };
        auto along = [](unsigned index, auto valueAtNode) {
            const unsigned lower = index / 4;
            if (index % 4 == 0) {
                return valueAtNode(lower);
            }
            const float t = static_cast<float>(index % 4) * 0.25f;
            return t * valueAtNode(lower + 1) + (1.0f - t) * valueAtNode(lower);
        };
        for (unsigned z = 0; z < 8; ++z) {
            for (unsigned y = 0; y < 8; ++y) {
                for (unsigned x = 0; x < 8; ++x) {
                    float p[3] = {b.origin[0], b.origin[1], b.origin[2]};
                    for (unsigned axis = 0; axis < 3; ++axis) {
                        for (unsigned n = 0; n < z; ++n)
                            p[axis] += b.zStep[axis];
                        for (unsigned n = 0; n < y; ++n)
                            p[axis] += b.yStep[axis];
                        for (unsigned n = 0; n < x; ++n)
                            p[axis] += b.xStep[axis];
                    }
                    auto rowNode = [&](unsigned i) {
                        return along(y, [&](unsigned j) {
                            return along(z, [&](unsigned kk) { return node(i, j, kk); });
                        });
                    };
                    const float a = rowNode(x / 4);
                    const float s = (rowNode(x / 4 + 1) - a) * 0.25f;
                    float iz = a;
                    for (unsigned n = 0; n < x % 4; ++n)
                        iz += s;

                    const float xn = iz * p[0];
                    const float yn = iz * p[1];
                    const float fu = k[kTvrCxHalf] + k[kTvrFx] * xn;
                    const float fv = k[kTvrCyHalf] + k[kTvrFy] * yn;
                    if ((b.clip & kTvrClipBit) &&
                        !(fu > -1.0f && fu < static_cast<float>(c.width) && fv > -1.0f &&
                          fv < static_cast<float>(c.height))) {
                        continue;
                    }
                    const float d =
                        c.depth[static_cast<size_t>(fv) * rowFloats + static_cast<size_t>(fu)];
                    if (d == 0.0f)
                        continue;
                    const float sdf =
                        1.0f / b.ramp *
                        (kRadialConstant + 0.4494898021221161f * (xn * xn + yn * yn)) * (d - p[2]);
                    if (!(sdf > -1.0f))
                        continue;
                    short* sample = samples + (324 * z + 36 * y + 4 * x) / 2;
                    const int increment = static_cast<int>(std::min(sdf, 1.0f) * 32766.0f);
                    const int weight = sample[1];
                    const int acc = weight * sample[0] + increment;
                    const unsigned short index = static_cast<unsigned short>(weight);
                    const int entry = index < 128 ? kTvrDivisionTable.entries[index] : 0;
                    sample[0] = static_cast<short>(std::floor(double(acc) * entry / 65536.0));
                    if (weight < c.maxWeight)
                        sample[1] = static_cast<short>(weight + 1);
                }
            }
        }
    }
    return volumes;
}

TEST(TvrDepthFusionPortable, MatchesVoxelByVoxelRecomputation) {
    VisionTest::FusionCaseGenerator generator(20261122);
    unsigned long long changed = 0;
    for (unsigned i = 0; i < 300; ++i) {
        const VisionTest::FusionCase c = generator.next();
        std::vector<short> kernel;
        ASSERT_EQ(VisionTest::runCase(tvrDepthFusion8x8x8xNs16Portable, c, kernel), kTvrSuccess);
        const std::vector<short> expected = fuseVoxelByVoxel(c);
        ASSERT_EQ(kernel, expected) << "case " << i;
        for (size_t s = 0; s < kernel.size(); ++s)
            changed += kernel[s] != c.volumes[s];
    }
    EXPECT_GT(generator.clippedBlocks(), 50u);
    EXPECT_GT(generator.unclippedBlocks(), 20u);
    EXPECT_GT(changed, 10000u);
}

}  // namespace
