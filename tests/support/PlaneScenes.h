// Scenes and volumes for the plane tests: a furnished room, a tour of views around it, and blocks
// filled with the exact truncated distance of an analytic scene (no fusion noise), so that a
// fitted plane can be compared with the truth.
#ifndef VELMORA_TESTS_SUPPORT_PLANESCENES_H
#define VELMORA_TESTS_SUPPORT_PLANESCENES_H

#include <vector>

#include "solid/volume/VolumeGrid.h"
#include "support/AnalyticScene.h"

namespace Velmora {
namespace Test {

// Labels of the furnished room beyond those of AnalyticScene::room.
constexpr uint8_t kTableLabel = 4;
constexpr uint8_t kBoxLabel = 5;
// The room of AnalyticScene::room(4, 3, 2.5) with a table whose top is at kTableTop and a box on
// the floor whose top is at kBoxTop; both heights lie on a 0.05 m lattice.
constexpr double kTableTop = 0.7;
constexpr double kBoxTop = 0.3;
AnalyticScene furnishedRoom();
// The table's top in x and y, metres: [min x, min y, max x, max y].
constexpr double kTableOutline[4] = {0.9, 0.9, 2.7, 2.3};

// Views at 2.2 m height from a ring near the walls, across the room: down at the floor and
// furniture, and (every other one) at the far wall.
std::vector<PinholeCamera> roomTour(int width, int height, int views);

// Writes the exact truncated distance of `scene` (weight 1) into every sample of the blocks
// `keys`, creating them. Label-bearing samples get `votes` votes for the label of the nearest
// primitive.
template <typename Grid>
void writeExactBlocks(Grid& grid, const AnalyticScene& scene, float truncation,
                      const std::vector<Solid::KeyType>& keys, int votes = 3);

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_SUPPORT_PLANESCENES_H
