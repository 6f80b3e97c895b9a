// printf into a std::string.
#ifndef VELMORA_COMMON_STRINGTOOL_H
#define VELMORA_COMMON_STRINGTOOL_H

#include <string>

namespace AR {
namespace Common {
namespace StringTool {

// Formats on the stack when the text fits 512 bytes, else on the heap with a second pass of the
// arguments. A formatting error gives an empty string.
std::string format_string(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace StringTool
}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_STRINGTOOL_H
