// The lines the logger hands out while the object lives.
#ifndef VELMORA_TESTS_SUPPORT_CAPTUREDLOG_H
#define VELMORA_TESTS_SUPPORT_CAPTUREDLOG_H

#include <algorithm>
#include <string>
#include <vector>

#include "common/Logger.h"

namespace Velmora {
namespace Test {

class CapturedLog : public AR::Common::LogTarget {
public:
    CapturedLog() { AR::Common::Logger::getInstance().addTarget(this); }
    ~CapturedLog() override { AR::Common::Logger::getInstance().removeTarget(this); }
    void write(int, const char* line, size_t length) override { lines.emplace_back(line, length); }
    bool has(const std::string& part) const {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(part) != std::string::npos;
        });
    }
    std::vector<std::string> lines;
};

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_SUPPORT_CAPTUREDLOG_H
