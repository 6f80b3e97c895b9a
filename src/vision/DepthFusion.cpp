// The portable depth-fusion kernel, the reciprocal table, the choice of the operation mode and the
// dispatching entry. The vector variants reproduce this kernel's arithmetic operation by operation.
#include "vision/DepthFusion.h"

#include <atomic>
#include <climits>
#include <cstddef>

#include "common/Assert.h"
#include "vision/DepthFusionDetail.h"

namespace {

// Weights 0 to 99 divide by w + 1; weights 100 to 106 by w + 21; the rest of the table is 0.
constexpr unsigned kExactReciprocalEnd = 100;
constexpr unsigned kShiftedReciprocalEnd = 107;
constexpr int32_t kShiftedDivisorOffset = 21;
constexpr int32_t kReciprocalNumerator = 1 << kTvrTableShift;

constexpr TvrDivisionTable makeDivisionTable() {
    TvrDivisionTable table{};
    for (unsigned w = 0; w < kTvrDivisionTableSize; ++w) {
        const int32_t weight = static_cast<int32_t>(w);
        if (w < kExactReciprocalEnd) {
            table.entries[w] = kReciprocalNumerator / (weight + 1);
        } else if (w < kShiftedReciprocalEnd) {
            table.entries[w] = kReciprocalNumerator / (weight + kShiftedDivisorOffset);
        } else {
            table.entries[w] = 0;
        }
    }
    return table;
}

// Truncation of a pixel coordinate towards zero. Coordinates outside the int32 range, NaN
// included, give INT32_MIN, which as unsigned lies beyond any image; this is also what the x86
// vector conversion yields, so every implementation agrees on such voxels.
int32_t truncatePixel(float coordinate) {
    constexpr float kInt32Limit = 2147483648.0f;  // 2^31
    if (!(coordinate >= -kInt32Limit && coordinate < kInt32Limit)) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(coordinate);
}

// Everything of one call that does not change from voxel to voxel.
struct FusionFrame {
    const float* depth;
    unsigned width;
    unsigned height;
    size_t depthStride;  // floats between rows
    float fx;
    float fy;
    float cxHalf;
    float cyHalf;
    int maxWeight;
};

// One voxel at camera-space position p (metres) with interpolated inverse depth iz.
void fuseVoxel(const FusionFrame& frame, bool clip, float invRamp, const float p[3], float iz,
               short* sample) {
    const float xn = iz * p[0];
    const float yn = iz * p[1];
    const int32_t u = truncatePixel(frame.cxHalf + frame.fx * xn);
    const int32_t v = truncatePixel(frame.cyHalf + frame.fy * yn);
    if (clip &&
        !(static_cast<uint32_t>(u) < frame.width && static_cast<uint32_t>(v) < frame.height)) {
        return;
    }
    const float d =
        frame.depth[static_cast<ptrdiff_t>(v) * static_cast<ptrdiff_t>(frame.depthStride) + u];
    if (d == 0.0f) {
        return;
    }
    const float r2 = xn * xn + yn * yn;
    const float sdf = invRamp * (kTvrRadialConstant + kTvrRadialSquare * r2) * (d - p[2]);
    if (!(sdf > kTvrSdfLowerLimit)) {
        return;
    }
    const float t = sdf < kTvrSdfUpperLimit ? sdf : kTvrSdfUpperLimit;
    const int32_t increment = static_cast<int32_t>(t * kTvrValueScale);
    const int32_t value = sample[0];
    const int32_t weight = sample[1];
    const int32_t accumulated = weight * value + increment;
    uint32_t tableIndex = static_cast<uint16_t>(weight);
    if (tableIndex > kTvrLastTableIndex) {
        tableIndex = kTvrLastTableIndex;
    }
    // Bounded by 2^31 in magnitude for every stored value: the table entry of weight w is at most
    // 65536 / (w + 1) and |accumulated| < (w + 1) * 32768. The shift floors negative values.
    sample[0] =
        static_cast<short>((accumulated * kTvrDivisionTable.entries[tableIndex]) >> kTvrTableShift);
    if (weight < frame.maxWeight) {
        sample[1] = static_cast<short>(weight + 1);
    }
}

void fuseBlock(const FusionFrame& frame, const TvrBlockRecord& block, short* samples) {
    const bool clip = (block.clip & kTvrClipBit) != 0;
    const float invRamp = 1.0f / block.ramp;
    float nodes[kTvrNodeCount];
    setupInverseDepthNodes(block, nodes);

    // Camera positions advance by additions only: per plane, per row and per voxel.
    float planeStart[3] = {block.origin[0], block.origin[1], block.origin[2]};
    for (unsigned z = 0; z < kTvrCubeCells; ++z) {
        float plane[kTvrNodesPerPlane];
        inverseDepthPlane(nodes, z, plane);
        float rowStart[3] = {planeStart[0], planeStart[1], planeStart[2]};
        for (unsigned y = 0; y < kTvrCubeCells; ++y) {
            const unsigned lower = y >> kTvrNodeSpacingShift;
            const unsigned fraction = y & kTvrNodeFractionMask;
            float row[kTvrNodesPerAxis];
            for (unsigned i = 0; i < kTvrNodesPerAxis; ++i) {
                const float low = plane[kTvrNodesPerAxis * lower + i];
                if (fraction == 0) {
                    row[i] = low;
                } else {
                    const float t = static_cast<float>(fraction) * kTvrNodeFractionStep;
                    const float high = plane[kTvrNodesPerAxis * (lower + 1) + i];
                    row[i] = t * high + (1.0f - t) * low;
                }
            }
            short* rowSamples = samples + kTvrPlaneShorts * z + kTvrRowShorts * y;
            float p[3] = {rowStart[0], rowStart[1], rowStart[2]};
            for (unsigned run = 0; run < kTvrCubeCells / kTvrRunLength; ++run) {
                const float step = (row[run + 1] - row[run]) * kTvrNodeFractionStep;
                float iz = row[run];
                for (unsigned k = 0; k < kTvrRunLength; ++k) {
                    const unsigned x = run * kTvrRunLength + k;
                    fuseVoxel(frame, clip, invRamp, p, iz, rowSamples + kTvrSampleShorts * x);
                    iz += step;
                    for (unsigned c = 0; c < 3; ++c) {
                        p[c] += block.xStep[c];
                    }
                }
            }
            for (unsigned c = 0; c < 3; ++c) {
                rowStart[c] += block.yStep[c];
            }
        }
        for (unsigned c = 0; c < 3; ++c) {
            planeStart[c] += block.zStep[c];
        }
    }
}

using DepthFusionFunction = int (*)(const TvrBlockRecord*, short*, unsigned, unsigned, const float*,
                                    unsigned, unsigned, unsigned, const float*, int);

// Fills the slots that have no implementation on this processor family.
int notImplemented(const TvrBlockRecord*, short*, unsigned, unsigned, const float*, unsigned,
                   unsigned, unsigned, const float*, int) {
    return kTvrNotImplemented;
}

// The implementation table of the depth-fusion function, one slot per operation mode.
constexpr DepthFusionFunction kDepthFusionSlots[kTvrModeCount] = {
    tvrDepthFusion8x8x8xNs16Portable,
#if defined(__x86_64__)
    tvrDepthFusion8x8x8xNs16Avx2,
#else
    notImplemented,
#endif
#if defined(__aarch64__)
    tvrDepthFusion8x8x8xNs16Neon,
#else
    notImplemented,
#endif
    notImplemented,
};

// kTvrModeCount until the first use picks the fastest supported mode.
std::atomic<unsigned> gMode{kTvrModeCount};

TvrMode fastestSupportedMode() {
    if (tvrModeSupported(kTvrModeAvx2)) {
        return kTvrModeAvx2;
    }
    if (tvrModeSupported(kTvrModeNeon)) {
        return kTvrModeNeon;
    }
    return kTvrModePortable;
}

}  // namespace

constexpr TvrDivisionTable kTvrDivisionTable = makeDivisionTable();

TvrIntrinsics tvrMakeIntrinsics(float fx, float fy, float cx, float cy) {
    constexpr float kHalfPixel = 0.5f;
    TvrIntrinsics intrinsics{};
    intrinsics.values[kTvrFx] = fx;
    intrinsics.values[kTvrFy] = fy;
    intrinsics.values[kTvrCxHalf] = cx + kHalfPixel;
    intrinsics.values[kTvrCyHalf] = cy + kHalfPixel;
    return intrinsics;
}

bool tvrDepthIndexFits32(unsigned width, unsigned height, unsigned depthStrideBytes) {
    if (width == 0 || height == 0) {
        return true;
    }
    const uint64_t lastIndex =
        static_cast<uint64_t>(height - 1) * (depthStrideBytes / sizeof(float)) + (width - 1);
    return lastIndex <= static_cast<uint64_t>(INT32_MAX);
}

int tvrDepthFusion8x8x8xNs16Portable(const TvrBlockRecord* blocks, short* volumes,
                                     unsigned numBlocks, unsigned volumeStrideBytes,
                                     const float* depth, unsigned width, unsigned height,
                                     unsigned depthStrideBytes, const float* intrinsics,
                                     int maxWeight) {
    const FusionFrame frame{depth,
                            width,
                            height,
                            depthStrideBytes / sizeof(float),
                            intrinsics[kTvrFx],
                            intrinsics[kTvrFy],
                            intrinsics[kTvrCxHalf],
                            intrinsics[kTvrCyHalf],
                            maxWeight};
    for (unsigned b = 0; b < numBlocks; ++b) {
        short* samples =
            volumes + static_cast<size_t>(volumeStrideBytes / 2) * blocks[b].volumeIndex;
        fuseBlock(frame, blocks[b], samples);
    }
    return kTvrSuccess;
}

bool tvrModeSupported(TvrMode mode) {
    switch (mode) {
        case kTvrModePortable:
        case kTvrModeReserved:
            return true;
        case kTvrModeAvx2:
#if defined(__x86_64__)
            __builtin_cpu_init();
            return __builtin_cpu_supports("avx2");
#else
            return false;
#endif
        case kTvrModeNeon:
#if defined(__aarch64__)
            return true;
#else
            return false;
#endif
        default:
            return false;
    }
}

TvrMode tvrGetMode() {
    unsigned mode = gMode.load(std::memory_order_acquire);
    if (mode >= kTvrModeCount) {
        unsigned unset = kTvrModeCount;
        gMode.compare_exchange_strong(unset, fastestSupportedMode(), std::memory_order_acq_rel);
        mode = gMode.load(std::memory_order_acquire);
    }
    return static_cast<TvrMode>(mode);
}

bool tvrSetMode(TvrMode mode) {
    if (!tvrModeSupported(mode)) {
        return false;
    }
    gMode.store(mode, std::memory_order_release);
    return true;
}

int tvrDepthFusion8x8x8xNs16(const TvrBlockRecord* blocks, short* volumes, unsigned numBlocks,
                             unsigned volumeStrideBytes, const float* depth, unsigned width,
                             unsigned height, unsigned depthStrideBytes, const float* intrinsics,
                             int maxWeight) {
    AR_ASSERT(numBlocks == 0 || (blocks && volumes && depth && intrinsics));
    if (volumeStrideBytes == 0) {
        volumeStrideBytes = kTvrDefaultVolumeStride;
    }
    if (depthStrideBytes == 0) {
        depthStrideBytes = width * kTvrDefaultDepthStrideBytesPerPixel;
    }
    int status =
        kDepthFusionSlots[tvrGetMode()](blocks, volumes, numBlocks, volumeStrideBytes, depth, width,
                                        height, depthStrideBytes, intrinsics, maxWeight);
    if (status == kTvrNotImplemented) {
        status = tvrDepthFusion8x8x8xNs16Portable(blocks, volumes, numBlocks, volumeStrideBytes,
                                                  depth, width, height, depthStrideBytes,
                                                  intrinsics, maxWeight);
    }
    return status;
}
