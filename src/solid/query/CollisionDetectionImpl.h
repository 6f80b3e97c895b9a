// Template bodies of CollisionDetection.h: the box scans with a sample filter, and the walk over
// the blocks of a key range that the grid-level queries share.
#ifndef VELMORA_SOLID_QUERY_COLLISIONDETECTIONIMPL_H
#define VELMORA_SOLID_QUERY_COLLISIONDETECTIONIMPL_H

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "common/Logger.h"
#include "common/Vector.h"

namespace Solid {
namespace collision {

// Lattice indices and block keys of the queries are kept within +-2^30, so that sums and
// differences of two of them fit an int64_t and a clamped key is still an int.
constexpr int64_t kMaxIndex = int64_t(1) << 30;
// A key range with at most this many keys is scanned key by key even when the grid holds fewer
// blocks; beyond it, and beyond the grid's block count, only the existing blocks are visited.
constexpr double kDirectScanKeys = 4096.0;

// trunc(v) clamped into +-kMaxIndex; NaN gives -kMaxIndex, below every index of a block.
inline int64_t truncIndex(float v) {
    if (!(v > -static_cast<float>(kMaxIndex))) {
        return -kMaxIndex;
    }
    if (v >= static_cast<float>(kMaxIndex)) {
        return kMaxIndex;
    }
    return static_cast<int64_t>(v);
}

// floor(v) clamped the same way.
inline int64_t floorIndex(float v) {
    return truncIndex(std::floor(v));
}

inline int64_t clampIndex(int64_t v) {
    return std::min(std::max(v, -kMaxIndex), kMaxIndex);
}

// Nearest lattice index of a block-local coordinate, as trunc(0.5 + c / spacing).
inline int64_t nearestLatticeIndex(float c, float inverseSpacing) {
    return truncIndex(0.5f + c * inverseSpacing);
}

inline bool hasNaN(const Vec3& v) {
    return std::isnan(v(0)) || std::isnan(v(1)) || std::isnan(v(2));
}

inline Vec3 latticePoint(const VolumeConfig& config, int x, int y, int z) {
    return Vec3(config.spacing(0) * static_cast<float>(x),
                config.spacing(1) * static_cast<float>(y),
                config.spacing(2) * static_cast<float>(z));
}

inline float sampleValue(const Vec2S& sample) {
    return static_cast<float>(sample(0)) * kDepthValueScale;
}

// An inclusive range of block keys.
struct KeyRange {
    int64_t lo[3];
    int64_t hi[3];

    bool empty() const { return lo[0] > hi[0] || lo[1] > hi[1] || lo[2] > hi[2]; }
    double count() const {
        double n = 1.0;
        for (int a = 0; a < 3; ++a) {
            n *= static_cast<double>(hi[a] - lo[a] + 1);
        }
        return n;
    }
    bool contains(const KeyType& k) const {
        for (int a = 0; a < 3; ++a) {
            if (k(a) < lo[a] || k(a) > hi[a]) {
                return false;
            }
        }
        return true;
    }
};

// Order of a scan: z outermost, then y, then x.
inline bool scanOrderLess(const KeyType& a, const KeyType& b) {
    if (a(2) != b(2)) {
        return a(2) < b(2);
    }
    if (a(1) != b(1)) {
        return a(1) < b(1);
    }
    return a(0) < b(0);
}

// Key after `k` in scan order; false past the end of the range.
inline bool nextInRange(const KeyRange& r, KeyType& k) {
    for (int a = 0; a < 3; ++a) {
        if (k(a) < r.hi[a]) {
            ++k(a);
            return true;
        }
        k(a) = static_cast<int>(r.lo[a]);
    }
    return false;
}

// Visits the blocks of a non-empty range in scan order: `onBlock(key, volume)` for each block
// that exists, with its mutex held and no grid lock, and `onMissing(key)` for the first key that
// has no block (the later ones tell a caller nothing new). Either returns false to stop.
//
// Key by key when the range is small; otherwise the existing blocks of the range are collected,
// sorted into scan order, and the first missing key is found among the first keys of the range.
// Both ways make the same calls.
template <typename OnBlock, typename OnMissing>
void visitBlocks(const DepthGrid& grid, const KeyRange& range, OnBlock&& onBlock,
                 OnMissing&& onMissing) {
    const double keys = range.count();
    if (keys <= kDirectScanKeys || keys <= static_cast<double>(grid.size())) {
        bool missingSeen = false;
        KeyType k(static_cast<int>(range.lo[0]), static_cast<int>(range.lo[1]),
                  static_cast<int>(range.lo[2]));
        do {
            DepthGrid::Ptr block = grid.get(k);
            if (block) {
                if (!onBlock(k, *block)) {
                    return;
                }
            } else if (!missingSeen) {
                missingSeen = true;
                if (!onMissing(k)) {
                    return;
                }
            }
        } while (nextInRange(range, k));
        return;
    }

    AR::Common::Vector<KeyType> existing;
    grid.for_each([&](const KeyType& key, const DepthVolume&) {
        if (range.contains(key)) {
            existing.push_back(key);
        }
    });
    std::sort(existing.begin(), existing.end(), scanOrderLess);
    // The first missing key: the first place where the range and the sorted blocks part.
    KeyType missing(static_cast<int>(range.lo[0]), static_cast<int>(range.lo[1]),
                    static_cast<int>(range.lo[2]));
    bool hasMissing = true;
    for (const KeyType& key : existing) {
        if (key != missing) {
            break;
        }
        if (!nextInRange(range, missing)) {
            hasMissing = false;
            break;
        }
    }
    bool missingDone = !hasMissing;
    for (const KeyType& key : existing) {
        if (!missingDone && scanOrderLess(missing, key)) {
            missingDone = true;
            if (!onMissing(missing)) {
                return;
            }
        }
        DepthGrid::Ptr block = grid.get(key);
        if (block && !onBlock(key, *block)) {
            return;
        }
    }
    if (!missingDone) {
        onMissing(missing);
    }
}

// Block keys that the box [min, max] (world metres) touches.
inline KeyRange blockRange(const DepthGrid& grid, const Vec3& min, const Vec3& max) {
    KeyRange r;
    for (int a = 0; a < 3; ++a) {
        r.lo[a] = floorIndex(min(a) * grid.inverseDimension()(a));
        r.hi[a] = floorIndex(max(a) * grid.inverseDimension()(a));
    }
    return r;
}

}  // namespace collision

template <typename Functor>
CollisionResult checkCollision(const DepthVolume& volume, const Box& box, Functor functor,
                               Vec3& collisionPoint, float threshold) {
    const VolumeConfig& config = volume.config();
    int64_t lo[3];
    int64_t hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = std::max<int64_t>(
            0, collision::nearestLatticeIndex(box.min(a), config.inverseSpacing(a)));
        hi[a] = std::min<int64_t>(
            config.bounds(a), collision::nearestLatticeIndex(box.max(a), config.inverseSpacing(a)));
        if (hi[a] < lo[a]) {
            return UNKNOWN;
        }
    }
    CollisionResult result = NO_COLLISION;
    for (int z = static_cast<int>(lo[2]); z <= hi[2]; ++z) {
        for (int y = static_cast<int>(lo[1]); y <= hi[1]; ++y) {
            for (int x = static_cast<int>(lo[0]); x <= hi[0]; ++x) {
                if (!functor(volume, Index3(x, y, z), box)) {
                    continue;
                }
                const Vec2S& sample = volume.at(x, y, z);
                if (sample(1) != 0) {
                    if (collision::sampleValue(sample) <= threshold) {
                        collisionPoint = collision::latticePoint(config, x, y, z);
                        return COLLISION;
                    }
                } else if (result == NO_COLLISION) {
                    result = UNKNOWN;
                    collisionPoint = collision::latticePoint(config, x, y, z);
                }
            }
        }
    }
    return result;
}

template <typename Functor>
CollisionResult checkCollision(const DepthGrid& grid, const Box& box, Functor functor,
                               Vec3& collisionPoint, float threshold) {
    if (collision::hasNaN(box.min) || collision::hasNaN(box.max)) {
        return UNKNOWN;
    }
    const collision::KeyRange range = collision::blockRange(grid, box.min, box.max);
    CollisionResult result = NO_COLLISION;
    if (range.empty()) {
        return result;
    }
    const VolumeConfig& config = grid.config();
    collision::visitBlocks(
        grid, range,
        [&](const KeyType& key, const DepthVolume& volume) {
            const Vec3 origin = grid.blockOrigin(key);
            const Box local{box.min - origin, box.max - origin};
            Vec3 localPoint(0.0f, 0.0f, 0.0f);
            const CollisionResult r = checkCollision(volume, local, functor, localPoint, threshold);
            if (r == COLLISION) {
                collisionPoint = origin + localPoint;
                result = COLLISION;
                return false;
            }
            if (r == UNKNOWN) {
                if (result == NO_COLLISION) {
                    result = UNKNOWN;
                    collisionPoint = origin + localPoint;
                }
            } else if (r != NO_COLLISION) {
                AR_LOG_ERROR(
                    "Is !NO_COLLISION AND not COLLISION OR UNKNOWN, this should not happen");
            }
            return true;
        },
        [&](const KeyType& key) {
            if (result == NO_COLLISION) {
                result = UNKNOWN;
                // The first lattice point of the missing block that lies in the box.
                const Vec3 origin = grid.blockOrigin(key);
                for (int a = 0; a < 3; ++a) {
                    const float c = std::max(origin(a), box.min(a));
                    collisionPoint(a) =
                        std::floor(0.5f + c * config.inverseSpacing(a)) * config.spacing(a);
                }
            }
            return true;
        });
    return result;
}

}  // namespace Solid

#endif  // VELMORA_SOLID_QUERY_COLLISIONDETECTIONIMPL_H
