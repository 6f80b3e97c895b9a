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

// What decides where a table's keys stand, without the slots themselves. Which slots are occupied
// depends only on how many keys each bucket has (each key fills the first empty slot at or after
// its home), and the slot order is by home with ties in insertion order. So a key's insertion
// needs: the first empty slot at or after its home (links past filled slots), and whether a
// later home stands before that slot, which makes it shift the run and test the load (a count of
// homes in a range).
class HomeTable {
public:
    explicit HomeTable(size_t expectedCount) {
        size_t buckets = 1;
        while (buckets < expectedCount) {
            buckets *= 2;
        }
        mSlots = buckets + kOverflowSlots > kMinSlots ? buckets + kOverflowSlots : kMinSlots;
        mMask = static_cast<uint32_t>(mSlots - kOverflowSlots - 1);
        mNextEmpty.resize(mSlots + 1);
        for (size_t s = 0; s <= mSlots; ++s) {
            mNextEmpty[s] = static_cast<uint32_t>(s);
        }
        mHomeCounts.assign(size_t(mMask) + 2, 0);
    }

    uint32_t bucketCount() const { return mMask + 1; }

    void insert(uint32_t hash, uint32_t index, const char* containerName) {
        for (;;) {
            const uint32_t home = hash & mMask;
            const uint32_t empty = nextEmpty(home);
            if (empty == mSlots) {
                grow(containerName);  // the probe or the shift would run off the end
                continue;
            }
            const uint32_t last = std::min(empty - 1, mMask);
            const bool shifts = empty > home + 1 && homesUpTo(last) > homesUpTo(home);
            if (shifts && static_cast<float>(mEntries.size()) / static_cast<float>(bucketCount()) >
                              kDefaultMaxLoadFactor) {
                grow(containerName);
                continue;
            }
            mNextEmpty[empty] = empty + 1;
            for (uint32_t b = home + 1; b < mHomeCounts.size(); b += b & (~b + 1)) {
                ++mHomeCounts[b];
            }
            mEntries.push_back({hash, index});
            return;
        }
    }

    // The keys' indices in slot order.
    std::vector<uint32_t> order() const {
        std::vector<uint32_t> result;
        result.reserve(mEntries.size());
        for (const Entry& entry : sorted()) {
            result.push_back(entry.index);
        }
        return result;
    }

private:
    struct Entry {
        uint32_t hash;
        uint32_t index;
    };

    std::vector<Entry> sorted() const {
        std::vector<Entry> entries = mEntries;
        const uint32_t mask = mMask;
        std::stable_sort(entries.begin(), entries.end(), [mask](const Entry& a, const Entry& b) {
            return (a.hash & mask) < (b.hash & mask);
        });
        return entries;
    }

    // Keys whose home is at most `bucket`.
    uint32_t homesUpTo(uint32_t bucket) const {
        uint32_t count = 0;
        for (uint32_t b = bucket + 1; b > 0; b -= b & (~b + 1)) {
            count += mHomeCounts[b];
        }
        return count;
    }

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

    // Twice the buckets, the keys inserted again in slot order, as the table grows.
    void grow(const char* containerName) {
        HomeTable grown(size_t(2) * bucketCount());
        for (const Entry& entry : sorted()) {
            grown.insert(entry.hash, entry.index, containerName);
        }
        std::swap(*this, grown);
        const float load = static_cast<float>(mEntries.size()) / static_cast<float>(bucketCount());
        if (!mEntries.empty() && load < kSparseLoadAfterRehash) {
            // Slots in order: each key at its home or just after the key before it.
            size_t largest = 0;
            uint64_t next = 0;
            for (const Entry& entry : sorted()) {
                const uint64_t home = entry.hash & mMask;
                const uint64_t slot = std::max(home, next);
                if (slot < bucketCount()) {
                    largest = std::max<size_t>(largest, slot - home);
                }
                next = slot + 1;
            }
            reportSparseRehash(containerName, load, bucketCount(), mEntries.size(), largest);
        }
    }

    size_t mSlots = 0;
    uint32_t mMask = 0;
    std::vector<uint32_t> mNextEmpty;   // a filled slot links onward; an empty one to itself
    std::vector<uint32_t> mHomeCounts;  // Fenwick tree of the keys per home, 1-based
    std::vector<Entry> mEntries;        // in insertion order
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
