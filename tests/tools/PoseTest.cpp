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
    double q[4], norm = 0.0;
    for (double& c : q) {
        c = gaussian(rng);
        norm += c * c;
    }
    norm = std::sqrt(norm);
    return poseFromQuaternion(q[0] / norm, q[1] / norm, q[2] / norm, q[3] / norm, gaussian(rng),
                              gaussian(rng), gaussian(rng));
}

Matrix4d rebuilt(const Velmora::XrPosefVLM& p) {
    return poseFromQuaternion(p.orientation.x, p.orientation.y, p.orientation.z, p.orientation.w,
                              p.position.x, p.position.y, p.position.z);
}

}  // namespace

// Every rotation, including the half turns about each axis where the trace is -1 and the other
// branches of the conversion are taken, gives a quaternion the library accepts and that
// reproduces the matrix to float precision; so does a pose written with six decimals.
TEST(PoseConversion, QuaternionPassesTheUnitTestAndReproducesTheRotation) {
    std::mt19937 rng(7);
    std::vector<Matrix4d> poses = {poseFromQuaternion(1, 0, 0, 0, 0, 0, 0),
                                   poseFromQuaternion(0, 1, 0, 0, 0, 0, 0),
                                   poseFromQuaternion(0, 0, 1, 0, 0, 0, 0), identityMatrix()};
    for (int i = 0; i < 20000; ++i)
        poses.push_back(randomPose(rng));
    Matrix4d rounded = randomPose(rng);
    for (double& value : rounded)
        value = std::round(value * 1e6) / 1e6;
    std::string problem;
    EXPECT_TRUE(checkRigid(rounded, problem)) << problem;
    poses.push_back(rounded);
    for (const Matrix4d& pose : poses) {
        const Velmora::XrPosefVLM converted = toXrPose(pose);
        ASSERT_LT(quaternionUnitError(converted.orientation), kUnitQuaternionTolerance);
        const Matrix4d back = rebuilt(converted);
        const double tolerance = &pose == &poses.back() ? 1e-5 : 2e-6;  // the rounded one
        for (int row = 0; row < 3; ++row) {
            for (int column = 0; column < 3; ++column)
                ASSERT_NEAR(back[row * 4 + column], pose[row * 4 + column], tolerance);
            ASSERT_NEAR(back[row * 4 + 3], pose[row * 4 + 3],
                        tolerance * (1.0 + std::fabs(pose[row * 4 + 3])));
        }
    }
}

// Sheared and projective poses are refused with the reason (scaled and reflected ones are cases of
// the sequence tests); a rotation within the tolerance passes; a non-finite entry marks lost
// tracking (NaN: the tool's tests of lost frames).
TEST(PoseValidation, RefusesWhatIsNoRigidTransformAndMarksNonFiniteOnes) {
    std::mt19937 rng(11);
    const Matrix4d rigid = randomPose(rng);
    Matrix4d sheared = identityMatrix(), projective = rigid, nearlyRigid = rigid;
    sheared[1] = 0.05;
    projective[14] = 0.5;
    nearlyRigid[0] += kRigidTolerance / 10;
    std::string problem;
    EXPECT_TRUE(checkRigid(rigid, problem) && checkRigid(nearlyRigid, problem)) << problem;
    for (const auto& [pose, reason] :
         {std::make_pair(sheared, "not orthonormal"), std::make_pair(projective, "last row")}) {
        EXPECT_FALSE(checkRigid(pose, problem)) << reason;
        EXPECT_NE(problem.find(reason), std::string::npos) << problem;
    }
    EXPECT_TRUE(isFinitePose(rigid));
    for (const size_t i : {size_t{7}, size_t{15}}) {
        Matrix4d lost = rigid;
        lost[i] = (i == 7 ? 1 : -1) * std::numeric_limits<double>::infinity();
        EXPECT_FALSE(isFinitePose(lost)) << "entry " << i;
    }
}
