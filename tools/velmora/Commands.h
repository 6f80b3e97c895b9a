// The subcommands of `velmora`, apart from argument parsing (main.cpp), so that they can be run
// and tested without a process of their own.
#ifndef VELMORA_TOOL_COMMANDS_H
#define VELMORA_TOOL_COMMANDS_H

#include <array>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

#include "velmora/BuiltinScene.h"
#include "velmora/Fusion.h"

namespace VelmoraTool {

// One loop around the room, the length of the built-in sequence unless asked otherwise.
constexpr size_t kDefaultSceneFrames = 120;

struct RenderOptions {
    std::string outDir;
    size_t frames = kDefaultSceneFrames;
    uint32_t width = kDefaultWidth;
    uint32_t height = kDefaultHeight;
    double noiseMmAt1m = 0.0;  // standard deviation of the depth noise at 1 m, millimetres
    uint32_t seed = 1;
};

struct FuseCommandOptions {
    std::string sequenceDir;
    FuseOptions fuse;
    std::string labelMapPath;              // empty: no map
    std::optional<Intrinsics> intrinsics;  // TUM layout
};

struct DemoOptions {
    std::string outDir = "out";
    size_t frames = kDefaultSceneFrames;
    uint32_t width = kDefaultWidth;
    uint32_t height = kDefaultHeight;
    std::string statsPath;  // empty: no JSON
    // Paths left empty take their default place in `outDir` (demoOutputs).
    OutputOptions outputs;
};

// The files that `demo` writes into `outDir` unless told otherwise: scene.ply, planes.json,
// instances.json and preview.png (with preview-planes.png beside it).
OutputOptions demoOutputs(const std::string& outDir, const OutputOptions& requested);

struct MeshCommandOptions {
    std::string volumePrefix;
    FuseMode mode = FuseMode::kSplit;
    float cellSize = FuseOptions{}.cellSize;
    float truncation = FuseOptions{}.truncation;
    OutputOptions outputs;
};

struct AccuracyCommandOptions {
    std::string meshPath;
    size_t frames = kDefaultSceneFrames;
    uint32_t width = kDefaultWidth;
    uint32_t height = kDefaultHeight;
    std::string statsPath;  // empty: no JSON
};

// Each returns the exit code; messages go to `err`, results to `out`.
int runRenderScene(const RenderOptions& options, std::ostream& out, std::ostream& err);
int runFuse(const FuseCommandOptions& options, std::ostream& out, std::ostream& err,
            bool interactive);
int runDemo(const DemoOptions& options, std::ostream& out, std::ostream& err, bool interactive);
// Measures a mesh file from any program against the built-in scene's true surfaces, as seen by
// the frames of a run of the given length and size.
int runAccuracy(const AccuracyCommandOptions& options, std::ostream& out, std::ostream& err);
// Loads saved volumes into a fresh scene and writes the requested outputs.
int runMesh(const MeshCommandOptions& options, std::ostream& out, std::ostream& err,
            bool interactive);

// Parsers of the compound arguments; false on malformed text.
bool parseSize(const std::string& text, uint32_t& width, uint32_t& height);      // "640x480"
bool parseFrameRange(const std::string& text, uint64_t& first, uint64_t& last);  // "10:20", "10:"
bool parseIntrinsics(const std::string& text, Intrinsics& intrinsics);           // "fx,fy,cx,cy"
bool parseAxis(const std::string& text, std::array<double, 3>& axis);            // "z", "-y"

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_COMMANDS_H
