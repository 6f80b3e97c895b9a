// A fresh folder for the files of one test, named after the test and the process, removed with
// everything in it.
#ifndef VELMORA_TESTS_SUPPORT_SCRATCHDIR_H
#define VELMORA_TESTS_SUPPORT_SCRATCHDIR_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace Velmora {
namespace Test {

class ScratchDir {
public:
    ScratchDir() {
        std::filesystem::remove_all(mPath);
        std::filesystem::create_directories(mPath);
    }
    ~ScratchDir() { std::filesystem::remove_all(mPath); }
    const std::filesystem::path& path() const { return mPath; }
    std::string operator/(const std::string& name) const { return (mPath / name).string(); }

private:
    std::filesystem::path mPath =
        std::filesystem::path(::testing::TempDir()) /
        ("velmora_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) +
         "_" + std::to_string(getpid()));
};

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_SUPPORT_SCRATCHDIR_H
