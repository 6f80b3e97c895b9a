// A block of the reconstruction: a dense cube of lattice samples (9x9x9 in this system: 8 cells
// per axis plus one border plane shared with the upper neighbour), x varying fastest.
//
// Depth values are fixed point: v stands for v / 32766 of the truncation band, +32766 in front
// of the band, -32766 behind it. A weight below 1 means never observed; reads of unobserved
// samples give the sentinel -2.0 (outside every true value) or no result.
//
// A Volume is a thin view: copies share the samples, which belong to the grid's storage. It has
// no lock; whoever reads or writes samples holds the block's mutex.
#ifndef VELMORA_SOLID_VOLUME_VOLUME_H
#define VELMORA_SOLID_VOLUME_VOLUME_H

#include <cstdint>
#include <optional>

#include "solid/volume/LabelVolumeSample.h"
#include "solid/volume/Types.h"

namespace Solid {

// Decoding factor of a depth value: the float nearest to 1 / 32766.
constexpr float kDepthValueScale = 3.051944077014923e-05f;
// Encoded value of +1.0 (at or in front of the band) and its negation.
constexpr short kMaxDepthValue = 32766;
// Returned by value lookups where a corner is unobserved or no block exists.
constexpr float kUnobservedValue = -2.0f;
// Camera depth, metres, that a block counts as "seen from" before anything has seen it.
constexpr float kUnseenSampleDistance = 1.0e9f;

// Shape of every block of a grid; shared by pointer, written only when the grid is configured.
struct VolumeConfig {
    Vec3 dimension;       // edge length of a block, metres: spacing * (size - 1)
    Vec3 spacing;         // metres between neighbouring lattice points
    Vec3 inverseSpacing;  // 1 / spacing
    Size size;            // lattice points per axis
    Index3 bounds;        // largest valid lattice index per axis: size - 1
    uint32_t numSamples;  // size.x * size.y * size.z
};

// Fills `config` for blocks of `size` lattice points `spacing` metres apart.
void makeVolumeConfig(VolumeConfig& config, const Size& size, const Vec3& spacing);

// Storage policy of all blocks in a grid: a view on memory owned by the grid's central storage.
struct ReferencedVolumeData {
    template <typename T>
    struct Storage {
        T* data = nullptr;                   // first sample
        const VolumeConfig* cfg_ = nullptr;  // shared configuration, owned by the grid
        float bestSampleDistance = kUnseenSampleDistance;  // smallest camera depth seen from, m
    };
};

class VolumeBase {};

template <typename T, typename StoragePolicy>
class Volume : public VolumeBase {
public:
    using SampleType = T;
    using Storage = typename StoragePolicy::template Storage<T>;

    Volume() = default;
    Volume(T* data, const VolumeConfig* config) {
        mStorage.data = data;
        mStorage.cfg_ = config;
    }

    T* data() const { return mStorage.data; }
    const VolumeConfig& config() const { return *mStorage.cfg_; }
    float bestSampleDistance() const { return mStorage.bestSampleDistance; }
    void setBestSampleDistance(float distance) { mStorage.bestSampleDistance = distance; }

    // Sample at lattice point (x, y, z); `at(0, y, z)` is the start of row (y, z).
    T& at(int x, int y, int z) const {
        const Size& s = config().size;
        return mStorage.data[x + s(0) * (y + s(1) * z)];
    }
    const Size& size() const { return config().size; }
    const Index3& bounds() const { return config().bounds; }
    uint32_t dataSize() const { return config().numSamples; }
    const Vec3& dimension() const { return config().dimension; }
    const Vec3& spacing() const { return config().spacing; }

    // Trilinear value at local position `p` (metres from the block origin), or -2.0 when one of
    // the corners it reads is unobserved. A coordinate on a lattice plane reads only that plane,
    // so `p == dimension` is legal. Depth-bearing samples only.
    float val(const Vec3& p) const;

    // Trilinear value and its analytic gradient (value units per metre). Always reads the upper
    // neighbour, so `p` must stay strictly below `dimension`. False, writing nothing, when a
    // corner is unobserved. Depth-bearing samples only.
    bool valueAndGradient(const Vec3& p, float& value, Vec3& gradient) const;

    // Copy of the lattice sample at or just below `p` (indices truncated, not rounded); empty
    // outside [0, dimension], the upper end included. Label-bearing samples only.
    std::optional<T> getSample(const Vec3& p) const;

    Storage mStorage;
};

// The storage of every grid of the system.
template <typename T>
using VolumeRef = Volume<T, ReferencedVolumeData>;

// Value every sample of a block holds at its creation.
template <typename T>
T creationSample();

// Depth part of a depth-bearing sample.
inline Vec2S& depthPart(Vec2S& sample) {
    return sample;
}
inline const Vec2S& depthPart(const Vec2S& sample) {
    return sample;
}
inline Vec2S& depthPart(LabelDepthVolumeSample& sample) {
    return sample.depth;
}
inline const Vec2S& depthPart(const LabelDepthVolumeSample& sample) {
    return sample.depth;
}

// The readers are defined in Volume.cpp for exactly the samples that have their meaning: `val`
// and `valueAndGradient` for Vec2S and LabelDepthVolumeSample, `getSample` for the two label
// samples. A use with any other sample fails to link.

}  // namespace Solid

#endif  // VELMORA_SOLID_VOLUME_VOLUME_H
