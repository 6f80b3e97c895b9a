// The built-in scene: an analytic room of 4 x 3 x 2.6 m with a table, two boxes on the floor
// and a ball on the table, rendered by exact ray casting of its primitives. Because every
// surface is known in closed form, a reconstruction of it can be checked against the truth.
//
// World frame: metres, z up, the room spans [0, 4] x [0, 3] x [0, 2.6]. Camera frame: x right,
// y down, z forward (the optical axis); depth is the z coordinate of a point in that frame.
#ifndef VELMORA_TOOL_BUILTINSCENE_H
#define VELMORA_TOOL_BUILTINSCENE_H

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "velmora/Frame.h"

namespace VelmoraTool {

using Vec3 = std::array<double, 3>;

// The objects of the room; each has its own semantic label and base colour.
enum class SceneObject : uint8_t {
    kFloor,
    kCeiling,
    kWallWest,   // x = 0
    kWallEast,   // x = room length
    kWallSouth,  // y = 0
    kWallNorth,  // y = room width
    kTable,
    kBoxSmall,  // axis-aligned, near the south-west corner
    kBoxTall,   // turned about z, near the north-east corner
    kBall,      // on the table
    kCount
};

struct SceneObjectInfo {
    const char* name;
    uint8_t label;                 // semantic class, below kLabelCount
    std::array<uint8_t, 3> color;  // RGB of the light squares of the pattern
};

const SceneObjectInfo& objectInfo(SceneObject object);

// Room extent, metres.
constexpr double kRoomLength = 4.0;  // x
constexpr double kRoomWidth = 3.0;   // y
constexpr double kRoomHeight = 2.6;  // z

// Every surface carries a 3D checkerboard of this edge length (metres); the dark squares have
// their base colour scaled by kCheckerShade.
constexpr double kCheckerSize = 0.25;
constexpr double kCheckerShade = 0.6;

// The ball's centre and radius, metres, for tests and for anyone aiming a camera at it.
Vec3 ballCentre();
double ballRadius();

// The analytic truth that a reconstruction is measured against.
//
// Distance, metres, from `point` (inside the room) to the nearest surface of the scene.
double surfaceDistance(const Vec3& point);

// A large flat surface of the scene: normal . x + offset = 0, the normal pointing to free space;
// `centre` lies on the surface, in the middle of its visible part.
struct TruePlane {
    const char* name;
    Vec3 normal;
    double offset;
    Vec3 centre;
};
const std::vector<TruePlane>& truePlanes();

// An object standing in the room, with its axis-aligned world bounds (metres).
struct TrueObject {
    SceneObject object;
    Vec3 boundsMin;
    Vec3 boundsMax;
};
std::vector<TrueObject> trueObjects();

// The default camera of the scene: 640 x 480 pixels, fx = fy = 525, principal point at the
// image centre (319.5, 239.5). Other sizes scale the same field of view.
constexpr uint32_t kDefaultWidth = 640;
constexpr uint32_t kDefaultHeight = 480;
Intrinsics sceneIntrinsics(uint32_t width, uint32_t height);

// The nearest surface along a ray.
struct RayHit {
    double t = 0.0;  // ray parameter: the hit is origin + t * direction
    SceneObject object = SceneObject::kCount;
    Vec3 point{};
};

// Casts a ray from `origin` (inside the room) along `direction` (any length). There is always a
// hit, since the room is closed.
RayHit castRay(const Vec3& origin, const Vec3& direction);

// Colour of `object` at world `point`: the checkerboard pattern.
std::array<uint8_t, 3> surfaceColor(SceneObject object, const Vec3& point);

// The smooth camera path: one loop around the table over `frameCount` frames, at about 1.5 m
// height, always looking at the middle of the room.
Matrix4d cameraPose(size_t frame, size_t frameCount);

// Camera-to-world pose at `position` looking at `target`, with world z up.
Matrix4d lookAt(const Vec3& position, const Vec3& target);

// Renders depth (millimetres, with Gaussian noise of standard deviation noiseMmAt1m * z^2 mm for
// depth z in metres), labels and colour of the view from `worldFromCamera`.
Frame renderView(const Matrix4d& worldFromCamera, const Intrinsics& intrinsics, uint32_t width,
                 uint32_t height, double noiseMmAt1m, std::mt19937& rng);

// The built-in scene as a frame source: frame i is rendered on demand from cameraPose(i, N),
// with noise seeded from (seed, i) so that any frame renders the same on every call.
class BuiltinSceneSource : public FrameSource {
public:
    BuiltinSceneSource(size_t frameCount, uint32_t width, uint32_t height, double noiseMmAt1m,
                       uint32_t seed);
    size_t frameCount() const override { return mFrameCount; }
    uint64_t frameNumber(size_t index) const override { return index; }
    Intrinsics intrinsics() const override { return sceneIntrinsics(mWidth, mHeight); }
    bool hasLabels() const override { return true; }
    std::string describe() const override;
    FrameStatus load(size_t index, Frame& frame, std::string& problem) override;

private:
    size_t mFrameCount;
    uint32_t mWidth;
    uint32_t mHeight;
    double mNoiseMmAt1m;
    uint32_t mSeed;
};

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_BUILTINSCENE_H
