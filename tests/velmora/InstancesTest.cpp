// getObjectInstances on analytic rooms fused with label images, in both run modes: one instance
// per object with its label and bounds, identities that persist, relabelled pieces that give
// their identities back, and the two-call protocol with every way a host can size its spans.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "support/SceneSetup.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"
#include "velmora/ObjectIds.h"

namespace Velmora {
namespace {

using Test::AnalyticScene;
using Test::PinholeCamera;

constexpr float kCell = 0.04f;
constexpr float kTruncation = 0.2f;
constexpr int32_t kCombined = 0;
constexpr int32_t kSplit = 1;
constexpr uint8_t kFloor = 1;
// How far labelled samples reach beyond a surface, plus half a cell and the margin of a sample's
// box and a cell for the fused surface. Combined mode votes in the truncation band. The split
// label path votes within 2 cm of the surface rendered from the volume, but its votes near the
// foot of a box spill up to a quarter metre onto the floor, so its bounds are looser.
float boundsTolerance(int32_t mode) {
    return (mode == kCombined ? kTruncation : 0.26f) + 1.5f * kCell + 0.01f;
}

using Test::TrueBox;
using Report = Test::InstanceReport;
using Test::boxesOnAFloor;
using Test::readInstances;

// Boxes on a floor: A and B apart, C long enough to span several blocks (a block is 0.32 m).
const std::vector<TrueBox> kBoxes = {
    {{0.3, 0.3, 0.0}, {0.7, 0.7, 0.4}, 4},
    {{1.3, 0.2, 0.0}, {1.6, 0.5, 0.3}, 5},
    {{0.2, 1.3, 0.0}, {1.6, 1.5, 0.25}, 6},
};

// Views from above the four corners of the boxes' area, looking at its middle.
std::vector<PinholeCamera> aroundTheBoxes() {
    std::vector<PinholeCamera> cameras;
    for (const Test::Vec3d& eye :
         {Test::Vec3d{-0.6, -0.6, 1.4}, {2.4, -0.6, 1.4}, {2.4, 2.3, 1.4}, {-0.6, 2.3, 1.4}}) {
        cameras.push_back(Test::viewFrom(eye, {0.9, 0.85, 0.1}));
    }
    return cameras;
}

void fuse(IVelmora& scene, int32_t mode, const AnalyticScene& world, const PinholeCamera& camera) {
    Test::fuseView(scene, mode, world, camera);
}

// The instances of `label` whose bounds meet the box [lo, hi]. Label votes that land off their
// object (rays grazing an edge, a rendered depth a cell off) leave small fragments elsewhere, which
// are instances of their own; the object is the instance that meets its box.
std::vector<ObjectInstance> meeting(const Report& report, uint16_t label, const Test::Vec3d& lo,
                                    const Test::Vec3d& hi) {
    std::vector<ObjectInstance> found;
    for (const ObjectInstance& instance : report.instances) {
        const float min[3] = {instance.boundsMin.x, instance.boundsMin.y, instance.boundsMin.z};
        const float max[3] = {instance.boundsMax.x, instance.boundsMax.y, instance.boundsMax.z};
        bool meets = instance.label == label;
        for (int a = 0; a < 3; ++a)
            meets = meets && min[a] <= hi[a] && lo[a] <= max[a];
        if (meets)
            found.push_back(instance);
    }
    return found;
}

uint32_t idOf(const UuidBytes& uuid) {
    return uint32_t(uuid[8]) | uint32_t(uuid[9]) << 8 | uint32_t(uuid[10]) << 16 |
           uint32_t(uuid[11]) << 24;
}

class InstancesTest : public ::testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(BothModes, InstancesTest, ::testing::Values(kCombined, kSplit));

TEST_P(InstancesTest, EachBoxIsOneInstanceWithItsLabelAndBounds) {
    const int32_t mode = GetParam();
    auto scene = Velmora::Test::makeInitialisedScene(mode, kCell, kTruncation);
    const AnalyticScene world = boxesOnAFloor(kBoxes);
    for (const PinholeCamera& camera : aroundTheBoxes())
        fuse(*scene, mode, world, camera);
    const Report report = readInstances(*scene);
    ASSERT_EQ(report.result, kSuccess);
    EXPECT_FALSE(meeting(report, kFloor, {0.0, 0.0, 0.0}, {1.6, 1.5, 0.0}).empty());
    const float tolerance = boundsTolerance(mode);
    for (const TrueBox& box : kBoxes) {
        const auto found = meeting(report, box.label, box.min, box.max);
        ASSERT_EQ(found.size(), 1u) << int(box.label);
        const ObjectInstance& instance = found[0];
        const float lo[3] = {instance.boundsMin.x, instance.boundsMin.y, instance.boundsMin.z};
        const float hi[3] = {instance.boundsMax.x, instance.boundsMax.y, instance.boundsMax.z};
        for (int a = 0; a < 3; ++a) {
            EXPECT_NEAR(lo[a], box.min[a], tolerance) << int(box.label) << " axis " << a;
            EXPECT_NEAR(hi[a], box.max[a], tolerance) << int(box.label) << " axis " << a;
        }
    }
    // The links: one per identity created, 0 included; a live instance is its own parent.
    const uint32_t created = internalState(*scene).mInstanceExtractor.numCreatedNodes();
    ASSERT_EQ(report.links.size(), created);
    for (uint32_t id = 0; id < created; ++id)
        EXPECT_EQ(report.links[id].first, makeObjectUuid(0, kUuidKindInstance, id));
    for (const ObjectInstance& instance : report.instances)
        EXPECT_EQ(report.links[idOf(instance.uuid)].second, instance.uuid);
}

TEST_P(InstancesTest, TouchingBoxesOfOneLabelAreOneAndKeepTheirIdentity) {
    const int32_t mode = GetParam();
    auto scene = Velmora::Test::makeInitialisedScene(mode, kCell, kTruncation);
    const std::vector<TrueBox> touching = {{{0.3, 0.3, 0.0}, {0.7, 0.7, 0.4}, 4},
                                           {{0.7, 0.3, 0.0}, {1.4, 0.6, 0.3}, 4}};
    const AnalyticScene world = boxesOnAFloor(touching);
    const auto cameras = aroundTheBoxes();
    fuse(*scene, mode, world, cameras[0]);
    const Report first = readInstances(*scene);
    ASSERT_EQ(first.result, kSuccess);
    const Velmora::Test::Vec3d lo = touching[0].min;
    const Velmora::Test::Vec3d hi = touching[1].max;
    ASSERT_EQ(meeting(first, 4, lo, hi).size(), 1u);
    for (size_t c = 1; c < cameras.size(); ++c)
        fuse(*scene, mode, world, cameras[c]);
    const Report all = readInstances(*scene);
    ASSERT_EQ(all.result, kSuccess);
    const auto fours = meeting(all, 4, lo, hi);
    ASSERT_EQ(fours.size(), 1u);
    EXPECT_NEAR(fours[0].boundsMin.x, 0.3f, boundsTolerance(mode));
    EXPECT_NEAR(fours[0].boundsMax.x, 1.4f, boundsTolerance(mode));
    // Every identity of the past leads to a live instance or is gone.
    std::vector<UuidBytes> live = {makeObjectUuid(0, kUuidKindInstance, 0)};
    for (const ObjectInstance& instance : all.instances)
        live.push_back(instance.uuid);
    for (const SubsumedLink& link : all.links)
        EXPECT_NE(std::find(live.begin(), live.end(), link.second), live.end());
    // Queries without change, and after a narrow view of one end, keep the survivor's identity:
    // its pieces in the blocks that view does not reach carry it.
    EXPECT_EQ(meeting(readInstances(*scene), 4, lo, hi)[0].uuid, fours[0].uuid);
    PinholeCamera end = cameras[1];
    end.fx = end.fy = 400.0;
    end.T_world_camera = Velmora::Test::lookAt({2.0, 0.45, 0.6}, {1.4, 0.45, 0.15}, {0, 0, 1});
    fuse(*scene, mode, world, end);
    const auto later = meeting(readInstances(*scene), 4, lo, hi);
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(later[0].uuid, fours[0].uuid);
}

TEST_P(InstancesTest, ARelabelledPieceGivesItsIdentitiesBack) {
    const int32_t mode = GetParam();
    auto scene = Velmora::Test::makeInitialisedScene(mode, kCell, kTruncation);
    const TrueBox box = kBoxes[0];
    const PinholeCamera camera = aroundTheBoxes()[0];
    for (int i = 0; i < 2; ++i)
        fuse(*scene, mode, boxesOnAFloor({box}), camera);
    const Report before = readInstances(*scene);
    const auto old = meeting(before, box.label, box.min, box.max);
    ASSERT_EQ(old.size(), 1u);
    const uint32_t oldId = idOf(old[0].uuid);
    TrueBox relabelled = box;
    relabelled.label = 9;
    for (int i = 0; i < 3; ++i)
        fuse(*scene, mode, boxesOnAFloor({relabelled}), camera);
    const Report after = readInstances(*scene);
    ASSERT_EQ(after.result, kSuccess);
    EXPECT_TRUE(meeting(after, box.label, box.min, box.max).empty());
    EXPECT_EQ(meeting(after, 9, box.min, box.max).size(), 1u);
    EXPECT_EQ(idOf(after.links[oldId].second), 0u);
    // Every local identity is back in the pool or held by exactly one piece.
    const Solid::InstanceExtractor& extractor = internalState(*scene).mInstanceExtractor;
    size_t held = 0;
    for (const auto& block : extractor.blockInstances())
        held += block.second.size();
    EXPECT_EQ(extractor.availableIds().size() + held, Solid::kMaxLocalId);
}

// The protocol's cases on one scene with instances. Capacities are given relative to the counts;
// `nullData` leaves the pointer null with that capacity.
TEST(InstancesProtocol, EveryWayOfSizingTheSpans) {
    struct Case {
        const char* name;
        int instanceExtra;  // capacity = count + extra (at least 0)
        bool instanceNull;
        int linkExtra;
        bool linkNull;
        XrResultVLM result;
        bool countsWritten;
        bool linksWritten;
        bool instancesWritten;
    };
    const int kZero = -1000;  // capacity 0
    const std::vector<Case> cases = {
        {"counts only", kZero, true, kZero, true, kErrorBufferTooSmall, true, false, false},
        {"links one short", 0, false, -1, false, kErrorBufferTooSmall, true, false, false},
        {"links enough, instances short", -1, false, 0, false, kErrorBufferTooSmall, true, true,
         false},
        {"links enough, no instance room", kZero, true, 0, false, kErrorBufferTooSmall, true, true,
         false},
        {"null instances with capacity", 0, true, 0, false, kErrorInvalidArgument, false, false,
         false},
        {"null links with capacity", 0, false, 0, true, kErrorInvalidArgument, false, false, false},
        {"exact", 0, false, 0, false, kSuccess, true, true, true},
        {"roomy", 3, false, 2, false, kSuccess, true, true, true},
    };
    const int32_t mode = kCombined;
    auto scene = Velmora::Test::makeInitialisedScene(mode, kCell, kTruncation);

    // Nothing to report: 0 and the spans as they were.
    std::vector<ObjectInstance> noInstances(2);
    std::vector<SubsumedLink> noLinks(3);
    span<ObjectInstance> emptyInstances{noInstances.data(), 2};
    span<SubsumedLink> emptyLinks{noLinks.data(), 3};
    ASSERT_EQ(scene->getObjectInstances(emptyInstances, emptyLinks), kSuccess);
    EXPECT_EQ(emptyInstances.size, 2u);
    EXPECT_EQ(emptyLinks.size, 3u);

    const AnalyticScene world = boxesOnAFloor(kBoxes);
    fuse(*scene, mode, world, aroundTheBoxes()[0]);
    // A null span with capacity fails, but after the update: the pending blocks are consumed.
    span<ObjectInstance> nullInstances{nullptr, 1};
    span<SubsumedLink> noRoom{};
    ASSERT_EQ(scene->getObjectInstances(nullInstances, noRoom), kErrorInvalidArgument);
    EXPECT_TRUE(internalState(*scene).mInstanceUpdatedBlocks.empty());
    const Report truth = readInstances(*scene);
    ASSERT_EQ(truth.result, kSuccess);
    const int instanceCount = int(truth.instances.size());
    const int linkCount = int(truth.links.size());
    ASSERT_GT(instanceCount, 1);
    ASSERT_GT(linkCount, 1);

    const UuidBytes untouched{};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t instanceCapacity =
            c.instanceExtra == kZero ? 0 : instanceCount + c.instanceExtra;
        const uint32_t linkCapacity = c.linkExtra == kZero ? 0 : linkCount + c.linkExtra;
        std::vector<ObjectInstance> instanceStore(instanceCapacity + 1);
        std::vector<SubsumedLink> linkStore(linkCapacity + 1);
        span<ObjectInstance> instances{c.instanceNull ? nullptr : instanceStore.data(),
                                       instanceCapacity};
        span<SubsumedLink> links{c.linkNull ? nullptr : linkStore.data(), linkCapacity};
        EXPECT_EQ(scene->getObjectInstances(instances, links), c.result);
        EXPECT_EQ(instances.size, c.countsWritten ? uint32_t(instanceCount) : instanceCapacity);
        EXPECT_EQ(links.size, c.countsWritten ? uint32_t(linkCount) : linkCapacity);
        if (linkStore.size() >= size_t(linkCount)) {
            EXPECT_EQ(linkStore[linkCount - 1].first != untouched, c.linksWritten && !c.linkNull);
        }
        EXPECT_EQ(instanceStore[0].uuid != untouched, c.instancesWritten);
        if (c.linksWritten && !c.linkNull) {
            for (int id = 0; id < linkCount; ++id)
                EXPECT_EQ(linkStore[id].first, truth.links[id].first);
        }
        if (c.instancesWritten) {
            for (int i = 0; i < instanceCount; ++i)
                EXPECT_EQ(instanceStore[i].uuid, truth.instances[i].uuid);
        }
    }
    // The byte layout of an identity: prefix 0, then id and kind, least significant byte first.
    const UuidBytes id0x0123 = {0, 0, 0, 0, 0, 0, 0, 0, 0x23, 0x01, 0, 0, 2, 0, 0, 0};
    EXPECT_EQ(makeObjectUuid(0, kUuidKindInstance, 0x0123), id0x0123);
}

}  // namespace
}  // namespace Velmora
