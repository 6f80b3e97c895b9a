// Saving and loading the volumes of a scene: grids fused from rendered frames come back byte for
// byte in both run modes, each mode writes and reads only its own files, every loaded block is
// marked changed, and a cut file loads what it can while the scene keeps fusing and answering.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/Logger.h"
#include "solid/volume/IO.h"
#include "support/AnalyticScene.h"
#include "support/GridBytes.h"
#include "support/SceneSetup.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"

namespace Velmora {
namespace {

namespace fs = std::filesystem;

constexpr float kCellSize = 0.05f;    // metres; eight digits give it back exactly
constexpr float kTruncation = 0.25f;  // metres, five cells

// A fresh directory for the files of one test, removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "velmora-persist-XXXXXX").string();
        const char* made = mkdtemp(pattern.data());
        EXPECT_NE(made, nullptr);
        mPath = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(mPath, ignored);
    }
    std::string file(const std::string& name) const { return (mPath / name).string(); }
    const fs::path& path() const { return mPath; }

private:
    fs::path mPath;
};

std::unique_ptr<Impl> makeScene(int32_t mode) {
    return Test::makeInitialisedScene(mode, kCellSize, kTruncation);
}

Test::PinholeCamera viewOfRoom(int view) {
    Test::PinholeCamera camera;
    const Test::Vec3d eyes[] = {{2.0, 1.5, 1.2}, {1.0, 1.0, 1.5}, {3.0, 2.0, 1.0}};
    const Test::Vec3d targets[] = {{4.0, 1.5, 0.8}, {0.0, 3.0, 0.5}, {2.0, 0.0, 0.0}};
    camera.T_world_camera = Test::lookAt(eyes[view], targets[view], {0, 0, 1});
    return camera;
}

constexpr int kViews = 3;

// Fuses a view of the room: depth alone in split mode, depth with labels in combined mode.
void fuseView(Impl& scene, int32_t mode, int view) {
    Velmora::Test::fuseView(scene, mode, Test::AnalyticScene::room(4.0, 3.0, 2.5), viewOfRoom(view),
                            false);
}

// A point 5 cm in front of the surface seen by the centre pixel of `view`, on that pixel's ray:
// inside the band, so observed once that view is fused.
Solid::Vec3 inFrontOfSurface(int view) {
    const Test::PinholeCamera camera = viewOfRoom(view);
    const Test::RenderedFrame frame =
        Test::render(Test::AnalyticScene::room(4.0, 3.0, 2.5), camera);
    const int u = camera.width / 2;
    const int v = camera.height / 2;
    const double depth = frame.depthMetres[static_cast<size_t>(v * camera.width + u)];
    const Test::Vec3d p = Test::unproject(camera, u, v, depth - 0.05);
    return Solid::Vec3(static_cast<float>(p[0]), static_cast<float>(p[1]),
                       static_cast<float>(p[2]));
}

using Solid::Test::expectSameBlocks;
using Solid::Test::keysInTableOrder;

// The three sets of changed blocks hold exactly the keys of `grid`.
template <typename Grid>
void expectAllBlocksChanged(Impl::State& s, const Grid& grid) {
    const std::vector<Solid::KeyType> keys = keysInTableOrder(grid);
    for (const Solid::IndexSet* set :
         {&s.mSurfaces.updatedBlocks, &s.mPlaneUpdatedBlocks, &s.mInstanceUpdatedBlocks}) {
        EXPECT_EQ(set->size(), keys.size());
        for (const Solid::KeyType& key : keys) {
            EXPECT_TRUE(set->contains(key));
        }
    }
}

// Gives a few blocks of the split mode's label grid arbitrary instances and votes, since label
// images are not fused in that mode.
void fillLabelGrid(Solid::LabelGrid& grid) {
    uint32_t seed = 17;
    for (const Solid::KeyType& key : {Solid::KeyType(0, 0, 0), Solid::KeyType(50, 50, 50)}) {
        grid.ensure(key);
        auto block = grid.get(key);
        for (uint32_t i = 0; i < block->dataSize(); ++i) {
            seed = seed * 1664525u + 1013904223u;
            Solid::LabelVolumeSample& sample = block->data()[i];
            sample.instance = static_cast<uint16_t>(seed >> 16);
            Solid::updateLabels(sample,
                                static_cast<Solid::LabelCountType>(seed % Solid::kNumLabels));
        }
    }
}

std::string readFile(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& name, const std::string& bytes) {
    std::ofstream file(name, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

TEST(Persistence, RoundTripOfBothModesKeepsEverySampleByte) {
    TempDir dir;
    const std::string combinedBase = dir.file("combined");
    const std::string splitBase = dir.file("split");

    auto combined = makeScene(kModeCombined);
    auto split = makeScene(kModeSplit);
    for (int view = 0; view < kViews; ++view) {
        fuseView(*combined, kModeCombined, view);
        fuseView(*split, kModeSplit, view);
    }
    fillLabelGrid(*internalState(*split).mLabelVolumeGrid);
    ASSERT_GT(internalState(*combined).mLabelDepthVolumeGrid->size(), 10u);
    ASSERT_GT(internalState(*split).mVolumeGrid->size(), 10u);

    EXPECT_EQ(combined->saveVolumes(combinedBase), 1);
    EXPECT_EQ(split->saveVolumes(splitBase), 1);
    // One file per grid of the mode, and no other.
    EXPECT_TRUE(fs::exists(combinedBase + ".depthlabelgrid"));
    EXPECT_FALSE(fs::exists(combinedBase + ".depthgrid"));
    EXPECT_FALSE(fs::exists(combinedBase + ".labelgrid"));
    EXPECT_TRUE(fs::exists(splitBase + ".depthgrid"));
    EXPECT_TRUE(fs::exists(splitBase + ".labelgrid"));
    EXPECT_FALSE(fs::exists(splitBase + ".depthlabelgrid"));

    auto combinedLoaded = makeScene(kModeCombined);
    EXPECT_EQ(combinedLoaded->loadVolumes(combinedBase), 1);
    expectSameBlocks(*internalState(*combined).mLabelDepthVolumeGrid,
                     *internalState(*combinedLoaded).mLabelDepthVolumeGrid);
    expectAllBlocksChanged(internalState(*combinedLoaded),
                           *internalState(*combinedLoaded).mLabelDepthVolumeGrid);

    auto splitLoaded = makeScene(kModeSplit);
    EXPECT_EQ(splitLoaded->loadVolumes(splitBase), 1);
    expectSameBlocks(*internalState(*split).mVolumeGrid, *internalState(*splitLoaded).mVolumeGrid);
    expectSameBlocks(*internalState(*split).mLabelVolumeGrid,
                     *internalState(*splitLoaded).mLabelVolumeGrid);
    expectAllBlocksChanged(internalState(*splitLoaded), *internalState(*splitLoaded).mVolumeGrid);
    // The label grid's own blocks are not the depth grid's and are not marked.
    EXPECT_FALSE(
        internalState(*splitLoaded).mSurfaces.updatedBlocks.contains(Solid::KeyType(50, 50, 50)));

    // The files of the other mode under the same name are not looked at.
    auto splitFromCombined = makeScene(kModeSplit);
    EXPECT_EQ(splitFromCombined->loadVolumes(combinedBase), 1);
    EXPECT_EQ(internalState(*splitFromCombined).mVolumeGrid->size(), 0u);
    EXPECT_EQ(internalState(*splitFromCombined).mLabelVolumeGrid->size(), 0u);
    auto combinedFromSplit = makeScene(kModeCombined);
    EXPECT_EQ(combinedFromSplit->loadVolumes(splitBase), 1);
    EXPECT_EQ(internalState(*combinedFromSplit).mLabelDepthVolumeGrid->size(), 0u);

    // A loaded scene fuses on: the same view again changes the loaded samples.
    fuseView(*combinedLoaded, kModeCombined, 0);
    fuseView(*combined, kModeCombined, 0);
    expectSameBlocks(*internalState(*combined).mLabelDepthVolumeGrid,
                     *internalState(*combinedLoaded).mLabelDepthVolumeGrid);
}

TEST(Persistence, CutFilesLoadWhatTheyCanAndTheSceneGoesOn) {
    TempDir dir;
    for (const int32_t mode : {kModeCombined, kModeSplit}) {
        SCOPED_TRACE(mode);
        const std::string suffix = mode == kModeCombined ? ".depthlabelgrid" : ".depthgrid";
        auto source = makeScene(mode);
        for (int view = 0; view < kViews; ++view) {
            fuseView(*source, mode, view);
        }
        const std::string base = dir.file("whole" + std::to_string(mode));
        ASSERT_EQ(source->saveVolumes(base), 1);
        const std::string whole = readFile(base + suffix);
        const size_t blocks = mode == kModeCombined
                                  ? internalState(*source).mLabelDepthVolumeGrid->size()
                                  : internalState(*source).mVolumeGrid->size();

        for (const size_t cut : {size_t{10}, whole.size() / 3, whole.size() / 2 + 5,
                                 whole.size() - 2, whole.size() - 1}) {
            SCOPED_TRACE(cut);
            const std::string cutBase = dir.file("cut" + std::to_string(mode));
            writeFile(cutBase + suffix, whole.substr(0, cut));
            auto scene = makeScene(mode);
            // A cut file is no failure: it loads up to the cut.
            EXPECT_EQ(scene->loadVolumes(cutBase), 1);
            Impl::State& s = internalState(*scene);
            const size_t loaded =
                mode == kModeCombined ? s.mLabelDepthVolumeGrid->size() : s.mVolumeGrid->size();
            EXPECT_LE(loaded, blocks);
            if (cut > whole.size() / 3) {
                EXPECT_GT(loaded, 0u);
            }
            if (cut == whole.size() - 1) {
                if (mode == kModeCombined) {
                    expectSameBlocks(*internalState(*source).mLabelDepthVolumeGrid,
                                     *s.mLabelDepthVolumeGrid);
                } else {
                    expectSameBlocks(*internalState(*source).mVolumeGrid, *s.mVolumeGrid);
                }
            }

            // Fusion, lookups, queries and saving all still take the grid's locks.
            fuseView(*scene, mode, 1);
            const Solid::Vec3 seen = inFrontOfSurface(1);
            Solid::KeyType key;
            const float value = mode == kModeCombined ? s.mLabelDepthVolumeGrid->value(seen, key)
                                                      : s.mVolumeGrid->value(seen, key);
            EXPECT_GT(value, 0.0f);
            const IntersectionResult hit = scene->intersectPoint({seen(0), seen(1), seen(2)}, 1.0f);
            // Free space in front of the surface; unknown in combined mode, which keeps no depth
            // grid for collisions.
            EXPECT_EQ(hit.collision, mode == kModeCombined ? 2 : 0);
            EXPECT_EQ(scene->saveVolumes(dir.file("again")), 1);
        }
    }
}

TEST(Persistence, EmptyBaseNameWritesTheBareSuffix) {
    TempDir dir;
    const fs::path previous = fs::current_path();
    fs::current_path(dir.path());
    auto scene = makeScene(kModeCombined);
    fuseView(*scene, kModeCombined, 0);
    EXPECT_EQ(scene->saveVolumes(""), 1);
    EXPECT_TRUE(fs::exists(dir.path() / ".depthlabelgrid"));
    auto loaded = makeScene(kModeCombined);
    EXPECT_EQ(loaded->loadVolumes(""), 1);
    fs::current_path(previous);
    expectSameBlocks(*internalState(*scene).mLabelDepthVolumeGrid,
                     *internalState(*loaded).mLabelDepthVolumeGrid);
}

// Captures the lines the logger hands out.
class CapturedLog : public AR::Common::LogTarget {
public:
    CapturedLog() { AR::Common::Logger::getInstance().addTarget(this); }
    ~CapturedLog() override { AR::Common::Logger::getInstance().removeTarget(this); }
    void write(int /*level*/, const char* text, size_t length) override {
        mText.append(text, length);
    }
    const std::string& text() const { return mText; }

private:
    std::string mText;
};

TEST(Persistence, UninitialisedUnopenableAndMissingFiles) {
    TempDir dir;
    const std::string base = dir.file("never");
    auto raw = std::unique_ptr<Impl>(static_cast<Impl*>(newVelmora()));
    EXPECT_EQ(raw->saveVolumes(base), 0);
    EXPECT_EQ(raw->loadVolumes(base), 0);
    EXPECT_TRUE(fs::is_empty(dir.path()));

    // No directory to write into: logged, failed, and the second grid is still attempted.
    auto split = makeScene(kModeSplit);
    fuseView(*split, kModeSplit, 0);
    const std::string nowhere = dir.file("missing/base");
    {
        CapturedLog log;
        EXPECT_EQ(split->saveVolumes(nowhere), 0);
        EXPECT_NE(log.text().find("Failed opening file '" + nowhere + ".depthgrid'"),
                  std::string::npos);
        EXPECT_NE(log.text().find("Failed opening file '" + nowhere + ".labelgrid'"),
                  std::string::npos);
    }

    // Missing files are skipped and leave the grids as they are, but the blocks still count as
    // changed.
    const size_t before = internalState(*split).mVolumeGrid->size();
    EXPECT_EQ(split->loadVolumes(base), 1);
    EXPECT_EQ(internalState(*split).mVolumeGrid->size(), before);
    expectAllBlocksChanged(internalState(*split), *internalState(*split).mVolumeGrid);
}

// Saving beside a producer: every file written is a whole grid, each block taken under its mutex.
TEST(PersistenceConcurrency, SaveBesideFusionWritesWholeFiles) {
    TempDir dir;
    auto scene = makeScene(kModeSplit);
    std::atomic<bool> done{false};
    std::thread producer([&scene, &done] {
        for (int round = 0; round < 2; ++round) {
            for (int view = 0; view < kViews; ++view) {
                fuseView(*scene, kModeSplit, view);
            }
        }
        done = true;
    });
    std::vector<std::string> bases;
    while (!done || bases.empty()) {
        bases.push_back(dir.file("snapshot" + std::to_string(bases.size())));
        EXPECT_EQ(scene->saveVolumes(bases.back()), 1);
    }
    producer.join();
    const size_t finalBlocks = internalState(*scene).mVolumeGrid->size();
    for (const std::string& base : bases) {
        Solid::DepthGrid grid;
        std::ifstream file(base + ".depthgrid", std::ios::binary);
        file >> grid;
        EXPECT_FALSE(file.fail()) << base;
        EXPECT_LE(grid.size(), finalBlocks);
    }
}

}  // namespace
}  // namespace Velmora
