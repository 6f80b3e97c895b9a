// The frame harness: init, then frames of every image format with any intrinsics and pose, and
// queries between them. Images are at most kMaxImageEdge pixels a side, so that an input runs in
// milliseconds: what makes a frame hostile is its camera, not its size.
#include <algorithm>
#include <cmath>
#include <vector>

#include "fuzz/FuzzHarness.h"
#include "fuzz/FuzzInput.h"
#include "velmora/ImplState.h"

namespace Velmora {
namespace Fuzz {

namespace {

constexpr int kMaxImageEdge = 16;
// The configuration is the host's choice of effort, so it stays ordinary (cell sizes a host would
// use, a band of 5 to 10 cells; combined, split, and a mode the library does not know); frames
// carry the hostility.
constexpr int32_t kModes[] = {kModeCombined, kModeSplit, kModeSplit, 7};
// Bytes of a pixel of each format; 1 for the formats the library does not know.
constexpr uint32_t kBytesPerPixel[] = {2, 2, 1, 2, 3, 1};
constexpr uint32_t kUnknownFormat = 5;

struct HostImage {
    Image image{};
    std::vector<uint8_t> pixels;
};

uint32_t bytesPerPixel(uint32_t format) {
    return kBytesPerPixel[std::min(format, kUnknownFormat)];
}

// Pixels raw from the input, constant, or a tilted plane of depth from 0.3 to 5 m (the other
// formats take its low bytes), which gives fusion surfaces to build meshes and planes from. Label
// pixels keep below the 32 classes a sample counts, 16-bit ones with their high byte zero, so
// that most label images are fused rather than refused (an odd stride still turns 16-bit rows
// into other classes, which the validation refuses).
HostImage makeImage(FuzzInput& in, uint32_t format) {
    HostImage host;
    Image& image = host.image;
    image.format = format;
    image.width = uint32_t(in.range(1, kMaxImageEdge));
    image.height = uint32_t(in.range(1, kMaxImageEdge));
    const uint32_t bpp = bytesPerPixel(format);
    image.stride = image.width * bpp + uint32_t(in.byte() % 4);
    image.maxDepth = in.flag() ? 0u : uint32_t(in.range(0, 65535));
    host.pixels.resize(size_t(image.stride) * image.height);
    const int pattern = in.byte() % 3;
    const int base = in.range(300, 5000);
    const int slopeX = in.range(-200, 200);
    const int slopeY = in.range(-200, 200);
    const bool label = format == kImageLabelU8 || format == kImageLabelU16;
    for (uint32_t y = 0; y < image.height; ++y) {
        uint8_t* row = host.pixels.data() + size_t(y) * image.stride;
        if (pattern == 0) {
            size_t count = size_t(image.width) * bpp;
            const uint8_t* raw = in.bytes(count);
            std::copy(raw, raw + count, row);
        }
        for (uint32_t x = 0; x < image.width; ++x) {
            const int value = pattern == 1 ? base : base + slopeX * int(x) + slopeY * int(y);
            for (uint32_t b = 0; b < bpp && pattern != 0; ++b)
                row[x * bpp + b] = uint8_t(b == 1 ? std::max(0, value) >> 8 : std::max(0, value));
            if (label) {
                row[x * bpp] %= 32;
                row[x * bpp + bpp - 1] = bpp == 2 ? 0 : row[x * bpp];
            }
        }
    }
    image.pixelData = host.pixels.data();
    // Now and then an image the validation must refuse.
    switch (in.byte() % 16) {
        case 0:
            image.pixelData = nullptr;
            break;
        case 1:
            image.stride = 0;
            break;
    }
    return host;
}

double anyIntrinsic(FuzzInput& in, double typical) {
    static constexpr double kSpecial[] = {0.0, -1.0,     1e-300,    1e-3, 1e300,
                                          NAN, INFINITY, -INFINITY, 0.5};
    switch (in.byte() % 4) {
        case 0:
            return kSpecial[in.byte() % (sizeof(kSpecial) / sizeof(kSpecial[0]))];
        case 1:
            return in.raw<double>();
        default:
            return typical * in.between(0.25f, 2.0f);
    }
}

XrPosefVLM anyPose(FuzzInput& in) {
    XrPosefVLM pose{{0.0f, 0.0f, 0.0f, 1.0f}, {2.0f, 1.5f, 1.2f}};
    XrQuaternionfVLM& q = pose.orientation;
    const int kind = in.byte() % 4;
    if (kind == 1) {
        q = {in.anyFloat(-1.0f, 1.0f), in.anyFloat(-1.0f, 1.0f), in.anyFloat(-1.0f, 1.0f),
             in.anyFloat(-1.0f, 1.0f)};
    } else if (kind > 1) {
        // A rotation: four values normalised in double, as a host would.
        const double x = in.between(-1.0f, 1.0f), y = in.between(-1.0f, 1.0f),
                     z = in.between(-1.0f, 1.0f), w = in.between(-1.0f, 1.0f);
        const double n = std::sqrt(x * x + y * y + z * z + w * w);
        if (n > 0.0)
            q = {float(x / n), float(y / n), float(z / n), float(w / n)};
    }
    if (in.flag())
        pose.position = {in.anyFloat(-5.0f, 5.0f), in.anyFloat(-5.0f, 5.0f),
                         in.anyFloat(-5.0f, 5.0f)};
    return pose;
}

// One to three images: alone any format, together a depth and a label image in either order and
// now and then a colour image, now and then of one size as a real sensor's would be; or, rarely,
// a combination the validation must refuse. A refused frame changes nothing.
void submit(Impl& scene, FuzzInput& in, XrTimeVLM time) {
    const IntrinsicLinearCameraCalibrationVLM intrinsics = {
        anyIntrinsic(in, kMaxImageEdge / 2.0), anyIntrinsic(in, kMaxImageEdge / 2.0),
        anyIntrinsic(in, kMaxImageEdge), anyIntrinsic(in, kMaxImageEdge)};
    const XrPosefVLM pose = anyPose(in);
    std::vector<uint32_t> formats;
    switch (in.byte() % 4) {
        case 0:
            formats = {uint32_t(in.byte() % (kUnknownFormat + 1))};
            break;
        case 1:
            formats = {in.byte() % 2u, kImageLabelU8 + in.byte() % 2u};
            break;
        case 2:
            formats = {kImageLabelU8 + in.byte() % 2u, in.byte() % 2u, kImageColorRGB8};
            break;
        default:
            formats.resize(in.byte() % 5);
            for (uint32_t& format : formats)
                format = in.byte() % (kUnknownFormat + 1);
    }
    std::vector<HostImage> hosts;
    for (uint32_t format : formats)
        hosts.push_back(makeImage(in, format));
    const bool oneSize = hosts.size() > 1 && in.flag();
    std::vector<Image> images;
    for (HostImage& host : hosts) {
        host.image.width =
            oneSize ? std::min(host.image.width, hosts[0].image.width) : host.image.width;
        host.image.height =
            oneSize ? std::min(host.image.height, hosts[0].image.height) : host.image.height;
        images.push_back(host.image);
    }
    const size_t before = blockCount(scene);
    const XrResultVLM r = scene.submitImages(
        time, intrinsics, pose,
        span<const Image>{images.empty() ? nullptr : images.data(), uint32_t(images.size())});
    fuzzCheck(r == kSuccess || r == kErrorPoseInvalid || r == kErrorIntrinsicsInvalid ||
                  r == kErrorImageInvalid || r == kErrorImageCombination ||
                  r == kErrorInvalidArgument,
              "submitImages result code");
    fuzzCheck(r == kSuccess || blockCount(scene) == before, "a refused frame changed the volume");
}

}  // namespace

void runFrameInput(const uint8_t* data, size_t size) {
    const QuietLog quiet;
    FuzzInput in(data, size);
    forgetInstances();
    Config config{};
    config.mode = kModes[in.byte() % 4];
    config.cellSize = kCellSizes[in.byte() % 4];
    config.truncation = config.cellSize * float(in.range(5, 10));
    config.detectPlanes = in.flag();
    config.planeMaxStdError = in.between(0.001f, 0.05f);
    config.planeMaxAngle = in.between(0.01f, 0.5f);
    config.planeSolverIterations = uint32_t(in.range(1, 20));
    config.planeContourAlpha = in.between(0.01f, 0.5f);
    config.labelPlanes = in.flag();
    Impl scene;
    fuzzCheck(scene.init(config) == kSuccess, "init with an ordinary configuration");
    for (int op = 0; op < kMaxFrameOperations && !in.empty(); ++op) {
        if (in.byte() % 2 == 0) {
            submit(scene, in, op);
        } else {
            runQuery(scene, in);
        }
    }
}

}  // namespace Fuzz
}  // namespace Velmora
