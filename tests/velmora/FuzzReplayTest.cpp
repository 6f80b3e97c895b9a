// Replays the seeds of the fuzzers and every input they found (tests/fuzz/corpus and
// tests/fuzz/regressions) through the same harnesses: each must run to its end with every
// promise of the harness kept. The sanitizer suite runs them under AddressSanitizer and
// UndefinedBehaviorSanitizer, as the fuzzers do.
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

struct FuzzCase {
    std::string harness;  // "frames" or "volumes"
    std::filesystem::path file;
};

std::vector<FuzzCase> fuzzCases() {
    std::vector<FuzzCase> cases;
    for (const char* harness : {"frames", "volumes"}) {
        for (const char* kind : {"corpus", "regressions"}) {
            const std::filesystem::path dir =
                std::filesystem::path(VELMORA_FUZZ_INPUTS_DIR) / kind / harness;
            if (!std::filesystem::is_directory(dir)) {
                continue;
            }
            for (const auto& entry : std::filesystem::directory_iterator(dir)) {
                cases.push_back({harness, entry.path()});
            }
        }
    }
    std::sort(cases.begin(), cases.end(),
              [](const FuzzCase& a, const FuzzCase& b) { return a.file < b.file; });
    return cases;
}

std::string caseName(const ::testing::TestParamInfo<FuzzCase>& info) {
    std::string name = info.param.harness + "_" +
                       info.param.file.parent_path().parent_path().filename().string() + "_" +
                       info.param.file.filename().string();
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) {
            c = '_';
        }
    }
    return name;
}

class FuzzReplay : public ::testing::TestWithParam<FuzzCase> {};

TEST_P(FuzzReplay, RunsToTheEndWithEveryPromiseKept) {
    std::ifstream file(GetParam().file, std::ios::binary);
    ASSERT_TRUE(file.is_open()) << GetParam().file;
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file),
                                     std::istreambuf_iterator<char>()};
    if (GetParam().harness == "frames") {
        Fuzz::runFrameInput(bytes.data(), bytes.size());
    } else {
        Fuzz::runVolumeInput(bytes.data(), bytes.size());
    }
}

INSTANTIATE_TEST_SUITE_P(Inputs, FuzzReplay, ::testing::ValuesIn(fuzzCases()), caseName);

}  // namespace
}  // namespace Velmora
