// Outlines of point sets: convex hulls with known answers, the Delaunay property of the sweep-hull
// triangulation on random sets, and alpha shapes that follow a concave outline.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <vector>

#include "cv/PolygonUtil.h"

namespace {

using AR::CV::PolygonUtil::Triangle;
using AR::CV::PolygonUtil::Vec2;
namespace PU = AR::CV::PolygonUtil;

std::vector<int> hullOf(const std::vector<Vec2>& points) {
    const auto hull = PU::computeConvexHull(points.data(), static_cast<unsigned>(points.size()));
    return std::vector<int>(hull.begin(), hull.end());
}

std::vector<Triangle> triangulate(const std::vector<Vec2>& points, float epsilon = 1e-6f) {
    return PU::computeDelaunayTriangulation(
        AR::Common::ArrayView<const Vec2>(points.data(), points.data() + points.size()), epsilon);
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

// A ring is convex when all its turns go the same way.
bool isConvex(const std::vector<Vec2>& points, const std::vector<size_t>& ring) {
    int positive = 0;
    int negative = 0;
    const size_t n = ring.size() - 1;
    for (size_t i = 0; i < n; ++i) {
        const Vec2& a = points[ring[i]];
        const Vec2& b = points[ring[(i + 1) % n]];
        const Vec2& c = points[ring[(i + 2) % n]];
        const float turn = (b(0) - a(0)) * (c(1) - a(1)) - (b(1) - a(1)) * (c(0) - a(0));
        positive += turn > 1e-6f ? 1 : 0;
        negative += turn < -1e-6f ? 1 : 0;
    }
    return positive == 0 || negative == 0;
}

struct HullCase {
    const char* name;
    std::vector<Vec2> points;
    std::vector<int> expected;
};

TEST(ConvexHull, KnownAnswers) {
    const std::vector<HullCase> cases = {
        {"empty", {}, {}},
        {"one point is a closed degenerate hull", {Vec2(2.0f, 3.0f)}, {0, 0}},
        {"two points", {Vec2(1.0f, 1.0f), Vec2(0.0f, 0.0f)}, {1, 0, 1}},
        {"square with interior points",
         {Vec2(0.5f, 0.5f), Vec2(1.0f, 0.0f), Vec2(0.2f, 0.7f), Vec2(0.0f, 0.0f), Vec2(1.0f, 1.0f),
          Vec2(0.6f, 0.3f), Vec2(0.0f, 1.0f)},
         {3, 1, 4, 6, 3}},
        {"collinear points on an edge are dropped",
         {Vec2(0.0f, 0.0f), Vec2(0.5f, 0.0f), Vec2(1.0f, 0.0f), Vec2(1.0f, 1.0f), Vec2(0.0f, 1.0f),
          Vec2(0.0f, 0.5f)},
         {0, 2, 3, 4, 0}},
        {"duplicates count once",
         {Vec2(0.0f, 0.0f), Vec2(1.0f, 0.0f), Vec2(1.0f, 0.0f), Vec2(0.0f, 1.0f), Vec2(0.0f, 1.0f)},
         {0, 1, 3, 0}},
        {"all on one line: the ends",
         {Vec2(0.0f, 0.0f), Vec2(1.0f, 1.0f), Vec2(2.0f, 2.0f)},
         {0, 2, 0}},
    };
    for (const HullCase& c : cases) {
        EXPECT_EQ(hullOf(c.points), c.expected) << c.name;
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
            const double dx = static_cast<double>(a(0)) - points[p](0);
            const double dy = static_cast<double>(a(1)) - points[p](1);
            const double ex = static_cast<double>(b(0)) - points[p](0);
            const double ey = static_cast<double>(b(1)) - points[p](1);
            const double fx = static_cast<double>(c(0)) - points[p](0);
            const double fy = static_cast<double>(c(1)) - points[p](1);
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
        for (int i = 0; i < n; ++i) {
            points.emplace_back(coordinate(rng), coordinate(rng));
        }
        const std::vector<Triangle> triangles = triangulate(points);
        expectDelaunay(points, triangles);
        // Euler: 2n - 2 - h triangles for n points of which h are on the hull.
        const size_t hullPoints = hullOf(points).size() - 1;
        EXPECT_EQ(triangles.size(), 2 * points.size() - 2 - hullPoints) << n << " points";
    }
}

TEST(DelaunayTriangulation, DegenerateInputs) {
    EXPECT_TRUE(triangulate({}).empty());
    EXPECT_TRUE(triangulate({Vec2(1.0f, 1.0f)}).empty());
    EXPECT_TRUE(triangulate({Vec2(0.0f, 0.0f), Vec2(1.0f, 1.0f), Vec2(2.0f, 2.0f)}).empty());
    // A duplicate is skipped: the square gives two triangles either way.
    const std::vector<Vec2> square = {Vec2(0.0f, 0.0f), Vec2(1.0f, 0.0f), Vec2(1.0f, 1.0f),
                                      Vec2(0.0f, 1.0f), Vec2(1.0f, 1.0f)};
    EXPECT_EQ(triangulate(square).size(), 2u);
    // A cloud wholly in negative coordinates still triangulates.
    const std::vector<Vec2> negative = {Vec2(-9.0f, -9.0f), Vec2(-7.0f, -9.5f), Vec2(-8.0f, -6.0f),
                                        Vec2(-6.5f, -7.0f)};
    const auto triangles = triangulate(negative);
    EXPECT_EQ(triangles.size(), 2u);
    expectDelaunay(negative, triangles);
}

TEST(DelaunayTriangulation, CocircularGridIsTriangulatedWithoutFlipping) {
    std::vector<Vec2> grid;
    for (int y = 0; y < 6; ++y) {
        for (int x = 0; x < 6; ++x) {
            grid.emplace_back(static_cast<float>(x), static_cast<float>(y));
        }
    }
    const auto triangles = triangulate(grid);
    EXPECT_EQ(triangles.size(), 2u * 5u * 5u);
    expectDelaunay(grid, triangles);
}

// Index of the point (2, 2) in lShape().
constexpr size_t lShapeInnerCorner = 18;

// An L of unit-spaced points: 0 <= x < 8, 0 <= y < 3 plus 0 <= x < 3, 3 <= y < 8.
std::vector<Vec2> lShape() {
    std::vector<Vec2> points;
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 8; ++x) {
            if (y < 3 || x < 3) {
                points.emplace_back(static_cast<float>(x) + 0.01f * static_cast<float>(y % 2),
                                    static_cast<float>(y));
            }
        }
    }
    return points;
}

TEST(AlphaShapes, LShapeIsConcaveWhereTheHullIsNot) {
    const std::vector<Vec2> points = lShape();
    const auto shapes = PU::computeAlphaShapes(points, 1.5f, 1.1920929e-07f);
    ASSERT_EQ(shapes.size(), 1u);
    const std::vector<size_t>& ring = shapes[0];
    EXPECT_EQ(ring.front(), ring.back());
    // Walked clockwise, with the inside on the right.
    EXPECT_LT(signedArea(points, ring), 0.0);
    EXPECT_FALSE(isConvex(points, ring));
    // The outline runs along the L: every point of the boundary is on it.
    std::set<size_t> boundary(ring.begin(), ring.end());
    EXPECT_EQ(boundary.size(), ring.size() - 1) << "a simple loop";
    // 28 points on the L's outline, less its inner corner (2, 2): the diagonal from (3, 2) to
    // (2, 3) is shorter than alpha, so the half cell in the corner is filled.
    EXPECT_EQ(boundary.size(), 27u);
    EXPECT_EQ(boundary.count(lShapeInnerCorner), 0u);
    // Area: 7 x 2 + 2 x 5 = 24 square units plus that half cell (the shoelace gives twice it).
    EXPECT_NEAR(-signedArea(points, ring), 49.0, 0.2);

    const std::vector<int> hull = hullOf(points);
    std::vector<size_t> hullRing(hull.begin(), hull.end());
    EXPECT_TRUE(isConvex(points, hullRing));
}

TEST(AlphaShapes, HolesAndThresholds) {
    // A ring of points around an empty square: outer boundary and the hole.
    std::vector<Vec2> points;
    for (int y = 0; y < 7; ++y) {
        for (int x = 0; x < 7; ++x) {
            if (x < 2 || x > 4 || y < 2 || y > 4) {
                points.emplace_back(static_cast<float>(x), static_cast<float>(y));
            }
        }
    }
    const auto shapes = PU::computeAlphaShapes(points, 1.5f, 1e-6f);
    ASSERT_EQ(shapes.size(), 2u);
    const size_t outer = shapes[0].size() > shapes[1].size() ? 0 : 1;
    EXPECT_EQ(shapes[outer].size(), 25u);
    EXPECT_EQ(shapes[1 - outer].size(), 13u);
    // Alpha below the spacing: no triangle passes, no shape.
    EXPECT_TRUE(PU::computeAlphaShapes(points, 0.5f, 1e-6f).empty());
    // Collinear points: nothing.
    EXPECT_TRUE(
        PU::computeAlphaShapes({Vec2(0.0f, 0.0f), Vec2(1.0f, 0.0f), Vec2(2.0f, 0.0f)}, 5.0f, 1e-6f)
            .empty());
}

// Two slanted rows of contour points: the triangulation has near-collinear slivers whose cross
// products change sign with the vertex they are taken from. The outline still closes once,
// through the four corners (the middle points of the lower row lie a hair inside).
TEST(AlphaShapes, SliversBetweenNearlyCollinearPoints) {
    const std::vector<Vec2> points = {
        Vec2(7.83957003e-05f, 0.893066704f), Vec2(0.0203796737f, 0.904847264f),
        Vec2(0.0400092863f, 0.91623807f),    Vec2(0.0603255592f, 0.928027332f),
        Vec2(0.0800350085f, 0.93946445f),    Vec2(0.0f, 0.913021207f),
        Vec2(0.0199999996f, 0.924626946f),   Vec2(0.0399999991f, 0.936232686f),
        Vec2(0.0599999987f, 0.947838426f),   Vec2(0.0799999982f, 0.959444165f)};
    const auto shapes = PU::computeAlphaShapes(points, 0.1f, 1.1920929e-07f);
    ASSERT_EQ(shapes.size(), 1u);
    std::vector<size_t> outline = shapes[0];
    EXPECT_EQ(outline.front(), outline.back());
    outline.pop_back();
    std::sort(outline.begin(), outline.end());
    EXPECT_EQ(std::unique(outline.begin(), outline.end()), outline.end());
    for (const size_t corner : {0u, 4u, 5u, 9u}) {
        EXPECT_TRUE(std::binary_search(outline.begin(), outline.end(), corner)) << corner;
    }
}

TEST(AlphaTriangles, EdgeLengthDecides) {
    const std::vector<Vec2> points = {Vec2(0.0f, 0.0f), Vec2(1.0f, 0.0f), Vec2(0.0f, 1.0f),
                                      Vec2(3.0f, 3.0f)};
    const std::vector<Triangle> triangles = {Triangle(0u, 1u, 2u), Triangle(1u, 3u, 2u)};
    // The long diagonal of the first is sqrt(2).
    EXPECT_TRUE(PU::computeAlphaTriangles(points, triangles, 1.4f).empty());
    EXPECT_EQ(PU::computeAlphaTriangles(points, triangles, 1.5f), std::vector<unsigned>{0u});
    EXPECT_EQ(PU::computeAlphaTriangles(points, triangles, 5.0f), (std::vector<unsigned>{0u, 1u}));
    EXPECT_DEATH(PU::computeAlphaTriangles(points, {Triangle(0u, 1u, 9u)}, 5.0f), "");
}

}  // namespace
