// Sorted-array map: a Vector of (key, value) pairs kept in ascending key order, found by binary
// search. Iteration is in key order. Insertion shifts the tail, so it suits small tables that are
// read far more often than written. Not thread-safe.
#ifndef VELMORA_COMMON_MAP_H
#define VELMORA_COMMON_MAP_H

#include <algorithm>
#include <utility>

#include "common/Assert.h"
#include "common/Vector.h"

namespace AR {
namespace Common {

// Rows added to a map's storage each time it is full.
constexpr uint32_t kMapGrowIncrement = 16;

template <typename K, typename V, typename G = VectorGrowConstant<kMapGrowIncrement>,
          typename A = VectorAllocDefault>
class Map {
public:
    using value_type = std::pair<K, V>;
    using Storage = Vector<value_type, G, A>;
    using iterator = typename Storage::iterator;
    using const_iterator = typename Storage::const_iterator;

    uint32_t size() const { return mItems.size(); }
    bool empty() const { return mItems.empty(); }
    iterator begin() { return mItems.begin(); }
    iterator end() { return mItems.end(); }
    const_iterator begin() const { return mItems.begin(); }
    const_iterator end() const { return mItems.end(); }

    // The value of `key`; a value-initialised entry is inserted at its sorted place if absent.
    V& operator[](const K& key) {
        iterator it = lowerBound(key);
        if (it == mItems.end() || key < it->first) {
            it = mItems.insert(it, value_type(key, V()));
        }
        return it->second;
    }
    // The value of `key`; aborts when it is absent.
    const V& operator[](const K& key) const { return at(key); }
    const V& at(const K& key) const {
        const const_iterator it = find(key);
        AR_ASSERT(it != mItems.end());
        return it->second;
    }

    iterator find(const K& key) {
        const iterator it = lowerBound(key);
        return it != mItems.end() && !(key < it->first) ? it : mItems.end();
    }
    const_iterator find(const K& key) const {
        const const_iterator it = lowerBound(key);
        return it != mItems.end() && !(key < it->first) ? it : mItems.end();
    }
    bool contains(const K& key) const { return find(key) != mItems.end(); }

    // Returns whether the key was present.
    bool erase(const K& key) {
        const iterator it = find(key);
        if (it == mItems.end()) {
            return false;
        }
        mItems.erase(it);
        return true;
    }
    void clear() { mItems.clear(); }

private:
    static bool keyLess(const value_type& item, const K& key) { return item.first < key; }
    iterator lowerBound(const K& key) {
        return std::lower_bound(mItems.begin(), mItems.end(), key, keyLess);
    }
    const_iterator lowerBound(const K& key) const {
        return std::lower_bound(mItems.begin(), mItems.end(), key, keyLess);
    }

    Storage mItems;
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_MAP_H
