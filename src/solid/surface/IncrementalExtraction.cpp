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
    bool copyBorders, bool useMarchingCubes2, int weightThreshold) {
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
        marchingCubes.computeMarchingCubes(grid, blocks, weightThreshold, meshes, stats,
                                           testVertexFunc);
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
    const PolygonMesh::Positions& positions = mesh.positions();
    const PolygonMesh::Indices& indices = mesh.indices();
    if (annotations == nullptr) {
        return false;
    }
    annotations->resize(positions.size());
    AR_ASSERT(indices.size() % 3 == 0);
    if (indices.size() < 3) {
        return true;
    }
    const Vec3& inverseDimension = grid.inverseDimension();
    const Vec3& dimension = grid.dimension();
    const Vec3& inverseSpacing = grid.config().inverseSpacing;
    const Index3& bounds = grid.config().bounds;
    // A vertex shared by several triangles gets one lookup: the sample nearest to it is the same
    // for each of them. The vertices of a block mesh lie in a handful of blocks (their own and the
    // neighbours across its upper faces), in no useful order: they are grouped by block, so that
    // each block is found and locked once per mesh rather than at every change of block.
    std::vector<bool> done(positions.size(), false);
    std::vector<uint32_t> used;
    used.reserve(positions.size());
    for (unsigned int vertexIndex : indices) {
        AR_ASSERT(vertexIndex < positions.size());
        if (!done[vertexIndex]) {
            done[vertexIndex] = true;
            used.push_back(vertexIndex);
        }
    }
    // Groups by block; a key is looked for among the last few groups only, so a large mesh costs
    // a little more locking, never a quadratic search.
    constexpr size_t kRecentBlocks = 8;
    std::vector<KeyType> blockKeys;
    std::vector<uint32_t> blockOf(used.size());
    std::vector<uint32_t> groupSize;
    for (size_t i = 0; i < used.size(); ++i) {
        const Vec3& p = positions[used[i]];
        KeyType key;
        for (int a = 0; a < 3; ++a) {
            key[a] = floorToKey(p[a] * inverseDimension[a]);
        }
        const auto recent = blockKeys.end() - std::min(blockKeys.size(), kRecentBlocks);
        const auto known = std::find(recent, blockKeys.end(), key);
        blockOf[i] = static_cast<uint32_t>(known - blockKeys.begin());
        if (known == blockKeys.end()) {
            blockKeys.push_back(key);
            groupSize.push_back(0);
        }
        ++groupSize[blockOf[i]];
    }
    std::vector<uint32_t> groupStart(blockKeys.size() + 1, 0);
    for (size_t b = 0; b < blockKeys.size(); ++b) {
        groupStart[b + 1] = groupStart[b] + groupSize[b];
    }
    std::vector<uint32_t> grouped(used.size());
    for (size_t i = 0; i < used.size(); ++i) {
        grouped[groupStart[blockOf[i]]++] = used[i];
    }
    // The samples of a group are addressed first and fetched together: a mesh's vertices read
    // samples scattered over blocks that are rarely in cache, and one miss at a time would make
    // the annotation as slow as the memory.
    std::vector<const typename Grid::SampleType*> samples;
    uint32_t begin = 0;
    for (size_t b = 0; b < blockKeys.size(); ++b) {
        const KeyType& key = blockKeys[b];
        const typename Grid::Ptr block = grid.get(key);
        const uint32_t end = begin + groupSize[b];
        if (!block) {
            for (uint32_t i = begin; i < end; ++i) {
                (*annotations)[grouped[i]] = defaultValue;
            }
            begin = end;
            continue;
        }
        samples.clear();
        for (uint32_t i = begin; i < end; ++i) {
            const Vec3& p = positions[grouped[i]];
            int sample[3];
            for (int a = 0; a < 3; ++a) {
                const float local = p[a] - dimension[a] * static_cast<float>(key[a]);
                // Rounding can only leave the lattice by float error at a block face.
                sample[a] = std::clamp(
                    static_cast<int>(std::floor(0.5f + local * inverseSpacing[a])), 0, bounds[a]);
            }
            samples.push_back(&block->at(sample[0], sample[1], sample[2]));
            __builtin_prefetch(samples.back());
        }
        for (uint32_t i = begin; i < end; ++i) {
            (*annotations)[grouped[i]] = predicate(*samples[i - begin]);
        }
        begin = end;
    }
    return true;
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

#define VELMORA_INSTANTIATE_SURFACE_EXTRACTION(G)                 \
    template IndexSet blocksOverlappingBox(const G&, const Box&); \
    template PolygonMesh extractSurfaceIncremental(               \
        G&, IndexSet&, MeshGridType&, ExtractSurfaceStats&,       \
        const MarchingCubes<float, G::Block>::TestVertexFunc&, bool, bool, int);

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
                                          const IndexSet&, SurfaceInstanceId, bool, MeshGridType&);
template void extractSurfaceForInstanceID(DepthGrid&, const LabelGrid&, const InstanceExtractor&,
                                          const IndexSet&, SurfaceInstanceId, MeshGridType&);

}  // namespace Solid
