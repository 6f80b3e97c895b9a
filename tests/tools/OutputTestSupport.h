// Helpers of the output tests: a small reader of the binary PLY files the tool writes, and a
// scene double that answers the public queries with canned data under the library's two-call
// rules, so that the tool's readers can be checked against every step of the protocol.
#ifndef VELMORA_TESTS_TOOLS_OUTPUTTESTSUPPORT_H
#define VELMORA_TESTS_TOOLS_OUTPUTTESTSUPPORT_H

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "velmora/SceneReadout.h"

namespace VelmoraToolTest {

// A PLY file as read back: the header lines, the element counts, the vertex property names and
// every vertex property as a double, and the faces.
struct PlyFile {
    std::vector<std::string> header;
    size_t vertexCount = 0;
    size_t faceCount = 0;
    std::vector<std::string> vertexProperties;  // names in order
    std::vector<std::vector<double>> vertices;  // one row per vertex, one value per property
    std::vector<std::vector<uint32_t>> faces;
};

// Reads the binary little-endian files of writePly; fails the test on anything else.
inline PlyFile readPly(const std::string& path) {
    PlyFile ply;
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    std::vector<std::string> types;
    std::string line;
    while (std::getline(in, line) && line != "end_header") {
        ply.header.push_back(line);
        std::istringstream words(line);
        std::string keyword, a, b;
        words >> keyword >> a >> b;
        if (keyword == "element" && a == "vertex") {
            ply.vertexCount = std::stoul(b);
        } else if (keyword == "element" && a == "face") {
            ply.faceCount = std::stoul(b);
        } else if (keyword == "property" && a != "list") {
            types.push_back(a);
            ply.vertexProperties.push_back(b);
        }
    }
    auto read = [&in](auto value) {
        in.read(reinterpret_cast<char*>(&value), sizeof(value));
        return value;
    };
    for (size_t v = 0; v < ply.vertexCount; ++v) {
        std::vector<double> row;
        for (const std::string& type : types) {
            row.push_back(type == "float"   ? read(float{})
                          : type == "uchar" ? read(uint8_t{})
                                            : read(int32_t{}));
        }
        ply.vertices.push_back(row);
    }
    for (size_t f = 0; f < ply.faceCount; ++f) {
        const uint8_t count = read(uint8_t{});
        std::vector<uint32_t> face;
        for (uint8_t i = 0; i < count; ++i) {
            face.push_back(read(uint32_t{}));
        }
        ply.faces.push_back(face);
    }
    EXPECT_TRUE(in.good()) << "file ends early";
    in.peek();
    EXPECT_TRUE(in.eof()) << "bytes after the last face";
    return ply;
}

// The UUID the library gives an object: kind in byte 12, the id in bytes 8 and 9.
inline Velmora::UuidBytes objectUuid(uint16_t id, uint8_t kind) {
    Velmora::UuidBytes uuid{};
    uuid[8] = static_cast<uint8_t>(id & 0xFF);
    uuid[9] = static_cast<uint8_t>(id >> 8);
    uuid[12] = kind;
    return uuid;
}

// Answers extractSurface (whole scene only), getPlanes and getObjectInstances from canned data,
// following the two-call rules of the interface; counts the calls.
class CannedScene : public Velmora::IVelmora {
public:
    VelmoraTool::HostMesh mesh;
    VelmoraTool::HostPlanes planes;
    VelmoraTool::HostInstances instances;
    int meshCalls = 0;
    int planeCalls = 0;
    int instanceCalls = 0;

    Velmora::XrResultVLM init(const Velmora::Config&) override { return Velmora::kSuccess; }
    Velmora::XrResultVLM submitImages(Velmora::XrTimeVLM,
                                      const Velmora::IntrinsicLinearCameraCalibrationVLM&,
                                      const Velmora::XrPosefVLM&,
                                      Velmora::span<const Velmora::Image>) override {
        return Velmora::kSuccess;
    }
    Velmora::XrResultVLM extractSurface(Velmora::PolygonMesh& out, bool annotate,
                                        const Velmora::UuidBytes& uuid,
                                        Velmora::TextureQuality quality) override {
        ++meshCalls;
        if (uuid != VelmoraTool::kWholeScene) {
            return Velmora::kErrorUnknownInstance;
        }
        const uint32_t positions = static_cast<uint32_t>(mesh.positions.size());
        const uint32_t indices = static_cast<uint32_t>(mesh.indices.size());
        const uint32_t ids = static_cast<uint32_t>(mesh.instanceIds.size());
        const uint32_t colors = static_cast<uint32_t>(mesh.colors.size());
        const bool tooSmall = out.positionCount < positions || out.indexCount < indices ||
                              (annotate && out.instanceIdCount < ids) ||
                              (quality.vertexColors && out.colorCount < colors);
        out.positionCount = positions;
        out.indexCount = indices;
        if (annotate) {
            out.instanceIdCount = ids;
        }
        if (quality.vertexColors) {
            out.colorCount = colors;
        }
        if (tooSmall) {
            return Velmora::kErrorBufferTooSmall;
        }
        for (uint32_t v = 0; v < positions; ++v) {
            out.positions[v] = {mesh.positions[v][0], mesh.positions[v][1], mesh.positions[v][2]};
        }
        std::copy(mesh.indices.begin(), mesh.indices.end(), out.indices);
        if (annotate) {
            std::copy(mesh.instanceIds.begin(), mesh.instanceIds.end(), out.instanceIds);
        }
        for (uint32_t v = 0; quality.vertexColors && v < colors; ++v) {
            out.colors[v] = {mesh.colors[v][0], mesh.colors[v][1], mesh.colors[v][2],
                             mesh.colors[v][3]};
        }
        return Velmora::kSuccess;
    }
    Velmora::XrResultVLM extractSurface(Velmora::span<const Velmora::PolygonMeshBufferDescriptor>,
                                        Velmora::span<Velmora::PolygonMeshBuffer>, bool,
                                        const Velmora::UuidBytes&,
                                        Velmora::TextureQuality) override {
        return Velmora::kErrorInvalidArgument;
    }
    Velmora::IntersectionResult intersectPoint(const Velmora::XrVector3fVLM&,
                                               float) const override {
        return {2, -1.0f, {0, 0, 0}};
    }
    Velmora::IntersectionResult intersectAxisAlignedBox(const Velmora::XrVector3fVLM&,
                                                        const Velmora::XrVector3fVLM&,
                                                        float) const override {
        return {2, -1.0f, {0, 0, 0}};
    }
    Velmora::IntersectionResult intersectSphere(const Velmora::XrVector3fVLM&, float,
                                                float) const override {
        return {2, -1.0f, {0, 0, 0}};
    }
    Velmora::XrResultVLM getPlacementInfo(const Velmora::XrVector3fVLM&,
                                          const Velmora::XrVector3fVLM&,
                                          const Velmora::XrVector3fVLM&, Velmora::PlacementInfo&,
                                          float) const override {
        return Velmora::kSuccess;
    }
    Velmora::XrResultVLM getObjectInstances(Velmora::span<Velmora::ObjectInstance>& out,
                                            Velmora::span<Velmora::SubsumedLink>& links) override {
        ++instanceCalls;
        if (instances.instances.empty()) {
            return Velmora::kSuccess;  // spans untouched
        }
        const uint32_t instanceCapacity = out.size, linkCapacity = links.size;
        out.size = static_cast<uint32_t>(instances.instances.size());
        links.size = static_cast<uint32_t>(instances.links.size());
        if (linkCapacity < links.size) {
            return Velmora::kErrorBufferTooSmall;
        }
        copyLinks(instances.links, links.data);
        if (instanceCapacity < out.size) {
            return Velmora::kErrorBufferTooSmall;
        }
        for (uint32_t i = 0; i < out.size; ++i) {
            const VelmoraTool::HostInstance& instance = instances.instances[i];
            out.data[i] = {instance.uuid,
                           instance.label,
                           {instance.boundsMin[0], instance.boundsMin[1], instance.boundsMin[2]},
                           {instance.boundsMax[0], instance.boundsMax[1], instance.boundsMax[2]}};
        }
        return Velmora::kSuccess;
    }
    Velmora::XrResultVLM getPlanes(Velmora::span<Velmora::Planef>& out,
                                   Velmora::span<Velmora::SubsumedLink>& links) override {
        ++planeCalls;
        if ((out.data == nullptr && out.size != 0) || (links.data == nullptr && links.size != 0)) {
            return Velmora::kErrorInvalidArgument;
        }
        if (planes.planes.empty()) {
            return Velmora::kSuccess;  // spans untouched
        }
        const uint32_t planeCapacity = out.size, linkCapacity = links.size;
        out.size = static_cast<uint32_t>(planes.planes.size());
        links.size = static_cast<uint32_t>(planes.links.size());
        bool tooSmall = linkCapacity < links.size;
        if (!tooSmall) {
            copyLinks(planes.links, links.data);
        }
        if (planeCapacity < out.size) {
            return Velmora::kErrorBufferTooSmall;
        }
        bool nullError = false;
        for (uint32_t i = 0; i < out.size; ++i) {
            const VelmoraTool::HostPlane& plane = planes.planes[i];
            Velmora::Planef& record = out.data[i];
            record.uuid = plane.uuid;
            std::copy(plane.normal.begin(), plane.normal.end(), record.plane);
            record.plane[3] = plane.offset;
            record.reserved = 0;
            record.label = plane.label;
            const uint32_t capacity = record.vertexCount;
            nullError = nullError || (record.vertices == nullptr && capacity != 0);
            record.vertexCount = static_cast<uint32_t>(plane.contour.size());
            tooSmall = tooSmall || capacity < record.vertexCount;
        }
        if (nullError) {
            return Velmora::kErrorInvalidArgument;
        }
        if (tooSmall) {
            return Velmora::kErrorBufferTooSmall;
        }
        for (uint32_t i = 0; i < out.size; ++i) {
            for (size_t v = 0; v < planes.planes[i].contour.size(); ++v) {
                const std::array<float, 3>& p = planes.planes[i].contour[v];
                out.data[i].vertices[v] = {p[0], p[1], p[2]};
            }
        }
        return Velmora::kSuccess;
    }
    const char* getVersion() const override { return "canned"; }

private:
    static void copyLinks(const std::vector<VelmoraTool::HostLink>& from,
                          Velmora::SubsumedLink* to) {
        for (size_t i = 0; i < from.size(); ++i) {
            to[i] = {from[i].first, from[i].second};
        }
    }
};

}  // namespace VelmoraToolTest

#endif  // VELMORA_TESTS_TOOLS_OUTPUTTESTSUPPORT_H
