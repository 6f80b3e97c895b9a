// The hit search against a plain one-pixel-at-a-time version kept here: on rendered views of a
// furnished room at both cell sizes, on random frames (negative coordinates, points exactly on
// block faces, a band that varies with depth, every second pixel, the best-distance filter) the
// maps must agree in keys, slot order and values, bit for bit. Then the ends of the key range.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "math/MatrixFunctions.h"
#include "solid/fusion/BlockSelection.h"
#include "support/FusedGrid.h"

namespace Solid {
namespace {

using Velmora::Test::PinholeCamera;

// The search as it reads in words: each valid pixel unprojected on its own, its block and the
// face neighbours within the band recorded one by one in the map.
void referenceHitSearch(BlockInfoMapType& map, IntegrationStats& stats, const DepthGrid& grid,
                        const DepthFrame& frame, const SensorErrorModel& model, int step,
                        float bestDistanceFilter) {
    Matrix4 invM = AR::Math::inverse(frame.projection * frame.pose);
    for (int r = 0; r < 3; ++r) {
        invM(r, 3) += 0.5f * grid.config().spacing(r);
    }
    auto hit = [&](const KeyType& key, float d) {
        BlockInfo& info = map[key];
        info.bestSampleDistance = std::min(info.bestSampleDistance, d);
        ++info.numHits;
    };
    stats.visitedPoints = stats.acceptedPoints = 0;
    for (int y = 0; y < frame.depth.height(); y += step) {
        for (int x = 0; x < frame.depth.width(); x += step) {
            ++stats.visitedPoints;
            const float d = frame.depth(x, y);
            if (!(d > 0.0f)) {
                continue;
            }
            const float v[4] = {static_cast<float>(x) * d, static_cast<float>(y) * d, d, 1.0f};
            float p[3];
            KeyType key;
            for (int r = 0; r < 3; ++r) {
                p[r] = 0.0f;
                for (int c = 0; c < 4; ++c) {
                    p[r] += invM(r, c) * v[c];
                }
                key[r] = static_cast<int>(std::floor(p[r] * grid.inverseDimension()(r)));
            }
            if (bestDistanceFilter > 0.0f) {
                auto block = grid.get(key);
                if (block && d > block->bestSampleDistance() * bestDistanceFilter) {
                    continue;
                }
            }
            hit(key, d);
            const float ramp = model.getIntegrationRamp(Vec3(0.0f, 0.0f, d));
            for (int a = 0; a < 3; ++a) {
                const float local = p[a] - grid.dimension()(a) * static_cast<float>(key[a]);
                KeyType lower = key, upper = key;
                --lower[a];
                ++upper[a];
                if (local < ramp)
                    hit(lower, d);
                if (local > grid.dimension()(a) - ramp)
                    hit(upper, d);
            }
            ++stats.acceptedPoints;
        }
    }
}

// A band that widens with depth, so that the search must ask the model per pixel.
class GrowingBand : public SensorErrorModel {
public:
    float getFusionWeight(const Vec3&) const override { return 1.0f; }
    float getIntegrationRamp(const Vec3& p) const override { return 0.03f + 0.02f * p(2); }
};

struct SearchCase {
    const char* name;
    float cellSize;
    int step;
    float bestDistanceFilter;
    bool growingBand;
};

class HitSearch : public ::testing::TestWithParam<SearchCase> {
protected:
    void SetUp() override {
        Velmora::Test::configureGrid(grid, GetParam().cellSize);
        // Some blocks exist, seen from nearer than the frames below, for the distance filter.
        PinholeCamera near;
        near.T_world_camera = Velmora::Test::lookAt({1.0, 1.0, 1.2}, {3.0, 2.0, 0.8}, {0, 0, 1});
        Velmora::Test::fuseView(grid, room(), near, 5.0f * GetParam().cellSize);
    }

    static Velmora::Test::AnalyticScene room() {
        auto scene = Velmora::Test::AnalyticScene::room(4.0, 3.0, 2.6);
        scene.add(Velmora::Test::makeBox({1.2, 1.0, 0.0}, {2.4, 1.8, 0.75}, 4, {1, 2, 3}));
        scene.add(Velmora::Test::makeSphere({3.0, 2.2, 0.3}, 0.3, 6, {4, 5, 6}));
        return scene;
    }

    void expectSameSearch(const DepthFrame& frame) {
        const SearchCase& c = GetParam();
        const ConstantErrorModel constant(5.0f * c.cellSize);
        const GrowingBand growing;
        const SensorErrorModel& model =
            c.growingBand ? static_cast<const SensorErrorModel&>(growing) : constant;
        BlockInfoMapType fast(grid.size());
        BlockInfoMapType plain(grid.size());
        IntegrationStats fastStats;
        IntegrationStats plainStats;
        findHitBlocks(fast, fastStats, grid, frame, model, c.step, c.bestDistanceFilter);
        referenceHitSearch(plain, plainStats, grid, frame, model, c.step, c.bestDistanceFilter);
        EXPECT_EQ(fastStats.visitedPoints, plainStats.visitedPoints);
        EXPECT_EQ(fastStats.acceptedPoints, plainStats.acceptedPoints);
        ASSERT_EQ(fast.size(), plain.size());
        ASSERT_GT(fast.size(), 0u);
        auto a = fast.begin();
        for (auto b = plain.begin(); b != plain.end(); ++a, ++b) {
            ASSERT_EQ(a->first, b->first) << "slot order differs";
            EXPECT_EQ(a->second.numHits, b->second.numHits);
            EXPECT_EQ(0, std::memcmp(&a->second.bestSampleDistance, &b->second.bestSampleDistance,
                                     sizeof(float)));
        }
    }

    DepthGrid grid;
};

TEST_P(HitSearch, RunsGiveTheMapOfOnePixelAtATime) {
    std::mt19937 random(7);
    std::uniform_real_distribution<double> angle(0.0, 6.283);
    for (int view = 0; view < 3; ++view) {
        PinholeCamera camera;
        camera.width = 642;  // not a multiple of the vector width
        camera.height = 120;
        camera.fx = camera.fy = 525.0;
        camera.cx = 320.5;
        camera.cy = 60.5;
        const double a = angle(random);
        camera.T_world_camera = Velmora::Test::lookAt(
            {2.0 - std::cos(a), 1.5 - 0.6 * std::sin(a), 1.4}, {2.0, 1.5, 0.6}, {0, 0, 1});
        const auto rendered = Velmora::Test::render(room(), camera);
        DepthFrame frame;
        Velmora::Test::setUpFrame(frame, camera);
        for (int y = 0; y < camera.height; ++y) {
            for (int x = 0; x < camera.width; ++x) {
                frame.depth(x, y) = rendered.depthMetres[static_cast<size_t>(y) * camera.width + x];
            }
        }
        expectSameSearch(frame);
    }
    // Random depths (a fifth of them missing) from cameras around the origin, so that points
    // fall at negative coordinates. In every second trial the intrinsics, shifts and depths are
    // on binary lattices, so that with cells of a power of two points fall exactly on block faces
    // and on the limits of the band.
    std::uniform_real_distribution<float> depth(0.2f, 4.0f);
    std::uniform_real_distribution<float> shift(-3.0f, 3.0f);
    for (int trial = 0; trial < 4; ++trial) {
        const bool onLattice = trial % 2 == 1;
        PinholeCamera camera;
        camera.width = 37;
        camera.height = 29;
        if (onLattice) {
            camera.fx = camera.fy = 16.0;
            camera.cx = camera.cy = 0.0;
        }
        DepthFrame frame;
        Velmora::Test::setUpFrame(frame, camera);
        for (int r = 0; r < 3; ++r) {
            const float t = trial == 0 ? 0.0f : shift(random);
            frame.pose(r, 3) = onLattice ? std::round(16.0f * t) / 16.0f : t;
        }
        for (int y = 0; y < camera.height; ++y) {
            for (int x = 0; x < camera.width; ++x) {
                float d = depth(random);
                if (onLattice) {
                    d = std::round(8.0f * d) / 8.0f;
                }
                frame.depth(x, y) = (x * 7 + y * 3) % 5 == 0 ? 0.0f : d;
            }
        }
        expectSameSearch(frame);
    }
}

INSTANTIATE_TEST_SUITE_P(Frames, HitSearch,
                         ::testing::Values(SearchCase{"cells2cm", 0.02f, 1, 0.0f, false},
                                           SearchCase{"cells1cm", 0.01f, 1, 0.0f, false},
                                           SearchCase{"cellsOfAnEighth", 0.125f, 1, 0.0f, false},
                                           SearchCase{"growingBand", 0.02f, 1, 0.0f, true},
                                           SearchCase{"everySecondPixel", 0.02f, 2, 0.0f, false},
                                           SearchCase{"bestDistanceFilter", 0.02f, 1, 1.2f, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// Blocks of 1 m (cells of 1/8 m) and a camera that sees pixel (0, 0) at world x = -2^31 m: that
// block is the lowest key, and its lower neighbour, which the band reaches, has none. At -2^32 m
// the point itself has no block and is dropped.
TEST(HitSearchKeyRange, NeighboursBeyondTheLowestKeyAreSkippedNotWrapped) {
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, 0.125f);
    for (const float offset : {2147483648.0f, 4294967296.0f}) {
        PinholeCamera camera;
        camera.width = camera.height = 1;
        camera.fx = camera.fy = 1.0;
        camera.cx = camera.cy = 0.0;
        DepthFrame frame;
        Velmora::Test::setUpFrame(frame, camera);
        frame.pose(0, 3) = offset;  // world x = camera x - offset
        frame.pose(1, 3) = -0.5f;   // world y 0.5 m, mid-block: no neighbour in y
        frame.depth(0, 0) = 2.5f;
        BlockInfoMapType map;
        IntegrationStats stats;
        findHitBlocks(map, stats, grid, frame, ConstantErrorModel(0.3f), 1, 0.0f);
        if (offset == 2147483648.0f) {
            ASSERT_EQ(map.size(), 1u);
            EXPECT_EQ(map.begin()->first, KeyType(INT_MIN, 0, 2));
            EXPECT_EQ(stats.acceptedPoints, 1u);
        } else {
            EXPECT_EQ(map.size(), 0u);
            EXPECT_EQ(stats.acceptedPoints, 0u);
        }
    }
}

}  // namespace
}  // namespace Solid
