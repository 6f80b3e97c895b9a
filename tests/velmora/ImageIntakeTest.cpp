// Host images to frames: millimetres to metres, the flag bits of format 1, the inclusive depth
// limit, strides, label views and copies, colour copies, and the lookup of images by kind.
#include <gtest/gtest.h>

#include <vector>

#include "velmora/ImageIntake.h"

namespace Velmora {
namespace {

Image depthImage(const std::vector<uint16_t>& pixels, uint32_t width, uint32_t height,
                 uint32_t stride, uint32_t format = kImageDepthU16, uint32_t maxDepth = 0) {
    return Image{format, pixels.data(), width, height, stride, maxDepth};
}

TEST(ImageIntake, DepthConversionFlagsAndLimit) {
    const std::vector<uint16_t> raw = {65535, 0x2001, 0x1FFF, 4000, 4001, 0};
    // Format 0: every bit counts; no limit.
    Solid::DepthFrame plain = makeDepthFrame(77, depthImage(raw, 6, 1, 12));
    EXPECT_EQ(plain.timestamp, 77);
    EXPECT_EQ(plain.depth.width(), 6);
    EXPECT_EQ(plain.depth(0, 0), 65535 * 0.001f);   // 65.535 m, a multiplication by 0.001f
    EXPECT_EQ(plain.depth(1, 0), 0x2001 * 0.001f);  // 8.193 m
    EXPECT_EQ(plain.depth(5, 0), 0.0f);
    EXPECT_EQ(plain.depthU16.numPixels(), 0);

    // Format 1: any of the top three bits marks no measurement.
    Solid::DepthFrame flagged = makeDepthFrame(0, depthImage(raw, 6, 1, 12, kImageDepthU16Flagged));
    EXPECT_EQ(flagged.depth(0, 0), 0.0f);
    EXPECT_EQ(flagged.depth(1, 0), 0.0f);
    EXPECT_EQ(flagged.depth(2, 0), 8191 * 0.001f);

    // The limit is inclusive and applies after the flag bits are gone.
    Solid::DepthFrame limited = makeDepthFrame(0, depthImage(raw, 6, 1, 12, kImageDepthU16, 4000));
    EXPECT_EQ(limited.depth(0, 0), 0.0f);
    EXPECT_EQ(limited.depth(3, 0), 4000 * 0.001f);
    EXPECT_EQ(limited.depth(4, 0), 0.0f);
    Solid::DepthFrame big = makeDepthFrame(0, depthImage(raw, 6, 1, 12, kImageDepthU16, 10000));
    EXPECT_EQ(big.depth(0, 0), 0.0f);
    EXPECT_EQ(big.depth(1, 0), 0x2001 * 0.001f);
    // Two rows of three pixels, rows four pixels apart: an odd stride loses its lowest bit.
    const std::vector<uint16_t> rows = {1000, 2000, 3000, 9999, 4000, 5000, 6000, 9999};
    Solid::DepthFrame strided = makeDepthFrame(0, depthImage(rows, 3, 2, 9));
    EXPECT_EQ(strided.depth(0, 1), 4000 * 0.001f);
    EXPECT_EQ(strided.depth(2, 1), 6000 * 0.001f);
}

TEST(ImageIntake, LabelsAreViewedOrSaturatedColourIsCopied) {
    std::vector<uint8_t> labels8 = {1, 2, 3, 0, 4, 5, 6, 0};  // 3 wide, stride 4
    const Image label8{kImageLabelU8, labels8.data(), 3, 2, 4, 0};
    AR::CV::Image<unsigned char> view = convertToSolidLabelImage(label8);
    EXPECT_EQ(view(2, 1), 6);
    labels8[4] = 9;  // a view: the host's pixels are read as they are now
    EXPECT_EQ(view(0, 1), 9);

    const std::vector<uint16_t> labels16 = {300, 7, 255, 256};
    const Image label16{kImageLabelU16, labels16.data(), 2, 2, 4, 0};
    AR::CV::Image<unsigned char> saturated = convertToSolidLabelImage(label16);
    EXPECT_EQ(saturated(0, 0), 255);
    EXPECT_EQ(saturated(1, 0), 7);
    EXPECT_EQ(saturated(1, 1), 255);
    EXPECT_NE(static_cast<const void*>(saturated.pixels()),
              static_cast<const void*>(labels16.data()));

    // Colour: rows taken as dense whatever the stride, and owned by the frame.
    std::vector<uint8_t> rgb = {10, 11, 12, 20, 21, 22, 30, 31, 32, 40, 41, 42};
    const Image colour{kImageColorRGB8, rgb.data(), 2, 2, 100, 0};
    const std::vector<uint16_t> depth = {1000, 1000, 1000, 1000};
    Solid::RGBDFrame frame = makeDepthColorFrame(5, depthImage(depth, 2, 2, 4), colour);
    rgb[9] = 0;
    EXPECT_EQ(frame.rgb(1, 1).c0, 40);
    EXPECT_EQ(frame.rgb(0, 1).c1, 31);
    EXPECT_EQ(frame.depth(1, 1), 1.0f);
    EXPECT_EQ(frame.timestamp, 5);
}

TEST(ImageIntake, ImagesAreFoundByKindAndTheLaterWins) {
    const uint16_t pixel = 0;
    const auto image = [&pixel](uint32_t format) { return Image{format, &pixel, 1, 1, 2, 0}; };
    const Image d0 = image(kImageDepthU16);
    const Image images[] = {d0, image(kImageLabelU16), image(9), image(kImageDepthU16Flagged),
                            image(kImageColorRGB8)};
    int depth = -1, label = -1, colour = -1;
    EXPECT_TRUE(indexOfDepthLabelColorImages(span<const Image>{images, 5}, depth, label, colour));
    EXPECT_EQ(depth * 100 + label * 10 + colour, 314);
    depth = label = colour = -1;
    EXPECT_FALSE(indexOfDepthLabelColorImages(span<const Image>{images, 1}, depth, label, colour));
    EXPECT_EQ(depth, 0);
    EXPECT_TRUE(checkImage(d0));
    Image bad[4] = {d0, d0, d0, d0};
    bad[0].pixelData = nullptr;
    bad[1].width = 0;
    bad[2].height = 0;
    bad[3].stride = 0;
    for (const Image& image : bad)
        EXPECT_FALSE(checkImage(image)) << &image - bad;
}

}  // namespace
}  // namespace Velmora
