// Small matrices: plain row-major values of fixed size, views on a block of another matrix, and a
// matrix sized at run time for the plane solver.
//
// Matrix<T, R, C, Order, Storage>:
//   R, C     rows and columns; a run-time sized matrix has both as -1 (kDynamic);
//   Order    RowMajor, or MatrixSlice<rowStride, colStride> for a view with its own strides;
//   Storage  MatrixOwner (elements in the object or, at run-time size, in an owned heap block) or
//            MatrixReference (a view; assigning to it writes through).
//
// Every matrix of the system is row-major: element (r, c) of an R-by-C owner is data()[r * C + c].
// Rows read as contiguous vector views, columns as strided vector views (VectorSlice<C>).
// `operator()` (`getItem`) checks its indices and aborts when they are out of range, in every
// build; `coeff` does not check.
#ifndef VELMORA_MATH_MATRIX_H
#define VELMORA_MATH_MATRIX_H

#include <memory>
#include <type_traits>

#include "common/Assert.h"
#include "math/Vector.h"

namespace AR {
namespace Math {

struct RowMajor {};
template <int RowStride, int ColStride>
struct MatrixSlice {
    static_assert(RowStride > 0 && ColStride > 0, "MatrixSlice needs positive strides");
};
struct MatrixOwner {};
struct MatrixReference {};

template <typename T, int R = kDynamic, int C = kDynamic, typename Order = RowMajor,
          typename Storage = MatrixOwner>
class Matrix;

template <typename M>
struct IsMatrix : std::false_type {};
template <typename T, int R, int C, typename O, typename S>
struct IsMatrix<Matrix<T, R, C, O, S>> : std::true_type {};

template <typename M>
using MatrixScalar = std::remove_const_t<typename M::value_type>;

// Fixed-size row-major owner.
template <typename T, int R, int C>
class Matrix<T, R, C, RowMajor, MatrixOwner> {
    static_assert(R > 0 && C > 0,
                  "a fixed-size matrix needs positive dimensions; use Matrix<T> for run-time size");

public:
    using value_type = T;
    static constexpr int kRows = R;
    static constexpr int kCols = C;

    using RowView = Vector<T, C, Linear, VectorReference>;
    using ConstRowView = Vector<const T, C, Linear, VectorReference>;
    using ColView = Vector<T, R, VectorSlice<C>, VectorReference>;
    using ConstColView = Vector<const T, R, VectorSlice<C>, VectorReference>;

    Matrix() = default;
    // All R * C elements, row by row.
    template <typename... Args,
              typename = std::enable_if_t<sizeof...(Args) == R * C && (R * C > 1) &&
                                          (std::is_arithmetic_v<Args> && ...)>>
    constexpr Matrix(Args... args) : mData{static_cast<T>(args)...} {}
    // From a view or run-time sized matrix of the same element type and dimensions.
    template <typename M,
              typename = std::enable_if_t<IsMatrix<M>::value && !std::is_same_v<M, Matrix> &&
                                          std::is_same_v<MatrixScalar<M>, T>>>
    Matrix(const M& other) {
        AR_ASSERT(other.rows() == R && other.cols() == C);
        for (int r = 0; r < R; ++r) {
            for (int c = 0; c < C; ++c) {
                coeff(r, c) = other.coeff(r, c);
            }
        }
    }

    static Matrix constant(T value) {
        Matrix out;
        for (int i = 0; i < R * C; ++i) {
            out.mData[i] = value;
        }
        return out;
    }
    static Matrix zeros() { return constant(T(0)); }
    static Matrix identity() {
        static_assert(R == C, "identity needs a square matrix");
        Matrix out = zeros();
        for (int i = 0; i < R; ++i) {
            out.coeff(i, i) = T(1);
        }
        return out;
    }

    static constexpr int rows() { return R; }
    static constexpr int cols() { return C; }
    static constexpr int size() { return R * C; }
    T* data() { return mData; }
    const T* data() const { return mData; }

    T& operator()(int r, int c) { return getItem(r, c); }
    T& getItem(int r, int c) {
        AR_ASSERT(static_cast<unsigned>(r) < static_cast<unsigned>(R) &&
                  static_cast<unsigned>(c) < static_cast<unsigned>(C));
        return mData[r * C + c];
    }
    const T& operator()(int r, int c) const { return getItem(r, c); }
    const T& getItem(int r, int c) const {
        AR_ASSERT(static_cast<unsigned>(r) < static_cast<unsigned>(R) &&
                  static_cast<unsigned>(c) < static_cast<unsigned>(C));
        return mData[r * C + c];
    }
    // Element by row-major index.
    T& operator()(int i) { return getItem(i); }
    T& getItem(int i) {
        AR_ASSERT(static_cast<unsigned>(i) < static_cast<unsigned>(R * C));
        return mData[i];
    }
    const T& operator()(int i) const { return getItem(i); }
    const T& getItem(int i) const {
        AR_ASSERT(static_cast<unsigned>(i) < static_cast<unsigned>(R * C));
        return mData[i];
    }
    T& coeff(int r, int c) { return mData[r * C + c]; }
    const T& coeff(int r, int c) const { return mData[r * C + c]; }

    RowView row(int r) {
        AR_ASSERT(static_cast<unsigned>(r) < static_cast<unsigned>(R));
        return RowView(mData + r * C);
    }
    ConstRowView row(int r) const {
        AR_ASSERT(static_cast<unsigned>(r) < static_cast<unsigned>(R));
        return ConstRowView(mData + r * C);
    }
    ColView col(int c) {
        AR_ASSERT(static_cast<unsigned>(c) < static_cast<unsigned>(C));
        return ColView(mData + c);
    }
    ConstColView col(int c) const {
        AR_ASSERT(static_cast<unsigned>(c) < static_cast<unsigned>(C));
        return ConstColView(mData + c);
    }

    // View on the BR-by-BC block whose top-left element is (r0, c0).
    template <int BR, int BC>
    Matrix<T, BR, BC, MatrixSlice<C, 1>, MatrixReference> block(int r0, int c0) {
        AR_ASSERT(r0 >= 0 && c0 >= 0 && r0 + BR <= R && c0 + BC <= C);
        return Matrix<T, BR, BC, MatrixSlice<C, 1>, MatrixReference>(mData + r0 * C + c0);
    }
    template <int BR, int BC>
    Matrix<const T, BR, BC, MatrixSlice<C, 1>, MatrixReference> block(int r0, int c0) const {
        AR_ASSERT(r0 >= 0 && c0 >= 0 && r0 + BR <= R && c0 + BC <= C);
        return Matrix<const T, BR, BC, MatrixSlice<C, 1>, MatrixReference>(mData + r0 * C + c0);
    }

    Matrix<T, C, R> transpose() const {
        Matrix<T, C, R> out;
        for (int r = 0; r < R; ++r) {
            for (int c = 0; c < C; ++c) {
                out.coeff(c, r) = coeff(r, c);
            }
        }
        return out;
    }

    T mData[R * C];
};

// Run-time sized row-major owner: a heap block, deep-copied.
template <typename T>
class Matrix<T, kDynamic, kDynamic, RowMajor, MatrixOwner> {
public:
    using value_type = T;
    static constexpr int kRows = kDynamic;
    static constexpr int kCols = kDynamic;

    using RowView = Vector<T, kDynamic, Linear, VectorReference>;
    using ConstRowView = Vector<const T, kDynamic, Linear, VectorReference>;

    Matrix() = default;
    // rows-by-cols, value-initialised (zero for arithmetic types).
    Matrix(int rows, int cols) : mData(allocate(rows, cols)), mRows(rows), mCols(cols) {}
    Matrix(const Matrix& other) : Matrix(other.mRows, other.mCols) { copyFrom(other); }
    Matrix(Matrix&& other) noexcept
        : mData(std::move(other.mData)), mRows(other.mRows), mCols(other.mCols) {
        other.mRows = other.mCols = 0;
    }
    template <typename M,
              typename = std::enable_if_t<IsMatrix<M>::value && !std::is_same_v<M, Matrix> &&
                                          std::is_same_v<MatrixScalar<M>, T>>>
    Matrix(const M& other) : Matrix(other.rows(), other.cols()) {
        copyFrom(other);
    }
    Matrix& operator=(const Matrix& other) {
        if (this != &other) {
            if (mRows * mCols != other.mRows * other.mCols) {
                mData = allocate(other.mRows, other.mCols);
            }
            mRows = other.mRows;
            mCols = other.mCols;
            copyFrom(other);
        }
        return *this;
    }
    Matrix& operator=(Matrix&& other) noexcept {
        mData = std::move(other.mData);
        mRows = other.mRows;
        mCols = other.mCols;
        other.mRows = other.mCols = 0;
        return *this;
    }

    static Matrix identity(int n) {
        Matrix out(n, n);
        for (int i = 0; i < n; ++i) {
            out.coeff(i, i) = T(1);
        }
        return out;
    }

    int rows() const { return mRows; }
    int cols() const { return mCols; }
    int size() const { return mRows * mCols; }
    T* data() { return mData.get(); }
    const T* data() const { return mData.get(); }

    T& operator()(int r, int c) { return getItem(r, c); }
    T& getItem(int r, int c) {
        AR_ASSERT(static_cast<unsigned>(r) < static_cast<unsigned>(mRows) &&
                  static_cast<unsigned>(c) < static_cast<unsigned>(mCols));
        return mData[r * mCols + c];
    }
    const T& operator()(int r, int c) const { return getItem(r, c); }
    const T& getItem(int r, int c) const {
        AR_ASSERT(static_cast<unsigned>(r) < static_cast<unsigned>(mRows) &&
                  static_cast<unsigned>(c) < static_cast<unsigned>(mCols));
        return mData[r * mCols + c];
    }
    T& coeff(int r, int c) { return mData[r * mCols + c]; }
    const T& coeff(int r, int c) const { return mData[r * mCols + c]; }

    RowView row(int r) {
        AR_ASSERT(static_cast<unsigned>(r) < static_cast<unsigned>(mRows));
        return RowView(mData.get() + r * mCols, mCols);
    }
    ConstRowView row(int r) const {
        AR_ASSERT(static_cast<unsigned>(r) < static_cast<unsigned>(mRows));
        return ConstRowView(mData.get() + r * mCols, mCols);
    }

    Matrix transpose() const {
        Matrix out(mCols, mRows);
        for (int r = 0; r < mRows; ++r) {
            for (int c = 0; c < mCols; ++c) {
                out.coeff(c, r) = coeff(r, c);
            }
        }
        return out;
    }

private:
    static std::unique_ptr<T[]> allocate(int rows, int cols) {
        AR_ASSERT(rows >= 0 && cols >= 0);
        return std::unique_ptr<T[]>(rows * cols > 0 ? new T[rows * cols]() : nullptr);
    }
    template <typename M>
    void copyFrom(const M& other) {
        for (int r = 0; r < mRows; ++r) {
            for (int c = 0; c < mCols; ++c) {
                coeff(r, c) = other.coeff(r, c);
            }
        }
    }

    std::unique_ptr<T[]> mData;
    int mRows = 0;
    int mCols = 0;
};

// Fixed-size view with its own strides, as returned by `block`. Assignment writes through.
template <typename T, int R, int C, int RowStride, int ColStride>
class Matrix<T, R, C, MatrixSlice<RowStride, ColStride>, MatrixReference> {
    static_assert(R > 0 && C > 0, "a matrix view needs fixed positive dimensions");

public:
    using value_type = T;
    static constexpr int kRows = R;
    static constexpr int kCols = C;

    explicit Matrix(T* data) : mData(data) {}
    Matrix(const Matrix&) = default;
    Matrix& operator=(const Matrix& other) { return assign(other); }
    template <typename M, typename = std::enable_if_t<IsMatrix<M>::value>>
    Matrix& operator=(const M& other) {
        return assign(other);
    }

    static constexpr int rows() { return R; }
    static constexpr int cols() { return C; }
    static constexpr int size() { return R * C; }

    T& operator()(int r, int c) const { return getItem(r, c); }
    T& getItem(int r, int c) const {
        AR_ASSERT(static_cast<unsigned>(r) < static_cast<unsigned>(R) &&
                  static_cast<unsigned>(c) < static_cast<unsigned>(C));
        return coeff(r, c);
    }
    T& coeff(int r, int c) const { return mData[r * RowStride + c * ColStride]; }

private:
    template <typename M>
    Matrix& assign(const M& other) {
        AR_ASSERT(other.rows() == R && other.cols() == C);
        for (int r = 0; r < R; ++r) {
            for (int c = 0; c < C; ++c) {
                coeff(r, c) = other.coeff(r, c);
            }
        }
        return *this;
    }

    T* mData;
};

// Aborts unless the columns of `a` match the rows of `b`, as a product needs.
template <typename A, typename B>
void checkSameColRow(const A& a, const B& b) {
    AR_ASSERT(a.cols() == b.rows());
}

template <typename A, typename B>
using EnableMatrices = std::enable_if_t<IsMatrix<A>::value && IsMatrix<B>::value, int>;
template <typename M, typename V>
using EnableMatrixVector = std::enable_if_t<IsMatrix<M>::value && IsVector<V>::value, int>;
template <typename M, typename S>
using EnableMatrixScalar = std::enable_if_t<IsMatrix<M>::value && std::is_arithmetic_v<S>, int>;

// Owner type of a product: fixed when both outer dimensions are fixed, run-time sized otherwise.
template <typename T, int R, int C>
using MatrixResult =
    std::conditional_t<(R > 0 && C > 0), Matrix<T, (R > 0 ? R : 1), (C > 0 ? C : 1)>, Matrix<T>>;

// An owner of the given type, sized rows-by-cols when its size is held at run time.
template <typename Result>
Result makeResult(int rows, int cols) {
    if constexpr (Result::kRows > 0) {
        AR_ASSERT(rows == Result::kRows && cols == Result::kCols);
        return Result();
    } else {
        return Result(rows, cols);
    }
}

template <typename A, typename B, EnableMatrices<A, B> = 0>
MatrixResult<MatrixScalar<A>, A::kRows, B::kCols> operator*(const A& a, const B& b) {
    static_assert(A::kCols == B::kRows || A::kCols == kDynamic || B::kRows == kDynamic,
                  "inner dimensions of a matrix product differ");
    checkSameColRow(a, b);
    using Result = MatrixResult<MatrixScalar<A>, A::kRows, B::kCols>;
    Result out = makeResult<Result>(a.rows(), b.cols());
    for (int r = 0; r < a.rows(); ++r) {
        for (int c = 0; c < b.cols(); ++c) {
            MatrixScalar<A> sum(0);
            for (int k = 0; k < a.cols(); ++k) {
                sum += a.coeff(r, k) * b.coeff(k, c);
            }
            out.coeff(r, c) = sum;
        }
    }
    return out;
}

template <typename M, typename V, EnableMatrixVector<M, V> = 0>
Vector<MatrixScalar<M>, M::kRows> operator*(const M& m, const V& v) {
    static_assert(M::kCols == V::kSize || M::kCols == kDynamic || V::kSize == kDynamic,
                  "matrix columns and vector size differ");
    AR_ASSERT(m.cols() == v.size());
    Vector<MatrixScalar<M>, M::kRows> out = makeVector<MatrixScalar<M>, M::kRows>(m.rows());
    for (int r = 0; r < m.rows(); ++r) {
        MatrixScalar<M> sum(0);
        for (int k = 0; k < m.cols(); ++k) {
            sum += m.coeff(r, k) * v[k];
        }
        out[r] = sum;
    }
    return out;
}

template <typename A, typename B, EnableMatrices<A, B> = 0>
MatrixResult<MatrixScalar<A>, A::kRows, A::kCols> operator+(const A& a, const B& b) {
    AR_ASSERT(a.rows() == b.rows() && a.cols() == b.cols());
    using Result = MatrixResult<MatrixScalar<A>, A::kRows, A::kCols>;
    Result out = makeResult<Result>(a.rows(), a.cols());
    for (int r = 0; r < a.rows(); ++r) {
        for (int c = 0; c < a.cols(); ++c) {
            out.coeff(r, c) = a.coeff(r, c) + b.coeff(r, c);
        }
    }
    return out;
}

template <typename A, typename B, EnableMatrices<A, B> = 0>
MatrixResult<MatrixScalar<A>, A::kRows, A::kCols> operator-(const A& a, const B& b) {
    AR_ASSERT(a.rows() == b.rows() && a.cols() == b.cols());
    using Result = MatrixResult<MatrixScalar<A>, A::kRows, A::kCols>;
    Result out = makeResult<Result>(a.rows(), a.cols());
    for (int r = 0; r < a.rows(); ++r) {
        for (int c = 0; c < a.cols(); ++c) {
            out.coeff(r, c) = a.coeff(r, c) - b.coeff(r, c);
        }
    }
    return out;
}

template <typename M, typename S, EnableMatrixScalar<M, S> = 0>
MatrixResult<MatrixScalar<M>, M::kRows, M::kCols> operator*(const M& m, S s) {
    using Result = MatrixResult<MatrixScalar<M>, M::kRows, M::kCols>;
    Result out = makeResult<Result>(m.rows(), m.cols());
    for (int r = 0; r < m.rows(); ++r) {
        for (int c = 0; c < m.cols(); ++c) {
            out.coeff(r, c) = static_cast<MatrixScalar<M>>(m.coeff(r, c) * s);
        }
    }
    return out;
}

template <typename M, typename S, EnableMatrixScalar<M, S> = 0>
MatrixResult<MatrixScalar<M>, M::kRows, M::kCols> operator*(S s, const M& m) {
    return m * s;
}

template <typename A, typename B, EnableMatrices<A, B> = 0>
bool operator==(const A& a, const B& b) {
    if (a.rows() != b.rows() || a.cols() != b.cols()) {
        return false;
    }
    for (int r = 0; r < a.rows(); ++r) {
        for (int c = 0; c < a.cols(); ++c) {
            if (!(a.coeff(r, c) == b.coeff(r, c))) {
                return false;
            }
        }
    }
    return true;
}

template <typename A, typename B, EnableMatrices<A, B> = 0>
bool operator!=(const A& a, const B& b) {
    return !(a == b);
}

using Matrix3f = Matrix<float, 3, 3>;
using Matrix4f = Matrix<float, 4, 4>;

}  // namespace Math
}  // namespace AR

#endif  // VELMORA_MATH_MATRIX_H
