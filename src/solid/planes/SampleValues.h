// Reading the distances of a block for plane fitting and contours.
#ifndef VELMORA_SOLID_PLANES_SAMPLEVALUES_H
#define VELMORA_SOLID_PLANES_SAMPLEVALUES_H

#include <cstddef>

#include "solid/volume/Volume.h"

namespace Solid {

// The stored distance of sample (x, y, z) as a fraction of the truncation band, in [-1, 1].
template <typename VolumeType>
float normalisedDistance(const VolumeType& volume, int x, int y, int z) {
    return static_cast<float>(depthPart(volume.at(x, y, z))(0)) * kDepthValueScale;
}

// Initial size of a block's set of sample indices: from 8, doubled until it holds one plane of
// samples.
template <typename VolumeType>
size_t sampleSetSize(const VolumeType& volume) {
    constexpr size_t kMinSampleSetSize = 8;
    const size_t planeSamples = static_cast<size_t>(volume.size()(0) * volume.size()(1));
    size_t size = kMinSampleSetSize;
    while (size < planeSamples) {
        size *= 2;
    }
    return size;
}

}  // namespace Solid

#endif  // VELMORA_SOLID_PLANES_SAMPLEVALUES_H
