// Frame submission: every result code in the order of the checks, the trace span, and fusion of
// a room in both run modes against the true distance.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <sstream>

#include "HostScenes.h"
#include "common/Trace.h"

namespace Velmora {
namespace {

using namespace Test;

// A view from near the middle of the room towards a wall, turned by `angle`.
PinholeCamera roomCamera(double angle) {
    return viewFrom({2.0 + 0.3 * std::cos(angle), 1.5 + 0.3 * std::sin(angle), 1.3},
                    {2.0 + 2.0 * std::cos(angle + 0.5), 1.5 + 2.0 * std::sin(angle + 0.5), 0.9}, 80,
                    60, 65.0);
}

class SubmitImagesCodes : public ::testing::Test {
protected:
    XrResultVLM submit(IVelmora& scene, std::vector<Image> images,
                       XrPosefVLM pose = {{0, 0, 0, 1}, {0, 0, 0}},
                       IntrinsicLinearCameraCalibrationVLM intrinsics = {}) {
        return scene.submitImages(1,
                                  intrinsics.focalLengthX == 0 ? camera.intrinsics() : intrinsics,
                                  pose, span<const Image>{images.data(), uint32_t(images.size())});
    }
    PinholeCamera camera = roomCamera(0.0);
    RenderedFrame frame = render(room(), camera);
    Image depth = frame.depthImage(), label = frame.labelImage(), colour = frame.colorImage();
};

TEST_F(SubmitImagesCodes, ValidationOrderAndCodes) {
    auto split = makeScene(kModeSplit);
    const XrPosefVLM badPose{{0, 0, 0, 1.001f}, {0, 0, 0}};
    IntrinsicLinearCameraCalibrationVLM badIntrinsics = camera.intrinsics();
    badIntrinsics.focalLengthY = 0.0;
    badIntrinsics.focalLengthX = 1e300;
    const Image noPixels{kImageLabelU8, nullptr, 80, 60, 80, 0};
    Image unknown = depth, brokenColour = colour, narrowLabel = label;
    unknown.format = 9;
    brokenColour.pixelData = nullptr;
    // Labels narrower than their depth image cannot be read at the depth pixels.
    narrowLabel.width = label.width / 2;
    // A pose only just off unit length is accepted.
    XrPosefVLM nearlyUnit = camera.pose();
    const float scale = std::sqrt(1.0000001f);
    for (float* q : {&nearlyUnit.orientation.x, &nearlyUnit.orientation.y,
                     &nearlyUnit.orientation.z, &nearlyUnit.orientation.w}) {
        *q *= scale;
    }
    EXPECT_EQ(submit(*split, {}), kErrorInvalidArgument);
    EXPECT_EQ(submit(*split, {depth, label, colour, depth}), kErrorInvalidArgument);
    // Intrinsics before the pose, the pose before the images.
    EXPECT_EQ(submit(*split, {depth}, badPose, badIntrinsics), kErrorIntrinsicsInvalid);
    EXPECT_EQ(submit(*split, {noPixels}, badPose), kErrorPoseInvalid);
    EXPECT_EQ(submit(*split, {noPixels}), kErrorImageInvalid);
    EXPECT_EQ(submit(*split, {depth, label}), kErrorImageCombination);
    // An unknown format alone is no error in split mode, and does nothing.
    EXPECT_EQ(submit(*split, {unknown}, camera.pose()), kSuccess);
    EXPECT_EQ(submit(*split, {unknown}, nearlyUnit), kSuccess);
    // Every field of the pose must be finite.
    const float inf = std::numeric_limits<float>::infinity();
    for (int field = 0; field < 7; ++field) {
        for (float bad : {std::nanf(""), inf, -inf}) {
            XrPosefVLM pose = camera.pose();
            float* values[] = {&pose.orientation.x, &pose.orientation.y, &pose.orientation.z,
                               &pose.orientation.w, &pose.position.x,    &pose.position.y,
                               &pose.position.z};
            *values[field] = bad;
            EXPECT_EQ(submit(*split, {depth}, pose), kErrorPoseInvalid) << field << " " << bad;
        }
    }
    EXPECT_EQ(blockCount(*split), 0u);  // nothing above fused anything

    auto combined = makeScene(kModeCombined);
    EXPECT_EQ(submit(*combined, {depth}), kErrorImageCombination);
    EXPECT_EQ(submit(*combined, {label}), kErrorImageCombination);
    EXPECT_EQ(submit(*combined, {depth, depth}), kErrorInvalidArgument);
    EXPECT_EQ(submit(*combined, {label, colour}), kErrorInvalidArgument);
    EXPECT_EQ(submit(*combined, {depth, label, brokenColour}, camera.pose()), kErrorImageInvalid);
    EXPECT_EQ(submit(*combined, {depth, narrowLabel}, camera.pose()), kErrorImageInvalid);
    EXPECT_EQ(submit(*combined, {depth, label}, badPose), kErrorPoseInvalid);
    // Rows shorter than the width, and classes beyond the 32 a sample counts (also those of a
    // 16-bit image whose odd stride shifts each row by a byte), are refused in both modes.
    const uint32_t w = label.width, h = label.height;
    std::vector<uint8_t> classes(size_t(w) * h, 0);
    classes[1] = 32;
    std::vector<uint16_t> wide(size_t(w) * h, 31);
    wide.back() = 300;
    // Class 1 everywhere in rows 2w + 1 bytes apart: read from rows 2w apart, it is 256 where a
    // row starts on an odd byte.
    std::vector<uint8_t> shifted(size_t(2 * w + 1) * h, 0);
    for (size_t y = 0; y < h; ++y)
        for (size_t x = 0; x < w; ++x)
            shifted[y * (2 * w + 1) + 2 * x] = 1;
    Image shortDepth = depth, shortLabel = label, uncounted = label;
    shortDepth.stride = 2 * w - 1;
    shortLabel.stride = w - 1;
    uncounted.pixelData = classes.data();
    const Image wide16{kImageLabelU16, wide.data(), w, h, 2 * w, 0};
    const Image odd16{kImageLabelU16, shifted.data(), w, h, 2 * w + 1, 0};
    for (const Image& bad : {shortLabel, uncounted, wide16, odd16}) {
        EXPECT_EQ(submit(*split, {bad}, camera.pose()), kErrorImageInvalid);
        EXPECT_EQ(submit(*combined, {depth, bad}, camera.pose()), kErrorImageInvalid);
    }
    EXPECT_EQ(submit(*split, {shortDepth}, camera.pose()), kErrorImageInvalid);
    EXPECT_EQ(submit(*combined, {shortDepth, label}, camera.pose()), kErrorImageInvalid);
    EXPECT_EQ(blockCount(*combined), 0u);
    auto unknownMode = makeScene(7);
    EXPECT_EQ(submit(*unknownMode, {depth}, camera.pose()), kErrorImageCombination);
    EXPECT_EQ(submit(*unknownMode, {colour}, camera.pose()), kErrorImageCombination);

    // The same frames with good values fuse; in combined mode the later label image counts.
    EXPECT_EQ(submit(*split, {depth}, camera.pose()), kSuccess);
    EXPECT_GT(blockCount(*split), 0u);
    std::vector<uint8_t> otherLabels(frame.labels.size(), 17);
    Image second = label;
    second.pixelData = otherLabels.data();
    ASSERT_EQ(submit(*combined, {depth, label, second}, camera.pose()), kSuccess);
    int counted17 = 0, countedOther = 0;
    internalState(*combined).mLabelDepthVolumeGrid->for_each(
        [&](const Solid::KeyType&, Solid::LabelDepthVolume& block) {
            for (uint32_t i = 0; i < block.dataSize(); ++i) {
                counted17 += block.data()[i].labels[17];
                countedOther += block.data()[i].labels[1] + block.data()[i].labels[2];
            }
        });
    EXPECT_GT(counted17, 0);
    EXPECT_EQ(countedOther, 0);
}

TEST_F(SubmitImagesCodes, WithTracingOnTheSpanOfSubmitImagesReachesTheMarker) {
    using AR::Common::Trace;
    // In a fresh process the first init makes the process's tracer: the kernel's marker is open
    // afterwards, or the log says why it is not.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            CapturedLog log;
            makeScene(kModeSplit);
            std::exit(Trace::isEnabled() || log.has("error opening trace file") ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    const std::string path = testing::TempDir() + "velmora-submit-trace";
    std::ofstream(path).close();
    Trace::disable();
    ASSERT_TRUE(Trace::enableAt(path.c_str()));
    auto split = makeScene(kModeSplit);
    EXPECT_EQ(submit(*split, {depth}, camera.pose()), kSuccess);
    Trace::disable();
    std::stringstream trace;
    trace << std::ifstream(path).rdbuf();
    const std::string records = trace.str();
    EXPECT_EQ(records.rfind("B|" + std::to_string(getpid()) + "|submitImages", 0), 0u) << records;
    EXPECT_NE(records.find("|Integration"), std::string::npos);
    EXPECT_EQ(records.back(), 'E');
    std::remove(path.c_str());
}

// The distance along the viewing ray (within 1 % for these views) is never shorter than the
// Euclidean one and longer at grazing angles, and a pixel's footprint on an oblique wall can be a
// cell deep: in the band the sign agrees 1.5 cells off the surface, the magnitude is at least
// 0.97 of the true one less a cell, and samples within half a cell of a wall stay within 3.
template <typename Grid>
int checkAgainstTruth(const Grid& grid, const AnalyticScene& scene) {
    int checked = 0;
    grid.for_each([&](const Solid::KeyType& key, const typename Grid::Block& block) {
        const Solid::Vec3 origin = grid.blockOrigin(key);
        for (int i = 0; i < 512; ++i) {
            const int x = i % 8, y = i / 8 % 8, z = i / 64;
            const Solid::Vec2S& s = Solid::depthPart(block.at(x, y, z));
            const double truth = scene.signedDistance(
                {origin(0) + x * kCell, origin(1) + y * kCell, origin(2) + z * kCell});
            const double fused = s(0) * double(Solid::kDepthValueScale) * kTruncation;
            if (s(1) >= 1 && std::fabs(truth) < 0.5 * kCell) {
                EXPECT_LT(std::fabs(fused), 3.0 * kCell) << truth;
                ++checked;
            }
            if (s(1) >= 1 && std::fabs(truth) >= 1.5 * kCell &&
                std::fabs(truth) <= 0.6 * kTruncation) {
                EXPECT_GT(fused * truth, 0.0) << truth << " " << fused;
                EXPECT_GE(std::fabs(fused), 0.97 * std::fabs(truth) - kCell) << truth;
                ++checked;
            }
        }
    });
    return checked;
}

TEST(SubmitImagesFusion, RoomMatchesTrueDistanceInBothModes) {
    for (int32_t mode : {kModeCombined, kModeSplit}) {
        auto scene = makeScene(mode);
        for (int f = 0; f < 4; ++f)
            fuseView(*scene, mode, room(), roomCamera(1.5 * f), false);
        withDepthGrid(*scene, [](const auto& grid) {
            EXPECT_GT(checkAgainstTruth(grid, room()), 1000);
            Solid::KeyType key;  // behind a wall, beyond the band:
            EXPECT_EQ(grid.value(Solid::Vec3(-0.6f, 1.5f, 1.0f), key), -2.0f);
        });
        Impl::State& s = internalState(*scene);
        // The changed blocks reach all three consumers, and the label queue in split mode.
        const size_t blocks = blockCount(*scene);
        EXPECT_EQ(s.mSurfaces.updatedBlocks.size(), blocks);
        EXPECT_EQ(s.mPlaneUpdatedBlocks.size(), blocks);
        EXPECT_EQ(s.mInstanceUpdatedBlocks.size(), blocks);
        EXPECT_EQ(s.mPendingLabelBlocks.size(), mode == kModeSplit ? blocks : 0u);
    }
}

}  // namespace
}  // namespace Velmora
