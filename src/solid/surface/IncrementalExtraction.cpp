#include "solid/surface/IncrementalExtraction.h"

#include <algorithm>

#include "common/Logger.h"
#include "common/Timing.h"
#include "solid/fusion/BorderCopy.h"
#include "solid/instances/InstanceExtractor.h"
#include "solid/surface/IncrementalExtractionImpl.h"
#include "solid/surface/MarchingCubes2.h"

namespace Solid {

template <typename Grid>
IndexSet blocksOverlappingBox(const Grid& grid, const Box& box) {
    IndexSet blocks;
    const Vec3& inverse = grid.inverseDimension();
    Index3 lo;
    Index3 hi;
    for (int a = 0; a < 3; ++a) {
        lo[a] = floorToKey(box.min[a] * inverse[a]);
        hi[a] = floorToKey(box.max[a] * inverse[a]);
    }
    for (int z = lo[2]; z <= hi[2]; ++z) {
        for (int y = lo[1]; y <= hi[1]; ++y) {
            for (int x = lo[0]; x <= hi[0]; ++x) {
                const KeyType key(x, y, z);
                if (grid.get(key)) {
                    blocks.insert(key);
                }
            }
        }
    }
    return blocks;
}

template <typename Grid>
PolygonMesh extractSurfaceIncremental(
    Grid& grid, IndexSet& blocks, MeshGridType& meshes, ExtractSurfaceStats& stats,
    const typename MarchingCubes<float, typename Grid::Block>::TestVertexFunc& testVertexFunc,
    bool copyBorders, bool useMarchingCubes2, int weightThreshold,
    const std::function<void(const IndexSet&)>& meshed) {
    AR_LOG_VERBOSE("[%s]", "extractSurfaceIncremental");
    PolygonMesh result;
    PolygonMesh::Positions& points = result.positions();
    PolygonMesh::Indices& indices = result.indices();
    if (copyBorders) {
        IntegrationStats integrationStats;
        Solid::copyBorders(grid, integrationStats, blocks);
    }
    AR::Common::Timing timing;
    timing.beginSection(true);
    if (!useMarchingCubes2) {
        MarchingCubes<float, typename Grid::Block> marchingCubes;
        if (!meshed) {
            marchingCubes.computeMarchingCubes(grid, blocks, weightThreshold, meshes, stats,
                                               testVertexFunc);
        } else {
            // A run's meshes (about 2 KB each) stay within the second-level cache.
            constexpr uint32_t kRunLength = 32;
            IndexSet run;
            for (auto next = blocks.begin(); next != blocks.end();) {
                run.insert(*next);
                ++next;
                if (run.size() == kRunLength || next == blocks.end()) {
                    marchingCubes.computeMarchingCubes(grid, run, weightThreshold, meshes, stats,
                                                       testVertexFunc);
                    meshed(run);
                    run.clear();
                }
            }
        }
        timing.endSection();
        stats.totalDuration = timing.getDuration(false);
    } else {
        MarchingCubes2<typename Grid::Block> marchingCubes;
        marchingCubes.computeMarchingCubesIncremental(grid, blocks, 0.0f, weightThreshold, points,
                                                      indices, stats);
    }
    return result;
}

template <typename Grid>
bool annotateMesh(
    PolygonMesh& mesh, const Grid& grid,
    const std::function<SurfaceInstanceId(const typename Grid::SampleType&)>& predicate,
    PolygonMesh::InstanceIds* annotations, SurfaceInstanceId defaultValue) {
    return annotateMeshWith(mesh, grid, predicate, annotations, defaultValue);
}

PolygonMesh removeVertices(const PolygonMesh& mesh,
                           const std::function<bool(uint32_t)>& predicate) {
    AR_LOG_VERBOSE("[%s]", "removeVertices");
    PolygonMesh result;
    PolygonMesh::Positions& positions = result.positions();
    PolygonMesh::Indices& indices = result.indices();
    PolygonMesh::InstanceIds& ids = result.instanceIds();
    const PolygonMesh::Positions* sourcePositions = mesh.findPositions();
    const PolygonMesh::Indices* sourceIndices = mesh.findIndices();
    if (sourcePositions == nullptr || sourceIndices == nullptr) {
        return result;
    }
    const PolygonMesh::InstanceIds* sourceIds = mesh.findInstanceIds();
    constexpr uint32_t kUnset = 0xFFFFFFFFu;
    std::vector<uint32_t> remap(sourcePositions->size(), kUnset);
    for (uint32_t t = 0; t + 2 < sourceIndices->size(); t += 3) {
        const unsigned int* corner = sourceIndices->data() + t;
        if (!predicate(corner[0]) || !predicate(corner[1]) || !predicate(corner[2])) {
            continue;
        }
        for (int k = 0; k < 3; ++k) {
            uint32_t& target = remap.at(corner[k]);
            if (target == kUnset) {
                target = positions.size();
                positions.push_back((*sourcePositions)[corner[k]]);
                const bool hasId = sourceIds != nullptr && corner[k] < sourceIds->size();
                ids.push_back(hasId ? (*sourceIds)[corner[k]] : SurfaceInstanceId(0));
            }
            indices.push_back(target);
        }
    }
    return result;
}

PolygonMesh filterMesh(const PolygonMesh& mesh, SurfaceInstanceId id) {
    AR_LOG_VERBOSE("[%s]", "filterMesh");
    const PolygonMesh::InstanceIds* stream = mesh.findInstanceIds();
    // A private copy: the result is built while the source's streams may be shared.
    const PolygonMesh::InstanceIds ids = stream != nullptr ? *stream : PolygonMesh::InstanceIds();
    return removeVertices(
        mesh, [&ids, id](uint32_t vertex) { return vertex < ids.size() && ids[vertex] == id; });
}

#define VELMORA_INSTANTIATE_SURFACE_EXTRACTION(G)                               \
    template IndexSet blocksOverlappingBox(const G&, const Box&);               \
    template PolygonMesh extractSurfaceIncremental(                             \
        G&, IndexSet&, MeshGridType&, ExtractSurfaceStats&,                     \
        const MarchingCubes<float, G::Block>::TestVertexFunc&, bool, bool, int, \
        const std::function<void(const IndexSet&)>&);

VELMORA_INSTANTIATE_SURFACE_EXTRACTION(DepthGrid)
VELMORA_INSTANTIATE_SURFACE_EXTRACTION(LabelDepthGrid)
template IndexSet blocksOverlappingBox(const LabelGrid&, const Box&);
template bool annotateMesh(PolygonMesh&, const LabelGrid&,
                           const std::function<SurfaceInstanceId(const LabelVolumeSample&)>&,
                           PolygonMesh::InstanceIds*, SurfaceInstanceId);
template bool annotateMesh(PolygonMesh&, const LabelDepthGrid&,
                           const std::function<SurfaceInstanceId(const LabelDepthVolumeSample&)>&,
                           PolygonMesh::InstanceIds*, SurfaceInstanceId);

// The functions that read the instance extractor, for the system's one extractor.
template IndexSet getBlockForSurfaceExtraction(const DepthGrid&, const InstanceExtractor&,
                                               const IndexSet&, SurfaceInstanceId, bool);
template IndexSet getBlockForSurfaceExtraction(const LabelDepthGrid&, const InstanceExtractor&,
                                               const IndexSet&, SurfaceInstanceId, bool);
template void extractSurfaceForInstanceID(LabelDepthGrid&, const InstanceExtractor&,
                                          const IndexSet&, SurfaceInstanceId, bool, MeshGridType&,
                                          std::vector<KeyType>*);
template void extractSurfaceForInstanceID(DepthGrid&, const LabelGrid&, const InstanceExtractor&,
                                          const IndexSet&, SurfaceInstanceId, MeshGridType&,
                                          std::vector<KeyType>*);

}  // namespace Solid
