// The two sequence layouts read back: frames, poses, intrinsics, label maps, and every problem
// named with its file; the poses' conversions and checks.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include "ToolTestSupport.h"

using namespace VelmoraToolTest;

namespace {

std::unique_ptr<FrameSource> open(const std::string& dir, const SequenceOptions& options = {}) {
    std::string error;
    std::unique_ptr<FrameSource> source = openSequence(dir, options, error);
    EXPECT_TRUE(source) << error;
    return source;
}

std::string openError(const std::string& dir, const SequenceOptions& options = {}) {
    std::string error;
    EXPECT_FALSE(openSequence(dir, options, error));
    return error;
}

// Loads frame `index` expecting `status`; the problem text.
std::string loadProblem(FrameSource& source, size_t index, FrameStatus status,
                        Frame* read = nullptr) {
    Frame frame;
    std::string problem;
    EXPECT_EQ(source.load(index, read ? *read : frame, problem), status) << problem;
    return problem;
}

// Frame `index` of `source`, expected to hold the depth, colour (and labels) of the built-in
// scene's frame.
Frame loadSceneFrame(FrameSource& source, size_t index, double poseTolerance) {
    const Frame original = sceneFrame(index, source.frameCount());
    Frame read;
    loadProblem(source, index, FrameStatus::kOk, &read);
    EXPECT_EQ(read.width, kSmallWidth);
    EXPECT_EQ(read.depthMm, original.depthMm);
    EXPECT_TRUE(read.hasColor);
    EXPECT_EQ(read.rgb, original.rgb);
    EXPECT_EQ(read.hasLabels ? read.labels8 : original.labels8, original.labels8);
    for (size_t k = 0; k < 16; ++k)
        EXPECT_NEAR(read.worldFromCamera[k], original.worldFromCamera[k], poseTolerance);
    return read;
}

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

}  // namespace

// The recorded layout: frames ordered by number, optional streams that may be missing, stray files
// ignored.
TEST(Sequences, RecordedAndTumLayoutsReadBackWhatWasWritten) {
    ScratchDir scratch;
    const std::string dir = scratch / "seq";
    writeSceneSequence(dir, 3);
    std::unique_ptr<FrameSource> source = open(dir);
    ASSERT_TRUE(source);
    ASSERT_EQ(source->frameCount(), 3u);
    EXPECT_TRUE(source->hasLabels());
    const Intrinsics expected = sceneIntrinsics(kSmallWidth, kSmallHeight);
    EXPECT_NEAR(source->intrinsics().fx, expected.fx, 1e-6);
    EXPECT_NEAR(source->intrinsics().cy, expected.cy, 1e-6);
    for (size_t i = 0; i < 3; ++i) {
        const Frame read = loadSceneFrame(*source, i, 1e-9);
        EXPECT_TRUE(read.hasLabels && !read.labelsAre16Bit);
    }
    fs::remove(dir + "/label/000001.png");
    fs::remove(dir + "/color/000001.png");
    for (const char* stream : {"depth", "label", "color"})
        fs::rename(dir + "/" + stream + "/000002.png", dir + "/" + stream + "/000010.png");
    fs::rename(dir + "/pose/000002.txt", dir + "/pose/000010.txt");
    writeText(dir + "/depth/notes.png", "x");
    source = open(dir);
    ASSERT_EQ(source->frameCount(), 3u);
    EXPECT_EQ(source->frameNumber(1), 1u);
    EXPECT_EQ(source->frameNumber(2), 10u);
    Frame frame;
    loadProblem(*source, 1, FrameStatus::kOk, &frame);
    EXPECT_FALSE(frame.hasLabels || frame.hasColor);
    loadProblem(*source, 2, FrameStatus::kOk, &frame);
    EXPECT_TRUE(frame.hasLabels);

    // The TUM layout: frames and ground truth associated by time, depth in 1/5 mm rounded to
    // millimetres, and a malformed index line named with its number.
    const std::string tum = scratch / "tum";
    writeTumSequence(tum, 3);
    SequenceOptions options;
    options.intrinsics = Intrinsics{500.0, 501.0, 15.5, 11.5};
    source = open(tum, options);
    ASSERT_TRUE(source);
    ASSERT_EQ(source->frameCount(), 3u);
    EXPECT_EQ(source->intrinsics().fy, 501.0);
    EXPECT_FALSE(source->hasLabels());
    EXPECT_TRUE(contains(loadProblem(*source, 0, FrameStatus::kTrackingLost),
                         "no ground-truth pose within 20 ms"));
    for (size_t i = 1; i < 3; ++i) {
        EXPECT_EQ(loadSceneFrame(*source, i, 2e-6).timestamp,
                  static_cast<int64_t>(std::llround((1.0 + 0.1 * i) * 1e9)));
    }
    std::vector<uint16_t> raw(kSmallWidth * kSmallHeight, 5002);
    raw[1] = 5003;
    raw[2] = 65535;
    writePngOrFail(tum + "/depth/1.100000.png", makeGrey16(kSmallWidth, kSmallHeight, raw));
    loadProblem(*source, 1, FrameStatus::kOk, &frame);
    EXPECT_EQ(std::vector<uint16_t>(frame.depthMm.begin(), frame.depthMm.begin() + 3),
              (std::vector<uint16_t>{1000, 1001, 13107}));
    writeText(tum + "/groundtruth.txt", "# x\n1.0 0 0 0 0 0 1\n");
    EXPECT_EQ(openError(tum, options),
              tum + "/groundtruth.txt:2: expected 8 fields starting with a time stamp");
}

// Each kind of bad frame input is refused with the file and the problem named.
TEST(Sequences, BadInputLabelMapsAndProblemsOfTheWholeSequence) {
    ScratchDir scratch;
    const std::string dir = scratch / "seq";
    writeSceneSequence(dir, 2);
    const std::string depth = dir + "/depth/000000.png", label = dir + "/label/000000.png",
                      color = dir + "/color/000000.png", pose = dir + "/pose/000000.txt";
    std::unique_ptr<FrameSource> source = open(dir);
    const std::vector<uint8_t> grey8(kSmallWidth * kSmallHeight, 3);
    std::vector<uint16_t> ids(kSmallWidth * kSmallHeight, 3);
    ids[5 * kSmallWidth + 7] = 32;
    const auto png = [](auto file, auto image) { return [=] { writePngOrFail(file, image); }; };
    const auto text = [](auto file, auto content) { return [=] { writeText(file, content); }; };
    const struct {
        std::function<void()> damage;
        std::string file, problem;
    } cases[] = {
        {[&] { fs::remove(pose); }, pose, "missing file"},
        {text(pose, "1 0 0 0\n0 1 0 0\n0 0 1 0\n"), pose, "found 12 numbers"},
        {text(pose, "1 0 0 0\n0 1 0 0\n0 0 1 x\n0 0 0 1\n"), pose, "not a number: 'x'"},
        {text(pose, "1 0.05 0 0\n0 1 0 0\n0 0 1 0\n0 0 0 1\n"), pose,
         "not a rigid transform: the rotation is not orthonormal"},
        {text(pose, "1 0 0 0\n0 1 0 0\n0 0 1 0\n0 0 0.5 1\n"), pose, "the last row is not 0 0 0 1"},
        {text(pose, "1 0 0 0\n0 1 0 0\n0 0 -1 0\n0 0 0 1\n"), pose, "determinant -1"},
        {png(depth, makeGrey8(kSmallWidth, kSmallHeight, grey8)), depth,
         "expected a 16-bit grey depth image, found 8-bit grey"},
        {text(depth, "P5 not a png"), depth, "not a PNG file"},
        {text(depth, readText(depth).substr(0, 60)), depth, "unreadable PNG"},
        {png(label, makeGrey8(kSmallWidth / 2, kSmallHeight, grey8)), label,
         "size 16x24 differs from the depth image's 32x24"},
        {png(label, makeRgb8(kSmallWidth / 3, kSmallHeight, grey8)), label,
         "expected an 8- or 16-bit grey label image, found 8-bit RGB"},
        {png(label, makeGrey16(kSmallWidth, kSmallHeight, ids)), label,
         "label id 32 at pixel (7, 5) is 32 or more; give --label-map"},
        {png(color, makeGrey8(kSmallWidth, kSmallHeight, grey8)), color,
         "expected an 8-bit RGB colour image, found 8-bit grey"},
        {png(color, makeRgb8(kSmallWidth, kSmallHeight / 3, grey8)), color,
         "size 32x8 differs from the depth image's 32x24"},
        {png(depth,
             makeGrey16(kSmallWidth, kSmallHeight / 2, std::vector<uint16_t>(ids.size() / 2))),
         depth, "size 32x12 differs from the sequence's 32x24"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.problem);
        c.damage();
        const std::string problem = loadProblem(*source, 0, FrameStatus::kBadInput);
        EXPECT_EQ(problem.rfind(c.file + ": ", 0), 0u) << problem;
        EXPECT_TRUE(contains(problem, c.problem)) << problem;
        writeSceneSequence(dir, 2);
        loadProblem(*source, 0, FrameStatus::kOk);
    }

    // A label map turns raw ids into classes (absent ids become 0); without one, 16-bit ids below
    // 32 pass through as 16-bit labels.
    const std::string csv = scratch / "map.csv";
    ids.assign(ids.size(), 1000);
    ids[0] = 40;
    ids[1] = 7;
    writePngOrFail(label, makeGrey16(kSmallWidth, kSmallHeight, ids));
    writeText(csv, "raw,class\n# comment\n40,5\n\n1000, 31\n");
    LabelMap map;
    std::string error;
    ASSERT_TRUE(loadLabelMap(csv, map, error)) << error;
    EXPECT_EQ(map, (LabelMap{{40, 5}, {1000, 31}}));
    SequenceOptions options;
    options.labelMap = map;
    Frame frame;
    loadProblem(*open(dir, options), 0, FrameStatus::kOk, &frame);
    ASSERT_FALSE(frame.labelsAre16Bit);
    EXPECT_EQ(std::vector<uint8_t>(frame.labels8.begin(), frame.labels8.begin() + 3),
              (std::vector<uint8_t>{5, 0, 31}));
    ids.assign(ids.size(), 17);
    writePngOrFail(label, makeGrey16(kSmallWidth, kSmallHeight, ids));
    loadProblem(*open(dir), 0, FrameStatus::kOk, &frame);
    ASSERT_TRUE(frame.labelsAre16Bit);
    EXPECT_EQ(frame.labels16, ids);
    writeText(csv, "1,2\n3\n");  // a class of 32 or more: the tool's tests
    EXPECT_FALSE(loadLabelMap(csv, map, error));
    EXPECT_EQ(error, csv + ":2: expected 'raw_id,class'");
    EXPECT_FALSE(loadLabelMap(scratch / "none.csv", map, error));
    EXPECT_TRUE(contains(error, "missing file"));

    // Problems of the whole sequence fail the open; the intrinsics may also be a 3x3 matrix.
    fs::create_directories(scratch / "empty");
    EXPECT_TRUE(contains(openError(scratch / "empty"), "not a sequence"));
    const std::string intrinsics = dir + "/intrinsic/intrinsic_depth.txt";
    writeText(intrinsics, "525 0 319.5\n0 525 239.5\n0 0 1\n");
    std::unique_ptr<FrameSource> threeByThree = open(dir);
    ASSERT_TRUE(threeByThree);
    EXPECT_EQ(threeByThree->intrinsics().cy, 239.5);
    writeText(intrinsics, "525 0 319.5 0\n0 525 239.5 0\n");
    EXPECT_EQ(openError(dir), intrinsics + ": expected a 4x4 matrix (16 numbers), found 8 numbers");
    writeText(intrinsics, "0 0 319.5 0\n0 525 239.5 0\n0 0 1 0\n0 0 0 1\n");
    EXPECT_EQ(openError(dir), intrinsics + ": fx, fy, cx and cy must be finite and above zero");
    writeText(intrinsics, "525 0 319.5\n0 525 239.5\n0 0 1\n");
    fs::remove(depth);
    fs::remove(dir + "/depth/000001.png");
    EXPECT_TRUE(contains(openError(dir), "no depth images named NNNNNN.png"));
}

// Every rotation, including the half turns about each axis where the trace is -1 and the other
// branches of the conversion are taken, gives a quaternion the library accepts and that
// reproduces the matrix to float precision; so does a pose written with six decimals, which like
// one off by a tenth of the tolerance is rigid (refused poses: the sequence tests). A non-finite
// entry marks lost tracking (NaN: the tool's tests of lost frames).
TEST(Poses, QuaternionsReproduceTheRotationAndNonFiniteEntriesMarkLostTracking) {
    std::mt19937 rng(7);
    std::vector<Matrix4d> poses = {poseFromQuaternion(1, 0, 0, 0, 0, 0, 0),
                                   poseFromQuaternion(0, 1, 0, 0, 0, 0, 0),
                                   poseFromQuaternion(0, 0, 1, 0, 0, 0, 0), identityMatrix()};
    for (int i = 0; i < 20000; ++i)
        poses.push_back(randomPose(rng));
    Matrix4d rounded = randomPose(rng);
    for (double& value : rounded)
        value = std::round(value * 1e6) / 1e6;
    Matrix4d nearlyRigid = rounded, lost = rounded, lastLost = rounded;
    nearlyRigid[0] += kRigidTolerance / 10;
    lost[7] = std::numeric_limits<double>::infinity();
    lastLost[15] = -lost[7];
    std::string problem;
    EXPECT_TRUE(checkRigid(rounded, problem) && checkRigid(nearlyRigid, problem)) << problem;
    EXPECT_TRUE(isFinitePose(rounded) && !isFinitePose(lost) && !isFinitePose(lastLost));
    poses.push_back(rounded);
    for (const Matrix4d& pose : poses) {
        const Velmora::XrPosefVLM p = toXrPose(pose);
        ASSERT_LT(quaternionUnitError(p.orientation), kUnitQuaternionTolerance);
        const Matrix4d back =
            poseFromQuaternion(p.orientation.x, p.orientation.y, p.orientation.z, p.orientation.w,
                               p.position.x, p.position.y, p.position.z);
        const double tolerance = &pose == &poses.back() ? 1e-5 : 2e-6;  // the rounded one
        for (int i = 0; i < 12; ++i)  // translations relative to their size
            ASSERT_NEAR(back[i], pose[i],
                        tolerance * (i % 4 == 3 ? 1.0 + std::fabs(pose[i]) : 1.0));
    }
}
