// Reference fusion of one depth frame into one block: per-voxel projective truncated signed
// distance. Every faster kernel approximates these.
//
// `T` maps block-local metres to camera metres; `ramp` is the half width of the band in metres
// (above 0); `maxWeight` caps the observation count (truncated to an integer); `border` lattice
// planes at the upper end of each axis are left out (the border copy fills them). The caller
// holds the block's mutex.
#ifndef VELMORA_SOLID_FUSION_INTEGRATION_H
#define VELMORA_SOLID_FUSION_INTEGRATION_H

#include "solid/volume/Frames.h"
#include "solid/volume/Volume.h"

namespace Solid {

// Radial correction of the sensor, (c0 + c1 r^2) with r^2 the squared normalised image radius:
// turns a depth difference along the optical axis into an approximate difference along the ray,
// in place of a square root.
constexpr float kRadialC0 = 1.0028380155563354f;
constexpr float kRadialC1 = 0.4494898021221161f;
// Points nearer to the camera plane than this (metres) are not projected.
constexpr float kMinCameraDepth = 0.0001f;

namespace IntegrationHelper {
using FastVolume = Volume<Vec2S, ReferencedVolumeData>;
}  // namespace IntegrationHelper

// Depth only; for Vec2S and LabelDepthVolumeSample blocks.
template <typename VolumeType, typename VolumeStorage>
void integrate(Volume<VolumeType, VolumeStorage>& vol, const DepthFrame& depth, const Matrix4& T,
               float ramp, float maxWeight, int border);

// Depth and labels; for LabelDepthVolumeSample blocks. Labels are counted where the signed
// distance is within `labelRamp` (0 or less: within `ramp`).
template <typename VolumeType, typename VolumeStorage>
void integrate(Volume<VolumeType, VolumeStorage>& vol, const LabelDepthFrame& depth,
               const Matrix4& T, float ramp, float maxWeight, int border, float labelRamp);

// The depth update computed in double precision, as a yardstick for the float kernels.
void integrateRef(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                  float ramp, float maxWeight, int border);

// The vector kernel of the split run mode, on 9-cube blocks with `border` 1: inverse depth is
// divided exactly at 27 nodes and interpolated in between, and the bounds tests are dropped for
// blocks that project well inside the image. Its weight rule differs from the reference (a stored
// weight above the cap stays), and its value update rounds by an arithmetic shift. Returns 0 when
// the block comes too close to the camera and is left alone, else the kernel's status (0).
int integrateTavric(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                    float ramp, float maxWeight, int border);

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_INTEGRATION_H
