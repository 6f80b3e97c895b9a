// The one assertion of the library. A failed invariant is a programming error, never a result:
// it reports source path, line, function signature and condition, and ends the process in every
// build type (release included).
#ifndef VELMORA_COMMON_ASSERT_H
#define VELMORA_COMMON_ASSERT_H

namespace AR {
namespace Common {

// Reports the failed condition through the logger's assertion report (logError) and ends the
// process. Never returns.
[[noreturn]] void assertFailed(const char* file, int line, const char* function,
                               const char* condition);

}  // namespace Common
}  // namespace AR

#define AR_ASSERT(condition)    \
    ((condition)                \
         ? static_cast<void>(0) \
         : ::AR::Common::assertFailed(__FILE__, __LINE__, __PRETTY_FUNCTION__, #condition))

#endif  // VELMORA_COMMON_ASSERT_H
