// The process-wide logger: the sixteen line formats, the short format, level and filter
// decisions, the function-name reduction, the system log and file routing, and the assertion
// report.
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

namespace {

using AR::Common::Logger;

// Collects the finished lines handed to targets.
class CaptureTarget : public AR::Common::LogTarget {
public:
    void write(int level, const char* text, size_t length) override {
        levels.push_back(level);
        lines.emplace_back(text, length);
    }
    std::vector<int> levels;
    std::vector<std::string> lines;
};

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
        logger().addTarget(&capture);
    }
    void TearDown() override {
        logger().removeTarget(&capture);
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
    CaptureTarget capture;
};

constexpr const char* kSignature = "virtual const char *Velmora::Impl::getVersion() const";

TEST_F(LoggerTest, EveryFlagCombinationGivesItsLineFormat) {
    struct Row {
        uint32_t flags;
        const char* expected;
    };
    const uint32_t T = Logger::FLAG_DATE_TIME, L = Logger::FLAG_LEVEL, F = Logger::FLAG_FUNCTION,
                   S = Logger::FLAG_FILE_LINE;
    const Row rows[] = {
        {0, "v=7"},
        {S, "v=7\nsrc/a.cpp(42)\n"},
        {F, "Velmora::Impl::getVersion(): v=7\n"},
        {F | S, "Velmora::Impl::getVersion() [42]: v=7\nsrc/a.cpp(42)\n"},
        {T, "<T>: v=7\n"},
        {T | S, "<T>: v=7\nsrc/a.cpp(42)\n"},
        {T | F, "<T>: Velmora::Impl::getVersion(): v=7\n"},
        {T | F | S, "<T>: Velmora::Impl::getVersion() [42]: v=7\nsrc/a.cpp(42)\n"},
        {L, "AR DEBUG: v=7\n"},
        {L | S, "AR DEBUG: v=7\nsrc/a.cpp(42)\n"},
        {L | F, "AR DEBUG: Velmora::Impl::getVersion(): v=7\n"},
        {L | F | S, "AR DEBUG: Velmora::Impl::getVersion() [42]: v=7\nsrc/a.cpp(42)\n"},
        {L | T, "AR DEBUG: <T>: v=7\n"},
        {L | T | S, "AR DEBUG: <T>: v=7\nsrc/a.cpp(42)\n"},
        {L | T | F, "AR DEBUG: <T>: Velmora::Impl::getVersion(): v=7\n"},
        {L | T | F | S, "AR DEBUG: <T>: Velmora::Impl::getVersion() [42]: v=7\nsrc/a.cpp(42)\n"},
    };
    for (const Row& row : rows) {
        setFlags(row.flags);
        capture.lines.clear();
        logger().logEx2(Logger::LEVEL_DEBUG, "src/a.cpp", kSignature, 42, "v=%d", 7);
        ASSERT_EQ(capture.lines.size(), 1u) << row.flags;
        EXPECT_EQ(maskTime(capture.lines[0]), row.expected) << row.flags;
    }
    // The short format of unlocated text looks at the time and level bits only, and takes the
    // text as it stands.
    setFlags(L | F | S);
    capture.lines.clear();
    capture.levels.clear();
    logger().log2(Logger::LEVEL_WARNING, "100% done");
    setFlags(T | F);
    logger().log2(Logger::LEVEL_ERROR, "bare");
    ASSERT_EQ(capture.lines.size(), 2u);
    EXPECT_EQ(capture.lines[0], "AR WARNING: 100% done\n");
    EXPECT_EQ(maskTime(capture.lines[1]), "<T>: bare\n");
    EXPECT_EQ(capture.levels, (std::vector<int>{Logger::LEVEL_WARNING, Logger::LEVEL_ERROR}));
}

TEST_F(LoggerTest, LevelDropsMessagesBeforeAnyArgumentIsBuilt) {
    int built = 0;
    auto argument = [&built] { return ++built; };
    AR_LOG_VERBOSE("verbose %d", argument());
    AR_LOG_INFO("info %d", argument());
    EXPECT_TRUE(capture.lines.empty());
    EXPECT_EQ(built, 0);
    AR_LOG_DEBUG("debug %d", argument());
    AR_LOG_ERROR("error %d", argument());
    EXPECT_EQ(capture.lines,
              (std::vector<std::string>{"AR DEBUG: debug 1\n", "AR ERROR: error 2\n"}));

    logger().setLevel(Logger::LEVEL_VERBOSE);
    AR_LOG_VERBOSE("now %s", "seen");
    logger().setLevel(Logger::LEVEL_NONE);
    AR_LOG_ERROR("gone");
    logger().log2(Logger::LEVEL_ERROR, "gone too");
    ASSERT_EQ(capture.lines.size(), 3u);
    EXPECT_EQ(capture.lines[2], "AR VERBOSE: now seen\n");
    // A null function logs nothing at all.
    logger().setLevel(Logger::LEVEL_VERBOSE);
    logger().logEx2(Logger::LEVEL_ERROR, "f.cpp", nullptr, 1, "x");
    EXPECT_EQ(capture.lines.size(), 3u);
}

TEST_F(LoggerTest, FunctionNamesAreReducedAndCutToTheirLast80Characters) {
    size_t length = 0;
    const char* name = AR::Common::reduceFunctionName(kSignature, &length);
    EXPECT_EQ(std::string(name, length), "Velmora::Impl::getVersion");
    name = AR::Common::reduceFunctionName("int main(int, char**)", &length);
    EXPECT_EQ(std::string(name, length), "main");
    name = AR::Common::reduceFunctionName("std::vector<int>& Solid::ref()", &length);
    EXPECT_EQ(std::string(name, length), "Solid::ref");

    std::string longName;
    for (int i = 0; longName.size() < 100; ++i) {
        longName += "N" + std::to_string(i) + "::";
    }
    longName = longName.substr(0, 96) + "func";
    ASSERT_EQ(longName.size(), 100u);
    const std::string signature = "void " + longName + "(int) const";
    setFlags(Logger::FLAG_FUNCTION);
    logger().logEx2(Logger::LEVEL_ERROR, "f.cpp", signature.c_str(), 1, "m");
    ASSERT_EQ(capture.lines.size(), 1u);
    EXPECT_EQ(capture.lines[0], longName.substr(20) + "(): m\n");
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

TEST_F(LoggerTest, SystemLogGetsTheTextFromTheColonUnlessAFileTakesTheLine) {
    setFlags(Logger::kDefaultFlags);
    testing::internal::CaptureStderr();
    logger().log2(Logger::LEVEL_DEBUG, "to the system log");
    logger().logRawString2(Logger::LEVEL_ERROR, "raw line without colon", 22);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), ": to the system log\n");
    EXPECT_EQ(capture.lines.size(), 2u);  // targets get every line

    const std::string path = "/tmp/velmora-logger-" + std::to_string(getpid()) + ".log";
    logger().setFile(path, true, true);
    testing::internal::CaptureStderr();
    logger().log2(Logger::LEVEL_DEBUG, "first");
    logger().log2(Logger::LEVEL_ERROR, "second");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    EXPECT_EQ(content.str(), "AR DEBUG: first\nAR ERROR: second\n");
    logger().clearLogFile();
    std::stringstream cleared;
    cleared << std::ifstream(path).rdbuf();
    EXPECT_EQ(cleared.str(), "");
    logger().setFile("", false, false);
    std::remove(path.c_str());
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

TEST(LoggerConcurrency, LinesFromManyThreadsStayWholeWhileTheLevelChanges) {
    Logger& logger = Logger::getInstance();
    logger.setFlag(Logger::FLAG_SYSTEM_LOG, false);
    CaptureTarget capture;  // called under the logger's mutex
    logger.addTarget(&capture);
    constexpr int kThreads = 3;
    constexpr int kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                AR_LOG_DEBUG("thread %d line %d", t, i);
            }
        });
    }
    // Debug lines pass at either level, so the count is exact.
    threads.emplace_back([&logger] {
        for (int i = 0; i < kLines; ++i) {
            logger.setLevel(i % 2 == 0 ? Logger::LEVEL_VERBOSE : Logger::LEVEL_DEBUG);
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    logger.removeTarget(&capture);
    logger.setLevel(Logger::kDefaultLevel);
    logger.setFlag(Logger::FLAG_SYSTEM_LOG, true);
    ASSERT_EQ(capture.lines.size(), size_t{kThreads} * kLines);
    std::vector<int> nextLine(kThreads, 0);
    for (const std::string& line : capture.lines) {
        int t = -1;
        int i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "AR DEBUG: thread %d line %d", &t, &i), 2) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(i, nextLine[t]++);  // each thread's lines arrive in its order
    }
}

}  // namespace
