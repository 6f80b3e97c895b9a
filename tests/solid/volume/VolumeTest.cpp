// Blocks and the sparse grid: trilinear reads, sentinel and gradient, block storage and keys,
// readers while a writer creates blocks, and the stream form: exact layout, byte-exact round
// trips, and cut or garbled streams after which the grid holds what was read and stays usable.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "solid/volume/IO.h"
#include "solid/volume/Volume.h"
#include "solid/volume/VolumeGrid.h"
#include "support/GridBytes.h"
#include "support/TestBlock.h"

namespace Solid {
namespace {

using Test::blockBytes;
using Test::expectSameBlocks;
using Test::keysInTableOrder;
using Test::TestBlock;
using AllGrids = ::testing::Types<DepthGrid, LabelDepthGrid, LabelGrid>;

constexpr float kSpacing = 0.02f;
constexpr int kSide = 9;

template <typename Grid>
void configure(Grid& grid, float spacing = kSpacing) {
    grid.set(Size(kSide, kSide, kSide), Vec3(spacing, spacing, spacing));
}

template <typename T>
class DepthBearing : public ::testing::Test {};
using DepthTypes = ::testing::Types<Vec2S, LabelDepthVolumeSample>;
TYPED_TEST_SUITE(DepthBearing, DepthTypes);

TYPED_TEST(DepthBearing, LatticeReadsTheSentinelAndTheGradientOfAProductField) {
    TestBlock<TypeParam> block;
    const auto depth = [&](int x, int y, int z) -> Vec2S& {
        return depthPart(block.volume.at(x, y, z));
    };
    const float sp = block.volume.spacing()(0), c = 32766 * 3.051944077014923e-05f;
    // On a lattice point only that point is read.
    depth(2, 3, 4) = Vec2S(16383, 1);
    EXPECT_EQ(block.volume.val(Vec3(2, 3, 4) * sp), 16383 * 3.051944077014923e-05f);
    // Inside a cell with one observed and seven unobserved corners: the sentinel.
    float value = 7.0f;
    Vec3 gradient;
    EXPECT_EQ(block.volume.val(Vec3(2.5f, 3, 4) * sp), -2.0f);
    EXPECT_FALSE(block.volume.valueAndGradient(Vec3(2.5f, 3, 4) * sp, value, gradient));
    // At the upper end only index 8 is read.
    depth(8, 8, 8) = Vec2S(-1000, 3);
    EXPECT_EQ(block.volume.val(block.volume.dimension()), -1000 * 3.051944077014923e-05f);

    // The gradient is the derivative of the trilinear form, not a central difference: on the
    // product field x*y*z (1 at corner (1, 1, 1) of the first cell) its x component at a cell point
    // is fy * fz scaled by the corner spread.
    for (int i = 0; i < 729; ++i)
        depth(i % 9, i / 9 % 9, i / 81) = Vec2S(i == 91 ? 32766 : 0, 1);  // c111 of the first cell
    const Vec3 p(0.5f * sp, 0.25f * sp, 0.75f * sp);
    ASSERT_TRUE(block.volume.valueAndGradient(p, value, gradient));
    EXPECT_NEAR(value, 0.5f * 0.25f * 0.75f * c, 1e-6f);
    EXPECT_NEAR(gradient(0), 0.25f * 0.75f * c / sp, 1e-4f);
    EXPECT_NEAR(gradient(1), 0.5f * 0.75f * c / sp, 1e-4f);
    EXPECT_NEAR(gradient(2), 0.5f * 0.25f * c / sp, 1e-4f);
}

TEST(VolumeDeathTest, LabelCountsSaturateAndBadShapesOrAnUnconfiguredGridAbort) {
    LabelVolumeSample s = creationSample<LabelVolumeSample>();
    for (int i = 0; i < 300; ++i)
        updateLabels(s, 7);
    updateLabels(s, 31);
    EXPECT_EQ(s.labels[7], 255);
    EXPECT_EQ(s.labels[31], 1);
    EXPECT_EQ(s.labels[6], 0);
    volatile LabelCountType outOfRange = 32;  // keeps the compiler from proving the abort
    EXPECT_DEATH(updateLabels(s, outOfRange), "label < sample.labels.size()");
    VolumeConfig config;
    EXPECT_DEATH(makeVolumeConfig(config, Size(1, 9, 9), Vec3(0.02f, 0.02f, 0.02f)), "bounds");
    EXPECT_DEATH(makeVolumeConfig(config, Size(9, 9, 9), Vec3(0.02f, 0.0f, 0.02f)), "dimension");
    EXPECT_DEATH(DepthGrid().ensure(KeyType(0, 0, 0)), "mBlockSize != 0");  // never configured
}

// The bytes of block `key` of `grid` with the samples from `kept` on replaced by creation values.
template <typename Grid>
std::vector<uint8_t> creationAfter(const Grid& grid, const KeyType& key, size_t kept) {
    using Sample = typename Grid::SampleType;
    std::vector<uint8_t> bytes = blockBytes(grid, key);
    const Sample creation = creationSample<Sample>();
    for (size_t at = kept * sizeof(Sample); at < bytes.size(); at += sizeof(Sample))
        std::memcpy(&bytes[at], &creation, sizeof(Sample));
    return bytes;
}

template <typename Grid>
class GridTypes : public ::testing::Test {};
TYPED_TEST_SUITE(GridTypes, AllGrids);

TYPED_TEST(GridTypes, StrideMegaBlocksAndCreationValues) {
    TypeParam grid;
    configure(grid);
    using Sample = typename TypeParam::SampleType;
    const uint32_t blockSize = 729 * sizeof(Sample);
    EXPECT_EQ(grid.centralStorage().blockSize(), blockSize);
    const uint32_t expectedStride = sizeof(Sample) == 4    ? 2928u
                                    : sizeof(Sample) == 40 ? 29168u
                                                           : 32096u;
    EXPECT_EQ(grid.centralStorage().blockStride(), expectedStride);

    // The first mega block does not move when the second is opened.
    const void* first = nullptr;
    for (int i = 0; i < 2049; ++i) {
        ASSERT_TRUE(grid.ensure(KeyType(i % 50, i / 50, -3)));
        first = i == 0 ? grid.get(KeyType(0, 0, -3))->data() : first;
    }
    EXPECT_EQ(grid.centralStorage().getNumBlocks(), 2049u);
    EXPECT_EQ(grid.get(KeyType(0, 0, -3))->data(), first);
    // Blocks are aligned for the vector kernels.
    EXPECT_EQ(reinterpret_cast<uintptr_t>(grid.get(KeyType(2048 % 50, 2048 / 50, -3))->data()) % 16,
              0u);

    grid.reset();
    EXPECT_EQ(grid.size() + grid.centralStorage().getNumBlocks(), 0u);
    EXPECT_FALSE(grid.get(KeyType(0, 0, -3)));

    // A new block holds the creation values; ensuring it again keeps what it holds.
    ASSERT_TRUE(grid.ensure(KeyType(1, 2, 3)));
    EXPECT_EQ(grid.get(KeyType(1, 2, 3))->bestSampleDistance(), 1.0e9f);
    EXPECT_EQ(blockBytes(grid, KeyType(1, 2, 3)), creationAfter(grid, KeyType(1, 2, 3), 0));
    std::memset(&grid.get(KeyType(1, 2, 3))->data()[7], 1, 4);  // any change, to see that it stays
    EXPECT_FALSE(grid.ensure(KeyType(1, 2, 3)));
    EXPECT_EQ(blockBytes(grid, KeyType(1, 2, 3))[7 * sizeof(Sample) + 3], 1);
}

TEST(VolumeGrid, KeysUseATrueFloorAndUnknownReadsAsTheSentinel) {
    DepthGrid grid;
    configure(grid);
    const float dim = grid.dimension()(0);
    const Vec3 justBelow(-1e-6f, 0.0f, dim);
    KeyType key = grid.keyOf(justBelow);
    EXPECT_EQ(key, KeyType(-1, 0, 1));  // a point on a face belongs to the upper block
    const Vec3 local = grid.localPosition(justBelow, key);
    EXPECT_NEAR(local(0), dim, 1e-5f);
    EXPECT_EQ(local(2), 0.0f);

    // Missing blocks and unobserved samples read as unknown.
    EXPECT_EQ(grid.value(Vec3(-0.5f, 0.2f, 0.0f), key), -2.0f);
    EXPECT_EQ(key, KeyType(-4, 1, 0));
    float value = 3.0f;
    Vec3 gradient;
    EXPECT_FALSE(grid.valueAndGradient(Vec3(-0.5f, 0.2f, 0.0f), value, gradient));

    // A created block reads -2.0 until observed; then the grid reads through the block.
    ASSERT_TRUE(grid.ensure(KeyType(-4, 1, 0)));
    EXPECT_EQ(grid.value(Vec3(-0.5f, 0.2f, 0.0f), key), -2.0f);
    for (uint32_t i = 0; i < 729; ++i)
        grid.get(KeyType(-4, 1, 0))->data()[i] = Vec2S(short(16383), short(1));
    EXPECT_NEAR(grid.value(Vec3(-0.5f, 0.2f, 0.0f), key), 0.5f, 1e-4f);
    ASSERT_TRUE(grid.valueAndGradient(Vec3(-0.5f, 0.2f, 0.01f), value, gradient));
    EXPECT_NEAR(value, 0.5f, 1e-4f);
    EXPECT_NEAR(gradient(0), 0.0f, 1e-4f);

    // Positions no block can hold find nothing instead of converting out of range.
    EXPECT_EQ(grid.value(Vec3(NAN, 0.0f, 0.0f), key), -2.0f);
    EXPECT_EQ(grid.value(Vec3(1e30f, 0.0f, 0.0f), key), -2.0f);
}

// One writer creates blocks and writes their samples under the block locks while readers sample
// values all over the grid. A reader must only ever see whole updates: every block's samples are
// written together with one value, so an interpolated read is that value or the sentinel.
TEST(VolumeGridConcurrency, ReadersDuringBlockCreation) {
    DepthGrid grid;
    configure(grid);
    constexpr int kBlocks = 300;
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::atomic<long> reads{0};

    auto reader = [&](unsigned seed) {
        unsigned state = seed;
        while (!done.load()) {
            state = state * 1664525u + 1013904223u;
            const float x = static_cast<float>(state % 2000) * 0.001f;  // [0, 2) m
            const float y = static_cast<float>((state >> 11) % 500) * 0.001f;
            KeyType key;
            const float v = grid.value(Vec3(x, y, 0.05f), key);
            torn += v != -2.0f && std::lround(v * 32766.0f) % 100 != 0;
            ++reads;
        }
    };
    std::thread r1(reader, 1u), r2(reader, 2u);
    while (reads.load() == 0)
        std::this_thread::yield();
    for (int i = 0; i < kBlocks; ++i) {
        const KeyType key(i % 12, (i / 12) % 3, i / 36);
        grid.ensure(key);
        for (int pass = 1; pass <= 3; ++pass) {
            auto block = grid.get(key);
            for (uint32_t s = 0; s < block->dataSize(); ++s)
                block->data()[s] = Vec2S(static_cast<short>(100 * (pass + i % 50)), short(1));
        }
    }
    done = true;
    r1.join();
    r2.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(grid.size(), static_cast<size_t>(kBlocks));
}

// A small linear congruential generator: the same bytes on every run and platform.
using Bytes = uint32_t;

// Fills every byte of every sample, spare bytes included; label samples keep a valid histogram
// length with arbitrary counts.
template <typename Grid>
void addScrambledBlock(Grid& grid, const KeyType& key, Bytes& state) {
    grid.ensure(key);
    auto block = grid.get(key);
    for (uint32_t i = 0; i < block->dataSize(); ++i) {
        auto& sample = block->data()[i];
        auto* raw = reinterpret_cast<uint8_t*>(&sample);
        for (size_t b = 0; b < sizeof(sample); ++b)
            raw[b] = static_cast<uint8_t>((state = state * 1664525u + 1013904223u) >> 24);
        if constexpr (!std::is_same_v<typename Grid::SampleType, Vec2S>)
            sample.labels.current_size = kNumLabels;
    }
}

template <typename Grid>
std::string serialize(const Grid& grid) {
    std::ostringstream os(std::ios::binary);
    os << grid;
    return os.str();
}

template <typename Grid>
bool deserialize(Grid& grid, const std::string& text) {
    std::istringstream is(text, std::ios::in | std::ios::binary);
    is >> grid;
    return static_cast<bool>(is);
}

std::string keyLine(const KeyType& key) {
    std::ostringstream os;
    os << key(0) << ' ' << key(1) << ' ' << key(2) << '\n';
    return os.str();
}

// The stream of a grid configured by `configure`, written out by hand: version, block shape,
// spacing and block count; per block in table order its key, shape and dimension, its raw
// samples and an LF; a closing LF. Also where each block's key and samples begin.
struct Stream {
    std::string text;
    std::vector<size_t> keyAt, samplesAt;
};
template <typename Grid>
Stream expectedStream(const Grid& grid) {
    Stream s{"2\n9 9 9\n0.02 0.02 0.02\n" + std::to_string(grid.size()) + "\n", {}, {}};
    for (const KeyType& key : keysInTableOrder(grid)) {
        s.keyAt.push_back(s.text.size());
        s.text += keyLine(key) + "9 9 9\n0.16 0.16 0.16\n";
        s.samplesAt.push_back(s.text.size());
        const std::vector<uint8_t> raw = blockBytes(grid, key);
        s.text.append(raw.begin(), raw.end());
        s.text += '\n';
    }
    s.text += '\n';
    return s;
}

template <typename Grid>
class GridStream : public ::testing::Test {};
TYPED_TEST_SUITE(GridStream, AllGrids);

// The exact text, whose floats come back as the same floats; whole, every byte comes back into a
// grid that takes its configuration from the stream; cut or garbled, the grid keeps what was read
// and the stream fails unless all blocks were read.
TYPED_TEST(GridStream, ExactLayoutRoundTripAndCutOrGarbledStreamsKeepWhatWasRead) {
    using Sample = typename TypeParam::SampleType;
    TypeParam empty;
    // 0.05f needs eight digits to come back as the same float; six would print 0.05.
    configure(empty, 0.05f);
    EXPECT_EQ(serialize(empty), "2\n9 9 9\n0.050000001 0.050000001 0.050000001\n0\n\n");

    TypeParam original;
    configure(original);
    Bytes bytes(5);
    for (const KeyType& key : {KeyType(1, 2, 3), KeyType(-4, 0, 2), KeyType(0, -7, 1)})
        addScrambledBlock(original, key, bytes);
    const std::string text = serialize(original);
    const Stream expected = expectedStream(original);
    ASSERT_EQ(text, expected.text);
    TypeParam bare;
    EXPECT_TRUE(deserialize(bare, text));
    EXPECT_EQ(bare.config().size, original.config().size);
    EXPECT_EQ(bare.dimension(), original.dimension());
    expectSameBlocks(original, bare);

    const std::vector<KeyType> order = keysInTableOrder(original);
    const size_t samples1 = expected.samplesAt[1];
    const auto garbled = [&text](size_t at) {
        std::string edited = text;
        edited[at] = 'x';
        return edited;
    };
    const struct {
        const char* what;
        std::string stream;
        size_t blocks;    // blocks in the grid afterwards, all but the last read whole
        size_t lastKept;  // leading samples of the last block read whole
    } cases[] = {
        {"cut inside the grid header", text.substr(0, 3), 0, 0},
        {"cut inside the first key", text.substr(0, expected.keyAt[0] + 2), 0, 0},
        {"the dimension cut short (0.1)", text.substr(0, samples1 - 2), 2, 0},
        {"cut within the eighth sample", text.substr(0, samples1 + 7 * sizeof(Sample) + 1), 2, 7},
        {"the LF behind the samples missing", text.substr(0, samples1 + 729 * sizeof(Sample)), 2,
         729},
        {"the final LF missing", text.substr(0, text.size() - 1), 3, 729},
        {"garbage in a block's shape", garbled(expected.keyAt[1] + keyLine(order[1]).size()), 2, 0},
        {"garbage in place of the separator", garbled(samples1 - 1), 2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TypeParam grid;
        configure(grid);
        EXPECT_EQ(deserialize(grid, c.stream), c.blocks == 3);
        ASSERT_EQ(grid.size(), c.blocks);
        for (size_t b = 0; b < c.blocks; ++b)
            EXPECT_EQ(blockBytes(grid, order[b]),
                      creationAfter(original, order[b], b + 1 < c.blocks ? 729 : c.lastKept));
        // The grid must still take the write lock, the read lock and a block mutex.
        EXPECT_TRUE(grid.ensure(KeyType(1000, -1000, 7)));
        EXPECT_TRUE(static_cast<bool>(grid.get(KeyType(1000, -1000, 7))));
    }
}

TEST(GridStreamDeathTest, WrongVersionOrBlockShapeEndsTheProcess) {
    DepthGrid source;
    configure(source);
    source.ensure(KeyType(0, 0, 0));
    const std::string text = serialize(source);
    // What is replaced, by what, and the message.
    const char* const cases[][3] = {
        {"2\n", "3\n", "unsupported volume file version"},
        {"9 9 9", "8 8 8", "block size in the file differs from the grid's"},
        {"0.16 0.16 0.16", "0.17 0.16 0.16", "block size or dimension in the file differs"},
    };
    for (const auto& c : cases) {
        std::string edited = text;
        edited.replace(edited.find(c[0]), std::strlen(c[0]), c[1]);
        EXPECT_DEATH(
            {
                DepthGrid grid;
                configure(grid);
                deserialize(grid, edited);
            },
            c[2]);
    }
}

}  // namespace
}  // namespace Solid
