// Numerical routines on the fixed float matrices of the frame path.
#ifndef VELMORA_MATH_MATRIX_FUNCTIONS_H
#define VELMORA_MATH_MATRIX_FUNCTIONS_H

#include "math/Matrix.h"

namespace AR {
namespace Math {

// Inverse by closed-form cofactor expansion, scaled by 1 / det. A singular matrix is not tested
// for: its inverse comes out infinite or not-a-number.
Matrix<float, 4, 4> inverse(const Matrix<float, 4, 4>& m);

// True when every entry of R^T * R differs from the identity by less than kRotationTolerance.
bool isRotationMatrix(const Matrix<float, 3, 3>& r);

// One Newton step that pulls the rows of `r` towards an orthonormal set: with
// E_ij = 0.5 * (r_i . r_j - delta_ij), r becomes r - E * r. An exact rotation stays as it is
// (up to rounding); a matrix far from one improves but may still fail isRotationMatrix.
void enforceRotation(Matrix<float, 3, 3>& r);

// Largest deviation of R^T * R from the identity that still counts as a rotation.
constexpr float kRotationTolerance = 0.0001f;

}  // namespace Math
}  // namespace AR

#endif  // VELMORA_MATH_MATRIX_FUNCTIONS_H
