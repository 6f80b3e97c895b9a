// Stepping a march over samples that need no read: the position (x, y, z) and the ray parameter
// d of the march in one vector of four floats, moved by one addition per lane and tested against
// a box and the far plane at once. Each lane's addition is the IEEE float addition the scalar
// march makes, so every position and depth is the same float as when stepped one by one.
//
// Free of the rest of the library, so that the Arm cross build can compare its NEON lanes with
// the portable ones.
#ifndef VELMORA_SOLID_QUERY_MARCHSTEPS_H
#define VELMORA_SOLID_QUERY_MARCHSTEPS_H

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON) && defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace Solid {

// The key range of a block coordinate: floor(v) of v in [-2^31, 2^31); other values, and NaN,
// have no key and give INT32_MIN.
constexpr float kLowestKeyCoordinate = -2147483648.0f;
constexpr float kKeyCoordinateLimit = 2147483648.0f;

// Where a position lies, per axis (lane 3 unused): the key of its block, and in that block the
// lattice cell of a trilinear read, its lower and upper lattice index and the fraction between.
struct SampleCell {
    int32_t key[4];
    int32_t i0[4];
    int32_t i1[4];
    float f[4];
};

// The block and lattice measures of a grid in lanes, for `locate`: the block edge and its
// inverse, the inverse sample spacing, and the last lattice index per axis.
template <typename Lanes>
struct CellFrame {
    Lanes dimension;
    Lanes inverseDimension;
    Lanes inverseSpacing;
    int32_t bound[4];
};

// Four floats in plain arithmetic, for processors without vector lanes of their own.
struct PortableLanes {
    float v[4];
    static PortableLanes of(float x, float y, float z, float w) {
        return PortableLanes{{x, y, z, w}};
    }
    PortableLanes operator+(const PortableLanes& o) const {
        return PortableLanes{{v[0] + o.v[0], v[1] + o.v[1], v[2] + o.v[2], v[3] + o.v[3]}};
    }
    // True when low <= p <= high in every lane.
    static bool within(const PortableLanes& low, const PortableLanes& p,
                       const PortableLanes& high) {
        bool inside = true;
        for (int a = 0; a < 4; ++a) {
            inside = inside && low.v[a] <= p.v[a] && p.v[a] <= high.v[a];
        }
        return inside;
    }
    void store(float (&out)[4]) const { std::memcpy(out, v, sizeof(out)); }
    float last() const { return v[3]; }
    static void locate(const PortableLanes& p, const CellFrame<PortableLanes>& frame,
                       SampleCell& out);
};

#if defined(__SSE2__)
struct NativeLanes {
    __m128 v;
    static NativeLanes of(float x, float y, float z, float w) {
        return NativeLanes{_mm_setr_ps(x, y, z, w)};
    }
    NativeLanes operator+(const NativeLanes& o) const { return NativeLanes{_mm_add_ps(v, o.v)}; }
    static bool within(const NativeLanes& low, const NativeLanes& p, const NativeLanes& high) {
        const __m128 inside = _mm_and_ps(_mm_cmple_ps(low.v, p.v), _mm_cmple_ps(p.v, high.v));
        return _mm_movemask_ps(inside) == 0xF;
    }
    void store(float (&out)[4]) const { _mm_storeu_ps(out, v); }
    float last() const { return _mm_cvtss_f32(_mm_shuffle_ps(v, v, _MM_SHUFFLE(3, 3, 3, 3))); }

    static void locate(const NativeLanes& p, const CellFrame<NativeLanes>& frame, SampleCell& out) {
        const __m128 v = _mm_mul_ps(p.v, frame.inverseDimension.v);
        const __m128i t = _mm_cvttps_epi32(v);
        const __m128 inRange = _mm_and_ps(_mm_cmpge_ps(v, _mm_set1_ps(kLowestKeyCoordinate)),
                                          _mm_cmplt_ps(v, _mm_set1_ps(kKeyCoordinateLimit)));
        // One less where the truncation rounded up (negative v); all ones is -1.
        const __m128i floored =
            _mm_add_epi32(t, _mm_castps_si128(_mm_cmpgt_ps(_mm_cvtepi32_ps(t), v)));
        const __m128i inside = _mm_castps_si128(inRange);
        const __m128i key = _mm_or_si128(_mm_and_si128(inside, floored),
                                         _mm_andnot_si128(inside, _mm_set1_epi32(INT32_MIN)));
        const __m128 local = _mm_sub_ps(p.v, _mm_mul_ps(frame.dimension.v, _mm_cvtepi32_ps(key)));
        const __m128 u = _mm_mul_ps(local, frame.inverseSpacing.v);
        const __m128i bound = _mm_loadu_si128(reinterpret_cast<const __m128i*>(frame.bound));
        __m128i i = _mm_cvttps_epi32(u);
        i = _mm_andnot_si128(_mm_cmplt_epi32(i, _mm_setzero_si128()), i);
        const __m128i above = _mm_cmpgt_epi32(i, bound);
        i = _mm_or_si128(_mm_and_si128(above, bound), _mm_andnot_si128(above, i));
        const __m128 f = _mm_sub_ps(u, _mm_cvtepi32_ps(i));
        const __m128i next = _mm_and_si128(_mm_castps_si128(_mm_cmpgt_ps(f, _mm_setzero_ps())),
                                           _mm_cmplt_epi32(i, bound));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out.key), key);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out.i0), i);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out.i1), _mm_sub_epi32(i, next));
        _mm_storeu_ps(out.f, f);
    }
};
#elif defined(__ARM_NEON) && defined(__aarch64__)
struct NativeLanes {
    float32x4_t v;
    static NativeLanes of(float x, float y, float z, float w) {
        const float values[4] = {x, y, z, w};
        return NativeLanes{vld1q_f32(values)};
    }
    NativeLanes operator+(const NativeLanes& o) const { return NativeLanes{vaddq_f32(v, o.v)}; }
    static bool within(const NativeLanes& low, const NativeLanes& p, const NativeLanes& high) {
        const uint32x4_t inside = vandq_u32(vcleq_f32(low.v, p.v), vcleq_f32(p.v, high.v));
        return vminvq_u32(inside) != 0;
    }
    void store(float (&out)[4]) const { vst1q_f32(out, v); }
    float last() const { return vgetq_lane_f32(v, 3); }

    static void locate(const NativeLanes& p, const CellFrame<NativeLanes>& frame, SampleCell& out) {
        const float32x4_t v = vmulq_f32(p.v, frame.inverseDimension.v);
        const int32x4_t t = vcvtq_s32_f32(v);
        const uint32x4_t inRange = vandq_u32(vcgeq_f32(v, vdupq_n_f32(kLowestKeyCoordinate)),
                                             vcltq_f32(v, vdupq_n_f32(kKeyCoordinateLimit)));
        // One less where the truncation rounded up (negative v); all ones is -1.
        const int32x4_t floored =
            vaddq_s32(t, vreinterpretq_s32_u32(vcgtq_f32(vcvtq_f32_s32(t), v)));
        const int32x4_t key = vbslq_s32(inRange, floored, vdupq_n_s32(INT32_MIN));
        const float32x4_t local = vsubq_f32(p.v, vmulq_f32(frame.dimension.v, vcvtq_f32_s32(key)));
        const float32x4_t u = vmulq_f32(local, frame.inverseSpacing.v);
        const int32x4_t bound = vld1q_s32(frame.bound);
        const int32x4_t i = vminq_s32(vmaxq_s32(vcvtq_s32_f32(u), vdupq_n_s32(0)), bound);
        const float32x4_t f = vsubq_f32(u, vcvtq_f32_s32(i));
        const uint32x4_t next = vandq_u32(vcgtq_f32(f, vdupq_n_f32(0.0f)), vcltq_s32(i, bound));
        vst1q_s32(out.key, key);
        vst1q_s32(out.i0, i);
        vst1q_s32(out.i1, vsubq_s32(i, vreinterpretq_s32_u32(next)));
        vst1q_f32(out.f, f);
    }
};
#else
using NativeLanes = PortableLanes;
#endif

// The key is the floor of the block coordinate, found by truncation and one correction; a
// lattice index is truncated and clamped into the block, and the upper index of a read steps on
// only off a lattice plane and inside the block. A truncation that no int holds gives INT32_MIN,
// as the x86 conversion does.
inline void PortableLanes::locate(const PortableLanes& p, const CellFrame<PortableLanes>& frame,
                                  SampleCell& out) {
    const auto truncate = [](float v) {
        return v >= kLowestKeyCoordinate && v < kKeyCoordinateLimit ? static_cast<int32_t>(v)
                                                                    : INT32_MIN;
    };
    for (int a = 0; a < 4; ++a) {
        const float v = p.v[a] * frame.inverseDimension.v[a];
        const int32_t t = truncate(v);
        const bool inRange = v >= kLowestKeyCoordinate && v < kKeyCoordinateLimit;
        out.key[a] = inRange ? t - (static_cast<float>(t) > v ? 1 : 0) : INT32_MIN;
        const float local = p.v[a] - frame.dimension.v[a] * static_cast<float>(out.key[a]);
        const float u = local * frame.inverseSpacing.v[a];
        const int32_t i = std::min(std::max(truncate(u), 0), frame.bound[a]);
        out.i0[a] = i;
        out.f[a] = u - static_cast<float>(i);
        out.i1[a] = out.f[a] > 0.0f && i < frame.bound[a] ? i + 1 : i;
    }
}

// Half the distance from |v| to the next float up; NaN for infinities and NaN.
inline float halfUlpAbove(float v) {
    v = std::fabs(v);
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof(bits));
    bits += 1;
    float next;
    std::memcpy(&next, &bits, sizeof(next));
    return 0.5f * (next - v);
}

// Where a march stands: its position, ray parameter and samples taken.
struct MarchState {
    float position[3];
    float d;
    unsigned samples;
};

// Steps the march over samples that need no read while its position stays in the box [low,
// high]: at most `cap` of them, counted in `skipped` (zero on entry). On entry `state` is at the
// first of them; on return at the first sample outside the box (or after the cap), and `last`
// holds the position of the last one stepped over. Each sample counts as the scalar march counts
// it, which ends at the far plane and at `maxSamples` samples. False when the march ends on the
// way: at the far plane or the sample limit before the first step, or where adding a step no
// longer moves d. Past the far plane or at the limit after a step the march ends at its next
// sample, so those leave the loop like the end of the box.
template <typename Lanes>
inline __attribute__((always_inline)) bool stepOverSamples(const float (&low)[3],
                                                           const float (&high)[3], float farPlane,
                                                           float step, const float (&increment)[3],
                                                           unsigned cap, unsigned maxSamples,
                                                           MarchState& state, unsigned& skipped,
                                                           float (&last)[3]) {
    ++state.samples;
    if (!(state.d <= farPlane && state.samples < maxSamples)) {
        return false;
    }
    // A step of more than half an ulp of the largest |d| between here and the far plane always
    // moves d: only rays far beyond any room need the test in the loop.
    const bool mayStall = !(step > halfUlpAbove(std::max(std::fabs(state.d), std::fabs(farPlane))));
    const Lanes lower = Lanes::of(low[0], low[1], low[2], -HUGE_VALF);
    const Lanes upper = Lanes::of(high[0], high[1], high[2], farPlane);
    const Lanes delta = Lanes::of(increment[0], increment[1], increment[2], step);
    Lanes p = Lanes::of(state.position[0], state.position[1], state.position[2], state.d);
    Lanes before = p;
    // The loop goes on while the position is in the box, below the cap and below the sample
    // limit; where the limit ends it, the march ends at its next sample whatever the count.
    const uint32_t limit = std::min(cap, maxSamples - state.samples);
    uint32_t steps = 0;
    if (!mayStall) {
        do {
            ++steps;
            before = p;
            p = p + delta;
        } while (Lanes::within(lower, p, upper) && steps < limit);
    } else {
        do {
            ++steps;
            before = p;
            p = p + delta;
            if (p.last() == before.last()) {
                return false;
            }
        } while (Lanes::within(lower, p, upper) && steps < limit);
    }
    skipped += steps;
    state.samples += steps - 1;
    float now[4];
    float was[4];
    p.store(now);
    before.store(was);
    std::copy(now, now + 3, state.position);
    state.d = now[3];
    std::copy(was, was + 3, last);
    return true;
}

}  // namespace Solid

#endif  // VELMORA_SOLID_QUERY_MARCHSTEPS_H
