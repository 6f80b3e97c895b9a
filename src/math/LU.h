// LU decomposition of a small square matrix without pivoting (Crout form): A = L * U, with L lower
// triangular carrying the pivots on its diagonal and U upper triangular with a unit diagonal. A
// zero pivot is not tested for; the solution then comes out infinite or not-a-number.
//
// `solve` keeps its intermediate vector in the object: one decomposition must not be solved from
// two threads at once.
#ifndef VELMORA_MATH_LU_H
#define VELMORA_MATH_LU_H

#include "math/Matrix.h"
#include "math/Vector.h"

namespace AR {
namespace Math {

template <typename T, int N>
class LU;

template <>
class LU<float, 4> {
public:
    static constexpr int kN = 4;

    LU();
    void compute(const Matrix<float, 4, 4>& a);
    // x = A^-1 b: forward substitution with L, then back substitution with U.
    void solve(const Vector<float, 4>& b, Vector<float, 4>& x);

    const Matrix<float, 4, 4>& lower() const { return mL; }
    const Matrix<float, 4, 4>& upper() const { return mU; }

private:
    Matrix<float, 4, 4> mL;
    Matrix<float, 4, 4> mU;
    Vector<float, 4> mY;  // L^-1 b, between the two substitutions
};

}  // namespace Math
}  // namespace AR

#endif  // VELMORA_MATH_LU_H
