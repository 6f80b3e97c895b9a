// The march's vector lanes against plain code on random input: the step-over loop against the
// loop it replaces, and `locate` of two lane types against each other. Header-only and free of
// GoogleTest, for the Arm cross build as well.
#ifndef VELMORA_TESTS_SUPPORT_MARCHSTEPSCHECK_H
#define VELMORA_TESTS_SUPPORT_MARCHSTEPSCHECK_H

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include "solid/query/MarchSteps.h"

namespace Solid {
namespace Test {

// How the loop cases ended (each way should be met), and the first case the lanes got wrong.
struct StepOverOutcomes {
    unsigned ways[5] = {};  // left the box, cap, far plane, sample limit, d stopped moving
    unsigned mismatches = 0;
    std::string firstMismatch;
};

// The loop as the march wrote it first: one sample at a time, each tested before its step.
inline bool plainStepOver(const float (&low)[3], const float (&high)[3], float farPlane, float step,
                          const float (&increment)[3], unsigned cap, unsigned maxSamples,
                          MarchState& s, unsigned& skipped, float (&last)[3], bool& stalled) {
    bool inside = true;
    do {
        inside = true;
        if (!(s.d <= farPlane && ++s.samples < maxSamples)) {
            return false;
        }
        std::memcpy(last, s.position, sizeof(last));
        ++skipped;
        stalled = s.d + step == s.d;
        if (stalled) {
            return false;
        }
        s.d += step;
        for (int a = 0; a < 3; ++a) {
            s.position[a] += increment[a];
            inside = inside && low[a] <= s.position[a] && s.position[a] <= high[a];
        }
    } while (inside && skipped < cap);
    return true;
}

// A position and the grid measures `locate` works with.
struct LocateCase {
    float p[3];
    float dimension;
    float spacing;
};

class MarchCases {
public:
    explicit MarchCases(uint32_t seed) : mState(seed * 2654435761u + 1u) {}

    // `stepOverSamples<Lanes>` against the plain loop on `count` boxes and rays, some with faces
    // the march lands on exactly: where the march ends after the loop (at once or at its next
    // sample) and, where it goes on, every float and count bit for bit.
    template <typename Lanes>
    StepOverOutcomes stepOver(unsigned count) {
        StepOverOutcomes out;
        for (unsigned c = 0; c < count; ++c) {
            float low[3], high[3], increment[3];
            MarchState start{};
            for (int a = 0; a < 3; ++a) {
                start.position[a] = uniform(-3.0f, 3.0f);
                low[a] = start.position[a] - uniform(0.0f, 0.3f);
                high[a] = start.position[a] + uniform(0.0f, 0.3f);
                increment[a] = draw() % 8 == 0 ? 0.0f : uniform(-0.02f, 0.02f);
                float onFace = start.position[a];
                for (uint32_t k = 1 + draw() % 12; k > 0; --k) {
                    onFace += increment[a];
                }
                if (draw() % 2 == 0) {
                    (increment[a] < 0.0f ? low[a] : high[a]) = onFace;
                }
            }
            const bool stalling = draw() % 16 == 0;  // where a step no longer moves d
            const float step = stalling ? uniform(0.001f, 0.015f) : uniform(0.001f, 0.03f);
            start.d = stalling ? 3.0e5f : uniform(-0.5f, 4.0f);
            const float farPlane = draw() % 16 == 0 ? HUGE_VALF
                                   : stalling       ? 4.0e5f
                                                    : start.d + uniform(-0.05f, 1.0f);
            start.samples = draw() % 100;
            const unsigned maxSamples = draw() % 4 ? 1u << 22 : start.samples + 1 + draw() % 30;
            const unsigned cap = draw() % 4 ? UINT_MAX : 1 + draw() % 20;

            MarchState fast = start, plain = start;
            unsigned fastSkipped = 0, plainSkipped = 0;
            float fastLast[3] = {}, plainLast[3] = {};
            bool stalled = false;
            const auto ends = [&](bool on, const MarchState& s) {
                return !on || !(s.d <= farPlane && s.samples + 1 < maxSamples);
            };
            const bool fastEnds =
                ends(stepOverSamples<Lanes>(low, high, farPlane, step, increment, cap, maxSamples,
                                            fast, fastSkipped, fastLast),
                     fast);
            const bool plainEnds =
                ends(plainStepOver(low, high, farPlane, step, increment, cap, maxSamples, plain,
                                   plainSkipped, plainLast, stalled),
                     plain);
            const bool same =
                fastEnds == plainEnds &&
                (fastEnds ||
                 (std::memcmp(&fast, &plain, sizeof(fast)) == 0 && fastSkipped == plainSkipped &&
                  std::memcmp(fastLast, plainLast, sizeof(fastLast)) == 0));
            if (!same && out.mismatches++ == 0) {
                out.firstMismatch = "case " + std::to_string(c);
            }
            ++out.ways[stalled                           ? 4
                       : !plainEnds                      ? (plainSkipped == cap ? 1 : 0)
                       : plain.samples + 1 >= maxSamples ? 3
                                                         : 2];
        }
        return out;
    }

    // Positions in grids of a few cell sizes (blocks of 8 cells); many lie on a block face or
    // lattice plane, or one float beside it, where the floor and the clamps decide, and a few
    // have no key at all.
    LocateCase position() {
        static const float kSpacings[3] = {0.02f, 0.01f, 0.05f};
        LocateCase c{};
        c.spacing = kSpacings[draw() % 3];
        c.dimension = c.spacing * 8.0f;
        for (float& v : c.p) {
            v = c.dimension * static_cast<float>(static_cast<int>(draw() % 200) - 100) +
                c.spacing * static_cast<float>(draw() % 9);
            const uint32_t how = draw() % 64;
            v = how == 0   ? (draw() % 2 ? 3.0e9f : -HUGE_VALF)
                : how < 16 ? v + uniform(0.0f, c.spacing)
                : how < 32 ? std::nextafter(v, 1e9f)
                : how < 48 ? std::nextafter(v, -1e9f)
                           : v;
        }
        return c;
    }

    template <typename Lanes>
    static SampleCell locate(const LocateCase& c) {
        const float inverseDimension = 1.0f / c.dimension;
        const float inverseSpacing = 1.0f / c.spacing;
        const CellFrame<Lanes> frame{
            Lanes::of(c.dimension, c.dimension, c.dimension, 0.0f),
            Lanes::of(inverseDimension, inverseDimension, inverseDimension, 0.0f),
            Lanes::of(inverseSpacing, inverseSpacing, inverseSpacing, 0.0f),
            {8, 8, 8, 0}};
        SampleCell out;
        Lanes::locate(Lanes::of(c.p[0], c.p[1], c.p[2], 0.0f), frame, out);
        return out;
    }

    // Whether two lane types place `count` positions alike: the same keys and, for positions
    // that have one, the same cells bit for bit. Writes the first difference to `detail`.
    template <typename LanesA, typename LanesB>
    bool sameCells(unsigned count, std::string& detail) {
        for (unsigned i = 0; i < count; ++i) {
            const LocateCase c = position();
            const SampleCell a = locate<LanesA>(c);
            const SampleCell b = locate<LanesB>(c);
            const bool keyed =
                a.key[0] != INT32_MIN && a.key[1] != INT32_MIN && a.key[2] != INT32_MIN;
            const size_t n = keyed ? 3 * sizeof(int32_t) : 0;
            if (std::memcmp(a.key, b.key, 3 * sizeof(int32_t)) != 0 ||
                std::memcmp(a.i0, b.i0, n) != 0 || std::memcmp(a.i1, b.i1, n) != 0 ||
                std::memcmp(a.f, b.f, n) != 0) {
                detail = "position " + std::to_string(c.p[0]) + " " + std::to_string(c.p[1]) + " " +
                         std::to_string(c.p[2]);
                return false;
            }
        }
        return true;
    }

private:
    uint32_t draw() {
        mState = mState * 1664525u + 1013904223u;
        return mState >> 8;
    }
    float uniform(float low, float high) {
        return low + (high - low) * static_cast<float>(draw() & 0xFFFFu) / 65535.0f;
    }
    uint32_t mState;
};

}  // namespace Test
}  // namespace Solid

#endif  // VELMORA_TESTS_SUPPORT_MARCHSTEPSCHECK_H
