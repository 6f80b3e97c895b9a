// Small vectors of the library: plain values of fixed size for the per-sample hot paths, views on
// someone else's elements (rows and columns of a matrix), and vectors sized at run time for the
// plane solver.
//
// Vector<T, N, Layout, Storage>:
//   N        element count, or -1 (kDynamic) for a size held at run time;
//   Layout   Linear (contiguous) or VectorSlice<stride> (every stride-th element);
//   Storage  VectorOwner (the elements live in the object, a run-time sized vector owns a heap
//            block) or VectorReference (a view; copying the view copies the pointer, assigning to
//            it writes through).
//
// A fixed-size owner is exactly N elements with no padding, and its default constructor leaves
// them uninitialised: arrays of volume samples must not pay for a constructor when they are
// allocated or read. `Vector<float, 3>{}` value-initialises to zero.
//
// `operator()` (`getItem`) checks the index and aborts when it is out of range, in every build;
// `operator[]` does not check and is meant for loops whose bounds are the vector's own size.
#ifndef VELMORA_MATH_VECTOR_H
#define VELMORA_MATH_VECTOR_H

#include <cmath>
#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>

#include "common/Assert.h"

namespace AR {
namespace Math {

// Size marker of a dimension known only at run time.
constexpr int kDynamic = -1;

struct Linear {};
template <int Stride>
struct VectorSlice {
    static_assert(Stride > 0, "VectorSlice needs a positive compile-time stride");
};
struct VectorOwner {};
struct VectorReference {};

template <typename Layout>
struct LayoutStride;
template <>
struct LayoutStride<Linear> {
    static constexpr int value = 1;
};
template <int Stride>
struct LayoutStride<VectorSlice<Stride>> {
    static constexpr int value = Stride;
};

template <typename T, int N = kDynamic, typename Layout = Linear, typename Storage = VectorOwner>
class Vector;

template <typename V>
struct IsVector : std::false_type {};
template <typename T, int N, typename L, typename S>
struct IsVector<Vector<T, N, L, S>> : std::true_type {};

// Element type of a vector with its const removed (views on const data have a const T).
template <typename V>
using VectorScalar = std::remove_const_t<typename V::value_type>;

// Owner type that holds the result of an operation on vectors of sizes A and B.
template <typename T, int A, int B>
using VectorResult = Vector<T, (A != kDynamic ? A : B)>;

// Fixed-size owner: N elements in place.
template <typename T, int N>
class Vector<T, N, Linear, VectorOwner> {
    static_assert(N > 0, "a fixed-size vector needs at least one element");

public:
    using value_type = T;
    static constexpr int kSize = N;

    Vector() = default;
    template <int M = N, typename = std::enable_if_t<M == 1>>
    explicit constexpr Vector(T value) : mData{value} {}
    template <typename... Args, typename = std::enable_if_t<sizeof...(Args) == N && (N > 1) &&
                                                            (std::is_arithmetic_v<Args> && ...)>>
    constexpr Vector(Args... args) : mData{static_cast<T>(args)...} {}
    // From a view or run-time sized vector of the same element type; the sizes must agree.
    template <typename V,
              typename = std::enable_if_t<IsVector<V>::value && !std::is_same_v<V, Vector> &&
                                          std::is_same_v<VectorScalar<V>, T>>>
    Vector(const V& other) {
        static_assert(V::kSize == N || V::kSize == kDynamic, "vector sizes differ");
        AR_ASSERT(other.size() == N);
        for (int i = 0; i < N; ++i) {
            mData[i] = other[i];
        }
    }

    static Vector constant(T value) {
        Vector out;
        for (int i = 0; i < N; ++i) {
            out.mData[i] = value;
        }
        return out;
    }
    static Vector zeros() { return constant(T(0)); }

    static constexpr int size() { return N; }
    T* data() { return mData; }
    const T* data() const { return mData; }
    T* begin() { return mData; }
    T* end() { return mData + N; }
    const T* begin() const { return mData; }
    const T* end() const { return mData + N; }

    T& operator()(int i) { return getItem(i); }
    T& getItem(int i) {
        AR_ASSERT(static_cast<unsigned>(i) < static_cast<unsigned>(N));
        return mData[i];
    }
    const T& operator()(int i) const { return getItem(i); }
    const T& getItem(int i) const {
        AR_ASSERT(static_cast<unsigned>(i) < static_cast<unsigned>(N));
        return mData[i];
    }
    T& operator[](int i) { return mData[i]; }
    const T& operator[](int i) const { return mData[i]; }

    T& x() { return mData[0]; }
    T x() const { return mData[0]; }
    T& y() {
        static_assert(N >= 2, "y() needs two elements");
        return mData[1];
    }
    T y() const {
        static_assert(N >= 2, "y() needs two elements");
        return mData[1];
    }
    T& z() {
        static_assert(N >= 3, "z() needs three elements");
        return mData[2];
    }
    T z() const {
        static_assert(N >= 3, "z() needs three elements");
        return mData[2];
    }
    T& w() {
        static_assert(N >= 4, "w() needs four elements");
        return mData[3];
    }
    T w() const {
        static_assert(N >= 4, "w() needs four elements");
        return mData[3];
    }

    template <typename U>
    Vector<U, N> cast() const {
        Vector<U, N> out;
        for (int i = 0; i < N; ++i) {
            out[i] = static_cast<U>(mData[i]);
        }
        return out;
    }

    T mData[N];
};

// Run-time sized owner: a heap block of `size()` elements, deep-copied.
template <typename T>
class Vector<T, kDynamic, Linear, VectorOwner> {
public:
    using value_type = T;
    static constexpr int kSize = kDynamic;

    Vector() = default;
    // `size` elements, value-initialised (zero for arithmetic types).
    explicit Vector(int size) : Vector(size, T()) {}
    Vector(int size, T value) : mData(allocate(size)), mSize(size) {
        for (int i = 0; i < size; ++i) {
            mData[i] = value;
        }
    }
    Vector(const Vector& other) : Vector(other.mSize) { copyFrom(other); }
    Vector(Vector&& other) noexcept : mData(std::move(other.mData)), mSize(other.mSize) {
        other.mSize = 0;
    }
    template <typename V,
              typename = std::enable_if_t<IsVector<V>::value && !std::is_same_v<V, Vector> &&
                                          std::is_same_v<VectorScalar<V>, T>>>
    Vector(const V& other) : Vector(other.size()) {
        copyFrom(other);
    }
    Vector& operator=(const Vector& other) {
        if (this != &other) {
            if (mSize != other.mSize) {
                mData = allocate(other.mSize);
                mSize = other.mSize;
            }
            copyFrom(other);
        }
        return *this;
    }
    Vector& operator=(Vector&& other) noexcept {
        mData = std::move(other.mData);
        mSize = other.mSize;
        other.mSize = 0;
        return *this;
    }

    int size() const { return mSize; }
    T* data() { return mData.get(); }
    const T* data() const { return mData.get(); }
    T* begin() { return mData.get(); }
    T* end() { return mData.get() + mSize; }
    const T* begin() const { return mData.get(); }
    const T* end() const { return mData.get() + mSize; }

    T& operator()(int i) { return getItem(i); }
    T& getItem(int i) {
        AR_ASSERT(static_cast<unsigned>(i) < static_cast<unsigned>(mSize));
        return mData[i];
    }
    const T& operator()(int i) const { return getItem(i); }
    const T& getItem(int i) const {
        AR_ASSERT(static_cast<unsigned>(i) < static_cast<unsigned>(mSize));
        return mData[i];
    }
    T& operator[](int i) { return mData[i]; }
    const T& operator[](int i) const { return mData[i]; }

private:
    static std::unique_ptr<T[]> allocate(int size) {
        AR_ASSERT(size >= 0);
        return std::unique_ptr<T[]>(size > 0 ? new T[size]() : nullptr);
    }
    template <typename V>
    void copyFrom(const V& other) {
        for (int i = 0; i < mSize; ++i) {
            mData[i] = other[i];
        }
    }

    std::unique_ptr<T[]> mData;
    int mSize = 0;
};

// View on elements owned elsewhere: `data` and every Stride-th element after it. T may be const
// for a read-only view. The size is N, or given at construction when N is kDynamic.
template <typename T, int N, typename Layout>
class Vector<T, N, Layout, VectorReference> {
public:
    using value_type = T;
    static constexpr int kSize = N;
    static constexpr int kStride = LayoutStride<Layout>::value;

    explicit Vector(T* data, int size = N) : mData(data), mSize(size) { AR_ASSERT(size >= 0); }
    Vector(const Vector&) = default;
    // Assignment writes through to the viewed elements; the sizes must agree.
    Vector& operator=(const Vector& other) { return assign(other); }
    template <typename V, typename = std::enable_if_t<IsVector<V>::value>>
    Vector& operator=(const V& other) {
        return assign(other);
    }

    int size() const { return mSize; }
    T& operator()(int i) const { return getItem(i); }
    T& getItem(int i) const {
        AR_ASSERT(static_cast<unsigned>(i) < static_cast<unsigned>(mSize));
        return mData[i * kStride];
    }
    T& operator[](int i) const { return mData[i * kStride]; }

private:
    template <typename V>
    Vector& assign(const V& other) {
        AR_ASSERT(other.size() == mSize);
        for (int i = 0; i < mSize; ++i) {
            mData[i * kStride] = other[i];
        }
        return *this;
    }

    T* mData;
    int mSize;
};

// An owner of `size` elements: uninitialised at fixed size, zero at run-time size.
template <typename T, int N>
Vector<T, N> makeVector(int size) {
    if constexpr (N > 0) {
        AR_ASSERT(size == N);
        return Vector<T, N>();
    } else {
        return Vector<T, N>(size);
    }
}

// Aborts unless two vectors (or matrices) have the same element count.
template <typename A, typename B>
void checkSameSize(const A& a, const B& b) {
    AR_ASSERT(a.size() == b.size());
}

template <typename A, typename B>
void checkVectorSizes(const A& a, const B& b) {
    static_assert(A::kSize == B::kSize || A::kSize == kDynamic || B::kSize == kDynamic,
                  "vector sizes differ");
    if constexpr (A::kSize == kDynamic || B::kSize == kDynamic) {
        checkSameSize(a, b);
    }
}

template <typename V>
using EnableVector = std::enable_if_t<IsVector<V>::value, int>;
template <typename A, typename B>
using EnableVectors = std::enable_if_t<IsVector<A>::value && IsVector<B>::value, int>;
template <typename V, typename S>
using EnableVectorScalar = std::enable_if_t<IsVector<V>::value && std::is_arithmetic_v<S>, int>;

// An owner copy of any vector (used to start a result of the same size).
template <typename V, EnableVector<V> = 0>
Vector<VectorScalar<V>, V::kSize> toOwner(const V& v) {
    return Vector<VectorScalar<V>, V::kSize>(v);
}

template <typename A, typename B, EnableVectors<A, B> = 0>
VectorResult<VectorScalar<A>, A::kSize, B::kSize> operator+(const A& a, const B& b) {
    checkVectorSizes(a, b);
    VectorResult<VectorScalar<A>, A::kSize, B::kSize> out(a);
    for (int i = 0; i < a.size(); ++i) {
        out[i] += b[i];
    }
    return out;
}

template <typename A, typename B, EnableVectors<A, B> = 0>
VectorResult<VectorScalar<A>, A::kSize, B::kSize> operator-(const A& a, const B& b) {
    checkVectorSizes(a, b);
    VectorResult<VectorScalar<A>, A::kSize, B::kSize> out(a);
    for (int i = 0; i < a.size(); ++i) {
        out[i] -= b[i];
    }
    return out;
}

template <typename V, EnableVector<V> = 0>
Vector<VectorScalar<V>, V::kSize> operator-(const V& v) {
    Vector<VectorScalar<V>, V::kSize> out(v);
    for (int i = 0; i < v.size(); ++i) {
        out[i] = -out[i];
    }
    return out;
}

template <typename V, typename S, EnableVectorScalar<V, S> = 0>
Vector<VectorScalar<V>, V::kSize> operator*(const V& v, S s) {
    Vector<VectorScalar<V>, V::kSize> out(v);
    for (int i = 0; i < v.size(); ++i) {
        out[i] = static_cast<VectorScalar<V>>(out[i] * s);
    }
    return out;
}

template <typename V, typename S, EnableVectorScalar<V, S> = 0>
Vector<VectorScalar<V>, V::kSize> operator*(S s, const V& v) {
    return v * s;
}

template <typename V, typename S, EnableVectorScalar<V, S> = 0>
Vector<VectorScalar<V>, V::kSize> operator/(const V& v, S s) {
    Vector<VectorScalar<V>, V::kSize> out(v);
    for (int i = 0; i < v.size(); ++i) {
        out[i] = static_cast<VectorScalar<V>>(out[i] / s);
    }
    return out;
}

template <typename A, typename B, EnableVectors<A, B> = 0>
A& operator+=(A& a, const B& b) {
    checkVectorSizes(a, b);
    for (int i = 0; i < a.size(); ++i) {
        a[i] += b[i];
    }
    return a;
}

template <typename A, typename B, EnableVectors<A, B> = 0>
A& operator-=(A& a, const B& b) {
    checkVectorSizes(a, b);
    for (int i = 0; i < a.size(); ++i) {
        a[i] -= b[i];
    }
    return a;
}

template <typename V, typename S, EnableVectorScalar<V, S> = 0>
V& operator*=(V& v, S s) {
    for (int i = 0; i < v.size(); ++i) {
        v[i] = static_cast<VectorScalar<V>>(v[i] * s);
    }
    return v;
}

template <typename V, typename S, EnableVectorScalar<V, S> = 0>
V& operator/=(V& v, S s) {
    for (int i = 0; i < v.size(); ++i) {
        v[i] = static_cast<VectorScalar<V>>(v[i] / s);
    }
    return v;
}

// Element-wise equality; vectors of different run-time size are unequal.
template <typename A, typename B, EnableVectors<A, B> = 0>
bool operator==(const A& a, const B& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (int i = 0; i < a.size(); ++i) {
        if (!(a[i] == b[i])) {
            return false;
        }
    }
    return true;
}

template <typename A, typename B, EnableVectors<A, B> = 0>
bool operator!=(const A& a, const B& b) {
    return !(a == b);
}

template <typename A, typename B, EnableVectors<A, B> = 0>
VectorScalar<A> dot(const A& a, const B& b) {
    checkVectorSizes(a, b);
    VectorScalar<A> sum(0);
    for (int i = 0; i < a.size(); ++i) {
        sum += a[i] * b[i];
    }
    return sum;
}

template <typename A, typename B, EnableVectors<A, B> = 0>
Vector<VectorScalar<A>, 3> cross(const A& a, const B& b) {
    static_assert(A::kSize == 3 && B::kSize == 3, "cross needs two 3-vectors");
    return Vector<VectorScalar<A>, 3>(a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                                      a[0] * b[1] - a[1] * b[0]);
}

template <typename V, EnableVector<V> = 0>
VectorScalar<V> squaredNorm(const V& v) {
    return dot(v, v);
}

template <typename V, EnableVector<V> = 0>
VectorScalar<V> norm(const V& v) {
    return std::sqrt(squaredNorm(v));
}

// Unit vector in the direction of `v`; aborts on a null vector.
template <typename V, EnableVector<V> = 0>
Vector<VectorScalar<V>, V::kSize> normalize(const V& v) {
    const VectorScalar<V> length = squaredNorm(v);
    AR_ASSERT(length > 0);
    return v * (VectorScalar<V>(1) / std::sqrt(length));
}

// Product of the components: the volume of a box of this size.
template <typename V, EnableVector<V> = 0>
VectorScalar<V> volume(const V& size) {
    VectorScalar<V> product(1);
    for (int i = 0; i < size.size(); ++i) {
        product *= size[i];
    }
    return product;
}

// Component-wise absolute value.
template <typename V, EnableVector<V> = 0>
Vector<VectorScalar<V>, V::kSize> fabs(const V& v) {
    Vector<VectorScalar<V>, V::kSize> out(v);
    for (int i = 0; i < v.size(); ++i) {
        out[i] = out[i] < 0 ? static_cast<VectorScalar<V>>(-out[i]) : out[i];
    }
    return out;
}

// "(a, b, c)" for log messages.
template <typename V, EnableVector<V> = 0>
std::string to_string(const V& v) {
    std::string text = "(";
    for (int i = 0; i < v.size(); ++i) {
        if (i > 0) {
            text += ", ";
        }
        text += std::to_string(v[i]);
    }
    return text + ")";
}

// Volume sample of a depth grid: (0) signed distance in 1/32766 of the ramp, (1) weight. Stored
// by the hundreds of thousands, so it must stay two packed shorts with no constructor to run.
using Vec2S = Vector<short, 2>;
static_assert(sizeof(Vec2S) == 4, "a depth sample is two packed shorts");
static_assert(std::is_trivially_copyable_v<Vec2S>, "depth samples are copied as raw memory");
static_assert(std::is_trivially_default_constructible_v<Vec2S>,
              "allocating depth samples must not run a constructor");

}  // namespace Math
}  // namespace AR

#endif  // VELMORA_MATH_VECTOR_H
