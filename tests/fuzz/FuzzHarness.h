// The two fuzz harnesses of the scene, shared by the libFuzzer targets (FrameFuzzer.cpp,
// VolumeFuzzer.cpp) and by the replay of the inputs they found (tests/velmora/FuzzReplayTest.cpp).
//
// Each harness acts as a host that makes only legal calls: whatever the input, the process must
// neither end nor hang, and the answers must keep the promises of the public header. A broken
// promise is reported through fuzzCheck, which ends the process so that libFuzzer records the
// input.
#ifndef VELMORA_TESTS_FUZZ_FUZZHARNESS_H
#define VELMORA_TESTS_FUZZ_FUZZHARNESS_H

#include <cstddef>
#include <cstdint>

namespace Velmora {

class Impl;

namespace Fuzz {

class FuzzInput;

// init with a configuration from the input, then up to kMaxFrameOperations calls chosen by the
// input: frames of every image format (alone and in combination), with any intrinsics and pose,
// and every query between them.
void runFrameInput(const uint8_t* data, size_t size);

// The first byte chooses the run mode and which volume files exist; the rest is their content
// (see VolumeHarness.cpp). The files are loaded into a fresh scene, every query runs on what was
// loaded, and the volumes are saved again. Files that the format requires to end the process (a
// version other than 2, blocks of another shape) are recognised beforehand and not loaded.
void runVolumeInput(const uint8_t* data, size_t size);

// Calls that a harness makes at most per input, so that no input runs long by its length alone.
constexpr int kMaxFrameOperations = 24;

// One query of the API, of the kind and with the arguments the input chooses, and the checks of
// what it promises for any argument. `scene` is initialised.
void runQuery(Impl& scene, FuzzInput& in);
// Forgets the instance ids of the previous input; called when a harness starts an input.
void forgetInstances();
// Every kind of query once, with arguments from `in`; getPlanes only when `withPlanes`.
void runEveryQuery(Impl& scene, FuzzInput& in, bool withPlanes);

// Silences the library's log for the life of an input (warnings such as a placement on a surface
// facing away would otherwise cost more than the calls); assertion reports still get out. The
// previous level comes back at the end, for the tests that replay inputs beside others.
class QuietLog {
public:
    QuietLog();
    ~QuietLog();
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

private:
    int mPreviousLevel;
};

// Ends the process with `what` when `condition` is false.
void fuzzCheck(bool condition, const char* what);

}  // namespace Fuzz
}  // namespace Velmora

#endif  // VELMORA_TESTS_FUZZ_FUZZHARNESS_H
