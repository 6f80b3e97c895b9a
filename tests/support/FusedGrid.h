// Fusion of analytic views straight into a grid, for tests of the code that reads grids: the
// frame is built the way the scene's frame path builds it (image intake, inverted host pose,
// intrinsics) and fused with the kernel of the grid's run mode, then the borders are copied.
#ifndef VELMORA_TESTS_SUPPORT_FUSEDGRID_H
#define VELMORA_TESTS_SUPPORT_FUSEDGRID_H

#include "solid/volume/Frames.h"
#include "solid/volume/VolumeGrid.h"
#include "support/AnalyticScene.h"

namespace Velmora {
namespace Test {

// A 9x9x9 grid of `cellSize` metres.
template <typename Grid>
void configureGrid(Grid& grid, float cellSize) {
    grid.set(Solid::Size(9, 9, 9), Solid::Vec3(cellSize, cellSize, cellSize));
}

// Sets `frame.projection` and `frame.pose` (world to camera) for `camera`, and allocates its
// depth image at the camera's size, filled with -1 so that unwritten pixels stand out.
void setUpFrame(Solid::DepthFrame& frame, const PinholeCamera& camera);

// Renders `scene` from `camera` and fuses the view: depth with the vector kernel into a depth
// grid (split mode), depth and labels with the reference kernel into a label-depth grid
// (combined mode).
void fuseView(Solid::DepthGrid& grid, const AnalyticScene& scene, const PinholeCamera& camera,
              float truncation);
void fuseView(Solid::LabelDepthGrid& grid, const AnalyticScene& scene, const PinholeCamera& camera,
              float truncation);

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_SUPPORT_FUSEDGRID_H
