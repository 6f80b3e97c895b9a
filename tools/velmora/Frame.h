// One frame as the tool hands it to the library, and the interface of everything that delivers
// frames: recorded sequences on disk and the built-in scene rendered in memory.
#ifndef VELMORA_TOOL_FRAME_H
#define VELMORA_TOOL_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "velmora/Pose.h"

namespace VelmoraTool {

// Pinhole intrinsics of the depth camera, pixels.
struct Intrinsics {
    double fx = 0.0;
    double fy = 0.0;
    double cx = 0.0;
    double cy = 0.0;
};

// A validated frame: every image has the depth image's size, every label is below
// kLabelCount, and the pose is a rigid transform. Only such frames reach `submitImages`.
struct Frame {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint16_t> depthMm;  // row-major, millimetres, 0 = no measurement
    // Labels, when the frame has them: 8-bit ids, or 16-bit ids handed on as they are stored.
    bool hasLabels = false;
    bool labelsAre16Bit = false;
    std::vector<uint8_t> labels8;
    std::vector<uint16_t> labels16;
    bool hasColor = false;
    std::vector<uint8_t> rgb;                     // row-major, three bytes a pixel
    Matrix4d worldFromCamera = identityMatrix();  // T_world_camera, metres
    int64_t timestamp = 0;                        // handed through to the library
};

// The library keeps a histogram of this many semantic classes per sample; ids must be below it.
constexpr uint32_t kLabelCount = 32;

enum class FrameStatus {
    kOk,
    kTrackingLost,  // the pose is missing or non-finite: skipped, not an error
    kBadInput,      // a file of the frame is missing, unreadable or wrong: skipped and reported
};

// A sequence of frames with random access. Loading validates; a problem is described in
// `problem`, naming the file.
class FrameSource {
public:
    virtual ~FrameSource() = default;
    virtual size_t frameCount() const = 0;
    // The frame's number as the sequence names it (the NNNNNN of a recorded sequence).
    virtual uint64_t frameNumber(size_t index) const = 0;
    virtual Intrinsics intrinsics() const = 0;
    // Whether any frame carries labels.
    virtual bool hasLabels() const = 0;
    // One line for the summary: where the frames come from.
    virtual std::string describe() const = 0;
    virtual FrameStatus load(size_t index, Frame& frame, std::string& problem) = 0;
};

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_FRAME_H
