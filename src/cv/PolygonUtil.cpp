#include "cv/PolygonUtil.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "common/Assert.h"
#include "cv/Delaunator.h"

namespace AR {
namespace CV {
namespace PolygonUtil {

namespace {

// A turn with a cross product at or below this counts as no left turn; the hull drops its middle
// point. Compared in double precision after the single-precision product.
constexpr double kHullTurnTolerance = 1e-6;
constexpr float kPi = 3.14159265358979f;

float cross(const Vec2& o, const Vec2& a, const Vec2& b) {
    return (a(0) - o(0)) * (b(1) - o(1)) - (a(1) - o(1)) * (b(0) - o(0));
}

Edge makeEdge(unsigned int a, unsigned int b) {
    return a < b ? Edge(a, b) : Edge(b, a);
}

// Removes the first occurrence of `value`; false if there is none.
bool removeValue(std::vector<unsigned int>& list, unsigned int value) {
    const auto it = std::find(list.begin(), list.end(), value);
    if (it == list.end()) {
        return false;
    }
    list.erase(it);
    return true;
}

// Angle at `current` swept counter-clockwise from the edge back to `previous` to the edge
// towards `candidate`, in [0, 2 pi). The walk has the material on its right, so this sweep
// enters the material first, and the smallest angle is the next edge of the same loop where
// several loops touch one vertex. (Measured the other way round, the walk would leave its loop
// there, onto an edge whose triangle lies on its left.)
float turnAngle(const Vec2& previous, const Vec2& current, const Vec2& candidate) {
    const Vec2 back = previous - current;
    const Vec2 ahead = candidate - current;
    const float cosine = Math::dot(back, ahead) / (Math::norm(back) * Math::norm(ahead));
    float angle = cosine < -1.0f ? kPi : cosine > 1.0f ? 0.0f : std::acos(cosine);
    if (cross(previous, current, candidate) > 0.0f) {
        angle = 2.0f * kPi - angle;
    }
    return angle;
}

}  // namespace

Common::Vector<int> computeConvexHull(const Vec2* points, unsigned int count) {
    Common::Vector<int> hull;
    if (count == 0) {
        return hull;
    }
    int pivot = 0;
    for (unsigned int i = 1; i < count; ++i) {
        if (points[i](1) < points[pivot](1) ||
            (points[i](1) == points[pivot](1) && points[i](0) < points[pivot](0))) {
            pivot = static_cast<int>(i);
        }
    }
    struct Candidate {
        int index;
        float angle;
        float distance;  // squared, from the pivot
    };
    std::vector<Candidate> sorted;
    sorted.reserve(count);
    const Vec2& p0 = points[pivot];
    for (unsigned int i = 0; i < count; ++i) {
        if (static_cast<int>(i) == pivot) {
            continue;
        }
        const Vec2 d = points[i] - p0;
        sorted.push_back({static_cast<int>(i), std::atan2(d(1), d(0)), Math::dot(d, d)});
    }
    std::sort(sorted.begin(), sorted.end(), [](const Candidate& a, const Candidate& b) {
        return a.angle != b.angle ? a.angle < b.angle : a.distance > b.distance;
    });
    // Of points in the same direction only the farthest can be on the hull.
    sorted.erase(
        std::unique(sorted.begin(), sorted.end(),
                    [](const Candidate& a, const Candidate& b) { return a.angle == b.angle; }),
        sorted.end());

    hull.push_back(pivot);
    if (sorted.empty()) {
        // One point: a closed hull of that point alone.
        hull.push_back(pivot);
        return hull;
    }
    hull.push_back(sorted[0].index);
    if (sorted.size() < 2) {
        hull.push_back(pivot);
        return hull;
    }
    for (size_t k = 1; k < sorted.size(); ++k) {
        const int p = sorted[k].index;
        bool keep = true;
        for (;;) {
            const Vec2& a = points[hull[hull.size() - 2]];
            const Vec2& b = points[hull.back()];
            if (static_cast<double>(cross(a, b, points[p])) > kHullTurnTolerance) {
                break;
            }
            if (hull.size() >= 3) {
                hull.pop_back();
                continue;
            }
            keep = k + 1 == sorted.size();
            break;
        }
        if (keep) {
            hull.push_back(p);
        }
    }
    hull.push_back(hull[0]);
    return hull;
}

std::vector<Triangle> computeDelaunayTriangulation(Common::ArrayView<const Vec2> points,
                                                   float epsilon) {
    std::vector<float> coords;
    coords.reserve(static_cast<size_t>(points.size()) * 2);
    for (const Vec2& p : points) {
        coords.push_back(p(0));
        coords.push_back(p(1));
    }
    const Delaunator::Delaunator<float> triangulation(coords, epsilon);
    std::vector<Triangle> out;
    out.reserve(triangulation.triangles.size() / 3);
    for (size_t t = 0; t + 2 < triangulation.triangles.size(); t += 3) {
        out.emplace_back(triangulation.triangles[t], triangulation.triangles[t + 1],
                         triangulation.triangles[t + 2]);
    }
    return out;
}

std::vector<unsigned int> computeAlphaTriangles(const std::vector<Vec2>& points,
                                                const std::vector<Triangle>& triangles,
                                                float alpha) {
    const float alphaSquared = alpha * alpha;
    std::vector<unsigned int> passing;
    for (size_t t = 0; t < triangles.size(); ++t) {
        bool pass = true;
        for (int e = 0; e < 3; ++e) {
            AR_ASSERT(triangles[t][e] < points.size());
        }
        for (int e = 0; e < 3; ++e) {
            const Vec2 d = points[triangles[t][e]] - points[triangles[t][(e + 1) % 3]];
            pass = pass && Math::dot(d, d) <= alphaSquared;
        }
        if (pass) {
            passing.push_back(static_cast<unsigned int>(t));
        }
    }
    return passing;
}

float testClockWise(const std::vector<Vec2>& points, const EdgeTriangles& trianglesAdjacentToEdge,
                    const std::vector<Triangle>& triangles, unsigned int v1, unsigned int v2) {
    const std::vector<unsigned int>& adjacent = trianglesAdjacentToEdge.at(makeEdge(v1, v2));
    AR_ASSERT(adjacent.size() == 1);
    const Triangle& triangle = triangles.at(adjacent[0]);
    unsigned int v3 = triangle[0];
    for (int i = 0; i < 3; ++i) {
        if (triangle[i] != v1 && triangle[i] != v2) {
            v3 = triangle[i];
        }
    }
    return cross(points.at(v1), points.at(v2), points.at(v3));
}

std::vector<std::vector<size_t>> computeAlphaShapes(const std::vector<Vec2>& points, float alpha,
                                                    float epsilon) {
    const std::vector<Triangle> triangles = computeDelaunayTriangulation(
        Common::ArrayView<const Vec2>(points.data(), points.data() + points.size()), epsilon);
    const std::vector<unsigned int> passing = computeAlphaTriangles(points, triangles, alpha);

    // The passing triangles on each edge, edges in order of first appearance. The boundary graph
    // is filled in the order of an edge table keyed by hashPair, whose hash puts the edges of a
    // large outline into a few buckets; walking such a table slot by slot made outlines of some
    // ten thousand points take seconds, so the table's order is replayed on its homes alone.
    std::unordered_map<uint64_t, uint32_t> edgeIndex(3 * passing.size());
    std::vector<Edge> edges;
    std::vector<std::vector<unsigned int>> edgeTriangles;
    const auto edgeKey = [](const Edge& edge) {
        return (static_cast<uint64_t>(edge.first) << 32) | edge.second;
    };
    const auto addEdge = [&](const Edge& edge, unsigned int t) {
        const auto entry = edgeIndex.emplace(edgeKey(edge), static_cast<uint32_t>(edges.size()));
        if (entry.second) {
            edges.push_back(edge);
            edgeTriangles.emplace_back();
        }
        edgeTriangles[entry.first->second].push_back(t);
    };
    for (const unsigned int t : passing) {
        unsigned int v[3] = {triangles[t][0], triangles[t][1], triangles[t][2]};
        std::sort(v, v + 3);
        AR_ASSERT(v[0] < v[1] && v[1] < v[2]);
        addEdge(Edge(v[0], v[1]), t);
        addEdge(Edge(v[1], v[2]), t);
        addEdge(Edge(v[0], v[2]), t);
    }
    std::vector<uint32_t> hashes(edges.size());
    for (size_t e = 0; e < edges.size(); ++e) {
        hashes[e] = hashPair()(edges[e]);
    }

    // Each vertex of the boundary with the other ends of its boundary edges.
    Common::FlatMap<unsigned int, std::vector<unsigned int>> graph;
    for (const uint32_t e : Common::detail::slotOrder(hashes, "FlatMap")) {
        if (edgeTriangles[e].size() == 1) {
            graph[edges[e].first].push_back(edges[e].second);
            graph[edges[e].second].push_back(edges[e].first);
        }
    }
    // Thinned contour points lie on a grid, so many triangles are near-collinear slivers whose
    // cross products carry no reliable sign. The triangulation winds every triangle the same
    // way, so the side of a boundary edge follows from the order in which its triangle lists the
    // edge's ends, and the winding from the summed area.
    double area = 0.0;
    for (const unsigned int t : passing) {
        area += static_cast<double>(
            cross(points[triangles[t][0]], points[triangles[t][1]], points[triangles[t][2]]));
    }
    if (!(area != 0.0)) {
        return {};
    }
    const bool clockwiseWinding = area < 0.0;
    const auto isClockWise = [&](unsigned int v1, unsigned int v2) {
        const Triangle& triangle =
            triangles[edgeTriangles[edgeIndex.at(edgeKey(makeEdge(v1, v2)))][0]];
        bool forward = false;
        for (int i = 0; i < 3; ++i) {
            forward = forward || (triangle[i] == v1 && triangle[(i + 1) % 3] == v2);
        }
        return forward == clockwiseWinding;
    };

    // The walk leaves a vertex only along a boundary edge with the material on its right. Should
    // the boundary ever admit no closed walk, the contour is given up from there on, with the
    // closed shapes found so far, rather than ending the host's process over an outline.
    std::vector<std::vector<size_t>> shapes;
    while (!graph.empty()) {
        const unsigned int start = graph.begin()->first;
        std::vector<unsigned int>& startList = graph.begin()->second;
        if (startList.empty() || startList.size() % 2 != 0) {
            return shapes;
        }
        std::vector<size_t> shape{start};
        const auto first = std::find_if(startList.begin(), startList.end(),
                                        [&](unsigned int v) { return isClockWise(start, v); });
        if (first == startList.end()) {
            return shapes;
        }
        unsigned int current = *first;
        startList.erase(first);

        for (;;) {
            const unsigned int previous = static_cast<unsigned int>(shape.back());
            const auto it = graph.find(current);
            if (it == graph.end()) {
                return shapes;
            }
            std::vector<unsigned int>& list = it->second;
            if (!removeValue(list, previous)) {
                return shapes;
            }
            if (list.size() % 2 == 0) {
                if (current != start) {
                    return shapes;
                }
                shape.push_back(current);
                break;
            }
            size_t best = list.size();
            float bestAngle = 0.0f;
            for (size_t c = 0; c < list.size(); ++c) {
                if (!isClockWise(current, list[c])) {
                    continue;
                }
                const float angle =
                    turnAngle(points.at(previous), points.at(current), points.at(list[c]));
                if (best == list.size() || angle < bestAngle) {
                    best = c;
                    bestAngle = angle;
                }
            }
            if (best == list.size()) {
                return shapes;
            }
            const unsigned int next = list[best];
            list.erase(list.begin() + static_cast<std::ptrdiff_t>(best));
            if (list.empty()) {
                graph.erase(current);
            }
            shape.push_back(current);
            current = next;
        }
        const auto startEntry = graph.find(start);
        if (startEntry != graph.end() && startEntry->second.empty()) {
            graph.erase(start);
        }
        shapes.push_back(std::move(shape));
    }
    return shapes;
}

}  // namespace PolygonUtil
}  // namespace CV
}  // namespace AR
