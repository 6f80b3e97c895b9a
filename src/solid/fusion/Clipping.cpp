#include "solid/fusion/Clipping.h"

namespace Solid {

namespace {

// Nodes sit every four lattice indices; the corner test interpolates at index 7 = 4 + 3.
constexpr int kNodeSpacing = 4;
constexpr float kNodeFraction = 0.25f;
// Margin, pixels, that keeps the unchecked kernel clear of the image border.
constexpr int kBorderMargin = 1;
// Corners of a cube.
constexpr int kCubeCorners = 8;
// Corners nearer to the camera plane than this (metres) make the division form give up the block.
constexpr float kMinCornerDepth = 0.0001f;

// Linear blend between nodes as the kernel does it: t * upper + (1 - t) * lower.
inline float blend(float lower, float upper, float t) {
    return t * upper + (1.0f - t) * lower;
}

// Inverse depth at the corner given by `bits` (bit 2 x, bit 1 y, bit 0 z at the last index),
// interpolated between slabs, then rows, then along the row by repeated steps.
float cornerInverseDepth(const InverseZGrid& grid, int bits, int lastIndex) {
    const int node = lastIndex / kNodeSpacing;
    const int fraction = lastIndex % kNodeSpacing;
    const float t = static_cast<float>(fraction) * kNodeFraction;
    float slab[9];
    for (int n = 0; n < 9; ++n) {
        slab[n] = (bits & 1) ? blend(grid.values[9 * node + n], grid.values[9 * (node + 1) + n], t)
                             : grid.values[n];
    }
    float row[3];
    for (int i = 0; i < 3; ++i) {
        row[i] = (bits & 2) ? blend(slab[3 * node + i], slab[3 * (node + 1) + i], t) : slab[i];
    }
    if (!(bits & 4)) {
        return row[0];
    }
    const float a = row[node];
    const float step = (row[node + 1] - a) * kNodeFraction;
    float value = a;
    for (int i = 0; i < fraction; ++i) {
        value += step;
    }
    return value;
}

// trunc(x) inside [margin, limit - margin): written on the float so that no out-of-range value
// is converted, and a NaN counts as outside.
inline bool insideWithMargin(float x, int limit) {
    return x >= static_cast<float>(kBorderMargin) && x < static_cast<float>(limit - kBorderMargin);
}

}  // namespace

void setupInverseZGrid(const Vec3& origin, const Vec3& xStep, const Vec3& yStep, const Vec3& zStep,
                       InverseZGrid& grid) {
    for (int k = 0; k < 3; ++k) {
        for (int j = 0; j < 3; ++j) {
            for (int i = 0; i < 3; ++i) {
                const float z = origin(2) + static_cast<float>(kNodeSpacing * i) * xStep(2) +
                                static_cast<float>(kNodeSpacing * j) * yStep(2) +
                                static_cast<float>(kNodeSpacing * k) * zStep(2);
                grid.values[9 * k + 3 * j + i] = 1.0f / z;
            }
        }
    }
}

bool checkClippingRequired(const DepthFrame& frame, const Size& size, const Vec3& origin,
                           const Vec3& xStep, const Vec3& yStep, const Vec3& zStep,
                           const InverseZGrid& grid, bool& outsideFront) {
    outsideFront = false;
    const float fx = frame.projection(0, 0);
    const float fy = frame.projection(1, 1);
    const float cxHalf = frame.projection(0, 2) + 0.5f;
    const float cyHalf = frame.projection(1, 2) + 0.5f;
    const int width = frame.depth.width();
    const int height = frame.depth.height();
    const int last = size(0) - 1;  // the last fused index, 7 for the 8-cube
    const float lastF = static_cast<float>(last);
    for (int c = 0; c < kCubeCorners; ++c) {
        Vec3 corner = origin;
        if (c & 4)
            corner += lastF * xStep;
        if (c & 2)
            corner += lastF * yStep;
        if (c & 1)
            corner += lastF * zStep;
        const float invZ = cornerInverseDepth(grid, c, last);
        if (invZ >= kMaxInverseDepth) {
            outsideFront = true;
            return false;
        }
        const float u = cxHalf + fx * corner(0) * invZ;
        const float v = cyHalf + fy * corner(1) * invZ;
        if (!insideWithMargin(u, width) || !insideWithMargin(v, height)) {
            return true;
        }
    }
    return false;
}

bool checkClippingRequired(const DepthFrame& frame, const Size& size, const Vec3& origin,
                           const Vec3& xStep, const Vec3& yStep, const Vec3& zStep,
                           bool& outsideFront) {
    outsideFront = false;
    const float fx = frame.projection(0, 0);
    const float fy = frame.projection(1, 1);
    const float cxHalf = frame.projection(0, 2) + 0.5f;
    const float cyHalf = frame.projection(1, 2) + 0.5f;
    const int width = frame.depth.width();
    const int height = frame.depth.height();
    const Vec3 xEnd = static_cast<float>(size(0) - 1) * xStep;
    const Vec3 yEnd = static_cast<float>(size(1) - 1) * yStep;
    const Vec3 zEnd = static_cast<float>(size(2) - 1) * zStep;
    // The origin, the three axis extremes, their pairwise sums, the far corner.
    const Vec3 corners[kCubeCorners] = {origin,
                                        origin + xEnd,
                                        origin + yEnd,
                                        origin + zEnd,
                                        origin + xEnd + yEnd,
                                        origin + xEnd + zEnd,
                                        origin + yEnd + zEnd,
                                        origin + xEnd + yEnd + zEnd};
    for (const Vec3& corner : corners) {
        if (corner(2) < kMinCornerDepth) {
            outsideFront = true;
            return false;
        }
        const float u = cxHalf + fx * corner(0) / corner(2);
        const float v = cyHalf + fy * corner(1) / corner(2);
        if (!insideWithMargin(u, width) || !insideWithMargin(v, height)) {
            return true;
        }
    }
    return false;
}

}  // namespace Solid
