// Object instances: connected regions of one semantic label, found in two stages.
//
// Stage one, per block (`updateBlockInstances`): every sample of a changed block settles on its
// winning label; each label present in the block becomes one `BlockInstance` with a block-local
// identity (`LocalID`) taken from a free pool, and that identity is written into the samples.
// Stage two, across blocks (`mergeBlockInstances`): pieces of the same label whose boxes overlap
// across any of the 26 neighbour faces, edges and corners are joined into an `Instance` with a
// `GlobalID` that persists from one update to the next. Instances that come to touch merge; the
// absorbed identity keeps a parent link to the survivor, and an instance that lost all its blocks
// has parent 0. A `GlobalID` is never reused.
//
// Invariants after every merge (`mergeLastCalled`):
//   - each piece in `mBlockInstances` has an entry in `mLocalToGlobal`, and its global identity
//     is a live instance that holds the piece's block in `boundingBoxes`;
//   - `mParents` holds 0 and every identity ever created: numCreatedNodes() entries;
//   - a `LocalID` is either in the pool or held by exactly one piece (see `recycleRetiredIds`).
//
// Samples may carry identities that no piece holds any more: border samples copied from a
// neighbour before or after its update, and samples loaded from a file. Readers of sample
// identities therefore use `findGlobalInstanceId`, which answers 0 (gone) for them.
//
// The costs follow the changed blocks and their neighbours, not the scene. Not thread-safe: the
// owner runs every call under one lock; the samples are written under each block's own mutex.
#ifndef VELMORA_SOLID_INSTANCES_INSTANCEEXTRACTOR_H
#define VELMORA_SOLID_INSTANCES_INSTANCEEXTRACTOR_H

#include <array>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "common/FlatMap.h"
#include "common/FlatSet.h"
#include "solid/query/CollisionDetection.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

// Identity of one label region within one block, stored in the samples; 0 for none.
using LocalID = uint16_t;
// Identity of an instance across blocks; 0 is the root of everything that is gone.
using GlobalID = uint16_t;

// Margin, metres, added around each sample's cell so that boxes of touching samples overlap
// under the strict overlap test.
constexpr float kInstanceBoxMargin = 0.01f;
// Identities a pool can hand out: 1 to 65535.
constexpr uint32_t kMaxLocalId = 0xFFFF;

// The piece of one label in one block; `box` in world metres.
struct BlockInstance {
    LocalID localId = 0;
    uint16_t label = 0;
    Box box;
};

// An object across blocks. `box` is the union of every piece it ever held (it never shrinks);
// `boundingBoxes` the box of its piece in each block it holds now, at most one per block.
struct Instance {
    GlobalID id = 0;
    uint16_t label = 0;
    Box box;
    AR::Common::FlatMap<Index3, Box> boundingBoxes;
};

// Hash of a (block, piece index) pair: the block hash xor the hash of the index.
struct pair_hash {
    uint32_t operator()(const std::pair<Index3, uint32_t>& key) const {
        return AR::Common::hash<Index3>()(key.first) ^ AR::Common::fnvStep(key.second);
    }
};
using BlockVisited = AR::Common::FlatSet<std::pair<Index3, uint32_t>, pair_hash>;

// True when the boxes overlap with positive volume on every axis.
bool boxesOverlap(const Box& a, const Box& b);
// Grows `box` to include `other`.
void growBox(Box& box, const Box& other);

class InstanceExtractor {
public:
    using BlockInstances = std::vector<BlockInstance>;
    using InstanceTable = AR::Common::FlatMap<GlobalID, Instance>;

    // Empty tables, a full pool, and 0 as its own parent.
    InstanceExtractor();

    // Refills the pool with 1, 2, ... 65535 in that order and forgets the retired identities.
    void resetAvailableIds();

    // Stage one over `blocks` of a labelled grid (LabelGrid or LabelDepthGrid): rewrites the
    // instance field of all 9x9x9 samples of each block, border included, and appends one
    // BlockInstance per winning label to the block's pieces. Keys without a block are skipped.
    // Unless `deferMerge`, runs `mergeBlockInstances(blocks)` right away.
    template <typename Grid>
    void updateBlockInstances(Grid& grid, const IndexSet& blocks, bool deferMerge);

    // Stage two over the blocks of the last update; see the file comment.
    void mergeBlockInstances(const IndexSet& updatedBlocks);
    // Takes the pieces of the updated blocks out of their instances; an instance left with no
    // block dies (parent 0). Pieces without a global identity yet are kept.
    void clearUpdatedBlocksFromGlobalInstances(const IndexSet& updatedBlocks);
    // The neighbours of updated blocks that are not updated themselves and have pieces (or an
    // empty list of them).
    IndexSet findBorderBlocks(const IndexSet& updatedBlocks);
    // Grows `instance` from `startBlock` into overlapping same-label pieces of updated blocks,
    // last in first out; true if it took at least one piece.
    bool blockFloodFill(const Index3& startBlock, const IndexSet& updatedBlocks, Instance& instance,
                        BlockVisited& visited);
    // True when the two same-label instances have pieces in adjacent blocks whose boxes overlap.
    bool shouldMergeInstances(const Instance& instA, const Instance& instB) const;
    // Moves every piece of A into B; A's parent becomes B and A is erased. A and B must be
    // entries of the instance table; both references are invalid afterwards.
    void mergeInstances(Instance& instA, Instance& instB);

    // The live identity that `id` became (0 when gone); shortens the path on the way.
    GlobalID getParentID(GlobalID id);
    // The live instances; only after a merge.
    const InstanceTable& getInstances() const;
    // The instance of a piece's identity; only after a merge, and only for a live piece.
    GlobalID getGlobalInstanceId(LocalID localId) const;
    // The same for any identity read from a sample: 0 when no piece holds it (an identity copied
    // into a border before its block was updated again, or loaded from a file).
    GlobalID findGlobalInstanceId(LocalID localId) const;
    // Identities created so far, 0 included: usedInstanceIds + 1 (counted in 32 bits, so that
    // the last identity 65535 still has a count).
    uint32_t numCreatedNodes() const { return uint32_t(usedInstanceIds) + 1u; }

    // Read access for tests and reports.
    const AR::Common::FlatMap<Index3, BlockInstances>& blockInstances() const {
        return mBlockInstances;
    }
    const std::deque<LocalID>& availableIds() const { return mAvailableIds; }
    GlobalID usedIds() const { return usedInstanceIds; }
    bool merged() const { return mergeLastCalled; }

private:
    template <typename Sample>
    void updateSample(Sample& sample, const Box& sampleBox,
                      AR::Common::FlatMap<uint16_t, BlockInstance>& working);
    // The front of the pool, marked as held.
    LocalID takeId();
    // Returns the retired identities to the back of the pool, in the set's order; see the .cpp.
    void recycleRetiredIds();

    AR::Common::FlatMap<Index3, BlockInstances> mBlockInstances;
    InstanceTable mInstances;
    AR::Common::FlatMap<LocalID, GlobalID> mLocalToGlobal;
    AR::Common::FlatMap<GlobalID, GlobalID> mParents;
    std::array<Index3, 26> mNeighbourOffsets;
    std::deque<LocalID> mAvailableIds;
    GlobalID usedInstanceIds = 0;
    AR::Common::FlatSet<LocalID> mRetiredIds;
    bool mergeLastCalled = true;
    std::deque<Index3> mFloodQueue;
    // Identities handed out by the pool and not yet returned; index = LocalID.
    std::vector<bool> mIdHeld;
};

// Stage one exists for the two labelled grids; its body is in InstanceExtractorImpl.h.
extern template void InstanceExtractor::updateBlockInstances<LabelGrid>(LabelGrid&, const IndexSet&,
                                                                        bool);
extern template void InstanceExtractor::updateBlockInstances<LabelDepthGrid>(LabelDepthGrid&,
                                                                             const IndexSet&, bool);

}  // namespace Solid

#endif  // VELMORA_SOLID_INSTANCES_INSTANCEEXTRACTOR_H
