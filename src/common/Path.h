// A file-system path held as text, and the one file-system question the library asks.
#ifndef VELMORA_COMMON_PATH_H
#define VELMORA_COMMON_PATH_H

#include <string>
#include <utility>

#include "common/Platform.h"

namespace AR {
namespace Common {

class Path {
public:
    Path() = default;
    explicit Path(std::string text) : mText(std::move(text)) {}

    const std::string& str() const { return mText; }
    const char* c_str() const { return mText.c_str(); }
    bool empty() const { return mText.empty(); }

private:
    std::string mText;
};

namespace FileSystem {
// True when the platform layer says the path exists (including "exists but cannot be examined").
inline bool doesFileExist(const Path& path) {
    return arFileExists(path.c_str()) == 1;
}
}  // namespace FileSystem

}  // namespace Common
}  // namespace AR

#endif  // VELMORA_COMMON_PATH_H
