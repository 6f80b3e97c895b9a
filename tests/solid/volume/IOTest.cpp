// The stream form of grids and blocks: exact layout, byte-exact round trips of every sample type,
// merging into a grid with blocks, and streams that are cut, garbled or claim absurd counts,
// after which the grid must hold what was read and take new blocks and lookups at once.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "solid/volume/IO.h"
#include "support/GridBytes.h"

namespace Solid {
namespace {

constexpr float kSpacing = 0.02f;
constexpr int kSide = 9;

template <typename Grid>
void configure(Grid& grid, float spacing = kSpacing) {
    grid.set(Size(kSide, kSide, kSide), Vec3(spacing, spacing, spacing));
}

// A small linear congruential generator: the same bytes on every run and platform.
class Bytes {
public:
    explicit Bytes(uint32_t seed) : mState(seed) {}
    uint8_t next() {
        mState = mState * 1664525u + 1013904223u;
        return static_cast<uint8_t>(mState >> 24);
    }

private:
    uint32_t mState;
};

// Fills every byte of a sample, spare bytes included; label samples keep a valid histogram
// length with arbitrary counts.
template <typename Sample>
void scramble(Sample& sample, Bytes& bytes) {
    auto* raw = reinterpret_cast<uint8_t*>(&sample);
    for (size_t i = 0; i < sizeof(sample); ++i) {
        raw[i] = bytes.next();
    }
    if constexpr (!std::is_same_v<Sample, Vec2S>) {
        sample.labels.current_size = kNumLabels;
    }
}

template <typename Grid>
void addScrambledBlock(Grid& grid, const KeyType& key, Bytes& bytes) {
    grid.ensure(key);
    auto block = grid.get(key);
    for (uint32_t i = 0; i < block->dataSize(); ++i) {
        scramble(block->data()[i], bytes);
    }
}

template <typename Grid>
std::string serialize(const Grid& grid) {
    std::ostringstream os(std::ios::out | std::ios::binary);
    os << grid;
    return os.str();
}

template <typename Grid>
bool deserialize(Grid& grid, const std::string& text) {
    std::istringstream is(text, std::ios::in | std::ios::binary);
    is >> grid;
    return static_cast<bool>(is);
}

using Test::blockBytes;
using Test::expectSameBlocks;
using Test::keysInTableOrder;

// Number of leading samples of the block at `key` in `actual` equal to those in `expected`; all
// samples after them must be creation samples.
template <typename Grid>
uint32_t leadingSamplesKept(const Grid& expected, const Grid& actual, const KeyType& key) {
    using Sample = typename Grid::SampleType;
    const std::vector<uint8_t> want = blockBytes(expected, key);
    const std::vector<uint8_t> got = blockBytes(actual, key);
    const uint32_t count = static_cast<uint32_t>(got.size() / sizeof(Sample));
    uint32_t kept = 0;
    while (kept < count && std::memcmp(&got[kept * sizeof(Sample)], &want[kept * sizeof(Sample)],
                                       sizeof(Sample)) == 0) {
        ++kept;
    }
    Grid fresh;
    configure(fresh);
    fresh.ensure(key);
    const std::vector<uint8_t> created = blockBytes(fresh, key);
    for (uint32_t i = kept; i < count; ++i) {
        EXPECT_EQ(
            std::memcmp(&got[i * sizeof(Sample)], &created[i * sizeof(Sample)], sizeof(Sample)), 0)
            << "sample " << i << " is neither from the stream nor a creation sample";
    }
    return kept;
}

std::string keyLine(const KeyType& key) {
    std::ostringstream os;
    os << key(0) << ' ' << key(1) << ' ' << key(2) << '\n';
    return os.str();
}

// The text in front of the raw samples of block `key` of a grid configured by `configure`.
std::string blockHeader(const KeyType& key) {
    std::ostringstream os;
    os.precision(kStreamFloatPrecision);
    const float dimension = kSpacing * (kSide - 1);
    os << keyLine(key) << kSide << ' ' << kSide << ' ' << kSide << '\n'
       << dimension << ' ' << dimension << ' ' << dimension << '\n';
    return os.str();
}

// The grid must still take the write lock, the read lock and a block mutex.
template <typename Grid>
void expectUsable(Grid& grid) {
    const size_t before = grid.size();
    const KeyType fresh(1000, -1000, 7);
    EXPECT_TRUE(grid.ensure(fresh));
    EXPECT_TRUE(static_cast<bool>(grid.get(fresh)));
    EXPECT_EQ(grid.size(), before + 1);
}

template <typename Grid>
class GridStream : public ::testing::Test {};
using AllGrids = ::testing::Types<DepthGrid, LabelDepthGrid, LabelGrid>;
TYPED_TEST_SUITE(GridStream, AllGrids);

TEST(GridStreamLayout, EmptyGridAndOneBlockByteForByte) {
    DepthGrid empty;
    // 0.05f needs eight digits to come back as the same float; six would print 0.05.
    configure(empty, 0.05f);
    EXPECT_EQ(serialize(empty), "2\n9 9 9\n0.050000001 0.050000001 0.050000001\n0\n\n");

    DepthGrid grid;
    configure(grid);
    const KeyType key(-1, 2, 3);
    Bytes bytes(7);
    addScrambledBlock(grid, key, bytes);
    const std::string text = serialize(grid);
    const std::string head = "2\n9 9 9\n0.02 0.02 0.02\n1\n-1 2 3\n9 9 9\n0.16 0.16 0.16\n";
    const size_t rawBytes = 729 * sizeof(Vec2S);
    ASSERT_EQ(text.size(), head.size() + rawBytes + 2);
    EXPECT_EQ(text.substr(0, head.size()), head);
    const std::vector<uint8_t> samples = blockBytes(grid, key);
    EXPECT_EQ(std::memcmp(text.data() + head.size(), samples.data(), rawBytes), 0);
    EXPECT_EQ(text.substr(head.size() + rawBytes), "\n\n");
}

TYPED_TEST(GridStream, RoundTripKeepsEveryByteAndMergesIntoExistingBlocks) {
    TypeParam original;
    configure(original);
    Bytes bytes(11);
    const std::vector<KeyType> keys = {KeyType(0, 0, 0), KeyType(-3, 5, -1), KeyType(7, -2, 4),
                                       KeyType(-1, -1, -1)};
    for (const KeyType& key : keys) {
        addScrambledBlock(original, key, bytes);
    }
    const std::string text = serialize(original);

    // Into a configured grid and into one that takes its configuration from the stream.
    TypeParam configured;
    configure(configured);
    EXPECT_TRUE(deserialize(configured, text));
    expectSameBlocks(original, configured);
    TypeParam bare;
    EXPECT_TRUE(deserialize(bare, text));
    EXPECT_EQ(bare.config().size, original.config().size);
    EXPECT_EQ(bare.dimension(), original.dimension());
    expectSameBlocks(original, bare);

    // A grid with blocks: a key of the stream is overwritten, another block stays as it was.
    TypeParam merged;
    configure(merged);
    Bytes other(99);
    addScrambledBlock(merged, keys[1], other);
    const KeyType extra(40, 40, 40);
    addScrambledBlock(merged, extra, other);
    const std::vector<uint8_t> extraBefore = blockBytes(merged, extra);
    EXPECT_TRUE(deserialize(merged, text));
    EXPECT_EQ(merged.size(), keys.size() + 1);
    for (const KeyType& key : keys) {
        EXPECT_EQ(blockBytes(merged, key), blockBytes(original, key));
    }
    EXPECT_EQ(blockBytes(merged, extra), extraBefore);
}

TYPED_TEST(GridStream, CutStreamsKeepWhatWasReadAndReleaseTheLock) {
    using Sample = typename TypeParam::SampleType;
    TypeParam original;
    configure(original);
    Bytes bytes(5);
    for (const KeyType& key : {KeyType(1, 2, 3), KeyType(-4, 0, 2), KeyType(0, -7, 1)}) {
        addScrambledBlock(original, key, bytes);
    }
    const std::string text = serialize(original);
    const std::vector<KeyType> order = keysInTableOrder(original);
    std::vector<size_t> samplesStart;
    for (const KeyType& key : order) {
        const std::string header = blockHeader(key);
        const size_t at = text.find(header);
        ASSERT_NE(at, std::string::npos);
        samplesStart.push_back(at + header.size());
    }

    struct Cut {
        size_t length;
        size_t blocks;          // blocks in the grid afterwards
        size_t completeBlocks;  // blocks, in stream order, read whole
        uint32_t keptSamples;   // leading samples of the next block read whole
    };
    const size_t rawBytes = 729 * sizeof(Sample);
    const size_t blockStart = samplesStart[1] - blockHeader(order[1]).size();
    const size_t sizeStart = blockStart + keyLine(order[1]).size();
    const std::vector<Cut> cuts = {
        {3, 0, 0, 0},                                                   // inside the grid header
        {samplesStart[0] - blockHeader(order[0]).size() + 2, 0, 0, 0},  // inside the first key
        {sizeStart + 3, 2, 1, 0},                                       // inside a block's size
        {samplesStart[1] - 2, 2, 1, 0},                       // the dimension cut short ("0.1")
        {samplesStart[1] - 1, 2, 1, 0},                       // before the separator
        {samplesStart[1] + 7 * sizeof(Sample) + 1, 2, 1, 7},  // within the eighth sample
        {samplesStart[1] + rawBytes, 2, 2, 0},                // the LF behind the samples missing
        {text.size() - 1, 3, 3, 0},                           // the final LF missing
    };
    for (const Cut& cut : cuts) {
        SCOPED_TRACE(cut.length);
        TypeParam grid;
        configure(grid);
        deserialize(grid, text.substr(0, cut.length));
        EXPECT_EQ(grid.size(), cut.blocks);
        for (size_t b = 0; b < cut.completeBlocks; ++b) {
            EXPECT_EQ(blockBytes(grid, order[b]), blockBytes(original, order[b]));
        }
        if (cut.blocks > cut.completeBlocks) {
            EXPECT_EQ(leadingSamplesKept(original, grid, order[cut.completeBlocks]),
                      cut.keptSamples);
        }
        expectUsable(grid);
    }

    // Garbage in a block's text, or in place of the separator before its samples.
    for (const size_t at : {sizeStart, samplesStart[1] - 1}) {
        std::string garbled = text;
        garbled[at] = 'x';
        TypeParam grid;
        configure(grid);
        EXPECT_FALSE(deserialize(grid, garbled));
        EXPECT_EQ(grid.size(), 2u);
        EXPECT_EQ(blockBytes(grid, order[0]), blockBytes(original, order[0]));
        EXPECT_EQ(leadingSamplesKept(original, grid, order[1]), 0u);
        expectUsable(grid);
    }
}

TEST(GridStreamLimits, AbsurdCountsAndHeadersStopWithoutAllocating) {
    DepthGrid source;
    configure(source);
    Bytes bytes(3);
    addScrambledBlock(source, KeyType(2, 2, 2), bytes);
    const std::string text = serialize(source);
    const std::string countLine = "\n1\n";
    const size_t countAt = text.find(countLine);
    ASSERT_NE(countAt, std::string::npos);

    // A count far beyond the blocks that follow: the blocks there load, then the stream ends.
    for (const char* count : {"18446744073709551615", "4000000000"}) {
        std::string claimed = text;
        claimed.replace(countAt + 1, 1, count);
        DepthGrid grid;
        configure(grid);
        EXPECT_FALSE(deserialize(grid, claimed));
        EXPECT_EQ(grid.size(), 1u);
        EXPECT_EQ(blockBytes(grid, KeyType(2, 2, 2)), blockBytes(source, KeyType(2, 2, 2)));
        expectUsable(grid);
    }

    // Headers that would configure a grid beyond reason are refused before anything changes. A
    // grid with a configuration keeps its spacing too.
    for (const char* header :
         {"2\n100000 100000 100000\n0.02 0.02 0.02\n0\n\n", "2\n0 9 9\n0.02 0.02 0.02\n0\n\n"}) {
        SCOPED_TRACE(header);
        DepthGrid bare;
        EXPECT_FALSE(deserialize(bare, header));
        EXPECT_EQ(bare.config().numSamples, 0u);
    }
    for (const char* header : {"2\n9 9 9\n0 0.02 0.02\n0\n\n", "2\n9 9 9\n-0.02 0.02 0.02\n0\n\n",
                               "2\n9 9 9\n1e39 0.02 0.02\n0\n\n"}) {
        SCOPED_TRACE(header);
        DepthGrid bare;
        EXPECT_FALSE(deserialize(bare, header));
        EXPECT_EQ(bare.config().numSamples, 0u);
        DepthGrid configured;
        configure(configured);
        EXPECT_FALSE(deserialize(configured, header));
        EXPECT_EQ(configured.gridSpacing(), Vec3(kSpacing, kSpacing, kSpacing));
    }
}

template <typename Grid>
class LabelStream : public ::testing::Test {};
using LabelGrids = ::testing::Types<LabelDepthGrid, LabelGrid>;
TYPED_TEST_SUITE(LabelStream, LabelGrids);

TYPED_TEST(LabelStream, GarbledHistogramLengthsAreSetToTheLabelCount) {
    TypeParam grid;
    configure(grid);
    Bytes bytes(21);
    const KeyType key(0, 1, 0);
    addScrambledBlock(grid, key, bytes);
    typename TypeParam::SampleType longer;
    typename TypeParam::SampleType shorter;
    {
        auto block = grid.get(key);
        block->data()[5].labels.current_size = 200;
        block->data()[6].labels.current_size = 3;
        longer = block->data()[5];
        shorter = block->data()[6];
    }
    TypeParam loaded;
    configure(loaded);
    EXPECT_TRUE(deserialize(loaded, serialize(grid)));
    auto block = loaded.get(key);
    for (uint32_t i = 0; i < block->dataSize(); ++i) {
        ASSERT_EQ(block->data()[i].labels.size(), kNumLabels) << i;
    }
    // A length above the count keeps all counters; a shorter one keeps its own and zeroes the rest.
    for (uint32_t l = 0; l < kNumLabels; ++l) {
        EXPECT_EQ(block->data()[5].labels[l], longer.labels.items[l]);
        EXPECT_EQ(block->data()[6].labels[l], l < 3 ? shorter.labels.items[l] : 0);
    }
    // Votes go to every label again.
    updateLabels(block->data()[6], kNumLabels - 1);
    EXPECT_EQ(block->data()[6].labels[kNumLabels - 1], 1);
}

TEST(GridStreamDeathTest, WrongVersionOrBlockShapeEndsTheProcess) {
    DepthGrid source;
    configure(source);
    Bytes bytes(1);
    addScrambledBlock(source, KeyType(0, 0, 0), bytes);
    const std::string text = serialize(source);
    struct Case {
        const char* find;
        const char* replace;
        const char* message;
    };
    const Case cases[] = {
        {"2\n", "3\n", "unsupported volume file version"},
        {"9 9 9", "8 8 8", "block size in the file differs from the grid's"},
        {"0.16 0.16 0.16", "0.17 0.16 0.16", "block size or dimension in the file differs"},
    };
    for (const Case& c : cases) {
        std::string edited = text;
        edited.replace(edited.find(c.find), std::strlen(c.find), c.replace);
        EXPECT_DEATH(
            {
                DepthGrid grid;
                configure(grid);
                deserialize(grid, edited);
            },
            c.message);
    }
}

}  // namespace
}  // namespace Solid
