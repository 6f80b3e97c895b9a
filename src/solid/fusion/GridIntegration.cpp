#include "solid/fusion/GridIntegration.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "common/Logger.h"
#include "common/Timing.h"
#include "common/Trace.h"
#include "solid/fusion/Integration.h"
#include "solid/fusion/IntegrationFast.h"
#include "solid/fusion/IntegrationMT.h"

namespace Solid {

namespace {

bool isNineCube(const VolumeConfig& config) {
    return config.size(0) == 9 && config.size(1) == 9 && config.size(2) == 9;
}

// The border argument of every kernel call: the last lattice plane is the border copy's.
constexpr int kKernelBorder = 1;

// One block of the depth grid. The checks run in the order 5, 4, 2, 3, 1, then the reference.
void integrateBlock(DepthVolume& block, const DepthFrame& frame, const Matrix4& T, float ramp,
                    float fusionWeight, float maxWeight, Acceleration acceleration, bool nineCube) {
    if (nineCube && acceleration == kAccelerationFast8Weighted) {
        integrateFast8Weighted(block, frame, T, ramp, fusionWeight, maxWeight, kKernelBorder);
    } else if (nineCube && acceleration == kAccelerationTavric) {
        integrateTavric(block, frame, T, ramp, maxWeight, kKernelBorder);
    } else if (acceleration == kAccelerationFastFixed) {
        integrateFastFixed(block, frame, T, ramp, maxWeight, kKernelBorder);
    } else if (nineCube && acceleration == kAccelerationFast8) {
        integrateFast8(block, frame, T, ramp, maxWeight, kKernelBorder);
    } else if (acceleration == kAccelerationFast) {
        integrateFast(block, frame, T, ramp, maxWeight, kKernelBorder);
    } else {
        integrate(block, frame, T, ramp, maxWeight, kKernelBorder);
    }
}

// One block of the combined grid: the label-depth table, gaps included.
void integrateBlock(LabelDepthVolume& block, const LabelDepthFrame& frame, const Matrix4& T,
                    float ramp, float /*fusionWeight*/, float maxWeight, Acceleration acceleration,
                    bool nineCube) {
    const DepthFrame& depthOnly = frame;
    if (nineCube && acceleration == kAccelerationFast8Weighted) {
        return;  // this combination fuses nothing: the block stays as it was
    }
    if (acceleration == kAccelerationFast || acceleration == kAccelerationFastFixed ||
        (nineCube && (acceleration == kAccelerationFast8 || acceleration == kAccelerationTavric))) {
        integrate(block, depthOnly, T, ramp, maxWeight, kKernelBorder);
        return;
    }
    integrate(block, frame, T, ramp, maxWeight, kKernelBorder, 0.0f);
}

// Values whose kernels share the reciprocal tables, which must be set up for the weight cap.
bool usesFastTables(Acceleration acceleration) {
    return acceleration == kAccelerationFast || acceleration == kAccelerationFastFixed ||
           acceleration == kAccelerationFast8;
}

}  // namespace

Matrix4 blockToCamera(const Matrix4& worldToCamera, const Vec3& dimension, const KeyType& key) {
    Matrix4 translation = Matrix4::identity();
    for (int r = 0; r < 3; ++r) {
        translation(r, 3) = dimension(r) * static_cast<float>(key(r));
    }
    return worldToCamera * translation;
}

namespace {

// The table entries of a frame's blocks, found once: entries never move or vanish while the grid
// lives, so the kernels need no second lookup under the grid lock.
template <typename GridType>
using ResolvedBlocks = std::vector<std::pair<KeyType, const typename GridType::Entry*>>;

template <typename GridType>
IndexSet createResolved(const BlockInfoMapType& blocks, GridType& grid, IntegrationStats& stats,
                        ResolvedBlocks<GridType>* resolved) {
    AR::Common::Timing timing;
    timing.beginSection(true);
    IndexSet result(blocks.size());
    stats.createdBlocks = 0;
    if (resolved != nullptr) {
        resolved->clear();
        resolved->reserve(blocks.size());
    }
    for (const auto& item : blocks) {
        result.insert(item.first);
        // Most blocks of a frame exist already: a lookup under the read lock finds them, and
        // only a missing block takes the write lock.
        const typename GridType::Entry* entry = grid.findEntry(item.first);
        if (entry == nullptr) {
            if (grid.ensure(item.first)) {
                ++stats.createdBlocks;
            }
            entry = grid.findEntry(item.first);
        }
        AR_ASSERT(entry != nullptr);
        if (resolved != nullptr) {
            resolved->emplace_back(item.first, entry);
        }
        auto block = GridType::lockEntry(*entry);
        block->setBestSampleDistance(
            std::min(block->bestSampleDistance(), item.second.bestSampleDistance));
    }
    AR_LOG_VERBOSE("created %zu new blocks", stats.createdBlocks);
    timing.endSection();
    stats.createTime = timing.getDurationMilliseconds(false);
    return result;
}

template <typename GridType, typename FrameType>
void integrateResolved(GridType& grid, const FrameType& frame, const IndexSet& blocks,
                       const ResolvedBlocks<GridType>* resolved, const SensorErrorModel& errorModel,
                       float maxWeight, IntegrationStats& stats, Acceleration acceleration) {
    AR::Common::Timing timing;
    timing.beginSection(true);
    if (usesFastTables(acceleration)) {
        const bool setUp = setupIntegrateFast(static_cast<int>(maxWeight));
        AR_ASSERT(setUp);
    }
    const VolumeConfig& config = grid.config();
    const bool nineCube = isNineCube(config);
    if (!blocks.empty() && nineCube && acceleration == kAccelerationMultiThreaded) {
        integrateFastSPX_MT(grid, frame, blocks, errorModel, maxWeight);
    } else if (!blocks.empty()) {
        // Lattice point (size / 2) in integer division: (4, 4, 4) of a 9-cube.
        AR::Math::Vector<float, 4> centreOffset;
        for (int a = 0; a < 3; ++a) {
            centreOffset(a) = static_cast<float>(config.size(a) / 2) * config.spacing(a);
        }
        centreOffset(3) = 1.0f;
        ResolvedBlocks<GridType> found;
        if (resolved == nullptr) {
            found.reserve(blocks.size());
            for (const KeyType& key : blocks) {
                found.emplace_back(key, grid.findEntry(key));
            }
            resolved = &found;
        }
        // Each block is fused on its own, so the order of the list does not matter.
        for (const auto& item : *resolved) {
            AR::Common::ScopedTrace trace("IntegrateBlock");
            AR_ASSERT(item.second != nullptr);
            auto block = GridType::lockEntry(*item.second);
            const Matrix4 T = blockToCamera(frame.pose, grid.dimension(), item.first);
            const AR::Math::Vector<float, 4> c = T * centreOffset;
            const Vec3 centre(c(0), c(1), c(2));
            const float fusionWeight = errorModel.getFusionWeight(centre);
            const float ramp = errorModel.getIntegrationRamp(centre);
            integrateBlock(*block, frame, T, ramp, fusionWeight, maxWeight, acceleration, nineCube);
        }
    }
    timing.endSection();
    stats.integrateTime = timing.getDurationMilliseconds(false);
    stats.integratedBlocks = blocks.size();
}

}  // namespace

template <typename GridType>
IndexSet createBlocks(const BlockInfoMapType& blocks, GridType& grid, IntegrationStats& stats) {
    return createResolved<GridType>(blocks, grid, stats, nullptr);
}

template <typename GridType, typename FrameType>
void integrateBlocks(GridType& grid, const FrameType& frame, const IndexSet& blocks,
                     const SensorErrorModel& errorModel, float maxWeight, IntegrationStats& stats,
                     Acceleration acceleration) {
    integrateResolved(grid, frame, blocks, static_cast<const ResolvedBlocks<GridType>*>(nullptr),
                      errorModel, maxWeight, stats, acceleration);
}

template <typename GridType, typename FrameType>
IndexSet integrate(GridType& grid, const FrameType& frame, const SensorErrorModel& errorModel,
                   float maxWeight, IntegrationStats& stats, Acceleration acceleration,
                   int prepareStep, float numSamplesFilter, float maxBestSampleDistanceFilter,
                   const IndexSet* blocksToUpdate, size_t selectRepeats, size_t createRepeats,
                   size_t integrateRepeats, SaturationManager<float, GridType>* saturationManager) {
    AR_ASSERT(selectRepeats >= 1 && createRepeats >= 1);
    BlockInfoMapType blocks;
    {
        AR::Common::ScopedTrace trace("selectBlocks");
        blocks = selectBlocks(grid, frame, errorModel, stats, prepareStep, numSamplesFilter,
                              maxBestSampleDistanceFilter, blocksToUpdate, saturationManager);
    }
    IndexSet result;
    ResolvedBlocks<GridType> resolved;
    {
        AR::Common::ScopedTrace trace("createBlocks");
        result = createResolved(blocks, grid, stats, &resolved);
    }
    for (size_t i = 1; i < selectRepeats; ++i) {
        selectBlocks(grid, frame, errorModel, stats, prepareStep, numSamplesFilter,
                     maxBestSampleDistanceFilter, blocksToUpdate, saturationManager);
    }
    for (size_t i = 1; i < createRepeats; ++i) {
        createBlocks(blocks, grid, stats);
    }
    for (size_t i = 0; i < integrateRepeats; ++i) {
        AR::Common::ScopedTrace trace("integrate");
        integrateResolved(grid, frame, result, &resolved, errorModel, maxWeight, stats,
                          acceleration);
    }
    stats.totalBlocks = grid.size();
    AR_LOG_VERBOSE("single-volume integration integrated %zu blocks, total block number is %zu",
                   stats.integratedBlocks, stats.totalBlocks);
    return result;
}

template IndexSet createBlocks(const BlockInfoMapType&, DepthGrid&, IntegrationStats&);
template IndexSet createBlocks(const BlockInfoMapType&, LabelDepthGrid&, IntegrationStats&);
template void integrateBlocks(DepthGrid&, const DepthFrame&, const IndexSet&,
                              const SensorErrorModel&, float, IntegrationStats&, Acceleration);
template void integrateBlocks(LabelDepthGrid&, const LabelDepthFrame&, const IndexSet&,
                              const SensorErrorModel&, float, IntegrationStats&, Acceleration);
template IndexSet integrate(DepthGrid&, const DepthFrame&, const SensorErrorModel&, float,
                            IntegrationStats&, Acceleration, int, float, float, const IndexSet*,
                            size_t, size_t, size_t, SaturationManager<float, DepthGrid>*);
template IndexSet integrate(LabelDepthGrid&, const LabelDepthFrame&, const SensorErrorModel&, float,
                            IntegrationStats&, Acceleration, int, float, float, const IndexSet*,
                            size_t, size_t, size_t, SaturationManager<float, LabelDepthGrid>*);

}  // namespace Solid
