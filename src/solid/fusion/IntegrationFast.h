// Alternative depth kernels for machines where division or floating point is dear. Each
// approximates the reference update of Integration.h on the depth sample; none is on the frame
// path, the grid driver selects them by `Acceleration`.
//
// - integrateFast: single precision, the inverse depth stepped linearly along runs of 8 voxels,
//   the running average by a table of reciprocals.
// - integrateFast8: the 3x3x3 inverse-depth node scheme of the vector kernel in plain code.
// - integrateFastFixed: all fixed point, on the 16-bit millimetre depth image.
// - integrateFast8Weighted: like integrateFast8 with the sensor model's fusion weight; it stores
//   distances in 1/32768 metre and weights in sixteenths, so a grid must not mix it with others.
// - integrateFastSPX: the per-block kernel of the multi-threaded path, the double-precision
//   reference.
//
// The reciprocal and next-weight tables are process-wide. `setupIntegrateFast` writes them on
// the submission thread before any of these kernels runs; they are only read afterwards. Two
// grids with different maximum weights invalidate each other's table, and the kernels abort.
// Every violated precondition aborts; the kernels have no graceful path for unexpected data.
#ifndef VELMORA_SOLID_FUSION_INTEGRATIONFAST_H
#define VELMORA_SOLID_FUSION_INTEGRATIONFAST_H

#include <array>
#include <cstdint>

#include "math/FixedPoint.h"
#include "solid/fusion/Integration.h"

namespace Solid {

using Fx32 = AR::Math::Fx32_T<16>;
using Fx32_27 = AR::Math::Fx32_T<27>;  // range plus or minus 16

// Weights the reciprocal tables of the fast kernels cover: 0 to 63.
constexpr int LUT_SIZE = 64;
// Weights (in sixteenths) the table of the weighted kernel covers: 0 to 511.
constexpr int LUT2_SIZE = 512;

// invIdxPlusOne[w] = floor(65536 / (w + 1)).
extern const std::array<int32_t, LUT_SIZE> invIdxPlusOne;
// table2[i] = floor(2^30 / i), entry 0 is 0.
extern const std::array<int32_t, LUT2_SIZE> table2;

// Builds the next-weight table (min(w + 1, maxWeight)) for maxWeight 1 to 63 and returns true;
// a second call with the same value returns at once. Any other value invalidates the table and
// returns false.
bool setupIntegrateFast(int maxWeight);

// (a * invIdxPlusOne[b]) >> 16: a / (b + 1), the shift flooring negative quotients. The product
// must fit 32 bits.
int fastDiv(int a, int b);

// Running average by the reciprocal table; `value` in ramps, at most 1. Clamps the result.
void updateFast(Vec2S& v, float value, short maxWeightS);
// As updateFast, but a result outside [-32766, 32766] aborts instead of being clamped.
void updateFast8(Vec2S& v, float value, short maxWeightS);
// As updateFast8 with a 16.16 value in ramps.
void updateFastFixed(Vec2S& v, const Fx32& value, short maxWeightS);
// Weighted average: `value` in metres (at most the ramp), `weight` and `maxWeight` in sixteenths.
void updateFastWeighted(Vec2S& v, float value, int weight, int maxWeight);

// 1 / z in the same format: the 64-bit quotient 2^60 / z, shifted right by 6. z must not be 0.
Fx32_27 invertHQ(const Fx32_27& z);
// The millimetre depth at `pixel` of `frame.depthU16` in metres with 27 fraction bits; it must be
// below 8 m.
Fx32_27 getDepthFixed(const DepthFrame& frame, const AR::Math::Vec2I& pixel);

// The kernels; `T` maps block-local metres to camera metres. They return 0 (no caller uses it),
// also when the block comes too close to the camera and is left alone.
int integrateFast(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                  float ramp, float maxWeight, int border);
// 9-cube blocks with border 1 only.
int integrateFast8(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                   float ramp, float maxWeight, int border);
// Reads `depth.depthU16`, which the frame path leaves empty: the caller must fill it, at the size
// of `depth.depth`, which the bounds tests use. Depths of 8 m or more abort. The inverse depth has
// 27 fraction bits and so wraps for camera depths below 1/16 m.
int integrateFastFixed(IntegrationHelper::FastVolume& vol, const DepthFrame& depth,
                       const Matrix4& T, float ramp, float maxWeight, int border);
// 9-cube blocks with border 1 only; `fusionWeight` in (0, 1].
int integrateFast8Weighted(IntegrationHelper::FastVolume& vol, const DepthFrame& depth,
                           const Matrix4& T, float ramp, float fusionWeight, float maxWeight,
                           int border);

// Hook at the start of a multi-threaded pass; nothing to prepare in this system.
void integrateFastSPXLSMPerFrameSetup(const DepthFrame& frame);
// The per-block kernel of the multi-threaded pass: the double-precision reference. Returns 0.
int integrateFastSPX(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                     float ramp, float maxWeight, int border);

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_INTEGRATIONFAST_H
