#include "common/FlatSet.h"

#include <type_traits>

namespace AR {
namespace Common {

// A slot of the block-key set is home plus three ints: 16 bytes, walked linearly.
static_assert(sizeof(detail::FlatSlot<Math::Vector<int, 3>>) == 16,
              "a block-key slot is home followed by the key");

template class detail::FlatTable<detail::FlatSetTraits<Math::Vector<int, 3>>,
                                 hash<Math::Vector<int, 3>>>;
template class FlatSet<Math::Vector<int, 3>>;

}  // namespace Common
}  // namespace AR
