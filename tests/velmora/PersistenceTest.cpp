// Saving and loading volumes: byte for byte in both run modes, each mode its own files, loaded
// blocks marked changed, cut files loaded as far as they go.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "HostScenes.h"
#include "solid/volume/IO.h"
#include "support/GridBytes.h"
#include "support/ScratchDir.h"

namespace Velmora {
namespace {

namespace fs = std::filesystem;
using namespace Test;
using Solid::Test::expectSameBlocks;

constexpr float kCellSize = 0.05f;  // metres; eight digits give it back exactly
constexpr int kViews = 3;

PinholeCamera viewOfRoom(int view) {
    const Vec3d eyes[] = {{2.0, 1.5, 1.2}, {1.0, 1.0, 1.5}, {3.0, 2.0, 1.0}};
    const Vec3d targets[] = {{4.0, 1.5, 0.8}, {0.0, 3.0, 0.5}, {2.0, 0.0, 0.0}};
    return viewFrom(eyes[view], targets[view], 64, 48, 50.0);
}

// A scene of the mode with `views` views of the room fused: depth alone in split mode, depth with
// labels in combined mode.
std::unique_ptr<Impl> fusedRoom(int32_t mode, int views) {
    auto scene = makeInitialisedScene(mode, kCellSize, 5 * kCellSize);
    for (int view = 0; view < views; ++view)
        fuseView(*scene, mode, room(), viewOfRoom(view), false);
    return scene;
}

// The depth grids of two scenes of one mode.
void expectSameDepth(Impl& a, Impl& b) {
    Impl::State &sa = internalState(a), &sb = internalState(b);
    if (sa.mVolumeGrid) {
        expectSameBlocks(*sa.mVolumeGrid, *sb.mVolumeGrid);
    } else {
        expectSameBlocks(*sa.mLabelDepthVolumeGrid, *sb.mLabelDepthVolumeGrid);
    }
}

// The three sets of changed blocks hold exactly the keys of the depth grid.
void expectAllBlocksChanged(Impl& scene) {
    Impl::State& s = internalState(scene);
    withDepthGrid(scene, [&s](auto& grid) {
        const std::vector<Solid::KeyType> keys = Solid::Test::keysInTableOrder(grid);
        for (const Solid::IndexSet* set :
             {&s.mSurfaces.updatedBlocks, &s.mPlaneUpdatedBlocks, &s.mInstanceUpdatedBlocks}) {
            EXPECT_EQ(set->size(), keys.size());
            for (const Solid::KeyType& key : keys)
                EXPECT_TRUE(set->contains(key));
        }
    });
}

// Both modes round-trip, an empty base name writes the bare suffix, the files of the other mode
// under the same name are not looked at, the split mode's label grid (a block of its own, since
// split mode fuses no label images here) comes back unmarked, and a loaded scene fuses on as the
// original does.
TEST(Persistence, RoundTripOfBothModesKeepsEverySampleByte) {
    ScratchDir dir;
    const fs::path previous = fs::current_path();
    fs::current_path(dir.path());
    for (const int32_t mode : {kModeCombined, kModeSplit}) {
        SCOPED_TRACE(mode);
        auto scene = fusedRoom(mode, kViews);
        Impl::State& s = internalState(*scene);
        if (mode == kModeSplit) {
            ASSERT_TRUE(s.mLabelVolumeGrid->ensure(Solid::KeyType(50, 50, 50)));
            s.mLabelVolumeGrid->get(Solid::KeyType(50, 50, 50))->data()[7].instance = 99;
        }
        ASSERT_GT(blockCount(*scene), 10u);
        const std::string base = mode == kModeCombined ? "" : "split";
        EXPECT_EQ(scene->saveVolumes(base), 1);
        EXPECT_EQ(fs::exists(base + ".depthlabelgrid"), mode == kModeCombined);
        EXPECT_EQ(fs::exists(base + ".depthgrid"), mode == kModeSplit);
        EXPECT_EQ(fs::exists(base + ".labelgrid"), mode == kModeSplit);
        auto loaded = makeInitialisedScene(mode, kCellSize, 5 * kCellSize);
        EXPECT_EQ(loaded->loadVolumes(base), 1);
        expectSameDepth(*scene, *loaded);
        expectAllBlocksChanged(*loaded);
        if (mode == kModeSplit) {
            expectSameBlocks(*s.mLabelVolumeGrid, *internalState(*loaded).mLabelVolumeGrid);
            EXPECT_FALSE(internalState(*loaded).mSurfaces.updatedBlocks.contains(
                Solid::KeyType(50, 50, 50)));
        }
        auto other = makeInitialisedScene(1 - mode, kCellSize, 5 * kCellSize);
        EXPECT_EQ(other->loadVolumes(base), 1);
        EXPECT_EQ(blockCount(*other), 0u);
        fuseView(*loaded, mode, room(), viewOfRoom(0), false);
        fuseView(*scene, mode, room(), viewOfRoom(0), false);
        expectSameDepth(*scene, *loaded);
    }
    fs::current_path(previous);
}

// A cut file is no failure: it loads up to the cut (the stream tests cover where a cut may
// fall), and fusion and saving still take the grids' locks afterwards.
TEST(Persistence, CutFilesLoadWhatTheyCanAndTheSceneGoesOn) {
    ScratchDir dir;
    for (const int32_t mode : {kModeCombined, kModeSplit}) {
        SCOPED_TRACE(mode);
        const std::string suffix = mode == kModeCombined ? ".depthlabelgrid" : ".depthgrid";
        auto source = fusedRoom(mode, kViews);
        ASSERT_EQ(source->saveVolumes(dir / "whole"), 1);
        std::ifstream file(dir / "whole" + suffix, std::ios::binary);
        const std::string whole{std::istreambuf_iterator<char>(file), {}};
        std::ofstream(dir / "cut" + suffix, std::ios::binary) << whole.substr(0, whole.size() / 2);
        auto scene = makeInitialisedScene(mode, kCellSize, 5 * kCellSize);
        EXPECT_EQ(scene->loadVolumes(dir / "cut"), 1);
        EXPECT_GT(blockCount(*scene), 0u);
        EXPECT_LT(blockCount(*scene), blockCount(*source));
        fuseView(*scene, mode, room(), viewOfRoom(1), false);
        EXPECT_EQ(scene->saveVolumes(dir / "again"), 1);
    }
}

// With no folder to write into, each grid's failure is logged and the second grid still
// attempted; missing files are skipped and leave the grids as they are, but the blocks still
// count as changed.
TEST(Persistence, UnopenableAndMissingFiles) {
    ScratchDir dir;
    const std::string base = dir / "never", nowhere = dir / "missing/base";
    auto split = fusedRoom(kModeSplit, 1);
    {
        CapturedLog log;
        EXPECT_EQ(split->saveVolumes(nowhere), 0);
        EXPECT_TRUE(log.has("Failed opening file '" + nowhere + ".depthgrid'"));
        EXPECT_TRUE(log.has("Failed opening file '" + nowhere + ".labelgrid'"));
    }
    const size_t before = blockCount(*split);
    EXPECT_EQ(split->loadVolumes(base), 1);
    EXPECT_EQ(blockCount(*split), before);
    expectAllBlocksChanged(*split);
}

// Saving beside a producer: every file written is a whole grid, each block taken under its mutex.
TEST(PersistenceConcurrency, SaveBesideFusionWritesWholeFiles) {
    ScratchDir dir;
    auto scene = makeInitialisedScene(kModeSplit, kCellSize, 5 * kCellSize);
    std::atomic<bool> done{false};
    std::thread producer([&scene, &done] {
        for (int view = 0; view < 2 * kViews; ++view)
            fuseView(*scene, kModeSplit, room(), viewOfRoom(view % kViews), false);
        done = true;
    });
    std::vector<std::string> bases;
    while (!done || bases.empty()) {
        bases.push_back(dir / ("snapshot" + std::to_string(bases.size())));
        EXPECT_EQ(scene->saveVolumes(bases.back()), 1);
    }
    producer.join();
    for (const std::string& base : bases) {
        Solid::DepthGrid grid;
        std::ifstream file(base + ".depthgrid", std::ios::binary);
        file >> grid;
        EXPECT_FALSE(file.fail()) << base;
        EXPECT_LE(grid.size(), blockCount(*scene));
    }
}

}  // namespace
}  // namespace Velmora
