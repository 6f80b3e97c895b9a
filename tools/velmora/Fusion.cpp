#include "velmora/Fusion.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "velmora/Impl.h"
#include "velmora/Preview.h"
#include "velmora/Velmora.h"

namespace VelmoraTool {
namespace {

using Clock = std::chrono::steady_clock;

// The library requires the truncation band to span at least this many cells.
constexpr float kMinTruncationCells = 5.0f;
constexpr double kMillisecondsPerSecond = 1000.0;
constexpr double kKiBPerMiB = 1024.0;
constexpr double kMedian = 0.5;
constexpr double kPercentile90 = 0.9;
// The progress bar is redrawn at most this often (seconds); plain progress lines come at every
// tenth of the run.
constexpr double kRedrawInterval = 0.1;
constexpr size_t kPlainProgressSteps = 10;
constexpr int kBarWidth = 30;
constexpr int kSecondsPerMinute = 60;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

template <typename... Args>
std::string format(const char* pattern, Args... args) {
    char text[160];
    std::snprintf(text, sizeof(text), pattern, args...);
    return text;
}

// Frames done, frames per second and time left: a bar redrawn in place on a terminal, plain
// lines at every tenth of the run otherwise (for logs and pipes).
class Progress {
public:
    Progress(std::ostream& out, bool interactive, size_t total)
        : mOut(out), mInteractive(interactive), mTotal(total), mStart(Clock::now()) {}

    void update(size_t done) {
        const double elapsed = secondsSince(mStart);
        const double rate = elapsed > 0.0 ? done / elapsed : 0.0;
        const double left = rate > 0.0 ? (mTotal - done) / rate : 0.0;
        if (mInteractive) {
            if (done != mTotal && elapsed - mLastDraw < kRedrawInterval) {
                return;
            }
            mLastDraw = elapsed;
            const int filled = static_cast<int>(kBarWidth * done / std::max<size_t>(mTotal, 1));
            const long secondsLeft = std::lround(left);
            char text[200];
            std::snprintf(text, sizeof(text), "\r[%s%s] %zu/%zu frames  %.1f fps  %ld:%02ld left",
                          std::string(filled, '#').c_str(),
                          std::string(kBarWidth - filled, ' ').c_str(), done, mTotal, rate,
                          secondsLeft / kSecondsPerMinute, secondsLeft % kSecondsPerMinute);
            mOut << text << std::flush;
            mDrawn = true;
            return;
        }
        const size_t step =
            std::max<size_t>(1, (mTotal + kPlainProgressSteps - 1) / kPlainProgressSteps);
        if (done % step == 0 || done == mTotal) {
            char text[160];
            std::snprintf(text, sizeof(text),
                          "velmora: %zu/%zu frames, %.1f frames/s, about %.0f s left\n", done,
                          mTotal, rate, left);
            mOut << text << std::flush;
        }
    }

    // Clears the bar so that a message can take the line; the next update redraws it.
    void interrupt() {
        if (mInteractive && mDrawn) {
            mOut << "\r\x1b[K";
            mDrawn = false;
        }
    }

    void finish() {
        if (mInteractive && mDrawn) {
            mOut << "\n" << std::flush;
        }
    }

private:
    std::ostream& mOut;
    bool mInteractive;
    size_t mTotal;
    Clock::time_point mStart;
    double mLastDraw = -1.0;
    bool mDrawn = false;
};

long peakResidentKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;  // kibibytes on Linux
}

Velmora::Image depthImage(const Frame& frame, uint32_t maxDepthMm) {
    return {Velmora::kImageDepthU16,
            frame.depthMm.data(),
            frame.width,
            frame.height,
            static_cast<uint32_t>(frame.width * sizeof(uint16_t)),
            maxDepthMm};
}

Velmora::Image labelImage(const Frame& frame) {
    if (frame.labelsAre16Bit) {
        return {Velmora::kImageLabelU16,
                frame.labels16.data(),
                frame.width,
                frame.height,
                static_cast<uint32_t>(frame.width * sizeof(uint16_t)),
                0};
    }
    return {Velmora::kImageLabelU8, frame.labels8.data(), frame.width,
            frame.height,           frame.width,          0};
}

Velmora::Image colorImage(const Frame& frame) {
    constexpr uint32_t kBytesPerRgbPixel = 3;
    return {Velmora::kImageColorRGB8,
            frame.rgb.data(),
            frame.width,
            frame.height,
            frame.width * kBytesPerRgbPixel,
            0};
}

// Submits one frame: in split mode one call per image, as a device's streams arrive; in
// combined mode one call with all images. Adds the time spent in the library to `ms`; returns
// the first failure, or 0.
Velmora::XrResultVLM submitFrame(Velmora::IVelmora& scene, const FuseOptions& options,
                                 const Velmora::IntrinsicLinearCameraCalibrationVLM& intrinsics,
                                 const Frame& frame, bool withLabels, bool withColor, double& ms) {
    const Velmora::XrPosefVLM pose = toXrPose(frame.worldFromCamera);
    std::vector<Velmora::Image> images{depthImage(frame, options.maxDepthMm)};
    if (withLabels) {
        images.push_back(labelImage(frame));
    }
    if (withColor) {
        images.push_back(colorImage(frame));
    }
    auto submit = [&](const Velmora::Image* first, uint32_t count) {
        const Clock::time_point start = Clock::now();
        const Velmora::XrResultVLM result =
            scene.submitImages(frame.timestamp, intrinsics, pose, {first, count});
        ms += secondsSince(start) * kMillisecondsPerSecond;
        return result;
    };
    if (options.mode == FuseMode::kCombined) {
        return submit(images.data(), static_cast<uint32_t>(images.size()));
    }
    for (const Velmora::Image& image : images) {
        const Velmora::XrResultVLM result = submit(&image, 1);
        if (result != Velmora::kSuccess) {
            return result;
        }
    }
    return Velmora::kSuccess;
}

// The double nearest to the decimal the user typed for a float option (0.02, not
// 0.0199999995529), so that the JSON reads as the command line did.
double asDecimal(float value) {
    constexpr double kMicro = 1e6;
    return std::round(static_cast<double>(value) * kMicro) / kMicro;
}

const char* modeName(FuseMode mode) {
    return mode == FuseMode::kSplit ? "split" : "combined";
}

}  // namespace

Velmora::Config sceneConfig(float cellSize, float truncation, FuseMode mode) {
    // Plane detection settings of the tool's runs: a block joins a plane while its fit has a
    // standard error below 1 cm and its normal lies within 10 degrees; contours are alpha shapes
    // of 10 cm.
    constexpr float kPlaneMaxStdError = 0.01f;
    constexpr float kPlaneMaxAngle = 0.1745f;  // radians
    constexpr uint32_t kPlaneSolverIterations = 10;
    constexpr float kPlaneContourAlpha = 0.1f;
    Velmora::Config config{};
    config.cellSize = cellSize;
    config.truncation = truncation;
    config.mode = mode == FuseMode::kSplit ? 1 : 0;
    config.detectPlanes = true;
    config.planeMaxStdError = kPlaneMaxStdError;
    config.planeMaxAngle = kPlaneMaxAngle;
    config.planeSolverIterations = kPlaneSolverIterations;
    config.planeContourAlpha = kPlaneContourAlpha;
    config.labelPlanes = true;
    return config;
}

bool checkFuseOptions(const FuseOptions& options, std::string& error) {
    if (!(options.cellSize > 0.0f)) {
        error = "--cell-size must be above zero";
        return false;
    }
    if (!(options.truncation >= kMinTruncationCells * options.cellSize)) {
        error = format("--truncation must be at least 5 cells (%.3f m at --cell-size %.3f)",
                       static_cast<double>(kMinTruncationCells * options.cellSize),
                       static_cast<double>(options.cellSize));
        return false;
    }
    if (options.firstFrame > options.lastFrame) {
        error = "--frames FIRST:LAST needs FIRST <= LAST";
        return false;
    }
    if (options.every == 0) {
        error = "--every must be at least 1";
        return false;
    }
    return true;
}

double percentile(const std::vector<double>& sorted, double fraction) {
    if (sorted.empty()) {
        return 0.0;
    }
    const double rank = fraction * static_cast<double>(sorted.size() - 1);
    const size_t below = static_cast<size_t>(std::floor(rank));
    const size_t above = std::min(below + 1, sorted.size() - 1);
    return sorted[below] + (rank - below) * (sorted[above] - sorted[below]);
}

int runFusion(FrameSource& source, const FuseOptions& options, std::ostream& summaryOut,
              std::ostream& progressOut, std::ostream& errorOut, bool interactive) {
    std::string error;
    if (!checkFuseOptions(options, error)) {
        errorOut << "velmora: " << error << "\n";
        return kExitUsage;
    }
    // Combined mode fuses depth and labels in one pass; the library has no depth-only path in
    // that mode, so a sequence without labels cannot be fused this way at all.
    if (options.mode == FuseMode::kCombined && !source.hasLabels()) {
        errorOut << "velmora: " << source.describe()
                 << ": combined mode requires label images and this sequence has none; use "
                    "--mode split\n";
        return kExitFailure;
    }
    std::vector<size_t> selected;
    size_t inRange = 0;
    for (size_t i = 0; i < source.frameCount(); ++i) {
        const uint64_t number = source.frameNumber(i);
        if (number >= options.firstFrame && number <= options.lastFrame &&
            inRange++ % options.every == 0) {
            selected.push_back(i);
        }
    }
    if (selected.empty()) {
        errorOut << "velmora: " << source.describe() << ": no frames in the selected range\n";
        return kExitFailure;
    }
    if (!prepareOutputs(options.outputs, error)) {
        errorOut << "velmora: " << error << "\n";
        return kExitFailure;
    }

    std::unique_ptr<Velmora::IVelmora> scene(newVelmora());
    const Velmora::XrResultVLM initResult =
        scene->init(sceneConfig(options.cellSize, options.truncation, options.mode));
    if (initResult != Velmora::kSuccess) {
        errorOut << "velmora: the library refused the configuration (init returned " << initResult
                 << ")\n";
        return kExitFailure;
    }
    const Intrinsics intrinsics = source.intrinsics();
    const Velmora::IntrinsicLinearCameraCalibrationVLM calibration{intrinsics.cx, intrinsics.cy,
                                                                   intrinsics.fx, intrinsics.fy};

    FuseReport report;
    report.source = source.describe();
    report.options = options;
    report.framesSelected = selected.size();
    const Clock::time_point start = Clock::now();
    Progress progress(progressOut, interactive, selected.size());
    Frame frame;
    std::array<double, 3> cameraUp{0.0, 0.0, 0.0};
    for (size_t done = 0; done < selected.size(); ++done) {
        const uint64_t number = source.frameNumber(selected[done]);
        std::string problem;
        FrameStatus status = source.load(selected[done], frame, problem);
        if (status == FrameStatus::kOk && options.mode == FuseMode::kCombined && !frame.hasLabels) {
            status = FrameStatus::kBadInput;
            problem = "no label image, and combined mode requires one with every frame";
        }
        double ms = 0.0;
        if (status == FrameStatus::kOk) {
            const bool withColor = frame.hasColor && options.colorEvery > 0 &&
                                   report.framesFused % options.colorEvery == 0;
            const bool withLabels =
                frame.hasLabels &&
                (options.mode == FuseMode::kCombined ||
                 (options.labelEvery > 0 && report.framesFused % options.labelEvery == 0));
            const Velmora::XrResultVLM result =
                submitFrame(*scene, options, calibration, frame, withLabels, withColor, ms);
            if (result != Velmora::kSuccess) {
                problem = "submitImages returned " + std::to_string(result);
                ++report.skippedRejected;
                status = FrameStatus::kBadInput;
            } else {
                // The camera's up (its -y axis) in world coordinates, summed for the pictures.
                for (int axis = 0; axis < 3; ++axis) {
                    cameraUp[axis] -= frame.worldFromCamera[axis * 4 + 1];
                }
                report.colorFramesFused += withColor ? 1 : 0;
                ++report.framesFused;
                report.fusedFrameNumbers.push_back(number);
                report.submitMs.push_back(ms);
            }
        } else if (status == FrameStatus::kTrackingLost) {
            ++report.skippedTrackingLost;
        } else {
            ++report.skippedBadInput;
        }
        if (!problem.empty() && status != FrameStatus::kOk) {
            progress.interrupt();
            errorOut << "velmora: frame " << number << " skipped: " << problem << "\n";
            report.skipped.push_back({number, problem});
        }
        progress.update(done + 1);
    }
    progress.finish();
    report.fusionSeconds = secondsSince(start);

    int exitCode = kExitOk;
    if (!options.savePrefix.empty() && report.framesFused > 0) {
        const std::filesystem::path parent =
            std::filesystem::path(options.savePrefix).parent_path();
        std::error_code code;
        if (!parent.empty()) {
            std::filesystem::create_directories(parent, code);
        }
        report.saved =
            !code && static_cast<Velmora::Impl*>(scene.get())->saveVolumes(options.savePrefix) != 0;
        if (!report.saved) {
            errorOut << "velmora: " << options.savePrefix << ": saving the volumes failed\n";
            exitCode = kExitFailure;
        }
    }
    OutputOptions outputs = options.outputs;
    outputs.readAll = options.accuracyOf.has_value();
    outputs.up = snapUp(cameraUp);
    if (report.framesFused > 0 && (outputs.any() || outputs.readAll)) {
        report.outputsRead = true;
        if (!writeOutputs(*scene, outputs, report.colorFramesFused > 0, progressOut, errorOut,
                          interactive, report.outputs)) {
            exitCode = kExitFailure;
        } else if (options.accuracyOf) {
            const Clock::time_point accuracyStart = Clock::now();
            report.accuracy = evaluateBuiltinScene(report.outputs.mesh, report.outputs.planes,
                                                   report.outputs.instances, *options.accuracyOf);
            report.outputs.stages.push_back({"accuracy", secondsSince(accuracyStart)});
        }
    }
    report.totalSeconds = secondsSince(start);
    report.peakRssKiB = peakResidentKiB();
    printSummary(report, summaryOut);
    if (!options.statsPath.empty()) {
        std::ofstream stats(options.statsPath);
        stats << statsJson(report) << "\n";
        if (!stats) {
            errorOut << "velmora: " << options.statsPath << ": cannot write the statistics\n";
            exitCode = kExitFailure;
        }
    }
    if (report.framesFused == 0) {
        errorOut << "velmora: no frame was fused\n";
        return kExitFailure;
    }
    if (exitCode == kExitOk && report.skippedBadInput + report.skippedRejected > 0) {
        exitCode = kExitFramesSkipped;
    }
    return exitCode;
}

void printSummary(const FuseReport& report, std::ostream& out) {
    std::vector<double> sorted = report.submitMs;
    std::sort(sorted.begin(), sorted.end());
    const size_t skipped =
        report.skippedTrackingLost + report.skippedBadInput + report.skippedRejected;
    auto row = [&out](const char* name, const std::string& value) {
        printSummaryRow(out, name, value);
    };
    out << "velmora summary\n";
    row("source", report.source);
    row("mode",
        std::string(modeName(report.options.mode)) +
            format(", cell %.3f m, truncation %.3f m", static_cast<double>(report.options.cellSize),
                   static_cast<double>(report.options.truncation)));
    row("frames selected", std::to_string(report.framesSelected));
    row("frames fused", std::to_string(report.framesFused));
    row("frames skipped", std::to_string(skipped) + " (tracking lost " +
                              std::to_string(report.skippedTrackingLost) + ", bad input " +
                              std::to_string(report.skippedBadInput) + ", refused by library " +
                              std::to_string(report.skippedRejected) + ")");
    row("submitImages",
        format("median %.3f ms, p90 %.3f ms, max %.3f ms", percentile(sorted, kMedian),
               percentile(sorted, kPercentile90), sorted.empty() ? 0.0 : sorted.back()));
    row("total time", format("%.2f s", report.totalSeconds));
    row("peak memory", format("%.1f MiB", report.peakRssKiB / kKiBPerMiB));
    row("volumes", report.options.savePrefix.empty() ? std::string("not saved")
                   : report.saved ? "saved with prefix " + report.options.savePrefix
                                  : "saving failed");
    if (report.outputsRead) {
        printOutputSummary(report.outputs, {{"fusion", report.fusionSeconds}}, out);
    } else {
        row("stage times", format("fusion %.2f s", report.fusionSeconds));
    }
    if (report.accuracy) {
        printAccuracy(*report.accuracy, true, out);
    }
}

std::string statsJson(const FuseReport& report) {
    std::vector<double> sorted = report.submitMs;
    std::sort(sorted.begin(), sorted.end());
    nlohmann::json frames = nlohmann::json::array();
    for (size_t i = 0; i < report.submitMs.size(); ++i) {
        frames.push_back(
            {{"frame", report.fusedFrameNumbers[i]}, {"submitMs", report.submitMs[i]}});
    }
    nlohmann::json skipped = nlohmann::json::array();
    for (const SkippedFrame& frame : report.skipped) {
        skipped.push_back({{"frame", frame.frameNumber}, {"reason", frame.reason}});
    }
    nlohmann::json stats = {
        {"source", report.source},
        {"mode", modeName(report.options.mode)},
        {"cellSize", asDecimal(report.options.cellSize)},
        {"truncation", asDecimal(report.options.truncation)},
        {"framesSelected", report.framesSelected},
        {"framesFused", report.framesFused},
        {"framesSkipped",
         {{"trackingLost", report.skippedTrackingLost},
          {"badInput", report.skippedBadInput},
          {"refusedByLibrary", report.skippedRejected}}},
        {"submitMs",
         {{"median", percentile(sorted, kMedian)},
          {"p90", percentile(sorted, kPercentile90)},
          {"max", sorted.empty() ? 0.0 : sorted.back()}}},
        {"totalSeconds", report.totalSeconds},
        {"peakResidentKiB", report.peakRssKiB},
        {"saved", report.saved},
        {"frames", frames},
        {"skipped", skipped},
    };
    nlohmann::json stages = {{"fusion", report.fusionSeconds}};
    for (const StageTime& stage : report.outputs.stages) {
        stages[stage.name] = stage.seconds;
    }
    stats["stageSeconds"] = stages;
    if (report.outputsRead) {
        stats["triangles"] = report.outputs.mesh.triangleCount();
        stats["vertices"] = report.outputs.mesh.positions.size();
        stats["planes"] = report.outputs.planes.planes.size();
        stats["instances"] = report.outputs.instances.instances.size();
        stats["files"] = report.outputs.files;
    }
    if (report.accuracy) {
        stats["accuracy"] = accuracyJson(*report.accuracy);
    }
    return stats.dump(2);
}

}  // namespace VelmoraTool
