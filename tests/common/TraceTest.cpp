// Trace markers: the record forms, silence when off, and a graceful fallback where the kernel's
// marker file cannot be opened.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/Logger.h"
#include "common/Trace.h"

namespace {

using AR::Common::Logger;
using AR::Common::Trace;

class Lines : public AR::Common::LogTarget {
public:
    void write(int level, const char* text, size_t length) override {
        levels.push_back(level);
        lines.emplace_back(text, length);
    }
    std::vector<int> levels;
    std::vector<std::string> lines;
};

std::string readFile(const std::string& path) {
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

TEST(Trace, RecordsHaveTheirFormsAndNothingIsWrittenWhenOff) {
    const std::string path = "/tmp/velmora-trace-" + std::to_string(getpid());
    std::ofstream(path).close();
    const std::string pid = std::to_string(getpid());

    Trace::begin("before");  // off: no record
    ASSERT_TRUE(Trace::enableAt(path.c_str()));
    {
        AR::Common::ScopedTrace span("Integration");
        Trace::counter("blocks", int32_t{-7});
        Trace::counter("bytes", int64_t{123456789012});
    }
    Trace::disable();
    Trace::end();  // off again
    EXPECT_EQ(readFile(path),
              "B|" + pid + "|IntegrationC|" + pid + "|blocks|-7C|" + pid + "|bytes|123456789012E");
    std::remove(path.c_str());
}

TEST(Trace, MissingMarkerLogsAWarningAndStaysOff) {
    Lines log;
    Logger::getInstance().addTarget(&log);
    EXPECT_FALSE(Trace::enableAt("/nonexistent-velmora/trace_marker"));
    EXPECT_FALSE(Trace::isEnabled());
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.levels[0], Logger::LEVEL_WARNING);
    EXPECT_EQ(log.lines[0],
              "AR WARNING: error opening trace file: No such file or directory (2)\n");
    // The kernel's marker either opens quietly or adds one warning; spans are harmless either way.
    const bool enabled = Trace::enable();
    EXPECT_EQ(enabled, Trace::isEnabled());
    EXPECT_EQ(log.lines.size(), enabled ? 1u : 2u);
    {
        AR::Common::ScopedTrace span("submitImages");
        Trace::counter("blocks", int32_t{3});
    }
    Trace::disable();
    Logger::getInstance().removeTarget(&log);
}

}  // namespace
