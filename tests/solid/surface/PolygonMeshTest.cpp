#include "solid/surface/PolygonMesh.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace Solid {
namespace {

using B = AttributeBlock;
using M = PolygonMesh;

// A mesh of `n` vertices at (i, 0, 0) and the given triangles, optionally with ids.
PolygonMesh makeMesh(int n, std::initializer_list<unsigned int> indices,
                     std::initializer_list<unsigned short> ids = {}) {
    PolygonMesh mesh;
    for (int i = 0; i < n; ++i) {
        mesh.positions().push_back(Vec3(i, 0, 0));
    }
    for (unsigned int index : indices) {
        mesh.indices().push_back(index);
    }
    for (unsigned short id : ids) {
        mesh.instanceIds().push_back(id);
    }
    return mesh;
}

TEST(AttributeBlock, CountsModificationsAndKeepsCapacity) {
    B block;
    EXPECT_EQ(block.modificationCount(), 1u);
    block.create(B::TYPE_UINT32);
    EXPECT_EQ(block.modificationCount(), 2u);
    for (unsigned int i = 0; i < 100; ++i) {
        block.stream<unsigned int>()->push_back(i);
    }
    const uint32_t capacity = block.stream<unsigned int>()->getCapacity();
    block.clear();
    EXPECT_EQ(block.modificationCount(), 3u);
    EXPECT_TRUE(block.stream<unsigned int>()->empty());
    EXPECT_EQ(block.stream<unsigned int>()->getCapacity(), capacity);
}

TEST(AttributeBlockDeathTest, WrongTypesAbort) {
    EXPECT_DEATH(
        {
            B block;
            block.create(static_cast<B::TYPE>(8));
        },
        "Attribute Block instantiated with a wrong type");
    EXPECT_DEATH(
        {
            B block;
            block.create(B::TYPE_VEC3F);
            block.stream<Vec4>();
        },
        "typeOf");
}

TEST(PolygonMesh, SlotsAreKeyedByNameAndType) {
    PolygonMesh mesh;
    AttributeBlock* first = mesh.createAttribute(M::POSITION, B::TYPE_VEC3F);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(mesh.createAttribute(M::POSITION, B::TYPE_VEC3F), nullptr);
    EXPECT_EQ(mesh.getAttribute(M::POSITION, B::TYPE_VEC3F), first);
    // The same name with another element type is a slot of its own.
    AttributeBlock* other = mesh.createAttribute(M::POSITION, B::TYPE_VEC4F);
    ASSERT_NE(other, nullptr);
    EXPECT_NE(other, first);
    EXPECT_EQ(mesh.getAttribute(M::NORMAL, B::TYPE_VEC3F), nullptr);
    // Reading through the typed accessor finds the existing stream.
    EXPECT_EQ(&mesh.positions(), first->stream<Vec3>());
    EXPECT_EQ(mesh.findColors(), nullptr);
}

TEST(PolygonMesh, CopiesShareStreams) {
    PolygonMesh original = makeMesh(3, {0, 1, 2});
    PolygonMesh copy(original);
    PolygonMesh assigned;
    assigned = original;
    EXPECT_EQ(original.getAttribute(M::POSITION, B::TYPE_VEC3F)->getRefCount(), 3);
    original.getAttribute(M::POSITION, B::TYPE_VEC3F)->clear();
    original.getAttribute(M::INDEX, B::TYPE_UINT32)->clear();
    EXPECT_TRUE(copy.findPositions()->empty());
    EXPECT_TRUE(assigned.findIndices()->empty());
    // A stream replaced in one mesh leaves the others alone.
    copy.setAttribute(M::INDEX, B::TYPE_UINT32, nullptr);
    EXPECT_EQ(copy.findIndices(), nullptr);
    EXPECT_NE(original.findIndices(), nullptr);
}

TEST(PolygonMesh, RebuildingASharedMeshLeavesItsCopiesAlone) {
    PolygonMesh mesh = makeMesh(40, {0, 1, 2}, {4, 4, 4});
    {
        const PolygonMesh cached(mesh);
        mesh.resetStreams();
        mesh.detach(M::INSTANCE_ID, B::TYPE_UINT16);
        EXPECT_EQ(cached.findPositions()->size(), 40u);
        EXPECT_EQ(cached.findInstanceIds()->size(), 3u);
        EXPECT_TRUE(mesh.findPositions()->empty());
        EXPECT_TRUE(mesh.findInstanceIds()->empty());
        EXPECT_NE(mesh.findPositions(), cached.findPositions());
    }
    // Alone again: cleared in place, the capacity kept for the next rebuild.
    mesh.positions().push_back(Vec3(1, 1, 1));
    const PolygonMesh::Positions* own = mesh.findPositions();
    const uint32_t ownCapacity = own->getCapacity();
    mesh.resetStreams();
    EXPECT_EQ(mesh.findPositions(), own);
    EXPECT_TRUE(own->empty());
    EXPECT_EQ(own->getCapacity(), ownCapacity);
}

TEST(PolygonMesh, AppendOffsetsIndicesAndCarriesIdsAndColours) {
    PolygonMesh target = makeMesh(3, {0, 1, 2}, {7, 7, 7});
    PolygonMesh source = makeMesh(4, {0, 1, 2, 2, 3, 0}, {9, 9, 9, 9});
    source.colors().push_back(Vec4(1, 0, 0, 1));
    source.texCoords().push_back(Vec2(0.5f, 0.5f));
    appendMesh(source, target);
    const std::vector<unsigned int> indices(target.findIndices()->begin(),
                                            target.findIndices()->end());
    EXPECT_EQ(indices, (std::vector<unsigned int>{0, 1, 2, 3, 4, 5, 5, 6, 3}));
    ASSERT_EQ(target.findPositions()->size(), 7u);
    EXPECT_EQ((*target.findPositions())[4][0], 1.0f);
    const std::vector<unsigned short> ids(target.findInstanceIds()->begin(),
                                          target.findInstanceIds()->end());
    EXPECT_EQ(ids, (std::vector<unsigned short>{7, 7, 7, 9, 9, 9, 9}));
    EXPECT_EQ(target.findColors()->size(), 1u);
    EXPECT_EQ(target.findTexCoords(), nullptr);
}

TEST(PolygonMesh, AppendSkipsGeometryWithoutBothStreams) {
    PolygonMesh source;
    source.positions().push_back(Vec3(1, 2, 3));
    source.instanceIds().push_back(5);
    PolygonMesh target;
    appendMesh(source, target);
    EXPECT_TRUE(target.findPositions()->empty());
    EXPECT_TRUE(target.findIndices()->empty());
    EXPECT_EQ(target.findInstanceIds()->size(), 1u);
}

TEST(PolygonMesh, MergeAppendsEveryBlockMesh) {
    ExtractSurfaceStats stats;
    MeshGridType grid;
    const PolygonMesh empty = mergeMesh(grid, stats);
    EXPECT_EQ(empty.findPositions(), nullptr);
    EXPECT_EQ(empty.findIndices(), nullptr);

    grid[Index3(0, 0, 0)] = makeMesh(3, {0, 1, 2}, {1, 1, 1});
    grid[Index3(1, 0, 0)] = makeMesh(0, {});
    grid[Index3(2, 0, 0)] = makeMesh(4, {0, 1, 2, 1, 2, 3});
    const PolygonMesh merged = mergeMesh(grid, stats);
    EXPECT_EQ(merged.findPositions()->size(), 7u);
    ASSERT_EQ(merged.findIndices()->size(), 9u);
    // Every triangle keeps its own vertices, whatever the order of the blocks.
    std::vector<float> corners;
    for (unsigned int index : *merged.findIndices()) {
        corners.push_back((*merged.findPositions())[index][0]);
    }
    std::sort(corners.begin(), corners.end());
    EXPECT_EQ(corners, (std::vector<float>{0, 0, 1, 1, 1, 2, 2, 2, 3}));
    // Only one block had ids: the merged id stream is shorter than the positions.
    EXPECT_EQ(merged.findInstanceIds()->size(), 3u);
}

}  // namespace
}  // namespace Solid
