#include "common/FlatTable.h"

#include <algorithm>

#include "common/Logger.h"

namespace AR {
namespace Common {
namespace detail {

void reportSparseRehash(const char* containerName, float load, size_t buckets, size_t elements,
                        size_t maxOffset) {
    AR_LOG_WARNING(
        "%s::rehash load factor %f pretty small after rehash (buckets %zu, els %zu, max offset "
        "%zu)-> check your hash function",
        containerName, static_cast<double>(load), buckets, elements, maxOffset);
}

namespace {

// The homes of a table, with each element's hash and index, and for each slot a link towards the
// first empty slot at or after it.
class HomeTable {
public:
    explicit HomeTable(size_t expectedCount) {
        size_t buckets = 1;
        while (buckets < expectedCount) {
            buckets *= 2;
        }
        const size_t slots =
            buckets + kOverflowSlots > kMinSlots ? buckets + kOverflowSlots : kMinSlots;
        mHome.assign(slots, kEmptyHome);
        mHash.assign(slots, 0);
        mIndex.assign(slots, 0);
        mNextEmpty.resize(slots + 1);
        for (size_t s = 0; s <= slots; ++s) {
            mNextEmpty[s] = static_cast<uint32_t>(s);
        }
        mMask = static_cast<uint32_t>(slots - kOverflowSlots - 1);
    }

    uint32_t bucketCount() const { return mMask + 1; }
    uint32_t slotCount() const { return static_cast<uint32_t>(mHome.size()); }

    void insert(uint32_t hash, uint32_t index, const char* containerName) {
        for (;;) {
            const uint32_t home = hash & mMask;
            const uint32_t empty = nextEmpty(home);
            // The occupied slots from `home` up to `empty` have non-decreasing homes: the
            // insertion point is the first of them with a later home.
            const uint32_t at = static_cast<uint32_t>(
                std::upper_bound(mHome.begin() + home, mHome.begin() + empty, home) -
                mHome.begin());
            if (empty == slotCount() ||
                (at != empty && static_cast<float>(mSize) / static_cast<float>(bucketCount()) >
                                    kDefaultMaxLoadFactor)) {
                grow(containerName);
                continue;
            }
            std::copy_backward(mHome.begin() + at, mHome.begin() + empty,
                               mHome.begin() + empty + 1);
            std::copy_backward(mHash.begin() + at, mHash.begin() + empty,
                               mHash.begin() + empty + 1);
            std::copy_backward(mIndex.begin() + at, mIndex.begin() + empty,
                               mIndex.begin() + empty + 1);
            mHome[at] = home;
            mHash[at] = hash;
            mIndex[at] = index;
            mNextEmpty[empty] = empty + 1;
            ++mSize;
            return;
        }
    }

    std::vector<uint32_t> order() const {
        std::vector<uint32_t> result;
        result.reserve(mSize);
        for (size_t s = 0; s < mHome.size(); ++s) {
            if (mHome[s] != kEmptyHome) {
                result.push_back(mIndex[s]);
            }
        }
        return result;
    }

private:
    uint32_t nextEmpty(uint32_t slot) {
        uint32_t root = slot;
        while (mNextEmpty[root] != root) {
            root = mNextEmpty[root];
        }
        while (mNextEmpty[slot] != root) {
            const uint32_t next = mNextEmpty[slot];
            mNextEmpty[slot] = root;
            slot = next;
        }
        return root;
    }

    void grow(const char* containerName) {
        HomeTable grown(size_t(2) * bucketCount());
        for (size_t s = 0; s < mHome.size(); ++s) {
            if (mHome[s] != kEmptyHome) {
                grown.insert(mHash[s], mIndex[s], containerName);
            }
        }
        std::swap(*this, grown);
        const float load = static_cast<float>(mSize) / static_cast<float>(bucketCount());
        if (mSize != 0 && load < kSparseLoadAfterRehash) {
            size_t largest = 0;
            for (uint32_t s = 0; s < bucketCount(); ++s) {
                if (mHome[s] != kEmptyHome && s - mHome[s] > largest) {
                    largest = s - mHome[s];
                }
            }
            reportSparseRehash(containerName, load, bucketCount(), mSize, largest);
        }
    }

    std::vector<uint32_t> mHome;
    std::vector<uint32_t> mHash;
    std::vector<uint32_t> mIndex;
    std::vector<uint32_t> mNextEmpty;  // a filled slot links onward; an empty one to itself
    uint32_t mMask = 0;
    uint32_t mSize = 0;
};

}  // namespace

std::vector<uint32_t> slotOrder(const std::vector<uint32_t>& hashes, const char* containerName) {
    HomeTable table(0);
    for (uint32_t i = 0; i < hashes.size(); ++i) {
        table.insert(hashes[i], i, containerName);
    }
    return table.order();
}

}  // namespace detail
}  // namespace Common
}  // namespace AR
