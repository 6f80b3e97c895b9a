#include "support/AnalyticScene.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Velmora {
namespace Test {

namespace {

double dot(const Vec3d& a, const Vec3d& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
Vec3d sub(const Vec3d& a, const Vec3d& b) {
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
Vec3d cross(const Vec3d& a, const Vec3d& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
Vec3d normalised(const Vec3d& a) {
    const double n = std::sqrt(dot(a, a));
    return {a[0] / n, a[1] / n, a[2] / n};
}

class HalfSpace : public Primitive {
public:
    HalfSpace(Vec3d normal, double offset, uint8_t label, std::array<uint8_t, 3> colour)
        : Primitive(label, colour), mNormal(normalised(normal)), mOffset(offset) {}
    double signedDistance(const Vec3d& p) const override { return dot(mNormal, p) - mOffset; }
    bool intersect(const Vec3d& o, const Vec3d& d, double& t) const override {
        const double denom = dot(mNormal, d);
        if (denom == 0.0)
            return false;
        t = (mOffset - dot(mNormal, o)) / denom;
        return t > 0.0;
    }

private:
    Vec3d mNormal;
    double mOffset;
};

class Box : public Primitive {
public:
    Box(Vec3d min, Vec3d max, uint8_t label, std::array<uint8_t, 3> colour)
        : Primitive(label, colour), mMin(min), mMax(max) {}
    double signedDistance(const Vec3d& p) const override {
        double outside = 0.0, inside = -std::numeric_limits<double>::infinity();
        for (int a = 0; a < 3; ++a) {
            const double c = 0.5 * (mMin[a] + mMax[a]);
            const double q = std::fabs(p[a] - c) - 0.5 * (mMax[a] - mMin[a]);
            outside += std::max(q, 0.0) * std::max(q, 0.0);
            inside = std::max(inside, q);
        }
        return std::sqrt(outside) + std::min(inside, 0.0);
    }
    bool intersect(const Vec3d& o, const Vec3d& d, double& t) const override {
        double tNear = -std::numeric_limits<double>::infinity();
        double tFar = std::numeric_limits<double>::infinity();
        for (int a = 0; a < 3; ++a) {
            if (d[a] == 0.0) {
                if (o[a] < mMin[a] || o[a] > mMax[a])
                    return false;
                continue;
            }
            double t0 = (mMin[a] - o[a]) / d[a];
            double t1 = (mMax[a] - o[a]) / d[a];
            if (t0 > t1)
                std::swap(t0, t1);
            tNear = std::max(tNear, t0);
            tFar = std::min(tFar, t1);
        }
        if (tNear > tFar || tFar <= 0.0)
            return false;
        t = tNear > 0.0 ? tNear : tFar;
        return true;
    }

private:
    Vec3d mMin;
    Vec3d mMax;
};

class Sphere : public Primitive {
public:
    Sphere(Vec3d centre, double radius, uint8_t label, std::array<uint8_t, 3> colour)
        : Primitive(label, colour), mCentre(centre), mRadius(radius) {}
    double signedDistance(const Vec3d& p) const override {
        const Vec3d q = sub(p, mCentre);
        return std::sqrt(dot(q, q)) - mRadius;
    }
    bool intersect(const Vec3d& o, const Vec3d& d, double& t) const override {
        const Vec3d oc = sub(o, mCentre);
        const double a = dot(d, d), b = dot(oc, d), c = dot(oc, oc) - mRadius * mRadius;
        const double disc = b * b - a * c;
        if (disc < 0.0)
            return false;
        const double root = std::sqrt(disc);
        t = (-b - root) / a;
        if (t <= 0.0)
            t = (-b + root) / a;
        return t > 0.0;
    }

private:
    Vec3d mCentre;
    double mRadius;
};

}  // namespace

std::unique_ptr<Primitive> makeHalfSpace(Vec3d normal, double offset, uint8_t label,
                                         std::array<uint8_t, 3> colour) {
    const double n = std::sqrt(dot(normal, normal));
    return std::make_unique<HalfSpace>(normal, offset / n, label, colour);
}

std::unique_ptr<Primitive> makeBox(Vec3d min, Vec3d max, uint8_t label,
                                   std::array<uint8_t, 3> colour) {
    return std::make_unique<Box>(min, max, label, colour);
}

std::unique_ptr<Primitive> makeSphere(Vec3d centre, double radius, uint8_t label,
                                      std::array<uint8_t, 3> colour) {
    return std::make_unique<Sphere>(centre, radius, label, colour);
}

double AnalyticScene::signedDistance(const Vec3d& p) const {
    double d = std::numeric_limits<double>::infinity();
    for (const auto& primitive : mPrimitives)
        d = std::min(d, primitive->signedDistance(p));
    return d;
}

bool AnalyticScene::cast(const Vec3d& origin, const Vec3d& direction, double& t,
                         size_t& hit) const {
    bool found = false;
    for (size_t i = 0; i < mPrimitives.size(); ++i) {
        double ti = 0.0;
        if (mPrimitives[i]->intersect(origin, direction, ti) && (!found || ti < t)) {
            t = ti;
            hit = i;
            found = true;
        }
    }
    return found;
}

uint8_t AnalyticScene::nearestLabel(const Vec3d& p) const {
    size_t nearest = 0;
    for (size_t i = 1; i < mPrimitives.size(); ++i)
        if (std::abs(mPrimitives[i]->signedDistance(p)) <
            std::abs(mPrimitives[nearest]->signedDistance(p)))
            nearest = i;
    return mPrimitives[nearest]->label();
}

AnalyticScene AnalyticScene::room(double sx, double sy, double sz) {
    AnalyticScene scene;
    // Solid is everything outside the room: n.p < offset, n pointing into the room.
    scene.add(makeHalfSpace({0, 0, 1}, 0.0, 1, {200, 180, 150}));   // floor z = 0
    scene.add(makeHalfSpace({0, 0, -1}, -sz, 3, {240, 240, 240}));  // ceiling
    scene.add(makeHalfSpace({1, 0, 0}, 0.0, 2, {180, 200, 220}));   // walls
    scene.add(makeHalfSpace({-1, 0, 0}, -sx, 2, {180, 200, 220}));
    scene.add(makeHalfSpace({0, 1, 0}, 0.0, 2, {180, 200, 220}));
    scene.add(makeHalfSpace({0, -1, 0}, -sy, 2, {180, 200, 220}));
    return scene;
}

XrPosefVLM PinholeCamera::pose() const {
    // p[i][j] = 4 q_i q_j (x, y, z, w) from the rotation; divided through the largest component.
    const Pose& m = T_world_camera;
    const double d[4] = {1 + m[0] - m[5] - m[10], 1 - m[0] + m[5] - m[10], 1 - m[0] - m[5] + m[10],
                         1 + m[0] + m[5] + m[10]};
    const double p[4][4] = {{d[0], m[1] + m[4], m[2] + m[8], m[9] - m[6]},
                            {m[1] + m[4], d[1], m[6] + m[9], m[2] - m[8]},
                            {m[2] + m[8], m[6] + m[9], d[2], m[4] - m[1]},
                            {m[9] - m[6], m[2] - m[8], m[4] - m[1], d[3]}};
    const long k = std::max_element(d, d + 4) - d;
    double q[4], n = 0.0;
    for (int j = 0; j < 4; ++j) {
        q[j] = p[k][j] / (2.0 * std::sqrt(d[k]));
        n += q[j] * q[j];
    }
    n = std::sqrt(n);
    XrPosefVLM pose{};
    pose.orientation = {static_cast<float>(q[0] / n), static_cast<float>(q[1] / n),
                        static_cast<float>(q[2] / n), static_cast<float>(q[3] / n)};
    pose.position = {static_cast<float>(m[3]), static_cast<float>(m[7]), static_cast<float>(m[11])};
    return pose;
}

Pose lookAt(const Vec3d& eye, const Vec3d& target, const Vec3d& up) {
    const Vec3d z = normalised(sub(target, eye));
    const Vec3d x = normalised(cross(z, {-up[0], -up[1], -up[2]}));
    const Vec3d y = cross(z, x);
    return {x[0], y[0], z[0], eye[0], x[1], y[1], z[1], eye[1],
            x[2], y[2], z[2], eye[2], 0,    0,    0,    1};
}

PinholeCamera viewFrom(const Vec3d& eye, const Vec3d& target, int width, int height, double focal) {
    PinholeCamera camera;
    camera.width = width;
    camera.height = height;
    camera.fx = camera.fy = focal;
    camera.cx = (width - 1) / 2.0;
    camera.cy = (height - 1) / 2.0;
    camera.T_world_camera = lookAt(eye, target, {0, 0, 1});
    return camera;
}

Vec3d unproject(const PinholeCamera& camera, double u, double v, double depth) {
    const double xc = (u - camera.cx) / camera.fx * depth;
    const double yc = (v - camera.cy) / camera.fy * depth;
    const Pose& m = camera.T_world_camera;
    return {m[0] * xc + m[1] * yc + m[2] * depth + m[3],
            m[4] * xc + m[5] * yc + m[6] * depth + m[7],
            m[8] * xc + m[9] * yc + m[10] * depth + m[11]};
}

RenderedFrame render(const AnalyticScene& scene, const PinholeCamera& camera, double maxRange) {
    RenderedFrame frame;
    frame.width = camera.width;
    frame.height = camera.height;
    const size_t n = static_cast<size_t>(camera.width) * static_cast<size_t>(camera.height);
    frame.depthMetres.assign(n, 0.0f);
    frame.depthMillimetres.assign(n, 0);
    frame.labels.assign(n, 0);
    frame.rgb.assign(3 * n, 0);
    const Pose& m = camera.T_world_camera;
    const Vec3d origin{m[3], m[7], m[11]};
    for (int v = 0; v < camera.height; ++v) {
        for (int u = 0; u < camera.width; ++u) {
            // Direction with unit z in the camera, so t is the axial depth.
            const Vec3d target = unproject(camera, u, v, 1.0);
            const Vec3d direction = sub(target, origin);
            double t = 0.0;
            size_t hit = 0;
            if (!scene.cast(origin, direction, t, hit) || t > maxRange)
                continue;
            const size_t i =
                static_cast<size_t>(v) * static_cast<size_t>(camera.width) + static_cast<size_t>(u);
            frame.depthMetres[i] = static_cast<float>(t);
            frame.depthMillimetres[i] = static_cast<uint16_t>(std::lround(t * 1000.0));
            frame.labels[i] = scene.primitive(hit).label();
            for (int c = 0; c < 3; ++c)
                frame.rgb[3 * i + c] = scene.primitive(hit).colour()[c];
        }
    }
    return frame;
}

Image RenderedFrame::depthImage() const {
    const auto w = static_cast<uint32_t>(width), h = static_cast<uint32_t>(height);
    return Image{kImageDepthU16, depthMillimetres.data(), w, h, 2 * w, 0};
}

Image RenderedFrame::labelImage() const {
    const auto w = static_cast<uint32_t>(width), h = static_cast<uint32_t>(height);
    return Image{kImageLabelU8, labels.data(), w, h, w, 0};
}

Image RenderedFrame::colorImage() const {
    const auto w = static_cast<uint32_t>(width), h = static_cast<uint32_t>(height);
    return Image{kImageColorRGB8, rgb.data(), w, h, 3 * w, 0};
}

}  // namespace Test
}  // namespace Velmora
