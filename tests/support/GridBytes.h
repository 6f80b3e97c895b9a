// Byte-level views of a volume grid for the tests of saving, loading and streaming: its keys in
// table order, the raw bytes of one block, and a block-by-block comparison of two grids.
#ifndef VELMORA_TESTS_SUPPORT_GRIDBYTES_H
#define VELMORA_TESTS_SUPPORT_GRIDBYTES_H

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "solid/volume/VolumeGrid.h"

namespace Solid {
namespace Test {

template <typename Grid>
std::vector<KeyType> keysInTableOrder(const Grid& grid) {
    std::vector<KeyType> keys;
    grid.for_each(
        [&keys](const KeyType& key, const typename Grid::Block&) { keys.push_back(key); });
    return keys;
}

template <typename Grid>
std::vector<uint8_t> blockBytes(const Grid& grid, const KeyType& key) {
    auto block = grid.get(key);
    const auto* raw = reinterpret_cast<const uint8_t*>(block->data());
    return std::vector<uint8_t>(raw, raw + block->dataSize() * sizeof(typename Grid::SampleType));
}

// `actual` has the spacing and the blocks of `expected`, every sample byte for byte.
template <typename Grid>
void expectSameBlocks(const Grid& expected, const Grid& actual) {
    ASSERT_EQ(actual.size(), expected.size());
    EXPECT_EQ(actual.gridSpacing(), expected.gridSpacing());
    for (const KeyType& key : keysInTableOrder(expected)) {
        ASSERT_TRUE(actual.get(key)) << key(0) << ' ' << key(1) << ' ' << key(2);
        EXPECT_EQ(blockBytes(actual, key), blockBytes(expected, key))
            << key(0) << ' ' << key(1) << ' ' << key(2);
    }
}

}  // namespace Test
}  // namespace Solid

#endif  // VELMORA_TESTS_SUPPORT_GRIDBYTES_H
