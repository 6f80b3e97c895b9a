// One typed stream of a polygon mesh: a growable array of positions, colours, indices or ids,
// reference-counted so that several meshes can share it.
//
// The element type is chosen at run time by `TYPE` (the mesh looks streams up by name and type);
// `create` makes the empty array of that type and `stream<E>()` hands it out typed, checking that
// E is the element type of the block. Streams grow by doubling and never shrink: `clear` empties
// a stream and keeps its capacity, so a block mesh re-extracted at a similar size reuses its
// memory.
//
// The modification count starts at 1 and rises by one in `create` and in every `clear`, so a
// consumer can tell that a stream it saw before was rebuilt. No locking: a block shared by meshes
// on several threads is guarded by whoever owns those meshes; only the reference count is
// thread-safe.
#ifndef VELMORA_SOLID_SURFACE_ATTRIBUTEBLOCK_H
#define VELMORA_SOLID_SURFACE_ATTRIBUTEBLOCK_H

#include <cstdint>

#include "common/RefCounter.h"
#include "common/Vector.h"
#include "math/SolidTypes.h"

namespace Solid {

// The array of one attribute stream.
template <typename E>
using AttributeVector = AR::Common::Vector<E, AR::Common::VectorGrowDoubling<16>>;

class AttributeBlock : public AR::Common::RefCounter {
public:
    // Element types. Values 0, 4 and 5 are valid but nothing in the system uses them.
    enum TYPE : int32_t {
        TYPE_INVALID = -1,  // asked for a type outside 0 to 7
        TYPE_UINT8 = 0,     // unsigned char
        TYPE_VEC4F = 1,     // Vec4: per-vertex colour
        TYPE_VEC3F = 2,     // Vec3: positions and the second vector stream
        TYPE_VEC2F = 3,     // Vec2: texture coordinates
        TYPE_FLOAT = 4,     // float
        TYPE_INT32 = 5,     // int32_t
        TYPE_UINT16 = 6,    // unsigned short: per-vertex instance id
        TYPE_UINT32 = 7,    // unsigned int: triangle indices
    };
    static constexpr int32_t kNumTypes = 8;

    // Element type of a TYPE value, and the TYPE value of an element type.
    template <TYPE T>
    struct ElementOf;
    template <typename E>
    static constexpr TYPE typeOf();

    AttributeBlock() = default;
    ~AttributeBlock() override;
    AttributeBlock(const AttributeBlock&) = delete;
    AttributeBlock& operator=(const AttributeBlock&) = delete;

    // Makes the empty array for `type` and returns it (untyped). A type outside 0 to 7 leaves no
    // array, records TYPE_INVALID, logs and aborts. Once per block.
    void* create(TYPE type);
    // Empties the array, keeping its capacity; aborts on a block without a valid type.
    void clear();

    TYPE type() const { return mType; }
    uint32_t modificationCount() const { return mModificationCount; }

    // The array typed as holding E; aborts unless E is the element type of this block.
    template <typename E>
    AttributeVector<E>* stream() const {
        AR_ASSERT(mType == typeOf<E>());
        return static_cast<AttributeVector<E>*>(mData);
    }

private:
    void* mData = nullptr;  // owning: an AttributeVector of the element type of mType
    TYPE mType = TYPE_INVALID;
    uint32_t mModificationCount = 1;
};

template <>
struct AttributeBlock::ElementOf<AttributeBlock::TYPE_UINT8> {
    using type = unsigned char;
};
template <>
struct AttributeBlock::ElementOf<AttributeBlock::TYPE_VEC4F> {
    using type = Vec4;
};
template <>
struct AttributeBlock::ElementOf<AttributeBlock::TYPE_VEC3F> {
    using type = Vec3;
};
template <>
struct AttributeBlock::ElementOf<AttributeBlock::TYPE_VEC2F> {
    using type = Vec2;
};
template <>
struct AttributeBlock::ElementOf<AttributeBlock::TYPE_FLOAT> {
    using type = float;
};
template <>
struct AttributeBlock::ElementOf<AttributeBlock::TYPE_INT32> {
    using type = int32_t;
};
template <>
struct AttributeBlock::ElementOf<AttributeBlock::TYPE_UINT16> {
    using type = unsigned short;
};
template <>
struct AttributeBlock::ElementOf<AttributeBlock::TYPE_UINT32> {
    using type = unsigned int;
};

template <typename E>
constexpr AttributeBlock::TYPE AttributeBlock::typeOf() {
    if constexpr (std::is_same_v<E, unsigned char>) {
        return TYPE_UINT8;
    } else if constexpr (std::is_same_v<E, Vec4>) {
        return TYPE_VEC4F;
    } else if constexpr (std::is_same_v<E, Vec3>) {
        return TYPE_VEC3F;
    } else if constexpr (std::is_same_v<E, Vec2>) {
        return TYPE_VEC2F;
    } else if constexpr (std::is_same_v<E, float>) {
        return TYPE_FLOAT;
    } else if constexpr (std::is_same_v<E, int32_t>) {
        return TYPE_INT32;
    } else if constexpr (std::is_same_v<E, unsigned short>) {
        return TYPE_UINT16;
    } else {
        static_assert(std::is_same_v<E, unsigned int>, "not an element type of a mesh stream");
        return TYPE_UINT32;
    }
}

}  // namespace Solid

#endif  // VELMORA_SOLID_SURFACE_ATTRIBUTEBLOCK_H
