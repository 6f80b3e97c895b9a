// Helpers of the tool's tests: scratch directories, small sequences written to disk, and running
// the built `velmora` executable as a subprocess.
#ifndef VELMORA_TESTS_TOOLS_TOOLTESTSUPPORT_H
#define VELMORA_TESTS_TOOLS_TOOLTESTSUPPORT_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <sys/wait.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "velmora/BuiltinScene.h"
#include "velmora/Png.h"
#include "velmora/Pose.h"
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

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
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

inline void writePngOrFail(const std::string& path, const VelmoraTool::PngImage& image) {
    std::string error;
    ASSERT_TRUE(VelmoraTool::writePng(path, image, error)) << error;
}

// A TUM RGB-D sequence of the built-in scene: depth at 5000 units a metre, colour 10 ms after
// each depth image, ground truth every 5 ms from 0.1 s on, so the first frame has none.
inline void writeTumSequence(const std::string& dir, size_t frames) {
    fs::create_directories(fs::path(dir) / "depth");
    fs::create_directories(fs::path(dir) / "rgb");
    VelmoraTool::BuiltinSceneSource scene(frames, kSmallWidth, kSmallHeight, 0.0, 1);
    std::string depthList = "# depth maps\n# file: 'x.bag'\n# timestamp filename\n";
    std::string rgbList = "# color images\n";
    std::string truth = "# ground truth trajectory\n# timestamp tx ty tz qx qy qz qw\n";
    for (size_t i = 0; i < frames; ++i) {
        VelmoraTool::Frame frame;
        std::string error;
        scene.load(i, frame, error);
        const double time = 1.0 + 0.1 * i - (i == 0 ? 0.9 : 0.0);
        char name[64];
        std::snprintf(name, sizeof(name), "%.6f.png", time);
        std::vector<uint16_t> tumDepth(frame.depthMm.size());
        for (size_t p = 0; p < tumDepth.size(); ++p) {
            tumDepth[p] = static_cast<uint16_t>(frame.depthMm[p] * 5);
        }
        writePngOrFail((fs::path(dir) / "depth" / name).string(),
                       VelmoraTool::makeGrey16(frame.width, frame.height, tumDepth));
        writePngOrFail((fs::path(dir) / "rgb" / name).string(),
                       VelmoraTool::makeRgb8(frame.width, frame.height, frame.rgb));
        char line[256];
        std::snprintf(line, sizeof(line), "%.6f depth/%s\n", time, name);
        depthList += line;
        std::snprintf(line, sizeof(line), "%.6f rgb/%s\n", time + 0.01, name);
        rgbList += line;
        const Velmora::XrPosefVLM pose = VelmoraTool::toXrPose(frame.worldFromCamera);
        // Ground truth 4 ms after the frame, and one far-away distractor 30 ms after it.
        for (double offset : {0.004, 0.03}) {
            std::snprintf(line, sizeof(line), "%.6f %.9f %.9f %.9f %.9f %.9f %.9f %.9f\n",
                          time + offset, pose.position.x, pose.position.y, pose.position.z,
                          pose.orientation.x, pose.orientation.y, pose.orientation.z,
                          pose.orientation.w);
            if (i > 0) {
                truth += line;
            }
        }
    }
    writeText((fs::path(dir) / "depth.txt").string(), depthList);
    writeText((fs::path(dir) / "rgb.txt").string(), rgbList);
    writeText((fs::path(dir) / "groundtruth.txt").string(), truth);
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
