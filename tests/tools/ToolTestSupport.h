// Helpers of the tool's tests: scratch directories, small sequences written to disk, and running
// the built `velmora` executable as a subprocess.
#ifndef VELMORA_TESTS_TOOLS_TOOLTESTSUPPORT_H
#define VELMORA_TESTS_TOOLS_TOOLTESTSUPPORT_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <sys/wait.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "velmora/BuiltinScene.h"
#include "velmora/Sequence.h"

namespace VelmoraToolTest {

namespace fs = std::filesystem;

// A fresh directory under the test temp dir, removed with the object.
class ScratchDir {
public:
    ScratchDir() {
        const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
        mPath = fs::path(::testing::TempDir()) /
                ("velmora_tool_" + std::string(test->test_suite_name()) + "_" + test->name() + "_" +
                 std::to_string(getpid()));
        fs::remove_all(mPath);
        fs::create_directories(mPath);
    }
    ~ScratchDir() { fs::remove_all(mPath); }
    const fs::path& path() const { return mPath; }
    std::string operator/(const std::string& name) const { return (mPath / name).string(); }

private:
    fs::path mPath;
};

// Small image size that keeps the tests fast; the scene's intrinsics scale to it.
constexpr uint32_t kSmallWidth = 32;
constexpr uint32_t kSmallHeight = 24;

// Writes `count` frames of the built-in scene (small, noiseless) in the recorded layout.
inline void writeSceneSequence(const std::string& directory, size_t count, bool withLabels = true) {
    VelmoraTool::RecordedSequenceWriter writer;
    std::string error;
    ASSERT_TRUE(
        writer.open(directory, VelmoraTool::sceneIntrinsics(kSmallWidth, kSmallHeight), error))
        << error;
    VelmoraTool::BuiltinSceneSource scene(count, kSmallWidth, kSmallHeight, 0.0, 1);
    for (size_t i = 0; i < count; ++i) {
        VelmoraTool::Frame frame;
        scene.load(i, frame, error);
        frame.hasLabels = withLabels;
        ASSERT_TRUE(writer.write(i, frame, error)) << error;
    }
    if (!withLabels) {
        fs::remove_all(fs::path(directory) / "label");
    }
}

inline void writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path);
    out << text;
}

inline std::string readText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct ToolRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

inline std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

// Runs the built tool with `args`; standard output and error are captured separately.
inline ToolRun runTool(const ScratchDir& scratch, const std::vector<std::string>& args) {
    std::string command = shellQuote(VELMORA_TOOL_PATH);
    for (const std::string& arg : args) {
        command += " " + shellQuote(arg);
    }
    const std::string outPath = scratch / "tool.out";
    const std::string errPath = scratch / "tool.err";
    command += " >" + shellQuote(outPath) + " 2>" + shellQuote(errPath) + " </dev/null";
    const int status = std::system(command.c_str());
    ToolRun run;
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = readText(outPath);
    run.err = readText(errPath);
    return run;
}

// The value of a row of the summary table, e.g. summaryRow(out, "frames fused").
inline std::string summaryRow(const std::string& summary, const std::string& name) {
    std::istringstream lines(summary);
    std::string line;
    while (std::getline(lines, line)) {
        const std::string prefix = "  " + name + " ";
        if (line.rfind(prefix, 0) == 0) {
            const size_t value = line.find_first_not_of(' ', prefix.size());
            return value == std::string::npos ? "" : line.substr(value);
        }
    }
    return "<no row '" + name + "'>";
}

}  // namespace VelmoraToolTest

#endif  // VELMORA_TESTS_TOOLS_TOOLTESTSUPPORT_H
