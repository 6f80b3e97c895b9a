#include "solid/fusion/BorderCopy.h"

#include <climits>
#include <cstring>

#include "common/FlatMap.h"
#include "common/Logger.h"
#include "common/Timing.h"

namespace Solid {

namespace {

// Whole-sample assignment. A label histogram carries its own length, which can never exceed the
// 32 counters it has room for.
inline void assignSample(Vec2S& dst, const Vec2S& src) {
    dst = src;
}

template <typename LabelSample>
inline void assignLabelSample(LabelSample& dst, const LabelSample& src) {
    AR_ASSERT(src.labels.size() <= kNumLabels);
    dst = src;
}
inline void assignSample(LabelDepthVolumeSample& dst, const LabelDepthVolumeSample& src) {
    assignLabelSample(dst, src);
}
inline void assignSample(LabelVolumeSample& dst, const LabelVolumeSample& src) {
    assignLabelSample(dst, src);
}

// `count` contiguous samples.
template <typename T>
inline void copySamples(T* dst, const T* src, int count) {
    for (int i = 0; i < count; ++i) {
        assignSample(dst[i], src[i]);
    }
}
inline void copySamples(Vec2S* dst, const Vec2S* src, int count) {
    std::memmove(dst, src, sizeof(Vec2S) * static_cast<size_t>(count));
}

template <typename T, typename S>
void checkSameShape(const Volume<T, S>& dstVol, const Volume<T, S>& srcVol) {
    AR_ASSERT(dstVol.size() == srcVol.size() && dstVol.bounds() == srcVol.bounds());
}

}  // namespace

template <typename T, typename S>
void copyPlaneX(Volume<T, S>& dstVol, int dstPlane, const Volume<T, S>& srcVol, int srcPlane) {
    checkSameShape(dstVol, srcVol);
    const Index3& b = srcVol.bounds();
    for (int z = 0; z < b(2); ++z) {
        for (int y = 0; y < b(1); ++y) {
            assignSample(dstVol.at(dstPlane, y, z), srcVol.at(srcPlane, y, z));
        }
    }
}

template <typename T, typename S>
void copyPlaneY(Volume<T, S>& dstVol, int dstPlane, const Volume<T, S>& srcVol, int srcPlane) {
    checkSameShape(dstVol, srcVol);
    const Index3& b = srcVol.bounds();
    for (int z = 0; z < b(2); ++z) {
        copySamples(&dstVol.at(0, dstPlane, z), &srcVol.at(0, srcPlane, z), b(0));
    }
}

template <typename T, typename S>
void copyPlaneZ(Volume<T, S>& dstVol, int dstPlane, const Volume<T, S>& srcVol, int srcPlane) {
    checkSameShape(dstVol, srcVol);
    copySamples(&dstVol.at(0, 0, dstPlane), &srcVol.at(0, 0, srcPlane),
                srcVol.size()(0) * srcVol.bounds()(1));
}

namespace {

// The border copy of one block, with `neighbour(key)` giving the locked neighbour block (or an
// empty pointer where there is none).
template <typename GridType, typename Neighbour>
void copyBorderTo(const KeyType& key, const typename GridType::Block& srcBlock, IndexSet& updated,
                  Neighbour&& neighbour) {
    // The source is only read; the plane copies take the shared view type.
    auto& src = const_cast<typename GridType::Block&>(srcBlock);
    const Index3 b = src.bounds();
    auto withNeighbour = [&](int dx, int dy, int dz, auto copy) {
        // A block at the lowest key of an axis has no lower neighbour there: never wrap around.
        if ((dx != 0 && key(0) == INT_MIN) || (dy != 0 && key(1) == INT_MIN) ||
            (dz != 0 && key(2) == INT_MIN)) {
            return;
        }
        const KeyType neighbourKey(key(0) + dx, key(1) + dy, key(2) + dz);
        auto dst = neighbour(neighbourKey);
        if (!dst) {
            return;
        }
        copy(*dst);
        updated.insert(neighbourKey);
    };
    withNeighbour(-1, 0, 0, [&](auto& dst) { copyPlaneX(dst, b(0), src, 0); });
    withNeighbour(0, -1, 0, [&](auto& dst) { copyPlaneY(dst, b(1), src, 0); });
    withNeighbour(0, 0, -1, [&](auto& dst) { copyPlaneZ(dst, b(2), src, 0); });
    withNeighbour(-1, -1, 0, [&](auto& dst) {
        for (int k = 0; k < b(2); ++k)
            assignSample(dst.at(b(0), b(1), k), src.at(0, 0, k));
    });
    withNeighbour(-1, 0, -1, [&](auto& dst) {
        for (int j = 0; j < b(1); ++j)
            assignSample(dst.at(b(0), j, b(2)), src.at(0, j, 0));
    });
    withNeighbour(0, -1, -1, [&](auto& dst) {
        for (int i = 0; i < b(0); ++i)
            assignSample(dst.at(i, b(1), b(2)), src.at(i, 0, 0));
    });
    withNeighbour(-1, -1, -1,
                  [&](auto& dst) { assignSample(dst.at(b(0), b(1), b(2)), src.at(0, 0, 0)); });
}

}  // namespace

template <typename GridType>
void copySubvolumeBorder(const KeyType& key, const typename GridType::Block& srcBlock,
                         GridType& grid, IndexSet& updated) {
    copyBorderTo<GridType>(key, srcBlock, updated,
                           [&grid](const KeyType& k) { return grid.getUnlocked(k); });
}

template <typename GridType>
void copyBorders(GridType& grid, IntegrationStats& stats, IndexSet& blocks) {
    AR_LOG_VERBOSE("[%s]", "copyBorders");
    AR::Common::Timing timing;
    timing.beginSection(true);
    IndexSet updated(blocks.size());
    // A mesh request copies borders on its own thread while the frame path may be rendering
    // from a table snapshot without block locks.
    const auto exclusion = grid.excludeSnapshots();
    {
        // One read lock for the whole pass instead of one per lookup: the frame thread, which
        // runs this pass, is the only one that adds blocks, so nothing waits for it meanwhile.
        AR::Common::ReadLockGuard<typename GridType::Lock> guard(grid.lock());
        // Each key is looked up in the grid once per pass: a block's lower neighbours are mostly
        // blocks of the same pass, and a missing one is asked for by up to seven blocks. Entries
        // never move while the grid lives.
        using Entry = typename GridType::Entry;
        AR::Common::FlatMap<KeyType, const Entry*, AR::Common::hash<KeyType>> entries(
            static_cast<uint32_t>(2 * blocks.size()));
        const auto entryOf = [&](const KeyType& key) {
            const auto found = entries.find(key);
            if (found != entries.end()) {
                return found->second;
            }
            const Entry* entry = grid.findEntryUnlocked(key);
            entries.insert(key, entry);
            return entry;
        };
        const auto neighbour = [&](const KeyType& key) {
            const Entry* entry = entryOf(key);
            return entry != nullptr ? GridType::lockEntry(*entry) : typename GridType::Ptr();
        };
        for (const KeyType& key : blocks) {
            const auto block = neighbour(key);
            if (block) {
                copyBorderTo<GridType>(key, *block, updated, neighbour);
            }
        }
    }
    const size_t before = blocks.size();
    for (const KeyType& key : updated) {
        blocks.insert(key);
    }
    stats.copiedBorderBlocks = blocks.size() - before;
    // Read while the section runs: this stage reports the stopwatch's own unit.
    stats.borderTime = timing.getDuration(true);
    timing.endSection();
}

#define VELMORA_INSTANTIATE_BORDERS(G)                                                 \
    template void copyBorders(G&, IntegrationStats&, IndexSet&);                       \
    template void copySubvolumeBorder(const KeyType&, const G::Block&, G&, IndexSet&); \
    template void copyPlaneX(G::Block&, int, const G::Block&, int);                    \
    template void copyPlaneY(G::Block&, int, const G::Block&, int);                    \
    template void copyPlaneZ(G::Block&, int, const G::Block&, int);

VELMORA_INSTANTIATE_BORDERS(DepthGrid)
VELMORA_INSTANTIATE_BORDERS(LabelDepthGrid)
VELMORA_INSTANTIATE_BORDERS(LabelGrid)

}  // namespace Solid
