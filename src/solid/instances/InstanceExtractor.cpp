#include "solid/instances/InstanceExtractor.h"

#include <algorithm>

#include "solid/instances/InstanceExtractorImpl.h"

namespace Solid {

bool boxesOverlap(const Box& a, const Box& b) {
    for (int axis = 0; axis < 3; ++axis) {
        if (!(a.min[axis] < b.max[axis] && b.min[axis] < a.max[axis])) {
            return false;
        }
    }
    return true;
}

void growBox(Box& box, const Box& other) {
    for (int axis = 0; axis < 3; ++axis) {
        box.min[axis] = std::min(box.min[axis], other.min[axis]);
        box.max[axis] = std::max(box.max[axis], other.max[axis]);
    }
}

InstanceExtractor::InstanceExtractor() : mIdHeld(kMaxLocalId + 1, false) {
    // The 26 neighbours in lexicographic order of (x, y, z); every neighbour walk uses it.
    uint32_t n = 0;
    for (int x = -1; x <= 1; ++x) {
        for (int y = -1; y <= 1; ++y) {
            for (int z = -1; z <= 1; ++z) {
                if (x != 0 || y != 0 || z != 0) {
                    mNeighbourOffsets[n++] = Index3(x, y, z);
                }
            }
        }
    }
    resetAvailableIds();
    mParents[0] = 0;
}

void InstanceExtractor::resetAvailableIds() {
    mAvailableIds.clear();
    for (uint32_t id = 1; id <= kMaxLocalId; ++id) {
        mAvailableIds.push_back(static_cast<LocalID>(id));
    }
    std::fill(mIdHeld.begin(), mIdHeld.end(), false);
    mRetiredIds.clear();
}

LocalID InstanceExtractor::takeId() {
    // 65535 identities alive at once would take as many label regions, each in its own block
    // or of its own label; a scene of that size is beyond what the identities can name.
    AR_ASSERT(!mAvailableIds.empty());
    const LocalID id = mAvailableIds.front();
    mAvailableIds.pop_front();
    mIdHeld[id] = true;
    return id;
}

// An identity met on a sample is not necessarily free: a border sample may carry the identity of
// the neighbour it was copied from, still held by that neighbour's piece, or one that the
// neighbour's last update already returned (and the pool may have handed out again); a loaded
// sample carries an identity of the session that saved it. Returning such an identity would put
// it twice into the pool, and two pieces would then share it. So only an identity that the pool
// handed out and that no piece holds any more goes back, once.
void InstanceExtractor::recycleRetiredIds() {
    for (const LocalID id : mRetiredIds) {
        if (mIdHeld[id] && !mLocalToGlobal.contains(id)) {
            mIdHeld[id] = false;
            mAvailableIds.push_back(id);
        }
    }
    mRetiredIds.clear();
}

void InstanceExtractor::mergeBlockInstances(const IndexSet& updatedBlocks) {
    clearUpdatedBlocksFromGlobalInstances(updatedBlocks);
    const IndexSet borderBlocks = findBorderBlocks(updatedBlocks);
    BlockVisited visited;
    AR::Common::FlatSet<GlobalID> candidates;

    // Existing instances grow from their pieces next to the update.
    for (const Index3& block : borderBlocks) {
        const auto found = mBlockInstances.find(block);
        if (found == mBlockInstances.end()) {
            continue;
        }
        const uint32_t count = static_cast<uint32_t>(found->second.size());
        for (uint32_t i = 0; i < count; ++i) {
            if (!visited.insert({block, i}).second) {
                continue;
            }
            const GlobalID global = mLocalToGlobal.at(mBlockInstances.at(block)[i].localId);
            if (blockFloodFill(block, updatedBlocks, mInstances.at(global), visited)) {
                candidates.insert(global);
            }
        }
    }

    // What is left of the update becomes new instances.
    for (const Index3& block : updatedBlocks) {
        if (!mBlockInstances.contains(block)) {
            continue;
        }
        const uint32_t count = static_cast<uint32_t>(mBlockInstances.at(block).size());
        for (uint32_t i = 0; i < count; ++i) {
            if (!visited.insert({block, i}).second) {
                continue;
            }
            const BlockInstance piece = mBlockInstances.at(block)[i];
            ++usedInstanceIds;
            Instance instance;
            instance.id = usedInstanceIds;
            instance.label = piece.label;
            instance.box = piece.box;
            instance.boundingBoxes.insert(block, piece.box);
            AR_ASSERT(mParents.find(usedInstanceIds) == mParents.end());
            mLocalToGlobal[piece.localId] = instance.id;
            blockFloodFill(block, updatedBlocks, instance, visited);
            const GlobalID id = instance.id;
            mInstances[id] = std::move(instance);
            mParents[id] = id;
            AR_ASSERT(usedInstanceIds == id && mParents.size() == numCreatedNodes());
        }
    }

    // Instances that grew in this update and now touch merge; the later one in the list
    // survives. Each A is erased by its merge and never read again.
    const std::vector<GlobalID> grown(candidates.begin(), candidates.end());
    for (size_t a = 0; a < grown.size(); ++a) {
        for (size_t b = a + 1; b < grown.size(); ++b) {
            Instance& instA = mInstances.at(grown[a]);
            Instance& instB = mInstances.at(grown[b]);
            if (shouldMergeInstances(instA, instB)) {
                mergeInstances(instA, instB);
                break;
            }
        }
    }

    recycleRetiredIds();
    mergeLastCalled = true;
}

void InstanceExtractor::clearUpdatedBlocksFromGlobalInstances(const IndexSet& updatedBlocks) {
    AR::Common::FlatSet<LocalID> cleared;
    for (const Index3& block : updatedBlocks) {
        const auto found = mBlockInstances.find(block);
        if (found == mBlockInstances.end()) {
            continue;
        }
        cleared.clear();
        for (const BlockInstance& piece : found->second) {
            const auto global = mLocalToGlobal.find(piece.localId);
            if (global == mLocalToGlobal.end()) {
                continue;  // added by the update that runs now
            }
            cleared.insert(piece.localId);
            Instance& instance = mInstances.at(global->second);
            instance.boundingBoxes.erase(block);
            if (instance.boundingBoxes.empty()) {
                const GlobalID gone = instance.id;
                mParents[gone] = 0;
                mInstances.erase(gone);
            }
            mLocalToGlobal.erase(piece.localId);
            // The piece's samples were just rewritten, so its identity is free after this merge
            // even where no sample carried it any more (a piece of border samples only,
            // overwritten by a copy from the neighbour).
            mRetiredIds.insert(piece.localId);
        }
        BlockInstances& pieces = found->second;
        pieces.erase(std::remove_if(pieces.begin(), pieces.end(),
                                    [&](const BlockInstance& piece) {
                                        return cleared.contains(piece.localId);
                                    }),
                     pieces.end());
    }
}

IndexSet InstanceExtractor::findBorderBlocks(const IndexSet& updatedBlocks) {
    IndexSet border;
    for (const Index3& block : updatedBlocks) {
        for (const Index3& offset : mNeighbourOffsets) {
            const Index3 neighbour = block + offset;
            if (!updatedBlocks.contains(neighbour) && mBlockInstances.contains(neighbour)) {
                border.insert(neighbour);
            }
        }
    }
    return border;
}

bool InstanceExtractor::blockFloodFill(const Index3& startBlock, const IndexSet& updatedBlocks,
                                       Instance& instance, BlockVisited& visited) {
    mFloodQueue.push_back(startBlock);
    bool added = false;
    while (!mFloodQueue.empty()) {
        const Index3 current = mFloodQueue.back();
        mFloodQueue.pop_back();
        for (const Index3& offset : mNeighbourOffsets) {
            const Index3 neigh = current + offset;
            if (!updatedBlocks.contains(neigh)) {
                continue;
            }
            const auto found = mBlockInstances.find(neigh);
            if (found == mBlockInstances.end()) {
                continue;
            }
            const BlockInstances& pieces = found->second;
            for (uint32_t i = 0; i < pieces.size(); ++i) {
                const BlockInstance& piece = pieces[i];
                if (piece.label != instance.label || visited.contains({neigh, i})) {
                    continue;
                }
                bool touches = false;
                for (const auto& entry : instance.boundingBoxes) {
                    if (boxesOverlap(piece.box, entry.second)) {
                        touches = true;
                        break;
                    }
                }
                if (!touches) {
                    continue;
                }
                visited.insert({neigh, i});
                AR_ASSERT(!instance.boundingBoxes.count(neigh));
                growBox(instance.box, piece.box);
                instance.boundingBoxes.insert(neigh, piece.box);
                mLocalToGlobal[piece.localId] = instance.id;
                mFloodQueue.push_back(neigh);
                added = true;
            }
        }
    }
    return added;
}

bool InstanceExtractor::shouldMergeInstances(const Instance& instA, const Instance& instB) const {
    AR_ASSERT(instA.id != instB.id);
    if (instA.label != instB.label) {
        return false;
    }
    for (const auto& entry : instA.boundingBoxes) {
        const Index3& block = entry.first;
        AR_ASSERT(!instB.boundingBoxes.count(block));
        for (const Index3& offset : mNeighbourOffsets) {
            const auto other = instB.boundingBoxes.find(block + offset);
            if (other != instB.boundingBoxes.end() && boxesOverlap(other->second, entry.second)) {
                return true;
            }
        }
    }
    return false;
}

void InstanceExtractor::mergeInstances(Instance& instA, Instance& instB) {
    AR_ASSERT(instA.label == instB.label);
    for (const auto& entry : instA.boundingBoxes) {
        const Index3& block = entry.first;
        AR_ASSERT(!instB.boundingBoxes.count(block));
        if (instB.boundingBoxes.empty()) {
            instB.box = entry.second;
        } else {
            growBox(instB.box, entry.second);
        }
        instB.boundingBoxes.insert(block, entry.second);
        for (const BlockInstance& piece : mBlockInstances.at(block)) {
            GlobalID& global = mLocalToGlobal.at(piece.localId);
            if (global == instA.id) {
                global = instB.id;
                break;
            }
        }
    }
    const GlobalID idA = instA.id;
    const GlobalID idB = instB.id;
    mParents[idA] = idB;
    mInstances.erase(idA);
    AR_ASSERT(mParents.contains(idA) && mParents.contains(idB));
}

GlobalID InstanceExtractor::getParentID(GlobalID id) {
    AR_ASSERT(id < numCreatedNodes());
    AR_ASSERT(mParents.find(id) != mParents.end());
    const GlobalID parent = mParents[id];
    AR_ASSERT(parent < numCreatedNodes());
    AR_ASSERT(mParents.find(parent) != mParents.end());
    if (parent == id) {
        return id;
    }
    const GlobalID root = getParentID(parent);
    mParents[id] = root;
    return root;
}

const InstanceExtractor::InstanceTable& InstanceExtractor::getInstances() const {
    AR_ASSERT(mergeLastCalled);
    return mInstances;
}

GlobalID InstanceExtractor::getGlobalInstanceId(LocalID localId) const {
    AR_ASSERT(mergeLastCalled);
    return mLocalToGlobal.at(localId);
}

GlobalID InstanceExtractor::findGlobalInstanceId(LocalID localId) const {
    AR_ASSERT(mergeLastCalled);
    const auto found = mLocalToGlobal.find(localId);
    return found == mLocalToGlobal.end() ? 0 : found->second;
}

template void InstanceExtractor::updateBlockInstances<LabelGrid>(LabelGrid&, const IndexSet&, bool);
template void InstanceExtractor::updateBlockInstances<LabelDepthGrid>(LabelDepthGrid&,
                                                                      const IndexSet&, bool);

}  // namespace Solid
