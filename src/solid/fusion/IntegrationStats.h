// Counters and times of one fusion of a frame, filled stage by stage, and of one rendering of a
// depth frame by raycast. Times are milliseconds except `borderTime`, which is the border copy's
// own duration (see copyBorders).
#ifndef VELMORA_SOLID_FUSION_INTEGRATIONSTATS_H
#define VELMORA_SOLID_FUSION_INTEGRATIONSTATS_H

#include <cstddef>

namespace Solid {

struct IntegrationStats {
    size_t totalBlocks = 0;         // blocks of the grid after integration
    size_t integratedBlocks = 0;    // selected blocks after each filter; finally those fused
    size_t visitedPoints = 0;       // depth pixels looked at
    size_t acceptedPoints = 0;      // depth pixels that produced hits
    size_t createdBlocks = 0;       // blocks new in this frame
    size_t copiedBorderBlocks = 0;  // neighbours that received border planes
    size_t reserved[2] = {0, 0};    // not written
    float selectTime = 0.0f;
    float hitSearchTime = 0.0f;
    float specifiedFilterTime = 0.0f;
    float densityFilterTime = 0.0f;
    float saturationFilterTime = 0.0f;
    float createTime = 0.0f;
    float integrateTime = 0.0f;
    float borderTime = 0.0f;
    // Written by raycast: rays that reached a block, and the rendering's duration, ms.
    size_t raycastRays = 0;
    float raycastTime = 0.0f;
};

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_INTEGRATIONSTATS_H
