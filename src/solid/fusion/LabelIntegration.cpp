#include "solid/fusion/LabelIntegration.h"

#include <algorithm>
#include <cmath>

#include "common/Logger.h"
#include "common/Timing.h"
#include "solid/fusion/CameraStepping.h"
#include "solid/fusion/GridIntegration.h"
#include "solid/fusion/Integration.h"
#include "solid/fusion/PixelIndex.h"
#include "solid/query/Raycast.h"

namespace Solid {

namespace {

// Default vote band against the depth grid, in units of the truncation band.
constexpr float kDefaultNormalisedLabelBand = 0.05f;
// Default vote band against a depth image: the diagonal of a cell of the smallest spacing.
constexpr float kSqrt3 = 1.7320508f;

// Visits the block's own samples (`border` planes left out) with their camera positions.
template <typename Visit>
void forEachCameraSample(const LabelVolume& volume, const Matrix4& T, int border, Visit visit) {
    const Size& size = volume.size();
    forEachCameraPoint<float>(T, volume.spacing(), size(0) - border, size(1) - border,
                              size(2) - border, visit);
}

}  // namespace

void integrateLabelsWithDepthMap(LabelVolume& labelVolume, const LabelFrame& labelFrame,
                                 const DepthFrame& depthFrame, float /*truncation*/, int border,
                                 float labelDistance, const Vec3& /*origin*/,
                                 IntegrateVolumeStats* volumeStats) {
    AR_ASSERT(labelFrame.labels.numPixels() > 0);
    const Vec3& spacing = labelVolume.spacing();
    const float limit = labelDistance > 0.0f
                            ? labelDistance
                            : std::min(spacing(0), std::min(spacing(1), spacing(2))) * kSqrt3;
    const float fx = labelFrame.projection(0, 0);
    const float fy = labelFrame.projection(1, 1);
    const float cxHalf = labelFrame.projection(0, 2) + 0.5f;
    const float cyHalf = labelFrame.projection(1, 2) + 0.5f;
    const int width = std::min(labelFrame.labels.width(), depthFrame.depth.width());
    const int height = std::min(labelFrame.labels.height(), depthFrame.depth.height());
    forEachCameraSample(
        labelVolume, labelFrame.pose, border, [&](int x, int y, int z, const float* P) {
            if (P[2] < kMinCameraDepth) {
                return;
            }
            const float xn = P[0] / P[2];
            const float yn = P[1] / P[2];
            int u;
            int v;
            if (!pixelIndex(fx * xn + cxHalf, width, u) ||
                !pixelIndex(fy * yn + cyHalf, height, v)) {
                return;
            }
            const float d = depthFrame.depth(u, v);
            if (d == 0.0f) {
                return;
            }
            const float e = std::fabs((kRadialC0 + kRadialC1 * (xn * xn + yn * yn)) * (d - P[2]));
            if (!(e < limit)) {
                return;
            }
            updateLabels(labelVolume.at(x, y, z), labelFrame.labels(u, v));
            if (volumeStats != nullptr) {
                ++volumeStats->votes;
            }
        });
}

void integrate(LabelVolume& labelVolume, const DepthGrid& depthGrid, const LabelFrame& labelFrame,
               float truncation, int border, float labelDistance, const Vec3& origin,
               IntegrateVolumeStats* volumeStats, const DepthFrame& depthFrame) {
    if (depthFrame.depth.width() >= 1) {
        integrateLabelsWithDepthMap(labelVolume, labelFrame, depthFrame, truncation, border,
                                    labelDistance, origin, volumeStats);
        return;
    }
    AR_ASSERT(labelFrame.labels.numPixels() > 0);
    const float limit =
        labelDistance > 0.0f ? labelDistance / truncation : kDefaultNormalisedLabelBand;
    const Vec3& spacing = labelVolume.spacing();
    const float fx = labelFrame.projection(0, 0);
    const float fy = labelFrame.projection(1, 1);
    const float cxHalf = labelFrame.projection(0, 2) + 0.5f;
    const float cyHalf = labelFrame.projection(1, 2) + 0.5f;
    const int width = labelFrame.labels.width();
    const int height = labelFrame.labels.height();
    forEachCameraSample(labelVolume, labelFrame.pose, border,
                        [&](int x, int y, int z, const float* P) {
                            if (P[2] < kMinCameraDepth) {
                                return;
                            }
                            int u;
                            int v;
                            if (!pixelIndex(cxHalf + fx * P[0] / P[2], width, u) ||
                                !pixelIndex(cyHalf + fy * P[1] / P[2], height, v)) {
                                return;
                            }
                            const Vec3 world(origin(0) + spacing(0) * static_cast<float>(x),
                                             origin(1) + spacing(1) * static_cast<float>(y),
                                             origin(2) + spacing(2) * static_cast<float>(z));
                            KeyType key;
                            const float value = depthGrid.value(world, key);
                            if (value == kUnobservedValue || !(std::fabs(value) < limit)) {
                                return;
                            }
                            updateLabels(labelVolume.at(x, y, z), labelFrame.labels(u, v));
                            if (volumeStats != nullptr) {
                                ++volumeStats->votes;
                            }
                        });
}

void integrate(LabelGrid& labelGrid, const DepthGrid& depthGrid, const LabelFrame& labelFrame,
               const IndexSet& blocks, const SensorErrorModel& sensorModel, IntegrationStats& stats,
               float labelDistance, const DepthFrame& depthFrame) {
    // The border argument of the label pass: the last lattice plane is the border copy's.
    constexpr int kBorder = 1;
    AR::Common::Timing timing;
    timing.beginSection(true);
    const VolumeConfig& config = labelGrid.config();
    AR::Math::Vector<float, 4> centreOffset;
    for (int a = 0; a < 3; ++a) {
        centreOffset(a) = static_cast<float>(config.size(a) / 2) * config.spacing(a);
    }
    centreOffset(3) = 1.0f;
    // The per-block frame views the label pixels; only its pose changes from block to block.
    LabelFrame blockFrame;
    blockFrame.projection = labelFrame.projection;
    blockFrame.timestamp = labelFrame.timestamp;
    blockFrame.labels.set(const_cast<unsigned char*>(labelFrame.labels.pixels()),
                          labelFrame.labels.size(), labelFrame.labels.bufSize(), false);
    for (const KeyType& key : blocks) {
        auto block = labelGrid.get(key);
        AR_ASSERT(block);
        blockFrame.pose = blockToCamera(labelFrame.pose, labelGrid.dimension(), key);
        const AR::Math::Vector<float, 4> c = blockFrame.pose * centreOffset;
        const float truncation = sensorModel.getIntegrationRamp(Vec3(c(0), c(1), c(2)));
        IntegrateVolumeStats volumeStats;
        integrate(*block, depthGrid, blockFrame, truncation, kBorder, labelDistance,
                  labelGrid.blockOrigin(key), &volumeStats, depthFrame);
    }
    timing.endSection();
    stats.integrateTime = timing.getDurationMilliseconds(false);
    stats.integratedBlocks = blocks.size();
    stats.totalBlocks = labelGrid.size();
    AR_LOG_VERBOSE("split volume integrated %zu blocks, total block number is %zu",
                   stats.integratedBlocks, stats.totalBlocks);
}

void integrateLabelsWithRenderedDepth(LabelGrid& labelGrid, const DepthGrid& depthGrid,
                                      const IndexSet& blocks, const LabelFrame& labelFrame,
                                      const SensorErrorModel& sensorModel, IntegrationStats& stats,
                                      float labelDistance, const DepthFrame& rendered) {
    for (const KeyType& key : blocks) {
        labelGrid.ensure(key);
    }
    integrate(labelGrid, depthGrid, labelFrame, blocks, sensorModel, stats, labelDistance,
              rendered);
}

void integrateLabelsUsingRaycasting(LabelGrid& labelGrid, const DepthGrid& depthGrid,
                                    const IndexSet& blocks, const LabelFrame& labelFrame,
                                    const SensorErrorModel& sensorModel, IntegrationStats& stats,
                                    float labelDistance, float stepFactor, float nearPlane,
                                    float farPlane) {
    DepthFrame depthFrame;
    depthFrame.depth.allocPixels(labelFrame.labels.size(), AR::Common::ALIGNMENT_16);
    depthFrame.projection = labelFrame.projection;
    depthFrame.pose = labelFrame.pose;
    depthFrame.timestamp = labelFrame.timestamp;
    raycast(depthGrid, nearPlane, farPlane, stepFactor, depthFrame, stats);
    integrateLabelsWithRenderedDepth(labelGrid, depthGrid, blocks, labelFrame, sensorModel, stats,
                                     labelDistance, depthFrame);
}

}  // namespace Solid
