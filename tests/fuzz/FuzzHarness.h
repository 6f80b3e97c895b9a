// The two fuzz harnesses of the scene, shared by the libFuzzer targets and by the replay of their
// inputs in test_velmora. Each acts as a host that makes only legal calls: whatever the input,
// the process must neither end nor hang, and the answers must keep the promises of the public
// header; a broken promise ends the process (fuzzCheck), so that libFuzzer records the input.
#ifndef VELMORA_TESTS_FUZZ_FUZZHARNESS_H
#define VELMORA_TESTS_FUZZ_FUZZHARNESS_H

#include <cstddef>
#include <cstdint>

namespace Velmora {

class Impl;

namespace Fuzz {

class FuzzInput;

// init with a configuration from the input, then up to kMaxFrameOperations frames (any image
// formats, intrinsics and pose) and queries, chosen by the input.
void runFrameInput(const uint8_t* data, size_t size);
// Volume files from the input loaded into a fresh scene, every query on them, and a save (see
// VolumeHarness.cpp for the layout of the input).
void runVolumeInput(const uint8_t* data, size_t size);

constexpr int kMaxFrameOperations = 24;
// The cell sizes a run chooses from, metres.
constexpr float kCellSizes[] = {0.02f, 0.04f, 0.05f, 0.1f};

// One query of the kind and with the arguments the input chooses, checked against what it
// promises for any argument; every kind once (getPlanes only `withPlanes`); and the instance ids
// a previous input handed out forgotten.
void runQuery(Impl& scene, FuzzInput& in);
void runEveryQuery(Impl& scene, FuzzInput& in, bool withPlanes);
void forgetInstances();
// The blocks of every grid of the scene.
size_t blockCount(Impl& scene);

// Silences the library's log for the life of an input (warnings would cost more than the calls);
// assertion reports still get out, and the previous level comes back for the tests that replay
// inputs beside others.
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
