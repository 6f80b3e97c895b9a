#include "solid/fusion/BlockSelection.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "common/Logger.h"
#include "common/Timing.h"
#include "common/Trace.h"
#include "math/MatrixFunctions.h"

namespace Solid {

namespace {

// Walks `map` in slot order and keeps the entries for which `keep` holds.
template <typename Keep>
void keepEntries(BlockInfoMapType& map, Keep keep) {
    BlockInfoMapType kept(map.size());
    for (const auto& entry : map) {
        if (keep(entry)) {
            kept.insert(entry);
        }
    }
    map.swap(kept);
}

// Records hits in the map. Neighbouring pixels mostly hit the same few blocks, so the entries of
// the last keys are remembered; a remembered entry stays where it is until a new key enters the
// map (an insertion may shift or grow the slots), which clears the memory. Keys enter the map in
// the same order as without it, so its slot order is the same.
class HitRecorder {
public:
    explicit HitRecorder(BlockInfoMapType& map) : mMap(map) {}

    void record(const KeyType& key, float depth) {
        if (mMap.size() != mSizeSeen) {
            mCount = 0;
        }
        BlockInfo* info = nullptr;
        for (int i = 0; i < mCount; ++i) {
            if (mKeys[i] == key) {
                info = mInfos[i];
                break;
            }
        }
        if (info == nullptr) {
            info = &mMap[key];
            if (mMap.size() != mSizeSeen) {
                mCount = 0;
                mSizeSeen = mMap.size();
            }
            const int slot = mCount < kRemembered ? mCount++ : (mNext++ % kRemembered);
            mKeys[slot] = key;
            mInfos[slot] = info;
        }
        info->bestSampleDistance = std::min(info->bestSampleDistance, depth);
        ++info->numHits;
    }

private:
    // A pixel hits its block and up to six face neighbours.
    static constexpr int kRemembered = 7;
    BlockInfoMapType& mMap;
    uint32_t mSizeSeen = 0;
    int mCount = 0;
    unsigned mNext = 0;
    KeyType mKeys[kRemembered];
    BlockInfo* mInfos[kRemembered] = {};
};

}  // namespace

template <typename T, typename GridType>
bool SaturationManager<T, GridType>::update(const KeyType& key,
                                            const Vec3& relativeCameraPosition) {
    SaturationInfo fresh;
    fresh.bins.resize(mNumBins);
    auto inserted = mBlocks.insert(key, std::move(fresh));
    SaturationInfo& info = inserted.first->second;
    if (!inserted.second && info.numSaturated == mNumBins) {
        return false;
    }
    uint32_t directionIndex = 0;
    float best = FLT_MAX;
    for (uint32_t i = 0; i < mDirections.size(); ++i) {
        const Vec3 d = mDirections[i] - relativeCameraPosition;
        const float squared = d(0) * d(0) + d(1) * d(1) + d(2) * d(2);
        if (squared < best) {
            best = squared;
            directionIndex = i;
        }
    }
    const Vec3& rel = relativeCameraPosition;
    const T r = std::sqrt(rel(0) * rel(0) + rel(1) * rel(1) + rel(2) * rel(2));
    uint32_t distanceIndex = 0;
    while (distanceIndex < mDistances.size() && !(r <= mDistances[distanceIndex])) {
        ++distanceIndex;
    }
    const uint32_t bin = directionIndex + distanceIndex * mDirections.size();
    unsigned char& count = info.bins[bin];
    if (count >= mMaxCount) {
        return false;
    }
    ++count;
    if (count == mMaxCount) {
        ++info.numSaturated;
    }
    return true;
}

template <typename GridType>
void findHitBlocks(BlockInfoMapType& map, IntegrationStats& stats, const GridType& grid,
                   const DepthFrame& frame, const SensorErrorModel& errorModel, int prepareStep,
                   float maxBestSampleDistanceFilter) {
    const Matrix4 M = frame.projection * frame.pose;
    Matrix4 invM = AR::Math::inverse(M);
    // Points are shifted up by half a voxel before they are assigned to a block.
    const Vec3& spacing = grid.config().spacing;
    for (int r = 0; r < 3; ++r) {
        invM(r, 3) += 0.5f * spacing(r);
    }
    // The product invM * (x d, y d, d, 1) written out per row in the order of the matrix-vector
    // product (sum from column 0 up, starting at 0), on plain floats: this loop runs for every
    // pixel of every frame.
    float m[3][4];
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 4; ++c) {
            m[r][c] = invM(r, c);
        }
    }
    float dimension[3];
    float inverseDimension[3];
    for (int a = 0; a < 3; ++a) {
        dimension[a] = grid.dimension()(a);
        inverseDimension[a] = grid.inverseDimension()(a);
    }
    HitRecorder hits(map);
    stats.visitedPoints = 0;
    stats.acceptedPoints = 0;
    const int width = frame.depth.width();
    const int height = frame.depth.height();
    for (int y = 0; y < height; y += prepareStep) {
        for (int x = 0; x < width; x += prepareStep) {
            ++stats.visitedPoints;
            const float d = frame.depth(x, y);
            if (!(d > 0.0f)) {
                continue;
            }
            const float v[4] = {static_cast<float>(x) * d, static_cast<float>(y) * d, d, 1.0f};
            float p[3];
            KeyType key;
            for (int r = 0; r < 3; ++r) {
                float sum = 0.0f;
                for (int c = 0; c < 4; ++c) {
                    sum += m[r][c] * v[c];
                }
                p[r] = sum;
                key[r] = floorToKey(sum * inverseDimension[r]);
            }
            if (maxBestSampleDistanceFilter > 0.0f) {
                auto block = grid.get(key);
                if (block && d > block->bestSampleDistance() * maxBestSampleDistanceFilter) {
                    continue;
                }
            }
            hits.record(key, d);
            const float ramp = errorModel.getIntegrationRamp(Vec3(0.0f, 0.0f, d));
            for (int axis = 0; axis < 3; ++axis) {
                // Local coordinate: p - dimension * key, as the grid computes it.
                const float local = p[axis] - dimension[axis] * static_cast<float>(key[axis]);
                if (local < ramp) {
                    KeyType lower = key;
                    --lower[axis];
                    hits.record(lower, d);
                }
                if (local > dimension[axis] - ramp) {
                    KeyType upper = key;
                    ++upper[axis];
                    hits.record(upper, d);
                }
            }
            ++stats.acceptedPoints;
        }
    }
}

void filterNonSpecifiedBlocks(BlockInfoMapType& map, const IndexSet* blocksToUpdate) {
    if (blocksToUpdate == nullptr) {
        return;
    }
    keepEntries(map, [&](const auto& entry) { return blocksToUpdate->contains(entry.first); });
}

void filterLowHitDensityBlocks(BlockInfoMapType& map, float numSamplesFilter, int cellsPerEdge,
                               int prepareStep) {
    if (!(numSamplesFilter > 0.0f)) {
        return;
    }
    AR::Common::ScopedTrace trace("filter");
    // A fraction of the pixels of one block face at full resolution, scaled by the pixel step.
    const float n = static_cast<float>(cellsPerEdge);
    const unsigned threshold = static_cast<unsigned>(n * numSamplesFilter * n) /
                               static_cast<unsigned>(prepareStep * prepareStep);
    keepEntries(map, [&](const auto& entry) { return entry.second.numHits >= threshold; });
}

template <typename GridType>
void filterSaturatedBlocks(BlockInfoMapType& map, const GridType& grid, const DepthFrame& frame,
                           SaturationManager<float, GridType>* saturationManager) {
    if (saturationManager == nullptr) {
        return;
    }
    const Matrix4 cameraToWorld = AR::Math::inverse(frame.pose);
    const Vec3 camera(cameraToWorld(0, 3), cameraToWorld(1, 3), cameraToWorld(2, 3));
    const Vec3& dimension = grid.dimension();
    keepEntries(map, [&](const auto& entry) {
        const Vec3 origin = grid.blockOrigin(entry.first);
        const Vec3 centre(0.5f * dimension(0) + origin(0), 0.5f * dimension(1) + origin(1),
                          0.5f * dimension(2) + origin(2));
        return saturationManager->update(entry.first, camera - centre);
    });
}

template <typename GridType, typename FrameType>
BlockInfoMapType selectBlocks(const GridType& grid, const FrameType& frame,
                              const SensorErrorModel& errorModel, IntegrationStats& stats,
                              int prepareStep, float numSamplesFilter,
                              float maxBestSampleDistanceFilter, const IndexSet* blocksToUpdate,
                              SaturationManager<float, GridType>* saturationManager) {
    AR::Common::Timing total;
    AR::Common::Timing stage;
    total.beginSection(true);
    BlockInfoMapType map(grid.size());

    stage.beginSection(true);
    findHitBlocks(map, stats, grid, frame, errorModel, prepareStep, maxBestSampleDistanceFilter);
    stage.endSection();
    stats.hitSearchTime = stage.getDurationMilliseconds(false);
    AR_LOG_VERBOSE("processed %zu out of %d points due to prepareStep %d", stats.visitedPoints,
                   frame.depth.width() * frame.depth.height(), prepareStep);
    AR_LOG_VERBOSE("processed %zu out of %zu points due to maxBestSampleDistanceFilter %f",
                   stats.acceptedPoints, stats.visitedPoints,
                   static_cast<double>(maxBestSampleDistanceFilter));
    stats.integratedBlocks = map.size();

    size_t before = map.size();
    stage.beginSection(true);
    filterNonSpecifiedBlocks(map, blocksToUpdate);
    stage.endSection();
    stats.specifiedFilterTime = stage.getDurationMilliseconds(false);
    AR_LOG_VERBOSE("removed %zu out of %zu blocks due to specified blocksToUpdate table",
                   before - map.size(), before);
    stats.integratedBlocks = map.size();

    before = map.size();
    stage.beginSection(true);
    filterLowHitDensityBlocks(map, numSamplesFilter, grid.config().bounds(0), prepareStep);
    stage.endSection();
    stats.densityFilterTime = stage.getDurationMilliseconds(false);
    AR_LOG_VERBOSE("removed %zu out of %zu blocks due to numSamplesFilter=%f", before - map.size(),
                   before, static_cast<double>(numSamplesFilter));
    stats.integratedBlocks = map.size();

    before = map.size();
    stage.beginSection(true);
    filterSaturatedBlocks(map, grid, frame, saturationManager);
    stage.endSection();
    stats.saturationFilterTime = stage.getDurationMilliseconds(false);
    AR_LOG_VERBOSE("removed %zu out of %zu blocks due to block saturation", before - map.size(),
                   before);
    stats.integratedBlocks = map.size();

    total.endSection();
    stats.selectTime = total.getDurationMilliseconds(false);
    return map;
}

template class SaturationManager<float, DepthGrid>;
template class SaturationManager<float, LabelDepthGrid>;
template BlockInfoMapType selectBlocks(const DepthGrid&, const DepthFrame&, const SensorErrorModel&,
                                       IntegrationStats&, int, float, float, const IndexSet*,
                                       SaturationManager<float, DepthGrid>*);
template BlockInfoMapType selectBlocks(const LabelDepthGrid&, const LabelDepthFrame&,
                                       const SensorErrorModel&, IntegrationStats&, int, float,
                                       float, const IndexSet*,
                                       SaturationManager<float, LabelDepthGrid>*);
template void findHitBlocks(BlockInfoMapType&, IntegrationStats&, const DepthGrid&,
                            const DepthFrame&, const SensorErrorModel&, int, float);
template void findHitBlocks(BlockInfoMapType&, IntegrationStats&, const LabelDepthGrid&,
                            const DepthFrame&, const SensorErrorModel&, int, float);
template void filterSaturatedBlocks(BlockInfoMapType&, const DepthGrid&, const DepthFrame&,
                                    SaturationManager<float, DepthGrid>*);
template void filterSaturatedBlocks(BlockInfoMapType&, const LabelDepthGrid&, const DepthFrame&,
                                    SaturationManager<float, LabelDepthGrid>*);

}  // namespace Solid
