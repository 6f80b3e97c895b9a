// A single block with its own sample memory and configuration, outside any grid, and a frame
// whose images own their pixels: enough to drive one kernel call in a test.
#ifndef VELMORA_TESTS_SUPPORT_TESTBLOCK_H
#define VELMORA_TESTS_SUPPORT_TESTBLOCK_H

#include <vector>

#include "solid/volume/Frames.h"
#include "solid/volume/Volume.h"

namespace Solid {
namespace Test {

// 9x9x9 block of `spacing` metres, filled with the creation values.
template <typename T>
struct TestBlock {
    explicit TestBlock(float spacing = 0.02f) : samples(729, creationSample<T>()) {
        makeVolumeConfig(config, Size(9, 9, 9), Vec3(spacing, spacing, spacing));
        volume = Volume<T, ReferencedVolumeData>(samples.data(), &config);
    }
    TestBlock(const TestBlock&) = delete;
    TestBlock& operator=(const TestBlock&) = delete;

    std::vector<T> samples;
    VolumeConfig config;
    Volume<T, ReferencedVolumeData> volume;
};

// A label-depth frame whose images live in the vectors below.
struct OwnedFrame {
    OwnedFrame(int width, int height, float depthMetres, unsigned char label = 0)
        : depth(static_cast<size_t>(width * height), depthMetres),
          labels(static_cast<size_t>(width * height), label) {
        const AR::CV::Size2i size(width, height);
        frame.depth.set(depth.data(), size, size, false);
        frame.labels.set(labels.data(), size, size, false);
    }
    void setIntrinsics(float fx, float fy, float cx, float cy) {
        frame.projection(0, 0) = fx;
        frame.projection(1, 1) = fy;
        frame.projection(0, 2) = cx;
        frame.projection(1, 2) = cy;
    }
    // Moving keeps the vectors' buffers, so the frame's images stay valid.
    OwnedFrame(OwnedFrame&&) = default;
    OwnedFrame(const OwnedFrame&) = delete;
    OwnedFrame& operator=(const OwnedFrame&) = delete;

    std::vector<float> depth;
    std::vector<unsigned char> labels;
    LabelDepthFrame frame;
};

// Block-local to camera transform that only translates.
inline Matrix4 translation(float x, float y, float z) {
    Matrix4 T = Matrix4::identity();
    T(0, 3) = x;
    T(1, 3) = y;
    T(2, 3) = z;
    return T;
}

}  // namespace Test
}  // namespace Solid

#endif  // VELMORA_TESTS_SUPPORT_TESTBLOCK_H
