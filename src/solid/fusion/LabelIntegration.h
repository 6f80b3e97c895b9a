// Label fusion of the split run mode. Labels arrive apart from depth, so a label pixel votes in
// the samples of the label grid that lie on the surface it sees: either by the depth grid's value
// at the sample, or by a depth image rendered from the depth grid for the label frame's pose.
// The vote itself is `updateLabels` (saturating counters); the depth grid is only read.
#ifndef VELMORA_SOLID_FUSION_LABELINTEGRATION_H
#define VELMORA_SOLID_FUSION_LABELINTEGRATION_H

#include <cstdint>

#include "solid/fusion/IntegrationStats.h"
#include "solid/fusion/SensorErrorModel.h"
#include "solid/volume/Frames.h"
#include "solid/volume/VolumeGrid.h"

namespace Solid {

// What one block's label pass did.
struct IntegrateVolumeStats {
    uint32_t votes = 0;  // samples that received a vote
};

// Frame level: makes sure the label grid has every block of `blocks`, renders the depth grid from
// the label frame's camera (raycast with `stepFactor`, `nearPlane`, `farPlane`), and votes every
// sample within `labelDistance` metres of the rendered surface.
void integrateLabelsUsingRaycasting(LabelGrid& labelGrid, const DepthGrid& depthGrid,
                                    const IndexSet& blocks, const LabelFrame& labelFrame,
                                    const SensorErrorModel& sensorModel, IntegrationStats& stats,
                                    float labelDistance, float stepFactor, float nearPlane,
                                    float farPlane);

// Frame level with the depth grid already rendered for the label frame's camera, as
// integrateLabelsUsingRaycasting renders it: makes sure the label grid has every block of
// `blocks` and votes every sample within `labelDistance` metres of the rendered surface.
void integrateLabelsWithRenderedDepth(LabelGrid& labelGrid, const DepthGrid& depthGrid,
                                      const IndexSet& blocks, const LabelFrame& labelFrame,
                                      const SensorErrorModel& sensorModel, IntegrationStats& stats,
                                      float labelDistance, const DepthFrame& rendered);

// Grid level: every block of `blocks` must exist in the label grid. A `depthFrame` with pixels
// is the surface to vote against; an empty one makes each block read the depth grid instead.
void integrate(LabelGrid& labelGrid, const DepthGrid& depthGrid, const LabelFrame& labelFrame,
               const IndexSet& blocks, const SensorErrorModel& sensorModel, IntegrationStats& stats,
               float labelDistance, const DepthFrame& depthFrame);

// Block level against the depth grid: samples whose depth-grid value is observed and strictly
// below labelDistance / truncation (0.05 when labelDistance is 0) vote. `labelFrame.pose` maps
// block-local metres to camera metres; `origin` is the block origin in the world.
void integrate(LabelVolume& labelVolume, const DepthGrid& depthGrid, const LabelFrame& labelFrame,
               float truncation, int border, float labelDistance, const Vec3& origin,
               IntegrateVolumeStats* volumeStats, const DepthFrame& depthFrame);

// Block level against a depth image: samples whose distance along the ray to the depth pixel is
// strictly below labelDistance metres (sqrt(3) times the smallest spacing when it is 0) vote.
void integrateLabelsWithDepthMap(LabelVolume& labelVolume, const LabelFrame& labelFrame,
                                 const DepthFrame& depthFrame, float truncation, int border,
                                 float labelDistance, const Vec3& origin,
                                 IntegrateVolumeStats* volumeStats);

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_LABELINTEGRATION_H
