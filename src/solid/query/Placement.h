// Where a virtual object placed along a line would stand: the first surface crossing on the
// line, with a frame whose local y axis is the surface normal and whose remaining rotation is
// fixed by a reference direction.
//
// The search skips unallocated space block by block (the block walk of raycast), steps back from
// the first block by its diagonal, and marches with a coarse step of one truncation distance. No
// state is kept; the grid is read with the locks of its lookups only, so a block may change
// between the march and the normal's lookup.
#ifndef VELMORA_SOLID_QUERY_PLACEMENT_H
#define VELMORA_SOLID_QUERY_PLACEMENT_H

#include <cstdint>

#include "solid/volume/VolumeGrid.h"

namespace Solid {

// A pose of an object in the world: position in world metres and a unit quaternion (x, y, z, w)
// turning the object's axes into world axes.
struct PoseLocalToWorld {
    Vec3 position = Vec3(0.0f, 0.0f, 0.0f);
    Vec4 orientation = Vec4(0.0f, 0.0f, 0.0f, 1.0f);
};

struct PlacementInfo {
    uint8_t result = 0;  // 1 when the placement is usable
    PoseLocalToWorld poseLocalToWorld;
};

// Largest |x^2 + y^2 + z^2 + w^2 - 1| of a quaternion that counts as unit length.
constexpr float kMaxQuaternionNormError = 4e-7f;

bool isUnitQuaternion(const Vec4& q);

// Placement at the first surface on the segment from `lineStart` along `lineDirection` (unit
// length; anything else is a programming error and aborts) up to `maxDistance` metres, with a
// coarse march step of `truncation` metres.
//
// `result` 1: `position` is the crossing and the orientation's local y axis the surface normal
// (the normalised gradient of the distance); the local z axis is `referenceDirection x normal`,
// normalised, and the local x axis completes the frame. A reference direction that is zero or
// parallel to the normal falls back to the x axis of the world in its place (to the y axis when
// the normal lies along x), without normalising, so only a normal perpendicular to that axis
// yields a rotation; any other frame aborts.
//
// `result` 0: nothing on the segment (position zero), a crossing next to unobserved samples, or a
// surface that faces away from the line's start (position filled in, orientation identity; the
// latter logs a warning).
template <typename B, template <typename> class P, typename L>
PlacementInfo getPlacementInfo(const VolumeGrid<B, P, L>& grid, const Vec3& lineStart,
                               const Vec3& lineDirection, float maxDistance, float truncation,
                               const Vec3& referenceDirection);

}  // namespace Solid

#endif  // VELMORA_SOLID_QUERY_PLACEMENT_H
