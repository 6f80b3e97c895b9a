#include "solid/surface/PolygonMesh.h"

#include <utility>

#include "common/Logger.h"
#include "common/Timing.h"

namespace Solid {

PolygonMesh::PolygonMesh(const PolygonMesh& other) : AR::Common::RefCounter(other) {
    mSlots = other.mSlots;
}

PolygonMesh& PolygonMesh::operator=(const PolygonMesh& other) {
    mSlots = other.mSlots;
    return *this;
}

PolygonMesh::PolygonMesh(PolygonMesh&& other) noexcept
    : AR::Common::RefCounter(other), mSlots(std::move(other.mSlots)) {}

PolygonMesh& PolygonMesh::operator=(PolygonMesh&& other) noexcept {
    mSlots = std::move(other.mSlots);
    return *this;
}

int32_t PolygonMesh::slotOf(ATTRIBUTE_NAME name, AttributeBlock::TYPE type) {
    AR_ASSERT(name >= 0 && name < kNumNames);
    AR_ASSERT(type >= 0 && type < AttributeBlock::kNumTypes);
    return name + kNumNames * type;
}

AttributeBlock* PolygonMesh::getAttribute(ATTRIBUTE_NAME name, AttributeBlock::TYPE type) const {
    return mSlots[slotOf(name, type)].get();
}

AttributeBlock* PolygonMesh::createAttribute(ATTRIBUTE_NAME name, AttributeBlock::TYPE type) {
    AR::Common::RefPtr<AttributeBlock>& slot = mSlots[slotOf(name, type)];
    if (slot) {
        return nullptr;
    }
    auto* block = new AttributeBlock();
    block->create(type);
    slot = AR::Common::RefPtr<AttributeBlock>(block);
    return block;
}

void PolygonMesh::setAttribute(ATTRIBUTE_NAME name, AttributeBlock::TYPE type,
                               AttributeBlock* block) {
    mSlots[slotOf(name, type)] = AR::Common::RefPtr<AttributeBlock>(block);
}

void PolygonMesh::resetStreams() {
    for (auto& slot : mSlots) {
        if (!slot) {
            continue;
        }
        if (slot->getRefCount() == 1) {
            slot->clear();
        } else {
            auto* block = new AttributeBlock();
            block->create(slot->type());
            slot = AR::Common::RefPtr<AttributeBlock>(block);
        }
    }
}

void PolygonMesh::detach(ATTRIBUTE_NAME name, AttributeBlock::TYPE type) {
    AR::Common::RefPtr<AttributeBlock>& slot = mSlots[slotOf(name, type)];
    if (slot && slot->getRefCount() > 1) {
        slot.reset();
        createAttribute(name, type);
    }
}

namespace {

// Appends `source` to `target` with `transform` applied to each element.
template <typename E, typename F>
void appendAll(const AttributeVector<E>& source, AttributeVector<E>& target, F&& transform) {
    const E* in = source.data();
    target.append_generated(source.size(),
                            [in, &transform](uint32_t i) { return transform(in[i]); });
}

template <typename E>
void appendAll(const AttributeVector<E>& source, AttributeVector<E>& target) {
    appendAll(source, target, [](const E& value) { return value; });
}

}  // namespace

void appendMesh(const PolygonMesh& source, PolygonMesh& target) {
    PolygonMesh::Positions& targetPositions = target.positions();
    PolygonMesh::Indices& targetIndices = target.indices();
    const PolygonMesh::Positions* positions = source.findPositions();
    const PolygonMesh::Indices* indices = source.findIndices();
    if (positions != nullptr && indices != nullptr) {
        const unsigned int base = targetPositions.size();
        appendAll(*indices, targetIndices, [base](unsigned int index) { return index + base; });
        appendAll(*positions, targetPositions);
    }
    const PolygonMesh::InstanceIds* ids = source.findInstanceIds();
    if (ids != nullptr && !ids->empty()) {
        appendAll(*ids, target.instanceIds());
    }
    const PolygonMesh::Colors* colors = source.findColors();
    if (colors != nullptr && !colors->empty()) {
        appendAll(*colors, target.colors());
    }
}

PolygonMesh mergeMesh(const MeshGridType& grid, ExtractSurfaceStats& stats) {
    AR_LOG_VERBOSE("[%s]", "mergeMesh");
    AR::Common::Timing timing;
    timing.beginSection(true);
    PolygonMesh merged;
    if (!grid.empty()) {
        // One allocation per stream instead of one per doubling.
        uint32_t numPositions = 0;
        uint32_t numIndices = 0;
        uint32_t numIds = 0;
        uint32_t numColors = 0;
        for (const auto& entry : grid) {
            const PolygonMesh::Positions* positions = entry.second.findPositions();
            const PolygonMesh::Indices* indices = entry.second.findIndices();
            if (positions != nullptr && indices != nullptr) {
                numPositions += positions->size();
                numIndices += indices->size();
            }
            const PolygonMesh::InstanceIds* ids = entry.second.findInstanceIds();
            numIds += ids != nullptr ? ids->size() : 0;
            const PolygonMesh::Colors* colors = entry.second.findColors();
            numColors += colors != nullptr ? colors->size() : 0;
        }
        merged.positions().reserve(numPositions);
        merged.indices().reserve(numIndices);
        // Streams that no block has are not created: the merge has them only where a block did.
        if (numIds > 0) {
            merged.instanceIds().reserve(numIds);
        }
        if (numColors > 0) {
            merged.colors().reserve(numColors);
        }
    }
    for (const auto& entry : grid) {
        appendMesh(entry.second, merged);
    }
    timing.endSection();
    stats.mergeDuration += timing.getDuration(false);
    return merged;
}

}  // namespace Solid
