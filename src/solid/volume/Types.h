// The math, container and image types that the volume and its kernels use, under the names the
// reconstruction code knows them by.
#ifndef VELMORA_SOLID_VOLUME_TYPES_H
#define VELMORA_SOLID_VOLUME_TYPES_H

#include "common/Assert.h"
#include "common/SmallVector.h"
#include "math/SolidTypes.h"

namespace Solid {

using AR::Common::SmallVector;

}  // namespace Solid

#endif  // VELMORA_SOLID_VOLUME_TYPES_H
