// Fixed-capacity array: an element count (unsigned 32) followed by MAX_SIZE_ elements in place.
// It never allocates and is trivially copyable when TYPE is, so that it can live inside volume
// samples that are copied as raw memory. The default constructor leaves it uninitialised like
// the sample that holds it; `SmallVector<T, N>{}` is empty and zeroed.
#ifndef VELMORA_COMMON_SMALL_VECTOR_H
#define VELMORA_COMMON_SMALL_VECTOR_H

#include <cstdint>

#include "common/Assert.h"

namespace AR {
namespace Common {

template <typename TYPE, uint32_t MAX_SIZE_>
class SmallVector {
public:
    static constexpr uint32_t MAX_SIZE = MAX_SIZE_;
    using value_type = TYPE;
    using iterator = TYPE*;
    using const_iterator = const TYPE*;

    SmallVector() = default;

    uint32_t size() const { return current_size; }
    static constexpr uint32_t max_size() { return MAX_SIZE; }
    bool empty() const { return current_size == 0; }

    // Grows with value-initialised (zero) elements or shrinks; aborts beyond MAX_SIZE.
    void resize(uint32_t new_size) {
        AR_ASSERT(new_size <= MAX_SIZE);
        for (uint32_t i = current_size; i < new_size; ++i) {
            items[i] = TYPE();
        }
        current_size = new_size;
    }
    void clear() { current_size = 0; }
    void push_back(const TYPE& value) {
        AR_ASSERT(current_size < MAX_SIZE);
        items[current_size++] = value;
    }
    template <typename It>
    void assign(It first, It last) {
        AR_ASSERT(last - first >= 0);
        const auto count = last - first;
        AR_ASSERT(static_cast<uint64_t>(count) <= MAX_SIZE);
        current_size = 0;
        for (; first != last; ++first) {
            items[current_size++] = *first;
        }
    }

    // Unchecked: for loops bounded by size().
    TYPE& operator[](uint32_t index) { return items[index]; }
    const TYPE& operator[](uint32_t index) const { return items[index]; }
    // Checked; aborts when out of range.
    TYPE& at(uint32_t index) {
        AR_ASSERT(index < current_size);
        return items[index];
    }
    const TYPE& at(uint32_t index) const {
        AR_ASSERT(index < current_size);
        return items[index];
    }
    TYPE& front() {
        AR_ASSERT(current_size > 0);
        return items[0];
    }
    const TYPE& front() const {
        AR_ASSERT(current_size > 0);
        return items[0];
    }
    TYPE& back() {
        AR_ASSERT(current_size > 0);
        return items[current_size - 1];
    }
    const TYPE& back() const {
        AR_ASSERT(current_size > 0);
        return items[current_size - 1];
    }

    TYPE* data() { return items; }
    const TYPE* data() const { return items; }
    iterator begin() { return items; }
    iterator end() { return items + current_size; }
    const_iterator begin() const { return items; }
    const_iterator end() const { return items + current_size; }

    uint32_t current_size;
    TYPE items[MAX_SIZE_];
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_SMALL_VECTOR_H
