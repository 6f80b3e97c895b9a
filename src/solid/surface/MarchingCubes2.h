// Marching cubes over a set of blocks into one mesh, with vertices welded across block borders.
//
// Every edge of the lattice has a key (x, y, z, axis): its lower end in grid-global lattice
// units and its direction. A first pass records the cells that carry surface and, for each of
// their edges, the fraction along the edge where the zero crossing lies, measured from the lower
// end, so that the four cells around an edge (in one block or in two) find the same key and the
// same vertex. The first fraction stored for an edge stays. A second pass turns the edge table
// into the point list and the recorded cells into triangles.
//
// Cells are filtered as by MarchingCubes (all corner weights above the threshold) but there is
// no veto function. An object of this class is the scratch space of one extraction on one thread.
#ifndef VELMORA_SOLID_SURFACE_MARCHINGCUBES2_H
#define VELMORA_SOLID_SURFACE_MARCHINGCUBES2_H

#include <cstdint>

#include "common/FlatMap.h"
#include "solid/surface/PolygonMesh.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

template <typename VOLUME_>
class MarchingCubes2 {
public:
    using Volume = VOLUME_;
    using Grid = VolumeGrid<VOLUME_, LockedBlockPtr, GridLock>;
    using Vec3Vec = AR::Common::Vector<Vec3>;
    using IdxVec = AR::Common::Vector<unsigned int>;
    using EdgeKey = AR::Math::Vector<int, 4>;  // (x, y, z, axis), lattice units

    // While cells are walked: the fraction along the edge; after createMesh: the vertex index.
    union VertexInfo {
        float t;
        uint32_t index;
    };

    // The welded surface of `blocks`, replacing the contents of `points` (world metres) and
    // `indices`. Blocks missing from the grid are skipped. Fills the cell and vertex counts and
    // the durations of the two passes in `stats`.
    void computeMarchingCubesIncremental(const Grid& grid, const IndexSet& blocks, float isoValue,
                                         int weightThreshold, Vec3Vec& points, IdxVec& indices,
                                         ExtractSurfaceStats& stats);
    // First pass over every block of `blocks`, each read under its own mutex.
    void addCellsIncremental(const Grid& grid, const IndexSet& blocks, float isoValue,
                             int weightThreshold);
    // First pass over one block (locked by the caller) whose lowest sample is at `origin`.
    void addCells(const Volume& volume, float isoValue, int weightThreshold,
                  const AR::Math::Vector<int, 3>& origin);
    // Second pass: points at `spacing` metres per lattice unit, and the triangles of the cells.
    void createMesh(Vec3Vec& points, IdxVec& indices, const Vec3& spacing,
                    ExtractSurfaceStats& stats);

private:
    AR::Common::FlatMap<EdgeKey, VertexInfo> vertices;
    // Recorded cells: (x, y, z, cube index), lattice units; index 255 is kept but meshes nothing.
    AR::Common::Vector<AR::Math::Vector<int, 4>, AR::Common::VectorGrowDoubling<16>> cells;
};

}  // namespace Solid

#endif  // VELMORA_SOLID_SURFACE_MARCHINGCUBES2_H
