// Marching cubes, one volume block at a time, into that block's own mesh.
//
// The surface is the zero level of the stored value (a sample's first short times 1 / 32766);
// a corner above zero is on the free-space side. A cell (x, y, z) has its lowest corner at
// sample (x, y, z), so a block of 9 samples an axis has 8 cells an axis and reads its last
// sample plane, which border copying keeps equal to the upper neighbour's first.
//
// A cell makes triangles only when all eight corners have a weight above the threshold (tested
// before any value is decoded: most cells of a block carry no surface) and the caller's
// cube-index function does not veto it. That function fills the eight corner values and returns
// the cube index; returning 255 ends the cell without triangles, which is how the surface of one
// object is cut out of the scene.
//
// Vertices are shared inside a block: a ring of two slices of per-cell edge entries remembers
// the vertex made on each edge, so an edge's vertex is computed once, by the first cell that
// owns it, and reused by its other cells. Vertices on a block face are not shared with the
// neighbouring block: each block mesh has its own copy. No normals are computed.
//
// An object of this class is the scratch space of one extraction on one thread; it is not
// shared.
#ifndef VELMORA_SOLID_SURFACE_MARCHINGCUBES_H
#define VELMORA_SOLID_SURFACE_MARCHINGCUBES_H

#include <array>
#include <cstdint>
#include <functional>
#include <type_traits>

#include "solid/surface/PolygonMesh.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

template <typename FLOAT_, typename VOLUME_>
class MarchingCubes {
    static_assert(std::is_same_v<FLOAT_, float>, "corner values are floats");

public:
    using Volume = VOLUME_;
    using Grid = VolumeGrid<VOLUME_, LockedBlockPtr, GridLock>;
    using Vec3Vec = AR::Common::Vector<Vec3>;
    using IdxVec = AR::Common::Vector<unsigned int>;
    // The eight corner values of a cell, in corner-bit order.
    using TypeVec = std::array<FLOAT_, 8>;
    // (block, x, y, z, values) -> cube index: fills `values` and returns the plain cube index of
    // the cell (as plainCubeIndex does) or 255 to veto it. Called only for cells that passed the
    // weight test and whose plain index makes triangles.
    using TestVertexFunc = std::function<int(const Volume&, int, int, int, TypeVec&)>;

    // Vertex index (in the block's point list) made on each of the twelve edges of a cell, -1
    // while there is none.
    struct Cell {
        int32_t edge[12];
    };

    MarchingCubes();

    // Meshes every block of `blocks` into its entry of `meshes` (created when absent, all its
    // streams emptied first by PolygonMesh::resetStreams, so that streams shared with another
    // grid of meshes are replaced, not overwritten). Each block is read under its own mutex; the
    // grid lock is held only to find it. A key without a block leaves its entry empty. Adds the
    // vertex and index counts to `stats`.
    void computeMarchingCubes(const Grid& grid, const IndexSet& blocks, int weightThreshold,
                              MeshGridType& meshes, ExtractSurfaceStats& stats,
                              const TestVertexFunc& func);
    // One block (locked by the caller) whose key is `blockIndex`: appends its triangles in world
    // metres to `points` and `indices`.
    void computeMarchingCubes(const Volume& volume, int weightThreshold, Vec3Vec& points,
                              IdxVec& indices, const Index3& blockIndex,
                              const TestVertexFunc& func);
    // The triangles of one block, replacing the contents of `points` and `indices`; points in
    // metres relative to the block origin plus `offset` (lattice units). Always true.
    bool calculateIsoSurface(const Volume& volume, int weightThreshold, Vec3Vec& points,
                             IdxVec& indices, const TestVertexFunc& func, const Index3& offset);
    // The triangles of one cell with cube index 1 to 255, reusing and filling `cell`'s edge
    // entries; `cellPosition` in lattice units. Always true.
    bool calculateCellTriangles(int cubeIndex, const Vec3& cellPosition, const TypeVec& values,
                                Cell& cell, Vec3Vec& points, IdxVec& indices);
    // The zero crossing on `edge`, in cell units from the cell's lowest corner.
    Vec3 calculatePoint(const TypeVec& values, size_t edge) const;

    // The cube-index function with no veto: corner values and their sign bits.
    static int plainCubeIndex(const Volume& volume, int x, int y, int z, TypeVec& values);

private:
    AR::Common::Vector<Cell, AR::Common::VectorGrowDoubling<16>> mCells;  // two slices of cells
    Vec3Vec mEdgeOrigins;     // start corner of each edge, cell units
    Vec3Vec mEdgeDirections;  // end corner minus start corner
    // Block-local results, reused from block to block.
    Vec3Vec mBlockPoints;
    IdxVec mBlockIndices;
    // Per row of samples: a bit mask of the weights that pass, then of the values above zero.
    AR::Common::Vector<uint32_t> mRowMasks;
};

}  // namespace Solid

#endif  // VELMORA_SOLID_SURFACE_MARCHINGCUBES_H
