#include "velmora/BuiltinScene.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace VelmoraTool {
namespace {

constexpr double kPi = 3.14159265358979323846;
// Rays start at the camera; hits closer than this (metres) are the camera's own position.
constexpr double kMinHitDistance = 1e-9;
// Largest raw value of a 16-bit depth pixel, millimetres.
constexpr double kMaxDepthMm = 65535.0;
constexpr double kMillimetresPerMetre = 1000.0;
// Time between two frames of the built-in scene: 30 frames per second, in nanoseconds.
constexpr int64_t kFrameIntervalNs = 33333333;

// Labels start at 1: 0 is left for "no class" in label images.
const SceneObjectInfo kObjects[] = {
    {"floor", 1, {170, 130, 90}},      {"ceiling", 2, {235, 235, 225}},
    {"west wall", 3, {200, 80, 80}},   {"east wall", 4, {80, 180, 90}},
    {"south wall", 5, {90, 110, 210}}, {"north wall", 6, {210, 200, 90}},
    {"table", 7, {140, 90, 50}},       {"small box", 8, {220, 140, 40}},
    {"tall box", 9, {60, 180, 190}},   {"ball", 10, {230, 60, 170}},
};
static_assert(sizeof(kObjects) / sizeof(kObjects[0]) == static_cast<size_t>(SceneObject::kCount),
              "every scene object needs a name, a label and a colour");

// A solid box, turned by `yaw` radians about the vertical axis through its centre.
struct Box {
    Vec3 centre;
    Vec3 half;  // half extents along the box's own axes, metres
    double yaw;
    SceneObject object;
};

// Table: a top 1.2 x 1.0 m, 4 cm thick, at 0.72 to 0.76 m, on four legs of 5 x 5 cm.
constexpr double kTableTop = 0.76;
constexpr double kLegHalf = 0.025;
constexpr double kLegHeight = 0.72;
constexpr double kTopMinX = 1.4, kTopMaxX = 2.6, kTopMinY = 1.0, kTopMaxY = 2.0;

const Box kBoxes[] = {
    {{2.0, 1.5, 0.74}, {0.6, 0.5, 0.02}, 0.0, SceneObject::kTable},
    {{kTopMinX + kLegHalf, kTopMinY + kLegHalf, kLegHeight / 2},
     {kLegHalf, kLegHalf, kLegHeight / 2},
     0.0,
     SceneObject::kTable},
    {{kTopMaxX - kLegHalf, kTopMinY + kLegHalf, kLegHeight / 2},
     {kLegHalf, kLegHalf, kLegHeight / 2},
     0.0,
     SceneObject::kTable},
    {{kTopMinX + kLegHalf, kTopMaxY - kLegHalf, kLegHeight / 2},
     {kLegHalf, kLegHalf, kLegHeight / 2},
     0.0,
     SceneObject::kTable},
    {{kTopMaxX - kLegHalf, kTopMaxY - kLegHalf, kLegHeight / 2},
     {kLegHalf, kLegHalf, kLegHeight / 2},
     0.0,
     SceneObject::kTable},
    {{0.65, 0.6, 0.225}, {0.25, 0.2, 0.225}, 0.0, SceneObject::kBoxSmall},
    {{3.3, 2.35, 0.3}, {0.25, 0.2, 0.3}, kPi / 6.0, SceneObject::kBoxTall},
};

constexpr double kBallRadius = 0.15;

// The camera loop: an ellipse around the room's centre at about eye height, looking at a point
// that wanders slowly around the table and up and down, so that floor and ceiling are both seen.
constexpr double kOrbitRadiusX = 1.4;
constexpr double kOrbitRadiusY = 1.0;
constexpr double kOrbitHeight = 1.5;
constexpr double kOrbitHeightSwing = 0.15;
constexpr double kTargetHeight = 0.8;
constexpr double kTargetHeightSwing = 0.6;  // the gaze rises towards the ceiling once a loop
constexpr double kTargetSwingX = 0.3;
constexpr double kTargetSwingY = 0.25;

Vec3 add(const Vec3& a, const Vec3& b) {
    return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}
Vec3 sub(const Vec3& a, const Vec3& b) {
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
Vec3 scale(const Vec3& a, double s) {
    return {a[0] * s, a[1] * s, a[2] * s};
}
double dot(const Vec3& a, const Vec3& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
Vec3 cross(const Vec3& a, const Vec3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
Vec3 normalised(const Vec3& a) {
    return scale(a, 1.0 / std::sqrt(dot(a, a)));
}

// Entry distance of a ray into a solid box, or infinity when it misses.
double intersectBox(const Box& box, const Vec3& origin, const Vec3& direction) {
    // Into the box's frame: translate to its centre, turn by -yaw about z.
    const double c = std::cos(box.yaw), s = std::sin(box.yaw);
    const Vec3 o = sub(origin, box.centre);
    const Vec3 localOrigin{c * o[0] + s * o[1], -s * o[0] + c * o[1], o[2]};
    const Vec3 localDirection{c * direction[0] + s * direction[1],
                              -s * direction[0] + c * direction[1], direction[2]};
    double tNear = -std::numeric_limits<double>::infinity();
    double tFar = std::numeric_limits<double>::infinity();
    for (int axis = 0; axis < 3; ++axis) {
        if (localDirection[axis] == 0.0) {
            if (std::fabs(localOrigin[axis]) > box.half[axis]) {
                return std::numeric_limits<double>::infinity();
            }
            continue;
        }
        double t0 = (-box.half[axis] - localOrigin[axis]) / localDirection[axis];
        double t1 = (box.half[axis] - localOrigin[axis]) / localDirection[axis];
        if (t0 > t1) {
            std::swap(t0, t1);
        }
        tNear = std::max(tNear, t0);
        tFar = std::min(tFar, t1);
    }
    if (tNear > tFar || tNear < kMinHitDistance) {
        return std::numeric_limits<double>::infinity();
    }
    return tNear;
}

double intersectSphere(const Vec3& centre, double radius, const Vec3& origin,
                       const Vec3& direction) {
    const Vec3 o = sub(origin, centre);
    const double a = dot(direction, direction);
    const double b = dot(o, direction);
    const double c = dot(o, o) - radius * radius;
    const double discriminant = b * b - a * c;
    if (discriminant < 0.0) {
        return std::numeric_limits<double>::infinity();
    }
    const double t = (-b - std::sqrt(discriminant)) / a;
    return t >= kMinHitDistance ? t : std::numeric_limits<double>::infinity();
}

// Distance from `point` to the surface of a solid box.
double boxDistance(const Box& box, const Vec3& point) {
    const double c = std::cos(box.yaw), s = std::sin(box.yaw);
    const Vec3 o = sub(point, box.centre);
    const Vec3 local{c * o[0] + s * o[1], -s * o[0] + c * o[1], o[2]};
    double outside = 0.0;
    double inside = -std::numeric_limits<double>::infinity();
    for (int axis = 0; axis < 3; ++axis) {
        const double excess = std::fabs(local[axis]) - box.half[axis];
        outside += std::max(excess, 0.0) * std::max(excess, 0.0);
        inside = std::max(inside, excess);
    }
    return inside > 0.0 ? std::sqrt(outside) : -inside;
}

}  // namespace

double surfaceDistance(const Vec3& point) {
    double distance = std::min({point[0], kRoomLength - point[0], point[1], kRoomWidth - point[1],
                                point[2], kRoomHeight - point[2]});
    distance = std::fabs(distance);
    for (const Box& box : kBoxes) {
        distance = std::min(distance, boxDistance(box, point));
    }
    const Vec3 toBall = sub(point, ballCentre());
    return std::min(distance, std::fabs(std::sqrt(dot(toBall, toBall)) - kBallRadius));
}

const std::vector<TruePlane>& truePlanes() {
    static const std::vector<TruePlane> planes = {
        {"floor", {0, 0, 1}, 0.0, {kRoomLength / 2, kRoomWidth / 2, 0.0}},
        {"ceiling", {0, 0, -1}, kRoomHeight, {kRoomLength / 2, kRoomWidth / 2, kRoomHeight}},
        {"west wall", {1, 0, 0}, 0.0, {0.0, kRoomWidth / 2, kRoomHeight / 2}},
        {"east wall", {-1, 0, 0}, kRoomLength, {kRoomLength, kRoomWidth / 2, kRoomHeight / 2}},
        {"south wall", {0, 1, 0}, 0.0, {kRoomLength / 2, 0.0, kRoomHeight / 2}},
        {"north wall", {0, -1, 0}, kRoomWidth, {kRoomLength / 2, kRoomWidth, kRoomHeight / 2}},
        {"table top", {0, 0, 1}, -kTableTop, {kRoomLength / 2, kRoomWidth / 2, kTableTop}},
    };
    return planes;
}

std::vector<TrueObject> trueObjects() {
    const SceneObject objects[] = {SceneObject::kTable, SceneObject::kBoxSmall,
                                   SceneObject::kBoxTall};
    std::vector<TrueObject> result;
    for (SceneObject object : objects) {
        TrueObject truth{
            object,
            {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(),
             std::numeric_limits<double>::infinity()},
            {-std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
             -std::numeric_limits<double>::infinity()}};
        for (const Box& box : kBoxes) {
            if (box.object != object) {
                continue;
            }
            // The corners of the turned box bound it; its yaw is about z only.
            const double c = std::cos(box.yaw), s = std::sin(box.yaw);
            const double extent[3] = {std::fabs(c) * box.half[0] + std::fabs(s) * box.half[1],
                                      std::fabs(s) * box.half[0] + std::fabs(c) * box.half[1],
                                      box.half[2]};
            for (int axis = 0; axis < 3; ++axis) {
                truth.boundsMin[axis] =
                    std::min(truth.boundsMin[axis], box.centre[axis] - extent[axis]);
                truth.boundsMax[axis] =
                    std::max(truth.boundsMax[axis], box.centre[axis] + extent[axis]);
            }
        }
        result.push_back(truth);
    }
    const Vec3 ball = ballCentre();
    result.push_back({SceneObject::kBall,
                      {ball[0] - kBallRadius, ball[1] - kBallRadius, ball[2] - kBallRadius},
                      {ball[0] + kBallRadius, ball[1] + kBallRadius, ball[2] + kBallRadius}});
    return result;
}

const SceneObjectInfo& objectInfo(SceneObject object) {
    return kObjects[static_cast<size_t>(object)];
}

Vec3 ballCentre() {
    return {2.25, 1.35, kTableTop + kBallRadius};
}
double ballRadius() {
    return kBallRadius;
}

Intrinsics sceneIntrinsics(uint32_t width, uint32_t height) {
    // 525 pixels of focal length at 640 x 480; another size keeps the field of view, so each
    // focal length scales with its image side and the principal point stays at the centre.
    constexpr double kFocalAtDefaultSize = 525.0;
    return {kFocalAtDefaultSize * width / kDefaultWidth,
            kFocalAtDefaultSize * height / kDefaultHeight, (width - 1) / 2.0, (height - 1) / 2.0};
}

RayHit castRay(const Vec3& origin, const Vec3& direction) {
    RayHit hit;
    hit.t = std::numeric_limits<double>::infinity();
    // The room is seen from inside: the hit is where the ray leaves the room's box.
    const double lower[3] = {0.0, 0.0, 0.0};
    const double upper[3] = {kRoomLength, kRoomWidth, kRoomHeight};
    const SceneObject lowerFace[3] = {SceneObject::kWallWest, SceneObject::kWallSouth,
                                      SceneObject::kFloor};
    const SceneObject upperFace[3] = {SceneObject::kWallEast, SceneObject::kWallNorth,
                                      SceneObject::kCeiling};
    for (int axis = 0; axis < 3; ++axis) {
        if (direction[axis] > 0.0) {
            const double t = (upper[axis] - origin[axis]) / direction[axis];
            if (t < hit.t) {
                hit.t = t;
                hit.object = upperFace[axis];
            }
        } else if (direction[axis] < 0.0) {
            const double t = (lower[axis] - origin[axis]) / direction[axis];
            if (t < hit.t) {
                hit.t = t;
                hit.object = lowerFace[axis];
            }
        }
    }
    for (const Box& box : kBoxes) {
        const double t = intersectBox(box, origin, direction);
        if (t < hit.t) {
            hit.t = t;
            hit.object = box.object;
        }
    }
    const double tBall = intersectSphere(ballCentre(), kBallRadius, origin, direction);
    if (tBall < hit.t) {
        hit.t = tBall;
        hit.object = SceneObject::kBall;
    }
    hit.point = add(origin, scale(direction, hit.t));
    return hit;
}

std::array<uint8_t, 3> surfaceColor(SceneObject object, const Vec3& point) {
    // The squares are centred on the lattice of kCheckerSize, so their borders lie at odd
    // multiples of half a square, where no axis-aligned face of the scene lies; a face therefore
    // never flickers between the two shades through rounding of the hit point.
    long parity = 0;
    for (double coordinate : point) {
        parity += static_cast<long>(std::floor(coordinate / kCheckerSize + 0.5));
    }
    std::array<uint8_t, 3> color = objectInfo(object).color;
    if (parity % 2 != 0) {
        for (uint8_t& channel : color) {
            channel = static_cast<uint8_t>(std::lround(channel * kCheckerShade));
        }
    }
    return color;
}

Matrix4d lookAt(const Vec3& position, const Vec3& target) {
    const Vec3 up{0.0, 0.0, 1.0};
    const Vec3 forward = normalised(sub(target, position));
    const Vec3 right = normalised(cross(forward, up));
    const Vec3 down = cross(forward, right);
    Matrix4d m = identityMatrix();
    for (int row = 0; row < 3; ++row) {
        m[row * 4 + 0] = right[row];
        m[row * 4 + 1] = down[row];
        m[row * 4 + 2] = forward[row];
        m[row * 4 + 3] = position[row];
    }
    return m;
}

Matrix4d cameraPose(size_t frame, size_t frameCount) {
    const double theta = 2.0 * kPi * static_cast<double>(frame) / std::max<size_t>(frameCount, 1);
    const Vec3 centre{kRoomLength / 2, kRoomWidth / 2, 0.0};
    const Vec3 position{centre[0] + kOrbitRadiusX * std::cos(theta),
                        centre[1] + kOrbitRadiusY * std::sin(theta),
                        kOrbitHeight + kOrbitHeightSwing * std::sin(2.0 * theta)};
    const Vec3 target{centre[0] + kTargetSwingX * std::cos(2.0 * theta),
                      centre[1] + kTargetSwingY * std::sin(3.0 * theta),
                      kTargetHeight + kTargetHeightSwing * std::sin(theta)};
    return lookAt(position, target);
}

Frame renderView(const Matrix4d& worldFromCamera, const Intrinsics& intrinsics, uint32_t width,
                 uint32_t height, double noiseMmAt1m, std::mt19937& rng) {
    Frame frame;
    frame.width = width;
    frame.height = height;
    frame.worldFromCamera = worldFromCamera;
    frame.hasLabels = true;
    frame.hasColor = true;
    const size_t pixels = size_t{width} * height;
    frame.depthMm.resize(pixels);
    frame.labels8.resize(pixels);
    frame.rgb.resize(pixels * 3);
    const Vec3 origin{worldFromCamera[3], worldFromCamera[7], worldFromCamera[11]};
    std::normal_distribution<double> gaussian(0.0, 1.0);
    for (uint32_t v = 0; v < height; ++v) {
        for (uint32_t u = 0; u < width; ++u) {
            // With a camera ray of unit z the ray parameter of a hit is its depth.
            const Vec3 camera{(u - intrinsics.cx) / intrinsics.fx,
                              (v - intrinsics.cy) / intrinsics.fy, 1.0};
            Vec3 direction{};
            for (int row = 0; row < 3; ++row) {
                direction[row] = worldFromCamera[row * 4 + 0] * camera[0] +
                                 worldFromCamera[row * 4 + 1] * camera[1] +
                                 worldFromCamera[row * 4 + 2] * camera[2];
            }
            const RayHit hit = castRay(origin, direction);
            double depthMm = hit.t * kMillimetresPerMetre;
            if (noiseMmAt1m > 0.0) {
                depthMm += gaussian(rng) * noiseMmAt1m * hit.t * hit.t;
            }
            const size_t index = size_t{v} * width + u;
            frame.depthMm[index] =
                static_cast<uint16_t>(std::clamp(std::round(depthMm), 0.0, kMaxDepthMm));
            frame.labels8[index] = objectInfo(hit.object).label;
            const std::array<uint8_t, 3> color = surfaceColor(hit.object, hit.point);
            std::copy(color.begin(), color.end(), frame.rgb.begin() + index * 3);
        }
    }
    return frame;
}

BuiltinSceneSource::BuiltinSceneSource(size_t frameCount, uint32_t width, uint32_t height,
                                       double noiseMmAt1m, uint32_t seed)
    : mFrameCount(frameCount),
      mWidth(width),
      mHeight(height),
      mNoiseMmAt1m(noiseMmAt1m),
      mSeed(seed) {}

std::string BuiltinSceneSource::describe() const {
    return "built-in scene, " + std::to_string(mFrameCount) + " frames of " +
           std::to_string(mWidth) + "x" + std::to_string(mHeight);
}

FrameStatus BuiltinSceneSource::load(size_t index, Frame& frame, std::string&) {
    std::seed_seq seeds{mSeed, static_cast<uint32_t>(index)};
    std::mt19937 rng(seeds);
    frame = renderView(cameraPose(index, mFrameCount), intrinsics(), mWidth, mHeight, mNoiseMmAt1m,
                       rng);
    frame.timestamp = static_cast<int64_t>(index) * kFrameIntervalNs;
    return FrameStatus::kOk;
}

}  // namespace VelmoraTool
