// getPlanes: brings the plane detector up to date for the blocks changed since the last call
// (fit, merge, and geometry, labels and contours of the new roots), then copies the planes, their
// outlines and the complete table of merge links out. Planes have a third call of the protocol:
// each record's contour array is sized by the host from the count the second call reports. The
// update is kept even when the call then fails on the host's spans.
#include "common/Trace.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"
#include "velmora/ObjectIds.h"

namespace Velmora {

namespace {

uint32_t planeId(Solid::PlaneID id) {
    return static_cast<uint32_t>(id);
}

template <typename Grid, typename LabelGrid>
void updatePlanes(Solid::PlaneDetector& detector, const Grid& grid, const LabelGrid& labelGrid,
                  bool labelPlanes, const Solid::IndexSet& blocks) {
    detector.fitPlanes(grid, blocks);
    const Solid::PlaneIDSet roots = detector.mergePlanes(blocks);
    detector.updateGeometry(grid, roots);
    if (labelPlanes) {
        detector.updateLabels(grid, labelGrid, roots);
    }
    detector.updateContours(grid, roots);
}

}  // namespace

XrResultVLM Impl::getPlanes(span<Planef>& planes, span<SubsumedLink>& subsumed) {
    AR::Common::ScopedTrace trace("getPlanes");
    if (!isInitialized()) {
        return kErrorNotInitialized;
    }
    State& s = *mState;
    std::lock_guard<std::mutex> planeLock(s.mPlaneMutex);
    Solid::PlaneDetector& detector = s.mPlaneDetector;
    if (!detector.isEnabled()) {
        return kErrorPlanesDisabled;  // the pending blocks stay as they are
    }
    Solid::IndexSet blocks;
    {
        std::lock_guard<std::mutex> lock(s.mPlaneUpdatedMutex);
        // Copied and cleared rather than swapped: the pending set keeps its buckets, and with
        // them the order in which later sets are walked.
        blocks = s.mPlaneUpdatedBlocks;
        s.mPlaneUpdatedBlocks.clear();
    }
    if (s.mMode == kModeSplit) {
        // Labels come at their own rate: a block may have no label block yet, and then adds
        // nothing to the plane's label.
        updatePlanes(detector, *s.mVolumeGrid, *s.mLabelVolumeGrid, s.mLabelPlanes, blocks);
    } else if (s.mMode == kModeCombined) {
        updatePlanes(detector, *s.mLabelDepthVolumeGrid, *s.mLabelDepthVolumeGrid, s.mLabelPlanes,
                     blocks);
    }

    if ((planes.data == nullptr && planes.size != 0) ||
        (subsumed.data == nullptr && subsumed.size != 0)) {
        return kErrorInvalidArgument;
    }
    const Solid::PlaneIDSet roots = detector.getRootIDs();
    if (roots.empty()) {
        return kSuccess;  // the spans keep their capacities
    }
    const uint32_t planeCapacity = planes.size;
    const uint32_t linkCapacity = subsumed.size;
    const uint32_t numNodes = static_cast<uint32_t>(detector.numCreatedNodes());
    planes.size = roots.size();
    subsumed.size = numNodes;
    XrResultVLM result = kSuccess;
    if (linkCapacity >= numNodes) {
        for (uint32_t node = 0; node < numNodes; ++node) {
            subsumed.data[node].first =
                makeObjectUuid(mUuidPrefix, kUuidKindPlane, planeId(detector.getRootID(node)));
            subsumed.data[node].second = makeObjectUuid(mUuidPrefix, kUuidKindPlane, node);
        }
    } else {
        result = kErrorBufferTooSmall;
    }
    if (planeCapacity < roots.size()) {
        return kErrorBufferTooSmall;
    }
    uint32_t n = 0;
    for (const Solid::PlaneID id : roots) {
        const Solid::PlaneDetector::Node& node = detector.getNode(id);
        AR_ASSERT(node.plane.isValid());
        Planef& out = planes.data[n++];
        out.uuid = makeObjectUuid(mUuidPrefix, kUuidKindPlane, planeId(id));
        for (int i = 0; i < 4; ++i) {
            out.plane[i] = node.plane.getData()[i];
        }
        out.reserved = 0;
        out.label = node.label;
    }
    bool nullVertices = false;
    n = 0;
    for (const Solid::PlaneID id : roots) {
        Planef& out = planes.data[n++];
        const uint32_t capacity = out.vertexCount;
        const uint32_t count = static_cast<uint32_t>(detector.getNode(id).contour.size());
        if (out.vertices == nullptr && capacity != 0) {
            nullVertices = true;
        }
        out.vertexCount = count;
        if (capacity < count) {
            result = kErrorBufferTooSmall;
        }
    }
    if (nullVertices) {
        return kErrorInvalidArgument;  // wins over a buffer that is too small
    }
    if (result != kSuccess) {
        return result;
    }
    n = 0;
    for (const Solid::PlaneID id : roots) {
        Planef& out = planes.data[n++];
        uint32_t v = 0;
        for (const Solid::Vec3& point : detector.getNode(id).contour) {
            out.vertices[v++] = XrVector3fVLM{point(0), point(1), point(2)};
        }
    }
    return kSuccess;
}

}  // namespace Velmora
