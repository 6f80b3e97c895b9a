// The frame path of the scene: validation of what the host hands in, the choice of path by run
// mode and image kinds, fusion, border copying and the publishing of the changed blocks.
#include <cmath>

#include "common/Trace.h"
#include "math/Pose.h"
#include "solid/BorderCopy.h"
#include "solid/GridIntegration.h"
#include "solid/SensorErrorModel.h"
#include "velmora/ImageIntake.h"
#include "velmora/ImplState.h"

namespace Velmora {

namespace {

// Largest |x^2 + y^2 + z^2 + w^2 - 1| of a pose quaternion that counts as unit length.
constexpr double kMaxQuaternionNormError = 4e-7;
// Observation count at which a sample's running average stops gaining weight.
constexpr float kMaxWeight = 30.0f;
// Every depth pixel takes part in block selection; the optional filters are off.
constexpr int kPrepareStep = 1;
constexpr float kNoNumSamplesFilter = 0.0f;
constexpr float kNoBestSampleDistanceFilter = 0.0f;
constexpr size_t kRunOnce = 1;

bool isUnitQuaternion(const XrQuaternionfVLM& q) {
    const float error = q.x * q.x + q.y * q.y + q.z * q.z + q.w * q.w - 1.0f;
    // A NaN fails this test.
    return static_cast<double>(std::fabs(error)) < kMaxQuaternionNormError;
}

// Sets the frame's camera: `pose` becomes world to camera (the inverse of the host's camera to
// world), `projection` the intrinsics narrowed to float.
void setUpCamera(Solid::DepthFrame& frame, const IntrinsicLinearCameraCalibrationVLM& intrinsics,
                 const XrPosefVLM& hostPose) {
    const AR::Math::SE3<float> cameraToWorld = AR::Math::toMath<float>(hostPose);
    const auto& R = cameraToWorld.rotation();
    const auto& t = cameraToWorld.translation();
    Solid::Matrix4& pose = frame.pose;
    pose = Solid::Matrix4::identity();
    for (int k = 0; k < 3; ++k) {
        for (int j = 0; j < 3; ++j) {
            pose(k, j) = R(j, k);
        }
        pose(k, 3) = -(0.0f + t(0) * R(0, k) + t(1) * R(1, k) + t(2) * R(2, k));
    }
    Solid::Matrix4& projection = frame.projection;
    projection = Solid::Matrix4::zeros();
    projection(0, 0) = static_cast<float>(intrinsics.focalLengthX);
    projection(1, 1) = static_cast<float>(intrinsics.focalLengthY);
    projection(0, 2) = static_cast<float>(intrinsics.principalPointX);
    projection(1, 2) = static_cast<float>(intrinsics.principalPointY);
    projection(2, 2) = 1.0f;
    projection(3, 3) = 1.0f;
}

template <typename Grid, typename Frame>
Solid::IndexSet fuse(Grid& grid, const Frame& frame, float truncation,
                     Solid::Acceleration acceleration) {
    const Solid::ConstantErrorModel errorModel(truncation);
    Solid::IntegrationStats stats;
    Solid::IndexSet updated;
    {
        AR::Common::ScopedTrace trace("Integration");
        updated = Solid::integrate(grid, frame, errorModel, kMaxWeight, stats, acceleration,
                                   kPrepareStep, kNoNumSamplesFilter, kNoBestSampleDistanceFilter,
                                   nullptr, kRunOnce, kRunOnce, kRunOnce,
                                   static_cast<Solid::SaturationManager<float, Grid>*>(nullptr));
    }
    {
        AR::Common::ScopedTrace trace("copyBorders");
        stats = Solid::IntegrationStats{};
        Solid::copyBorders(grid, stats, updated);
    }
    return updated;
}

void insertAll(Solid::IndexSet& target, const Solid::IndexSet& blocks, std::mutex& mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    for (const Solid::KeyType& key : blocks) {
        target.insert(key);
    }
}

}  // namespace

void Impl::State::publish(const Solid::IndexSet& blocks) {
    insertAll(mSurfaces.updatedBlocks, blocks, mSurfaces.updatedBlocksMutex);
    insertAll(mPlaneUpdatedBlocks, blocks, mPlaneUpdatedMutex);
    insertAll(mInstanceUpdatedBlocks, blocks, mInstanceUpdatedMutex);
}

XrResultVLM Impl::submitImages(XrTimeVLM time,
                               const IntrinsicLinearCameraCalibrationVLM& intrinsics,
                               const XrPosefVLM& pose, span<const Image> images) {
    AR::Common::ScopedTrace trace("submitImages");
    if (!isInitialized()) {
        return kErrorNotInitialized;
    }
    if (checkIntrinsics(intrinsics) != kSuccess) {
        return kErrorIntrinsicsInvalid;
    }
    if (images.size < 1 || images.size > 3 || images.data == nullptr) {
        return kErrorInvalidArgument;
    }
    if (!isUnitQuaternion(pose.orientation)) {
        return kErrorPoseInvalid;
    }
    for (uint32_t i = 0; i < images.size; ++i) {
        if (!checkImage(images.data[i])) {
            return kErrorImageInvalid;
        }
    }
    State& s = *mState;

    if (images.size > 1) {
        if (s.mMode != kModeCombined) {
            return kErrorImageCombination;
        }
        int depthIdx = -1, labelIdx = -1, colorIdx = -1;
        if (!indexOfDepthLabelColorImages(images, depthIdx, labelIdx, colorIdx)) {
            return kErrorInvalidArgument;
        }
        Solid::LabelDepthFrame frame =
            makeLabelDepthFrame(time, images.data[depthIdx], images.data[labelIdx]);
        AR_ASSERT(frame.depthU16.numPixels() == 0);
        setUpCamera(frame, intrinsics, pose);
        const Solid::IndexSet updated =
            fuse(*s.mLabelDepthVolumeGrid, frame, s.mTruncation, Solid::kAccelerationReference);
        // TODO(#9): with a colour image, keep the frame as a keyframe.
        s.publish(updated);
        return kSuccess;
    }

    const Image& image = images.data[0];
    const bool isDepth = image.format == kImageDepthU16 || image.format == kImageDepthU16Flagged;
    const bool isLabel = image.format == kImageLabelU8 || image.format == kImageLabelU16;
    const bool isColor = image.format == kImageColorRGB8;
    if (s.mMode == kModeSplit) {
        if (isDepth) {
            Solid::DepthFrame frame = makeDepthFrame(time, image);
            AR_ASSERT(frame.depthU16.numPixels() == 0);
            setUpCamera(frame, intrinsics, pose);
            const Solid::IndexSet updated =
                fuse(*s.mVolumeGrid, frame, s.mTruncation, Solid::kAccelerationTavric);
            if (s.mLabelVolumeGrid) {
                insertAll(s.mPendingLabelBlocks, updated, s.mPendingLabelMutex);
            }
            s.publish(updated);
            return kSuccess;
        }
        // TODO(#9): a label image fuses labels into the queued blocks, a colour image renders
        // depth from the volume and keeps a keyframe. Unknown formats change nothing.
        (void)isLabel;
        (void)isColor;
        return kSuccess;
    }
    if (s.mMode == kModeCombined && isColor) {
        // TODO(#9): render depth from the volume and keep a keyframe.
        return kSuccess;
    }
    // Combined mode takes depth and labels together; other modes have no grid to work on, so a
    // lone colour image is refused there too rather than rendered from a volume that is absent.
    return kErrorImageCombination;
}

}  // namespace Velmora
