#include "math/LU.h"

namespace AR {
namespace Math {

LU<float, 4>::LU()
    : mL(Matrix<float, 4, 4>::zeros()),
      mU(Matrix<float, 4, 4>::zeros()),
      mY(Vector<float, 4>::zeros()) {}

void LU<float, 4>::compute(const Matrix<float, 4, 4>& a) {
    mL = Matrix<float, 4, 4>::zeros();
    mU = Matrix<float, 4, 4>::zeros();
    for (int k = 0; k < kN; ++k) {
        mU.coeff(k, k) = 1.0f;
        for (int i = k; i < kN; ++i) {
            float sum = 0.0f;
            for (int m = 0; m < k; ++m) {
                sum += mL.coeff(i, m) * mU.coeff(m, k);
            }
            mL.coeff(i, k) = a.coeff(i, k) - sum;
        }
        for (int j = k + 1; j < kN; ++j) {
            float sum = 0.0f;
            for (int m = 0; m < k; ++m) {
                sum += mL.coeff(k, m) * mU.coeff(m, j);
            }
            mU.coeff(k, j) = (a.coeff(k, j) - sum) / mL.coeff(k, k);
        }
    }
}

void LU<float, 4>::solve(const Vector<float, 4>& b, Vector<float, 4>& x) {
    const Matrix<float, 4, 4>& l = mL;
    const Matrix<float, 4, 4>& u = mU;
    // Unrolled: the solve runs per plane candidate, and the fixed order of operations keeps the
    // results identical across compilers.
    mY[0] = b[0] / l.coeff(0, 0);
    mY[1] = (b[1] - l.coeff(1, 0) * mY[0]) / l.coeff(1, 1);
    mY[2] = (b[2] - l.coeff(2, 0) * mY[0] - l.coeff(2, 1) * mY[1]) / l.coeff(2, 2);
    mY[3] = (b[3] - l.coeff(3, 0) * mY[0] - l.coeff(3, 1) * mY[1] - l.coeff(3, 2) * mY[2]) /
            l.coeff(3, 3);

    x[3] = mY[3];
    x[2] = mY[2] - u.coeff(2, 3) * x[3];
    x[1] = mY[1] - u.coeff(1, 2) * x[2] - u.coeff(1, 3) * x[3];
    x[0] = mY[0] - u.coeff(0, 1) * x[1] - u.coeff(0, 2) * x[2] - u.coeff(0, 3) * x[3];
}

}  // namespace Math
}  // namespace AR
