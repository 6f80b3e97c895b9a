#include "velmora/Commands.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <ostream>
#include <sstream>

#include <fstream>
#include <nlohmann/json.hpp>

#include "velmora/Impl.h"
#include "velmora/Ply.h"
#include "velmora/Sequence.h"

namespace VelmoraTool {
namespace {

// Base name of the volume files that `demo` writes into its output directory.
constexpr const char* kDemoVolumeName = "scene";

// The endings of the volume files of each run mode.
constexpr const char* kSplitDepthEnding = ".depthgrid";
constexpr const char* kSplitLabelEnding = ".labelgrid";
constexpr const char* kCombinedEnding = ".depthlabelgrid";

std::string inFolder(const std::string& folder, const std::string& requested, const char* name) {
    return requested.empty() ? (std::filesystem::path(folder) / name).string() : requested;
}

// Why `prefix` cannot be loaded in `mode`, or an empty text when it can.
std::string volumeProblem(const std::string& prefix, FuseMode mode) {
    namespace fs = std::filesystem;
    const bool split = fs::is_regular_file(prefix + kSplitDepthEnding);
    const bool combined = fs::is_regular_file(prefix + kCombinedEnding);
    if (mode == FuseMode::kSplit && !split) {
        return combined ? prefix + kCombinedEnding +
                              " holds a combined-mode volume; load it with --mode combined"
                        : "no volume files with this prefix (expected " + prefix +
                              kSplitDepthEnding + ")";
    }
    if (mode == FuseMode::kCombined && !combined) {
        return split
                   ? prefix + kSplitDepthEnding +
                         " holds a split-mode volume; load it with --mode split"
                   : "no volume files with this prefix (expected " + prefix + kCombinedEnding + ")";
    }
    return "";
}

bool parseUnsigned(const std::string& text, uint64_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    errno = 0;
    value = std::strtoull(text.c_str(), nullptr, 10);
    return errno != ERANGE;
}

}  // namespace

bool parseSize(const std::string& text, uint32_t& width, uint32_t& height) {
    const size_t x = text.find('x');
    uint64_t w = 0, h = 0;
    if (x == std::string::npos || !parseUnsigned(text.substr(0, x), w) ||
        !parseUnsigned(text.substr(x + 1), h) || w == 0 || h == 0 || w > UINT16_MAX ||
        h > UINT16_MAX) {
        return false;
    }
    width = static_cast<uint32_t>(w);
    height = static_cast<uint32_t>(h);
    return true;
}

bool parseFrameRange(const std::string& text, uint64_t& first, uint64_t& last) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos || !parseUnsigned(text.substr(0, colon), first)) {
        return false;
    }
    const std::string end = text.substr(colon + 1);
    if (end.empty()) {
        last = UINT64_MAX;
        return true;
    }
    return parseUnsigned(end, last) && first <= last;
}

bool parseIntrinsics(const std::string& text, Intrinsics& intrinsics) {
    std::istringstream in(text);
    double values[4];
    std::string token;
    size_t count = 0;
    while (std::getline(in, token, ',')) {
        char* end = nullptr;
        const double value = std::strtod(token.c_str(), &end);
        if (count == 4 || token.empty() || end != token.c_str() + token.size() ||
            !std::isfinite(value) || value <= 0.0) {
            return false;
        }
        values[count++] = value;
    }
    if (count != 4) {
        return false;
    }
    intrinsics = {values[0], values[1], values[2], values[3]};
    return true;
}

bool parseAxis(const std::string& text, std::array<double, 3>& axis) {
    const bool negative = !text.empty() && text[0] == '-';
    const std::string name = negative ? text.substr(1) : text;
    if (name.size() != 1 || name[0] < 'x' || name[0] > 'z') {
        return false;
    }
    axis = {0.0, 0.0, 0.0};
    axis[name[0] - 'x'] = negative ? -1.0 : 1.0;
    return true;
}

int runRenderScene(const RenderOptions& options, std::ostream& out, std::ostream& err) {
    RecordedSequenceWriter writer;
    std::string error;
    const Intrinsics intrinsics = sceneIntrinsics(options.width, options.height);
    if (!writer.open(options.outDir, intrinsics, error)) {
        err << "velmora: " << error << "\n";
        return kExitFailure;
    }
    BuiltinSceneSource scene(options.frames, options.width, options.height, options.noiseMmAt1m,
                             options.seed);
    Frame frame;
    for (size_t i = 0; i < options.frames; ++i) {
        scene.load(i, frame, error);
        if (!writer.write(i, frame, error)) {
            err << "velmora: " << error << "\n";
            return kExitFailure;
        }
    }
    out << "velmora: rendered " << options.frames << " frames of " << options.width << "x"
        << options.height << " into " << options.outDir << "\n";
    return kExitOk;
}

int runFuse(const FuseCommandOptions& options, std::ostream& out, std::ostream& err,
            bool interactive) {
    SequenceOptions sequenceOptions;
    sequenceOptions.intrinsics = options.intrinsics;
    std::string error;
    if (!options.labelMapPath.empty()) {
        LabelMap map;
        if (!loadLabelMap(options.labelMapPath, map, error)) {
            err << "velmora: " << error << "\n";
            return kExitFailure;
        }
        sequenceOptions.labelMap = std::move(map);
    }
    std::unique_ptr<FrameSource> source = openSequence(options.sequenceDir, sequenceOptions, error);
    if (!source) {
        err << "velmora: " << error << "\n";
        return kExitFailure;
    }
    return runFusion(*source, options.fuse, out, err, err, interactive);
}

int runDemo(const DemoOptions& options, std::ostream& out, std::ostream& err, bool interactive) {
    // The demo shows the reconstruction of the exact surfaces: no depth noise.
    constexpr double kDemoNoise = 0.0;
    constexpr uint32_t kDemoSeed = 1;
    BuiltinSceneSource scene(options.frames, options.width, options.height, kDemoNoise, kDemoSeed);
    // Labels at a fifth of the depth rate, as a device's segmentation would come.
    constexpr uint32_t kDemoLabelEvery = 5;
    FuseOptions fuse;
    fuse.labelEvery = kDemoLabelEvery;
    fuse.savePrefix = (std::filesystem::path(options.outDir) / kDemoVolumeName).string();
    fuse.statsPath = options.statsPath;
    fuse.outputs = demoOutputs(options.outDir, options.outputs);
    fuse.accuracyOf = BuiltinSceneRun{options.frames, options.width, options.height};
    out << "velmora demo: fusing " << scene.describe() << "\n";
    return runFusion(scene, fuse, out, err, err, interactive);
}

int runAccuracy(const AccuracyCommandOptions& options, std::ostream& out, std::ostream& err) {
    HostMesh mesh;
    std::string error;
    if (!readPlyMesh(options.meshPath, mesh, error)) {
        err << "velmora: " << options.meshPath << ": " << error << "\n";
        return kExitFailure;
    }
    const AccuracyReport report =
        evaluateBuiltinScene(mesh, {}, {}, {options.frames, options.width, options.height});
    out << options.meshPath << ": " << mesh.triangleCount() << " triangles\n";
    printAccuracy(report, false, out);
    if (!options.statsPath.empty()) {
        nlohmann::json stats = accuracyJson(report);
        stats["triangles"] = mesh.triangleCount();
        std::ofstream file(options.statsPath);
        file << stats.dump(2) << "\n";
        if (!file) {
            err << "velmora: " << options.statsPath << ": cannot write the statistics\n";
            return kExitFailure;
        }
    }
    return kExitOk;
}

OutputOptions demoOutputs(const std::string& outDir, const OutputOptions& requested) {
    OutputOptions outputs = requested;
    outputs.meshPath = inFolder(outDir, requested.meshPath, "scene.ply");
    outputs.planesPath = inFolder(outDir, requested.planesPath, "planes.json");
    outputs.instancesPath = inFolder(outDir, requested.instancesPath, "instances.json");
    outputs.previewPath = inFolder(outDir, requested.previewPath, "preview.png");
    return outputs;
}

int runMesh(const MeshCommandOptions& options, std::ostream& out, std::ostream& err,
            bool interactive) {
    FuseOptions check;
    check.cellSize = options.cellSize;
    check.truncation = options.truncation;
    std::string error;
    if (!checkFuseOptions(check, error)) {
        err << "velmora: " << error << "\n";
        return kExitUsage;
    }
    if (!options.outputs.any()) {
        err << "velmora: nothing to write: give --mesh, --planes, --instances, --preview or "
               "--instance-meshes\n";
        return kExitUsage;
    }
    const std::string problem = volumeProblem(options.volumePrefix, options.mode);
    if (!problem.empty()) {
        err << "velmora: " << options.volumePrefix << ": " << problem << "\n";
        return kExitFailure;
    }
    if (!prepareOutputs(options.outputs, error)) {
        err << "velmora: " << error << "\n";
        return kExitFailure;
    }
    const auto start = std::chrono::steady_clock::now();
    std::unique_ptr<Velmora::IVelmora> scene(newVelmora());
    const Velmora::XrResultVLM initResult =
        scene->init(sceneConfig(options.cellSize, options.truncation, options.mode));
    if (initResult != Velmora::kSuccess) {
        err << "velmora: the library refused the configuration (init returned " << initResult
            << ")\n";
        return kExitFailure;
    }
    if (static_cast<Velmora::Impl*>(scene.get())->loadVolumes(options.volumePrefix) == 0) {
        err << "velmora: " << options.volumePrefix << ": the volume files are unreadable\n";
        return kExitFailure;
    }
    const double loadSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    OutputReport report;
    const bool written =
        writeOutputs(*scene, options.outputs, false, err, err, interactive, report);
    out << "velmora mesh summary\n";
    printSummaryRow(
        out, "volumes",
        options.volumePrefix +
            (options.mode == FuseMode::kSplit
                 ? std::string(" (split: ") + kSplitDepthEnding + ", " + kSplitLabelEnding + ")"
                 : std::string(" (combined: ") + kCombinedEnding + ")"));
    printOutputSummary(report, {{"loading", loadSeconds}}, out);
    return written ? kExitOk : kExitFailure;
}

}  // namespace VelmoraTool
