// Gives tests the grids of a scene created through the public factory, so that they can compare
// what was fused, saved and loaded block by block.
#ifndef VELMORA_TESTS_SUPPORT_IMPLTESTACCESS_H
#define VELMORA_TESTS_SUPPORT_IMPLTESTACCESS_H

#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace Velmora {

struct ImplTestAccess {
    static Impl::State& state(Impl& impl) { return impl.internalState(); }
};

}  // namespace Velmora

#endif  // VELMORA_TESTS_SUPPORT_IMPLTESTACCESS_H
