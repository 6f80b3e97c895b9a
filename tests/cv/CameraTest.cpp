// Cameras: model bookkeeping and validation messages, the valid ranges, the Hermite spline fit,
// the conversions between pixel, ideal plane and 3D point, and the XML export.
#include <gtest/gtest.h>
#include <tinyxml.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "cv/Camera.h"
#include "cv/CameraModel.h"
#include "cv/HermiteSplineInterpolation.h"

namespace {

using AR::CV::Camera;
using AR::CV::HermiteSplineInterpolation;
using AR::CV::XMLFormat;
using CamModel::CameraModel;
using CamModel::DistortionModel;

constexpr double kPi = 3.14159265358979323846;
// Target error of the cameras' spline fits (relative).
constexpr double kFitTarget = 5e-6;

const DistortionModel kAllModels[] = {
    DistortionModel::LINEAR,
    DistortionModel::RADIAL_2_PARAMETERS,
    DistortionModel::RADIAL_3_PARAMETERS,
    DistortionModel::RADIAL_6_PARAMETERS,
    DistortionModel::FISHEYE_1_PARAMETER,
    DistortionModel::FISHEYE_4_PARAMETERS,
};

// A VGA camera with its principal point off centre and non-square pixels.
template <typename T>
struct Intrinsics {
    typename Camera<T>::Vec2 size{T(640), T(480)};
    typename Camera<T>::Vec2 focal{T(520), T(510)};
    typename Camera<T>::Vec2 centre{T(318.5), T(243.25)};
    typename Camera<T>::RDVec radial = Camera<T>::RDVec::zeros();
    typename Camera<T>::Vec2 tangential = Camera<T>::Vec2::zeros();
};

// Coefficients k0..k5 per model value that bend a wide lens visibly but stay monotonic over the
// image.
const double kCoefficients[6][6] = {
    {0, 0, 0, 0, 0, 0},
    {-0.25, 0.06, 0, 0, 0, 0},
    {-0.28, 0.09, -0.012, 0, 0, 0},
    {0.4, -0.05, 0.01, 0.7, 0.02, 0.003},
    {0.92, 0, 0, 0, 0, 0},
    {-0.01, 0.02, -0.004, 0.001, 0, 0},
};

template <typename T>
typename Camera<T>::RDVec coefficientsFor(DistortionModel model) {
    const double* k = kCoefficients[static_cast<int>(model)];
    return typename Camera<T>::RDVec(k[0], k[1], k[2], k[3], k[4], k[5]);
}

// A model record of `in` with distortion model `model`; the limits are left at 0.
template <typename T>
CameraModel<T> makeModel(const Intrinsics<T>& in, DistortionModel model) {
    CameraModel<T> out{};
    out.size = in.size;
    out.focalLength = in.focal;
    out.principalPoint = in.centre;
    out.radialDistortion = in.radial;
    out.tangentialDistortion = in.tangential;
    out.model = model;
    return out;
}

// Runs `validateCoeffs` and returns what it printed.
template <typename T>
std::string validationOutput(const CameraModel<T>& model, bool& valid) {
    testing::internal::CaptureStdout();
    valid = model.validateCoeffs();
    return testing::internal::GetCapturedStdout();
}

template <typename T>
class CameraTyped : public testing::Test {};
using FloatTypes = testing::Types<float, double>;
TYPED_TEST_SUITE(CameraTyped, FloatTypes);

TEST(CameraModelTest, NamesAndCoefficientCountsOfEveryModel) {
    const char* names[] = {"LINEAR",
                           "RADIAL_2_PARAMETERS",
                           "RADIAL_3_PARAMETERS",
                           "RADIAL_6_PARAMETERS",
                           "FISHEYE_1_PARAMETER",
                           "FISHEYE_4_PARAMETERS"};
    const int counts[] = {0, 2, 3, 6, 1, 4};
    for (int i = 0; i < 6; ++i) {
        EXPECT_STREQ(CamModel::modelName(kAllModels[i]), names[i]);
        EXPECT_EQ(CamModel::maxNumRadialDistortionCoeffs(kAllModels[i]), counts[i]);
        EXPECT_EQ(static_cast<int>(kAllModels[i]), i);
    }
    EXPECT_EQ(CamModel::MAX_RD_PARAMS, 6);
    EXPECT_EQ(sizeof(DistortionModel), 4u);
}

TEST(CameraModelDeathTest, ValueOutsideTheEnumAborts) {
    const auto bad = static_cast<DistortionModel>(6);
    EXPECT_DEATH(CamModel::maxNumRadialDistortionCoeffs(bad), "isKnownModel");
    CameraModel<float> model{};
    model.model = bad;
    EXPECT_DEATH(model.distortionFactor(0.5f), "isKnownModel");
}

TYPED_TEST(CameraTyped, LinearInitGivesUnitDistortionOverItsRange) {
    using T = TypeParam;
    const Intrinsics<T> in;
    Camera<T> camera;
    EXPECT_FALSE(camera.isInitialized());
    ASSERT_TRUE(camera.init(in.size, in.focal, in.centre, Camera<T>::RDVec::zeros(),
                            Camera<T>::Vec2::zeros(), DistortionModel::LINEAR));
    EXPECT_TRUE(camera.isInitialized());
    EXPECT_EQ(camera.getCamModel().distortionLimit, T(625));

    const auto& spline = camera.getDistortionSpline();
    for (T r2 :
         {T(0), T(1e-6), T(0.5), T(3), T(100), T(417.25), T(624.5), std::nextafter(T(625), T(0))}) {
        T factor = 0;
        ASSERT_TRUE(spline.evaluate(r2, factor)) << r2;
        EXPECT_EQ(factor, T(1)) << r2;
    }
    T factor = 0;
    EXPECT_FALSE(spline.evaluate(T(625), factor));
    EXPECT_FALSE(spline.evaluate(T(-0.001), factor));
    EXPECT_FALSE(spline.evaluate(std::nan(""), factor));

    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(camera.getCorrectedFocalLengthVec()[i], in.focal[i]);
        EXPECT_EQ(camera.getInvFocalLengthVec()[i], T(1) / in.focal[i]);
    }
    EXPECT_EQ(camera.getRadialDistortionModel(), DistortionModel::LINEAR);
}

TYPED_TEST(CameraTyped, ValidationMessagesAndFailedInit) {
    using T = TypeParam;
    const Intrinsics<T> in;
    const CameraModel<T> good = makeModel(in, DistortionModel::LINEAR);
    bool valid = false;
    EXPECT_EQ(validationOutput(good, valid), "");
    EXPECT_TRUE(valid);

    struct Case {
        std::string message;
        CameraModel<T> model;
    };
    std::vector<Case> cases;
    const std::string focal = "Error: Focal length should be positive\n";
    const std::string size = "Error: Size must be the image size in pixels\n";
    const std::string principal = "Error: Principal point should be inside the image\n";
    for (int axis = 0; axis < 2; ++axis) {
        for (T bad : {T(0), T(-300)}) {
            Case c{focal, good};
            c.model.focalLength[axis] = bad;
            cases.push_back(c);
            c = Case{size, good};
            c.model.size[axis] = bad;
            cases.push_back(c);
        }
        // On the border, and beyond each side.
        for (T bad : {T(0), in.size[axis], T(-1), in.size[axis] + 1}) {
            Case c{principal, good};
            c.model.principalPoint[axis] = bad;
            cases.push_back(c);
        }
    }
    Case radial{
        "Radial distortion vector for model RADIAL_2_PARAMETERS must have at most 2 nonzero "
        "coefficients\n",
        good};
    radial.model.model = DistortionModel::RADIAL_2_PARAMETERS;
    radial.model.radialDistortion[2] = T(0.01);
    cases.push_back(radial);
    Case linear{
        "Radial distortion vector for model LINEAR must have at most 0 nonzero "
        "coefficients\n",
        good};
    linear.model.radialDistortion[5] = T(1e-4);
    cases.push_back(linear);
    for (T omega : {T(0), static_cast<T>(kPi), T(4)}) {
        Case fisheye{"", good};
        fisheye.model.model = DistortionModel::FISHEYE_1_PARAMETER;
        fisheye.model.radialDistortion[0] = omega;
        char text[128];
        std::snprintf(
            text, sizeof(text),
            "Omega parameter of 1-param fisheye model (%f) must be in the range (0, Pi)\n",
            static_cast<double>(omega));
        fisheye.message = text;
        cases.push_back(fisheye);
    }

    for (const Case& c : cases) {
        EXPECT_EQ(validationOutput(c.model, valid), c.message);
        EXPECT_FALSE(valid) << c.message;
        Camera<T> camera;
        testing::internal::CaptureStdout();
        EXPECT_FALSE(camera.init(c.model)) << c.message;
        testing::internal::GetCapturedStdout();
        EXPECT_FALSE(camera.isInitialized());
    }

    // The 6-parameter model may use every coefficient.
    CameraModel<T> six = good;
    six.model = DistortionModel::RADIAL_6_PARAMETERS;
    six.radialDistortion = coefficientsFor<T>(DistortionModel::RADIAL_6_PARAMETERS);
    EXPECT_EQ(validationOutput(six, valid), "");
    EXPECT_TRUE(valid);
}

TEST(CameraModelTest, ValidRangeFromCornersFieldOfViewAndPoles) {
    CameraModel<double> model{};
    model.size = CameraModel<double>::Vec2(640.0, 480.0);
    model.focalLength = CameraModel<double>::Vec2(500.0, 400.0);
    model.principalPoint = CameraModel<double>::Vec2(100.0, 50.0);
    model.radialDistortion = CameraModel<double>::RDVec::zeros();
    model.tangentialDistortion = CameraModel<double>::Vec2::zeros();
    model.model = DistortionModel::LINEAR;

    // The far corner is (640, 480): 540 / 500 and 430 / 400 focal units away.
    model.setupValidDistortionRange(180.0, false);
    EXPECT_DOUBLE_EQ(model.undistortionLimit, 1.08 * 1.08 + 1.075 * 1.075);
    EXPECT_EQ(model.distortionLimit, 625.0);
    model.setupValidDistortionRange(270.0, false);
    EXPECT_EQ(model.distortionLimit, 625.0);
    // 90 degrees: tan(45 degrees)^2, with the single-precision degree constant.
    model.setupValidDistortionRange(90.0, false);
    EXPECT_NEAR(model.distortionLimit, 1.0, 1e-7);

    // A denominator 1 - 0.5 r2 has its pole at r2 = 2; the range must stop short of it, at a
    // radius where the distorted radius still grows.
    model.model = DistortionModel::RADIAL_6_PARAMETERS;
    model.radialDistortion = CameraModel<double>::RDVec(0.0, 0.0, 0.0, -0.5, 0.0, 0.0);
    testing::internal::CaptureStdout();
    model.setupValidDistortionRange(180.0, true);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Radial polynomial model: root of denominator at 2.000000\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Model RADIAL_6_PARAMETERS. Distortion is valid up-to a radius of"),
              std::string::npos);
    EXPECT_NE(out.find("Model RADIAL_6_PARAMETERS. Undistortion is valid up-to a radius of"),
              std::string::npos);
    EXPECT_LT(model.distortionLimit, 2.0);
    EXPECT_GT(model.distortionLimit, 1.9);

    // A barrel lens whose distorted radius peaks: r (1 - 0.3 r^2) is largest at r^2 = 1/0.9.
    model.model = DistortionModel::RADIAL_2_PARAMETERS;
    model.radialDistortion = CameraModel<double>::RDVec(-0.3, 0.0, 0.0, 0.0, 0.0, 0.0);
    model.setupValidDistortionRange(180.0, false);
    EXPECT_NEAR(model.distortionLimit, 1.0 / 0.9, 1e-9);
    EXPECT_LE(model.distortionLimit, 1.0 / 0.9);
    const double peak = 1.0 / 0.9 * std::pow(1.0 - 0.3 / 0.9, 2.0);
    EXPECT_NEAR(model.undistortionLimit, peak, 1e-6);
}

TEST(CameraModelTest, DerivativesMatchDifferencesAndUndistortionInvertsDistortion) {
    for (DistortionModel m : kAllModels) {
        CameraModel<double> model{};
        model.model = m;
        model.radialDistortion = coefficientsFor<double>(m);
        model.distortionLimit = 2.0;
        for (double u : {0.00002, 0.00009, 0.02, 0.3, 0.9, 1.6}) {
            const double h = 1e-7;
            const double numeric =
                (model.distortionFactor(u + h) - model.distortionFactor(u - h)) / (2 * h);
            EXPECT_NEAR(model.distortionDerivative(u), numeric, 1e-5)
                << CamModel::modelName(m) << " u " << u;

            const double f = model.distortionFactor(u);
            const double distortedSquared = u * f * f;
            EXPECT_NEAR(model.undistortionFactor(distortedSquared) * f, 1.0, 1e-12)
                << CamModel::modelName(m) << " u " << u;

            double y = 0;
            double dy = 0;
            ASSERT_TRUE(CamModel::CameraCalibration::UndistortFn(model, distortedSquared, y, dy));
            double yForward = 0;
            double yBackward = 0;
            double ignored = 0;
            ASSERT_TRUE(CamModel::CameraCalibration::UndistortFn(model, distortedSquared + h,
                                                                 yForward, ignored));
            ASSERT_TRUE(CamModel::CameraCalibration::UndistortFn(model, distortedSquared - h,
                                                                 yBackward, ignored));
            EXPECT_NEAR(dy, (yForward - yBackward) / (2 * h), 1e-5) << CamModel::modelName(m);
        }
    }
}

TEST(HermiteSplineTest, FitReachesItsTargetAndDropsASteepLastBin) {
    using Spline = HermiteSplineInterpolation<double>;
    using Range = AR::Math::Vector<double, 2>;
    // A cubic is reproduced exactly by one bin.
    Spline cubic;
    const double cubicError = cubic.setupHermiteCoeffs(
        [](double x, double& y, double& dy) {
            y = 1 + x * (2 - x * (0.5 - 0.25 * x));
            dy = 2 - x + 0.75 * x * x;
            return true;
        },
        Range(-1.0, 3.0), true, 1024, kFitTarget, 32);
    EXPECT_LT(cubicError, 1e-12);
    EXPECT_EQ(cubic.segments().size(), 1u);

    // exp over [0, 4]: the returned error meets the target, and so does a dense independent
    // sample (allowing for points between the fit's own test points).
    Spline smooth;
    const double smoothError = smooth.setupHermiteCoeffs(
        [](double x, double& y, double& dy) {
            y = std::exp(x);
            dy = y;
            return true;
        },
        Range(0.0, 4.0), true, 1024, kFitTarget, 32);
    EXPECT_LT(smoothError, kFitTarget);
    EXPECT_GE(smooth.segments().size(), 32u);
    double worst = 0;
    for (int i = 0; i < 40000; ++i) {
        const double x = 4.0 * i / 40000.0;
        double y = 0;
        ASSERT_TRUE(smooth.evaluate(x, y));
        worst = std::max(worst, std::fabs(y - std::exp(x)) / std::exp(x));
    }
    EXPECT_LT(worst, 1.5 * kFitTarget);
    EXPECT_GT(worst, 0.0);

    // Constant but for a cubic bump that starts inside the last of 32 bins: every other bin is
    // exact, so doubling stops at 32 bins, and the last bin, judged alone, is dropped. The range
    // then ends one bin early and is exact up to there.
    const double bumpStart = 0.99;
    auto bumped = [bumpStart](double x, double& y, double& dy) {
        const double t = std::max(0.0, x - bumpStart);
        y = 1 + 1000 * t * t * t;
        dy = 3000 * t * t;
        return true;
    };
    Spline bump;
    const double bumpError =
        bump.setupHermiteCoeffs(bumped, Range(0.0, 1.0), true, 1024, kFitTarget, 32);
    EXPECT_LT(bumpError, kFitTarget);
    EXPECT_EQ(bump.segments().size(), 31u);
    EXPECT_DOUBLE_EQ(bump.high(), 31.0 / 32.0);
    double y = 0;
    EXPECT_FALSE(bump.evaluate(31.0 / 32.0, y));
    EXPECT_FALSE(bump.evaluate(0.995, y));
    ASSERT_TRUE(bump.evaluate(std::nextafter(31.0 / 32.0, 0.0), y));
    EXPECT_DOUBLE_EQ(y, 1.0);

    // A function that fails in its range leaves no spline.
    Spline broken;
    const double brokenError = broken.setupHermiteCoeffs(
        [](double x, double& y, double& dy) {
            y = dy = 1;
            return x < 0.5;
        },
        Range(0.0, 1.0), true, 1024, kFitTarget, 32);
    EXPECT_TRUE(std::isinf(brokenError));
    EXPECT_FALSE(broken.isInit());
}

TEST(HermiteSplineDeathTest, UnfittedOrInvertedRangeAborts) {
    HermiteSplineInterpolation<float> spline;
    float y = 0;
    EXPECT_DEATH(spline.evaluate(0.5f, y), "isInit");
    auto one = [](float, float& v, float& dv) {
        v = 1;
        dv = 0;
        return true;
    };
    EXPECT_DEATH(spline.setupHermiteCoeffs(one, AR::Math::Vector<float, 2>(1.0f, 1.0f), true, 1024,
                                           5e-6f, 32),
                 "rangeForApprox");
    EXPECT_DEATH(
        spline.setupHermiteCoeffs(one, AR::Math::Vector<float, 2>(0.0f, 1.0f), true, 16, 5e-6f, 32),
        "MAX_BINS >= INIT_BINS");
}

TYPED_TEST(CameraTyped, RoundTripsForEveryModel) {
    using T = TypeParam;
    using Vec2 = typename Camera<T>::Vec2;
    using Vec3 = typename Camera<T>::Vec3;
    // Pixel tolerance: the splines' relative error at image radii of a few hundred pixels.
    const double pixelTolerance = std::is_same_v<T, float> ? 2e-2 : 2e-3;
    for (DistortionModel m : kAllModels) {
        for (bool tangential : {false, true}) {
            if (tangential && m == DistortionModel::LINEAR) {
                continue;
            }
            Intrinsics<T> in;
            in.radial = coefficientsFor<T>(m);
            if (tangential) {
                in.tangential = Vec2(T(0.0012), T(-0.0007));
            }
            // The rational and the 4-parameter fisheye models are fitted over a 120 degree field
            // of view: over the default squared radius of 625 even 1024 bins are too coarse near
            // the centre for sub-pixel round trips (their fits end near 5e-4).
            const bool wide = m == DistortionModel::RADIAL_6_PARAMETERS ||
                              m == DistortionModel::FISHEYE_4_PARAMETERS;
            const T fovDegrees = T(wide ? 120 : 180);
            CameraModel<T> model = makeModel(in, m);
            model.setupValidDistortionRange(fovDegrees, false);
            Camera<T> camera;
            ASSERT_TRUE(camera.init(model)) << CamModel::modelName(m);
            const std::string what =
                std::string(CamModel::modelName(m)) + (tangential ? " with tangential terms" : "");

            // A grid over the image but 8 pixels from its border: right at a corner the
            // tangential term can carry a fisheye's radial inverse past its valid range.
            for (int yi = 0; yi <= 8; ++yi) {
                for (int xi = 0; xi <= 8; ++xi) {
                    const Vec2 pixel(T(8) + T(78) * T(xi), T(8) + T(58) * T(yi));
                    Vec2 ideal;
                    Vec2 back;
                    ASSERT_TRUE(camera.tryPixel2ideal(pixel, ideal)) << what;
                    ASSERT_TRUE(camera.tryIdeal2pixel(ideal, back)) << what;
                    EXPECT_NEAR(back[0], pixel[0], pixelTolerance) << what;
                    EXPECT_NEAR(back[1], pixel[1], pixelTolerance) << what;

                    const T depth = T(0.4) + T(0.3) * T(xi + yi);
                    Vec3 point;
                    ASSERT_TRUE(camera.tryUnprojectFromPix(pixel, point, depth)) << what;
                    EXPECT_EQ(point[2], depth);
                    ASSERT_TRUE(camera.tryProjectToPix(point, back)) << what;
                    EXPECT_NEAR(back[0], pixel[0], pixelTolerance) << what;
                    EXPECT_NEAR(back[1], pixel[1], pixelTolerance) << what;
                }
            }
        }
    }
}

TYPED_TEST(CameraTyped, DistortionAndUndistortionAreInverse) {
    using T = TypeParam;
    using Vec2 = typename Camera<T>::Vec2;
    const double tolerance = std::is_same_v<T, float> ? 4e-5 : 1e-5;
    Intrinsics<T> in;
    in.radial = coefficientsFor<T>(DistortionModel::RADIAL_3_PARAMETERS);
    Camera<T> camera;
    ASSERT_TRUE(camera.init(in.size, in.focal, in.centre, in.radial, in.tangential,
                            DistortionModel::RADIAL_3_PARAMETERS));
    // The lens is barrel-shaped: points move inwards when distorted.
    const Vec2 corner(T(0.6), T(-0.45));
    Vec2 distorted;
    ASSERT_TRUE(camera.tryDistort(corner, distorted));
    EXPECT_LT(AR::Math::norm(distorted), AR::Math::norm(corner));

    const T limit = camera.getCamModel().undistortionLimit;
    for (int i = 0; i < 64; ++i) {
        const T angle = T(0.37) * T(i);
        const T radius = std::sqrt(limit) * T(i) / T(64);
        const Vec2 d(radius * std::cos(angle), radius * std::sin(angle));
        Vec2 ideal;
        Vec2 again;
        ASSERT_TRUE(camera.tryUndistort(d, ideal));
        ASSERT_TRUE(camera.tryDistort(ideal, again));
        EXPECT_NEAR(again[0], d[0], tolerance * (1 + radius));
        EXPECT_NEAR(again[1], d[1], tolerance * (1 + radius));
    }
    // Far outside the range of both splines.
    Vec2 out;
    EXPECT_FALSE(camera.tryDistort(Vec2(T(30), T(0)), out));
    EXPECT_FALSE(camera.tryUndistort(Vec2(T(30), T(0)), out));
    EXPECT_FALSE(camera.tryProjectToPix(typename Camera<T>::Vec3(T(1), T(1), T(0)), out));
}

TEST(CameraTest, FieldOfViewCovarianceCloneAndRecord) {
    Intrinsics<double> in;
    in.centre = Camera<double>::Vec2(320.0, 240.0);
    Camera<double> camera;
    ASSERT_TRUE(camera.init(in.size, in.focal, in.centre, in.radial, in.tangential,
                            DistortionModel::LINEAR));
    const auto fov = camera.getFOV(0.0);
    EXPECT_NEAR(fov[0], 2 * std::atan(320.0 / 520.0) * 180.0 / kPi, 1e-9);
    EXPECT_NEAR(fov[1], 2 * std::atan(240.0 / 510.0) * 180.0 / kPi, 1e-9);
    const auto inner = camera.getFOV(20.0);
    EXPECT_NEAR(inner[0], 2 * std::atan(300.0 / 520.0) * 180.0 / kPi, 1e-9);
    const auto pixels = camera.getFOVPixels();
    EXPECT_NEAR(pixels[0], 640.0, 1e-9);
    EXPECT_NEAR(pixels[1], 480.0, 1e-9);

    // Without distortion the covariance scales by the inverse focal lengths on each side.
    const Camera<double>::Mat2 cov(2.0, 0.5, 0.5, 1.0);
    Camera<double>::Vec2 ideal;
    Camera<double>::Mat2 idealCov;
    ASSERT_TRUE(
        camera.tryUndistortFeatMeasCov(Camera<double>::Vec2(100.0, 400.0), cov, ideal, idealCov));
    for (int r = 0; r < 2; ++r) {
        for (int c = 0; c < 2; ++c) {
            EXPECT_NEAR(idealCov(r, c), cov(r, c) / (in.focal[r] * in.focal[c]), 1e-15);
        }
    }

    // A barrel lens shows more than its pinhole: wider angle, more pixels at the centre's scale.
    Camera<double> barrel;
    ASSERT_TRUE(barrel.init(in.size, in.focal, in.centre,
                            coefficientsFor<double>(DistortionModel::RADIAL_3_PARAMETERS),
                            in.tangential, DistortionModel::RADIAL_3_PARAMETERS));
    EXPECT_GT(barrel.getFOV(0.0)[0], fov[0]);
    EXPECT_GT(barrel.getFOVPixels()[0], 640.0);

    const std::unique_ptr<Camera<double>> copy = barrel.clone();
    ASSERT_TRUE(copy->isInitialized());
    Camera<double>::Vec2 a;
    Camera<double>::Vec2 b;
    ASSERT_TRUE(barrel.tryPixel2ideal(Camera<double>::Vec2(5.0, 7.0), a));
    ASSERT_TRUE(copy->tryPixel2ideal(Camera<double>::Vec2(5.0, 7.0), b));
    EXPECT_EQ(a, b);
    const CameraModel<double> record = barrel.toIDL();
    EXPECT_EQ(record.radialDistortion, barrel.getRadialDistortionCoeffs());
    EXPECT_EQ(record.undistortionLimit, barrel.getCamModel().undistortionLimit);
}

TEST(CameraTest, XmlElementAttributes) {
    Intrinsics<float> in;
    in.radial = coefficientsFor<float>(DistortionModel::RADIAL_3_PARAMETERS);
    Camera<float> camera;
    ASSERT_TRUE(camera.init(in.size, in.focal, in.centre, in.radial, in.tangential,
                            DistortionModel::RADIAL_3_PARAMETERS));
    const std::unique_ptr<TiXmlElement> node = camera.toXMLNode(XMLFormat::NEW);
    EXPECT_STREQ(node->Value(), "Calibration");
    EXPECT_STREQ(node->Attribute("size"), "640 480 ");
    EXPECT_STREQ(node->Attribute("principal_point"), "318.5 243.25 ");
    EXPECT_STREQ(node->Attribute("focal_length"), "520 510 ");
    EXPECT_STREQ(node->Attribute("model"), "RADIAL_3_PARAMETERS");
    EXPECT_STREQ(node->Attribute("radial_distortion"), "-0.28 0.090000004 -0.012 0 0 0 ");
    double limit = 0;
    ASSERT_EQ(node->QueryDoubleAttribute("distortion_limit", &limit), TIXML_SUCCESS);
    EXPECT_NEAR(limit, std::sqrt(camera.getCamModel().distortionLimit), 1e-4);
    ASSERT_EQ(node->QueryDoubleAttribute("undistortion_limit", &limit), TIXML_SUCCESS);
    EXPECT_NEAR(limit, std::sqrt(camera.getCamModel().undistortionLimit), 1e-4);
    EXPECT_EQ(node->Attribute("tangential_distortion"), nullptr);
    EXPECT_EQ(node->Attribute("radial_distortion_8"), nullptr);

    in.tangential = Camera<float>::Vec2(0.001f, -0.002f);
    ASSERT_TRUE(camera.init(in.size, in.focal, in.centre, in.radial, in.tangential,
                            DistortionModel::RADIAL_3_PARAMETERS));
    EXPECT_STREQ(camera.toXMLNode(XMLFormat::NEW)->Attribute("tangential_distortion"),
                 "0.001 -0.0020000001 ");
    // Old form: (k0, k1, p1, p2, k2, k3, k4, k5), and no fish-eye flag for a pinhole.
    const std::unique_ptr<TiXmlElement> old = camera.toXMLNode(XMLFormat::OLD);
    EXPECT_STREQ(old->Attribute("radial_distortion_8"),
                 "-0.28 0.090000004 0.001 -0.0020000001 -0.012 0 0 0 ");
    EXPECT_EQ(old->Attribute("fish_eye"), nullptr);
    EXPECT_EQ(old->Attribute("model"), nullptr);

    Camera<float> fisheye;
    ASSERT_TRUE(fisheye.init(in.size, in.focal, in.centre,
                             coefficientsFor<float>(DistortionModel::FISHEYE_1_PARAMETER),
                             Camera<float>::Vec2::zeros(), DistortionModel::FISHEYE_1_PARAMETER));
    EXPECT_STREQ(fisheye.toXMLNode(XMLFormat::OLD)->Attribute("fish_eye"), "true");
}

TEST(CameraDeathTest, UnprojectNeedsPositiveDepth) {
    const Intrinsics<float> in;
    Camera<float> camera;
    ASSERT_TRUE(camera.init(in.size, in.focal, in.centre, in.radial, in.tangential,
                            DistortionModel::LINEAR));
    Camera<float>::Vec3 point;
    EXPECT_DEATH(camera.tryUnprojectFromPix(Camera<float>::Vec2(10.0f, 10.0f), point, 0.0f),
                 "depth > 0");
    EXPECT_DEATH(camera.tryUnprojectFromPix(Camera<float>::Vec2(10.0f, 10.0f), point, -1.0f),
                 "depth > 0");
    // A camera that was never initialised has no spline to evaluate.
    Camera<float> blank;
    Camera<float>::Vec2 pixel;
    EXPECT_DEATH(blank.tryProjectToPix(Camera<float>::Vec3(0.0f, 0.0f, 1.0f), pixel), "isInit");
}

}  // namespace
