#include "solid/volume/Volume.h"

#include <algorithm>

#include "solid/volume/VolumeSampling.h"

namespace Solid {

namespace {

// The cell of a gradient always has an upper neighbour, at the upper face the last cell.
inline AxisCell cellForGradient(float p, float inverseSpacing, int bound) {
    const float u = p * inverseSpacing;
    int i = static_cast<int>(u);
    i = std::min(std::max(i, 0), bound - 1);
    return AxisCell{i, i + 1, u - static_cast<float>(i)};
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
    return trilinearValue(*this, p);
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
