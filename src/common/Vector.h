// Growable array with a growth policy and an allocator policy.
//
// Layout: element count (unsigned 32), capacity (unsigned 32), pointer to the first element (null
// until the first allocation). Elements are constructed only in [0, size()); the rest of the
// block is raw memory.
//
// Growth policies say what capacity a full vector gets when one more element arrives:
//   VectorGrowDoubling<I>  twice the element count, or I when empty (the default);
//   VectorGrowConstant<I>  the capacity plus I (for small sorted tables that grow slowly).
// `resize` beyond the capacity takes max(2 * capacity, n); `assign` and `assign_fast` raise the
// capacity to exactly the count. Nothing ever shrinks the capacity.
//
// Every index access (`operator[]`, `at`, `front`, `back`) is checked and aborts when out of
// range, in every build. Not thread-safe; guarded by the owner's lock where shared.
#ifndef VELMORA_COMMON_VECTOR_H
#define VELMORA_COMMON_VECTOR_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "common/Assert.h"
#include "common/OS.h"

namespace AR {
namespace Common {

template <uint32_t INITIAL>
struct VectorGrowDoubling {
    static_assert(INITIAL > 0, "a vector must be able to grow from empty");
    static uint32_t grow(uint32_t numItems, uint32_t /*capacity*/) {
        return numItems == 0 ? INITIAL : numItems * 2;
    }
};

template <uint32_t INCREMENT>
struct VectorGrowConstant {
    static_assert(INCREMENT > 0, "a vector must be able to grow");
    // The capacity stays when the increment would overflow 32 bits.
    static uint32_t grow(uint32_t /*numItems*/, uint32_t capacity) {
        return capacity > std::numeric_limits<uint32_t>::max() - INCREMENT ? capacity
                                                                           : capacity + INCREMENT;
    }
};

// Heap memory through the counted allocation of the platform layer.
struct VectorAllocDefault {
    static void* allocate(size_t bytes) { return OS::allocMem(bytes); }
    static void deallocate(void* block) { OS::freeMem(block); }
};

// Elements of a new vector block: the default growth starts at this many.
constexpr uint32_t kVectorInitialCapacity = 16;

template <typename TYPE, typename GROWINGPOLICY = VectorGrowDoubling<kVectorInitialCapacity>,
          typename ALLOCATOR = VectorAllocDefault>
class Vector {
public:
    using value_type = TYPE;
    using iterator = TYPE*;
    using const_iterator = const TYPE*;

    Vector() = default;
    explicit Vector(uint32_t count) { resize(count); }
    Vector(const Vector& other) { assign(other.begin(), other.end()); }
    Vector(Vector&& other) noexcept
        : numItems(other.numItems), capacity(other.capacity), block(other.block) {
        other.numItems = 0;
        other.capacity = 0;
        other.block = nullptr;
    }
    Vector& operator=(const Vector& other) {
        if (this != &other) {
            assign(other.begin(), other.end());
        }
        return *this;
    }
    Vector& operator=(Vector&& other) noexcept {
        swap(other);
        return *this;
    }
    ~Vector() { release(); }

    void swap(Vector& other) noexcept {
        std::swap(numItems, other.numItems);
        std::swap(capacity, other.capacity);
        std::swap(block, other.block);
    }

    // Size and capacity.
    uint32_t size() const { return numItems; }
    uint32_t getCapacity() const { return capacity; }
    bool empty() const { return numItems == 0; }

    // Access; all checked.
    TYPE& operator[](uint32_t index) { return at(index); }
    const TYPE& operator[](uint32_t index) const { return at(index); }
    TYPE& at(uint32_t index) {
        AR_ASSERT(block != 0 && index < numItems);
        return block[index];
    }
    const TYPE& at(uint32_t index) const {
        AR_ASSERT(block != 0 && index < numItems);
        return block[index];
    }
    TYPE& front() {
        AR_ASSERT(block != 0 && numItems > 0);
        return block[0];
    }
    const TYPE& front() const {
        AR_ASSERT(block != 0 && numItems > 0);
        return block[0];
    }
    TYPE& back() {
        AR_ASSERT(block != 0 && numItems > 0);
        return block[numItems - 1];
    }
    const TYPE& back() const {
        AR_ASSERT(block != 0 && numItems > 0);
        return block[numItems - 1];
    }
    TYPE* data() { return block; }
    const TYPE* data() const { return block; }
    iterator begin() { return block; }
    iterator end() { return block + numItems; }
    const_iterator begin() const { return block; }
    const_iterator end() const { return block + numItems; }

    // Appends a copy of `value`, which may be an element of this vector: on growth the old block
    // is freed only after the new element has been built.
    void push_back(const TYPE& value) {
        if (numItems == capacity) {
            growAndAppend(value);
        } else {
            new (block + numItems) TYPE(value);
            ++numItems;
        }
    }
    void push_back(TYPE&& value) {
        if (numItems == capacity) {
            growAndAppend(std::move(value));
        } else {
            new (block + numItems) TYPE(std::move(value));
            ++numItems;
        }
    }
    void pop_back() {
        AR_ASSERT(block != 0 && numItems > 0);
        --numItems;
        block[numItems].~TYPE();
    }

    // Inserts a copy of `value` before `position`; returns the new element.
    iterator insert(const_iterator position, const TYPE& value) {
        const uint32_t index = static_cast<uint32_t>(position - block);
        AR_ASSERT(index <= numItems);
        TYPE copy(value);
        if (numItems == capacity) {
            const uint32_t grown = GROWINGPOLICY::grow(numItems, capacity);
            AR_ASSERT(grown > capacity);
            adjustBlock(grown);
        }
        if (index == numItems) {
            new (block + numItems) TYPE(std::move(copy));
        } else {
            new (block + numItems) TYPE(std::move(block[numItems - 1]));
            for (uint32_t i = numItems - 1; i > index; --i) {
                block[i] = std::move(block[i - 1]);
            }
            block[index] = std::move(copy);
        }
        ++numItems;
        return block + index;
    }

    // Removes the element at `position`; returns the element that now stands there (or end()).
    iterator erase(const_iterator position) {
        const uint32_t index = static_cast<uint32_t>(position - block);
        AR_ASSERT(block != 0 && index < numItems);
        for (uint32_t i = index; i + 1 < numItems; ++i) {
            block[i] = std::move(block[i + 1]);
        }
        pop_back();
        return block + index;
    }

    // New elements are value-initialised: zero for plain types, default-constructed otherwise.
    void resize(uint32_t count) {
        if (count > capacity) {
            adjustBlock(capacity * 2 > count ? capacity * 2 : count);
        }
        while (numItems > count) {
            pop_back();
        }
        for (; numItems < count; ++numItems) {
            new (block + numItems) TYPE();
        }
    }

    // Appends `count` elements, the i-th built from `make(i)`: at most one growth (as `resize`),
    // and each element written once, where resize-then-assign would write it twice.
    template <typename F>
    void append_generated(uint32_t count, F&& make) {
        AR_ASSERT(count <= std::numeric_limits<uint32_t>::max() - numItems);
        const uint32_t total = numItems + count;
        if (total > capacity) {
            adjustBlock(capacity * 2 > total ? capacity * 2 : total);
        }
        TYPE* out = block + numItems;
        for (uint32_t i = 0; i < count; ++i) {
            new (out + i) TYPE(make(i));
        }
        numItems = total;
    }

    // Raises the capacity to exactly `count` if it is below; never shrinks.
    void reserve(uint32_t count) { adjustBlock(count); }

    void clear() {
        while (numItems > 0) {
            pop_back();
        }
    }

    // Replaces the contents by [first, last); the range must not lie inside this vector.
    template <typename It>
    void assign(It first, It last) {
        AR_ASSERT(last - first >= 0);
        clear();
        const uint32_t count = static_cast<uint32_t>(last - first);
        adjustBlock(count);
        for (; first != last; ++first) {
            new (block + numItems) TYPE(*first);
            ++numItems;
        }
    }

    // Refills with `count` copies of `value`, raising the capacity to exactly `count` when it is
    // below, with no growth policy and no copy of the old contents: for per-frame buffers.
    void assign_fast(uint32_t count, const TYPE& value) {
        AR_ASSERT(&value < begin() || &value >= end());
        clear();
        if (count == 0) {
            return;
        }
        adjustBlock(count);
        for (; numItems < count; ++numItems) {
            new (block + numItems) TYPE(value);
        }
    }

private:
    // Sets the capacity to exactly `count` if it exceeds the current one; moves the elements.
    void adjustBlock(uint32_t count) {
        if (count <= capacity) {
            return;
        }
        TYPE* newBlock = static_cast<TYPE*>(ALLOCATOR::allocate(size_t(count) * sizeof(TYPE)));
        AR_ASSERT(newBlock != 0);
        for (uint32_t i = 0; i < numItems; ++i) {
            new (newBlock + i) TYPE(std::move(block[i]));
            block[i].~TYPE();
        }
        if (block != nullptr) {
            ALLOCATOR::deallocate(block);
        }
        block = newBlock;
        capacity = count;
    }

    template <typename Arg>
    void growAndAppend(Arg&& value) {
        Vector grown;
        grown.adjustBlock(GROWINGPOLICY::grow(numItems, capacity));
        AR_ASSERT(grown.capacity > numItems);
        // The new element first, while `value` may still point into the old block.
        new (grown.block + numItems) TYPE(std::forward<Arg>(value));
        for (uint32_t i = 0; i < numItems; ++i) {
            new (grown.block + i) TYPE(std::move(block[i]));
        }
        grown.numItems = numItems + 1;
        swap(grown);
    }

    void release() {
        clear();
        if (block != nullptr) {
            ALLOCATOR::deallocate(block);
        }
        block = nullptr;
        capacity = 0;
    }

    uint32_t numItems = 0;
    uint32_t capacity = 0;
    TYPE* block = nullptr;
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_VECTOR_H
