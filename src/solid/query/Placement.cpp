#include "solid/query/Placement.h"

#include <algorithm>
#include <cmath>

#include "common/Logger.h"
#include "math/MatrixFunctions.h"
#include "solid/query/Raycast.h"

namespace Solid {

namespace {

using Matrix3 = AR::Math::Matrix<float, 3, 3>;

// How far a line direction may be from unit length, in squared length.
constexpr float kUnitDirectionTolerance = 1e-4f;
// Below this length the world x axis counts as parallel to the normal, and y takes its place.
constexpr float kParallelAxisLength = 1e-5f;

// The rotation matrix as a unit quaternion (x, y, z, w), by the branch of the largest of the
// trace and the diagonal entries, which keeps the divisor away from zero.
Vec4 toQuaternion(const Matrix3& R) {
    const float tr = R(0, 0) + R(1, 1) + R(2, 2);
    float x, y, z, w;
    if (tr > 0.0f) {
        const float s = 2.0f * std::sqrt(tr + 1.0f);
        w = s / 4.0f;
        x = (R(2, 1) - R(1, 2)) / s;
        y = (R(0, 2) - R(2, 0)) / s;
        z = (R(1, 0) - R(0, 1)) / s;
    } else if (R(0, 0) > R(1, 1) && R(0, 0) > R(2, 2)) {
        const float s = 2.0f * std::sqrt(1.0f + R(0, 0) - R(1, 1) - R(2, 2));
        x = s / 4.0f;
        y = (R(0, 1) + R(1, 0)) / s;
        z = (R(0, 2) + R(2, 0)) / s;
        w = (R(2, 1) - R(1, 2)) / s;
    } else if (R(1, 1) > R(2, 2)) {
        const float s = 2.0f * std::sqrt(1.0f + R(1, 1) - R(0, 0) - R(2, 2));
        y = s / 4.0f;
        x = (R(0, 1) + R(1, 0)) / s;
        z = (R(1, 2) + R(2, 1)) / s;
        w = (R(0, 2) - R(2, 0)) / s;
    } else {
        const float s = 2.0f * std::sqrt(1.0f + R(2, 2) - R(0, 0) - R(1, 1));
        z = s / 4.0f;
        x = (R(0, 2) + R(2, 0)) / s;
        y = (R(1, 2) + R(2, 1)) / s;
        w = (R(1, 0) - R(0, 1)) / s;
    }
    return Vec4(x, y, z, w);
}

void setColumn(Matrix3& R, int c, const Vec3& v) {
    for (int r = 0; r < 3; ++r) {
        R(r, c) = v(r);
    }
}

}  // namespace

bool isUnitQuaternion(const Vec4& q) {
    // A NaN fails this test.
    return std::fabs(AR::Math::squaredNorm(q) - 1.0f) < kMaxQuaternionNormError;
}

template <typename B, template <typename> class P, typename L>
PlacementInfo getPlacementInfo(const VolumeGrid<B, P, L>& grid, const Vec3& lineStart,
                               const Vec3& lineDirection, float maxDistance, float truncation,
                               const Vec3& referenceDirection) {
    AR_ASSERT(std::fabs(AR::Math::squaredNorm(lineDirection) - 1.0f) < kUnitDirectionTolerance);
    PlacementInfo info;

    KeyType block;
    if (!findFirstBlock(grid, lineStart, lineStart + lineDirection * maxDistance, block)) {
        return info;
    }
    // Start one block diagonal before the block's corner, so that no part of the block is
    // skipped whatever the line's angle; never behind the line's start.
    const Vec3& dimension = grid.dimension();
    const float t0 = AR::Math::dot(grid.blockOrigin(block) - lineStart, lineDirection) -
                     AR::Math::norm(dimension);
    const float nearPlane = t0 > 0.0f ? t0 : 0.0f;
    // The coarse step is one truncation distance.
    const Vec3& spacing = grid.config().spacing;
    const float stepFactor = truncation / std::max(spacing(0), std::max(spacing(1), spacing(2)));
    const Vec4 hit =
        raycastSparseVolume(grid, lineStart, lineDirection, nearPlane, maxDistance, stepFactor);
    if (!(hit(3) > 0.0f)) {
        return info;
    }
    Vec3& position = info.poseLocalToWorld.position;
    position = Vec3(hit(0), hit(1), hit(2));

    float value = 0.0f;
    Vec3 gradient;
    info.result = grid.valueAndGradient(position, value, gradient) ? 1 : 0;
    if (info.result == 0) {
        return info;
    }
    // The normal needs a gradient of some length: a field that is flat around the hit (equal
    // samples, as a loaded file may hold) gives no orientation, hence no placement. The length is
    // taken in double, where no float gradient overflows or vanishes when squared.
    const double gx = gradient(0), gy = gradient(1), gz = gradient(2);
    const double gradientLength = std::sqrt(gx * gx + gy * gy + gz * gz);
    if (!(gradientLength > 0.0 && std::isfinite(gradientLength))) {
        info.result = 0;
        return info;
    }
    const Vec3 n(static_cast<float>(gx / gradientLength), static_cast<float>(gy / gradientLength),
                 static_cast<float>(gz / gradientLength));

    // Columns: x, the normal as y, z from the reference direction.
    Matrix3 R = Matrix3::zeros();
    setColumn(R, 1, n);
    Vec3 w = AR::Math::cross(referenceDirection, n);
    const float wSquared = AR::Math::squaredNorm(w);
    if (wSquared > 0.0f) {
        const Vec3 z = w / std::sqrt(wSquared);
        setColumn(R, 2, z);
        setColumn(R, 0, AR::Math::normalize(AR::Math::cross(n, z)));
    } else {
        // No usable reference: a world axis instead, left unnormalised on purpose, so that the
        // rotation test below accepts the frame only where the normal is perpendicular to it.
        w = AR::Math::cross(Vec3(1.0f, 0.0f, 0.0f), n);
        if (AR::Math::norm(w) < kParallelAxisLength) {
            w = AR::Math::cross(Vec3(0.0f, 1.0f, 0.0f), n);
        }
        setColumn(R, 2, w);
        setColumn(R, 0, AR::Math::cross(n, w));
    }

    if (AR::Math::dot(n, lineDirection) >= 0.0f) {
        AR_LOG_WARNING(
            "Ignoring result as gradient indicates surface is facing away from line start. Value "
            "at intersection=%f, Gradient=%s, LineDir=%s",
            value, AR::Math::to_string(n).c_str(), AR::Math::to_string(lineDirection).c_str());
        info.result = 0;
        return info;
    }
    AR_ASSERT(AR::Math::isRotationMatrix(R));
    info.poseLocalToWorld.orientation = toQuaternion(R);
    AR_ASSERT(isUnitQuaternion(info.poseLocalToWorld.orientation));
    return info;
}

template PlacementInfo getPlacementInfo(const DepthGrid&, const Vec3&, const Vec3&, float, float,
                                        const Vec3&);
template PlacementInfo getPlacementInfo(const LabelDepthGrid&, const Vec3&, const Vec3&, float,
                                        float, const Vec3&);

}  // namespace Solid
