// Non-owning view on a contiguous run of items: a pointer to the first and a count. The viewed
// memory must outlive the view. Index access is checked and aborts when out of range.
#ifndef VELMORA_COMMON_ARRAY_VIEW_H
#define VELMORA_COMMON_ARRAY_VIEW_H

#include <cstdint>
#include <utility>

#include "common/Assert.h"

namespace AR {
namespace Common {

template <typename ITEM>
class ArrayView {
public:
    using value_type = ITEM;
    using iterator = ITEM*;

    ArrayView() = default;
    // [begin, end); aborts unless begin <= end.
    ArrayView(ITEM* begin, ITEM* end) : mItems(begin), numItems(0) {
        AR_ASSERT(begin <= end);
        numItems = static_cast<uint32_t>(end - begin);
    }
    // Any container with data() and size(), such as AR::Common::Vector or std::vector.
    template <typename Container,
              typename = decltype(static_cast<ITEM*>(std::declval<Container&>().data()))>
    ArrayView(Container& container)
        : mItems(container.data()), numItems(static_cast<uint32_t>(container.size())) {}

    uint32_t size() const { return numItems; }
    bool empty() const { return numItems == 0; }
    ITEM* data() const { return mItems; }
    iterator begin() const { return mItems; }
    iterator end() const { return mItems + numItems; }

    ITEM& operator[](uint32_t index) const { return at(index); }
    ITEM& at(uint32_t index) const {
        AR_ASSERT(index < numItems);
        return mItems[index];
    }
    ITEM& front() const {
        AR_ASSERT(numItems > 0);
        return mItems[0];
    }
    ITEM& back() const {
        AR_ASSERT(numItems > 0);
        return mItems[numItems - 1];
    }

private:
    ITEM* mItems = nullptr;
    uint32_t numItems = 0;
};

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_ARRAY_VIEW_H
