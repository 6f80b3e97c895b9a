// What a host draws of a plane: the samples on it, its semantic label and its outline. Only new
// roots are processed; a root that is not new keeps what it has, even after a refit of one of
// its blocks has moved it.
#include <cmath>
#include <cstdlib>
#include <set>
#include <utility>

#include "cv/PolygonUtil.h"
#include "solid/planes/PlaneDetector.h"
#include "solid/planes/SampleValues.h"

namespace Solid {

namespace {

// Points of a contour closer than this fraction of the sample spacing share a cell; the first
// one stands for the cell.
constexpr float kContourCellFraction = 0.5f;
// Points of an alpha shape closer than this count as one: the single-precision machine epsilon.
constexpr float kAlphaShapeEpsilon = 1.1920929e-07f;
// Step, metres, from the plane's origin along world x and world y that picks the first axis of
// the plane's 2-D coordinates.
constexpr float kAxisProbe = 0.1f;
// The saturated ends of the distance band, normalised.
constexpr float kSaturated = 1.0f;

}  // namespace

template <int CheckWeights, typename VolumeType>
IndexSet extractIsoSurfaceIndexes(const VolumeType& volume, float isoValue) {
    static_assert(CheckWeights == 0, "only the variant that ignores weights exists");
    IndexSet indices(sampleSetSize(volume));
    const Size& size = volume.size();
    const Index3 steps[3] = {Index3(1, 0, 0), Index3(0, 1, 0), Index3(0, 0, 1)};
    for (int z = 0; z <= size(2) - 2; ++z) {
        for (int y = 0; y <= size(1) - 2; ++y) {
            for (int x = 0; x <= size(0) - 2; ++x) {
                const float v = normalisedDistance(volume, x, y, z);
                if (std::abs(v) == kSaturated) {
                    continue;
                }
                const float dv = v - isoValue;
                bool crossed = false;
                for (const Index3& step : steps) {
                    const Index3 n(x + step(0), y + step(1), z + step(2));
                    const float nv = normalisedDistance(volume, n(0), n(1), n(2));
                    const float dn = nv - isoValue;
                    if (std::abs(nv) < kSaturated &&
                        (dv * dn < 0.0f || (dv == 0.0f && dn != 0.0f))) {
                        indices.insert(n);
                        crossed = true;
                    }
                }
                if (crossed) {
                    indices.insert(Index3(x, y, z));
                }
            }
        }
    }
    return indices;
}

template <typename SampleGrid, typename VisitGrid, typename Visitor>
void PlaneDetector::forEachSampleInPlane(const SampleGrid& sampleGrid, const VisitGrid& visitGrid,
                                         const Node& node, Visitor&& visitor) {
    // The region is dilated by one block: surface of the plane often lies in blocks whose own
    // fit was rejected.
    IndexSet region;
    for (const Index3& block : node.blocks) {
        region.insert(block);
    }
    for (const Index3& block : node.blocks) {
        for (const Index3& offset : mNeighbourOffsets) {
            const Index3 neighbour = block + offset;
            if (sampleGrid.get(neighbour)) {
                region.insert(neighbour);
            }
        }
    }
    for (const Index3& key : region) {
        {
            const auto block = sampleGrid.get(key);
            if (!block) {
                continue;
            }
            if (!mBlockSamples.contains(key)) {
                mBlockSamples[key] = extractIsoSurfaceIndexes<0>(*block, 0.0f);
            }
        }
        const IndexSet& samples = mBlockSamples.at(key);
        if (!visitGrid.get(key)) {
            continue;
        }
        for (const Index3& index : samples) {
            visitor(visitGrid, key, index);
        }
    }
}

template <typename Grid>
void PlaneDetector::updateGeometry(const Grid& grid, const PlaneIDSet& planes) {
    const Vec3& dimension = grid.dimension();
    const Vec3& spacing = grid.gridSpacing();
    for (const PlaneID id : planes) {
        Node& node = mPlanes.at(id);
        forEachSampleInPlane(grid, grid, node,
                             [&](const Grid&, const Index3& key, const Index3& index) {
                                 Vec3 p;
                                 for (int a = 0; a < 3; ++a) {
                                     p(a) = static_cast<float>(key(a)) * dimension(a) +
                                            static_cast<float>(index(a)) * spacing(a);
                                 }
                                 const Vec3 q = node.plane.projectOnPlane(p);
                                 // mMaxStdError doubles as the half thickness of a plane.
                                 if (AR::Math::norm(p - q) < mMaxStdError) {
                                     node.geometry.push_back(q);
                                 }
                             });
    }
}

template <typename Grid, typename LabelGridType>
void PlaneDetector::updateLabels(const Grid& grid, const LabelGridType& labelGrid,
                                 const PlaneIDSet& planes) {
    for (const PlaneID id : planes) {
        Node& node = mPlanes.at(id);
        // 16-bit counters that may wrap: every chosen sample adds its whole histogram.
        uint16_t counters[kNumLabels] = {};
        forEachSampleInPlane(
            grid, labelGrid, node,
            [&](const LabelGridType& labels, const Index3& key, const Index3& index) {
                const auto block = labels.get(key);
                AR_ASSERT(block);
                const auto& histogram = block->at(index(0), index(1), index(2)).labels;
                for (uint32_t i = 0; i < histogram.size() && i < kNumLabels; ++i) {
                    counters[i] = static_cast<uint16_t>(counters[i] + histogram[i]);
                }
            });
        uint16_t best = 0;
        for (uint16_t i = 1; i < kNumLabels; ++i) {
            if (counters[i] > counters[best]) {
                best = i;
            }
        }
        node.label = best;
    }
}

template <typename Grid>
void PlaneDetector::updateContours(const Grid& grid, const PlaneIDSet& planes) {
    const float cell = kContourCellFraction * grid.gridSpacing()(0);
    for (const PlaneID id : planes) {
        Node& node = mPlanes.at(id);
        AR_ASSERT(node.isRoot());
        node.contour.clear();
        const std::vector<Vec3>& geometry = node.geometry;
        if (geometry.size() <= 2) {
            continue;
        }
        const std::vector<Vec2> points = projectTo2D(
            AR::Common::ArrayView<const Vec3>(geometry.data(), geometry.data() + geometry.size()),
            node.plane);
        std::set<std::pair<float, float>> cells;
        std::vector<Vec2> thinned;
        std::vector<size_t> kept;
        for (size_t i = 0; i < points.size(); ++i) {
            const std::pair<float, float> key(std::trunc(points[i](0) / cell) * cell,
                                              std::trunc(points[i](1) / cell) * cell);
            if (cells.insert(key).second) {
                thinned.push_back(points[i]);
                kept.push_back(i);
            }
        }
        if (mContourAlpha == 0.0f) {
            const AR::Common::Vector<int> hull = AR::CV::PolygonUtil::computeConvexHull(
                thinned.data(), static_cast<unsigned int>(thinned.size()));
            for (const int h : hull) {
                node.contour.push_back(geometry[kept.at(static_cast<size_t>(h))]);
            }
            continue;
        }
        const std::vector<std::vector<size_t>> shapes =
            AR::CV::PolygonUtil::computeAlphaShapes(thinned, mContourAlpha, kAlphaShapeEpsilon);
        if (shapes.empty()) {
            continue;
        }
        AR_ASSERT(shapes[0].size() > 0u);
        size_t longest = 0;
        for (size_t s = 1; s < shapes.size(); ++s) {
            if (shapes[s].size() > shapes[longest].size()) {
                longest = s;
            }
        }
        for (const size_t h : shapes[longest]) {
            const size_t p = kept.at(h);
            AR_ASSERT(p < geometry.size());
            node.contour.push_back(geometry[p]);
        }
    }
}

std::vector<Vec2> projectTo2D(AR::Common::ArrayView<const Vec3> points,
                              const AR::CV::Geometry::Plane3D<float>& plane) {
    const Vec3 normal = plane.getNormal();
    const Vec3 c = normal * -plane.getDepth();
    const Vec3 alongX = plane.projectOnPlane(c + Vec3(kAxisProbe, 0.0f, 0.0f)) - c;
    const Vec3 alongY = plane.projectOnPlane(c + Vec3(0.0f, kAxisProbe, 0.0f)) - c;
    const Vec3 axis = AR::Math::norm(alongX) > AR::Math::norm(alongY) ? alongX : alongY;
    const float length = AR::Math::norm(axis);
    AR_ASSERT(length > 0.0f);
    const Vec3 u = axis / length;
    const Vec3 v = AR::Math::cross(normal, u);
    std::vector<Vec2> out;
    out.reserve(points.size());
    for (const Vec3& p : points) {
        const Vec3 d = p - c;
        out.emplace_back(AR::Math::dot(d, u), AR::Math::dot(d, v));
    }
    return out;
}

template IndexSet extractIsoSurfaceIndexes<0>(const DepthVolume&, float);
template IndexSet extractIsoSurfaceIndexes<0>(const LabelDepthVolume&, float);
template void PlaneDetector::updateGeometry(const DepthGrid&, const PlaneIDSet&);
template void PlaneDetector::updateGeometry(const LabelDepthGrid&, const PlaneIDSet&);
template void PlaneDetector::updateLabels(const DepthGrid&, const LabelGrid&, const PlaneIDSet&);
template void PlaneDetector::updateLabels(const LabelDepthGrid&, const LabelDepthGrid&,
                                          const PlaneIDSet&);
template void PlaneDetector::updateContours(const DepthGrid&, const PlaneIDSet&);
template void PlaneDetector::updateContours(const LabelDepthGrid&, const PlaneIDSet&);

}  // namespace Solid
