// Two-dimensional outlines of point sets: the convex hull, and alpha shapes (outlines that may be
// concave) built from a Delaunay triangulation by keeping its short triangles and walking the
// boundary of what is left. Single precision; coordinates in any unit, the same for `alpha`.
#ifndef VELMORA_CV_POLYGONUTIL_H
#define VELMORA_CV_POLYGONUTIL_H

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "common/ArrayView.h"
#include "common/FlatMap.h"
#include "common/Hash.h"
#include "common/Vector.h"
#include "math/Vector.h"

namespace AR {
namespace CV {
namespace PolygonUtil {

using Vec2 = Math::Vector<float, 2>;
using Triangle = Math::Vector<unsigned int, 3>;
using Edge = std::pair<unsigned int, unsigned int>;  // (smaller index, larger index)

// The hash of an edge: the FNV step of each end, combined by exclusive or.
struct hashPair {
    uint32_t operator()(const Edge& edge) const {
        return Common::fnvStep(edge.first) ^ Common::fnvStep(edge.second);
    }
};

// The passing triangles (indices into the triangulation) on each edge.
using EdgeTriangles = Common::FlatMap<Edge, std::vector<unsigned int>, hashPair>;

// Graham scan. Indices of the hull points counter-clockwise from the pivot (lowest y, then
// lowest x), the first index repeated at the end. Collinear points on the hull are left out.
// Empty input gives an empty result; a single point gives {0, 0}, a closed degenerate hull.
Common::Vector<int> computeConvexHull(const Vec2* points, unsigned int count);

// Delaunay triangles (three point indices each, counter-clockwise); points within `epsilon` of
// each other on both axes count as one. Collinear or fewer than three distinct points: none.
std::vector<Triangle> computeDelaunayTriangulation(Common::ArrayView<const Vec2> points,
                                                   float epsilon);

// Indices of the triangles none of whose edges is longer than `alpha`. This tests edge lengths,
// not circumradii. An index out of range aborts.
std::vector<unsigned int> computeAlphaTriangles(const std::vector<Vec2>& points,
                                                const std::vector<Triangle>& triangles,
                                                float alpha);

// The closed boundaries of the union of the alpha triangles: each shape is a list of point
// indices that starts and ends with the same index, walked with the inside on the right
// (clockwise). Holes come back as further shapes. Empty when no triangle passes.
std::vector<std::vector<size_t>> computeAlphaShapes(const std::vector<Vec2>& points, float alpha,
                                                    float epsilon);

// For a boundary edge (v1, v2) with exactly one passing triangle (aborts otherwise): the cross
// product (v2 - v1) x (v3 - v1), v3 being that triangle's third point. Negative when the
// triangle lies to the right of the step from v1 to v2.
float testClockWise(const std::vector<Vec2>& points, const EdgeTriangles& trianglesAdjacentToEdge,
                    const std::vector<Triangle>& triangles, unsigned int v1, unsigned int v2);

}  // namespace PolygonUtil
}  // namespace CV
}  // namespace AR

#endif  // VELMORA_CV_POLYGONUTIL_H
