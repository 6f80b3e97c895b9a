#include "solid/planes/PlaneDetector.h"

#include <cmath>
#include <deque>
#include <utility>

namespace Solid {

void PlaneDetector::Node::free() {
    equations = Equations();
    blocks = IndexSet();
    std::vector<Vec3>().swap(geometry);
    std::vector<Vec3>().swap(contour);
    AR_ASSERT(equations.getNumBlocks() == 0ul);
    AR_ASSERT(blocks.empty());
    AR_ASSERT(geometry.capacity() == 0u);
    AR_ASSERT(contour.capacity() == 0u);
}

void PlaneDetector::Node::reset() {
    AR_ASSERT(isValid());
    free();
    id = INVALID;
}

PlaneDetector::PlaneDetector() {
    mPlanes.reserve(kReservedNodes);
    for (int x = -1; x <= 1; ++x) {
        for (int y = -1; y <= 1; ++y) {
            for (int z = -1; z <= 1; ++z) {
                if (x != 0 || y != 0 || z != 0) {
                    mNeighbourOffsets.emplace_back(x, y, z);
                }
            }
        }
    }
    clear();
}

void PlaneDetector::configure(float truncation, float maxStdError, float maxAngle,
                              uint32_t solverIterations, float contourAlpha) {
    mEnabled = true;
    mTruncation = truncation;
    mMaxStdError = maxStdError;
    mMaxAngle = maxAngle;
    mSolverIterations = solverIterations;
    mContourAlpha = contourAlpha;
}

void PlaneDetector::clear() {
    mIdxCount = 0;
    mGridIdxs.clear();
    mPlanes.clear();
    Node invalid;
    invalid.leaf = true;
    const PlaneID firstID = insertNode(std::move(invalid));
    AR_ASSERT(firstID == INVALID);
}

const PlaneDetector::Node& PlaneDetector::getNode(PlaneID id) const {
    AR_ASSERT(id < mPlanes.size());
    return mPlanes[id];
}

PlaneID PlaneDetector::getNodeID(const Index3& block) const {
    const auto it = mGridIdxs.find(block);
    return it == mGridIdxs.end() ? INVALID : it->second;
}

PlaneID PlaneDetector::getRootID(PlaneID id) const {
    AR_ASSERT(id < numCreatedNodes());
    PlaneID current = id;
    for (;;) {
        const PlaneID parent = mPlanes[current].parent;
        AR_ASSERT(parent >= current);
        AR_ASSERT(parent < numCreatedNodes());
        if (parent == current) {
            return current;
        }
        current = parent;
    }
}

PlaneID PlaneDetector::getRootID(const Index3& block) const {
    const PlaneID leaf = getNodeID(block);
    return leaf == INVALID ? INVALID : getRootID(leaf);
}

PlaneIDSet PlaneDetector::getRootIDs() const {
    PlaneIDSet roots;
    for (PlaneID id = 1; id < numCreatedNodes(); ++id) {
        const PlaneID root = getRootID(id);
        if (mPlanes[root].isRoot()) {
            roots.insert(root);
        }
    }
    return roots;
}

size_t PlaneDetector::numCreatedNodes() const {
    AR_ASSERT(mPlanes.size() == mIdxCount);
    return mPlanes.size();
}

size_t PlaneDetector::numRootNodes() const {
    size_t count = 0;
    for (const Node& node : mPlanes) {
        count += node.isRoot() ? 1 : 0;
    }
    return count;
}

size_t PlaneDetector::numLeafNodes() const {
    size_t count = 0;
    for (const Node& node : mPlanes) {
        count += node.isLeaf() ? 1 : 0;
    }
    return count;
}

PlaneID PlaneDetector::insertNode(Node&& node) {
    const PlaneID id = mIdxCount;
    node.id = id;
    node.parent = id;
    mPlanes.push_back(std::move(node));
    ++mIdxCount;
    AR_ASSERT(mPlanes.size() == mIdxCount);
    return id;
}

PlaneID PlaneDetector::insertNode(Node&& node, const Index3& block) {
    const PlaneID id = insertNode(std::move(node));
    AR_ASSERT(id != INVALID);
    mPlanes[id].blocks.insert(block);
    mGridIdxs[block] = id;
    return id;
}

void PlaneDetector::removeLeafNode(const Index3& block) {
    AR_ASSERT(numLeafNodes() == mGridIdxs.size());
    const PlaneID leafId = getNodeID(block);
    if (!mPlanes[leafId].isValid()) {
        return;
    }
    Node& leaf = mPlanes[leafId];
    AR_ASSERT(leaf.isLeaf() && leaf.id != INVALID);
    for (const Node& other : mPlanes) {
        AR_ASSERT(&other == &leaf || other.parent != leaf.id);
    }
    const PlaneID rootId = getRootID(leafId);
    if (rootId != leafId) {
        Node& root = mPlanes[rootId];
        root.blocks.erase(block);
        if (!root.blocks.empty()) {
            const bool updateOK = updateEquations(root, root.equations - leaf.equations);
            AR_ASSERT(updateOK);
        } else {
            root.reset();
        }
        AR_ASSERT((root.id == INVALID) == root.blocks.empty());
        AR_ASSERT(root.equations.getNumBlocks() == root.blocks.size());
    }
    leaf.reset();
    mGridIdxs.erase(block);
    AR_ASSERT(!getNode(getNodeID(block)).isValid() && !getNode(getNodeID(block)).isLeaf());
}

bool PlaneDetector::createNode(bool isLeaf, const Equations& equations, Node& node) const {
    AR_ASSERT(equations.size() >= 3);
    node = Node();
    node.equations = equations;
    node.leaf = isLeaf;
    return updateEquations(node, equations);
}

bool PlaneDetector::updateEquations(Node& node, const Equations& equations) const {
    AR_ASSERT(equations.size() >= 3);
    AR_ASSERT(equations.getNumBlocks() > 0u);
    node.equations = equations;
    if (node.equations.solve(node.plane)) {
        return true;
    }
    if (node.blocks.empty()) {
        return false;
    }
    Equations sum;
    for (const Index3& index3 : node.blocks) {
        AR_ASSERT(getRootID(index3) == node.id);
        sum += mPlanes[getNodeID(index3)].equations;
    }
    if (sum.size() < 3) {
        return false;
    }
    node.equations = sum;
    return node.equations.solve(node.plane);
}

namespace {

float angleBetween(const Vec3& a, const Vec3& b) {
    // No clamping: a dot product rounded beyond 1 gives NaN, and the strict angle test then
    // refuses the join.
    return std::acos(AR::Math::dot(a, b));
}

}  // namespace

PlaneIDSet PlaneDetector::mergePlanes(const IndexSet& updatedBlocks) {
    AR::Common::FlatMap<PlaneID, std::vector<PlaneID>> neighbours;
    std::deque<PlaneID> queue;
    PlaneIDSet changed;

    for (const Index3& block : updatedBlocks) {
        const PlaneID leaf = getNodeID(block);
        if (!mPlanes[leaf].isValid()) {
            continue;
        }
        std::vector<PlaneID>& list = neighbours[leaf];
        list.clear();
        for (const Index3& offset : mNeighbourOffsets) {
            const PlaneID other = getNodeID(block + offset);
            if (mPlanes[other].isValid()) {
                list.push_back(other);
            }
        }
    }

    for (const Index3& block : updatedBlocks) {
        const PlaneID leaf = getNodeID(block);
        const Node& node = mPlanes[leaf];
        if (!node.isValid()) {
            continue;
        }
        if (!node.isLeaf()) {
            queue.push_back(leaf);
            continue;
        }
        const float error = node.equations.stdError(node.plane);
        bool isSeed = true;
        for (const Index3& offset : mNeighbourOffsets) {
            const Node& other = mPlanes[getNodeID(block + offset)];
            if (other.isLeaf() && error > other.equations.stdError(other.plane)) {
                isSeed = false;
                break;
            }
        }
        if (isSeed && neighbours[leaf].size() >= kMinSeedNeighbours) {
            queue.push_back(leaf);
        }
    }

    while (!queue.empty()) {
        const PlaneID idx1 = queue.front();
        queue.pop_front();
        AR_ASSERT(getNode(idx1).isValid());
        const std::vector<PlaneID> candidates = neighbours[idx1];
        for (const PlaneID idx2 : candidates) {
            AR_ASSERT(getNode(idx2).isValid());
            const PlaneID parent1 = getRootID(idx1);
            const PlaneID parent2 = getRootID(idx2);
            AR_ASSERT(mPlanes[parent1].equations.getNumBlocks() == mPlanes[parent1].blocks.size());
            AR_ASSERT(mPlanes[parent2].equations.getNumBlocks() == mPlanes[parent2].blocks.size());
            if (parent1 == parent2) {
                continue;
            }
            const Equations& equations1 = mPlanes[parent1].equations;
            const Equations& equations2 = mPlanes[parent2].equations;
            const Equations sum = equations1 + equations2;
            Node merged;
            if (!createNode(false, sum, merged) || !merged.plane.isValid()) {
                continue;
            }
            if (equations1.stdError(merged.plane) > mMaxStdError ||
                equations2.stdError(merged.plane) > mMaxStdError ||
                sum.stdError(merged.plane) > mMaxStdError) {
                continue;
            }
            const Vec3 n1 = mPlanes[parent1].plane.getNormal();
            const Vec3 n2 = mPlanes[parent2].plane.getNormal();
            const Vec3 nm = merged.plane.getNormal();
            if (!(angleBetween(n1, n2) < mMaxAngle && angleBetween(nm, n1) < mMaxAngle &&
                  angleBetween(nm, n2) < mMaxAngle)) {
                continue;
            }
            const PlaneID mergedPlaneID = insertNode(std::move(merged));
            AR_ASSERT(mergedPlaneID != INVALID);
            Node& node1 = mPlanes[parent1];
            Node& node2 = mPlanes[parent2];
            Node& mergedNode = mPlanes[mergedPlaneID];
            AR_ASSERT(!node1.blocks.empty() && !node2.blocks.empty());
            for (const Index3& block : node1.blocks) {
                mergedNode.blocks.insert(block);
            }
            for (const Index3& block : node2.blocks) {
                mergedNode.blocks.insert(block);
            }
            node1.parent = mergedPlaneID;
            node2.parent = mergedPlaneID;
            AR_ASSERT(node1.isValid() && node2.isValid());
            for (Node* absorbed : {&node1, &node2}) {
                if (!absorbed->isLeaf()) {
                    absorbed->free();
                }
            }
            AR_ASSERT(node1.isIntermediate() || node1.isLeaf());
            AR_ASSERT(node2.isIntermediate() || node2.isLeaf());
            AR_ASSERT(mergedNode.isRoot());
            AR_ASSERT(mergedNode.equations.size() >= 3u);
            AR_ASSERT(mergedNode.equations.getNumBlocks() == mergedNode.blocks.size());
            AR_ASSERT(mPlanes.back().equations.getNumBlocks() == mPlanes.back().blocks.size());
            changed.insert(mergedPlaneID);
            queue.push_back(idx2);
        }
    }

    PlaneIDSet roots;
    for (const PlaneID id : changed) {
        if (mPlanes[id].isRoot()) {
            roots.insert(id);
        }
    }
    return roots;
}

std::ostream& operator<<(std::ostream& out, const PlaneDetector::Node& node) {
    const auto& p = node.plane.getData();
    const char* state = !node.isValid() ? "invalid"
                        : node.isLeaf() ? "leaf"
                        : node.isRoot() ? "root"
                                        : "intermediate";
    out << "#" << node.id << "\t" << p[0] << " " << p[1] << " " << p[2] << " " << p[3] << "\t"
        << state;
    return out;
}

std::ostream& operator<<(std::ostream& out, const PlaneDetector& planeDetector) {
    for (PlaneID id = 1; id < planeDetector.numCreatedNodes(); ++id) {
        const PlaneDetector::Node& node = planeDetector.getNode(id);
        const PlaneID root = planeDetector.getRootID(id);
        out << node;
        if (root != id) {
            out << " (parent = " << node.parent << ", root = " << root << ")";
        } else {
            // A dead node keeps its own index as parent while its id is 0: nothing to check.
            AR_ASSERT(!node.isValid() || node.id == planeDetector.getRootID(id));
        }
        out << std::endl;
    }
    return out;
}

}  // namespace Solid
