// getObjectInstances: brings the instance extractor up to date for the blocks changed since the
// last call, then copies the instances and the complete table of merge links out under the
// two-call protocol. The update is kept even when the call then fails on the host's spans, so a
// two-call sequence pays for it once.
#include "common/Trace.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"
#include "velmora/ObjectIds.h"

namespace Velmora {

namespace {

XrVector3fVLM toHost(const Solid::Vec3& v) {
    return {v[0], v[1], v[2]};
}

}  // namespace

XrResultVLM Impl::getObjectInstances(span<ObjectInstance>& instances,
                                     span<SubsumedLink>& subsumed) {
    AR::Common::ScopedTrace trace("getObjectInstances");
    if (!isInitialized()) {
        return kErrorNotInitialized;
    }
    State& s = *mState;
    std::lock_guard<std::mutex> instanceLock(s.mInstanceMutex);
    Solid::IndexSet blocks;
    {
        std::lock_guard<std::mutex> lock(s.mInstanceUpdatedMutex);
        // Copied and cleared rather than swapped: the pending set keeps its buckets, and with
        // them the order in which later sets are walked.
        blocks = s.mInstanceUpdatedBlocks;
        s.mInstanceUpdatedBlocks.clear();
    }
    Solid::InstanceExtractor& extractor = s.mInstanceExtractor;
    if (s.mMode == kModeSplit) {
        extractor.updateBlockInstances(*s.mLabelVolumeGrid, blocks, false);
    } else if (s.mMode == kModeCombined) {
        extractor.updateBlockInstances(*s.mLabelDepthVolumeGrid, blocks, false);
    }
    // The samples' block-instance ids and the merge of instances may have changed.
    ++s.mSurfaces.labelEpoch;

    if ((instances.data == nullptr && instances.size != 0) ||
        (subsumed.data == nullptr && subsumed.size != 0)) {
        return kErrorInvalidArgument;
    }
    // Read in place: mInstanceMutex keeps every other user of the extractor out until we return.
    const Solid::InstanceExtractor::InstanceTable& table = extractor.getInstances();
    if (table.empty()) {
        return kSuccess;  // the spans keep their capacities
    }
    const uint32_t instanceCapacity = instances.size;
    const uint32_t linkCapacity = subsumed.size;
    const uint32_t usedIds = extractor.usedIds();
    instances.size = table.size();
    subsumed.size = usedIds + 1;
    if (linkCapacity <= usedIds) {
        return kErrorBufferTooSmall;
    }
    for (uint32_t id = 0; id <= usedIds; ++id) {
        const Solid::GlobalID parent = extractor.getParentID(static_cast<Solid::GlobalID>(id));
        subsumed.data[id].first = makeObjectUuid(mUuidPrefix, kUuidKindInstance, id);
        subsumed.data[id].second = makeObjectUuid(mUuidPrefix, kUuidKindInstance, parent);
    }
    if (instanceCapacity < table.size()) {
        return kErrorBufferTooSmall;
    }
    uint32_t n = 0;
    for (const auto& entry : table) {
        const Solid::Instance& instance = entry.second;
        ObjectInstance& out = instances.data[n++];
        out.uuid = makeObjectUuid(mUuidPrefix, kUuidKindInstance, instance.id);
        out.label = instance.label;
        out.boundsMin = toHost(instance.box.min);
        out.boundsMax = toHost(instance.box.max);
    }
    return kSuccess;
}

}  // namespace Velmora
