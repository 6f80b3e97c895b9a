// getPlanes on a fused furnished room in both run modes, the three-call protocol as one table,
// and split mode with sparse label frames.
#include <gtest/gtest.h>

#include <cmath>

#include "HostScenes.h"
#include "velmora/ObjectIds.h"

namespace Velmora {
namespace {

using namespace Test;

constexpr float kCellSize = 0.02f;
constexpr int kViews = 24;

struct TruePlane {
    const char* name;
    float normalZ, offset;
    uint16_t label;
};
const TruePlane kFloor{"floor", 1.f, 0.f, 1};
const TruePlane kTable{"table top", 1.f, -static_cast<float>(kTableTop), kTableLabel};

// The planes standing for a true one: normal within 0.05 rad, constant within 2 cm.
std::vector<const ReadPlane*> planesOf(const PlaneReadout& readout, const TruePlane& truth) {
    std::vector<const ReadPlane*> found;
    for (const ReadPlane& plane : readout.planes) {
        const float* p = plane.record.plane;
        if (std::acos(std::min(1.0f, p[2] * truth.normalZ)) < 0.05f &&
            std::abs(p[3] - truth.offset) < 0.02f) {
            found.push_back(&plane);
        }
    }
    return found;
}

std::unique_ptr<Impl> fusedRoom(int32_t mode, bool detectPlanes = true, int views = kViews) {
    auto scene = std::make_unique<Impl>();
    EXPECT_EQ(scene->init(planeConfig(mode, kCellSize, detectPlanes)), kSuccess);
    const std::vector<PinholeCamera> tour = roomTour(160, 120, kViews);
    for (int v = 0; v < views; ++v)
        fuseView(*scene, mode, furnishedRoom(), tour[v]);
    return scene;
}

class FusedRoomPlanes : public ::testing::TestWithParam<int32_t> {};
INSTANTIATE_TEST_SUITE_P(BothModes, FusedRoomPlanes, ::testing::Values(0, 1),
                         [](const auto& info) { return info.param == 0 ? "Combined" : "Split"; });

// The floor and the table top, each one plane with its label and a closed outline on it, the
// table's within the table top (and the fit's band of two cells around its edges), the floor's
// spanning most of the room; a plane's id is its node, kind 1 in bytes 12 to 15 and the node in
// bytes 8 to 11; the links name each node and its root.
TEST_P(FusedRoomPlanes, FloorAndTableTopWithLabelsOutlinesAndLinks) {
    auto scene = fusedRoom(GetParam());
    const PlaneReadout readout = readPlanes(*scene);
    for (const TruePlane* truth : {&kFloor, &kTable}) {
        const std::vector<const ReadPlane*> found = planesOf(readout, *truth);
        ASSERT_EQ(found.size(), 1u) << truth->name;
        const ReadPlane& plane = *found[0];
        // Label sums are 16-bit and wrap: on a plane as large as the split mode's floor (every
        // label frame votes into every sample) the sum no longer tells the labels apart, so there
        // only a label at all is required.
        if (truth == &kFloor && GetParam() == 1) {
            EXPECT_NE(plane.record.label, 0);
        } else {
            EXPECT_EQ(plane.record.label, truth->label) << truth->name;
        }
        EXPECT_EQ(plane.record.reserved, 0u);
        ASSERT_GE(plane.contour.size(), 4u) << truth->name;
        EXPECT_EQ(plane.contour.front().x, plane.contour.back().x) << "closed";
        EXPECT_EQ(plane.contour.front().y, plane.contour.back().y) << "closed";
        float lo[2] = {10.f, 10.f}, hi[2] = {-10.f, -10.f};
        for (const XrVector3fVLM& p : plane.contour) {
            EXPECT_NEAR(p.z, -truth->offset, 0.011f) << truth->name << ": on its plane";
            lo[0] = std::min(lo[0], p.x), hi[0] = std::max(hi[0], p.x);
            lo[1] = std::min(lo[1], p.y), hi[1] = std::max(hi[1], p.y);
        }
        const float band = 2.0f * kCellSize + 0.01f;
        if (truth == &kTable) {
            EXPECT_TRUE(lo[0] > kTableOutline[0] - band && lo[1] > kTableOutline[1] - band &&
                        hi[0] < kTableOutline[2] + band && hi[1] < kTableOutline[3] + band);
        } else {
            EXPECT_TRUE(lo[0] < 0.5f && hi[0] > 3.5f && lo[1] < 0.5f && hi[1] > 2.5f);
        }
    }
    Solid::PlaneDetector& detector = internalState(*scene).mPlaneDetector;
    ASSERT_EQ(readout.links.size(), detector.numCreatedNodes());
    for (uint32_t node = 0; node < readout.links.size(); ++node) {
        const uint32_t root = static_cast<uint32_t>(detector.getRootID(node));
        EXPECT_EQ(readout.links[node].first, makeObjectUuid(0, kUuidKindPlane, root));
        EXPECT_EQ(readout.links[node].second, makeObjectUuid(0, kUuidKindPlane, node));
    }
    const UuidBytes& id = readout.planes.at(0).record.uuid;
    EXPECT_EQ(id[12], 1);
    EXPECT_TRUE(
        detector.getNode(id[8] | id[9] << 8 | id[10] << 16 | uint32_t(id[11]) << 24).isRoot());
    EXPECT_EQ(readout.planes.size(), detector.getRootIDs().size());
}

// One call of the protocol on the fused room per case, with the host's spans as the case sets
// them. Before anything is fused: success, and the spans keep their capacities. With detection
// off: its own code, and the pending blocks are kept.
TEST(PlanesProtocol, EveryEdgeCase) {
    span<Planef> none{nullptr, 5};  // would be an argument error
    span<SubsumedLink> noLinks{nullptr, 5};
    const auto disabled = fusedRoom(1, false, 1);
    EXPECT_EQ(disabled->getPlanes(none, noLinks), kErrorPlanesDisabled);
    EXPECT_EQ(none.size, 5u);
    EXPECT_FALSE(internalState(*disabled).mPlaneUpdatedBlocks.empty());
    Impl scene;
    ASSERT_EQ(scene.init(planeConfig(0, kCellSize)), kSuccess);
    SubsumedLink link{};
    span<Planef> planes{nullptr, 0};
    span<SubsumedLink> oneLink{&link, 1};
    EXPECT_EQ(scene.getPlanes(planes, oneLink), kSuccess);
    EXPECT_EQ(oneLink.size, 1u);
    for (const PinholeCamera& camera : roomTour(160, 120, kViews))
        fuseView(scene, 0, furnishedRoom(), camera);
    const PlaneReadout truth = readPlanes(scene);
    ASSERT_GE(truth.planes.size(), 2u);
    const uint32_t numPlanes = uint32_t(truth.planes.size()),
                   numNodes = uint32_t(truth.links.size());
    const uint32_t kReal = ~0u;
    const int noPlanes = -int(numPlanes), noNodes = -int(numNodes);
    const struct {
        const char* name;
        bool nullPlanes;          // planes.data null
        int planeSlack;           // capacity of planes less the number of planes
        int linkSlack;            // capacity of links less the number of nodes
        uint32_t vertexCapacity;  // each record's vertexCount on entry (kReal: the real count)
        bool nullVertices;        // each record's vertices null
        XrResultVLM expected;
        bool linksWritten, countsWritten;  // counts: the records' vertexCount the real ones
    } cases[] = {
        {"counts only", true, noPlanes, noNodes, 0, true, kErrorBufferTooSmall, false, false},
        {"null planes with capacity", true, 0, 0, 0, true, kErrorInvalidArgument, false, false},
        {"links one short", false, 0, -1, kReal, false, kErrorBufferTooSmall, false, true},
        {"planes one short", false, -1, 0, kReal, false, kErrorBufferTooSmall, true, false},
        {"null vertices, no capacity", false, 0, 0, 0, true, kErrorBufferTooSmall, true, true},
        {"null vertices, capacity 3", false, 0, 0, 3, true, kErrorInvalidArgument, true, true},
        {"null beats short links", false, 0, -1, 3, true, kErrorInvalidArgument, false, true},
        {"vertex arrays one short", false, 0, 0, 1, false, kErrorBufferTooSmall, true, true},
        {"everything in place", false, 0, 2, kReal, false, kSuccess, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Planef> records(numPlanes + 1, Planef{});
        std::vector<std::vector<XrVector3fVLM>> contours(records.size());
        for (size_t i = 0; i < records.size(); ++i) {
            const uint32_t real = i < numPlanes ? truth.planes[i].record.vertexCount : 0;
            records[i].vertexCount = c.vertexCapacity == kReal           ? real
                                     : c.vertexCapacity == 1 && real > 0 ? real - 1
                                                                         : c.vertexCapacity;
            contours[i].resize(std::max<uint32_t>(records[i].vertexCount, 1));
            records[i].vertices = c.nullVertices ? nullptr : contours[i].data();
        }
        std::vector<SubsumedLink> links(numNodes + 2, SubsumedLink{});
        span<Planef> planeSpan{c.nullPlanes ? nullptr : records.data(),
                               uint32_t(int(numPlanes) + c.planeSlack)};
        span<SubsumedLink> linkSpan{c.nullPlanes ? nullptr : links.data(),
                                    uint32_t(int(numNodes) + c.linkSlack)};
        EXPECT_EQ(scene.getPlanes(planeSpan, linkSpan), c.expected);
        if (c.expected != kErrorInvalidArgument || !c.nullPlanes) {
            EXPECT_EQ(planeSpan.size, numPlanes);
            EXPECT_EQ(linkSpan.size, numNodes);
        }
        EXPECT_EQ(links[numNodes - 1].second == truth.links[numNodes - 1].second, c.linksWritten);
        for (uint32_t i = 0; i < numPlanes && !c.nullPlanes; ++i) {
            if (c.countsWritten) {
                EXPECT_EQ(records[i].vertexCount, truth.planes[i].record.vertexCount);
            }
            if (c.expected == kSuccess) {
                EXPECT_EQ(records[i].uuid, truth.planes[i].record.uuid);
                EXPECT_EQ(contours[i].back().z, truth.planes[i].contour.back().z);
            }
        }
    }
}

// Half the tour with depth only gives planes without labels; the rest, and a second round, with a
// label image every third frame and a query after every frame, give labels.
TEST(SplitModePlanes, LabelsArriveEveryFewDepthFrames) {
    Impl scene;
    ASSERT_EQ(scene.init(planeConfig(1, kCellSize)), kSuccess);
    const std::vector<PinholeCamera> tour = roomTour(160, 120, kViews);
    for (int v = 0; v < kViews / 2; ++v)
        fuseView(scene, 1, furnishedRoom(), tour[v], false);
    const PlaneReadout unlabelled = readPlanes(scene);
    ASSERT_FALSE(unlabelled.planes.empty());
    for (const ReadPlane& plane : unlabelled.planes)
        EXPECT_EQ(plane.record.label, 0);
    for (int v = kViews / 2; v < 2 * kViews; ++v) {
        fuseView(scene, 1, furnishedRoom(), tour[v % kViews], v % 3 == 0);
        if (v < kViews)
            readPlanes(scene);
    }
    size_t withLabel = 0;
    for (const ReadPlane& plane : readPlanes(scene).planes)
        withLabel += plane.record.label != 0 ? 1 : 0;
    EXPECT_GT(withLabel, 0u);
}

}  // namespace
}  // namespace Velmora
