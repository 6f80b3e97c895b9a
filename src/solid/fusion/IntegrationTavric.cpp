#include <cstring>

#include "solid/fusion/Clipping.h"
#include "solid/fusion/Integration.h"
#include "vision/DepthFusion.h"

namespace Solid {

namespace {
// The vector kernel keeps weights in a 128-entry table.
constexpr float kMaxTavricWeight = 128.0f;
// The kernel fuses cubes of 8x8x8 lattice points: a 9-cube block without its border plane.
constexpr int kTavricCube = 8;
}  // namespace

int integrateTavric(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                    float ramp, float maxWeight, int border) {
    AR_ASSERT(depth.depth.numPixels() > 0);
    AR_ASSERT(maxWeight < kMaxTavricWeight);
    const Size& size = vol.size();
    if (size(0) - border != kTavricCube || size(1) - border != kTavricCube ||
        size(2) - border != kTavricCube) {
        AR_ASSERT(false && "integrateTavric(): Only runs with 8x8x8");
    }
    const Vec3& spacing = vol.spacing();
    const Vec3 origin(T(0, 3), T(1, 3), T(2, 3));
    const Vec3 xStep(T(0, 0) * spacing(0), T(1, 0) * spacing(0), T(2, 0) * spacing(0));
    const Vec3 yStep(T(0, 1) * spacing(1), T(1, 1) * spacing(1), T(2, 1) * spacing(1));
    const Vec3 zStep(T(0, 2) * spacing(2), T(1, 2) * spacing(2), T(2, 2) * spacing(2));
    InverseZGrid grid;
    setupInverseZGrid(origin, xStep, yStep, zStep, grid);
    bool outsideFront = false;
    const bool clip = checkClippingRequired(depth, Size(kTavricCube, kTavricCube, kTavricCube),
                                            origin, xStep, yStep, zStep, grid, outsideFront);
    if (outsideFront) {
        return 0;
    }
    TvrBlockRecord record;
    record.clip = clip ? kTvrClipBit : 0u;
    record.ramp = ramp;
    for (int a = 0; a < 3; ++a) {
        record.origin[a] = origin(a);
        record.xStep[a] = xStep(a);
        record.yStep[a] = yStep(a);
        record.zStep[a] = zStep(a);
    }
    record.volumeIndex = 0;
    const TvrIntrinsics intrinsics =
        tvrMakeIntrinsics(depth.projection(0, 0), depth.projection(1, 1), depth.projection(0, 2),
                          depth.projection(1, 2));
    const unsigned width = static_cast<unsigned>(depth.depth.width());
    const unsigned height = static_cast<unsigned>(depth.depth.height());
    // The row stride passed is the dense one: depth images are stored without row padding.
    return tvrDepthFusion8x8x8xNs16(&record, reinterpret_cast<short*>(vol.data()), 1,
                                    kTvrBlockBytes, depth.depth.pixels(), width, height,
                                    width * static_cast<unsigned>(sizeof(float)), intrinsics.values,
                                    static_cast<int>(maxWeight));
}

}  // namespace Solid
