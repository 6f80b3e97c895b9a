// Open-addressing hash table shared by FlatSet and FlatMap (use those; this is their engine).
//
// Layout, in order: pointer to the first slot, pointer past the last slot, max load factor
// (float, 1.0), element count (unsigned 32), mask = bucketCount - 1 (unsigned 32; bucketCount is a
// power of two). A slot is `home` (unsigned 32, the bucket its key hashes to, or kEmptyHome) and
// then the element. There are bucketCount + kOverflowSlots slots: bucket b is slot b, probing only
// goes upward, and the overflow slots at the end mean a probe never wraps around.
//
// Invariant: read from the first slot, the homes of the occupied slots never decrease, and each
// element stands at or after its home with no empty slot in between. So the elements are sorted
// by bucket, and iteration (ascending slots, empty ones skipped) is by ascending bucket; for one
// insertion history and bucketCount the order is fully determined. Everything that walks a set
// of blocks walks it in this order, so the rules below (where an element lands, when the table
// grows) are part of the behaviour of the whole system and must stay as they are:
//   - insertion into an empty slot on the probe path makes no load test;
//   - insertion in front of a later bucket shifts the run up to the next empty slot, and only
//     this path tests the load;
//   - the table grows (to twice its buckets) when the probe or the shift would run off the end,
//     or on the load test; it never shrinks;
//   - erasure shifts the displaced elements after the erased one back by one (no tombstones).
//
// Not thread-safe: confined to one thread or guarded by the owner's lock. Iterators and element
// references are invalidated by any insertion or erasure.
#ifndef VELMORA_COMMON_FLAT_TABLE_H
#define VELMORA_COMMON_FLAT_TABLE_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/Assert.h"

namespace AR {
namespace Common {
namespace detail {

// `home` of an empty slot; larger than every bucket, so a probe stops at it like at a later
// bucket.
constexpr uint32_t kEmptyHome = 0xFFFFFFFFu;
// Slots after the last bucket, so that a probe never wraps around.
constexpr uint32_t kOverflowSlots = 8;
// Slots of the smallest table (bucketCount 8).
constexpr uint32_t kMinSlots = 16;
// Element count over bucket count above which a shifting insertion grows the table.
constexpr float kDefaultMaxLoadFactor = 1.0f;
// Load below which a table that has just grown is reported: it grew because its keys cluster
// (a full run of overflow slots), not because it was full, which points at a poor hash.
constexpr float kSparseLoadAfterRehash = 0.1f;

// Reports a table that is nearly empty after a rehash; `containerName` is "FlatSet" or "FlatMap".
void reportSparseRehash(const char* containerName, float load, size_t buckets, size_t elements,
                        size_t maxOffset);

// Where keys would stand in a FlatSet or FlatMap constructed without an expected count, after
// inserting distinct keys with `hashes` in this order: their indices in slot (iteration) order.
// It replays the rules above on counts of homes, without slots, so that keys whose hashes pile
// into a few buckets cost little more than others, where the table itself walks and shifts whole
// runs slot by slot. A growth that leaves
// the table sparse is reported as the table reports it.
std::vector<uint32_t> slotOrder(const std::vector<uint32_t>& hashes, const char* containerName);

template <typename Element>
struct FlatSlot {
    FlatSlot() {}
    ~FlatSlot() {}
    uint32_t home;
    union {
        Element element;  // constructed only while home != kEmptyHome
    };
};

template <typename Element, bool Const>
class FlatIterator {
public:
    using Slot = FlatSlot<Element>;
    using iterator_category = std::forward_iterator_tag;
    using value_type = Element;
    using difference_type = std::ptrdiff_t;
    using reference = std::conditional_t<Const, const Element&, Element&>;
    using pointer = std::conditional_t<Const, const Element*, Element*>;

    FlatIterator() = default;
    FlatIterator(Slot* slot, Slot* end) : mSlot(slot), mEnd(end) {}
    template <bool C = Const, typename = std::enable_if_t<C>>
    FlatIterator(const FlatIterator<Element, false>& other)
        : mSlot(other.slot()), mEnd(other.slotsEnd()) {}

    reference operator*() const { return mSlot->element; }
    pointer operator->() const { return &mSlot->element; }
    FlatIterator& operator++() {
        do {
            ++mSlot;
        } while (mSlot != mEnd && mSlot->home == kEmptyHome);
        return *this;
    }
    FlatIterator operator++(int) {
        FlatIterator before = *this;
        ++*this;
        return before;
    }
    template <bool C>
    bool operator==(const FlatIterator<Element, C>& other) const {
        return mSlot == other.slot();
    }
    template <bool C>
    bool operator!=(const FlatIterator<Element, C>& other) const {
        return mSlot != other.slot();
    }

    Slot* slot() const { return mSlot; }
    Slot* slotsEnd() const { return mEnd; }

private:
    Slot* mSlot = nullptr;
    Slot* mEnd = nullptr;
};

// Traits: Element, Key, `static const Key& keyOf(const Element&)`, `kMutableElements`, `kName`.
template <typename Traits, typename Hash>
class FlatTable {
public:
    using Element = typename Traits::Element;
    using Key = typename Traits::Key;
    using Slot = FlatSlot<Element>;
    using iterator = FlatIterator<Element, !Traits::kMutableElements>;
    using const_iterator = FlatIterator<Element, true>;

    // A table with room for `expectedCount` elements: bucketCount is the smallest power of two at
    // or above it (at least 8 buckets, 16 slots).
    explicit FlatTable(size_t expectedCount = 0) { allocate(expectedCount); }
    FlatTable(const FlatTable& other);
    // Leaves `other` without slots; it may be assigned to, cleared or destroyed.
    FlatTable(FlatTable&& other) noexcept;
    FlatTable& operator=(const FlatTable& other);
    FlatTable& operator=(FlatTable&& other) noexcept;
    ~FlatTable() { release(); }
    void swap(FlatTable& other) noexcept;

    // Size and shape.
    uint32_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }
    uint32_t bucketCount() const { return slotCount() == 0 ? 0 : mMask + 1; }
    uint32_t slotCount() const { return static_cast<uint32_t>(mSlotsEnd - mSlotsBegin); }
    float maxLoadFactor() const { return mMaxLoadFactor; }
    // `home` of slot `slot` (kEmptyHome when it is empty); for diagnostics and tests.
    uint32_t slotHome(uint32_t slot) const {
        AR_ASSERT(slot < slotCount());
        return mSlotsBegin[slot].home;
    }
    uint32_t slotIndex(const_iterator it) const {
        return static_cast<uint32_t>(it.slot() - mSlotsBegin);
    }
    // Largest distance of an element from its home among the bucket slots (overflow excluded):
    // how much a poor hash makes the keys cluster.
    uint32_t maxOffset() const;

    // Iteration in slot order.
    iterator begin() { return iterator(firstOccupied(), mSlotsEnd); }
    iterator end() { return iterator(mSlotsEnd, mSlotsEnd); }
    const_iterator begin() const { return const_iterator(firstOccupied(), mSlotsEnd); }
    const_iterator end() const { return const_iterator(mSlotsEnd, mSlotsEnd); }

    // Lookup.
    iterator find(const Key& key) { return iterator(findSlot(key), mSlotsEnd); }
    const_iterator find(const Key& key) const { return const_iterator(findSlot(key), mSlotsEnd); }
    bool contains(const Key& key) const { return findSlot(key) != mSlotsEnd; }
    uint32_t count(const Key& key) const { return contains(key) ? 1u : 0u; }

    // Inserts an Element built from `args` unless `key` (the key that element will have) is
    // present; returns the element and whether it was inserted.
    template <typename... Args>
    std::pair<iterator, bool> emplaceKey(const Key& key, Args&&... args);

    // Removes the element with `key`; returns whether there was one.
    bool erase(const Key& key);
    // Removes the element at `position`; returns the next element in iteration order.
    iterator erase(const_iterator position);
    // Destroys all elements; the slots stay allocated.
    void clear();
    // Grows to room for `count` elements; no-op when bucketCount is already at least `count`.
    void rehash(size_t count);

protected:
    Slot* findSlot(const Key& key) const;

private:
    void allocate(size_t expectedCount);
    void release();
    Slot* firstOccupied() const;
    Slot* eraseSlot(Slot* slot);
    template <typename... Args>
    std::pair<iterator, bool> growAndEmplace(Args&&... args);

    Slot* mSlotsBegin = nullptr;
    Slot* mSlotsEnd = nullptr;
    float mMaxLoadFactor = kDefaultMaxLoadFactor;
    uint32_t mSize = 0;
    uint32_t mMask = 0;
};

}  // namespace detail
}  // namespace Common
}  // namespace AR

#include "common/FlatTableImpl.h"

#endif  // VELMORA_COMMON_FLAT_TABLE_H
