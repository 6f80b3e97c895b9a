// libFuzzer entry of the volume harness.
#include "fuzz/FuzzHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Velmora::Fuzz::runVolumeInput(data, size);
    return 0;
}
