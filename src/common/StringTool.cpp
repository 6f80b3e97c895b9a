#include "common/StringTool.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "common/Assert.h"

namespace AR {
namespace Common {
namespace StringTool {

namespace {
// Most formatted texts fit on the stack; longer ones take one heap buffer.
constexpr size_t kStackBufferSize = 512;
}  // namespace

std::string format_string(const char* format, ...) {
    char stackBuffer[kStackBufferSize];
    va_list args;
    va_start(args, format);
    va_list second;
    va_copy(second, args);
    const int length = std::vsnprintf(stackBuffer, sizeof(stackBuffer), format, args);
    va_end(args);
    std::string result;
    if (length < 0) {
        va_end(second);
        return result;
    }
    if (static_cast<size_t>(length) < sizeof(stackBuffer)) {
        result.assign(stackBuffer, static_cast<size_t>(length));
    } else {
        std::vector<char> heapBuffer(static_cast<size_t>(length) + 1);
        const int again = std::vsnprintf(heapBuffer.data(), heapBuffer.size(), format, second);
        AR_ASSERT(again == length);
        result.assign(heapBuffer.data(), static_cast<size_t>(length));
    }
    va_end(second);
    return result;
}

}  // namespace StringTool
}  // namespace Common
}  // namespace AR
