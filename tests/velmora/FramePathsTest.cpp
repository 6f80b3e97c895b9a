// The label and colour paths: split-mode label votes and their queue, colour keyframes and the
// cameras the first colour frame fixes.
#include <gtest/gtest.h>

#include "HostScenes.h"

namespace Velmora {
namespace {

using namespace Test;

PinholeCamera wallCamera(int width = 80, int height = 60) {
    return viewFrom({2.0, 1.5, 1.3}, {4.0, 1.8, 1.0}, width, height, 65.0 * width / 80.0);
}

XrResultVLM submitOne(Impl& scene, const PinholeCamera& camera, const Image& image) {
    return scene.submitImages(0, camera.intrinsics(), camera.pose(), span<const Image>{&image, 1});
}

// Wall-label votes (walls are label 2) of samples within half a cell of a wall, and of samples
// farther than 2.5 cells.
std::pair<int, int> wallVotes(Impl::State& s) {
    const AnalyticScene walls = room();
    std::pair<int, int> votes{0, 0};
    s.mLabelVolumeGrid->for_each([&](const Solid::KeyType& key, const Solid::LabelVolume& block) {
        const Solid::Vec3 origin = s.mLabelVolumeGrid->blockOrigin(key);
        for (int i = 0; i < 512; ++i) {
            const int x = i % 8, y = i / 8 % 8, z = i / 64;
            const double d = std::fabs(walls.signedDistance(
                {origin(0) + x * kCell, origin(1) + y * kCell, origin(2) + z * kCell}));
            votes.first += d < 0.5 * kCell ? block.at(x, y, z).labels[2] : 0;
            votes.second += d > 2.5 * kCell ? block.at(x, y, z).labels[2] : 0;
        }
    });
    return votes;
}

// A label image before any depth changes nothing; one after depth takes the whole queue and
// publishes nothing; its votes land on the surface (where rays graze a wall the rendered surface
// can sit a few centimetres off, so a few land farther out, rarely); with the queue empty a label
// image adds no votes, and depth queues the blocks again.
TEST(FramePaths, SplitLabelsVoteOnTheSurfaceAndConsumeTheQueue) {
    auto scene = makeScene(kModeSplit);
    Impl::State& s = internalState(*scene);
    const PinholeCamera camera = wallCamera();
    const RenderedFrame frame = render(room(), camera);
    ASSERT_EQ(submitOne(*scene, camera, frame.labelImage()), kSuccess);
    EXPECT_EQ(s.mLabelVolumeGrid->size(), 0u);
    ASSERT_EQ(submitOne(*scene, camera, frame.depthImage()), kSuccess);
    ASSERT_EQ(submitOne(*scene, camera, frame.depthImage()), kSuccess);
    const size_t queued = s.mPendingLabelBlocks.size();
    ASSERT_GT(queued, 0u);
    s.mSurfaces.updatedBlocks.clear();
    ASSERT_EQ(submitOne(*scene, camera, frame.labelImage()), kSuccess);
    EXPECT_EQ(s.mPendingLabelBlocks.size(), 0u);
    EXPECT_EQ(s.mSurfaces.updatedBlocks.size(), 0u);
    EXPECT_GE(s.mLabelVolumeGrid->size(), queued);
    const auto [onSurface, offSurface] = wallVotes(s);
    EXPECT_GT(onSurface, 50);
    EXPECT_LT(offSurface * 50, onSurface);
    ASSERT_EQ(submitOne(*scene, camera, frame.labelImage()), kSuccess);
    EXPECT_EQ(wallVotes(s).first, onSurface);
    ASSERT_EQ(submitOne(*scene, camera, frame.depthImage()), kSuccess);
    ASSERT_EQ(submitOne(*scene, camera, frame.labelImage()), kSuccess);
    EXPECT_GT(wallVotes(s).first, onSurface);
}

// A colour image alone becomes a keyframe with depth rendered from the volume, close to the
// wall's; one of another size is kept too, the cameras keep the first size; seen from outside
// the room, facing away, the volume shows nothing; once the cameras are set a frame with its
// principal point outside is kept, but as the first colour frame it is refused, and nothing of
// it kept or fused. Colour with depth and labels is kept with the submitted depth and pose.
TEST(FramePaths, ColourFramesBecomeKeyframesWithTheirDepth) {
    for (int32_t mode : {kModeCombined, kModeSplit}) {
        SCOPED_TRACE(mode);
        auto scene = makeScene(mode);
        Impl::State& s = internalState(*scene);
        const PinholeCamera camera = wallCamera(), small = wallCamera(40, 30);
        const RenderedFrame frame = render(room(), camera);
        fuseView(*scene, mode, room(), camera, false);
        ASSERT_EQ(submitOne(*scene, camera, frame.colorImage()), kSuccess);
        ASSERT_EQ(s.mTexture.keyframes.size(), 1u);
        const Solid::RGBDFrame& key = s.mTexture.keyframes[0];
        const float truth = frame.depthMetres[camera.height / 2 * camera.width + camera.width / 2];
        EXPECT_NEAR(key.depth(camera.width / 2, camera.height / 2), truth, 1.5f * kCell);
        EXPECT_NEAR(key.depthU16(camera.width / 2, camera.height / 2), truth * 1000.0f,
                    1500.0f * kCell);
        EXPECT_EQ(key.rgb(3, 4).c0, frame.rgb[3 * (4 * camera.width + 3)]);
        ASSERT_EQ(submitOne(*scene, small, render(room(), small).colorImage()), kSuccess);
        ASSERT_EQ(s.mTexture.keyframes.size(), 2u);
        EXPECT_EQ(s.mTexture.keyframes[1].rgb.width(), 40);
        EXPECT_EQ(s.mTexture.colorCalib.getSize()(0), 80.0f);
        EXPECT_EQ(s.mTexture.depthCalib.getSize()(1), 60.0f);
        PinholeCamera away = camera;
        away.T_world_camera = lookAt({2.0, -3.0, 1.3}, {2.0, -6.0, 1.3}, {0, 0, 1});
        ASSERT_EQ(submitOne(*scene, away, frame.colorImage()), kSuccess);
        const Solid::RGBDFrame& empty = s.mTexture.keyframes.back();
        for (int i = 0; i < empty.depthU16.width() * empty.depthU16.height(); ++i)
            ASSERT_EQ(empty.depthU16(i % empty.depthU16.width(), i / empty.depthU16.width()), 0);
        IntrinsicLinearCameraCalibrationVLM outside = camera.intrinsics();
        outside.principalPointX = 500.0;
        std::vector<Image> images = {frame.colorImage()};
        EXPECT_EQ(scene->submitImages(0, outside, camera.pose(), {images.data(), 1}), kSuccess);
        EXPECT_EQ(s.mTexture.keyframes.size(), 4u);
        EXPECT_EQ(s.mTexture.colorCalib.getPrincipalPoint()(0),
                  camera.intrinsics().principalPointX);
        if (mode == kModeSplit) {
            auto fresh = makeScene(mode);
            EXPECT_EQ(fresh->submitImages(0, outside, camera.pose(), {images.data(), 1}),
                      kErrorIntrinsicsInvalid);
            EXPECT_TRUE(internalState(*fresh).mTexture.keyframes.empty());
            continue;
        }
        auto fresh = makeScene(mode);
        Impl::State& f = internalState(*fresh);
        images.insert(images.end(), {frame.depthImage(), frame.labelImage()});
        EXPECT_EQ(fresh->submitImages(0, outside, camera.pose(), {images.data(), 3}),
                  kErrorIntrinsicsInvalid);
        EXPECT_TRUE(f.mTexture.keyframes.empty());
        EXPECT_EQ(blockCount(*fresh), 0u);
        ASSERT_EQ(fresh->submitImages(0, camera.intrinsics(), camera.pose(), {images.data(), 3}),
                  kSuccess);
        ASSERT_EQ(f.mTexture.keyframes.size(), 1u);
        EXPECT_EQ(f.mTexture.keyframes[0].depthU16(10, 10),
                  frame.depthMillimetres[10 * camera.width + 10]);
        EXPECT_NE(f.mTexture.keyframes[0].pose(0, 3), 0.0f);
        const size_t blocks = blockCount(*fresh);
        ASSERT_GT(blocks, 0u);
        PinholeCamera far = small;
        far.cx = 70.0;
        far.T_world_camera = lookAt({1.0, 0.5, 1.3}, {0.0, 0.2, 1.0}, {0, 0, 1});
        const RenderedFrame other = render(room(), far);
        images = {other.colorImage(), other.depthImage(), other.labelImage()};
        ASSERT_EQ(fresh->submitImages(1, far.intrinsics(), far.pose(), {images.data(), 3}),
                  kSuccess);
        ASSERT_EQ(f.mTexture.keyframes.size(), 2u);
        EXPECT_EQ(f.mTexture.keyframes[1].rgb.width(), 40);
        EXPECT_GT(blockCount(*fresh), blocks);
    }
}

}  // namespace
}  // namespace Velmora
