#include "support/RenderedBlocks.h"

#include "support/FusedGrid.h"

#include <algorithm>
#include <cmath>

namespace Solid {
namespace Test {

namespace {
// Focal length per pixel of width: about 60 degrees of horizontal field of view.
constexpr double kFocalPerWidth = 0.866;
}  // namespace

RenderedDepth::RenderedDepth(const Velmora::Test::AnalyticScene& scene,
                             const Velmora::Test::PinholeCamera& cam)
    : camera(cam), rendered(Velmora::Test::render(scene, cam)) {
    const AR::CV::Size2i size(rendered.width, rendered.height);
    frame.depth.set(rendered.depthMetres.data(), size, size, false);
    frame.depthU16.set(rendered.depthMillimetres.data(), size, size, false);
    DepthFrame cameraOnly;
    Velmora::Test::setUpFrame(cameraOnly, cam);
    frame.projection = cameraOnly.projection;
    frame.pose = cameraOnly.pose;
}

std::vector<KeyType> surfaceBlockKeys(const RenderedDepth& view, float dimension, int pixelStep) {
    std::vector<KeyType> keys;
    for (int v = 0; v < view.rendered.height; v += pixelStep) {
        for (int u = 0; u < view.rendered.width; u += pixelStep) {
            const float d =
                view.rendered.depthMetres[static_cast<size_t>(v * view.rendered.width + u)];
            if (d == 0.0f) {
                continue;
            }
            const Velmora::Test::Vec3d p = Velmora::Test::unproject(view.camera, u, v, d);
            KeyType key;
            for (int a = 0; a < 3; ++a)
                key(a) = static_cast<int>(std::floor(p[static_cast<size_t>(a)] / dimension));
            keys.push_back(key);
        }
    }
    std::sort(keys.begin(), keys.end(), [](const KeyType& a, const KeyType& b) {
        return std::lexicographical_compare(&a[0], &a[0] + 3, &b[0], &b[0] + 3);
    });
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return keys;
}

Velmora::Test::PinholeCamera roomCamera(int width, int height, const Velmora::Test::Vec3d& eye,
                                        const Velmora::Test::Vec3d& target) {
    return Velmora::Test::viewFrom(eye, target, width, height, kFocalPerWidth * width);
}

}  // namespace Test
}  // namespace Solid
