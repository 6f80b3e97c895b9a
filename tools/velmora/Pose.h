// Camera poses as the sequence files hold them (4x4 camera-to-world matrices, row-major, metres)
// and their conversion to the library's `XrPosefVLM`.
#ifndef VELMORA_TOOL_POSE_H
#define VELMORA_TOOL_POSE_H

#include <array>
#include <string>

#include "velmora/Velmora.h"

namespace VelmoraTool {

// Row-major 4x4; element (r, c) is at r * 4 + c. T_world_camera maps camera to world.
using Matrix4d = std::array<double, 16>;

// Largest deviation from an orthonormal rotation (each entry of R^T R - I, and det R - 1) and
// from the last row 0 0 0 1 that a pose file may show. Pose files are written as text with six
// to nine decimals, which stays far below this; a scaled or sheared matrix does not.
constexpr double kRigidTolerance = 1e-3;

// The library accepts a quaternion when |x^2 + y^2 + z^2 + w^2 - 1|, computed in float, is below
// this bound.
constexpr double kUnitQuaternionTolerance = 4e-7;

Matrix4d identityMatrix();

// True when every entry is a finite number. A pose with NaN or infinity marks lost tracking.
bool isFinitePose(const Matrix4d& pose);

// True when `pose` is a rigid transform within kRigidTolerance; otherwise false with the reason.
bool checkRigid(const Matrix4d& pose, std::string& problem);

// The unit quaternion and translation of a rigid `pose`. The rotation is taken from the
// quaternion of the matrix, normalised so that the library's unit-length test passes.
Velmora::XrPosefVLM toXrPose(const Matrix4d& pose);

// The library's own test of an orientation: |x^2 + y^2 + z^2 + w^2 - 1| in float.
double quaternionUnitError(const Velmora::XrQuaternionfVLM& q);

// The camera-to-world matrix of a quaternion (x, y, z, w; not normalised here, so a quaternion
// that is not of unit length gives a matrix that checkRigid refuses) and a translation.
Matrix4d poseFromQuaternion(double qx, double qy, double qz, double qw, double tx, double ty,
                            double tz);

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_POSE_H
