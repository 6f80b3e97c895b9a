// Fusion of one frame into a grid: select the blocks the frame touches, create the missing ones,
// and run a kernel on each with its mutex held. The kernel is chosen by `Acceleration` and the
// block shape; the frame path uses the reference kernel with labels in combined mode and the
// vector kernel in split mode, the others stay selectable alternatives.
#ifndef VELMORA_SOLID_FUSION_GRIDINTEGRATION_H
#define VELMORA_SOLID_FUSION_GRIDINTEGRATION_H

#include <cstddef>

#include "solid/fusion/BlockSelection.h"
#include "solid/fusion/IntegrationStats.h"
#include "solid/fusion/SensorErrorModel.h"
#include "solid/volume/Frames.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

// Kernel selection; the values are what callers pass.
enum Acceleration : int {
    kAccelerationReference = 0,      // single-precision reference kernel, any shape
    kAccelerationFast = 1,           // fast floating-point kernel, any shape
    kAccelerationFastFixed = 2,      // fixed-point kernel, any shape
    kAccelerationFast8 = 3,          // eight-cube kernel, 9x9x9 blocks
    kAccelerationTavric = 4,         // vector depth-fusion kernel, 9x9x9 blocks
    kAccelerationFast8Weighted = 5,  // weighted eight-cube kernel, 9x9x9 blocks
    kAccelerationMultiThreaded = 6,  // all blocks at once on the worker pool, 9x9x9 blocks
};

// Selects, creates and fuses; returns every block selected for the frame (also those only reached
// through a neighbour's ramp). The repeat counts re-run stages to measure them; `selectRepeats`
// and `createRepeats` must be at least 1, `integrateRepeats` 0 leaves the frame unfused.
template <typename GridType, typename FrameType>
IndexSet integrate(GridType& grid, const FrameType& frame, const SensorErrorModel& errorModel,
                   float maxWeight, IntegrationStats& stats, Acceleration acceleration,
                   int prepareStep, float numSamplesFilter, float maxBestSampleDistanceFilter,
                   const IndexSet* blocksToUpdate, size_t selectRepeats, size_t createRepeats,
                   size_t integrateRepeats, SaturationManager<float, GridType>* saturationManager);

// Creates the blocks of `blocks` that are missing and lowers each block's best sample distance.
template <typename GridType>
IndexSet createBlocks(const BlockInfoMapType& blocks, GridType& grid, IntegrationStats& stats);

// Runs the kernel chosen by `acceleration` on every block of `blocks`; they must exist.
template <typename GridType, typename FrameType>
void integrateBlocks(GridType& grid, const FrameType& frame, const IndexSet& blocks,
                     const SensorErrorModel& errorModel, float maxWeight, IntegrationStats& stats,
                     Acceleration acceleration);

// Block-local metres to camera metres for block `key` of a grid with blocks of `dimension`.
Matrix4 blockToCamera(const Matrix4& worldToCamera, const Vec3& dimension, const KeyType& key);

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_GRIDINTEGRATION_H
