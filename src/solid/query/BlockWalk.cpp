#include "solid/query/BlockWalk.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Solid {

namespace {

// Block coordinates of the walker are kept within +-2^24, where a float still counts single
// blocks, so that their differences cannot overflow.
constexpr float kMaxWalkKey = 16777216.0f;

// Truncation toward zero of a finite block coordinate, clamped into the walker's range.
inline int truncToWalkKey(float v) {
    if (v > kMaxWalkKey) {
        return static_cast<int>(kMaxWalkKey);
    }
    if (v < -kMaxWalkKey) {
        return -static_cast<int>(kMaxWalkKey);
    }
    return static_cast<int>(v);
}

using Float4 = float __attribute__((vector_size(16)));
using Int4 = int32_t __attribute__((vector_size(16)));

// `value` into every lane of `v`; by reference, as a vector wider than the baseline's registers
// may not be returned by a function compiled for the baseline.
template <typename V, typename T>
__attribute__((always_inline)) inline void splat(V& v, T value) {
    T lanes[sizeof(V) / sizeof(T)];
    for (T& lane : lanes) {
        lane = value;
    }
    std::memcpy(&v, lanes, sizeof(v));
}

// The unsigned lanes of the same width as I.
template <typename I>
struct UnsignedLanes;
template <>
struct UnsignedLanes<Int4> {
    using Type = uint32_t __attribute__((vector_size(16)));
};

// `a += b` lane by lane with wrap-around: the offsets and cell indices of a lane far outside the
// box pass the ends of the int range, which signed lanes must not.
template <typename I>
__attribute__((always_inline)) inline void addWrapping(I& a, const I& b) {
    using U = typename UnsignedLanes<I>::Type;
    a = __builtin_convertvector(__builtin_convertvector(a, U) + __builtin_convertvector(b, U), I);
}

// Whether any lane of `v` is not zero.
__attribute__((always_inline)) inline bool anyLane(const Int4& v) {
#if defined(__SSE2__)
    return _mm_movemask_epi8(__builtin_bit_cast(__m128i, v)) != 0;
#else
    return (v[0] | v[1] | v[2] | v[3]) != 0;
#endif
}

// Whether the byte at `cells + cell` is set, in the lanes of `mask` (-1); 0 in the others, which
// read nothing.
__attribute__((always_inline)) inline void cellsSet(const uint8_t* cells, const Int4& cell,
                                                    const Int4& mask, Int4& set) {
    // Lanes outside the mask read cell 0, which every box has, and are masked off after.
    const Int4 index = cell & mask;
    int32_t read[4];
    for (int lane = 0; lane < 4; ++lane) {
        read[lane] = cells[static_cast<uint32_t>(index[lane])];
    }
    std::memcpy(&set, read, sizeof(set));
    set = (set != Int4{}) & mask;
}

#if defined(__x86_64__)
using Float8 = float __attribute__((vector_size(32)));
using Int8 = int32_t __attribute__((vector_size(32)));
template <>
struct UnsignedLanes<Int8> {
    using Type = uint32_t __attribute__((vector_size(32)));
};

// The eight lookups of a packet in one gather of 32-bit words at byte offsets: the cells are
// readable three bytes past the box.
__attribute__((target("avx2"))) inline void cellsSet(const uint8_t* cells, const Int8& cell,
                                                     const Int8& mask, Int8& set) {
    const __m256i words = _mm256_mask_i32gather_epi32(
        _mm256_setzero_si256(), reinterpret_cast<const int*>(cells),
        __builtin_bit_cast(__m256i, cell), __builtin_bit_cast(__m256i, mask), 1);
    set = (__builtin_bit_cast(Int8, words) & 0xFF) != Int8{};
}

__attribute__((target("avx2"))) inline bool anyLane(const Int8& v) {
    const __m256i bits = __builtin_bit_cast(__m256i, v);
    return _mm256_testz_si256(bits, bits) == 0;
}

#endif

// The walks of N segments from a finite `from` at once, lane by lane the arithmetic of
// BlockWalker and walkSegment: a lane leaves the packet when its walk ends, and the packet runs
// until every lane has left. Comparisons give -1 in a lane where they hold, so masks select and
// count. A lane keeps its offset from the low corner of the occupancy box (sign bit flipped)
// instead of its key, its cell index, and the signed distance to its end block per axis, each
// moved with the walker.
template <typename F, typename I, int N>
__attribute__((always_inline)) inline void walkPacket(const BlockOccupancy& occupancy,
                                                      const Vec3& inverseDimension,
                                                      const Vec3& from, const Vec3* to,
                                                      unsigned maxBlocks, WalkResult* out) {
    float ends[3][N];
    int32_t walking[N];
    for (int lane = 0; lane < N; ++lane) {
        const Vec3& t = to[lane];
        const bool finite = std::isfinite(t(0)) && std::isfinite(t(1)) && std::isfinite(t(2));
        walking[lane] = finite ? -1 : 0;
        // A lane without a walk gets the harmless segment of one point, and never moves.
        for (int a = 0; a < 3; ++a) {
            ends[a][lane] = finite ? t(a) : from(a);
        }
    }
    const I zero = I{};
    F walkKeyLimit;
    splat(walkKeyLimit, kMaxWalkKey);
    F noStep;
    splat(noStep, kNoStepDelta);
    I active;
    std::memcpy(&active, walking, sizeof(I));
    I offset[3];     // key - low corner, sign bit flipped
    I remaining[3];  // (end - key) * step
    I step[3];
    I cellStep[3];  // change of the cell index by one step
    F tMax[3];
    F tDelta[3];
    uint32_t cell = 0;
    uint32_t stride = 1;
    for (int a = 0; a < 3; ++a) {
        // truncToWalkKey of both ends, in lanes.
        const int32_t current = truncToWalkKey(from(a) * inverseDimension(a));
        F e;
        std::memcpy(&e, ends[a], sizeof(F));
        e = e * inverseDimension(a);
        e = e > walkKeyLimit ? walkKeyLimit : e;
        e = e < -walkKeyLimit ? -walkKeyLimit : e;
        const I end = __builtin_convertvector(e, I);
        const I delta = end - current;
        step[a] = (delta < zero) - (delta > zero);
        const F inverse = 1.0f / __builtin_convertvector(delta, F);
        const F magnitude = delta != zero ? inverse : noStep;
        tDelta[a] = magnitude < F{} ? -magnitude : magnitude;  // fabs of a number
        tMax[a] = kWalkerStartFraction * tDelta[a];
        remaining[a] = (end - current) * step[a];
        const int32_t start = static_cast<int32_t>(static_cast<uint32_t>(current) -
                                                   static_cast<uint32_t>(occupancy.low(a)));
        splat(offset[a], static_cast<int32_t>(static_cast<uint32_t>(start) ^ 0x80000000u));
        cell += static_cast<uint32_t>(start) * stride;
        I strides;
        splat(strides, static_cast<int32_t>(stride));
        cellStep[a] = step[a] * strides;
        stride *= occupancy.extent[a];
    }
    I extentFlipped[3];
    for (int a = 0; a < 3; ++a) {
        splat(extentFlipped[a], static_cast<int32_t>(occupancy.extent[a] ^ 0x80000000u));
    }
    I cells;
    splat(cells, static_cast<int32_t>(cell));
    I found = zero;
    I exhausted = zero;
    I key[3] = {zero, zero, zero};  // offsets of the block found
    // A lane that found its block walks on until the packet ends, and its later lookups are
    // ignored: so the lookups, whose latency is long, are off the chain from one step to the
    // next, and only the end of the packet waits for them. A lane still walking has visited as
    // many blocks as the packet has taken steps.
    for (unsigned steps = 0; anyLane(active & ~found); ++steps) {
        I hasNext = remaining[1] != zero ? remaining[1] > zero : remaining[2] >= zero;
        // With start and end in one block, the first advance goes along x, which does not move,
        // and leaves -1 as x's remaining distance: the walk ends after that block, as it should.
        hasNext = remaining[0] != zero ? remaining[0] > zero : hasNext;
        active &= hasNext;
        if (steps == maxBlocks) {
            exhausted = active;
            break;
        }

        const I inBox = active & (offset[0] < extentFlipped[0]) & (offset[1] < extentFlipped[1]) &
                        (offset[2] < extentFlipped[2]);
        I exists;
        cellsSet(occupancy.cells, cells, inBox, exists);
        const I first = exists & ~found;
        for (int a = 0; a < 3; ++a) {
            key[a] = first ? offset[a] : key[a];
        }
        found |= exists;

        const I yBeforeX = tMax[1] < tMax[0];
        const F least = yBeforeX ? tMax[1] : tMax[0];
        const I alongZ = tMax[2] < least;
        const I along[3] = {active & ~alongZ & ~yBeforeX, active & ~alongZ & yBeforeX,
                            active & alongZ};
        for (int a = 0; a < 3; ++a) {
            addWrapping(offset[a], along[a] & step[a]);
            addWrapping(cells, along[a] & cellStep[a]);
            remaining[a] += along[a];
            tMax[a] = along[a] ? tMax[a] + tDelta[a] : tMax[a];
        }
    }
    for (int lane = 0; lane < N; ++lane) {
        out[lane].found = found[lane] != 0;
        // A lane that walked on past its block may have run into the limit since.
        out[lane].exhausted = exhausted[lane] != 0 && found[lane] == 0;
        out[lane].block = KeyType(0, 0, 0);
        if (out[lane].found) {
            int32_t block[3];
            for (int a = 0; a < 3; ++a) {
                block[a] =
                    static_cast<int32_t>((static_cast<uint32_t>(key[a][lane]) ^ 0x80000000u) +
                                         static_cast<uint32_t>(occupancy.low(a)));
            }
            out[lane].block = KeyType(block[0], block[1], block[2]);
        }
    }
}

// Whole packets of N, and the rest walked in a packet whose spare lanes repeat the last segment.
template <typename F, typename I, int N>
__attribute__((always_inline)) inline void walkAll(const BlockOccupancy& occupancy,
                                                   const Vec3& inverseDimension, const Vec3& from,
                                                   const Vec3* to, int count, unsigned maxBlocks,
                                                   WalkResult* out) {
    if (!std::isfinite(from(0)) || !std::isfinite(from(1)) || !std::isfinite(from(2))) {
        // No walk starts there (a camera that is not finite): as walkSegment, nothing is found.
        for (int i = 0; i < count; ++i) {
            out[i] = WalkResult{KeyType(0, 0, 0), false, false};
        }
        return;
    }
    int first = 0;
    for (; first + N <= count; first += N) {
        walkPacket<F, I, N>(occupancy, inverseDimension, from, to + first, maxBlocks, out + first);
    }
    if (first < count) {
        Vec3 rest[N];
        WalkResult results[N];
        for (int lane = 0; lane < N; ++lane) {
            rest[lane] = to[std::min(first + lane, count - 1)];
        }
        walkPacket<F, I, N>(occupancy, inverseDimension, from, rest, maxBlocks, results);
        for (int lane = 0; first + lane < count; ++lane) {
            out[first + lane] = results[lane];
        }
    }
}

void walkBy4(const BlockOccupancy& occupancy, const Vec3& inverseDimension, const Vec3& from,
             const Vec3* to, int count, unsigned maxBlocks, WalkResult* out) {
    walkAll<Float4, Int4, 4>(occupancy, inverseDimension, from, to, count, maxBlocks, out);
}

#if defined(__x86_64__)
// The same with the blends and multiplications of SSE4.1, which the baseline lacks: a quarter
// faster.
__attribute__((target("sse4.1"))) void walkBy4Sse41(const BlockOccupancy& occupancy,
                                                    const Vec3& inverseDimension, const Vec3& from,
                                                    const Vec3* to, int count, unsigned maxBlocks,
                                                    WalkResult* out) {
    walkAll<Float4, Int4, 4>(occupancy, inverseDimension, from, to, count, maxBlocks, out);
}

__attribute__((target("avx2"))) void walkBy8(const BlockOccupancy& occupancy,
                                             const Vec3& inverseDimension, const Vec3& from,
                                             const Vec3* to, int count, unsigned maxBlocks,
                                             WalkResult* out) {
    walkAll<Float8, Int8, 8>(occupancy, inverseDimension, from, to, count, maxBlocks, out);
}
#endif

WalkSegments chooseWalk() {
    const WalkSegments wide = walkSegmentsBy8();
    return wide != nullptr ? wide : walkSegmentsBy4();
}

}  // namespace

BlockWalker::BlockWalker(const Vec3& from, const Vec3& to, const Vec3& inverseDimension) {
    for (int a = 0; a < 3; ++a) {
        WalkerAxis& axis = mAxes[a];
        axis.current = truncToWalkKey(from[a] * inverseDimension[a]);
        axis.end = truncToWalkKey(to[a] * inverseDimension[a]);
        const int delta = axis.end - axis.current;
        axis.step = (delta > 0) - (delta < 0);
        // tMax and tDelta share the sign of the step, and the axis choice compares magnitudes:
        // only those are kept. |tMax + tDelta| is |tMax| + |tDelta| rounded, as rounding is the
        // same for both signs, so the magnitudes follow the signed values exactly.
        axis.tDelta = std::fabs(delta != 0 ? 1.0f / static_cast<float>(delta) : kNoStepDelta);
        axis.tMax = kWalkerStartFraction * axis.tDelta;
    }
}

WalkSegments walkSegmentsBy4() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("sse4.1")) {
        return walkBy4Sse41;
    }
#endif
    return walkBy4;
}

WalkSegments walkSegmentsBy8() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) {
        return walkBy8;
    }
#endif
    return nullptr;
}

void walkSegments(const BlockOccupancy& occupancy, const Vec3& inverseDimension, const Vec3& from,
                  const Vec3* to, int count, unsigned maxBlocks, WalkResult* out) {
    static const WalkSegments walk = chooseWalk();
    walk(occupancy, inverseDimension, from, to, count, maxBlocks, out);
}

}  // namespace Solid
