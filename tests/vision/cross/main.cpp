// Compares the vector variant of this processor (NEON on 64-bit Arm) with the portable kernel on
// random inputs, directly and through the dispatching entry, the renderer's march lanes with the
// plain loop and its packet walks with the single walker, and prints "N passed, M failed".
#include <cstdio>

#include "support/BlockWalkCheck.h"
#include "support/MarchStepsCheck.h"
#include "vision/DepthFusion.h"
#include "vision/FusionInputs.h"

namespace {

constexpr unsigned kRandomCases = 600;

struct Tally {
    unsigned passed = 0;
    unsigned failed = 0;

    void check(bool ok, const char* what, const std::string& detail = std::string()) {
        ok ? ++passed : ++failed;
        if (!ok) {
            std::printf("FAILED: %s %s\n", what, detail.c_str());
        }
    }

    void compare(VisionTest::FusionFunction variant, uint32_t seed, const char* what) {
        const VisionTest::Comparison r =
            VisionTest::compareWithPortable(variant, seed, kRandomCases);
        passed += r.passed;
        failed += r.failed;
        if (r.failed) {
            std::printf("FAILED: %s: %s\n", what, r.firstFailure.c_str());
        }
        check(r.clippedBlocks > kRandomCases / 2 && r.unclippedBlocks > kRandomCases / 20,
              "inputs reach bounds-tested and unchecked blocks");
        check(r.changedSamples > 100ull * kRandomCases, "inputs update many samples");
    }
};

}  // namespace

int main() {
    Tally tally;
#if defined(__aarch64__)
    tally.check(tvrGetMode() == kTvrModeNeon, "the entry picks NEON");
    tally.compare(tvrDepthFusion8x8x8xNs16Neon, 7, "NEON against portable");
#endif
    tally.compare(tvrDepthFusion8x8x8xNs16, 8, "entry against portable");
    // The renderer's march in this processor's vector lanes.
    Solid::Test::MarchCases cases(3);
    const Solid::Test::StepOverOutcomes steps = cases.stepOver<Solid::NativeLanes>(20000);
    tally.check(steps.mismatches == 0, "march lanes against the plain loop", steps.firstMismatch);
    std::string where;
    tally.check(cases.sameCells<Solid::NativeLanes, Solid::PortableLanes>(20000, where),
                "key and cell in lanes against plain floats", where);
    // The renderer's block walks in packets of this processor's lanes.
    const Solid::Test::WalkOutcomes walks =
        Solid::Test::checkPacketWalks(Solid::walkSegmentsBy4(), 5, 3000);
    tally.check(walks.mismatches == 0, "packet walks against the single walker",
                walks.firstMismatch);
    tally.check(walks.found > 5000 && walks.exhausted > 2000 && walks.none > 8000,
                "walks end in every way");
    std::printf("%u passed, %u failed\n", tally.passed, tally.failed);
    return tally.failed == 0 ? 0 : 1;
}
