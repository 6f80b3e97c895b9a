#include "velmora/ImageIntake.h"

#include <cstddef>
#include <cstdint>

#include "common/Trace.h"
#include "cv/ImageOps.h"
#include "solid/volume/LabelVolumeSample.h"

namespace Velmora {

namespace {

using AR::CV::Size2i;

Size2i sizeOf(const Image& image) {
    return Size2i(static_cast<int32_t>(image.width), static_cast<int32_t>(image.height));
}

// Row length of a 16-bit image in pixels; an odd stride loses its lowest bit.
int32_t rowLength16(const Image& image) {
    return static_cast<int32_t>((image.stride & ~1u) / 2);
}

// A view of the host's 16-bit pixels; frees nothing when it goes.
AR::CV::Image<unsigned short> viewU16(const Image& image) {
    AR::CV::Image<unsigned short> view;
    view.set(static_cast<unsigned short*>(const_cast<void*>(image.pixelData)), sizeOf(image),
             Size2i(rowLength16(image), static_cast<int32_t>(image.height)), false);
    return view;
}

// Copies the depth image and its millimetre twin of `source`; matrices stay identity.
void copyDepthPart(Solid::DepthFrame& target, const Solid::DepthFrame& source) {
    target.depth = source.depth;
    target.depthU16 = source.depthU16;
    target.timestamp = source.timestamp;
}

}  // namespace

bool checkImage(const Image& image) {
    return image.stride != 0 && image.pixelData != nullptr && image.width != 0 && image.height != 0;
}

bool rowsAreReadable(const Image& image) {
    switch (image.format) {
        case kImageDepthU16:
        case kImageDepthU16Flagged:
        case kImageLabelU16:
            return static_cast<uint32_t>(rowLength16(image)) >= image.width;
        case kImageLabelU8:
            return image.stride >= image.width;
        default:
            return true;  // colour rows are read densely, other formats not at all
    }
}

bool labelsAreCounted(const Image& image) {
    // The OR of all classes has a bit of 32 or above exactly when one class has: one pass
    // without a branch per pixel.
    static_assert((Solid::kNumLabels & (Solid::kNumLabels - 1)) == 0, "a power of two");
    const auto below = [&image](const auto* pixels, size_t rowLength) {
        uint32_t all = 0;
        for (uint32_t y = 0; y < image.height; ++y) {
            const auto* row = pixels + static_cast<size_t>(y) * rowLength;
            for (uint32_t x = 0; x < image.width; ++x) {
                all |= row[x];
            }
        }
        return all < Solid::kNumLabels;
    };
    if (image.format == kImageLabelU8) {
        return below(static_cast<const uint8_t*>(image.pixelData), image.stride);
    }
    if (image.format == kImageLabelU16) {
        return below(static_cast<const uint16_t*>(image.pixelData),
                     static_cast<size_t>(rowLength16(image)));
    }
    return true;
}

bool indexOfDepthLabelColorImages(span<const Image> images, int& depthIdx, int& labelIdx,
                                  int& colorIdx) {
    for (uint32_t i = 0; i < images.size; ++i) {
        switch (images.data[i].format) {
            case kImageDepthU16:
            case kImageDepthU16Flagged:
                depthIdx = static_cast<int>(i);
                break;
            case kImageLabelU8:
            case kImageLabelU16:
                labelIdx = static_cast<int>(i);
                break;
            case kImageColorRGB8:
                colorIdx = static_cast<int>(i);
                break;
            default:
                break;
        }
    }
    return depthIdx >= 0 && labelIdx >= 0;
}

Solid::DepthFrame makeDepthFrame(XrTimeVLM time, const Image& image) {
    AR::Common::ScopedTrace trace("DepthMapFormatting");
    Solid::DepthFrame frame;
    frame.depth.allocPixels(sizeOf(image), AR::Common::ALIGNMENT_16);
    frame.timestamp = time;
    const uint16_t mask = image.format == kImageDepthU16Flagged ? kDepthFlagMask : 0;
    const uint32_t limit = image.maxDepth != 0 ? image.maxDepth : UINT32_MAX;
    const int height = static_cast<int>(image.height);
    const int width = static_cast<int>(image.width);
    // Row pointers: the view checked the sizes once, so no pixel needs its own bounds check.
    const AR::CV::Image<unsigned short> raw = viewU16(image);
    const unsigned short* source = raw.pixels();
    const size_t sourceRow = static_cast<size_t>(raw.bufSize()(0));
    const size_t targetRow = static_cast<size_t>(frame.depth.bufSize()(0));
    for (int y = 0; y < height; ++y) {
        const unsigned short* in = source + static_cast<size_t>(y) * sourceRow;
        float* out = frame.depth.pixels() + static_cast<size_t>(y) * targetRow;
        for (int x = 0; x < width; ++x) {
            const uint16_t pixel = in[x];
            uint32_t value = (pixel & mask) != 0 ? 0u : static_cast<uint32_t>(pixel & ~mask);
            if (value > limit) {
                value = 0;
            }
            out[x] = static_cast<float>(value) * kMillimetresToMetres;
        }
    }
    return frame;
}

AR::CV::Image<unsigned char> convertToSolidLabelImage(const Image& image) {
    AR::CV::Image<unsigned char> labels;
    if (image.format == kImageLabelU8) {
        labels.set(static_cast<unsigned char*>(const_cast<void*>(image.pixelData)), sizeOf(image),
                   Size2i(static_cast<int32_t>(image.stride), static_cast<int32_t>(image.height)),
                   false);
        return labels;
    }
    AR_ASSERT(image.format == kImageLabelU16);
    AR::CV::ImageOps::convert<unsigned short>(viewU16(image), labels);
    return labels;
}

AR::CV::Image<AR::CV::Pixel24> convertToSolidRGBImage(const Image& image) {
    AR::CV::Image<AR::CV::Pixel24> rgb;
    rgb.set(static_cast<AR::CV::Pixel24*>(const_cast<void*>(image.pixelData)), sizeOf(image),
            Size2i(static_cast<int32_t>(image.stride / 3), static_cast<int32_t>(image.height)),
            false);
    return rgb;
}

Solid::LabelDepthFrame makeLabelDepthFrame(XrTimeVLM time, const Image& depthImage,
                                           const Image& labelImage) {
    const Solid::DepthFrame depth = makeDepthFrame(time, depthImage);
    Solid::LabelDepthFrame frame;
    copyDepthPart(frame, depth);
    frame.labels = convertToSolidLabelImage(labelImage);
    return frame;
}

Solid::RGBDFrame makeDepthColorFrame(XrTimeVLM time, const Image& depthImage,
                                     const Image& colorImage) {
    const Solid::DepthFrame depth = makeDepthFrame(time, depthImage);
    Solid::RGBDFrame frame;
    copyDepthPart(frame, depth);
    // The frame outlives the call, so it owns a dense copy; the host's stride plays no part.
    frame.rgb.copyPixels(static_cast<const AR::CV::Pixel24*>(colorImage.pixelData),
                         sizeOf(colorImage), sizeOf(colorImage), AR::Common::ALIGNMENT_16);
    return frame;
}

Solid::LabelFrame makeLabelFrame(XrTimeVLM time, const Image& labelImage) {
    Solid::LabelFrame frame;
    frame.timestamp = time;
    frame.labels = convertToSolidLabelImage(labelImage);
    return frame;
}

}  // namespace Velmora
