// The depth-fusion kernel: reciprocal table, stride defaults of the entry, a voxel-by-voxel
// recomputation on random inputs, and the vector variants against the portable one (the entry's
// fallback to the portable kernel runs every kernel test of the build without AVX2).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "vision/DepthFusion.h"
#include "vision/FusionInputs.h"

namespace {

constexpr float kRadialConstant = 1.0028380155563354f;  // the correction factor on the axis

TEST(TvrDivisionTable, ReciprocalsWithTheGapAndTheZeroTail) {
    const int32_t gap[] = {541, 537, 532, 528, 524, 520, 516};
    for (unsigned w = 0; w < kTvrDivisionTableSize; ++w)
        EXPECT_EQ(kTvrDivisionTable.entries[w], w < 100   ? static_cast<int32_t>(65536.0 / (w + 1))
                                                : w < 107 ? gap[w - 100]
                                                          : 0)
            << w;
}

TEST(TvrDepthFusionEntry, ZeroStridesTakeTheirDefaults) {
    // A block collapsed to one camera-space point 1 m in front of pixel (u, v) of a 16x12 image
    // with f = 100: all its fused voxels see the same pixel, whose depth lies far behind.
    constexpr unsigned kWidth = 16, kHeight = 12;
    const TvrIntrinsics intrinsics = tvrMakeIntrinsics(100.0f, 100.0f, 0.0f, 0.0f);
    const auto point = [](float u, float v) {
        TvrBlockRecord block{};
        block.clip = kTvrClipBit;
        block.ramp = 0.1f;
        block.origin[0] = u / 100.0f;
        block.origin[1] = v / 100.0f;
        block.origin[2] = 1.0f;
        return block;
    };
    // Depth stride 0 is width * 2 bytes: row 1 starts width / 2 floats in.
    std::vector<float> depth(kWidth * kHeight, 0.0f);
    depth[kWidth / 2] = 2.0f;
    const TvrBlockRecord onRow1 = point(0, 1);
    std::vector<short> volume(2 * 729, 0);
    ASSERT_EQ(tvrDepthFusion8x8x8xNs16(&onRow1, volume.data(), 1, kTvrBlockBytes, depth.data(),
                                       kWidth, kHeight, 0, intrinsics.values, 30),
              kTvrSuccess);
    for (unsigned i = 0; i < 729; ++i) {
        const bool fused = i % 9 < 8 && i / 9 % 9 < 8 && i / 81 < 8;
        ASSERT_EQ(volume[2 * i], fused ? 32766 : 0) << i;
        ASSERT_EQ(volume[2 * i + 1], fused ? 1 : 0) << i;
    }
    // Volume stride 0 is 2048 bytes: block 1 starts 1024 shorts in, overlapping block 0.
    std::fill(depth.begin(), depth.end(), 2.0f);
    TvrBlockRecord blocks[2] = {point(2, 2), point(2, 2)};
    blocks[1].volumeIndex = 1;
    std::vector<short> volumes(kTvrDefaultVolumeStride / 2 + 2 * 729, 0);
    ASSERT_EQ(tvrDepthFusion8x8x8xNs16(blocks, volumes.data(), 2, 0, depth.data(), kWidth, kHeight,
                                       kWidth * 4, intrinsics.values, 30),
              kTvrSuccess);
    // Short 1024 is voxel (0, 0, 0) of block 1 (with 2916 it would be an unfused x = 8 voxel of
    // block 0). Voxel (0, 0, 7) of block 0, short 1134, is voxel (1, 6, 0) of block 1: fused twice.
    EXPECT_EQ(volumes[kTvrDefaultVolumeStride / 2], 32766);
    EXPECT_EQ(volumes[kTvrDefaultVolumeStride / 2 + 1], 1);
    EXPECT_EQ(volumes[kTvrPlaneBytes * 7 / 2], 32766);
    EXPECT_EQ(volumes[kTvrPlaneBytes * 7 / 2 + 1], 2) << "fused by both blocks";
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
            const float t = static_cast<float>(index % 4) * 0.25f;
            return index % 4 == 0
                       ? valueAtNode(index / 4)
                       : t * valueAtNode(index / 4 + 1) + (1.0f - t) * valueAtNode(index / 4);
        };
        for (unsigned z = 0; z < 8; ++z) {
            for (unsigned y = 0; y < 8; ++y) {
                for (unsigned x = 0; x < 8; ++x) {
                    float p[3] = {b.origin[0], b.origin[1], b.origin[2]};
                    for (unsigned axis = 0; axis < 3; ++axis)
                        for (unsigned n = 0; n < x + y + z; ++n)
                            p[axis] += n < z       ? b.zStep[axis]
                                       : n < z + y ? b.yStep[axis]
                                                   : b.xStep[axis];
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
    EXPECT_GT(generator.clipped, 50u);
    EXPECT_GT(generator.unclipped, 20u);
    EXPECT_GT(changed, 10000u);
}

constexpr unsigned kRandomCases = 2000;

void expectIdenticalToPortable(VisionTest::FusionFunction variant, uint32_t seed) {
    const VisionTest::Comparison result =
        VisionTest::compareWithPortable(variant, seed, kRandomCases);
    EXPECT_EQ(result.failed, 0u) << result.firstFailure;
    EXPECT_EQ(result.passed, kRandomCases);
    // The inputs must reach every path: bounds-tested and unchecked blocks, and many updates.
    EXPECT_GT(result.clippedBlocks, kRandomCases / 2);
    EXPECT_GT(result.unclippedBlocks, kRandomCases / 20);
    EXPECT_GT(result.changedSamples, 100ull * kRandomCases);
}

#if defined(__x86_64__)
TEST(TvrDepthFusionAvx2, IdenticalToPortable) {
    if (!tvrModeSupported(kTvrModeAvx2)) {
        GTEST_SKIP() << "the processor has no AVX2";
    }
    expectIdenticalToPortable(tvrDepthFusion8x8x8xNs16Avx2, 7);
    // Through the entry, in the mode picked for this processor.
    EXPECT_EQ(tvrGetMode(), kTvrModeAvx2);
    expectIdenticalToPortable(tvrDepthFusion8x8x8xNs16, 8);
}
#endif

#if defined(__aarch64__)
TEST(TvrDepthFusionNeon, IdenticalToPortable) {
    expectIdenticalToPortable(tvrDepthFusion8x8x8xNs16Neon, 7);
    EXPECT_EQ(tvrGetMode(), kTvrModeNeon);
    expectIdenticalToPortable(tvrDepthFusion8x8x8xNs16, 8);
}
#endif

}  // namespace
