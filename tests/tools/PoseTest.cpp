#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "velmora/Pose.h"

using namespace VelmoraTool;

namespace {

// A uniformly random rotation (from a normalised Gaussian quaternion) with a translation.
Matrix4d randomPose(std::mt19937& rng) {
    std::normal_distribution<double> gaussian;
    double q[4];
    double norm = 0.0;
    for (double& c : q) {
        c = gaussian(rng);
        norm += c * c;
    }
    norm = std::sqrt(norm);
    return poseFromQuaternion(q[0] / norm, q[1] / norm, q[2] / norm, q[3] / norm, gaussian(rng),
                              gaussian(rng), gaussian(rng));
}

double maxDifference(const Matrix4d& a, const Matrix4d& b) {
    double worst = 0.0;
    for (size_t i = 0; i < a.size(); ++i) {
        worst = std::fmax(worst, std::fabs(a[i] - b[i]));
    }
    return worst;
}

Matrix4d rebuilt(const Velmora::XrPosefVLM& pose) {
    return poseFromQuaternion(pose.orientation.x, pose.orientation.y, pose.orientation.z,
                              pose.orientation.w, pose.position.x, pose.position.y,
                              pose.position.z);
}

}  // namespace

// Every rotation, including half turns about each axis where the trace is -1 and the other
// branches of the conversion are taken, must give a quaternion that the library accepts and
// that reproduces the matrix to float precision.
TEST(PoseConversion, QuaternionPassesTheUnitTestAndReproducesTheRotation) {
    std::mt19937 rng(7);
    std::vector<Matrix4d> poses;
    for (int i = 0; i < 20000; ++i) {
        poses.push_back(randomPose(rng));
    }
    poses.push_back(poseFromQuaternion(1, 0, 0, 0, 0, 0, 0));  // half turn about x
    poses.push_back(poseFromQuaternion(0, 1, 0, 0, 0, 0, 0));  // about y
    poses.push_back(poseFromQuaternion(0, 0, 1, 0, 0, 0, 0));  // about z
    poses.push_back(identityMatrix());
    constexpr double kFloatRotationTolerance = 2e-6;
    constexpr double kFloatTranslationTolerance = 1e-6;  // relative to |t| ~ 1
    for (const Matrix4d& pose : poses) {
        const Velmora::XrPosefVLM converted = toXrPose(pose);
        ASSERT_LT(quaternionUnitError(converted.orientation), kUnitQuaternionTolerance);
        const Matrix4d back = rebuilt(converted);
        for (int row = 0; row < 3; ++row) {
            for (int column = 0; column < 3; ++column) {
                ASSERT_NEAR(back[row * 4 + column], pose[row * 4 + column],
                            kFloatRotationTolerance);
            }
            ASSERT_NEAR(back[row * 4 + 3], pose[row * 4 + 3],
                        kFloatTranslationTolerance * (1.0 + std::fabs(pose[row * 4 + 3])));
        }
    }
}

// A pose written with six decimals is not exactly orthonormal; it must still pass and convert.
TEST(PoseConversion, RoundedTextPoseIsAccepted) {
    std::mt19937 rng(3);
    Matrix4d pose = randomPose(rng);
    for (double& value : pose) {
        value = std::round(value * 1e6) / 1e6;
    }
    std::string problem;
    EXPECT_TRUE(checkRigid(pose, problem)) << problem;
    EXPECT_LT(quaternionUnitError(toXrPose(pose).orientation), kUnitQuaternionTolerance);
    EXPECT_LT(maxDifference(rebuilt(toXrPose(pose)), pose), 1e-5);
}

TEST(PoseValidation, RefusesScaledShearedReflectedAndProjectivePoses) {
    std::mt19937 rng(11);
    const Matrix4d rigid = randomPose(rng);
    std::string problem;
    ASSERT_TRUE(checkRigid(rigid, problem)) << problem;

    Matrix4d scaled = rigid;
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column) {
            scaled[row * 4 + column] *= 1.01;
        }
    }
    EXPECT_FALSE(checkRigid(scaled, problem));
    EXPECT_NE(problem.find("not orthonormal"), std::string::npos) << problem;

    Matrix4d sheared = identityMatrix();
    sheared[1] = 0.05;
    EXPECT_FALSE(checkRigid(sheared, problem));
    EXPECT_NE(problem.find("not orthonormal"), std::string::npos) << problem;

    Matrix4d reflected = rigid;
    for (int row = 0; row < 3; ++row) {
        reflected[row * 4 + 2] = -reflected[row * 4 + 2];
    }
    EXPECT_FALSE(checkRigid(reflected, problem));
    EXPECT_NE(problem.find("determinant -1"), std::string::npos) << problem;

    Matrix4d projective = rigid;
    projective[14] = 0.5;
    EXPECT_FALSE(checkRigid(projective, problem));
    EXPECT_NE(problem.find("last row"), std::string::npos) << problem;

    // Within the tolerance a slightly imperfect rotation is still a rotation.
    Matrix4d nearlyRigid = rigid;
    nearlyRigid[0] += kRigidTolerance / 10;
    EXPECT_TRUE(checkRigid(nearlyRigid, problem)) << problem;
}

TEST(PoseValidation, NonFiniteEntriesMarkLostTracking) {
    Matrix4d pose = identityMatrix();
    EXPECT_TRUE(isFinitePose(pose));
    for (double bad :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
          -std::numeric_limits<double>::infinity()}) {
        for (size_t i : {size_t{0}, size_t{7}, size_t{15}}) {
            Matrix4d lost = pose;
            lost[i] = bad;
            EXPECT_FALSE(isFinitePose(lost)) << "entry " << i;
        }
    }
}
