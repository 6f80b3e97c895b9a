// The block walk in front of a march: a coarse digital line of blocks from the block of a
// segment's start to the block of its end, which stops at the first block that exists. It only
// finds where a march may start; the march then reads true keys.
//
// The frame renderer walks the rays of many neighbouring pixels, whose walks are nearly equally
// long: it walks them in packets of vector lanes, one ray per lane, each lane with the arithmetic
// of the single walker.
#ifndef VELMORA_SOLID_QUERY_BLOCKWALK_H
#define VELMORA_SOLID_QUERY_BLOCKWALK_H

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "math/SolidTypes.h"

namespace Solid {

// tDelta of an axis along which the walk does not move: larger than any tMax of a moving axis.
constexpr float kNoStepDelta = 1e30f;
// The walker starts half a block into its first block on every axis.
constexpr float kWalkerStartFraction = 0.5f;

// One axis of a walker: block coordinate now and at the end, the step (-1, 0 or +1), and the
// magnitudes of tMax and tDelta.
struct WalkerAxis {
    int current;
    int end;
    int step;
    float tMax;
    float tDelta;
};

// The block walker of one segment, which assumes the segment starts and ends at block centres.
// Block coordinates are truncated toward zero rather than floored.
class BlockWalker {
public:
    BlockWalker(const Vec3& from, const Vec3& to, const Vec3& inverseDimension);

    // Whether `current` is still a block of the walk: the remaining distance to `end`, compared
    // axis by axis in the order x, y, z, has not been overshot.
    bool hasNext() const {
        if (mAxes[0].step == 0 && mAxes[1].step == 0 && mAxes[2].step == 0) {
            // Start and end in one block: exactly that block, before the first advance.
            for (const WalkerAxis& axis : mAxes) {
                if (axis.tMax != kWalkerStartFraction * axis.tDelta) {
                    return false;
                }
            }
            return true;
        }
        for (int a = 0; a < 2; ++a) {
            const int remaining = (mAxes[a].end - mAxes[a].current) * mAxes[a].step;
            if (remaining != 0) {
                return remaining > 0;
            }
        }
        return (mAxes[2].end - mAxes[2].current) * mAxes[2].step >= 0;
    }

    KeyType current() const {
        return KeyType(mAxes[0].current, mAxes[1].current, mAxes[2].current);
    }

    // Moves to the next block along the axis of the smallest |tMax|; ties go to x, then y. Every
    // axis is updated by a select, not through an index: the state stays in registers.
    void advance() {
        const bool yBeforeX = mAxes[1].tMax < mAxes[0].tMax;
        const float least = yBeforeX ? mAxes[1].tMax : mAxes[0].tMax;
        const bool alongZ = mAxes[2].tMax < least;
        const bool along[3] = {!alongZ && !yBeforeX, !alongZ && yBeforeX, alongZ};
        for (int a = 0; a < 3; ++a) {
            mAxes[a].current += along[a] ? mAxes[a].step : 0;
            mAxes[a].tMax = along[a] ? mAxes[a].tMax + mAxes[a].tDelta : mAxes[a].tMax;
        }
    }

    const WalkerAxis& axis(int a) const { return mAxes[a]; }

private:
    WalkerAxis mAxes[3];
};

// Bytes after the last cell of a BlockOccupancy, which a walk may read and ignores.
constexpr size_t kWalkCellPadding = 3;

// A byte per block over a box of block keys, 1 where a block exists, followed by
// kWalkCellPadding bytes: what a walk looks up.
struct BlockOccupancy {
    const uint8_t* cells = nullptr;  // x fastest, then y, then z
    KeyType low{0, 0, 0};            // lowest key of the box
    uint32_t extent[3] = {0, 0, 0};  // blocks per axis

    bool holds(const KeyType& key) const {
        uint32_t offset[3];
        for (int a = 0; a < 3; ++a) {
            // Unsigned: a key below the box wraps to a large offset.
            offset[a] = static_cast<uint32_t>(key(a)) - static_cast<uint32_t>(low(a));
            if (offset[a] >= extent[a]) {
                return false;
            }
        }
        return cells[offset[0] + extent[0] * (offset[1] + extent[1] * offset[2])] != 0;
    }
};

// What the walk of one segment found: the first existing block, or none; `exhausted` when the
// walk stopped at its block limit with blocks left.
struct WalkResult {
    KeyType block;
    bool found;
    bool exhausted;
};

// The walk of one segment, at most `maxBlocks` blocks, looking blocks up with `exists(key)`.
// Segments with an end that is not finite find nothing.
template <typename Exists>
WalkResult walkSegment(const Vec3& from, const Vec3& to, const Vec3& inverseDimension,
                       unsigned maxBlocks, Exists&& exists) {
    WalkResult result{KeyType(0, 0, 0), false, false};
    if (!std::isfinite(from(0)) || !std::isfinite(from(1)) || !std::isfinite(from(2)) ||
        !std::isfinite(to(0)) || !std::isfinite(to(1)) || !std::isfinite(to(2))) {
        return result;
    }
    BlockWalker walker(from, to, inverseDimension);
    unsigned visited = 0;
    for (; visited < maxBlocks && walker.hasNext(); ++visited) {
        const KeyType key = walker.current();
        if (exists(key)) {
            result.block = key;
            result.found = true;
            return result;
        }
        walker.advance();
    }
    result.exhausted = visited == maxBlocks && walker.hasNext();
    return result;
}

// The walks from `from` to each of `to[0]` ... `to[count - 1]` in `occupancy`, as walkSegment
// gives them, in packets of rays: with eight lanes where the processor has AVX2, else four.
// `occupancy` must have cells.
void walkSegments(const BlockOccupancy& occupancy, const Vec3& inverseDimension, const Vec3& from,
                  const Vec3* to, int count, unsigned maxBlocks, WalkResult* out);

// The packet walks of each width this processor runs, for tests: four lanes (with SSE4.1 where
// the processor has it), and eight where it has AVX2 (null otherwise).
using WalkSegments = void (*)(const BlockOccupancy&, const Vec3&, const Vec3&, const Vec3*, int,
                              unsigned, WalkResult*);
WalkSegments walkSegmentsBy4();
WalkSegments walkSegmentsBy8();

}  // namespace Solid

#endif  // VELMORA_SOLID_QUERY_BLOCKWALK_H
