// The trilinear read of a block, inline for the loops that sample blocks by the million (the
// renderer's march); `Volume::val` is the same code.
#ifndef VELMORA_SOLID_VOLUME_VOLUMESAMPLING_H
#define VELMORA_SOLID_VOLUME_VOLUMESAMPLING_H

#include <algorithm>

#include "solid/volume/Volume.h"

namespace Solid {

// Lattice cell around one coordinate: lower index, fraction, upper index.
struct AxisCell {
    int i0;
    int i1;
    float f;
};

// Indices are clamped into the block: for every position inside [0, dimension] this changes
// nothing, and a position that rounding pushed out by a hair cannot read beyond the samples.
// A coordinate on a lattice plane (f == 0) reads only that plane.
inline AxisCell cellForVal(float p, float inverseSpacing, int bound) {
    const float u = p * inverseSpacing;
    int i = static_cast<int>(u);
    i = std::min(std::max(i, 0), bound);
    const float f = u - static_cast<float>(i);
    return AxisCell{i, (f > 0.0f && i < bound) ? i + 1 : i, f};
}

// The eight corners, in the order they are tested for observation: x fastest, then y, then z.
template <typename T, typename S>
bool readCorners(const Volume<T, S>& vol, const AxisCell& cx, const AxisCell& cy,
                 const AxisCell& cz, float (&c)[8]) {
    const int xs[2] = {cx.i0, cx.i1};
    const int ys[2] = {cy.i0, cy.i1};
    const int zs[2] = {cz.i0, cz.i1};
    for (int corner = 0; corner < 8; ++corner) {
        const Vec2S& s = depthPart(vol.at(xs[corner & 1], ys[(corner >> 1) & 1], zs[corner >> 2]));
        if (s(1) < 1) {
            return false;
        }
        c[corner] = static_cast<float>(s(0)) * kDepthValueScale;
    }
    return true;
}

// Trilinear blend: along x, then y, then z, each as f * upper + (1 - f) * lower.
inline float trilinear(const float (&c)[8], float fx, float fy, float fz) {
    const float c00 = fx * c[1] + (1.0f - fx) * c[0];
    const float c10 = fx * c[3] + (1.0f - fx) * c[2];
    const float c01 = fx * c[5] + (1.0f - fx) * c[4];
    const float c11 = fx * c[7] + (1.0f - fx) * c[6];
    const float c0 = fy * c10 + (1.0f - fy) * c00;
    const float c1 = fy * c11 + (1.0f - fy) * c01;
    return fz * c1 + (1.0f - fz) * c0;
}

// Trilinear value at local position `p`, or -2.0 when a corner it reads is unobserved.
template <typename T, typename S>
float trilinearValue(const Volume<T, S>& vol, const Vec3& p) {
    const VolumeConfig& cfg = vol.config();
    const AxisCell cx = cellForVal(p(0), cfg.inverseSpacing(0), cfg.bounds(0));
    const AxisCell cy = cellForVal(p(1), cfg.inverseSpacing(1), cfg.bounds(1));
    const AxisCell cz = cellForVal(p(2), cfg.inverseSpacing(2), cfg.bounds(2));
    float c[8];
    if (!readCorners(vol, cx, cy, cz, c)) {
        return kUnobservedValue;
    }
    return trilinear(c, cx.f, cy.f, cz.f);
}

}  // namespace Solid

#endif  // VELMORA_SOLID_VOLUME_VOLUMESAMPLING_H
