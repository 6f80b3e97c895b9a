// Pieces shared by the implementations of the depth-fusion kernel. Only constants and
// declarations live here: the functions are defined once, in the portable translation unit, so
// that no copy compiled with vector instructions can be picked by the linker for the portable path.
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

// Node (i, j, k) at nodes[9 * k + 3 * j + i]: 1 / (origin.z + 4i xStep.z + 4j yStep.z + 4k
// zStep.z).
void tvrSetupInverseDepthNodes(const TvrBlockRecord& block, float nodes[kTvrNodeCount]);

// The 3x3 inverse depths of lattice plane z (0 to 7): the slab itself at z 0 and 4, otherwise
// t * upper + (1 - t) * lower between the enclosing slabs, t = (z mod 4) / 4.
void tvrInverseDepthPlane(const float nodes[kTvrNodeCount], unsigned z,
                          float plane[kTvrNodesPerPlane]);

// True if every in-image pixel index v * stride + u fits a signed 32-bit integer, the index type
// of the vector variants' gathers.
bool tvrDepthIndexFits32(unsigned width, unsigned height, unsigned depthStrideBytes);

#endif  // VELMORA_VISION_DEPTHFUSIONDETAIL_H
