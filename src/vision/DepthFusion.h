// Vector depth fusion of 8x8x8 cubes of 16-bit depth samples (the tvr kernel of the split run
// mode). One call fuses a run of blocks, each described in camera space by a 60-byte record, with
// one depth image. The kernel avoids a division per voxel: it divides exactly at a 3x3x3 grid of
// nodes (lattice indices 0, 4, 8 on each axis) and interpolates the inverse depth in between.
//
// Sample layout of a block, fixed: the 9-cube of the volume store, x fastest, the sample (x, y, z)
// at byte offset 324 * z + 36 * y + 4 * x, each sample two int16: value, then weight. Only the
// lattice indices 0 to 7 of each axis are fused; the voxels with an index 8 are never touched.
//
// The entry dispatches through a table of implementations, four slots, selected by the library's
// operation mode. Every implementation gives bit-identical samples on every input: the per-voxel
// arithmetic and its order are fixed, and the vision sources are built without floating-point
// contraction.
//
// Thread-safety: the kernel has no state besides the mode; concurrent calls on different blocks
// are safe. The caller holds the mutex of each block it passes. Depth image and volumes must not
// overlap.
#ifndef VELMORA_VISION_DEPTHFUSION_H
#define VELMORA_VISION_DEPTHFUSION_H

#include <cstddef>
#include <cstdint>

// Status of the kernel functions.
constexpr int kTvrSuccess = 0;
// Returned by an implementation that cannot handle the call; the entry then runs the portable one.
constexpr int kTvrNotImplemented = 0x8000;

// Bit of TvrBlockRecord::clip: some voxel may project outside the image, so each pixel is tested
// against the image bounds. When clear the pixel is read unchecked: the caller has made sure that
// the cube projects inside the image.
constexpr uint32_t kTvrClipBit = 1u;

// Camera-space description of one block (metres), 60 bytes, a layout shared with the callers.
struct TvrBlockRecord {
    uint32_t clip;         // kTvrClipBit: bounds tests are needed
    float ramp;            // truncation half-width in metres, above 0
    float origin[3];       // camera-space position of lattice point (0, 0, 0)
    float xStep[3];        // camera-space step per lattice index along x
    float yStep[3];        // same along y
    float zStep[3];        // same along z
    uint32_t volumeIndex;  // index of the block's samples in the run of volumes
};
static_assert(sizeof(TvrBlockRecord) == 60, "the block record is 60 bytes");
static_assert(offsetof(TvrBlockRecord, clip) == 0, "block record layout");
static_assert(offsetof(TvrBlockRecord, ramp) == 4, "block record layout");
static_assert(offsetof(TvrBlockRecord, origin) == 8, "block record layout");
static_assert(offsetof(TvrBlockRecord, xStep) == 20, "block record layout");
static_assert(offsetof(TvrBlockRecord, yStep) == 32, "block record layout");
static_assert(offsetof(TvrBlockRecord, zStep) == 44, "block record layout");
static_assert(offsetof(TvrBlockRecord, volumeIndex) == 56, "block record layout");

// Intrinsics record: four floats, in pixels. The principal point carries the added half pixel that
// turns the truncation of a pixel coordinate into a rounding.
enum TvrIntrinsic : unsigned {
    kTvrFx = 0,
    kTvrFy = 1,
    kTvrCxHalf = 2,  // cx + 0.5
    kTvrCyHalf = 3,  // cy + 0.5
    kTvrIntrinsicCount = 4
};
struct TvrIntrinsics {
    float values[kTvrIntrinsicCount];
};
static_assert(sizeof(TvrIntrinsics) == 16, "the intrinsics record is four floats");

// Builds the intrinsics record from the focal lengths and principal point of a projection.
TvrIntrinsics tvrMakeIntrinsics(float fx, float fy, float cx, float cy);

// Fixed lattice of the fused cube.
constexpr unsigned kTvrCubeCells = 8;               // fused lattice indices per axis (0 to 7)
constexpr unsigned kTvrSampleBytes = 4;             // int16 value, int16 weight
constexpr unsigned kTvrRowBytes = 36;               // 9 samples along x
constexpr unsigned kTvrPlaneBytes = 324;            // 9 rows along y
constexpr unsigned kTvrBlockBytes = 2916;           // 9 planes along z: one whole 9-cube
constexpr unsigned kTvrDefaultVolumeStride = 2048;  // bytes, used for a volume stride of 0
// A depth stride of 0 means this many bytes per pixel of the width, the row of a 16-bit image.
constexpr unsigned kTvrDefaultDepthStrideBytesPerPixel = 2;

// Reciprocal table of the running average, indexed by the stored weight w: 65536 / (w + 1)
// rounded down for w up to 99; then 65536 / (w + 21) for w 100 to 106, skipping the divisors 101
// to 120; zero for 107 to 127, which zeroes the value of any sample carrying such a weight.
// Volumes fused so far depend on these exact entries, the gap included, so the table must stay as
// it is. Weights beyond the table (negative, or above 127) use its last entry.
constexpr unsigned kTvrDivisionTableSize = 128;
struct TvrDivisionTable {
    int32_t entries[kTvrDivisionTableSize];
};
extern const TvrDivisionTable kTvrDivisionTable;

// Fuses one depth image into numBlocks cubes of depth samples.
//   blocks             numBlocks records; block r updates the samples at
//                      volumes + (volumeStrideBytes / 2) * blocks[r].volumeIndex
//   volumeStrideBytes  bytes between consecutive volumes; 0 means 2048
//   depth              width x height floats in metres, 0 for no measurement
//   depthStrideBytes   bytes between depth rows; 0 means width * 2
//   intrinsics         the four floats of TvrIntrinsics
//   maxWeight          weights below it count up by one per update
// Per voxel: the pixel is the truncation of the projected coordinate plus half a pixel; a
// coordinate beyond the int32 range or NaN counts as outside the image. Without the clip bit every
// pixel of the cube must lie in the image, as nothing is checked. Pointers may be null only when
// numBlocks is 0. Returns kTvrSuccess (0).
int tvrDepthFusion8x8x8xNs16(const TvrBlockRecord* blocks, short* volumes, unsigned numBlocks,
                             unsigned volumeStrideBytes, const float* depth, unsigned width,
                             unsigned height, unsigned depthStrideBytes, const float* intrinsics,
                             int maxWeight);

// Operation modes: the slot of the implementation table that the entry calls.
enum TvrMode : unsigned {
    kTvrModePortable = 0,  // plain C++, every processor
    kTvrModeAvx2 = 1,      // x86-64 with AVX2
    kTvrModeNeon = 2,      // 64-bit Arm
    kTvrModeReserved = 3,  // no implementation: every call falls back to the portable one
    kTvrModeCount = 4
};

// The mode in use: at first use, the fastest one this processor supports.
TvrMode tvrGetMode();
// True if the implementations of the mode can run on this processor.
bool tvrModeSupported(TvrMode mode);
// Selects the mode; refuses (returns false, mode unchanged) a mode this processor cannot run.
bool tvrSetMode(TvrMode mode);

// The implementations behind the slots, with the strides already substituted. Each returns
// kTvrSuccess or kTvrNotImplemented (having then changed nothing).
int tvrDepthFusion8x8x8xNs16Portable(const TvrBlockRecord* blocks, short* volumes,
                                     unsigned numBlocks, unsigned volumeStrideBytes,
                                     const float* depth, unsigned width, unsigned height,
                                     unsigned depthStrideBytes, const float* intrinsics,
                                     int maxWeight);
#if defined(__x86_64__)
// Requires AVX2 (tvrModeSupported(kTvrModeAvx2)).
int tvrDepthFusion8x8x8xNs16Avx2(const TvrBlockRecord* blocks, short* volumes, unsigned numBlocks,
                                 unsigned volumeStrideBytes, const float* depth, unsigned width,
                                 unsigned height, unsigned depthStrideBytes,
                                 const float* intrinsics, int maxWeight);
#endif
#if defined(__aarch64__)
int tvrDepthFusion8x8x8xNs16Neon(const TvrBlockRecord* blocks, short* volumes, unsigned numBlocks,
                                 unsigned volumeStrideBytes, const float* depth, unsigned width,
                                 unsigned height, unsigned depthStrideBytes,
                                 const float* intrinsics, int maxWeight);
#endif

#endif  // VELMORA_VISION_DEPTHFUSION_H
