// Bodies of AR::CV::Image<T>; instantiated in Image.cpp for the four pixel types.
#ifndef VELMORA_CV_IMAGEIMPL_H
#define VELMORA_CV_IMAGEIMPL_H

#include <cstring>
#include <utility>

#include "common/Assert.h"
#include "cv/Image.h"

namespace AR {
namespace CV {

template <typename T>
Image<T>::Image() {
    updateDescription();
}

template <typename T>
Image<T>::Image(const Size2i& size, Common::MEMORY_ALIGNMENT alignment) : Image() {
    allocPixels(size, alignment, false);
}

template <typename T>
Image<T>::Image(const Image& other, Common::MEMORY_ALIGNMENT alignment)
    : Common::RefCounterT<Common::RefCounterHelper::AccessProtector_NoProtection>(other),
      mRoi(other.mRoi) {
    mDescription.preferredFormatTag = other.mDescription.preferredFormatTag;
    copyPixels(other.mPixels, other.mSize, other.mBufSize, alignment);
}

template <typename T>
Image<T>::Image(Image&& other) noexcept : Image() {
    *this = std::move(other);
}

template <typename T>
Image<T>& Image<T>::operator=(const Image& other) {
    if (this != &other) {
        Image copy(other, mAlignment);
        swap(copy);
    }
    return *this;
}

template <typename T>
Image<T>& Image<T>::operator=(Image&& source) noexcept {
    // The temporary takes the source's buffer, then this object's; leaving scope, it frees
    // whatever this object held. A view stays a view: no pixel is copied.
    Image temporary;
    temporary.swap(source);
    swap(temporary);
    return *this;
}

template <typename T>
Image<T>::~Image() {
    freeBuffer();
}

template <typename T>
void Image<T>::freeBuffer() {
    if (mOwned) {
        Common::OS::freeMemAligned(mPixels);
    }
    mPixels = nullptr;
    mOwned = false;
}

template <typename T>
void Image<T>::clearFields() {
    freeBuffer();
    mSize = Size2i();
    mBufSize = Size2i();
    mRowBytes = 0;
    mSharedOwner.reset();
}

template <typename T>
void Image<T>::updateDescription() {
    mDescription.width = mSize(0);
    mDescription.height = mSize(1);
    mDescription.formatTag = mDescription.preferredFormatTag != kFormatUnset
                                 ? mDescription.preferredFormatTag
                                 : formatTagOf<T>();
    mDescription.pixels = mPixels;
    mDescription.rowBytes = mRowBytes;
    mDescription.byteSize = mRowBytes * static_cast<uint32_t>(mBufSize(1));
}

template <typename T>
void Image<T>::setPreferredFormatTag(uint32_t tag) {
    mDescription.preferredFormatTag = tag;
    updateDescription();
}

template <typename T>
bool Image<T>::allocPixels(const Size2i& size, Common::MEMORY_ALIGNMENT alignment, bool forceNew) {
    AR_ASSERT(size(0) >= 0 && size(1) >= 0);
    const int64_t area = static_cast<int64_t>(size(0)) * size(1);
    const int64_t bufArea = static_cast<int64_t>(mBufSize(0)) * mBufSize(1);
    bool reuse = false;
    if (!forceNew && area <= bufArea && mAlignment >= alignment) {
        if (size(0) <= mBufSize(0) && size(1) <= mBufSize(1)) {
            reuse = true;
        } else {
            // Same memory, other shape: the smallest width from the wanted one upward that
            // divides the buffer's area exactly and leaves room for the wanted height.
            for (int64_t w = size(0); w <= bufArea && w * size(1) <= bufArea; ++w) {
                if (w > 0 && bufArea % w == 0) {
                    mBufSize = Size2i(static_cast<int32_t>(w), static_cast<int32_t>(bufArea / w));
                    mRowBytes = static_cast<uint32_t>(w * static_cast<int64_t>(sizeof(T)));
                    reuse = true;
                    break;
                }
            }
        }
    }
    if (!reuse) {
        clearFields();
        mAlignment = alignment;
        if (area >= 1) {
            mPixels = static_cast<T*>(
                Common::OS::allocMemAligned(static_cast<size_t>(area) * sizeof(T), alignment));
            if (mPixels == nullptr) {
                updateDescription();
                return false;
            }
        }
        mOwned = mPixels != nullptr;
        mBufSize = size;
        mRowBytes = static_cast<uint32_t>(static_cast<int64_t>(size(0)) * sizeof(T));
    }
    mSize = size;
    updateDescription();
    return true;
}

template <typename T>
void Image<T>::set(T* pixels, const Size2i& size, const Size2i& bufSize, bool takeOwnership) {
    AR_ASSERT(pixels == nullptr ||
              (size(0) >= 0 && size(1) >= 0 && size(0) <= bufSize(0) && size(1) <= bufSize(1)));
    clearFields();
    mPixels = pixels;
    mSize = size;
    mBufSize = bufSize;
    mRowBytes = static_cast<uint32_t>(static_cast<int64_t>(bufSize(0)) * sizeof(T));
    mOwned = takeOwnership && pixels != nullptr;
    mAlignment = Common::OS::getAlignment(pixels);
    updateDescription();
}

template <typename T>
void Image<T>::copyPixels(const T* source, const Size2i& size, const Size2i& sourceBufSize,
                          Common::MEMORY_ALIGNMENT alignment) {
    allocPixels(size, alignment, false);
    if (source == nullptr || mPixels == nullptr) {
        return;
    }
    if (sourceBufSize == mBufSize) {
        std::memcpy(
            mPixels, source,
            static_cast<size_t>(mBufSize(0)) * static_cast<size_t>(mBufSize(1)) * sizeof(T));
    } else {
        const size_t rowLength = static_cast<size_t>(size(0)) * sizeof(T);
        for (int32_t y = 0; y < size(1); ++y) {
            std::memcpy(mPixels + static_cast<int64_t>(y) * mBufSize(0),
                        source + static_cast<int64_t>(y) * sourceBufSize(0), rowLength);
        }
    }
    updateDescription();
}

template <typename T>
void Image<T>::swap(Image& other) noexcept {
    std::swap(mPixels, other.mPixels);
    std::swap(mSize, other.mSize);
    std::swap(mBufSize, other.mBufSize);
    std::swap(mRowBytes, other.mRowBytes);
    std::swap(mOwned, other.mOwned);
    mSharedOwner.swap(other.mSharedOwner);
    std::swap(mAlignment, other.mAlignment);
    std::swap(mRoi, other.mRoi);
    std::swap(mDescription, other.mDescription);
}

template <typename T>
void Image<T>::checkBounds(int x, int y) const {
    AR_ASSERT(mPixels != nullptr);
    AR_ASSERT(x >= 0 && x < mSize(0));
    AR_ASSERT(y >= 0 && y < mSize(1));
    AR_ASSERT(x + static_cast<int64_t>(y) * mBufSize(0) <
              static_cast<int64_t>(mBufSize(0)) * mBufSize(1));
}

}  // namespace CV
}  // namespace AR

#endif  // VELMORA_CV_IMAGEIMPL_H
