// Cameras as the frame path builds them (linear) and with a radial lens: validation messages,
// the Hermite spline fit, and the conversions between pixel, ideal plane and 3D point.
#include <gtest/gtest.h>

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
using CamModel::CameraModel;
using CamModel::DistortionModel;

// Target error of the cameras' spline fits (relative).
constexpr double kFitTarget = 5e-6;

// A VGA camera with its principal point off centre and non-square pixels.
template <typename T>
struct Intrinsics {
    typename Camera<T>::Vec2 size{T(640), T(480)};
    typename Camera<T>::Vec2 focal{T(520), T(510)};
    typename Camera<T>::Vec2 centre{T(318.5), T(243.25)};
    typename Camera<T>::RDVec radial = Camera<T>::RDVec::zeros();
    typename Camera<T>::Vec2 tangential = Camera<T>::Vec2::zeros();
};

// A barrel lens that stays monotonic over the image.
template <typename T>
typename Camera<T>::RDVec barrel() {
    return typename Camera<T>::RDVec(-0.28, 0.09, -0.012, 0, 0, 0);
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
    for (T r2 : {T(0), T(0.5), T(417.25), std::nextafter(T(625), T(0))}) {
        T factor = 0;
        ASSERT_TRUE(spline.evaluate(r2, factor)) << r2;
        EXPECT_EQ(factor, T(1)) << r2;
    }
    T factor = 0;
    EXPECT_FALSE(spline.evaluate(T(625), factor));
    EXPECT_FALSE(spline.evaluate(T(-0.001), factor));
    EXPECT_FALSE(spline.evaluate(std::nan(""), factor));
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
    for (const Case& c : cases) {
        EXPECT_EQ(validationOutput(c.model, valid), c.message);
        EXPECT_FALSE(valid) << c.message;
        Camera<T> camera;
        testing::internal::CaptureStdout();
        EXPECT_FALSE(camera.init(c.model)) << c.message;
        testing::internal::GetCapturedStdout();
        EXPECT_FALSE(camera.isInitialized());
    }
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

TYPED_TEST(CameraTyped, RoundTripsThroughIdealPlaneAndSpace) {
    using T = TypeParam;
    using Vec2 = typename Camera<T>::Vec2;
    using Vec3 = typename Camera<T>::Vec3;
    // Pixel tolerance: the splines' relative error at image radii of a few hundred pixels.
    const double pixelTolerance = std::is_same_v<T, float> ? 2e-2 : 2e-3;
    for (const bool lens : {false, true}) {
        Intrinsics<T> in;
        if (lens) {
            in.radial = barrel<T>();
            in.tangential = Vec2(T(0.0012), T(-0.0007));
        }
        Camera<T> camera;
        ASSERT_TRUE(
            camera.init(in.size, in.focal, in.centre, in.radial, in.tangential,
                        lens ? DistortionModel::RADIAL_3_PARAMETERS : DistortionModel::LINEAR));
        for (int yi = 0; yi <= 4; ++yi) {
            for (int xi = 0; xi <= 4; ++xi) {
                const Vec2 pixel(T(8) + T(156) * T(xi), T(8) + T(116) * T(yi));
                Vec2 ideal;
                Vec2 back;
                ASSERT_TRUE(camera.tryPixel2ideal(pixel, ideal)) << lens;
                ASSERT_TRUE(camera.tryIdeal2pixel(ideal, back)) << lens;
                EXPECT_NEAR(back[0], pixel[0], pixelTolerance) << lens;
                EXPECT_NEAR(back[1], pixel[1], pixelTolerance) << lens;
                if (!lens) {
                    EXPECT_NEAR(ideal[0], (pixel[0] - in.centre[0]) / in.focal[0], 1e-6);
                    EXPECT_NEAR(ideal[1], (pixel[1] - in.centre[1]) / in.focal[1], 1e-6);
                }
                const T depth = T(0.4) + T(0.3) * T(xi + yi);
                Vec3 point;
                ASSERT_TRUE(camera.tryUnprojectFromPix(pixel, point, depth)) << lens;
                EXPECT_EQ(point[2], depth);
                ASSERT_TRUE(camera.tryProjectToPix(point, back)) << lens;
                EXPECT_NEAR(back[0], pixel[0], pixelTolerance) << lens;
                EXPECT_NEAR(back[1], pixel[1], pixelTolerance) << lens;
            }
        }
    }
}

TYPED_TEST(CameraTyped, DistortionAndUndistortionAreInverse) {
    using T = TypeParam;
    using Vec2 = typename Camera<T>::Vec2;
    const double tolerance = std::is_same_v<T, float> ? 4e-5 : 1e-5;
    Intrinsics<T> in;
    in.radial = barrel<T>();
    Camera<T> camera;
    ASSERT_TRUE(camera.init(in.size, in.focal, in.centre, in.radial, in.tangential,
                            DistortionModel::RADIAL_3_PARAMETERS));
    // The lens is barrel-shaped: points move inwards when distorted.
    const Vec2 corner(T(0.6), T(-0.45));
    Vec2 distorted;
    ASSERT_TRUE(camera.tryDistort(corner, distorted));
    EXPECT_LT(AR::Math::norm(distorted), AR::Math::norm(corner));

    const T limit = camera.getCamModel().undistortionLimit;
    for (int i = 0; i < 16; ++i) {
        const T angle = T(1.37) * T(i);
        const T radius = std::sqrt(limit) * T(i) / T(16);
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
    EXPECT_FALSE(camera.tryProjectToPix(typename Camera<T>::Vec3(T(0.1), T(0.1), T(-0.5)), out));
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
