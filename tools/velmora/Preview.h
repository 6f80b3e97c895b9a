// Pictures of a reconstruction: a small software rasteriser that draws the mesh from a viewpoint
// above the scene, with simple shading, coloured by vertex colour where the mesh has colours
// (neutral grey where no colour frame saw it) and by instance otherwise; and the same picture
// with the plane outlines drawn over it.
//
// The viewpoint looks down on the scene from outside its bounds, at an angle, along the world's up
// direction (z for the built-in room; recorded sequences differ).
// Faces turned away from the viewer are not drawn: the surface faces free space, so the walls and
// the ceiling nearest to the viewer vanish and the room opens like a doll's house.
#ifndef VELMORA_TOOL_PREVIEW_H
#define VELMORA_TOOL_PREVIEW_H

#include <array>
#include <cstdint>
#include <vector>

#include "velmora/Png.h"
#include "velmora/SceneReadout.h"

namespace VelmoraTool {

// Size of the pictures, pixels.
constexpr uint32_t kPreviewWidth = 1024;
constexpr uint32_t kPreviewHeight = 768;

// A pinhole camera of the picture: `position` and the unit axes of its frame in world metres
// (x right, y down, z forward), focal length in pixels, principal point at the image centre.
struct PreviewCamera {
    std::array<double, 3> position{};
    std::array<double, 3> right{};
    std::array<double, 3> down{};
    std::array<double, 3> forward{};
    double focal = 0.0;
    uint32_t width = 0;
    uint32_t height = 0;

    // The pixel position (x, y) and depth of a world point; false when it lies behind the camera.
    bool project(const std::array<float, 3>& world, double& x, double& y, double& depth) const;
};

// The world's up direction for the pictures from the mean up direction of the cameras of a run:
// snapped to a world axis when it lies within about 25 degrees of one (recorded sequences mostly
// use an axis), else normalised; +z when `up` is zero.
std::array<double, 3> snapUp(const std::array<double, 3>& up);

// A viewpoint that shows all of `points` (all but a few strays) in a picture of the given size,
// looking down along the unit vector `up` at an angle.
PreviewCamera overviewCamera(const std::vector<std::array<float, 3>>& points, uint32_t width,
                             uint32_t height, const std::array<double, 3>& up);

// The points the pictures must show: the mesh's vertices, or the plane outlines where there is
// no mesh.
std::vector<std::array<float, 3>> sceneExtent(const HostMesh& mesh, const HostPlanes& planes);

// The colour of an instance id in the pictures; id 0 (no instance) is a neutral grey.
std::array<uint8_t, 3> instanceColor(uint16_t id);

// The two pictures of a scene: the shaded mesh, and the mesh in a neutral colour with the planes
// over it.
struct Previews {
    PngImage scene;
    PngImage planes;
};

Previews renderPreviews(const HostMesh& mesh, const HostPlanes& planes,
                        const PreviewCamera& camera);

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_PREVIEW_H
