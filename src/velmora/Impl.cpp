#include "velmora/Impl.h"

#include <cmath>
#include <cstdio>

#include "common/Logger.h"
#include "common/Trace.h"
#include "velmora/ImplState.h"
#include "velmora/Version.h"

namespace Velmora {

// Lattice points per block edge: 8 cells plus the border plane shared with the upper neighbour.
constexpr int kBlockLatticePoints = 9;

// The truncation band must span at least this many cells.
constexpr float kMinTruncationCells = 5.0f;

Impl::Impl() : mState(std::make_unique<State>()) {
    char text[128];
    std::snprintf(text, sizeof(text), "%s %s %s %s", kLibraryVersion, kBuildTag, kBuildDate,
                  kBuildTime);
    mVersion = text;
}

Impl::~Impl() = default;

bool Impl::isInitialized() const {
    std::lock_guard<std::mutex> lock(mInitMutex);
    return mInitialized;
}

XrResultVLM Impl::checkConfig(const Config& config) {
    if (!(config.cellSize > 0.0f)) {
        return kErrorCellSizeInvalid;
    }
    if (config.truncation < config.cellSize * kMinTruncationCells) {
        return kErrorTruncationTooSmall;
    }
    return kSuccess;
}

XrResultVLM Impl::checkIntrinsics(const IntrinsicLinearCameraCalibrationVLM& intrinsics) {
    // Each value must be finite and above zero as the frame path uses it, narrowed to float: a
    // NaN, an infinity, or a double that overflows or underflows the float would reach block
    // keys and camera models as values no camera has.
    for (const double value : {intrinsics.principalPointX, intrinsics.principalPointY,
                               intrinsics.focalLengthX, intrinsics.focalLengthY}) {
        const float narrowed = static_cast<float>(value);
        if (!(std::isfinite(narrowed) && narrowed > 0.0f)) {
            return kErrorIntrinsicsInvalid;
        }
    }
    return kSuccess;
}

XrResultVLM Impl::init(const Config& config) {
    if (isInitialized()) {
        return kErrorAlreadyInitialized;
    }
    const XrResultVLM configResult = checkConfig(config);
    if (configResult != kSuccess) {
        return configResult;
    }
    // The process keeps one tracer: the first scene to start opens the kernel's marker (or logs
    // why it cannot), and the spans of every scene go there from then on.
    AR::Common::processTrace();
    State& s = *mState;
    s.mMode = config.mode;
    const Solid::Size blockSize(kBlockLatticePoints, kBlockLatticePoints, kBlockLatticePoints);
    const Solid::Vec3 spacing(config.cellSize, config.cellSize, config.cellSize);
    if (config.mode == kModeSplit) {
        s.mVolumeGrid = std::make_unique<Solid::DepthGrid>();
        s.mVolumeGrid->set(blockSize, spacing);
        s.mLabelVolumeGrid = std::make_unique<Solid::LabelGrid>();
        s.mLabelVolumeGrid->set(blockSize, spacing);
    } else if (config.mode == kModeCombined) {
        s.mLabelDepthVolumeGrid = std::make_unique<Solid::LabelDepthGrid>();
        s.mLabelDepthVolumeGrid->set(blockSize, spacing);
    }
    s.mTruncation = config.truncation;
    if (config.detectPlanes) {
        // Without plane detection the plane fields of the configuration are not read at all.
        s.mPlaneDetector.configure(config.truncation, config.planeMaxStdError, config.planeMaxAngle,
                                   config.planeSolverIterations, config.planeContourAlpha);
    }
    s.mLabelPlanes = config.labelPlanes;
    {
        std::lock_guard<std::mutex> lock(mInitMutex);
        mInitialized = true;
    }
    return kSuccess;
}

const char* Impl::getVersion() const {
    AR_LOG_DEBUG("Impl::getVersion()");
    return mVersion.c_str();
}

}  // namespace Velmora

extern "C" VELMORA_API Velmora::IVelmora* newVelmora() {
    return new Velmora::Impl();
}
