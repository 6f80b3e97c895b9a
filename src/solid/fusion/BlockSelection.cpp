#include "solid/fusion/BlockSelection.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

#include "common/Logger.h"
#include "common/Timing.h"
#include "common/Trace.h"
#include "math/MatrixFunctions.h"

namespace Solid {

namespace {

// Walks `map` in slot order and keeps the entries for which `keep` holds.
template <typename Keep>
void keepEntries(BlockInfoMapType& map, Keep keep) {
    BlockInfoMapType kept(map.size());
    for (const auto& entry : map) {
        if (keep(entry)) {
            kept.insert(entry);
        }
    }
    map.swap(kept);
}

// Face neighbours that a point's truncation band reaches into, one bit each in the order of
// recording: bit 2a for the lower neighbour on axis a, bit 2a + 1 for the upper one.
constexpr unsigned kNumNeighbourBits = 6;

// The blocks of one frame with their hits, in the order of their first hit. Open addressing on
// a power-of-two slot array; only this search uses it, so it needs no removal and no iteration
// by slot.
class HitTable {
public:
    explicit HitTable(uint32_t expectedCount) {
        uint32_t capacity = kMinCapacity;
        while (capacity < 2 * expectedCount) {
            capacity *= 2;
        }
        resizeSlots(capacity);
    }

    // Index of the entry of `key`, created with no hits when absent.
    __attribute__((noinline)) uint32_t indexOf(const KeyType& key) {
        uint32_t slot = slotOf(key);
        for (;;) {
            const int32_t entry = mSlots.data()[slot];
            if (entry < 0) {
                break;
            }
            if (mKeys.data()[entry] == key) {
                return static_cast<uint32_t>(entry);
            }
            slot = (slot + 1) & mMask;
        }
        const uint32_t index = mKeys.size();
        mKeys.push_back(key);
        mInfos.push_back(BlockInfo{});
        mSlots.data()[slot] = static_cast<int32_t>(index);
        if (2 * mKeys.size() > mSlots.size()) {
            resizeSlots(2 * mSlots.size());
        }
        return index;
    }

    BlockInfo& info(uint32_t index) { return mInfos.data()[index]; }
    uint32_t size() const { return mKeys.size(); }
    const KeyType& key(uint32_t index) const { return mKeys.data()[index]; }

private:
    static constexpr uint32_t kMinCapacity = 64;

    uint32_t slotOf(const KeyType& key) const { return mixBlockKey(key) & mMask; }

    void resizeSlots(uint32_t capacity) {
        mSlots.resize(0);
        mSlots.resize(capacity);
        for (uint32_t i = 0; i < capacity; ++i) {
            mSlots.data()[i] = -1;
        }
        mMask = capacity - 1;
        for (uint32_t index = 0; index < mKeys.size(); ++index) {
            uint32_t slot = slotOf(mKeys.data()[index]);
            while (mSlots.data()[slot] >= 0) {
                slot = (slot + 1) & mMask;
            }
            mSlots.data()[slot] = static_cast<int32_t>(index);
        }
    }

    AR::Common::Vector<KeyType> mKeys;
    AR::Common::Vector<BlockInfo> mInfos;
    AR::Common::Vector<int32_t> mSlots;  // entry index, or -1 for an empty slot
    uint32_t mMask = 0;
};

// Drops the neighbours whose keys would leave the range of keys: they are never wrapped.
inline unsigned neighboursInRange(const KeyType& key, unsigned neighbours) {
    for (int axis = 0; axis < 3; ++axis) {
        if (key[axis] == INT_MIN) {
            neighbours &= ~(1u << (2 * axis));
        }
        if (key[axis] == INT_MAX) {
            neighbours &= ~(1u << (2 * axis + 1));
        }
    }
    return neighbours;
}

// Hits of consecutive points. Points that fall in the same block with the same neighbour bits
// hit the same keys in the same order, so a run of them is recorded once: the hit count is a sum
// and the best distance a minimum, which do not depend on how the points are grouped. The first
// point of a run hits its keys before any later point, so the keys enter the table in the order
// of their first hit, as they would one point at a time.
class RunRecorder {
public:
    // `blocks`: about how many blocks the frame may meet, for the size of the entry cache.
    RunRecorder(HitTable& table, size_t blocks) : mTable(table) {
        size_t lines = kMinCacheLines;
        while (lines < blocks && lines < kMaxCacheLines) {
            lines *= 2;
        }
        mCache.resize(lines);
        mLineMask = static_cast<uint32_t>(lines - 1);
    }

    // `count` consecutive points of one block and neighbour bits, the least depth `best`.
    void add(const KeyType& key, unsigned neighbours, float best, uint32_t count = 1) {
        if (mCount != 0 && neighbours == mNeighbours && key == mKey) {
            mCount += count;
            mBest = std::min(mBest, best);
            return;
        }
        flush();
        mKey = key;
        mNeighbours = neighbours;
        mCount = count;
        mBest = best;
    }

    void flush() {
        if (mCount == 0) {
            return;
        }
        // The entries of a block and its face neighbours, looked up as runs need them and kept
        // for the rows below, whose runs meet the same blocks again.
        CacheLine& line = mCache[mixBlockKey(mKey) & mLineMask];
        if (!line.valid || !(line.key == mKey)) {
            for (int32_t& entry : line.entries) {
                entry = -1;
            }
            line.key = mKey;
            line.valid = true;
        }
        hit(line, 0, mKey);
        // Lower before upper neighbour, axis by axis: the order of the bits.
        for (unsigned bits = neighboursInRange(mKey, mNeighbours); bits != 0; bits &= bits - 1) {
            const int bit = __builtin_ctz(bits);
            KeyType neighbour = mKey;
            neighbour[bit >> 1] += (bit & 1) != 0 ? 1 : -1;
            hit(line, 1 + bit, neighbour);
        }
        mCount = 0;
    }

private:
    struct CacheLine {
        KeyType key;
        bool valid = false;
        int32_t entries[1 + kNumNeighbourBits];
    };
    // A line per block of the grid, up to a size that stays in the second-level cache: a miss
    // costs a lookup in the hit table per entry.
    static constexpr size_t kMinCacheLines = 256;
    static constexpr size_t kMaxCacheLines = 8192;

    __attribute__((always_inline)) void hit(CacheLine& line, int slot, const KeyType& key) {
        int32_t& entry = line.entries[slot];
        if (entry < 0) {
            entry = static_cast<int32_t>(mTable.indexOf(key));
        }
        BlockInfo& info = mTable.info(static_cast<uint32_t>(entry));
        info.bestSampleDistance = std::min(info.bestSampleDistance, mBest);
        info.numHits += mCount;
    }

    HitTable& mTable;
    KeyType mKey;
    unsigned mNeighbours = 0;
    uint32_t mCount = 0;  // points in the current run, 0 for none
    float mBest = 0.0f;
    std::vector<CacheLine> mCache;
    uint32_t mLineMask = 0;
};

// The world-from-pixel transform of the hit search: rows of invM, and the block shape.
struct Unprojection {
    float m[3][4];
    float dimension[3];
    float inverseDimension[3];
};

// Block key and neighbour bits of pixel (x, y) at depth d > 0, one pixel at a time. The product
// invM * (x d, y d, d, 1) is summed per row from column 0 up, starting at 0, as the matrix-vector
// product does. False when the point's block has no key.
inline bool locatePoint(const Unprojection& u, float x, float y, float d, float ramp, KeyType& key,
                        unsigned& neighbours) {
    const float v[4] = {x * d, y * d, d, 1.0f};
    float p[3];
    for (int r = 0; r < 3; ++r) {
        float sum = 0.0f;
        for (int c = 0; c < 4; ++c) {
            sum += u.m[r][c] * v[c];
        }
        p[r] = sum;
        if (!floorToKeyInRange(sum * u.inverseDimension[r], key[r])) {
            return false;
        }
    }
    neighbours = 0;
    for (int axis = 0; axis < 3; ++axis) {
        // Local coordinate: p - dimension * key, as the grid computes it.
        const float local = p[axis] - u.dimension[axis] * static_cast<float>(key[axis]);
        if (local < ramp) {
            neighbours |= 1u << (2 * axis);
        }
        if (local > u.dimension[axis] - ramp) {
            neighbours |= 1u << (2 * axis + 1);
        }
    }
    return true;
}

// Neighbouring pixels of a row at once, each lane with the arithmetic of `locatePoint` in its
// order (no contraction is allowed in this build): four in the vector registers every target has
// (SSE2 on x86-64, NEON on Arm), eight with AVX2 where the processor has it.
constexpr int kLanes = 4;
using Float4 = float __attribute__((vector_size(16)));
using Int4 = int32_t __attribute__((vector_size(16)));

// The located points of a row, a column per pixel, and per group of four pixels whether all four
// are located in one block with the same neighbour bits (then they extend one run).
struct RowPoints {
    explicit RowPoints(int width)
        : keys{Column(width), Column(width), Column(width)},
          neighbours(width),
          located(width),
          uniform(width / kLanes) {}
    using Column = std::vector<int32_t>;
    Column keys[3];
    Column neighbours;
    Column located;  // -1 where d > 0 and the block has a key, else 0
    std::vector<uint8_t> uniform;
};

// The constants of `locatePoint` in every lane, for the pixels of one row.
template <typename F, int N>
struct LaneConstants {
    F m[3][4];
    F dimension[3];
    F inverseDimension[3];
    F y;
    F minKey;
    F maxKey;

    static void broadcast(F& out, float v) {
        float lanes[N];
        for (float& lane : lanes) {
            lane = v;
        }
        std::memcpy(&out, lanes, sizeof(out));
    }

    __attribute__((always_inline)) inline void set(const Unprojection& u, float row) {
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 4; ++c) {
                broadcast(m[r][c], u.m[r][c]);
            }
            broadcast(dimension[r], u.dimension[r]);
            broadcast(inverseDimension[r], u.inverseDimension[r]);
        }
        broadcast(y, row);
        broadcast(minKey, kMinKeyCoordinate);
        broadcast(maxKey, kMaxKeyCoordinate);
    }
};

// The lanes of `locatePoint` for pixels x, x + 1, ... of a row: whether each is located, its key
// and its neighbour bits. Inlined into each caller, so that it runs in the caller's registers.
template <typename F, typename I, int N>
__attribute__((always_inline)) inline void locateVector(const LaneConstants<F, N>& k, int x,
                                                        const float* depths, const float* ramps,
                                                        I& located, I (&keys)[3], I& neighbours) {
    F d;
    F ramp;
    std::memcpy(&d, depths, sizeof(d));
    std::memcpy(&ramp, ramps, sizeof(ramp));
    float columns[N];
    for (int lane = 0; lane < N; ++lane) {
        // x + lane is exact: image columns are far below 2^24.
        columns[lane] = static_cast<float>(x) + static_cast<float>(lane);
    }
    F xs;
    std::memcpy(&xs, columns, sizeof(xs));
    const F zero = F{};
    const F one = zero + 1.0f;
    const F v0 = xs * d;
    const F v1 = k.y * d;
    located = d > zero;
    neighbours = I{};
    for (int r = 0; r < 3; ++r) {
        F sum = zero;
        sum = sum + k.m[r][0] * v0;
        sum = sum + k.m[r][1] * v1;
        sum = sum + k.m[r][2] * d;
        sum = sum + k.m[r][3] * one;
        const F t = sum * k.inverseDimension[r];
        const I inRange = (t >= k.minKey) & (t < k.maxKey);
        located &= inRange;
        const F clamped = inRange ? t : zero;
        const I truncated = __builtin_convertvector(clamped, I);
        // A comparison gives -1 where true: one down where truncation went up.
        keys[r] = truncated + (__builtin_convertvector(truncated, F) > clamped);
        const F local = sum - k.dimension[r] * __builtin_convertvector(keys[r], F);
        const F upperLimit = k.dimension[r] - ramp;
        neighbours |= (local < ramp) & (I{} + (1 << (2 * r)));
        neighbours |= (local > upperLimit) & (I{} + (1 << (2 * r + 1)));
    }
}

// Where every lane of a group of four equals the group's first lane in each of `v`, lane 4g of
// `agree` is true for group g (vectors of four or eight lanes).
template <typename I, int N>
__attribute__((always_inline)) inline void agreeInGroups(const I (&v)[5], I& agree) {
    agree = ~I{};
    for (const I& lanes : v) {
        if constexpr (N == 4) {
            agree &= lanes == __builtin_shufflevector(lanes, lanes, 0, 0, 0, 0);
        } else {
            agree &= lanes == __builtin_shufflevector(lanes, lanes, 0, 0, 0, 0, 4, 4, 4, 4);
        }
    }
    if constexpr (N == 4) {
        agree &= __builtin_shufflevector(agree, agree, 1, 0, 3, 2);
        agree &= __builtin_shufflevector(agree, agree, 2, 3, 0, 1);
    } else {
        agree &= __builtin_shufflevector(agree, agree, 1, 0, 3, 2, 5, 4, 7, 6);
        agree &= __builtin_shufflevector(agree, agree, 2, 3, 0, 1, 6, 7, 4, 5);
    }
}

// Pixels x to x + N - 1 of a row into `out`.
template <typename F, typename I, int N>
__attribute__((always_inline)) inline void locateGroups(const LaneConstants<F, N>& k, int x,
                                                        const float* depths, const float* ramps,
                                                        RowPoints& out) {
    I located;
    I keys[3];
    I neighbours;
    locateVector<F, I, N>(k, x, depths, ramps, located, keys, neighbours);
    std::memcpy(out.located.data() + x, &located, sizeof(I));
    std::memcpy(out.neighbours.data() + x, &neighbours, sizeof(I));
    for (int a = 0; a < 3; ++a) {
        std::memcpy(out.keys[a].data() + x, &keys[a], sizeof(I));
    }
    // Lanes without a depth still carry a key and bits (those of the camera's block for a depth
    // of 0): a group agrees only where its lanes are located, not merely alike.
    const I fields[5] = {located, keys[0], keys[1], keys[2], neighbours};
    I agree;
    agreeInGroups<I, N>(fields, agree);
    agree &= located;
    for (int group = 0; group < N / kLanes; ++group) {
        out.uniform[x / kLanes + group] = agree[group * kLanes] != 0 ? 1 : 0;
    }
}

// The first `count` pixels of row y (a multiple of eight) into `out`.
using LocateRow = void (*)(const Unprojection&, float, const float*, const float*, int, RowPoints&);

void locateRowBy4(const Unprojection& u, float y, const float* depths, const float* ramps,
                  int count, RowPoints& out) {
    LaneConstants<Float4, 4> k;
    k.set(u, y);
    for (int x = 0; x < count; x += kLanes) {
        locateGroups<Float4, Int4, 4>(k, x, depths + x, ramps + x, out);
    }
}

#if defined(__x86_64__)
using Float8 = float __attribute__((vector_size(32)));
using Int8 = int32_t __attribute__((vector_size(32)));

__attribute__((target("avx2"))) void locateRowAvx2(const Unprojection& u, float y,
                                                   const float* depths, const float* ramps,
                                                   int count, RowPoints& out) {
    LaneConstants<Float8, 8> k;
    k.set(u, y);
    for (int x = 0; x < count; x += 2 * kLanes) {
        locateGroups<Float8, Int8, 8>(k, x, depths + x, ramps + x, out);
    }
}
#endif

LocateRow chooseLocateRow() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) {
        return locateRowAvx2;
    }
#endif
    return locateRowBy4;
}

}  // namespace

template <typename T, typename GridType>
bool SaturationManager<T, GridType>::update(const KeyType& key,
                                            const Vec3& relativeCameraPosition) {
    SaturationInfo fresh;
    fresh.bins.resize(mNumBins);
    auto inserted = mBlocks.insert(key, std::move(fresh));
    SaturationInfo& info = inserted.first->second;
    if (!inserted.second && info.numSaturated == mNumBins) {
        return false;
    }
    uint32_t directionIndex = 0;
    float best = FLT_MAX;
    for (uint32_t i = 0; i < mDirections.size(); ++i) {
        const Vec3 d = mDirections[i] - relativeCameraPosition;
        const float squared = d(0) * d(0) + d(1) * d(1) + d(2) * d(2);
        if (squared < best) {
            best = squared;
            directionIndex = i;
        }
    }
    const Vec3& rel = relativeCameraPosition;
    const T r = std::sqrt(rel(0) * rel(0) + rel(1) * rel(1) + rel(2) * rel(2));
    uint32_t distanceIndex = 0;
    while (distanceIndex < mDistances.size() && !(r <= mDistances[distanceIndex])) {
        ++distanceIndex;
    }
    const uint32_t bin = directionIndex + distanceIndex * mDirections.size();
    unsigned char& count = info.bins[bin];
    if (count >= mMaxCount) {
        return false;
    }
    ++count;
    if (count == mMaxCount) {
        ++info.numSaturated;
    }
    return true;
}

template <typename GridType>
void findHitBlocks(BlockInfoMapType& map, IntegrationStats& stats, const GridType& grid,
                   const DepthFrame& frame, const SensorErrorModel& errorModel, int prepareStep,
                   float maxBestSampleDistanceFilter) {
    const Matrix4 M = frame.projection * frame.pose;
    Matrix4 invM = AR::Math::inverse(M);
    // Points are shifted up by half a voxel before they are assigned to a block.
    const Vec3& spacing = grid.config().spacing;
    for (int r = 0; r < 3; ++r) {
        invM(r, 3) += 0.5f * spacing(r);
    }
    Unprojection u;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 4; ++c) {
            u.m[r][c] = invM(r, c);
        }
    }
    for (int a = 0; a < 3; ++a) {
        u.dimension[a] = grid.dimension()(a);
        u.inverseDimension[a] = grid.inverseDimension()(a);
    }
    float constantRamp = 0.0f;
    const bool rampIsConstant = errorModel.constantIntegrationRamp(constantRamp);
    // The band is asked for the point on the optical axis at the pixel's depth.
    auto rampAt = [&](float d) {
        return rampIsConstant ? constantRamp : errorModel.getIntegrationRamp(Vec3(0.0f, 0.0f, d));
    };

    static const LocateRow locateRow = chooseLocateRow();
    HitTable table(static_cast<uint32_t>(grid.size()));
    RunRecorder runs(table, grid.size());
    size_t visited = 0;
    size_t accepted = 0;
    // One located point: the optional filter, then its hits.
    const bool filtering = maxBestSampleDistanceFilter > 0.0f;
    auto record = [&](const KeyType& key, unsigned neighbours, float d) {
        if (filtering) {
            auto block = grid.get(key);
            if (block && d > block->bestSampleDistance() * maxBestSampleDistanceFilter) {
                return;
            }
        }
        runs.add(key, neighbours, d);
        ++accepted;
    };
    auto onePixel = [&](int x, int y, float d) {
        ++visited;
        if (!(d > 0.0f)) {
            return;
        }
        KeyType key;
        unsigned neighbours = 0;
        if (locatePoint(u, static_cast<float>(x), static_cast<float>(y), d, rampAt(d), key,
                        neighbours)) {
            record(key, neighbours, d);
        }
    };

    const int width = frame.depth.width();
    const int height = frame.depth.height();
    std::vector<float> rowRamps(static_cast<size_t>(std::max(width, 0)));
    RowPoints points(std::max(width, 0));
    for (int y = 0; y < height; y += prepareStep) {
        const float* row = frame.depth.pixels() + static_cast<size_t>(y) * frame.depth.bufSize()(0);
        int x = 0;
        if (prepareStep == 1) {
            // Four located points one after the other.
            const auto keyAt = [&points](int i) {
                return KeyType(points.keys[0][i], points.keys[1][i], points.keys[2][i]);
            };
            const auto consume = [&](int first) {
                if (points.uniform[first / kLanes] != 0 && !filtering) {
                    // As four points one after the other: they extend one run.
                    const float best = std::min(std::min(row[first], row[first + 1]),
                                                std::min(row[first + 2], row[first + 3]));
                    runs.add(keyAt(first), static_cast<unsigned>(points.neighbours[first]), best,
                             kLanes);
                    accepted += kLanes;
                    return;
                }
                for (int i = first; i < first + kLanes; ++i) {
                    if (points.located[i] == 0) {
                        continue;
                    }
                    const unsigned neighbours = static_cast<unsigned>(points.neighbours[i]);
                    if (filtering) {
                        record(keyAt(i), neighbours, row[i]);
                    } else {
                        runs.add(keyAt(i), neighbours, row[i]);
                        ++accepted;
                    }
                }
            };
            const int body = width / (2 * kLanes) * (2 * kLanes);
            const int grouped = width / kLanes * kLanes;
            for (x = 0; x < grouped; ++x) {
                const float d = row[x];
                rowRamps[x] = d > 0.0f ? rampAt(d) : 0.0f;
            }
            locateRow(u, static_cast<float>(y), row, rowRamps.data(), body, points);
            if (grouped > body) {
                LaneConstants<Float4, 4> k;
                k.set(u, static_cast<float>(y));
                locateGroups<Float4, Int4, 4>(k, body, row + body, rowRamps.data() + body, points);
            }
            for (x = 0; x < grouped; x += kLanes) {
                consume(x);
            }
            visited += static_cast<size_t>(grouped);
        }
        for (; x < width; x += prepareStep) {
            onePixel(x, y, row[x]);
        }
    }
    runs.flush();
    // The blocks enter the map in the order of their first hit.
    for (uint32_t i = 0; i < table.size(); ++i) {
        const BlockInfo& found = table.info(i);
        BlockInfo& info = map[table.key(i)];
        info.bestSampleDistance = std::min(info.bestSampleDistance, found.bestSampleDistance);
        info.numHits += found.numHits;
    }
    stats.visitedPoints = visited;
    stats.acceptedPoints = accepted;
}

void filterNonSpecifiedBlocks(BlockInfoMapType& map, const IndexSet* blocksToUpdate) {
    if (blocksToUpdate == nullptr) {
        return;
    }
    keepEntries(map, [&](const auto& entry) { return blocksToUpdate->contains(entry.first); });
}

void filterLowHitDensityBlocks(BlockInfoMapType& map, float numSamplesFilter, int cellsPerEdge,
                               int prepareStep) {
    if (!(numSamplesFilter > 0.0f)) {
        return;
    }
    AR::Common::ScopedTrace trace("filter");
    // A fraction of the pixels of one block face at full resolution, scaled by the pixel step.
    const float n = static_cast<float>(cellsPerEdge);
    const unsigned threshold = static_cast<unsigned>(n * numSamplesFilter * n) /
                               static_cast<unsigned>(prepareStep * prepareStep);
    keepEntries(map, [&](const auto& entry) { return entry.second.numHits >= threshold; });
}

template <typename GridType>
void filterSaturatedBlocks(BlockInfoMapType& map, const GridType& grid, const DepthFrame& frame,
                           SaturationManager<float, GridType>* saturationManager) {
    if (saturationManager == nullptr) {
        return;
    }
    const Matrix4 cameraToWorld = AR::Math::inverse(frame.pose);
    const Vec3 camera(cameraToWorld(0, 3), cameraToWorld(1, 3), cameraToWorld(2, 3));
    const Vec3& dimension = grid.dimension();
    keepEntries(map, [&](const auto& entry) {
        const Vec3 origin = grid.blockOrigin(entry.first);
        const Vec3 centre(0.5f * dimension(0) + origin(0), 0.5f * dimension(1) + origin(1),
                          0.5f * dimension(2) + origin(2));
        return saturationManager->update(entry.first, camera - centre);
    });
}

template <typename GridType, typename FrameType>
BlockInfoMapType selectBlocks(const GridType& grid, const FrameType& frame,
                              const SensorErrorModel& errorModel, IntegrationStats& stats,
                              int prepareStep, float numSamplesFilter,
                              float maxBestSampleDistanceFilter, const IndexSet* blocksToUpdate,
                              SaturationManager<float, GridType>* saturationManager) {
    AR::Common::Timing total;
    AR::Common::Timing stage;
    total.beginSection(true);
    BlockInfoMapType map(grid.size());

    stage.beginSection(true);
    findHitBlocks(map, stats, grid, frame, errorModel, prepareStep, maxBestSampleDistanceFilter);
    stage.endSection();
    stats.hitSearchTime = stage.getDurationMilliseconds(false);
    AR_LOG_VERBOSE("processed %zu out of %d points due to prepareStep %d", stats.visitedPoints,
                   frame.depth.width() * frame.depth.height(), prepareStep);
    AR_LOG_VERBOSE("processed %zu out of %zu points due to maxBestSampleDistanceFilter %f",
                   stats.acceptedPoints, stats.visitedPoints,
                   static_cast<double>(maxBestSampleDistanceFilter));
    stats.integratedBlocks = map.size();

    size_t before = map.size();
    stage.beginSection(true);
    filterNonSpecifiedBlocks(map, blocksToUpdate);
    stage.endSection();
    stats.specifiedFilterTime = stage.getDurationMilliseconds(false);
    AR_LOG_VERBOSE("removed %zu out of %zu blocks due to specified blocksToUpdate table",
                   before - map.size(), before);
    stats.integratedBlocks = map.size();

    before = map.size();
    stage.beginSection(true);
    filterLowHitDensityBlocks(map, numSamplesFilter, grid.config().bounds(0), prepareStep);
    stage.endSection();
    stats.densityFilterTime = stage.getDurationMilliseconds(false);
    AR_LOG_VERBOSE("removed %zu out of %zu blocks due to numSamplesFilter=%f", before - map.size(),
                   before, static_cast<double>(numSamplesFilter));
    stats.integratedBlocks = map.size();

    before = map.size();
    stage.beginSection(true);
    filterSaturatedBlocks(map, grid, frame, saturationManager);
    stage.endSection();
    stats.saturationFilterTime = stage.getDurationMilliseconds(false);
    AR_LOG_VERBOSE("removed %zu out of %zu blocks due to block saturation", before - map.size(),
                   before);
    stats.integratedBlocks = map.size();

    total.endSection();
    stats.selectTime = total.getDurationMilliseconds(false);
    return map;
}

template class SaturationManager<float, DepthGrid>;
template class SaturationManager<float, LabelDepthGrid>;
template BlockInfoMapType selectBlocks(const DepthGrid&, const DepthFrame&, const SensorErrorModel&,
                                       IntegrationStats&, int, float, float, const IndexSet*,
                                       SaturationManager<float, DepthGrid>*);
template BlockInfoMapType selectBlocks(const LabelDepthGrid&, const LabelDepthFrame&,
                                       const SensorErrorModel&, IntegrationStats&, int, float,
                                       float, const IndexSet*,
                                       SaturationManager<float, LabelDepthGrid>*);
template void findHitBlocks(BlockInfoMapType&, IntegrationStats&, const DepthGrid&,
                            const DepthFrame&, const SensorErrorModel&, int, float);
template void findHitBlocks(BlockInfoMapType&, IntegrationStats&, const LabelDepthGrid&,
                            const DepthFrame&, const SensorErrorModel&, int, float);
template void filterSaturatedBlocks(BlockInfoMapType&, const DepthGrid&, const DepthFrame&,
                                    SaturationManager<float, DepthGrid>*);
template void filterSaturatedBlocks(BlockInfoMapType&, const LabelDepthGrid&, const DepthFrame&,
                                    SaturationManager<float, LabelDepthGrid>*);

}  // namespace Solid
