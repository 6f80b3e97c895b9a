#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "velmora/BuiltinScene.h"

using namespace VelmoraTool;

namespace {

constexpr uint32_t kWidth = kDefaultWidth;
constexpr uint32_t kHeight = kDefaultHeight;
// Depth is stored in whole millimetres, so an exact distance may be off by rounding only.
constexpr int kRoundingMm = 1;

Frame render(const Matrix4d& pose, double noise = 0.0, uint32_t seed = 1) {
    std::mt19937 rng(seed);
    return renderView(pose, sceneIntrinsics(kWidth, kHeight), kWidth, kHeight, noise, rng);
}

size_t pixelIndex(uint32_t u, uint32_t v) {
    return size_t{v} * kWidth + u;
}

// The two shades of an object's pattern.
bool isShadeOf(SceneObject object, const uint8_t* rgb) {
    const std::array<uint8_t, 3> light = objectInfo(object).color;
    bool isLight = true, isDark = true;
    for (int c = 0; c < 3; ++c) {
        isLight = isLight && rgb[c] == light[c];
        isDark = isDark && rgb[c] == std::lround(light[c] * kCheckerShade);
    }
    return isLight || isDark;
}

SceneObject objectOfLabel(uint8_t label) {
    for (int i = 0; i < static_cast<int>(SceneObject::kCount); ++i) {
        if (objectInfo(static_cast<SceneObject>(i)).label == label) {
            return static_cast<SceneObject>(i);
        }
    }
    return SceneObject::kCount;
}

}  // namespace

// Depth is the z coordinate in the camera frame, not the length of the ray: a wall facing the
// camera has one depth everywhere, the distance to it.
TEST(BuiltinScene, DepthOfAWallFacingTheCameraIsItsDistance) {
    const Frame frame = render(lookAt({1.0, 1.5, 1.8}, {kRoomLength, 1.5, 1.8}));
    size_t wallPixels = 0;
    for (size_t i = 0; i < frame.depthMm.size(); ++i) {
        if (frame.labels8[i] == objectInfo(SceneObject::kWallEast).label) {
            ++wallPixels;
            ASSERT_NEAR(frame.depthMm[i], 3000, kRoundingMm) << "pixel " << i;
        }
    }
    EXPECT_GT(wallPixels, frame.depthMm.size() / 2);
    EXPECT_EQ(frame.labels8[pixelIndex(320, 240)], objectInfo(SceneObject::kWallEast).label);
}

TEST(BuiltinScene, DepthOfTheFloorSeenFromAboveIsTheCameraHeight) {
    // Straight down: x right, y towards -y of the world, z down.
    Matrix4d pose = identityMatrix();
    pose[0] = 1.0;
    pose[5] = -1.0;
    pose[10] = -1.0;
    // 1 m above a free stretch of floor between the table and the east wall.
    pose[3] = 3.3;
    pose[7] = 0.6;
    pose[11] = 1.0;
    const Frame frame = render(pose);
    for (size_t pixel : {pixelIndex(320, 240), pixelIndex(0, 0), pixelIndex(kWidth - 1, 0),
                         pixelIndex(0, kHeight - 1), pixelIndex(kWidth - 1, kHeight - 1)}) {
        EXPECT_EQ(frame.labels8[pixel], objectInfo(SceneObject::kFloor).label) << pixel;
        EXPECT_NEAR(frame.depthMm[pixel], 1000, kRoundingMm) << pixel;
    }
}

TEST(BuiltinScene, DepthLabelAndColourOfTheBall) {
    // The ball's centre on the optical axis, 1 m away: the nearest point is 1 m - radius.
    const Vec3 centre = ballCentre();
    const double distance = 1.0;
    const Frame frame = render(lookAt({centre[0] - distance, centre[1], centre[2]}, centre));
    const size_t pixel = pixelIndex(320, 240);
    EXPECT_EQ(frame.labels8[pixel], objectInfo(SceneObject::kBall).label);
    EXPECT_NEAR(frame.depthMm[pixel], (distance - ballRadius()) * 1000.0, kRoundingMm);
    EXPECT_TRUE(isShadeOf(SceneObject::kBall, &frame.rgb[pixel * 3]));
    // The silhouette: a ray just outside the ball's radius misses it.
    const double radiusPixels =
        525.0 * ballRadius() / std::sqrt(distance * distance - ballRadius() * ballRadius());
    const uint32_t outside = static_cast<uint32_t>(320 + radiusPixels + 2);
    const uint32_t inside = static_cast<uint32_t>(320 + radiusPixels - 2);
    EXPECT_NE(frame.labels8[pixelIndex(outside, 240)], objectInfo(SceneObject::kBall).label);
    EXPECT_EQ(frame.labels8[pixelIndex(inside, 240)], objectInfo(SceneObject::kBall).label);
}

// Over one loop of the camera path every object is seen, and every pixel carries the label and
// one of the two pattern shades of the same object.
TEST(BuiltinScene, LabelsAndColoursAgreePerObjectAlongThePath) {
    constexpr size_t kFrames = 12;
    std::set<uint8_t> seen;
    std::set<std::array<uint8_t, 3>> ballColours;
    for (size_t i = 0; i < kFrames; ++i) {
        const Frame frame = render(cameraPose(i, kFrames));
        for (size_t p = 0; p < frame.depthMm.size(); ++p) {
            const SceneObject object = objectOfLabel(frame.labels8[p]);
            ASSERT_NE(object, SceneObject::kCount) << "unknown label " << int(frame.labels8[p]);
            ASSERT_TRUE(isShadeOf(object, &frame.rgb[p * 3]))
                << objectInfo(object).name << " at pixel " << p << " of frame " << i;
            ASSERT_GT(frame.depthMm[p], 0);
            seen.insert(frame.labels8[p]);
            if (object == SceneObject::kBall) {
                ballColours.insert({frame.rgb[p * 3], frame.rgb[p * 3 + 1], frame.rgb[p * 3 + 2]});
            }
        }
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(SceneObject::kCount));
    EXPECT_EQ(ballColours.size(), 2u) << "both squares of the pattern";
}

TEST(BuiltinScene, CameraPathIsSmoothRigidAndInsideTheRoom) {
    constexpr size_t kFrames = 120;
    // At 120 frames a loop, the camera moves a few centimetres and turns a few degrees a frame.
    constexpr double kMaxStepMetres = 0.1;
    constexpr double kMaxStepRotation = 0.1;  // largest change of a rotation entry
    for (size_t i = 0; i < kFrames; ++i) {
        const Matrix4d pose = cameraPose(i, kFrames);
        const Matrix4d next = cameraPose((i + 1) % kFrames, kFrames);
        std::string problem;
        ASSERT_TRUE(checkRigid(pose, problem)) << problem;
        EXPECT_GT(pose[3], 0.0);
        EXPECT_LT(pose[3], kRoomLength);
        EXPECT_GT(pose[7], 0.0);
        EXPECT_LT(pose[7], kRoomWidth);
        EXPECT_GT(pose[11], 1.0);
        EXPECT_LT(pose[11], kRoomHeight);
        const double step = std::hypot(next[3] - pose[3], next[7] - pose[7], next[11] - pose[11]);
        EXPECT_LT(step, kMaxStepMetres) << "frame " << i;
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) {
                EXPECT_LT(std::fabs(next[r * 4 + c] - pose[r * 4 + c]), kMaxStepRotation);
            }
        }
    }
}

TEST(BuiltinScene, NoiseHasTheRequestedSpreadAndFollowsTheSeed) {
    const Matrix4d pose = lookAt({1.0, 1.5, 1.8}, {kRoomLength, 1.5, 1.8});
    constexpr double kNoiseAt1m = 2.0;
    const double expectedSigma = kNoiseAt1m * 3.0 * 3.0;  // the wall is 3 m away
    const Frame noisy = render(pose, kNoiseAt1m, 5);
    double sum = 0.0, sumSquares = 0.0;
    size_t count = 0;
    for (size_t i = 0; i < noisy.depthMm.size(); ++i) {
        if (noisy.labels8[i] == objectInfo(SceneObject::kWallEast).label) {
            const double error = noisy.depthMm[i] - 3000.0;
            sum += error;
            sumSquares += error * error;
            ++count;
        }
    }
    const double mean = sum / count;
    const double sigma = std::sqrt(sumSquares / count - mean * mean);
    EXPECT_NEAR(mean, 0.0, 0.5);
    EXPECT_NEAR(sigma, expectedSigma, 0.05 * expectedSigma);
    EXPECT_EQ(render(pose, kNoiseAt1m, 5).depthMm, noisy.depthMm);
    EXPECT_NE(render(pose, kNoiseAt1m, 6).depthMm, noisy.depthMm);

    // The frame source seeds each frame from (seed, index): any order renders the same frames.
    BuiltinSceneSource source(4, 16, 12, kNoiseAt1m, 9);
    Frame first, again;
    std::string problem;
    ASSERT_EQ(source.load(2, first, problem), FrameStatus::kOk);
    source.load(0, again, problem);
    source.load(2, again, problem);
    EXPECT_EQ(first.depthMm, again.depthMm);
}

// The truth the accuracy report measures against: distances to the nearest surface, the planes
// through the surfaces, and bounds that hold every hit on an object.
TEST(BuiltinScene, TruthAgreesWithTheRenderedSurfaces) {
    const struct {
        Vec3 point;
        double distance;
    } distances[] = {
        {{0.03, 1.5, 1.5}, 0.03},          // west wall
        {{3.9, 1.5, 1.5}, 0.1},            // east wall
        {{2.0, 1.5, 2.5}, 0.1},            // ceiling
        {{0.65, 0.6, 0.5}, 0.05},          // above the small box's top at 0.45
        {{0.65, 0.6, 0.3}, 0.15},          // inside the small box, nearest its top
        {{2.25, 1.35, 0.91 + 0.2}, 0.05},  // above the ball
        {{2.0 - 0.1, 1.1, 0.8}, 0.04},     // above the table top
        {{-0.02, 1.5, 1.5}, 0.02},         // behind the west wall
    };
    for (const auto& c : distances) {
        EXPECT_NEAR(surfaceDistance(c.point), c.distance, 1e-9)
            << c.point[0] << " " << c.point[1] << " " << c.point[2];
    }
    for (const TruePlane& plane : truePlanes()) {
        const Vec3& n = plane.normal;
        EXPECT_NEAR(
            n[0] * plane.centre[0] + n[1] * plane.centre[1] + n[2] * plane.centre[2] + plane.offset,
            0.0, 1e-12)
            << plane.name;
        EXPECT_NEAR(surfaceDistance(plane.centre), 0.0, 1e-9) << plane.name;
        // The normal points to free space: a step along it leaves the surface.
        const Vec3 off{plane.centre[0] + 0.01 * n[0], plane.centre[1] + 0.01 * n[1],
                       plane.centre[2] + 0.01 * n[2]};
        EXPECT_NEAR(surfaceDistance(off), 0.01, 1e-9) << plane.name;
    }
    // Every ray that hits an object ends inside its bounds.
    const std::vector<TrueObject> objects = trueObjects();
    for (size_t frame = 0; frame < 12; ++frame) {
        const Matrix4d pose = cameraPose(frame, 12);
        for (int step = 0; step < 400; ++step) {
            const Vec3 direction{pose[2] + 0.02 * (step % 20 - 10),
                                 pose[6] + 0.02 * (step / 20 - 10), pose[10]};
            const RayHit hit = castRay({pose[3], pose[7], pose[11]}, direction);
            for (const TrueObject& object : objects) {
                if (object.object != hit.object) {
                    continue;
                }
                for (int axis = 0; axis < 3; ++axis) {
                    EXPECT_GE(hit.point[axis], object.boundsMin[axis] - 1e-9);
                    EXPECT_LE(hit.point[axis], object.boundsMax[axis] + 1e-9);
                }
            }
        }
    }
}
