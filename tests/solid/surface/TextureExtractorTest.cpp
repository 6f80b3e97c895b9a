// Vertex colours from keyframes on a small strip of triangles 2 m in front of a camera: the frame
// chosen per triangle (nearest and most frontal), the depth test against what the frame measured
// (an occluder hides the strip), the 2% depth tolerance, and unseen vertices kept or removed.
#include <gtest/gtest.h>

#include <vector>

#include "solid/surface/TextureExtractor.h"

namespace Solid {
namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;
using Camera = TextureExtractor::Camera;

Camera pinhole() {
    Camera camera;
    EXPECT_TRUE(camera.init(Camera::Vec2(kWidth, kHeight), Camera::Vec2(50, 50),
                            Camera::Vec2(31.5f, 23.5f), Camera::RDVec::zeros(),
                            Camera::Vec2::zeros(), CamModel::DistortionModel::LINEAR));
    return camera;
}

// A frame of one colour with one measured depth everywhere, its camera `cameraZ` metres along
// world z looking along +z.
// Columns left of `firstColumn` measured nothing.
RGBDFrame keyframe(uint8_t r, uint8_t g, uint8_t b, uint16_t depthMm, float cameraZ = 0.0f,
                   int firstColumn = 0) {
    const AR::CV::Size2i size(kWidth, kHeight);
    RGBDFrame frame(size);
    frame.rgb.allocPixels(size, AR::Common::ALIGNMENT_16);
    frame.depthU16.allocPixels(size, AR::Common::ALIGNMENT_16);
    for (int v = 0; v < kHeight; ++v)
        for (int u = 0; u < kWidth; ++u) {
            frame.rgb(u, v) = AR::CV::Pixel24{r, g, b};
            frame.depthU16(u, v) = u < firstColumn ? 0 : depthMm;
        }
    frame.pose(2, 3) = -cameraZ;  // world to camera
    return frame;
}

// Four triangles on z = 2 facing the camera, and one far off to the side that no frame sees.
PolygonMesh strip() {
    PolygonMesh mesh;
    auto& p = mesh.positions();
    for (float y : {-0.1f, 0.1f})
        for (float x : {-0.2f, 0.0f, 0.2f})
            p.push_back(Vec3(x, y, 2.0f));
    p.push_back(Vec3(10, 0, 2));
    p.push_back(Vec3(10, 1, 2));
    p.push_back(Vec3(11, 0, 2));
    for (unsigned i : {0u, 3u, 1u, 1u, 3u, 4u, 1u, 4u, 2u, 2u, 4u, 5u, 6u, 7u, 8u})
        mesh.indices().push_back(i);
    return mesh;
}

struct Run {
    std::vector<RGBDFrame> frames;
    uint8_t removeUnseen = 0;
};

PolygonMesh colour(const Run& run) {
    const Camera camera = pinhole();
    TextureExtractor::Config config;
    config.removeUnseenVertices = run.removeUnseen;
    TextureExtractor extractor(config, camera, camera);
    PolygonMesh mesh = strip();
    AR::Common::Map<int, PolygonMesh*> textures;
    extractor.computeTextures(run.frames, mesh, textures, false);
    EXPECT_TRUE(textures.empty());
    return mesh;
}

TEST(TextureExtractor, EachTriangleTakesItsBestFrameThatSawIt) {
    struct Case {
        const char* name;
        std::vector<RGBDFrame> frames;
        Vec4 expected;  // colour of the seen vertices
    };
    const Vec4 red(1, 0, 0, 1), blue(0, 0, 1, 1), none(0, 0, 0, 0);
    const std::vector<Case> cases = {
        {"one frame", {keyframe(255, 0, 0, 2000)}, red},
        // The green frame measured an occluder at 1 m: it did not see the strip.
        {"occluded frame", {keyframe(255, 0, 0, 2000), keyframe(0, 255, 0, 1000)}, red},
        // The blue frame is nearer (1 m away) and ranks first. Two frames that both cover every
        // triangle: the thinning drops one whose triangles all have another candidate, and the
        // red frame, ranked first nowhere, is passed over by it, so the blue one goes.
        {"two full frames", {keyframe(255, 0, 0, 2000), keyframe(0, 0, 255, 1000, 1.0f)}, red},
        // The red frame sees only the right half: the blue one covers what only it sees, stays,
        // and colours every triangle as the best-ranked frame.
        {"nearer frame",
         {keyframe(255, 0, 0, 2000, 0.0f, 30), keyframe(0, 0, 255, 1000, 1.0f)},
         blue},
        {"within 2 percent", {keyframe(255, 0, 0, 2039)}, red},
        {"beyond 2 percent", {keyframe(255, 0, 0, 2042)}, none},
        {"nothing measured", {keyframe(255, 0, 0, 0)}, none},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const PolygonMesh mesh = colour({c.frames, 0});
        const auto* colors = mesh.findColors();
        ASSERT_NE(colors, nullptr);
        ASSERT_EQ(colors->size(), 9u);
        for (int v = 0; v < 6; ++v)
            for (int k = 0; k < 4; ++k)
                EXPECT_NEAR((*colors)[v][k], c.expected[k], 1e-6f) << v;
        EXPECT_EQ((*colors)[7][3], 0.0f);  // the far triangle: no colour
    }
}

TEST(TextureExtractor, UnseenVerticesAreKeptBlankOrRemoved) {
    const PolygonMesh kept = colour({{keyframe(255, 0, 0, 2000)}, 0});
    EXPECT_EQ(kept.findPositions()->size(), 9u);
    EXPECT_EQ(kept.findIndices()->size(), 15u);

    const PolygonMesh removed = colour({{keyframe(255, 0, 0, 2000)}, 1});
    ASSERT_EQ(removed.findPositions()->size(), 6u);
    EXPECT_EQ(removed.findColors()->size(), 6u);
    ASSERT_EQ(removed.findIndices()->size(), 12u);
    for (unsigned i : *removed.findIndices())
        EXPECT_LT(i, 6u);

    // Nothing seen at all: everything goes.
    const PolygonMesh empty = colour({{keyframe(255, 0, 0, 0)}, 1});
    EXPECT_EQ(empty.findPositions()->size(), 0u);
    EXPECT_EQ(empty.findIndices()->size(), 0u);

    // Without keyframes nothing happens: no colour stream.
    EXPECT_EQ(colour({{}, 1}).findColors(), nullptr);
}

TEST(TextureExtractor, RemovingVerticesRenumbersTheRest) {
    PolygonMesh mesh = strip();
    const Camera camera = pinhole();
    TextureExtractor::Config config;
    TextureExtractor extractor(config, camera, camera);
    std::vector<unsigned> gone = {0, 6};
    extractor.removeVertices(gone, mesh);
    ASSERT_EQ(mesh.positions().size(), 7u);
    EXPECT_EQ(mesh.positions()[0][0], 0.0f);  // old vertex 1
    // The first and the last triangle used a removed vertex; the others shift down by one.
    const std::vector<unsigned> expected = {0, 2, 3, 0, 3, 1, 1, 3, 4};
    ASSERT_EQ(mesh.indices().size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(mesh.indices()[i], expected[i]);
}

TEST(TextureExtractorDeathTest, TextureImagesAreNotBuilt) {
    const Camera camera = pinhole();
    TextureExtractor::Config config;
    TextureExtractor extractor(config, camera, camera);
    PolygonMesh mesh = strip();
    AR::Common::Map<int, PolygonMesh*> textures;
    const std::vector<RGBDFrame> frames = {keyframe(255, 0, 0, 2000)};
    EXPECT_DEATH(extractor.computeTextures(frames, mesh, textures, true), "genTextureImage");
}

}  // namespace
}  // namespace Solid
