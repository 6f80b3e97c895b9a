// Pieces shared by the implementations of the depth-fusion kernel: constants, and the setup of the
// inverse-depth nodes that all of them must compute identically.
#ifndef VELMORA_VISION_DEPTHFUSIONDETAIL_H
#define VELMORA_VISION_DEPTHFUSIONDETAIL_H

#include <cstdint>

#include "vision/DepthFusion.h"

// Inverse-depth nodes: 3 slabs (z) of 3 rows (y) of 3 nodes (x), at lattice indices 0, 4 and 8.
constexpr unsigned kTvrNodesPerAxis = 3;
constexpr unsigned kTvrNodesPerPlane = kTvrNodesPerAxis * kTvrNodesPerAxis;
constexpr unsigned kTvrNodeCount = kTvrNodesPerPlane * kTvrNodesPerAxis;
constexpr unsigned kTvrNodeSpacing = 4;              // lattice indices between nodes
constexpr unsigned kTvrNodeSpacingShift = 2;         // log2 of the node spacing
constexpr unsigned kTvrNodeFractionMask = 3;         // lattice index modulo the node spacing
constexpr float kTvrNodeFractionStep = 0.25f;        // 1 / node spacing: the interpolation weight
constexpr unsigned kTvrRunLength = kTvrNodeSpacing;  // voxels of a row between two nodes

// Radial correction of the signed distance: turns a difference along the optical axis into an
// approximate difference along the ray, r2 being the squared normalised image radius.
constexpr float kTvrRadialConstant = 1.0028380155563354f;
constexpr float kTvrRadialSquare = 0.4494898021221161f;

// Full scale of a stored value: value / 32766 is the fraction of the ramp.
constexpr float kTvrValueScale = 32766.0f;
// Values of the truncated signed distance, in ramps: at or below the lower limit a voxel lies too
// far behind the surface to be updated; the upper limit clamps free space.
constexpr float kTvrSdfLowerLimit = -1.0f;
constexpr float kTvrSdfUpperLimit = 1.0f;
// The running average is value * table[weight] / 2^16.
constexpr unsigned kTvrTableShift = 16;
// Index of the table entry used for weights beyond the table.
constexpr uint32_t kTvrLastTableIndex = kTvrDivisionTableSize - 1;

// A sample read as one little-endian 32-bit word: the value in the low half, the weight above.
constexpr unsigned kTvrWeightShift = 16;

// Sample addressing in int16 units.
constexpr unsigned kTvrSampleShorts = kTvrSampleBytes / 2;
constexpr unsigned kTvrRowShorts = kTvrRowBytes / 2;
constexpr unsigned kTvrPlaneShorts = kTvrPlaneBytes / 2;

// The two helpers below are static: every implementation compiles its own copy with its own
// instruction set, and the linker can never swap a copy built for AVX2 into the portable path.

// Node (i, j, k) at nodes[9 * k + 3 * j + i]:
// 1 / (origin.z + 4i xStep.z + 4j yStep.z + 4k zStep.z).
static inline void setupInverseDepthNodes(const TvrBlockRecord& block, float nodes[kTvrNodeCount]) {
    for (unsigned k = 0; k < kTvrNodesPerAxis; ++k) {
        for (unsigned j = 0; j < kTvrNodesPerAxis; ++j) {
            for (unsigned i = 0; i < kTvrNodesPerAxis; ++i) {
                const float z = block.origin[2] +
                                static_cast<float>(kTvrNodeSpacing * i) * block.xStep[2] +
                                static_cast<float>(kTvrNodeSpacing * j) * block.yStep[2] +
                                static_cast<float>(kTvrNodeSpacing * k) * block.zStep[2];
                nodes[kTvrNodesPerPlane * k + kTvrNodesPerAxis * j + i] = 1.0f / z;
            }
        }
    }
}

// The 3x3 inverse depths of lattice plane z (0 to 7): the slab itself at z 0 and 4, otherwise
// t * upper + (1 - t) * lower between the enclosing slabs, t = (z mod 4) / 4.
static inline void inverseDepthPlane(const float nodes[kTvrNodeCount], unsigned z,
                                     float plane[kTvrNodesPerPlane]) {
    const unsigned lower = z >> kTvrNodeSpacingShift;
    const unsigned fraction = z & kTvrNodeFractionMask;
    const float* low = nodes + kTvrNodesPerPlane * lower;
    if (fraction == 0) {
        for (unsigned n = 0; n < kTvrNodesPerPlane; ++n) {
            plane[n] = low[n];
        }
        return;
    }
    const float* high = low + kTvrNodesPerPlane;
    const float t = static_cast<float>(fraction) * kTvrNodeFractionStep;
    for (unsigned n = 0; n < kTvrNodesPerPlane; ++n) {
        plane[n] = t * high[n] + (1.0f - t) * low[n];
    }
}

// True if every in-image pixel index v * stride + u fits a signed 32-bit integer, the index type
// of the vector variants' gathers.
bool tvrDepthIndexFits32(unsigned width, unsigned height, unsigned depthStrideBytes);

#endif  // VELMORA_VISION_DEPTHFUSIONDETAIL_H
