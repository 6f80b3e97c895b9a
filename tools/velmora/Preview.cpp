#include "velmora/Preview.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace VelmoraTool {
namespace {

using Vec3d = std::array<double, 3>;

// Every picture is drawn at this many samples per pixel side and averaged down, which smooths the
// edges of triangles and lines.
constexpr uint32_t kSupersampling = 2;
// Direction from the middle of the scene to the viewpoint, not normalised, in a frame whose third
// axis is up: from one corner, above, so that a room seen from there shows its floor and two
// walls. With world z up the first two axes are world x and y (the built-in room's south-west).
constexpr Vec3d kViewDirection{-0.55, -0.8, 1.0};
// A camera up direction within this angle of a world axis (cosine) is taken as that axis.
constexpr double kAxisSnapCosine = 0.9;
// Horizontal field of view of the picture, radians (about 50 degrees).
constexpr double kFieldOfView = 0.87;
// Share of the vertices at each end of each axis left out of the bounds that the view must show,
// so that a few stray vertices do not shrink the scene to a dot.
constexpr double kBoundsTrim = 0.01;
// The picture leaves this share of its size free around the scene.
constexpr double kMargin = 1.1;
// Bisection steps of the viewing distance, and the most points it checks.
constexpr int kFitSteps = 30;
constexpr size_t kFitSamples = 4096;
// Smallest radius of the bounds, metres, so that a scene of one point still gets a viewpoint.
constexpr double kMinRadius = 1e-3;
// Light: a share from all directions and a share from a direction above and behind the viewer.
constexpr double kAmbient = 0.4;
constexpr double kDiffuse = 0.6;
// Towards the light in the picture's frame (right, down, forward): from above the viewer's left
// shoulder.
constexpr Vec3d kLightDirection{-0.4, -0.7, -1.0};
// Background: a vertical gradient between two blue-greys.
constexpr std::array<double, 3> kBackgroundTop{236, 240, 246};
constexpr std::array<double, 3> kBackgroundBottom{190, 198, 212};
// Marching cubes winds each triangle counter-clockwise seen from free space; a triangle that
// appears clockwise on screen is seen from behind.
constexpr bool kFrontIsCounterClockwise = true;
// Plane overlay: a fill at this opacity and an outline of this width (picture pixels) with a
// dark border around it.
constexpr double kPlaneFillOpacity = 0.45;
constexpr double kOutlineWidth = 2.5;
constexpr double kOutlineBorder = 1.5;
constexpr std::array<uint8_t, 3> kOutlineBorderColor{20, 20, 20};
// Colour of surface that has no colour of its own.
constexpr std::array<uint8_t, 3> kNeutralColor{175, 175, 170};
// Hue steps by the golden ratio, so that neighbouring ids get distant hues.
constexpr double kGoldenRatioConjugate = 0.618033988749895;
constexpr double kInstanceSaturation = 0.55;
constexpr double kInstanceValue = 0.95;
constexpr double kPlaneSaturation = 0.85;
constexpr double kPlaneValue = 1.0;
constexpr int kColorChannels = 3;
constexpr double kMaxChannel = 255.0;

Vec3d sub(const Vec3d& a, const Vec3d& b) {
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
double dot(const Vec3d& a, const Vec3d& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
Vec3d cross(const Vec3d& a, const Vec3d& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
Vec3d normalised(const Vec3d& a) {
    const double length = std::sqrt(dot(a, a));
    return length > 0.0 ? Vec3d{a[0] / length, a[1] / length, a[2] / length} : a;
}
Vec3d toVec(const std::array<float, 3>& p) {
    return {p[0], p[1], p[2]};
}

// Hue in [0, 1), saturation and value in [0, 1] to 8-bit RGB.
std::array<uint8_t, 3> hsvColor(double hue, double saturation, double value) {
    constexpr double kSectors = 6.0;
    const double h = (hue - std::floor(hue)) * kSectors;
    const int sector = static_cast<int>(h) % static_cast<int>(kSectors);
    const double f = h - std::floor(h);
    const double p = value * (1.0 - saturation);
    const double q = value * (1.0 - saturation * f);
    const double t = value * (1.0 - saturation * (1.0 - f));
    const double rgb[6][3] = {{value, t, p}, {q, value, p}, {p, value, t},
                              {p, q, value}, {t, p, value}, {value, p, q}};
    std::array<uint8_t, 3> color{};
    for (int c = 0; c < kColorChannels; ++c) {
        color[c] = static_cast<uint8_t>(std::lround(rgb[sector][c] * kMaxChannel));
    }
    return color;
}

std::array<uint8_t, 3> planeColor(size_t index) {
    return hsvColor(0.05 + kGoldenRatioConjugate * static_cast<double>(index), kPlaneSaturation,
                    kPlaneValue);
}

// The picture at kSupersampling times its size: colour and the inverse depth of what was drawn.
class Canvas {
public:
    Canvas(const PreviewCamera& camera)
        : mCamera(camera),
          mWidth(camera.width * kSupersampling),
          mHeight(camera.height * kSupersampling),
          mColor(size_t{mWidth} * mHeight * kColorChannels),
          mInverseDepth(size_t{mWidth} * mHeight, 0.0f) {
        for (uint32_t y = 0; y < mHeight; ++y) {
            const double t = static_cast<double>(y) / std::max<uint32_t>(mHeight - 1, 1);
            for (uint32_t x = 0; x < mWidth; ++x) {
                for (int c = 0; c < kColorChannels; ++c) {
                    mColor[(size_t{y} * mWidth + x) * kColorChannels + c] = static_cast<float>(
                        kBackgroundTop[c] * (1.0 - t) + kBackgroundBottom[c] * t);
                }
            }
        }
    }

    // Draws the mesh in its own colours, or all in the neutral colour when `neutral`.
    void drawMesh(const HostMesh& mesh, bool neutral) {
        std::vector<std::array<double, 3>> screen(mesh.positions.size());
        std::vector<uint8_t> visible(mesh.positions.size());
        for (size_t v = 0; v < mesh.positions.size(); ++v) {
            double x = 0.0, y = 0.0, depth = 0.0;
            visible[v] = mCamera.project(mesh.positions[v], x, y, depth);
            screen[v] = {x * kSupersampling, y * kSupersampling, 1.0 / depth};
        }
        Vec3d light{};
        for (int axis = 0; axis < 3; ++axis) {
            light[axis] = kLightDirection[0] * mCamera.right[axis] +
                          kLightDirection[1] * mCamera.down[axis] +
                          kLightDirection[2] * mCamera.forward[axis];
        }
        light = normalised(light);
        for (size_t t = 0; t + 2 < mesh.indices.size(); t += 3) {
            const uint32_t i0 = mesh.indices[t], i1 = mesh.indices[t + 1], i2 = mesh.indices[t + 2];
            if (!visible[i0] || !visible[i1] || !visible[i2]) {
                continue;
            }
            const std::array<double, 3>& a = screen[i0];
            const std::array<double, 3>& b = screen[i1];
            const std::array<double, 3>& c = screen[i2];
            // Signed area on screen; with y pointing down a counter-clockwise triangle (seen from
            // the viewer) has a negative area.
            const double area = (b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0]);
            const bool counterClockwise = area < 0.0;
            if (area == 0.0 || counterClockwise != kFrontIsCounterClockwise) {
                continue;
            }
            const Vec3d p0 = toVec(mesh.positions[i0]);
            Vec3d normal = normalised(
                cross(sub(toVec(mesh.positions[i1]), p0), sub(toVec(mesh.positions[i2]), p0)));
            if (!kFrontIsCounterClockwise) {
                normal = {-normal[0], -normal[1], -normal[2]};
            }
            const double shade = kAmbient + kDiffuse * std::max(0.0, dot(normal, light));
            fillTriangle(a, b, c, vertexColor(mesh, i0, neutral), vertexColor(mesh, i1, neutral),
                         vertexColor(mesh, i2, neutral), shade, area);
        }
    }

    // Fills the projected polygon of each front-facing plane translucently and outlines it.
    void drawPlanes(const HostPlanes& planes) {
        for (size_t index = 0; index < planes.planes.size(); ++index) {
            const HostPlane& plane = planes.planes[index];
            if (plane.contour.size() < 3) {
                continue;
            }
            Vec3d centre{0.0, 0.0, 0.0};
            for (const std::array<float, 3>& point : plane.contour) {
                for (int axis = 0; axis < 3; ++axis) {
                    centre[axis] += point[axis] / static_cast<double>(plane.contour.size());
                }
            }
            // A plane whose free side faces away is seen from behind, like the faces that the
            // mesh leaves out.
            if (dot(toVec(plane.normal), sub(mCamera.position, centre)) <= 0.0) {
                continue;
            }
            std::vector<std::array<double, 2>> polygon;
            for (const std::array<float, 3>& point : plane.contour) {
                double x = 0.0, y = 0.0, depth = 0.0;
                if (!mCamera.project(point, x, y, depth)) {
                    polygon.clear();
                    break;
                }
                polygon.push_back({x * kSupersampling, y * kSupersampling});
            }
            if (polygon.empty()) {
                continue;
            }
            const std::array<uint8_t, 3> color = planeColor(index);
            fillPolygon(polygon, color, kPlaneFillOpacity);
            const double width = kOutlineWidth * kSupersampling;
            const double border = kOutlineBorder * kSupersampling;
            for (size_t i = 0; i < polygon.size(); ++i) {
                drawLine(polygon[i], polygon[(i + 1) % polygon.size()], width + 2 * border,
                         kOutlineBorderColor);
            }
            for (size_t i = 0; i < polygon.size(); ++i) {
                drawLine(polygon[i], polygon[(i + 1) % polygon.size()], width, color);
            }
        }
    }

    // Averages each kSupersampling square into one pixel.
    PngImage image() const {
        const uint32_t width = mCamera.width, height = mCamera.height;
        std::vector<uint8_t> pixels(size_t{width} * height * kColorChannels);
        constexpr double kSamples = kSupersampling * kSupersampling;
        for (uint32_t y = 0; y < height; ++y) {
            for (uint32_t x = 0; x < width; ++x) {
                for (int c = 0; c < kColorChannels; ++c) {
                    double sum = 0.0;
                    for (uint32_t sy = 0; sy < kSupersampling; ++sy) {
                        for (uint32_t sx = 0; sx < kSupersampling; ++sx) {
                            sum += mColor[((size_t{y} * kSupersampling + sy) * mWidth +
                                           x * kSupersampling + sx) *
                                              kColorChannels +
                                          c];
                        }
                    }
                    pixels[(size_t{y} * width + x) * kColorChannels + c] =
                        static_cast<uint8_t>(std::clamp(std::lround(sum / kSamples), 0L,
                                                        static_cast<long>(kMaxChannel)));
                }
            }
        }
        return makeRgb8(width, height, pixels);
    }

private:
    static std::array<double, 3> vertexColor(const HostMesh& mesh, uint32_t v, bool neutral) {
        if (!neutral && !mesh.colors.empty() && mesh.colors[v][3] > 0.0f) {
            return {mesh.colors[v][0] * kMaxChannel, mesh.colors[v][1] * kMaxChannel,
                    mesh.colors[v][2] * kMaxChannel};
        }
        // In a coloured mesh, surface no colour frame saw stays neutral: an instance colour
        // beside real colours would read as paint on the object.
        const bool plain = neutral || !mesh.colors.empty() || mesh.instanceIds.empty();
        const std::array<uint8_t, 3> color =
            plain ? kNeutralColor : instanceColor(mesh.instanceIds[v]);
        return {static_cast<double>(color[0]), static_cast<double>(color[1]),
                static_cast<double>(color[2])};
    }

    // Fills a projected triangle (x, y, inverse depth) with the colours of its corners
    // interpolated and scaled by `shade`, where it is nearer than what was drawn before.
    void fillTriangle(const std::array<double, 3>& a, const std::array<double, 3>& b,
                      const std::array<double, 3>& c, const std::array<double, 3>& ca,
                      const std::array<double, 3>& cb, const std::array<double, 3>& cc,
                      double shade, double area) {
        const int minX = std::max(0, static_cast<int>(std::floor(std::min({a[0], b[0], c[0]}))));
        const int maxX = std::min(static_cast<int>(mWidth) - 1,
                                  static_cast<int>(std::ceil(std::max({a[0], b[0], c[0]}))));
        const int minY = std::max(0, static_cast<int>(std::floor(std::min({a[1], b[1], c[1]}))));
        const int maxY = std::min(static_cast<int>(mHeight) - 1,
                                  static_cast<int>(std::ceil(std::max({a[1], b[1], c[1]}))));
        for (int y = minY; y <= maxY; ++y) {
            for (int x = minX; x <= maxX; ++x) {
                const double px = x + 0.5, py = y + 0.5;
                // Barycentric weights from the signed areas of the sub-triangles.
                const double w0 = ((b[0] - px) * (c[1] - py) - (b[1] - py) * (c[0] - px)) / area;
                const double w1 = ((c[0] - px) * (a[1] - py) - (c[1] - py) * (a[0] - px)) / area;
                const double w2 = 1.0 - w0 - w1;
                if (w0 < 0.0 || w1 < 0.0 || w2 < 0.0) {
                    continue;
                }
                const size_t pixel = static_cast<size_t>(y) * mWidth + x;
                const float inverseDepth = static_cast<float>(w0 * a[2] + w1 * b[2] + w2 * c[2]);
                if (inverseDepth <= mInverseDepth[pixel]) {
                    continue;
                }
                mInverseDepth[pixel] = inverseDepth;
                for (int ch = 0; ch < kColorChannels; ++ch) {
                    mColor[pixel * kColorChannels + ch] =
                        static_cast<float>(shade * (w0 * ca[ch] + w1 * cb[ch] + w2 * cc[ch]));
                }
            }
        }
    }

    void blend(size_t pixel, const std::array<uint8_t, 3>& color, double opacity) {
        for (int ch = 0; ch < kColorChannels; ++ch) {
            float& value = mColor[pixel * kColorChannels + ch];
            value = static_cast<float>(value * (1.0 - opacity) + color[ch] * opacity);
        }
    }

    // Even-odd scanline fill of a closed polygon, at every sample centre inside it.
    void fillPolygon(const std::vector<std::array<double, 2>>& polygon,
                     const std::array<uint8_t, 3>& color, double opacity) {
        for (uint32_t y = 0; y < mHeight; ++y) {
            const double py = y + 0.5;
            std::vector<double> crossings;
            for (size_t i = 0; i < polygon.size(); ++i) {
                const std::array<double, 2>& p = polygon[i];
                const std::array<double, 2>& q = polygon[(i + 1) % polygon.size()];
                if ((p[1] <= py) != (q[1] <= py)) {
                    crossings.push_back(p[0] + (py - p[1]) / (q[1] - p[1]) * (q[0] - p[0]));
                }
            }
            std::sort(crossings.begin(), crossings.end());
            for (size_t i = 0; i + 1 < crossings.size(); i += 2) {
                const long from = std::max(0L, std::lround(crossings[i]));
                const long to = std::min(static_cast<long>(mWidth), std::lround(crossings[i + 1]));
                for (long x = from; x < to; ++x) {
                    blend(size_t{y} * mWidth + static_cast<size_t>(x), color, opacity);
                }
            }
        }
    }

    // A line of `width` samples: every sample centre within width / 2 of the segment.
    void drawLine(const std::array<double, 2>& p, const std::array<double, 2>& q, double width,
                  const std::array<uint8_t, 3>& color) {
        const double half = width / 2.0;
        const double dx = q[0] - p[0], dy = q[1] - p[1];
        const double lengthSquared = dx * dx + dy * dy;
        const int minX = std::max(0, static_cast<int>(std::floor(std::min(p[0], q[0]) - half)));
        const int maxX = std::min(static_cast<int>(mWidth) - 1,
                                  static_cast<int>(std::ceil(std::max(p[0], q[0]) + half)));
        const int minY = std::max(0, static_cast<int>(std::floor(std::min(p[1], q[1]) - half)));
        const int maxY = std::min(static_cast<int>(mHeight) - 1,
                                  static_cast<int>(std::ceil(std::max(p[1], q[1]) + half)));
        for (int y = minY; y <= maxY; ++y) {
            for (int x = minX; x <= maxX; ++x) {
                const double px = x + 0.5 - p[0], py = y + 0.5 - p[1];
                const double along = lengthSquared > 0.0
                                         ? std::clamp((px * dx + py * dy) / lengthSquared, 0.0, 1.0)
                                         : 0.0;
                const double ex = px - along * dx, ey = py - along * dy;
                if (ex * ex + ey * ey <= half * half) {
                    blend(static_cast<size_t>(y) * mWidth + x, color, 1.0);
                }
            }
        }
    }

    PreviewCamera mCamera;
    uint32_t mWidth;
    uint32_t mHeight;
    std::vector<float> mColor;         // RGB, 0 to 255
    std::vector<float> mInverseDepth;  // 0 where nothing was drawn
};

}  // namespace

bool PreviewCamera::project(const std::array<float, 3>& world, double& x, double& y,
                            double& depth) const {
    // Points nearer than this (metres) are taken as behind the camera.
    constexpr double kNearPlane = 1e-3;
    const Vec3d relative = sub(toVec(world), position);
    depth = dot(relative, forward);
    if (!(depth > kNearPlane)) {
        return false;
    }
    x = (width - 1) / 2.0 + focal * dot(relative, right) / depth;
    y = (height - 1) / 2.0 + focal * dot(relative, down) / depth;
    return true;
}

std::array<double, 3> snapUp(const std::array<double, 3>& up) {
    const Vec3d unit = normalised(up);
    for (int axis = 0; axis < 3; ++axis) {
        if (std::fabs(unit[axis]) >= kAxisSnapCosine) {
            Vec3d snapped{0.0, 0.0, 0.0};
            snapped[axis] = unit[axis] > 0.0 ? 1.0 : -1.0;
            return snapped;
        }
    }
    return dot(unit, unit) > 0.0 ? unit : Vec3d{0.0, 0.0, 1.0};
}

PreviewCamera overviewCamera(const std::vector<std::array<float, 3>>& points, uint32_t width,
                             uint32_t height, const std::array<double, 3>& up) {
    Vec3d low{0.0, 0.0, 0.0}, high{1.0, 1.0, 1.0};
    if (!points.empty()) {
        std::vector<float> values(points.size());
        const size_t trim = static_cast<size_t>(kBoundsTrim * values.size());
        for (int axis = 0; axis < 3; ++axis) {
            for (size_t v = 0; v < values.size(); ++v) {
                values[v] = points[v][axis];
            }
            std::nth_element(values.begin(), values.begin() + trim, values.end());
            low[axis] = values[trim];
            std::nth_element(values.begin(), values.end() - 1 - trim, values.end());
            high[axis] = values[values.size() - 1 - trim];
        }
    }
    const Vec3d centre{(low[0] + high[0]) / 2, (low[1] + high[1]) / 2, (low[2] + high[2]) / 2};
    const Vec3d half = sub(high, centre);
    const double radius = std::max(std::sqrt(dot(half, half)), kMinRadius);
    PreviewCamera camera;
    camera.width = width;
    camera.height = height;
    camera.focal = (width / 2.0) / std::tan(kFieldOfView / 2.0);
    // The horizontal axes of the view frame: world x made perpendicular to up (world y where up
    // lies near x), and up x that.
    const Vec3d upAxis = normalised(up);
    const Vec3d reference =
        std::fabs(upAxis[0]) < kAxisSnapCosine ? Vec3d{1.0, 0.0, 0.0} : Vec3d{0.0, 1.0, 0.0};
    const double along = dot(reference, upAxis);
    const Vec3d first =
        normalised({reference[0] - along * upAxis[0], reference[1] - along * upAxis[1],
                    reference[2] - along * upAxis[2]});
    const Vec3d second = cross(upAxis, first);
    Vec3d towardsViewer{};
    for (int axis = 0; axis < 3; ++axis) {
        towardsViewer[axis] = kViewDirection[0] * first[axis] + kViewDirection[1] * second[axis] +
                              kViewDirection[2] * upAxis[axis];
    }
    towardsViewer = normalised(towardsViewer);
    camera.forward = {-towardsViewer[0], -towardsViewer[1], -towardsViewer[2]};
    camera.right = normalised(cross(camera.forward, upAxis));
    camera.down = cross(camera.forward, camera.right);
    // The nearest distance at which the points within the trimmed bounds (a sample of them) fit
    // into the picture with its margin, found by bisection between a distance that is surely too
    // near (the bounding sphere touching the camera) and one that surely fits (the sphere inside
    // the narrower view cone). Points rather than the corners of the bounds: a scan of a slanted
    // slab fills little of its box.
    std::vector<std::array<float, 3>> sample;
    const size_t stride = std::max<size_t>(1, points.size() / kFitSamples);
    for (size_t i = 0; i < points.size(); i += stride) {
        bool inside = true;
        for (int axis = 0; axis < 3; ++axis) {
            inside = inside && points[i][axis] >= low[axis] && points[i][axis] <= high[axis];
        }
        if (inside) {
            sample.push_back(points[i]);
        }
    }
    auto place = [&](double distance) {
        for (int axis = 0; axis < 3; ++axis) {
            camera.position[axis] = centre[axis] + distance * towardsViewer[axis];
        }
    };
    auto fits = [&]() {
        for (const std::array<float, 3>& p : sample) {
            double x = 0.0, y = 0.0, depth = 0.0;
            if (!camera.project(p, x, y, depth) ||
                std::fabs(x - (width - 1) / 2.0) * kMargin > width / 2.0 ||
                std::fabs(y - (height - 1) / 2.0) * kMargin > height / 2.0) {
                return false;
            }
        }
        return true;
    };
    const double narrowHalfAngle = std::atan((std::min(width, height) / 2.0) / camera.focal);
    double near = radius, far = kMargin * radius / std::sin(narrowHalfAngle);
    for (int step = 0; step < kFitSteps; ++step) {
        const double middle = (near + far) / 2.0;
        place(middle);
        (fits() ? far : near) = middle;
    }
    place(far);
    return camera;
}

std::vector<std::array<float, 3>> sceneExtent(const HostMesh& mesh, const HostPlanes& planes) {
    if (!mesh.positions.empty()) {
        return mesh.positions;
    }
    std::vector<std::array<float, 3>> points;
    for (const HostPlane& plane : planes.planes) {
        points.insert(points.end(), plane.contour.begin(), plane.contour.end());
    }
    return points;
}

std::array<uint8_t, 3> instanceColor(uint16_t id) {
    if (id == 0) {
        return kNeutralColor;
    }
    return hsvColor(kGoldenRatioConjugate * id, kInstanceSaturation, kInstanceValue);
}

Previews renderPreviews(const HostMesh& mesh, const HostPlanes& planes,
                        const PreviewCamera& camera) {
    // The plane picture shows the surface in one neutral colour, so that the planes' own colours
    // stand out.
    Previews previews;
    Canvas scene(camera);
    scene.drawMesh(mesh, false);
    previews.scene = scene.image();
    Canvas withPlanes(camera);
    withPlanes.drawMesh(mesh, true);
    withPlanes.drawPlanes(planes);
    previews.planes = withPlanes.image();
    return previews;
}

}  // namespace VelmoraTool
