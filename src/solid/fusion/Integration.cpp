#include "solid/fusion/Integration.h"

#include "solid/fusion/CameraStepping.h"
#include "solid/fusion/PixelIndex.h"

#include <algorithm>
#include <cmath>

namespace Solid {

namespace {

// The double-precision twins of the near limit and the radial correction.
constexpr double kMinCameraDepthRef = 0.0001;
constexpr double kRadialC0Ref = 1.0028379597200003;
constexpr double kRadialC1Ref = 0.44948980000000255;
// Scale of a fixed-point depth value: +1.0 of the band.
constexpr float kDepthValueRange = 32766.0f;

// Running average of the fixed-point value with the observation count as weight. The division
// truncates towards zero. A negative stored weight cannot come out of fusion; it counts as 0 so
// that a damaged volume cannot divide by zero.
inline void updateDepthSample(Vec2S& sample, int inc, int maxW) {
    const int value = sample(0);
    const int weight = std::max<int>(sample(1), 0);
    int updated = (value * weight + inc) / (weight + 1);
    updated = std::min(std::max(updated, -static_cast<int>(kMaxDepthValue)),
                       static_cast<int>(kMaxDepthValue));
    sample(0) = static_cast<short>(updated);
    int w = weight + 1;
    if (static_cast<short>(w) >= maxW) {
        w = maxW;
    }
    sample(1) = static_cast<short>(w);
}

struct Intrinsics {
    float fx, fy, cx, cy;
};

inline Intrinsics intrinsicsOf(const Matrix4& projection) {
    return Intrinsics{projection(0, 0), projection(1, 1), projection(0, 2), projection(1, 2)};
}

// The shared float loop of both `integrate` overloads; `labels` is null for depth only.
template <typename VolumeType, typename VolumeStorage>
void integrateFloat(Volume<VolumeType, VolumeStorage>& vol, const DepthFrame& frame,
                    const AR::CV::Image<unsigned char>* labels, const Matrix4& T, float ramp,
                    float maxWeight, int border, float labelRamp) {
    AR_ASSERT(frame.depth.numPixels() > 0);
    const int maxW = static_cast<int>(maxWeight);
    const float invRamp = 1.0f / ramp;
    const float labelBand = labelRamp > 0.0f ? labelRamp : ramp;
    const Size& size = vol.size();
    const int nx = size(0) - border;
    const int ny = size(1) - border;
    const int nz = size(2) - border;
    if (nz < 1) {
        return;
    }
    const Vec3& spacing = vol.spacing();
    const Intrinsics k = intrinsicsOf(frame.projection);
    const float cxHalf = k.cx + 0.5f;
    const float cyHalf = k.cy + 0.5f;
    const int width = frame.depth.width();
    const int height = frame.depth.height();

    forEachCameraPoint<float>(T, spacing, nx, ny, nz, [&](int x, int y, int z, const float* P) {
        if (P[2] < kMinCameraDepth) {
            return;
        }
        const float nxr = P[0] / P[2];
        const float nyr = P[1] / P[2];
        int u;
        int v;
        if (!pixelIndex(k.fx * nxr + cxHalf, width, u) ||
            !pixelIndex(k.fy * nyr + cyHalf, height, v)) {
            return;
        }
        const float d = frame.depth(u, v);
        if (d == 0.0f) {
            return;
        }
        const float r2 = nxr * nxr + nyr * nyr;
        const float sdf = (kRadialC0 + r2 * kRadialC1) * (d - P[2]);
        VolumeType& sample = vol.at(x, y, z);
        if (sdf > -ramp) {
            const float t = std::min(sdf * invRamp, 1.0f);
            updateDepthSample(depthPart(sample), static_cast<int>(t * kDepthValueRange), maxW);
        }
        if (labels != nullptr && std::fabs(sdf) <= labelBand) {
            if constexpr (std::is_same<VolumeType, LabelDepthVolumeSample>::value) {
                updateLabels(sample, (*labels)(u, v));
            }
        }
    });
}

}  // namespace

template <typename VolumeType, typename VolumeStorage>
void integrate(Volume<VolumeType, VolumeStorage>& vol, const DepthFrame& depth, const Matrix4& T,
               float ramp, float maxWeight, int border) {
    integrateFloat(vol, depth, nullptr, T, ramp, maxWeight, border, 0.0f);
}

template <typename VolumeType, typename VolumeStorage>
void integrate(Volume<VolumeType, VolumeStorage>& vol, const LabelDepthFrame& depth,
               const Matrix4& T, float ramp, float maxWeight, int border, float labelRamp) {
    AR_ASSERT(depth.labels.numPixels() > 0);
    integrateFloat(vol, depth, &depth.labels, T, ramp, maxWeight, border, labelRamp);
}

void integrateRef(IntegrationHelper::FastVolume& vol, const DepthFrame& depth, const Matrix4& T,
                  float ramp, float maxWeight, int border) {
    AR_ASSERT(depth.depth.numPixels() > 0);
    const int maxW = static_cast<int>(maxWeight);
    const float invRamp = 1.0f / ramp;
    const Size& size = vol.size();
    const int nx = size(0) - border;
    const int ny = size(1) - border;
    const int nz = size(2) - border;
    if (nz < 1) {
        return;
    }
    const Vec3& spacing = vol.spacing();
    const Intrinsics k = intrinsicsOf(depth.projection);
    const double cxHalf = static_cast<double>(k.cx) + 0.5;
    const double cyHalf = static_cast<double>(k.cy) + 0.5;
    const int width = depth.depth.width();
    const int height = depth.depth.height();

    forEachCameraPoint<double>(T, spacing, nx, ny, nz, [&](int x, int y, int z, const double* P) {
        if (P[2] < kMinCameraDepthRef) {
            return;
        }
        const double nxr = P[0] / P[2];
        const double nyr = P[1] / P[2];
        int u;
        int v;
        if (!pixelIndex(static_cast<double>(k.fx) * nxr + cxHalf, width, u) ||
            !pixelIndex(static_cast<double>(k.fy) * nyr + cyHalf, height, v)) {
            return;
        }
        const float d = depth.depth(u, v);
        if (d == 0.0f) {
            return;
        }
        const double r2 = nxr * nxr + nyr * nyr;
        const double sdf = (kRadialC0Ref + r2 * kRadialC1Ref) * (static_cast<double>(d) - P[2]);
        if (sdf > -static_cast<double>(ramp)) {
            const double t = std::min(sdf * static_cast<double>(invRamp), 1.0);
            const int inc = static_cast<int>(static_cast<float>(t) * kDepthValueRange);
            updateDepthSample(vol.at(x, y, z), inc, maxW);
        }
    });
}

template void integrate(Volume<Vec2S, ReferencedVolumeData>&, const DepthFrame&, const Matrix4&,
                        float, float, int);
template void integrate(Volume<LabelDepthVolumeSample, ReferencedVolumeData>&, const DepthFrame&,
                        const Matrix4&, float, float, int);
template void integrate(Volume<LabelDepthVolumeSample, ReferencedVolumeData>&,
                        const LabelDepthFrame&, const Matrix4&, float, float, int, float);

}  // namespace Solid
