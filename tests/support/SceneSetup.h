// Scenes created and fed as a host would: init with a config, rendered views of an analytic world
// fused in either run mode.
#ifndef VELMORA_TESTS_SUPPORT_SCENESETUP_H
#define VELMORA_TESTS_SUPPORT_SCENESETUP_H

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "support/AnalyticScene.h"
#include "support/HostReads.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace Velmora {
namespace Test {

// A configuration without plane detection.
inline Config sceneConfig(int32_t mode, float cellSize, float truncation,
                          bool labelPlanes = false) {
    Config config{};
    config.cellSize = cellSize;
    config.truncation = truncation;
    config.mode = mode;
    config.labelPlanes = labelPlanes;
    return config;
}

inline std::unique_ptr<Impl> makeInitialisedScene(int32_t mode, float cellSize, float truncation,
                                                  bool labelPlanes = false) {
    std::unique_ptr<Impl> scene(static_cast<Impl*>(newVelmora()));
    EXPECT_EQ(scene->init(sceneConfig(mode, cellSize, truncation, labelPlanes)), kSuccess);
    return scene;
}

// One view: depth and labels together in combined mode; in split mode depth, then the labels as
// a call of their own when `withLabels`.
inline void fuseView(IVelmora& scene, int32_t mode, const AnalyticScene& world,
                     const PinholeCamera& camera, bool withLabels = true) {
    const RenderedFrame frame = render(world, camera);
    const Image images[2] = {frame.depthImage(), frame.labelImage()};
    if (mode == kModeCombined) {
        ASSERT_EQ(scene.submitImages(0, camera.intrinsics(), camera.pose(), {images, 2}), kSuccess);
        return;
    }
    ASSERT_EQ(scene.submitImages(0, camera.intrinsics(), camera.pose(), {images, 1}), kSuccess);
    if (withLabels) {
        ASSERT_EQ(scene.submitImages(0, camera.intrinsics(), camera.pose(), {images + 1, 1}),
                  kSuccess);
    }
}

struct TrueBox {
    Vec3d min;
    Vec3d max;
    uint8_t label;
};

// A floor (label 1, grey) with red boxes on it.
inline AnalyticScene boxesOnAFloor(const std::vector<TrueBox>& boxes) {
    AnalyticScene scene;
    scene.add(makeHalfSpace({0, 0, 1}, 0.0, 1, {120, 120, 120}));
    for (const TrueBox& box : boxes)
        scene.add(makeBox(box.min, box.max, box.label, {200, 50, 50}));
    return scene;
}

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_SUPPORT_SCENESETUP_H
