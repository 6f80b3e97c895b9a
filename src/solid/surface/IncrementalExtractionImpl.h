// Bodies of the functions of IncrementalExtraction.h that read the instance extractor; included
// by the file that instantiates them for the extractor type.
#ifndef VELMORA_SOLID_SURFACE_INCREMENTALEXTRACTIONIMPL_H
#define VELMORA_SOLID_SURFACE_INCREMENTALEXTRACTIONIMPL_H

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "solid/surface/CubeTables.h"
#include "solid/surface/IncrementalExtraction.h"

namespace Solid {

template <typename Grid, typename BoxMap>
IndexSet blocksOverlappingBoxes(const Grid& grid, const BoxMap& boxes) {
    IndexSet blocks;
    for (const auto& entry : boxes) {
        for (const KeyType& key : blocksOverlappingBox(grid, entry.second)) {
            blocks.insert(key);
        }
    }
    return blocks;
}

template <typename Grid, typename Instances>
IndexSet getBlockForSurfaceExtraction(const Grid& grid, const Instances& instances,
                                      const IndexSet& updatedBlocks, SurfaceInstanceId instanceId,
                                      bool incremental) {
    if (instanceId == 0) {
        if (incremental) {
            return updatedBlocks;
        }
        IndexSet all;
        grid.for_each([&all](const KeyType& key, const typename Grid::Block&) { all.insert(key); });
        return all;
    }
    const auto& table = instances.getInstances();
    const auto el = table.find(instanceId);
    AR_ASSERT(el != table.end());
    return blocksOverlappingBoxes(grid, el->second.boundingBoxes);
}

// The global instance of a label sample's block-instance id; 0 for none or one no live piece
// holds.
template <typename Instances>
SurfaceInstanceId globalIdOf(const Instances& instances, uint16_t blockInstance) {
    return blockInstance == 0 ? SurfaceInstanceId(0)
                              : instances.findGlobalInstanceId(blockInstance);
}

// `globalIdOf` for many samples of few instances: each block-instance id is looked up once per
// request (a direct-mapped table; the extractor does not change while a request holds it).
template <typename Instances>
class GlobalIdCache {
public:
    explicit GlobalIdCache(const Instances& instances) : mInstances(instances) {}

    SurfaceInstanceId operator()(uint16_t blockInstance) {
        Slot& slot = mSlots[blockInstance & (kSlots - 1)];
        if (!slot.filled || slot.blockInstance != blockInstance) {
            slot = Slot{blockInstance, globalIdOf(mInstances, blockInstance), true};
        }
        return slot.global;
    }

private:
    static constexpr uint32_t kSlots = 1024;
    struct Slot {
        uint16_t blockInstance = 0;
        SurfaceInstanceId global = 0;
        bool filled = false;
    };
    const Instances& mInstances;
    Slot mSlots[kSlots];
};

// The work arrays of annotateMeshWith, kept per thread: a request annotates thousands of small
// meshes.
template <typename Sample>
struct AnnotationScratch {
    std::vector<uint32_t> used;
    std::vector<KeyType> blockKeys;
    std::vector<uint32_t> blockOf;
    std::vector<uint32_t> groupSize;
    std::vector<uint32_t> groupStart;
    std::vector<uint32_t> grouped;
    std::vector<const Sample*> samples;
};

// annotateMesh with any callable as the predicate, so that the system's own predicates inline.
template <typename Grid, typename Predicate>
bool annotateMeshWith(PolygonMesh& mesh, const Grid& grid, const Predicate& predicate,
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
    thread_local AnnotationScratch<typename Grid::SampleType> scratch;
    // A vertex shared by several triangles gets one lookup: the sample nearest to it is the same
    // for each of them. Marching cubes creates each vertex at its first use, so the first uses
    // are mostly 0, 1, 2, ... in order, which is recognised without a table of seen vertices.
    std::vector<uint32_t>& used = scratch.used;
    used.clear();
    uint32_t inOrder = 0;
    bool ordered = true;
    for (unsigned int vertexIndex : indices) {
        if (vertexIndex > inOrder) {
            ordered = false;
            break;
        }
        inOrder += vertexIndex == inOrder ? 1 : 0;
    }
    if (ordered && inOrder > 0) {
        const uint32_t vertexIndex = inOrder - 1;  // the largest index
        AR_ASSERT(vertexIndex < positions.size());
    }
    if (!ordered) {
        std::vector<bool> done(positions.size(), false);
        for (unsigned int vertexIndex : indices) {
            AR_ASSERT(vertexIndex < positions.size());
            if (!done[vertexIndex]) {
                done[vertexIndex] = true;
                used.push_back(vertexIndex);
            }
        }
    }
    const uint32_t count = ordered ? inOrder : static_cast<uint32_t>(used.size());
    const auto vertexAt = [&used, ordered](uint32_t i) { return ordered ? i : used[i]; };
    // The vertices of a block mesh lie in a handful of blocks (their own and the neighbours across
    // its upper faces), in no useful order: they are grouped by block, so that each block is found
    // and locked once per mesh rather than at every change of block. A key is looked for among
    // the last few groups only, so a large mesh costs a little more locking, never a quadratic
    // search.
    constexpr size_t kRecentBlocks = 8;
    std::vector<KeyType>& blockKeys = scratch.blockKeys;
    std::vector<uint32_t>& blockOf = scratch.blockOf;
    std::vector<uint32_t>& groupSize = scratch.groupSize;
    blockKeys.clear();
    blockOf.resize(count);
    groupSize.clear();
    uint32_t group = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const Vec3& p = positions[vertexAt(i)];
        KeyType key;
        for (int a = 0; a < 3; ++a) {
            key[a] = floorToKey(p[a] * inverseDimension[a]);
        }
        // Neighbouring vertices mostly share a block.
        if (blockKeys.empty() || !(blockKeys[group] == key)) {
            const auto recent = blockKeys.end() - std::min(blockKeys.size(), kRecentBlocks);
            const auto known = std::find(recent, blockKeys.end(), key);
            group = static_cast<uint32_t>(known - blockKeys.begin());
            if (known == blockKeys.end()) {
                blockKeys.push_back(key);
                groupSize.push_back(0);
            }
        }
        blockOf[i] = group;
        ++groupSize[group];
    }
    std::vector<uint32_t>& groupStart = scratch.groupStart;
    groupStart.assign(blockKeys.size() + 1, 0);
    for (size_t b = 0; b < blockKeys.size(); ++b) {
        groupStart[b + 1] = groupStart[b] + groupSize[b];
    }
    std::vector<uint32_t>& grouped = scratch.grouped;
    grouped.resize(count);
    for (uint32_t i = 0; i < count; ++i) {
        grouped[groupStart[blockOf[i]]++] = vertexAt(i);
    }
    // The samples of a group are addressed first and fetched together: a mesh's vertices read
    // samples scattered over blocks that are rarely in cache, and one miss at a time would make
    // the annotation as slow as the memory.
    std::vector<const typename Grid::SampleType*>& samples = scratch.samples;
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

// Annotates `mesh` into an id stream of its own: the grid of meshes is a copy whose streams the
// cached grid shares, and another thread may be reading them.
template <typename Grid, typename Predicate>
void annotateOwnIds(PolygonMesh& mesh, const Grid& grid, const Predicate& predicate) {
    mesh.detach(PolygonMesh::INSTANCE_ID, AttributeBlock::TYPE_UINT16);
    annotateMeshWith(mesh, grid, predicate, &mesh.instanceIds(), 0);
}

// Re-meshes `blocks` of `grid` (borders copied, threshold 0) and writes the ids of `labels` onto
// every mesh of `meshes`: each run of re-meshed blocks as soon as it is meshed, while its meshes
// are in cache, then the meshes that were not re-meshed.
template <typename Grid, typename Labels, typename Instances>
void meshAndAnnotate(
    Grid& grid, IndexSet& blocks, MeshGridType& meshes,
    const typename MarchingCubes<float, typename Grid::Block>::TestVertexFunc& cubeIndex,
    const Labels& labels, const Instances& instances, std::vector<KeyType>* meshingOrder) {
    auto ids = std::make_unique<GlobalIdCache<Instances>>(instances);
    const auto predicate = [&ids](const typename Labels::SampleType& sample) {
        return (*ids)(sample.instance);
    };
    const std::function<void(const IndexSet&)> annotateRun = [&](const IndexSet& run) {
        // The same walk of `run` as marching cubes made, so the same order.
        for (const KeyType& key : run) {
            annotateOwnIds(meshes.at(key), labels, predicate);
            if (meshingOrder != nullptr) {
                meshingOrder->push_back(key);
            }
        }
    };
    ExtractSurfaceStats stats;
    extractSurfaceIncremental(grid, blocks, meshes, stats, cubeIndex, true, false, 0, annotateRun);
    for (auto& entry : meshes) {
        if (!blocks.contains(entry.first)) {
            annotateOwnIds(entry.second, labels, predicate);
        }
    }
}

template <typename Instances>
void extractSurfaceForInstanceID(LabelDepthGrid& grid, const Instances& instances,
                                 const IndexSet& updatedBlocks, SurfaceInstanceId instanceId,
                                 bool annotate, MeshGridType& meshes,
                                 std::vector<KeyType>* meshingOrder) {
    using MC = MarchingCubes<float, LabelDepthVolume>;
    IndexSet blocks =
        getBlockForSurfaceExtraction(grid, instances, updatedBlocks, instanceId, true);
    // The cell level cut: a cell of an instance's surface lies wholly within the instance.
    const MC::TestVertexFunc cubeIndex = [&instances, instanceId](const LabelDepthVolume& volume,
                                                                  int x, int y, int z,
                                                                  MC::TypeVec& values) {
        const int index = MC::plainCubeIndex(volume, x, y, z, values);
        if (index == 0 || index == 255 || instanceId == 0) {
            return index;
        }
        for (const auto& offset : CubeTables::kCornerOffset) {
            const auto& sample = volume.at(x + offset[0], y + offset[1], z + offset[2]);
            if (globalIdOf(instances, sample.instance) != instanceId) {
                return CubeTables::kAllAbove;
            }
        }
        return index;
    };
    if (annotate) {
        meshAndAnnotate(grid, blocks, meshes, cubeIndex, grid, instances, meshingOrder);
    } else {
        ExtractSurfaceStats stats;
        extractSurfaceIncremental(grid, blocks, meshes, stats, cubeIndex, true, false, 0);
        if (meshingOrder != nullptr) {
            meshingOrder->insert(meshingOrder->end(), blocks.begin(), blocks.end());
        }
    }
}

template <typename Instances>
void extractSurfaceForInstanceID(DepthGrid& depthGrid, const LabelGrid& labelGrid,
                                 const Instances& instances, const IndexSet& updatedBlocks,
                                 SurfaceInstanceId instanceId, MeshGridType& meshes,
                                 std::vector<KeyType>* meshingOrder) {
    using MC = MarchingCubes<float, DepthVolume>;
    IndexSet blocks =
        getBlockForSurfaceExtraction(depthGrid, instances, updatedBlocks, instanceId, true);
    // Split mode always labels: the ids come from the label grid beside the depth grid.
    meshAndAnnotate(depthGrid, blocks, meshes, MC::TestVertexFunc(MC::plainCubeIndex), labelGrid,
                    instances, meshingOrder);
    if (instanceId != 0) {
        for (auto& entry : meshes) {
            entry.second = filterMesh(entry.second, instanceId);
        }
    }
}

}  // namespace Solid

#endif  // VELMORA_SOLID_SURFACE_INCREMENTALEXTRACTIONIMPL_H
