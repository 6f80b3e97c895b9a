#include "solid/query/CollisionDetection.h"

namespace Solid {

namespace {

// The filter of the plain box scan: every lattice point takes part.
struct AllSamples {
    bool operator()(const DepthVolume&, const Index3&, const Box&) const { return true; }
};

// The sphere's filter: lattice points within `radiusSquared` of the box's centre, which is the
// sphere's centre in the coordinates of the block being scanned.
struct InsideSphere {
    float radiusSquared;
    bool operator()(const DepthVolume& volume, const Index3& index, const Box& box) const {
        const Vec3 center = (box.min + box.max) * 0.5f;
        const Vec3 p = collision::latticePoint(volume.config(), index(0), index(1), index(2));
        return AR::Math::squaredNorm(p - center) <= radiusSquared;
    }
};

// A window of lattice indices that holds no point. Tested before the loops, whose int counters
// could not represent every end of an empty window.
bool isEmptyWindow(const int64_t (&lo)[3], const int64_t (&hi)[3]) {
    return lo[0] > hi[0] || lo[1] > hi[1] || lo[2] > hi[2];
}

// Clearance ranges: the grid keys within `maxDistance` of [min, max], in whole blocks.
collision::KeyRange clearanceRange(const DepthGrid& grid, const Vec3& min, const Vec3& max,
                                   float maxDistance) {
    collision::KeyRange r = collision::blockRange(grid, min, max);
    for (int a = 0; a < 3; ++a) {
        const int64_t reach =
            std::max<int64_t>(0, collision::truncIndex(maxDistance * grid.inverseDimension()(a)));
        r.lo[a] = collision::clampIndex(r.lo[a] - reach);
        r.hi[a] = collision::clampIndex(r.hi[a] + reach);
    }
    return r;
}

// Shared by the two grid-level clearances: the best of the per-block searches, the block met
// first keeping a tie.
template <typename Query>
std::pair<float, Vec3> gridClearance(const DepthGrid& grid, const collision::KeyRange& range,
                                     float maxDistance, Query&& blockQuery) {
    std::pair<float, Vec3> best(maxDistance, Vec3(0.0f, 0.0f, 0.0f));
    if (range.empty()) {
        return best;
    }
    collision::visitBlocks(
        grid, range,
        [&](const KeyType& key, const DepthVolume& volume) {
            const Vec3 origin = grid.blockOrigin(key);
            const std::pair<float, Vec3> found = blockQuery(volume, origin);
            if (found.first < best.first) {
                best = std::make_pair(found.first, found.second + origin);
            }
            return true;
        },
        [](const KeyType&) { return true; });
    return best;
}

}  // namespace

CollisionResult checkCollision(const DepthVolume& volume, const Box& box, Vec3& collisionPoint,
                               float threshold) {
    return checkCollision(volume, box, AllSamples{}, collisionPoint, threshold);
}

std::pair<float, Vec3> clearanceDistance(const DepthVolume& volume, const Vec3& point,
                                         float maxDistance, float threshold) {
    const VolumeConfig& config = volume.config();
    int64_t lo[3];
    int64_t hi[3];
    for (int a = 0; a < 3; ++a) {
        const int64_t c = collision::nearestLatticeIndex(point(a), config.inverseSpacing(a));
        const int64_t h = collision::truncIndex(maxDistance * config.inverseSpacing(a));
        lo[a] = std::max<int64_t>(0, c - h);
        hi[a] = std::min<int64_t>(config.bounds(a), c + h);
    }
    float bestSquared = maxDistance * maxDistance;
    Vec3 bestPoint(0.0f, 0.0f, 0.0f);
    if (isEmptyWindow(lo, hi)) {
        return std::make_pair(std::sqrt(bestSquared), bestPoint);
    }
    for (int z = static_cast<int>(lo[2]); z <= hi[2]; ++z) {
        for (int y = static_cast<int>(lo[1]); y <= hi[1]; ++y) {
            for (int x = static_cast<int>(lo[0]); x <= hi[0]; ++x) {
                if (!(collision::sampleValue(volume.at(x, y, z)) <= threshold)) {
                    continue;
                }
                const Vec3 p = collision::latticePoint(config, x, y, z);
                const float squared = AR::Math::squaredNorm(p - point);
                if (squared < bestSquared) {
                    bestSquared = squared;
                    bestPoint = p;
                }
            }
        }
    }
    return std::make_pair(std::sqrt(bestSquared), bestPoint);
}

std::pair<float, Vec3> clearanceDistance(const DepthVolume& volume, const Box& box,
                                         float maxDistance, float threshold) {
    const VolumeConfig& config = volume.config();
    int64_t lo[3];
    int64_t hi[3];
    for (int a = 0; a < 3; ++a) {
        const int64_t h = collision::truncIndex(maxDistance * config.inverseSpacing(a));
        lo[a] = std::max<int64_t>(
            0, collision::nearestLatticeIndex(box.min(a), config.inverseSpacing(a)) - h);
        hi[a] = std::min<int64_t>(
            config.bounds(a),
            collision::nearestLatticeIndex(box.max(a), config.inverseSpacing(a)) + h);
    }
    float best = maxDistance;
    Vec3 bestPoint(0.0f, 0.0f, 0.0f);
    if (isEmptyWindow(lo, hi)) {
        return std::make_pair(best, bestPoint);
    }
    for (int z = static_cast<int>(lo[2]); z <= hi[2]; ++z) {
        for (int y = static_cast<int>(lo[1]); y <= hi[1]; ++y) {
            for (int x = static_cast<int>(lo[0]); x <= hi[0]; ++x) {
                if (!(collision::sampleValue(volume.at(x, y, z)) <= threshold)) {
                    continue;
                }
                const Vec3 p = collision::latticePoint(config, x, y, z);
                const Vec3 below = p - box.min;  // per axis: how far p lies above the lower face
                const Vec3 above = box.max - p;  // and below the upper face
                float distance;
                if (below(0) > 0.0f && below(1) > 0.0f && below(2) > 0.0f && above(0) > 0.0f &&
                    above(1) > 0.0f && above(2) > 0.0f) {
                    // Strictly inside: minus the depth to the nearest face.
                    float depth = below(0);
                    for (int a = 0; a < 3; ++a) {
                        depth = std::min(depth, std::min(below(a), above(a)));
                    }
                    distance = -depth;
                } else {
                    float sum = 0.0f;
                    for (int a = 0; a < 3; ++a) {
                        const float outside = std::min(std::min(below(a), above(a)), 0.0f);
                        sum += outside * outside;
                    }
                    distance = std::sqrt(sum);
                }
                if (distance < best) {
                    best = distance;
                    bestPoint = p;
                }
            }
        }
    }
    return std::make_pair(best, bestPoint);
}

CollisionResult checkCollision(const DepthGrid& grid, const Vec3& point, Vec3& collisionPoint,
                               float threshold) {
    if (collision::hasNaN(point)) {
        return UNKNOWN;
    }
    const KeyType key = grid.keyOf(point);
    DepthGrid::Ptr block = grid.get(key);
    if (!block) {
        return UNKNOWN;
    }
    const VolumeConfig& config = grid.config();
    const Vec3 local = grid.localPosition(point, key);
    int index[3];
    for (int a = 0; a < 3; ++a) {
        const int64_t i = collision::nearestLatticeIndex(local(a), config.inverseSpacing(a));
        if (i < 0 || i > config.bounds(a)) {
            return UNKNOWN;
        }
        index[a] = static_cast<int>(i);
    }
    const Vec2S& sample = block->at(index[0], index[1], index[2]);
    if (sample(1) == 0) {
        return UNKNOWN;
    }
    if (collision::sampleValue(sample) <= threshold) {
        collisionPoint =
            collision::latticePoint(config, index[0], index[1], index[2]) + grid.blockOrigin(key);
        return COLLISION;
    }
    return NO_COLLISION;
}

CollisionResult checkCollision(const DepthGrid& grid, const Box& box, Vec3& collisionPoint,
                               float threshold) {
    return checkCollision(grid, box, AllSamples{}, collisionPoint, threshold);
}

CollisionResult checkCollision(const DepthGrid& grid, const Sphere& sphere, Vec3& collisionPoint,
                               float threshold) {
    const Vec3 extent(sphere.radius, sphere.radius, sphere.radius);
    const Box box{sphere.center - extent, sphere.center + extent};
    return checkCollision(grid, box, InsideSphere{sphere.radius * sphere.radius}, collisionPoint,
                          threshold);
}

std::pair<float, Vec3> clearanceDistance(const DepthGrid& grid, const Vec3& point,
                                         float maxDistance, float threshold) {
    if (collision::hasNaN(point)) {
        return std::make_pair(maxDistance, Vec3(0.0f, 0.0f, 0.0f));
    }
    return gridClearance(grid, clearanceRange(grid, point, point, maxDistance), maxDistance,
                         [&](const DepthVolume& volume, const Vec3& origin) {
                             return clearanceDistance(volume, point - origin, maxDistance,
                                                      threshold);
                         });
}

std::pair<float, Vec3> clearanceDistance(const DepthGrid& grid, const Box& box, float maxDistance,
                                         float threshold) {
    if (collision::hasNaN(box.min) || collision::hasNaN(box.max)) {
        return std::make_pair(maxDistance, Vec3(0.0f, 0.0f, 0.0f));
    }
    return gridClearance(grid, clearanceRange(grid, box.min, box.max, maxDistance), maxDistance,
                         [&](const DepthVolume& volume, const Vec3& origin) {
                             const Box local{box.min - origin, box.max - origin};
                             return clearanceDistance(volume, local, maxDistance, threshold);
                         });
}

}  // namespace Solid
