// The names under which the volume code uses the math types.
#ifndef VELMORA_MATH_SOLID_TYPES_H
#define VELMORA_MATH_SOLID_TYPES_H

#include "math/Matrix.h"
#include "math/Vector.h"

namespace Solid {

using Vec2 = AR::Math::Vector<float, 2>;
using Vec3 = AR::Math::Vector<float, 3>;
using Vec4 = AR::Math::Vector<float, 4>;
// Row-major 4x4 float matrix.
using Matrix4 = AR::Math::Matrix<float, 4, 4>;
// Sample counts per axis of a block or volume.
using Size = AR::Math::Vector<int, 3>;
// Lattice indices of a sample within a block.
using Index3 = AR::Math::Vector<int, 3>;
// Block key: floor of a position divided by the block dimension.
using KeyType = AR::Math::Vector<int, 3>;
using AR::Math::Vec2S;

}  // namespace Solid

#endif  // VELMORA_MATH_SOLID_TYPES_H
