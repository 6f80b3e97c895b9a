#include "velmora/Accuracy.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>
#include <unordered_map>
#include <unordered_set>

#include "velmora/BuiltinScene.h"
#include "velmora/Fusion.h"

namespace VelmoraTool {
namespace {

constexpr double kDegreesPerRadian = 57.29577951308232;
constexpr double kMedian = 0.5;
constexpr double kPercentile95 = 0.95;
// The seen true surface is sampled by rays through every kTruthPixelStep-th pixel of each frame,
// and thinned to one sample per cube of kTruthSpacing metres so that near surfaces, which the
// rays hit densely, do not outweigh far ones.
constexpr uint32_t kTruthPixelStep = 8;
constexpr double kTruthSpacing = 0.01;

// Integer cube of edge `cell` around a point, packed into one key (21 bits per axis, offset so
// that negative coordinates of a few metres stay positive).
uint64_t cubeKey(const std::array<double, 3>& p, double cell) {
    constexpr int64_t kOffset = 1 << 20;
    constexpr int kBits = 21;
    uint64_t key = 0;
    for (int axis = 0; axis < 3; ++axis) {
        const int64_t index = static_cast<int64_t>(std::floor(p[axis] / cell)) + kOffset;
        key = (key << kBits) | (static_cast<uint64_t>(index) & ((uint64_t{1} << kBits) - 1));
    }
    return key;
}

// The vertices of a mesh bucketed in cubes of kCompletenessDistance, to find whether any lies
// within that distance of a point.
class VertexBuckets {
public:
    explicit VertexBuckets(const HostMesh& mesh) : mMesh(mesh) {
        for (uint32_t v = 0; v < mesh.positions.size(); ++v) {
            const std::array<float, 3>& p = mesh.positions[v];
            mBuckets[cubeKey({p[0], p[1], p[2]}, kCompletenessDistance)].push_back(v);
        }
    }

    bool anyWithin(const std::array<double, 3>& point, double distance) const {
        for (int dz = -1; dz <= 1; ++dz) {
            for (int dy = -1; dy <= 1; ++dy) {
                for (int dx = -1; dx <= 1; ++dx) {
                    const std::array<double, 3> probe{point[0] + dx * kCompletenessDistance,
                                                      point[1] + dy * kCompletenessDistance,
                                                      point[2] + dz * kCompletenessDistance};
                    const auto bucket = mBuckets.find(cubeKey(probe, kCompletenessDistance));
                    if (bucket == mBuckets.end()) {
                        continue;
                    }
                    for (uint32_t v : bucket->second) {
                        const std::array<float, 3>& p = mMesh.positions[v];
                        const double ex = p[0] - point[0], ey = p[1] - point[1],
                                     ez = p[2] - point[2];
                        if (ex * ex + ey * ey + ez * ez <= distance * distance) {
                            return true;
                        }
                    }
                }
            }
        }
        return false;
    }

private:
    const HostMesh& mMesh;
    std::unordered_map<uint64_t, std::vector<uint32_t>> mBuckets;
};

}  // namespace

std::vector<Vec3> seenTrueSurface(const BuiltinSceneRun& run) {
    const size_t frameCount = run.frameCount;
    const uint32_t width = run.width, height = run.height;
    const Intrinsics intrinsics = sceneIntrinsics(width, height);
    std::unordered_set<uint64_t> taken;
    std::vector<Vec3> points;
    for (size_t frame = 0; frame < frameCount; ++frame) {
        const Matrix4d pose = cameraPose(frame, frameCount);
        const Vec3 origin{pose[3], pose[7], pose[11]};
        for (uint32_t v = kTruthPixelStep / 2; v < height; v += kTruthPixelStep) {
            for (uint32_t u = kTruthPixelStep / 2; u < width; u += kTruthPixelStep) {
                const Vec3 camera{(u - intrinsics.cx) / intrinsics.fx,
                                  (v - intrinsics.cy) / intrinsics.fy, 1.0};
                Vec3 direction{};
                for (int row = 0; row < 3; ++row) {
                    direction[row] = pose[row * 4 + 0] * camera[0] + pose[row * 4 + 1] * camera[1] +
                                     pose[row * 4 + 2] * camera[2];
                }
                const RayHit hit = castRay(origin, direction);
                if (taken.insert(cubeKey(hit.point, kTruthSpacing)).second) {
                    points.push_back(hit.point);
                }
            }
        }
    }
    return points;
}

namespace {

double boxOverlap(const Vec3& aMin, const Vec3& aMax, const std::array<float, 3>& bMin,
                  const std::array<float, 3>& bMax) {
    double intersection = 1.0, volumeA = 1.0, volumeB = 1.0;
    for (int axis = 0; axis < 3; ++axis) {
        intersection *= std::max(0.0, std::min<double>(aMax[axis], bMax[axis]) -
                                          std::max<double>(aMin[axis], bMin[axis]));
        volumeA *= aMax[axis] - aMin[axis];
        volumeB *= std::max(0.0, static_cast<double>(bMax[axis]) - bMin[axis]);
    }
    const double united = volumeA + volumeB - intersection;
    return united > 0.0 ? intersection / united : 0.0;
}

// How far a reported plane lies from a true one, metres: where the plane has an outline, the
// distance of the outline's centre from the true plane (a plane seen on part of a surface and
// slightly tilted is still where that surface is); without one, the distance of the true
// surface's centre from the reported plane.
double planeOffset(const TruePlane& truth, const HostPlane& plane) {
    if (plane.contour.empty()) {
        return std::fabs(plane.normal[0] * truth.centre[0] + plane.normal[1] * truth.centre[1] +
                         plane.normal[2] * truth.centre[2] + plane.offset);
    }
    Vec3 centre{0.0, 0.0, 0.0};
    for (const std::array<float, 3>& point : plane.contour) {
        for (int axis = 0; axis < 3; ++axis) {
            centre[axis] += point[axis] / static_cast<double>(plane.contour.size());
        }
    }
    return std::fabs(truth.normal[0] * centre[0] + truth.normal[1] * centre[1] +
                     truth.normal[2] * centre[2] + truth.offset);
}

PlaneMatch matchPlane(const TruePlane& truth, const HostPlanes& planes) {
    PlaneMatch match;
    match.name = truth.name;
    double bestOffset = INFINITY;
    for (const HostPlane& plane : planes.planes) {
        const double cosine =
            std::clamp(truth.normal[0] * plane.normal[0] + truth.normal[1] * plane.normal[1] +
                           truth.normal[2] * plane.normal[2],
                       -1.0, 1.0);
        const double angle = std::acos(cosine) * kDegreesPerRadian;
        const double offset = planeOffset(truth, plane);
        if (angle <= kPlaneMatchAngleDeg && offset < bestOffset) {
            bestOffset = offset;
            match.planeId = uuidText(plane.uuid);
            match.angleDeg = angle;
            match.offsetError = offset;
        }
    }
    match.matched = bestOffset <= kPlaneMatchOffset;
    return match;
}

ObjectMatch matchObject(const TrueObject& truth, const HostInstances& instances) {
    ObjectMatch match;
    const SceneObjectInfo& info = objectInfo(truth.object);
    match.name = info.name;
    match.label = info.label;
    for (const HostInstance& instance : instances.instances) {
        const double overlap =
            boxOverlap(truth.boundsMin, truth.boundsMax, instance.boundsMin, instance.boundsMax);
        if (overlap > match.overlap) {
            match.overlap = overlap;
            match.instanceId = uuidText(instance.uuid);
            match.instanceLabel = instance.label;
        }
    }
    match.matched = match.overlap >= kObjectMatchOverlap && match.instanceLabel == match.label;
    return match;
}

}  // namespace

AccuracyReport evaluateBuiltinScene(const HostMesh& mesh, const HostPlanes& planes,
                                    const HostInstances& instances, const BuiltinSceneRun& run) {
    AccuracyReport report;
    report.vertices = mesh.positions.size();
    std::vector<double> distances;
    for (const std::array<float, 3>& p : mesh.positions) {
        distances.push_back(surfaceDistance({p[0], p[1], p[2]}));
    }
    std::sort(distances.begin(), distances.end());
    double sum = 0.0;
    for (double distance : distances) {
        sum += distance;
    }
    report.meanDistance = distances.empty() ? 0.0 : sum / distances.size();
    report.medianDistance = percentile(distances, kMedian);
    report.p95Distance = percentile(distances, kPercentile95);

    const std::vector<Vec3> truth = seenTrueSurface(run);
    const VertexBuckets buckets(mesh);
    size_t covered = 0;
    for (const Vec3& point : truth) {
        covered += buckets.anyWithin(point, kCompletenessDistance) ? 1 : 0;
    }
    report.truthPoints = truth.size();
    report.completeness = truth.empty() ? 0.0 : static_cast<double>(covered) / truth.size();

    for (const TruePlane& plane : truePlanes()) {
        report.planes.push_back(matchPlane(plane, planes));
        report.planesMatched += report.planes.back().matched ? 1 : 0;
    }
    for (const TrueObject& object : trueObjects()) {
        report.objects.push_back(matchObject(object, instances));
        report.objectsMatched += report.objects.back().matched ? 1 : 0;
    }
    return report;
}

void printAccuracy(const AccuracyReport& report, bool withPlanesAndObjects, std::ostream& out) {
    constexpr double kMillimetresPerMetre = 1000.0;
    constexpr double kPercent = 100.0;
    char text[200];
    out << "velmora accuracy against the built-in scene's true surfaces\n";
    std::snprintf(text, sizeof(text),
                  "  %-18s mean %.1f mm, median %.1f mm, p95 %.1f mm over %zu vertices\n",
                  "mesh accuracy", report.meanDistance * kMillimetresPerMetre,
                  report.medianDistance * kMillimetresPerMetre,
                  report.p95Distance * kMillimetresPerMetre, report.vertices);
    out << text;
    std::snprintf(text, sizeof(text),
                  "  %-18s %.1f %% of the seen true surface within %.0f mm of a vertex\n",
                  "completeness", report.completeness * kPercent,
                  kCompletenessDistance * kMillimetresPerMetre);
    out << text;
    if (!withPlanesAndObjects) {
        return;
    }
    std::snprintf(text, sizeof(text), "  %-18s %zu of %zu\n", "planes matched",
                  report.planesMatched, report.planes.size());
    out << text;
    for (const PlaneMatch& plane : report.planes) {
        if (plane.planeId.empty()) {
            std::snprintf(text, sizeof(text), "    %-16s no reported plane within %.0f degrees\n",
                          plane.name.c_str(), kPlaneMatchAngleDeg);
        } else {
            std::snprintf(text, sizeof(text), "    %-16s %s: angle %.2f deg, offset %.1f mm\n",
                          plane.name.c_str(), plane.matched ? "matched" : "missed ", plane.angleDeg,
                          plane.offsetError * kMillimetresPerMetre);
        }
        out << text;
    }
    std::snprintf(text, sizeof(text), "  %-18s %zu of %zu\n", "objects matched",
                  report.objectsMatched, report.objects.size());
    out << text;
    for (const ObjectMatch& object : report.objects) {
        if (object.instanceId.empty()) {
            std::snprintf(text, sizeof(text), "    %-16s no instance overlaps it\n",
                          object.name.c_str());
        } else {
            std::snprintf(text, sizeof(text), "    %-16s %s: overlap %.2f, label %u (true %u)\n",
                          object.name.c_str(), object.matched ? "matched" : "missed ",
                          object.overlap, static_cast<unsigned>(object.instanceLabel),
                          static_cast<unsigned>(object.label));
        }
        out << text;
    }
}

nlohmann::json accuracyJson(const AccuracyReport& report) {
    nlohmann::json planes = nlohmann::json::array();
    for (const PlaneMatch& plane : report.planes) {
        planes.push_back({{"name", plane.name},
                          {"matched", plane.matched},
                          {"planeId", plane.planeId},
                          {"angleDeg", plane.angleDeg},
                          {"offsetError", plane.offsetError}});
    }
    nlohmann::json objects = nlohmann::json::array();
    for (const ObjectMatch& object : report.objects) {
        objects.push_back({{"name", object.name},
                           {"label", object.label},
                           {"matched", object.matched},
                           {"instanceId", object.instanceId},
                           {"instanceLabel", object.instanceLabel},
                           {"overlap", object.overlap}});
    }
    return {{"vertices", report.vertices},
            {"distance",
             {{"mean", report.meanDistance},
              {"median", report.medianDistance},
              {"p95", report.p95Distance}}},
            {"completenessDistance", kCompletenessDistance},
            {"truthPoints", report.truthPoints},
            {"completeness", report.completeness},
            {"planesMatched", report.planesMatched},
            {"planes", planes},
            {"objectsMatched", report.objectsMatched},
            {"objects", objects}};
}

}  // namespace VelmoraTool
