// AVX2 depth-fusion kernel. Built with -mavx2 (and without FMA or contraction), so nothing here may
// run before the dispatcher has seen AVX2 on the processor: no static initialisers, and only
// functions of internal linkage besides the entry, so that the linker never picks a copy of a
// shared inline function compiled with AVX2 for the portable path.
//
// The lanes of a vector are the 8 rows y = 0..7 of one lattice plane, and the loop runs along x.
// Each lane then sees exactly the scalar sequence of the portable kernel: its own row start,
// stepped by additions of xStep, and its own inverse-depth run, stepped by additions of the run's
// step. The samples of a plane are loaded as 8 rows of 8 and transposed, so that vector x holds
// the samples (x, 0..7); after the update they are transposed back and stored.
#if defined(__x86_64__)

#if !defined(__AVX2__)
#error "DepthFusionAvx2.cpp must be compiled with -mavx2"
#endif

#include <immintrin.h>

#include "vision/DepthFusion.h"
#include "vision/DepthFusionDetail.h"

namespace {

constexpr unsigned kLanes = 8;
static_assert(kLanes == kTvrCubeCells, "one lane per row of the cube");
constexpr int kLowLanesMask = 0x11;          // lanes 0 and 4: the rows at a node, taken unblended
constexpr int kHighHalvesMask = 0xAA;        // odd 16-bit halves: the weights of 8 samples
constexpr int kLowHalves = 0x20;             // 128-bit permute: the low halves of both operands
constexpr int kHighHalves = 0x31;            // the high halves of both operands
constexpr int kGatherScale = 4;              // bytes per float and per table entry
constexpr unsigned kSignFlip = 0x80000000u;  // turns an unsigned compare into a signed one
constexpr unsigned kRegisterTableEntries = 32;  // table entries held in registers
constexpr int kBit3ToSign = 28;                 // shift moving bit 3 of an index into the sign bit
constexpr int kBit4ToSign = 27;                 // same for bit 4

struct Constants {
    __m256 fx, fy, cxHalf, cyHalf;
    __m256 invRamp, radialConstant, radialSquare;
    __m256 sdfLower, sdfUpper, valueScale, fractionStep;
    __m256 rowT, rowOneMinusT;
    __m256i laneIndex;  // 0..7  // interpolation weights of rows 0..7 between their nodes
    __m256i widthFlipped, heightFlipped, signFlip;
    __m256i depthStride, maxWeight, lastTableIndex, lastRegisterIndex;
    __m256i table[kRegisterTableEntries / kLanes];  // table entries 0 to 31
};

// Transposes 8 rows of 8 32-bit elements in place.
inline void transpose8(__m256 r[kLanes]) {
    const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]);
    const __m256 t1 = _mm256_unpackhi_ps(r[0], r[1]);
    const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]);
    const __m256 t3 = _mm256_unpackhi_ps(r[2], r[3]);
    const __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]);
    const __m256 t5 = _mm256_unpackhi_ps(r[4], r[5]);
    const __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]);
    const __m256 t7 = _mm256_unpackhi_ps(r[6], r[7]);
    const __m256 s0 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 s1 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));
    const __m256 s2 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 s3 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2));
    const __m256 s4 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 s5 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(3, 2, 3, 2));
    const __m256 s6 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 s7 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(3, 2, 3, 2));
    r[0] = _mm256_permute2f128_ps(s0, s4, kLowHalves);
    r[1] = _mm256_permute2f128_ps(s1, s5, kLowHalves);
    r[2] = _mm256_permute2f128_ps(s2, s6, kLowHalves);
    r[3] = _mm256_permute2f128_ps(s3, s7, kLowHalves);
    r[4] = _mm256_permute2f128_ps(s0, s4, kHighHalves);
    r[5] = _mm256_permute2f128_ps(s1, s5, kHighHalves);
    r[6] = _mm256_permute2f128_ps(s2, s6, kHighHalves);
    r[7] = _mm256_permute2f128_ps(s3, s7, kHighHalves);
}

// Inverse depth of node column i for the 8 rows of a plane: the plane's row itself at y 0 and 4,
// t * upper + (1 - t) * lower in between.
inline __m256 rowInverseDepth(const Constants& k, const float plane[kTvrNodesPerPlane],
                              unsigned i) {
    const __m256 lower =
        _mm256_setr_m128(_mm_set1_ps(plane[i]), _mm_set1_ps(plane[kTvrNodesPerAxis + i]));
    const __m256 upper = _mm256_setr_m128(_mm_set1_ps(plane[kTvrNodesPerAxis + i]),
                                          _mm_set1_ps(plane[2 * kTvrNodesPerAxis + i]));
    const __m256 blended =
        _mm256_add_ps(_mm256_mul_ps(k.rowT, upper), _mm256_mul_ps(k.rowOneMinusT, lower));
    return _mm256_blend_ps(blended, lower, kLowLanesMask);
}

// Table entries of the weights in the 8 lanes (unsigned 16-bit, in 32-bit lanes). The first 32
// entries, which hold every weight up to the usual limit of 30, are looked up in registers; lanes
// beyond them take a gather.
inline __m256i reciprocalOf(const Constants& k, __m256i weight) {
    // permutevar8x32 reads bits 0 to 2 of the index; bits 3 and 4 pick one of four registers.
    const __m256 bit3 = _mm256_castsi256_ps(_mm256_slli_epi32(weight, kBit3ToSign));
    const __m256i low = _mm256_castps_si256(_mm256_blendv_ps(
        _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(k.table[0], weight)),
        _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(k.table[1], weight)), bit3));
    const __m256i high = _mm256_castps_si256(_mm256_blendv_ps(
        _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(k.table[2], weight)),
        _mm256_castsi256_ps(_mm256_permutevar8x32_epi32(k.table[3], weight)), bit3));
    const __m256i inRegisters = _mm256_castps_si256(
        _mm256_blendv_ps(_mm256_castsi256_ps(low), _mm256_castsi256_ps(high),
                         _mm256_castsi256_ps(_mm256_slli_epi32(weight, kBit4ToSign))));
    const __m256i beyond = _mm256_cmpgt_epi32(weight, k.lastRegisterIndex);
    if (_mm256_testz_si256(beyond, beyond)) {
        return inRegisters;
    }
    // Weights beyond the table use its last entry.
    const __m256i clamped = _mm256_min_epu32(weight, k.lastTableIndex);
    return _mm256_mask_i32gather_epi32(inRegisters, kTvrDivisionTable.entries, clamped, beyond,
                                       kGatherScale);
}

// Updates the samples (x, y = 0..7) of one plane, one lane per row, at positions p and inverse
// depths iz. Returns the new samples.
template <bool kClip>
inline __m256i fuseColumn(const Constants& k, const float* depth, __m256 px, __m256 py, __m256 pz,
                          __m256 iz, __m256i samples) {
    const __m256 xn = _mm256_mul_ps(iz, px);
    const __m256 yn = _mm256_mul_ps(iz, py);
    const __m256i u = _mm256_cvttps_epi32(_mm256_add_ps(k.cxHalf, _mm256_mul_ps(k.fx, xn)));
    const __m256i v = _mm256_cvttps_epi32(_mm256_add_ps(k.cyHalf, _mm256_mul_ps(k.fy, yn)));
    const __m256i index = _mm256_add_epi32(_mm256_mullo_epi32(v, k.depthStride), u);
    __m256 d;
    if (kClip) {
        const __m256i inside =
            _mm256_and_si256(_mm256_cmpgt_epi32(k.widthFlipped, _mm256_xor_si256(u, k.signFlip)),
                             _mm256_cmpgt_epi32(k.heightFlipped, _mm256_xor_si256(v, k.signFlip)));
        if (_mm256_testz_si256(inside, inside)) {
            return samples;
        }
        // Lanes outside the image are not read and stay 0, which skips them like a missing depth.
        d = _mm256_mask_i32gather_ps(_mm256_setzero_ps(), depth, index, _mm256_castsi256_ps(inside),
                                     kGatherScale);
    } else {
        d = _mm256_i32gather_ps(depth, index, kGatherScale);
    }
    const __m256 measured = _mm256_cmp_ps(d, _mm256_setzero_ps(), _CMP_NEQ_UQ);
    const __m256 r2 = _mm256_add_ps(_mm256_mul_ps(xn, xn), _mm256_mul_ps(yn, yn));
    const __m256 poly = _mm256_add_ps(k.radialConstant, _mm256_mul_ps(k.radialSquare, r2));
    const __m256 sdf = _mm256_mul_ps(_mm256_mul_ps(k.invRamp, poly), _mm256_sub_ps(d, pz));
    const __m256 update = _mm256_and_ps(measured, _mm256_cmp_ps(sdf, k.sdfLower, _CMP_GT_OQ));
    if (_mm256_testz_ps(update, update)) {
        return samples;
    }
    const __m256 t = _mm256_min_ps(sdf, k.sdfUpper);
    const __m256i increment = _mm256_cvttps_epi32(_mm256_mul_ps(t, k.valueScale));

    // Low half value, high half weight. madd of (value, weight) with (weight, 0) is value * weight.
    const __m256i weightUnsigned = _mm256_srli_epi32(samples, kTvrWeightShift);
    const __m256i weight = _mm256_srai_epi32(samples, kTvrWeightShift);
    const __m256i accumulated =
        _mm256_add_epi32(_mm256_madd_epi16(samples, weightUnsigned), increment);
    const __m256i reciprocal = reciprocalOf(k, weightUnsigned);
    const __m256i value =
        _mm256_srai_epi32(_mm256_mullo_epi32(accumulated, reciprocal), kTvrTableShift);
    // The compare gives -1 where the weight is below the limit.
    const __m256i newWeight = _mm256_sub_epi32(weight, _mm256_cmpgt_epi32(k.maxWeight, weight));
    const __m256i updated =
        _mm256_blend_epi16(value, _mm256_slli_epi32(newWeight, kTvrWeightShift), kHighHalvesMask);
    return _mm256_blendv_epi8(samples, updated, _mm256_castps_si256(update));
}

template <bool kClip>
void fuseBlock(const Constants& k, const float* depth, const TvrBlockRecord& block,
               short* samples) {
    float nodes[kTvrNodeCount];
    setupInverseDepthNodes(block, nodes);
    const __m256 xStepX = _mm256_set1_ps(block.xStep[0]);
    const __m256 xStepY = _mm256_set1_ps(block.xStep[1]);
    const __m256 xStepZ = _mm256_set1_ps(block.xStep[2]);

    // rowSteps[c][y - 1]: yStep[c] in the lanes of rows y and above, 0 below.
    __m256 rowSteps[3][kLanes - 1];
    for (unsigned c = 0; c < 3; ++c) {
        const __m256 yStep = _mm256_set1_ps(block.yStep[c]);
        for (unsigned y = 1; y < kLanes; ++y) {
            const __m256i rowsFromY =
                _mm256_cmpgt_epi32(k.laneIndex, _mm256_set1_epi32(static_cast<int>(y) - 1));
            rowSteps[c][y - 1] = _mm256_and_ps(yStep, _mm256_castsi256_ps(rowsFromY));
        }
    }
    float planeStart[3] = {block.origin[0], block.origin[1], block.origin[2]};
    for (unsigned z = 0; z < kTvrCubeCells; ++z) {
        float plane[kTvrNodesPerPlane];
        inverseDepthPlane(nodes, z, plane);
        // Row y starts at the plane start plus y additions of yStep; lanes below y add zeros.
        __m256 start[3];
        for (unsigned c = 0; c < 3; ++c) {
            start[c] = _mm256_set1_ps(planeStart[c]);
            for (unsigned y = 1; y < kLanes; ++y) {
                start[c] = _mm256_add_ps(start[c], rowSteps[c][y - 1]);
            }
        }
        __m256 px = start[0];
        __m256 py = start[1];
        __m256 pz = start[2];
        __m256 rows[kTvrNodesPerAxis];
        for (unsigned i = 0; i < kTvrNodesPerAxis; ++i) {
            rows[i] = rowInverseDepth(k, plane, i);
        }

        short* planeSamples = samples + kTvrPlaneShorts * z;
        __m256 columns[kLanes];
        for (unsigned y = 0; y < kLanes; ++y) {
            columns[y] =
                _mm256_loadu_ps(reinterpret_cast<const float*>(planeSamples + kTvrRowShorts * y));
        }
        transpose8(columns);

        for (unsigned run = 0; run < kTvrCubeCells / kTvrRunLength; ++run) {
            const __m256 step =
                _mm256_mul_ps(_mm256_sub_ps(rows[run + 1], rows[run]), k.fractionStep);
            __m256 iz = rows[run];
            for (unsigned r = 0; r < kTvrRunLength; ++r) {
                const unsigned x = run * kTvrRunLength + r;
                columns[x] = _mm256_castsi256_ps(
                    fuseColumn<kClip>(k, depth, px, py, pz, iz, _mm256_castps_si256(columns[x])));
                iz = _mm256_add_ps(iz, step);
                px = _mm256_add_ps(px, xStepX);
                py = _mm256_add_ps(py, xStepY);
                pz = _mm256_add_ps(pz, xStepZ);
            }
        }

        transpose8(columns);
        for (unsigned y = 0; y < kLanes; ++y) {
            _mm256_storeu_ps(reinterpret_cast<float*>(planeSamples + kTvrRowShorts * y),
                             columns[y]);
        }
        for (unsigned c = 0; c < 3; ++c) {
            planeStart[c] += block.zStep[c];
        }
    }
}

}  // namespace

int tvrDepthFusion8x8x8xNs16Avx2(const TvrBlockRecord* blocks, short* volumes, unsigned numBlocks,
                                 unsigned volumeStrideBytes, const float* depth, unsigned width,
                                 unsigned height, unsigned depthStrideBytes,
                                 const float* intrinsics, int maxWeight) {
    if (!tvrDepthIndexFits32(width, height, depthStrideBytes)) {
        return kTvrNotImplemented;
    }
    Constants k;
    k.fx = _mm256_set1_ps(intrinsics[kTvrFx]);
    k.fy = _mm256_set1_ps(intrinsics[kTvrFy]);
    k.cxHalf = _mm256_set1_ps(intrinsics[kTvrCxHalf]);
    k.cyHalf = _mm256_set1_ps(intrinsics[kTvrCyHalf]);
    k.radialConstant = _mm256_set1_ps(kTvrRadialConstant);
    k.radialSquare = _mm256_set1_ps(kTvrRadialSquare);
    k.sdfLower = _mm256_set1_ps(kTvrSdfLowerLimit);
    k.sdfUpper = _mm256_set1_ps(kTvrSdfUpperLimit);
    k.valueScale = _mm256_set1_ps(kTvrValueScale);
    k.fractionStep = _mm256_set1_ps(kTvrNodeFractionStep);
    // Row y of a plane lies (y mod 4) / 4 of the way from its lower node row to the upper one.
    const __m128 t =
        _mm_setr_ps(0.0f, kTvrNodeFractionStep, 2 * kTvrNodeFractionStep, 3 * kTvrNodeFractionStep);
    k.rowT = _mm256_setr_m128(t, t);
    k.rowOneMinusT = _mm256_sub_ps(_mm256_set1_ps(1.0f), k.rowT);
    k.laneIndex = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    k.signFlip = _mm256_set1_epi32(static_cast<int>(kSignFlip));
    k.widthFlipped = _mm256_set1_epi32(static_cast<int>(width ^ kSignFlip));
    k.heightFlipped = _mm256_set1_epi32(static_cast<int>(height ^ kSignFlip));
    k.depthStride = _mm256_set1_epi32(static_cast<int>(depthStrideBytes / sizeof(float)));
    k.maxWeight = _mm256_set1_epi32(maxWeight);
    k.lastTableIndex = _mm256_set1_epi32(static_cast<int>(kTvrLastTableIndex));
    k.lastRegisterIndex = _mm256_set1_epi32(static_cast<int>(kRegisterTableEntries - 1));
    for (unsigned r = 0; r < kRegisterTableEntries / kLanes; ++r) {
        k.table[r] = _mm256_loadu_si256(
            reinterpret_cast<const __m256i*>(kTvrDivisionTable.entries + kLanes * r));
    }

    for (unsigned b = 0; b < numBlocks; ++b) {
        const TvrBlockRecord& block = blocks[b];
        k.invRamp = _mm256_set1_ps(1.0f / block.ramp);
        short* samples = volumes + static_cast<size_t>(volumeStrideBytes / 2) * block.volumeIndex;
        if (block.clip & kTvrClipBit) {
            fuseBlock<true>(k, depth, block, samples);
        } else {
            fuseBlock<false>(k, depth, block, samples);
        }
    }
    return kTvrSuccess;
}

#endif  // defined(__x86_64__)
