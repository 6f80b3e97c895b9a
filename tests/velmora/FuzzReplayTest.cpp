// The fuzzers' seeds and every input they found, replayed through the same harnesses (and under
// the sanitizers by the sanitizer suite): each runs to its end with every promise kept.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/FuzzHarness.h"

namespace Velmora {
namespace {

// The inputs of both harnesses, named after their harness, folder and file.
std::vector<std::filesystem::path> fuzzInputs() {
    std::vector<std::filesystem::path> inputs;
    for (const char* harness : {"frames", "volumes"}) {
        for (const char* kind : {"corpus", "regressions"}) {
            const auto dir = std::filesystem::path(VELMORA_FUZZ_INPUTS_DIR) / kind / harness;
            for (const auto& entry : std::filesystem::directory_iterator(dir))
                inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

class FuzzReplay : public ::testing::TestWithParam<std::filesystem::path> {};

TEST_P(FuzzReplay, RunsToTheEndWithEveryPromiseKept) {
    std::ifstream file(GetParam(), std::ios::binary);
    ASSERT_TRUE(file.is_open()) << GetParam();
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
    (GetParam().parent_path().filename() == "frames" ? Fuzz::runFrameInput : Fuzz::runVolumeInput)(
        bytes.data(), bytes.size());
}

INSTANTIATE_TEST_SUITE_P(Inputs, FuzzReplay, ::testing::ValuesIn(fuzzInputs()),
                         [](const auto& info) {
                             const auto& p = info.param;
                             std::string name = p.parent_path().filename().string() + "_" +
                                                p.parent_path().parent_path().filename().string() +
                                                "_" + p.filename().string();
                             std::replace_if(
                                 name.begin(), name.end(),
                                 [](char c) { return !std::isalnum(uint8_t(c)); }, '_');
                             return name;
                         });

}  // namespace
}  // namespace Velmora
