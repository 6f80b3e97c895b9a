// The vision layer: the linear camera the frame path builds, the bounds checks of images (their
// copies and buffers: every scene test, under the sanitizers too), and outlines of point sets
// (convex hulls, Delaunay triangulation, concave alpha shapes).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "cv/Camera.h"
#include "cv/CameraModel.h"
#include "cv/Image.h"
#include "cv/PolygonUtil.h"

namespace {

using AR::CV::Image;
using AR::CV::Size2i;
using AR::CV::PolygonUtil::Triangle;
using AR::CV::PolygonUtil::Vec2;
namespace PU = AR::CV::PolygonUtil;

using Camera = AR::CV::Camera<float>;
using Model = CamModel::CameraModel<float>;
using CamModel::DistortionModel;

// A VGA camera with its principal point off centre and non-square pixels.
Model vga() {
    Model m{};
    m.size = Camera::Vec2(640.0f, 480.0f);
    m.focalLength = Camera::Vec2(520.0f, 510.0f);
    m.principalPoint = Camera::Vec2(318.5f, 243.25f);
    m.radialDistortion = Camera::RDVec::zeros();
    m.tangentialDistortion = Camera::Vec2::zeros();
    m.model = DistortionModel::LINEAR;
    return m;
}

Camera linearCamera() {
    const Model m = vga();
    Camera camera;
    EXPECT_TRUE(camera.init(m.size, m.focalLength, m.principalPoint, m.radialDistortion,
                            m.tangentialDistortion, DistortionModel::LINEAR));
    return camera;
}

TEST(Camera, ValidationMessagesAndFailedInit) {
    const std::string principal = "Error: Principal point should be inside the image\n";
    std::vector<std::pair<std::string, Model>> cases = {{"", vga()}};
    for (int axis = 0; axis < 2; ++axis) {
        cases.push_back({"Error: Focal length should be positive\n", vga()});
        cases.back().second.focalLength[axis] = 0.0f;
        cases.push_back({"Error: Size must be the image size in pixels\n", vga()});
        cases.back().second.size[axis] = -300.0f;
        // On the border, and beyond each side.
        for (float bad : {0.0f, vga().size[axis], -1.0f, vga().size[axis] + 1}) {
            cases.push_back({principal, vga()});
            cases.back().second.principalPoint[axis] = bad;
        }
    }
    for (const auto& [message, model] : cases) {
        Camera camera;
        testing::internal::CaptureStdout();
        const bool valid = model.validateCoeffs();
        EXPECT_EQ(valid, message.empty()) << message;
        EXPECT_TRUE(valid || !camera.init(model)) << message;  // init validates again
        EXPECT_EQ(testing::internal::GetCapturedStdout(), message + message);
    }
}

TEST(Camera, PixelIdealAndSpaceRoundTrip) {
    const Camera camera = linearCamera();
    const Model m = vga();
    for (int i = 0; i < 25; ++i) {
        const Camera::Vec2 pixel(8.0f + 156.0f * (i % 5), 8.0f + 116.0f * (i / 5));
        Camera::Vec2 ideal, back;
        ASSERT_TRUE(camera.tryPixel2ideal(pixel, ideal));
        EXPECT_NEAR(ideal[1], (pixel[1] - m.principalPoint[1]) / m.focalLength[1], 1e-6);
        Camera::Vec3 point;
        ASSERT_TRUE(camera.tryUnprojectFromPix(pixel, point, 0.4f + 0.3f * (i % 5 + i / 5)));
        ASSERT_TRUE(camera.tryProjectToPix(point, back));
        EXPECT_NEAR(back[0], pixel[0], 2e-2);
        EXPECT_NEAR(back[1], pixel[1], 2e-2);
    }
    // Points on or behind the camera plane have no pixel, even where the ray would meet the image.
    Camera::Vec2 out;
    EXPECT_FALSE(camera.tryProjectToPix(Camera::Vec3(0.1f, 0.1f, 0.0f), out));
    EXPECT_FALSE(camera.tryProjectToPix(Camera::Vec3(0.1f, 0.1f, -0.5f), out));
}

TEST(CameraDeathTest, PreconditionsAbort) {
    const auto bad = static_cast<DistortionModel>(6);
    EXPECT_DEATH(CamModel::maxNumRadialDistortionCoeffs(bad), "isKnownModel");

    const Camera camera = linearCamera();
    Camera::Vec3 point;
    EXPECT_DEATH(camera.tryUnprojectFromPix(Camera::Vec2(10.0f, 10.0f), point, 0.0f), "depth > 0");
    // A camera that was never initialised has no spline to evaluate.
    Camera::Vec2 pixel;
    EXPECT_DEATH(Camera().tryProjectToPix(Camera::Vec3(0.0f, 0.0f, 1.0f), pixel), "isInit");
}

TEST(ImageDeathTest, EveryAccessIsBoundsChecked) {
    Image<unsigned char> image(Size2i(4, 3));
    image(3, 2) = 1;
    image.checkBounds(3, 2);
    EXPECT_DEATH(image.checkBounds(4, 0), "AR_ASSERT x >= 0 && x < mSize\\(0\\)");
    EXPECT_DEATH(image(0, 3), "AR_ASSERT y >= 0 && y < mSize\\(1\\)");
    EXPECT_DEATH(image(-1, 0), "AR_ASSERT x >= 0");
    Image<unsigned char> empty;
    EXPECT_DEATH(empty.checkBounds(0, 0), "AR_ASSERT mPixels != nullptr");
}

std::vector<int> hullOf(const std::vector<Vec2>& points) {
    const auto hull = PU::computeConvexHull(points.data(), static_cast<unsigned>(points.size()));
    return std::vector<int>(hull.begin(), hull.end());
}

// Twice the signed area of a closed index polygon (positive counter-clockwise).
double signedArea(const std::vector<Vec2>& points, const std::vector<size_t>& ring) {
    double area = 0.0;
    for (size_t i = 0; i + 1 < ring.size(); ++i) {
        const Vec2& a = points[ring[i]];
        const Vec2& b = points[ring[i + 1]];
        area += static_cast<double>(a(0)) * b(1) - static_cast<double>(b(0)) * a(1);
    }
    return area;
}

TEST(ConvexHull, KnownAnswers) {
    const struct {
        const char* name;
        std::vector<float> xy;  // the points' coordinates, x then y
        std::vector<int> expected;
    } cases[] = {
        {"empty", {}, {}},
        {"one point is a closed degenerate hull", {2, 3}, {0, 0}},
        {"two points", {1, 1, 0, 0}, {1, 0, 1}},
        {"square with interior points",
         {.5f, .5f, 1, 0, .2f, .7f, 0, 0, 1, 1, .6f, .3f, 0, 1},
         {3, 1, 4, 6, 3}},
        {"collinear points on an edge are dropped",
         {0, 0, .5f, 0, 1, 0, 1, 1, 0, 1, 0, .5f},
         {0, 2, 3, 4, 0}},
        {"duplicates count once", {0, 0, 1, 0, 1, 0, 0, 1, 0, 1}, {0, 1, 3, 0}},
        {"all on one line: the ends", {0, 0, 1, 1, 2, 2}, {0, 2, 0}},
    };
    for (const auto& c : cases) {
        std::vector<Vec2> points;
        for (size_t i = 0; i < c.xy.size(); i += 2)
            points.emplace_back(c.xy[i], c.xy[i + 1]);
        EXPECT_EQ(hullOf(points), c.expected) << c.name;
    }
}

// Every triangle is counter-clockwise and no point lies inside any circumcircle.
void expectDelaunay(const std::vector<Vec2>& points, const std::vector<Triangle>& triangles) {
    for (const Triangle& t : triangles) {
        const Vec2& a = points[t[0]];
        const Vec2& b = points[t[1]];
        const Vec2& c = points[t[2]];
        const double area = (static_cast<double>(b(0)) - a(0)) * (c(1) - a(1)) -
                            (static_cast<double>(b(1)) - a(1)) * (c(0) - a(0));
        ASSERT_LT(area, 0.0) << "the sweep emits clockwise triangles in y-up coordinates";
        for (size_t p = 0; p < points.size(); ++p) {
            const auto d = [&](const Vec2& v, int axis) {
                return double(v(axis)) - points[p](axis);
            };
            const double dx = d(a, 0), dy = d(a, 1), ex = d(b, 0), ey = d(b, 1), fx = d(c, 0),
                         fy = d(c, 1);
            const double det = (dx * dx + dy * dy) * (ex * fy - ey * fx) -
                               (ex * ex + ey * ey) * (dx * fy - dy * fx) +
                               (fx * fx + fy * fy) * (dx * ey - dy * ex);
            // Clockwise triangles: a point strictly inside gives a negative determinant.
            ASSERT_GE(det, -1e-4) << "point " << p << " inside a circumcircle";
        }
    }
}

TEST(DelaunayTriangulation, RandomSetsAreDelaunayAndComplete) {
    std::mt19937 rng(7);
    for (const int n : {3, 10, 100, 700}) {
        std::uniform_real_distribution<float> coordinate(-5.0f, 5.0f);
        std::vector<Vec2> points;
        for (int i = 0; i < n; ++i)
            points.emplace_back(coordinate(rng), coordinate(rng));
        const std::vector<Triangle> triangles = PU::computeDelaunayTriangulation(
            AR::Common::ArrayView<const Vec2>(points.data(), points.data() + points.size()), 1e-6f);
        expectDelaunay(points, triangles);
        // Euler: 2n - 2 - h triangles for n points of which h are on the hull.
        const size_t hullPoints = hullOf(points).size() - 1;
        EXPECT_EQ(triangles.size(), 2 * points.size() - 2 - hullPoints) << n << " points";
    }
}

TEST(AlphaShapes, AnLShapedOutlineCutsItsInnerCorner) {
    // An L of unit-spaced points: 0 <= x < 8, 0 <= y < 3 plus 0 <= x < 3, 3 <= y < 8; point 18
    // is its inner corner (2, 2).
    std::vector<Vec2> points;
    for (int i = 0; i < 64; ++i)
        if (i / 8 < 3 || i % 8 < 3)
            points.emplace_back(static_cast<float>(i % 8) + 0.01f * static_cast<float>(i / 8 % 2),
                                static_cast<float>(i / 8));
    const auto shapes = PU::computeAlphaShapes(points, 1.5f, 1.1920929e-07f);
    ASSERT_EQ(shapes.size(), 1u);
    const std::vector<size_t>& ring = shapes[0];
    EXPECT_EQ(ring.front(), ring.back());
    // Walked clockwise, with the inside on the right.
    EXPECT_LT(signedArea(points, ring), 0.0);
    // The outline runs along the L: every point of the boundary is on it.
    std::set<size_t> boundary(ring.begin(), ring.end());
    EXPECT_EQ(boundary.size(), ring.size() - 1) << "a simple loop";
    // 28 points on the L's outline, less its inner corner (2, 2): the diagonal from (3, 2) to
    // (2, 3) is shorter than alpha, so the half cell in the corner is filled.
    EXPECT_EQ(boundary.size(), 27u);
    EXPECT_EQ(boundary.count(18u), 0u);
    // Area: 7 x 2 + 2 x 5 = 24 square units plus that half cell (the shoelace gives twice it).
    EXPECT_NEAR(-signedArea(points, ring), 49.0, 0.2);
}

}  // namespace
