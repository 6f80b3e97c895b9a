// The math, container and image types that the volume and its kernels use, under the names the
// reconstruction code knows them by.
#ifndef VELMORA_SOLID_TYPES_H
#define VELMORA_SOLID_TYPES_H

#include "common/Assert.h"
#include "common/SmallVector.h"
#include "math/SolidTypes.h"

namespace Solid {

using AR::Common::SmallVector;

// 2D image read and written as (x, y); rows `rowLength` elements apart. Owns nothing.
template <typename T>
struct Image {
    T* mPixels = nullptr;
    int mWidth = 0;
    int mHeight = 0;
    int mRowLength = 0;
    Image() = default;
    Image(T* pixels, int width, int height, int rowLength)
        : mPixels(pixels), mWidth(width), mHeight(height), mRowLength(rowLength) {}
    int width() const { return mWidth; }
    int height() const { return mHeight; }
    int numPixels() const { return mWidth * mHeight; }
    T& operator()(int x, int y) const {
        AR_ASSERT(x >= 0 && x < mWidth && y >= 0 && y < mHeight);
        return mPixels[y * mRowLength + x];
    }
};

}  // namespace Solid

#endif  // VELMORA_SOLID_TYPES_H
