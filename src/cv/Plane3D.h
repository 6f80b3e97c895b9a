// A plane in 3-D as four numbers (a, b, c, d): the points with a x + b y + c z + d = 0. A plane
// made from four numbers is scaled so that (a, b, c) has unit length; the normal then points to
// the side where a x + b y + c z + d is positive (for the plane detector: towards free space).
// Only `float` is instantiated.
#ifndef VELMORA_CV_PLANE3D_H
#define VELMORA_CV_PLANE3D_H

#include <cmath>

#include "common/Assert.h"
#include "math/MathDebugging.h"
#include "math/Vector.h"

namespace AR {
namespace CV {
namespace Geometry {

template <typename T>
class Plane3D {
public:
    using Vec3 = Math::Vector<T, 3>;
    using Vec4 = Math::Vector<T, 4>;

    // Largest distance of the normal's length from 1 that `getNormal` accepts.
    static constexpr T kUnitTolerance = T(1e-5);

    // All zero: no plane (not valid).
    Plane3D() : mData(Vec4::zeros()) {}
    // Aborts on a not-a-number or on a normal whose length cannot be inverted.
    explicit Plane3D(const Vec4& data) : mData(data) {
        AR_ASSERT(!Math::isCorrupted(data));
        AR_ASSERT(isValid());
        const T inverse = inverseNormalLength();
        for (int i = 0; i < 4; ++i) {
            mData[i] *= inverse;
        }
    }

    // The normal's length can be inverted: neither zero nor so small or large that the inverse
    // stops being finite.
    bool isValid() const { return std::isfinite(inverseNormalLength()); }

    Vec3 getNormal() const {
        AR_ASSERT(isValid());
        const Vec3 normal(mData[0], mData[1], mData[2]);
        AR_ASSERT(std::abs(Math::norm(normal) - T(1)) <= kUnitTolerance);
        return normal;
    }
    T getDepth() const { return mData[3]; }
    const Vec4& getData() const { return mData; }

    // The foot of the perpendicular from `point`; aborts on a not-a-number in or out.
    Vec3 projectOnPlane(const Vec3& point) const {
        AR_ASSERT(!Math::isCorrupted(point));
        const Vec3 normal = getNormal();
        const Vec3 out = point - normal * (Math::dot(normal, point) + mData[3]);
        AR_ASSERT(!Math::isCorrupted(out));
        return out;
    }

private:
    T inverseNormalLength() const {
        return T(1) / std::sqrt(mData[0] * mData[0] + mData[1] * mData[1] + mData[2] * mData[2]);
    }

    Vec4 mData;
};

}  // namespace Geometry
}  // namespace CV
}  // namespace AR

#endif  // VELMORA_CV_PLANE3D_H
