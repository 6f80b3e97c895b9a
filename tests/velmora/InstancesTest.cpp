// getObjectInstances on boxes on a floor in both run modes: instances, labels and bounds,
// identities that persist or are given back, and the two-call protocol.
#include <gtest/gtest.h>

#include <algorithm>

#include "HostScenes.h"
#include "velmora/ObjectIds.h"

namespace Velmora {
namespace {

using namespace Test;

// How far labelled samples reach beyond a surface, plus half a cell and the margin of a sample's
// box and a cell for the fused surface. Combined mode votes in the truncation band. The split
// label path votes within 2 cm of the surface rendered from the volume, but its votes near the
// foot of a box spill up to a quarter metre onto the floor, so its bounds are looser.
float boundsTolerance(int32_t mode) {
    return (mode == kModeCombined ? kTruncation : 0.26f) + 1.5f * kCell + 0.01f;
}

// The instances of `label` whose bounds meet the box [lo, hi]. Label votes that land off their
// object (rays grazing an edge, a rendered depth a cell off) leave small fragments elsewhere,
// instances of their own; the object is the instance that meets its box.
std::vector<ObjectInstance> meeting(const InstanceReport& report, uint16_t label, const Vec3d& lo,
                                    const Vec3d& hi) {
    std::vector<ObjectInstance> found;
    for (const ObjectInstance& i : report.instances) {
        if (i.label == label && i.boundsMin.x <= hi[0] && lo[0] <= i.boundsMax.x &&
            i.boundsMin.y <= hi[1] && lo[1] <= i.boundsMax.y && i.boundsMin.z <= hi[2] &&
            lo[2] <= i.boundsMax.z) {
            found.push_back(i);
        }
    }
    return found;
}

class InstancesTest : public ::testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(BothModes, InstancesTest, ::testing::Values(kModeCombined, kModeSplit));

// Each box one instance with its label and bounds, the floor one too; one link per identity
// created, 0 included, a live instance its own parent.
TEST_P(InstancesTest, EachBoxIsOneInstanceWithItsLabelAndBounds) {
    auto scene = fusedBoxes(GetParam());
    const InstanceReport report = readInstances(*scene);
    ASSERT_EQ(report.result, kSuccess);
    EXPECT_FALSE(meeting(report, 1, {0.0, 0.0, 0.0}, {1.6, 1.5, 0.0}).empty());
    const float tolerance = boundsTolerance(GetParam());
    for (const TrueBox& box : kBoxes) {
        const auto found = meeting(report, box.label, box.min, box.max);
        ASSERT_EQ(found.size(), 1u) << int(box.label);
        const float lo[3] = {found[0].boundsMin.x, found[0].boundsMin.y, found[0].boundsMin.z};
        const float hi[3] = {found[0].boundsMax.x, found[0].boundsMax.y, found[0].boundsMax.z};
        for (int a = 0; a < 3; ++a) {
            EXPECT_NEAR(lo[a], box.min[a], tolerance) << int(box.label) << " axis " << a;
            EXPECT_NEAR(hi[a], box.max[a], tolerance) << int(box.label) << " axis " << a;
        }
    }
    const uint32_t created = internalState(*scene).mInstanceExtractor.numCreatedNodes();
    ASSERT_EQ(report.links.size(), created);
    for (uint32_t id = 0; id < created; ++id)
        EXPECT_EQ(report.links[id].first, makeObjectUuid(0, kUuidKindInstance, id));
    for (const ObjectInstance& instance : report.instances)
        EXPECT_EQ(report.links[objectIdOf(instance.uuid)].second, instance.uuid);
}

// Touching boxes of one label are one instance from the first view on; every past identity
// leads to a live one or is gone; queries without change, and after a narrow view of one end,
// keep the survivor's identity: its pieces in the blocks that view does not reach carry it.
TEST_P(InstancesTest, TouchingBoxesOfOneLabelAreOneAndKeepTheirIdentity) {
    const int32_t mode = GetParam();
    auto scene = makeScene(mode);
    const std::vector<TrueBox> touching = {{{0.3, 0.3, 0.0}, {0.7, 0.7, 0.4}, 4},
                                           {{0.7, 0.3, 0.0}, {1.4, 0.6, 0.3}, 4}};
    const AnalyticScene world = boxesOnAFloor(touching);
    const std::vector<PinholeCamera> cameras = aroundTheBoxes();
    const Vec3d lo = touching[0].min, hi = touching[1].max;
    fuseView(*scene, mode, world, cameras[0]);
    ASSERT_EQ(meeting(readInstances(*scene), 4, lo, hi).size(), 1u);
    for (size_t c = 1; c < cameras.size(); ++c)
        fuseView(*scene, mode, world, cameras[c]);
    const InstanceReport all = readInstances(*scene);
    ASSERT_EQ(all.result, kSuccess);
    const auto fours = meeting(all, 4, lo, hi);
    ASSERT_EQ(fours.size(), 1u);
    EXPECT_NEAR(fours[0].boundsMin.x, 0.3f, boundsTolerance(mode));
    EXPECT_NEAR(fours[0].boundsMax.x, 1.4f, boundsTolerance(mode));
    std::vector<UuidBytes> live = {makeObjectUuid(0, kUuidKindInstance, 0)};
    for (const ObjectInstance& instance : all.instances)
        live.push_back(instance.uuid);
    for (const SubsumedLink& link : all.links)
        EXPECT_NE(std::find(live.begin(), live.end(), link.second), live.end());
    EXPECT_EQ(meeting(readInstances(*scene), 4, lo, hi)[0].uuid, fours[0].uuid);
    PinholeCamera end = cameras[1];
    end.fx = end.fy = 400.0;
    end.T_world_camera = lookAt({2.0, 0.45, 0.6}, {1.4, 0.45, 0.15}, {0, 0, 1});
    fuseView(*scene, mode, world, end);
    const auto later = meeting(readInstances(*scene), 4, lo, hi);
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(later[0].uuid, fours[0].uuid);
}

// A box relabelled: its old identity links to nothing, and every local identity is back in the
// pool or held by exactly one piece.
TEST_P(InstancesTest, ARelabelledPieceGivesItsIdentitiesBack) {
    const int32_t mode = GetParam();
    auto scene = makeScene(mode);
    TrueBox box = kBoxes[0];
    uint32_t oldId = 0;
    for (int i = 0; i < 5; ++i) {
        box.label = i < 2 ? 4 : 9;
        fuseView(*scene, mode, boxesOnAFloor({box}), aroundTheBoxes()[0]);
        if (i == 1) {
            const auto old = meeting(readInstances(*scene), 4, box.min, box.max);
            ASSERT_EQ(old.size(), 1u);
            oldId = objectIdOf(old[0].uuid);
        }
    }
    const InstanceReport after = readInstances(*scene);
    ASSERT_EQ(after.result, kSuccess);
    EXPECT_TRUE(meeting(after, 4, box.min, box.max).empty());
    EXPECT_EQ(meeting(after, 9, box.min, box.max).size(), 1u);
    EXPECT_EQ(objectIdOf(after.links[oldId].second), 0u);
    const Solid::InstanceExtractor& extractor = internalState(*scene).mInstanceExtractor;
    size_t held = 0;
    for (const auto& block : extractor.blockInstances())
        held += block.second.size();
    EXPECT_EQ(extractor.availableIds().size() + held, Solid::kMaxLocalId);
}

// The protocol's cases on one scene with instances, capacities relative to the counts; a null
// pointer with capacity is an argument error, after the update: the pending blocks are consumed.
TEST(InstancesProtocol, EveryWayOfSizingTheSpans) {
    auto scene = makeScene(kModeCombined);
    std::vector<ObjectInstance> noInstances(2);
    std::vector<SubsumedLink> noLinks(3);
    span<ObjectInstance> emptyInstances{noInstances.data(), 2};
    span<SubsumedLink> emptyLinks{noLinks.data(), 3};
    ASSERT_EQ(scene->getObjectInstances(emptyInstances, emptyLinks), kSuccess);
    EXPECT_EQ(emptyInstances.size * 10 + emptyLinks.size, 23u) << "nothing to report";
    fuseView(*scene, kModeCombined, boxesOnAFloor(kBoxes), aroundTheBoxes()[0]);
    span<ObjectInstance> nullInstances{nullptr, 1};
    span<SubsumedLink> noRoom{};
    ASSERT_EQ(scene->getObjectInstances(nullInstances, noRoom), kErrorInvalidArgument);
    EXPECT_TRUE(internalState(*scene).mInstanceUpdatedBlocks.empty());
    const InstanceReport truth = readInstances(*scene);
    ASSERT_EQ(truth.result, kSuccess);
    const int instanceCount = int(truth.instances.size()), linkCount = int(truth.links.size());
    ASSERT_GT(instanceCount, 1);
    ASSERT_GT(linkCount, 1);
    const int kZero = -1000;  // capacity 0
    const struct {
        const char* name;
        int instanceExtra;  // capacity = count + extra
        bool instanceNull;
        int linkExtra;
        bool linkNull;
        XrResultVLM result;
        bool countsWritten, linksWritten, instancesWritten;
    } cases[] = {
        {"counts only", kZero, true, kZero, true, kErrorBufferTooSmall, true, false, false},
        {"links one short", 0, false, -1, false, kErrorBufferTooSmall, true, false, false},
        {"instances short", -1, false, 0, false, kErrorBufferTooSmall, true, true, false},
        {"no instance room", kZero, true, 0, false, kErrorBufferTooSmall, true, true, false},
        {"null instances", 0, true, 0, false, kErrorInvalidArgument, false, false, false},
        {"null links", 0, false, 0, true, kErrorInvalidArgument, false, false, false},
        {"exact", 0, false, 0, false, kSuccess, true, true, true},
        {"roomy", 3, false, 2, false, kSuccess, true, true, true},
    };
    const UuidBytes untouched{};
    for (const auto& c : cases) {
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
        for (int id = 0; c.linksWritten && !c.linkNull && id < linkCount; ++id)
            EXPECT_EQ(linkStore[id].first, truth.links[id].first);
        for (int i = 0; c.instancesWritten && i < instanceCount; ++i)
            EXPECT_EQ(instanceStore[i].uuid, truth.instances[i].uuid);
    }
    // The byte layout of an identity: prefix 0, then id and kind, least significant byte first.
    const UuidBytes id0x0123 = {0, 0, 0, 0, 0, 0, 0, 0, 0x23, 0x01, 0, 0, 2, 0, 0, 0};
    EXPECT_EQ(makeObjectUuid(0, kUuidKindInstance, 0x0123), id0x0123);
}

}  // namespace
}  // namespace Velmora
