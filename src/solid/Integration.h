// Reference fusion of one depth frame into one block: per-voxel projective truncated signed
// distance. Every faster kernel approximates these.
//
// `T` maps block-local metres to camera metres; `ramp` is the half width of the band in metres
// (above 0); `maxWeight` caps the observation count (truncated to an integer); `border` lattice
// planes at the upper end of each axis are left out (the border copy fills them). The caller
// holds the block's mutex.
#ifndef VELMORA_SOLID_INTEGRATION_H
#define VELMORA_SOLID_INTEGRATION_H

#include "solid/Frames.h"
#include "solid/Volume.h"

namespace Solid {

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

}  // namespace Solid

#endif  // VELMORA_SOLID_INTEGRATION_H
