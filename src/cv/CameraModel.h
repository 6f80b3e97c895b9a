// Pinhole intrinsics with one of six radial distortion models, as a plain record.
//
// Planes and units:
//   pixel plane      image coordinates in pixels, (0, 0) the corner of the first pixel;
//   distorted plane  (pixel - principalPoint) / focalLength, dimensionless focal units;
//   ideal plane      (x / z, y / z) of a camera-frame point, what a distortion-free pinhole sees.
// Distortion maps an ideal point `u` to the distorted point `u * distortionFactor(|u|^2)` (plus
// the tangential term, which `AR::CV::Camera` applies); undistortion maps a distorted point `d`
// back to `d * undistortionFactor(|d|^2)`.
//
// Invariant kept by `setupValidDistortionRange`: on squared ideal radii in [0, distortionLimit]
// the distorted radius grows with the ideal radius, so `undistortionFactor` has exactly one
// answer for squared distorted radii in [0, undistortionLimit].
//
// Instantiated for float and double only. A plain value: no shared state, safe to read from any
// number of threads.
#ifndef VELMORA_CV_CAMERA_MODEL_H
#define VELMORA_CV_CAMERA_MODEL_H

#include <cstdint>
#include <type_traits>

#include "math/Vector.h"

namespace CamModel {

// The distortion models, in value order; the values are persisted, do not renumber.
enum class DistortionModel : int32_t {
    LINEAR = 0,
    RADIAL_2_PARAMETERS = 1,
    RADIAL_3_PARAMETERS = 2,
    RADIAL_6_PARAMETERS = 3,
    FISHEYE_1_PARAMETER = 4,
    FISHEYE_4_PARAMETERS = 5,
};

// Length of the radial coefficient vector of every model.
constexpr int MAX_RD_PARAMS = 6;
// Length of the tangential coefficient vector (p1, p2).
constexpr int kNumTangentialParams = 2;

// Largest squared radius, in focal units, that any model is asked to cover (a radius of 25,
// about 87.7 degrees off axis for a pinhole).
constexpr double kMaxSquaredRadius = 625.0;

// How many of k0..k5 the model uses; aborts on a value outside the enum.
int maxNumRadialDistortionCoeffs(DistortionModel model);
// "LINEAR", "RADIAL_2_PARAMETERS", ...; aborts on a value outside the enum.
const char* modelName(DistortionModel model);

template <typename T>
struct CameraModel {
    static_assert(std::is_floating_point_v<T>, "a camera model needs a floating-point type");

    using Vec2 = AR::Math::Vector<T, 2>;
    using RDVec = AR::Math::Vector<T, MAX_RD_PARAMS>;

    Vec2 size;                  // image width and height, pixels
    Vec2 principalPoint;        // pixels
    Vec2 focalLength;           // pixels
    RDVec radialDistortion;     // k0..k5; entries past the model's count are 0
    Vec2 tangentialDistortion;  // p1, p2
    DistortionModel model;
    T distortionLimit;    // squared ideal radius up to which distortionFactor is valid
    T undistortionLimit;  // squared distorted radius up to which undistortionFactor is valid

    // Checks focal length, size, principal point and the coefficients against the model. On the
    // first failure prints its message to standard output and returns false.
    bool validateCoeffs() const;

    // Sets both limits for this model from the image corners and `maxFovDegrees` (180 or more
    // means no field-of-view bound), both capped at kMaxSquaredRadius. With `verbose` the two
    // radii are printed to standard output.
    void setupValidDistortionRange(T maxFovDegrees, bool verbose);
    // Shrinks `distortionLimit` to where the distorted radius stops growing with the ideal radius,
    // and `undistortionLimit` to the squared distorted radius reached there.
    void findDistortionLimits();
    // Shrinks `distortionLimit` below the first positive root of the denominator of the rational
    // radial polynomial, where the factor has a pole.
    void setMaxDistortionLimits_6paramRadial();

    // Factor from ideal to distorted point at squared ideal radius `r2`.
    T distortionFactor(T r2) const;
    // d distortionFactor / d r2.
    T distortionDerivative(T r2) const;
    // Factor from distorted to ideal point at squared distorted radius `r2`; quiet not-a-number
    // when the inversion fails (outside the monotonic range).
    T undistortionFactor(T r2) const;
};

// The scalar functions the splines of a camera approximate, with their derivatives.
namespace CameraCalibration {

// Inverts the radial distortion of `model` at squared distorted radius `rd2`: on success
// `factor` is |ideal| / |distorted|. A safeguarded Newton iteration on the radius, bracketed by
// [0, sqrt(distortionLimit)]; false when the radius is out of reach or a number goes bad.
template <typename T>
bool undistort(const CameraModel<T>& model, T rd2, T& factor);

// x = squared ideal radius; y = distortionFactor(x), dy = its derivative in x.
template <typename T>
bool DistortFn(const CameraModel<T>& model, T x, T& y, T& dy);
// x = squared distorted radius; y = undistortionFactor(x), dy = its derivative in x.
template <typename T>
bool UndistortFn(const CameraModel<T>& model, T x, T& y, T& dy);

}  // namespace CameraCalibration

}  // namespace CamModel

#endif  // VELMORA_CV_CAMERA_MODEL_H
