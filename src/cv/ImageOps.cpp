#include "cv/ImageOps.h"

#include <algorithm>
#include <cstdint>

namespace AR {
namespace CV {
namespace ImageOps {

namespace {
constexpr unsigned kMaxByte = 255;
}  // namespace

template <typename T>
void convert(const Image<T>& input, Image<unsigned char>& output) {
    output.allocPixels(input.size(), Common::ALIGNMENT_16);
    const int width = input.width();
    const int height = input.height();
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            output(x, y) = static_cast<unsigned char>(
                std::min<unsigned>(static_cast<unsigned>(input(x, y)), kMaxByte));
        }
    }
}

template <typename In, typename Out>
void convertDepthImage(const Image<In>& input, float scale, Image<Out>& output) {
    AR_ASSERT(input.numPixels() > 0 && output.numPixels() > 0);
    AR_ASSERT(input.size() == output.size());
    const int width = input.width();
    const int height = input.height();
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float product = static_cast<float>(input(x, y)) * scale;
            // Saturate below at zero; above, keep the low 16 bits of the 32-bit integer, guarding
            // the conversion against values no unsigned 32-bit integer holds.
            uint32_t value = 0;
            if (product >= 4294967296.0f) {
                value = UINT32_MAX;
            } else if (product > 0.0f) {
                value = static_cast<uint32_t>(product);
            }
            output(x, y) = static_cast<Out>(value & 0xFFFFu);
        }
    }
}

template void convert(const Image<unsigned short>&, Image<unsigned char>&);
template void convertDepthImage(const Image<float>&, float, Image<unsigned short>&);

}  // namespace ImageOps
}  // namespace CV
}  // namespace AR
