// What the library reports about a fused scene, copied into the tool's own containers through the
// public two-call protocols: the mesh of the whole scene or of one instance, the planes with their
// contours, the object instances, and the subsumed links of both. Everything here uses only the
// public interface, as a host would.
#ifndef VELMORA_TOOL_SCENEREADOUT_H
#define VELMORA_TOOL_SCENEREADOUT_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "velmora/Velmora.h"

namespace VelmoraTool {

// A triangle mesh in world metres. `colors` (RGBA in [0, 1]; alpha 0 marks a vertex that no colour
// frame saw) and `instanceIds` are either empty or hold one entry per position.
struct HostMesh {
    std::vector<std::array<float, 3>> positions;
    std::vector<uint32_t> indices;  // triangle list
    std::vector<uint16_t> instanceIds;
    std::vector<std::array<float, 4>> colors;

    size_t triangleCount() const { return indices.size() / 3; }
};

struct HostPlane {
    Velmora::UuidBytes uuid{};
    uint16_t label = 0;
    // The plane normal . x + offset = 0, world metres; the normal points to free space.
    std::array<float, 3> normal{};
    float offset = 0.0f;
    std::vector<std::array<float, 3>> contour;  // world metres, in the library's order
};

struct HostInstance {
    Velmora::UuidBytes uuid{};
    uint16_t label = 0;
    std::array<float, 3> boundsMin{};  // world metres
    std::array<float, 3> boundsMax{};
};

struct HostLink {
    Velmora::UuidBytes first{};
    Velmora::UuidBytes second{};
};

struct HostPlanes {
    std::vector<HostPlane> planes;
    std::vector<HostLink> links;
};

struct HostInstances {
    std::vector<HostInstance> instances;
    std::vector<HostLink> links;
};

// The all-zero UUID, which asks extractSurface for the whole scene.
constexpr Velmora::UuidBytes kWholeScene{};

// Each returns the library's result: kSuccess with the output filled (possibly empty), or the
// failure code of the last call. The two-call protocols are repeated while the library reports a
// buffer that is too small, which happens only when another thread fuses in between.
Velmora::XrResultVLM readMesh(Velmora::IVelmora& scene, const Velmora::UuidBytes& uuid,
                              bool withColors, HostMesh& mesh);
Velmora::XrResultVLM readPlanes(Velmora::IVelmora& scene, HostPlanes& planes);
Velmora::XrResultVLM readInstances(Velmora::IVelmora& scene, HostInstances& instances);

// The 32 hexadecimal digits of a UUID, bytes in order.
std::string uuidText(const Velmora::UuidBytes& uuid);

// The JSON documents of `--planes` and `--instances`, indented.
std::string planesJson(const HostPlanes& planes);
std::string instancesJson(const HostInstances& instances);

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_SCENEREADOUT_H
