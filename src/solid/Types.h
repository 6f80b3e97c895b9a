// Plain stand-ins for the math, container and image types that the volume and its kernels use.
// They carry exactly the members those need and give way to the foundation types as they land.
#ifndef VELMORA_SOLID_TYPES_H
#define VELMORA_SOLID_TYPES_H

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "common/Assert.h"

namespace Solid {

template <typename T, int N>
struct PlainVector {
    T v[N];
    T& operator()(int i) {
        AR_ASSERT(i >= 0 && i < N);
        return v[i];
    }
    const T& operator()(int i) const {
        AR_ASSERT(i >= 0 && i < N);
        return v[i];
    }
};

using Vec3 = PlainVector<float, 3>;
using Vec4 = PlainVector<float, 4>;
using Size = PlainVector<int, 3>;
using Index3 = PlainVector<int, 3>;
// Depth sample: (0) truncated signed distance in 1/32766 of the band, (1) observation count.
using Vec2S = PlainVector<short, 2>;

// Row-major 4x4 float matrix.
struct Matrix4 {
    float m[16];
    float& operator()(int r, int c) {
        AR_ASSERT(r >= 0 && r < 4 && c >= 0 && c < 4);
        return m[r * 4 + c];
    }
    float operator()(int r, int c) const {
        AR_ASSERT(r >= 0 && r < 4 && c >= 0 && c < 4);
        return m[r * 4 + c];
    }
    static Matrix4 identity() {
        Matrix4 out{};
        out.m[0] = out.m[5] = out.m[10] = out.m[15] = 1.0f;
        return out;
    }
};

// Fixed-capacity array with a stored element count; never allocates.
template <typename T, uint32_t MAX_SIZE>
struct SmallVector {
    uint32_t current_size;
    T items[MAX_SIZE];
    uint32_t size() const { return current_size; }
    void resize(uint32_t newSize) {
        AR_ASSERT(newSize <= MAX_SIZE);
        current_size = newSize;
    }
    T& operator[](uint32_t i) { return items[i]; }
    const T& operator[](uint32_t i) const { return items[i]; }
};

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
