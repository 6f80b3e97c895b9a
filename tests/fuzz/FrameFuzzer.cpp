// libFuzzer entry of the frame harness.
#include "fuzz/FuzzHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Velmora::Fuzz::runFrameInput(data, size);
    return 0;
}
