#include "solid/surface/MarchingCubes2.h"

#include "common/Logger.h"
#include "common/Timing.h"
#include "solid/surface/CubeTables.h"

namespace Solid {

namespace CT = CubeTables;

namespace {

// Key of `edge` of the cell whose lowest corner is at `cell` (x, y, z).
template <typename Cell>
AR::Math::Vector<int, 4> edgeKey(const Cell& cell, int edge) {
    const AR::Math::Vector<int, 4>& offset = CT::IndexOffsetTable[edge];
    return AR::Math::Vector<int, 4>(cell[0] + offset[0], cell[1] + offset[1], cell[2] + offset[2],
                                    offset[3]);
}

}  // namespace

template <typename VOLUME_>
void MarchingCubes2<VOLUME_>::computeMarchingCubesIncremental(const Grid& grid,
                                                              const IndexSet& blocks,
                                                              float isoValue, int weightThreshold,
                                                              Vec3Vec& points, IdxVec& indices,
                                                              ExtractSurfaceStats& stats) {
    AR_LOG_VERBOSE("[%s]", "computeMarchingCubesIncremental");
    vertices.clear();
    cells.clear();
    AR::Common::Timing timing;
    timing.beginSection(true);
    addCellsIncremental(grid, blocks, isoValue, weightThreshold);
    timing.endSection();
    stats.cellsDuration = timing.getDuration(false);
    stats.numCells = cells.size();
    stats.numVertices = vertices.size();
    createMesh(points, indices, grid.gridSpacing(), stats);
}

template <typename VOLUME_>
void MarchingCubes2<VOLUME_>::addCellsIncremental(const Grid& grid, const IndexSet& blocks,
                                                  float isoValue, int weightThreshold) {
    AR_LOG_VERBOSE("[%s]", "addCellsIncremental");
    const Index3& bounds = grid.config().bounds;
    for (const KeyType& key : blocks) {
        auto block = grid.get(key);
        if (block) {
            addCells(*block, isoValue, weightThreshold,
                     Index3(key[0] * bounds[0], key[1] * bounds[1], key[2] * bounds[2]));
        }
    }
}

template <typename VOLUME_>
void MarchingCubes2<VOLUME_>::addCells(const Volume& volume, float isoValue, int weightThreshold,
                                       const AR::Math::Vector<int, 3>& origin) {
    const Index3& cellCount = volume.bounds();
    const int nx = volume.size()[0];
    const int slice = nx * volume.size()[1];
    int cornerStep[CT::kNumCorners];
    for (int c = 0; c < CT::kNumCorners; ++c) {
        const int* o = CT::kCornerOffset[c];
        cornerStep[c] = o[0] + nx * o[1] + slice * o[2];
    }
    const auto* samples = volume.data();
    float values[CT::kNumCorners];
    for (int z = 0; z < cellCount[2]; ++z) {
        for (int y = 0; y < cellCount[1]; ++y) {
            for (int x = 0; x < cellCount[0]; ++x) {
                const auto* first = samples + x + nx * y + slice * z;
                bool observed = true;
                for (int c = 0; c < CT::kNumCorners && observed; ++c) {
                    observed = depthPart(first[cornerStep[c]])[1] > weightThreshold;
                }
                if (!observed) {
                    continue;
                }
                int cubeIndex = 0;
                for (int c = 0; c < CT::kNumCorners; ++c) {
                    values[c] = -isoValue + static_cast<float>(depthPart(first[cornerStep[c]])[0]) *
                                                kDepthValueScale;
                    if (values[c] > 0.0f) {
                        cubeIndex |= 1 << c;
                    }
                }
                if (cubeIndex == CT::kAllBelow) {
                    continue;
                }
                const AR::Math::Vector<int, 4> cell(origin[0] + x, origin[1] + y, origin[2] + z,
                                                    cubeIndex);
                cells.push_back(cell);
                const int8_t* row = CT::kTriangleTable[cubeIndex];
                for (int i = 0; i < CT::kRowLength && row[i] != CT::kEndOfRow; ++i) {
                    const int edge = row[i];
                    VertexInfo info;
                    info.t = 0.0f;
                    auto inserted = vertices.insert(edgeKey(cell, edge), info);
                    if (inserted.second) {
                        const float a = values[CT::IndexCornerStartTable[edge]];
                        const float b = values[CT::IndexCornerEndTable[edge]];
                        inserted.first->second.t = -a / (b - a);
                    }
                }
            }
        }
    }
}

template <typename VOLUME_>
void MarchingCubes2<VOLUME_>::createMesh(Vec3Vec& points, IdxVec& indices, const Vec3& spacing,
                                         ExtractSurfaceStats& stats) {
    AR_LOG_VERBOSE("[%s]", "createMesh");
    AR::Common::Timing timing;
    timing.beginSection(true);
    points.resize(vertices.size());
    uint32_t counter = 0;
    for (auto& entry : vertices) {
        const EdgeKey& key = entry.first;
        Vec3 p(spacing[0] * static_cast<float>(key[0]), spacing[1] * static_cast<float>(key[1]),
               spacing[2] * static_cast<float>(key[2]));
        const int axis = key[3];
        p[axis] += entry.second.t * spacing[axis];
        points[counter] = p;
        entry.second.index = counter;
        ++counter;
    }
    timing.endSection();
    stats.verticesDuration = timing.getDuration(false);
    timing.beginSection(true);
    indices.clear();
    indices.reserve(4 * cells.size());
    for (const AR::Math::Vector<int, 4>& cell : cells) {
        const int cubeIndex = cell[3];
        if (cubeIndex == CT::kAllBelow || cubeIndex == CT::kAllAbove) {
            continue;
        }
        const int8_t* row = CT::kTriangleTable[cubeIndex];
        for (int i = 0; i < CT::kRowLength && row[i] != CT::kEndOfRow; ++i) {
            auto vInfo = vertices.find(edgeKey(cell, row[i]));
            AR_ASSERT(vInfo != vertices.end());
            AR_ASSERT(vInfo->second.index < points.size());
            indices.push_back(vInfo->second.index);
        }
    }
    timing.endSection();
    stats.indicesDuration = timing.getDuration(false);
}

template class MarchingCubes2<DepthVolume>;
template class MarchingCubes2<LabelDepthVolume>;

}  // namespace Solid
