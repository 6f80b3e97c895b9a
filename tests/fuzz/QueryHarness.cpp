// The queries of the fuzz harnesses, each checked against what the public header promises for any
// argument. A careful host: it follows the two-call protocols, never asks for texture coordinates
// nor passes a zero reference direction to placement (both refused by aborting), and lays out
// mesh buffers it really owns.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/Logger.h"
#include "fuzz/FuzzHarness.h"
#include "fuzz/FuzzInput.h"
#include "support/HostReads.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace Velmora {
namespace Fuzz {

namespace {

// Ordinary query arguments, metres: around and inside a small room at the origin.
constexpr float kTypicalCoordinateLo = -2.0f;
constexpr float kTypicalCoordinateHi = 6.0f;
constexpr float kTypicalDistanceHi = 3.0f;
constexpr float kUnitTolerance = 1e-3f;  // largest |q^2 - 1| of a unit quaternion or normal
constexpr int kQueryKinds = 8;
constexpr int kPlanesQuery = 5;
enum Attribute : uint32_t { kPosition, kColour, kTexCoord, kInstanceId, kIndex };

XrVector3fVLM anyPoint(FuzzInput& in) {
    return {in.anyFloat(kTypicalCoordinateLo, kTypicalCoordinateHi),
            in.anyFloat(kTypicalCoordinateLo, kTypicalCoordinateHi),
            in.anyFloat(kTypicalCoordinateLo, kTypicalCoordinateHi)};
}

XrVector3fVLM anyDirection(FuzzInput& in) {
    return {in.anyFloat(-1.0f, 1.0f), in.anyFloat(-1.0f, 1.0f), in.anyFloat(-1.0f, 1.0f)};
}

bool finite(const XrVector3fVLM& v) {
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

void checkIntersection(const IntersectionResult& r) {
    fuzzCheck(r.collision >= 0 && r.collision <= 2, "collision outcome outside 0..2");
}

void placement(Impl& scene, FuzzInput& in) {
    const XrVector3fVLM start = anyPoint(in);
    const XrVector3fVLM direction = anyDirection(in);
    XrVector3fVLM reference = anyDirection(in);
    if (reference.x == 0.0f && reference.y == 0.0f && reference.z == 0.0f)
        reference = {0.0f, 0.0f, 1.0f};
    const float maxDistance = in.anyFloat(0.0f, kTypicalDistanceHi);
    PlacementInfo info{};
    const XrResultVLM r = scene.getPlacementInfo(start, direction, reference, info, maxDistance);
    fuzzCheck(r == kSuccess || r == kErrorDirectionZero || r == kErrorInvalidArgument,
              "getPlacementInfo result code");
    if (r == kSuccess && info.result != 0) {
        const XrQuaternionfVLM& q = info.poseLocalToWorld.orientation;
        const float norm = q.x * q.x + q.y * q.y + q.z * q.z + q.w * q.w;
        fuzzCheck(std::fabs(norm - 1.0f) < kUnitTolerance,
                  "placement orientation not of unit length");
        fuzzCheck(finite(info.poseLocalToWorld.position), "placement position not finite");
    }
}

// The instance ids the last getObjectInstances of the input handed out, for instance meshes.
std::vector<UuidBytes>& knownInstances() {
    static std::vector<UuidBytes> uuids;
    return uuids;
}

void instances(Impl& scene) {
    const Test::InstanceReport report = Test::readInstances(scene);
    fuzzCheck(report.result == kSuccess, "getObjectInstances with the capacities it asked for");
    knownInstances().clear();
    for (const ObjectInstance& instance : report.instances)
        knownInstances().push_back(instance.uuid);
}

void planes(Impl& scene) {
    const Test::PlaneReadout readout = Test::readPlanes(scene);
    if (readout.result == kErrorPlanesDisabled)
        return;
    fuzzCheck(readout.result == kSuccess, "getPlanes with the capacities it asked for");
    for (const Test::ReadPlane& plane : readout.planes) {
        const float* p = plane.record.plane;
        fuzzCheck(std::fabs(p[0] * p[0] + p[1] * p[1] + p[2] * p[2] - 1.0f) < kUnitTolerance,
                  "plane normal not unit");
    }
}

UuidBytes meshId(FuzzInput& in) {
    UuidBytes uuid{};
    const int choice = in.byte() % 4;
    if (choice == 1 && !knownInstances().empty()) {
        uuid = knownInstances()[in.byte() % knownInstances().size()];
    } else if (choice == 2) {
        uuid = in.raw<UuidBytes>();
    }
    return uuid;
}

TextureQuality anyQuality(FuzzInput& in) {
    TextureQuality quality{};
    quality.vertexColors = in.flag();
    quality.removeUnseenVertices = in.byte() % 2;
    return quality;
}

void checkMesh(const std::vector<XrVector3fVLM>& positions, const std::vector<uint32_t>& indices) {
    fuzzCheck(indices.size() % 3 == 0, "index count not a multiple of three");
    for (uint32_t index : indices)
        fuzzCheck(index < positions.size(), "mesh index beyond the positions");
    for (const XrVector3fVLM& p : positions)
        fuzzCheck(finite(p), "mesh position not finite");
}

bool meshResultExpected(XrResultVLM r) {
    return r == kSuccess || r == kErrorBufferTooSmall || r == kErrorInstanceMeshDisabled ||
           r == kErrorUnknownInstance;
}

// The array form; the counts of the second call are those of the first, no frame came between.
void meshArrays(Impl& scene, FuzzInput& in) {
    const bool annotate = in.flag();
    const UuidBytes uuid = meshId(in);
    const TextureQuality quality = anyQuality(in);
    const Test::HostMesh mesh = Test::readMesh(scene, uuid, annotate, quality);
    fuzzCheck(meshResultExpected(mesh.result) && mesh.result != kErrorBufferTooSmall,
              "extractSurface with the capacities it asked for");
    fuzzCheck(mesh.result != kSuccess || (mesh.written.positionCount == mesh.positions.size() &&
                                          mesh.written.indexCount == mesh.indices.size()),
              "extractSurface counts changed without a frame");
    checkMesh(mesh.positions, mesh.indices);
}

// The buffer form in one buffer per attribute, or with positions and colours interleaved in one;
// the indices in a call of their own, only when the positions show a surface (an index copy of a
// mesh without triangles is refused by aborting). In one buffer the later descriptor (colours)
// writes the buffer's counts, so the vertex count comes from a query of the positions alone.
void meshBuffers(Impl& scene, FuzzInput& in) {
    const bool annotate = in.flag();
    const UuidBytes uuid = meshId(in);
    const TextureQuality quality = anyQuality(in);
    const bool separate = in.flag();

    using Descriptors = std::vector<PolygonMeshBufferDescriptor>;
    const Descriptors descriptors =
        separate ? Descriptors{{kPosition, 0, 0, 12, 12},
                               {kInstanceId, 1, 0, 2, 2},
                               {kColour, 2, 0, 16, 16}}
                 : Descriptors{{kPosition, 0, 0, 12, 28}, {kColour, 0, 12, 16, 28}};
    std::vector<PolygonMeshBuffer> buffers(separate ? 3 : 1);
    span<const PolygonMeshBufferDescriptor> described{descriptors.data(),
                                                      uint32_t(descriptors.size())};
    span<PolygonMeshBuffer> owned{buffers.data(), uint32_t(buffers.size())};
    XrResultVLM r = scene.extractSurface(described, owned, annotate, uuid, quality);
    fuzzCheck(meshResultExpected(r), "extractSurface buffer count call");
    if (r != kErrorBufferTooSmall)
        return;
    uint32_t vertexCount = buffers[0].vertexCount;
    if (!separate) {
        PolygonMeshBuffer query{};
        r = scene.extractSurface({descriptors.data(), 1}, {&query, 1}, annotate, uuid, quality);
        fuzzCheck(r == kErrorBufferTooSmall, "extractSurface position count call");
        vertexCount = query.vertexCount;
    }
    std::vector<PolygonMeshBuffer> indexBuffer(1);
    std::vector<PolygonMeshBufferDescriptor> indexDescriptor{{kIndex, 0, 0, 4, 4}};
    uint32_t indexCount = 0;
    if (vertexCount > 0) {
        r = scene.extractSurface({indexDescriptor.data(), 1}, {indexBuffer.data(), 1}, annotate,
                                 uuid, quality);
        fuzzCheck(r == kErrorBufferTooSmall, "extractSurface index count call");
        indexCount = indexBuffer[0].indexCount;
    }
    std::vector<std::vector<uint8_t>> storage(buffers.size());
    for (size_t b = 0; b < buffers.size(); ++b) {
        uint32_t bytes = 0;
        for (const PolygonMeshBufferDescriptor& d : descriptors) {
            if (d.bufferIndex == b)
                bytes += d.elementSize * vertexCount;
        }
        storage[b].resize(bytes + 1);
        buffers[b].data = storage[b].data();
        buffers[b].size = bytes;
    }
    r = scene.extractSurface(described, owned, annotate, uuid, quality);
    fuzzCheck(r == kSuccess, "extractSurface buffers with the capacities it asked for");
    if (indexCount > 0) {
        std::vector<uint32_t> indices(indexCount);
        indexBuffer[0].data = indices.data();
        indexBuffer[0].size = indexCount * 4;
        r = scene.extractSurface({indexDescriptor.data(), 1}, {indexBuffer.data(), 1}, annotate,
                                 uuid, quality);
        fuzzCheck(r == kSuccess, "extractSurface indices with the capacity asked for");
        for (uint32_t index : indices)
            fuzzCheck(index < vertexCount, "buffer index beyond the positions");
    }
}

void runQueryOfKind(Impl& scene, FuzzInput& in, int kind) {
    switch (kind) {
        case 0:
            checkIntersection(
                scene.intersectPoint(anyPoint(in), in.anyFloat(0.0f, kTypicalDistanceHi)));
            break;
        case 1: {
            const XrVector3fVLM centre = anyPoint(in);
            const XrVector3fVLM size = anyDirection(in);
            checkIntersection(
                scene.intersectAxisAlignedBox(centre, size, in.anyFloat(0.0f, kTypicalDistanceHi)));
            break;
        }
        case 2: {
            const XrVector3fVLM centre = anyPoint(in);
            const float radius = in.anyFloat(0.0f, 1.0f);
            checkIntersection(
                scene.intersectSphere(centre, radius, in.anyFloat(0.0f, kTypicalDistanceHi)));
            break;
        }
        case 3:
            placement(scene, in);
            break;
        case 4:
            instances(scene);
            break;
        case kPlanesQuery:
            planes(scene);
            break;
        case 6:
            meshArrays(scene, in);
            break;
        default:
            meshBuffers(scene, in);
            break;
    }
}

}  // namespace

QuietLog::QuietLog() : mPreviousLevel(AR::Common::Logger::getInstance().getLevel()) {
    AR::Common::Logger::getInstance().setLevel(AR::Common::Logger::LEVEL_NONE);
}

QuietLog::~QuietLog() {
    AR::Common::Logger::getInstance().setLevel(mPreviousLevel);
}

void fuzzCheck(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz harness: broken promise: %s\n", what);
        std::abort();
    }
}

size_t blockCount(Impl& scene) {
    Impl::State& s = internalState(scene);
    return (s.mVolumeGrid ? s.mVolumeGrid->size() + s.mLabelVolumeGrid->size() : 0) +
           (s.mLabelDepthVolumeGrid ? s.mLabelDepthVolumeGrid->size() : 0);
}

void forgetInstances() {
    knownInstances().clear();
}

void runQuery(Impl& scene, FuzzInput& in) {
    runQueryOfKind(scene, in, in.byte() % kQueryKinds);
}

void runEveryQuery(Impl& scene, FuzzInput& in, bool withPlanes) {
    for (int kind = 0; kind < kQueryKinds; ++kind) {
        if (kind == kPlanesQuery && !withPlanes)
            continue;
        runQueryOfKind(scene, in, kind);
    }
}

}  // namespace Fuzz
}  // namespace Velmora
