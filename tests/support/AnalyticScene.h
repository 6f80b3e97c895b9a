// Scenes with exact signed distances and a pinhole renderer (axial depth, label and colour of the
// object hit). World metres; `T_world_camera` row-major, camera to world; camera x right, y down,
// z forward; pixel (u, v) looks along ((u - cx) / fx, (v - cy) / fy, 1) as the library unprojects.
#ifndef VELMORA_TESTS_SUPPORT_ANALYTICSCENE_H
#define VELMORA_TESTS_SUPPORT_ANALYTICSCENE_H

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "velmora/Velmora.h"

namespace Velmora {
namespace Test {

using Vec3d = std::array<double, 3>;
using Pose = std::array<double, 16>;  // row-major 4x4, camera to world

// One solid object: signed distance positive outside, and the first hit of a ray.
class Primitive {
public:
    Primitive(uint8_t label, std::array<uint8_t, 3> colour) : mLabel(label), mColour(colour) {}
    virtual ~Primitive() = default;
    virtual double signedDistance(const Vec3d& p) const = 0;
    // Smallest t > 0 with origin + t * direction on the surface, or false.
    virtual bool intersect(const Vec3d& origin, const Vec3d& direction, double& t) const = 0;
    uint8_t label() const { return mLabel; }
    const std::array<uint8_t, 3>& colour() const { return mColour; }

private:
    uint8_t mLabel;
    std::array<uint8_t, 3> mColour;
};

// Half-space {p : n.p < offset} is solid; n is normalised on construction.
std::unique_ptr<Primitive> makeHalfSpace(Vec3d normal, double offset, uint8_t label,
                                         std::array<uint8_t, 3> colour);
std::unique_ptr<Primitive> makeBox(Vec3d min, Vec3d max, uint8_t label,
                                   std::array<uint8_t, 3> colour);
std::unique_ptr<Primitive> makeSphere(Vec3d centre, double radius, uint8_t label,
                                      std::array<uint8_t, 3> colour);

// A union of solids. Inside a room of inward-facing half-spaces the distance is exact.
class AnalyticScene {
public:
    void add(std::unique_ptr<Primitive> primitive) { mPrimitives.push_back(std::move(primitive)); }
    double signedDistance(const Vec3d& p) const;
    // First hit along the ray; `hit` is the index of the primitive.
    bool cast(const Vec3d& origin, const Vec3d& direction, double& t, size_t& hit) const;
    const Primitive& primitive(size_t i) const { return *mPrimitives[i]; }
    size_t size() const { return mPrimitives.size(); }
    // Label of the primitive whose surface is nearest to `p`.
    uint8_t nearestLabel(const Vec3d& p) const;

    // A closed room [0, sx] x [0, sy] x [0, sz] with label 1 floor (z = 0), 2 walls, 3 ceiling.
    static AnalyticScene room(double sx, double sy, double sz);

private:
    std::vector<std::unique_ptr<Primitive>> mPrimitives;
};

struct PinholeCamera {
    int width = 64;
    int height = 48;
    double fx = 50.0;
    double fy = 50.0;
    double cx = 31.5;
    double cy = 23.5;
    Pose T_world_camera{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

    IntrinsicLinearCameraCalibrationVLM intrinsics() const { return {cx, cy, fx, fy}; }
    XrPosefVLM pose() const;
};

// A camera at `eye` looking at `target`; `up` points roughly up in the image (camera -y).
Pose lookAt(const Vec3d& eye, const Vec3d& target, const Vec3d& up);
// A width x height camera (principal point in the middle) at `eye` looking at `target`, z up.
PinholeCamera viewFrom(const Vec3d& eye, const Vec3d& target, int width = 160, int height = 120,
                       double focal = 110.0);

// The images of one view, dense rows. Depth 0 where nothing is hit within `maxRange` metres.
struct RenderedFrame {
    int width = 0;
    int height = 0;
    std::vector<float> depthMetres;
    std::vector<uint16_t> depthMillimetres;  // rounded to the nearest millimetre
    std::vector<uint8_t> labels;
    std::vector<uint8_t> rgb;  // three bytes a pixel

    Image depthImage() const;  // format 0
    Image labelImage() const;  // format 2
    Image colorImage() const;  // format 4
};

RenderedFrame render(const AnalyticScene& scene, const PinholeCamera& camera,
                     double maxRange = 10.0);

// World position seen through pixel (u, v) at axial depth `depth`.
Vec3d unproject(const PinholeCamera& camera, double u, double v, double depth);

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_SUPPORT_ANALYTICSCENE_H
