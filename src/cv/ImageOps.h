// Pixel-wise conversions between images.
#ifndef VELMORA_CV_IMAGEOPS_H
#define VELMORA_CV_IMAGEOPS_H

#include "cv/Image.h"

namespace AR {
namespace CV {
namespace ImageOps {

// `output` becomes an image of the size of `input`, 16-byte aligned, each pixel min(value, 255).
template <typename T>
void convert(const Image<T>& input, Image<unsigned char>& output);

// Each pixel becomes value * scale, truncated to an unsigned 32-bit integer (negative products
// give 0) and stored in its low 16 bits. The images must have pixels and the same size; `output`
// is not allocated here.
template <typename In, typename Out>
void convertDepthImage(const Image<In>& input, float scale, Image<Out>& output);

}  // namespace ImageOps
}  // namespace CV
}  // namespace AR

#endif  // VELMORA_CV_IMAGEOPS_H
