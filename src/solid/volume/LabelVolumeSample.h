// The samples that carry semantic labels, and the vote that accumulates a label into them.
#ifndef VELMORA_SOLID_VOLUME_LABELVOLUMESAMPLE_H
#define VELMORA_SOLID_VOLUME_LABELVOLUMESAMPLE_H

#include <cstdint>
#include <type_traits>

#include "common/Assert.h"
#include "solid/volume/Types.h"

namespace Solid {

// Label index as found in a label image.
using LabelCountType = unsigned char;

// Number of label classes a sample counts; every created sample holds exactly this many counters.
constexpr uint32_t kNumLabels = 32;
// A counter stops here: saturated histograms no longer tell the saturated labels apart.
constexpr unsigned char kMaxLabelCount = 255;

using LabelHistogram = SmallVector<unsigned char, kNumLabels>;

// Sample of the combined run mode: depth, instance and label histogram in one.
struct LabelDepthVolumeSample {
    Vec2S depth;        // (0) value, (1) weight, as the plain depth sample
    uint16_t reserved;  // written 0 at creation; kept for the file layout
    uint16_t instance;  // block-instance id, 0 for none
    LabelHistogram labels;
};

// Label sample of the split run mode; its depth lives in a separate grid.
struct LabelVolumeSample {
    uint16_t instance;  // block-instance id, 0 for none
    LabelHistogram labels;
};

static_assert(sizeof(Vec2S) == 4, "a depth sample is two 16-bit words");
static_assert(sizeof(LabelDepthVolumeSample) == 44, "the file layout fixes 44 bytes");
static_assert(sizeof(LabelVolumeSample) == 40, "the file layout fixes 40 bytes");
static_assert(std::is_trivially_copyable<LabelDepthVolumeSample>::value &&
                  std::is_trivially_copyable<LabelVolumeSample>::value,
              "samples are copied as raw memory");

// One vote for `label`. The counter saturates at 255; nothing else changes. A label outside the
// histogram can only come from an image the intake should have refused, hence the abort.
template <typename Sample>
inline void updateLabels(Sample& sample, LabelCountType label) {
    AR_ASSERT(label < sample.labels.size());
    unsigned char& count = sample.labels[label];
    if (count != kMaxLabelCount) {
        ++count;
    }
}

}  // namespace Solid

#endif  // VELMORA_SOLID_VOLUME_LABELVOLUMESAMPLE_H
