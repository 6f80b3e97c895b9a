// The packet walks against the single walker on random blocks and segments. Header-only and free
// of GoogleTest, for the Arm cross build as well.
#ifndef VELMORA_TESTS_SUPPORT_BLOCKWALKCHECK_H
#define VELMORA_TESTS_SUPPORT_BLOCKWALKCHECK_H

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "solid/query/BlockWalk.h"

namespace Solid {
namespace Test {

// How the walks ended (each way should be met often), and the first one the packet got wrong.
struct WalkOutcomes {
    int found = 0;
    int exhausted = 0;
    int none = 0;
    int mismatches = 0;
    std::string firstMismatch;
};

// `packets` packets of up to 19 segments walked by `walk` and one by one by walkSegment over the
// same random blocks of a box: segments from inside and outside it (keys below and above the
// box), starts and ends that are not finite, ends in the start block or beyond the walker's key
// range, limits that cut walks short, and packets with spare lanes.
inline WalkOutcomes checkPacketWalks(WalkSegments walk, uint32_t seed, int packets) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    BlockOccupancy occupancy;
    occupancy.low = KeyType(-5, -3, -4);
    occupancy.extent[0] = 10;
    occupancy.extent[1] = 8;
    occupancy.extent[2] = 9;
    std::vector<uint8_t> cells(10 * 8 * 9 + kWalkCellPadding, 0);
    for (size_t i = 0; i + kWalkCellPadding < cells.size(); ++i) {
        cells[i] = unit(random) < 0.08f ? 1 : 0;
    }
    occupancy.cells = cells.data();
    const Vec3 inverseDimension(1.0f / 0.16f, 1.0f / 0.16f, 1.0f / 0.16f);
    const auto point = [&](float spread) {
        return Vec3((unit(random) - 0.5f) * spread, (unit(random) - 0.5f) * spread,
                    (unit(random) - 0.5f) * spread);
    };
    WalkOutcomes outcomes;
    for (int packet = 0; packet < packets; ++packet) {
        // A few packets start where no walk can (a camera that is not finite).
        const Vec3 base = point(1.5f);
        const float start = unit(random);
        const Vec3 from = start < 0.01f   ? Vec3(0.0f, std::nanf(""), 0.0f)
                          : start < 0.02f ? Vec3(0.0f, 0.0f, -HUGE_VALF)
                                          : base;
        const int count = 1 + static_cast<int>(unit(random) * 19.0f);
        std::vector<Vec3> to(count);
        for (Vec3& end : to) {
            const float kind = unit(random);
            end = kind < 0.05f   ? base + point(0.05f)
                  : kind < 0.08f ? Vec3(std::nanf(""), 0.0f, 0.0f)
                  : kind < 0.11f ? base + point(1e9f)
                                 : base + point(3.0f);
        }
        const unsigned limit =
            unit(random) < 0.3f ? 1 + static_cast<unsigned>(unit(random) * 20) : 5000;
        std::vector<WalkResult> out(count);
        walk(occupancy, inverseDimension, from, to.data(), count, limit, out.data());
        for (int i = 0; i < count; ++i) {
            const WalkResult single =
                walkSegment(from, to[i], inverseDimension, limit,
                            [&](const KeyType& key) { return occupancy.holds(key); });
            const bool same = out[i].found == single.found &&
                              out[i].exhausted == single.exhausted &&
                              (!single.found || out[i].block == single.block);
            if (!same && outcomes.mismatches++ == 0) {
                outcomes.firstMismatch =
                    "packet " + std::to_string(packet) + ", segment " + std::to_string(i);
            }
            outcomes.found += single.found;
            outcomes.exhausted += single.exhausted;
            outcomes.none += !single.found && !single.exhausted;
        }
    }
    return outcomes;
}

}  // namespace Test
}  // namespace Solid

#endif  // VELMORA_TESTS_SUPPORT_BLOCKWALKCHECK_H
