// Helpers of the tool's tests: scratch folders, small sequences on disk, the built tool run as a
// subprocess, and a PLY reader apart from the tool's own, so that the writer meets the format.
#ifndef VELMORA_TESTS_TOOLS_TOOLTESTSUPPORT_H
#define VELMORA_TESTS_TOOLS_TOOLTESTSUPPORT_H

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "support/ScratchDir.h"
#include "velmora/BuiltinScene.h"
#include "velmora/Png.h"
#include "velmora/Pose.h"
#include "velmora/SceneReadout.h"
#include "velmora/Sequence.h"

namespace VelmoraToolTest {

namespace fs = std::filesystem;
using namespace VelmoraTool;

using Velmora::Test::ScratchDir;

constexpr uint32_t kSmallWidth = 32;
constexpr uint32_t kSmallHeight = 24;

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
inline void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}
inline std::string readText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}
inline void writePngOrFail(const std::string& path, const PngImage& image) {
    std::string error;
    ASSERT_TRUE(writePng(path, image, error)) << error;
}
inline Frame sceneFrame(size_t index, size_t count) {
    Frame frame;
    std::string error;
    BuiltinSceneSource(count, kSmallWidth, kSmallHeight, 0.0, 1).load(index, frame, error);
    return frame;
}

// `count` frames of the built-in scene (small, noiseless) in the recorded layout.
inline void writeSceneSequence(const std::string& directory, size_t count) {
    RecordedSequenceWriter writer;
    std::string error;
    ASSERT_TRUE(writer.open(directory, sceneIntrinsics(kSmallWidth, kSmallHeight), error)) << error;
    for (size_t i = 0; i < count; ++i)
        ASSERT_TRUE(writer.write(i, sceneFrame(i, count), error)) << error;
}

// A TUM RGB-D sequence of the built-in scene: depth at 5000 units a metre, colour 10 ms after
// each depth image, ground truth 4 ms after each frame but the first (and a distractor 30 ms
// after it), so the first frame has none.
inline void writeTumSequence(const std::string& dir, size_t frames) {
    fs::create_directories(fs::path(dir) / "depth");
    fs::create_directories(fs::path(dir) / "rgb");
    std::ofstream depthList(dir + "/depth.txt"), rgbList(dir + "/rgb.txt"),
        truth(dir + "/groundtruth.txt");
    depthList << "# depth maps\n# timestamp filename\n" << std::fixed << std::setprecision(6);
    rgbList << "# colour\n" << std::fixed << std::setprecision(6);
    truth << "# ground truth trajectory\n" << std::fixed << std::setprecision(9);
    for (size_t i = 0; i < frames; ++i) {
        const Frame frame = sceneFrame(i, frames);
        const double time = i == 0 ? 0.1 : 1.0 + 0.1 * i;
        std::ostringstream name;
        name << std::fixed << std::setprecision(6) << time << ".png";
        std::vector<uint16_t> tumDepth(frame.depthMm);
        for (uint16_t& depth : tumDepth)
            depth = static_cast<uint16_t>(depth * 5);
        writePngOrFail(dir + "/depth/" + name.str(),
                       makeGrey16(frame.width, frame.height, tumDepth));
        writePngOrFail(dir + "/rgb/" + name.str(), makeRgb8(frame.width, frame.height, frame.rgb));
        depthList << time << " depth/" << name.str() << "\n";
        rgbList << time + 0.01 << " rgb/" << name.str() << "\n";
        const Velmora::XrPosefVLM p = toXrPose(frame.worldFromCamera);
        for (double offset : {0.004, 0.03})
            if (i > 0)
                truth << time + offset << " " << p.position.x << " " << p.position.y << " "
                      << p.position.z << " " << p.orientation.x << " " << p.orientation.y << " "
                      << p.orientation.z << " " << p.orientation.w << "\n";
    }
}

struct ToolRun {
    int exitCode = -1;
    std::string out, err;
};

// Runs the built tool with the words of `line` as arguments (the scratch paths hold no blanks),
// standard output and error captured apart.
inline ToolRun runTool(const ScratchDir& scratch, const std::string& line) {
    std::string command = VELMORA_TOOL_PATH, word;
    for (std::istringstream words(line); words >> word;)
        command += " '" + word + "'";
    command += " >" + (scratch / "tool.out") + " 2>" + (scratch / "tool.err") + " </dev/null";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(scratch / "tool.out"),
            readText(scratch / "tool.err")};
}

// The value of a row of the summary table, e.g. summaryRow(out, "frames fused").
inline std::string summaryRow(const std::string& summary, const std::string& name) {
    std::istringstream lines(summary);
    const std::string prefix = "  " + name + " ";
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(prefix, 0) == 0) {
            const size_t value = line.find_first_not_of(' ', prefix.size());
            return value == std::string::npos ? "" : line.substr(value);
        }
    return "<no row '" + name + "'>";
}

// A binary little-endian PLY file as writePly writes it (float, uchar and int vertex properties,
// a uchar-counted list of uint per face): vertex property names, every vertex property as a
// double, and the faces. Anything else fails the test.
struct PlyFile {
    std::vector<std::string> vertexProperties;
    std::vector<std::vector<double>> vertices;
    std::vector<std::vector<uint32_t>> faces;
};

inline PlyFile readPly(const std::string& path) {
    PlyFile ply;
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> types;
    size_t vertexCount = 0, faceCount = 0;
    std::string magic, format;
    std::getline(std::getline(in, magic), format);
    EXPECT_EQ(magic + "\n" + format, "ply\nformat binary_little_endian 1.0") << path;
    for (std::string line; std::getline(in, line) && line != "end_header";) {
        std::istringstream words(line);
        std::string keyword, a, b;
        words >> keyword >> a >> b;
        if (keyword == "element")
            (a == "vertex" ? vertexCount : faceCount) = std::stoul(b);
        if (keyword == "property" && a != "list") {
            types.push_back(a);
            ply.vertexProperties.push_back(b);
        }
    }
    auto read = [&in](auto value) {
        in.read(reinterpret_cast<char*>(&value), sizeof(value));
        return value;
    };
    ply.vertices.resize(vertexCount);
    for (std::vector<double>& row : ply.vertices)
        for (const std::string& type : types)
            row.push_back(type == "float"   ? read(float{})
                          : type == "uchar" ? read(uint8_t{})
                                            : read(int32_t{}));
    ply.faces.resize(faceCount);
    for (std::vector<uint32_t>& face : ply.faces) {
        face.resize(read(uint8_t{}));
        for (uint32_t& corner : face)
            corner = read(uint32_t{});
    }
    EXPECT_TRUE(in.good()) << "file ends early";
    in.peek();
    EXPECT_TRUE(in.eof()) << "bytes after the last face";
    return ply;
}

// The UUID the library gives an object: kind in byte 12, the id in bytes 8 and 9.
inline Velmora::UuidBytes objectUuid(uint16_t id, uint8_t kind) {
    Velmora::UuidBytes uuid{};
    uuid[8] = static_cast<uint8_t>(id & 0xFF);
    uuid[9] = static_cast<uint8_t>(id >> 8);
    uuid[12] = kind;
    return uuid;
}

}  // namespace VelmoraToolTest

#endif  // VELMORA_TESTS_TOOLS_TOOLTESTSUPPORT_H
