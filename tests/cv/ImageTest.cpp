// Images: allocation and reuse (including the reshape search), views and ownership, copies,
// moves, swaps, the description, and the bounds check on every access.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "common/OS.h"
#include "cv/Image.h"

namespace {

using AR::Common::OS;
using AR::CV::Image;
using AR::CV::Pixel24;
using AR::CV::Size2i;

// A value per pixel index that differs between neighbouring pixels and rows for every type.
template <typename T>
T pixelValue(int i) {
    if constexpr (std::is_same_v<T, Pixel24>) {
        return Pixel24{static_cast<uint8_t>(i), static_cast<uint8_t>(i + 1),
                       static_cast<uint8_t>(i * 3)};
    } else {
        return static_cast<T>(i * 7 % 251);
    }
}
template <typename T>
bool samePixel(const T& a, const T& b) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

template <typename T>
void fill(Image<T>& image) {
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            image(x, y) = pixelValue<T>(x + 100 * y);
        }
    }
}
template <typename T>
bool holdsFill(const Image<T>& image) {
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if (!samePixel(image(x, y), pixelValue<T>(x + 100 * y))) {
                return false;
            }
        }
    }
    return true;
}

template <typename T>
class ImageTyped : public testing::Test {};
using PixelTypes = testing::Types<float, unsigned short, unsigned char, Pixel24>;
TYPED_TEST_SUITE(ImageTyped, PixelTypes);

TYPED_TEST(ImageTyped, OwnedBufferIsAlignedDescribedAndFreed) {
    const int64_t aligned = OS::getNumAlignedBuffers();
    {
        Image<TypeParam> image(Size2i(7, 3));
        EXPECT_EQ(OS::getNumAlignedBuffers(), aligned + 1);
        EXPECT_TRUE(image.isOwned());
        EXPECT_EQ(reinterpret_cast<uintptr_t>(image.pixels()) % 16, 0u);
        EXPECT_EQ(image.numPixels(), 21);
        EXPECT_EQ(image.rowBytes(), 7 * sizeof(TypeParam));
        const AR::CV::ImageDescription& d = image.description();
        EXPECT_EQ(d.width, 7);
        EXPECT_EQ(d.height, 3);
        EXPECT_EQ(d.formatTag, AR::CV::formatTagOf<TypeParam>());
        EXPECT_EQ(d.byteSize, 21 * sizeof(TypeParam));
        EXPECT_EQ(d.pixels, image.pixels());
        EXPECT_EQ(image.roi(), Size2i(-1, -1));
        fill(image);
        EXPECT_TRUE(holdsFill(image));

        Image<TypeParam> copy(image, AR::Common::ALIGNMENT_64);
        EXPECT_NE(copy.pixels(), image.pixels());
        EXPECT_EQ(reinterpret_cast<uintptr_t>(copy.pixels()) % 64, 0u);
        EXPECT_TRUE(holdsFill(copy));
        copy(0, 0) = pixelValue<TypeParam>(999);
        EXPECT_TRUE(holdsFill(image));

        Image<TypeParam> moved(std::move(copy));
        EXPECT_EQ(copy.pixels(), nullptr);
        EXPECT_FALSE(copy.isOwned());
        EXPECT_EQ(OS::getNumAlignedBuffers(), aligned + 2);
    }
    EXPECT_EQ(OS::getNumAlignedBuffers(), aligned);
}

TEST(Image, ReuseReshapeOrReallocateByAreaShapeAndAlignment) {
    Image<unsigned char> image;
    EXPECT_TRUE(image.allocPixels(Size2i(0, 5)));
    EXPECT_EQ(image.pixels(), nullptr);

    ASSERT_TRUE(image.allocPixels(Size2i(10, 10)));
    unsigned char* buffer = image.pixels();
    // Smaller on both axes: same buffer, same rows.
    ASSERT_TRUE(image.allocPixels(Size2i(5, 4)));
    EXPECT_EQ(image.pixels(), buffer);
    EXPECT_EQ(image.bufSize(), Size2i(10, 10));
    EXPECT_EQ(image.size(), Size2i(5, 4));
    // Same area, other shape: 20 divides 100, so the buffer is reshaped to 20 by 5.
    ASSERT_TRUE(image.allocPixels(Size2i(20, 5)));
    EXPECT_EQ(image.pixels(), buffer);
    EXPECT_EQ(image.bufSize(), Size2i(20, 5));
    EXPECT_EQ(image.rowBytes(), 20u);
    EXPECT_EQ(image.description().byteSize, 100u);
    // 16 by 6 fits the area of 100, but 16 does not divide 100 and 17 * 6 exceeds it: no width
    // works and a new buffer is made.
    ASSERT_TRUE(image.allocPixels(Size2i(16, 6)));
    EXPECT_EQ(image.bufSize(), Size2i(16, 6));
    // 12 by 8: the search finds 12 divides 96 with 12 * 8 = 96: reshaped in place.
    buffer = image.pixels();
    ASSERT_TRUE(image.allocPixels(Size2i(12, 8)));
    EXPECT_EQ(image.pixels(), buffer);
    EXPECT_EQ(image.bufSize(), Size2i(12, 8));

    ASSERT_TRUE(image.allocPixels(Size2i(10, 10), AR::Common::ALIGNMENT_16, true));
    EXPECT_EQ(image.bufSize(), Size2i(10, 10));
    // 7 by 14 fits the area but no width from 7 with w * 14 <= 100 divides 100: new buffer.
    ASSERT_TRUE(image.allocPixels(Size2i(7, 14)));
    EXPECT_EQ(image.bufSize(), Size2i(7, 14));
    // A stricter alignment needs a new buffer even when the area fits.
    ASSERT_TRUE(image.allocPixels(Size2i(2, 2), AR::Common::ALIGNMENT_128));
    EXPECT_EQ(image.bufSize(), Size2i(2, 2));
    EXPECT_EQ(image.alignment(), AR::Common::ALIGNMENT_128);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(image.pixels()) % 128, 0u);
    // forceNew always makes a new buffer of exactly the size.
    ASSERT_TRUE(image.allocPixels(Size2i(1, 1), AR::Common::ALIGNMENT_16, true));
    EXPECT_EQ(image.bufSize(), Size2i(1, 1));
}

TEST(Image, ViewsWriteIntoForeignMemoryUntilTheyMustAllocate) {
    const int64_t aligned = OS::getNumAlignedBuffers();
    alignas(32) unsigned short memory[6 * 4] = {};
    Image<unsigned short> view;
    view.set(memory, Size2i(5, 4), Size2i(6, 4), false);
    EXPECT_FALSE(view.isOwned());
    EXPECT_EQ(view.alignment(), OS::getAlignment(memory));
    EXPECT_EQ(view.rowBytes(), 12u);
    view(4, 3) = 77;
    EXPECT_EQ(memory[4 + 3 * 6], 77);
    // Enough room: the view stays a view and reshapes its memory (8 divides 24, 8 * 3 = 24).
    ASSERT_TRUE(view.allocPixels(Size2i(8, 3), AR::Common::ALIGNMENT_2));
    EXPECT_EQ(view.pixels(), memory);
    view(7, 2) = 5;
    EXPECT_EQ(memory[23], 5);
    // Moving a view keeps it a view.
    Image<unsigned short> movedView;
    movedView = std::move(view);
    EXPECT_EQ(movedView.pixels(), memory);
    EXPECT_FALSE(movedView.isOwned());
    // Too little room: the view ends, the foreign memory is left alone.
    ASSERT_TRUE(movedView.allocPixels(Size2i(10, 10)));
    EXPECT_NE(movedView.pixels(), memory);
    EXPECT_TRUE(movedView.isOwned());
    EXPECT_EQ(OS::getNumAlignedBuffers(), aligned + 1);

    // A handed-over buffer is freed by the image.
    auto* handed = static_cast<unsigned short*>(OS::allocMemAligned(4 * sizeof(short), 16));
    Image<unsigned short> owner;
    owner.set(handed, Size2i(2, 2), Size2i(2, 2), true);
    EXPECT_TRUE(owner.isOwned());
    owner.set(nullptr, Size2i(), Size2i(), false);
    EXPECT_EQ(OS::getNumAlignedBuffers(), aligned + 1);
}

TEST(Image, CopyPixelsFollowsBothRowLengthsAndSwapKeepsCounts) {
    std::vector<float> source(8 * 3);
    for (size_t i = 0; i < source.size(); ++i) {
        source[i] = static_cast<float>(i);
    }
    Image<float> strided;
    strided.copyPixels(source.data(), Size2i(5, 3), Size2i(8, 3));
    EXPECT_EQ(strided.bufSize(), Size2i(5, 3));
    EXPECT_EQ(strided(4, 2), 20.0f);
    EXPECT_EQ(strided(0, 1), 8.0f);
    Image<float> whole;
    whole.copyPixels(source.data(), Size2i(8, 3), Size2i(8, 3));
    EXPECT_EQ(whole(7, 2), 23.0f);

    float* stridedPixels = strided.pixels();
    float* wholePixels = whole.pixels();
    strided.addRef();
    strided.setPreferredFormatTag(AR::CV::kFormatU8);
    strided.swap(whole);
    EXPECT_EQ(strided.pixels(), wholePixels);
    EXPECT_EQ(whole.pixels(), stridedPixels);
    EXPECT_EQ(whole.description().formatTag, AR::CV::kFormatU8);
    EXPECT_EQ(strided.description().formatTag, AR::CV::kFormatFloat);
    EXPECT_EQ(strided.getRefCount(), 1);
    EXPECT_EQ(whole.getRefCount(), 0);
    strided.release();
}

TEST(ImageDeathTest, EveryAccessIsBoundsChecked) {
    Image<unsigned char> image(Size2i(4, 3));
    image(3, 2) = 1;
    image.checkBounds(3, 2);
    EXPECT_DEATH(image.checkBounds(4, 0), "AR_ASSERT x >= 0 && x < mSize\\(0\\)");
    EXPECT_DEATH(image(0, 3), "AR_ASSERT y >= 0 && y < mSize\\(1\\)");
    EXPECT_DEATH(image(-1, 0), "AR_ASSERT x >= 0");
    Image<unsigned char> empty;
    EXPECT_DEATH(empty.checkBounds(0, 0), "AR_ASSERT mPixels != nullptr");
}

}  // namespace
