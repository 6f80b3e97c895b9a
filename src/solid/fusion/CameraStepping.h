// The lattice walk shared by the projective kernels: every lattice point (x, y, z) of a block
// below (nx, ny, nz), z outermost and x innermost, with its camera-space position. The position
// is computed directly at the start of each z plane and then stepped by adding the per-index
// increments of T's columns, per row and per point; the rounding this accumulates is part of the
// kernels' results, so every kernel that promises the same numbers walks through here.
#ifndef VELMORA_SOLID_FUSION_CAMERASTEPPING_H
#define VELMORA_SOLID_FUSION_CAMERASTEPPING_H

#include "solid/volume/Types.h"

namespace Solid {

// `T` maps block-local metres to camera metres; `Scalar` is float or double. Calls
// `visit(x, y, z, P)` with P the three camera coordinates.
template <typename Scalar, typename Visit>
inline void forEachCameraPoint(const Matrix4& T, const Vec3& spacing, int nx, int ny, int nz,
                               Visit&& visit) {
    Scalar incX[3];
    Scalar incY[3];
    for (int r = 0; r < 3; ++r) {
        incX[r] = static_cast<Scalar>(T(r, 0)) * static_cast<Scalar>(spacing(0));
        incY[r] = static_cast<Scalar>(T(r, 1)) * static_cast<Scalar>(spacing(1));
    }
    for (int z = 0; z < nz; ++z) {
        const Scalar zPos = static_cast<Scalar>(z) * static_cast<Scalar>(spacing(2));
        Scalar row[3];
        for (int r = 0; r < 3; ++r) {
            row[r] = static_cast<Scalar>(T(r, 2)) * zPos + static_cast<Scalar>(T(r, 3));
        }
        for (int y = 0; y < ny; ++y) {
            Scalar P[3] = {row[0], row[1], row[2]};
            for (int x = 0; x < nx; ++x, P[0] += incX[0], P[1] += incX[1], P[2] += incX[2]) {
                visit(x, y, z, static_cast<const Scalar*>(P));
            }
            for (int r = 0; r < 3; ++r) {
                row[r] += incY[r];
            }
        }
    }
}

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_CAMERASTEPPING_H
