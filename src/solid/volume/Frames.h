// The frames the reconstruction works on: the images of one moment with the camera that took
// them. Depth is in metres along the optical axis with 0 for no measurement; labels are class
// ids; `projection` holds the intrinsics ((0,0) fx, (1,1) fy, (0,2) cx, (1,2) cy, pixels) and
// `pose` maps world to camera. A frame lives for one call; keyframes are copies.
#ifndef VELMORA_SOLID_VOLUME_FRAMES_H
#define VELMORA_SOLID_VOLUME_FRAMES_H

#include <cstdint>

#include "common/RefCounter.h"
#include "cv/Image.h"
#include "solid/volume/Types.h"

namespace Solid {

class DepthFrame
    : public AR::Common::RefCounterT<AR::Common::RefCounterHelper::AccessProtector_ThreadSafe> {
public:
    DepthFrame() = default;
    DepthFrame(const DepthFrame&) = default;
    DepthFrame& operator=(const DepthFrame&) = default;
    ~DepthFrame() override = default;

    AR::CV::Image<float> depth;              // metres; 0 = no measurement
    AR::CV::Image<unsigned short> depthU16;  // millimetres; kept only for keyframes
    Matrix4 projection = Matrix4::identity();
    Matrix4 pose = Matrix4::identity();  // world to camera
    int64_t timestamp = 0;
};

class LabelDepthFrame : public DepthFrame {
public:
    AR::CV::Image<unsigned char> labels;
};

class RGBDFrame : public DepthFrame {
public:
    RGBDFrame() = default;
    // Depth allocated at `size`, aligned for the kernels, stamped with the current time.
    explicit RGBDFrame(const AR::CV::Size2i& size);

    AR::CV::Image<AR::CV::Pixel24> rgb;
};

// Labels alone, with the camera of their moment; no reference count.
struct LabelFrame {
    Matrix4 projection = Matrix4::identity();
    Matrix4 pose = Matrix4::identity();  // world to camera
    AR::CV::Image<unsigned char> labels;
    int64_t timestamp = 0;
};

}  // namespace Solid

#endif  // VELMORA_SOLID_VOLUME_FRAMES_H
