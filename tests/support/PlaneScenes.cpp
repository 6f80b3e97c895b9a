#include "support/PlaneScenes.h"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "solid/volume/LabelVolumeSample.h"
#include "support/FieldGrid.h"
#include "support/RenderedBlocks.h"

namespace Velmora {
namespace Test {

AnalyticScene furnishedRoom() {
    AnalyticScene scene = AnalyticScene::room(4.0, 3.0, 2.5);
    scene.add(makeBox({kTableOutline[0], kTableOutline[1], 0.0},
                      {kTableOutline[2], kTableOutline[3], kTableTop}, kTableLabel,
                      {150, 100, 60}));
    scene.add(makeBox({3.0, 0.2, 0.0}, {3.8, 1.0, kBoxTop}, kBoxLabel, {90, 90, 200}));
    return scene;
}

std::vector<PinholeCamera> roomTour(int width, int height, int views) {
    const double pi = std::acos(-1.0);
    std::vector<PinholeCamera> cameras;
    for (int i = 0; i < views; ++i) {
        const double c = std::cos(2.0 * pi * i / views);
        const double s = std::sin(2.0 * pi * i / views);
        // From near a wall across the room: every other view steeply down at the floor and the
        // furniture, the others straight at the far wall.
        const Vec3d eye{2.0 + 1.5 * c, 1.5 + 1.0 * s, 2.2};
        const Vec3d target = i % 2 == 0 ? Vec3d{2.0 - 0.5 * c, 1.5 - 0.3 * s, 0.0}
                                        : Vec3d{2.0 - 2.0 * c, 1.5 - 1.5 * s, 1.2};
        cameras.push_back(Solid::Test::roomCamera(width, height, eye, target));
    }
    return cameras;
}

template <typename Grid>
void writeExactBlocks(Grid& grid, const AnalyticScene& scene, float truncation,
                      const std::vector<Solid::KeyType>& keys, int votes) {
    using Sample = typename Grid::SampleType;
    for (const Solid::KeyType& key : keys) {
        Solid::Test::writeLattice(grid, key, key, [&](Sample& sample, const Solid::Vec3& at) {
            const Vec3d p{at(0), at(1), at(2)};
            if constexpr (!std::is_same_v<Sample, Solid::LabelVolumeSample>) {
                const double d = std::clamp(scene.signedDistance(p) / truncation, -1.0, 1.0);
                Solid::depthPart(sample) =
                    Solid::Vec2S(static_cast<short>(std::lround(d * Solid::kMaxDepthValue)), 1);
            }
            if constexpr (!std::is_same_v<Sample, Solid::Vec2S>) {
                for (int v = 0; v < votes; ++v)
                    Solid::updateLabels(sample, scene.nearestLabel(p));
            }
        });
    }
}

template void writeExactBlocks(Solid::DepthGrid&, const AnalyticScene&, float,
                               const std::vector<Solid::KeyType>&, int);
template void writeExactBlocks(Solid::LabelDepthGrid&, const AnalyticScene&, float,
                               const std::vector<Solid::KeyType>&, int);
template void writeExactBlocks(Solid::LabelGrid&, const AnalyticScene&, float,
                               const std::vector<Solid::KeyType>&, int);

}  // namespace Test
}  // namespace Velmora
