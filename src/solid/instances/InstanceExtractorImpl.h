// Stage one of the instance extraction, over the two labelled sample types. Included only by
// InstanceExtractor.cpp, which instantiates it for LabelGrid and LabelDepthGrid.
#ifndef VELMORA_SOLID_INSTANCES_INSTANCEEXTRACTORIMPL_H
#define VELMORA_SOLID_INSTANCES_INSTANCEEXTRACTORIMPL_H

#include <type_traits>

#include "solid/instances/InstanceExtractor.h"
#include "solid/volume/LabelVolumeSample.h"

namespace Solid {

// The label a sample has settled on: the first entry with the largest count, so a tie goes to
// the lower label; one vote is enough, and an all-zero histogram gives 0.
template <typename Sample>
inline uint16_t winningLabel(const Sample& sample) {
    const auto& labels = sample.labels;
    if (labels.size() < 2) {
        return 0;
    }
    uint32_t best = 0;
    for (uint32_t i = 1; i < labels.size(); ++i) {
        if (labels[i] > labels[best]) {
            best = i;
        }
    }
    return static_cast<uint16_t>(best);
}

template <typename Sample>
void InstanceExtractor::updateSample(Sample& sample, const Box& sampleBox,
                                     AR::Common::FlatMap<uint16_t, BlockInstance>& working) {
    if (sample.instance != 0) {
        mRetiredIds.insert(sample.instance);
    }
    const uint16_t label = winningLabel(sample);
    if (label == 0) {
        sample.instance = 0;
        return;
    }
    auto found = working.find(label);
    if (found != working.end()) {
        growBox(found->second.box, sampleBox);
        sample.instance = found->second.localId;
        return;
    }
    BlockInstance piece;
    piece.localId = takeId();
    piece.label = label;
    piece.box = sampleBox;
    working.insert(label, piece);
    sample.instance = piece.localId;
}

template <typename Grid>
void InstanceExtractor::updateBlockInstances(Grid& grid, const IndexSet& blocks, bool deferMerge) {
    using Sample = typename Grid::SampleType;
    static_assert(std::is_same<Sample, LabelVolumeSample>::value ||
                      std::is_same<Sample, LabelDepthVolumeSample>::value,
                  "instances are found in grids of labelled samples only");
    mergeLastCalled = false;
    AR::Common::FlatMap<uint16_t, BlockInstance> working;
    const Vec3& dimension = grid.dimension();
    const Vec3& spacing = grid.gridSpacing();
    for (const Index3& key : blocks) {
        typename Grid::Ptr block = grid.get(key);
        if (!block) {
            continue;
        }
        const Size& size = block->size();
        Box sampleBox;
        for (int k = 0; k < size(2); ++k) {
            for (int j = 0; j < size(1); ++j) {
                for (int i = 0; i < size(0); ++i) {
                    const int index[3] = {i, j, k};
                    for (int axis = 0; axis < 3; ++axis) {
                        const float centre = static_cast<float>(key[axis]) * dimension[axis] +
                                             static_cast<float>(index[axis]) * spacing[axis];
                        const float half = spacing[axis] * 0.5f + kInstanceBoxMargin;
                        sampleBox.min[axis] = centre - half;
                        sampleBox.max[axis] = centre + half;
                    }
                    updateSample(block->at(i, j, k), sampleBox, working);
                }
            }
        }
        if (!working.empty()) {
            BlockInstances& pieces = mBlockInstances[key];
            for (const auto& entry : working) {
                pieces.push_back(entry.second);
            }
        }
        working.clear();
    }
    if (!deferMerge) {
        mergeBlockInstances(blocks);
    }
}

}  // namespace Solid

#endif  // VELMORA_SOLID_INSTANCES_INSTANCEEXTRACTORIMPL_H
