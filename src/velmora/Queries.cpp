// The spatial queries of the scene: collision of a point, box or sphere with the depth grid of
// the split run mode, and the placement of an object along a line in either run mode.
//
// Collision queries never fail: before `init`, or in a run mode without a depth grid, they answer
// unknown with distance -1.0 and point (0, 0, 0), so that a host polling them from its own
// threads needs no knowledge of the scene's state.
#include <cmath>

#include "common/Assert.h"
#include "common/Trace.h"
#include "solid/query/CollisionDetection.h"
#include "solid/query/Placement.h"
#include "velmora/ImplState.h"

namespace Velmora {

namespace {

// Every collision query asks for samples at or behind the surface.
constexpr float kCollisionThreshold = 0.0f;
// The distance of an answer that found nothing.
constexpr float kNoDistance = -1.0f;

Solid::Vec3 toVec3(const XrVector3fVLM& v) {
    return Solid::Vec3(v.x, v.y, v.z);
}

XrVector3fVLM toXr(const Solid::Vec3& v) {
    return XrVector3fVLM{v(0), v(1), v(2)};
}

IntersectionResult unknownIntersection() {
    return IntersectionResult{Solid::UNKNOWN, kNoDistance, {0.0f, 0.0f, 0.0f}};
}

// The label of a sample: the index of its largest counter, the first one on a tie; 0 without a
// sample.
template <typename Sample>
uint16_t topLabel(const std::optional<Sample>& sample) {
    if (!sample) {
        return 0;
    }
    uint16_t best = 0;
    for (uint32_t i = 1; i < sample->labels.size(); ++i) {
        if (sample->labels[i] > sample->labels[best]) {
            best = static_cast<uint16_t>(i);
        }
    }
    return best;
}

bool isValidQuaternion(const XrQuaternionfVLM& q) {
    return Solid::isUnitQuaternion(Solid::Vec4(q.x, q.y, q.z, q.w));
}

}  // namespace

IntersectionResult Impl::intersectPoint(const XrVector3fVLM& position, float maxDistance) const {
    AR::Common::ScopedTrace trace("intersectPoint");
    if (!isInitialized() || !mState->mVolumeGrid) {
        return unknownIntersection();
    }
    const Solid::DepthGrid& grid = *mState->mVolumeGrid;
    const Solid::Vec3 p = toVec3(position);
    Solid::Vec3 collisionPoint(0.0f, 0.0f, 0.0f);
    IntersectionResult out{Solid::checkCollision(grid, p, collisionPoint, kCollisionThreshold),
                           kNoDistance,
                           {0.0f, 0.0f, 0.0f}};
    if (out.collision == Solid::COLLISION) {
        // The gap between the query and the lattice point that stands for it.
        out.point = toXr(collisionPoint);
        out.distance = AR::Math::norm(collisionPoint - p);
    } else if (maxDistance > 0.0f) {
        const auto found = Solid::clearanceDistance(grid, p, maxDistance, kCollisionThreshold);
        out.point = toXr(found.second);
        out.distance = found.first == maxDistance ? kNoDistance : found.first;
    }
    return out;
}

IntersectionResult Impl::intersectAxisAlignedBox(const XrVector3fVLM& center,
                                                 const XrVector3fVLM& size,
                                                 float maxDistance) const {
    AR::Common::ScopedTrace trace("intersectBox");
    if (!isInitialized() || !mState->mVolumeGrid) {
        return unknownIntersection();
    }
    const Solid::DepthGrid& grid = *mState->mVolumeGrid;
    const float truncation = mState->mTruncation;
    const Solid::Vec3 c = toVec3(center);
    const Solid::Vec3 halfSize = toVec3(size) * 0.5f;
    const Solid::Box box{c - halfSize, c + halfSize};
    Solid::Vec3 collisionPoint(0.0f, 0.0f, 0.0f);
    IntersectionResult out{Solid::NO_COLLISION, kNoDistance, {0.0f, 0.0f, 0.0f}};
    {
        AR::Common::ScopedTrace check("CollisionCheck");
        out.collision = Solid::checkCollision(grid, box, collisionPoint, kCollisionThreshold);
    }
    if (out.collision == Solid::COLLISION) {
        out.point = toXr(collisionPoint);
        out.distance = 0.0f;
        return out;
    }
    if (out.collision == Solid::NO_COLLISION && truncation < maxDistance) {
        // Most surfaces near a free box lie within the band: a narrow search first, as the cost
        // grows with the cube of the distance.
        AR::Common::ScopedTrace clearance("clearanceDistance");
        const auto near = Solid::clearanceDistance(grid, box, truncation, kCollisionThreshold);
        if (near.first < truncation) {
            out.distance = near.first;
            out.point = toXr(near.second);
            return out;
        }
    }
    if (maxDistance > 0.0f) {
        AR::Common::ScopedTrace clearance("clearanceDistance");
        const auto found = Solid::clearanceDistance(grid, box, maxDistance, kCollisionThreshold);
        out.point = toXr(found.second);
        out.distance = found.first == maxDistance ? kNoDistance : found.first;
    }
    return out;
}

IntersectionResult Impl::intersectSphere(const XrVector3fVLM& center, float radius,
                                         float maxDistance) const {
    AR::Common::ScopedTrace trace("intersectSphere");
    if (!isInitialized() || !mState->mVolumeGrid) {
        return unknownIntersection();
    }
    const Solid::DepthGrid& grid = *mState->mVolumeGrid;
    const float truncation = mState->mTruncation;
    const Solid::Vec3 c = toVec3(center);
    Solid::Vec3 collisionPoint(0.0f, 0.0f, 0.0f);
    IntersectionResult out{Solid::NO_COLLISION, kNoDistance, {0.0f, 0.0f, 0.0f}};
    {
        AR::Common::ScopedTrace check("CollisionCheck");
        out.collision = Solid::checkCollision(grid, Solid::Sphere{c, radius}, collisionPoint,
                                              kCollisionThreshold);
    }
    if (out.collision == Solid::COLLISION) {
        out.point = toXr(collisionPoint);
        out.distance = 0.0f;
        return out;
    }
    // The distance is the point clearance of the centre less the radius; unlike the box, a
    // search that finds nothing is not mapped to -1.0 but gives maxDistance - radius.
    if (out.collision == Solid::NO_COLLISION && truncation < maxDistance) {
        AR::Common::ScopedTrace clearance("clearanceDistance");
        const auto near = Solid::clearanceDistance(grid, c, truncation, kCollisionThreshold);
        out.point = toXr(near.second);
        out.distance = near.first - radius;
        if (near.first < truncation) {
            return out;
        }
    }
    out.point = XrVector3fVLM{0.0f, 0.0f, 0.0f};
    if (maxDistance > 0.0f) {
        AR::Common::ScopedTrace clearance("clearanceDistance");
        const auto found = Solid::clearanceDistance(grid, c, maxDistance, kCollisionThreshold);
        out.point = toXr(found.second);
        out.distance = found.first - radius;
    }
    return out;
}

XrResultVLM Impl::getPlacementInfo(const XrVector3fVLM& lineStart,
                                   const XrVector3fVLM& lineDirection,
                                   const XrVector3fVLM& referenceDirection, PlacementInfo& info,
                                   float maxDistance) const {
    AR::Common::ScopedTrace trace("getPlacementInfo");
    if (!isInitialized()) {
        return kErrorNotInitialized;
    }
    // In double, so that a long but finite direction still normalises.
    const double dx = lineDirection.x;
    const double dy = lineDirection.y;
    const double dz = lineDirection.z;
    const double lengthSquared = dx * dx + dy * dy + dz * dz;
    if (lengthSquared == 0.0 || !std::isfinite(lengthSquared)) {
        return kErrorDirectionZero;
    }
    const double inverseLength = 1.0 / std::sqrt(lengthSquared);
    const Solid::Vec3 direction(static_cast<float>(dx * inverseLength),
                                static_cast<float>(dy * inverseLength),
                                static_cast<float>(dz * inverseLength));
    const Solid::Vec3 reference = toVec3(referenceDirection);
    if (!std::isfinite(reference(0)) || !std::isfinite(reference(1)) ||
        !std::isfinite(reference(2))) {
        return kErrorInvalidArgument;
    }
    const Solid::Vec3 start = toVec3(lineStart);

    const State& s = *mState;
    Solid::PlacementInfo placement;
    uint16_t label = 0;
    Solid::KeyType key;
    // The label is looked up wherever the search ended, also for a rejected hit.
    if (s.mMode == kModeSplit) {
        placement = Solid::getPlacementInfo(*s.mVolumeGrid, start, direction, maxDistance,
                                            s.mTruncation, reference);
        label = topLabel(s.mLabelVolumeGrid->getSample(placement.poseLocalToWorld.position, key));
    } else if (s.mMode == kModeCombined) {
        placement = Solid::getPlacementInfo(*s.mLabelDepthVolumeGrid, start, direction, maxDistance,
                                            s.mTruncation, reference);
        label =
            topLabel(s.mLabelDepthVolumeGrid->getSample(placement.poseLocalToWorld.position, key));
    }
    const Solid::Vec3& position = placement.poseLocalToWorld.position;
    const Solid::Vec4& orientation = placement.poseLocalToWorld.orientation;
    info.result = placement.result;
    info.poseLocalToWorld.orientation =
        XrQuaternionfVLM{orientation(0), orientation(1), orientation(2), orientation(3)};
    info.poseLocalToWorld.position = toXr(position);
    info.label = label;
    AR_ASSERT(isValidQuaternion(info.poseLocalToWorld.orientation));
    return kSuccess;
}

}  // namespace Velmora
