#include "cv/Delaunator.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace AR {
namespace CV {
namespace Delaunator {

namespace {

// Twice the signed area of (p, q, r) with the sign the sweep uses: called as
// orient(point, e, next), a negative value means the hull edge e -> next faces the point.
template <typename T>
T orient(T px, T py, T qx, T qy, T rx, T ry) {
    return (qy - py) * (rx - qx) - (qx - px) * (ry - qy);
}

// Squared circumradius of (a, b, c); the largest finite value for a degenerate triple.
template <typename T>
T circumradius(T ax, T ay, T bx, T by, T cx, T cy) {
    const T dx = bx - ax;
    const T dy = by - ay;
    const T ex = cx - ax;
    const T ey = cy - ay;
    const T bl = dx * dx + dy * dy;
    const T cl = ex * ex + ey * ey;
    const T d = dx * ey - dy * ex;
    if (bl == T(0) || cl == T(0) || d == T(0) || std::isnan(d)) {
        return std::numeric_limits<T>::max();
    }
    const T x = (ey * bl - dy * cl) * T(0.5) / d;
    const T y = (dx * cl - ex * bl) * T(0.5) / d;
    const T r = x * x + y * y;
    return std::isnan(r) ? std::numeric_limits<T>::max() : r;
}

template <typename T>
void circumcenter(T ax, T ay, T bx, T by, T cx, T cy, T& x, T& y) {
    const T dx = bx - ax;
    const T dy = by - ay;
    const T ex = cx - ax;
    const T ey = cy - ay;
    const T bl = dx * dx + dy * dy;
    const T cl = ex * ex + ey * ey;
    const T d = dx * ey - dy * ex;
    x = ax + (ey * bl - dy * cl) * T(0.5) / d;
    y = ay + (dx * cl - ex * bl) * T(0.5) / d;
}

// True when p lies strictly inside the circumcircle of (a, b, c); the determinant is taken with
// coordinates relative to p.
template <typename T>
bool inCircle(T ax, T ay, T bx, T by, T cx, T cy, T px, T py) {
    const T dx = ax - px;
    const T dy = ay - py;
    const T ex = bx - px;
    const T ey = by - py;
    const T fx = cx - px;
    const T fy = cy - py;
    const T ap = dx * dx + dy * dy;
    const T bp = ex * ex + ey * ey;
    const T cp = fx * fx + fy * fy;
    return dx * (ey * cp - bp * fy) - dy * (ex * cp - bp * fx) + ap * (ex * fy - ey * fx) < T(0);
}

template <typename T>
T squaredDistance(T ax, T ay, T bx, T by) {
    const T dx = ax - bx;
    const T dy = ay - by;
    return dx * dx + dy * dy;
}

template <typename T>
bool closeOnBothAxes(T ax, T ay, T bx, T by, T epsilon) {
    return std::abs(ax - bx) <= epsilon && std::abs(ay - by) <= epsilon;
}

}  // namespace

template <typename T>
Delaunator<T>::Delaunator(const std::vector<T>& coordinates, T closeness)
    : coords(coordinates), epsilon(closeness) {
    if (coords.size() < 2) {
        return;
    }
    const uint32_t n = static_cast<uint32_t>(coords.size() / 2);
    std::vector<uint32_t> ids(n);
    std::iota(ids.begin(), ids.end(), 0u);

    // The box only places the start of the seed search. Its upper corner starts at the smallest
    // positive normal float, so for a cloud wholly below zero it stays near 0.
    T minX = std::numeric_limits<T>::max();
    T minY = std::numeric_limits<T>::max();
    T maxX = std::numeric_limits<T>::min();
    T maxY = std::numeric_limits<T>::min();
    for (uint32_t i = 0; i < n; ++i) {
        minX = std::min(minX, x(i));
        minY = std::min(minY, y(i));
        maxX = std::max(maxX, x(i));
        maxY = std::max(maxY, y(i));
    }
    const T cx = (minX + maxX) / T(2);
    const T cy = (minY + maxY) / T(2);

    uint32_t i0 = INVALID_INDEX;
    T minDistance = std::numeric_limits<T>::max();
    for (uint32_t i = 0; i < n; ++i) {
        const T d = squaredDistance(cx, cy, x(i), y(i));
        if (i0 == INVALID_INDEX || d < minDistance) {
            i0 = i;
            minDistance = d;
        }
    }

    uint32_t i1 = INVALID_INDEX;
    minDistance = std::numeric_limits<T>::max();
    for (uint32_t i = 0; i < n; ++i) {
        if (i == i0) {
            continue;
        }
        const T d = squaredDistance(x(i0), y(i0), x(i), y(i));
        if (d > T(0) && d < minDistance) {
            i1 = i;
            minDistance = d;
        }
    }
    if (i1 == INVALID_INDEX) {
        return;
    }

    uint32_t i2 = INVALID_INDEX;
    T minRadius = std::numeric_limits<T>::max();
    for (uint32_t i = 0; i < n; ++i) {
        if (i == i0 || i == i1) {
            continue;
        }
        const T r = circumradius(x(i0), y(i0), x(i1), y(i1), x(i), y(i));
        if (r < minRadius) {
            i2 = i;
            minRadius = r;
        }
    }
    if (i2 == INVALID_INDEX) {
        return;
    }

    if (orient(x(i0), y(i0), x(i1), y(i1), x(i2), y(i2)) < T(0)) {
        std::swap(i1, i2);
    }
    circumcenter(x(i0), y(i0), x(i1), y(i1), x(i2), y(i2), center[0], center[1]);

    std::vector<T> distances(n);
    for (uint32_t i = 0; i < n; ++i) {
        distances[i] = squaredDistance(x(i), y(i), center[0], center[1]);
    }
    std::sort(ids.begin(), ids.end(), [&](uint32_t a, uint32_t b) {
        const T dd = distances[a] - distances[b];
        if (dd != T(0) && !std::isnan(dd)) {
            return dd < T(0);
        }
        const T dx = x(a) - x(b);
        if (dx != T(0) && !std::isnan(dx)) {
            return dx < T(0);
        }
        return y(a) < y(b);
    });

    hash_size = static_cast<uint32_t>(std::ceil(std::sqrt(static_cast<double>(n))));
    hash.assign(hash_size, INVALID_INDEX);
    hull_prev.assign(n, 0);
    hull_next.assign(n, 0);
    hull_tri.assign(n, 0);

    hull_start = i0;
    hull_next[i0] = hull_prev[i2] = i1;
    hull_next[i1] = hull_prev[i0] = i2;
    hull_next[i2] = hull_prev[i1] = i0;
    hull_tri[i0] = 0;
    hull_tri[i1] = 1;
    hull_tri[i2] = 2;
    hash[hash_key(x(i0), y(i0))] = i0;
    hash[hash_key(x(i1), y(i1))] = i1;
    hash[hash_key(x(i2), y(i2))] = i2;

    const size_t maxTriangles = n < 3 ? 1 : 2 * static_cast<size_t>(n) - 5;
    triangles.reserve(maxTriangles * 3);
    halfedges.reserve(maxTriangles * 3);
    add_triangle(i0, i1, i2, INVALID_INDEX, INVALID_INDEX, INVALID_INDEX);

    T xp = T(0);
    T yp = T(0);
    for (size_t k = 0; k < n; ++k) {
        const uint32_t i = ids[k];
        const T px = x(i);
        const T py = y(i);
        if (k > 0 && closeOnBothAxes(px, py, xp, yp, epsilon)) {
            continue;
        }
        xp = px;
        yp = py;
        if (closeOnBothAxes(px, py, x(i0), y(i0), epsilon) ||
            closeOnBothAxes(px, py, x(i1), y(i1), epsilon) ||
            closeOnBothAxes(px, py, x(i2), y(i2), epsilon)) {
            continue;
        }

        // A visible hull edge near the point's angle.
        uint32_t start = 0;
        const uint32_t key = hash_key(px, py);
        for (uint32_t j = 0; j < hash_size; ++j) {
            start = hash[(key + j) % hash_size];
            if (start != INVALID_INDEX && start != hull_next[start]) {
                break;
            }
        }
        start = hull_prev[start];
        uint32_t e = start;
        uint32_t q = hull_next[e];
        bool visible = true;
        while (!(orient(px, py, x(e), y(e), x(q), y(q)) < T(0))) {
            e = q;
            if (e == start) {
                visible = false;
                break;
            }
            q = hull_next[e];
        }
        if (!visible) {
            continue;
        }

        uint32_t t = add_triangle(e, i, hull_next[e], INVALID_INDEX, INVALID_INDEX, hull_tri[e]);
        hull_tri[i] = legalize(t + 2);
        hull_tri[e] = t;

        uint32_t next = hull_next[e];
        for (q = hull_next[next]; orient(px, py, x(next), y(next), x(q), y(q)) < T(0);
             q = hull_next[next]) {
            t = add_triangle(next, i, q, hull_tri[i], INVALID_INDEX, hull_tri[next]);
            hull_tri[i] = legalize(t + 2);
            hull_next[next] = next;
            next = q;
        }
        if (e == start) {
            for (q = hull_prev[e]; orient(px, py, x(q), y(q), x(e), y(e)) < T(0);
                 q = hull_prev[e]) {
                t = add_triangle(q, i, e, INVALID_INDEX, hull_tri[e], hull_tri[q]);
                legalize(t + 2);
                hull_tri[q] = t;
                hull_next[e] = e;
                e = q;
            }
        }

        hull_start = hull_prev[i] = e;
        hull_next[e] = hull_prev[next] = i;
        hull_next[i] = next;
        hash[hash_key(px, py)] = i;
        hash[hash_key(x(e), y(e))] = e;
    }
}

template <typename T>
uint32_t Delaunator<T>::hash_key(T px, T py) const {
    const T dx = px - center[0];
    const T dy = py - center[1];
    // Pseudo-angle in [0, 1): monotone in the true angle, without trigonometry.
    const T p = dx / (std::abs(dx) + std::abs(dy));
    const T q = (dy > T(0) ? T(3) - p : T(1) + p) / T(4);
    const T scaled = std::floor(q * static_cast<T>(hash_size));
    // A point on the centre itself has no angle; it shares the first slot.
    if (!(scaled >= T(0))) {
        return 0;
    }
    return static_cast<uint32_t>(scaled) % hash_size;
}

template <typename T>
void Delaunator<T>::link(uint32_t a, uint32_t b) {
    if (a == halfedges.size()) {
        halfedges.push_back(b);
    } else {
        halfedges[a] = b;
    }
    if (b != INVALID_INDEX) {
        if (b == halfedges.size()) {
            halfedges.push_back(a);
        } else {
            halfedges[b] = a;
        }
    }
}

template <typename T>
uint32_t Delaunator<T>::add_triangle(uint32_t i0, uint32_t i1, uint32_t i2, uint32_t a, uint32_t b,
                                     uint32_t c) {
    const uint32_t t = static_cast<uint32_t>(triangles.size());
    triangles.push_back(i0);
    triangles.push_back(i1);
    triangles.push_back(i2);
    link(t, a);
    link(t + 1, b);
    link(t + 2, c);
    return t;
}

template <typename T>
uint32_t Delaunator<T>::legalize(uint32_t a) {
    size_t depth = 0;
    uint32_t ar = 0;
    for (;;) {
        const uint32_t b = halfedges[a];
        const uint32_t a0 = a - a % 3;
        const uint32_t al = a0 + (a + 1) % 3;
        ar = a0 + (a + 2) % 3;
        bool flipped = false;
        if (b != INVALID_INDEX) {
            const uint32_t b0 = b - b % 3;
            const uint32_t bl = b0 + (b + 2) % 3;
            const uint32_t p0 = triangles[ar];
            const uint32_t pr = triangles[a];
            const uint32_t pl = triangles[al];
            const uint32_t p1 = triangles[bl];
            if (inCircle(x(p0), y(p0), x(pr), y(pr), x(pl), y(pl), x(p1), y(p1))) {
                triangles[a] = p1;
                triangles[b] = p0;
                const uint32_t hbl = halfedges[bl];
                if (hbl == INVALID_INDEX) {
                    // The flipped edge was on the hull: its outside half-edge moves to a.
                    uint32_t e = hull_start;
                    do {
                        if (hull_tri[e] == bl) {
                            hull_tri[e] = a;
                            break;
                        }
                        e = hull_prev[e];
                    } while (e != hull_start);
                }
                link(a, hbl);
                link(b, halfedges[ar]);
                link(ar, bl);
                const uint32_t br = b0 + (b + 1) % 3;
                if (depth < edge_stack.size()) {
                    edge_stack[depth] = br;
                } else {
                    edge_stack.push_back(br);
                }
                ++depth;
                flipped = true;
            }
        }
        if (!flipped) {
            if (depth == 0) {
                break;
            }
            --depth;
            a = edge_stack[depth];
        }
    }
    return ar;
}

template class Delaunator<float>;

}  // namespace Delaunator
}  // namespace CV
}  // namespace AR
