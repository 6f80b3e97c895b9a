// Cameras as the frame path builds them (float, linear): validation messages, the spline of unit
// distortion, the conversions between pixel, ideal plane and 3D point, and what aborts.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "cv/Camera.h"
#include "cv/CameraModel.h"
#include "cv/HermiteSplineInterpolation.h"

namespace {

using Camera = AR::CV::Camera<float>;
using Model = CamModel::CameraModel<float>;
using CamModel::DistortionModel;

// A VGA camera with its principal point off centre and non-square pixels.
Model vga() {
    Model m{};
    m.size = Camera::Vec2(640.0f, 480.0f);
    m.focalLength = Camera::Vec2(520.0f, 510.0f);
    m.principalPoint = Camera::Vec2(318.5f, 243.25f);
    m.radialDistortion = Camera::RDVec::zeros();
    m.tangentialDistortion = Camera::Vec2::zeros();
    m.model = DistortionModel::LINEAR;
    return m;
}

Camera linearCamera() {
    const Model m = vga();
    Camera camera;
    EXPECT_TRUE(camera.init(m.size, m.focalLength, m.principalPoint, m.radialDistortion,
                            m.tangentialDistortion, DistortionModel::LINEAR));
    return camera;
}

TEST(Camera, ValidationMessagesAndFailedInit) {
    const std::string focal = "Error: Focal length should be positive\n";
    const std::string size = "Error: Size must be the image size in pixels\n";
    const std::string principal = "Error: Principal point should be inside the image\n";
    std::vector<std::pair<std::string, Model>> cases = {{"", vga()}};
    for (int axis = 0; axis < 2; ++axis) {
        for (float bad : {0.0f, -300.0f}) {
            cases.push_back({focal, vga()});
            cases.back().second.focalLength[axis] = bad;
            cases.push_back({size, vga()});
            cases.back().second.size[axis] = bad;
        }
        // On the border, and beyond each side.
        for (float bad : {0.0f, vga().size[axis], -1.0f, vga().size[axis] + 1}) {
            cases.push_back({principal, vga()});
            cases.back().second.principalPoint[axis] = bad;
        }
    }
    cases.push_back(
        {"Radial distortion vector for model RADIAL_2_PARAMETERS must have at most 2 "
         "nonzero coefficients\n",
         vga()});
    cases.back().second.model = DistortionModel::RADIAL_2_PARAMETERS;
    cases.back().second.radialDistortion[2] = 0.01f;
    for (const auto& [message, model] : cases) {
        testing::internal::CaptureStdout();
        const bool valid = model.validateCoeffs();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), message);
        EXPECT_EQ(valid, message.empty()) << message;
        if (!valid) {
            Camera camera;
            testing::internal::CaptureStdout();
            EXPECT_FALSE(camera.init(model)) << message;
            testing::internal::GetCapturedStdout();
            EXPECT_FALSE(camera.isInitialized());
        }
    }
}

TEST(Camera, LinearInitGivesUnitDistortionOverItsRange) {
    const Camera camera = linearCamera();
    EXPECT_EQ(camera.getCamModel().distortionLimit, 625.0f);
    const auto& spline = camera.getDistortionSpline();
    float factor = 0;
    for (float r2 : {0.0f, 0.5f, 417.25f, std::nextafter(625.0f, 0.0f)}) {
        ASSERT_TRUE(spline.evaluate(r2, factor)) << r2;
        EXPECT_EQ(factor, 1.0f) << r2;
    }
    for (float r2 : {625.0f, -0.001f, std::nanf("")}) {
        EXPECT_FALSE(spline.evaluate(r2, factor)) << r2;
    }
}

TEST(Camera, PixelIdealAndSpaceRoundTrip) {
    const Camera camera = linearCamera();
    const Model m = vga();
    for (int i = 0; i < 25; ++i) {
        const Camera::Vec2 pixel(8.0f + 156.0f * (i % 5), 8.0f + 116.0f * (i / 5));
        Camera::Vec2 ideal, back;
        ASSERT_TRUE(camera.tryPixel2ideal(pixel, ideal));
        EXPECT_NEAR(ideal[0], (pixel[0] - m.principalPoint[0]) / m.focalLength[0], 1e-6);
        EXPECT_NEAR(ideal[1], (pixel[1] - m.principalPoint[1]) / m.focalLength[1], 1e-6);
        ASSERT_TRUE(camera.tryIdeal2pixel(ideal, back));
        EXPECT_NEAR(back[0], pixel[0], 2e-2);
        EXPECT_NEAR(back[1], pixel[1], 2e-2);
        const float depth = 0.4f + 0.3f * (i % 5 + i / 5);
        Camera::Vec3 point;
        ASSERT_TRUE(camera.tryUnprojectFromPix(pixel, point, depth));
        EXPECT_EQ(point[2], depth);
        ASSERT_TRUE(camera.tryProjectToPix(point, back));
        EXPECT_NEAR(back[0], pixel[0], 2e-2);
        EXPECT_NEAR(back[1], pixel[1], 2e-2);
    }
    // Points on or behind the camera plane have no pixel, even where the ray would meet the image.
    Camera::Vec2 out;
    EXPECT_FALSE(camera.tryProjectToPix(Camera::Vec3(0.1f, 0.1f, 0.0f), out));
    EXPECT_FALSE(camera.tryProjectToPix(Camera::Vec3(0.1f, 0.1f, -0.5f), out));
}

TEST(CameraDeathTest, PreconditionsAbort) {
    const auto bad = static_cast<DistortionModel>(6);
    EXPECT_DEATH(CamModel::maxNumRadialDistortionCoeffs(bad), "isKnownModel");
    Model model{};
    model.model = bad;
    EXPECT_DEATH(model.distortionFactor(0.5f), "isKnownModel");

    const Camera camera = linearCamera();
    Camera::Vec3 point;
    EXPECT_DEATH(camera.tryUnprojectFromPix(Camera::Vec2(10.0f, 10.0f), point, 0.0f), "depth > 0");
    // A camera that was never initialised has no spline to evaluate.
    Camera::Vec2 pixel;
    EXPECT_DEATH(Camera().tryProjectToPix(Camera::Vec3(0.0f, 0.0f, 1.0f), pixel), "isInit");

    AR::CV::HermiteSplineInterpolation<float> spline;
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

}  // namespace
