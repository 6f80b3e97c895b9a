// Rendering of a fused volume: a march along one ray to its first surface crossing, and a whole
// depth frame rendered from a grid for a camera.
//
// The march reads normalised distances (-1 behind the band, +1 in front of it, -2.0 where nothing
// is known) by trilinear lookups of the grid. It takes large steps until the ray comes within the
// truncation band (a value below 0.8), then sample-sized steps; the first change from a positive
// to a negative value gives the crossing by linear interpolation. A ray whose first known value
// is negative starts behind a surface and finds nothing: there is no search past a back face.
//
// The frame renderer first walks the blocks along each pixel's ray to skip the empty space in
// front of the first existing block, and marches from just before that block.
//
// Both operations exist for the depth-bearing grids (DepthGrid and LabelDepthGrid). They keep no
// state. A march holds the mutex of the block its samples are in until it leaves that block, and
// never while it looks up another one. A single march looks blocks up under the grid's read
// lock, so it may run during integration and see the volume half-way through a frame. The frame
// renderer copies the block table once and looks up in the copy without locks, and reads blocks
// without their mutexes (border copies elsewhere wait for the copy): it is meant for the frame
// path, the only writer of samples, which renders between its own frames; blocks created during
// a rendering are not seen by it.
#ifndef VELMORA_SOLID_QUERY_RAYCAST_H
#define VELMORA_SOLID_QUERY_RAYCAST_H

#include "solid/fusion/IntegrationStats.h"
#include "solid/volume/Frames.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

// Normalised distance below which the march switches from the large to the small step: the ray
// has come within the truncation band, where a large step might jump over the crossing.
constexpr float kFineMarchThreshold = 0.8f;

// Upper bound on the samples of one march, so that a far plane of absurd size (or one at which
// adding a step no longer changes the ray parameter) cannot keep a caller busy for ever. At a
// 5 mm sample spacing this is about 21 km of ray; a march that reaches it reports no surface.
constexpr unsigned kMaxMarchSamples = 1u << 22;

// Upper bound on the blocks one block walk visits (a lookup costs a fraction of a microsecond, so
// a walk stays below a few hundred milliseconds); a walk that reaches it finds no block.
constexpr unsigned kMaxWalkBlocks = 1u << 20;

// First surface crossing on the ray `origin + t * direction`, t from `nearPlane` to `farPlane`
// (units of `direction`, which is used as given, not normalised). The large step is
// `stepFactor` sample spacings (x spacing), and must come out above zero. Returns (x, y, z, t)
// of the crossing in world metres, or all zeros when there is none: a hit is recognised by a
// non-zero fourth component. `nearPlane > farPlane` reads nothing and gives zeros.
template <typename B, template <typename> class P, typename L>
Vec4 raycastSparseVolume(const VolumeGrid<B, P, L>& grid, const Vec3& origin, const Vec3& direction,
                         float nearPlane, float farPlane, float stepFactor);

// Renders `depthFrame.depth` (already allocated to the wanted size) from the camera of the frame
// (`projection` intrinsics, `pose` world to camera): every pixel receives the axial depth, metres,
// of the first crossing on its ray between `nearPlane` and `farPlane`, or 0 where there is none.
// The ray of pixel (x, y) goes through the pixel position itself, with no half-pixel offset.
// A ray whose block walk would visit more blocks than its march takes samples from `nearPlane`
// to `farPlane` (a ray almost parallel to the image plane) is marched from `nearPlane` without
// the walk, so the work per pixel is bounded by the far plane whatever the intrinsics.
// Writes `stats.raycastRays` (rays that reached a block or were marched without the walk) and
// `stats.raycastTime` (ms).
template <typename B, template <typename> class P, typename L>
void raycast(const VolumeGrid<B, P, L>& grid, float nearPlane, float farPlane, float stepFactor,
             DepthFrame& depthFrame, IntegrationStats& stats);

// The block walk in front of a march: visits the blocks along the segment from `from` to `to`
// and stops at the first one that exists, whose key it writes to `found`. Block coordinates are
// truncated toward zero rather than floored, so near the axes, at negative coordinates, a key may
// be one off the true one; the walk only finds a place to start a march, which then reads true
// keys. False when no block on the segment exists, or an end point is not finite.
template <typename B, template <typename> class P, typename L>
bool findFirstBlock(const VolumeGrid<B, P, L>& grid, const Vec3& from, const Vec3& to,
                    KeyType& found);

}  // namespace Solid

#endif  // VELMORA_SOLID_QUERY_RAYCAST_H
