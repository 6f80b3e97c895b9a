#include "common/FlatTable.h"

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

}  // namespace detail
}  // namespace Common
}  // namespace AR
