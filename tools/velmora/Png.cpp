#include "velmora/Png.h"

#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>

namespace VelmoraTool {
namespace {

// libpng reports errors by longjmp. Everything that lives across the jump is plain data owned by
// the caller, so no destructor is skipped.
struct PngErrorSink {
    char message[256];
};

void onPngError(png_structp png, png_const_charp message) {
    auto* sink = static_cast<PngErrorSink*>(png_get_error_ptr(png));
    std::snprintf(sink->message, sizeof(sink->message), "%s", message);
    png_longjmp(png, 1);
}

void onPngWarning(png_structp, png_const_charp) {}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

bool hostIsLittleEndian() {
    const uint16_t probe = 1;
    uint8_t first = 0;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

// Decodes an opened PNG into `image`. Returns false with `sink.message` set on failure.
bool decode(std::FILE* file, PngImage* image, std::vector<png_bytep>* rows, PngErrorSink* sink) {
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, sink, onPngError, onPngWarning);
    if (png == nullptr) {
        std::snprintf(sink->message, sizeof(sink->message), "out of memory");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (info == nullptr || setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_init_io(png, file);
    png_read_info(png, info);
    const int colorType = png_get_color_type(png, info);
    int bitDepth = png_get_bit_depth(png, info);
    if (bitDepth < 8) {
        png_set_packing(png);  // one byte a sample, values unscaled
        bitDepth = 8;
    }
    if (bitDepth == 16 && hostIsLittleEndian()) {
        png_set_swap(png);
    }
    png_read_update_info(png, info);
    image->width = png_get_image_width(png, info);
    image->height = png_get_image_height(png, info);
    image->bitDepth = bitDepth;
    image->channels = colorType == PNG_COLOR_TYPE_PALETTE ? 1 : png_get_channels(png, info);
    const size_t rowBytes = png_get_rowbytes(png, info);
    image->bytes.resize(rowBytes * image->height);
    rows->resize(image->height);
    for (uint32_t y = 0; y < image->height; ++y) {
        (*rows)[y] = image->bytes.data() + y * rowBytes;
    }
    png_read_image(png, rows->data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

bool encode(std::FILE* file, const PngImage* image, std::vector<png_bytep>* rows,
            PngErrorSink* sink) {
    png_structp png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, sink, onPngError, onPngWarning);
    if (png == nullptr) {
        std::snprintf(sink->message, sizeof(sink->message), "out of memory");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (info == nullptr || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file);
    const int colorType = image->channels == 1   ? PNG_COLOR_TYPE_GRAY
                          : image->channels == 2 ? PNG_COLOR_TYPE_GRAY_ALPHA
                          : image->channels == 3 ? PNG_COLOR_TYPE_RGB
                                                 : PNG_COLOR_TYPE_RGB_ALPHA;
    png_set_IHDR(png, info, image->width, image->height, image->bitDepth, colorType,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    // Depth images are large and written often; fast compression keeps render-scene quick.
    png_set_compression_level(png, 1);
    png_write_info(png, info);
    if (image->bitDepth == 16 && hostIsLittleEndian()) {
        png_set_swap(png);
    }
    const size_t rowBytes = size_t{image->width} * image->channels * (image->bitDepth / 8);
    rows->resize(image->height);
    for (uint32_t y = 0; y < image->height; ++y) {
        (*rows)[y] = const_cast<png_bytep>(image->bytes.data() + y * rowBytes);
    }
    png_write_image(png, rows->data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

std::string PngImage::describe() const {
    static const char* const kChannelNames[] = {"?", "grey", "grey+alpha", "RGB", "RGBA"};
    const int names = static_cast<int>(sizeof(kChannelNames) / sizeof(kChannelNames[0]));
    const char* name = channels > 0 && channels < names ? kChannelNames[channels] : "?";
    return std::to_string(bitDepth) + "-bit " + name;
}

uint32_t PngImage::sample(uint32_t x, uint32_t y, int channel) const {
    const size_t index = (size_t{y} * width + x) * channels + channel;
    if (bitDepth == 16) {
        uint16_t value = 0;
        std::memcpy(&value, bytes.data() + index * 2, 2);
        return value;
    }
    return bytes[index];
}

bool readPng(const std::string& path, PngImage& image, std::string& error) {
    FilePtr file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        error = std::string("cannot open: ") + std::strerror(errno);
        return false;
    }
    // The PNG signature is checked first so that a text or truncated file gets a clear message.
    png_byte signature[8] = {};
    if (std::fread(signature, 1, sizeof(signature), file.get()) != sizeof(signature) ||
        png_sig_cmp(signature, 0, sizeof(signature)) != 0) {
        error = "not a PNG file";
        return false;
    }
    std::rewind(file.get());
    PngErrorSink sink{};
    std::vector<png_bytep> rows;
    image = PngImage{};
    if (!decode(file.get(), &image, &rows, &sink)) {
        error = std::string("unreadable PNG: ") + sink.message;
        return false;
    }
    return true;
}

bool writePng(const std::string& path, const PngImage& image, std::string& error) {
    FilePtr file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        error = std::string("cannot create: ") + std::strerror(errno);
        return false;
    }
    PngErrorSink sink{};
    std::vector<png_bytep> rows;
    if (!encode(file.get(), &image, &rows, &sink)) {
        error = std::string("cannot write PNG: ") + sink.message;
        return false;
    }
    if (std::fflush(file.get()) != 0) {
        error = std::string("cannot write: ") + std::strerror(errno);
        return false;
    }
    return true;
}

PngImage makeGrey16(uint32_t width, uint32_t height, const std::vector<uint16_t>& pixels) {
    PngImage image;
    image.width = width;
    image.height = height;
    image.bitDepth = 16;
    image.channels = 1;
    image.bytes.resize(pixels.size() * 2);
    std::memcpy(image.bytes.data(), pixels.data(), image.bytes.size());
    return image;
}

PngImage makeGrey8(uint32_t width, uint32_t height, const std::vector<uint8_t>& pixels) {
    PngImage image;
    image.width = width;
    image.height = height;
    image.bitDepth = 8;
    image.channels = 1;
    image.bytes = pixels;
    return image;
}

PngImage makeRgb8(uint32_t width, uint32_t height, const std::vector<uint8_t>& pixels) {
    PngImage image = makeGrey8(width, height, pixels);
    image.channels = 3;
    return image;
}

}  // namespace VelmoraTool
