// The scene's front door: factory, version text, init and its validation, and the answers of
// every operation before and after init.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

#include "velmora/Impl.h"
#include "velmora/ImplState.h"
#include "velmora/Velmora.h"

namespace Velmora {
namespace {

Config makeConfig(float cellSize, float truncation, int32_t mode) {
    Config config{};
    config.cellSize = cellSize;
    config.truncation = truncation;
    config.mode = mode;
    return config;
}

std::unique_ptr<IVelmora> makeScene() {
    return std::unique_ptr<IVelmora>(newVelmora());
}

TEST(SceneLifecycle, VersionTextIsExactAndNeedsNoInit) {
    auto scene = makeScene();
    const char* version = scene->getVersion();
    EXPECT_STREQ(version, "2.0.3a KELP-velmora-build-3177 Dec 21 2021 12:50:05");
    // The pointer stays valid and stable for the life of the object.
    ASSERT_EQ(scene->init(makeConfig(0.02f, 0.1f, 1)), kSuccess);
    EXPECT_EQ(scene->getVersion(), version);
}

TEST(SceneLifecycle, InitChecksConfigInOrderAndChangesNothingOnFailure) {
    auto scene = makeScene();
    // cellSize is tested first, even when truncation is bad too.
    EXPECT_EQ(scene->init(makeConfig(0.0f, 0.0f, 1)), kErrorCellSizeInvalid);
    EXPECT_EQ(scene->init(makeConfig(-0.01f, 1.0f, 1)), kErrorCellSizeInvalid);
    EXPECT_EQ(scene->init(makeConfig(NAN, 1.0f, 1)), kErrorCellSizeInvalid);
    EXPECT_EQ(scene->init(makeConfig(0.02f, 0.05f, 1)), kErrorTruncationTooSmall);
    // A failed init leaves the object in the constructed state.
    span<ObjectInstance> instances{};
    span<SubsumedLink> links{};
    EXPECT_EQ(scene->getObjectInstances(instances, links), kErrorNotInitialized);
    EXPECT_EQ(scene->init(makeConfig(0.02f, 0.1f, 1)), kSuccess);
}

TEST(SceneLifecycle, TruncationOfExactlyFiveCellsIsTheBoundary) {
    const float cell = 0.02f;
    const float fiveCells = cell * 5.0f;
    EXPECT_EQ(Impl::checkConfig(makeConfig(cell, fiveCells, 0)), kSuccess);
    EXPECT_EQ(Impl::checkConfig(makeConfig(cell, std::nextafter(fiveCells, 0.0f), 0)),
              kErrorTruncationTooSmall);
    auto scene = makeScene();
    EXPECT_EQ(scene->init(makeConfig(cell, std::nextafter(fiveCells, 0.0f), 0)),
              kErrorTruncationTooSmall);
    EXPECT_EQ(scene->init(makeConfig(cell, fiveCells, 0)), kSuccess);
}

TEST(SceneLifecycle, SecondInitIsRefusedWhateverTheConfig) {
    auto scene = makeScene();
    ASSERT_EQ(scene->init(makeConfig(0.02f, 0.1f, 0)), kSuccess);
    EXPECT_EQ(scene->init(makeConfig(0.02f, 0.1f, 0)), kErrorAlreadyInitialized);
    EXPECT_EQ(scene->init(makeConfig(0.0f, 0.0f, 0)), kErrorAlreadyInitialized);
}

TEST(SceneLifecycle, UnknownModeInitialises) {
    auto scene = makeScene();
    EXPECT_EQ(scene->init(makeConfig(0.02f, 0.1f, 7)), kSuccess);
    auto* impl = static_cast<Impl*>(scene.get());
    // No grid exists: saving writes nothing and still reports success.
    EXPECT_EQ(impl->saveVolumes("/nonexistent-dir/never-written"), 1);
}

TEST(SceneLifecycle, EveryIntrinsicsFieldMustBeFiniteAndAboveZero) {
    const IntrinsicLinearCameraCalibrationVLM good{319.5, 239.5, 525.0, 525.0};
    EXPECT_EQ(Impl::checkIntrinsics(good), kSuccess);
    // Odd but representable values are a camera; the frame path works in float, so values
    // beyond the float range count as not finite, and values that vanish in it as zero.
    EXPECT_EQ(Impl::checkIntrinsics({319.5, 239.5, 1e-3, 3e38}), kSuccess);
    double IntrinsicLinearCameraCalibrationVLM::*const fields[] = {
        &IntrinsicLinearCameraCalibrationVLM::principalPointX,
        &IntrinsicLinearCameraCalibrationVLM::principalPointY,
        &IntrinsicLinearCameraCalibrationVLM::focalLengthX,
        &IntrinsicLinearCameraCalibrationVLM::focalLengthY};
    const double inf = std::numeric_limits<double>::infinity();
    for (auto field : fields) {
        for (double bad : {0.0, -0.0, -1.0, 1e-300, 1e300, std::nan(""), inf, -inf}) {
            IntrinsicLinearCameraCalibrationVLM c = good;
            c.*field = bad;
            EXPECT_EQ(Impl::checkIntrinsics(c), kErrorIntrinsicsInvalid)
                << "field " << (&(c.*field) - &c.principalPointX) << " value " << bad;
        }
    }
}

TEST(SceneLifecycle, OperationsBeforeInit) {
    auto scene = makeScene();
    const IntrinsicLinearCameraCalibrationVLM intrinsics{319.5, 239.5, 525.0, 525.0};
    const XrPosefVLM pose{{0, 0, 0, 1}, {0, 0, 0}};
    EXPECT_EQ(scene->submitImages(0, intrinsics, pose, span<const Image>{}), kErrorNotInitialized);

    PolygonMesh mesh{};
    EXPECT_EQ(scene->extractSurface(mesh, false, UuidBytes{}, TextureQuality{}),
              kErrorNotInitialized);
    EXPECT_EQ(
        scene->extractSurface(span<const PolygonMeshBufferDescriptor>{}, span<PolygonMeshBuffer>{},
                              false, UuidBytes{}, TextureQuality{}),
        kErrorNotInitialized);
    span<ObjectInstance> instances{};
    span<SubsumedLink> links{};
    EXPECT_EQ(scene->getObjectInstances(instances, links), kErrorNotInitialized);
    span<Planef> planes{};
    EXPECT_EQ(scene->getPlanes(planes, links), kErrorNotInitialized);
    PlacementInfo info{};
    EXPECT_EQ(scene->getPlacementInfo({0, 0, 0}, {0, 0, 1}, {1, 0, 0}, info, 5.0f),
              kErrorNotInitialized);

    // The collision queries never crash a host: unknown, distance -1, point at the origin.
    for (const IntersectionResult& r : {scene->intersectPoint({0, 0, 0}, 1.0f),
                                        scene->intersectAxisAlignedBox({0, 0, 0}, {1, 1, 1}, 1.0f),
                                        scene->intersectSphere({0, 0, 0}, 0.5f, 1.0f)}) {
        EXPECT_EQ(r.collision, 2);
        EXPECT_EQ(r.distance, -1.0f);
        EXPECT_EQ(r.point.x, 0.0f);
        EXPECT_EQ(r.point.y, 0.0f);
        EXPECT_EQ(r.point.z, 0.0f);
    }
    auto* impl = static_cast<Impl*>(scene.get());
    EXPECT_EQ(impl->saveVolumes("never-written"), 0);
    EXPECT_EQ(impl->loadVolumes("never-read"), 0);
}

TEST(SceneLifecycle, PlanesDisabledAndZeroPlacementDirection) {
    auto scene = makeScene();
    ASSERT_EQ(scene->init(makeConfig(0.02f, 0.1f, 1)), kSuccess);
    span<Planef> planes{};
    span<SubsumedLink> links{};
    EXPECT_EQ(scene->getPlanes(planes, links), kErrorPlanesDisabled);
    PlacementInfo info{};
    EXPECT_EQ(scene->getPlacementInfo({0, 0, 0}, {0, 0, 0}, {1, 0, 0}, info, 5.0f),
              kErrorDirectionZero);

    auto withPlanes = makeScene();
    Config config = makeConfig(0.02f, 0.1f, 1);
    config.detectPlanes = true;
    ASSERT_EQ(withPlanes->init(config), kSuccess);
    EXPECT_EQ(withPlanes->getPlanes(planes, links), kSuccess);
    EXPECT_TRUE(internalState(*static_cast<Impl*>(withPlanes.get())).mPlaneDetector.isEnabled());
    EXPECT_FALSE(internalState(*static_cast<Impl*>(scene.get())).mPlaneDetector.isEnabled());
}

}  // namespace
}  // namespace Velmora
