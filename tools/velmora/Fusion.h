// The fusion loop shared by `velmora fuse` and `velmora demo`: replays frames through
// `submitImages`, shows progress, and reports what happened.
#ifndef VELMORA_TOOL_FUSION_H
#define VELMORA_TOOL_FUSION_H

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "velmora/Accuracy.h"
#include "velmora/Frame.h"
#include "velmora/Outputs.h"
#include "velmora/Velmora.h"

namespace VelmoraTool {

// Exit codes of the tool.
constexpr int kExitOk = 0;
// The input could not be used at all (no sequence, bad options file, nothing fused), or the
// library failed to start or to save.
constexpr int kExitFailure = 1;
// The command line is wrong.
constexpr int kExitUsage = 2;
// The run finished, but frames with bad input were skipped (each one reported on stderr).
constexpr int kExitFramesSkipped = 3;

enum class FuseMode {
    kSplit,     // depth, label and colour as separate calls, as a device delivers them
    kCombined,  // depth and label (and colour) of a frame in one call
};

struct FuseOptions {
    FuseMode mode = FuseMode::kSplit;
    float cellSize = 0.02f;    // metres
    float truncation = 0.10f;  // metres
    // Inclusive range of frame numbers; the last defaults to the end of the sequence.
    uint64_t firstFrame = 0;
    uint64_t lastFrame = UINT64_MAX;
    uint32_t every = 1;       // fuse every Nth of the selected frames
    uint32_t maxDepthMm = 0;  // handed to the library; 0 = no limit
    // The library keeps every colour image it is given as a keyframe, for the life of the
    // scene; colour is therefore submitted only every Nth fused frame (0 = never).
    uint32_t colorEvery = 10;
    // Split mode: labels go with every Nth fused frame (0 = never). Each label image renders the
    // volume from its pose, which costs far more than fusing a depth image; devices also label at
    // a lower rate than they measure depth. Combined mode needs labels with every frame.
    uint32_t labelEvery = 1;
    std::string savePrefix;  // empty: do not save
    std::string statsPath;   // empty: no JSON
    OutputOptions outputs;   // files written after fusion
    // Set when the frames are the built-in scene's: the run ends with an accuracy report.
    std::optional<BuiltinSceneRun> accuracyOf;
};

// The scene configuration of the tool's runs: planes and their labels on, so that planes,
// instances and instance meshes can be asked for.
Velmora::Config sceneConfig(float cellSize, float truncation, FuseMode mode);

// Checks what the library would refuse at `init`; false with a message otherwise.
bool checkFuseOptions(const FuseOptions& options, std::string& error);

// Linear interpolation between the closest ranks of an ascending `sorted` list; `fraction` in
// [0, 1]. 0 for an empty list.
double percentile(const std::vector<double>& sorted, double fraction);

struct SkippedFrame {
    uint64_t frameNumber;
    std::string reason;
};

struct FuseReport {
    std::string source;
    FuseOptions options;
    size_t framesSelected = 0;
    size_t framesFused = 0;
    size_t skippedTrackingLost = 0;
    size_t skippedBadInput = 0;
    size_t skippedRejected = 0;  // validated here but refused by the library
    std::vector<uint64_t> fusedFrameNumbers;
    std::vector<double> submitMs;  // per fused frame, all submitImages calls of the frame
    std::vector<SkippedFrame> skipped;
    double totalSeconds = 0.0;
    long peakRssKiB = 0;
    bool saved = false;
    size_t colorFramesFused = 0;  // frames that went with a colour image
    double fusionSeconds = 0.0;
    bool outputsRead = false;  // the scene was read after fusion
    OutputReport outputs;
    std::optional<AccuracyReport> accuracy;
};

// Fuses the selected frames of `source`. Progress goes to `progressOut` (a bar when
// `interactive`, otherwise plain periodic lines), frame problems to `errorOut`, the summary to
// `summaryOut`. Returns the exit code.
int runFusion(FrameSource& source, const FuseOptions& options, std::ostream& summaryOut,
              std::ostream& progressOut, std::ostream& errorOut, bool interactive);

// The summary table and the JSON statistics of a finished run.
void printSummary(const FuseReport& report, std::ostream& out);
std::string statsJson(const FuseReport& report);

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_FUSION_H
