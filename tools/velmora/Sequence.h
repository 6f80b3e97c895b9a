// Recorded RGB-D sequences on disk, in the two layouts the tool reads:
//
// Recorded layout (what RGB-D scan exporters commonly write):
//   depth/NNNNNN.png               16-bit grey, millimetres, 0 = no measurement
//   label/NNNNNN.png               optional, 8- or 16-bit grey (or palette) class ids
//   color/NNNNNN.png               optional, 8-bit RGB, the size of the depth image
//   pose/NNNNNN.txt                4x4 camera-to-world, row-major, whitespace separated, metres;
//                                  non-finite values mean tracking was lost for that frame
//   intrinsic/intrinsic_depth.txt  4x4 with fx, fy in (0,0), (1,1) and cx, cy in (0,2), (1,2)
//
// TUM RGB-D layout: depth.txt and rgb.txt list "time file" lines, groundtruth.txt lists
// "time tx ty tz qx qy qz qw"; depth PNGs hold 5000 units a metre. Colour and pose are taken from
// the entries nearest in time to each depth image. The intrinsics are not in the files and come
// from the command line.
#ifndef VELMORA_TOOL_SEQUENCE_H
#define VELMORA_TOOL_SEQUENCE_H

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "velmora/Frame.h"

namespace VelmoraTool {

// Raw label id in the files -> semantic class below kLabelCount.
using LabelMap = std::map<uint32_t, uint8_t>;

// Reads a label map: one "raw_id,class" pair a line; blank lines, lines starting with '#' and a
// first line that is not numeric (a header) are skipped. Fails naming the line when a class is
// kLabelCount or more or a line is malformed.
bool loadLabelMap(const std::string& path, LabelMap& map, std::string& error);

struct SequenceOptions {
    // Applied to label images when set: ids absent from the map become class 0 (no class).
    std::optional<LabelMap> labelMap;
    // Required for the TUM layout, ignored for the recorded layout.
    std::optional<Intrinsics> intrinsics;
};

// Opens the sequence in `directory`, detecting its layout. Sequence-level problems (no such
// directory, no frames, unreadable intrinsics or index files) fail here, with the file named in
// `error`; problems of single frames are found by FrameSource::load.
std::unique_ptr<FrameSource> openSequence(const std::string& directory,
                                          const SequenceOptions& options, std::string& error);

// Writes frames in the recorded layout: creates the directories and the intrinsics file, then
// one call per frame.
class RecordedSequenceWriter {
public:
    // Fails when the directories or the intrinsics file cannot be made.
    bool open(const std::string& directory, const Intrinsics& intrinsics, std::string& error);
    bool write(uint64_t frameNumber, const Frame& frame, std::string& error);

private:
    std::string mDirectory;
};

// "000042": the file stem of frame 42 in the recorded layout.
std::string frameStem(uint64_t frameNumber);

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_SEQUENCE_H
