// Which blocks a depth frame touches. Every valid depth pixel is unprojected and hits its block,
// and the face neighbours that the truncation band reaches into. Three optional filters may then
// drop blocks: an allow-list, a minimum hit density, and per-block saturation by viewpoint.
// Only blocks found here are created or fused, so the grid follows the seen surfaces and space
// that was only carved through stays unallocated.
#ifndef VELMORA_SOLID_FUSION_BLOCKSELECTION_H
#define VELMORA_SOLID_FUSION_BLOCKSELECTION_H

#include <cstdint>

#include "common/FlatMap.h"
#include "solid/fusion/IntegrationStats.h"
#include "solid/fusion/SensorErrorModel.h"
#include "solid/volume/Frames.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

struct BlockInfo {
    uint32_t numHits = 0;                              // pixels in the block or within a ramp
    float bestSampleDistance = kUnseenSampleDistance;  // smallest depth among them, metres
};

using BlockInfoMapType = AR::Common::FlatMap<KeyType, BlockInfo, AR::Common::hash<KeyType>>;

struct SaturationInfo {
    AR::Common::Vector<unsigned char> bins;  // observation count per viewpoint class
    uint32_t numSaturated = 0;               // bins that reached the manager's maxCount
};

// Stops fusing a block once it has been seen often enough from every class of viewpoint (a
// direction class times a distance class). Not thread-safe; the frame path owns it.
template <typename T, typename GridType>
class SaturationManager {
public:
    SaturationManager(uint32_t maxCount, uint32_t numBins)
        : mMaxCount(maxCount), mNumBins(numBins) {}

    // Ascending upper limits (metres) of the distance classes; a farther camera is the last class.
    AR::Common::Vector<T>& distances() { return mDistances; }
    // Representative camera offsets of the direction classes (not normalised).
    AR::Common::Vector<Vec3>& directions() { return mDirections; }

    // Counts one view of block `key` from camera offset `relativeCameraPosition` (camera minus
    // block centre). False when the block, or this viewpoint class of it, is saturated.
    bool update(const KeyType& key, const Vec3& relativeCameraPosition);

private:
    uint32_t mMaxCount;
    uint32_t mNumBins;
    AR::Common::FlatMap<KeyType, SaturationInfo, AR::Common::hash<KeyType>> mBlocks;
    AR::Common::Vector<T> mDistances;
    AR::Common::Vector<Vec3> mDirections;
};

// The blocks of `frame`, with their hit counts. `prepareStep` samples every n-th pixel of every
// n-th row; `numSamplesFilter` (> 0) drops blocks hit by fewer than that fraction of one block
// face's pixels; `maxBestSampleDistanceFilter` (> 0) ignores pixels farther than that factor times
// the distance a block was best seen from; `blocksToUpdate` (non-null) is an allow-list.
template <typename GridType, typename FrameType>
BlockInfoMapType selectBlocks(const GridType& grid, const FrameType& frame,
                              const SensorErrorModel& errorModel, IntegrationStats& stats,
                              int prepareStep, float numSamplesFilter,
                              float maxBestSampleDistanceFilter, const IndexSet* blocksToUpdate,
                              SaturationManager<float, GridType>* saturationManager);

template <typename GridType>
void findHitBlocks(BlockInfoMapType& map, IntegrationStats& stats, const GridType& grid,
                   const DepthFrame& frame, const SensorErrorModel& errorModel, int prepareStep,
                   float maxBestSampleDistanceFilter);

void filterNonSpecifiedBlocks(BlockInfoMapType& map, const IndexSet* blocksToUpdate);

void filterLowHitDensityBlocks(BlockInfoMapType& map, float numSamplesFilter, int cellsPerEdge,
                               int prepareStep);

template <typename GridType>
void filterSaturatedBlocks(BlockInfoMapType& map, const GridType& grid, const DepthFrame& frame,
                           SaturationManager<float, GridType>* saturationManager);

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_BLOCKSELECTION_H
