// The tool's built-in scene: rendered depth, labels and colours, and the noise.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

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
}

// Over one loop of the path every object is seen, each pixel with the label and one of the two
// shades of the same object (the demo's accuracy guards the path and the rest of the truth).
TEST(BuiltinScene, PathSeesEveryObjectWithItsLabelAndColours) {
    std::set<uint8_t> seen;
    for (size_t i = 0; i < 12; ++i) {
        const Frame frame = render(cameraPose(i, 12));
        for (size_t p = 0; p < frame.depthMm.size(); p += 7) {
            int o = 0;
            while (o < int(SceneObject::kCount) &&
                   objectInfo(SceneObject(o)).label != frame.labels8[p])
                ++o;
            ASSERT_LT(o, int(SceneObject::kCount)) << int(frame.labels8[p]);
            const std::array<uint8_t, 3> light = objectInfo(SceneObject(o)).color;
            bool isLight = true, isDark = true;
            for (int c = 0; c < 3; ++c) {
                isLight = isLight && frame.rgb[p * 3 + c] == light[c];
                isDark = isDark && frame.rgb[p * 3 + c] == std::lround(light[c] * kCheckerShade);
            }
            ASSERT_TRUE(isLight || isDark) << "pixel " << p << " of frame " << i;
            ASSERT_GT(frame.depthMm[p], 0);
            seen.insert(frame.labels8[p]);
        }
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(SceneObject::kCount));
    // The truth's distances are the geometry's.
    EXPECT_NEAR(surfaceDistance({0.65, 0.6, 0.3}), 0.15, 1e-9) << "in the small box, below its top";
    EXPECT_NEAR(surfaceDistance({-0.02, 1.5, 1.5}), 0.02, 1e-9) << "behind the west wall";
}
