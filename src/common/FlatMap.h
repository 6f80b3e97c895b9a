// Hash map with open addressing in one flat slot array. A slot is `home`, then the key, then the
// value (as a std::pair, so iterators give `first` and `second`). Slot layout, probing, growth
// and iteration order are those of FlatTable (see there). Not thread-safe.
#ifndef VELMORA_COMMON_FLAT_MAP_H
#define VELMORA_COMMON_FLAT_MAP_H

#include <tuple>
#include <utility>

#include "common/FlatTable.h"
#include "common/Hash.h"

namespace AR {
namespace Common {

namespace detail {
template <typename K, typename V>
struct FlatMapTraits {
    using Element = std::pair<K, V>;
    using Key = K;
    static constexpr const char* kName = "FlatMap";
    static constexpr bool kMutableElements = true;
    static const K& keyOf(const Element& element) { return element.first; }
};
}  // namespace detail

template <typename K, typename V, typename Hash = hash<K>>
class FlatMap : public detail::FlatTable<detail::FlatMapTraits<K, V>, Hash> {
    using Base = detail::FlatTable<detail::FlatMapTraits<K, V>, Hash>;

public:
    using key_type = K;
    using mapped_type = V;
    using value_type = std::pair<K, V>;
    using typename Base::const_iterator;
    using typename Base::iterator;

    explicit FlatMap(size_t expectedCount = 0) : Base(expectedCount) {}

    // An existing entry with the same key is left unchanged.
    std::pair<iterator, bool> insert(const value_type& entry) {
        return this->emplaceKey(entry.first, entry);
    }
    std::pair<iterator, bool> insert(value_type&& entry) {
        return this->emplaceKey(entry.first, std::move(entry));
    }
    template <typename KeyArg, typename ValueArg>
    std::pair<iterator, bool> insert(KeyArg&& key, ValueArg&& value) {
        const K& keyRef = key;
        return this->emplaceKey(keyRef, std::forward<KeyArg>(key), std::forward<ValueArg>(value));
    }

    // The value of `key`, inserted value-initialised when absent.
    V& operator[](const K& key) {
        return this
            ->emplaceKey(key, std::piecewise_construct, std::forward_as_tuple(key),
                         std::forward_as_tuple())
            .first->second;
    }
    // The value of `key`; aborts when it is absent.
    V& at(const K& key) {
        auto* slot = this->findSlot(key);
        AR_ASSERT(slot != this->end().slot());
        return slot->element.second;
    }
    const V& at(const K& key) const {
        const auto* slot = this->findSlot(key);
        AR_ASSERT(slot != this->end().slot());
        return slot->element.second;
    }
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_FLAT_MAP_H
