// The sparse grid: block creation from pooled storage, keys of negative coordinates, lookups of
// missing blocks, reset, and readers running while a writer creates and fills blocks.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "solid/volume/VolumeGrid.h"

namespace Solid {
namespace {

constexpr float kSpacing = 0.02f;

template <typename Grid>
void configure(Grid& grid) {
    grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
}

template <typename Grid>
class GridTypes : public ::testing::Test {};
using AllGrids = ::testing::Types<DepthGrid, LabelDepthGrid, LabelGrid>;
TYPED_TEST_SUITE(GridTypes, AllGrids);

TYPED_TEST(GridTypes, StrideAndMegaBlocks) {
    TypeParam grid;
    configure(grid);
    using Sample = typename TypeParam::SampleType;
    const uint32_t blockSize = 729 * sizeof(Sample);
    EXPECT_EQ(grid.centralStorage().blockSize(), blockSize);
    const uint32_t expectedStride = sizeof(Sample) == 4    ? 2928u
                                    : sizeof(Sample) == 40 ? 29168u
                                                           : 32096u;
    EXPECT_EQ(grid.centralStorage().blockStride(), expectedStride);

    std::vector<const void*> addresses;
    for (int i = 0; i < 2049; ++i) {
        ASSERT_TRUE(grid.ensure(KeyType(i % 50, i / 50, -3)));
        if (i == 0 || i == 2047) {
            addresses.push_back(grid.get(KeyType(i % 50, i / 50, -3))->data());
        }
    }
    EXPECT_EQ(grid.centralStorage().getNumBlocks(), 2049u);
    EXPECT_EQ(grid.size(), 2049u);
    // The first mega block did not move when the second was opened.
    EXPECT_EQ(grid.get(KeyType(0, 0, -3))->data(), addresses[0]);
    EXPECT_EQ(grid.get(KeyType(2047 % 50, 2047 / 50, -3))->data(), addresses[1]);
    // Blocks are aligned for the vector kernels, with the slot trailer after the samples.
    const auto* last =
        reinterpret_cast<const uint8_t*>(grid.get(KeyType(2048 % 50, 2048 / 50, -3))->data());
    EXPECT_EQ(reinterpret_cast<uintptr_t>(last) % 16, 0u);
    uint32_t trailer[2];
    std::memcpy(trailer, last + blockSize, sizeof(trailer));
    EXPECT_EQ(trailer[0], 1u);  // second mega block
    EXPECT_EQ(trailer[1], 0u);  // its first block
    const auto* first = reinterpret_cast<const uint8_t*>(addresses[0]);
    std::memcpy(trailer, first + blockSize, sizeof(trailer));
    EXPECT_EQ(trailer[0], 0u);
    EXPECT_EQ(trailer[1], 0u);

    grid.reset();
    EXPECT_EQ(grid.size(), 0u);
    EXPECT_EQ(grid.centralStorage().getNumBlocks(), 0u);
    EXPECT_FALSE(grid.get(KeyType(0, 0, -3)));
    EXPECT_TRUE(grid.ensure(KeyType(5, 5, 5)));
    EXPECT_EQ(grid.centralStorage().getNumBlocks(), 1u);
}

TYPED_TEST(GridTypes, EnsureKeepsExistingBlocksAndFillsNewOnes) {
    TypeParam grid;
    configure(grid);
    ASSERT_TRUE(grid.ensure(KeyType(1, 2, 3)));
    {
        auto block = grid.get(KeyType(1, 2, 3));
        ASSERT_TRUE(block);
        EXPECT_EQ(block->bestSampleDistance(), 1.0e9f);
        const auto creation = creationSample<typename TypeParam::SampleType>();
        for (uint32_t i = 0; i < block->dataSize(); ++i) {
            ASSERT_EQ(std::memcmp(&block->data()[i], &creation, sizeof(creation)), 0) << i;
        }
        // Any change, to see that it stays.
        if constexpr (std::is_same<TypeParam, DepthGrid>::value) {
            block->at(3, 3, 3)(1) = 17;
        } else {
            block->at(3, 3, 3).labels.resize(0);
        }
    }
    EXPECT_FALSE(grid.ensure(KeyType(1, 2, 3)));
    EXPECT_EQ(grid.centralStorage().getNumBlocks(), 1u);
    auto block = grid.get(KeyType(1, 2, 3));
    if constexpr (std::is_same<TypeParam, DepthGrid>::value) {
        EXPECT_EQ(block->at(3, 3, 3)(1), 17);
    } else {
        EXPECT_EQ(block->at(3, 3, 3).labels.size(), 0u);
    }
}

TEST(VolumeGrid, KeysUseATrueFloor) {
    DepthGrid grid;
    configure(grid);
    const float dim = grid.dimension()(0);
    EXPECT_FLOAT_EQ(dim, 0.16f);
    const Vec3 justBelow(-1e-6f, 0.0f, dim);
    const KeyType key = grid.keyOf(justBelow);
    EXPECT_EQ(key, KeyType(-1, 0, 1));  // a point on a face belongs to the upper block
    const Vec3 local = grid.localPosition(justBelow, key);
    EXPECT_NEAR(local(0), dim, 1e-5f);
    EXPECT_LT(local(0), dim);
    EXPECT_EQ(local(2), 0.0f);
    EXPECT_EQ(grid.keyOf(Vec3(-0.33f, -0.16f, 0.31f)), KeyType(-3, -1, 1));
}

TEST(VolumeGrid, MissingBlocksAndUnobservedSamplesReadAsUnknown) {
    DepthGrid grid;
    configure(grid);
    KeyType key(99, 99, 99);
    EXPECT_EQ(grid.value(Vec3(-0.5f, 0.2f, 0.0f), key), -2.0f);
    EXPECT_EQ(key, KeyType(-4, 1, 0));
    float value = 3.0f;
    Vec3 gradient;
    EXPECT_FALSE(grid.valueAndGradient(Vec3(-0.5f, 0.2f, 0.0f), value, gradient));

    // A created block reads -2.0 until observed; then the grid reads through the block.
    ASSERT_TRUE(grid.ensure(KeyType(-4, 1, 0)));
    EXPECT_EQ(grid.value(Vec3(-0.5f, 0.2f, 0.0f), key), -2.0f);
    {
        auto block = grid.get(KeyType(-4, 1, 0));
        for (uint32_t i = 0; i < block->dataSize(); ++i) {
            block->data()[i](0) = 16383;
            block->data()[i](1) = 1;
        }
    }
    EXPECT_NEAR(grid.value(Vec3(-0.5f, 0.2f, 0.0f), key), 0.5f, 1e-4f);
    ASSERT_TRUE(grid.valueAndGradient(Vec3(-0.5f, 0.2f, 0.01f), value, gradient));
    EXPECT_NEAR(value, 0.5f, 1e-4f);
    EXPECT_NEAR(gradient(0), 0.0f, 1e-4f);

    // Positions no block can hold find nothing instead of converting out of range.
    EXPECT_EQ(grid.value(Vec3(NAN, 0.0f, 0.0f), key), -2.0f);
    EXPECT_EQ(grid.value(Vec3(1e30f, 0.0f, 0.0f), key), -2.0f);

    LabelGrid labels;
    configure(labels);
    EXPECT_FALSE(labels.getSample(Vec3(0.05f, -0.05f, 0.0f), key).has_value());
    EXPECT_EQ(key, KeyType(0, -1, 0));
    labels.ensure(key);
    labels.get(key)->at(2, 5, 0).instance = 42;
    auto sample = labels.getSample(Vec3(0.05f, -0.05f, 0.0f), key);
    ASSERT_TRUE(sample.has_value());
    EXPECT_EQ(sample->instance, 42);  // local (0.05, 0.11, 0) -> lattice (2, 5, 0)
}

TEST(VolumeGridDeathTest, UnconfiguredStorageAndBadShapesAbort) {
    EXPECT_DEATH(
        {
            DepthGrid grid;
            grid.ensure(KeyType(0, 0, 0));
        },
        "mBlockSize != 0");
    EXPECT_DEATH(
        {
            DepthGrid grid;
            grid.set(Size(9, 9, 9), Vec3(0.02f, 0.0f, 0.02f));
        },
        "dimension");
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
            const int whole = static_cast<int>(std::lround(v * 32766.0f));
            if (v != -2.0f && whole % 100 != 0) {
                ++torn;
            }
            ++reads;
        }
    };
    std::thread r1(reader, 1u), r2(reader, 2u);
    while (reads.load() == 0) {
        std::this_thread::yield();
    }
    for (int i = 0; i < kBlocks; ++i) {
        const KeyType key(i % 12, (i / 12) % 3, i / 36);
        grid.ensure(key);
        for (int pass = 1; pass <= 3; ++pass) {
            auto block = grid.get(key);
            const short value = static_cast<short>(100 * (pass + i % 50));
            for (uint32_t s = 0; s < block->dataSize(); ++s) {
                block->data()[s](0) = value;
                block->data()[s](1) = 1;
            }
        }
    }
    done = true;
    r1.join();
    r2.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(grid.size(), static_cast<size_t>(kBlocks));
}

}  // namespace
}  // namespace Solid
