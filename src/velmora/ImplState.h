// The part of the scene that needs internal types. Grows with each subsystem the scene drives.
#ifndef VELMORA_VELMORA_IMPLSTATE_H
#define VELMORA_VELMORA_IMPLSTATE_H

#include <cstdint>

#include "velmora/Impl.h"

namespace Velmora {

struct Impl::State {
    float mTruncation = 0.0f;    // copy of Config::truncation, metres
    int32_t mMode = 0;           // copy of Config::mode; values other than 0 and 1 fuse nothing
    bool mDetectPlanes = false;  // plane detector enabled by Config::detectPlanes
    bool mLabelPlanes = false;   // copy of Config::labelPlanes
};

}  // namespace Velmora

#endif  // VELMORA_VELMORA_IMPLSTATE_H
