#include "cv/CameraModel.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <limits>

#include "common/Assert.h"
#include "math/MathDebugging.h"

namespace CamModel {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Degrees to radians, as the field-of-view bound has always been computed (single precision).
constexpr double kDegreesToRadians = 0.017453292;
// A field of view of this many degrees or more puts no bound on the distortion range.
constexpr double kUnboundedFovDegrees = 180.0;

// Fisheye models: below this squared radius the closed forms lose precision (0/0 at the centre)
// and their series take over.
constexpr double kSmallSquaredRadius = 0.0001;
// Smallest omega (field-of-view parameter, radians) the 1-parameter fisheye formula is given.
constexpr double kMinFisheyeOmega = 0.0001;
// Omega above which the 1-parameter fisheye's own closed-form limit is used.
constexpr double kFisheyeOmegaClosedForm = 0.01;
// Kept between the 1-parameter fisheye's squared distorted radius and its asymptote (pi/2w)^2,
// where the ideal radius goes to infinity.
constexpr double kFisheyeAsymptoteMargin = 0.1;
// Series coefficient 8/3 of the 1-parameter fisheye factor at small radius.
constexpr double kFisheyeSeriesCubic = 2.6666667;

// Steps of the scan for the end of the monotonic range, over the radius [0, sqrt(limit)].
constexpr int kMonotonicScanSteps = 4096;
// Bisection rounds that locate the end of the monotonic range between two scan steps.
constexpr int kLimitBisections = 40;
// The distortion range stops this fraction short of a pole of the rational radial factor.
constexpr double kPoleMargin = 0.99;
// Iterations of the simultaneous root search on the radial denominator (a cubic at most).
constexpr int kRootIterations = 500;
// A root counts as real when its imaginary part is this small relative to its magnitude.
constexpr double kRealRootTolerance = 1e-9;

// Newton iterations of the radial inversion; bisection steps bound the worst case.
constexpr int kMaxUndistortIterations = 100;
// Relative step, in machine epsilons, at which the radial inversion has converged.
constexpr int kUndistortToleranceEps = 4;

bool isKnownModel(DistortionModel model) {
    switch (model) {
        case DistortionModel::LINEAR:
        case DistortionModel::RADIAL_2_PARAMETERS:
        case DistortionModel::RADIAL_3_PARAMETERS:
        case DistortionModel::RADIAL_6_PARAMETERS:
        case DistortionModel::FISHEYE_1_PARAMETER:
        case DistortionModel::FISHEYE_4_PARAMETERS:
            return true;
    }
    return false;
}

bool isRadialModel(DistortionModel model) {
    return model == DistortionModel::RADIAL_2_PARAMETERS ||
           model == DistortionModel::RADIAL_3_PARAMETERS ||
           model == DistortionModel::RADIAL_6_PARAMETERS;
}

// Squared distorted radius of the squared ideal radius `u`.
template <typename T>
T distortedSquaredRadius(const CameraModel<T>& model, T u) {
    const T factor = model.distortionFactor(u);
    return u * factor * factor;
}

}  // namespace

int maxNumRadialDistortionCoeffs(DistortionModel model) {
    switch (model) {
        case DistortionModel::LINEAR:
            return 0;
        case DistortionModel::RADIAL_2_PARAMETERS:
            return 2;
        case DistortionModel::RADIAL_3_PARAMETERS:
            return 3;
        case DistortionModel::RADIAL_6_PARAMETERS:
            return MAX_RD_PARAMS;
        case DistortionModel::FISHEYE_1_PARAMETER:
            return 1;
        case DistortionModel::FISHEYE_4_PARAMETERS:
            return 4;
    }
    AR_ASSERT(isKnownModel(model));
    return 0;
}

const char* modelName(DistortionModel model) {
    switch (model) {
        case DistortionModel::LINEAR:
            return "LINEAR";
        case DistortionModel::RADIAL_2_PARAMETERS:
            return "RADIAL_2_PARAMETERS";
        case DistortionModel::RADIAL_3_PARAMETERS:
            return "RADIAL_3_PARAMETERS";
        case DistortionModel::RADIAL_6_PARAMETERS:
            return "RADIAL_6_PARAMETERS";
        case DistortionModel::FISHEYE_1_PARAMETER:
            return "FISHEYE_1_PARAMETER";
        case DistortionModel::FISHEYE_4_PARAMETERS:
            return "FISHEYE_4_PARAMETERS";
    }
    AR_ASSERT(isKnownModel(model));
    return "";
}

template <typename T>
bool CameraModel<T>::validateCoeffs() const {
    for (int i = 0; i < 2; ++i) {
        if (!(focalLength[i] > 0)) {
            std::puts("Error: Focal length should be positive");
            return false;
        }
    }
    for (int i = 0; i < 2; ++i) {
        if (!(size[i] > 0)) {
            std::puts("Error: Size must be the image size in pixels");
            return false;
        }
    }
    for (int i = 0; i < 2; ++i) {
        if (!(principalPoint[i] > 0 && principalPoint[i] < size[i])) {
            std::puts("Error: Principal point should be inside the image");
            return false;
        }
    }
    const int used = maxNumRadialDistortionCoeffs(model);
    if (model != DistortionModel::RADIAL_6_PARAMETERS) {
        for (int i = used; i < MAX_RD_PARAMS; ++i) {
            if (radialDistortion[i] != 0) {
                std::printf(
                    "Radial distortion vector for model %s must have at most %d nonzero "
                    "coefficients\n",
                    modelName(model), used);
                return false;
            }
        }
    }
    if (model == DistortionModel::FISHEYE_1_PARAMETER) {
        const T omega = radialDistortion[0];
        if (!(omega > 0 && omega < static_cast<T>(kPi))) {
            std::printf(
                "Omega parameter of 1-param fisheye model (%f) must be in the range (0, Pi)\n",
                static_cast<double>(omega));
            return false;
        }
    }
    return true;
}

template <typename T>
void CameraModel<T>::setupValidDistortionRange(T maxFovDegrees, bool verbose) {
    undistortionLimit = 0;
    for (int corner = 0; corner < 4; ++corner) {
        const T cx = (corner & 1) ? size[0] : T(0);
        const T cy = (corner & 2) ? size[1] : T(0);
        const T dx = (cx - principalPoint[0]) / focalLength[0];
        const T dy = (cy - principalPoint[1]) / focalLength[1];
        undistortionLimit = std::max(undistortionLimit, dx * dx + dy * dy);
    }

    const T maxSquared = static_cast<T>(kMaxSquaredRadius);
    distortionLimit = maxSquared;
    if (maxFovDegrees < static_cast<T>(kUnboundedFovDegrees)) {
        const T halfAngleTan =
            std::tan(maxFovDegrees * static_cast<T>(kDegreesToRadians) * static_cast<T>(0.5));
        distortionLimit = std::min(distortionLimit, halfAngleTan * halfAngleTan);
    }

    // A pinhole without distortion is valid everywhere the caller asks for.
    if (model == DistortionModel::LINEAR) {
        return;
    }

    const T omega = radialDistortion[0];
    if (model == DistortionModel::FISHEYE_1_PARAMETER &&
        omega > static_cast<T>(kFisheyeOmegaClosedForm)) {
        const T asymptote = static_cast<T>(kPi) / (2 * omega);
        undistortionLimit = std::min(
            undistortionLimit, asymptote * asymptote - static_cast<T>(kFisheyeAsymptoteMargin));
        // Invert rd = atan(2 r tan(w/2)) / w at the largest distorted radius.
        const T idealRadius = std::tan(omega * std::sqrt(undistortionLimit)) /
                              (2 * std::tan(omega * static_cast<T>(0.5)));
        distortionLimit = std::min(distortionLimit, idealRadius * idealRadius);
    } else {
        findDistortionLimits();
    }

    distortionLimit = std::min(distortionLimit, maxSquared);
    undistortionLimit = std::min(undistortionLimit, maxSquared);
    // The undistortion range must not reach past the image of the distortion range.
    undistortionLimit = std::min(undistortionLimit, distortedSquaredRadius(*this, distortionLimit));

    if (verbose) {
        std::printf(
            "Model %s. Distortion is valid up-to a radius of %.1f in the ideal focal plane\n",
            modelName(model), static_cast<double>(std::sqrt(distortionLimit)));
        std::printf(
            "Model %s. Undistortion is valid up-to a radius of %.1f pixels from the principal "
            "point\n",
            modelName(model), static_cast<double>(std::sqrt(undistortionLimit)));
    }
}

template <typename T>
void CameraModel<T>::findDistortionLimits() {
    if (isRadialModel(model)) {
        setMaxDistortionLimits_6paramRadial();
    }

    // The distorted radius r f(r^2) grows while its derivative f + 2 r^2 f' is positive.
    auto grows = [this](T r) {
        const T r2 = r * r;
        const T slope = distortionFactor(r2) + 2 * r2 * distortionDerivative(r2);
        return std::isfinite(slope) && slope > 0;
    };
    const T maxRadius = std::sqrt(distortionLimit);
    T previousDistorted = 0;
    for (int i = 1; i <= kMonotonicScanSteps; ++i) {
        const T r = maxRadius * static_cast<T>(i) / static_cast<T>(kMonotonicScanSteps);
        const T distorted = r * distortionFactor(r * r);
        if (!grows(r) || !(distorted > previousDistorted)) {
            // Narrow down the end between the last step that grew and this one. Step 1 is kept
            // whatever happens, so that the range never collapses to nothing.
            T good = maxRadius * static_cast<T>(i - 1) / static_cast<T>(kMonotonicScanSteps);
            T bad = r;
            if (i == 1) {
                good = r;
            } else {
                for (int k = 0; k < kLimitBisections; ++k) {
                    const T middle = (good + bad) / 2;
                    (grows(middle) ? good : bad) = middle;
                }
            }
            distortionLimit = good * good;
            break;
        }
        previousDistorted = distorted;
    }
    undistortionLimit = std::min(undistortionLimit, distortedSquaredRadius(*this, distortionLimit));
}

template <typename T>
void CameraModel<T>::setMaxDistortionLimits_6paramRadial() {
    using Float = T;
    using Complex = std::complex<double>;
    // Denominator 1 + k3 u + k4 u^2 + k5 u^3, lowest power first.
    const double coeffs[4] = {1.0, static_cast<double>(radialDistortion[3]),
                              static_cast<double>(radialDistortion[4]),
                              static_cast<double>(radialDistortion[5])};
    int degree = 3;
    while (degree > 0 && coeffs[degree] == 0.0) {
        --degree;
    }
    if (degree == 0) {
        return;
    }

    // Simultaneous (Durand-Kerner) iteration on the monic polynomial; at most three roots.
    Complex roots[3];
    const Complex seed(0.4, 0.9);
    for (int i = 0; i < degree; ++i) {
        roots[i] = std::pow(seed, i);
    }
    auto evaluate = [&](const Complex& z) {
        Complex value(coeffs[degree] / coeffs[degree], 0.0);
        for (int k = degree - 1; k >= 0; --k) {
            value = value * z + coeffs[k] / coeffs[degree];
        }
        return value;
    };
    for (int iteration = 0; iteration < kRootIterations; ++iteration) {
        for (int i = 0; i < degree; ++i) {
            Complex denominator(1.0, 0.0);
            for (int j = 0; j < degree; ++j) {
                if (j != i) {
                    denominator *= roots[i] - roots[j];
                }
            }
            if (std::abs(denominator) > 0) {
                roots[i] -= evaluate(roots[i]) / denominator;
            }
        }
    }

    for (int i = 0; i < degree; ++i) {
        const Complex& root = roots[i];
        AR_ASSERT(!std::isnan(Float(root.real())));
        const bool real =
            std::fabs(root.imag()) <= kRealRootTolerance * std::max(1.0, std::abs(root));
        if (real && root.real() > 0) {
            std::printf("Radial polynomial model: root of denominator at %f\n", root.real());
            distortionLimit = std::min(distortionLimit, static_cast<T>(root.real() * kPoleMargin));
        }
    }
}

template <typename T>
T CameraModel<T>::distortionFactor(T r2) const {
    AR_ASSERT(isKnownModel(model));
    const RDVec& k = radialDistortion;
    switch (model) {
        case DistortionModel::LINEAR:
            break;
        case DistortionModel::RADIAL_2_PARAMETERS:
        case DistortionModel::RADIAL_3_PARAMETERS:
        case DistortionModel::RADIAL_6_PARAMETERS:
            return (1 + r2 * (k[0] + r2 * (k[1] + r2 * k[2]))) /
                   (1 + r2 * (k[3] + r2 * (k[4] + r2 * k[5])));
        case DistortionModel::FISHEYE_1_PARAMETER: {
            const T w = std::max(k[0], static_cast<T>(kMinFisheyeOmega));
            const T t = std::tan(w * static_cast<T>(0.5));
            if (r2 < static_cast<T>(kSmallSquaredRadius)) {
                return (2 * t - static_cast<T>(kFisheyeSeriesCubic) * r2 * t * t * t) / w;
            }
            const T r = std::sqrt(r2);
            return std::atan(2 * r * t) / (w * r);
        }
        case DistortionModel::FISHEYE_4_PARAMETERS: {
            const bool small = r2 < static_cast<T>(kSmallSquaredRadius);
            const T r = std::sqrt(r2);
            const T th = std::atan(r);
            const T s = small ? r2 : th * th;
            const T q = 1 + s * (k[0] + s * (k[1] + s * (k[2] + s * k[3])));
            return small ? q - r2 / 3 : th * q / r;
        }
    }
    return 1;
}

template <typename T>
T CameraModel<T>::distortionDerivative(T r2) const {
    AR_ASSERT(isKnownModel(model));
    const RDVec& k = radialDistortion;
    switch (model) {
        case DistortionModel::LINEAR:
            break;
        case DistortionModel::RADIAL_2_PARAMETERS:
        case DistortionModel::RADIAL_3_PARAMETERS:
        case DistortionModel::RADIAL_6_PARAMETERS: {
            const T n = 1 + r2 * (k[0] + r2 * (k[1] + r2 * k[2]));
            const T d = 1 + r2 * (k[3] + r2 * (k[4] + r2 * k[5]));
            const T dn = k[0] + r2 * (2 * k[1] + r2 * 3 * k[2]);
            const T dd = k[3] + r2 * (2 * k[4] + r2 * 3 * k[5]);
            return (dn * d - n * dd) / (d * d);
        }
        case DistortionModel::FISHEYE_1_PARAMETER: {
            const T w = std::max(k[0], static_cast<T>(kMinFisheyeOmega));
            const T t = std::tan(w * static_cast<T>(0.5));
            if (r2 < static_cast<T>(kSmallSquaredRadius)) {
                return -static_cast<T>(kFisheyeSeriesCubic) * t * t * t / w;
            }
            // d/dr of atan(a r) / (w r), then d/dr2 = d/dr / (2 r).
            const T r = std::sqrt(r2);
            const T a = 2 * t;
            const T dFdr = (a * r / (1 + a * a * r2) - std::atan(a * r)) / (w * r2);
            return dFdr / (2 * r);
        }
        case DistortionModel::FISHEYE_4_PARAMETERS: {
            if (r2 < static_cast<T>(kSmallSquaredRadius)) {
                return k[0] + r2 * (2 * k[1] + r2 * (3 * k[2] + r2 * 4 * k[3])) -
                       static_cast<T>(1) / 3;
            }
            const T r = std::sqrt(r2);
            const T th = std::atan(r);
            const T s = th * th;
            const T q = 1 + s * (k[0] + s * (k[1] + s * (k[2] + s * k[3])));
            const T dqdth = th * (2 * k[0] + s * (4 * k[1] + s * (6 * k[2] + s * 8 * k[3])));
            const T dFdr = ((q + th * dqdth) * r / (1 + r2) - th * q) / r2;
            return dFdr / (2 * r);
        }
    }
    return 0;
}

template <typename T>
T CameraModel<T>::undistortionFactor(T r2) const {
    AR_ASSERT(isKnownModel(model));
    if (model == DistortionModel::LINEAR) {
        return 1;
    }
    T factor;
    if (!CameraCalibration::undistort(*this, r2, factor)) {
        return std::numeric_limits<T>::quiet_NaN();
    }
    return factor;
}

namespace CameraCalibration {

template <typename T>
bool undistort(const CameraModel<T>& model, T rd2, T& factor) {
    AR_ASSERT(isKnownModel(model.model));
    if (model.model == DistortionModel::LINEAR) {
        factor = 1;
        return true;
    }
    if (!(rd2 > 0)) {
        // The limit of |ideal| / |distorted| at the centre.
        factor = 1 / model.distortionFactor(0);
        return AR::Math::isGoodNum(static_cast<float>(factor));
    }

    const T rd = std::sqrt(rd2);
    T lo = 0;
    T hi = std::sqrt(model.distortionLimit);
    const T tolerance = kUndistortToleranceEps * std::numeric_limits<T>::epsilon();
    // The end of the undistortion range is the image of the end of the distortion range, so a
    // radius a rounding error beyond the reach still counts as reached.
    if (!(rd <= hi * model.distortionFactor(hi * hi) * (1 + tolerance))) {
        return false;
    }
    T r = std::min(rd, hi);
    bool converged = false;
    for (int iteration = 0; iteration < kMaxUndistortIterations && !converged; ++iteration) {
        const T r2 = r * r;
        const T f = model.distortionFactor(r2);
        const T df = model.distortionDerivative(r2);
        if (!AR::Math::isGoodNum(static_cast<float>(f)) ||
            !AR::Math::isGoodNum(static_cast<float>(df))) {
            return false;
        }
        const T residual = r * f - rd;
        if (residual == 0) {
            converged = true;
            break;
        }
        if (residual > 0) {
            hi = r;
        } else {
            lo = r;
        }
        const T slope = f + 2 * r2 * df;
        T next = slope > 0 ? r - residual / slope : (lo + hi) / 2;
        // A Newton step that leaves the bracket falls back to bisection.
        if (!(next >= lo && next <= hi)) {
            next = (lo + hi) / 2;
        }
        converged = std::fabs(next - r) <= tolerance * std::max(next, rd);
        r = next;
    }
    if (!converged) {
        return false;
    }
    factor = r / rd;
    return AR::Math::isGoodNum(static_cast<float>(factor));
}

template <typename T>
bool DistortFn(const CameraModel<T>& model, T x, T& y, T& dy) {
    y = model.distortionFactor(x);
    dy = model.distortionDerivative(x);
    return std::isfinite(y) && std::isfinite(dy);
}

template <typename T>
bool UndistortFn(const CameraModel<T>& model, T x, T& y, T& dy) {
    if (!undistort(model, x, y)) {
        return false;
    }
    // With u the squared ideal radius, x = u f(u)^2 and y = 1 / f(u):
    // dy/dx = (-f'/f^2) / (f^2 + 2 u f f').
    const T u = y * y * x;
    const T f = model.distortionFactor(u);
    const T df = model.distortionDerivative(u);
    dy = -df / (f * f * (f * f + 2 * u * f * df));
    return std::isfinite(dy);
}

template bool undistort(const CameraModel<float>&, float, float&);
template bool undistort(const CameraModel<double>&, double, double&);
template bool DistortFn(const CameraModel<float>&, float, float&, float&);
template bool DistortFn(const CameraModel<double>&, double, double&, double&);
template bool UndistortFn(const CameraModel<float>&, float, float&, float&);
template bool UndistortFn(const CameraModel<double>&, double, double&, double&);

}  // namespace CameraCalibration

template struct CameraModel<float>;
template struct CameraModel<double>;

}  // namespace CamModel
