// Keeps shared lattice planes equal. The kernels leave out lattice plane 8 of each axis, which
// stands where plane 0 of the upper neighbour stands; after a frame, every fused block pushes its
// planes 0 into the planes 8 of its seven lower neighbours (three faces, three edges, a corner),
// so readers can interpolate within one block. Data only moves downwards; nothing is averaged,
// and a plane 8 without an upper neighbour keeps its creation values (unknown).
#ifndef VELMORA_SOLID_FUSION_BORDERCOPY_H
#define VELMORA_SOLID_FUSION_BORDERCOPY_H

#include "solid/fusion/IntegrationStats.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

// Copies the borders of every block of `blocks`, then adds the neighbours that received data to
// `blocks`. Runs on the frame thread, the only one that adds blocks; holds the grid's read lock for
// the pass, and a block's mutex while it locks a neighbour's, which cannot deadlock as long as no
// second pass runs at the same time.
template <typename GridType>
void copyBorders(GridType& grid, IntegrationStats& stats, IndexSet& blocks);

// Pushes the lower planes of block `key` (`src`, locked by the caller) into its existing lower
// neighbours and records them in `updated`. The caller holds the grid's lock (read is enough).
// Neighbours below the lowest key of an axis do not exist.
template <typename GridType>
void copySubvolumeBorder(const KeyType& key, const typename GridType::Block& src, GridType& grid,
                         IndexSet& updated);

// Plane copies between blocks of the same shape: X and Y leave out the last index of the other
// axes; Z copies whole rows, the last column included.
template <typename T, typename S>
void copyPlaneX(Volume<T, S>& dstVol, int dstPlane, const Volume<T, S>& srcVol, int srcPlane);
template <typename T, typename S>
void copyPlaneY(Volume<T, S>& dstVol, int dstPlane, const Volume<T, S>& srcVol, int srcPlane);
template <typename T, typename S>
void copyPlaneZ(Volume<T, S>& dstVol, int dstPlane, const Volume<T, S>& srcVol, int srcPlane);

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_BORDERCOPY_H
