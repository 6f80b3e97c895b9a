#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "ToolTestSupport.h"
#include "velmora/Png.h"
#include "velmora/Sequence.h"

using namespace VelmoraTool;
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

// Loads frame `index` expecting `status`; returns the problem text.
std::string loadProblem(FrameSource& source, size_t index, FrameStatus status) {
    Frame frame;
    std::string problem;
    EXPECT_EQ(source.load(index, frame, problem), status) << problem;
    return problem;
}

// Frame `index` of `source` holds the depth, colour and pose of the built-in scene's frame.
void expectSceneFrame(FrameSource& source, size_t index, double poseTolerance, Frame& read) {
    BuiltinSceneSource scene(source.frameCount(), kSmallWidth, kSmallHeight, 0.0, 1);
    Frame original;
    std::string problem;
    scene.load(index, original, problem);
    ASSERT_EQ(source.load(index, read, problem), FrameStatus::kOk) << problem;
    EXPECT_EQ(read.width, kSmallWidth);
    EXPECT_EQ(read.depthMm, original.depthMm);
    ASSERT_TRUE(read.hasColor);
    EXPECT_EQ(read.rgb, original.rgb);
    if (read.hasLabels) {
        EXPECT_EQ(read.labels8, original.labels8);
    }
    for (size_t k = 0; k < 16; ++k) {
        EXPECT_NEAR(read.worldFromCamera[k], original.worldFromCamera[k], poseTolerance);
    }
}

}  // namespace

TEST(RecordedSequence, ReadsBackWhatWasWritten) {
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
        Frame read;
        expectSceneFrame(*source, i, 1e-9, read);
        EXPECT_EQ(source->frameNumber(i), i);
        ASSERT_TRUE(read.hasLabels);
        EXPECT_FALSE(read.labelsAre16Bit);
    }
}

TEST(RecordedSequence, FramesAreOrderedByNumberAndOptionalStreamsMayBeMissing) {
    ScratchDir scratch;
    const std::string dir = scratch / "seq";
    writeSceneSequence(dir, 3);
    // Frame 1 has no label and no colour image; a stray file is ignored.
    fs::remove(fs::path(dir) / "label" / "000001.png");
    fs::remove(fs::path(dir) / "color" / "000001.png");
    fs::rename(fs::path(dir) / "depth" / "000002.png", fs::path(dir) / "depth" / "000010.png");
    fs::rename(fs::path(dir) / "pose" / "000002.txt", fs::path(dir) / "pose" / "000010.txt");
    fs::rename(fs::path(dir) / "label" / "000002.png", fs::path(dir) / "label" / "000010.png");
    fs::rename(fs::path(dir) / "color" / "000002.png", fs::path(dir) / "color" / "000010.png");
    writeText((fs::path(dir) / "depth" / "notes.png").string(), "x");
    std::unique_ptr<FrameSource> source = open(dir);
    ASSERT_EQ(source->frameCount(), 3u);
    EXPECT_EQ(source->frameNumber(0), 0u);
    EXPECT_EQ(source->frameNumber(1), 1u);
    EXPECT_EQ(source->frameNumber(2), 10u);
    Frame frame;
    std::string problem;
    ASSERT_EQ(source->load(1, frame, problem), FrameStatus::kOk) << problem;
    EXPECT_FALSE(frame.hasLabels);
    EXPECT_FALSE(frame.hasColor);
    ASSERT_EQ(source->load(2, frame, problem), FrameStatus::kOk) << problem;
    EXPECT_TRUE(frame.hasLabels);
}

// Each kind of bad frame input is refused with the file and the problem named.
TEST(RecordedSequence, BadFrameInputIsRefusedNamingFileAndProblem) {
    ScratchDir scratch;
    const std::string dir = scratch / "seq";
    writeSceneSequence(dir, 1);
    const fs::path root(dir);
    const std::string depth = (root / "depth" / "000000.png").string();
    const std::string label = (root / "label" / "000000.png").string();
    const std::string color = (root / "color" / "000000.png").string();
    const std::string pose = (root / "pose" / "000000.txt").string();
    const std::string goodDepth = readText(depth), goodLabel = readText(label),
                      goodColor = readText(color), goodPose = readText(pose);
    std::unique_ptr<FrameSource> source = open(dir);
    const std::vector<uint8_t> grey8(kSmallWidth * kSmallHeight, 3);
    const std::vector<uint16_t> grey16(kSmallWidth * kSmallHeight, 3);

    struct Case {
        std::string name;
        std::function<void()> damage;
        std::string file;
        std::string problem;
    };
    const std::vector<Case> cases = {
        {"missing pose", [&] { fs::remove(pose); }, pose, "missing file"},
        {"pose with 12 numbers", [&] { writeText(pose, "1 0 0 0\n0 1 0 0\n0 0 1 0\n"); }, pose,
         "found 12 numbers"},
        {"pose with text", [&] { writeText(pose, "1 0 0 0\n0 1 0 0\n0 0 1 x\n0 0 0 1\n"); }, pose,
         "not a number: 'x'"},
        {"scaled pose", [&] { writeText(pose, "2 0 0 0\n0 2 0 0\n0 0 2 0\n0 0 0 1\n"); }, pose,
         "not a rigid transform"},
        {"reflecting pose", [&] { writeText(pose, "1 0 0 0\n0 1 0 0\n0 0 -1 0\n0 0 0 1\n"); }, pose,
         "determinant -1"},
        {"8-bit depth", [&] { writePngOrFail(depth, makeGrey8(kSmallWidth, kSmallHeight, grey8)); },
         depth, "expected a 16-bit grey depth image, found 8-bit grey"},
        {"text as depth", [&] { writeText(depth, "P5 not a png"); }, depth, "not a PNG file"},
        {"truncated depth", [&] { writeText(depth, goodDepth.substr(0, 60)); }, depth,
         "unreadable PNG"},
        {"label of another size",
         [&] { writePngOrFail(label, makeGrey8(kSmallWidth / 2, kSmallHeight, grey8)); }, label,
         "size 16x24 differs from the depth image's 32x24"},
        {"RGB label",
         [&] { writePngOrFail(label, makeRgb8(kSmallWidth / 3, kSmallHeight, grey8)); }, label,
         "expected an 8- or 16-bit grey label image, found 8-bit RGB"},
        {"label id 32",
         [&] {
             std::vector<uint16_t> ids = grey16;
             ids[5 * kSmallWidth + 7] = 32;
             writePngOrFail(label, makeGrey16(kSmallWidth, kSmallHeight, ids));
         },
         label, "label id 32 at pixel (7, 5) is 32 or more; give --label-map"},
        {"grey colour", [&] { writePngOrFail(color, makeGrey8(kSmallWidth, kSmallHeight, grey8)); },
         color, "expected an 8-bit RGB colour image, found 8-bit grey"},
        {"colour of another size",
         [&] { writePngOrFail(color, makeRgb8(kSmallWidth, kSmallHeight / 3, grey8)); }, color,
         "size 32x8 differs from the depth image's 32x24"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.damage();
        const std::string problem = loadProblem(*source, 0, FrameStatus::kBadInput);
        EXPECT_EQ(problem.rfind(c.file + ": ", 0), 0u) << problem;
        EXPECT_TRUE(contains(problem, c.problem)) << problem;
        writeText(depth, goodDepth);
        writeText(label, goodLabel);
        writeText(color, goodColor);
        writeText(pose, goodPose);
        loadProblem(*source, 0, FrameStatus::kOk);
    }

    // A depth image whose size differs from the sequence's first one.
    writeSceneSequence(scratch / "two", 2);
    std::unique_ptr<FrameSource> two = open(scratch / "two");
    loadProblem(*two, 0, FrameStatus::kOk);
    const std::string second = (fs::path(scratch / "two") / "depth" / "000001.png").string();
    writePngOrFail(second, makeGrey16(kSmallWidth, kSmallHeight / 2,
                                      std::vector<uint16_t>(kSmallWidth * kSmallHeight / 2, 9)));
    EXPECT_TRUE(contains(loadProblem(*two, 1, FrameStatus::kBadInput),
                         "size 32x12 differs from the sequence's 32x24"));
}

TEST(RecordedSequence, LabelMapTurnsRawIdsIntoClasses) {
    ScratchDir scratch;
    const std::string dir = scratch / "seq";
    writeSceneSequence(dir, 1);
    std::vector<uint16_t> ids(kSmallWidth * kSmallHeight, 1000);
    ids[0] = 40;
    ids[1] = 7;
    writePngOrFail((fs::path(dir) / "label" / "000000.png").string(),
                   makeGrey16(kSmallWidth, kSmallHeight, ids));
    writeText(scratch / "map.csv", "raw,class\n# comment\n40,5\n\n1000, 31\n");
    LabelMap map;
    std::string error;
    ASSERT_TRUE(loadLabelMap(scratch / "map.csv", map, error)) << error;
    EXPECT_EQ(map, (LabelMap{{40, 5}, {1000, 31}}));
    SequenceOptions options;
    options.labelMap = map;
    std::unique_ptr<FrameSource> source = open(dir, options);
    Frame frame;
    ASSERT_EQ(source->load(0, frame, error), FrameStatus::kOk) << error;
    ASSERT_FALSE(frame.labelsAre16Bit);
    EXPECT_EQ(frame.labels8[0], 5);
    EXPECT_EQ(frame.labels8[1], 0) << "ids absent from the map become class 0";
    EXPECT_EQ(frame.labels8[2], 31);

    // Without the map 16-bit ids below 32 pass through unchanged as 16-bit labels.
    ids.assign(ids.size(), 17);
    writePngOrFail((fs::path(dir) / "label" / "000000.png").string(),
                   makeGrey16(kSmallWidth, kSmallHeight, ids));
    std::unique_ptr<FrameSource> plain = open(dir);
    ASSERT_EQ(plain->load(0, frame, error), FrameStatus::kOk) << error;
    ASSERT_TRUE(frame.labelsAre16Bit);
    EXPECT_EQ(frame.labels16, ids);

    writeText(scratch / "bad.csv", "1,2\n3,32\n");
    EXPECT_FALSE(loadLabelMap(scratch / "bad.csv", map, error));
    EXPECT_EQ(error, (scratch / "bad.csv") + ":2: class 32 is 32 or more");
    writeText(scratch / "bad.csv", "1,2\n3\n");
    EXPECT_FALSE(loadLabelMap(scratch / "bad.csv", map, error));
    EXPECT_EQ(error, (scratch / "bad.csv") + ":2: expected 'raw_id,class'");
    EXPECT_FALSE(loadLabelMap(scratch / "none.csv", map, error));
    EXPECT_TRUE(contains(error, "missing file"));
}

TEST(RecordedSequence, SequenceLevelProblemsFailTheOpen) {
    ScratchDir scratch;
    EXPECT_EQ(openError(scratch / "absent"), (scratch / "absent") + ": no such directory");
    fs::create_directories(scratch / "empty");
    EXPECT_TRUE(contains(openError(scratch / "empty"), "not a sequence"));

    const std::string dir = scratch / "seq";
    writeSceneSequence(dir, 1);
    const std::string intrinsics = (fs::path(dir) / "intrinsic" / "intrinsic_depth.txt").string();
    writeText(intrinsics, "525 0 319.5\n0 525 239.5\n0 0 1\n");
    std::unique_ptr<FrameSource> threeByThree = open(dir);
    ASSERT_TRUE(threeByThree);
    EXPECT_EQ(threeByThree->intrinsics().cy, 239.5);
    writeText(intrinsics, "525 0 319.5 0\n0 525 239.5 0\n");
    EXPECT_EQ(openError(dir), intrinsics + ": expected a 4x4 matrix (16 numbers), found 8 numbers");
    writeText(intrinsics, "0 0 319.5 0\n0 525 239.5 0\n0 0 1 0\n0 0 0 1\n");
    EXPECT_EQ(openError(dir), intrinsics + ": fx, fy, cx and cy must be finite and above zero");
    fs::remove(intrinsics);
    EXPECT_EQ(openError(dir), intrinsics + ": missing file");

    writeSceneSequence(scratch / "nodepth", 1);
    fs::remove(fs::path(scratch / "nodepth") / "depth" / "000000.png");
    EXPECT_TRUE(contains(openError(scratch / "nodepth"), "no depth images named NNNNNN.png"));
}

TEST(TumSequence, AssociatesByTimeAndConvertsDepthToMillimetres) {
    ScratchDir scratch;
    const std::string dir = scratch / "tum";
    writeTumSequence(dir, 3);
    EXPECT_TRUE(contains(openError(dir), "give --intrinsics fx,fy,cx,cy"));
    SequenceOptions options;
    options.intrinsics = Intrinsics{500.0, 501.0, 15.5, 11.5};
    std::unique_ptr<FrameSource> source = open(dir, options);
    ASSERT_TRUE(source);
    ASSERT_EQ(source->frameCount(), 3u);
    EXPECT_EQ(source->intrinsics().fy, 501.0);
    EXPECT_FALSE(source->hasLabels());
    EXPECT_TRUE(contains(loadProblem(*source, 0, FrameStatus::kTrackingLost),
                         "no ground-truth pose within 20 ms"));
    for (size_t i = 1; i < 3; ++i) {
        Frame read;
        expectSceneFrame(*source, i, 2e-6, read);
        EXPECT_EQ(read.timestamp, static_cast<int64_t>(std::llround((1.0 + 0.1 * i) * 1e9)));
    }

    // Units of 1/5 mm round to the nearest millimetre.
    std::vector<uint16_t> raw(kSmallWidth * kSmallHeight, 5002);
    raw[1] = 5003;
    raw[2] = 65535;
    const std::string name = (fs::path(dir) / "depth" / "1.100000.png").string();
    writePngOrFail(name, makeGrey16(kSmallWidth, kSmallHeight, raw));
    Frame frame;
    std::string problem;
    ASSERT_EQ(source->load(1, frame, problem), FrameStatus::kOk) << problem;
    EXPECT_EQ(frame.depthMm[0], 1000);
    EXPECT_EQ(frame.depthMm[1], 1001);
    EXPECT_EQ(frame.depthMm[2], 13107);

    // A malformed index line is a sequence-level problem with its line number.
    writeText((fs::path(dir) / "groundtruth.txt").string(), "# x\n1.0 0 0 0 0 0 1\n");
    EXPECT_EQ(openError(dir, options), (fs::path(dir) / "groundtruth.txt").string() +
                                           ":2: expected 8 fields starting with a time stamp");
}
