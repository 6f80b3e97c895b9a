#include "common/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace AR {
namespace Common {

void assertFailed(const char* file, int line, const char* function, const char* condition) {
    std::fprintf(stderr, "AR_ASSERT %s:%d: %s: Assertion `%s' failed.\n", file, line, function,
                 condition);
    std::fflush(stderr);
    std::abort();
}

}  // namespace Common
}  // namespace AR
