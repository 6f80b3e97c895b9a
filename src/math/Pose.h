// Conversion of a host pose (unit quaternion x, y, z, w and a position) into a rigid transform.
// The pose maps local (camera) coordinates to world coordinates, and so does the result.
#ifndef VELMORA_MATH_POSE_H
#define VELMORA_MATH_POSE_H

#include <type_traits>

#include "common/Assert.h"
#include "math/MatrixFunctions.h"
#include "math/SE3.h"

namespace AR {
namespace Math {

// Rotation of the quaternion (x, y, z, w) after normalising it, pulled back towards an exact
// rotation by one enforceRotation step. Aborts on a zero quaternion.
inline Matrix<float, 3, 3> quaternionToRotation(float qx, float qy, float qz, float qw) {
    const Vector<float, 4> q = normalize(Vector<float, 4>(qx, qy, qz, qw));
    const float x = q[0];
    const float y = q[1];
    const float z = q[2];
    const float w = q[3];
    Matrix<float, 3, 3> r;
    r(0, 0) = 1.0f - 2.0f * (y * y + z * z);
    r(0, 1) = 2.0f * (x * y - z * w);
    r(0, 2) = 2.0f * (x * z + y * w);
    r(1, 0) = 2.0f * (x * y + z * w);
    r(1, 1) = 1.0f - 2.0f * (x * x + z * z);
    r(1, 2) = 2.0f * (y * z - x * w);
    r(2, 0) = 2.0f * (x * z - y * w);
    r(2, 1) = 2.0f * (y * z + x * w);
    r(2, 2) = 1.0f - 2.0f * (x * x + y * y);
    enforceRotation(r);
    return r;
}

// Any pose record with `orientation.{x,y,z,w}` and `position.{x,y,z}` in float, such as the
// public XrPosefVLM. The translation is taken unchanged.
template <typename T, typename Pose>
SE3<T> toMath(const Pose& pose) {
    static_assert(std::is_same_v<T, float>, "the pose conversion exists for float only");
    return SE3<T>(quaternionToRotation(pose.orientation.x, pose.orientation.y, pose.orientation.z,
                                       pose.orientation.w),
                  Vector<T, 3>(pose.position.x, pose.position.y, pose.position.z));
}

}  // namespace Math
}  // namespace AR

#endif  // VELMORA_MATH_POSE_H
