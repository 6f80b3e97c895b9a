// The planes of the scene, found bottom-up from the stored signed distances.
//
// Every block whose samples form a plane gets a node of its own, a leaf. Leaves that agree are
// merged, and every merge is recorded in a forest: the merged plane is a new node above the two
// it absorbed. The roots of the forest are the planes a host sees.
//
// Nodes live in `mPlanes` and are addressed by their index, the `PlaneID`; slot 0 never holds a
// plane, so that 0 (`INVALID`) can stand for "no plane". Nodes are never removed: a dead node
// keeps its slot and its `parent`, so every identity ever handed out stays resolvable. Parent
// links only point upward (a merge creates a higher identity), so a root is found by walking up;
// there is no path compression, as the links are also the history.
//
// Node states, from `id`, `parent` and `leaf`:
//   invalid       id == 0 (slot 0, or a node that was reset)
//   leaf          valid and leaf: the plane of exactly one block
//   root          valid, not leaf, id == parent: a merged plane nothing has absorbed
//   intermediate  valid, not leaf, id != parent: a merged plane absorbed by a later one; it holds
//                 no data, only its link
// A leaf that merged with nothing is its own parent but still a leaf, not a plane for the host.
//
// Invariants (checked, abort when broken): mPlanes.size() == mIdxCount; slot 0 is invalid; every
// parent is >= its id and < numCreatedNodes(); numLeafNodes() == number of blocks with a leaf; a
// valid leaf or root covers as many blocks as its equations count.
//
// Not thread-safe: the scene runs it under its plane mutex only. Blocks of a grid are locked
// while their samples are read.
#ifndef VELMORA_SOLID_PLANES_PLANEDETECTOR_H
#define VELMORA_SOLID_PLANES_PLANEDETECTOR_H

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <vector>

#include "common/ArrayView.h"
#include "common/FlatMap.h"
#include "common/FlatSet.h"
#include "cv/Plane3D.h"
#include "solid/planes/Plane3DEquations.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

// Index of a node of the plane forest.
using PlaneID = size_t;
using PlaneIDSet = AR::Common::FlatSet<PlaneID>;

class PlaneDetector {
public:
    static constexpr PlaneID INVALID = 0;
    // Nodes reserved at construction, so that the first merges do not move the table.
    static constexpr size_t kReservedNodes = 1000;
    // A seed needs at least this many neighbouring leaves.
    static constexpr size_t kMinSeedNeighbours = 5;

    using Equations = Plane3DEquations<float>;
    using Plane = AR::CV::Geometry::Plane3D<float>;

    struct Node {
        PlaneID id = INVALID;        // the node's index while valid, 0 once reset
        PlaneID parent = INVALID;    // id for a root or lone leaf, else the node that absorbed it
        Plane plane;                 // the fitted plane
        Equations equations;         // accumulated normal equations of its blocks
        IndexSet blocks;             // the blocks the node covers
        std::vector<Vec3> geometry;  // sample points projected onto the plane, world metres
        std::vector<Vec3> contour;   // the outline, world metres
        uint16_t label = 0;          // semantic class
        bool leaf = false;           // a block's own node

        bool isValid() const { return id != INVALID; }
        bool isLeaf() const { return isValid() && leaf; }
        bool isRoot() const { return isValid() && !leaf && id == parent; }
        bool isIntermediate() const { return isValid() && !leaf && id != parent; }
        // Drops all data (equations, blocks, geometry, contour) and their memory; keeps id and
        // parent.
        void free();
        // Frees a valid node and marks it invalid; `parent` stays so that walks from below still
        // end at this index.
        void reset();
    };

    PlaneDetector();

    // Settings from the scene's configuration; until then the detector is disabled.
    // `truncation` metres (the band of the distances), `maxStdError` the largest accepted fit
    // error (weighted, see solveL1) and also the half thickness of a plane in metres,
    // `maxAngle` radians between planes that may merge, `solverIterations` rounds of the robust
    // solver after the first, `contourAlpha` metres (0: convex hull outlines).
    void configure(float truncation, float maxStdError, float maxAngle, uint32_t solverIterations,
                   float contourAlpha);
    bool isEnabled() const { return mEnabled; }

    // --- The forest ---------------------------------------------------------------------------
    // Forgets all nodes and leaves; slot 0 is recreated. The sample index cache stays.
    void clear();
    const Node& getNode(PlaneID id) const;
    // The leaf of a block, 0 if it has none.
    PlaneID getNodeID(const Index3& block) const;
    // The end of the parent chain from `id`; for a block, from its leaf (0 without one).
    PlaneID getRootID(PlaneID id) const;
    PlaneID getRootID(const Index3& block) const;
    // The planes for the host: for each node index from 1 up, its root, if that root is valid,
    // not a leaf and not intermediate. Iteration order is the set's.
    PlaneIDSet getRootIDs() const;
    size_t numCreatedNodes() const;
    size_t numRootNodes() const;
    size_t numLeafNodes() const;

    // Appends `node` as a new identity (its own parent) and returns that identity.
    PlaneID insertNode(Node&& node);
    // The same for the leaf of `block`.
    PlaneID insertNode(Node&& node, const Index3& block);
    // Drops the leaf of `block` and its share of its root's sums; a root left without blocks is
    // reset. No-op for a block without a leaf.
    void removeLeafNode(const Index3& block);

    // A fresh node holding `equations` and their solved plane; false if they do not solve.
    bool createNode(bool isLeaf, const Equations& equations, Node& node) const;
    // Stores `equations` in `node` and solves them; when they do not solve, rebuilds the sums
    // from the leaves of the node's blocks (subtractions may have damaged them) and solves again.
    bool updateEquations(Node& node, const Equations& equations) const;

    // --- Fitting and merging ------------------------------------------------------------------
    // Refits the leaf of every block in `updatedBlocks` from its samples; a block whose samples
    // do not form a plane loses its leaf. For the two depth-bearing grids.
    template <typename Grid>
    void fitPlanes(const Grid& grid, const IndexSet& updatedBlocks);
    // Grows planes from the refitted blocks: seeds are leaves with the smallest error among at
    // least five neighbouring leaves; a seed's plane greedily joins neighbouring planes when the
    // joint fit stays good for both parts and all three normals agree. Returns the new roots.
    PlaneIDSet mergePlanes(const IndexSet& updatedBlocks);

    // --- Geometry, labels and contours of new roots -------------------------------------------
    // The samples of each root of `planes` (of its blocks and their 26 neighbours) that lie
    // within mMaxStdError metres of its plane, projected onto it, into the root's `geometry`.
    template <typename Grid>
    void updateGeometry(const Grid& grid, const PlaneIDSet& planes);
    // The most voted label of the samples of each root of `planes` (the lowest label on a tie, 0
    // without votes), read from `labelGrid`. A block not yet in `labelGrid` adds nothing.
    template <typename Grid, typename LabelGridType>
    void updateLabels(const Grid& grid, const LabelGridType& labelGrid, const PlaneIDSet& planes);
    // The outline of each root of `planes` from its `geometry`, thinned to one point per half
    // sample cell: the convex hull (contour alpha 0) or the largest alpha shape, closed (its
    // first point repeated last). Fewer than three points give an empty contour.
    template <typename Grid>
    void updateContours(const Grid& grid, const PlaneIDSet& planes);

    // The sample indices chosen in each block by the last fit (or the surface crossings).
    const AR::Common::FlatMap<Index3, IndexSet>& blockSamples() const { return mBlockSamples; }

    friend std::ostream& operator<<(std::ostream& out, const PlaneDetector& planeDetector);

private:
    // Calls visitor(visitGrid, key, sampleIndex) for the chosen samples of the node's blocks and
    // of their neighbours that exist in `sampleGrid`, for each block that exists in `visitGrid`.
    // No block lock is held during a call.
    template <typename SampleGrid, typename VisitGrid, typename Visitor>
    void forEachSampleInPlane(const SampleGrid& sampleGrid, const VisitGrid& visitGrid,
                              const Node& node, Visitor&& visitor);

    bool mEnabled = false;
    size_t mIdxCount = 0;                                 // next PlaneID, == mPlanes.size()
    AR::Common::FlatMap<Index3, PlaneID> mGridIdxs;       // the leaf of each block that has one
    AR::Common::FlatMap<Index3, IndexSet> mBlockSamples;  // chosen samples per block
    std::vector<Node> mPlanes;
    std::vector<Index3> mNeighbourOffsets;  // the 26 neighbours, lexicographic, without (0,0,0)
    float mTruncation = 0.0f;               // metres
    float mMaxStdError = 0.0f;
    float mMaxAngle = 0.0f;  // radians
    uint32_t mSolverIterations = 0;
    float mContourAlpha = 0.0f;  // metres, 0 for the convex hull
};

// "#id<TAB>a b c d<TAB>state".
std::ostream& operator<<(std::ostream& out, const PlaneDetector::Node& node);

// The samples of a block's own 8x8x8 cells (the shared upper border planes left out) whose
// normalised distance is at most `threshold` in absolute value, as (x, y, z) indices.
template <typename VolumeType>
IndexSet extractSampleIndexes(const VolumeType& volume, float threshold);

// The least-squares system of the samples `indices` of `volume`: rows (x, y, z, 1) in world
// metres (the block's lattice point plus `origin`) and the distances in metres. Samples at the
// saturated ends of the band are skipped. Returns the number of rows.
template <typename VolumeType>
size_t getPlaneSystem(AR::Math::Matrix<float>& X, AR::Math::Vector<float>& s,
                      const VolumeType& volume, const IndexSet& indices, float truncation,
                      const Vec3& origin);

// The samples of a block's own cells next to which the distance crosses `isoValue` (towards
// the upper neighbour along x, y or z), with those neighbours. `CheckWeights` 0: weights are not
// consulted. Samples at the saturated ends of the band (|v| == 1) are skipped.
template <int CheckWeights, typename VolumeType>
IndexSet extractIsoSurfaceIndexes(const VolumeType& volume, float isoValue);

// 2-D coordinates of `points` in the plane: origin at the plane's point nearest the world
// origin, first axis along the projection of world x or world y (whichever is longer), second
// axis normal x first axis. Metres.
std::vector<Vec2> projectTo2D(AR::Common::ArrayView<const Vec3> points,
                              const AR::CV::Geometry::Plane3D<float>& plane);

}  // namespace Solid

#endif  // VELMORA_SOLID_PLANES_PLANEDETECTOR_H
