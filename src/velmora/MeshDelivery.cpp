// extractSurface: the mesh cache of Impl brought up to date for the blocks changed since the
// last request, merged, and copied into the host's arrays or buffers.
#include "velmora/MeshDelivery.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "common/Trace.h"
#include "solid/surface/IncrementalExtraction.h"
#include "solid/surface/TextureExtractor.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"
#include "velmora/ObjectIds.h"

namespace Velmora {

namespace {

// Bytes of one element of each buffer attribute, by attribute value.
constexpr uint32_t kElementSize[kNumBufferAttributes] = {12, 16, 8, 2, 4};

// What the colour step accepts of a keyframe: a vertex whose depth in a frame differs by more
// than this share from what the frame measured is hidden there (2 %), and one seen at more than
// this angle (degrees) from its normal is not coloured by it.
constexpr float kTextureMaxDepthError = 0.02f;
constexpr float kTextureMaxViewAngleDegrees = 120.0f;

struct AttributeCounts {
    uint32_t value[kNumBufferAttributes];
};

}  // namespace

Solid::PolygonMesh SurfaceExtraction::getMergedMesh(uint16_t id) {
    std::lock_guard<std::mutex> lock(meshMutex);
    // The two calls of a host's request (sizes, then copy) find the grid unchanged: the second
    // takes the merge of the first, whose streams no one writes.
    const auto cached = mergedMeshes.find(id);
    if (cached != mergedMeshes.end()) {
        return cached->second;
    }
    Solid::ExtractSurfaceStats stats;
    Solid::PolygonMesh merged = Solid::mergeMesh(surfaceMeshes[id], stats);
    mergedMeshes[id] = merged;
    return merged;
}

Solid::MeshGridType SurfaceExtraction::getMeshGrid(uint16_t id) {
    std::lock_guard<std::mutex> lock(meshMutex);
    const auto found = surfaceMeshes.find(id);
    return found == surfaceMeshes.end() ? Solid::MeshGridType() : found->second;
}

void SurfaceExtraction::setMeshGrid(uint16_t id, Solid::MeshGridType grid, uint64_t idsEpoch) {
    std::lock_guard<std::mutex> lock(meshMutex);
    Solid::MeshGridType& stored = surfaceMeshes[id];
    const float maxLoadFactor = stored.max_load_factor();
    stored = std::move(grid);
    mergedMeshes.erase(id);
    stored.max_load_factor(maxLoadFactor);
    if (id == 0) {
        sceneIdsEpoch = idsEpoch;
    }
}

bool SurfaceExtraction::sceneIdsCurrent(uint64_t epoch) {
    std::lock_guard<std::mutex> lock(meshMutex);
    return sceneIdsEpoch == epoch && surfaceMeshes.count(0) != 0;
}

void SurfaceExtraction::patchSceneGrid(Solid::MeshGridType& patch,
                                       const std::vector<Solid::KeyType>& order,
                                       uint64_t idsEpoch) {
    std::lock_guard<std::mutex> lock(meshMutex);
    Solid::MeshGridType& stored = surfaceMeshes[0];
    // Looked up in the order the meshing looked them up, a new block's entry lands where meshing
    // a copy of the grid would have put it, and merges come out in the same order. The replaced
    // meshes are kept for the next patch; what `patch` holds then (the spares the meshing did not
    // reuse) is freed by the caller once this lock is released.
    for (const Solid::KeyType& key : order) {
        std::swap(stored[key], patch.at(key));
    }
    if (!order.empty()) {
        mergedMeshes.erase(0);
    }
    sceneIdsEpoch = idsEpoch;
    spareMeshes.swap(patch);
}

Solid::MeshGridType SurfaceExtraction::takeSpareMeshes() {
    std::lock_guard<std::mutex> lock(meshMutex);
    Solid::MeshGridType spare;
    spare.swap(spareMeshes);
    return spare;
}

void SurfaceExtraction::putColoredBlocks(uint16_t id, const std::vector<ColoredBlock>& blocks) {
    std::lock_guard<std::mutex> lock(meshMutex);
    const auto grid = surfaceMeshes.find(id);
    if (grid == surfaceMeshes.end()) {
        return;
    }
    for (const ColoredBlock& block : blocks) {
        const auto cached = grid->second.find(block.key);
        if (cached != grid->second.end() && cached->second.findPositions() == block.positions) {
            cached->second = block.mesh;
            mergedMeshes.erase(id);
        }
    }
}

namespace {

// Gives blocks of `blocks` a mesh of `spare` for their re-meshing, every stream emptied with its
// memory kept (a stream that a reader's copy of the grid still shares is replaced, as for any
// cached mesh): the meshing and the ids refill the position, index and id streams, and an empty
// colour stream counts as none. A block takes its own spare where it has one, else any spare
// left over. What is left of `spare` then is freed on return. Each spare's streams are left in
// place: moving them into a fresh mesh touches every slot of two meshes, and the spares are cold.
void reuseSpareMeshes(Solid::MeshGridType spare, const Solid::IndexSet& blocks,
                      Solid::MeshGridType& grid) {
    const auto recycle = [&grid](Solid::MeshGridType::node_type node) {
        node.mapped().resetStreams();
        grid.insert(std::move(node));
    };
    std::vector<Solid::KeyType> unmatched;
    for (const Solid::KeyType& key : blocks) {
        auto node = spare.extract(key);
        if (node.empty()) {
            unmatched.push_back(key);
        } else {
            recycle(std::move(node));
        }
    }
    // Blocks that change in turn: the spare of a block that did not change again serves one
    // that did not change last time, instead of being freed while the other allocates.
    for (const Solid::KeyType& key : unmatched) {
        if (spare.empty()) {
            break;
        }
        auto node = spare.extract(spare.begin());
        node.key() = key;
        recycle(std::move(node));
    }
}

}  // namespace

XrResultVLM Impl::extractSurface(bool annotate, const unsigned short& instanceId,
                                 const TextureQuality& quality) {
    AR::Common::ScopedTrace trace("extractSurface");
    if (!isInitialized()) {
        return kErrorNotInitialized;
    }
    State& s = *mState;
    if (instanceId != 0 && !s.mLabelPlanes) {
        return kErrorInstanceMeshDisabled;
    }
    SurfaceExtraction& surfaces = s.mSurfaces;
    Solid::IndexSet localBlocks;
    bool upToDate = false;
    {
        std::lock_guard<std::mutex> updatedLock(surfaces.updatedBlocksMutex);
        std::lock_guard<std::mutex> meshLock(surfaces.meshMutex);
        const bool changed = !surfaces.updatedBlocks.empty();
        if (changed) {
            // Instance meshes are rebuilt from nothing after any change; the whole-scene grid
            // is kept and patched.
            for (auto it = surfaces.surfaceMeshes.begin(); it != surfaces.surfaceMeshes.end();) {
                if (it->first != 0) {
                    surfaces.mergedMeshes.erase(it->first);
                    it = surfaces.surfaceMeshes.erase(it);
                } else {
                    ++it;
                }
            }
            AR_ASSERT(surfaces.surfaceMeshes.size() <= 1);
        }
        const bool sceneBehind = instanceId == 0 && !surfaces.sceneMissedBlocks.empty();
        upToDate = !changed && !sceneBehind && surfaces.surfaceMeshes.count(instanceId) != 0;
        if (!upToDate) {
            localBlocks.swap(surfaces.updatedBlocks);
            AR_ASSERT(surfaces.updatedBlocks.empty());
            // An instance consumes the change for every grid, but the whole-scene grid has not
            // seen it: remember the blocks for it, so that they are re-meshed on its next request.
            if (instanceId != 0) {
                for (const Solid::KeyType& key : localBlocks) {
                    surfaces.sceneMissedBlocks.insert(key);
                }
            } else {
                for (const Solid::KeyType& key : surfaces.sceneMissedBlocks) {
                    localBlocks.insert(key);
                }
                surfaces.sceneMissedBlocks.clear();
            }
        }
    }
    if (upToDate) {
        // The geometry is; colours may still be missing (a first colour request, or keyframes
        // that arrived after the meshing).
        return colorMeshes(instanceId, quality);
    }
    {
        AR::Common::ScopedTrace meshingTrace("extractSurface");
        std::lock_guard<std::mutex> instanceLock(s.mInstanceMutex);
        const Solid::InstanceExtractor& instances = s.mInstanceExtractor;
        AR_ASSERT(instances.merged());
        if (instanceId != 0 &&
            instances.getInstances().find(instanceId) == instances.getInstances().end()) {
            return kErrorUnknownInstance;
        }
        // Read before any id is: a label change counted later forces the next request to
        // annotate everything again.
        const uint64_t epoch = surfaces.labelEpoch.load();
        const bool wantIds = s.mMode == kModeSplit || annotate;
        const uint64_t idsEpoch = wantIds ? epoch : SurfaceExtraction::kIdsIncomplete;
        // The whole-scene grid needs only its changed blocks meshed and annotated while the ids
        // of the others still hold: they are meshed into a grid of their own and moved into the
        // cache, instead of copying and annotating the whole cache.
        const bool patch = instanceId == 0 && (!wantIds || surfaces.sceneIdsCurrent(epoch));
        Solid::MeshGridType localGrid;
        std::vector<Solid::KeyType> order;
        std::vector<Solid::KeyType>* meshingOrder = nullptr;
        if (patch) {
            meshingOrder = &order;
            reuseSpareMeshes(surfaces.takeSpareMeshes(), localBlocks, localGrid);
        } else {
            localGrid = surfaces.getMeshGrid(instanceId);
        }
        if (s.mMode == kModeSplit) {
            Solid::extractSurfaceForInstanceID(*s.mVolumeGrid, *s.mLabelVolumeGrid, instances,
                                               localBlocks, instanceId, localGrid, meshingOrder);
        } else if (s.mMode == kModeCombined) {
            Solid::extractSurfaceForInstanceID(*s.mLabelDepthVolumeGrid, instances, localBlocks,
                                               instanceId, annotate, localGrid, meshingOrder);
        }
        if (patch) {
            surfaces.patchSceneGrid(localGrid, order, idsEpoch);
        } else {
            surfaces.setMeshGrid(instanceId, std::move(localGrid), idsEpoch);
        }
    }
    return colorMeshes(instanceId, quality);
}

XrResultVLM Impl::colorMeshes(uint16_t instanceId, const TextureQuality& quality) {
    // Texture coordinates would need a texture atlas, which the library does not build; asking
    // for them is legal, so they are left empty rather than attempted.
    if (!quality.vertexColors) {
        return kSuccess;
    }
    AR::Common::ScopedTrace trace("extractTexture");
    State& s = *mState;
    SurfaceExtraction& surfaces = s.mSurfaces;
    Solid::MeshGridType localGrid = surfaces.getMeshGrid(instanceId);
    std::vector<Solid::RGBDFrame> keyframes;
    AR::CV::Camera<float> colorCamera;
    AR::CV::Camera<float> depthCamera;
    {
        std::lock_guard<std::mutex> lock(s.mTexture.mutex);
        keyframes = s.mTexture.keyframes;
        colorCamera = s.mTexture.colorCalib;
        depthCamera = s.mTexture.depthCalib;
    }
    if (keyframes.empty()) {
        return kSuccess;
    }
    Solid::TextureExtractor::Config config;
    config.maxDepthError = kTextureMaxDepthError;
    config.maxViewAngle = kTextureMaxViewAngleDegrees;
    config.maxLostTriangles = 0;
    config.removeUnseenVertices = quality.removeUnseenVertices;
    Solid::TextureExtractor extractor(config, colorCamera, depthCamera);
    // `localGrid` keeps the coloured geometry alive, so its stream addresses stay unique until
    // the write-back has compared them.
    std::vector<SurfaceExtraction::ColoredBlock> colored;
    for (const auto& entry : localGrid) {
        const Solid::PolygonMesh::Positions* positions = entry.second.findPositions();
        const Solid::PolygonMesh::Colors* colors = entry.second.findColors();
        const size_t numPositions = positions == nullptr ? 0 : positions->size();
        const size_t numColors = colors == nullptr ? 0 : colors->size();
        if (numColors == numPositions) {
            continue;  // coloured when it was last meshed, or empty
        }
        // The cached block mesh shares its streams with copies other readers may hold: colour a
        // copy of its own and put that in its place.
        SurfaceExtraction::ColoredBlock block{entry.first, positions, Solid::PolygonMesh()};
        Solid::appendMesh(entry.second, block.mesh);
        AR::Common::Map<int, Solid::PolygonMesh*> textureMeshes;
        extractor.computeTextures(keyframes, block.mesh, textureMeshes, false);
        colored.push_back(std::move(block));
    }
    if (!colored.empty()) {
        surfaces.putColoredBlocks(instanceId, colored);
    }
    return kSuccess;
}

namespace {

// The merged mesh of `id` with all five delivered streams present (empty where not computed).
Solid::PolygonMesh deliveredMesh(SurfaceExtraction& surfaces, uint16_t id) {
    Solid::PolygonMesh mesh = surfaces.getMergedMesh(id);
    mesh.positions();
    mesh.indices();
    mesh.instanceIds();
    mesh.colors();
    mesh.texCoords();
    return mesh;
}

// The merge of a grid of block meshes as the host's arrays receive it, read straight from the
// block meshes (or from a merge made earlier): the merge itself would write the whole mesh once
// more before the copy. Counts and order are those of mergeMesh: a block's positions and indices
// only when it has both, its ids and colours whenever it has some, no texture coordinates.
class MergedParts {
public:
    explicit MergedParts(const Solid::MeshGridType& grid) {
        mParts.reserve(grid.size());
        for (const auto& entry : grid) {
            add(entry.second);
        }
    }
    explicit MergedParts(const Solid::PolygonMesh& merged) {
        add(merged);
        mTexCoords = merged.findTexCoords() != nullptr ? merged.findTexCoords()->size() : 0;
    }

    uint32_t positions() const { return mPositions; }
    uint32_t indices() const { return mIndices; }
    uint32_t ids() const { return mIds; }
    uint32_t colors() const { return mColors; }
    uint32_t texCoords() const { return mTexCoords; }

    void copyGeometry(XrVector3fVLM* positions, uint32_t* indices) const {
        uint32_t base = 0;
        for (const Part& part : mParts) {
            if (part.positions == nullptr) {
                continue;
            }
            const uint32_t count = part.positions->size();
            if (count > 0) {
                std::memcpy(positions + base, part.positions->data(), count * sizeof(Solid::Vec3));
            }
            offsetIndices(part.indices->data(), part.indices->size(), base, indices);
            indices += part.indices->size();
            base += count;
        }
    }
    void copyIds(uint16_t* out) const { copyPerVertex(&Part::ids, out); }
    void copyColors(XrColor4fVLM* out) const { copyPerVertex(&Part::colors, out); }

private:
    struct Part {
        const Solid::PolygonMesh::Positions* positions;  // null unless indices are there too
        const Solid::PolygonMesh::Indices* indices;
        const Solid::PolygonMesh::InstanceIds* ids;
        const Solid::PolygonMesh::Colors* colors;
    };

    // `in` plus `base` into `out`: the host's array cannot alias the block mesh's stream, and
    // saying so lets the loop run in vector lanes.
    static void offsetIndices(const unsigned int* __restrict in, uint32_t count, uint32_t base,
                              uint32_t* __restrict out) {
        for (uint32_t i = 0; i < count; ++i) {
            out[i] = in[i] + base;
        }
    }

    // The per-vertex stream `stream` of every part that has some, one after the other.
    template <typename Stream, typename HostElement>
    void copyPerVertex(const Stream* Part::*stream, HostElement* out) const {
        static_assert(sizeof(HostElement) == sizeof(typename Stream::value_type),
                      "host and library elements differ in size");
        for (const Part& part : mParts) {
            const Stream* source = part.*stream;
            if (source != nullptr && !source->empty()) {
                std::memcpy(out, source->data(), source->size() * sizeof(HostElement));
                out += source->size();
            }
        }
    }

    void add(const Solid::PolygonMesh& mesh) {
        Part part{mesh.findPositions(), mesh.findIndices(), mesh.findInstanceIds(),
                  mesh.findColors()};
        if (part.positions == nullptr || part.indices == nullptr) {
            part.positions = nullptr;
            part.indices = nullptr;
        } else {
            mPositions += part.positions->size();
            mIndices += part.indices->size();
        }
        mIds += part.ids != nullptr ? part.ids->size() : 0;
        mColors += part.colors != nullptr ? part.colors->size() : 0;
        mParts.push_back(part);
    }

    std::vector<Part> mParts;
    uint32_t mPositions = 0;
    uint32_t mIndices = 0;
    uint32_t mIds = 0;
    uint32_t mColors = 0;
    uint32_t mTexCoords = 0;
};

}  // namespace

XrResultVLM Impl::extractSurface(PolygonMesh& mesh, bool annotate, const UuidBytes& uuid,
                                 TextureQuality quality) {
    static_assert(
        sizeof(XrVector3fVLM) == sizeof(Solid::Vec3) && sizeof(XrColor4fVLM) == sizeof(Solid::Vec4),
        "host and library elements differ in size");
    const uint16_t id = objectIdOf(uuid);
    const XrResultVLM result = extractSurface(annotate, id, quality);
    if (result != kSuccess) {
        return result;
    }
    SurfaceExtraction& surfaces = mState->mSurfaces;
    // Counted and copied under one hold of the lock, so that the copy is of what was counted.
    std::lock_guard<std::mutex> lock(surfaces.meshMutex);
    const auto cached = surfaces.mergedMeshes.find(id);
    const MergedParts parts = cached != surfaces.mergedMeshes.end()
                                  ? MergedParts(cached->second)
                                  : MergedParts(surfaces.surfaceMeshes[id]);
    const bool tooSmall = mesh.positionCount < parts.positions() ||
                          mesh.indexCount < parts.indices() ||
                          (annotate && mesh.instanceIdCount < parts.ids()) ||
                          (quality.vertexColors && mesh.colorCount < parts.colors()) ||
                          (quality.textureCoordinates && mesh.texCoordCount < parts.texCoords());
    mesh.positionCount = parts.positions();
    mesh.indexCount = parts.indices();
    if (annotate) {
        mesh.instanceIdCount = parts.ids();
    }
    if (quality.vertexColors) {
        mesh.colorCount = parts.colors();
    }
    if (quality.textureCoordinates) {
        mesh.texCoordCount = parts.texCoords();
    }
    if (tooSmall) {
        return kErrorBufferTooSmall;
    }
    AR::Common::ScopedTrace trace("geometryCopy");
    parts.copyGeometry(mesh.positions, mesh.indices);
    if (annotate) {
        parts.copyIds(mesh.instanceIds);
    }
    if (quality.vertexColors) {
        parts.copyColors(mesh.colors);
    }
    // Texture coordinates are never made: there is nothing to copy.
    return kSuccess;
}

XrResultVLM Impl::extractSurface(span<const PolygonMeshBufferDescriptor> descriptors,
                                 span<PolygonMeshBuffer> buffers, bool annotate,
                                 const UuidBytes& uuid, TextureQuality quality) {
    const uint16_t id = objectIdOf(uuid);
    const XrResultVLM result = extractSurface(annotate, id, quality);
    if (result != kSuccess) {
        return result;
    }
    const Solid::PolygonMesh merged = deliveredMesh(mState->mSurfaces, id);
    const XrResultVLM check =
        checkPolygonMeshBuffer(descriptors, buffers, merged.findPositions()->size(),
                               merged.findIndices()->size(), merged.findInstanceIds()->size(),
                               merged.findColors()->size(), merged.findTexCoords()->size());
    if (check != kSuccess) {
        return check;
    }
    writePolygonMeshBuffer(descriptors, buffers, *merged.findPositions(), *merged.findIndices(),
                           *merged.findInstanceIds(), *merged.findColors(),
                           *merged.findTexCoords());
    return kSuccess;
}

XrResultVLM checkPolygonMeshBuffer(span<const PolygonMeshBufferDescriptor> descriptors,
                                   span<PolygonMeshBuffer> buffers, uint32_t positionCount,
                                   uint32_t indexCount, uint32_t instanceIdCount,
                                   uint32_t colorCount, uint32_t texCoordCount) {
    const uint32_t counts[kNumBufferAttributes] = {positionCount, colorCount, texCoordCount,
                                                   instanceIdCount, indexCount};
    for (uint32_t b = 0; b < buffers.size; ++b) {
        buffers.data[b].vertexCount = 0;
        buffers.data[b].indexCount = 0;
    }
    for (uint32_t d = 0; d < descriptors.size; ++d) {
        const PolygonMeshBufferDescriptor& descriptor = descriptors.data[d];
        if (descriptor.bufferIndex >= buffers.size) {
            return kErrorBufferDescriptors;
        }
        if (descriptor.attribute < kNumBufferAttributes &&
            descriptor.elementSize != kElementSize[descriptor.attribute]) {
            return kErrorBufferDescriptors;
        }
    }
    // First elements in each buffer, by offset: no two at one offset, none reaching into the next.
    std::vector<const PolygonMeshBufferDescriptor*> sorted;
    for (uint32_t d = 0; d < descriptors.size; ++d) {
        sorted.push_back(&descriptors.data[d]);
    }
    std::sort(sorted.begin(), sorted.end(), [](const auto* a, const auto* b) {
        return a->bufferIndex != b->bufferIndex ? a->bufferIndex < b->bufferIndex
                                                : a->offset < b->offset;
    });
    for (size_t i = 1; i < sorted.size(); ++i) {
        const PolygonMeshBufferDescriptor& previous = *sorted[i - 1];
        const PolygonMeshBufferDescriptor& next = *sorted[i];
        if (previous.bufferIndex == next.bufferIndex &&
            (previous.offset == next.offset ||
             uint64_t(previous.offset) + previous.elementSize > next.offset)) {
            return kErrorBufferDescriptors;
        }
    }
    bool missingMemory = false;
    for (uint32_t d = 0; d < descriptors.size; ++d) {
        const PolygonMeshBufferDescriptor& descriptor = descriptors.data[d];
        PolygonMeshBuffer& buffer = buffers.data[descriptor.bufferIndex];
        if (descriptor.attribute < kBufferIndex) {
            buffer.vertexCount = counts[descriptor.attribute];
            buffer.indexCount = 0;
        } else if (descriptor.attribute == kBufferIndex) {
            buffer.vertexCount = 0;
            buffer.indexCount = indexCount;
        }
        missingMemory = missingMemory || buffer.data == nullptr;
    }
    if (missingMemory) {
        return kErrorBufferTooSmall;
    }
    // Bytes each buffer needs: the sum of its attributes, and no less than the reach of the last
    // element of any one of them, so that a stride wider than the packing cannot write past the
    // end of the buffer.
    std::vector<uint64_t> required(buffers.size, 0);
    std::vector<uint64_t> reach(buffers.size, 0);
    for (uint32_t d = 0; d < descriptors.size; ++d) {
        const PolygonMeshBufferDescriptor& descriptor = descriptors.data[d];
        if (descriptor.attribute >= kNumBufferAttributes) {
            continue;
        }
        const uint64_t count = counts[descriptor.attribute];
        required[descriptor.bufferIndex] += uint64_t(descriptor.elementSize) * count;
        if (count > 0) {
            const uint64_t stride =
                descriptor.attribute == kBufferIndex ? descriptor.elementSize : descriptor.stride;
            reach[descriptor.bufferIndex] =
                std::max(reach[descriptor.bufferIndex],
                         descriptor.offset + stride * (count - 1) + descriptor.elementSize);
        }
    }
    for (uint32_t b = 0; b < buffers.size; ++b) {
        if (buffers.data[b].size < std::max(required[b], reach[b])) {
            return kErrorBufferTooSmall;
        }
    }
    return kSuccess;
}

void writePolygonMeshBuffer(span<const PolygonMeshBufferDescriptor> descriptors,
                            span<PolygonMeshBuffer> buffers,
                            const Solid::PolygonMesh::Positions& positions,
                            const Solid::PolygonMesh::Indices& indices,
                            const Solid::PolygonMesh::InstanceIds& instanceIds,
                            const Solid::PolygonMesh::Colors& colors,
                            const Solid::PolygonMesh::TexCoords& texCoords) {
    for (uint32_t b = 0; b < buffers.size; ++b) {
        buffers.data[b].vertexCount = 0;
        buffers.data[b].indexCount = 0;
    }
    // Each attribute's elements as raw bytes: first element and count.
    const void* const first[kNumBufferAttributes] = {
        positions.data(), colors.data(), texCoords.data(), instanceIds.data(), indices.data()};
    const uint32_t counts[kNumBufferAttributes] = {
        positions.size(), colors.size(), texCoords.size(), instanceIds.size(), indices.size()};
    for (uint32_t d = 0; d < descriptors.size; ++d) {
        const PolygonMeshBufferDescriptor& descriptor = descriptors.data[d];
        if (descriptor.attribute >= kNumBufferAttributes) {
            continue;
        }
        PolygonMeshBuffer& buffer = buffers.data[descriptor.bufferIndex];
        uint8_t* destination = static_cast<uint8_t*>(buffer.data) + descriptor.offset;
        const auto* source = static_cast<const uint8_t*>(first[descriptor.attribute]);
        const uint32_t count = counts[descriptor.attribute];
        if (descriptor.attribute == kBufferIndex) {
            // An empty index list has nothing to copy (and no memory to copy from).
            if (count > 0) {
                std::memcpy(destination, source, size_t(count) * descriptor.elementSize);
            }
            buffer.indexCount = count;
            continue;
        }
        for (uint32_t i = 0; i < count; ++i) {
            std::memcpy(destination, source + size_t(i) * descriptor.elementSize,
                        descriptor.elementSize);
            destination += descriptor.stride;
        }
        buffer.vertexCount = count;
    }
}

namespace {

template <typename E>
void readVertices(const PolygonMeshBufferDescriptor& descriptor, const PolygonMeshBuffer& buffer,
                  Solid::AttributeVector<E>& target) {
    target.resize(buffer.vertexCount);
    const auto* source = static_cast<const uint8_t*>(buffer.data) + descriptor.offset;
    for (uint32_t i = 0; i < buffer.vertexCount; ++i) {
        std::memcpy(target.data() + i, source + size_t(i) * descriptor.stride, sizeof(E));
    }
}

}  // namespace

Solid::PolygonMesh toSolidPolygonMesh(span<const PolygonMeshBufferDescriptor> descriptors,
                                      span<const PolygonMeshBuffer> buffers) {
    Solid::PolygonMesh mesh;
    for (uint32_t d = 0; d < descriptors.size; ++d) {
        const PolygonMeshBufferDescriptor& descriptor = descriptors.data[d];
        AR_ASSERT(descriptor.bufferIndex < buffers.size);
        const PolygonMeshBuffer& buffer = buffers.data[descriptor.bufferIndex];
        switch (descriptor.attribute) {
            case kBufferPosition:
                readVertices(descriptor, buffer, mesh.positions());
                break;
            case kBufferColor:
                readVertices(descriptor, buffer, mesh.colors());
                break;
            case kBufferTexCoord:
                readVertices(descriptor, buffer, mesh.texCoords());
                break;
            case kBufferInstanceId:
                readVertices(descriptor, buffer, mesh.instanceIds());
                break;
            case kBufferIndex: {
                Solid::PolygonMesh::Indices& indices = mesh.indices();
                indices.resize(buffer.indexCount);
                if (buffer.indexCount > 0) {
                    std::memcpy(indices.data(),
                                static_cast<const uint8_t*>(buffer.data) + descriptor.offset,
                                size_t(buffer.indexCount) * sizeof(unsigned int));
                }
                break;
            }
            default:
                break;
        }
    }
    return mesh;
}

}  // namespace Velmora
