#include "solid/volume/VolumeGrid.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>

#include "common/OS.h"

namespace Solid {

// ---------------------------------------------------------------------------------------------
// VolumeGridCentralStorage

VolumeGridCentralStorage::~VolumeGridCentralStorage() {
    releaseAllUnlocked();
}

void VolumeGridCentralStorage::setBlockSize(uint32_t blockSize) {
    std::lock_guard<std::mutex> lock(mMutex);
    mBlockSize = blockSize;
    mBlockStride = (blockSize + kTrailerBytes + (kBlockAlignment - 1)) & ~(kBlockAlignment - 1);
}

uint32_t VolumeGridCentralStorage::blockSize() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mBlockSize;
}

uint32_t VolumeGridCentralStorage::blockStride() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mBlockStride;
}

void VolumeGridCentralStorage::writeTrailer(uint8_t* block, uint32_t megaBlock,
                                            uint32_t index) const {
    const uint32_t trailer[2] = {megaBlock, index};
    std::memcpy(block + mBlockSize, trailer, sizeof(trailer));
}

void* VolumeGridCentralStorage::acquireBlock() {
    std::lock_guard<std::mutex> lock(mMutex);
    AR_ASSERT(mBlockSize != 0 && mBlockStride != 0);
    AR_ASSERT(mMegaBlocks.empty() || mNumItemsInCurrentMegaBlock <= mMegaBlocks.back().numBlocks);
    if (!mFreeList.empty()) {
        const Index slot = mFreeList.back();
        mFreeList.pop_back();
        uint8_t* block = mMegaBlocks[slot.megaBlock].base + size_t(mBlockStride) * slot.block;
        writeTrailer(block, slot.megaBlock, slot.block);
        return block;
    }
    if (mMegaBlocks.empty() || mNumItemsInCurrentMegaBlock == mMegaBlocks.back().numBlocks) {
        const size_t bytes = size_t(mBlockStride) << kMegaBlockShift;
        auto* base = static_cast<uint8_t*>(AR::Common::OS::allocMemAligned(bytes, kBlockAlignment));
        AR_ASSERT(base != nullptr);
        mMegaBlocks.push_back(MegaBlock{kBlocksPerMegaBlock, base});
        mNumItemsInCurrentMegaBlock = 0;
    }
    const uint32_t megaBlock = mMegaBlocks.size() - 1;
    uint8_t* block = mMegaBlocks.back().base + size_t(mBlockStride) * mNumItemsInCurrentMegaBlock;
    writeTrailer(block, megaBlock, mNumItemsInCurrentMegaBlock);
    ++mNumItemsInCurrentMegaBlock;
    return block;
}

size_t VolumeGridCentralStorage::getNumBlocks() const {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mMegaBlocks.empty()) {
        return 0;
    }
    size_t count = 0;
    for (uint32_t i = 0; i + 1 < mMegaBlocks.size(); ++i) {
        count += mMegaBlocks[i].numBlocks;
    }
    return count + mNumItemsInCurrentMegaBlock - mFreeList.size();
}

void VolumeGridCentralStorage::releaseAll() {
    std::lock_guard<std::mutex> lock(mMutex);
    releaseAllUnlocked();
}

void VolumeGridCentralStorage::releaseAllUnlocked() {
    for (const MegaBlock& megaBlock : mMegaBlocks) {
        AR::Common::OS::freeMemAligned(megaBlock.base);
    }
    mMegaBlocks.resize(0);
    mFreeList.resize(0);
    mNumItemsInCurrentMegaBlock = 0;
}

// ---------------------------------------------------------------------------------------------
// VolumeGrid

namespace {

// Grid tables never rehash to more than one node per bucket on average.
constexpr float kGridMaxLoadFactor = 1.0f;

}  // namespace

template <typename B, template <typename> class P, typename L>
VolumeGrid<B, P, L>::VolumeGrid() {
    mGrid.max_load_factor(kGridMaxLoadFactor);
    mConfig = VolumeConfig{};
}

template <typename B, template <typename> class P, typename L>
void VolumeGrid<B, P, L>::set(const Size& size, const Vec3& spacing) {
    makeVolumeConfig(mConfig, size, spacing);
    mSpacing = spacing;
    for (int a = 0; a < 3; ++a) {
        mInverseDimension(a) = 1.0f / mConfig.dimension(a);
    }
    mCentralStorage.setBlockSize(mConfig.numSamples * static_cast<uint32_t>(sizeof(SampleType)));
}

template <typename B, template <typename> class P, typename L>
void VolumeGrid<B, P, L>::reset() {
    AR::Common::WriteLockGuard<L> guard(mLock);
    mGrid.clear();  // destroys every entry with its mutex; the bucket array stays
    mCentralStorage.releaseAll();
}

template <typename B, template <typename> class P, typename L>
bool VolumeGrid<B, P, L>::ensure(const KeyType& key) {
    AR::Common::WriteLockGuard<L> guard(mLock);
    return ensureUnlocked(key);
}

template <typename B, template <typename> class P, typename L>
bool VolumeGrid<B, P, L>::ensureUnlocked(const KeyType& key) {
    if (mGrid.find(key) != mGrid.end()) {
        return false;
    }
    auto* samples = static_cast<SampleType*>(mCentralStorage.acquireBlock());
    // Filled before the block becomes visible in the table.
    const SampleType fill = creationSample<SampleType>();
    for (uint32_t i = 0; i < mConfig.numSamples; ++i) {
        samples[i] = fill;
    }
    Entry entry{B(samples, &mConfig), std::make_unique<std::mutex>()};
    mGrid.emplace(key, std::move(entry));
    AR_ASSERT(mCentralStorage.getNumBlocks() == mGrid.size());
    return true;
}

template <typename B, template <typename> class P, typename L>
typename VolumeGrid<B, P, L>::Ptr VolumeGrid<B, P, L>::get(const KeyType& key) const {
    AR::Common::ReadLockGuard<L> guard(mLock);
    return getUnlocked(key);
}

template <typename B, template <typename> class P, typename L>
typename VolumeGrid<B, P, L>::Ptr VolumeGrid<B, P, L>::getUnlocked(const KeyType& key) const {
    auto it = mGrid.find(key);
    if (it == mGrid.end()) {
        return Ptr();
    }
    return lockEntry(it->second);
}

template <typename B, template <typename> class P, typename L>
size_t VolumeGrid<B, P, L>::size() const {
    AR::Common::ReadLockGuard<L> guard(mLock);
    return mGrid.size();
}

template <typename B, template <typename> class P, typename L>
KeyType VolumeGrid<B, P, L>::keyOf(const Vec3& p) const {
    return KeyType(floorToKey(p(0) * mInverseDimension(0)), floorToKey(p(1) * mInverseDimension(1)),
                   floorToKey(p(2) * mInverseDimension(2)));
}

template <typename B, template <typename> class P, typename L>
Vec3 VolumeGrid<B, P, L>::blockOrigin(const KeyType& key) const {
    return Vec3(mConfig.dimension(0) * static_cast<float>(key(0)),
                mConfig.dimension(1) * static_cast<float>(key(1)),
                mConfig.dimension(2) * static_cast<float>(key(2)));
}

template <typename B, template <typename> class P, typename L>
Vec3 VolumeGrid<B, P, L>::localPosition(const Vec3& p, const KeyType& key) const {
    const Vec3 origin = blockOrigin(key);
    return Vec3(p(0) - origin(0), p(1) - origin(1), p(2) - origin(2));
}

template <typename B, template <typename> class P, typename L>
float VolumeGrid<B, P, L>::value(const Vec3& p, KeyType& key) const {
    key = keyOf(p);
    Ptr block = get(key);
    if (!block) {
        return kUnobservedValue;
    }
    return block->val(localPosition(p, key));
}

template <typename B, template <typename> class P, typename L>
const typename VolumeGrid<B, P, L>::Entry* VolumeGrid<B, P, L>::findEntry(
    const KeyType& key) const {
    AR::Common::ReadLockGuard<L> guard(mLock);
    return findEntryUnlocked(key);
}

template <typename B, template <typename> class P, typename L>
const typename VolumeGrid<B, P, L>::Entry* VolumeGrid<B, P, L>::findEntryUnlocked(
    const KeyType& key) const {
    auto it = mGrid.find(key);
    return it == mGrid.end() ? nullptr : &it->second;
}

namespace {

// Key components whose float interval is searched, and the float steps of a search: far inside
// the range where a float still counts single blocks, the product k * dimension lies within a
// float or two of the interval's end.
constexpr int kMaxIntervalKey = 1 << 22;
constexpr int kMaxIntervalSteps = 8;

// The float just below a finite `v` (std::nextafter toward -infinity, without its call).
float nextDown(float v) {
    if (v == 0.0f) {
        return -std::numeric_limits<float>::denorm_min();
    }
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof(bits));
    bits = v > 0.0f ? bits - 1 : bits + 1;
    std::memcpy(&v, &bits, sizeof(bits));
    return v;
}

// The least float v whose key component is `k` or more, by single float steps from
// k * dimension; false when that takes more than a few steps.
bool lowestOfKey(int k, float dimension, float inverseDimension, float& lowest) {
    float v = static_cast<float>(k) * dimension;
    for (int steps = 0; floorToKey(v * inverseDimension) >= k; ++steps) {
        if (steps == kMaxIntervalSteps) {
            return false;
        }
        v = nextDown(v);
    }
    for (int steps = 0; floorToKey(v * inverseDimension) < k; ++steps) {
        if (steps == kMaxIntervalSteps) {
            return false;
        }
        v = -nextDown(-v);
    }
    lowest = v;
    return true;
}

// Slots of a hashed table snapshot per block: at most half of them are used.
constexpr uint32_t kSnapshotSlotsPerBlock = 2;
constexpr uint32_t kMinSnapshotSlots = 16;
// A snapshot is a dense array while its box has at most this many cells per block: a pointer per
// cell then costs at most a tenth of a block's samples.
constexpr uint64_t kDenseSnapshotCellsPerBlock = 32;

}  // namespace

bool keyComponentInterval(int k, float dimension, float inverseDimension, float& low, float& high) {
    float above = 0.0f;
    if (k < -kMaxIntervalKey || k >= kMaxIntervalKey ||
        !lowestOfKey(k, dimension, inverseDimension, low) ||
        !lowestOfKey(k + 1, dimension, inverseDimension, above)) {
        return false;
    }
    high = nextDown(above);
    return true;
}

template <typename B, template <typename> class P, typename L>
VolumeGrid<B, P, L>::TableSnapshot::TableSnapshot(const VolumeGrid& grid)
    : mExclusion(grid.excludeSnapshots()), mMinKey(INT_MAX, INT_MAX, INT_MAX) {
    AR::Common::ReadLockGuard<L> guard(grid.mLock);
    KeyType maxKey(INT_MAX, INT_MAX, INT_MAX);
    if (!grid.mGrid.empty()) {
        maxKey = KeyType(INT_MIN, INT_MIN, INT_MIN);
        mEmpty = false;
    }
    for (const auto& item : grid.mGrid) {
        for (int a = 0; a < 3; ++a) {
            mMinKey(a) = std::min(mMinKey(a), item.first(a));
            maxKey(a) = std::max(maxKey(a), item.first(a));
        }
    }
    // An empty grid gets a dense array of one empty cell.
    const uint64_t denseLimit =
        kDenseSnapshotCellsPerBlock * std::max<uint64_t>(grid.mGrid.size(), 1);
    uint64_t cells = 1;
    for (int a = 0; a < 3; ++a) {
        mLastOffset[a] = static_cast<uint32_t>(maxKey(a)) - static_cast<uint32_t>(mMinKey(a));
        const uint64_t extent = static_cast<uint64_t>(mLastOffset[a]) + 1;
        cells = cells > denseLimit || extent > denseLimit ? denseLimit + 1 : cells * extent;
    }
    mDense = cells <= denseLimit && cells <= UINT32_MAX;
    uint32_t capacity = static_cast<uint32_t>(cells);
    if (mDense) {
        mStride[0] = mLastOffset[0] + 1;
        mStride[1] = mStride[0] * (mLastOffset[1] + 1);
    } else {
        capacity = kMinSnapshotSlots;
        while (capacity < kSnapshotSlotsPerBlock * grid.mGrid.size()) {
            capacity *= 2;
        }
        mKeys.resize(capacity);
        mMask = capacity - 1;
    }
    mEntries.resize(capacity);
    mNotes.resize(capacity);
    for (uint32_t i = 0; i < capacity; ++i) {
        mEntries.data()[i] = nullptr;
        mNotes.data()[i] = 0;
    }
    for (const auto& item : grid.mGrid) {
        const KeyType& key = item.first;
        if (mDense) {
            uint32_t offset[3];
            for (int a = 0; a < 3; ++a) {
                offset[a] = static_cast<uint32_t>(key(a)) - static_cast<uint32_t>(mMinKey(a));
            }
            mEntries.data()[offset[0] + mStride[0] * offset[1] + mStride[1] * offset[2]] =
                &item.second;
            continue;
        }
        uint32_t slot = mixBlockKey(key) & mMask;
        while (mEntries.data()[slot] != nullptr) {
            slot = (slot + 1) & mMask;
        }
        mKeys.data()[slot] = key;
        mEntries.data()[slot] = &item.second;
    }
}

template <typename B, template <typename> class P, typename L>
bool VolumeGrid<B, P, L>::valueAndGradient(const Vec3& p, float& value, Vec3& gradient) const {
    const KeyType key = keyOf(p);
    Ptr block = get(key);
    if (!block) {
        return false;
    }
    return block->valueAndGradient(localPosition(p, key), value, gradient);
}

template <typename B, template <typename> class P, typename L>
std::optional<typename VolumeGrid<B, P, L>::SampleType> VolumeGrid<B, P, L>::getSample(
    const Vec3& p, KeyType& key) const {
    key = keyOf(p);
    Ptr block = get(key);
    if (!block) {
        return std::nullopt;
    }
    return block->getSample(localPosition(p, key));
}

// Members every grid has.
#define VELMORA_INSTANTIATE_GRID_COMMON(G)                               \
    template G::VolumeGrid();                                            \
    template const G::Entry* G::findEntry(const KeyType&) const;         \
    template const G::Entry* G::findEntryUnlocked(const KeyType&) const; \
    template void G::set(const Size&, const Vec3&);                      \
    template void G::reset();                                            \
    template bool G::ensure(const KeyType&);                             \
    template bool G::ensureUnlocked(const KeyType&);                     \
    template G::Ptr G::get(const KeyType&) const;                        \
    template G::Ptr G::getUnlocked(const KeyType&) const;                \
    template size_t G::size() const;                                     \
    template KeyType G::keyOf(const Vec3&) const;                        \
    template Vec3 G::blockOrigin(const KeyType&) const;                  \
    template Vec3 G::localPosition(const Vec3&, const KeyType&) const;

#define VELMORA_INSTANTIATE_GRID_VALUES(G)                \
    template float G::value(const Vec3&, KeyType&) const; \
    template G::TableSnapshot::TableSnapshot(const G&);   \
    template bool G::valueAndGradient(const Vec3&, float&, Vec3&) const;

#define VELMORA_INSTANTIATE_GRID_SAMPLES(G) \
    template std::optional<G::SampleType> G::getSample(const Vec3&, KeyType&) const;

VELMORA_INSTANTIATE_GRID_COMMON(DepthGrid)
VELMORA_INSTANTIATE_GRID_VALUES(DepthGrid)
VELMORA_INSTANTIATE_GRID_COMMON(LabelDepthGrid)
VELMORA_INSTANTIATE_GRID_VALUES(LabelDepthGrid)
VELMORA_INSTANTIATE_GRID_SAMPLES(LabelDepthGrid)
VELMORA_INSTANTIATE_GRID_COMMON(LabelGrid)
VELMORA_INSTANTIATE_GRID_SAMPLES(LabelGrid)

}  // namespace Solid
