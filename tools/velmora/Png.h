// Reading and writing PNG files for the tool: 8- and 16-bit grey (depth, labels) and 8-bit RGB
// (colour). Samples are returned exactly as stored; there is no gamma or colour conversion, so a
// 16-bit depth PNG reads back the millimetre values that were written.
#ifndef VELMORA_TOOL_PNG_H
#define VELMORA_TOOL_PNG_H

#include <cstdint>
#include <string>
#include <vector>

namespace VelmoraTool {

// A decoded PNG. Rows are packed, channels interleaved. 16-bit samples are in host byte order.
// Palette images keep their indices (one 8-bit channel), which is how label images are often
// stored; grey images of fewer than 8 bits are widened to 8 bits without scaling.
struct PngImage {
    uint32_t width = 0;
    uint32_t height = 0;
    int bitDepth = 0;  // 8 or 16
    int channels = 0;  // 1 grey, 2 grey + alpha, 3 RGB, 4 RGBA
    std::vector<uint8_t> bytes;

    // A short description such as "16-bit grey" for messages.
    std::string describe() const;
    // Sample `channel` of pixel (x, y); the caller keeps the indices in range.
    uint32_t sample(uint32_t x, uint32_t y, int channel = 0) const;
};

// Reads `path`. On failure returns false and puts the reason (without the path) in `error`.
bool readPng(const std::string& path, PngImage& image, std::string& error);

// Writes `image` to `path`. On failure returns false and puts the reason in `error`.
bool writePng(const std::string& path, const PngImage& image, std::string& error);

// Helpers that build a PngImage from typed pixels, for writers of sequences.
PngImage makeGrey16(uint32_t width, uint32_t height, const std::vector<uint16_t>& pixels);
PngImage makeGrey8(uint32_t width, uint32_t height, const std::vector<uint8_t>& pixels);
PngImage makeRgb8(uint32_t width, uint32_t height, const std::vector<uint8_t>& pixels);

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_PNG_H
