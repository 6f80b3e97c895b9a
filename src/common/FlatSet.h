// Hash set with open addressing in one flat slot array: the set of block keys of the whole
// pipeline. Slot layout, probing, growth and iteration order are those of FlatTable (see there);
// the order in which a set is walked is fixed by its insertion history and bucket count.
// Elements are read-only through iterators. Not thread-safe.
#ifndef VELMORA_COMMON_FLAT_SET_H
#define VELMORA_COMMON_FLAT_SET_H

#include "common/FlatTable.h"
#include "common/Hash.h"

namespace AR {
namespace Common {

namespace detail {
template <typename T>
struct FlatSetTraits {
    using Element = T;
    using Key = T;
    static constexpr const char* kName = "FlatSet";
    static constexpr bool kMutableElements = false;
    static const T& keyOf(const T& element) { return element; }
};
}  // namespace detail

template <typename T, typename Hash = hash<T>>
class FlatSet : public detail::FlatTable<detail::FlatSetTraits<T>, Hash> {
    using Base = detail::FlatTable<detail::FlatSetTraits<T>, Hash>;

public:
    using value_type = T;
    using typename Base::const_iterator;
    using typename Base::iterator;

    explicit FlatSet(size_t expectedCount = 0) : Base(expectedCount) {}

    std::pair<iterator, bool> insert(const T& value) { return this->emplaceKey(value, value); }
    std::pair<iterator, bool> insert(T&& value) {
        return this->emplaceKey(value, std::move(value));
    }
    // The stored element equal to `value`; aborts when there is none.
    const T& at(const T& value) const {
        const auto* slot = this->findSlot(value);
        AR_ASSERT(slot != this->end().slot());
        return slot->element;
    }
};

// The set of block keys is instantiated once, in FlatSet.cpp.
extern template class detail::FlatTable<detail::FlatSetTraits<Math::Vector<int, 3>>,
                                        hash<Math::Vector<int, 3>>>;
extern template class FlatSet<Math::Vector<int, 3>>;

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_FLAT_SET_H
