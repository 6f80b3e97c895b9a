// What the scene tests share: scenes made and fed as a host would (a room, boxes on a floor seen
// from four corners), the host's reads of meshes and planes, and a captured log.
#ifndef VELMORA_TESTS_VELMORA_HOSTSCENES_H
#define VELMORA_TESTS_VELMORA_HOSTSCENES_H

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "support/CapturedLog.h"
#include "support/PlaneScenes.h"
#include "support/SceneSetup.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace Velmora {
namespace Test {

constexpr float kCell = 0.04f;
constexpr float kTruncation = 0.2f;
const UuidBytes kWholeScene{};

inline std::unique_ptr<Impl> makeScene(int32_t mode, bool labelPlanes = true) {
    return makeInitialisedScene(mode, kCell, kTruncation, labelPlanes);
}

inline AnalyticScene room() {
    return AnalyticScene::room(4.0, 3.0, 2.6);
}

// Boxes on a floor: A and B apart, C long enough to span several blocks (a block is 0.32 m).
const std::vector<TrueBox> kBoxes = {{{0.3, 0.3, 0.0}, {0.7, 0.7, 0.4}, 4},
                                     {{1.3, 0.2, 0.0}, {1.6, 0.5, 0.3}, 5},
                                     {{0.2, 1.3, 0.0}, {1.6, 1.5, 0.25}, 6}};

// Views from above the four corners of the boxes' area, looking at its middle.
inline std::vector<PinholeCamera> aroundTheBoxes() {
    std::vector<PinholeCamera> cameras;
    for (const Vec3d& eye :
         {Vec3d{-0.6, -0.6, 1.4}, {2.4, -0.6, 1.4}, {2.4, 2.3, 1.4}, {-0.6, 2.3, 1.4}}) {
        cameras.push_back(viewFrom(eye, {0.9, 0.85, 0.1}));
    }
    return cameras;
}

inline std::unique_ptr<Impl> fusedBoxes(int32_t mode, const std::vector<TrueBox>& boxes = kBoxes) {
    std::unique_ptr<Impl> scene = makeScene(mode);
    for (const PinholeCamera& camera : aroundTheBoxes())
        fuseView(*scene, mode, boxesOnAFloor(boxes), camera);
    return scene;
}

inline size_t blockCount(Impl& scene) {
    Impl::State& s = internalState(scene);
    return (s.mVolumeGrid ? s.mVolumeGrid->size() : 0) +
           (s.mLabelDepthVolumeGrid ? s.mLabelDepthVolumeGrid->size() : 0);
}

// `f` of the depth grid of the mode: the split mode's or the combined one.
template <typename F>
void withDepthGrid(Impl& scene, F&& f) {
    Impl::State& s = internalState(scene);
    if (s.mVolumeGrid) {
        f(*s.mVolumeGrid);
    } else {
        f(*s.mLabelDepthVolumeGrid);
    }
}

inline Config planeConfig(int32_t mode, float cellSize, bool detectPlanes = true) {
    Config config = sceneConfig(mode, cellSize, 5 * cellSize, true);
    config.detectPlanes = detectPlanes;
    config.planeMaxStdError = 0.01f;
    config.planeMaxAngle = 0.1f;
    config.planeSolverIterations = 5;
    config.planeContourAlpha = 0.0f;
    return config;
}

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_VELMORA_HOSTSCENES_H
