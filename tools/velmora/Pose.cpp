#include "velmora/Pose.h"

#include <cmath>
#include <cstdio>

namespace VelmoraTool {
namespace {

double at(const Matrix4d& m, int row, int column) {
    return m[row * 4 + column];
}

}  // namespace

Matrix4d identityMatrix() {
    Matrix4d m{};
    m[0] = m[5] = m[10] = m[15] = 1.0;
    return m;
}

bool isFinitePose(const Matrix4d& pose) {
    for (double value : pose) {
        if (!std::isfinite(value)) {
            return false;
        }
    }
    return true;
}

bool checkRigid(const Matrix4d& pose, std::string& problem) {
    char text[160];
    for (int c = 0; c < 4; ++c) {
        const double expected = c == 3 ? 1.0 : 0.0;
        if (std::fabs(at(pose, 3, c) - expected) > kRigidTolerance) {
            problem = "not a rigid transform: the last row is not 0 0 0 1";
            return false;
        }
    }
    // R^T R must be the identity: the columns are unit length and mutually orthogonal.
    double worst = 0.0;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            double dot = 0.0;
            for (int k = 0; k < 3; ++k) {
                dot += at(pose, k, i) * at(pose, k, j);
            }
            worst = std::fmax(worst, std::fabs(dot - (i == j ? 1.0 : 0.0)));
        }
    }
    if (worst > kRigidTolerance) {
        std::snprintf(text, sizeof(text),
                      "not a rigid transform: the rotation is not orthonormal (R^T R deviates "
                      "from I by %.3g)",
                      worst);
        problem = text;
        return false;
    }
    const double det =
        at(pose, 0, 0) * (at(pose, 1, 1) * at(pose, 2, 2) - at(pose, 1, 2) * at(pose, 2, 1)) -
        at(pose, 0, 1) * (at(pose, 1, 0) * at(pose, 2, 2) - at(pose, 1, 2) * at(pose, 2, 0)) +
        at(pose, 0, 2) * (at(pose, 1, 0) * at(pose, 2, 1) - at(pose, 1, 1) * at(pose, 2, 0));
    if (std::fabs(det - 1.0) > kRigidTolerance) {
        std::snprintf(text, sizeof(text),
                      "not a rigid transform: the rotation has determinant %.6g, not +1 (a "
                      "reflection)",
                      det);
        problem = text;
        return false;
    }
    return true;
}

double quaternionUnitError(const Velmora::XrQuaternionfVLM& q) {
    const float norm2 = q.x * q.x + q.y * q.y + q.z * q.z + q.w * q.w;
    return static_cast<double>(std::fabs(norm2 - 1.0f));
}

Velmora::XrPosefVLM toXrPose(const Matrix4d& pose) {
    // Shepperd's method: branch on the largest of the four squared components so that the
    // division is always by a value of at least 1/2, which keeps the result accurate for every
    // rotation.
    const double r00 = at(pose, 0, 0), r01 = at(pose, 0, 1), r02 = at(pose, 0, 2);
    const double r10 = at(pose, 1, 0), r11 = at(pose, 1, 1), r12 = at(pose, 1, 2);
    const double r20 = at(pose, 2, 0), r21 = at(pose, 2, 1), r22 = at(pose, 2, 2);
    const double trace = r00 + r11 + r22;
    double x, y, z, w;
    if (trace >= r00 && trace >= r11 && trace >= r22) {
        const double s = 2.0 * std::sqrt(1.0 + trace);
        w = 0.25 * s;
        x = (r21 - r12) / s;
        y = (r02 - r20) / s;
        z = (r10 - r01) / s;
    } else if (r00 >= r11 && r00 >= r22) {
        const double s = 2.0 * std::sqrt(1.0 + r00 - r11 - r22);
        w = (r21 - r12) / s;
        x = 0.25 * s;
        y = (r01 + r10) / s;
        z = (r02 + r20) / s;
    } else if (r11 >= r22) {
        const double s = 2.0 * std::sqrt(1.0 + r11 - r00 - r22);
        w = (r02 - r20) / s;
        x = (r01 + r10) / s;
        y = 0.25 * s;
        z = (r12 + r21) / s;
    } else {
        const double s = 2.0 * std::sqrt(1.0 + r22 - r00 - r11);
        w = (r10 - r01) / s;
        x = (r02 + r20) / s;
        y = (r12 + r21) / s;
        z = 0.25 * s;
    }
    const double norm = std::sqrt(x * x + y * y + z * z + w * w);
    Velmora::XrPosefVLM result{};
    result.orientation = {static_cast<float>(x / norm), static_cast<float>(y / norm),
                          static_cast<float>(z / norm), static_cast<float>(w / norm)};
    // Rounding each component to float can leave the squared length a few float steps from 1;
    // one more normalisation in float brings it back within the library's bound.
    if (quaternionUnitError(result.orientation) >= kUnitQuaternionTolerance) {
        Velmora::XrQuaternionfVLM& q = result.orientation;
        const float length = std::sqrt(q.x * q.x + q.y * q.y + q.z * q.z + q.w * q.w);
        q = {q.x / length, q.y / length, q.z / length, q.w / length};
    }
    result.position = {static_cast<float>(at(pose, 0, 3)), static_cast<float>(at(pose, 1, 3)),
                       static_cast<float>(at(pose, 2, 3))};
    return result;
}

Matrix4d poseFromQuaternion(double qx, double qy, double qz, double qw, double tx, double ty,
                            double tz) {
    Matrix4d m = identityMatrix();
    m[0] = 1.0 - 2.0 * (qy * qy + qz * qz);
    m[1] = 2.0 * (qx * qy - qz * qw);
    m[2] = 2.0 * (qx * qz + qy * qw);
    m[4] = 2.0 * (qx * qy + qz * qw);
    m[5] = 1.0 - 2.0 * (qx * qx + qz * qz);
    m[6] = 2.0 * (qy * qz - qx * qw);
    m[8] = 2.0 * (qx * qz - qy * qw);
    m[9] = 2.0 * (qy * qz + qx * qw);
    m[10] = 1.0 - 2.0 * (qx * qx + qy * qy);
    m[3] = tx;
    m[7] = ty;
    m[11] = tz;
    return m;
}

}  // namespace VelmoraTool
