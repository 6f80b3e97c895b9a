#include "common/Assert.h"

#include "common/Logger.h"

namespace AR {
namespace Common {

void assertFailed(const char* file, int line, const char* function, const char* condition) {
    logError(condition, file, function, line);
}

}  // namespace Common
}  // namespace AR
