// The block filters; the hit search against a plain one-pixel-at-a-time version (its block and
// the face neighbours the band reaches, never a diagonal one), bit for bit in keys, slot order and
// values; the border copy into the lower neighbours.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "math/MatrixFunctions.h"
#include "solid/fusion/BlockSelection.h"
#include "solid/fusion/BorderCopy.h"
#include "support/FusedGrid.h"
#include "support/RenderedBlocks.h"
#include "support/TestBlock.h"

namespace Solid {
namespace {

constexpr float kSpacing = 0.02f;  // blocks of 8 cells: 0.16 m

TEST(BlockSelection, AllowListAndHitDensityFilters) {
    BlockInfoMapType map;
    const uint32_t counts[] = {9, 10, 39, 40};
    for (int i = 0; i < 4; ++i)
        map[KeyType(i, 0, 0)].numHits = counts[i];
    BlockInfoMapType some = map;
    IndexSet allowed;
    allowed.insert(KeyType(1, 0, 0));
    allowed.insert(KeyType(7, 0, 0));
    filterNonSpecifiedBlocks(some, &allowed);
    EXPECT_EQ(some.size(), 1u);
    EXPECT_EQ(some.count(KeyType(1, 0, 0)), 1u);

    // Threshold: a fraction of a 9x9 face, divided by the square of the pixel step.
    const struct {
        float fraction;
        int step;
        size_t kept;
    } cases[] = {{0.0f, 1, 4}, {0.5f, 1, 1}, {0.5f, 2, 3}, {0.5f, 3, 4}, {0.13f, 1, 3}};
    for (const auto& c : cases) {
        BlockInfoMapType filtered = map;
        filterLowHitDensityBlocks(filtered, c.fraction, 9, c.step);
        EXPECT_EQ(filtered.size(), c.kept) << c.fraction << " step " << c.step;
    }
}

TEST(BlockSelection, SaturationCountsViewsPerDirectionAndDistanceClass) {
    SaturationManager<float, DepthGrid> manager(2, 4);
    manager.distances().push_back(1.0f);
    manager.directions().push_back(Vec3(1.0f, 0.0f, 0.0f));
    manager.directions().push_back(Vec3(-1.0f, 0.0f, 0.0f));
    const KeyType key(0, 0, 0);
    const Vec3 nearRight(0.5f, 0.0f, 0.0f), farRight(3.0f, 0.0f, 0.0f), nearLeft(-0.5f, 0, 0);
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(manager.update(key, nearRight)) << i;
    EXPECT_FALSE(manager.update(key, nearRight));
    EXPECT_TRUE(manager.update(KeyType(1, 0, 0), nearRight));  // blocks count apart
    EXPECT_TRUE(manager.update(key, farRight));
    EXPECT_TRUE(manager.update(key, nearLeft));

    // The filter drops a block once its class is full, and keeps a new one.
    DepthGrid grid;
    Velmora::Test::configureGrid(grid, kSpacing);
    DepthFrame frame;
    frame.pose = Solid::Test::translation(-0.07f, -0.07f, 0.93f);
    SaturationManager<float, DepthGrid> one(1, 1);
    one.directions().push_back(Vec3(0.0f, 0.0f, 1.0f));
    for (size_t expected : {1u, 0u}) {
        BlockInfoMapType map;
        map[key];
        filterSaturatedBlocks(map, grid, frame, &one);
        EXPECT_EQ(map.size(), expected);
    }
}

// Block (1, 1, 1) with distinct samples copies its planes 0 into planes 8 of the seven lower
// neighbours: faces, edges and the corner sample (8, 8, 8). Nothing else of them changes, but for
// the border column of the z face, which is copied as part of whole rows.
TEST(BorderCopy, EveryLowerNeighbourReceivesExactlyItsPlanes) {
    DepthGrid grid;
    grid.set(Size(9, 9, 9), Vec3(kSpacing, kSpacing, kSpacing));
    for (int k = 0; k < 8; ++k)
        grid.ensure(KeyType(k & 1, (k >> 1) & 1, k >> 2));
    const KeyType source(1, 1, 1);
    for (int i = 0; i < 729; ++i)
        grid.get(source)->data()[i] = Vec2S(short(i), short(1));
    IndexSet updated;
    copySubvolumeBorder(source, *grid.get(source), grid, updated);
    EXPECT_EQ(updated.size(), 7u);
    for (int k = 0; k < 7; ++k) {
        const int o[3] = {k & 1, (k >> 1) & 1, k >> 2};  // 0: one block lower on that axis
        auto dst = grid.get(KeyType(o[0], o[1], o[2]));
        EXPECT_TRUE(updated.contains(KeyType(o[0], o[1], o[2])));
        for (int i = 0; i < 729; ++i) {
            const int p[3] = {i % 9, i / 9 % 9, i / 81};
            bool copied = true;
            int from = 0;
            for (int a = 0, stride = 1; a < 3; ++a, stride *= 9) {
                const bool wholeRow = k == 3 && a == 0;
                copied = copied && (o[a] == 0 ? p[a] == 8 : p[a] < 8 || wholeRow);
                from += o[a] == 0 ? 0 : p[a] * stride;
            }
            ASSERT_EQ(dst->data()[i],
                      copied ? Vec2S(short(from), short(1)) : creationSample<Vec2S>())
                << k << ": " << i;
        }
    }
}

using Velmora::Test::PinholeCamera;

// The search as it reads in words: each valid pixel unprojected on its own, its block and the
// face neighbours within the band recorded one by one in the map.
void referenceHitSearch(BlockInfoMapType& map, IntegrationStats& stats, const DepthGrid& grid,
                        const DepthFrame& frame, const SensorErrorModel& model, int step,
                        float bestDistanceFilter) {
    Matrix4 invM = AR::Math::inverse(frame.projection * frame.pose);
    for (int r = 0; r < 3; ++r)
        invM(r, 3) += 0.5f * grid.config().spacing(r);
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
            if (!(d > 0.0f))
                continue;
            const float v[4] = {static_cast<float>(x) * d, static_cast<float>(y) * d, d, 1.0f};
            float p[3];
            KeyType key;
            bool hasKey = true;
            for (int r = 0; r < 3; ++r) {
                p[r] = 0.0f;
                for (int c = 0; c < 4; ++c)
                    p[r] += invM(r, c) * v[c];
                const float t = std::floor(p[r] * grid.inverseDimension()(r));
                hasKey = hasKey && t >= -2147483648.0f && t < 2147483648.0f;
                key[r] = hasKey ? static_cast<int>(t) : 0;
            }
            if (!hasKey)
                continue;
            auto block = grid.get(key);
            if (bestDistanceFilter > 0.0f && block &&
                d > block->bestSampleDistance() * bestDistanceFilter)
                continue;
            hit(key, d);
            const float ramp = model.getIntegrationRamp(Vec3(0.0f, 0.0f, d));
            for (int a = 0; a < 3; ++a) {
                const float local = p[a] - grid.dimension()(a) * static_cast<float>(key[a]);
                // Neighbours beyond the range of keys are left out, never wrapped.
                KeyType lower = key, upper = key;
                if (local < ramp && key[a] != INT_MIN) {
                    --lower[a];
                    hit(lower, d);
                }
                if (local > grid.dimension()(a) - ramp && key[a] != INT_MAX) {
                    ++upper[a];
                    hit(upper, d);
                }
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
        const PinholeCamera near =
            Velmora::Test::viewFrom({1.0, 1.0, 1.2}, {3.0, 2.0, 0.8}, 64, 48, 50.0);
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
        const double a = angle(random);
        // 642 pixels a row: not a multiple of the vector width.
        const PinholeCamera camera = Velmora::Test::viewFrom(
            {2.0 - std::cos(a), 1.5 - 0.6 * std::sin(a), 1.4}, {2.0, 1.5, 0.6}, 642, 120, 525.0);
        expectSameSearch(Solid::Test::RenderedDepth(room(), camera).frame);
    }
    // Random depths (two fifths of them missing) from cameras around the origin, so that points
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
        for (int i = 0; i < camera.width * camera.height; ++i) {
            const int x = i % camera.width, y = i / camera.width;
            const float d = onLattice ? std::round(8.0f * depth(random)) / 8.0f : depth(random);
            // Scattered misses, and holes of six pixels as a sensor leaves them (zero, negative
            // or not a number): a group of missing pixels must not count as one run.
            const float holes[3] = {0.0f, -1.0f, std::nanf("")};
            const bool missing = (x * 7 + y * 3) % 5 == 0 || (x / 6 + y) % 4 == 0;
            frame.depth(x, y) = missing ? holes[y % 3] : d;
        }
        expectSameSearch(frame);
    }
    // A camera 2^31 m out on x: every point rounds to x = -2^31, which only blocks of 1 m have a
    // key for (the least one, whose lower neighbour does not exist); elsewhere no point has one.
    PinholeCamera far;
    far.width = 37;
    far.height = 29;
    DepthFrame frame;
    Velmora::Test::setUpFrame(frame, far);
    frame.pose(0, 3) = 2147483648.0f;
    for (int i = 0; i < far.width * far.height; ++i)
        frame.depth(i % far.width, i / far.width) = depth(random);
    if (grid.dimension()(0) == 1.0f) {
        expectSameSearch(frame);
    } else {
        BlockInfoMapType map(grid.size());
        IntegrationStats stats;
        findHitBlocks(map, stats, grid, frame, ConstantErrorModel(0.1f), 1, 0.0f);
        EXPECT_TRUE(map.empty());
        EXPECT_EQ(stats.acceptedPoints, 0u);
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

}  // namespace
}  // namespace Solid
