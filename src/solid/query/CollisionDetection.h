// Contact of points, boxes and spheres with the reconstruction, and the distance to the nearest
// surface. A reconstruction knows three kinds of space, so there are three outcomes: observed
// free space, observed matter, and space never observed (a missing block or a sample of weight
// 0). Occupied and unobserved are decided by the raw lattice samples, never by interpolation:
// a sample is occupied when its weight is not 0 and its value (normalised distance) is at most
// the threshold; every caller in the system passes 0.0, "at or behind the surface".
//
// Boxes have both corners inclusive; in the block-level functions they are in block-local
// metres (0 at lattice point (0, 0, 0) of the block), in the grid-level ones in world metres.
//
// These functions exist for the depth grid (DepthGrid, DepthVolume). The grid-level ones take the
// grid's read lock only to find a block and hold one block's mutex at a time while they read it,
// so they run concurrently with integration.
//
// Host input may be anything: non-finite coordinates, inverted or enormous boxes and distances
// neither crash nor hang. A point or box with a NaN coordinate is UNKNOWN; a search over more
// block keys than the grid has blocks visits only the blocks that exist, with the same result
// as the full scan.
#ifndef VELMORA_SOLID_QUERY_COLLISIONDETECTION_H
#define VELMORA_SOLID_QUERY_COLLISIONDETECTION_H

#include <utility>

#include "solid/volume/VolumeGrid.h"

namespace Solid {

// The numeric value is what the host receives.
enum CollisionResult : int { NO_COLLISION = 0, COLLISION = 1, UNKNOWN = 2 };

struct Box {
    Vec3 min;  // lower corner, metres, inclusive
    Vec3 max;  // upper corner, metres, inclusive
};

struct Sphere {
    Vec3 center;   // world metres
    float radius;  // metres
};

// ---------------------------------------------------------------------------------------------
// Block level: a box or point in block-local metres against the samples of one locked block.

// Scans the lattice points within `box` (rounded to the nearest lattice index, clamped into the
// block), z outermost, then y, then x. The first occupied sample ends the scan with COLLISION and
// its lattice point; otherwise the first unobserved sample gives UNKNOWN and its lattice point;
// otherwise NO_COLLISION with `collisionPoint` unchanged. A box whose rounded range is empty on
// some axis (an inverted box) is UNKNOWN with `collisionPoint` unchanged.
CollisionResult checkCollision(const DepthVolume& volume, const Box& box, Vec3& collisionPoint,
                               float threshold);

// The same, looking only at the lattice points for which `functor(volume, latticeIndex, box)`
// returns true; the others are not even tested for weight.
template <typename Functor>
CollisionResult checkCollision(const DepthVolume& volume, const Box& box, Functor functor,
                               Vec3& collisionPoint, float threshold);

// Distance from `point` to the nearest lattice point whose value is at most `threshold`, within
// a window of `maxDistance` around the point, and that lattice point. The weight is not read:
// an unobserved sample holds +1.0 and so is never an obstacle. With no such sample the result is
// (|maxDistance|, (0, 0, 0)).
std::pair<float, Vec3> clearanceDistance(const DepthVolume& volume, const Vec3& point,
                                         float maxDistance, float threshold);

// The same from a box: 0 or more outside it (Euclidean distance to the box), negative for a
// sample strictly inside (minus its depth of penetration). With no sample below `maxDistance`
// the result is (maxDistance, (0, 0, 0)).
std::pair<float, Vec3> clearanceDistance(const DepthVolume& volume, const Box& box,
                                         float maxDistance, float threshold);

// ---------------------------------------------------------------------------------------------
// Grid level: world metres. `collisionPoint` receives a world position for COLLISION and for
// UNKNOWN (the first unobserved lattice point, or the first missing block's first lattice point
// inside the box), and is left as it was for NO_COLLISION.

// The sample at the lattice point nearest to `point`: COLLISION, NO_COLLISION, or UNKNOWN where
// the block is missing or the sample is unobserved.
CollisionResult checkCollision(const DepthGrid& grid, const Vec3& point, Vec3& collisionPoint,
                               float threshold);

// All blocks that `box` touches, z outermost, then y, then x: the first COLLISION wins; before
// it, the first UNKNOWN (a missing block or an unobserved sample) is kept and the scan goes on.
// A box inverted on z is NO_COLLISION.
CollisionResult checkCollision(const DepthGrid& grid, const Box& box, Vec3& collisionPoint,
                               float threshold);

template <typename Functor>
CollisionResult checkCollision(const DepthGrid& grid, const Box& box, Functor functor,
                               Vec3& collisionPoint, float threshold);

// The sphere's bounding box, looking only at lattice points inside the sphere. A missing block
// is UNKNOWN even where it touches only the box's corners outside the sphere.
CollisionResult checkCollision(const DepthGrid& grid, const Sphere& sphere, Vec3& collisionPoint,
                               float threshold);

// The nearest sample at most `threshold` over all existing blocks within `maxDistance` (rounded
// to whole blocks around the point's block); missing blocks are skipped. Ties keep the block met
// first in z, y, x order. (maxDistance, (0, 0, 0)) when nothing is nearer.
std::pair<float, Vec3> clearanceDistance(const DepthGrid& grid, const Vec3& point,
                                         float maxDistance, float threshold);
std::pair<float, Vec3> clearanceDistance(const DepthGrid& grid, const Box& box, float maxDistance,
                                         float threshold);

}  // namespace Solid

#include "solid/query/CollisionDetectionImpl.h"

#endif  // VELMORA_SOLID_QUERY_COLLISIONDETECTION_H
