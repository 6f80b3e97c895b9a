// Sweep-hull Delaunay triangulation of points in the plane.
//
// The points are taken in order of distance from the circumcentre of a seed triangle; each one is
// connected to the edges of the current convex hull that it sees, and the Delaunay condition is
// restored by edge flips. A hash of the hull points by pseudo-angle around the centre finds a
// visible hull edge in near constant time. Everything happens in the constructor.
//
// Details that make the result what it is:
//   - two points closer than `epsilon` on both axes count as one (the later in sweep order is
//     skipped), and so does a point within `epsilon` of a seed;
//   - the in-circle test is strict: cocircular points are not flipped;
//   - fewer than three distinct points, or all points on one line, give no triangles (no
//     exception, no abort);
//   - `legalize` flips iteratively on a reused stack, without recursion and without a limit.
// Only `float` is instantiated.
#ifndef VELMORA_CV_DELAUNATOR_H
#define VELMORA_CV_DELAUNATOR_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace AR {
namespace CV {
namespace Delaunator {

// Marks a missing half-edge (the hull side) or an empty hash slot.
constexpr uint32_t INVALID_INDEX = 0xFFFFFFFFu;

template <typename T>
class Delaunator {
public:
    // `coords` holds x0, y0, x1, y1, ...; it must outlive the object.
    Delaunator(const std::vector<T>& coords, T epsilon);

    const std::vector<T>& coords;
    T epsilon;
    std::vector<uint32_t> triangles;  // three point indices per triangle, counter-clockwise
    std::vector<uint32_t> halfedges;  // the opposite half-edge, INVALID_INDEX on the hull
    std::vector<uint32_t> hull_prev;  // hull ring, one entry per point
    std::vector<uint32_t> hull_next;  // a point removed from the hull points to itself
    std::vector<uint32_t> hull_tri;   // for each hull point, the half-edge on the outside
    uint32_t hull_start = INVALID_INDEX;
    T center[2] = {T(0), T(0)};  // circumcentre of the seed triangle
    uint32_t hash_size = 0;
    std::vector<uint32_t> hash;  // hull point by pseudo-angle key, or INVALID_INDEX
    std::vector<uint32_t> edge_stack;

private:
    uint32_t hash_key(T x, T y) const;
    uint32_t add_triangle(uint32_t i0, uint32_t i1, uint32_t i2, uint32_t a, uint32_t b,
                          uint32_t c);
    uint32_t legalize(uint32_t a);
    void link(uint32_t a, uint32_t b);
    T x(uint32_t i) const { return coords[2 * static_cast<size_t>(i)]; }
    T y(uint32_t i) const { return coords[2 * static_cast<size_t>(i) + 1]; }
};

extern template class Delaunator<float>;

}  // namespace Delaunator
}  // namespace CV
}  // namespace AR

#endif  // VELMORA_CV_DELAUNATOR_H
