// The scene's front door: factory, version text, init and its validation, and the answers of
// every operation before and after init.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "common/Logger.h"
#include "velmora/Impl.h"
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

// cellSize is checked before truncation; a truncation of exactly five cells is the least one;
// a failed init leaves the object in the constructed state; the run mode is not checked.
TEST(SceneLifecycle, InitChecksConfigInOrderAndChangesNothingOnFailure) {
    const float fiveCells = 0.02f * 5.0f;
    const struct {
        float cellSize;
        float truncation;
        XrResultVLM result;
    } cases[] = {
        {0.0f, 0.0f, kErrorCellSizeInvalid},
        {-0.01f, 1.0f, kErrorCellSizeInvalid},
        {NAN, 1.0f, kErrorCellSizeInvalid},
        {0.02f, 0.05f, kErrorTruncationTooSmall},
        {0.02f, std::nextafter(fiveCells, 0.0f), kErrorTruncationTooSmall},
    };
    for (int32_t mode : {0, 1, 7}) {
        auto scene = makeScene();
        for (const auto& c : cases) {
            EXPECT_EQ(scene->init(makeConfig(c.cellSize, c.truncation, mode)), c.result)
                << c.cellSize << " " << c.truncation;
        }
        span<ObjectInstance> instances{};
        span<SubsumedLink> links{};
        EXPECT_EQ(scene->getObjectInstances(instances, links), kErrorNotInitialized);
        EXPECT_EQ(scene->init(makeConfig(0.02f, fiveCells, mode)), kSuccess);
        EXPECT_EQ(scene->init(makeConfig(0.02f, 0.1f, mode)), kErrorAlreadyInitialized);
        EXPECT_EQ(scene->init(makeConfig(0.0f, 0.0f, mode)), kErrorAlreadyInitialized);
    }
    // A mode without grids: saving writes nothing and still reports success.
    auto unknownMode = makeScene();
    ASSERT_EQ(unknownMode->init(makeConfig(0.02f, 0.1f, 7)), kSuccess);
    EXPECT_EQ(static_cast<Impl*>(unknownMode.get())->saveVolumes("/nonexistent-dir/never"), 1);
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
}

class LogLines : public AR::Common::LogTarget {
public:
    void write(int, const char* text, size_t length) override { lines.emplace_back(text, length); }
    std::vector<std::string> lines;
};

TEST(SceneLifecycle, GetVersionLogsOnceAtTheDefaultLevelAndNotBelowIt) {
    AR::Common::Logger& logger = AR::Common::Logger::getInstance();
    LogLines log;
    logger.addTarget(&log);
    auto scene = makeScene();
    scene->getVersion();
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0], "AR DEBUG: Impl::getVersion()\n");
    logger.setLevel(AR::Common::Logger::LEVEL_WARNING);
    scene->getVersion();
    EXPECT_EQ(log.lines.size(), 1u);
    logger.setLevel(AR::Common::Logger::kDefaultLevel);
    logger.removeTarget(&log);
}

}  // namespace
}  // namespace Velmora
