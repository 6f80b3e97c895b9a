// The sparse store of the scene: a hash table from integer block keys to blocks, block memory
// from a slab allocator, a reader-writer lock for the table and a mutex per block.
//
// A world position p belongs to the block key = floor(p / dimension) (a true floor, so negative
// coordinates go down); its local position is p - dimension * key. A point on a block face
// belongs to the upper block, at local coordinate 0.
//
// Locks, always in this order: the grid lock, then a block mutex; the storage mutex is a leaf.
// A lookup read-locks the grid, finds the block, locks its mutex and releases the grid lock, so
// the caller works on a locked block with no grid lock held. Blocks are only ever added (until
// `reset`), and never move, so a block found stays valid. `reset` must not run while blocks are
// in use. The grid is not copyable.
#ifndef VELMORA_SOLID_VOLUME_VOLUMEGRID_H
#define VELMORA_SOLID_VOLUME_VOLUMEGRID_H

#include <climits>
#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "common/FlatSet.h"
#include "common/Hash.h"
#include "common/RWLock.h"
#include "common/Vector.h"
#include "solid/volume/Volume.h"

namespace Solid {

// The set of block keys passed between the stages of the frame pipeline.
using IndexSet = AR::Common::FlatSet<KeyType, AR::Common::hash<KeyType>>;

// Block coordinates (position / dimension) that have a key: [-2^31, 2^31), where a float still
// converts to a key component.
constexpr float kMinKeyCoordinate = -2147483648.0f;
constexpr float kMaxKeyCoordinate = 2147483648.0f;

// floor(v) as a key component, by truncation and one correction (the value of std::floor, without
// its call); false when the coordinate lies outside the range of keys or is not finite.
inline bool floorToKeyInRange(float v, int& key) {
    if (!(v >= kMinKeyCoordinate && v < kMaxKeyCoordinate)) {
        return false;
    }
    const int truncated = static_cast<int>(v);
    key = truncated - (static_cast<float>(truncated) > v ? 1 : 0);
    return true;
}

// floor(v) as a key component. A non-finite or out-of-range coordinate maps to INT_MIN, a key no
// block can have in practice, so a query there finds nothing instead of converting out of range.
inline int floorToKey(float v) {
    int key;
    return floorToKeyInRange(v, key) ? key : INT_MIN;
}

// The floats v of one axis whose key component floorToKey(v * inverseDimension) is `k`, as
// [low, high]: an interval, since the product and its floor only grow with v. False for a
// component beyond +-2^22, where the search from k * dimension is not needed by any scene.
bool keyComponentInterval(int k, float dimension, float inverseDimension, float& low, float& high);

// Scrambled bits of a block key for the private power-of-two tables of hot loops, where the
// neighbouring keys of a surface must spread over the low bits (the table hash of the grid is kept
// for the order of its block sets).
inline uint32_t mixBlockKey(const KeyType& key) {
    const uint32_t h = static_cast<uint32_t>(key(0)) * 0x9E3779B1u ^
                       static_cast<uint32_t>(key(1)) * 0x85EBCA77u ^
                       static_cast<uint32_t>(key(2)) * 0xC2B2AE3Du;
    return h ^ (h >> 15);
}

// Slab allocator of block memory: mega blocks of 2048 blocks, each block followed by an 8-byte
// trailer naming its slot. Blocks are handed out one at a time and given back only all at once.
class VolumeGridCentralStorage {
public:
    static constexpr uint32_t kBlocksPerMegaBlock = 2048;
    static constexpr uint32_t kMegaBlockShift = 11;  // log2 of kBlocksPerMegaBlock
    // Bytes after the samples of a block: its mega block number and block number, 32 bits each.
    static constexpr uint32_t kTrailerBytes = 8;
    // Block starts are aligned for the vector kernels.
    static constexpr uint32_t kBlockAlignment = 16;

    struct MegaBlock {
        uint32_t numBlocks;
        uint8_t* base;
    };
    struct Index {
        uint16_t megaBlock;
        uint16_t block;
    };

    VolumeGridCentralStorage() = default;
    ~VolumeGridCentralStorage();
    VolumeGridCentralStorage(const VolumeGridCentralStorage&) = delete;
    VolumeGridCentralStorage& operator=(const VolumeGridCentralStorage&) = delete;

    // Sets the bytes of samples per block; before the first block.
    void setBlockSize(uint32_t blockSize);
    // Memory for one block, 16-byte aligned; aborts on an unconfigured storage.
    void* acquireBlock();
    // Blocks handed out and not on the free list.
    size_t getNumBlocks() const;
    // Frees every mega block; all blocks handed out become invalid.
    void releaseAll();

    uint32_t blockSize() const;
    uint32_t blockStride() const;

private:
    void releaseAllUnlocked();
    void writeTrailer(uint8_t* block, uint32_t megaBlock, uint32_t index) const;

    uint32_t mBlockSize = 0;
    uint32_t mBlockStride = 0;
    uint32_t mNumItemsInCurrentMegaBlock = 0;
    AR::Common::Vector<MegaBlock> mMegaBlocks;
    AR::Common::Vector<Index> mFreeList;  // reusable slots, last in first out
    mutable std::mutex mMutex;
};

// A block found in a grid, with its mutex held until the pointer goes away. Empty when there is
// no such block. Owns no block memory.
template <typename BlockType>
class LockedBlockPtr {
public:
    // What the grid's table holds per block: the block view and its own mutex.
    struct Entry {
        BlockType block;
        std::unique_ptr<std::mutex> mutex;
    };

    LockedBlockPtr() = default;
    explicit LockedBlockPtr(Entry& entry) : mBlock(&entry.block), mLock(*entry.mutex) {}

    explicit operator bool() const { return mBlock != nullptr; }
    BlockType& operator*() const { return *mBlock; }
    BlockType* operator->() const { return mBlock; }
    BlockType* get() const { return mBlock; }

private:
    BlockType* mBlock = nullptr;
    std::unique_lock<std::mutex> mLock;
};

template <typename BlockType, template <typename> class PtrType, typename GridLockType>
class VolumeGrid {
public:
    using Block = BlockType;
    using SampleType = typename BlockType::SampleType;
    using Ptr = PtrType<BlockType>;
    using Entry = typename Ptr::Entry;
    using Lock = GridLockType;
    using Table = std::unordered_map<KeyType, Entry, AR::Common::hash<KeyType>>;

    VolumeGrid();
    VolumeGrid(const VolumeGrid&) = delete;
    VolumeGrid& operator=(const VolumeGrid&) = delete;

    // Configuration: blocks of `size` lattice points `spacing` metres apart. Once, before the
    // first block.
    void set(const Size& size, const Vec3& spacing);
    // Deletes all blocks and returns all memory.
    void reset();

    // Creates the block at `key` unless it exists; true if it was created. Takes the write lock.
    bool ensure(const KeyType& key);
    // The same with the write lock already held by the caller.
    bool ensureUnlocked(const KeyType& key);

    // The block at `key` with its mutex held, or an empty pointer.
    Ptr get(const KeyType& key) const;
    // The same for a caller that already holds the grid lock, read or write (a loader creates
    // and fills blocks under one write lock).
    Ptr getUnlocked(const KeyType& key) const;

    // Trilinear value at world position `p`; -2.0 where no block or an unobserved sample is.
    // `key` receives the block key of `p` in any case.
    float value(const Vec3& p, KeyType& key) const;
    bool valueAndGradient(const Vec3& p, float& value, Vec3& gradient) const;
    std::optional<SampleType> getSample(const Vec3& p, KeyType& key) const;

    // A copy of the block table for a reader that looks up many keys while no block is added,
    // such as the frame path rendering the volume between two frames: lookups take no lock, and
    // neither do the reads of the blocks found. The frame path is the only writer of samples but
    // for the border copies that mesh requests make on other threads; those wait for the
    // snapshot to go away (`excludeSnapshots`), and a snapshot waits for them. Where the bounding
    // box of the keys has few cells per block, as for a room, the copy is a dense array over the
    // box and a lookup is one index; otherwise it is a flat hash table. Blocks added after the copy
    // are not seen. Entries never move or vanish while the grid lives, so the copy stays valid.
    class TableSnapshot {
    public:
        explicit TableSnapshot(const VolumeGrid& grid);
        static constexpr uint32_t kNoSlot = UINT32_MAX;

        // The entry of `key`, or null.
        const Entry* find(const KeyType& key) const {
            const uint32_t slot = slotOf(key);
            return slot == kNoSlot ? nullptr : mEntries.data()[slot];
        }

        // The slot of the entry of `key`, or kNoSlot.
        uint32_t slotOf(const KeyType& key) const {
            // Unsigned differences: a key below the box wraps to a large offset, and no key
            // (INT_MIN included) can overflow.
            uint32_t offset[3];
            for (int a = 0; a < 3; ++a) {
                offset[a] = static_cast<uint32_t>(key(a)) - static_cast<uint32_t>(mMinKey(a));
                if (offset[a] > mLastOffset[a]) {
                    return kNoSlot;
                }
            }
            if (mDense) {
                const uint32_t cell = offset[0] + mStride[0] * offset[1] + mStride[1] * offset[2];
                return mEntries.data()[cell] != nullptr ? cell : kNoSlot;
            }
            for (uint32_t slot = mixBlockKey(key) & mMask;; slot = (slot + 1) & mMask) {
                const Entry* entry = mEntries.data()[slot];
                if (entry == nullptr) {
                    return kNoSlot;
                }
                if (mKeys.data()[slot] == key) {
                    return slot;
                }
            }
        }

        const Entry& entryAt(uint32_t slot) const { return *mEntries.data()[slot]; }
        // The least and the greatest key component of the copy's blocks on each axis; false
        // when the copy holds no block.
        bool keyBox(KeyType& low, KeyType& high) const {
            if (mEmpty) {
                return false;
            }
            low = mMinKey;
            for (int a = 0; a < 3; ++a) {
                high(a) = static_cast<int>(static_cast<uint32_t>(mMinKey(a)) + mLastOffset[a]);
            }
            return true;
        }
        // Slots run from 0 to slotCount() - 1.
        uint32_t slotCount() const { return mEntries.size(); }

        // Calls `f` with the key of every entry of the copy.
        template <typename F>
        void forEachKey(F&& f) const {
            for (uint32_t slot = 0; slot < mEntries.size(); ++slot) {
                if (mEntries.data()[slot] == nullptr) {
                    continue;
                }
                if (!mDense) {
                    f(mKeys.data()[slot]);
                    continue;
                }
                const uint32_t x = slot % mStride[0];
                const uint32_t y = (slot / mStride[0]) % (mStride[1] / mStride[0]);
                const uint32_t z = slot / mStride[1];
                f(KeyType(mMinKey(0) + static_cast<int>(x), mMinKey(1) + static_cast<int>(y),
                          mMinKey(2) + static_cast<int>(z)));
            }
        }

        // A byte per slot, 0 at first, in which the holder of the copy notes what it learnt of a
        // block; the copy itself never reads it.
        uint8_t& note(uint32_t slot) const { return mNotes.data()[slot]; }

    private:
        std::unique_lock<std::mutex> mExclusion;    // from excludeSnapshots, for the copy's life
        AR::Common::Vector<KeyType> mKeys;          // of the hash slots; unused when dense
        AR::Common::Vector<const Entry*> mEntries;  // null for an empty slot or cell
        mutable AR::Common::Vector<uint8_t> mNotes;
        uint32_t mMask = 0;
        bool mDense = false;
        KeyType mMinKey;                      // lower corner of the bounding box of all keys
        bool mEmpty = true;                   // the grid held no block
        uint32_t mLastOffset[3] = {0, 0, 0};  // upper corner minus lower corner
        uint32_t mStride[2] = {0, 0};         // of y and z in the dense array
    };

    // The entry of `key` (block and mutex, the mutex not taken), found under the read lock, or
    // null. Entries stay where they are for the life of the grid.
    const Entry* findEntry(const KeyType& key) const;
    // The same for a caller that holds the grid lock.
    const Entry* findEntryUnlocked(const KeyType& key) const;
    // A locked view of an entry found earlier; only its samples change, under its mutex.
    static Ptr lockEntry(const Entry& entry) { return Ptr(const_cast<Entry&>(entry)); }

    // Calls `f(key, block)` for each block, under the read lock, with the block's mutex held.
    // The order is that of the hash table and carries no meaning.
    template <typename F>
    void for_each(F&& f) const {
        AR::Common::ReadLockGuard<GridLockType> guard(mLock);
        for_eachUnlocked(f);
    }
    // The same with write access to the samples.
    template <typename F>
    void for_each(F&& f) {
        AR::Common::ReadLockGuard<GridLockType> guard(mLock);
        for (auto& item : mGrid) {
            std::lock_guard<std::mutex> blockLock(*item.second.mutex);
            f(item.first, item.second.block);
        }
    }
    // The same for a caller that already holds the grid lock, so that a count from
    // `sizeUnlocked` and the blocks it counts come from one locked view.
    template <typename F>
    void for_eachUnlocked(F&& f) const {
        for (const auto& item : mGrid) {
            std::lock_guard<std::mutex> blockLock(*item.second.mutex);
            f(item.first, item.second.block);
        }
    }

    // Number of blocks, read under the read lock.
    size_t size() const;
    // Number of blocks; the caller holds the grid lock.
    size_t sizeUnlocked() const { return mGrid.size(); }

    // Block key of world position `p`, and `p` relative to the origin of that block.
    KeyType keyOf(const Vec3& p) const;
    Vec3 localPosition(const Vec3& p, const KeyType& key) const;
    // World position of the origin (lattice point 0, 0, 0) of block `key`.
    Vec3 blockOrigin(const KeyType& key) const;

    const VolumeConfig& config() const { return mConfig; }
    const Vec3& dimension() const { return mConfig.dimension; }
    const Vec3& inverseDimension() const { return mInverseDimension; }
    const Vec3& gridSpacing() const { return mSpacing; }
    GridLockType& lock() const { return mLock; }
    // Held while samples are written outside the frame path, so that no table snapshot's
    // unlocked reads overlap the writes.
    std::unique_lock<std::mutex> excludeSnapshots() const {
        return std::unique_lock<std::mutex>(mSnapshotMutex);
    }
    const VolumeGridCentralStorage& centralStorage() const { return mCentralStorage; }

private:
    Table mGrid;
    VolumeConfig mConfig;
    VolumeGridCentralStorage mCentralStorage;
    Vec3 mSpacing;
    Vec3 mInverseDimension;
    mutable GridLockType mLock;
    mutable std::mutex mSnapshotMutex;  // see excludeSnapshots; taken before mLock
};

using DepthVolume = Volume<Vec2S, ReferencedVolumeData>;
using LabelDepthVolume = Volume<LabelDepthVolumeSample, ReferencedVolumeData>;
using LabelVolume = Volume<LabelVolumeSample, ReferencedVolumeData>;
using GridLock = AR::Common::RWLockImpl<true>;
using DepthGrid = VolumeGrid<DepthVolume, LockedBlockPtr, GridLock>;
using LabelDepthGrid = VolumeGrid<LabelDepthVolume, LockedBlockPtr, GridLock>;
using LabelGrid = VolumeGrid<LabelVolume, LockedBlockPtr, GridLock>;

// The members are defined in VolumeGrid.cpp for these three grids; the value readers exist for
// the depth-bearing grids, `getSample` for the label-bearing ones.

}  // namespace Solid

#endif  // VELMORA_SOLID_VOLUME_VOLUMEGRID_H
