// Fusion of all selected blocks of a frame at once on the worker pool (Acceleration 6 on 9-cube
// blocks). Each pool task fuses one block with its mutex held, so blocks are independent and the
// frame is only read. The pool (four threads, one per grid type) is made on first use and lives
// until process exit; this function must be called from one thread at a time.
#ifndef VELMORA_SOLID_FUSION_INTEGRATIONMT_H
#define VELMORA_SOLID_FUSION_INTEGRATIONMT_H

#include "solid/fusion/SensorErrorModel.h"
#include "solid/volume/Frames.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

// Depth grid: the double-precision reference per block. Label-depth grid: the depth part of the
// reference only, labels are not counted. Every block of `blocks` must exist.
template <typename GridType, typename FrameType>
void integrateFastSPX_MT(GridType& grid, const FrameType& frame, const IndexSet& blocks,
                         const SensorErrorModel& errorModel, float maxWeight);

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_INTEGRATIONMT_H
