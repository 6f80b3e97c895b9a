// Nearest-pixel lookup of the projective kernels.
#ifndef VELMORA_SOLID_FUSION_PIXELINDEX_H
#define VELMORA_SOLID_FUSION_PIXELINDEX_H

namespace Solid {

// trunc(x) when it lies in [0, limit), written so that no out-of-range float reaches an int
// conversion: trunc(x) >= 0 exactly when x > -1, so coordinates in (-1, 0) land on pixel 0.
template <typename F>
inline bool pixelIndex(F x, int limit, int& out) {
    if (!(x > F(-1) && x < static_cast<F>(limit))) {
        return false;
    }
    out = static_cast<int>(x);
    return true;
}

}  // namespace Solid

#endif  // VELMORA_SOLID_FUSION_PIXELINDEX_H
