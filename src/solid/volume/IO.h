// Stream form of grids and blocks: a text header of decimal numbers, then the samples of each
// block as raw memory. Streams must be opened in binary mode.
//
// Grid:  version LF, block size "x y z" LF, spacing "x y z" LF, block count LF, the blocks in
//        table order (which carries no meaning), one final LF.
// Block: key "x y z" LF, size "x y z" LF, dimension "x y z" LF, the raw samples, LF.
//
// Floats are written at precision 8. The raw samples are the in-memory records, spare bytes
// included, in the writer's byte order; nothing in the stream names the sample type.
//
// Reading stops where the stream fails (a truncated or garbled stream) and leaves every lock
// released and the grid usable, holding what was read up to that point. A version other than
// VOLUMEGRID_BINARY_VER, or a block whose shape differs from the grid's, ends the process.
#ifndef VELMORA_SOLID_VOLUME_IO_H
#define VELMORA_SOLID_VOLUME_IO_H

#include <istream>
#include <ostream>

#include "solid/volume/VolumeGrid.h"

namespace Solid {

// Format version of the grid stream.
constexpr unsigned int VOLUMEGRID_BINARY_VER = 2;
// Significant decimal digits of every float in a header.
constexpr int kStreamFloatPrecision = 8;
// Most lattice points per block axis that a stream may give a grid with no configuration yet.
// The blocks of this system have 9; the bound keeps a garbled header from sizing block memory
// (2048 blocks are allocated at a time) beyond reason.
constexpr int kMaxStreamBlockLatticePoints = 16;

// Writes size, dimension and the raw samples of one block, then LF. The caller holds the
// block's mutex.
template <typename T, typename StoragePolicy>
std::ostream& operator<<(std::ostream& os, const Volume<T, StoragePolicy>& volume);

// Reads a block written by operator<< into a volume that already has its configuration and
// storage. The LF behind the samples is left to the next formatted read. A short read keeps the
// whole samples read and gives the rest their creation value; label histograms of any other
// length than kNumLabels are set to that length, so no later vote or border copy trips over a
// garbled count. The caller holds the block's mutex.
template <typename T, typename StoragePolicy>
std::istream& operator>>(std::istream& is, Volume<T, StoragePolicy>& volume);

// Writes the whole grid under its read lock, each block under its mutex.
template <typename B, template <typename> class P, typename L>
std::ostream& operator<<(std::ostream& os, const VolumeGrid<B, P, L>& grid);

// Reads a grid stream into `grid`, which is configured with the stream's block size and spacing.
// Blocks already there stay; a block of the same key is overwritten. Blocks are created and
// filled under the write lock, which is released on every return. Must not overlap with any
// other use of the grid: the configuration changes outside the lock.
template <typename B, template <typename> class P, typename L>
std::istream& operator>>(std::istream& is, VolumeGrid<B, P, L>& grid);

// Defined in IO.cpp for the volumes and grids of DepthGrid, LabelDepthGrid and LabelGrid.

}  // namespace Solid

#endif  // VELMORA_SOLID_VOLUME_IO_H
