#include "solid/surface/MarchingCubes.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "common/Trace.h"
#include "solid/surface/CubeTables.h"

namespace Solid {

namespace CT = CubeTables;

namespace {
// Longest row of samples that the row masks of calculateIsoSurface hold.
constexpr int kMaxRowLength = 32;
}  // namespace

template <typename FLOAT_, typename VOLUME_>
MarchingCubes<FLOAT_, VOLUME_>::MarchingCubes() {
    for (int e = 0; e < CT::kNumEdges; ++e) {
        const int* start = CT::kCornerOffset[CT::kEdgeCorners[e][0]];
        const int* end = CT::kCornerOffset[CT::kEdgeCorners[e][1]];
        mEdgeOrigins.push_back(Vec3(start[0], start[1], start[2]));
        mEdgeDirections.push_back(Vec3(end[0] - start[0], end[1] - start[1], end[2] - start[2]));
    }
}

template <typename FLOAT_, typename VOLUME_>
int MarchingCubes<FLOAT_, VOLUME_>::plainCubeIndex(const Volume& volume, int x, int y, int z,
                                                   TypeVec& values) {
    int cubeIndex = 0;
    for (int c = 0; c < CT::kNumCorners; ++c) {
        const int* o = CT::kCornerOffset[c];
        const auto& sample = depthPart(volume.at(x + o[0], y + o[1], z + o[2]));
        values[c] = static_cast<FLOAT_>(sample[0]) * kDepthValueScale;
        if (values[c] > 0.0f) {
            cubeIndex |= 1 << c;
        }
    }
    return cubeIndex;
}

template <typename FLOAT_, typename VOLUME_>
void MarchingCubes<FLOAT_, VOLUME_>::computeMarchingCubes(const Grid& grid, const IndexSet& blocks,
                                                          int weightThreshold, MeshGridType& meshes,
                                                          ExtractSurfaceStats& stats,
                                                          const TestVertexFunc& func) {
    for (const KeyType& key : blocks) {
        PolygonMesh& mesh = meshes[key];
        mesh.resetStreams();
        PolygonMesh::Positions& points = mesh.positions();
        PolygonMesh::Indices& indices = mesh.indices();
        {
            auto block = grid.get(key);
            if (block) {
                computeMarchingCubes(*block, weightThreshold, points, indices, key, func);
            }
        }
        stats.numVertices += points.size();
        stats.numIndices += indices.size();
    }
}

template <typename FLOAT_, typename VOLUME_>
void MarchingCubes<FLOAT_, VOLUME_>::computeMarchingCubes(const Volume& volume, int weightThreshold,
                                                          Vec3Vec& points, IdxVec& indices,
                                                          const Index3& blockIndex,
                                                          const TestVertexFunc& func) {
    {
        AR::Common::ScopedTrace trace("calcIsoSurface");
        calculateIsoSurface(volume, weightThreshold, mBlockPoints, mBlockIndices, func,
                            Index3(0, 0, 0));
    }
    AR::Common::ScopedTrace trace("transformGeo");
    const Vec3& spacing = volume.spacing();
    const Index3& bounds = volume.bounds();
    Vec3 origin;
    for (int a = 0; a < 3; ++a) {
        // In 64 bits: keys of far-away blocks times the block's cells leave the range of int.
        origin[a] =
            spacing[a] * static_cast<float>(static_cast<int64_t>(bounds[a]) * blockIndex[a]);
    }
    const unsigned int base = points.size();
    const Vec3* blockPoints = mBlockPoints.data();
    const unsigned int* blockIndices = mBlockIndices.data();
    points.append_generated(mBlockPoints.size(),
                            [blockPoints, &origin](uint32_t i) { return blockPoints[i] + origin; });
    indices.append_generated(mBlockIndices.size(),
                             [blockIndices, base](uint32_t i) { return blockIndices[i] + base; });
}

template <typename FLOAT_, typename VOLUME_>
bool MarchingCubes<FLOAT_, VOLUME_>::calculateIsoSurface(const Volume& volume, int weightThreshold,
                                                         Vec3Vec& points, IdxVec& indices,
                                                         const TestVertexFunc& func,
                                                         const Index3& offset) {
    const Size& size = volume.size();
    const int nx = size[0];
    const int ny = size[1];
    const int nz = size[2];
    const int slice = nx * ny;
    mCells.resize(static_cast<uint32_t>(2 * slice));
    points.clear();
    indices.clear();
    if (nz < 2) {
        return true;
    }
    // One pass over the samples first: for each row of samples (fixed y and z), a bit mask of
    // the samples whose weight passes and one of those above the level. Eight cells of a row
    // are then tested at once by combining the masks of the four sample rows at their corners,
    // and most rows of a block carry no surface at all.
    AR_ASSERT(nx <= kMaxRowLength);
    const int numRows = ny * nz;
    mRowMasks.resize(static_cast<uint32_t>(2 * numRows));
    uint32_t* observedRows = mRowMasks.data();
    uint32_t* aboveRows = observedRows + numRows;
    const auto* samples = volume.data();
    uint32_t anyObserved = 0;
    uint32_t anyAbove = 0;
    uint32_t allAbove = ~0u;
    for (int r = 0; r < numRows; ++r) {
        uint32_t observed = 0;
        uint32_t above = 0;
        for (int x = 0; x < nx; ++x) {
            const auto& sample = depthPart(samples[r * nx + x]);
            observed |= static_cast<uint32_t>(sample[1] > weightThreshold) << x;
            above |= static_cast<uint32_t>(sample[0] > 0) << x;
        }
        observedRows[r] = observed;
        aboveRows[r] = above;
        anyObserved |= observed;
        anyAbove |= above;
        allAbove &= above;
    }
    const uint32_t fullRow = (1u << nx) - 1;
    // A block that is unobserved, or wholly on one side of the level, has no surface.
    if (anyObserved == 0 || anyAbove == 0 || allAbove == fullRow) {
        return true;
    }
    const uint32_t cellRow = (1u << (nx - 1)) - 1;  // one bit per cell of a row
    Cell* ring = mCells.data();
    TypeVec values;
    for (int z = 0; z < nz - 1; ++z) {
        Cell* current = ring + (z & 1) * slice;
        Cell* previous = ring + ((z + 1) & 1) * slice;
        for (int y = 0; y < ny - 1; ++y) {
            // Every cell starts blank, whether or not it goes on to make triangles: later cells
            // read their neighbours' entries.
            Cell* rowCells = current + y * nx;
            for (int x = 0; x < nx - 1; ++x) {
                std::fill(std::begin(rowCells[x].edge), std::end(rowCells[x].edge), -1);
            }
            // Corner c of cell x is bit x of the mask of row rows[c] (the sample rows at (y, z),
            // (y+1, z), (y, z+1), (y+1, z+1)), shifted down by one for the corners at x + 1.
            const int r0 = y + ny * z;
            const int rows[CT::kNumCorners] = {r0,      r0,      r0 + 1,      r0 + 1,
                                               r0 + ny, r0 + ny, r0 + ny + 1, r0 + ny + 1};
            uint32_t observedAll = cellRow;
            uint32_t aboveAny = 0;
            uint32_t aboveAll = cellRow;
            for (int c = 0; c < CT::kNumCorners; ++c) {
                const int shift = CT::kCornerOffset[c][0];
                const uint32_t above = aboveRows[rows[c]] >> shift;
                observedAll &= observedRows[rows[c]] >> shift;
                aboveAny |= above;
                aboveAll &= above;
            }
            // The cube-index function returns the plain index or a veto, so a cell whose plain
            // index has no triangles needs no call.
            uint32_t candidates = observedAll & aboveAny & ~aboveAll & cellRow;
            while (candidates != 0) {
                const int x = __builtin_ctz(candidates);
                candidates &= candidates - 1;
                Cell& cell = rowCells[x];
                const int cubeIndex = func(volume, x, y, z, values);
                if (cubeIndex == CT::kAllBelow || cubeIndex == CT::kAllAbove) {
                    continue;
                }
                int32_t* c = cell.edge;
                if (x > 0) {
                    const int32_t* left = current[y * nx + x - 1].edge;
                    c[3] = left[1];
                    c[8] = left[9];
                    c[7] = left[5];
                    c[11] = left[10];
                }
                if (y > 0) {
                    const int32_t* below = current[(y - 1) * nx + x].edge;
                    if (c[8] == -1) {
                        c[8] = below[11];
                    }
                    c[0] = below[2];
                    c[9] = below[10];
                    c[4] = below[6];
                }
                if (z > 0) {
                    const int32_t* back = previous[y * nx + x].edge;
                    if (c[3] == -1) {
                        c[3] = back[7];
                    }
                    if (c[0] == -1) {
                        c[0] = back[4];
                    }
                    c[1] = back[5];
                    c[2] = back[6];
                    if (c[1] == -1 && x < nx - 2) {
                        c[1] = previous[y * nx + x + 1].edge[7];
                    }
                    if (c[2] == -1 && y < ny - 2) {
                        c[2] = previous[(y + 1) * nx + x].edge[4];
                    }
                }
                if (y > 0 && c[9] == -1 && x < nx - 2) {
                    c[9] = current[(y - 1) * nx + x + 1].edge[11];
                }
                if (x > 0 && y > 0 && c[8] == -1) {
                    c[8] = current[(y - 1) * nx + x - 1].edge[10];
                }
                calculateCellTriangles(cubeIndex, Vec3(x, y, z), values, cell, points, indices);
            }
        }
    }
    const Vec3& spacing = volume.spacing();
    for (Vec3& p : points) {
        for (int a = 0; a < 3; ++a) {
            p[a] = spacing[a] * (p[a] + static_cast<float>(offset[a]));
        }
    }
    return true;
}

template <typename FLOAT_, typename VOLUME_>
bool MarchingCubes<FLOAT_, VOLUME_>::calculateCellTriangles(int cubeIndex, const Vec3& cellPosition,
                                                            const TypeVec& values, Cell& cell,
                                                            Vec3Vec& points, IdxVec& indices) {
    AR_ASSERT(cubeIndex != CT::kAllBelow && cubeIndex != CT::kNumCubeIndices);
    const int8_t* row = CT::kTriangleTable[cubeIndex];
    for (int i = 0; i < CT::kRowLength && row[i] != CT::kEndOfRow; i += 3) {
        for (int k = 0; k < 3; ++k) {
            const int edge = row[i + k];
            int32_t& entry = cell.edge[edge];
            if (entry == -1) {
                entry = static_cast<int32_t>(points.size());
                points.push_back(cellPosition + calculatePoint(values, static_cast<size_t>(edge)));
            }
            indices.push_back(static_cast<unsigned int>(entry));
        }
    }
    return true;
}

template <typename FLOAT_, typename VOLUME_>
Vec3 MarchingCubes<FLOAT_, VOLUME_>::calculatePoint(const TypeVec& values, size_t edge) const {
    AR_ASSERT(edge < static_cast<size_t>(CT::kNumEdges));
    const FLOAT_ a = values[CT::kEdgeCorners[edge][0]];
    const FLOAT_ b = values[CT::kEdgeCorners[edge][1]];
    const FLOAT_ t = -a / (b - a);
    return mEdgeOrigins[edge] + mEdgeDirections[edge] * t;
}

template class MarchingCubes<float, DepthVolume>;
template class MarchingCubes<float, LabelDepthVolume>;

}  // namespace Solid
