// The scene's front door: version text, init and its validation, and the answers of every
// operation before init and without the features they need.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "HostScenes.h"

namespace Velmora {
namespace {

using Test::CapturedLog;
using Test::planeConfig;
using Test::sceneConfig;

// cellSize is checked before truncation; five cells is the least truncation; a failed init
// leaves the object as constructed; the run mode is not checked.
TEST(SceneLifecycle, InitChecksConfigInOrderAndChangesNothingOnFailure) {
    const float fiveCells = 0.02f * 5.0f;
    const struct {
        float cellSize, truncation;
        XrResultVLM result;
    } cases[] = {{0.0f, 0.0f, kErrorCellSizeInvalid},
                 {-0.01f, 1.0f, kErrorCellSizeInvalid},
                 {NAN, 1.0f, kErrorCellSizeInvalid},
                 {0.02f, 0.05f, kErrorTruncationTooSmall},
                 {0.02f, std::nextafter(fiveCells, 0.0f), kErrorTruncationTooSmall}};
    for (int32_t mode : {0, 1, 7}) {
        std::unique_ptr<IVelmora> scene(newVelmora());
        for (const auto& c : cases)
            EXPECT_EQ(scene->init(sceneConfig(mode, c.cellSize, c.truncation)), c.result)
                << c.cellSize << " " << c.truncation;
        span<ObjectInstance> instances{};
        span<SubsumedLink> links{};
        EXPECT_EQ(scene->getObjectInstances(instances, links), kErrorNotInitialized);
        EXPECT_EQ(scene->init(sceneConfig(mode, 0.02f, fiveCells)), kSuccess);
        EXPECT_EQ(scene->init(sceneConfig(mode, 0.0f, 0.0f)), kErrorAlreadyInitialized);
    }
    // A mode without grids: saving writes nothing and still reports success, placement finds
    // nothing and collisions answer unknown space.
    Impl unknownMode;
    ASSERT_EQ(unknownMode.init(sceneConfig(7, 0.02f, 0.1f)), kSuccess);
    EXPECT_EQ(unknownMode.saveVolumes("/nonexistent-dir/never"), 1);
    PlacementInfo info{};
    info.result = info.label = 1;
    ASSERT_EQ(unknownMode.getPlacementInfo({1, 1, 1}, {1, 0, 0}, {0, 1, 0}, info, 3.0f), kSuccess);
    EXPECT_EQ(info.result + info.label, 0);
    EXPECT_EQ(info.poseLocalToWorld.orientation.w, 1.0f);
    EXPECT_EQ(unknownMode.intersectPoint({1, 1, 1}, 1.0f).collision, 2);
}

// Odd but representable values are a camera; the frame path works in float, so values beyond
// the float range count as not finite, and values that vanish in it as zero.
TEST(SceneLifecycle, EveryIntrinsicsFieldMustBeFiniteAndAboveZero) {
    const IntrinsicLinearCameraCalibrationVLM good{319.5, 239.5, 525.0, 525.0};
    EXPECT_EQ(Impl::checkIntrinsics(good), kSuccess);
    EXPECT_EQ(Impl::checkIntrinsics({319.5, 239.5, 1e-3, 3e38}), kSuccess);
    const double inf = std::numeric_limits<double>::infinity();
    for (int field = 0; field < 4; ++field) {
        for (double bad : {0.0, -0.0, -1.0, 1e-300, 1e300, std::nan(""), inf, -inf}) {
            IntrinsicLinearCameraCalibrationVLM c = good;
            double* fields[] = {&c.principalPointX, &c.principalPointY, &c.focalLengthX,
                                &c.focalLengthY};
            *fields[field] = bad;
            EXPECT_EQ(Impl::checkIntrinsics(c), kErrorIntrinsicsInvalid) << field << " " << bad;
        }
    }
}

// The version text is fixed and needs no init; the pointer stays valid for the life of the
// object; the call logs once at the default level and not below it. Before init every other call
// says so, the collision queries answer unknown space, and saving and loading fail; after init,
// planes need their detection and placement a direction.
TEST(SceneLifecycle, VersionAndOperationsBeforeInitAndWithoutTheirFeature) {
    Impl scene;
    const char* version = nullptr;
    {
        CapturedLog log;
        version = scene.getVersion();
        EXPECT_STREQ(version, "2.0.3a KELP-velmora-build-3177 Dec 21 2021 12:50:05");
        AR::Common::Logger::getInstance().setLevel(AR::Common::Logger::LEVEL_WARNING);
        scene.getVersion();
        AR::Common::Logger::getInstance().setLevel(AR::Common::Logger::kDefaultLevel);
        EXPECT_EQ(log.lines, std::vector<std::string>{"AR DEBUG: Impl::getVersion()\n"});
    }
    const XrPosefVLM pose{{0, 0, 0, 1}, {0, 0, 0}};
    PolygonMesh mesh{};
    span<ObjectInstance> instances{};
    span<SubsumedLink> links{};
    span<Planef> planes{};
    PlacementInfo info{};
    const auto place = [&](XrVector3fVLM direction) {
        return scene.getPlacementInfo({0, 0, 0}, direction, {1, 0, 0}, info, 5.0f);
    };
    for (const XrResultVLM result :
         {scene.submitImages(0, {319.5, 239.5, 525.0, 525.0}, pose, span<const Image>{}),
          scene.extractSurface(mesh, false, UuidBytes{}, TextureQuality{}),
          scene.extractSurface({}, span<PolygonMeshBuffer>{}, false, UuidBytes{}, TextureQuality{}),
          scene.getObjectInstances(instances, links), scene.getPlanes(planes, links),
          place({0, 0, 1})}) {
        EXPECT_EQ(result, kErrorNotInitialized);
    }
    for (const IntersectionResult& r : {scene.intersectPoint({0, 0, 0}, 1.0f),
                                        scene.intersectAxisAlignedBox({0, 0, 0}, {1, 1, 1}, 1.0f),
                                        scene.intersectSphere({0, 0, 0}, 0.5f, 1.0f)}) {
        EXPECT_EQ(r.collision, 2);
        EXPECT_EQ(r.distance, -1.0f);
        EXPECT_EQ(r.point.x * r.point.x + r.point.y * r.point.y + r.point.z * r.point.z, 0.0f);
    }
    EXPECT_EQ(scene.saveVolumes("never-written"), 0);
    EXPECT_EQ(scene.loadVolumes("never-read"), 0);

    ASSERT_EQ(scene.init(sceneConfig(1, 0.02f, 0.1f)), kSuccess);
    EXPECT_EQ(scene.getVersion(), version);
    EXPECT_EQ(scene.getPlanes(planes, links), kErrorPlanesDisabled);
    EXPECT_EQ(place({0, 0, 0}), kErrorDirectionZero);
    Impl withPlanes;
    ASSERT_EQ(withPlanes.init(planeConfig(1, 0.02f)), kSuccess);
    EXPECT_EQ(withPlanes.getPlanes(planes, links), kSuccess);
}

}  // namespace
}  // namespace Velmora
