// How close a reconstruction of the built-in scene is to the scene's analytic truth: the distance
// of the mesh vertices to the true surface, the share of the seen true surface that the mesh
// covers, and which true planes and objects the library reported.
#ifndef VELMORA_TOOL_ACCURACY_H
#define VELMORA_TOOL_ACCURACY_H

#include <cstdint>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "velmora/BuiltinScene.h"
#include "velmora/SceneReadout.h"

namespace VelmoraTool {

// True surface within this distance (metres) of a vertex counts as covered.
constexpr double kCompletenessDistance = 0.02;
// A reported plane matches a true one within this angle (degrees) between the normals and this
// distance (metres) between the planes: of the reported outline's centre from the true plane, or
// of the true plane's centre from a reported plane without an outline.
constexpr double kPlaneMatchAngleDeg = 10.0;
constexpr double kPlaneMatchOffset = 0.05;
// An instance matches an object when their boxes overlap by at least this intersection over union
// and the labels agree.
constexpr double kObjectMatchOverlap = 0.25;

struct PlaneMatch {
    std::string name;
    bool matched = false;
    std::string planeId;       // the best reported plane, empty when there is none near
    double angleDeg = 0.0;     // between the normals
    double offsetError = 0.0;  // metres, as for kPlaneMatchOffset
};

struct ObjectMatch {
    std::string name;
    uint16_t label = 0;
    bool matched = false;
    std::string instanceId;  // the instance overlapping most, empty when none overlaps
    uint16_t instanceLabel = 0;
    double overlap = 0.0;  // intersection over union of the boxes
};

struct AccuracyReport {
    size_t vertices = 0;
    double meanDistance = 0.0;  // metres, vertices to the true surface
    double medianDistance = 0.0;
    double p95Distance = 0.0;
    size_t truthPoints = 0;     // samples of the true surface that the frames saw
    double completeness = 0.0;  // share of them within kCompletenessDistance of a vertex
    std::vector<PlaneMatch> planes;
    size_t planesMatched = 0;
    std::vector<ObjectMatch> objects;
    size_t objectsMatched = 0;
};

// The run of the built-in scene that a reconstruction came from: its frame count and image size.
struct BuiltinSceneRun {
    size_t frameCount = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

// Points of the true surface that the frames of `run` saw, about one per square centimetre.
std::vector<Vec3> seenTrueSurface(const BuiltinSceneRun& run);

// Measures against the built-in scene as seen by the frames of `run`.
AccuracyReport evaluateBuiltinScene(const HostMesh& mesh, const HostPlanes& planes,
                                    const HostInstances& instances, const BuiltinSceneRun& run);

// The report as lines of the summary (the plane and object matches only when
// `withPlanesAndObjects`), and as the "accuracy" object of the statistics.
void printAccuracy(const AccuracyReport& report, bool withPlanesAndObjects, std::ostream& out);
nlohmann::json accuracyJson(const AccuracyReport& report);

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_ACCURACY_H
