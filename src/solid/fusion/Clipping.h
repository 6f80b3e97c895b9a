// Whether a cube of lattice points projects safely inside the depth image, so that a kernel may
// skip its per-pixel bounds tests, or comes too close to the camera to be fused at all. The grid
// form works on the node kernels' own inverse-depth interpolation, so that the test and the
// kernel agree on where each corner lands; the division form serves the kernels that step the
// inverse depth along rows.
#ifndef VELMORA_SOLID_FUSION_CLIPPING_H
#define VELMORA_SOLID_FUSION_CLIPPING_H

#include "solid/volume/Frames.h"

namespace Solid {

// Exact inverse depths at lattice indices 0, 4, 8 of each axis: node (i, j, k) at
// values[9 * k + 3 * j + i].
struct InverseZGrid {
    float values[27];
};

// Corners whose interpolated inverse depth reaches this (1 / 0.1 mm) are too near the camera
// plane, or across it.
constexpr float kMaxInverseDepth = 10000.0f;

void setupInverseZGrid(const Vec3& origin, const Vec3& xStep, const Vec3& yStep, const Vec3& zStep,
                       InverseZGrid& grid);

// True when a corner of the cube (lattice indices 0 and size - 1) projects within one pixel of
// the image border or outside it. Sets `outsideFront` (and returns false) when a corner comes too
// close to the camera; the cube must then be left alone.
bool checkClippingRequired(const DepthFrame& frame, const Size& size, const Vec3& origin,
                           const Vec3& xStep, const Vec3& yStep, const Vec3& zStep,
                           const InverseZGrid& grid, bool& outsideFront);
// The same test with an exact division per corner (lattice indices 0 and size - 1 of each axis):
// a corner nearer than 0.1 mm to the camera plane sets `outsideFront`. For kernels that step the
// inverse depth along rows rather than through the node grid.
bool checkClippingRequired(const DepthFrame& frame, const Size& size, const Vec3& origin,
                           const Vec3& xStep, const Vec3& yStep, const Vec3& zStep,
                           bool& outsideFront);

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_CLIPPING_H
