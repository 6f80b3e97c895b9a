// A scene initialised for a test, created as a host would create it.
#ifndef VELMORA_TESTS_SUPPORT_SCENESETUP_H
#define VELMORA_TESTS_SUPPORT_SCENESETUP_H

#include <gtest/gtest.h>

#include <memory>

#include "velmora/Impl.h"

namespace Velmora {
namespace Test {

inline std::unique_ptr<Impl> makeInitialisedScene(int32_t mode, float cellSize, float truncation) {
    std::unique_ptr<Impl> scene(static_cast<Impl*>(newVelmora()));
    Config config{};
    config.cellSize = cellSize;
    config.truncation = truncation;
    config.mode = mode;
    EXPECT_EQ(scene->init(config), kSuccess);
    return scene;
}

}  // namespace Test
}  // namespace Velmora

#endif  // VELMORA_TESTS_SUPPORT_SCENESETUP_H
