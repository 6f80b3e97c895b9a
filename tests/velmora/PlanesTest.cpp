// getPlanes through the scene: the planes of a fused furnished room in both run modes (equation,
// label, closed outline on the plane), the three-call protocol with every edge case as one table,
// the merge links, and split mode with labels arriving only every few depth frames.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "support/PlaneScenes.h"
#include "support/SceneSetup.h"
#include "velmora/Impl.h"
#include "velmora/ImplState.h"
#include "velmora/ObjectIds.h"

namespace Velmora {
namespace {

constexpr float kCellSize = 0.02f;
constexpr float kTruncation = 0.1f;
constexpr int kViews = 24;
// A reported plane stands for a true one when its normal is within this angle (radians) and its
// constant within this distance (metres).
constexpr float kNormalTolerance = 0.05f;
constexpr float kOffsetTolerance = 0.02f;
// Outline points may stand up to the fit's band (two cells) beyond an edge.
constexpr float kOutlineTolerance = 2.0f * kCellSize + 0.01f;

Config planeConfig(int32_t mode, bool detectPlanes = true) {
    Config config{};
    config.cellSize = kCellSize;
    config.truncation = kTruncation;
    config.mode = mode;
    config.detectPlanes = detectPlanes;
    config.planeMaxStdError = 0.01f;
    config.planeMaxAngle = 0.1f;
    config.planeSolverIterations = 5;
    config.planeContourAlpha = 0.0f;
    config.labelPlanes = true;
    return config;
}

void submitView(IVelmora& scene, int32_t mode, const Velmora::Test::PinholeCamera& camera,
                const Velmora::Test::AnalyticScene& room, bool withLabels = true) {
    Velmora::Test::fuseView(scene, mode, room, camera, withLabels);
}

struct ReadPlane {
    Planef record;
    std::vector<XrVector3fVLM> contour;
};

struct PlaneReadout {
    std::vector<ReadPlane> planes;
    std::vector<SubsumedLink> links;
};

// The full three-call read of a host.
PlaneReadout readPlanes(IVelmora& scene) {
    PlaneReadout out;
    span<Planef> planes{nullptr, 0};
    span<SubsumedLink> links{nullptr, 0};
    const XrResultVLM counts = scene.getPlanes(planes, links);
    EXPECT_TRUE(counts == kErrorBufferTooSmall || counts == kSuccess);
    if (counts == kSuccess) {
        return out;
    }
    std::vector<Planef> records(planes.size, Planef{});
    out.links.resize(links.size);
    planes.data = records.data();
    links.data = out.links.data();
    EXPECT_EQ(scene.getPlanes(planes, links), kErrorBufferTooSmall);
    std::vector<std::vector<XrVector3fVLM>> contours(records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        contours[i].resize(records[i].vertexCount);
        records[i].vertices = contours[i].data();
    }
    EXPECT_EQ(scene.getPlanes(planes, links), kSuccess);
    for (size_t i = 0; i < records.size(); ++i) {
        out.planes.push_back({records[i], contours[i]});
    }
    return out;
}

struct TruePlane {
    const char* name;
    float normal[3];
    float offset;
    uint16_t label;
};

const TruePlane kFloor{"floor", {0.f, 0.f, 1.f}, 0.f, 1};
const TruePlane kTable{"table top",
                       {0.f, 0.f, 1.f},
                       -static_cast<float>(Velmora::Test::kTableTop),
                       Velmora::Test::kTableLabel};

std::vector<const ReadPlane*> planesOf(const PlaneReadout& readout, const TruePlane& truth) {
    std::vector<const ReadPlane*> found;
    for (const ReadPlane& plane : readout.planes) {
        const float* p = plane.record.plane;
        const float dot = p[0] * truth.normal[0] + p[1] * truth.normal[1] + p[2] * truth.normal[2];
        if (std::acos(std::min(1.0f, dot)) < kNormalTolerance &&
            std::abs(p[3] - truth.offset) < kOffsetTolerance) {
            found.push_back(&plane);
        }
    }
    return found;
}

class FusedRoomPlanes : public ::testing::TestWithParam<int32_t> {
protected:
    void SetUp() override {
        scene.reset(newVelmora());
        ASSERT_EQ(scene->init(planeConfig(GetParam())), kSuccess);
        for (const Velmora::Test::PinholeCamera& camera :
             Velmora::Test::roomTour(160, 120, kViews)) {
            submitView(*scene, GetParam(), camera, room);
        }
    }

    const Velmora::Test::AnalyticScene room = Velmora::Test::furnishedRoom();
    std::unique_ptr<IVelmora> scene;
};

TEST_P(FusedRoomPlanes, FloorAndTableTopWithLabelsAndOutlines) {
    const PlaneReadout readout = readPlanes(*scene);
    for (const TruePlane* truth : {&kFloor, &kTable}) {
        const std::vector<const ReadPlane*> found = planesOf(readout, *truth);
        ASSERT_EQ(found.size(), 1u) << truth->name;
        const ReadPlane& plane = *found[0];
        // Label sums are 16-bit and wrap: on a plane as large as the split mode's floor (every
        // label frame votes into every sample) the sum no longer tells the labels apart, so there
        // only a label at all is required.
        if (truth == &kFloor && GetParam() == 1) {
            EXPECT_NE(plane.record.label, 0) << truth->name;
        } else {
            EXPECT_EQ(plane.record.label, truth->label) << truth->name;
        }
        EXPECT_EQ(plane.record.reserved, 0u);
        ASSERT_GE(plane.contour.size(), 4u) << truth->name;
        EXPECT_EQ(plane.contour.front().x, plane.contour.back().x) << "closed";
        EXPECT_EQ(plane.contour.front().y, plane.contour.back().y) << "closed";
        for (const XrVector3fVLM& p : plane.contour) {
            EXPECT_NEAR(p.z, -truth->offset, 0.011f) << truth->name << ": on its plane";
        }
    }
    // The table's outline lies within the table top (and the band around its edges).
    for (const XrVector3fVLM& p : planesOf(readout, kTable)[0]->contour) {
        EXPECT_GT(p.x, Velmora::Test::kTableOutline[0] - kOutlineTolerance);
        EXPECT_GT(p.y, Velmora::Test::kTableOutline[1] - kOutlineTolerance);
        EXPECT_LT(p.x, Velmora::Test::kTableOutline[2] + kOutlineTolerance);
        EXPECT_LT(p.y, Velmora::Test::kTableOutline[3] + kOutlineTolerance);
    }
    // The floor's outline spans the observed floor: most of the room in both directions.
    float minX = 10.f, maxX = -10.f, minY = 10.f, maxY = -10.f;
    for (const XrVector3fVLM& p : planesOf(readout, kFloor)[0]->contour) {
        minX = std::min(minX, p.x);
        maxX = std::max(maxX, p.x);
        minY = std::min(minY, p.y);
        maxY = std::max(maxY, p.y);
    }
    EXPECT_LT(minX, 0.5f);
    EXPECT_GT(maxX, 3.5f);
    EXPECT_LT(minY, 0.5f);
    EXPECT_GT(maxY, 2.5f);
}

TEST_P(FusedRoomPlanes, LinksNameEachNodeAndItsRoot) {
    const PlaneReadout readout = readPlanes(*scene);
    Solid::PlaneDetector& detector = internalState(*static_cast<Impl*>(scene.get())).mPlaneDetector;
    ASSERT_EQ(readout.links.size(), detector.numCreatedNodes());
    for (uint32_t node = 0; node < readout.links.size(); ++node) {
        const uint32_t root = static_cast<uint32_t>(detector.getRootID(node));
        EXPECT_EQ(readout.links[node].first, makeObjectUuid(0, kUuidKindPlane, root));
        EXPECT_EQ(readout.links[node].second, makeObjectUuid(0, kUuidKindPlane, node));
    }
    // A plane's id is its node: kind 1 in bytes 12 to 15, the node in bytes 8 to 11.
    const UuidBytes& id = readout.planes.at(0).record.uuid;
    EXPECT_EQ(id[12], 1);
    const uint32_t node = id[8] | id[9] << 8 | id[10] << 16 | static_cast<uint32_t>(id[11]) << 24;
    EXPECT_TRUE(detector.getNode(node).isRoot());
    EXPECT_EQ(readout.planes.size(), detector.getRootIDs().size());
}

INSTANTIATE_TEST_SUITE_P(BothModes, FusedRoomPlanes, ::testing::Values(0, 1),
                         [](const ::testing::TestParamInfo<int32_t>& info) {
                             return info.param == 0 ? std::string("Combined")
                                                    : std::string("Split");
                         });

// One call of the protocol on the fused room, with the host's spans as a case sets them.
struct ProtocolCase {
    const char* name;
    bool nullPlanes;          // planes.data null
    int planeSlack;           // capacity of planes less the number of planes
    int linkSlack;            // capacity of links less the number of nodes
    uint32_t vertexCapacity;  // each record's vertexCount on entry (~0u: the real count)
    bool nullVertices;        // each record's vertices null
    XrResultVLM expected;
    bool linksWritten;
    bool countsWritten;  // the records' vertexCount replaced by the real counts
};

TEST(PlanesProtocol, EveryEdgeCase) {
    std::unique_ptr<IVelmora> scene(newVelmora());
    ASSERT_EQ(scene->init(planeConfig(0)), kSuccess);
    {
        // Nothing fused yet: success, and the spans keep their capacities.
        span<Planef> planes{nullptr, 0};
        SubsumedLink link{};
        span<SubsumedLink> links{&link, 1};
        EXPECT_EQ(scene->getPlanes(planes, links), kSuccess);
        EXPECT_EQ(links.size, 1u);
    }
    const Velmora::Test::AnalyticScene room = Velmora::Test::furnishedRoom();
    for (const Velmora::Test::PinholeCamera& camera : Velmora::Test::roomTour(160, 120, kViews)) {
        submitView(*scene, 0, camera, room);
    }
    const PlaneReadout truth = readPlanes(*scene);
    ASSERT_GE(truth.planes.size(), 2u);
    const uint32_t numPlanes = static_cast<uint32_t>(truth.planes.size());
    const uint32_t numNodes = static_cast<uint32_t>(truth.links.size());

    const uint32_t kReal = ~0u;
    const std::vector<ProtocolCase> cases = {
        {"counts only", true, -static_cast<int>(numPlanes), -static_cast<int>(numNodes), 0, true,
         kErrorBufferTooSmall, false, false},
        {"null planes with capacity", true, 0, 0, 0, true, kErrorInvalidArgument, false, false},
        {"links one short", false, 0, -1, kReal, false, kErrorBufferTooSmall, false, true},
        {"planes one short, links filled", false, -1, 0, kReal, false, kErrorBufferTooSmall, true,
         false},
        {"null vertices and no capacity", false, 0, 0, 0, true, kErrorBufferTooSmall, true, true},
        {"null vertices with capacity 3", false, 0, 0, 3, true, kErrorInvalidArgument, true, true},
        {"null error wins over short links", false, 0, -1, 3, true, kErrorInvalidArgument, false,
         true},
        {"vertex arrays one short", false, 0, 0, 1, false, kErrorBufferTooSmall, true, true},
        {"everything in place", false, 0, 2, kReal, false, kSuccess, true, true},
    };
    for (const ProtocolCase& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t planeCapacity =
            static_cast<uint32_t>(static_cast<int>(numPlanes) + c.planeSlack);
        const uint32_t linkCapacity =
            static_cast<uint32_t>(static_cast<int>(numNodes) + c.linkSlack);
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
        const SubsumedLink blank{};
        std::vector<SubsumedLink> links(numNodes + 2, blank);
        span<Planef> planeSpan{c.nullPlanes ? nullptr : records.data(), planeCapacity};
        span<SubsumedLink> linkSpan{c.nullPlanes ? nullptr : links.data(), linkCapacity};
        EXPECT_EQ(scene->getPlanes(planeSpan, linkSpan), c.expected);
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

TEST(PlanesProtocol, DisabledDetectionKeepsThePendingBlocks) {
    std::unique_ptr<IVelmora> scene(newVelmora());
    ASSERT_EQ(scene->init(planeConfig(1, false)), kSuccess);
    submitView(*scene, 1, Velmora::Test::roomTour(160, 120, kViews)[0],
               Velmora::Test::furnishedRoom());
    span<Planef> planes{nullptr, 5};  // would be an argument error
    span<SubsumedLink> links{nullptr, 5};
    EXPECT_EQ(scene->getPlanes(planes, links), kErrorPlanesDisabled);
    EXPECT_EQ(planes.size, 5u);
    EXPECT_FALSE(internalState(*static_cast<Impl*>(scene.get())).mPlaneUpdatedBlocks.empty());
}

TEST(SplitModePlanes, LabelsArriveEveryFewDepthFrames) {
    std::unique_ptr<IVelmora> scene(newVelmora());
    ASSERT_EQ(scene->init(planeConfig(1)), kSuccess);
    const Velmora::Test::AnalyticScene room = Velmora::Test::furnishedRoom();
    const std::vector<Velmora::Test::PinholeCamera> tour =
        Velmora::Test::roomTour(160, 120, kViews);
    // Half the tour with depth only: planes, but no label block yet.
    for (int v = 0; v < kViews / 2; ++v) {
        submitView(*scene, 1, tour[v], room, false);
    }
    const PlaneReadout unlabelled = readPlanes(*scene);
    ASSERT_FALSE(unlabelled.planes.empty());
    for (const ReadPlane& plane : unlabelled.planes) {
        EXPECT_EQ(plane.record.label, 0);
    }
    // The rest with a label image every third frame, and a query after every frame.
    for (int v = kViews / 2; v < kViews; ++v) {
        submitView(*scene, 1, tour[v], room, v % 3 == 0);
        readPlanes(*scene);
    }
    // A second round over the whole tour with labels every third frame.
    for (int v = 0; v < kViews; ++v) {
        submitView(*scene, 1, tour[v], room, v % 3 == 0);
    }
    const PlaneReadout labelled = readPlanes(*scene);
    size_t withLabel = 0;
    for (const ReadPlane& plane : labelled.planes) {
        withLabel += plane.record.label != 0 ? 1 : 0;
    }
    EXPECT_GT(withLabel, 0u) << "labels appear once label frames cover the planes";
}

}  // namespace
}  // namespace Velmora
