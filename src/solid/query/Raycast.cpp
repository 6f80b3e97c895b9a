#include "solid/query/Raycast.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <vector>

#include "common/Logger.h"
#include "common/Timing.h"
#include "math/MatrixFunctions.h"
#include "solid/query/BlockWalk.h"
#include "solid/query/MarchSteps.h"
#include "solid/volume/VolumeSampling.h"

namespace Solid {

namespace {

// Step back in front of the first block, in block edges: its diagonal, sqrt(3).
constexpr float kBlockDiagonalFactor = 1.7320508f;

// Blocks grouped in regions of 2^shift blocks a side, and which regions hold any block of a table
// copy. Rays cross far more missing blocks than existing ones, most of them in regions without
// any block: there a march steps over the whole region as over one missing block (every position
// in it lies in a missing block and would read -2.0) instead of looking up each block it enters.
class OccupiedRegions {
public:
    template <typename Snapshot>
    OccupiedRegions(const Snapshot& snapshot, int shift) : mShift(shift) {
        snapshot.forEachKey([this](const KeyType& key) { mOccupied.insert(regionOf(key)); });
        if (mOccupied.empty()) {
            return;
        }
        // Over the box of the regions, where it is small (as for a room), a byte per region:
        // most questions come from blocks beside the surface, whose regions hold blocks, and a
        // hashed lookup for each would cost more than the stepping it saves.
        KeyType low = *mOccupied.begin();
        KeyType high = low;
        for (const KeyType& region : mOccupied) {
            for (int a = 0; a < 3; ++a) {
                low(a) = std::min(low(a), region(a));
                high(a) = std::max(high(a), region(a));
            }
        }
        uint64_t cells = 1;
        for (int a = 0; a < 3; ++a) {
            mExtent[a] = static_cast<uint32_t>(high(a)) - static_cast<uint32_t>(low(a)) + 1u;
            cells *= mExtent[a];
        }
        if (cells > kMaxDenseCells) {
            return;
        }
        mLow = low;
        // Three more bytes, never set: a walk reads its cells as the lowest byte of 32-bit words.
        mDense.assign(cells + kWalkCellPadding, 0);
        for (const KeyType& region : mOccupied) {
            mDense[denseIndex(region)] = 1;
        }
    }

    KeyType regionOf(const KeyType& key) const {
        // An arithmetic shift: the floor of the quotient, for negative keys too.
        return KeyType(key(0) >> mShift, key(1) >> mShift, key(2) >> mShift);
    }
    int side() const { return 1 << mShift; }

    // The regions as a byte per region, for lookups by key where the regions are blocks (a
    // shift of 0); no cells when the box was too large for them.
    BlockOccupancy occupancy() const {
        BlockOccupancy dense;
        if (!mDense.empty()) {
            dense.cells = mDense.data();
            dense.low = mLow;
            for (int a = 0; a < 3; ++a) {
                dense.extent[a] = mExtent[a];
            }
        }
        return dense;
    }

    bool holdsBlocks(const KeyType& region) const {
        if (mDense.empty()) {
            return mOccupied.contains(region);
        }
        for (int a = 0; a < 3; ++a) {
            // Unsigned: a region below the box wraps to a large offset.
            if (static_cast<uint32_t>(region(a)) - static_cast<uint32_t>(mLow(a)) >= mExtent[a]) {
                return false;
            }
        }
        return mDense[denseIndex(region)] != 0;
    }

private:
    static constexpr uint64_t kMaxDenseCells = uint64_t(1) << 22;

    size_t denseIndex(const KeyType& region) const {
        const uint32_t x = static_cast<uint32_t>(region(0)) - static_cast<uint32_t>(mLow(0));
        const uint32_t y = static_cast<uint32_t>(region(1)) - static_cast<uint32_t>(mLow(1));
        const uint32_t z = static_cast<uint32_t>(region(2)) - static_cast<uint32_t>(mLow(2));
        return x + static_cast<size_t>(mExtent[0]) * (y + static_cast<size_t>(mExtent[1]) * z);
    }

    int mShift;
    IndexSet mOccupied;
    std::vector<uint8_t> mDense;  // empty when the box is too large: then mOccupied answers
    KeyType mLow{0, 0, 0};
    uint32_t mExtent[3] = {0, 0, 0};
};

// The key and the local position of a world position, as `VolumeGrid::value` computes them,
// kept here so that the sample loop stays inline.
class BlockFrame {
public:
    template <typename Grid>
    explicit BlockFrame(const Grid& grid) {
        for (int a = 0; a < 3; ++a) {
            mDimension[a] = grid.dimension()(a);
            mInverseDimension[a] = grid.inverseDimension()(a);
        }
    }

    KeyType keyOf(const Vec3& p) const {
        return KeyType(floorToKey(p(0) * mInverseDimension[0]),
                       floorToKey(p(1) * mInverseDimension[1]),
                       floorToKey(p(2) * mInverseDimension[2]));
    }

    // The floats of axis `a` whose key component is `k`.
    bool keyInterval(int a, int k, float& low, float& high) const {
        return keyComponentInterval(k, mDimension[a], mInverseDimension[a], low, high);
    }

    Vec3 local(const Vec3& p, const KeyType& key) const {
        return Vec3(p(0) - mDimension[0] * static_cast<float>(key(0)),
                    p(1) - mDimension[1] * static_cast<float>(key(1)),
                    p(2) - mDimension[2] * static_cast<float>(key(2)));
    }

private:
    float mDimension[3];
    float mInverseDimension[3];
};

// Whether two keys are equal, tested at once: along a ray it is the components that change from
// sample to sample which no branch predictor learns, and one test per component paid for each.
inline bool sameKey(const KeyType& a, const KeyType& b) {
    return ((a(0) ^ b(0)) | (a(1) ^ b(1)) | (a(2) ^ b(2))) == 0;
}

// What a block stepped over without reads is: missing (reads give -2.0), of observed positive
// samples only (reads give positive values), of unobserved and positive samples (reads give
// -2.0 or positive values), or none of these.
enum class SkippedBlock : uint8_t { kMissing, kPositive, kPartlyPositive, kOther };

// Stretches of samples stepped over in blocks of unobserved and positive samples, since the last
// value known to be positive: one of them may hold the value a crossing interpolates from. A
// stretch is kept as its first position, its increment and its length, from which its positions
// follow by the same float additions as in the march.
class SkippedStretches {
public:
    bool full() const { return mCount == kMaxStretches; }
    void clear() { mCount = 0; }
    // `next` is the position after the last sample.
    void add(const Vec3& first, const Vec3& increment, unsigned samples, const Vec3& next) {
        mStretches[mCount++] = Stretch{first, increment, samples, next};
    }
    // Whether the sample at `position` can be taken: it lengthens the last stretch when it is
    // that stretch's next position (the same float the march arrives at), or starts a new one.
    bool canTake(const Vec3& position) const { return extends(position) || !full(); }
    void take(const Vec3& position, const Vec3& increment) {
        if (extends(position)) {
            Stretch& last = mStretches[mCount - 1];
            ++last.samples;
            last.next += increment;
        } else {
            add(position, increment, 1, position + increment);
        }
    }

    // The last observed value of the stretches, latest first; false when all read -2.0.
    template <typename Sampler>
    bool lastObserved(Sampler& reader, float& value) const {
        for (unsigned s = mCount; s-- > 0;) {
            const Stretch& stretch = mStretches[s];
            Vec3 positions[kMaxStretchSamples];
            const unsigned n = std::min(stretch.samples, kMaxStretchSamples);
            Vec3 position = stretch.first;
            for (unsigned i = 0; i < stretch.samples; ++i) {
                positions[std::min(i, n - 1)] = position;
                position += stretch.increment;
            }
            for (unsigned i = n; i-- > 0;) {
                const float v = reader.value(positions[i]);
                if (v != kUnobservedValue) {
                    value = v;
                    return true;
                }
            }
        }
        return false;
    }

    // Samples of a stretch are counted up to this many, which one block never holds along a ray
    // that reads samples (a step of at least a sample spacing); longer stretches are not skipped.
    static constexpr unsigned kMaxStretchSamples = 64;

private:
    struct Stretch {
        Vec3 first;
        Vec3 increment;
        unsigned samples;
        Vec3 next;
    };
    bool extends(const Vec3& position) const {
        if (mCount == 0) {
            return false;
        }
        const Stretch& last = mStretches[mCount - 1];
        return last.samples < kMaxStretchSamples && last.next(0) == position(0) &&
               last.next(1) == position(1) && last.next(2) == position(2);
    }
    static constexpr unsigned kMaxStretches = 8;
    Stretch mStretches[kMaxStretches];
    unsigned mCount = 0;
};

// Reads values along one ray with lookups in the table under its read lock. It remembers the
// block of its last read (or that there was none), so that reads staying in one block skip the
// table, and keeps that block's mutex until the ray leaves the block or the reader goes away; it
// never holds it while it looks up another block. Blocks never move or vanish while the grid
// lives, so a remembered block stays valid; a block created while the reader remembers its
// absence is seen from the next block on.
template <typename Grid>
class LockingSampler {
public:
    explicit LockingSampler(const Grid& grid) : mGrid(grid), mFrame(grid) {}

    float value(const Vec3& p) {
        const KeyType key = mFrame.keyOf(p);
        if (!mValid || !(key == mKey)) {
            if (mBlockLock.owns_lock()) {
                mBlockLock.unlock();
            }
            mEntry = mGrid.findEntry(key);
            mKey = key;
            mValid = true;
            if (mEntry != nullptr) {
                mBlockLock = std::unique_lock<std::mutex>(*mEntry->mutex);
            }
        }
        if (mEntry == nullptr) {
            return kUnobservedValue;
        }
        return trilinearValue(mEntry->block, mFrame.local(p, key));
    }

    // Always a read, for the same reasons.
    float sample(const Vec3& p, bool /*positives*/, const SkippedStretches& /*stretches*/,
                 SkippedBlock& deferred) {
        deferred = SkippedBlock::kOther;
        return value(p);
    }

    // Never: a block missing at the last read may have been created since, and one read may
    // be written meanwhile.
    bool inSkippableBlock(const Vec3& /*p*/, bool /*positives*/, bool /*partly*/) const {
        return false;
    }
    SkippedBlock skippedBlock() const { return SkippedBlock::kMissing; }
    // Never: blocks may be created anywhere while the march runs.
    bool beyondBlocks(const Vec3& /*p*/, const Vec3& /*increment*/) const { return false; }
    // Never asked for, as nothing is skippable; an empty box.
    void skippableBox(float (&low)[3], float (&high)[3]) const {
        for (int a = 0; a < 3; ++a) {
            low[a] = 0.0f;
            high[a] = -1.0f;
        }
    }

private:
    const Grid& mGrid;
    BlockFrame mFrame;
    KeyType mKey;
    const typename Grid::Entry* mEntry = nullptr;
    std::unique_lock<std::mutex> mBlockLock;  // of mEntry, while there is one
    bool mValid = false;                      // mKey and mEntry describe a lookup
};

// Reads values along the rays of a rendering with lookups in a table snapshot, for the frame
// renderer. It takes no block mutex: the frame path that renders is the only writer of samples,
// and border copies on other threads wait while the snapshot lives.
template <typename Grid>
class SnapshotSampler {
public:
    SnapshotSampler(const Grid& grid, const typename Grid::TableSnapshot& snapshot,
                    const OccupiedRegions& regions, const OccupiedRegions& largeRegions)
        : mSnapshot(snapshot),
          mRegions(regions),
          mLargeRegions(largeRegions),
          mFrame(grid),
          mKey(INT_MIN, INT_MIN, INT_MIN),
          mEntry(snapshot.find(mKey)),
          mHasCells(grid.config().bounds(0) >= 1 && grid.config().bounds(1) >= 1 &&
                    grid.config().bounds(2) >= 1) {
        // Every block of a grid shares the grid's configuration.
        const VolumeConfig& cfg = grid.config();
        mCellFrame.dimension =
            NativeLanes::of(grid.dimension()(0), grid.dimension()(1), grid.dimension()(2), 0.0f);
        mCellFrame.inverseDimension =
            NativeLanes::of(grid.inverseDimension()(0), grid.inverseDimension()(1),
                            grid.inverseDimension()(2), 0.0f);
        mCellFrame.inverseSpacing = NativeLanes::of(cfg.inverseSpacing(0), cfg.inverseSpacing(1),
                                                    cfg.inverseSpacing(2), 0.0f);
        for (int a = 0; a < 3; ++a) {
            mCellFrame.bound[a] = cfg.bounds(a);
        }
        mCellFrame.bound[3] = 0;
        findBlocksBox();
    }

    // The value at `p`, read as `VolumeGrid::value` reads it.
    float value(const Vec3& p) {
        SkippedBlock read;
        return sample(p, false, SkippedStretches(), read);
    }

    // The value at `p` as `value` reads it, unless the read is known without reading: with
    // `positives`, a read whose corners are all observed and positive (`deferred` becomes
    // kPositive), and one whose corners are each unobserved or positive where `stretches` can
    // take it (kPartlyPositive); it then returns -2.0, which leaves the march as it is. Otherwise
    // `deferred` is kOther.
    // Most reads of a rendering lie in front of the surface in such cells of blocks that hold
    // the surface elsewhere.
    __attribute__((always_inline)) float sample(const Vec3& p, bool positives,
                                                const SkippedStretches& stretches,
                                                SkippedBlock& deferred) {
        deferred = SkippedBlock::kOther;
        // Key and cell at once in vector lanes, as keyOf, local and cellForVal give them; the
        // cell of a missing block is not used.
        SampleCell cell;
        NativeLanes::locate(NativeLanes::of(p(0), p(1), p(2), 0.0f), mCellFrame, cell);
        enter(KeyType(cell.key[0], cell.key[1], cell.key[2]));
        if (mEntry == nullptr) {
            return kUnobservedValue;
        }
        if (positives) {
            // The lower lattice indices only: the rest of the cell is for a read.
            const SkippedBlock kind =
                mKind != SkippedBlock::kOther
                    ? mKind
                    : (mHasCells ? cellKind(cell.i0[0], cell.i0[1], cell.i0[2]) : mKind);
            // Whether `stretches` can take the sample is asked only of the few samples whose
            // cell is unobserved or positive.
            if (kind == SkippedBlock::kPositive ||
                (kind == SkippedBlock::kPartlyPositive && stretches.canTake(p))) {
                deferred = kind;
                return kUnobservedValue;
            }
        }
        const AxisCell cx{cell.i0[0], cell.i1[0], cell.f[0]};
        const AxisCell cy{cell.i0[1], cell.i1[1], cell.f[1]};
        const AxisCell cz{cell.i0[2], cell.i1[2], cell.f[2]};
        float corners[8];
        if (!readCorners(mEntry->block, cx, cy, cz, corners)) {
            return kUnobservedValue;
        }
        return trilinear(corners, cx.f, cy.f, cz.f);
    }

    // Whether `p` lies in the block of the last read, and that block is missing (a read there
    // gives -2.0 again) or, with `positives`, all its samples are observed and positive (a read
    // there gives an observed positive value) or, with `partly` too, each of its samples is
    // unobserved or positive (a read gives -2.0 or a positive value): the march can step on
    // without the read.
    bool inSkippableBlock(const Vec3& p, bool positives, bool partly) const {
        const bool skippable = mKind == SkippedBlock::kMissing ||
                               (positives && (mKind == SkippedBlock::kPositive ||
                                              (partly && mKind == SkippedBlock::kPartlyPositive)));
        return skippable && mCurrent[0].low <= p(0) && p(0) <= mCurrent[0].high &&
               mCurrent[1].low <= p(1) && p(1) <= mCurrent[1].high && mCurrent[2].low <= p(2) &&
               p(2) <= mCurrent[2].high;
    }

    // What the block of the last read is, when inSkippableBlock held.
    SkippedBlock skippedBlock() const { return mKind; }

    // Whether no position from `p` on, moved by adding `increment`, can lie in a block of the
    // table copy: on some axis `p` is past the box of all blocks and moves away from it or not
    // at all. A float sum with an increment of one sign never turns back, so every later read
    // would give -2.0.
    bool beyondBlocks(const Vec3& p, const Vec3& increment) const {
        for (int a = 0; a < 3; ++a) {
            if ((p(a) > mBlocksHigh[a] && increment(a) >= 0.0f) ||
                (p(a) < mBlocksLow[a] && increment(a) <= 0.0f)) {
                return true;
            }
        }
        return false;
    }

    // The positions inSkippableBlock accepts, when it held: low and high per axis.
    void skippableBox(float (&low)[3], float (&high)[3]) const {
        for (int a = 0; a < 3; ++a) {
            low[a] = mCurrent[a].low;
            high[a] = mCurrent[a].high;
        }
    }

private:
    using Snapshot = typename Grid::TableSnapshot;

    // The floats of each axis whose key component lies between the least and the greatest of
    // the table copy's keys; unbounded where the copy is empty or a component's floats cannot
    // be found.
    void findBlocksBox() {
        KeyType low;
        KeyType high;
        const bool any = mSnapshot.keyBox(low, high);
        for (int a = 0; a < 3; ++a) {
            float unused = 0.0f;
            if (!any || !mFrame.keyInterval(a, low(a), mBlocksLow[a], unused) ||
                !mFrame.keyInterval(a, high(a), unused, mBlocksHigh[a])) {
                mBlocksLow[a] = -std::numeric_limits<float>::infinity();
                mBlocksHigh[a] = std::numeric_limits<float>::infinity();
            }
        }
    }

    // Makes `key` the block of the last read. Most samples lie in that block already, and the
    // march is laid out for them.
    __attribute__((always_inline)) void enter(const KeyType& key) {
        if (__builtin_expect(sameKey(key, mKey), 1)) {
            return;
        }
        mSlot = mSnapshot.slotOf(key);
        mEntry = mSlot == Snapshot::kNoSlot ? nullptr : &mSnapshot.entryAt(mSlot);
        mKey = key;
        mCells = nullptr;
        mKind = mEntry == nullptr ? SkippedBlock::kMissing : classify(mSlot);
        if (mKind == SkippedBlock::kMissing && enterEmptyRegion()) {
            return;
        }
        if (mKind != SkippedBlock::kOther) {
            updateIntervals();
        }
    }

    // Regions whose key components reach this far are left to the blocks: their intervals
    // could not be found, nor their corner keys computed without overflow.
    static constexpr int kRegionLimit = 1 << 20;

    // With the missing block of `mKey` in a region without blocks: makes the region's float
    // intervals the current ones (the march steps over the region as over one missing block)
    // and returns true.
    bool enterEmptyRegion() {
        if (!emptyRegion(mRegions, mRegionCache)) {
            return false;
        }
        // Where the larger region around it is empty as well, the march steps over that one.
        emptyRegion(mLargeRegions, mLargeRegionCache);
        return true;
    }

    // Whether the region of `mKey` in `regions` holds no block and has float intervals on every
    // axis; if so, they become the current ones.
    template <typename Cache>
    bool emptyRegion(const OccupiedRegions& regions, Cache& cache) {
        const int side = regions.side();
        const KeyType region = regions.regionOf(mKey);
        for (int a = 0; a < 3; ++a) {
            if (region(a) <= -kRegionLimit || region(a) >= kRegionLimit) {
                return false;
            }
        }
        if (regions.holdsBlocks(region)) {
            return false;
        }
        Interval found[3];
        for (int a = 0; a < 3; ++a) {
            const int r = region(a);
            Interval& cached = cache[a][static_cast<uint32_t>(r) & (kIntervalCacheSize - 1)];
            if (cached.key != r) {
                float lowEnd = 0.0f;
                float highEnd = 0.0f;
                cached.key = r;
                if (!mFrame.keyInterval(a, r * side, cached.low, lowEnd) ||
                    !mFrame.keyInterval(a, r * side + side - 1, highEnd, cached.high)) {
                    cached.low = std::numeric_limits<float>::infinity();
                    cached.high = -std::numeric_limits<float>::infinity();
                }
            }
            if (!(cached.low <= cached.high)) {
                return false;
            }
            found[a] = cached;
        }
        for (int a = 0; a < 3; ++a) {
            mCurrent[a] = found[a];
        }
        mCurrentIsRegion = true;
        return true;
    }

    // The kind of the lattice cell whose corners hold every corner of a read at (cx, cy, cz),
    // in the current block: a read on the last sample plane of an axis reads corners of the
    // last cell.
    SkippedBlock cellKind(int x0, int y0, int z0) {
        if (mCells == nullptr) {
            mCells = cellKinds();
        }
        const Index3& bounds = mEntry->block.bounds();
        const int x = std::min(x0, bounds(0) - 1);
        const int y = std::min(y0, bounds(1) - 1);
        const int z = std::min(z0, bounds(2) - 1);
        return static_cast<SkippedBlock>(mCells[x + bounds(0) * (y + bounds(1) * z)]);
    }

    // The cell kinds of the current block, computed once per rendering: a sample is positive
    // (0), unobserved (1) or neither (2 or 3); a cell's kind follows from the OR of its corners,
    // taken along x, then y, then z.
    const uint8_t* cellKinds() {
        if (mCellOffsets.empty()) {
            mCellOffsets.assign(mSnapshot.slotCount(), kNoCells);
        }
        uint32_t& offset = mCellOffsets[mSlot];
        if (offset == kNoCells) {
            const auto& block = mEntry->block;
            const Size& size = block.size();
            const int sx = size(0);
            const int sy = size(1);
            const int sz = size(2);
            mScratch.resize(block.dataSize());
            for (uint32_t i = 0; i < block.dataSize(); ++i) {
                const Vec2S& s = depthPart(block.data()[i]);
                mScratch[i] = s(1) < 1 ? 1 : (s(0) <= 0 ? 2 : 0);
            }
            // In place: after each pass, entry (x, y, z) of the old layout holds the OR of the
            // pair starting there along that axis; the last plane of the axis is left over.
            for (int z = 0; z < sz; ++z) {
                for (int y = 0; y < sy; ++y) {
                    uint8_t* r = &mScratch[static_cast<size_t>(sx) * (y + sy * z)];
                    for (int x = 0; x + 1 < sx; ++x) {
                        r[x] |= r[x + 1];
                    }
                    if (y + 1 < sy) {
                        const uint8_t* next = r + sx;
                        for (int x = 0; x + 1 < sx; ++x) {
                            r[x] |= next[x] | next[x + 1];
                        }
                    }
                }
            }
            offset = static_cast<uint32_t>(mCellKindStore.size());
            const int cellsX = sx - 1;
            const int cellsY = sy - 1;
            for (int z = 0; z + 1 < sz; ++z) {
                for (int y = 0; y < cellsY; ++y) {
                    const uint8_t* r = &mScratch[static_cast<size_t>(sx) * (y + sy * z)];
                    const uint8_t* above = r + static_cast<size_t>(sx) * sy;
                    for (int x = 0; x < cellsX; ++x) {
                        const uint8_t bits = r[x] | above[x];
                        mCellKindStore.push_back(static_cast<uint8_t>(
                            bits == 0 ? SkippedBlock::kPositive
                                      : (bits == 1 ? SkippedBlock::kPartlyPositive
                                                   : SkippedBlock::kOther)));
                    }
                }
            }
        }
        return mCellKindStore.data() + offset;
    }

    // Notes of a block in the table copy: not yet looked at, or its SkippedBlock kind plus one.
    static constexpr uint8_t kNotLookedAt = 0;

    // Every trilinear read in a block whose samples are all observed and positive is observed
    // and positive: its corners are samples of the block, and each blend of two positive
    // values with weights f and 1 - f (f in [0, 1), or a hair outside with both corners one
    // sample) stays positive. In a block whose observed samples are all positive, a read is
    // either unobserved (a corner is) or such a blend.
    SkippedBlock classify(uint32_t slot) {
        uint8_t& note = mSnapshot.note(slot);
        if (note == kNotLookedAt) {
            const auto& block = mSnapshot.entryAt(slot).block;
            SkippedBlock kind = SkippedBlock::kPositive;
            for (uint32_t i = 0; i < block.dataSize(); ++i) {
                const Vec2S& sample = depthPart(block.data()[i]);
                if (sample(1) < 1) {
                    kind = SkippedBlock::kPartlyPositive;
                } else if (sample(0) <= 0) {
                    kind = SkippedBlock::kOther;
                    break;
                }
            }
            note = static_cast<uint8_t>(static_cast<uint8_t>(kind) + 1);
        }
        return static_cast<SkippedBlock>(note - 1);
    }

    // The float interval of one key component; empty (low above high) where it was not found,
    // so that every read there looks the block up.
    struct Interval {
        int key = INT_MIN;
        float low = 0.0f;
        float high = -1.0f;
    };

    // Brings the intervals of the axes up to `mKey`, from a small cache per axis (the rays of a
    // rendering cross the same few dozen block planes).
    void updateIntervals() {
        const bool fromRegion = mCurrentIsRegion;
        mCurrentIsRegion = false;
        for (int a = 0; a < 3; ++a) {
            const int k = mKey(a);
            if (mCurrent[a].key == k && !fromRegion) {
                continue;
            }
            Interval& cached = mCache[a][static_cast<uint32_t>(k) & (kIntervalCacheSize - 1)];
            if (cached.key != k) {
                cached.key = k;
                if (!mFrame.keyInterval(a, k, cached.low, cached.high)) {
                    cached.low = std::numeric_limits<float>::infinity();
                    cached.high = -std::numeric_limits<float>::infinity();
                }
            }
            mCurrent[a] = cached;
        }
    }

    static constexpr uint32_t kIntervalCacheSize = 64;
    static constexpr uint32_t kNoCells = UINT32_MAX;

    const typename Grid::TableSnapshot& mSnapshot;
    const OccupiedRegions& mRegions;
    const OccupiedRegions& mLargeRegions;
    BlockFrame mFrame;
    KeyType mKey;
    uint32_t mSlot = Snapshot::kNoSlot;
    const typename Grid::Entry* mEntry;
    const bool mHasCells;  // blocks of at least two samples a side have cells
    CellFrame<NativeLanes> mCellFrame;
    const uint8_t* mCells = nullptr;     // cell kinds of the block of `mKey`, once asked for
    std::vector<uint32_t> mCellOffsets;  // per slot: where its cell kinds start, or kNoCells
    std::vector<uint8_t> mCellKindStore;
    std::vector<uint8_t> mScratch;
    SkippedBlock mKind = SkippedBlock::kMissing;  // of the block of `mKey`
    float mBlocksLow[3];  // the box of all blocks of the copy, as floats per axis
    float mBlocksHigh[3];
    Interval mCurrent[3];           // of the components of `mKey`, while its block can be skipped
    bool mCurrentIsRegion = false;  // mCurrent holds the intervals of the region of `mKey`
    Interval mCache[3][kIntervalCacheSize];
    Interval mRegionCache[3][kIntervalCacheSize];  // keyed by region components
    Interval mLargeRegionCache[3][kIntervalCacheSize];
};

// The march of `raycastSparseVolume`, reading through `reader`, with the verbose log only when
// `verbose` (the level is tested once per rendering, not per sample, and the quiet march is
// compiled without the tests).
template <bool verbose, typename Sampler>
Vec4 march(Sampler& reader, float smallStep, const Vec3& origin, const Vec3& direction,
           float nearPlane, float farPlane, float stepFactor) {
    Vec4 result(0.0f, 0.0f, 0.0f, 0.0f);
    float d = nearPlane;
    Vec3 position = origin + direction * d;
    if (verbose) {
        AR_LOG_VERBOSE("nearPlane %f farPlane %f", nearPlane, farPlane);
    }

    const float largeStep = smallStep * stepFactor;
    AR_ASSERT(largeStep > 0.0f);
    float step = largeStep;
    Vec3 increment = direction * step;
    float previous = kUnobservedValue;
    // The last observed value was stepped over in a block of positive samples: it is read from
    // its position when a crossing needs it.
    bool previousPending = false;
    Vec3 previousPosition = position;
    // Stepped over after that value (or after `previous`, when none is pending).
    SkippedStretches stretches;
    // Where both steps are one, the switch to the small step changes nothing: a quiet march
    // starts as if it had happened (the verbose one logs the switch).
    bool coarse = verbose || !(largeStep == smallStep);

    for (unsigned samples = 0; d <= farPlane && samples < kMaxMarchSamples; ++samples) {
        // As for the blocks stepped over below, a read known to be positive, or unobserved or
        // positive, is left for a crossing to make.
        const bool deferrable = !verbose && !coarse;
        SkippedBlock deferred;
        const float value = reader.sample(position, deferrable, stretches, deferred);
        if (deferred == SkippedBlock::kPositive) {
            previousPending = true;
            previousPosition = position;
            stretches.clear();
        } else if (deferred == SkippedBlock::kPartlyPositive) {
            stretches.take(position, increment);
        }
        if (verbose) {
            AR_LOG_VERBOSE("searching intersection: value %f d %f currentPos %f %f %f", value, d,
                           position(0), position(1), position(2));
        }
        if (value != kUnobservedValue) {
            if (value < 0.0f) {
                if (verbose) {
                    AR_LOG_VERBOSE("negative value found");
                }
                float observed = 0.0f;
                if (stretches.lastObserved(reader, observed)) {
                    previous = observed;
                } else if (previousPending) {
                    previous = reader.value(previousPosition);
                }
                if (previous > 0.0f) {
                    // The crossing between the last positive value, taken one step back, and
                    // this one; `previous` may be older than one step when unknown samples lay
                    // between, which the interpolation accepts.
                    const float t = (previous * d - (d - step) * value) / (previous - value);
                    const Vec3 hit = origin + direction * t;
                    result = Vec4(hit(0), hit(1), hit(2), t);
                    if (verbose) {
                        AR_LOG_VERBOSE("surface found (via interpolation) at %f %f %f at depth %f",
                                       hit(0), hit(1), hit(2), t);
                    }
                }
                // Otherwise the ray began behind a surface: no search past a back face.
                return result;
            }
            if (value == 0.0f) {
                result = Vec4(position(0), position(1), position(2), d);
                if (verbose) {
                    AR_LOG_VERBOSE("surface found at %f %f %f at depth %f", position(0),
                                   position(1), position(2), d);
                }
                return result;
            }
            if (value < kFineMarchThreshold && coarse) {
                if (verbose) {
                    AR_LOG_VERBOSE("Switching from large step size %f to small step size %f",
                                   largeStep, smallStep);
                }
                step = smallStep;
                increment = direction * step;
                coarse = false;
            }
            previous = value;
            previousPending = false;
            stretches.clear();
        }
        const float next = d + step;
        if (next == d) {
            break;  // the ray parameter no longer moves at this magnitude
        }
        d = next;
        position += increment;
        // Samples in the missing block of the last read would read -2.0 again, those in a block
        // of observed positive samples a positive value, which only becomes `previous`, and
        // those in a block of unobserved and positive samples one of the two (the switch to the
        // small step cannot change anything once it happened, or when both steps are one): they
        // are stepped over with the same additions, so every later position and depth is the
        // same float, and what they would have left in `previous` is read if a crossing needs it.
        const bool positives = !coarse;
        if (verbose || !reader.inSkippableBlock(position, positives, !stretches.full())) {
            continue;
        }
        const SkippedBlock kind = reader.skippedBlock();
        if (kind == SkippedBlock::kMissing && reader.beyondBlocks(position, increment)) {
            return result;  // nothing but -2.0 ahead: no crossing
        }
        const Vec3 first = position;
        float low[3];
        float high[3];
        reader.skippableBox(low, high);
        const unsigned cap = kind == SkippedBlock::kPartlyPositive
                                 ? SkippedStretches::kMaxStretchSamples
                                 : std::numeric_limits<unsigned>::max();
        MarchState state{{position(0), position(1), position(2)}, d, samples};
        const float steps[3] = {increment(0), increment(1), increment(2)};
        unsigned skipped = 0;
        float last[3];
        if (!stepOverSamples<NativeLanes>(low, high, farPlane, step, steps, cap, kMaxMarchSamples,
                                          state, skipped, last)) {
            return result;
        }
        position = Vec3(state.position[0], state.position[1], state.position[2]);
        d = state.d;
        samples = state.samples;
        if (kind == SkippedBlock::kPositive) {
            previousPending = true;
            previousPosition = Vec3(last[0], last[1], last[2]);
            stretches.clear();
        } else if (kind == SkippedBlock::kPartlyPositive) {
            stretches.add(first, increment, skipped, position);
        }
    }
    return result;
}

bool verboseLogging() {
    return AR::Common::Logger::getInstance().getLevel() >= AR::Common::Logger::LEVEL_VERBOSE;
}

// The march in its logged or its quiet form.
template <typename Sampler>
Vec4 marchLoggedIf(bool verbose, Sampler& reader, float smallStep, const Vec3& origin,
                   const Vec3& direction, float nearPlane, float farPlane, float stepFactor) {
    return verbose
               ? march<true>(reader, smallStep, origin, direction, nearPlane, farPlane, stepFactor)
               : march<false>(reader, smallStep, origin, direction, nearPlane, farPlane,
                              stepFactor);
}

}  // namespace

template <typename B, template <typename> class P, typename L>
bool findFirstBlock(const VolumeGrid<B, P, L>& grid, const Vec3& from, const Vec3& to,
                    KeyType& found) {
    // Only the block's existence matters here: its mutex is not taken.
    const WalkResult walk =
        walkSegment(from, to, grid.inverseDimension(), kMaxWalkBlocks,
                    [&grid](const KeyType& key) { return grid.findEntry(key) != nullptr; });
    if (walk.found) {
        found = walk.block;
    }
    return walk.found;
}

template <typename B, template <typename> class P, typename L>
Vec4 raycastSparseVolume(const VolumeGrid<B, P, L>& grid, const Vec3& origin, const Vec3& direction,
                         float nearPlane, float farPlane, float stepFactor) {
    LockingSampler<VolumeGrid<B, P, L>> reader(grid);
    return marchLoggedIf(verboseLogging(), reader, grid.config().spacing(0), origin, direction,
                         nearPlane, farPlane, stepFactor);
}

template <typename B, template <typename> class P, typename L>
void raycast(const VolumeGrid<B, P, L>& grid, float nearPlane, float farPlane, float stepFactor,
             DepthFrame& depthFrame, IntegrationStats& stats) {
    using Grid = VolumeGrid<B, P, L>;
    AR::Common::Timing timing;
    timing.beginSection(true);
    // Pixel (x, y, 1) times the inverse of intrinsics x world-to-camera gives a world direction
    // whose camera-space depth component is 1, so the ray parameter is the axial depth.
    const Matrix4 M = depthFrame.projection * depthFrame.pose;
    const Matrix4 Minv = AR::Math::inverse(M);
    stats.raycastRays = 0;
    const Vec3 cameraPosition(Minv(0, 3), Minv(1, 3), Minv(2, 3));
    const float blockSize = grid.config().dimension(0);
    const float margin = kBlockDiagonalFactor * blockSize;
    const bool verbose = verboseLogging();
    // The frame path renders between two of its own frames, and it is the only writer of blocks.
    const typename Grid::TableSnapshot snapshot(grid);
    // The walk only saves the march its empty stretch. A ray nearly parallel to the image plane
    // (a tiny focal length) crosses many blocks per unit of depth; once its walk would visit more
    // blocks than the march takes samples from the near to the far plane, the ray is marched from
    // the near plane instead, so that no ray costs more than about twice its march, whatever the
    // intrinsics.
    const float spacing = grid.config().spacing(0);
    const float marchSamples = (farPlane - nearPlane) / spacing + 1.0f;
    const unsigned walkLimit = marchSamples >= static_cast<float>(kMaxWalkBlocks)
                                   ? kMaxWalkBlocks
                                   : static_cast<unsigned>(std::max(marchSamples, 1.0f));

    // One reader for all rays: what it remembers of the last block read holds for every ray.
    // Regions of 4 blocks a side, and of 8 around them: an empty region of 8 saves the entries
    // into its eight smaller ones, where the free space in front of a room's walls is wide.
    OccupiedRegions regions(snapshot, 2);
    OccupiedRegions largeRegions(snapshot, 3);
    SnapshotSampler<Grid> reader(grid, snapshot, regions, largeRegions);
    // The walks of a row go in packets of neighbouring rays over a byte per block; where the box
    // of the blocks is too large for that, ray by ray in the table copy.
    const OccupiedRegions blocks(snapshot, 0);
    const BlockOccupancy occupancy = blocks.occupancy();
    AR::CV::Image<float>& depth = depthFrame.depth;
    const int width = depth.width();
    const int height = depth.height();
    std::vector<Vec3> directions(width);
    std::vector<Vec3> ends(width);
    std::vector<WalkResult> walks(width);
    for (int y = 0; y < height; ++y) {
        float* row = depth.pixels() + static_cast<size_t>(y) * depth.bufSize()(0);
        for (int x = 0; x < width; ++x) {
            const float u = static_cast<float>(x);
            const float v = static_cast<float>(y);
            directions[x] = Vec3(Minv(0, 0) * u + Minv(0, 1) * v + Minv(0, 2),
                                 Minv(1, 0) * u + Minv(1, 1) * v + Minv(1, 2),
                                 Minv(2, 0) * u + Minv(2, 1) * v + Minv(2, 2));
            ends[x] = cameraPosition + directions[x] * farPlane;
        }
        if (occupancy.cells != nullptr) {
            walkSegments(occupancy, grid.inverseDimension(), cameraPosition, ends.data(), width,
                         walkLimit, walks.data());
        } else {
            for (int x = 0; x < width; ++x) {
                walks[x] = walkSegment(
                    cameraPosition, ends[x], grid.inverseDimension(), walkLimit,
                    [&snapshot](const KeyType& key) { return snapshot.find(key) != nullptr; });
            }
        }
        for (int x = 0; x < width; ++x) {
            const Vec3& direction = directions[x];
            const WalkResult& walk = walks[x];
            float start = nearPlane;
            if (walk.found) {
                const KeyType& block = walk.block;
                const Vec3 corner(static_cast<float>(block(0)) * blockSize,
                                  static_cast<float>(block(1)) * blockSize,
                                  static_cast<float>(block(2)) * blockSize);
                start = AR::Math::dot(corner - cameraPosition, direction) - margin;
                if (start < nearPlane) {
                    start = nearPlane;
                }
            } else if (!walk.exhausted) {
                row[x] = 0.0f;
                continue;
            }
            ++stats.raycastRays;
            const Vec4 hit = marchLoggedIf(verbose, reader, spacing, cameraPosition, direction,
                                           start, farPlane, stepFactor);
            row[x] = hit(3);
        }
    }
    timing.endSection();
    stats.raycastTime = timing.getDurationMilliseconds(false);
}

#define VELMORA_INSTANTIATE_RAYCAST(G)                                                          \
    template Vec4 raycastSparseVolume(const G&, const Vec3&, const Vec3&, float, float, float); \
    template void raycast(const G&, float, float, float, DepthFrame&, IntegrationStats&);       \
    template bool findFirstBlock(const G&, const Vec3&, const Vec3&, KeyType&);

VELMORA_INSTANTIATE_RAYCAST(DepthGrid)
VELMORA_INSTANTIATE_RAYCAST(LabelDepthGrid)

}  // namespace Solid
