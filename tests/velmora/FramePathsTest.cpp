// The label and colour paths: split-mode labels vote on the surface the depth frames built and
// consume the queue, colour frames become keyframes with the depth the volume shows, and the
// cameras are fixed by the first colour frame; a label and a colour image of one view render once.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "solid/query/Raycast.h"
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

PinholeCamera wallCamera(int width = 80, int height = 60) {
    return Test::viewFrom({2.0, 1.5, 1.3}, {4.0, 1.8, 1.0}, width, height, 65.0 * width / 80.0);
}

XrResultVLM submitOne(Impl& scene, const PinholeCamera& camera, const Image& image) {
    return scene.submitImages(0, camera.intrinsics(), camera.pose(), span<const Image>{&image, 1});
}

// Wall-label votes of samples within half a cell of a wall, and of samples farther than 2.5 cells.
void countLabels(Impl::State& s, const AnalyticScene& room, int& onSurface, int& offSurface) {
    onSurface = offSurface = 0;
    s.mLabelVolumeGrid->for_each([&](const Solid::KeyType& key, const Solid::LabelVolume& block) {
        const Solid::Vec3 origin = s.mLabelVolumeGrid->blockOrigin(key);
        for (int z = 0; z < 8; ++z)
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x) {
                    const double d = room.signedDistance(
                        {origin(0) + x * kCell, origin(1) + y * kCell, origin(2) + z * kCell});
                    const int votes = block.at(x, y, z).labels[2];  // walls are label 2
                    if (std::fabs(d) < 0.5 * kCell)
                        onSurface += votes;
                    if (std::fabs(d) > 2.5 * kCell)
                        offSurface += votes;
                }
    });
}

TEST(FramePaths, SplitLabelsVoteOnTheSurfaceAndConsumeTheQueue) {
    const AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.6);
    auto scene = makeScene(1);
    Impl::State& s = internalState(*scene);
    const PinholeCamera camera = wallCamera();
    const RenderedFrame frame = render(room, camera);

    // A label image before any depth: nothing to vote into, nothing changes.
    ASSERT_EQ(submitOne(*scene, camera, frame.labelImage()), kSuccess);
    EXPECT_EQ(s.mLabelVolumeGrid->size(), 0u);

    ASSERT_EQ(submitOne(*scene, camera, frame.depthImage()), kSuccess);
    ASSERT_EQ(submitOne(*scene, camera, frame.depthImage()), kSuccess);
    const size_t queued = s.mPendingLabelBlocks.size();
    ASSERT_GT(queued, 0u);
    s.mSurfaces.updatedBlocks.clear();
    ASSERT_EQ(submitOne(*scene, camera, frame.labelImage()), kSuccess);
    EXPECT_EQ(s.mPendingLabelBlocks.size(), 0u);      // the label frame took the whole queue
    EXPECT_EQ(s.mSurfaces.updatedBlocks.size(), 0u);  // and published nothing
    EXPECT_GE(s.mLabelVolumeGrid->size(), queued);
    int onSurface = 0, offSurface = 0;
    countLabels(s, room, onSurface, offSurface);
    // The rendered surface can sit a few centimetres off the wall where rays graze it, so a few
    // votes land farther out; they must stay rare.
    EXPECT_GT(onSurface, 50);
    EXPECT_LT(offSurface * 50, onSurface);

    // A second label image with an empty queue adds no votes.
    ASSERT_EQ(submitOne(*scene, camera, frame.labelImage()), kSuccess);
    int again = 0, offAgain = 0;
    countLabels(s, room, again, offAgain);
    EXPECT_EQ(again, onSurface);
    // Depth again queues the blocks again, and the next label image votes once more.
    ASSERT_EQ(submitOne(*scene, camera, frame.depthImage()), kSuccess);
    ASSERT_EQ(submitOne(*scene, camera, frame.labelImage()), kSuccess);
    countLabels(s, room, again, offAgain);
    EXPECT_GT(again, onSurface);
}

TEST(FramePaths, ColourFramesBecomeKeyframesWithRenderedDepth) {
    const AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.6);
    for (int32_t mode : {0, 1}) {
        auto scene = makeScene(mode);
        Impl::State& s = internalState(*scene);
        const PinholeCamera camera = wallCamera();
        const RenderedFrame frame = render(room, camera);
        Velmora::Test::fuseView(*scene, mode, room, camera, false);

        // A colour image alone: depth rendered from the volume, close to the wall's true depth.
        ASSERT_EQ(submitOne(*scene, camera, frame.colorImage()), kSuccess) << mode;
        ASSERT_EQ(s.mTexture.keyframes.size(), 1u);
        const Solid::RGBDFrame& key = s.mTexture.keyframes[0];
        const int centre = (camera.height / 2) * camera.width + camera.width / 2;
        const float truth = frame.depthMetres[centre];
        EXPECT_NEAR(key.depth(camera.width / 2, camera.height / 2), truth, 1.5f * kCell);
        EXPECT_NEAR(key.depthU16(camera.width / 2, camera.height / 2), truth * 1000.0f,
                    1500.0f * kCell);
        EXPECT_EQ(key.rgb(3, 4).c0, frame.rgb[3 * (4 * camera.width + 3)]);

        // A second colour image of another size is kept too; the cameras keep the first size.
        const PinholeCamera small = wallCamera(40, 30);
        const RenderedFrame smallFrame = render(room, small);
        ASSERT_EQ(submitOne(*scene, small, smallFrame.colorImage()), kSuccess);
        ASSERT_EQ(s.mTexture.keyframes.size(), 2u);
        EXPECT_EQ(s.mTexture.keyframes[1].rgb.width(), 40);
        EXPECT_EQ(s.mTexture.colorCalib.getSize()(0), 80.0f);
        EXPECT_EQ(s.mTexture.depthCalib.getSize()(1), 60.0f);

        // Seen from outside the room, facing away: the volume shows nothing.
        PinholeCamera away = camera;
        away.T_world_camera = Velmora::Test::lookAt({2.0, -3.0, 1.3}, {2.0, -6.0, 1.3}, {0, 0, 1});
        ASSERT_EQ(submitOne(*scene, away, frame.colorImage()), kSuccess);
        const Solid::RGBDFrame& empty = s.mTexture.keyframes.back();
        for (int v = 0; v < empty.depthU16.height(); ++v)
            for (int u = 0; u < empty.depthU16.width(); ++u)
                ASSERT_EQ(empty.depthU16(u, v), 0);

        // The cameras are set: a later frame is kept even with its principal point outside it.
        IntrinsicLinearCameraCalibrationVLM outside = camera.intrinsics();
        outside.principalPointX = 500.0;
        const Image colour = frame.colorImage();
        EXPECT_EQ(scene->submitImages(0, outside, camera.pose(), span<const Image>{&colour, 1}),
                  kSuccess);
        EXPECT_EQ(s.mTexture.keyframes.size(), 4u);
        EXPECT_EQ(s.mTexture.colorCalib.getPrincipalPoint()(0),
                  camera.intrinsics().principalPointX);

        // A first colour frame whose principal point lies outside could not set up the cameras:
        // refused, and nothing of it is kept or fused.
        auto fresh = makeScene(mode);
        std::vector<Image> first = {colour};
        if (mode == 0) {
            first.push_back(frame.depthImage());
            first.push_back(frame.labelImage());
        }
        EXPECT_EQ(fresh->submitImages(0, outside, camera.pose(),
                                      span<const Image>{first.data(), uint32_t(first.size())}),
                  kErrorIntrinsicsInvalid);
        EXPECT_TRUE(internalState(*fresh).mTexture.keyframes.empty());
    }
}

// In split mode the label and the colour image of one view render the volume once: every colour
// keyframe's depth is bit for bit a fresh rendering of the volume from its camera (the frame
// path's near and far plane and step), also after a depth frame from elsewhere changed the
// volume, and after a label or colour image from another camera.
TEST(FramePaths, LabelAndColourOfOneViewShareTheirRendering) {
    const AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.6);
    const PinholeCamera camera = wallCamera();
    PinholeCamera other = camera;
    other.T_world_camera = Velmora::Test::lookAt({1.0, 0.5, 1.3}, {3.8, 2.6, 0.9}, {0, 0, 1});
    const RenderedFrame frames[2] = {render(room, camera), render(room, other)};
    auto scene = makeScene(1);
    Impl::State& s = internalState(*scene);
    Velmora::Test::fuseView(*scene, 1, room, camera, false);
    // Label, colour or depth image of the first (0) or the other view (1).
    const std::vector<std::pair<char, int>> steps = {{'l', 0}, {'c', 0}, {'d', 1}, {'c', 0},
                                                     {'l', 1}, {'c', 0}, {'c', 1}, {'c', 0}};
    for (const auto& [kind, view] : steps) {
        const RenderedFrame& f = frames[view];
        const Image image = kind == 'l'   ? f.labelImage()
                            : kind == 'c' ? f.colorImage()
                                          : f.depthImage();
        ASSERT_EQ(submitOne(*scene, view == 0 ? camera : other, image), kSuccess);
        if (kind != 'c') {
            continue;
        }
        const Solid::RGBDFrame& kept = s.mTexture.keyframes.back();
        Solid::DepthFrame fresh;
        fresh.depth.allocPixels(kept.depth.size());
        fresh.projection = kept.projection;
        fresh.pose = kept.pose;
        Solid::IntegrationStats stats;
        Solid::raycast(*s.mVolumeGrid, 0.05f, 5.0f, 1.0f, fresh, stats);
        for (int v = 0; v < camera.height; ++v)
            for (int u = 0; u < camera.width; ++u)
                ASSERT_EQ(0, std::memcmp(&kept.depth(u, v), &fresh.depth(u, v), sizeof(float)))
                    << s.mTexture.keyframes.size() << ": " << u << ", " << v;
    }
}

// Colour submitted with depth and labels is kept with the submitted depth and pose, also when a
// later frame is smaller and its principal point lies outside the first frame's size.
TEST(FramePaths, CombinedColourIsKeptAlongsideFusion) {
    const AnalyticScene room = AnalyticScene::room(4.0, 3.0, 2.6);
    auto scene = makeScene(0);
    Impl::State& s = internalState(*scene);
    const PinholeCamera camera = wallCamera();
    const RenderedFrame frame = render(room, camera);
    std::vector<Image> images = {frame.colorImage(), frame.depthImage(), frame.labelImage()};
    ASSERT_EQ(scene->submitImages(0, camera.intrinsics(), camera.pose(),
                                  span<const Image>{images.data(), 3}),
              kSuccess);
    ASSERT_EQ(s.mTexture.keyframes.size(), 1u);
    EXPECT_EQ(s.mTexture.keyframes[0].depthU16(10, 10),
              frame.depthMillimetres[10 * camera.width + 10]);
    EXPECT_NE(s.mTexture.keyframes[0].pose(0, 3), 0.0f);
    const size_t blocks = s.mLabelDepthVolumeGrid->size();
    ASSERT_GT(blocks, 0u);
    PinholeCamera far = wallCamera(40, 30);
    far.cx = 70.0;
    far.T_world_camera = Velmora::Test::lookAt({1.0, 0.5, 1.3}, {0.0, 0.2, 1.0}, {0, 0, 1});
    const RenderedFrame other = render(room, far);
    images = {other.colorImage(), other.depthImage(), other.labelImage()};
    ASSERT_EQ(
        scene->submitImages(1, far.intrinsics(), far.pose(), span<const Image>{images.data(), 3}),
        kSuccess);
    ASSERT_EQ(s.mTexture.keyframes.size(), 2u);
    EXPECT_EQ(s.mTexture.keyframes[1].rgb.width(), 40);
    EXPECT_GT(s.mLabelDepthVolumeGrid->size(), blocks);
}

}  // namespace
}  // namespace Velmora
