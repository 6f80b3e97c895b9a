// One robust plane per block, fitted straight to the stored signed distances: near a plane the
// truncated distance field is a linear function of position, so the samples inside the band
// give the plane's normal (the field's gradient) and offset directly.
#include <cmath>
#include <cstdlib>

#include "solid/planes/PlaneDetector.h"
#include "solid/planes/SampleValues.h"

namespace Solid {

namespace {

// Samples at or beyond this normalised distance sit at the saturated ends of the band and say
// nothing about where the surface is.
constexpr float kSaturatedDistance = 0.99999f;

}  // namespace

template <typename VolumeType>
IndexSet extractSampleIndexes(const VolumeType& volume, float threshold) {
    IndexSet indices(sampleSetSize(volume));
    const Size& size = volume.size();
    for (int z = 0; z <= size(2) - 2; ++z) {
        for (int y = 0; y <= size(1) - 2; ++y) {
            for (int x = 0; x <= size(0) - 2; ++x) {
                const float absTSDF = std::abs(normalisedDistance(volume, x, y, z));
                if (absTSDF <= threshold) {
                    AR_ASSERT(absTSDF < 1.f);
                    indices.insert(Index3(x, y, z));
                }
            }
        }
    }
    return indices;
}

template <typename VolumeType>
size_t getPlaneSystem(AR::Math::Matrix<float>& X, AR::Math::Vector<float>& s,
                      const VolumeType& volume, const IndexSet& indices, float truncation,
                      const Vec3& origin) {
    const Vec3& spacing = volume.spacing();
    std::vector<float> rows;
    std::vector<float> values;
    rows.reserve(indices.size() * 4);
    values.reserve(indices.size());
    for (const Index3& index : indices) {
        const float v = normalisedDistance(volume, index(0), index(1), index(2));
        if (std::abs(v) >= kSaturatedDistance) {
            continue;
        }
        rows.push_back(origin(0) + spacing(0) * static_cast<float>(index(0)));
        rows.push_back(origin(1) + spacing(1) * static_cast<float>(index(1)));
        rows.push_back(origin(2) + spacing(2) * static_cast<float>(index(2)));
        rows.push_back(1.0f);
        values.push_back(v * truncation);
    }
    const int numRows = static_cast<int>(values.size());
    X = AR::Math::Matrix<float>(numRows, 4);
    s = AR::Math::Vector<float>(numRows);
    for (int i = 0; i < numRows; ++i) {
        for (int c = 0; c < 4; ++c) {
            X.coeff(i, c) = rows[static_cast<size_t>(i) * 4 + c];
        }
        s[i] = values[i];
    }
    return values.size();
}

template <typename Grid>
void PlaneDetector::fitPlanes(const Grid& grid, const IndexSet& updatedBlocks) {
    for (const KeyType& key : updatedBlocks) {
        const auto block = grid.get(key);
        if (!block) {
            removeLeafNode(key);
            continue;
        }
        const auto& volume = *block;
        const float threshold = 2.0f * volume.spacing()(0) / mTruncation;
        // The band must span more than two samples. init ensures five cells, but a loaded volume
        // brings its own spacing: a grid too coarse for the band gives no planes, not an abort.
        if (!(threshold < 1.f)) {
            removeLeafNode(key);
            continue;
        }
        const IndexSet indices = extractSampleIndexes(volume, threshold);
        mBlockSamples[key] = indices;
        if (indices.size() <= 2) {
            removeLeafNode(key);
            continue;
        }
        const Vec3& dimension = volume.dimension();
        const Vec3 origin(static_cast<float>(key(0)) * dimension(0),
                          static_cast<float>(key(1)) * dimension(1),
                          static_cast<float>(key(2)) * dimension(2));
        AR::Math::Matrix<float> X;
        AR::Math::Vector<float> s;
        const size_t numSamples = getPlaneSystem(X, s, volume, indices, mTruncation, origin);
        AR_ASSERT(numSamples == indices.size());
        AR::Math::Matrix<float> weightedX;
        AR::Math::Vector<float> weightedS;
        if (!solveL1(X, s, weightedX, weightedS, mSolverIterations)) {
            removeLeafNode(key);
            continue;
        }
        const Equations equations(weightedX, weightedS);
        AR_ASSERT(equations.size() >= 3u);
        AR_ASSERT(equations.getNumPosSamples() > 0u || equations.getNumNegSamples() > 0u);
        Node node;
        if (!createNode(true, equations, node)) {
            removeLeafNode(key);
            continue;
        }
        if (equations.stdError(node.plane) > mMaxStdError) {
            removeLeafNode(key);
            continue;
        }
        PlaneID id = getNodeID(key);
        if (!mPlanes[id].isValid()) {
            id = insertNode(std::move(node), key);
            AR_ASSERT(getRootID(key) == id);
        } else {
            AR_ASSERT(mPlanes[id].isValid());
            AR_ASSERT(mPlanes[id].isLeaf());
            const PlaneID root = getRootID(key);
            if (root != id) {
                AR_ASSERT(mPlanes[root].isValid());
                const Equations sum = mPlanes[root].equations + equations - mPlanes[id].equations;
                if (!updateEquations(mPlanes[root], sum)) {
                    removeLeafNode(key);
                    continue;
                }
            }
            const bool updateOK = updateEquations(mPlanes[id], equations);
            AR_ASSERT(updateOK);
        }
        AR_ASSERT(getNode(id).isValid());
        AR_ASSERT(!getNode(INVALID).isValid());
        AR_ASSERT(mIdxCount == mPlanes.size());
    }
}

template IndexSet extractSampleIndexes(const DepthVolume&, float);
template IndexSet extractSampleIndexes(const LabelDepthVolume&, float);
template size_t getPlaneSystem(AR::Math::Matrix<float>&, AR::Math::Vector<float>&,
                               const DepthVolume&, const IndexSet&, float, const Vec3&);
template size_t getPlaneSystem(AR::Math::Matrix<float>&, AR::Math::Vector<float>&,
                               const LabelDepthVolume&, const IndexSet&, float, const Vec3&);
template void PlaneDetector::fitPlanes(const DepthGrid&, const IndexSet&);
template void PlaneDetector::fitPlanes(const LabelDepthGrid&, const IndexSet&);

}  // namespace Solid
