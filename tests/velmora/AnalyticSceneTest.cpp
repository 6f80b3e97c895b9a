// The test renderer itself: a wrong renderer would make every fusion test meaningless.
#include <gtest/gtest.h>

#include <cmath>

#include "support/AnalyticScene.h"

namespace Velmora {
namespace Test {
namespace {

TEST(AnalyticScene, RoomDepthLabelsAndDistances) {
    const AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.5);
    EXPECT_NEAR(room.signedDistance({1.0, 1.5, 1.0}), 1.0, 1e-12);  // nearest: floor and x = 0
    EXPECT_NEAR(room.signedDistance({2.0, 1.5, 2.4}), 0.1, 1e-12);  // ceiling
    EXPECT_LT(room.signedDistance({-0.2, 1.5, 1.0}), 0.0);          // inside a wall

    PinholeCamera camera;
    camera.T_world_camera = lookAt({2.0, 1.5, 1.0}, {4.0, 1.5, 1.0}, {0, 0, 1});
    const RenderedFrame frame = render(room, camera);
    // Pixel (cx + 0.5, cy + 0.5) would be the axis; pixel (32, 24) is half a pixel off it. A wall
    // seen head-on has the same axial depth on every pixel.
    const size_t centre = 24 * 64 + 32;
    EXPECT_NEAR(frame.depthMetres[centre], 2.0f, 1e-6f);
    EXPECT_EQ(frame.depthMillimetres[centre], 2000);
    EXPECT_EQ(frame.labels[centre], 2);
    // The top row looks up towards the ceiling at 1.5 m above the eye: hit before the wall?
    // tan = 23.5 / 50, so at 2 m forward the ray is 0.94 m up: still the wall.
    EXPECT_EQ(frame.labels[32], 2);
    const Vec3d hit = unproject(camera, 32, 24, frame.depthMetres[centre]);
    EXPECT_NEAR(hit[0], 4.0, 1e-6);

    // Looking down at the floor from 1 m.
    camera.T_world_camera = lookAt({2.0, 1.5, 1.0}, {2.0, 1.5, 0.0}, {1, 0, 0});
    const RenderedFrame down = render(room, camera);
    EXPECT_EQ(down.labels[centre], 1);
    EXPECT_NEAR(down.depthMetres[centre], 1.0f, 1e-6f);
}

TEST(AnalyticScene, PoseQuaternionReproducesTheRotation) {
    PinholeCamera camera;
    camera.T_world_camera = lookAt({0.3, -0.2, 1.1}, {2.0, 1.0, 0.4}, {0, 0, 1});
    const XrPosefVLM pose = camera.pose();
    const double x = pose.orientation.x, y = pose.orientation.y, z = pose.orientation.z,
                 w = pose.orientation.w;
    EXPECT_NEAR(x * x + y * y + z * z + w * w, 1.0, 1e-6);
    const double r[9] = {1 - 2 * (y * y + z * z), 2 * (x * y - z * w),     2 * (x * z + y * w),
                         2 * (x * y + z * w),     1 - 2 * (x * x + z * z), 2 * (y * z - x * w),
                         2 * (x * z - y * w),     2 * (y * z + x * w),     1 - 2 * (x * x + y * y)};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            EXPECT_NEAR(r[3 * i + j], camera.T_world_camera[4 * i + j], 1e-6);
    EXPECT_FLOAT_EQ(pose.position.x, 0.3f);
}

TEST(AnalyticScene, BoxAndSphere) {
    AnalyticScene scene;
    scene.add(makeBox({1, 1, 0}, {2, 2, 1}, 5, {255, 0, 0}));
    scene.add(makeSphere({0, 0, 3}, 0.5, 6, {0, 255, 0}));
    EXPECT_NEAR(scene.signedDistance({1.5, 1.5, 0.5}), -0.5, 1e-12);
    EXPECT_NEAR(scene.signedDistance({3.0, 3.0, 0.5}), std::sqrt(2.0), 1e-12);
    EXPECT_NEAR(scene.signedDistance({0, 0, 4}), 0.5, 1e-12);
    double t = 0;
    size_t hit = 0;
    ASSERT_TRUE(scene.cast({1.5, 1.5, 5.0}, {0, 0, -1}, t, hit));
    EXPECT_EQ(hit, 0u);
    EXPECT_NEAR(t, 4.0, 1e-12);
    ASSERT_TRUE(scene.cast({0, 0, 0}, {0, 0, 1}, t, hit));
    EXPECT_EQ(hit, 1u);
    EXPECT_NEAR(t, 2.5, 1e-12);
}

}  // namespace
}  // namespace Test
}  // namespace Velmora
