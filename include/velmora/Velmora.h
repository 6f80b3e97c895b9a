// Velmora: scene reconstruction for mobile devices.
//
// The whole public interface of the library: the records a host passes in and gets back, the
// result codes, the abstract scene `IVelmora` and its factory `newVelmora`. This header uses
// only standard headers, so a host can compile against it without anything else of ours.
//
// Units: metres in world and camera space, millimetres in depth images, pixels in intrinsics.
// Poses map camera (or local) coordinates to world coordinates.
//
// Threads: one producer thread calls `submitImages`; any number of other threads may call the
// queries at the same time. `init` and destruction must not overlap with any other call.
#ifndef VELMORA_VELMORA_H
#define VELMORA_VELMORA_H

#include <array>
#include <cstdint>

#if defined(_WIN32)
#define VELMORA_API __declspec(dllexport)
#else
#define VELMORA_API __attribute__((visibility("default")))
#endif

namespace Velmora {

// ---------------------------------------------------------------------------------------------
// Result codes. Zero is success, every failure is negative; the code is the whole report.

using XrResultVLM = int32_t;
// Host time stamp; passed through to the frames without interpretation.
using XrTimeVLM = int64_t;

constexpr XrResultVLM kSuccess = 0;
// A caller's buffer is too small; the required counts were written back, nothing else filled.
constexpr XrResultVLM kErrorBufferTooSmall = -11;
// The pose orientation is not a unit quaternion, or a pose value is not finite.
constexpr XrResultVLM kErrorPoseInvalid = -39;
// The object is not initialised.
constexpr XrResultVLM kErrorNotInitialized = -2000000;
// `init` called on an object that is already initialised.
constexpr XrResultVLM kErrorAlreadyInitialized = -2000001;
// Intrinsics invalid: one of the four values, narrowed to float, is not finite or not above zero.
constexpr XrResultVLM kErrorIntrinsicsInvalid = -2000002;
// `Config::cellSize` is not above zero.
constexpr XrResultVLM kErrorCellSizeInvalid = -2000003;
// An image has a null pixel pointer or a zero width, height or stride, or rows (of `stride`
// bytes) shorter than its width; a label image has a class of 32 or more, or (combined mode)
// another size than its depth image.
constexpr XrResultVLM kErrorImageInvalid = -2000004;
// The image combination is not allowed in this run mode.
constexpr XrResultVLM kErrorImageCombination = -2000005;
// A direction vector has zero length.
constexpr XrResultVLM kErrorDirectionZero = -2000006;
// `Config::truncation` is below five times `cellSize`.
constexpr XrResultVLM kErrorTruncationTooSmall = -2000007;
// Image count outside 1 to 3, no depth or no label image among two or three images; or, for the
// two-call protocol, a span with a null pointer and a non-zero capacity.
constexpr XrResultVLM kErrorInvalidArgument = -2000008;
// Plane detection was not enabled in `Config`.
constexpr XrResultVLM kErrorPlanesDisabled = -2000010;
// A mesh of one instance was asked for but `Config::labelPlanes` is off.
constexpr XrResultVLM kErrorInstanceMeshDisabled = -2000011;
// The instance id is not among the current instances.
constexpr XrResultVLM kErrorUnknownInstance = -2000012;
// A `PolygonMeshBufferDescriptor` list is inconsistent.
constexpr XrResultVLM kErrorBufferDescriptors = -2000014;

// ---------------------------------------------------------------------------------------------
// Records. Plain data, owned by the host; the library reads them only during a call.

// Every UUID the library hands out or takes, 16 bytes.
using UuidBytes = std::array<uint8_t, 16>;

// A counted array. For input, `size` is the element count. For the two-call protocol the span is
// taken by reference: `size` is the capacity on entry and the required count on return.
template <typename T>
struct span {
    T* data = nullptr;
    uint32_t size = 0;
};

struct XrVector2fVLM {
    float x;
    float y;
};

struct XrVector3fVLM {
    float x;
    float y;
    float z;
};

// Quaternion stored x, y, z, w.
struct XrQuaternionfVLM {
    float x;
    float y;
    float z;
    float w;
};

// Maps camera (or local) coordinates to world coordinates; metres.
struct XrPosefVLM {
    XrQuaternionfVLM orientation;
    XrVector3fVLM position;
};

struct XrColor4fVLM {
    float r;
    float g;
    float b;
    float a;
};

// Pinhole intrinsics in pixels; no size, no distortion.
struct IntrinsicLinearCameraCalibrationVLM {
    double principalPointX;
    double principalPointY;
    double focalLengthX;
    double focalLengthY;
};

struct Config {
    float cellSize;     // distance between two samples of the volume, metres
    float truncation;   // half width of the signed-distance band, metres; at least 5 * cellSize
    int32_t mode;       // 0 combined (depth and labels together), 1 split (separate streams)
    bool detectPlanes;  // enables getPlanes
    float planeMaxStdError;          // largest standard error of a plane fit
    float planeMaxAngle;             // largest angle, radians, between planes that may merge
    uint32_t planeSolverIterations;  // rounds of the robust plane solver
    float planeContourAlpha;         // parameter of the contour step
    bool labelPlanes;  // plane labels in getPlanes and instance meshes in extractSurface
};

// Image formats accepted by `submitImages`.
enum ImageFormat : uint32_t {
    kImageDepthU16 = 0,         // 16-bit millimetres, all bits significant
    kImageDepthU16Flagged = 1,  // low 13 bits millimetres, top 3 bits flags (flagged = invalid)
    kImageLabelU8 = 2,          // 8-bit class id
    kImageLabelU16 = 3,         // 16-bit class id, saturated to 8 bits
    kImageColorRGB8 = 4,        // three bytes a pixel, rows dense
};

// One image of a frame. The pixels belong to the host and are only read during the call.
struct Image {
    uint32_t format;        // an ImageFormat value
    const void* pixelData;  // first pixel
    uint32_t width;         // pixels
    uint32_t height;        // pixels
    uint32_t stride;        // bytes from one row to the next
    uint32_t maxDepth;      // depth only: largest valid raw value in millimetres; 0 = no limit
};

struct TextureQuality {
    bool vertexColors;             // compute a colour per vertex
    bool textureCoordinates;       // not supported: the coordinates are left empty
    uint8_t removeUnseenVertices;  // non-zero deletes vertices that received no colour
};

struct ObjectInstance {
    UuidBytes uuid;
    uint16_t label;           // semantic class
    XrVector3fVLM boundsMin;  // axis-aligned bounds, world metres
    XrVector3fVLM boundsMax;
};

struct SubsumedLink {
    UuidBytes first;
    UuidBytes second;
};

struct Planef {
    UuidBytes uuid;
    float plane[4];           // unit normal and plane constant
    XrVector3fVLM* vertices;  // host array receiving the contour
    uint32_t vertexCount;
    uint32_t reserved;  // always written as zero
    uint16_t label;
};

// Arrays in host memory; each pointer comes with its element count.
struct PolygonMesh {
    XrVector3fVLM* positions;  // world metres
    uint32_t positionCount;
    uint32_t* indices;  // triangle list
    uint32_t indexCount;
    uint16_t* instanceIds;  // per vertex
    uint32_t instanceIdCount;
    XrColor4fVLM* colors;  // per vertex
    uint32_t colorCount;
    XrVector2fVLM* texCoords;  // per vertex
    uint32_t texCoordCount;
};

// Where one attribute goes in the host's buffers.
// attribute: 0 position (12 bytes), 1 colour (16), 2 texture coordinate (8), 3 instance id (2),
// 4 index (4); the number in brackets is the required elementSize.
struct PolygonMeshBufferDescriptor {
    uint32_t attribute;
    uint32_t bufferIndex;  // which PolygonMeshBuffer
    uint32_t offset;       // bytes from the buffer start to the first element
    uint32_t elementSize;  // bytes
    uint32_t stride;       // bytes from one element to the next
};

struct PolygonMeshBuffer {
    void* data;
    uint32_t size;         // capacity in bytes
    uint32_t vertexCount;  // written by the library
    uint32_t indexCount;   // written by the library
};

struct PlacementInfo {
    uint8_t result;  // outcome of the placement search; 0 means no placement
    XrPosefVLM poseLocalToWorld;
    uint16_t label;
};

// Outcome of a collision query: `collision` is 0 no collision, 1 collision, 2 unknown.
struct IntersectionResult {
    int32_t collision;
    float distance;
    XrVector3fVLM point;
};

// ---------------------------------------------------------------------------------------------
// The scene. Destroy it through the virtual destructor; the host must have stopped its calls.
class IVelmora {
public:
    virtual ~IVelmora() = default;

    // Once per object. Fails with kErrorAlreadyInitialized, kErrorCellSizeInvalid or
    // kErrorTruncationTooSmall (checked in that order) and then changes nothing.
    virtual XrResultVLM init(const Config& config) = 0;

    // Fuses one frame: one to three images (depth, label, colour) taken at `pose`.
    virtual XrResultVLM submitImages(XrTimeVLM time,
                                     const IntrinsicLinearCameraCalibrationVLM& intrinsics,
                                     const XrPosefVLM& pose, span<const Image> images) = 0;

    // The surface of the whole scene (all-zero uuid) or of one object instance.
    virtual XrResultVLM extractSurface(PolygonMesh& mesh, bool annotate, const UuidBytes& uuid,
                                       TextureQuality quality) = 0;
    virtual XrResultVLM extractSurface(span<const PolygonMeshBufferDescriptor> descriptors,
                                       span<PolygonMeshBuffer> buffers, bool annotate,
                                       const UuidBytes& uuid, TextureQuality quality) = 0;

    // Collision of a point, an axis-aligned box (`size` is the full edge length) or a sphere
    // with the known geometry, in split mode; world metres. `collision` is 1 when a sample at or
    // behind a surface lies inside (nearest lattice point for the point), 2 when space there was
    // never observed (and no collision was found), else 0. `distance`:
    // - collision: 0 for box and sphere; for a point, its distance to the lattice point hit;
    // - otherwise the distance to the nearest surface sample within `maxDistance` (none is
    //   searched when `maxDistance` is not above 0), with `point` that sample. Where nothing is
    //   that near, point and box give -1.0 and point (0, 0, 0), while the sphere measures from
    //   its centre less its radius and gives `maxDistance - radius`.
    // They never fail: before `init`, or in a run mode without a depth grid, they answer unknown
    // (2) with distance -1.0 and point (0, 0, 0). Any input is accepted (a NaN coordinate is
    // unknown space). Safe to call from any thread, also during `submitImages`.
    virtual IntersectionResult intersectPoint(const XrVector3fVLM& position,
                                              float maxDistance) const = 0;
    virtual IntersectionResult intersectAxisAlignedBox(const XrVector3fVLM& center,
                                                       const XrVector3fVLM& size,
                                                       float maxDistance) const = 0;
    virtual IntersectionResult intersectSphere(const XrVector3fVLM& center, float radius,
                                               float maxDistance) const = 0;

    // Where an object can be placed along the line from `lineStart` in `lineDirection` (need not
    // be unit length), within `maxDistance` metres: `info.result` 1 with a pose on the first
    // surface, local y along the surface normal and local z along `referenceDirection x normal`,
    // and the semantic label there. `info.result` 0 (still kSuccess) when there is no surface,
    // the surface there is not fully observed, or it faces away from the line's start.
    // kErrorNotInitialized before `init`; kErrorDirectionZero for a direction of zero length or
    // with a non-finite component; kErrorInvalidArgument for a non-finite reference direction.
    // A zero reference direction, or one parallel to the normal, is only accepted where the
    // normal is perpendicular to the world x axis (or lies along it): elsewhere the frame is not
    // a rotation, which aborts. Safe to call from any thread, also during `submitImages`.
    virtual XrResultVLM getPlacementInfo(const XrVector3fVLM& lineStart,
                                         const XrVector3fVLM& lineDirection,
                                         const XrVector3fVLM& referenceDirection,
                                         PlacementInfo& info, float maxDistance) const = 0;

    // Two-call protocol: each span's size is its capacity on entry, the required count on return.
    virtual XrResultVLM getObjectInstances(span<ObjectInstance>& instances,
                                           span<SubsumedLink>& subsumed) = 0;
    virtual XrResultVLM getPlanes(span<Planef>& planes, span<SubsumedLink>& subsumed) = 0;

    // Version text; valid for the life of the object, needs no `init`.
    virtual const char* getVersion() const = 0;
};

}  // namespace Velmora

// The factory. The caller owns the object and deletes it through `IVelmora`.
extern "C" VELMORA_API Velmora::IVelmora* newVelmora();

#endif  // VELMORA_VELMORA_H
