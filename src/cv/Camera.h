// A calibrated camera: a CamModel::CameraModel with spline tables for its distortion and
// undistortion factors, so that a projection costs one table lookup whatever the model, and the
// conversions between the pixel, distorted and ideal planes (see cv/CameraModel.h) and 3D points
// in the camera frame (x right, y down, z forward along the optical axis, metres or any unit).
//
//   ideal -> distorted: u * distortionFactor(|u|^2) + tangential(u), the tangential term being
//                       ((3x^2 + y^2) p2 + 2xy p1, 2xy p2 + (x^2 + 3y^2) p1);
//   distorted -> pixel: principalPoint + focalLength * d (component-wise).
//
// Every `try*` conversion returns false, leaving its output unspecified, when a squared radius
// falls outside the valid range of the spline it needs; points outside the image are otherwise
// fine. Using a camera before a successful `init` aborts.
//
// The frame path makes only LINEAR cameras: `init(size, focalLength, principalPoint,
// RDVec::zeros(), Vec2::zeros(), DistortionModel::LINEAR)`.
//
// Copy policy: a plain value; copies are deep. Thread safety: `init` must not overlap any other
// call; after it every const member may be called from any number of threads.
// Instantiated for float and double only.
#ifndef VELMORA_CV_CAMERA_H
#define VELMORA_CV_CAMERA_H

#include <memory>

#include "cv/CameraModel.h"
#include "cv/HermiteSplineInterpolation.h"
#include "math/Matrix.h"
#include "math/Vector.h"

// TinyXML's element; include <tinyxml.h> to use the result of `toXMLNode`.
class TiXmlElement;

namespace AR {
namespace CV {

// Attribute sets of the "Calibration" element written by `Camera::toXMLNode`.
enum class XMLFormat {
    OLD,  // "fish_eye" and the eight coefficients of "radial_distortion_8"
    NEW,  // "model", six radial coefficients, both limits, tangential terms when present
};

// Length of the coefficient vector of the old calibration format.
constexpr int kOldDistortionParams = 8;

template <typename T>
class Camera {
public:
    using Vec2 = AR::Math::Vector<T, 2>;
    using Vec3 = AR::Math::Vector<T, 3>;
    using RDVec = AR::Math::Vector<T, CamModel::MAX_RD_PARAMS>;
    using OldDistortionVec = AR::Math::Vector<T, kOldDistortionParams>;
    using Mat2 = AR::Math::Matrix<T, 2, 2>;
    using CameraModel = CamModel::CameraModel<T>;
    using DistortionModel = CamModel::DistortionModel;
    using Spline = HermiteSplineInterpolation<T>;

    Camera() = default;
    Camera(const Camera&) = default;
    Camera& operator=(const Camera&) = default;
    virtual ~Camera() = default;
    virtual std::unique_ptr<Camera> clone() const;

    // --- Set-up -------------------------------------------------------------------------------
    // The form the frame path calls: a model with both limits from setupValidDistortionRange at a
    // field of view of 180 degrees (no bound), then `init(model)`.
    bool init(const Vec2& size, const Vec2& focalLength, const Vec2& principalPoint,
              const RDVec& radial, const Vec2& tangential, DistortionModel model);
    // Validates the model, fits both splines over [0, limit) of its two limits and derives the
    // focal lengths. False (logged at level 1, the camera unchanged) for invalid intrinsics or a
    // fit worse than its tolerance.
    bool init(const CameraModel& model);
    bool isInitialized() const { return mDistortion.isInit() && mUndistortion.isInit(); }

    // --- Accessors ----------------------------------------------------------------------------
    const Vec2& getSize() const { return mCamModel.size; }
    const Vec2& getPrincipalPoint() const { return mCamModel.principalPoint; }
    const Vec2& getOriginalFocalLength() const { return mCamModel.focalLength; }
    // The scalar forms give the horizontal component; the cameras of this system have square
    // pixels. "Corrected" is the focal length times the distortion factor at the centre: the
    // focal length of the pinhole that matches the camera near its principal point.
    T getCorrectedFocalLength() const { return mCorrectedFocalLength[0]; }
    const Vec2& getCorrectedFocalLengthVec() const { return mCorrectedFocalLength; }
    T getInvFocalLength() const { return mInvFocalLength[0]; }
    const Vec2& getInvFocalLengthVec() const { return mInvFocalLength; }
    const Vec2& getInvCorrectedFocalLengthVec() const { return mInvCorrectedFocalLength; }
    DistortionModel getRadialDistortionModel() const { return mCamModel.model; }
    const RDVec& getRadialDistortionCoeffs() const { return mCamModel.radialDistortion; }
    const Vec2& getTangentialDistortionCoeffs() const { return mCamModel.tangentialDistortion; }
    const CameraModel& getCamModel() const { return mCamModel; }
    // Distortion factor over squared ideal radius, undistortion factor over squared distorted
    // radius; texture extraction evaluates the first directly.
    const Spline& getDistortionSpline() const { return mDistortion; }
    const Spline& getUndistortionSpline() const { return mUndistortion; }

    // --- Conversions --------------------------------------------------------------------------
    bool tryPixel2ideal(const Vec2& pixel, Vec2& ideal) const;
    bool tryIdeal2pixel(const Vec2& ideal, Vec2& pixel) const;
    // Distorted -> ideal with the radial and the tangential terms.
    bool tryUndistort(const Vec2& distorted, Vec2& ideal) const;
    bool tryDistort(const Vec2& ideal, Vec2& distorted) const;
    // Distorted -> ideal with the radial term only (the tangential coefficients ignored).
    bool tryUndistortSymmetric(const Vec2& distorted, Vec2& ideal) const;
    // Distorted -> ideal with both terms, by fixed-point iteration on the tangential term. The
    // point itself must lie in the undistortion range; the iterates may leave it slightly.
    bool tryUndistortTangential(const Vec2& distorted, Vec2& ideal) const;
    // Camera-frame point -> pixel; false also for a point not in front of the camera (z <= 0).
    bool tryProjectToPix(const Vec3& point, Vec2& pixel) const;
    // Pixel -> camera-frame point at z = `depth`; aborts unless depth > 0.
    bool tryUnprojectFromPix(const Vec2& pixel, Vec3& point, T depth) const;
    // (pixel - principalPoint) / focalLength; no range to check.
    Vec2 pixelToDistorted(const Vec2& pixel) const;
    // The ideal point of `pixel` and the covariance, in the ideal plane, of a pixel measurement
    // with covariance `pixelCov` (pixels squared), through the local Jacobian of tryPixel2ideal.
    bool tryUndistortFeatMeasCov(const Vec2& pixel, const Mat2& pixelCov, Vec2& ideal,
                                 Mat2& idealCov) const;

    // --- Field of view ------------------------------------------------------------------------
    // Horizontal and vertical field of view in degrees of the image with `border` pixels left
    // out on each side, through the principal point. An edge point beyond the undistortion range
    // is taken at the last point of that range on its way to the principal point.
    Vec2 getFOV(T border) const;
    // Width and height in pixels of the distortion-free image, at the corrected focal length,
    // that covers the same field of view (the size itself for a LINEAR camera).
    Vec2 getFOVPixels() const;

    // --- Export -------------------------------------------------------------------------------
    // A new "Calibration" element; no code path of the system writes it.
    std::unique_ptr<TiXmlElement> toXMLNode(const XMLFormat& format) const;
    // The calibration as a plain record, limits included.
    CameraModel toIDL() const { return mCamModel; }
    // The coefficients of the old format: (k0, k1, p1, p2, k2, k3, k4, k5).
    OldDistortionVec getOldDistortionVec() const;

private:
    // The ideal point of `pixel`, or of the last point of the undistortion range on the segment
    // from the principal point to it.
    Vec2 idealTowards(const Vec2& pixel) const;

    CameraModel mCamModel{};
    Spline mDistortion;    // distortion factor over squared ideal radius
    Spline mUndistortion;  // undistortion factor over squared distorted radius
    Vec2 mCorrectedFocalLength{};
    Vec2 mInvCorrectedFocalLength{};
    Vec2 mInvFocalLength{};
};

}  // namespace CV
}  // namespace AR

#endif  // VELMORA_CV_CAMERA_H
