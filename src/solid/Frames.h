// The frames the reconstruction works on: images of one moment with the camera that took them.
#ifndef VELMORA_SOLID_FRAMES_H
#define VELMORA_SOLID_FRAMES_H

#include <cstdint>

#include "solid/Types.h"

namespace Solid {

// Depth in metres along the optical axis (0 = no measurement), with the camera of its moment.
struct DepthFrame {
    Image<float> depth;
    Image<unsigned short> depthU16;            // millimetres; only kept for keyframes
    Matrix4 projection = Matrix4::identity();  // (0,0) fx, (1,1) fy, (0,2) cx, (1,2) cy, pixels
    Matrix4 pose = Matrix4::identity();        // world to camera
    int64_t timestamp = 0;
};

// A depth frame with the semantic label of every pixel.
struct LabelDepthFrame : DepthFrame {
    Image<unsigned char> labels;
};

}  // namespace Solid

#endif  // VELMORA_SOLID_FRAMES_H
