// Bodies of the functions of IncrementalExtraction.h that read the instance extractor; included
// by the file that instantiates them for the extractor type.
#ifndef VELMORA_SOLID_SURFACE_INCREMENTALEXTRACTIONIMPL_H
#define VELMORA_SOLID_SURFACE_INCREMENTALEXTRACTIONIMPL_H

#include <memory>

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

// Annotates `mesh` into an id stream of its own: the grid of meshes is a copy whose streams the
// cached grid shares, and another thread may be reading them.
template <typename Grid, typename Predicate>
void annotateOwnIds(PolygonMesh& mesh, const Grid& grid, const Predicate& predicate) {
    mesh.detach(PolygonMesh::INSTANCE_ID, AttributeBlock::TYPE_UINT16);
    annotateMesh(mesh, grid, predicate, &mesh.instanceIds(), 0);
}

template <typename Instances>
void extractSurfaceForInstanceID(LabelDepthGrid& grid, const Instances& instances,
                                 const IndexSet& updatedBlocks, SurfaceInstanceId instanceId,
                                 bool annotate, MeshGridType& meshes) {
    using MC = MarchingCubes<float, LabelDepthVolume>;
    IndexSet blocks =
        getBlockForSurfaceExtraction(grid, instances, updatedBlocks, instanceId, true);
    ExtractSurfaceStats stats;
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
    extractSurfaceIncremental(grid, blocks, meshes, stats, cubeIndex, true, false, 0);
    if (annotate) {
        auto ids = std::make_unique<GlobalIdCache<Instances>>(instances);
        const auto predicate = [&ids](const LabelDepthVolumeSample& sample) {
            return (*ids)(sample.instance);
        };
        for (auto& entry : meshes) {
            annotateOwnIds(entry.second, grid, predicate);
        }
    }
}

template <typename Instances>
void extractSurfaceForInstanceID(DepthGrid& depthGrid, const LabelGrid& labelGrid,
                                 const Instances& instances, const IndexSet& updatedBlocks,
                                 SurfaceInstanceId instanceId, MeshGridType& meshes) {
    using MC = MarchingCubes<float, DepthVolume>;
    IndexSet blocks =
        getBlockForSurfaceExtraction(depthGrid, instances, updatedBlocks, instanceId, true);
    ExtractSurfaceStats stats;
    extractSurfaceIncremental(depthGrid, blocks, meshes, stats,
                              MC::TestVertexFunc(MC::plainCubeIndex), true, false, 0);
    // Split mode always labels: the ids come from the label grid beside the depth grid.
    auto ids = std::make_unique<GlobalIdCache<Instances>>(instances);
    const auto predicate = [&ids](const LabelVolumeSample& sample) {
        return (*ids)(sample.instance);
    };
    for (auto& entry : meshes) {
        annotateOwnIds(entry.second, labelGrid, predicate);
    }
    if (instanceId != 0) {
        for (auto& entry : meshes) {
            entry.second = filterMesh(entry.second, instanceId);
        }
    }
}

}  // namespace Solid

#endif  // VELMORA_SOLID_SURFACE_INCREMENTALEXTRACTIONIMPL_H
