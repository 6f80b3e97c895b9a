// The tables of marching cubes, in one place.
//
// Corner numbering (bit i of a cube index is corner i; a bit is set when the corner's value is
// strictly above the iso level, the free-space side):
//
//        7 -------- 6          corner  offset (x, y, z)
//       /|         /|          0       (0, 0, 0)      4  (0, 0, 1)
//      4 -------- 5 |          1       (1, 0, 0)      5  (1, 0, 1)
//      | 3 -------|-2          2       (1, 1, 0)      6  (1, 1, 1)
//      |/         |/           3       (0, 1, 0)      7  (0, 1, 1)
//      0 -------- 1            z up, y into the page, x to the right
//
// Edge numbering, the one of the published triangle table: edges 0 to 3 run round the bottom
// face (0-1, 1-2, 2-3, 3-0), edges 4 to 7 round the top face (4-5, 5-6, 6-7, 7-4), and edges 8 to
// 11 are the verticals (0-4, 1-5, 2-6, 3-7).
//
// With bit set meaning "above the level" (the reverse of the usual presentation of the table),
// the winding of the table's triangles is the one this system hands out; nothing reorders it.
#ifndef VELMORA_SOLID_SURFACE_CUBETABLES_H
#define VELMORA_SOLID_SURFACE_CUBETABLES_H

#include <cstdint>

#include "math/Vector.h"

namespace Solid {
namespace CubeTables {

constexpr int kNumCorners = 8;
constexpr int kNumEdges = 12;
constexpr int kNumCubeIndices = 256;
// A row lists at most five triangles and is closed by -1.
constexpr int kRowLength = 16;
constexpr int8_t kEndOfRow = -1;
// Cube indices that produce no triangle: every corner below, every corner above.
constexpr int kAllBelow = 0;
constexpr int kAllAbove = 255;

// Offset of each corner from the cell's lowest corner, lattice units.
extern const int kCornerOffset[kNumCorners][3];

// End corners of each edge, walked round the faces (0-1, 1-2, 2-3, 3-0, ...). The single-block
// extractor interpolates from the first to the second.
extern const int kEdgeCorners[kNumEdges][2];

// End corners of each edge ordered from the lower to the higher coordinate, so that a fraction
// along an edge means the same from all four cells that share it.
extern const int IndexCornerStartTable[kNumEdges];
extern const int IndexCornerEndTable[kNumEdges];

// Each edge as (x, y, z) of its lower end relative to the cell, and its axis (0 x, 1 y, 2 z):
// with the cell's lattice position this is the key of the edge shared by up to four cells.
extern const AR::Math::Vector<int, 4> IndexOffsetTable[kNumEdges];

// The published triangle table: row c lists the edges of the triangles of cube index c, three
// at a time, closed by -1.
extern const int8_t kTriangleTable[kNumCubeIndices][kRowLength];

}  // namespace CubeTables
}  // namespace Solid

#endif  // VELMORA_SOLID_SURFACE_CUBETABLES_H
