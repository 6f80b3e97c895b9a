// The version query leaves a debug line in the log.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/Logger.h"
#include "velmora/Velmora.h"

namespace {

class Lines : public AR::Common::LogTarget {
public:
    void write(int, const char* text, size_t length) override { lines.emplace_back(text, length); }
    std::vector<std::string> lines;
};

TEST(VersionLog, GetVersionLogsOnceAtTheDefaultLevelAndNotBelowIt) {
    AR::Common::Logger& logger = AR::Common::Logger::getInstance();
    Lines lines;
    logger.addTarget(&lines);
    std::unique_ptr<Velmora::IVelmora> scene(newVelmora());
    scene->getVersion();
    ASSERT_EQ(lines.lines.size(), 1u);
    EXPECT_EQ(lines.lines[0], "AR DEBUG: Impl::getVersion()\n");
    logger.setLevel(AR::Common::Logger::LEVEL_WARNING);
    scene->getVersion();
    EXPECT_EQ(lines.lines.size(), 1u);
    logger.setLevel(AR::Common::Logger::kDefaultLevel);
    logger.removeTarget(&lines);
}

}  // namespace
