// The tool's built-in scene: rendered depth, labels and colours against the geometry, the camera
// path, the noise, and the truth the accuracy report measures against.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "velmora/BuiltinScene.h"

using namespace VelmoraTool;

namespace {

constexpr uint32_t kWidth = kDefaultWidth;
constexpr uint32_t kHeight = kDefaultHeight;

Frame render(const Matrix4d& pose, double noise = 0.0, uint32_t seed = 1) {
    std::mt19937 rng(seed);
    return renderView(pose, sceneIntrinsics(kWidth, kHeight), kWidth, kHeight, noise, rng);
}

size_t pixel(uint32_t u, uint32_t v) {
    return size_t{v} * kWidth + u;
}

uint8_t labelOf(SceneObject object) {
    return objectInfo(object).label;
}

// One of the two shades of an object's pattern.
bool isShadeOf(SceneObject object, const uint8_t* rgb) {
    const std::array<uint8_t, 3> light = objectInfo(object).color;
    bool isLight = true, isDark = true;
    for (int c = 0; c < 3; ++c) {
        isLight = isLight && rgb[c] == light[c];
        isDark = isDark && rgb[c] == std::lround(light[c] * kCheckerShade);
    }
    return isLight || isDark;
}

}  // namespace

// Depth is the z coordinate in the camera frame, in whole millimetres: a wall facing the camera
// has one depth, its distance; the floor seen straight down the camera's height; the ball's
// nearest point its distance less the radius, with its silhouette where the radius says.
TEST(BuiltinScene, DepthLabelAndColourOfWallFloorAndBall) {
    const Frame wall = render(lookAt({1.0, 1.5, 1.8}, {kRoomLength, 1.5, 1.8}));
    size_t wallPixels = 0;
    for (size_t i = 0; i < wall.depthMm.size(); ++i) {
        if (wall.labels8[i] == labelOf(SceneObject::kWallEast)) {
            ++wallPixels;
            ASSERT_NEAR(wall.depthMm[i], 3000, 1) << "pixel " << i;
        }
    }
    EXPECT_GT(wallPixels, wall.depthMm.size() / 2);
    EXPECT_EQ(wall.labels8[pixel(320, 240)], labelOf(SceneObject::kWallEast));

    // Straight down from 1 m above a free stretch of floor: x right, y towards -y, z down.
    Matrix4d down = identityMatrix();
    down[5] = down[10] = -1.0;
    down[3] = 3.3;
    down[7] = 0.6;
    down[11] = 1.0;
    const Frame floor = render(down);
    for (size_t p : {pixel(320, 240), pixel(0, 0), pixel(kWidth - 1, kHeight - 1)}) {
        EXPECT_EQ(floor.labels8[p], labelOf(SceneObject::kFloor)) << p;
        EXPECT_NEAR(floor.depthMm[p], 1000, 1) << p;
    }

    const Vec3 centre = ballCentre();
    const Frame ball = render(lookAt({centre[0] - 1.0, centre[1], centre[2]}, centre));
    EXPECT_EQ(ball.labels8[pixel(320, 240)], labelOf(SceneObject::kBall));
    EXPECT_NEAR(ball.depthMm[pixel(320, 240)], (1.0 - ballRadius()) * 1000.0, 1);
    EXPECT_TRUE(isShadeOf(SceneObject::kBall, &ball.rgb[pixel(320, 240) * 3]));
    const double radiusPixels = 525.0 * ballRadius() / std::sqrt(1.0 - ballRadius() * ballRadius());
    EXPECT_NE(ball.labels8[pixel(static_cast<uint32_t>(320 + radiusPixels + 2), 240)],
              labelOf(SceneObject::kBall));
    EXPECT_EQ(ball.labels8[pixel(static_cast<uint32_t>(320 + radiusPixels - 2), 240)],
              labelOf(SceneObject::kBall));
}

// Over one loop of the path, rigid and smooth inside the room, every object is seen, and every
// pixel carries the label and one of the two shades of the same object.
TEST(BuiltinScene, PathSeesEveryObjectWithItsLabelAndColours) {
    constexpr size_t kFrames = 12;
    std::set<uint8_t> seen;
    std::set<std::array<uint8_t, 3>> ballColours;
    for (size_t i = 0; i < kFrames; ++i) {
        const Frame frame = render(cameraPose(i, kFrames));
        for (size_t p = 0; p < frame.depthMm.size(); ++p) {
            int object = 0;
            while (object < static_cast<int>(SceneObject::kCount) &&
                   labelOf(static_cast<SceneObject>(object)) != frame.labels8[p]) {
                ++object;
            }
            ASSERT_LT(object, static_cast<int>(SceneObject::kCount)) << int(frame.labels8[p]);
            ASSERT_TRUE(isShadeOf(static_cast<SceneObject>(object), &frame.rgb[p * 3]))
                << "pixel " << p << " of frame " << i;
            ASSERT_GT(frame.depthMm[p], 0);
            seen.insert(frame.labels8[p]);
            if (static_cast<SceneObject>(object) == SceneObject::kBall)
                ballColours.insert({frame.rgb[p * 3], frame.rgb[p * 3 + 1], frame.rgb[p * 3 + 2]});
        }
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(SceneObject::kCount));
    EXPECT_EQ(ballColours.size(), 2u) << "both squares of the pattern";
    // At 120 frames a loop, the camera moves and turns a few centimetres and degrees a frame.
    for (size_t i = 0; i < 120; ++i) {
        const Matrix4d pose = cameraPose(i, 120), next = cameraPose((i + 1) % 120, 120);
        std::string problem;
        ASSERT_TRUE(checkRigid(pose, problem)) << problem;
        EXPECT_TRUE(pose[3] > 0.0 && pose[3] < kRoomLength && pose[7] > 0.0 &&
                    pose[7] < kRoomWidth && pose[11] > 1.0 && pose[11] < kRoomHeight)
            << "frame " << i;
        EXPECT_LT(std::hypot(next[3] - pose[3], next[7] - pose[7], next[11] - pose[11]), 0.1);
        for (int e : {0, 1, 2, 4, 5, 6, 8, 9, 10})
            EXPECT_LT(std::fabs(next[e] - pose[e]), 0.1);
    }
}

// Noise of the requested spread (growing with the square of the distance), set by the seed; the
// frame source seeds each frame from (seed, index), so any order renders the same frames.
TEST(BuiltinScene, NoiseHasTheRequestedSpreadAndFollowsTheSeed) {
    const Matrix4d pose = lookAt({1.0, 1.5, 1.8}, {kRoomLength, 1.5, 1.8});
    const Frame noisy = render(pose, 2.0, 5);
    const double expectedSigma = 2.0 * 3.0 * 3.0;
    double sum = 0.0, sumSquares = 0.0;
    size_t count = 0;
    for (size_t i = 0; i < noisy.depthMm.size(); ++i) {
        if (noisy.labels8[i] == labelOf(SceneObject::kWallEast)) {
            const double error = noisy.depthMm[i] - 3000.0;
            sum += error;
            sumSquares += error * error;
            ++count;
        }
    }
    EXPECT_NEAR(sum / count, 0.0, 0.5);
    EXPECT_NEAR(std::sqrt(sumSquares / count - (sum / count) * (sum / count)), expectedSigma,
                0.05 * expectedSigma);
    EXPECT_EQ(render(pose, 2.0, 5).depthMm, noisy.depthMm);
    EXPECT_NE(render(pose, 2.0, 6).depthMm, noisy.depthMm);
    BuiltinSceneSource source(4, 16, 12, 2.0, 9);
    Frame first, again;
    std::string problem;
    ASSERT_EQ(source.load(2, first, problem), FrameStatus::kOk);
    source.load(0, again, problem);
    source.load(2, again, problem);
    EXPECT_EQ(first.depthMm, again.depthMm);
}

// The truth: distances to the nearest surface, planes through the surfaces with normals towards
// free space, and bounds that hold every hit on an object.
TEST(BuiltinScene, TruthAgreesWithTheRenderedSurfaces) {
    const std::pair<Vec3, double> distances[] = {
        {{0.03, 1.5, 1.5}, 0.03},          // west wall
        {{3.9, 1.5, 1.5}, 0.1},            // east wall
        {{2.0, 1.5, 2.5}, 0.1},            // ceiling
        {{0.65, 0.6, 0.5}, 0.05},          // above the small box's top at 0.45
        {{0.65, 0.6, 0.3}, 0.15},          // inside the small box, nearest its top
        {{2.25, 1.35, 0.91 + 0.2}, 0.05},  // above the ball
        {{2.0 - 0.1, 1.1, 0.8}, 0.04},     // above the table top
        {{-0.02, 1.5, 1.5}, 0.02},         // behind the west wall
    };
    for (const auto& [point, distance] : distances)
        EXPECT_NEAR(surfaceDistance(point), distance, 1e-9) << point[0] << " " << point[2];
    for (const TruePlane& plane : truePlanes()) {
        const Vec3& n = plane.normal;
        const Vec3& c = plane.centre;
        EXPECT_NEAR(n[0] * c[0] + n[1] * c[1] + n[2] * c[2] + plane.offset, 0.0, 1e-12);
        EXPECT_NEAR(surfaceDistance(c), 0.0, 1e-9) << plane.name;
        EXPECT_NEAR(surfaceDistance({c[0] + 0.01 * n[0], c[1] + 0.01 * n[1], c[2] + 0.01 * n[2]}),
                    0.01, 1e-9)
            << plane.name;
    }
    const std::vector<TrueObject> objects = trueObjects();
    for (size_t frame = 0; frame < 12; ++frame) {
        const Matrix4d pose = cameraPose(frame, 12);
        for (int step = 0; step < 400; ++step) {
            const RayHit hit = castRay(
                {pose[3], pose[7], pose[11]},
                {pose[2] + 0.02 * (step % 20 - 10), pose[6] + 0.02 * (step / 20 - 10), pose[10]});
            for (const TrueObject& object : objects) {
                for (int axis = 0; axis < 3 && object.object == hit.object; ++axis) {
                    EXPECT_GE(hit.point[axis], object.boundsMin[axis] - 1e-9);
                    EXPECT_LE(hit.point[axis], object.boundsMax[axis] + 1e-9);
                }
            }
        }
    }
}
