// Grids whose samples are written straight from analytic functions of the position, with no
// frames and no fusion: the exact input for the code that reads surfaces out of grids.
#ifndef VELMORA_TESTS_SUPPORT_FIELDGRID_H
#define VELMORA_TESTS_SUPPORT_FIELDGRID_H

#include <algorithm>
#include <cmath>

#include "solid/volume/VolumeGrid.h"

namespace Solid {
namespace Test {

// Creates every block from `lo` to `hi` (keys, inclusive) and calls `write(sample, p)` for each
// of its lattice points, p in world metres. Shared planes of neighbours see the same p, so they
// get the same values, as border copying would leave them.
template <typename Grid, typename Write>
void writeLattice(Grid& grid, const Index3& lo, const Index3& hi, Write&& write) {
    const Vec3& spacing = grid.config().spacing;
    for (int bz = lo[2]; bz <= hi[2]; ++bz) {
        for (int by = lo[1]; by <= hi[1]; ++by) {
            for (int bx = lo[0]; bx <= hi[0]; ++bx) {
                const KeyType key(bx, by, bz);
                grid.ensure(key);
                auto block = grid.get(key);
                const Vec3 origin = grid.blockOrigin(key);
                for (int i = 0; i < 729; ++i) {
                    const int x = i % 9, y = i / 9 % 9, z = i / 81;
                    write(block->at(x, y, z),
                          Vec3(origin[0] + spacing[0] * x, origin[1] + spacing[1] * y,
                               origin[2] + spacing[2] * z));
                }
            }
        }
    }
}

// Depth-bearing grids: the value sdf(p) / truncation clamped to [-1, 1], and `weight`.
template <typename Grid, typename Sdf>
void writeField(Grid& grid, const Index3& lo, const Index3& hi, float truncation, short weight,
                Sdf&& sdf) {
    writeLattice(grid, lo, hi, [&](auto& sample, const Vec3& p) {
        const float d = std::clamp(sdf(p) / truncation, -1.0f, 1.0f);
        depthPart(sample)[0] = static_cast<short>(std::lround(d * kMaxDepthValue));
        depthPart(sample)[1] = weight;
    });
}

// Label-bearing grids: the block-instance id `id(p)`.
template <typename Grid, typename IdOf>
void writeInstances(Grid& grid, const Index3& lo, const Index3& hi, IdOf&& id) {
    writeLattice(grid, lo, hi, [&](auto& sample, const Vec3& p) { sample.instance = id(p); });
}

}  // namespace Test
}  // namespace Solid

#endif  // VELMORA_TESTS_SUPPORT_FIELDGRID_H
