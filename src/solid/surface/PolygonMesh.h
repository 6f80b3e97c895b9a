// The triangle mesh of the reconstruction: a table of typed attribute streams (positions,
// indices, instance ids, colours, ...), each a reference-counted AttributeBlock, looked up by the
// pair (attribute name, element type). One mesh per volume block while surfaces are extracted,
// one merged mesh when they are handed out.
//
// COPIES ARE SHALLOW. Copying or assigning a mesh shares every stream with the original (the
// reference count of each block rises); nothing is duplicated. So a grid of block meshes copied
// out of a store shares its streams with the stored one, and `clear` on a stream is seen through
// every mesh that holds it. To change one mesh alone, give it a new stream (`resetStreams`,
// `detach`).
//
// Reading a stream through the typed accessors (`positions()`, `indices()`, ...) creates it when
// it is absent: a mesh that went through extraction always has POSITION and INDEX, possibly
// empty. The `find*` accessors only look.
//
// No operation here locks. The mutex that every mesh carries is for owners that share one mesh
// object between threads; the reference counts alone are thread-safe, so meshes sharing streams
// may be destroyed on different threads.
#ifndef VELMORA_SOLID_SURFACE_POLYGONMESH_H
#define VELMORA_SOLID_SURFACE_POLYGONMESH_H

#include <array>
#include <cstdint>
#include <unordered_map>

#include "common/Hash.h"
#include "common/Mutex.h"
#include "solid/surface/AttributeBlock.h"

namespace Solid {

class PolygonMesh : public AR::Common::RefCounter {
public:
    enum ATTRIBUTE_NAME : int32_t {
        POSITION = 0,     // Vec3, world metres
        NORMAL = 1,       // Vec3, a second per-vertex vector stream; not carried by merges
        TEXCOORD = 2,     // Vec2, texture coordinates; not carried by merges
        COLOR = 3,        // Vec4, per-vertex colour
        INSTANCE_ID = 4,  // unsigned short, per-vertex global instance id (0: none)
        INDEX = 5,        // unsigned int, triangle list, three indices a triangle
    };
    static constexpr int32_t kNumNames = 8;
    // One slot for every (name, type) pair: slot = name + kNumNames * type.
    static constexpr int32_t kNumSlots = kNumNames * AttributeBlock::kNumTypes;

    using Positions = AttributeVector<Vec3>;
    using Indices = AttributeVector<unsigned int>;
    using InstanceIds = AttributeVector<unsigned short>;
    using Colors = AttributeVector<Vec4>;
    using TexCoords = AttributeVector<Vec2>;

    PolygonMesh() = default;
    // Shallow: shares every stream of `other` (see the top of this file).
    PolygonMesh(const PolygonMesh& other);
    PolygonMesh& operator=(const PolygonMesh& other);
    // Takes the streams of `other`, which is left without any.
    PolygonMesh(PolygonMesh&& other) noexcept;
    PolygonMesh& operator=(PolygonMesh&& other) noexcept;
    ~PolygonMesh() override = default;

    // The block at (name, type), or null.
    AttributeBlock* getAttribute(ATTRIBUTE_NAME name, AttributeBlock::TYPE type) const;
    // A new empty block at (name, type), held by this mesh. Null, leaving the slot as it is, when
    // the slot is occupied.
    AttributeBlock* createAttribute(ATTRIBUTE_NAME name, AttributeBlock::TYPE type);
    // Puts `block` (or nothing) at (name, type), dropping what was there; streams of other meshes
    // stay untouched.
    void setAttribute(ATTRIBUTE_NAME name, AttributeBlock::TYPE type, AttributeBlock* block);

    // Read-or-create accessors of the streams in their usual element types.
    Positions& positions() { return stream<Vec3>(POSITION); }
    Indices& indices() { return stream<unsigned int>(INDEX); }
    InstanceIds& instanceIds() { return stream<unsigned short>(INSTANCE_ID); }
    Colors& colors() { return stream<Vec4>(COLOR); }
    TexCoords& texCoords() { return stream<Vec2>(TEXCOORD); }
    // Look-only accessors; null when the stream is absent.
    const Positions* findPositions() const { return find<Vec3>(POSITION); }
    const Indices* findIndices() const { return find<unsigned int>(INDEX); }
    const InstanceIds* findInstanceIds() const { return find<unsigned short>(INSTANCE_ID); }
    const Colors* findColors() const { return find<Vec4>(COLOR); }
    const TexCoords* findTexCoords() const { return find<Vec2>(TEXCOORD); }

    // The stream (name, element type E), created when absent.
    template <typename E>
    AttributeVector<E>& stream(ATTRIBUTE_NAME name) {
        constexpr AttributeBlock::TYPE type = AttributeBlock::typeOf<E>();
        AttributeBlock* block = getAttribute(name, type);
        if (block == nullptr) {
            block = createAttribute(name, type);
        }
        return *block->stream<E>();
    }
    template <typename E>
    const AttributeVector<E>* find(ATTRIBUTE_NAME name) const {
        const AttributeBlock* block = getAttribute(name, AttributeBlock::typeOf<E>());
        return block == nullptr ? nullptr : block->stream<E>();
    }

    // Empties every stream of this mesh for a rebuild. A stream that only this mesh holds is
    // cleared in place, keeping its capacity; a stream shared with another mesh is replaced by
    // a new empty one, so that the other mesh (a cached copy another thread may be reading) keeps
    // its contents.
    void resetStreams();
    // Makes the stream (name, type) this mesh's own: a shared one is replaced by a new empty
    // stream; an unshared one is left as it is. For writers of one stream of a shared mesh.
    void detach(ATTRIBUTE_NAME name, AttributeBlock::TYPE type);

    AR::Common::Mutex& mutex() const { return mMutex; }

private:
    static int32_t slotOf(ATTRIBUTE_NAME name, AttributeBlock::TYPE type);

    std::array<AR::Common::RefPtr<AttributeBlock>, kNumSlots> mSlots;
    mutable AR::Common::Mutex mMutex;
};

// The surface of a scene as one mesh per volume block, keyed by block index. Meshes hold world
// coordinates, so block meshes append without a transform. Iteration order is that of the hash
// table's node list: it depends on the history of the map and carries no meaning.
using MeshGridType = std::unordered_map<AR::Math::Vector<int, 3>, PolygonMesh,
                                        AR::Common::hash<AR::Math::Vector<int, 3>>>;

// Counters and times of one extraction; zero-initialised by every caller. Durations are those of
// AR::Common::Timing (seconds). `mergeDuration` accumulates; the other durations are assigned.
struct ExtractSurfaceStats {
    float totalDuration = 0.0f;     // whole extraction of all blocks
    uint32_t reserved0 = 0;         // not written
    float cellsDuration = 0.0f;     // MarchingCubes2: walking the cells
    float verticesDuration = 0.0f;  // MarchingCubes2::createMesh, vertex pass
    float indicesDuration = 0.0f;   // MarchingCubes2::createMesh, index pass
    float mergeDuration = 0.0f;     // mergeMesh, accumulated
    uint32_t reserved1 = 0;         // not written
    uint32_t numCells = 0;          // MarchingCubes2: cells recorded
    uint32_t numVertices = 0;       // MarchingCubes2: assigned; MarchingCubes: summed over blocks
    uint32_t numIndices = 0;        // MarchingCubes: triangle indices summed over blocks
};
static_assert(sizeof(ExtractSurfaceStats) == 40, "ten 32-bit words");

// Appends the triangles of `source` to `target` without welding: the source's indices are offset
// by the target's vertex count before the append. Instance ids and colours follow when the
// source has them (a target may so end up with fewer ids than vertices; consumers compare the
// lengths). Texture coordinates and the second vector stream are not carried over. Geometry is
// skipped when the source lacks POSITION or INDEX.
void appendMesh(const PolygonMesh& source, PolygonMesh& target);

// All block meshes of `grid` appended, in the grid's iteration order, into one new mesh (so the
// vertex order is not stable between runs; the triangles are). Adds its time to
// `stats.mergeDuration`.
PolygonMesh mergeMesh(const MeshGridType& grid, ExtractSurfaceStats& stats);

}  // namespace Solid

#endif  // VELMORA_SOLID_SURFACE_POLYGONMESH_H
