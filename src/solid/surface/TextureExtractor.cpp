#include "solid/surface/TextureExtractor.h"

#include <algorithm>
#include <cmath>
#include <functional>

#include "common/BitField.h"
#include "common/Logger.h"
#include "math/MatrixFunctions.h"
#include "math/SE3.h"

namespace Solid {

namespace {

using IndexVector = PolygonMesh::Indices;
using Keyframe = TextureExtractor::Keyframe;
using Camera = TextureExtractor::Camera;

constexpr float kDegreesToRadians = 0.017453292f;
constexpr float kMinProjectionDepth = 0.01f;  // metres in front of the camera
constexpr float kMillimetresToMetres = 0.001f;

// What one frame sees of one vertex.
struct VertexView {
    uint8_t visible = 0;
    float depth = 0.0f;       // camera z, metres
    float depthError = 0.0f;  // measured depth minus `depth`
    float cosAngle = 0.0f;
    Vec2 uv;  // colour-image pixel
    Vec2 uvCopy;
    uint8_t unused = 0;
    // Set once the vertex has been judged for the current frame: a vertex is shared by about six
    // triangles, and one that the frame cannot see would otherwise be projected for each.
    uint8_t tested = 0;
};

struct Candidate {
    float score;  // mean depth squared times (1 - mean cosine): smaller is nearer and more frontal
    int keyframe;
    Vec2 uv[3];
};

struct TriangleRecord {
    std::vector<Candidate> candidates;  // ascending score
    unsigned vertices[3];
    float unused[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
};

struct MeshTextureBookkeeping {
    std::vector<TriangleRecord> triangles;
    std::vector<AR::Common::BitField> frames;  // per triangle: the frames among its candidates
    AR::Common::Map<int, unsigned> enabled;
    AR::Common::Map<int, unsigned> bestCount;        // triangles whose first candidate it is
    AR::Common::Map<int, unsigned> sharedBestCount;  // of those, the ones with another candidate
};

// The frame's world-to-camera transform, its rotation made exact.
AR::Math::SE3<float> framePose(const Keyframe& frame) {
    AR::Math::Matrix<float, 3, 3> r;
    Vec3 t;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            r(i, j) = frame.pose(i, j);
        }
        t[i] = frame.pose(i, 3);
    }
    AR::Math::enforceRotation(r);
    return AR::Math::SE3<float>(r, t);
}

// Pixel position and depth of `point` in `camera`, or false.
bool project(const Vec3& point, const AR::Math::SE3<float>& pose, const Camera& camera, Vec2& uv,
             float& depth) {
    const Vec3 c = pose.rotation() * point + pose.translation();
    if (c[2] < kMinProjectionDepth) {
        return false;
    }
    const float inverseZ = 1.0f / c[2];
    const float x = c[0] * inverseZ;
    const float y = c[1] * inverseZ;
    float factor = 0.0f;
    if (!camera.getDistortionSpline().evaluate(x * x + y * y, factor)) {
        return false;
    }
    float xd = x * factor;
    float yd = y * factor;
    const Camera::Vec2& tangential = camera.getTangentialDistortionCoeffs();
    const float p1 = tangential[0];
    const float p2 = tangential[1];
    if (p1 != 0.0f || p2 != 0.0f) {
        xd += (3 * x * x + y * y) * p2 + 2 * x * y * p1;
        yd += 2 * x * y * p2 + (x * x + 3 * y * y) * p1;
    }
    const float u = camera.getPrincipalPoint()[0] + xd * camera.getOriginalFocalLength()[0];
    const float v = camera.getPrincipalPoint()[1] + yd * camera.getOriginalFocalLength()[1];
    if (u < 0 || u >= camera.getSize()[0] || v < 0 || v >= camera.getSize()[1]) {
        return false;
    }
    uv = Vec2(u, v);
    depth = c[2];
    return true;
}

// Vertex normals: the normalised sum of the unit normals of a vertex's triangles; recomputed
// only when the stream does not match the vertices.
void computeNormals(PolygonMesh& mesh) {
    const PolygonMesh::Positions* inputVertices = &mesh.positions();
    AttributeVector<Vec3>* inputNormals = &mesh.stream<Vec3>(PolygonMesh::NORMAL);
    AR_ASSERT(inputVertices != nullptr);
    AR_ASSERT(inputNormals != nullptr);
    if (inputNormals->size() == inputVertices->size() || mesh.findIndices() == nullptr) {
        return;
    }
    const IndexVector& indices = *mesh.findIndices();
    inputNormals->resize(inputVertices->size());
    std::fill(inputNormals->begin(), inputNormals->end(), Vec3::zeros());
    for (uint32_t i = 0; i + 2 < indices.size(); i += 3) {
        const Vec3& p0 = (*inputVertices)[indices[i]];
        Vec3 f = AR::Math::cross(Vec3((*inputVertices)[indices[i + 1]] - p0),
                                 Vec3((*inputVertices)[indices[i + 2]] - p0));
        const float length = std::sqrt(AR::Math::dot(f, f));
        if (length > 0.0f) {
            f = f * (1.0f / length);
        }
        for (int k = 0; k < 3; ++k) {
            (*inputNormals)[indices[i + k]] = (*inputNormals)[indices[i + k]] + f;
        }
    }
    for (Vec3& n : *inputNormals) {
        const float length = std::sqrt(AR::Math::dot(n, n));
        if (length > 0.0f) {
            n = n * (1.0f / length);
        }
    }
}

void insertCandidate(TriangleRecord& triangle, const Candidate& candidate,
                     MeshTextureBookkeeping& book) {
    auto& list = triangle.candidates;
    const auto at =
        std::upper_bound(list.begin(), list.end(), candidate.score,
                         [](float score, const Candidate& entry) { return score < entry.score; });
    const bool first = at == list.begin();
    const int oldFirst = list.empty() ? -1 : list.front().keyframe;
    list.insert(at, candidate);
    if (first) {
        ++book.bestCount[candidate.keyframe];
        if (oldFirst >= 0) {
            --book.bestCount[oldFirst];
            if (list.size() - 1 >= 2) {
                --book.sharedBestCount[oldFirst];
            }
            ++book.sharedBestCount[candidate.keyframe];
        }
    } else if (list.size() == 2) {
        ++book.sharedBestCount[list.front().keyframe];
    }
}

void removeCandidate(TriangleRecord& triangle, int frame, MeshTextureBookkeeping& book) {
    auto& list = triangle.candidates;
    const auto at = std::find_if(list.begin(), list.end(),
                                 [&](const Candidate& entry) { return entry.keyframe == frame; });
    if (at == list.end()) {
        return;
    }
    const bool wasFirst = at == list.begin();
    const bool secondOfTwo = list.size() == 2 && at == list.begin() + 1;
    list.erase(at);
    if (wasFirst && !list.empty()) {
        ++book.bestCount[list.front().keyframe];
        if (list.size() >= 2) {
            ++book.sharedBestCount[list.front().keyframe];
        }
    } else if (secondOfTwo) {
        --book.sharedBestCount[list.front().keyframe];
    }
}

void assignKeyframesToTriangles(PolygonMesh& mesh, const IndexVector& indices,
                                const std::vector<Keyframe>& keyframes, const Camera& colorCamera,
                                const Camera& depthCamera, const float& maxDepthError,
                                const float& minCos, MeshTextureBookkeeping& book) {
    const PolygonMesh::Positions& positions = mesh.positions();
    const AttributeVector<Vec3>& normals = mesh.stream<Vec3>(PolygonMesh::NORMAL);
    std::vector<VertexView> views(positions.size());
    for (int f = 0; f < static_cast<int>(keyframes.size()); ++f) {
        if (book.enabled[f] == 0) {
            continue;
        }
        const Keyframe& keyframe = keyframes[f];
        AR_ASSERT(keyframe.rgb.width() && keyframe.rgb.height() &&
                  keyframe.rgb.pixels() != nullptr);
        AR_ASSERT(keyframe.depthU16.width() && keyframe.depthU16.height() &&
                  keyframe.depthU16.pixels() != nullptr);
        std::fill(views.begin(), views.end(), VertexView());
        for (uint32_t i = 0; i < indices.size(); ++i) {
            const unsigned vertex = indices[i];
            VertexView& view = views[vertex];
            if (view.tested) {
                continue;
            }
            view.tested = 1;
            const Vec3& p = positions[vertex];
            Vec2 uv;
            float depth = 0.0f;
            if (!project(p, framePose(keyframe), colorCamera, uv, depth)) {
                continue;
            }
            Vec2 pixel;
            float depthInDepthCamera = 0.0f;
            if (!project(p, framePose(keyframe), depthCamera, pixel, depthInDepthCamera)) {
                continue;
            }
            const int column = static_cast<int>(pixel[0]);
            const int row = static_cast<int>(pixel[1]);
            const float measured =
                keyframe.depthU16.pixels()[row * keyframe.depthU16.width() + column] *
                kMillimetresToMetres;
            const float tolerance = depth * maxDepthError;
            if (measured > depth + tolerance || measured < depth - tolerance) {
                continue;
            }
            const Vec3 t(keyframe.pose(0, 3), keyframe.pose(1, 3), keyframe.pose(2, 3));
            const Vec3 toCamera = t - p;
            const float length = std::sqrt(AR::Math::dot(toCamera, toCamera));
            AR_ASSERT(length > 0);
            const float cosAngle = AR::Math::dot(toCamera * (1.0f / length), normals[vertex]);
            if (cosAngle > minCos) {
                view.depth = depth;
                view.cosAngle = cosAngle;
                view.depthError = measured - depth;
                view.uv = uv;
                view.uvCopy = uv;
                view.visible = 1;
            }
        }
        for (size_t t = 0; t < book.triangles.size(); ++t) {
            TriangleRecord& triangle = book.triangles[t];
            const VertexView* corner[3];
            bool all = true;
            for (int k = 0; k < 3; ++k) {
                corner[k] = &views[triangle.vertices[k]];
                all = all && corner[k]->visible;
            }
            if (!all) {
                continue;
            }
            const float meanDepth = (corner[0]->depth + corner[1]->depth + corner[2]->depth) / 3.0f;
            const float meanCos =
                (corner[0]->cosAngle + corner[1]->cosAngle + corner[2]->cosAngle) / 3.0f;
            Candidate candidate{meanDepth * meanDepth * (1.0f - meanCos),
                                f,
                                {corner[0]->uv, corner[1]->uv, corner[2]->uv}};
            insertCandidate(triangle, candidate, book);
            book.frames[t].set(static_cast<uint32_t>(f));
        }
    }
}

void genTextureImage(const std::vector<Keyframe>&, const Camera&, PolygonMesh&,
                     MeshTextureBookkeeping&, std::vector<Keyframe>&) {
    AR_LOG_ERROR("%s is not supposed to be called", "genTextureImage");
    AR_ASSERT(!"genTextureImage");
}

void addEqualizedColorToVertices(const std::vector<Keyframe>& keyframes,
                                 const MeshTextureBookkeeping& book, PolygonMesh& mesh) {
    const PolygonMesh::Positions* fullMeshVertices = mesh.findPositions();
    AR_ASSERT(fullMeshVertices != nullptr);
    PolygonMesh::Colors& colors = mesh.colors();
    colors.resize(fullMeshVertices->size());
    std::fill(colors.begin(), colors.end(), Vec4::zeros());
    std::vector<float> counts(fullMeshVertices->size(), 0.0f);
    for (const TriangleRecord& triangle : book.triangles) {
        if (triangle.candidates.empty()) {
            continue;
        }
        const Candidate& best = triangle.candidates.front();
        const auto& rgb = keyframes[best.keyframe].rgb;
        for (int k = 0; k < 3; ++k) {
            const int column = std::min(static_cast<int>(best.uv[k][0] + 0.5f), rgb.width() - 1);
            const int row = std::min(static_cast<int>(best.uv[k][1] + 0.5f), rgb.height() - 1);
            const AR::CV::Pixel24& pixel = rgb(column, row);
            Vec4& colour = colors[triangle.vertices[k]];
            colour[0] += pixel.c0 / 255.0f;
            colour[1] += pixel.c1 / 255.0f;
            colour[2] += pixel.c2 / 255.0f;
            counts[triangle.vertices[k]] += 1.0f;
        }
    }
    for (uint32_t v = 0; v < colors.size(); ++v) {
        if (counts[v] > 0.0f) {
            const float inverse = 1.0f / counts[v];
            colors[v] =
                Vec4(colors[v][0] * inverse, colors[v][1] * inverse, colors[v][2] * inverse, 1.0f);
        }
    }
}

}  // namespace

void TextureExtractor::computeTextures(const std::vector<Keyframe>& keyframes, PolygonMesh& mesh,
                                       AR::Common::Map<int, PolygonMesh*>& /*textureMeshes*/,
                                       bool generateTexture) {
    if (keyframes.empty()) {
        return;
    }
    computeNormals(mesh);
    const float minCos = std::cos(mConfig.maxViewAngle * kDegreesToRadians);
    const IndexVector& indices = mesh.indices();
    const int numFrames = static_cast<int>(keyframes.size());
    MeshTextureBookkeeping book;
    book.triangles.resize(indices.size() / 3);
    book.frames.assign(book.triangles.size(), AR::Common::BitField(uint32_t(numFrames)));
    for (size_t t = 0; t < book.triangles.size(); ++t) {
        for (int k = 0; k < 3; ++k) {
            book.triangles[t].vertices[k] = indices[3 * t + k];
        }
    }
    for (int f = 0; f < numFrames; ++f) {
        book.enabled[f] = 1;
    }
    assignKeyframesToTriangles(mesh, indices, keyframes, mColorCamera, mDepthCamera,
                               mConfig.maxDepthError, minCos, book);

    while (numFrames > 1) {
        int drop = -1;
        unsigned smallestLoss = 0;
        for (int f = 0; f < numFrames; ++f) {
            if (book.enabled[f] == 0) {
                continue;
            }
            if (book.bestCount[f] == 0) {
                book.enabled[f] = 0;
                continue;
            }
            const unsigned loss = book.bestCount[f] - book.sharedBestCount[f];
            if (drop < 0 || loss < smallestLoss) {
                drop = f;
                smallestLoss = loss;
            }
        }
        if (drop < 0 || smallestLoss > mConfig.maxLostTriangles) {
            break;
        }
        for (size_t t = 0; t < book.triangles.size(); ++t) {
            if (book.frames[t].test(static_cast<uint32_t>(drop))) {
                removeCandidate(book.triangles[t], drop, book);
            }
        }
        book.enabled[drop] = 0;
        book.bestCount[drop] = 0;
        book.sharedBestCount[drop] = 0;
    }

    if (generateTexture) {
        std::vector<Keyframe> used;
        genTextureImage(keyframes, mColorCamera, mesh, book, used);
    } else {
        addEqualizedColorToVertices(keyframes, book, mesh);
    }

    const PolygonMesh::Colors* colors = mesh.findColors();
    if (mConfig.removeUnseenVertices != 0 && colors != nullptr) {
        std::vector<unsigned> unseen;
        for (uint32_t v = 0; v < colors->size(); ++v) {
            if ((*colors)[v][3] <= 0.0f) {
                unseen.push_back(v);
            }
        }
        removeVertices(unseen, mesh);
    }
}

void TextureExtractor::removeVertices(std::vector<unsigned>& vertexIndices, PolygonMesh& mesh) {
    if (vertexIndices.empty()) {
        return;
    }
    std::sort(vertexIndices.begin(), vertexIndices.end(), std::greater<unsigned>());
    auto eraseFrom = [&](auto& stream) {
        if (stream.empty()) {
            return;
        }
        for (unsigned v : vertexIndices) {
            stream.erase(stream.begin() + v);
        }
    };
    PolygonMesh::Positions& positions = mesh.positions();
    const uint32_t vertexCount = positions.size();
    eraseFrom(positions);
    eraseFrom(mesh.stream<Vec3>(PolygonMesh::NORMAL));
    eraseFrom(mesh.texCoords());
    eraseFrom(mesh.colors());
    eraseFrom(mesh.instanceIds());
    // Removed vertices below each vertex, and a mark for the removed ones.
    std::vector<unsigned> shift(vertexCount + 1, 0);
    std::vector<uint8_t> removed(vertexCount, 0);
    for (unsigned v : vertexIndices) {
        removed[v] = 1;
    }
    for (uint32_t v = 0; v < vertexCount; ++v) {
        shift[v + 1] = shift[v] + removed[v];
    }
    IndexVector& indices = mesh.indices();
    uint32_t kept = 0;
    for (uint32_t i = 0; i + 2 < indices.size(); i += 3) {
        if (removed[indices[i]] || removed[indices[i + 1]] || removed[indices[i + 2]]) {
            continue;
        }
        for (int k = 0; k < 3; ++k) {
            indices[kept + k] = indices[i + k] - shift[indices[i + k]];
        }
        kept += 3;
    }
    indices.resize(kept);
}

}  // namespace Solid
