// The plane forest: its states and links on a fused analytic room (one root per floor, wall and
// table top; a box top and a shallow crease kept apart; refits and removals that keep the forest
// consistent), and the diagnostics and aborts of the node table.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <sstream>
#include <vector>

#include "solid/planes/PlaneDetector.h"
#include "support/FusedGrid.h"
#include "support/PlaneScenes.h"

namespace {

using Solid::PlaneDetector;
using Solid::PlaneID;

constexpr float kCellSize = 0.05f;
constexpr float kTruncation = 0.25f;
// Weighted fit error (see solveL1): a box top 0.3 m above the floor scores about 0.02 against a
// joint plane, a floor block well below 0.001.
constexpr float kMaxStdError = 0.005f;
constexpr float kMaxAngle = 0.1f;  // radians
constexpr uint32_t kIterations = 5;
// A root stands for a true plane when its normal is within this angle (radians) and its
// constant within this distance (metres).
constexpr float kNormalTolerance = 0.05f;
constexpr float kOffsetTolerance = 0.02f;

struct TruePlane {
    const char* name;
    Solid::Vec3 normal;
    float offset;
};

// Floor, the four walls and the table top of the furnished room.
const std::vector<TruePlane>& roomPlanes() {
    static const std::vector<TruePlane> planes = {
        {"floor", Solid::Vec3(0.f, 0.f, 1.f), 0.f},
        {"west wall", Solid::Vec3(1.f, 0.f, 0.f), 0.f},
        {"east wall", Solid::Vec3(-1.f, 0.f, 0.f), 4.f},
        {"south wall", Solid::Vec3(0.f, 1.f, 0.f), 0.f},
        {"north wall", Solid::Vec3(0.f, -1.f, 0.f), 3.f},
        {"table top", Solid::Vec3(0.f, 0.f, 1.f), -static_cast<float>(Velmora::Test::kTableTop)},
    };
    return planes;
}

bool matches(const PlaneDetector::Node& node, const TruePlane& truth) {
    return std::acos(std::min(1.0f, AR::Math::dot(node.plane.getNormal(), truth.normal))) <
               kNormalTolerance &&
           std::abs(node.plane.getDepth() - truth.offset) < kOffsetTolerance;
}

class PlaneForest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        grid = new Solid::DepthGrid();
        Velmora::Test::configureGrid(*grid, kCellSize);
        const Velmora::Test::AnalyticScene scene = Velmora::Test::furnishedRoom();
        for (const auto& camera : Velmora::Test::roomTour(160, 120, 24)) {
            Velmora::Test::fuseView(*grid, scene, camera, kTruncation);
        }
    }
    static void TearDownTestSuite() { delete grid; }

    void SetUp() override {
        detector.configure(kTruncation, kMaxStdError, kMaxAngle, kIterations, 0.0f);
        grid->for_each(
            [&](const Solid::KeyType& key, const Solid::DepthVolume&) { allBlocks.insert(key); });
        detector.fitPlanes(*grid, allBlocks);
        roots = detector.mergePlanes(allBlocks);
    }

    // The roots that stand for `truth`.
    std::vector<PlaneID> rootsOf(const TruePlane& truth) const {
        std::vector<PlaneID> found;
        for (const PlaneID id : detector.getRootIDs()) {
            if (matches(detector.getNode(id), truth)) {
                found.push_back(id);
            }
        }
        return found;
    }

    // Every leaf ends at a valid root or is alone; parents point upward.
    void expectConsistent() const {
        size_t leaves = 0;
        for (PlaneID id = 1; id < detector.numCreatedNodes(); ++id) {
            const PlaneDetector::Node& node = detector.getNode(id);
            if (node.isLeaf()) {
                ++leaves;
                const PlaneDetector::Node& root = detector.getNode(detector.getRootID(id));
                EXPECT_TRUE(root.isRoot() || root.id == id) << "leaf " << id;
                EXPECT_EQ(detector.getRootID(*node.blocks.begin()), root.id);
            }
            if (node.isRoot()) {
                EXPECT_EQ(node.equations.getNumBlocks(), node.blocks.size()) << "root " << id;
            }
        }
        EXPECT_EQ(leaves, detector.numLeafNodes());
    }

    static Solid::DepthGrid* grid;
    PlaneDetector detector;
    Solid::IndexSet allBlocks;
    Solid::PlaneIDSet roots;
};

Solid::DepthGrid* PlaneForest::grid = nullptr;

TEST_F(PlaneForest, EachPlaneOfTheRoomIsOneRoot) {
    for (const TruePlane& truth : roomPlanes()) {
        EXPECT_EQ(rootsOf(truth).size(), 1u) << truth.name;
    }
    // Every root of this first update is new.
    EXPECT_EQ(roots.size(), detector.getRootIDs().size());
    EXPECT_EQ(detector.numRootNodes(), roots.size());
    expectConsistent();
    // The diagnostics name a merged leaf's parent and root.
    std::ostringstream text;
    text << detector;
    const PlaneID leaf = detector.getNodeID(*detector.getNode(*roots.begin()).blocks.begin());
    std::ostringstream expected;
    expected << "#" << leaf << "\t";
    EXPECT_NE(text.str().find(expected.str()), std::string::npos);
    EXPECT_NE(text.str().find("\troot\n"), std::string::npos);
    EXPECT_NE(text.str().find(", root = " + std::to_string(detector.getRootID(leaf)) + ")"),
              std::string::npos);
}

TEST(PlaneMerging, ALowBoxTopStaysApartFromTheFloor) {
    // Exact distances of a floor at z = 0.1 with a flat box on it whose top is 0.2 m higher: the
    // joint plane of the whole floor and the box top fits the sum well (the floor outweighs the
    // box), so only the separate test of each part keeps them apart.
    Velmora::Test::AnalyticScene scene;
    scene.add(Velmora::Test::makeHalfSpace({0, 0, 1}, 0.1, 1, {0, 0, 0}));
    scene.add(Velmora::Test::makeBox({1.2, 0.4, 0.0}, {2.0, 1.2, 0.3}, 2, {0, 0, 0}));
    Solid::DepthGrid grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    std::vector<Solid::KeyType> keys;
    Solid::IndexSet blocks;
    for (int x = -2; x <= 6; ++x) {
        for (int y = -2; y <= 5; ++y) {
            keys.emplace_back(x, y, 0);
            blocks.insert(keys.back());
        }
    }
    Velmora::Test::writeExactBlocks(grid, scene, kTruncation, keys);
    PlaneDetector detector;
    detector.configure(kTruncation, kMaxStdError, kMaxAngle, kIterations, 0.0f);
    detector.fitPlanes(grid, blocks);
    detector.mergePlanes(blocks);
    const TruePlane floorPlane{"floor", Solid::Vec3(0.f, 0.f, 1.f), -0.1f};
    const TruePlane boxTop{"box top", Solid::Vec3(0.f, 0.f, 1.f), -0.3f};
    std::vector<PlaneID> floorRoots;
    for (const PlaneID id : detector.getRootIDs()) {
        if (matches(detector.getNode(id), floorPlane)) {
            floorRoots.push_back(id);
        }
    }
    ASSERT_EQ(floorRoots.size(), 1u);
    size_t boxTopLeaves = 0;
    for (PlaneID id = 1; id < detector.numCreatedNodes(); ++id) {
        const PlaneDetector::Node& node = detector.getNode(id);
        if (node.isLeaf() && matches(node, boxTop)) {
            ++boxTopLeaves;
            EXPECT_NE(detector.getRootID(id), floorRoots[0]);
        }
    }
    EXPECT_GE(boxTopLeaves, 2u);
}

TEST(PlaneMerging, AShallowCreaseIsNotMergedAcross) {
    // Two slopes meeting in a valley along x = 1.6 (a block face), their normals 1.5 times the
    // merge angle apart. The error bound is generous, so only the angle between the two parents
    // keeps them apart: the merged normal lies within the angle of each.
    const float a = 0.75f * kMaxAngle;
    const Solid::Vec3 left(std::sin(a), 0.f, std::cos(a));
    const Solid::Vec3 right(-std::sin(a), 0.f, std::cos(a));
    const Solid::Vec3 valley(1.6f, 0.f, 0.2f);
    Velmora::Test::AnalyticScene scene;
    for (const Solid::Vec3& n : {left, right}) {
        scene.add(Velmora::Test::makeHalfSpace({n(0), n(1), n(2)}, AR::Math::dot(n, valley), 1,
                                               {0, 0, 0}));
    }
    Solid::DepthGrid grid;
    Velmora::Test::configureGrid(grid, kCellSize);
    std::vector<Solid::KeyType> keys;
    Solid::IndexSet blocks;
    for (int x = 0; x < 8; ++x) {
        for (int y = 0; y < 4; ++y) {
            keys.emplace_back(x, y, 0);
            blocks.insert(keys.back());
        }
    }
    Velmora::Test::writeExactBlocks(grid, scene, kTruncation, keys);
    PlaneDetector detector;
    detector.configure(kTruncation, 0.1f, kMaxAngle, kIterations, 0.0f);
    detector.fitPlanes(grid, blocks);
    detector.mergePlanes(blocks);
    int sides[2] = {0, 0};
    for (const PlaneID id : detector.getRootIDs()) {
        int leftBlocks = 0;
        for (const Solid::KeyType& key : detector.getNode(id).blocks) {
            leftBlocks += key(0) < 4;
        }
        const size_t size = detector.getNode(id).blocks.size();
        EXPECT_TRUE(leftBlocks == 0 || leftBlocks == static_cast<int>(size)) << "root " << id;
        ++sides[leftBlocks > 0];
    }
    EXPECT_GT(sides[0], 0);
    EXPECT_GT(sides[1], 0);
}

TEST_F(PlaneForest, RefitOfOneBlockKeepsTheForestConsistent) {
    const PlaneID floorRoot = rootsOf(roomPlanes()[0]).at(0);
    std::vector<PlaneID> parents;
    for (PlaneID id = 0; id < detector.numCreatedNodes(); ++id) {
        parents.push_back(detector.getNode(id).parent);
    }
    // One floor block gets the exact field instead of the fused one, and is fitted again.
    const Solid::KeyType key = *detector.getNode(floorRoot).blocks.begin();
    Velmora::Test::writeExactBlocks(*grid, Velmora::Test::furnishedRoom(), kTruncation, {key});
    Solid::IndexSet changed;
    changed.insert(key);
    detector.fitPlanes(*grid, changed);
    detector.mergePlanes(changed);
    expectConsistent();
    for (PlaneID id = 0; id < parents.size(); ++id) {
        EXPECT_GE(detector.getNode(id).parent, parents[id]) << "links only grow";
    }
    EXPECT_EQ(rootsOf(roomPlanes()[0]).size(), 1u);
}

TEST_F(PlaneForest, RemovingBlocksShrinksAndFinallyKillsARoot) {
    const PlaneID tableRoot = rootsOf(roomPlanes()[5]).at(0);
    std::vector<Solid::KeyType> blocks(detector.getNode(tableRoot).blocks.begin(),
                                       detector.getNode(tableRoot).blocks.end());
    ASSERT_GE(blocks.size(), 3u);
    const PlaneID firstLeaf = detector.getNodeID(blocks[0]);
    detector.removeLeafNode(blocks[0]);
    EXPECT_TRUE(detector.getNode(tableRoot).isRoot());
    EXPECT_EQ(detector.getNode(tableRoot).blocks.size(), blocks.size() - 1);
    EXPECT_TRUE(matches(detector.getNode(tableRoot), roomPlanes()[5])) << "solved again";
    EXPECT_FALSE(detector.getNode(firstLeaf).isValid());
    EXPECT_EQ(detector.getRootID(blocks[0]), PlaneDetector::INVALID);
    for (const Solid::KeyType& key : blocks) {
        detector.removeLeafNode(key);
    }
    EXPECT_EQ(detector.getNode(tableRoot).id, PlaneDetector::INVALID);
    EXPECT_EQ(detector.getRootID(firstLeaf), tableRoot) << "the dead leaf's link stays";
    EXPECT_EQ(detector.getRootIDs().count(tableRoot), 0u);
    expectConsistent();
}

TEST(PlaneDetector, NewDetectorAndDiagnostics) {
    PlaneDetector detector;
    EXPECT_EQ(detector.numCreatedNodes(), 1u);
    EXPECT_FALSE(detector.getNode(PlaneDetector::INVALID).isValid());
    EXPECT_TRUE(detector.getRootIDs().empty());
    EXPECT_EQ(detector.getRootID(Solid::KeyType(1, 2, 3)), PlaneDetector::INVALID);
    detector.removeLeafNode(Solid::KeyType(1, 2, 3));
    std::ostringstream empty;
    empty << detector;
    EXPECT_EQ(empty.str(), "");

    // Two leaves and a root above them, built by hand.
    AR::Math::Matrix<float> X(5, 4);
    AR::Math::Vector<float> s(5);
    for (int i = 0; i < 5; ++i) {
        X(i, 0) = static_cast<float>(i % 2);
        X(i, 1) = static_cast<float>(i / 2 % 2);
        X(i, 2) = 0.5f * static_cast<float>(i);
        X(i, 3) = 1.0f;
        s[i] = X(i, 2) - 0.5f;
    }
    const Solid::Plane3DEquations<float> equations(X, s);
    PlaneDetector::Node a;
    PlaneDetector::Node b;
    ASSERT_TRUE(detector.createNode(true, equations, a));
    ASSERT_TRUE(detector.createNode(true, equations, b));
    const PlaneID idA = detector.insertNode(std::move(a), Solid::KeyType(0, 0, 0));
    const PlaneID idB = detector.insertNode(std::move(b), Solid::KeyType(1, 0, 0));
    EXPECT_EQ(idA, 1u);
    EXPECT_TRUE(detector.getRootIDs().empty()) << "lone leaves are no planes";
    EXPECT_EQ(detector.mergePlanes(Solid::IndexSet()).size(), 0u);
    std::ostringstream text;
    text << detector;
    // The normal's first two components are rounding noise of the solve.
    const std::regex leaves("#1\t\\S+ \\S+ 1 -0.5\tleaf\n#2\t\\S+ \\S+ 1 -0.5\tleaf\n");
    EXPECT_TRUE(std::regex_match(text.str(), leaves)) << text.str();
    EXPECT_EQ(detector.numLeafNodes(), 2u);
    EXPECT_EQ(detector.getNodeID(Solid::KeyType(1, 0, 0)), idB);
}

TEST(PlaneDetectorDeathTest, OutOfRangeIdentitiesAbort) {
    PlaneDetector detector;
    EXPECT_DEATH(detector.getNode(1), "id < mPlanes.size");
    EXPECT_DEATH(detector.getRootID(PlaneID(5)), "numCreatedNodes");
}

}  // namespace
