#include "support/FusedGrid.h"

#include "math/Pose.h"
#include "solid/fusion/BorderCopy.h"
#include "solid/fusion/GridIntegration.h"
#include "solid/fusion/SensorErrorModel.h"
#include "velmora/ImageIntake.h"

namespace Velmora {
namespace Test {

namespace {

// The frame path's weight cap and its unfiltered block selection.
constexpr float kMaxWeight = 30.0f;

// Fuses `frame`, whose images are set, with the pose and intrinsics of `camera`.
template <typename Grid, typename Frame>
void fuseFrame(Grid& grid, Frame& frame, const PinholeCamera& camera, float truncation,
               Solid::Acceleration acceleration) {
    Solid::DepthFrame cameraOnly;
    setUpFrame(cameraOnly, camera);
    frame.pose = cameraOnly.pose;
    frame.projection = cameraOnly.projection;
    const Solid::ConstantErrorModel errorModel(truncation);
    Solid::IntegrationStats stats;
    Solid::IndexSet updated = Solid::integrate(
        grid, frame, errorModel, kMaxWeight, stats, acceleration, 1, 0.0f, 0.0f, nullptr, 1, 1, 1,
        static_cast<Solid::SaturationManager<float, Grid>*>(nullptr));
    Solid::copyBorders(grid, stats, updated);
}

}  // namespace

void setUpFrame(Solid::DepthFrame& frame, const PinholeCamera& camera) {
    const Pose& T = camera.T_world_camera;
    frame.pose = Solid::Matrix4::identity();
    // World to camera: transposed rotation, and -R^T t.
    for (int r = 0; r < 3; ++r) {
        double t = 0.0;
        for (int c = 0; c < 3; ++c) {
            frame.pose(r, c) = static_cast<float>(T[4 * c + r]);
            t -= T[4 * c + r] * T[4 * c + 3];
        }
        frame.pose(r, 3) = static_cast<float>(t);
    }
    frame.projection = Solid::Matrix4::zeros();
    frame.projection(0, 0) = static_cast<float>(camera.fx);
    frame.projection(1, 1) = static_cast<float>(camera.fy);
    frame.projection(0, 2) = static_cast<float>(camera.cx);
    frame.projection(1, 2) = static_cast<float>(camera.cy);
    frame.projection(2, 2) = 1.0f;
    frame.projection(3, 3) = 1.0f;
    frame.depth.allocPixels(AR::CV::Size2i(camera.width, camera.height));
    for (int y = 0; y < camera.height; ++y)
        for (int x = 0; x < camera.width; ++x)
            frame.depth(x, y) = -1.0f;
}

void fuseView(Solid::DepthGrid& grid, const AnalyticScene& scene, const PinholeCamera& camera,
              float truncation) {
    const RenderedFrame view = render(scene, camera);
    Solid::DepthFrame frame = makeDepthFrame(0, view.depthImage());
    fuseFrame(grid, frame, camera, truncation, Solid::kAccelerationTavric);
}

void fuseView(Solid::LabelDepthGrid& grid, const AnalyticScene& scene, const PinholeCamera& camera,
              float truncation) {
    const RenderedFrame view = render(scene, camera);
    Solid::LabelDepthFrame frame = makeLabelDepthFrame(0, view.depthImage(), view.labelImage());
    fuseFrame(grid, frame, camera, truncation, Solid::kAccelerationReference);
}

}  // namespace Test
}  // namespace Velmora
