// Random inputs for the depth-fusion kernel (one to three rotated blocks, some across the camera
// plane; depths with holes and non-finite values; weights beyond the limit), and the comparison
// of a variant with the portable kernel. Plain C++: the cross-built driver shares it.
#ifndef VELMORA_TESTS_VISION_FUSIONINPUTS_H
#define VELMORA_TESTS_VISION_FUSIONINPUTS_H

#include <cmath>
#include <cstdint>
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
    unsigned width = 0, height = 0, depthStrideBytes = 0;
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
        const unsigned strides[] = {c.width * 4, (c.width + uniformInt(1, 9)) * 4,
                                    c.width * kTvrDefaultDepthStrideBytesPerPixel};
        c.depthStrideBytes = strides[uniformInt(0, 2)];
        const float fx = static_cast<float>(c.width) * uniform(0.6f, 1.4f);
        const float fy = fx * uniform(0.95f, 1.05f);
        const float cx = static_cast<float>(c.width) * uniform(0.4f, 0.6f);
        const float cy = static_cast<float>(c.height) * uniform(0.4f, 0.6f);
        c.intrinsics = tvrMakeIntrinsics(fx, fy, cx, cy);
        const bool broken = chance(0.03);
        if (broken) {
            // Pixel coordinates become NaN or infinite; only the bounds test keeps the reads valid.
            const float values[] = {std::nanf(""), INFINITY, -INFINITY};
            c.intrinsics.values[uniformInt(0, kTvrIntrinsicCount - 1)] = values[uniformInt(0, 2)];
        }
        c.maxWeight = chance(0.5) ? 30 : static_cast<int>(uniformInt(1, 127));
        const unsigned volumeStrides[] = {kTvrBlockBytes, kTvrDefaultVolumeStride,
                                          kTvrBlockBytes + 4 * uniformInt(1, 64)};
        c.volumeStrideBytes = volumeStrides[uniformInt(0, 2)];
        const unsigned numBlocks = uniformInt(1, 3);
        unsigned maxIndex = 0;
        float surface = 1.0f;
        for (unsigned b = 0; b < numBlocks; ++b) {
            c.blocks.push_back(makeBlock(c, fx, fy, cx, cy, broken, surface));
            c.blocks.back().volumeIndex = uniformInt(0, numBlocks);
            maxIndex = std::max(maxIndex, c.blocks.back().volumeIndex);
        }
        c.volumes.resize((size_t{c.volumeStrideBytes} * maxIndex + kTvrBlockBytes) / 2);
        for (size_t i = 0; i + 1 < c.volumes.size(); i += 2) {
            c.volumes[i] = static_cast<short>(uniformInt(0, 65534) - 32767);
            // Mostly up to the limit; else in the table's gap and zero tail, above it, or anything.
            const float kind = uniform(0.0f, 1.0f);
            const unsigned limit = static_cast<unsigned>(c.maxWeight);
            c.volumes[i + 1] =
                static_cast<short>(kind < 0.7f   ? uniformInt(0, limit)
                                   : kind < 0.8f ? uniformInt(100, 127)
                                   : kind < 0.9f ? uniformInt(limit, 127)
                                                 : static_cast<int>(uniformInt(0, 65535)) - 32768);
        }
        c.depth.resize(c.depthStrideBytes / 4 * (c.height - 1) + c.width);
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

    unsigned clipped = 0, unclipped = 0;

private:
    TvrBlockRecord makeBlock(const FusionCase& c, float fx, float fy, float cx, float cy,
                             bool broken, float& surface) {
        TvrBlockRecord block{};
        const float cell = uniform(0.005f, 0.06f);
        block.ramp = cell * uniform(0.5f, 5.0f);
        const float extent = cell * kTvrCubeCells;
        const bool nearCamera = chance(0.15);
        surface = nearCamera ? uniform(0.02f, 2.0f * extent)
                             : uniform(3.0f * extent, 4.0f + 3.0f * extent);
        const float u = uniform(-0.3f, 1.3f) * static_cast<float>(c.width);
        const float v = uniform(-0.3f, 1.3f) * static_cast<float>(c.height);
        const double centre[3] = {(u - cx) / fx * surface, (v - cy) / fy * surface, surface};
        // A random rotation from a normalised random quaternion.
        std::normal_distribution<double> normal;
        double q[4], n = 0.0;
        for (double& e : q) {
            e = normal(mRng);
            n += e * e;
        }
        n = std::sqrt(n);
        const double w = q[0] / n, x = q[1] / n, y = q[2] / n, z = q[3] / n;
        const double r[3][3] = {
            {1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)},
            {2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)},
            {2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)}};
        for (unsigned a = 0; a < 3; ++a) {
            block.xStep[a] = static_cast<float>(r[a][0] * cell);
            block.yStep[a] = static_cast<float>(r[a][1] * cell);
            block.zStep[a] = static_cast<float>(r[a][2] * cell);
            block.origin[a] =
                static_cast<float>(centre[a] - 0.5 * extent * (r[a][0] + r[a][1] + r[a][2]));
        }
        if (nearCamera && chance(0.3)) {
            // An inverse-depth node exactly on the camera plane, on one of the three block axes:
            // an infinite node, and NaN wherever it is interpolated with weight 0.
            const float* axes[3] = {block.xStep, block.yStep, block.zStep};
            const float node = static_cast<float>(kTvrCubeCells / 2 * uniformInt(0, 2));
            block.origin[2] = -(node * axes[uniformInt(0, 2)][2]);
        }
        // The corners of the lattice 8 pixels or more inside the image (so are all its points,
        // the cube being convex and in front of the camera), three extents or more in front of
        // it: that bounds the error of the interpolated inverse depth well below the margin.
        bool inside = !broken;
        for (unsigned k = 0; k < 8 && inside; ++k) {
            double p[3];
            for (unsigned a = 0; a < 3; ++a)
                p[a] = block.origin[a] + kTvrCubeCells * ((k & 1) * double(block.xStep[a]) +
                                                          (k >> 1 & 1) * double(block.yStep[a]) +
                                                          (k >> 2) * double(block.zStep[a]));
            const double pu = cx + fx * p[0] / p[2], pv = cy + fy * p[1] / p[2];
            inside = p[2] >= 3.0 * extent && pu >= 8.0 && pv >= 8.0 && pu <= c.width - 8.0 &&
                     pv <= c.height - 8.0;
        }
        block.clip = inside && chance(0.6) ? 0u : kTvrClipBit;
        ++(block.clip ? clipped : unclipped);
        return block;
    }

    float uniform(float low, float high) {
        return std::uniform_real_distribution<float>(low, high)(mRng);
    }
    unsigned uniformInt(unsigned low, unsigned high) {
        return std::uniform_int_distribution<unsigned>(low, high)(mRng);
    }
    bool chance(double p) { return std::bernoulli_distribution(p)(mRng); }

    std::mt19937 mRng;
};

struct Comparison {
    unsigned passed = 0, failed = 0, clippedBlocks = 0, unclippedBlocks = 0;
    unsigned long long changedSamples = 0;  // samples the portable kernel changed, all cases
    std::string firstFailure;
};

// Runs `cases` random cases through the portable kernel and `variant`, comparing the volumes
// byte for byte and the statuses.
inline Comparison compareWithPortable(FusionFunction variant, uint32_t seed, unsigned cases) {
    Comparison result;
    FusionCaseGenerator generator(seed);
    std::vector<short> expected, actual;
    for (unsigned i = 0; i < cases; ++i) {
        const FusionCase c = generator.next();
        const int status = runCase(tvrDepthFusion8x8x8xNs16Portable, c, expected);
        const bool same = runCase(variant, c, actual) == status && actual == expected;
        for (size_t s = 0; s < expected.size(); ++s)
            result.changedSamples += expected[s] != c.volumes[s];
        ++(same ? result.passed : result.failed);
        if (!same && result.firstFailure.empty())
            result.firstFailure = "case " + std::to_string(i);
    }
    result.clippedBlocks = generator.clipped;
    result.unclippedBlocks = generator.unclipped;
    return result;
}

}  // namespace VisionTest

#endif  // VELMORA_TESTS_VISION_FUSIONINPUTS_H
