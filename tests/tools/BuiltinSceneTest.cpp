// The tool's built-in scene: rendered depth and labels, the noise, and the true distances.
#include <gtest/gtest.h>

#include <cmath>

#include "velmora/BuiltinScene.h"

using namespace VelmoraTool;

namespace {

Frame render(const Matrix4d& pose, double noise = 0.0, uint32_t seed = 1) {
    std::mt19937 rng(seed);
    return renderView(pose, sceneIntrinsics(kDefaultWidth, kDefaultHeight), kDefaultWidth,
                      kDefaultHeight, noise, rng);
}

}  // namespace

// Depth is the z coordinate in the camera frame in whole millimetres, so a wall facing the camera
// has one depth, its distance, and noise of the requested spread (growing with the square of the
// distance) set by the seed around it; the ball's nearest point is its distance less the radius.
TEST(BuiltinScene, DepthOfAWallAndTheBallAndTheNoise) {
    const Matrix4d pose = lookAt({1.0, 1.5, 1.8}, {kRoomLength, 1.5, 1.8});
    const uint8_t wall = objectInfo(SceneObject::kWallEast).label;
    const Frame exact = render(pose), noisy = render(pose, 2.0, 5);
    double sum = 0.0, sumSquares = 0.0;
    size_t count = 0;
    for (size_t i = 0; i < exact.depthMm.size(); ++i) {
        if (exact.labels8[i] == wall) {
            ASSERT_NEAR(exact.depthMm[i], 3000, 1) << "pixel " << i;
            sum += noisy.depthMm[i] - 3000.0;
            sumSquares += (noisy.depthMm[i] - 3000.0) * (noisy.depthMm[i] - 3000.0);
            ++count;
        }
    }
    EXPECT_GT(count, exact.depthMm.size() / 2);
    EXPECT_NEAR(sum / count, 0.0, 0.5);
    EXPECT_NEAR(std::sqrt(sumSquares / count - (sum / count) * (sum / count)), 18.0, 0.9);
    EXPECT_EQ(render(pose, 2.0, 5).depthMm, noisy.depthMm);
    EXPECT_NE(render(pose, 2.0, 6).depthMm, noisy.depthMm);
    // The frame source seeds each frame from (seed, index): any order renders the same frames.
    BuiltinSceneSource source(4, 16, 12, 2.0, 9);
    Frame first, again;
    std::string problem;
    ASSERT_EQ(source.load(2, first, problem), FrameStatus::kOk);
    source.load(0, again, problem);
    source.load(2, again, problem);
    EXPECT_EQ(first.depthMm, again.depthMm);
    const Vec3 centre = ballCentre();
    const Frame ball = render(lookAt({centre[0] - 1.0, centre[1], centre[2]}, centre));
    const size_t middle = 240 * kDefaultWidth + 320;
    EXPECT_EQ(ball.labels8[middle], objectInfo(SceneObject::kBall).label);
    EXPECT_NEAR(ball.depthMm[middle], (1.0 - ballRadius()) * 1000.0, 1);
    // The truth's distances are the geometry's (the demo's accuracy guards the path and the rest
    // of the truth).
    EXPECT_NEAR(surfaceDistance({0.65, 0.6, 0.3}), 0.15, 1e-9) << "in the small box, below its top";
    EXPECT_NEAR(surfaceDistance({-0.02, 1.5, 1.5}), 0.02, 1e-9) << "behind the west wall";
}
