// The vector variants against the portable kernel, bit for bit, on random blocks, poses, depth
// images and samples, with and without bounds tests, near the image border and near the camera.
#include <gtest/gtest.h>

#include "vision/DepthFusion.h"
#include "vision/FusionInputs.h"

namespace {

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
