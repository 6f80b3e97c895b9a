// Random inputs for the depth-fusion kernel, and the comparison of a variant with the portable
// kernel on them. Plain C++ without GoogleTest, so that the cross-built driver can share it.
//
// A case is a run of one to three blocks, posed at random (any rotation, cells of 5 to 60 mm),
// centred on a random pixel in or around the image at a random distance, some of them near or
// across the camera plane, a few with a lattice point on it; the depth image scatters depths around
// the blocks with holes, NaN, infinities and negative values; the samples hold random values and
// weights, weights also above the limit, in 100..127 and over the whole int16 range. Blocks whose
// every lattice point projects well inside the image, far enough from the camera, may be fused
// without bounds tests; all others have the clip bit set, as have all blocks of the few cases with
// a NaN or infinite intrinsic.
#ifndef VELMORA_TESTS_VISION_FUSIONINPUTS_H
#define VELMORA_TESTS_VISION_FUSIONINPUTS_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "vision/DepthFusion.h"

namespace VisionTest {

struct FusionCase {
    std::vector<TvrBlockRecord> blocks;
    std::vector<short> volumes;
    unsigned volumeStrideBytes = kTvrBlockBytes;
    std::vector<float> depth;
    unsigned width = 0;
    unsigned height = 0;
    unsigned depthStrideBytes = 0;
    TvrIntrinsics intrinsics{};
    int maxWeight = 0;
};

using FusionFunction = int (*)(const TvrBlockRecord*, short*, unsigned, unsigned, const float*,
                               unsigned, unsigned, unsigned, const float*, int);

inline int runCase(FusionFunction function, const FusionCase& c, std::vector<short>& volumes) {
    volumes = c.volumes;
    return function(c.blocks.data(), volumes.data(), static_cast<unsigned>(c.blocks.size()),
                    c.volumeStrideBytes, c.depth.data(), c.width, c.height, c.depthStrideBytes,
                    c.intrinsics.values, c.maxWeight);
}

class FusionCaseGenerator {
public:
    explicit FusionCaseGenerator(uint32_t seed) : mRng(seed) {}

    FusionCase next() {
        FusionCase c;
        c.width = uniformInt(24, 160);
        c.height = uniformInt(16, 120);
        const unsigned strideChoice = uniformInt(0, 2);
        c.depthStrideBytes = strideChoice == 0   ? c.width * 4
                             : strideChoice == 1 ? (c.width + uniformInt(1, 9)) * 4
                                                 : c.width * kTvrDefaultDepthStrideBytesPerPixel;
        const float fx = static_cast<float>(c.width) * uniform(0.6f, 1.4f);
        const float fy = fx * uniform(0.95f, 1.05f);
        const float cx = static_cast<float>(c.width) * uniform(0.4f, 0.6f);
        const float cy = static_cast<float>(c.height) * uniform(0.4f, 0.6f);
        c.intrinsics = tvrMakeIntrinsics(fx, fy, cx, cy);
        mBrokenIntrinsics = chance(0.03);
        if (mBrokenIntrinsics) {
            // Pixel coordinates become NaN or infinite; only the bounds test keeps the reads valid.
            const float broken[] = {std::nanf(""), INFINITY, -INFINITY};
            c.intrinsics.values[uniformInt(0, kTvrIntrinsicCount - 1)] = broken[uniformInt(0, 2)];
        }
        c.maxWeight = chance(0.5) ? 30 : static_cast<int>(uniformInt(1, 127));

        const unsigned numBlocks = uniformInt(1, 3);
        const unsigned strideKind = uniformInt(0, 2);
        c.volumeStrideBytes = strideKind == 0   ? kTvrBlockBytes
                              : strideKind == 1 ? kTvrDefaultVolumeStride
                                                : kTvrBlockBytes + 4 * uniformInt(1, 64);
        unsigned maxIndex = 0;
        float surface = 1.0f;
        for (unsigned b = 0; b < numBlocks; ++b) {
            c.blocks.push_back(makeBlock(c, fx, fy, cx, cy, surface));
            c.blocks.back().volumeIndex = uniformInt(0, numBlocks);
            maxIndex = std::max(maxIndex, c.blocks.back().volumeIndex);
        }
        const size_t volumeShorts =
            (static_cast<size_t>(c.volumeStrideBytes) * maxIndex + kTvrBlockBytes) / 2;
        c.volumes.resize(volumeShorts);
        for (size_t i = 0; i + 1 < volumeShorts; i += 2) {
            c.volumes[i] = static_cast<short>(uniformInt(0, 65534) - 32767);
            c.volumes[i + 1] = randomWeight(c.maxWeight);
        }

        const size_t rowFloats = c.depthStrideBytes / 4;
        c.depth.resize(rowFloats * (c.height - 1) + c.width);
        const float spread = c.blocks[0].ramp * 3.0f;
        // 8 % holes, 1 % each NaN, infinity and negative, the rest around the surface.
        for (float& d : c.depth) {
            const float kind = uniform(0.0f, 1.0f);
            d = kind < 0.08f   ? 0.0f
                : kind < 0.09f ? std::nanf("")
                : kind < 0.10f ? INFINITY
                : kind < 0.11f ? -uniform(0.0f, 1.0f)
                               : surface + uniform(-spread, spread);
        }
        return c;
    }

    unsigned clippedBlocks() const { return mClipped; }
    unsigned unclippedBlocks() const { return mUnclipped; }

private:
    TvrBlockRecord makeBlock(const FusionCase& c, float fx, float fy, float cx, float cy,
                             float& surface) {
        TvrBlockRecord block{};
        const float cell = uniform(0.005f, 0.06f);
        block.ramp = cell * uniform(0.5f, 5.0f);
        const float extent = cell * kTvrCubeCells;
        const bool nearCamera = chance(0.15);
        const float centreDepth = nearCamera ? uniform(0.02f, 2.0f * extent)
                                             : uniform(3.0f * extent, 4.0f + 3.0f * extent);
        const float u = uniform(-0.3f, 1.3f) * static_cast<float>(c.width);
        const float v = uniform(-0.3f, 1.3f) * static_cast<float>(c.height);
        const double centre[3] = {(u - cx) / fx * centreDepth, (v - cy) / fy * centreDepth,
                                  centreDepth};
        double rotation[3][3];
        randomRotation(rotation);
        const double half = 0.5 * kTvrCubeCells * cell;
        for (unsigned r = 0; r < 3; ++r) {
            block.xStep[r] = static_cast<float>(rotation[r][0] * cell);
            block.yStep[r] = static_cast<float>(rotation[r][1] * cell);
            block.zStep[r] = static_cast<float>(rotation[r][2] * cell);
            block.origin[r] = static_cast<float>(
                centre[r] - half * (rotation[r][0] + rotation[r][1] + rotation[r][2]));
        }
        if (nearCamera && chance(0.3)) {
            // An inverse-depth node exactly on the camera plane, on one of the three block axes:
            // an infinite node, and NaN wherever it is interpolated with weight 0.
            const float* axes[3] = {block.xStep, block.yStep, block.zStep};
            const float nodeIndex = static_cast<float>(kTvrCubeCells / 2 * uniformInt(0, 2));
            block.origin[2] = -(nodeIndex * axes[uniformInt(0, 2)][2]);
        }
        surface = centreDepth;
        const bool inside = projectsWellInside(block, c, fx, fy, cx, cy, extent);
        block.clip = (inside && !mBrokenIntrinsics && chance(0.6)) ? 0u : kTvrClipBit;
        (block.clip ? mClipped : mUnclipped) += 1;
        return block;
    }

    // True if all 729 lattice points project 8 pixels or more inside the image and lie at least
    // three cube extents in front of the camera, which bounds the error of the interpolated
    // inverse depth well below that margin.
    static bool projectsWellInside(const TvrBlockRecord& b, const FusionCase& c, float fx, float fy,
                                   float cx, float cy, float extent) {
        constexpr double kMarginPixels = 8.0;
        for (unsigned z = 0; z <= kTvrCubeCells; ++z) {
            for (unsigned y = 0; y <= kTvrCubeCells; ++y) {
                for (unsigned x = 0; x <= kTvrCubeCells; ++x) {
                    double p[3];
                    for (unsigned r = 0; r < 3; ++r) {
                        p[r] = b.origin[r] + double(x) * b.xStep[r] + double(y) * b.yStep[r] +
                               double(z) * b.zStep[r];
                    }
                    if (p[2] < 3.0 * extent) {
                        return false;
                    }
                    const double u = cx + fx * p[0] / p[2];
                    const double v = cy + fy * p[1] / p[2];
                    if (u < kMarginPixels || v < kMarginPixels || u > c.width - kMarginPixels ||
                        v > c.height - kMarginPixels) {
                        return false;
                    }
                }
            }
        }
        return true;
    }

    void randomRotation(double m[3][3]) {
        std::normal_distribution<double> normal;
        double q[4];
        double norm = 0.0;
        for (double& e : q) {
            e = normal(mRng);
            norm += e * e;
        }
        norm = std::sqrt(norm);
        const double w = q[0] / norm, x = q[1] / norm, y = q[2] / norm, z = q[3] / norm;
        const double r[3][3] = {
            {1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)},
            {2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)},
            {2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)}};
        std::memcpy(m, r, sizeof(r));
    }

    // Mostly up to the limit; else in the table's gap and zero tail, above the limit, or anything.
    short randomWeight(int maxWeight) {
        const float kind = uniform(0.0f, 1.0f);
        const unsigned limit = static_cast<unsigned>(maxWeight);
        return static_cast<short>(kind < 0.7f   ? uniformInt(0, limit)
                                  : kind < 0.8f ? uniformInt(100, 127)
                                  : kind < 0.9f ? uniformInt(limit, 127)
                                                : static_cast<int>(uniformInt(0, 65535)) - 32768);
    }

    float uniform(float low, float high) {
        return std::uniform_real_distribution<float>(low, high)(mRng);
    }
    unsigned uniformInt(unsigned low, unsigned high) {
        return std::uniform_int_distribution<unsigned>(low, high)(mRng);
    }
    bool chance(double p) { return std::bernoulli_distribution(p)(mRng); }

    std::mt19937 mRng;
    bool mBrokenIntrinsics = false;
    unsigned mClipped = 0;
    unsigned mUnclipped = 0;
};

struct Comparison {
    unsigned passed = 0;
    unsigned failed = 0;
    unsigned long long changedSamples = 0;  // samples the portable kernel changed, all cases
    unsigned clippedBlocks = 0;
    unsigned unclippedBlocks = 0;
    std::string firstFailure;
};

// Runs `cases` random cases through the portable kernel and `variant`, comparing the volumes
// byte for byte and the statuses.
inline Comparison compareWithPortable(FusionFunction variant, uint32_t seed, unsigned cases) {
    Comparison result;
    FusionCaseGenerator generator(seed);
    std::vector<short> expected;
    std::vector<short> actual;
    for (unsigned i = 0; i < cases; ++i) {
        const FusionCase c = generator.next();
        const int expectedStatus = runCase(tvrDepthFusion8x8x8xNs16Portable, c, expected);
        const int actualStatus = runCase(variant, c, actual);
        for (size_t s = 0; s < expected.size(); ++s) {
            result.changedSamples += expected[s] != c.volumes[s];
        }
        size_t mismatch = 0;
        while (mismatch < expected.size() && expected[mismatch] == actual[mismatch]) {
            ++mismatch;
        }
        if (expectedStatus == actualStatus && mismatch == expected.size()) {
            ++result.passed;
            continue;
        }
        ++result.failed;
        if (result.firstFailure.empty()) {
            result.firstFailure = "case " + std::to_string(i) + ": status " +
                                  std::to_string(expectedStatus) + " vs " +
                                  std::to_string(actualStatus) + ", first differing short " +
                                  std::to_string(mismatch);
        }
    }
    result.clippedBlocks = generator.clippedBlocks();
    result.unclippedBlocks = generator.unclippedBlocks();
    return result;
}

}  // namespace VisionTest

#endif  // VELMORA_TESTS_VISION_FUSIONINPUTS_H
