// Block reads: creation values, the trilinear value with its unobserved sentinel, the analytic
// gradient, and the nearest-lower sample lookup with its inclusive upper end.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "solid/volume/Volume.h"
#include "support/TestBlock.h"

namespace Solid {
namespace {

using Test::TestBlock;

template <typename T>
class VolumeSampleTypes : public ::testing::Test {};
using SampleTypes = ::testing::Types<Vec2S, LabelDepthVolumeSample, LabelVolumeSample>;
TYPED_TEST_SUITE(VolumeSampleTypes, SampleTypes);

TYPED_TEST(VolumeSampleTypes, CreationValuesAndLayout) {
    TestBlock<TypeParam> block;
    EXPECT_EQ(block.volume.dataSize(), 729u);
    EXPECT_EQ(block.volume.bounds()(0), 8);
    EXPECT_FLOAT_EQ(block.volume.dimension()(1), 0.16f);
    EXPECT_EQ(block.volume.bestSampleDistance(), 1.0e9f);
    // x runs fastest, then y, then z.
    EXPECT_EQ(&block.volume.at(1, 2, 3), block.samples.data() + 1 + 9 * (2 + 9 * 3));

    const TypeParam s = block.volume.at(4, 5, 6);
    unsigned char bytes[sizeof(TypeParam)];
    std::memcpy(bytes, &s, sizeof(s));
    if constexpr (std::is_same<TypeParam, Vec2S>::value) {
        const unsigned char expected[4] = {0xFE, 0x7F, 0x00, 0x00};  // 0x7FFE, 0 little-endian
        EXPECT_EQ(std::memcmp(bytes, expected, 4), 0);
    } else {
        EXPECT_EQ(s.instance, 0);
        EXPECT_EQ(s.labels.size(), 32u);
        for (uint32_t i = 0; i < 32; ++i) {
            EXPECT_EQ(s.labels[i], 0) << i;
        }
        if constexpr (std::is_same<TypeParam, LabelDepthVolumeSample>::value) {
            EXPECT_EQ(s.depth(0), 32766);
            EXPECT_EQ(s.depth(1), 0);
            EXPECT_EQ(s.reserved, 0);
        }
    }
}

template <typename T>
class DepthBearing : public ::testing::Test {};
using DepthTypes = ::testing::Types<Vec2S, LabelDepthVolumeSample>;
TYPED_TEST_SUITE(DepthBearing, DepthTypes);

template <typename T>
void setDepth(TestBlock<T>& block, int x, int y, int z, short value, short weight) {
    Vec2S& s = depthPart(block.volume.at(x, y, z));
    s(0) = value;
    s(1) = weight;
}

TYPED_TEST(DepthBearing, ValOnALatticePointReadsOnlyThatPoint) {
    TestBlock<TypeParam> block;
    setDepth(block, 2, 3, 4, 16383, 1);
    const float spacing = block.volume.spacing()(0);
    const Vec3 p(2 * spacing, 3 * spacing, 4 * spacing);
    EXPECT_EQ(block.volume.val(p), 16383 * 3.051944077014923e-05f);

    // Inside a cell with one observed and seven unobserved corners: the sentinel.
    const Vec3 inside(2.5f * spacing, 3 * spacing, 4 * spacing);
    EXPECT_EQ(block.volume.val(inside), -2.0f);
    float value = 7.0f;
    Vec3 gradient(7.0f, 7.0f, 7.0f);
    EXPECT_FALSE(block.volume.valueAndGradient(inside, value, gradient));
    EXPECT_EQ(value, 7.0f);
    EXPECT_EQ(gradient(0), 7.0f);
}

TYPED_TEST(DepthBearing, ValAtTheUpperEndReadsOnlyIndexEight) {
    TestBlock<TypeParam> block;
    setDepth(block, 8, 8, 8, -1000, 3);
    EXPECT_EQ(block.volume.val(block.volume.dimension()), -1000 * 3.051944077014923e-05f);
    setDepth(block, 8, 8, 8, -1000, 0);
    EXPECT_EQ(block.volume.val(block.volume.dimension()), -2.0f);
}

// A field linear in the lattice indices is reproduced exactly by trilinear interpolation, and
// its gradient is the slope per metre; catches swapped corners or weights.
TYPED_TEST(DepthBearing, LinearFieldValueAndGradient) {
    TestBlock<TypeParam> block;
    const int ax = 100, ay = -300, az = 700, base = -2000;
    for (int z = 0; z < 9; ++z)
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 9; ++x)
                setDepth(block, x, y, z, static_cast<short>(base + ax * x + ay * y + az * z), 1);
    const float sp = block.volume.spacing()(0);
    const float scale = 3.051944077014923e-05f;
    for (const Vec3& lattice :
         {Vec3(0.25f, 0.5f, 0.75f), Vec3(3.9f, 7.1f, 0.3f), Vec3(7.5f, 2.0f, 6.25f)}) {
        const Vec3 p(lattice(0) * sp, lattice(1) * sp, lattice(2) * sp);
        const float expected = (base + ax * lattice(0) + ay * lattice(1) + az * lattice(2)) * scale;
        EXPECT_NEAR(block.volume.val(p), expected, 1e-5f);
        float value;
        Vec3 gradient;
        ASSERT_TRUE(block.volume.valueAndGradient(p, value, gradient));
        EXPECT_NEAR(value, expected, 1e-5f);
        EXPECT_NEAR(gradient(0), ax * scale / sp, 1e-3f);
        EXPECT_NEAR(gradient(1), ay * scale / sp, 1e-3f);
        EXPECT_NEAR(gradient(2), az * scale / sp, 1e-3f);
    }
}

// The gradient is the derivative of the trilinear form, not a central difference: on the
// product field x*y*z its x component at a cell point is fy * fz scaled by the corner spread.
TYPED_TEST(DepthBearing, GradientOfAProductFieldIsAnalytic) {
    TestBlock<TypeParam> block;
    for (int z = 0; z < 9; ++z)
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 9; ++x)
                setDepth(block, x, y, z, 0, 1);
    setDepth(block, 1, 1, 1, 32766, 1);  // c111 of the first cell
    const float sp = block.volume.spacing()(0);
    const Vec3 p(0.5f * sp, 0.25f * sp, 0.75f * sp);
    float value;
    Vec3 gradient;
    ASSERT_TRUE(block.volume.valueAndGradient(p, value, gradient));
    const float c = 32766 * 3.051944077014923e-05f;
    EXPECT_NEAR(value, 0.5f * 0.25f * 0.75f * c, 1e-6f);
    EXPECT_NEAR(gradient(0), 0.25f * 0.75f * c / sp, 1e-4f);
    EXPECT_NEAR(gradient(1), 0.5f * 0.75f * c / sp, 1e-4f);
    EXPECT_NEAR(gradient(2), 0.5f * 0.25f * c / sp, 1e-4f);
}

template <typename T>
class LabelBearing : public ::testing::Test {};
using LabelTypes = ::testing::Types<LabelDepthVolumeSample, LabelVolumeSample>;
TYPED_TEST_SUITE(LabelBearing, LabelTypes);

TYPED_TEST(LabelBearing, GetSampleTruncatesAndIncludesTheUpperEnd) {
    TestBlock<TypeParam> block;
    for (int z = 0; z < 9; ++z)
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 9; ++x)
                block.volume.at(x, y, z).instance = static_cast<uint16_t>(x + 10 * y + 100 * z);
    const float sp = block.volume.spacing()(0);
    const Vec3 dim = block.volume.dimension();

    auto top = block.volume.getSample(dim);
    ASSERT_TRUE(top.has_value());
    EXPECT_EQ(top->instance, 888);
    EXPECT_FALSE(block.volume.getSample(Vec3(std::nextafter(dim(0), 1.0f), 0, 0)).has_value());
    EXPECT_FALSE(block.volume.getSample(Vec3(0, -1e-7f, 0)).has_value());
    EXPECT_FALSE(block.volume.getSample(Vec3(0, 0, NAN)).has_value());

    // Just below lattice plane 3 on x: index 2, not the nearer 3.
    auto below = block.volume.getSample(Vec3(2.999f * sp, 1.0f * sp, 0.0f));
    ASSERT_TRUE(below.has_value());
    EXPECT_EQ(below->instance, 2 + 10 * 1);
    auto origin = block.volume.getSample(Vec3(0, 0, 0));
    ASSERT_TRUE(origin.has_value());
    EXPECT_EQ(origin->instance, 0);
}

TEST(LabelVote, CountsSaturateAndOutOfRangeAborts) {
    LabelVolumeSample s = creationSample<LabelVolumeSample>();
    for (int i = 0; i < 300; ++i) {
        updateLabels(s, 7);
    }
    updateLabels(s, 31);
    EXPECT_EQ(s.labels[7], 255);
    EXPECT_EQ(s.labels[31], 1);
    EXPECT_EQ(s.labels[6], 0);
    volatile LabelCountType outOfRange = 32;  // keeps the compiler from proving the abort
    EXPECT_DEATH(updateLabels(s, outOfRange), "label < sample.labels.size()");
}

TEST(VolumeConfigDeathTest, DegenerateShapeAborts) {
    VolumeConfig config;
    EXPECT_DEATH(makeVolumeConfig(config, Size(1, 9, 9), Vec3(0.02f, 0.02f, 0.02f)), "bounds");
    EXPECT_DEATH(makeVolumeConfig(config, Size(9, 9, 9), Vec3(0.02f, 0.0f, 0.02f)), "dimension");
}

}  // namespace
}  // namespace Solid
