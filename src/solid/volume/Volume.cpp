#include "solid/volume/Volume.h"

#include <algorithm>

namespace Solid {

namespace {

// Lattice cell around one coordinate: lower index, fraction, upper index.
struct AxisCell {
    int i0;
    int i1;
    float f;
};

// Indices are clamped into the block: for every position inside [0, dimension] this changes
// nothing, and a position that rounding pushed out by a hair cannot read beyond the samples.
inline AxisCell cellForVal(float p, float inverseSpacing, int bound) {
    const float u = p * inverseSpacing;
    int i = static_cast<int>(u);
    i = std::min(std::max(i, 0), bound);
    const float f = u - static_cast<float>(i);
    return AxisCell{i, (f > 0.0f && i < bound) ? i + 1 : i, f};
}

inline AxisCell cellForGradient(float p, float inverseSpacing, int bound) {
    const float u = p * inverseSpacing;
    int i = static_cast<int>(u);
    i = std::min(std::max(i, 0), bound - 1);
    return AxisCell{i, i + 1, u - static_cast<float>(i)};
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

}  // namespace

void makeVolumeConfig(VolumeConfig& config, const Size& size, const Vec3& spacing) {
    for (int a = 0; a < 3; ++a) {
        config.size(a) = size(a);
        config.bounds(a) = size(a) - 1;
        AR_ASSERT(config.bounds(a) != 0);
        config.dimension(a) = spacing(a) * static_cast<float>(config.bounds(a));
        AR_ASSERT(config.dimension(a) != 0.0f);
        config.spacing(a) = config.dimension(a) / static_cast<float>(config.bounds(a));
        AR_ASSERT(config.spacing(a) != 0.0f);
        config.inverseSpacing(a) = 1.0f / config.spacing(a);
    }
    config.numSamples = static_cast<uint32_t>(size(0) * size(1) * size(2));
}

template <typename T, typename S>
float Volume<T, S>::val(const Vec3& p) const {
    const VolumeConfig& cfg = config();
    const AxisCell cx = cellForVal(p(0), cfg.inverseSpacing(0), cfg.bounds(0));
    const AxisCell cy = cellForVal(p(1), cfg.inverseSpacing(1), cfg.bounds(1));
    const AxisCell cz = cellForVal(p(2), cfg.inverseSpacing(2), cfg.bounds(2));
    float c[8];
    if (!readCorners(*this, cx, cy, cz, c)) {
        return kUnobservedValue;
    }
    return trilinear(c, cx.f, cy.f, cz.f);
}

template <typename T, typename S>
bool Volume<T, S>::valueAndGradient(const Vec3& p, float& value, Vec3& gradient) const {
    const VolumeConfig& cfg = config();
    const AxisCell cx = cellForGradient(p(0), cfg.inverseSpacing(0), cfg.bounds(0));
    const AxisCell cy = cellForGradient(p(1), cfg.inverseSpacing(1), cfg.bounds(1));
    const AxisCell cz = cellForGradient(p(2), cfg.inverseSpacing(2), cfg.bounds(2));
    float c[8];
    if (!readCorners(*this, cx, cy, cz, c)) {
        return false;
    }
    const float fx = cx.f;
    const float fy = cy.f;
    const float fz = cz.f;
    // Corner names cXYZ: c[0] = c000, c[1] = c100, c[2] = c010, c[3] = c110, c[4] = c001, ...
    const float c000 = c[0], c100 = c[1], c010 = c[2], c110 = c[3];
    const float c001 = c[4], c101 = c[5], c011 = c[6], c111 = c[7];
    value = trilinear(c, fx, fy, fz);
    const float dx = fz * (fy * (c111 - c011) + (1.0f - fy) * (c101 - c001)) +
                     (1.0f - fz) * (fy * (c110 - c010) + (1.0f - fy) * (c100 - c000));
    const float dy = fz * (fx * (c111 - c101) + (1.0f - fx) * (c011 - c001)) +
                     (1.0f - fz) * (fx * (c110 - c100) + (1.0f - fx) * (c010 - c000));
    const float dz = fy * (fx * (c111 - c110) + (1.0f - fx) * (c011 - c010)) +
                     (1.0f - fy) * (fx * (c101 - c100) + (1.0f - fx) * (c001 - c000));
    gradient(0) = dx * cfg.inverseSpacing(0);
    gradient(1) = dy * cfg.inverseSpacing(1);
    gradient(2) = dz * cfg.inverseSpacing(2);
    return true;
}

template <typename T, typename S>
std::optional<T> Volume<T, S>::getSample(const Vec3& p) const {
    const VolumeConfig& cfg = config();
    int index[3];
    for (int a = 0; a < 3; ++a) {
        // Written so that a NaN coordinate counts as outside.
        if (p(a) < 0.0f || !(p(a) <= cfg.dimension(a))) {
            return std::nullopt;
        }
        index[a] = std::min(static_cast<int>(p(a) * cfg.inverseSpacing(a)), cfg.bounds(a));
    }
    return at(index[0], index[1], index[2]);
}

template <>
Vec2S creationSample<Vec2S>() {
    return Vec2S(kMaxDepthValue, short{0});
}

template <>
LabelDepthVolumeSample creationSample<LabelDepthVolumeSample>() {
    LabelDepthVolumeSample s{};
    s.depth = creationSample<Vec2S>();
    s.labels.resize(kNumLabels);
    return s;
}

template <>
LabelVolumeSample creationSample<LabelVolumeSample>() {
    LabelVolumeSample s{};
    s.labels.resize(kNumLabels);
    return s;
}

template float Volume<Vec2S, ReferencedVolumeData>::val(const Vec3&) const;
template float Volume<LabelDepthVolumeSample, ReferencedVolumeData>::val(const Vec3&) const;
template bool Volume<Vec2S, ReferencedVolumeData>::valueAndGradient(const Vec3&, float&,
                                                                    Vec3&) const;
template bool Volume<LabelDepthVolumeSample, ReferencedVolumeData>::valueAndGradient(const Vec3&,
                                                                                     float&,
                                                                                     Vec3&) const;
template std::optional<LabelDepthVolumeSample>
Volume<LabelDepthVolumeSample, ReferencedVolumeData>::getSample(const Vec3&) const;
template std::optional<LabelVolumeSample>
Volume<LabelVolumeSample, ReferencedVolumeData>::getSample(const Vec3&) const;

}  // namespace Solid
