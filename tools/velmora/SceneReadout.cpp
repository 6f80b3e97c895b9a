#include "velmora/SceneReadout.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace VelmoraTool {
namespace {

// A call is repeated at most this often while the counts keep growing under it.
constexpr int kMaxAttempts = 8;

std::array<float, 3> toArray(const Velmora::XrVector3fVLM& v) {
    return {v.x, v.y, v.z};
}

// The files are read by people: keys in the order written, and each float as the shortest
// decimal at micrometre resolution (0.92, not 0.9199999570846558).
using Json = nlohmann::ordered_json;

double readable(float value) {
    constexpr double kMicro = 1e6;
    return std::round(static_cast<double>(value) * kMicro) / kMicro;
}

Json readable(const std::array<float, 3>& v) {
    return Json::array({readable(v[0]), readable(v[1]), readable(v[2])});
}

Json linksJson(const std::vector<HostLink>& links) {
    Json json = Json::array();
    for (const HostLink& link : links) {
        json.push_back({{"first", uuidText(link.first)}, {"second", uuidText(link.second)}});
    }
    return json;
}

std::vector<HostLink> toHostLinks(const std::vector<Velmora::SubsumedLink>& links, uint32_t count) {
    std::vector<HostLink> result;
    for (uint32_t i = 0; i < count; ++i) {
        result.push_back({links[i].first, links[i].second});
    }
    return result;
}

}  // namespace

Velmora::XrResultVLM readMesh(Velmora::IVelmora& scene, const Velmora::UuidBytes& uuid,
                              bool withColors, HostMesh& mesh) {
    // Instance ids are always asked for: split mode delivers them anyway, combined mode on request.
    constexpr bool kAnnotate = true;
    const Velmora::TextureQuality quality{withColors, false, 0};
    std::vector<Velmora::XrVector3fVLM> positions;
    std::vector<Velmora::XrColor4fVLM> colors;
    mesh = HostMesh{};
    Velmora::XrResultVLM result = Velmora::kErrorBufferTooSmall;
    for (int attempt = 0; attempt < kMaxAttempts && result == Velmora::kErrorBufferTooSmall;
         ++attempt) {
        Velmora::PolygonMesh request{};
        request.positions = positions.data();
        request.positionCount = static_cast<uint32_t>(positions.size());
        request.indices = mesh.indices.data();
        request.indexCount = static_cast<uint32_t>(mesh.indices.size());
        request.instanceIds = mesh.instanceIds.data();
        request.instanceIdCount = static_cast<uint32_t>(mesh.instanceIds.size());
        request.colors = colors.data();
        request.colorCount = static_cast<uint32_t>(colors.size());
        result = scene.extractSurface(request, kAnnotate, uuid, quality);
        if (result == Velmora::kErrorBufferTooSmall || result == Velmora::kSuccess) {
            positions.resize(request.positionCount);
            mesh.indices.resize(request.indexCount);
            mesh.instanceIds.resize(request.instanceIdCount);
            colors.resize(withColors ? request.colorCount : 0);
        }
    }
    if (result != Velmora::kSuccess) {
        mesh = HostMesh{};
        return result;
    }
    for (const Velmora::XrVector3fVLM& p : positions) {
        mesh.positions.push_back(toArray(p));
    }
    for (const Velmora::XrColor4fVLM& c : colors) {
        mesh.colors.push_back({c.r, c.g, c.b, c.a});
    }
    // An attribute that does not cover every vertex carries no meaning per vertex.
    if (mesh.instanceIds.size() != mesh.positions.size()) {
        mesh.instanceIds.clear();
    }
    if (mesh.colors.size() != mesh.positions.size()) {
        mesh.colors.clear();
    }
    return Velmora::kSuccess;
}

Velmora::XrResultVLM readPlanes(Velmora::IVelmora& scene, HostPlanes& planes) {
    planes = HostPlanes{};
    std::vector<Velmora::Planef> records;
    std::vector<Velmora::SubsumedLink> links;
    // Contour storage per plane; its size is the capacity handed to the library.
    std::vector<std::vector<Velmora::XrVector3fVLM>> contours;
    Velmora::XrResultVLM result = Velmora::kErrorBufferTooSmall;
    Velmora::span<Velmora::Planef> planeSpan{};
    Velmora::span<Velmora::SubsumedLink> linkSpan{};
    // The first round asks with empty spans: with nothing to report the library leaves them
    // untouched, so their sizes read 0; the spans of later rounds are exactly as large as asked.
    for (int attempt = 0; attempt < kMaxAttempts && result == Velmora::kErrorBufferTooSmall;
         ++attempt) {
        contours.resize(records.size());
        for (size_t i = 0; i < records.size(); ++i) {
            records[i].vertices = contours[i].empty() ? nullptr : contours[i].data();
            records[i].vertexCount = static_cast<uint32_t>(contours[i].size());
        }
        planeSpan = {records.empty() ? nullptr : records.data(),
                     static_cast<uint32_t>(records.size())};
        linkSpan = {links.empty() ? nullptr : links.data(), static_cast<uint32_t>(links.size())};
        const uint32_t planeCapacity = planeSpan.size;
        result = scene.getPlanes(planeSpan, linkSpan);
        if (result != Velmora::kErrorBufferTooSmall) {
            break;
        }
        // The plane records come back with their contour counts only when the plane array was
        // large enough; otherwise the next round learns them.
        const bool recordsFilled = planeSpan.size <= planeCapacity;
        std::vector<uint32_t> counts;
        for (uint32_t i = 0; recordsFilled && i < planeSpan.size; ++i) {
            counts.push_back(records[i].vertexCount);
        }
        records.assign(planeSpan.size, Velmora::Planef{});
        links.assign(linkSpan.size, Velmora::SubsumedLink{});
        contours.assign(planeSpan.size, {});
        for (size_t i = 0; i < counts.size(); ++i) {
            contours[i].resize(counts[i]);
        }
    }
    if (result != Velmora::kSuccess) {
        return result;
    }
    for (uint32_t i = 0; i < planeSpan.size; ++i) {
        const Velmora::Planef& record = records[i];
        HostPlane plane;
        plane.uuid = record.uuid;
        plane.label = record.label;
        plane.normal = {record.plane[0], record.plane[1], record.plane[2]};
        plane.offset = record.plane[3];
        for (uint32_t v = 0; v < record.vertexCount; ++v) {
            plane.contour.push_back(toArray(contours[i][v]));
        }
        planes.planes.push_back(std::move(plane));
    }
    planes.links = toHostLinks(links, linkSpan.size);
    return Velmora::kSuccess;
}

Velmora::XrResultVLM readInstances(Velmora::IVelmora& scene, HostInstances& instances) {
    instances = HostInstances{};
    std::vector<Velmora::ObjectInstance> records;
    std::vector<Velmora::SubsumedLink> links;
    Velmora::XrResultVLM result = Velmora::kErrorBufferTooSmall;
    Velmora::span<Velmora::ObjectInstance> instanceSpan{};
    Velmora::span<Velmora::SubsumedLink> linkSpan{};
    for (int attempt = 0; attempt < kMaxAttempts && result == Velmora::kErrorBufferTooSmall;
         ++attempt) {
        instanceSpan = {records.empty() ? nullptr : records.data(),
                        static_cast<uint32_t>(records.size())};
        linkSpan = {links.empty() ? nullptr : links.data(), static_cast<uint32_t>(links.size())};
        result = scene.getObjectInstances(instanceSpan, linkSpan);
        if (result == Velmora::kErrorBufferTooSmall) {
            records.assign(instanceSpan.size, Velmora::ObjectInstance{});
            links.assign(linkSpan.size, Velmora::SubsumedLink{});
        }
    }
    if (result != Velmora::kSuccess) {
        return result;
    }
    for (uint32_t i = 0; i < instanceSpan.size; ++i) {
        const Velmora::ObjectInstance& record = records[i];
        instances.instances.push_back(
            {record.uuid, record.label, toArray(record.boundsMin), toArray(record.boundsMax)});
    }
    instances.links = toHostLinks(links, linkSpan.size);
    return Velmora::kSuccess;
}

std::string uuidText(const Velmora::UuidBytes& uuid) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t byte : uuid) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

std::string planesJson(const HostPlanes& planes) {
    Json list = Json::array();
    for (const HostPlane& plane : planes.planes) {
        Json contour = Json::array();
        for (const std::array<float, 3>& point : plane.contour) {
            contour.push_back(readable(point));
        }
        list.push_back({{"id", uuidText(plane.uuid)},
                        {"label", plane.label},
                        {"normal", readable(plane.normal)},
                        {"offset", readable(plane.offset)},
                        {"contour", contour}});
    }
    const Json json = {
        {"units", "metres; plane: normal . x + offset = 0, normal towards free space"},
        {"planes", list},
        {"subsumed", linksJson(planes.links)}};
    return json.dump(2);
}

std::string instancesJson(const HostInstances& instances) {
    Json list = Json::array();
    for (const HostInstance& instance : instances.instances) {
        list.push_back({{"id", uuidText(instance.uuid)},
                        {"label", instance.label},
                        {"boundsMin", readable(instance.boundsMin)},
                        {"boundsMax", readable(instance.boundsMax)}});
    }
    const Json json = {{"units", "metres; axis-aligned bounds in world coordinates"},
                       {"instances", list},
                       {"subsumed", linksJson(instances.links)}};
    return json.dump(2);
}

}  // namespace VelmoraTool
