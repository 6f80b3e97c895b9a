#include "cv/Camera.h"

#include <tinyxml.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <utility>

#include "common/Logger.h"

namespace AR {
namespace CV {

namespace {

using CamModel::DistortionModel;

// Both limits of a freshly filled model before setupValidDistortionRange narrows them: squared
// radius in focal units (a radius of 25).
constexpr double kInitialLimit = CamModel::kMaxSquaredRadius;
// Field of view, degrees, handed to setupValidDistortionRange by the frame-path init: no bound.
constexpr double kUnboundedFovDegrees = 180.0;

// Spline fit: at most this many bins, this target error (relative, single precision), and the
// bin count from which the last bin is judged on its own.
constexpr int kSplineMaxBins = 1024;
constexpr float kSplineTargetError = 5e-6f;
constexpr int kSplineInitBins = 32;
// Largest accepted relative error of a fit; the 6-parameter rational model is harder to fit.
constexpr double kSplineTolerance = 0.005;
constexpr double kSplineToleranceRadial6 = 0.05;

// Fixed-point iteration of the tangential inversion: at most this many rounds, stopping when a
// round moves the ideal point by less than this many machine epsilons (relative).
constexpr int kTangentialIterations = 20;
constexpr int kTangentialToleranceEps = 4;

// Half step, pixels, of the central differences of the covariance Jacobian.
constexpr double kCovarianceStepPixels = 0.5;
// Bisection rounds that find the last undistortable point towards the principal point.
constexpr int kFovBisections = 40;
constexpr double kRadiansToDegrees = 57.295779513082320876;

// Text of a vector attribute: "%.8g " per element.
template <typename V>
std::string vectorText(const V& v) {
    std::string text;
    char buffer[32];
    for (int i = 0; i < v.size(); ++i) {
        std::snprintf(buffer, sizeof(buffer), "%.8g ", static_cast<double>(v[i]));
        text += buffer;
    }
    return text;
}

template <typename T>
AR::Math::Vector<T, 2> reciprocal(const AR::Math::Vector<T, 2>& nVec2) {
    AR::Math::Vector<T, 2> out;
    for (int i = 0; i < 2; ++i) {
        AR_ASSERT(nVec2(i) != 0);
        out[i] = 1 / nVec2(i);
    }
    return out;
}

// The tangential displacement at ideal point (x, y).
template <typename T>
AR::Math::Vector<T, 2> tangentialTerm(const AR::Math::Vector<T, 2>& p,
                                      const AR::Math::Vector<T, 2>& ideal) {
    const T x = ideal[0];
    const T y = ideal[1];
    return AR::Math::Vector<T, 2>((3 * x * x + y * y) * p[1] + 2 * x * y * p[0],
                                  2 * x * y * p[1] + (x * x + 3 * y * y) * p[0]);
}

template <typename T>
bool hasTangential(const AR::Math::Vector<T, 2>& p) {
    return p[0] != 0 || p[1] != 0;
}

}  // namespace

template <typename T>
std::unique_ptr<Camera<T>> Camera<T>::clone() const {
    return std::make_unique<Camera<T>>(*this);
}

template <typename T>
bool Camera<T>::init(const Vec2& size, const Vec2& focalLength, const Vec2& principalPoint,
                     const RDVec& radial, const Vec2& tangential, DistortionModel model) {
    CameraModel camModel;
    camModel.size = size;
    camModel.principalPoint = principalPoint;
    camModel.focalLength = focalLength;
    camModel.radialDistortion = radial;
    camModel.tangentialDistortion = tangential;
    camModel.model = model;
    camModel.distortionLimit = static_cast<T>(kInitialLimit);
    camModel.undistortionLimit = static_cast<T>(kInitialLimit);
    camModel.setupValidDistortionRange(static_cast<T>(kUnboundedFovDegrees), false);
    return init(camModel);
}

template <typename T>
bool Camera<T>::init(const CameraModel& model) {
    if (!model.validateCoeffs()) {
        AR_LOG_ERROR("Cannot initialize camera from invalid intrinsics");
        return false;
    }

    // Fit into locals so that a failure leaves the camera as it was.
    const CameraModel camModel = model;
    Spline distortion;
    Spline undistortion;
    const T distortionError = distortion.setupHermiteCoeffs(
        [&camModel](T x, T& y, T& dy) {
            return CamModel::CameraCalibration::DistortFn(camModel, x, y, dy);
        },
        Vec2(T(0), camModel.distortionLimit), true, kSplineMaxBins,
        static_cast<T>(kSplineTargetError), kSplineInitBins);
    const T undistortionError = undistortion.setupHermiteCoeffs(
        [&camModel](T x, T& y, T& dy) {
            return CamModel::CameraCalibration::UndistortFn(camModel, x, y, dy);
        },
        Vec2(T(0), camModel.undistortionLimit), true, kSplineMaxBins,
        static_cast<T>(kSplineTargetError), kSplineInitBins);

    const T tolerance = static_cast<T>(camModel.model == DistortionModel::RADIAL_6_PARAMETERS
                                           ? kSplineToleranceRadial6
                                           : kSplineTolerance);
    if (!(distortionError <= tolerance)) {
        AR_LOG_ERROR("Relative approximation error in distortion too high (%f)",
                     static_cast<double>(distortionError));
        return false;
    }
    if (!(undistortionError <= tolerance)) {
        AR_LOG_ERROR("Relative approximation error in undistortion too high (%f)",
                     static_cast<double>(undistortionError));
        return false;
    }

    T distortionAt0 = 0;
    const bool hasDistortionAt0 = distortion.evaluate(T(0), distortionAt0);
    AR_ASSERT(hasDistortionAt0 && distortionAt0 > 0);

    mCamModel = camModel;
    mDistortion = std::move(distortion);
    mUndistortion = std::move(undistortion);
    mCorrectedFocalLength = camModel.focalLength * distortionAt0;
    mInvCorrectedFocalLength = reciprocal(mCorrectedFocalLength);
    mInvFocalLength = reciprocal(camModel.focalLength);
    return true;
}

template <typename T>
typename Camera<T>::Vec2 Camera<T>::pixelToDistorted(const Vec2& pixel) const {
    return Vec2((pixel[0] - mCamModel.principalPoint[0]) * mInvFocalLength[0],
                (pixel[1] - mCamModel.principalPoint[1]) * mInvFocalLength[1]);
}

template <typename T>
bool Camera<T>::tryDistort(const Vec2& ideal, Vec2& distorted) const {
    T factor;
    if (!mDistortion.evaluate(AR::Math::squaredNorm(ideal), factor)) {
        return false;
    }
    distorted = ideal * factor;
    if (hasTangential(mCamModel.tangentialDistortion)) {
        distorted += tangentialTerm(mCamModel.tangentialDistortion, ideal);
    }
    return true;
}

template <typename T>
bool Camera<T>::tryUndistortSymmetric(const Vec2& distorted, Vec2& ideal) const {
    T factor;
    if (!mUndistortion.evaluate(AR::Math::squaredNorm(distorted), factor)) {
        return false;
    }
    ideal = distorted * factor;
    return true;
}

template <typename T>
bool Camera<T>::tryUndistortTangential(const Vec2& distorted, Vec2& ideal) const {
    // Solve d = radial(u) + tangential(u) for u: the radial inverse of d minus the tangential
    // term at the current estimate. The term is small against the radial part, so this
    // contracts quickly. The undistortion range ends at the image corners, and near them d minus
    // the term can lie a little beyond it: there the factor comes from the model itself.
    auto radialInverse = [this](const Vec2& d, Vec2& u) {
        const T r2 = AR::Math::squaredNorm(d);
        T factor;
        if (!mUndistortion.evaluate(r2, factor)) {
            factor = mCamModel.undistortionFactor(r2);
            if (!std::isfinite(factor)) {
                return false;
            }
        }
        u = d * factor;
        return true;
    };
    const T tolerance = kTangentialToleranceEps * std::numeric_limits<T>::epsilon();
    Vec2 estimate;
    if (!tryUndistortSymmetric(distorted, estimate)) {
        return false;
    }
    for (int i = 0; i < kTangentialIterations; ++i) {
        Vec2 next;
        if (!radialInverse(distorted - tangentialTerm(mCamModel.tangentialDistortion, estimate),
                           next)) {
            return false;
        }
        const T step = AR::Math::norm(next - estimate);
        estimate = next;
        if (step <= tolerance * std::max(T(1), AR::Math::norm(estimate))) {
            break;
        }
    }
    ideal = estimate;
    return true;
}

template <typename T>
bool Camera<T>::tryUndistort(const Vec2& distorted, Vec2& ideal) const {
    if (hasTangential(mCamModel.tangentialDistortion)) {
        return tryUndistortTangential(distorted, ideal);
    }
    return tryUndistortSymmetric(distorted, ideal);
}

template <typename T>
bool Camera<T>::tryPixel2ideal(const Vec2& pixel, Vec2& ideal) const {
    return tryUndistort(pixelToDistorted(pixel), ideal);
}

template <typename T>
bool Camera<T>::tryIdeal2pixel(const Vec2& ideal, Vec2& pixel) const {
    Vec2 distorted;
    if (!tryDistort(ideal, distorted)) {
        return false;
    }
    pixel = Vec2(mCamModel.principalPoint[0] + distorted[0] * mCamModel.focalLength[0],
                 mCamModel.principalPoint[1] + distorted[1] * mCamModel.focalLength[1]);
    return true;
}

template <typename T>
bool Camera<T>::tryProjectToPix(const Vec3& point, Vec2& pixel) const {
    if (!(point[2] > 0)) {
        return false;
    }
    const T invZ = 1 / point[2];
    return tryIdeal2pixel(Vec2(point[0] * invZ, point[1] * invZ), pixel);
}

template <typename T>
bool Camera<T>::tryUnprojectFromPix(const Vec2& pixel, Vec3& point, T depth) const {
    AR_ASSERT(depth > 0);
    Vec2 ideal;
    if (!tryPixel2ideal(pixel, ideal)) {
        return false;
    }
    point = Vec3(ideal[0] * depth, ideal[1] * depth, depth);
    return true;
}

template <typename T>
bool Camera<T>::tryUndistortFeatMeasCov(const Vec2& pixel, const Mat2& pixelCov, Vec2& ideal,
                                        Mat2& idealCov) const {
    if (!tryPixel2ideal(pixel, ideal)) {
        return false;
    }
    const T h = static_cast<T>(kCovarianceStepPixels);
    Mat2 jacobian;
    for (int axis = 0; axis < 2; ++axis) {
        Vec2 forward = pixel;
        Vec2 backward = pixel;
        forward[axis] += h;
        backward[axis] -= h;
        Vec2 idealForward;
        Vec2 idealBackward;
        if (!tryPixel2ideal(forward, idealForward) || !tryPixel2ideal(backward, idealBackward)) {
            return false;
        }
        for (int row = 0; row < 2; ++row) {
            jacobian.coeff(row, axis) = (idealForward[row] - idealBackward[row]) / (2 * h);
        }
    }
    idealCov = jacobian * pixelCov * jacobian.transpose();
    return true;
}

template <typename T>
typename Camera<T>::Vec2 Camera<T>::idealTowards(const Vec2& pixel) const {
    Vec2 ideal;
    if (tryPixel2ideal(pixel, ideal)) {
        return ideal;
    }
    // The principal point always undistorts (squared radius 0); bisect between it and `pixel`.
    const Vec2& centre = mCamModel.principalPoint;
    T inside = 0;
    T outside = 1;
    for (int i = 0; i < kFovBisections; ++i) {
        const T middle = (inside + outside) / 2;
        Vec2 candidate;
        if (tryPixel2ideal(centre + (pixel - centre) * middle, candidate)) {
            inside = middle;
        } else {
            outside = middle;
        }
    }
    const bool reached = tryPixel2ideal(centre + (pixel - centre) * inside, ideal);
    AR_ASSERT(reached);
    return ideal;
}

template <typename T>
typename Camera<T>::Vec2 Camera<T>::getFOV(T border) const {
    AR_ASSERT(isInitialized());
    const Vec2& size = mCamModel.size;
    const Vec2& centre = mCamModel.principalPoint;
    const Vec2 left = idealTowards(Vec2(border, centre[1]));
    const Vec2 right = idealTowards(Vec2(size[0] - border, centre[1]));
    const Vec2 top = idealTowards(Vec2(centre[0], border));
    const Vec2 bottom = idealTowards(Vec2(centre[0], size[1] - border));
    const T toDegrees = static_cast<T>(kRadiansToDegrees);
    return Vec2((std::atan(right[0]) - std::atan(left[0])) * toDegrees,
                (std::atan(bottom[1]) - std::atan(top[1])) * toDegrees);
}

template <typename T>
typename Camera<T>::Vec2 Camera<T>::getFOVPixels() const {
    AR_ASSERT(isInitialized());
    const Vec2& size = mCamModel.size;
    const Vec2& centre = mCamModel.principalPoint;
    const Vec2 left = idealTowards(Vec2(T(0), centre[1]));
    const Vec2 right = idealTowards(Vec2(size[0], centre[1]));
    const Vec2 top = idealTowards(Vec2(centre[0], T(0)));
    const Vec2 bottom = idealTowards(Vec2(centre[0], size[1]));
    return Vec2((right[0] - left[0]) * mCorrectedFocalLength[0],
                (bottom[1] - top[1]) * mCorrectedFocalLength[1]);
}

template <typename T>
typename Camera<T>::OldDistortionVec Camera<T>::getOldDistortionVec() const {
    const RDVec& k = mCamModel.radialDistortion;
    const Vec2& p = mCamModel.tangentialDistortion;
    return OldDistortionVec(k[0], k[1], p[0], p[1], k[2], k[3], k[4], k[5]);
}

template <typename T>
std::unique_ptr<TiXmlElement> Camera<T>::toXMLNode(const XMLFormat& format) const {
    auto element = std::make_unique<TiXmlElement>("Calibration");
    element->SetAttribute("size", vectorText(mCamModel.size));
    element->SetAttribute("principal_point", vectorText(mCamModel.principalPoint));
    element->SetAttribute("focal_length", vectorText(mCamModel.focalLength));
    if (format == XMLFormat::OLD) {
        // The old format knew one fisheye, the 1-parameter model; everything else was pinhole.
        if (mCamModel.model == DistortionModel::FISHEYE_1_PARAMETER) {
            element->SetAttribute("fish_eye", "true");
        }
        element->SetAttribute("radial_distortion_8", vectorText(getOldDistortionVec()));
    } else {
        element->SetAttribute("model", CamModel::modelName(mCamModel.model));
        element->SetAttribute("radial_distortion", vectorText(mCamModel.radialDistortion));
        element->SetDoubleAttribute("distortion_limit",
                                    static_cast<double>(std::sqrt(mCamModel.distortionLimit)));
        element->SetDoubleAttribute("undistortion_limit",
                                    static_cast<double>(std::sqrt(mCamModel.undistortionLimit)));
        if (hasTangential(mCamModel.tangentialDistortion)) {
            element->SetAttribute("tangential_distortion",
                                  vectorText(mCamModel.tangentialDistortion));
        }
    }
    return element;
}

template class Camera<float>;
template class Camera<double>;

}  // namespace CV
}  // namespace AR
