// The frame path of the scene: validation of what the host hands in, the choice of path by run
// mode and image kinds, fusion, border copying and the publishing of the changed blocks.
#include <cmath>
#include <cstring>

#include "common/Trace.h"
#include "cv/ImageOps.h"
#include "math/Pose.h"
#include "solid/fusion/BorderCopy.h"
#include "solid/fusion/GridIntegration.h"
#include "solid/fusion/LabelIntegration.h"
#include "solid/fusion/SensorErrorModel.h"
#include "solid/query/Raycast.h"
#include "velmora/ImageIntake.h"
#include "velmora/ImplState.h"

namespace Velmora {

namespace {

// Largest |x^2 + y^2 + z^2 + w^2 - 1| of a pose quaternion that counts as unit length.
constexpr double kMaxQuaternionNormError = 4e-7;
// Observation count at which a sample's running average stops gaining weight.
constexpr float kMaxWeight = 30.0f;
// Rendering of the volume for label and colour frames: the range of the march, metres, and its
// large step in sample spacings.
constexpr float kRaycastNearPlane = 0.05f;
constexpr float kRaycastFarPlane = 5.0f;
constexpr float kRaycastStepFactor = 1.0f;
// Split mode: a label pixel votes in the samples within this distance (metres) of the surface.
constexpr float kLabelDistance = 0.02f;
// Keyframes keep their depth in millimetres.
constexpr float kMetresToMillimetres = 1000.0f;
// Every depth pixel takes part in block selection; the optional filters are off.
constexpr int kPrepareStep = 1;
constexpr float kNoNumSamplesFilter = 0.0f;
constexpr float kNoBestSampleDistanceFilter = 0.0f;
constexpr size_t kRunOnce = 1;

// A pose describes a camera only when every value is finite and the orientation has unit length.
// The test comes before anything is changed; a NaN also fails the length test.
bool isValidPose(const XrPosefVLM& pose) {
    const XrQuaternionfVLM& q = pose.orientation;
    const XrVector3fVLM& t = pose.position;
    for (const float value : {q.x, q.y, q.z, q.w, t.x, t.y, t.z}) {
        if (!std::isfinite(value)) {
            return false;
        }
    }
    const float error = q.x * q.x + q.y * q.y + q.z * q.z + q.w * q.w - 1.0f;
    return static_cast<double>(std::fabs(error)) < kMaxQuaternionNormError;
}

// Sets the frame's camera: `pose` becomes world to camera (the inverse of the host's camera to
// world), `projection` the intrinsics narrowed to float.
template <typename Frame>
void setUpCamera(Frame& frame, const IntrinsicLinearCameraCalibrationVLM& intrinsics,
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

// The camera models of the keyframes need the principal point strictly inside the image.
bool principalPointInside(const IntrinsicLinearCameraCalibrationVLM& intrinsics,
                          const Image& image) {
    return intrinsics.principalPointX > 0.0 &&
           intrinsics.principalPointX < static_cast<double>(image.width) &&
           intrinsics.principalPointY > 0.0 &&
           intrinsics.principalPointY < static_cast<double>(image.height);
}

// Whether a colour frame can be kept. The first colour frame of the scene's life sets up both
// camera models, which cannot be made from a principal point outside the colour image (or, in
// combined mode, the depth image): such a frame is refused, since the set-up would have to abort.
// Every later colour frame is kept whatever its size; the models stay those of the first.
bool colourFrameAcceptable(Impl::State& s, const IntrinsicLinearCameraCalibrationVLM& intrinsics,
                           const Image& colour, const Image& depth) {
    {
        std::lock_guard<std::mutex> lock(s.mTexture.mutex);
        if (!s.mTexture.keyframes.empty()) {
            return true;
        }
    }
    return principalPointInside(intrinsics, colour) && principalPointInside(intrinsics, depth);
}

// A pinhole camera without distortion of `size` pixels with the intrinsics of `projection`; one
// retry, then a failure is an error of the validation before.
void initLinearCamera(AR::CV::Camera<float>& camera, const AR::CV::Size2i& size,
                      const Solid::Matrix4& projection) {
    using Camera = AR::CV::Camera<float>;
    const Camera::Vec2 imageSize(static_cast<float>(size(0)), static_cast<float>(size(1)));
    const Camera::Vec2 focal(projection(0, 0), projection(1, 1));
    const Camera::Vec2 centre(projection(0, 2), projection(1, 2));
    auto init = [&] {
        return camera.init(imageSize, focal, centre, Camera::RDVec::zeros(), Camera::Vec2::zeros(),
                           CamModel::DistortionModel::LINEAR);
    };
    const bool initialised = init() || init();
    AR_ASSERT(initialised);
}

void insertAll(Solid::IndexSet& target, const Solid::IndexSet& blocks, std::mutex& mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    for (const Solid::KeyType& key : blocks) {
        target.insert(key);
    }
}

// Keeps a colour frame, with its depth in millimetres, for texturing.
void keepKeyframe(Impl::State& s, Solid::RGBDFrame& frame, const void* hostPixels) {
    TextureExtraction& texture = s.mTexture;
    frame.depthU16.allocPixels(frame.depth.size(), AR::Common::ALIGNMENT_16);
    AR::CV::ImageOps::convertDepthImage(frame.depth, kMetresToMillimetres, frame.depthU16);
    std::lock_guard<std::mutex> lock(texture.mutex);
    if (texture.keyframes.empty()) {
        // The first colour frame of the scene's life fixes both camera models for good.
        initLinearCamera(texture.colorCalib, frame.rgb.size(), frame.projection);
        initLinearCamera(texture.depthCalib, frame.depth.size(), frame.projection);
    }
    AR_ASSERT(static_cast<const void*>(frame.rgb.pixels()) != hostPixels);
    texture.keyframes.push_back(frame);
}

bool sameBits(const Solid::Matrix4& a, const Solid::Matrix4& b) {
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c) {
            if (std::memcmp(&a(r, c), &b(r, c), sizeof(float)) != 0) {
                return false;
            }
        }
    }
    return true;
}

// Copies the pixels of `from` into `to`, which has its size; the row lengths may differ.
void copyDepthPixels(const AR::CV::Image<float>& from, AR::CV::Image<float>& to) {
    for (int y = 0; y < to.height(); ++y) {
        std::memcpy(to.pixels() + static_cast<size_t>(y) * to.bufSize()(0),
                    from.pixels() + static_cast<size_t>(y) * from.bufSize()(0),
                    static_cast<size_t>(to.width()) * sizeof(float));
    }
}

// Renders the split-mode depth grid into `frame.depth` (allocated to the wanted size) from the
// frame's camera, or copies the last rendering when it was made for the same camera and size and
// the grid has not changed since.
void renderSplitView(Impl::State& s, Solid::DepthFrame& frame, Solid::IntegrationStats& stats) {
    Solid::DepthFrame& last = s.mLastRender;
    if (s.mLastRenderValid && last.depth.size() == frame.depth.size() &&
        sameBits(last.projection, frame.projection) && sameBits(last.pose, frame.pose)) {
        copyDepthPixels(last.depth, frame.depth);
        return;
    }
    Solid::raycast(*s.mVolumeGrid, kRaycastNearPlane, kRaycastFarPlane, kRaycastStepFactor, frame,
                   stats);
    last.projection = frame.projection;
    last.pose = frame.pose;
    last.depth.allocPixels(frame.depth.size(), AR::Common::ALIGNMENT_16);
    copyDepthPixels(frame.depth, last.depth);
    s.mLastRenderValid = true;
}

void submitSplitLabelFrame(Impl::State& s, XrTimeVLM time,
                           const IntrinsicLinearCameraCalibrationVLM& intrinsics,
                           const XrPosefVLM& pose, const Image& image) {
    Solid::LabelFrame frame = makeLabelFrame(time, image);
    setUpCamera(frame, intrinsics, pose);
    AR_ASSERT(s.mVolumeGrid && s.mLabelVolumeGrid);
    // This frame takes over every block queued so far; the next depth frames queue anew.
    Solid::IndexSet blocks;
    {
        std::lock_guard<std::mutex> lock(s.mPendingLabelMutex);
        blocks.swap(s.mPendingLabelBlocks);
    }
    Solid::IntegrationStats stats;
    {
        AR::Common::ScopedTrace trace("Integration");
        Solid::DepthFrame rendered;
        rendered.depth.allocPixels(frame.labels.size(), AR::Common::ALIGNMENT_16);
        rendered.projection = frame.projection;
        rendered.pose = frame.pose;
        rendered.timestamp = frame.timestamp;
        renderSplitView(s, rendered, stats);
        Solid::integrateLabelsWithRenderedDepth(*s.mLabelVolumeGrid, *s.mVolumeGrid, blocks, frame,
                                                Solid::ConstantErrorModel(s.mTruncation), stats,
                                                kLabelDistance, rendered);
    }
    {
        AR::Common::ScopedTrace trace("copyBorders");
        Solid::copyBorders(*s.mLabelVolumeGrid, stats, blocks);
    }
    // Nothing is published: the blocks reached the consumers when their depth came in.
}

void submitColorFrame(Impl::State& s, XrTimeVLM time,
                      const IntrinsicLinearCameraCalibrationVLM& intrinsics, const XrPosefVLM& pose,
                      const Image& image) {
    const AR::CV::Size2i size(static_cast<int32_t>(image.width),
                              static_cast<int32_t>(image.height));
    Solid::RGBDFrame frame(size);
    frame.timestamp = time;
    frame.rgb.copyPixels(static_cast<const AR::CV::Pixel24*>(image.pixelData), size, size,
                         AR::Common::ALIGNMENT_16);
    setUpCamera(frame, intrinsics, pose);
    // The depth the volume shows from this pose stands in for a depth image.
    Solid::IntegrationStats stats;
    if (s.mMode == kModeCombined) {
        Solid::raycast(*s.mLabelDepthVolumeGrid, kRaycastNearPlane, kRaycastFarPlane,
                       kRaycastStepFactor, frame, stats);
    } else {
        renderSplitView(s, frame, stats);
    }
    keepKeyframe(s, frame, image.pixelData);
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
    if (!isValidPose(pose)) {
        return kErrorPoseInvalid;
    }
    for (uint32_t i = 0; i < images.size; ++i) {
        if (!checkImage(images.data[i])) {
            return kErrorImageInvalid;
        }
    }
    // Rows shorter than the width, and classes beyond those a sample counts, would end the
    // process further on (an image view's bounds, a vote's histogram): the host gets the image
    // code instead. A class of 32 or more also comes from a 16-bit label image with an odd
    // stride, whose rows are read a byte short.
    for (uint32_t i = 0; i < images.size; ++i) {
        if (!rowsAreReadable(images.data[i]) || !labelsAreCounted(images.data[i])) {
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
        // Labels are read at the depth pixels' own coordinates, so a label image of another
        // size cannot be aligned with its depth image.
        if (images.data[labelIdx].width != images.data[depthIdx].width ||
            images.data[labelIdx].height != images.data[depthIdx].height) {
            return kErrorImageInvalid;
        }
        if (colorIdx >= 0 &&
            !colourFrameAcceptable(s, intrinsics, images.data[colorIdx], images.data[depthIdx])) {
            return kErrorIntrinsicsInvalid;
        }
        Solid::LabelDepthFrame frame =
            makeLabelDepthFrame(time, images.data[depthIdx], images.data[labelIdx]);
        AR_ASSERT(frame.depthU16.numPixels() == 0);
        setUpCamera(frame, intrinsics, pose);
        const Solid::IndexSet updated =
            fuse(*s.mLabelDepthVolumeGrid, frame, s.mTruncation, Solid::kAccelerationReference);
        if (colorIdx >= 0) {
            Solid::RGBDFrame keyframe =
                makeDepthColorFrame(time, images.data[depthIdx], images.data[colorIdx]);
            setUpCamera(keyframe, intrinsics, pose);
            keepKeyframe(s, keyframe, images.data[colorIdx].pixelData);
        }
        s.publish(updated);
        return kSuccess;
    }

    const Image& image = images.data[0];
    const bool isDepth = image.format == kImageDepthU16 || image.format == kImageDepthU16Flagged;
    const bool isLabel = image.format == kImageLabelU8 || image.format == kImageLabelU16;
    const bool isColor = image.format == kImageColorRGB8;
    if (isColor && (s.mMode == kModeSplit || s.mMode == kModeCombined)) {
        if (!colourFrameAcceptable(s, intrinsics, image, image)) {
            return kErrorIntrinsicsInvalid;
        }
        submitColorFrame(s, time, intrinsics, pose, image);
        return kSuccess;
    }
    if (s.mMode != kModeSplit) {
        // Combined mode takes depth and labels together. Other modes have no grid to render a
        // lone colour image from, so it is refused there too.
        return kErrorImageCombination;
    }
    if (isDepth) {
        Solid::DepthFrame frame = makeDepthFrame(time, image);
        AR_ASSERT(frame.depthU16.numPixels() == 0);
        setUpCamera(frame, intrinsics, pose);
        s.mLastRenderValid = false;
        const Solid::IndexSet updated =
            fuse(*s.mVolumeGrid, frame, s.mTruncation, Solid::kAccelerationTavric);
        if (s.mLabelVolumeGrid) {
            insertAll(s.mPendingLabelBlocks, updated, s.mPendingLabelMutex);
        }
        s.publish(updated);
    } else if (isLabel) {
        submitSplitLabelFrame(s, time, intrinsics, pose, image);
    }
    // An image of an unknown format alone changes nothing.
    return kSuccess;
}

}  // namespace Velmora
