// The march's step-over loop of each lane type against the plain loop it replaces, on random
// boxes and rays. Header-only and free of GoogleTest, for the Arm cross build as well.
#ifndef VELMORA_TESTS_SUPPORT_MARCHSTEPSCHECK_H
#define VELMORA_TESTS_SUPPORT_MARCHSTEPSCHECK_H

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "solid/query/MarchSteps.h"

namespace Solid {
namespace Test {

// How the random cases ended, so that a caller can require every way to be met.
struct StepOverOutcomes {
    unsigned leftBox = 0;
    unsigned farPlane = 0;
    unsigned cap = 0;
    unsigned sampleLimit = 0;
    unsigned stalled = 0;
    unsigned mismatches = 0;
    std::string firstMismatch;
};

// The loop as the march wrote it first: one sample at a time, each tested before its step.
inline bool plainStepOver(const float (&low)[3], const float (&high)[3], float farPlane, float step,
                          const float (&increment)[3], unsigned cap, unsigned maxSamples,
                          MarchState& s, unsigned& skipped, float (&last)[3], bool& stalled) {
    stalled = false;
    bool inside = true;
    do {
        inside = true;
        ++s.samples;
        if (!(s.d <= farPlane && s.samples < maxSamples)) {
            return false;
        }
        std::memcpy(last, s.position, sizeof(last));
        ++skipped;
        const float after = s.d + step;
        if (after == s.d) {
            stalled = true;
            return false;
        }
        s.d = after;
        for (int a = 0; a < 3; ++a) {
            s.position[a] += increment[a];
            inside = inside && low[a] <= s.position[a] && s.position[a] <= high[a];
        }
    } while (inside && skipped < cap);
    return true;
}

class StepOverCases {
public:
    explicit StepOverCases(uint32_t seed) : mState(seed * 2654435761u + 1u) {}

    // Compares `stepOverSamples<Lanes>` with the plain loop on `count` cases: where the march
    // ends after the loop (at once or at its next sample) and, where it goes on, every float and
    // count bit for bit.
    template <typename Lanes>
    StepOverOutcomes compare(unsigned count) {
        StepOverOutcomes out;
        for (unsigned c = 0; c < count; ++c) {
            float low[3], high[3], increment[3];
            MarchState start{};
            for (int a = 0; a < 3; ++a) {
                start.position[a] = uniform(-3.0f, 3.0f);
                low[a] = start.position[a] - uniform(0.0f, 0.3f);
                high[a] = start.position[a] + uniform(0.0f, 0.3f);
                increment[a] = next() % 8 == 0 ? 0.0f : uniform(-0.02f, 0.02f);
                if (next() % 2 == 0) {
                    // A face the march lands on exactly, as block faces are met.
                    float onFace = start.position[a];
                    for (uint32_t k = 1 + next() % 12; k > 0; --k) {
                        onFace += increment[a];
                    }
                    (increment[a] < 0.0f ? low[a] : high[a]) = onFace;
                }
            }
            float step = uniform(0.001f, 0.03f);
            start.d = uniform(-0.5f, 4.0f);
            float farPlane = start.d + uniform(-0.05f, 1.0f);
            const uint32_t kind = next() % 16;
            if (kind == 0) {
                farPlane = std::numeric_limits<float>::infinity();
            } else if (kind == 1) {
                start.d = 3.0e5f;  // where a step of a few millimetres no longer moves d
                step = uniform(0.001f, 0.015f);
                farPlane = 4.0e5f;
            }
            start.samples = next() % 100;
            const unsigned maxSamples =
                next() % 4 == 0 ? start.samples + 1 + next() % 30 : 1u << 22;
            const unsigned cap =
                next() % 4 == 0 ? 1 + next() % 20 : std::numeric_limits<unsigned>::max();

            MarchState fast = start, plain = start;
            unsigned fastSkipped = 0, plainSkipped = 0;
            float fastLast[3] = {}, plainLast[3] = {};
            bool stalled = false;
            const bool fastOn = stepOverSamples<Lanes>(low, high, farPlane, step, increment, cap,
                                                       maxSamples, fast, fastSkipped, fastLast);
            const bool plainOn = plainStepOver(low, high, farPlane, step, increment, cap,
                                               maxSamples, plain, plainSkipped, plainLast, stalled);
            // After the loop the march takes its next sample only within both limits.
            const auto ends = [&](bool on, const MarchState& s) {
                return !on || !(s.d <= farPlane && s.samples + 1 < maxSamples);
            };
            const bool fastEnds = ends(fastOn, fast);
            bool same = fastEnds == ends(plainOn, plain);
            if (same && !fastEnds) {
                same = std::memcmp(&fast, &plain, sizeof(fast)) == 0 &&
                       fastSkipped == plainSkipped &&
                       std::memcmp(fastLast, plainLast, sizeof(fastLast)) == 0;
            }
            if (!same && out.mismatches++ == 0) {
                out.firstMismatch = "case " + std::to_string(c) + ": d " + std::to_string(start.d) +
                                    " step " + std::to_string(step) + " far " +
                                    std::to_string(farPlane);
            }
            if (stalled) {
                ++out.stalled;
            } else if (!ends(plainOn, plain)) {
                plainSkipped == cap ? ++out.cap : ++out.leftBox;
            } else {
                plain.samples + 1 >= maxSamples ? ++out.sampleLimit : ++out.farPlane;
            }
        }
        return out;
    }

private:
    uint32_t next() {
        mState = mState * 1664525u + 1013904223u;
        return mState >> 8;
    }
    float uniform(float low, float high) {
        return low + (high - low) * static_cast<float>(next() & 0xFFFFu) / 65535.0f;
    }
    uint32_t mState;
};

// A position and the grid measures `locate` works with.
struct LocateCase {
    float p[3];
    float dimension;
    float spacing;
    int32_t bound;
};

// Positions in grids of a few cell sizes; many lie on a block face or lattice plane, or one float
// beside it, where the floor and the clamps decide, and a few have no key at all.
class LocateCases {
public:
    explicit LocateCases(uint32_t seed) : mState(seed * 2246822519u + 7u) {}

    LocateCase next() {
        static const float kSpacings[3] = {0.02f, 0.01f, 0.05f};
        LocateCase c{};
        c.spacing = kSpacings[draw() % 3];
        c.bound = 8;
        c.dimension = c.spacing * static_cast<float>(c.bound);
        for (int a = 0; a < 3; ++a) {
            const int key = static_cast<int>(draw() % 200) - 100;
            const int plane = static_cast<int>(draw() % 9);
            float v = c.dimension * static_cast<float>(key) + c.spacing * static_cast<float>(plane);
            switch (draw() % 4) {
                case 0:
                    v += c.spacing * static_cast<float>(draw() & 0xFFFFu) / 65536.0f;
                    break;
                case 1:
                    v = std::nextafter(v, 1e9f);
                    break;
                case 2:
                    v = std::nextafter(v, -1e9f);
                    break;
                default:
                    break;
            }
            if (draw() % 64 == 0) {
                v = draw() % 2 ? 3.0e9f : -std::numeric_limits<float>::infinity();
            }
            c.p[a] = v;
        }
        return c;
    }

    template <typename Lanes>
    static CellFrame<Lanes> frameOf(const LocateCase& c) {
        const float inverseDimension = 1.0f / c.dimension;
        const float inverseSpacing = 1.0f / c.spacing;
        return CellFrame<Lanes>{
            Lanes::of(c.dimension, c.dimension, c.dimension, 0.0f),
            Lanes::of(inverseDimension, inverseDimension, inverseDimension, 0.0f),
            Lanes::of(inverseSpacing, inverseSpacing, inverseSpacing, 0.0f),
            {c.bound, c.bound, c.bound, 0}};
    }

    template <typename Lanes>
    static SampleCell locate(const LocateCase& c) {
        SampleCell out;
        Lanes::locate(Lanes::of(c.p[0], c.p[1], c.p[2], 0.0f), frameOf<Lanes>(c), out);
        return out;
    }

    // Whether two lane types place `count` positions alike: the same keys, and for positions
    // that have a key, the same cells bit for bit. Writes the first difference to `detail`.
    template <typename LanesA, typename LanesB>
    bool sameAs(unsigned count, std::string& detail) {
        for (unsigned i = 0; i < count; ++i) {
            const LocateCase c = next();
            const SampleCell a = locate<LanesA>(c);
            const SampleCell b = locate<LanesB>(c);
            bool keyed = true;
            for (int k = 0; k < 3; ++k) {
                keyed = keyed && a.key[k] != INT32_MIN;
            }
            const size_t compared = keyed ? 3 * sizeof(int32_t) : 0;
            if (std::memcmp(a.key, b.key, 3 * sizeof(int32_t)) != 0 ||
                std::memcmp(a.i0, b.i0, compared) != 0 || std::memcmp(a.i1, b.i1, compared) != 0 ||
                std::memcmp(a.f, b.f, keyed ? 3 * sizeof(float) : 0) != 0) {
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
    uint32_t mState;
};

}  // namespace Test
}  // namespace Solid

#endif  // VELMORA_TESTS_SUPPORT_MARCHSTEPSCHECK_H
