#include "solid/volume/Frames.h"

#include "common/Platform.h"

namespace Solid {

RGBDFrame::RGBDFrame(const AR::CV::Size2i& size) {
    depth.allocPixels(size, AR::Common::ALIGNMENT_16);
    timestamp = arTimeGetTimestamp();
}

}  // namespace Solid
