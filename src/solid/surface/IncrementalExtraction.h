// The surface of a scene kept as one mesh per volume block, so that a request re-meshes only the
// blocks that changed, and the ties between surfaces and object instances.
//
// Block choice: the whole scene (instance id 0) re-meshes the changed blocks it is given; an
// instance re-meshes every existing block that one of its per-block boxes touches, whatever
// changed. A block's entry in the grid of meshes is rebuilt from nothing when it is re-meshed (all
// its streams emptied, colours included) and is never removed, even when its surface vanished.
//
// Instance ids per vertex come from the label samples: the sample nearest to the vertex, its
// block-instance id mapped to the global instance through the instance extractor. An id that no
// live piece holds any longer (retired, or copied into a border before its block was updated
// again) maps to 0, as does a vertex whose label block does not exist.
//
// The surface of one instance is cut differently in the two run modes, on purpose: in combined
// mode at the cell level (a cell makes triangles only when all eight corners belong to the
// instance), in split mode at the triangle level (a triangle stays only when its three vertices
// belong to it).
//
// Everything runs on the caller's thread. Blocks are read under their own mutex with the grid
// lock held only to find them; integration may go on in other blocks meanwhile. The instance
// extractor is read without a lock: the caller holds the lock that guards it.
//
// `Instances` is the instance extractor: `getInstances()` (id -> instance with `boundingBoxes`,
// a map of block key -> Box), `findGlobalInstanceId(LocalID)` and `merged()`.
#ifndef VELMORA_SOLID_SURFACE_INCREMENTALEXTRACTION_H
#define VELMORA_SOLID_SURFACE_INCREMENTALEXTRACTION_H

#include <cstdint>
#include <functional>
#include <vector>

#include "solid/query/CollisionDetection.h"
#include "solid/surface/MarchingCubes.h"
#include "solid/surface/PolygonMesh.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

// Global instance id of a surface; 0 is the whole scene, and on a vertex "no instance".
using SurfaceInstanceId = uint16_t;

// The existing blocks that `box` (world metres) touches: keys floor(min / dimension) to
// floor(max / dimension) on each axis, inclusive. Empty for an empty range.
template <typename Grid>
IndexSet blocksOverlappingBox(const Grid& grid, const Box& box);
// The union over the boxes of a map from block key to Box.
template <typename Grid, typename BoxMap>
IndexSet blocksOverlappingBoxes(const Grid& grid, const BoxMap& boxes);

// The functions that read the instance extractor are templates over its type, defined in
// IncrementalExtractionImpl.h for the file that instantiates them.

// The blocks to re-mesh for `instanceId`: a copy of `updatedBlocks` for the whole scene (with
// `incremental`; without, every block of the grid); for an instance, the blocks its boxes touch.
// The instance must exist and the extractor be merged.
template <typename Grid, typename Instances>
IndexSet getBlockForSurfaceExtraction(const Grid& grid, const Instances& instances,
                                      const IndexSet& updatedBlocks, SurfaceInstanceId instanceId,
                                      bool incremental);

// Re-meshes `blocks` into `meshes`. With `copyBorders`, the borders of the blocks are copied
// first (which may add blocks to `blocks`). Without `useMarchingCubes2`: MarchingCubes per block
// with `testVertexFunc`, and the returned mesh is empty. With it: the welded surface of exactly
// `blocks` is returned and `meshes` and `testVertexFunc` are not used. Iso level 0; a cell needs
// every corner weight above `weightThreshold`. `meshed`, when given, receives the blocks meshed
// so far in runs of a few dozen, as soon as each run is done: work on a block's mesh then finds
// it still in cache.
template <typename Grid>
PolygonMesh extractSurfaceIncremental(
    Grid& grid, IndexSet& blocks, MeshGridType& meshes, ExtractSurfaceStats& stats,
    const typename MarchingCubes<float, typename Grid::Block>::TestVertexFunc& testVertexFunc,
    bool copyBorders, bool useMarchingCubes2, int weightThreshold,
    const std::function<void(const IndexSet&)>& meshed = {});

// Writes into `annotations` (resized to the vertex count of `mesh`) the value of `predicate` for
// the label sample nearest to each vertex that a triangle uses, or `defaultValue` where `grid`
// has no block. Vertices no triangle uses keep 0. False when `annotations` is null; aborts when
// the index count is not a multiple of three or an index is out of range.
template <typename Grid>
bool annotateMesh(
    PolygonMesh& mesh, const Grid& grid,
    const std::function<SurfaceInstanceId(const typename Grid::SampleType&)>& predicate,
    PolygonMesh::InstanceIds* annotations, SurfaceInstanceId defaultValue);

// The triangles whose three vertices satisfy `predicate(vertexIndex)`, with only the vertices
// they use, renumbered in order of first use. Carries positions and instance ids; every other
// stream is dropped.
PolygonMesh removeVertices(const PolygonMesh& mesh, const std::function<bool(uint32_t)>& predicate);

// The triangles of `mesh` whose three vertices carry instance id `id`. A vertex without an id
// (a missing or short id stream) counts as id 0.
PolygonMesh filterMesh(const PolygonMesh& mesh, SurfaceInstanceId id);

// Combined run mode: re-meshes the blocks that getBlockForSurfaceExtraction chooses, cutting an
// instance at the cell level; with `annotate`, then writes instance ids onto every mesh of
// `meshes`. `meshingOrder`, when given, receives the re-meshed blocks in the order their entries
// were first looked up in `meshes`, so that a caller meshing into an empty grid can move the
// results into a fuller one and get the grid that meshing there would have made.
template <typename Instances>
void extractSurfaceForInstanceID(LabelDepthGrid& grid, const Instances& instances,
                                 const IndexSet& updatedBlocks, SurfaceInstanceId instanceId,
                                 bool annotate, MeshGridType& meshes,
                                 std::vector<KeyType>* meshingOrder = nullptr);

// Split run mode: re-meshes the chosen blocks of the depth grid, writes instance ids from the
// label grid onto every mesh of `meshes`, and for an instance keeps only its triangles.
// `meshingOrder` as above.
template <typename Instances>
void extractSurfaceForInstanceID(DepthGrid& depthGrid, const LabelGrid& labelGrid,
                                 const Instances& instances, const IndexSet& updatedBlocks,
                                 SurfaceInstanceId instanceId, MeshGridType& meshes,
                                 std::vector<KeyType>* meshingOrder = nullptr);

}  // namespace Solid

#endif  // VELMORA_SOLID_SURFACE_INCREMENTALEXTRACTION_H
