// What the scene tests share: scenes made and fed as a host would (a room, boxes on a floor seen
// from four corners), the host's reads of meshes and planes, and a captured log.
#ifndef VELMORA_TESTS_VELMORA_HOSTSCENES_H
#define VELMORA_TESTS_VELMORA_HOSTSCENES_H

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "common/Logger.h"
#include "support/PlaneScenes.h"
#include "support/SceneSetup.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace Velmora {
namespace Test {

constexpr float kCell = 0.04f;
constexpr float kTruncation = 0.2f;
const UuidBytes kWholeScene{};

inline std::unique_ptr<Impl> makeScene(int32_t mode, bool labelPlanes = true) {
    return makeInitialisedScene(mode, kCell, kTruncation, labelPlanes);
}

inline AnalyticScene room() {
    return AnalyticScene::room(4.0, 3.0, 2.6);
}

// Boxes on a floor: A and B apart, C long enough to span several blocks (a block is 0.32 m).
const std::vector<TrueBox> kBoxes = {{{0.3, 0.3, 0.0}, {0.7, 0.7, 0.4}, 4},
                                     {{1.3, 0.2, 0.0}, {1.6, 0.5, 0.3}, 5},
                                     {{0.2, 1.3, 0.0}, {1.6, 1.5, 0.25}, 6}};

// Views from above the four corners of the boxes' area, looking at its middle.
inline std::vector<PinholeCamera> aroundTheBoxes() {
    std::vector<PinholeCamera> cameras;
    for (const Vec3d& eye :
         {Vec3d{-0.6, -0.6, 1.4}, {2.4, -0.6, 1.4}, {2.4, 2.3, 1.4}, {-0.6, 2.3, 1.4}}) {
        cameras.push_back(viewFrom(eye, {0.9, 0.85, 0.1}));
    }
    return cameras;
}

inline std::unique_ptr<Impl> fusedBoxes(int32_t mode, const std::vector<TrueBox>& boxes = kBoxes) {
    std::unique_ptr<Impl> scene = makeScene(mode);
    for (const PinholeCamera& camera : aroundTheBoxes())
        fuseView(*scene, mode, boxesOnAFloor(boxes), camera);
    return scene;
}

inline size_t blockCount(Impl& scene) {
    Impl::State& s = internalState(scene);
    return (s.mVolumeGrid ? s.mVolumeGrid->size() : 0) +
           (s.mLabelDepthVolumeGrid ? s.mLabelDepthVolumeGrid->size() : 0);
}

// A host's mesh in the array form: counts, then arrays.
struct HostMesh {
    XrResultVLM result = 0;
    std::vector<XrVector3fVLM> positions;
    std::vector<uint32_t> indices;
    std::vector<uint16_t> ids;
};

inline HostMesh readMesh(IVelmora& scene, const UuidBytes& uuid) {
    HostMesh out;
    PolygonMesh mesh{};
    out.result = scene.extractSurface(mesh, true, uuid, TextureQuality{});
    if (out.result == kErrorBufferTooSmall) {
        out.positions.resize(mesh.positionCount);
        out.indices.resize(mesh.indexCount);
        out.ids.resize(mesh.instanceIdCount);
        mesh.positions = out.positions.data();
        mesh.indices = out.indices.data();
        mesh.instanceIds = out.ids.data();
        out.result = scene.extractSurface(mesh, true, uuid, TextureQuality{});
    }
    return out;
}

inline Config planeConfig(int32_t mode, float cellSize, bool detectPlanes = true) {
    Config config = sceneConfig(mode, cellSize, 5 * cellSize, true);
    config.detectPlanes = detectPlanes;
    config.planeMaxStdError = 0.01f;
    config.planeMaxAngle = 0.1f;
    config.planeSolverIterations = 5;
    config.planeContourAlpha = 0.0f;
    return config;
}

struct ReadPlane {
    Planef record;
    std::vector<XrVector3fVLM> contour;
};

struct PlaneReadout {
    XrResultVLM result = 0;
    std::vector<ReadPlane> planes;  // when the result is a success
    std::vector<SubsumedLink> links;
};

// The host's calls: counts, then records and links, then the contours; a call more while the
// answer is "too small" (a producer beside the reader may have grown them), three at most.
inline PlaneReadout readPlanes(IVelmora& scene) {
    PlaneReadout out;
    std::vector<Planef> records;
    std::vector<std::vector<XrVector3fVLM>> contours;
    span<Planef> planes{nullptr, 0};
    span<SubsumedLink> links{nullptr, 0};
    for (int call = 0; call < 3; ++call) {
        out.result = scene.getPlanes(planes, links);
        if (out.result != kErrorBufferTooSmall)
            break;
        records.resize(planes.size);
        out.links.resize(links.size);
        contours.resize(records.size());
        for (size_t i = 0; i < records.size(); ++i) {
            contours[i].resize(records[i].vertexCount);
            records[i].vertices = contours[i].data();
        }
        planes = {records.data(), uint32_t(records.size())};
        links = {out.links.data(), uint32_t(out.links.size())};
    }
    for (size_t i = 0; i < records.size() && out.result == kSuccess; ++i)
        out.planes.push_back({records[i], contours[i]});
    return out;
}

// The lines the logger hands out while the object lives.
class CapturedLog : public AR::Common::LogTarget {
public:
    CapturedLog() { AR::Common::Logger::getInstance().addTarget(this); }
    ~CapturedLog() override { AR::Common::Logger::getInstance().removeTarget(this); }
    void write(int, const char* line, size_t length) override { lines.emplace_back(line, length); }
    bool has(const std::string& part) const {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(part) != std::string::npos;
        });
    }
    std::vector<std::string> lines;
};

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_VELMORA_HOSTSCENES_H
