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
#include <cmath>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON) && defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace Solid {

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
};
#else
using NativeLanes = PortableLanes;
#endif

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
    unsigned samples = state.samples;
    if (!mayStall) {
        do {
            ++skipped;
            before = p;
            p = p + delta;
        } while (Lanes::within(lower, p, upper) && skipped < cap && ++samples < maxSamples);
    } else {
        do {
            ++skipped;
            before = p;
            p = p + delta;
            if (p.last() == before.last()) {
                return false;
            }
        } while (Lanes::within(lower, p, upper) && skipped < cap && ++samples < maxSamples);
    }
    state.samples = samples;
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
