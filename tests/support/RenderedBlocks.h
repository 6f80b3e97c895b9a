// Depth frames rendered from an analytic room, as the volume code sees them (float metres, the
// 16-bit millimetre image, intrinsics, world-to-camera pose), and the 9-cube blocks of a grid
// that the frame's surface passes through. Shared by the kernel tests and benchmarks.
#ifndef VELMORA_TESTS_SUPPORT_RENDEREDBLOCKS_H
#define VELMORA_TESTS_SUPPORT_RENDEREDBLOCKS_H

#include <memory>
#include <vector>

#include "solid/volume/Frames.h"
#include "solid/volume/Volume.h"
#include "solid/volume/VolumeGrid.h"
#include "support/AnalyticScene.h"

namespace Solid {
namespace Test {

// A rendered view of `scene` turned into a DepthFrame whose images point into `rendered`.
struct RenderedDepth {
    RenderedDepth(const Velmora::Test::AnalyticScene& scene,
                  const Velmora::Test::PinholeCamera& camera);
    RenderedDepth(const RenderedDepth&) = delete;
    RenderedDepth& operator=(const RenderedDepth&) = delete;

    Velmora::Test::PinholeCamera camera;
    Velmora::Test::RenderedFrame rendered;
    DepthFrame frame;
};

// The keys of the blocks (edge `dimension` metres) holding the surface points seen through every
// `pixelStep`-th pixel of the frame, sorted, without repeats.
std::vector<KeyType> surfaceBlockKeys(const RenderedDepth& view, float dimension, int pixelStep);

// A camera of `width` x `height` pixels with a field of view of about 60 degrees, standing in the
// room made by `AnalyticScene::room(4, 3, 2.5)` and looking at `target`.
Velmora::Test::PinholeCamera roomCamera(int width, int height, const Velmora::Test::Vec3d& eye,
                                        const Velmora::Test::Vec3d& target);

}  // namespace Test
}  // namespace Solid

#endif  // VELMORA_TESTS_SUPPORT_RENDEREDBLOCKS_H
