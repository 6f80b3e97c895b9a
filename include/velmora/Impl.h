// The implementation class behind `IVelmora`.
//
// A host that links the library may `static_cast` the pointer from `newVelmora` to `Impl` to
// reach the members that are not part of the interface: saving and loading the volumes.
// Everything else of the scene lives behind the opaque `State`, so this header stays free of
// internal types.
#ifndef VELMORA_IMPL_H
#define VELMORA_IMPL_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "velmora/Velmora.h"

namespace Velmora {

class VELMORA_API Impl : public IVelmora {
public:
    Impl();
    ~Impl() override;
    // The scene owns grids and caches; it is neither copied nor moved.
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    XrResultVLM init(const Config& config) override;
    XrResultVLM submitImages(XrTimeVLM time, const IntrinsicLinearCameraCalibrationVLM& intrinsics,
                             const XrPosefVLM& pose, span<const Image> images) override;
    XrResultVLM extractSurface(PolygonMesh& mesh, bool annotate, const UuidBytes& uuid,
                               TextureQuality quality) override;
    XrResultVLM extractSurface(span<const PolygonMeshBufferDescriptor> descriptors,
                               span<PolygonMeshBuffer> buffers, bool annotate,
                               const UuidBytes& uuid, TextureQuality quality) override;
    IntersectionResult intersectPoint(const XrVector3fVLM& position,
                                      float maxDistance) const override;
    IntersectionResult intersectAxisAlignedBox(const XrVector3fVLM& center,
                                               const XrVector3fVLM& size,
                                               float maxDistance) const override;
    IntersectionResult intersectSphere(const XrVector3fVLM& center, float radius,
                                       float maxDistance) const override;
    XrResultVLM getPlacementInfo(const XrVector3fVLM& lineStart, const XrVector3fVLM& lineDirection,
                                 const XrVector3fVLM& referenceDirection, PlacementInfo& info,
                                 float maxDistance) const override;
    XrResultVLM getObjectInstances(span<ObjectInstance>& instances,
                                   span<SubsumedLink>& subsumed) override;
    XrResultVLM getPlanes(span<Planef>& planes, span<SubsumedLink>& subsumed) override;
    const char* getVersion() const override;

    // Writes one file per grid of the run mode, named `baseName` plus the grid's ending.
    // Returns non-zero on success; 0 before `init`.
    int saveVolumes(const std::string& baseName) const;
    // Reads the files written by saveVolumes; missing files are skipped. Returns non-zero on
    // success; 0 before `init`. Must not overlap with any other call.
    int loadVolumes(const std::string& baseName);

    // Validation shared by `init` and `submitImages`; 0 when the input is acceptable.
    static XrResultVLM checkConfig(const Config& config);
    static XrResultVLM checkIntrinsics(const IntrinsicLinearCameraCalibrationVLM& intrinsics);

    // Everything of the scene that needs internal types: grids, detectors, caches. Its type is
    // defined only inside the library.
    struct State;

private:
    friend struct StateAccess;  // the library's own reach into State (src/velmora/ImplState.h)

    bool isInitialized() const;
    // The common step of both forms of extractSurface: brings the mesh cache of `instanceId`
    // (0: the whole scene) up to date.
    XrResultVLM extractSurface(bool annotate, const unsigned short& instanceId,
                               const TextureQuality& quality);

    bool mInitialized = false;      // guarded by mInitMutex
    std::string mVersion;           // the text of getVersion
    mutable std::mutex mInitMutex;  // guards mInitialized only
    uint64_t mUuidPrefix = 0;       // first half of every UUID handed out; never set
    std::unique_ptr<State> mState;
};

}  // namespace Velmora

#endif  // VELMORA_IMPL_H
