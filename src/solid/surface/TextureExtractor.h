// Vertex colours of a block mesh from the kept colour frames (keyframes). Each triangle collects
// the frames that see all three corners (in the image, in front of the depth the frame measured,
// and not facing away), ranked near and frontal first; frames whose every triangle another frame
// also covers are dropped, so that fewer frames, and fewer seams, remain; then every vertex gets
// the mean colour that the best frame of each of its triangles shows at it. No blending by weight,
// no texture atlas: a texture request aborts.
#ifndef VELMORA_SOLID_SURFACE_TEXTUREEXTRACTOR_H
#define VELMORA_SOLID_SURFACE_TEXTUREEXTRACTOR_H

#include <cstdint>
#include <vector>

#include "common/Map.h"
#include "cv/Camera.h"
#include "solid/surface/PolygonMesh.h"
#include "solid/volume/Frames.h"

namespace Solid {

class TextureExtractor {
public:
    struct Config {
        float maxDepthError = 0.02f;    // relative tolerance of a vertex's depth against the image
        float maxViewAngle = 120.0f;    // degrees between vertex normal and direction to the camera
        uint32_t maxLostTriangles = 0;  // triangles a frame may leave uncovered and be dropped
        uint8_t removeUnseenVertices = 0;  // non-zero: delete vertices that got no colour
    };
    using Camera = AR::CV::Camera<float>;
    using Keyframe = RGBDFrame;

    // Holds references: all three must outlive the extractor.
    TextureExtractor(const Config& config, const Camera& colorCamera, const Camera& depthCamera)
        : mConfig(config), mColorCamera(colorCamera), mDepthCamera(depthCamera) {}

    // Colours `mesh` from `keyframes` (colour path, `generateTexture` false), or aborts (texture
    // path). `textureMeshes` belongs to the texture path and is left alone. Nothing happens
    // without keyframes.
    void computeTextures(const std::vector<Keyframe>& keyframes, PolygonMesh& mesh,
                         AR::Common::Map<int, PolygonMesh*>& textureMeshes, bool generateTexture);
    // Deletes the vertices `vertexIndices` from every per-vertex stream and the triangles that
    // use them; the other triangles are renumbered.
    void removeVertices(std::vector<unsigned>& vertexIndices, PolygonMesh& mesh);

private:
    const Config& mConfig;
    const Camera& mColorCamera;
    const Camera& mDepthCamera;
};

}  // namespace Solid

#endif  // VELMORA_SOLID_SURFACE_TEXTUREEXTRACTOR_H
