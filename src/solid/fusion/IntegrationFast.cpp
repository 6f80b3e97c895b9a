#include "solid/fusion/IntegrationFast.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>

#include "solid/fusion/Clipping.h"

namespace Solid {

namespace {

// Scale of a fixed-point depth value: +1.0 of the band.
constexpr float kDepthValueRange = 32766.0f;
constexpr int kMaxValue = kMaxDepthValue;
// Half a pixel: with it the truncation of a pixel coordinate rounds.
constexpr float kHalfPixel = 0.5f;

// The reciprocal tables hold 65536 / divisor, so a product with them is shifted by 16.
constexpr int kReciprocalShift = 16;
constexpr int32_t kReciprocalOne = int32_t(1) << kReciprocalShift;
// table2 holds 2^30 / divisor.
constexpr int kReciprocal2Shift = 30;

// integrateFast steps the inverse depth linearly over runs of this many voxels.
constexpr int kFastRunLength = 8;
constexpr float kFastRunFraction = 1.0f / kFastRunLength;
// The reciprocal at the start of a run must be this close: invZ * z within 1e-6 of 1.
constexpr float kMaxReciprocalError = 1e-6f;

// The eight-cube kernels: nodes every 4 lattice indices, runs of 4 voxels between them.
constexpr int kCube = 8;
constexpr int kNodeSpacing = 4;
constexpr int kNodeShift = 2;
constexpr int kNodeMask = 3;
constexpr float kNodeFraction = 0.25f;
constexpr int kNodesPerAxis = 3;
constexpr int kNodesPerPlane = kNodesPerAxis * kNodesPerAxis;

// Fixed point of integrateFastFixed: positions and inverse depths with 27 fraction bits,
// intrinsics, pixels and the signed distance in ramps with 16.
constexpr int kFx27 = 27;
constexpr int kFx16 = 16;
constexpr int kFixedRunShift = 3;  // runs of 8 voxels
constexpr int32_t kFixedRunLength = int32_t(1) << kFixedRunShift;
// invertHQ: 2^60 / z has 33 fraction bits, 6 more than its result.
constexpr int kInvertNumeratorShift = 60;
constexpr int kInvertResultShift = 6;
// The radial polynomial with 27 fraction bits (truncated).
constexpr int32_t kRadialC0Fixed = 0x805CFE8;
constexpr int32_t kRadialC1Fixed = 0x3988E1B;
// One ramp in the 16.16 signed distance.
constexpr int32_t kFixedRampOne = int32_t(1) << kFx16;
// Full scale of a stored value, applied to a 16.16 fraction of the ramp.
constexpr int32_t kFixedValueScale = 32766;
constexpr int32_t kFractionMask16 = kFixedRampOne - 1;
// Depth in millimetres to metres with 27 fraction bits: d * 2^27 / 1000 as
// (d * ceil(2^59 / 1000)) >> 32; exact for every d below the limit, since the fraction of
// d * 2^27 / 1000 is a multiple of 1/1000 and the error of the constant stays below 2^-20.
constexpr uint64_t kMillimetreToFx27 = 576460752303424ull;
constexpr int kMillimetreShift = 32;
constexpr int kMaxFixedDepthMillimetres = 8000;

// integrateFast8Weighted: weights in sixteenths, distances in 1/32768 metre.
constexpr float kWeightScale = 16.0f;
constexpr int kMaxFusionWeight = 16;
constexpr float kMetreScale = 32768.0f;
constexpr int kMaxWeightedValue = 32767;

// Next-weight table and the maximum weight it was built for (-1: invalid).
uint8_t gNextWeight[LUT_SIZE] = {};
int gInitializedLUTMaxWeight = -1;

constexpr std::array<int32_t, LUT_SIZE> makeReciprocals() {
    std::array<int32_t, LUT_SIZE> r{};
    for (int w = 0; w < LUT_SIZE; ++w) {
        r[w] = kReciprocalOne / (w + 1);
    }
    return r;
}
constexpr std::array<int32_t, LUT2_SIZE> makeReciprocals2() {
    std::array<int32_t, LUT2_SIZE> r{};
    for (int i = 1; i < LUT2_SIZE; ++i) {
        r[i] = static_cast<int32_t>((int64_t(1) << kReciprocal2Shift) / i);
    }
    return r;
}

// Camera-space geometry of a block: lattice point (0, 0, 0) and the step per lattice index of
// each axis, metres.
struct BlockSteps {
    Vec3 origin;
    Vec3 xStep;
    Vec3 yStep;
    Vec3 zStep;
};

BlockSteps blockSteps(const Matrix4& T, const Vec3& spacing) {
    BlockSteps s;
    for (int r = 0; r < 3; ++r) {
        s.origin(r) = T(r, 3);
        s.xStep(r) = T(r, 0) * spacing(0);
        s.yStep(r) = T(r, 1) * spacing(1);
        s.zStep(r) = T(r, 2) * spacing(2);
    }
    return s;
}

// trunc(x), or INT_MIN when x is NaN or beyond the int range, so that a range test on the result
// never sees an undefined conversion.
inline int truncOrMin(float x) {
    constexpr float kIntLimit = 2147483648.0f;  // 2^31
    if (!(x >= -kIntLimit && x < kIntLimit)) {
        return INT_MIN;
    }
    return static_cast<int>(x);
}

struct Projection {
    float fx, fy, cxHalf, cyHalf;
    int width, height;
};

Projection projectionOf(const DepthFrame& frame) {
    return Projection{frame.projection(0, 0),
                      frame.projection(1, 1),
                      frame.projection(0, 2) + kHalfPixel,
                      frame.projection(1, 2) + kHalfPixel,
                      frame.depth.width(),
                      frame.depth.height()};
}

inline bool loopIsEightCube(const Size& size, int border) {
    return size(0) - border == kCube && size(1) - border == kCube && size(2) - border == kCube;
}

inline void checkFastTables(const Vec2S& v, short maxWeightS) {
    AR_ASSERT(v(1) >= 0 && v(1) < LUT_SIZE);
    AR_ASSERT(gInitializedLUTMaxWeight == maxWeightS);
}

// Walks the fused 8x8x8 lattice points of a 9-cube block with the node scheme of the vector
// kernel: exact inverse depth at 27 nodes, interpolated per plane, per row and along runs of 4,
// positions stepped by additions. For each point that projects into the image onto a measured
// depth, calls fuse(sample, xn, yn, depth, z). Returns without touching the block when it comes
// too close to the camera.
template <typename Fuse>
void forEachEightCubeVoxel(IntegrationHelper::FastVolume& vol, const DepthFrame& depth,
                           const Matrix4& T, Fuse&& fuse) {
    const BlockSteps s = blockSteps(T, vol.spacing());
    InverseZGrid grid;
    setupInverseZGrid(s.origin, s.xStep, s.yStep, s.zStep, grid);
    bool outsideFront = false;
    const bool clip = checkClippingRequired(depth, Size(kCube, kCube, kCube), s.origin, s.xStep,
                                            s.yStep, s.zStep, grid, outsideFront);
    if (outsideFront) {
        return;
    }
    const Projection k = projectionOf(depth);
    const int depthMapWidth = k.width;
    const int depthMapHeight = k.height;
    Vec3 planeStart = s.origin;
    for (int z = 0; z < kCube; ++z) {
        float plane[kNodesPerPlane];
        const int slab = z >> kNodeShift;
        const int zFraction = z & kNodeMask;
        const float tz = static_cast<float>(zFraction) * kNodeFraction;
        for (int n = 0; n < kNodesPerPlane; ++n) {
            const float low = grid.values[kNodesPerPlane * slab + n];
            plane[n] = zFraction == 0
                           ? low
                           : tz * grid.values[kNodesPerPlane * (slab + 1) + n] + (1.0f - tz) * low;
        }
        Vec3 rowStart = planeStart;
        for (int y = 0; y < kCube; ++y) {
            float row[kNodesPerAxis];
            const int lower = y >> kNodeShift;
            const int yFraction = y & kNodeMask;
            const float ty = static_cast<float>(yFraction) * kNodeFraction;
            for (int i = 0; i < kNodesPerAxis; ++i) {
                const float low = plane[kNodesPerAxis * lower + i];
                row[i] = yFraction == 0
                             ? low
                             : ty * plane[kNodesPerAxis * (lower + 1) + i] + (1.0f - ty) * low;
            }
            Vec3 P = rowStart;
            for (int run = 0; run < kCube / kNodeSpacing; ++run) {
                const float step = (row[run + 1] - row[run]) * kNodeFraction;
                float iz = row[run];
                for (int i = 0; i < kNodeSpacing; ++i, iz += step, P += s.xStep) {
                    AR_ASSERT(P(2) >= kMinCameraDepth);
                    const float xn = iz * P(0);
                    const float yn = iz * P(1);
                    AR::Math::Vec2I pixel(truncOrMin(k.cxHalf + k.fx * xn),
                                          truncOrMin(k.cyHalf + k.fy * yn));
                    if (clip) {
                        if (!(pixel(0) >= 0 && pixel(1) >= 0 && pixel(0) < depthMapWidth &&
                              pixel(1) < depthMapHeight)) {
                            continue;
                        }
                    } else {
                        AR_ASSERT(pixel(0) >= 0 && pixel(1) >= 0 && pixel(0) < depthMapWidth &&
                                  pixel(1) < depthMapHeight);
                    }
                    const float d = depth.depth(pixel(0), pixel(1));
                    if (d == 0.0f) {
                        continue;
                    }
                    fuse(vol.at(run * kNodeSpacing + i, y, z), xn, yn, d, P(2));
                }
            }
            rowStart += s.yStep;
        }
        planeStart += s.zStep;
    }
}

}  // namespace

const std::array<int32_t, LUT_SIZE> invIdxPlusOne = makeReciprocals();
const std::array<int32_t, LUT2_SIZE> table2 = makeReciprocals2();

bool setupIntegrateFast(int maxWeight) {
    if (maxWeight >= 1 && maxWeight < LUT_SIZE) {
        if (gInitializedLUTMaxWeight == maxWeight) {
            return true;
        }
        for (int w = 0; w < LUT_SIZE; ++w) {
            gNextWeight[w] = static_cast<uint8_t>(std::min(w + 1, maxWeight));
        }
        gInitializedLUTMaxWeight = maxWeight;
        return true;
    }
    std::fill(std::begin(gNextWeight), std::end(gNextWeight), uint8_t(0));
    gInitializedLUTMaxWeight = -1;
    return false;
}

int fastDiv(int a, int b) {
    AR_ASSERT(b >= 0 && b < LUT_SIZE);
    const int64_t product = static_cast<int64_t>(a) * invIdxPlusOne[b];
    AR_ASSERT(product >= INT32_MIN && product <= INT32_MAX);
    // Arithmetic shift: negative quotients round down.
    return static_cast<int>(product >> kReciprocalShift);
}

void updateFast(Vec2S& v, float value, short maxWeightS) {
    checkFastTables(v, maxWeightS);
    const int w = v(1);
    const int acc = v(0) * w + static_cast<int>(value * kDepthValueRange);
    const int b = std::min(std::max(fastDiv(acc, w), -kMaxValue), kMaxValue);
    v(0) = static_cast<short>(b);
    v(1) = gNextWeight[w];
}

void updateFast8(Vec2S& v, float value, short maxWeightS) {
    checkFastTables(v, maxWeightS);
    const int w = v(1);
    const int acc = v(0) * w + static_cast<int>(value * kDepthValueRange);
    const int b = fastDiv(acc, w);
    AR_ASSERT(b >= -kMaxValue && b <= kMaxValue);
    v(0) = static_cast<short>(b);
    v(1) = gNextWeight[w];
}

void updateFastFixed(Vec2S& v, const Fx32& value, short maxWeightS) {
    checkFastTables(v, maxWeightS);
    const int w = v(1);
    // Integer part of value * 32766, towards zero: the shift floors, a negative product with a
    // fraction left goes up by one. |value| <= 1.0 keeps the product within 32 bits.
    AR_ASSERT(value.raw >= -kFixedRampOne && value.raw <= kFixedRampOne);
    const int32_t scaled = value.raw * kFixedValueScale;
    int32_t inc = scaled >> kFx16;
    if (scaled < 0 && (scaled & kFractionMask16) != 0) {
        ++inc;
    }
    const int b = fastDiv(v(0) * w + inc, w);
    AR_ASSERT(b >= -kMaxValue && b <= kMaxValue);
    v(0) = static_cast<short>(b);
    v(1) = gNextWeight[w];
}

void updateFastWeighted(Vec2S& v, float value, int weight, int maxWeight) {
    const int w = v(1);
    const int newWeight = w + weight;
    AR_ASSERT(newWeight < LUT2_SIZE);
    const int64_t inc = static_cast<int64_t>(value * kMetreScale);
    const int64_t newDepth =
        ((inc * weight + static_cast<int64_t>(v(0)) * w) * table2[newWeight]) >> kReciprocal2Shift;
    AR_ASSERT(newDepth >= -kMaxWeightedValue && newDepth <= kMaxWeightedValue);
    v(0) = static_cast<short>(newDepth);
    v(1) = static_cast<short>(std::min(newWeight, maxWeight));
}

Fx32_27 invertHQ(const Fx32_27& z) {
    AR_ASSERT(z.raw != 0);
    const int64_t quotient = (int64_t(1) << kInvertNumeratorShift) / z.raw;
    return Fx32_27::fromRaw(static_cast<int32_t>(quotient >> kInvertResultShift));
}

Fx32_27 getDepthFixed(const DepthFrame& frame, const AR::Math::Vec2I& pixel) {
    const uint64_t d64 = frame.depthU16(pixel(0), pixel(1));
    AR_ASSERT(d64 < kMaxFixedDepthMillimetres);
    return Fx32_27::fromRaw(static_cast<int32_t>((d64 * kMillimetreToFx27) >> kMillimetreShift));
}

int integrateFast(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                  float ramp, float maxWeight, int border) {
    AR_ASSERT(depth.depth.numPixels() > 0);
    const Size& size = vol.size();
    const Size n(size(0) - border, size(1) - border, size(2) - border);
    const BlockSteps s = blockSteps(T, vol.spacing());
    bool outsideFront = false;
    const bool clip =
        checkClippingRequired(depth, n, s.origin, s.xStep, s.yStep, s.zStep, outsideFront);
    if (outsideFront) {
        return 0;
    }
    const short maxWeightS = static_cast<short>(static_cast<int>(maxWeight));
    const float invRamp = 1.0f / ramp;
    const Projection k = projectionOf(depth);
    const Vec3& spacing = vol.spacing();
    for (int z = 0; z < n(2); ++z) {
        // Rows start where the reference kernel starts them, with the same rounding.
        const float zPos = static_cast<float>(z) * spacing(2);
        Vec3 row;
        for (int r = 0; r < 3; ++r) {
            row(r) = T(r, 2) * zPos + T(r, 3);
        }
        for (int y = 0; y < n(1); ++y, row += s.yStep) {
            Vec3 P = row;
            for (int runStart = 0; runStart < n(0); runStart += kFastRunLength) {
                float invZ = 1.0f / P(2);
                const float invZEnd =
                    1.0f / (P(2) + static_cast<float>(kFastRunLength) * s.xStep(2));
                AR_ASSERT(std::fabs(invZ * P(2) - 1.0f) < kMaxReciprocalError);
                const float step = (invZEnd - invZ) * kFastRunFraction;
                const int runEnd = std::min(runStart + kFastRunLength, n(0));
                for (int x = runStart; x < runEnd; ++x, invZ += step, P += s.xStep) {
                    AR_ASSERT(P(2) >= kMinCameraDepth);
                    const float xn = invZ * P(0);
                    const float yn = invZ * P(1);
                    const int u = truncOrMin(k.fx * xn + k.cxHalf);
                    const int v = truncOrMin(k.fy * yn + k.cyHalf);
                    const bool inside = u >= 0 && v >= 0 && u < k.width && v < k.height;
                    if (!inside) {
                        AR_ASSERT(clip);
                        continue;
                    }
                    const float d = depth.depth(u, v);
                    if (d == 0.0f) {
                        continue;
                    }
                    const float sdf = (kRadialC0 + (xn * xn + yn * yn) * kRadialC1) * (d - P(2));
                    if (sdf > -ramp) {
                        updateFast(vol.at(x, y, z), std::min(sdf * invRamp, 1.0f), maxWeightS);
                    }
                }
            }
        }
    }
    return 0;
}

int integrateFast8(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                   float ramp, float maxWeight, int border) {
    AR_ASSERT(depth.depth.numPixels() > 0);
    if (!loopIsEightCube(vol.size(), border)) {
        AR_ASSERT(false && "integrateFast8(): Only runs with 8x8x8");
    }
    const short maxWeightS = static_cast<short>(static_cast<int>(maxWeight));
    const float invRamp = 1.0f / ramp;
    forEachEightCubeVoxel(vol, depth, T, [&](Vec2S& sample, float xn, float yn, float d, float z) {
        const float sdf = (kRadialC0 + kRadialC1 * (xn * xn + yn * yn)) * (d - z);
        if (sdf > -ramp) {
            updateFast8(sample, std::min(sdf * invRamp, 1.0f), maxWeightS);
        }
    });
    return 0;
}

int integrateFast8Weighted(IntegrationHelper::FastVolume& vol, const DepthFrame& depth,
                           const Matrix4& T, float ramp, float fusionWeight, float maxWeight,
                           int border) {
    AR_ASSERT(depth.depth.numPixels() > 0);
    const int weight = static_cast<int>(fusionWeight * kWeightScale);
    AR_ASSERT(weight > 0 && weight <= kMaxFusionWeight);
    const int maxW = static_cast<int>(maxWeight * kWeightScale);
    if (!loopIsEightCube(vol.size(), border)) {
        AR_ASSERT(false && "integrateFast8Weighted(): Only runs with 8x8x8");
    }
    forEachEightCubeVoxel(vol, depth, T, [&](Vec2S& sample, float xn, float yn, float d, float z) {
        const float sdf = (kRadialC0 + kRadialC1 * (xn * xn + yn * yn)) * (d - z);
        if (sdf > -ramp) {
            updateFastWeighted(sample, std::min(sdf, ramp), weight, maxW);
        }
    });
    return 0;
}

int integrateFastFixed(IntegrationHelper::FastVolume& vol, const DepthFrame& depth,
                       const Matrix4& T, float ramp, float maxWeight, int border) {
    AR_ASSERT(depth.depthU16.numPixels() > 0);
    const Size& size = vol.size();
    const Size n(size(0) - border, size(1) - border, size(2) - border);
    const BlockSteps s = blockSteps(T, vol.spacing());
    bool outsideFront = false;
    const bool clip =
        checkClippingRequired(depth, n, s.origin, s.xStep, s.yStep, s.zStep, outsideFront);
    if (outsideFront) {
        return 0;
    }
    const short maxWeightS = static_cast<short>(static_cast<int>(maxWeight));
    const int64_t fx = Fx32::fromFloat(depth.projection(0, 0)).raw;
    const int64_t fy = Fx32::fromFloat(depth.projection(1, 1)).raw;
    const int64_t cxHalf = Fx32::fromFloat(depth.projection(0, 2) + kHalfPixel).raw;
    const int64_t cyHalf = Fx32::fromFloat(depth.projection(1, 2) + kHalfPixel).raw;
    const int64_t invRamp = Fx32::fromFloat(1.0f / ramp).raw;
    int32_t origin[3], xStep[3], yStep[3], zStep[3];
    for (int r = 0; r < 3; ++r) {
        origin[r] = Fx32_27::fromFloat(s.origin(r)).raw;
        xStep[r] = Fx32_27::fromFloat(s.xStep(r)).raw;
        yStep[r] = Fx32_27::fromFloat(s.yStep(r)).raw;
        zStep[r] = Fx32_27::fromFloat(s.zStep(r)).raw;
    }
    const int32_t minZ = Fx32_27::fromFloat(kMinCameraDepth).raw;
    const int width = depth.depth.width();
    const int height = depth.depth.height();
    int32_t planeStart[3] = {origin[0], origin[1], origin[2]};
    for (int z = 0; z < n(2); ++z) {
        int32_t rowStart[3] = {planeStart[0], planeStart[1], planeStart[2]};
        for (int y = 0; y < n(1); ++y) {
            int32_t P[3] = {rowStart[0], rowStart[1], rowStart[2]};
            for (int runStart = 0; runStart < n(0); runStart += kFixedRunLength) {
                int32_t invZ = invertHQ(Fx32_27::fromRaw(P[2])).raw;
                const int32_t invZEnd =
                    invertHQ(Fx32_27::fromRaw(P[2] + kFixedRunLength * xStep[2])).raw;
                const int32_t step = (invZEnd - invZ) >> kFixedRunShift;
                const int runEnd = std::min(runStart + static_cast<int>(kFixedRunLength), n(0));
                for (int x = runStart; x < runEnd; ++x) {
                    const int32_t Pz = P[2];
                    const int32_t Px = P[0];
                    const int32_t Py = P[1];
                    const int32_t iz = invZ;
                    invZ += step;
                    for (int r = 0; r < 3; ++r) {
                        P[r] += xStep[r];
                    }
                    if (Pz < minZ) {
                        AR_ASSERT(clip);  // XYZ_fx(2) >= 0.0001 holds for every unclipped block
                        continue;
                    }
                    const int32_t xn = static_cast<int32_t>((int64_t(Px) * iz) >> kFx27);
                    const int32_t yn = static_cast<int32_t>((int64_t(Py) * iz) >> kFx27);
                    const int64_t pu = cxHalf + ((int64_t(xn) * fx) >> kFx27);
                    const int64_t pv = cyHalf + ((int64_t(yn) * fy) >> kFx27);
                    const AR::Math::Vec2I pixel_int(static_cast<int>(pu >> kFx16),
                                                    static_cast<int>(pv >> kFx16));
                    const bool inside = pixel_int(0) >= 0 && pixel_int(1) >= 0 &&
                                        pixel_int(0) < width && pixel_int(1) < height;
                    if (!inside) {
                        AR_ASSERT(clip);
                        continue;
                    }
                    const int32_t d = getDepthFixed(depth, pixel_int).raw;
                    if (d == 0) {
                        continue;
                    }
                    const int32_t r2 = static_cast<int32_t>((int64_t(xn) * xn) >> kFx27) +
                                       static_cast<int32_t>((int64_t(yn) * yn) >> kFx27);
                    const int32_t c = kRadialC0Fixed +
                                      static_cast<int32_t>((int64_t(r2) * kRadialC1Fixed) >> kFx27);
                    const int32_t diff = d - Pz;
                    const int32_t scaledDiff = static_cast<int32_t>((int64_t(c) * diff) >> kFx27);
                    int32_t sdf = static_cast<int32_t>((int64_t(scaledDiff) * invRamp) >> kFx27);
                    if (sdf > -kFixedRampOne) {
                        sdf = std::min(sdf, kFixedRampOne);
                        updateFastFixed(vol.at(x, y, z), Fx32::fromRaw(sdf), maxWeightS);
                    }
                }
            }
            for (int r = 0; r < 3; ++r) {
                rowStart[r] += yStep[r];
            }
        }
        for (int r = 0; r < 3; ++r) {
            planeStart[r] += zStep[r];
        }
    }
    return 0;
}

void integrateFastSPXLSMPerFrameSetup(const DepthFrame& /*frame*/) {}

int integrateFastSPX(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                     float ramp, float maxWeight, int border) {
    integrateRef(vol, depth, T, ramp, maxWeight, border);
    return 0;
}

}  // namespace Solid
