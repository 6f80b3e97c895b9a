// A careful host's reads through the counting protocols of the public header: ask for the
// counts, size the arrays, ask again. The answers are returned, not judged, so that the tests and
// the fuzz harnesses (which have no GoogleTest) each judge them by their own rules.
#ifndef VELMORA_TESTS_SUPPORT_HOSTREADS_H
#define VELMORA_TESTS_SUPPORT_HOSTREADS_H

#include <vector>

#include "velmora/Velmora.h"

namespace Velmora {
namespace Test {

struct InstanceReport {
    XrResultVLM result = 0;
    std::vector<ObjectInstance> instances;
    std::vector<SubsumedLink> links;
};

// The two calls: counts, then the arrays.
inline InstanceReport readInstances(IVelmora& scene) {
    InstanceReport report;
    span<ObjectInstance> instances{};
    span<SubsumedLink> links{};
    report.result = scene.getObjectInstances(instances, links);
    if (report.result != kErrorBufferTooSmall)
        return report;
    report.instances.resize(instances.size);
    report.links.resize(links.size);
    instances.data = report.instances.data();
    links.data = report.links.data();
    report.result = scene.getObjectInstances(instances, links);
    return report;
}

// A mesh in the array form; `written` is the record as the last call left it.
struct HostMesh {
    XrResultVLM result = 0;
    std::vector<XrVector3fVLM> positions;
    std::vector<uint32_t> indices;
    std::vector<uint16_t> ids;          // when annotated
    std::vector<XrColor4fVLM> colours;  // when asked for
    PolygonMesh written{};
};

// The two calls: counts, then arrays of those sizes.
inline HostMesh readMesh(IVelmora& scene, const UuidBytes& uuid, bool annotate = true,
                         const TextureQuality& quality = {}) {
    HostMesh out;
    PolygonMesh& mesh = out.written;
    out.result = scene.extractSurface(mesh, annotate, uuid, quality);
    if (out.result != kErrorBufferTooSmall)
        return out;
    out.positions.resize(mesh.positionCount);
    out.indices.resize(mesh.indexCount);
    out.ids.resize(annotate ? mesh.instanceIdCount : 0);
    out.colours.resize(quality.vertexColors ? mesh.colorCount : 0);
    mesh = PolygonMesh{};
    mesh.positions = out.positions.data();
    mesh.positionCount = uint32_t(out.positions.size());
    mesh.indices = out.indices.data();
    mesh.indexCount = uint32_t(out.indices.size());
    mesh.instanceIds = out.ids.data();
    mesh.instanceIdCount = uint32_t(out.ids.size());
    mesh.colors = out.colours.data();
    mesh.colorCount = uint32_t(out.colours.size());
    out.result = scene.extractSurface(mesh, annotate, uuid, quality);
    return out;
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

// The calls: counts, then records and links, then the contours; a call more while the answer is
// "too small" (a producer beside the reader may have grown them), three at most.
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

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_SUPPORT_HOSTREADS_H
