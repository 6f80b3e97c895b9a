// Bodies of FlatTable; included at the end of FlatTable.h only.
#ifndef VELMORA_COMMON_FLAT_TABLE_IMPL_H
#define VELMORA_COMMON_FLAT_TABLE_IMPL_H

#include <new>

namespace AR {
namespace Common {
namespace detail {

template <typename Traits, typename Hash>
void FlatTable<Traits, Hash>::allocate(size_t expectedCount) {
    size_t buckets = 1;
    while (buckets < expectedCount) {
        buckets *= 2;
    }
    const size_t slots =
        buckets + kOverflowSlots > kMinSlots ? buckets + kOverflowSlots : kMinSlots;
    mSlotsBegin = new Slot[slots];
    mSlotsEnd = mSlotsBegin + slots;
    for (Slot* slot = mSlotsBegin; slot != mSlotsEnd; ++slot) {
        slot->home = kEmptyHome;
    }
    mMask = static_cast<uint32_t>(slots - kOverflowSlots - 1);
    mMaxLoadFactor = kDefaultMaxLoadFactor;
    mSize = 0;
}

template <typename Traits, typename Hash>
void FlatTable<Traits, Hash>::release() {
    clear();
    delete[] mSlotsBegin;
    mSlotsBegin = nullptr;
    mSlotsEnd = nullptr;
    mMask = 0;
}

template <typename Traits, typename Hash>
FlatTable<Traits, Hash>::FlatTable(const FlatTable& other) {
    const size_t slots = other.slotCount();
    if (slots == 0) {
        return;
    }
    mSlotsBegin = new Slot[slots];
    mSlotsEnd = mSlotsBegin + slots;
    for (size_t i = 0; i < slots; ++i) {
        const Slot& from = other.mSlotsBegin[i];
        mSlotsBegin[i].home = from.home;
        if (from.home != kEmptyHome) {
            new (&mSlotsBegin[i].element) Element(from.element);
        }
    }
    mMaxLoadFactor = other.mMaxLoadFactor;
    mSize = other.mSize;
    mMask = other.mMask;
}

template <typename Traits, typename Hash>
FlatTable<Traits, Hash>::FlatTable(FlatTable&& other) noexcept
    : mSlotsBegin(other.mSlotsBegin),
      mSlotsEnd(other.mSlotsEnd),
      mMaxLoadFactor(other.mMaxLoadFactor),
      mSize(other.mSize),
      mMask(other.mMask) {
    other.mSlotsBegin = nullptr;
    other.mSlotsEnd = nullptr;
    other.mSize = 0;
    other.mMask = 0;
}

template <typename Traits, typename Hash>
FlatTable<Traits, Hash>& FlatTable<Traits, Hash>::operator=(const FlatTable& other) {
    if (this != &other) {
        FlatTable copy(other);
        swap(copy);
    }
    return *this;
}

template <typename Traits, typename Hash>
FlatTable<Traits, Hash>& FlatTable<Traits, Hash>::operator=(FlatTable&& other) noexcept {
    if (this != &other) {
        FlatTable taken(std::move(other));
        swap(taken);
    }
    return *this;
}

template <typename Traits, typename Hash>
void FlatTable<Traits, Hash>::swap(FlatTable& other) noexcept {
    std::swap(mSlotsBegin, other.mSlotsBegin);
    std::swap(mSlotsEnd, other.mSlotsEnd);
    std::swap(mMaxLoadFactor, other.mMaxLoadFactor);
    std::swap(mSize, other.mSize);
    std::swap(mMask, other.mMask);
}

template <typename Traits, typename Hash>
uint32_t FlatTable<Traits, Hash>::maxOffset() const {
    uint32_t largest = 0;
    for (uint32_t i = 0; i < bucketCount(); ++i) {
        const uint32_t home = mSlotsBegin[i].home;
        if (home != kEmptyHome && i - home > largest) {
            largest = i - home;
        }
    }
    return largest;
}

template <typename Traits, typename Hash>
typename FlatTable<Traits, Hash>::Slot* FlatTable<Traits, Hash>::firstOccupied() const {
    Slot* slot = mSlotsBegin;
    while (slot != mSlotsEnd && slot->home == kEmptyHome) {
        ++slot;
    }
    return slot;
}

template <typename Traits, typename Hash>
typename FlatTable<Traits, Hash>::Slot* FlatTable<Traits, Hash>::findSlot(const Key& key) const {
    if (mSlotsBegin == mSlotsEnd) {
        return mSlotsEnd;
    }
    const uint32_t home = Hash()(key) & mMask;
    // Sorted homes: the first slot with a later home (or empty) ends a failed search.
    for (Slot* slot = mSlotsBegin + home; slot != mSlotsEnd && slot->home <= home; ++slot) {
        if (slot->home == home && Traits::keyOf(slot->element) == key) {
            return slot;
        }
    }
    return mSlotsEnd;
}

template <typename Traits, typename Hash>
template <typename... Args>
std::pair<typename FlatTable<Traits, Hash>::iterator, bool> FlatTable<Traits, Hash>::emplaceKey(
    const Key& key, Args&&... args) {
    if (mSlotsBegin == mSlotsEnd) {
        allocate(0);
    }
    const uint32_t home = Hash()(key) & mMask;
    Slot* slot = mSlotsBegin + home;
    for (; slot != mSlotsEnd; ++slot) {
        if (slot->home == home && Traits::keyOf(slot->element) == key) {
            return {iterator(slot, mSlotsEnd), false};
        }
        if (slot->home == kEmptyHome) {
            // Landing in a free slot on the probe path makes no load test.
            new (&slot->element) Element(std::forward<Args>(args)...);
            slot->home = home;
            ++mSize;
            return {iterator(slot, mSlotsEnd), true};
        }
        if (slot->home > home) {
            break;
        }
    }
    if (slot == mSlotsEnd) {
        return growAndEmplace(std::forward<Args>(args)...);
    }
    // `slot` starts a later bucket: the new element goes here and the run up to the next free
    // slot moves up by one.
    Slot* freeSlot = slot + 1;
    while (freeSlot != mSlotsEnd && freeSlot->home != kEmptyHome) {
        ++freeSlot;
    }
    if (freeSlot == mSlotsEnd ||
        static_cast<float>(mSize) / static_cast<float>(bucketCount()) > mMaxLoadFactor) {
        return growAndEmplace(std::forward<Args>(args)...);
    }
    // Built before the shift, since the arguments may refer to an element that moves.
    Element pending(std::forward<Args>(args)...);
    for (Slot* to = freeSlot; to != slot; --to) {
        Slot* from = to - 1;
        new (&to->element) Element(std::move(from->element));
        to->home = from->home;
        from->element.~Element();
    }
    new (&slot->element) Element(std::move(pending));
    slot->home = home;
    ++mSize;
    return {iterator(slot, mSlotsEnd), true};
}

template <typename Traits, typename Hash>
template <typename... Args>
std::pair<typename FlatTable<Traits, Hash>::iterator, bool> FlatTable<Traits, Hash>::growAndEmplace(
    Args&&... args) {
    // The arguments may refer into the slots that the rehash is about to move.
    Element pending(std::forward<Args>(args)...);
    rehash(size_t(2) * bucketCount());
    return emplaceKey(Traits::keyOf(pending), std::move(pending));
}

template <typename Traits, typename Hash>
void FlatTable<Traits, Hash>::rehash(size_t count) {
    if (mSlotsBegin != mSlotsEnd && bucketCount() >= count) {
        return;
    }
    FlatTable grown(count);
    for (Slot* slot = mSlotsBegin; slot != mSlotsEnd; ++slot) {
        if (slot->home != kEmptyHome) {
            grown.emplaceKey(Traits::keyOf(slot->element), std::move(slot->element));
        }
    }
    swap(grown);
    const float load = static_cast<float>(mSize) / static_cast<float>(bucketCount());
    if (mSize != 0 && load < kSparseLoadAfterRehash) {
        reportSparseRehash(Traits::kName, load, bucketCount(), mSize, maxOffset());
    }
}

template <typename Traits, typename Hash>
typename FlatTable<Traits, Hash>::Slot* FlatTable<Traits, Hash>::eraseSlot(Slot* erased) {
    // The run after `erased` of elements that stand above their home; the first element at its
    // home, or the first empty slot, ends it.
    Slot* runEnd = erased + 1;
    while (runEnd != mSlotsEnd && runEnd->home != kEmptyHome &&
           runEnd->home < static_cast<uint32_t>(runEnd - mSlotsBegin)) {
        ++runEnd;
    }
    --mSize;
    erased->element.~Element();
    Slot* to = erased;
    for (Slot* from = erased + 1; from != runEnd; ++from, ++to) {
        new (&to->element) Element(std::move(from->element));
        to->home = from->home;
        from->element.~Element();
    }
    to->home = kEmptyHome;
    Slot* next = erased;
    while (next != mSlotsEnd && next->home == kEmptyHome) {
        ++next;
    }
    return next;
}

template <typename Traits, typename Hash>
bool FlatTable<Traits, Hash>::erase(const Key& key) {
    Slot* slot = findSlot(key);
    if (slot == mSlotsEnd) {
        return false;
    }
    eraseSlot(slot);
    return true;
}

template <typename Traits, typename Hash>
typename FlatTable<Traits, Hash>::iterator FlatTable<Traits, Hash>::erase(const_iterator position) {
    AR_ASSERT(position.slot() != mSlotsEnd && position.slot()->home != kEmptyHome);
    return iterator(eraseSlot(position.slot()), mSlotsEnd);
}

template <typename Traits, typename Hash>
void FlatTable<Traits, Hash>::clear() {
    if (mSize == 0) {
        return;
    }
    for (Slot* slot = mSlotsBegin; slot != mSlotsEnd; ++slot) {
        if (slot->home != kEmptyHome) {
            slot->element.~Element();
            slot->home = kEmptyHome;
        }
    }
    mSize = 0;
}

}  // namespace detail
}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_FLAT_TABLE_IMPL_H
