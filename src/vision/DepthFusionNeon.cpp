// NEON depth-fusion kernel for 64-bit Arm. As in the AVX2 variant, the lanes are rows of one
// lattice plane and the loop runs along x, so each lane repeats the scalar sequence of the portable
// kernel exactly; a plane is done as two halves of four rows, y = 0..3 and y = 4..7, each of which
// interpolates between one pair of node rows. The samples of a half are loaded as 4 rows of 8,
// transposed into 8 columns of 4, updated and transposed back.
#if defined(__aarch64__)

#include <arm_neon.h>

#include "vision/DepthFusion.h"
#include "vision/DepthFusionDetail.h"

namespace {

constexpr unsigned kLanes = 4;
constexpr unsigned kHalves = kTvrCubeCells / kLanes;
static_assert(kLanes == kTvrNodeSpacing, "one half of a plane lies between two node rows");
constexpr float kInt32Limit = 2147483648.0f;  // 2^31: first float beyond the int32 range

struct Constants {
    float32x4_t fx, fy, cxHalf, cyHalf;
    float32x4_t invRamp, radialConstant, radialSquare;
    float32x4_t sdfLower, sdfUpper, valueScale, fractionStep;
    float32x4_t rowT, rowOneMinusT;  // interpolation weights of rows 0..3 of a half
    float32x4_t lowerLimit, upperLimit;
    uint32x4_t width, height, depthStride, lastTableIndex;
    int32x4_t maxWeight;
    uint32x4_t firstLane;  // all ones in lane 0: the row at a node, taken unblended
};

// Transposes 4 rows of 4 32-bit elements.
inline void transpose4(uint32x4_t& r0, uint32x4_t& r1, uint32x4_t& r2, uint32x4_t& r3) {
    const uint32x4_t t0 = vtrn1q_u32(r0, r1);
    const uint32x4_t t1 = vtrn2q_u32(r0, r1);
    const uint32x4_t t2 = vtrn1q_u32(r2, r3);
    const uint32x4_t t3 = vtrn2q_u32(r2, r3);
    r0 = vreinterpretq_u32_u64(vtrn1q_u64(vreinterpretq_u64_u32(t0), vreinterpretq_u64_u32(t2)));
    r1 = vreinterpretq_u32_u64(vtrn1q_u64(vreinterpretq_u64_u32(t1), vreinterpretq_u64_u32(t3)));
    r2 = vreinterpretq_u32_u64(vtrn2q_u64(vreinterpretq_u64_u32(t0), vreinterpretq_u64_u32(t2)));
    r3 = vreinterpretq_u32_u64(vtrn2q_u64(vreinterpretq_u64_u32(t1), vreinterpretq_u64_u32(t3)));
}

// Rows x 0..7 of four lattice rows <-> columns y 0..3 for each x.
inline void transposeHalf(uint32x4_t (&low)[kLanes], uint32x4_t (&high)[kLanes],
                          uint32x4_t (&columns)[kTvrCubeCells]) {
    transpose4(low[0], low[1], low[2], low[3]);
    transpose4(high[0], high[1], high[2], high[3]);
    for (unsigned i = 0; i < kLanes; ++i) {
        columns[i] = low[i];
        columns[kLanes + i] = high[i];
    }
}

// Lanes whose float converts to int32 without saturation; NaN fails both tests.
inline uint32x4_t convertible(const Constants& k, float32x4_t f) {
    return vandq_u32(vcgeq_f32(f, k.lowerLimit), vcltq_f32(f, k.upperLimit));
}

// Updates the samples (x, y = 4h..4h+3) of one half plane, one lane per row, at positions p and
// inverse depths iz. Returns the new samples.
template <bool kClip>
inline uint32x4_t fuseColumn(const Constants& k, const float* depth, float32x4_t px, float32x4_t py,
                             float32x4_t pz, float32x4_t iz, uint32x4_t samples) {
    const float32x4_t xn = vmulq_f32(iz, px);
    const float32x4_t yn = vmulq_f32(iz, py);
    const float32x4_t fu = vaddq_f32(k.cxHalf, vmulq_f32(k.fx, xn));
    const float32x4_t fv = vaddq_f32(k.cyHalf, vmulq_f32(k.fy, yn));
    const uint32x4_t u = vreinterpretq_u32_s32(vcvtq_s32_f32(fu));
    const uint32x4_t v = vreinterpretq_u32_s32(vcvtq_s32_f32(fv));
    uint32x4_t index = vmlaq_u32(u, v, k.depthStride);
    uint32x4_t inside = vdupq_n_u32(~0u);
    if (kClip) {
        // The conversion saturates (NaN to 0) where x86 and the portable kernel give INT32_MIN:
        // such lanes are outside the image for all of them.
        inside = vandq_u32(vandq_u32(vcltq_u32(u, k.width), vcltq_u32(v, k.height)),
                           vandq_u32(convertible(k, fu), convertible(k, fv)));
        if (vmaxvq_u32(inside) == 0) {
            return samples;
        }
        // Lanes outside read pixel 0, which exists since some lane is inside, and are then
        // dropped like a missing depth.
        index = vandq_u32(index, inside);
    }
    float32x4_t d = vld1q_dup_f32(depth + vgetq_lane_u32(index, 0));
    d = vld1q_lane_f32(depth + vgetq_lane_u32(index, 1), d, 1);
    d = vld1q_lane_f32(depth + vgetq_lane_u32(index, 2), d, 2);
    d = vld1q_lane_f32(depth + vgetq_lane_u32(index, 3), d, 3);
    if (kClip) {
        d = vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(d), inside));
    }
    const uint32x4_t measured = vmvnq_u32(vceqq_f32(d, vdupq_n_f32(0.0f)));
    const float32x4_t r2 = vaddq_f32(vmulq_f32(xn, xn), vmulq_f32(yn, yn));
    const float32x4_t poly = vaddq_f32(k.radialConstant, vmulq_f32(k.radialSquare, r2));
    const float32x4_t sdf = vmulq_f32(vmulq_f32(k.invRamp, poly), vsubq_f32(d, pz));
    const uint32x4_t update = vandq_u32(measured, vcgtq_f32(sdf, k.sdfLower));
    if (vmaxvq_u32(update) == 0) {
        return samples;
    }
    const float32x4_t t = vminq_f32(sdf, k.sdfUpper);
    const int32x4_t increment = vcvtq_s32_f32(vmulq_f32(t, k.valueScale));

    // Low half value, high half weight.
    const int32x4_t packed = vreinterpretq_s32_u32(samples);
    const int32x4_t value = vshrq_n_s32(vshlq_n_s32(packed, kTvrWeightShift), kTvrWeightShift);
    const int32x4_t weight = vshrq_n_s32(packed, kTvrWeightShift);
    const int32x4_t accumulated = vmlaq_s32(increment, value, weight);
    const uint32x4_t tableIndex =
        vminq_u32(vshrq_n_u32(samples, kTvrWeightShift), k.lastTableIndex);
    const int32_t* table = kTvrDivisionTable.entries;
    int32x4_t reciprocal = vld1q_dup_s32(table + vgetq_lane_u32(tableIndex, 0));
    reciprocal = vld1q_lane_s32(table + vgetq_lane_u32(tableIndex, 1), reciprocal, 1);
    reciprocal = vld1q_lane_s32(table + vgetq_lane_u32(tableIndex, 2), reciprocal, 2);
    reciprocal = vld1q_lane_s32(table + vgetq_lane_u32(tableIndex, 3), reciprocal, 3);
    const int32x4_t newValue = vshrq_n_s32(vmulq_s32(accumulated, reciprocal), kTvrTableShift);
    // The compare gives all ones (-1) where the weight is below the limit.
    const int32x4_t newWeight =
        vsubq_s32(weight, vreinterpretq_s32_u32(vcltq_s32(weight, k.maxWeight)));
    const uint32x4_t updated = vsliq_n_u32(vreinterpretq_u32_s32(newValue),
                                           vreinterpretq_u32_s32(newWeight), kTvrWeightShift);
    return vbslq_u32(update, updated, samples);
}

inline uint32x4_t loadSamples(const short* at) {
    return vreinterpretq_u32_u8(vld1q_u8(reinterpret_cast<const uint8_t*>(at)));
}

inline void storeSamples(short* at, uint32x4_t samples) {
    vst1q_u8(reinterpret_cast<uint8_t*>(at), vreinterpretq_u8_u32(samples));
}

template <bool kClip>
void fuseBlock(const Constants& k, const float* depth, const TvrBlockRecord& block,
               short* samples) {
    float nodes[kTvrNodeCount];
    setupInverseDepthNodes(block, nodes);
    const float32x4_t xStepX = vdupq_n_f32(block.xStep[0]);
    const float32x4_t xStepY = vdupq_n_f32(block.xStep[1]);
    const float32x4_t xStepZ = vdupq_n_f32(block.xStep[2]);

    float planeStart[3] = {block.origin[0], block.origin[1], block.origin[2]};
    for (unsigned z = 0; z < kTvrCubeCells; ++z) {
        float plane[kTvrNodesPerPlane];
        inverseDepthPlane(nodes, z, plane);
        float rowStart[3][kTvrCubeCells];
        for (unsigned c = 0; c < 3; ++c) {
            rowStart[c][0] = planeStart[c];
            for (unsigned y = 1; y < kTvrCubeCells; ++y) {
                rowStart[c][y] = rowStart[c][y - 1] + block.yStep[c];
            }
        }
        for (unsigned h = 0; h < kHalves; ++h) {
            float32x4_t px = vld1q_f32(rowStart[0] + kLanes * h);
            float32x4_t py = vld1q_f32(rowStart[1] + kLanes * h);
            float32x4_t pz = vld1q_f32(rowStart[2] + kLanes * h);
            float32x4_t rows[kTvrNodesPerAxis];
            for (unsigned i = 0; i < kTvrNodesPerAxis; ++i) {
                const float32x4_t lower = vdupq_n_f32(plane[kTvrNodesPerAxis * h + i]);
                const float32x4_t upper = vdupq_n_f32(plane[kTvrNodesPerAxis * (h + 1) + i]);
                const float32x4_t blended =
                    vaddq_f32(vmulq_f32(k.rowT, upper), vmulq_f32(k.rowOneMinusT, lower));
                rows[i] = vbslq_f32(k.firstLane, lower, blended);
            }

            short* halfSamples = samples + kTvrPlaneShorts * z + kTvrRowShorts * kLanes * h;
            uint32x4_t low[kLanes];
            uint32x4_t high[kLanes];
            for (unsigned y = 0; y < kLanes; ++y) {
                low[y] = loadSamples(halfSamples + kTvrRowShorts * y);
                high[y] = loadSamples(halfSamples + kTvrRowShorts * y + kTvrSampleShorts * kLanes);
            }
            uint32x4_t columns[kTvrCubeCells];
            transposeHalf(low, high, columns);

            for (unsigned run = 0; run < kTvrCubeCells / kTvrRunLength; ++run) {
                const float32x4_t step =
                    vmulq_f32(vsubq_f32(rows[run + 1], rows[run]), k.fractionStep);
                float32x4_t iz = rows[run];
                for (unsigned r = 0; r < kTvrRunLength; ++r) {
                    const unsigned x = run * kTvrRunLength + r;
                    columns[x] = fuseColumn<kClip>(k, depth, px, py, pz, iz, columns[x]);
                    iz = vaddq_f32(iz, step);
                    px = vaddq_f32(px, xStepX);
                    py = vaddq_f32(py, xStepY);
                    pz = vaddq_f32(pz, xStepZ);
                }
            }

            for (unsigned i = 0; i < kLanes; ++i) {
                low[i] = columns[i];
                high[i] = columns[kLanes + i];
            }
            transpose4(low[0], low[1], low[2], low[3]);
            transpose4(high[0], high[1], high[2], high[3]);
            for (unsigned y = 0; y < kLanes; ++y) {
                storeSamples(halfSamples + kTvrRowShorts * y, low[y]);
                storeSamples(halfSamples + kTvrRowShorts * y + kTvrSampleShorts * kLanes, high[y]);
            }
        }
        for (unsigned c = 0; c < 3; ++c) {
            planeStart[c] += block.zStep[c];
        }
    }
}

}  // namespace

int tvrDepthFusion8x8x8xNs16Neon(const TvrBlockRecord* blocks, short* volumes, unsigned numBlocks,
                                 unsigned volumeStrideBytes, const float* depth, unsigned width,
                                 unsigned height, unsigned depthStrideBytes,
                                 const float* intrinsics, int maxWeight) {
    if (!tvrDepthIndexFits32(width, height, depthStrideBytes)) {
        return kTvrNotImplemented;
    }
    Constants k;
    k.fx = vdupq_n_f32(intrinsics[kTvrFx]);
    k.fy = vdupq_n_f32(intrinsics[kTvrFy]);
    k.cxHalf = vdupq_n_f32(intrinsics[kTvrCxHalf]);
    k.cyHalf = vdupq_n_f32(intrinsics[kTvrCyHalf]);
    k.radialConstant = vdupq_n_f32(kTvrRadialConstant);
    k.radialSquare = vdupq_n_f32(kTvrRadialSquare);
    k.sdfLower = vdupq_n_f32(kTvrSdfLowerLimit);
    k.sdfUpper = vdupq_n_f32(kTvrSdfUpperLimit);
    k.valueScale = vdupq_n_f32(kTvrValueScale);
    k.fractionStep = vdupq_n_f32(kTvrNodeFractionStep);
    // Row 4h + i of a plane lies i / 4 of the way from node row h to node row h + 1.
    const float rowT[kLanes] = {0.0f, kTvrNodeFractionStep, 2 * kTvrNodeFractionStep,
                                3 * kTvrNodeFractionStep};
    k.rowT = vld1q_f32(rowT);
    k.rowOneMinusT = vsubq_f32(vdupq_n_f32(1.0f), k.rowT);
    k.lowerLimit = vdupq_n_f32(-kInt32Limit);
    k.upperLimit = vdupq_n_f32(kInt32Limit);
    k.width = vdupq_n_u32(width);
    k.height = vdupq_n_u32(height);
    k.depthStride = vdupq_n_u32(depthStrideBytes / sizeof(float));
    k.lastTableIndex = vdupq_n_u32(kTvrLastTableIndex);
    k.maxWeight = vdupq_n_s32(maxWeight);
    const uint32_t firstLane[kLanes] = {~0u, 0u, 0u, 0u};
    k.firstLane = vld1q_u32(firstLane);

    for (unsigned b = 0; b < numBlocks; ++b) {
        const TvrBlockRecord& block = blocks[b];
        k.invRamp = vdupq_n_f32(1.0f / block.ramp);
        short* samples = volumes + static_cast<size_t>(volumeStrideBytes / 2) * block.volumeIndex;
        if (block.clip & kTvrClipBit) {
            fuseBlock<true>(k, depth, block, samples);
        } else {
            fuseBlock<false>(k, depth, block, samples);
        }
    }
    return kTvrSuccess;
}

#endif  // defined(__aarch64__)
