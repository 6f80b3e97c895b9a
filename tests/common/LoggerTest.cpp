// The process-wide logger: line formats, level and filter decisions, the assertion report,
// whole lines from many threads; and trace records, silent when off.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/Assert.h"
#include "common/Logger.h"
#include "common/Trace.h"
#include "support/CapturedLog.h"

namespace {

using AR::Common::Logger;
using Velmora::Test::CapturedLog;

constexpr uint32_t kAllFlags = Logger::FLAG_DATE_TIME | Logger::FLAG_SYSTEM_LOG |
                               Logger::FLAG_FUNCTION | Logger::FLAG_FILE_LINE |
                               Logger::FLAG_FILTER | Logger::FLAG_LEVEL;

// Every test starts from the defaults with the system log off and a capturing target, and puts
// the logger back as it found it.
class LoggerTest : public testing::Test {
protected:
    void SetUp() override {
        logger().setLevel(Logger::kDefaultLevel);
        setFlags(Logger::FLAG_LEVEL);
    }
    void TearDown() override {
        logger().setFile("", false, false);
        logger().setLevel(Logger::kDefaultLevel);
        setFlags(Logger::kDefaultFlags);
    }
    static Logger& logger() { return Logger::getInstance(); }
    static void setFlags(uint32_t flags) {
        logger().setFlag(kAllFlags, false);
        logger().setFlag(flags, true);
    }
    // The local date and time of a line, replaced by a placeholder.
    static std::string maskTime(const std::string& line) {
        static const std::regex kTime(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)");
        return std::regex_replace(line, kTime, "<T>");
    }
    CapturedLog capture;
};

constexpr const char* kSignature = "virtual const char *Velmora::Impl::getVersion() const";

TEST_F(LoggerTest, EveryFlagCombinationGivesItsLineFormat) {
    const uint32_t T = Logger::FLAG_DATE_TIME, L = Logger::FLAG_LEVEL, F = Logger::FLAG_FUNCTION,
                   S = Logger::FLAG_FILE_LINE;
    const std::pair<uint32_t, const char*> rows[] = {
        {0, "v=7"},
        {F | S, "Velmora::Impl::getVersion() [42]: v=7\nsrc/a.cpp(42)\n"},
        {T | F, "<T>: Velmora::Impl::getVersion(): v=7\n"},
        {L | S, "AR DEBUG: v=7\nsrc/a.cpp(42)\n"},
        {L | T | F | S, "AR DEBUG: <T>: Velmora::Impl::getVersion() [42]: v=7\nsrc/a.cpp(42)\n"},
    };
    for (const auto& [flags, expected] : rows) {
        setFlags(flags);
        capture.lines.clear();
        logger().logEx2(Logger::LEVEL_DEBUG, "src/a.cpp", kSignature, 42, "v=%d", 7);
        ASSERT_EQ(capture.lines.size(), 1u) << flags;
        EXPECT_EQ(maskTime(capture.lines[0]), expected) << flags;
    }
}

TEST_F(LoggerTest, FilterRefinesTheLevelPerQualifiedName) {
    logger().setLevel(Logger::LEVEL_VERBOSE);
    setFlags(Logger::FLAG_FILTER);
    AR::Common::LogFilter& filter = logger().getLogFilter();
    filter.setFilterLevel("Solid", Logger::LEVEL_ERROR);
    filter.setFilterLevel("Solid::VolumeGrid", Logger::LEVEL_INFO);
    filter.setFilterLevel("Solid::Raycast::cast", Logger::LEVEL_NONE,
                          AR::Common::LogFilter::Mode::Exact);
    auto pass = [&](const char* signature, int level) {
        capture.lines.clear();
        logger().logEx2(level, "f.cpp", signature, 1, "x");
        return !capture.lines.empty();
    };
    EXPECT_TRUE(pass("void Velmora::Impl::init()", Logger::LEVEL_VERBOSE));  // root: 5
    EXPECT_FALSE(pass("void Solid::integrate()", Logger::LEVEL_WARNING));    // Solid: 1
    EXPECT_TRUE(pass("void Solid::integrate()", Logger::LEVEL_ERROR));
    EXPECT_TRUE(pass("void Solid::VolumeGrid::ensure()", Logger::LEVEL_INFO));
    EXPECT_FALSE(pass("void Solid::VolumeGrid::ensure()", Logger::LEVEL_VERBOSE));
    EXPECT_FALSE(pass("void Solid::Raycast::cast()", Logger::LEVEL_ERROR));  // exact: 0
    // The exact entry does not reach below its name: Solid's subtree level applies there.
    EXPECT_TRUE(pass("void Solid::Raycast::cast::inner()", Logger::LEVEL_ERROR));
    filter.removeFilterLevel("Solid");
    EXPECT_TRUE(pass("void Solid::integrate()", Logger::LEVEL_VERBOSE));
    EXPECT_FALSE(pass("void Solid::VolumeGrid::ensure()", Logger::LEVEL_VERBOSE));
    filter.removeFilterLevel("Solid::VolumeGrid");
    filter.removeFilterLevel("Solid::Raycast::cast");
    EXPECT_TRUE(pass("void Solid::Raycast::cast()", Logger::LEVEL_VERBOSE));
    // Without the filter bit the level alone decides, and the root follows setLevel.
    logger().setLevel(Logger::LEVEL_WARNING);
    EXPECT_FALSE(filter.allowed("X::y", 4, Logger::LEVEL_DEBUG));
    EXPECT_TRUE(filter.allowed(nullptr, 0, Logger::LEVEL_WARNING));
}

TEST(LoggerDeathTest, AssertionReportsAndEndsTheProcess) {
    const std::string tooLong(AR::Common::MAX_LOG_LINE_LEN + 1, 'x');
    EXPECT_DEATH(AR::Common::logOnelineString(tooLong.c_str(), Logger::LEVEL_ERROR), "AR_ASSERT");
    const int two = 2;
    EXPECT_DEATH(AR_ASSERT(two == 3),
                 R"(: AR_ASSERT two == 3 .*LoggerTest\.cpp\([0-9]+\) virtual void )");
    // Even with a log file taking the lines and the system log off, the report reaches stderr.
    EXPECT_DEATH(
        {
            Logger::getInstance().setFlag(Logger::FLAG_SYSTEM_LOG, false);
            Logger::getInstance().setFile("/tmp/velmora-death.log", true, true);
            AR::Common::logError("cond", "file.cpp", "void f()", 7);
        },
        R"(: AR_ASSERT cond file\.cpp\(7\) void f\(\))");
}

// The fixture's capturing target is called under the logger's mutex.
using LoggerConcurrency = LoggerTest;

TEST_F(LoggerConcurrency, LinesFromManyThreadsStayWholeWhileTheLevelChanges) {
    constexpr int kThreads = 3, kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i)
                AR_LOG_DEBUG("thread %d line %d", t, i);
        });
    }
    // Debug lines pass at either level, so the count is exact.
    threads.emplace_back([] {
        for (int i = 0; i < kLines; ++i)
            logger().setLevel(i % 2 == 0 ? Logger::LEVEL_VERBOSE : Logger::LEVEL_DEBUG);
    });
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_EQ(capture.lines.size(), size_t{kThreads} * kLines);
    std::vector<int> nextLine(kThreads, 0);
    for (const std::string& line : capture.lines) {
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "AR DEBUG: thread %d line %d", &t, &i), 2) << line;
        EXPECT_EQ(i, nextLine[t]++);  // each thread's lines arrive in its order
    }
}

TEST(Trace, RecordsHaveTheirFormsNothingIsWrittenWhenOffAndAMissingMarkerWarns) {
    const std::string path = "/tmp/velmora-trace-" + std::to_string(getpid());
    std::ofstream(path).close();
    const std::string pid = std::to_string(getpid());
    AR::Common::Trace::begin("before");  // off: no record
    ASSERT_TRUE(AR::Common::Trace::enableAt(path.c_str()));
    { AR::Common::ScopedTrace span("Integration"); }  // the counters have no user in the system
    AR::Common::Trace::disable();
    AR::Common::Trace::end();  // off again
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    EXPECT_EQ(content.str(), "B|" + pid + "|IntegrationE");
    std::remove(path.c_str());

    CapturedLog log;
    EXPECT_FALSE(AR::Common::Trace::enableAt("/nonexistent-velmora/trace_marker"));
    EXPECT_FALSE(AR::Common::Trace::isEnabled());
    EXPECT_EQ(log.lines, std::vector<std::string>{"AR WARNING: error opening trace file: No such "
                                                  "file or directory (2)\n"});
}

}  // namespace
