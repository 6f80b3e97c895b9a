// Host images to the reconstruction's frames. Depth arrives in millimetres and becomes float
// metres; 8-bit labels are viewed in place (valid only during the call), 16-bit labels are
// saturated into a new image; colour is always copied as dense rows. The caller has validated
// the images (non-null pixels, non-zero sizes) and sorted them by format.
#ifndef VELMORA_VELMORA_IMAGEINTAKE_H
#define VELMORA_VELMORA_IMAGEINTAKE_H

#include "solid/volume/Frames.h"
#include "velmora/Velmora.h"

namespace Velmora {

// Millimetres to metres, as a float multiplication (not a division).
constexpr float kMillimetresToMetres = 0.001f;
// Flag field of format 1 depth pixels: a pixel with any of these bits has no measurement.
constexpr uint16_t kDepthFlagMask = 0xE000;

// True when stride, pixel pointer, width and height are all non-zero.
bool checkImage(const Image& image);

// Whether the rows of `stride` bytes hold `width` pixels of the image's format, where the intake
// reads rows at that length (16-bit images at the stride with its lowest bit cleared).
bool rowsAreReadable(const Image& image);

// Whether every class of a label image (format 2 or 3) is one the volume counts, below 32; true
// for other formats. Needs rowsAreReadable.
bool labelsAreCounted(const Image& image);

// Writes the index of each image into the output of its kind (formats 0 and 1 depth, 2 and 3
// label, 4 colour); other formats are skipped and a later image of a kind wins. The outputs are
// not reset here. True when a depth and a label image were found.
bool indexOfDepthLabelColorImages(span<const Image> images, int& depthIdx, int& labelIdx,
                                  int& colorIdx);

Solid::DepthFrame makeDepthFrame(XrTimeVLM time, const Image& image);
AR::CV::Image<unsigned char> convertToSolidLabelImage(const Image& image);
// A view of the host's colour pixels; the pipeline copies colour instead.
AR::CV::Image<AR::CV::Pixel24> convertToSolidRGBImage(const Image& image);
Solid::LabelDepthFrame makeLabelDepthFrame(XrTimeVLM time, const Image& depthImage,
                                           const Image& labelImage);
Solid::RGBDFrame makeDepthColorFrame(XrTimeVLM time, const Image& depthImage,
                                     const Image& colorImage);
Solid::LabelFrame makeLabelFrame(XrTimeVLM time, const Image& labelImage);

}  // namespace Velmora

#endif  // VELMORA_VELMORA_IMAGEINTAKE_H
