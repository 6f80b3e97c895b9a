// Frame submission: every result code and the order of the checks (a refused call changes
// nothing), and fusion of rendered frames of an analytic room in both run modes: values near
// the surface match the true signed distance, unobserved space reads -2.0, the ramp neighbours
// are in the grid, shared block borders agree, and with tracing on the call leaves its span.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/Logger.h"
#include "common/Trace.h"
#include "support/AnalyticScene.h"
#include "support/SceneSetup.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace Velmora {
namespace {

using Test::AnalyticScene;
using Test::PinholeCamera;
using Test::RenderedFrame;

constexpr float kCell = 0.04f;
constexpr float kTruncation = 0.2f;

std::unique_ptr<Impl> makeScene(int32_t mode) {
    return Test::makeInitialisedScene(mode, kCell, kTruncation);
}

// A view from near the middle of the room towards a wall, turned by `angle`.
PinholeCamera roomCamera(double angle) {
    return Test::viewFrom(
        {2.0 + 0.3 * std::cos(angle), 1.5 + 0.3 * std::sin(angle), 1.3},
        {2.0 + 2.0 * std::cos(angle + 0.5), 1.5 + 2.0 * std::sin(angle + 0.5), 0.9}, 80, 60, 65.0);
}

size_t blockCount(Impl& scene) {
    Impl::State& s = internalState(scene);
    size_t n = 0;
    if (s.mVolumeGrid)
        n += s.mVolumeGrid->size();
    if (s.mLabelDepthVolumeGrid)
        n += s.mLabelDepthVolumeGrid->size();
    return n;
}

class SubmitImagesCodes : public ::testing::Test {
protected:
    void SetUp() override {
        frame = render(AnalyticScene::room(4.0, 3.0, 2.6), camera);
        depth = frame.depthImage();
        label = frame.labelImage();
        colour = frame.colorImage();
    }
    XrResultVLM submit(IVelmora& scene, std::vector<Image> images,
                       XrPosefVLM pose = XrPosefVLM{{0, 0, 0, 1}, {0, 0, 0}}) {
        return scene.submitImages(1, camera.intrinsics(), pose,
                                  span<const Image>{images.data(), uint32_t(images.size())});
    }
    PinholeCamera camera = roomCamera(0.0);
    RenderedFrame frame;
    Image depth{}, label{}, colour{};
};

TEST_F(SubmitImagesCodes, ValidationOrderAndCodes) {
    auto split = makeScene(1);
    const XrPosefVLM badPose{{0, 0, 0, 1.001f}, {0, 0, 0}};
    IntrinsicLinearCameraCalibrationVLM badIntrinsics = camera.intrinsics();
    badIntrinsics.focalLengthY = 0.0;
    const Image noPixels{kImageLabelU8, nullptr, 80, 60, 80, 0};

    EXPECT_EQ(split->submitImages(0, camera.intrinsics(), camera.pose(), span<const Image>{}),
              kErrorInvalidArgument);
    EXPECT_EQ(submit(*split, {depth, label, colour, depth}), kErrorInvalidArgument);
    // Intrinsics before the pose, the pose before the images.
    std::vector<Image> one = {depth};
    EXPECT_EQ(split->submitImages(0, badIntrinsics, badPose, span<const Image>{one.data(), 1}),
              kErrorIntrinsicsInvalid);
    EXPECT_EQ(submit(*split, {noPixels}, badPose), kErrorPoseInvalid);
    EXPECT_EQ(submit(*split, {noPixels}), kErrorImageInvalid);
    EXPECT_EQ(submit(*split, {depth, label}), kErrorImageCombination);
    // An unknown format alone is no error in split mode, and does nothing.
    Image unknown = depth;
    unknown.format = 9;
    EXPECT_EQ(submit(*split, {unknown}, camera.pose()), kSuccess);
    // A pose only just off unit length is accepted; a NaN is not.
    XrPosefVLM nearlyUnit = camera.pose();
    const float scale = std::sqrt(1.0000001f);
    nearlyUnit.orientation = {nearlyUnit.orientation.x * scale, nearlyUnit.orientation.y * scale,
                              nearlyUnit.orientation.z * scale, nearlyUnit.orientation.w * scale};
    EXPECT_EQ(submit(*split, {unknown}, nearlyUnit), kSuccess);
    EXPECT_EQ(submit(*split, {unknown}, XrPosefVLM{{NAN, 0, 0, 1}, {0, 0, 0}}), kErrorPoseInvalid);
    EXPECT_EQ(blockCount(*split), 0u);  // nothing above fused anything

    auto combined = makeScene(0);
    EXPECT_EQ(submit(*combined, {depth}), kErrorImageCombination);
    EXPECT_EQ(submit(*combined, {label}), kErrorImageCombination);
    EXPECT_EQ(submit(*combined, {depth, depth}), kErrorInvalidArgument);
    EXPECT_EQ(submit(*combined, {label, colour}), kErrorInvalidArgument);
    Image brokenColour = colour;
    brokenColour.pixelData = nullptr;
    EXPECT_EQ(submit(*combined, {depth, label, brokenColour}, camera.pose()), kErrorImageInvalid);
    // Labels narrower than their depth image cannot be read at the depth pixels.
    Image narrowLabel = label;
    narrowLabel.width = label.width / 2;
    EXPECT_EQ(submit(*combined, {depth, narrowLabel}, camera.pose()), kErrorImageInvalid);
    EXPECT_EQ(blockCount(*combined), 0u);

    auto unknownMode = makeScene(7);
    EXPECT_EQ(submit(*unknownMode, {depth}, camera.pose()), kErrorImageCombination);
    EXPECT_EQ(submit(*unknownMode, {colour}, camera.pose()), kErrorImageCombination);

    Impl fresh;
    EXPECT_EQ(submit(fresh, {depth}, camera.pose()), kErrorNotInitialized);
}

class LogText : public AR::Common::LogTarget {
public:
    void write(int, const char* line, size_t length) override { text.append(line, length); }
    std::string text;
};

TEST_F(SubmitImagesCodes, WithTracingOnTheSpanOfSubmitImagesReachesTheMarker) {
    using AR::Common::Trace;
    // In a fresh process the first init makes the process's tracer: the kernel's marker is open
    // afterwards, or the log says why it is not.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            LogText log;
            AR::Common::Logger::getInstance().addTarget(&log);
            makeScene(1);
            const bool said = log.text.find("error opening trace file") != std::string::npos;
            std::exit(Trace::isEnabled() || said ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");

    const std::string path = testing::TempDir() + "velmora-submit-trace";
    std::ofstream(path).close();
    Trace::disable();
    ASSERT_TRUE(Trace::enableAt(path.c_str()));
    auto split = makeScene(1);
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

// Every field of intrinsics and pose is checked for finiteness before anything changes, with
// the intrinsics code taking precedence; the same frame with good values does fuse.
TEST_F(SubmitImagesCodes, NonFiniteIntrinsicsAndPosesAreRefusedBeforeFusion) {
    const float inf = std::numeric_limits<float>::infinity();
    const float nonFinite[] = {std::nanf(""), inf, -inf};
    for (int mode : {0, 1}) {
        auto scene = makeScene(mode);
        std::vector<Image> images =
            mode == 0 ? std::vector<Image>{depth, label} : std::vector<Image>{depth};
        const span<const Image> frameImages{images.data(), uint32_t(images.size())};
        for (int field = 0; field < 7; ++field) {
            for (float bad : nonFinite) {
                XrPosefVLM pose = camera.pose();
                float* values[] = {&pose.orientation.x, &pose.orientation.y, &pose.orientation.z,
                                   &pose.orientation.w, &pose.position.x,    &pose.position.y,
                                   &pose.position.z};
                *values[field] = bad;
                EXPECT_EQ(scene->submitImages(1, camera.intrinsics(), pose, frameImages),
                          kErrorPoseInvalid)
                    << "mode " << mode << " pose field " << field << " value " << bad;
                if (field < 4) {
                    IntrinsicLinearCameraCalibrationVLM intrinsics = camera.intrinsics();
                    double* intrinsicValues[] = {
                        &intrinsics.principalPointX, &intrinsics.principalPointY,
                        &intrinsics.focalLengthX, &intrinsics.focalLengthY};
                    *intrinsicValues[field] = bad;
                    EXPECT_EQ(scene->submitImages(1, intrinsics, pose, frameImages),
                              kErrorIntrinsicsInvalid)
                        << "mode " << mode << " intrinsics field " << field << " value " << bad;
                }
            }
        }
        EXPECT_EQ(blockCount(*scene), 0u) << "mode " << mode;
        EXPECT_EQ(scene->submitImages(1, camera.intrinsics(), camera.pose(), frameImages),
                  kSuccess);
        EXPECT_GT(blockCount(*scene), 0u) << "mode " << mode;
    }
}

TEST_F(SubmitImagesCodes, CombinedModeUsesTheLaterLabelImage) {
    auto combined = makeScene(0);
    std::vector<uint8_t> otherLabels(frame.labels.size(), 17);
    Image second = label;
    second.pixelData = otherLabels.data();
    ASSERT_EQ(submit(*combined, {depth, label, second}, camera.pose()), kSuccess);
    Impl::State& s = internalState(*combined);
    ASSERT_GT(s.mLabelDepthVolumeGrid->size(), 0u);
    int counted17 = 0, countedOther = 0;
    s.mLabelDepthVolumeGrid->for_each([&](const Solid::KeyType&, Solid::LabelDepthVolume& block) {
        for (uint32_t i = 0; i < block.dataSize(); ++i) {
            const auto& sample = block.data()[i];
            counted17 += sample.labels[17];
            for (int l : {1, 2, 3})
                countedOther += sample.labels[l];
        }
    });
    EXPECT_GT(counted17, 0);
    EXPECT_EQ(countedOther, 0);
}

// The kernels measure the distance along the viewing ray (the axial difference times
// c0 + c1 r^2, within 1 % of the ray length for these views), which is never shorter than the
// Euclidean distance to the nearest wall and is longer at grazing angles. The depth is read at the
// nearest pixel, whose footprint on an oblique wall of this 80x60 view can be a cell deep. So for
// samples in the band: the sign agrees with the truth once a sample is 1.5 cells off the surface,
// the fused magnitude is at least 0.97 of the true one less one cell, and samples within half a
// cell of a wall stay within 3 cells of it.
template <typename Grid>
void checkAgainstTruth(const Grid& grid, const AnalyticScene& scene, int& checked) {
    const float cell = grid.config().spacing(0);
    grid.for_each([&](const Solid::KeyType& key, const typename Grid::Block& block) {
        const Solid::Vec3 origin = grid.blockOrigin(key);
        for (int z = 0; z < 8; ++z)
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x) {
                    const Solid::Vec2S& s = Solid::depthPart(block.at(x, y, z));
                    if (s(1) < 1)
                        continue;
                    const double truth = scene.signedDistance(
                        {origin(0) + x * cell, origin(1) + y * cell, origin(2) + z * cell});
                    const double fused = s(0) * double(Solid::kDepthValueScale) * kTruncation;
                    if (std::fabs(truth) < 0.5 * cell) {
                        EXPECT_LT(std::fabs(fused), 3.0 * cell) << truth;
                        ++checked;
                    }
                    if (std::fabs(truth) < 1.5 * cell || std::fabs(truth) > 0.6 * kTruncation)
                        continue;
                    ASSERT_GT(fused * truth, 0.0) << truth << " " << fused;
                    EXPECT_GE(std::fabs(fused), 0.97 * std::fabs(truth) - cell) << truth;
                    ++checked;
                }
    });
}

TEST(SubmitImagesFusion, RoomMatchesTrueDistanceInBothModes) {
    const AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.6);
    for (int32_t mode : {0, 1}) {
        auto scene = makeScene(mode);
        for (int f = 0; f < 4; ++f) {
            Velmora::Test::fuseView(*scene, mode, room, roomCamera(1.5 * f), false);
        }
        Impl::State& s = internalState(*scene);
        int checked = 0;
        if (mode == 1) {
            checkAgainstTruth(*s.mVolumeGrid, room, checked);
        } else {
            checkAgainstTruth(*s.mLabelDepthVolumeGrid, room, checked);
        }
        EXPECT_GT(checked, 1000) << mode;

        // Behind a wall, beyond the band: nothing is known there.
        Solid::KeyType key;
        const Solid::Vec3 behind(-0.6f, 1.5f, 1.0f);
        const float v = mode == 1 ? s.mVolumeGrid->value(behind, key)
                                  : s.mLabelDepthVolumeGrid->value(behind, key);
        EXPECT_EQ(v, -2.0f);
        // The changed blocks were published to all three consumers, and queued for labels in
        // split mode.
        const size_t blocks = mode == 1 ? s.mVolumeGrid->size() : s.mLabelDepthVolumeGrid->size();
        EXPECT_EQ(s.mSurfaces.updatedBlocks.size(), blocks);
        EXPECT_EQ(s.mPlaneUpdatedBlocks.size(), blocks);
        EXPECT_EQ(s.mInstanceUpdatedBlocks.size(), blocks);
        EXPECT_EQ(s.mPendingLabelBlocks.size(), mode == 1 ? blocks : 0u);
    }
}

// After one frame every block of the grid was fused and copied in that frame, so every plane 8
// equals plane 0 of the upper neighbour wherever it exists; and the blocks the truncation band
// reaches from each depth pixel all exist.
TEST(SubmitImagesFusion, RampNeighboursExistAndBordersAgree) {
    const AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.6);
    auto scene = makeScene(1);
    const PinholeCamera camera = roomCamera(0.7);
    const RenderedFrame frame = render(room, camera);
    Velmora::Test::fuseView(*scene, 1, room, camera, false);
    Solid::DepthGrid& grid = *internalState(*scene).mVolumeGrid;
    const float half = 0.5f * grid.config().spacing(0);
    int pixelsChecked = 0;
    for (int v = 0; v < frame.height; v += 7) {
        for (int u = 0; u < frame.width; u += 7) {
            const double d = frame.depthMillimetres[v * frame.width + u] * 0.001;
            if (d == 0.0)
                continue;
            const Velmora::Test::Vec3d p = Velmora::Test::unproject(camera, u, v, d);
            const Solid::Vec3 shifted(float(p[0]) + half, float(p[1]) + half, float(p[2]) + half);
            const Solid::KeyType key = grid.keyOf(shifted);
            ASSERT_TRUE(grid.get(key));
            const Solid::Vec3 local = grid.localPosition(shifted, key);
            for (int a = 0; a < 3; ++a) {
                // Stay clear of the exact ramp boundary, where float rounding decides.
                if (local(a) < kTruncation - 0.002f) {
                    Solid::KeyType lower = key;
                    --lower(a);
                    EXPECT_TRUE(grid.get(lower)) << a;
                }
                if (local(a) > grid.dimension()(a) - kTruncation + 0.002f) {
                    Solid::KeyType upper = key;
                    ++upper(a);
                    EXPECT_TRUE(grid.get(upper)) << a;
                }
            }
            ++pixelsChecked;
        }
    }
    EXPECT_GT(pixelsChecked, 50);

    int pairs = 0;
    std::vector<Solid::KeyType> keys;
    grid.for_each(
        [&](const Solid::KeyType& key, const Solid::DepthVolume&) { keys.push_back(key); });
    for (const Solid::KeyType& key : keys) {
        for (int a = 0; a < 3; ++a) {
            Solid::KeyType upperKey = key;
            ++upperKey(a);
            auto upper = grid.get(upperKey);
            if (!upper)
                continue;
            const Solid::DepthVolume upperBlock = *upper;
            upper = Solid::DepthGrid::Ptr();
            auto lower = grid.get(key);
            for (int i = 0; i < 8; ++i)
                for (int j = 0; j < 8; ++j) {
                    int l[3] = {i, j, 0};
                    int h[3] = {i, j, 0};
                    // Plane 8 along axis a of the lower block against plane 0 of the upper one.
                    const int other1 = (a + 1) % 3, other2 = (a + 2) % 3;
                    l[a] = 8;
                    h[a] = 0;
                    l[other1] = h[other1] = i;
                    l[other2] = h[other2] = j;
                    const Solid::Vec2S a8 = lower->at(l[0], l[1], l[2]);
                    const Solid::Vec2S b0 = upperBlock.at(h[0], h[1], h[2]);
                    ASSERT_EQ(a8(0), b0(0));
                    ASSERT_EQ(a8(1), b0(1));
                }
            ++pairs;
        }
    }
    EXPECT_GT(pairs, 10);
}

}  // namespace
}  // namespace Velmora
