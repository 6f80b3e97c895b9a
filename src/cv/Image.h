// The one image container of the library: a 2D grid of pixels read and written as (x, y), x along
// a row. An image is in one of three states:
//   empty  - no pixels, sizes zero;
//   owning - its aligned buffer came from AR::Common::OS::allocMemAligned (or was handed over),
//            and the image frees it;
//   view   - it points into someone else's memory, whose lifetime is the owner's concern.
// The buffer may be larger than the image: `bufSize` is the buffer's width and height in pixels,
// and a row is `bufSize().x` pixels long. `allocPixels` reuses a buffer that is large enough
// (also reshaping it to another width of the same area) to avoid reallocating frame to frame.
//
// Invariants: with pixels, `size` fits `bufSize` on each axis (and so by area). Every pixel access
// goes through `checkBounds`, which ends the process on a bad coordinate.
//
// Copy policy: copying is deep (a new owned buffer); moving hands the buffer over (a view stays a
// view). Images are not thread-safe: one thread at a time. Instantiated for float, unsigned short,
// unsigned char and Pixel24 only.
#ifndef VELMORA_CV_IMAGE_H
#define VELMORA_CV_IMAGE_H

#include <cstdint>

#include "common/OS.h"
#include "common/RefCounter.h"

namespace AR {
namespace CV {

// One colour pixel: three bytes.
struct Pixel24 {
    uint8_t c0;
    uint8_t c1;
    uint8_t c2;
};
static_assert(sizeof(Pixel24) == 3, "Pixel24 must be exactly three bytes");

// Two 32-bit signed integers: width and height, or x and y, in pixels.
struct Size2i {
    int32_t v[2] = {0, 0};

    Size2i() = default;
    Size2i(int32_t x, int32_t y) : v{x, y} {}
    int32_t operator()(int i) const { return v[i]; }
    int32_t& operator()(int i) { return v[i]; }
    bool operator==(const Size2i& other) const { return v[0] == other.v[0] && v[1] == other.v[1]; }
    bool operator!=(const Size2i& other) const { return !(*this == other); }
};

// Pixel format tags of the image description.
constexpr uint32_t kFormatUnset = 0x10001100;
constexpr uint32_t kFormatU8 = 0x10001101;
constexpr uint32_t kFormatU16 = 0x10001102;
constexpr uint32_t kFormatPixel24 = 0x10001103;
constexpr uint32_t kFormatFloat = 0x10001104;

template <typename T>
constexpr uint32_t formatTagOf() {
    return kFormatUnset;
}
template <>
constexpr uint32_t formatTagOf<unsigned char>() {
    return kFormatU8;
}
template <>
constexpr uint32_t formatTagOf<unsigned short>() {
    return kFormatU16;
}
template <>
constexpr uint32_t formatTagOf<Pixel24>() {
    return kFormatPixel24;
}
template <>
constexpr uint32_t formatTagOf<float>() {
    return kFormatFloat;
}

// The image as format-aware code sees it; kept in step with the image by every operation.
struct ImageDescription {
    int32_t width = 0;
    int32_t height = 0;
    uint32_t formatTag = kFormatUnset;
    uint32_t reserved = 0;
    void* pixels = nullptr;
    uint32_t byteSize = 0;  // rowBytes times the buffer height
    uint32_t rowBytes = 0;
    uint32_t preferredFormatTag = kFormatUnset;
};

template <typename T>
class Image : public Common::RefCounterT<Common::RefCounterHelper::AccessProtector_NoProtection> {
public:
    static_assert(formatTagOf<T>() != kFormatUnset,
                  "Image holds float, unsigned short, unsigned char or Pixel24 pixels");

    // Keeps the owner of a viewed buffer alive, if any.
    using SharedOwner = Common::RefPtr<Common::RefCounter>;

    // ---- Construction ----
    Image();
    explicit Image(const Size2i& size,
                   Common::MEMORY_ALIGNMENT alignment = Common::kDefaultAlignment);
    // Deep copy at the given alignment (an empty source gives an empty image).
    Image(const Image& other, Common::MEMORY_ALIGNMENT alignment = Common::kDefaultAlignment);
    // Takes the buffer over; `other` is left empty.
    Image(Image&& other) noexcept;
    Image& operator=(const Image& other);
    Image& operator=(Image&& source) noexcept;
    ~Image() override;

    // ---- Buffers ----
    // Makes room for `size` pixels at `alignment` bytes, reusing the buffer when it is large and
    // aligned enough (unless `forceNew`). Contents are undefined afterwards. False (and an empty
    // image) when the allocation fails; a zero area gives no pixels and true.
    bool allocPixels(const Size2i& size,
                     Common::MEMORY_ALIGNMENT alignment = Common::kDefaultAlignment,
                     bool forceNew = false);
    // Becomes a view of `pixels` (or their owner with `takeOwnership`: then the buffer must come
    // from OS::allocMemAligned). `bufSize` is the buffer's width (row length) and height.
    void set(T* pixels, const Size2i& size, const Size2i& bufSize, bool takeOwnership);
    // allocPixels, then copies `size` pixels from `source` whose rows are `sourceBufSize.x` long.
    void copyPixels(const T* source, const Size2i& size, const Size2i& sourceBufSize,
                    Common::MEMORY_ALIGNMENT alignment = Common::kDefaultAlignment);
    // Exchanges everything but the reference count and the delegate.
    void swap(Image& other) noexcept;
    void setSharedOwner(SharedOwner owner) { mSharedOwner = std::move(owner); }
    // Format tag reported in the description instead of T's own (for reinterpreted buffers).
    void setPreferredFormatTag(uint32_t tag);

    // ---- Pixel access (bounds-checked) ----
    // Ends the process unless (x, y) is a pixel of the image.
    void checkBounds(int x, int y) const;
    T& operator()(int x, int y) {
        checkBounds(x, y);
        return mPixels[x + y * mBufSize(0)];
    }
    const T& operator()(int x, int y) const {
        checkBounds(x, y);
        return mPixels[x + y * mBufSize(0)];
    }

    // ---- Accessors ----
    T* pixels() { return mPixels; }
    const T* pixels() const { return mPixels; }
    const Size2i& size() const { return mSize; }
    int32_t width() const { return mSize(0); }
    int32_t height() const { return mSize(1); }
    int64_t numPixels() const { return static_cast<int64_t>(mSize(0)) * mSize(1); }
    const Size2i& bufSize() const { return mBufSize; }
    uint32_t rowBytes() const { return mRowBytes; }
    bool isOwned() const { return mOwned; }
    Common::MEMORY_ALIGNMENT alignment() const { return mAlignment; }
    const ImageDescription& description() const { return mDescription; }
    const Size2i& roi() const { return mRoi; }

private:
    void freeBuffer();
    void clearFields();
    void updateDescription();

    T* mPixels = nullptr;
    Size2i mSize;
    Size2i mBufSize;
    uint32_t mRowBytes = 0;
    bool mOwned = false;
    Common::MEMORY_ALIGNMENT mAlignment = Common::kDefaultAlignment;
    ImageDescription mDescription;
    Size2i mRoi{-1, -1};
    SharedOwner mSharedOwner;
};

extern template class Image<float>;
extern template class Image<unsigned short>;
extern template class Image<unsigned char>;
extern template class Image<Pixel24>;

}  // namespace CV
}  // namespace AR

#endif  // VELMORA_CV_IMAGE_H
