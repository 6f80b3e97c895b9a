#include "solid/fusion/IntegrationMT.h"

#include <vector>

#include "common/WorkerPool.h"
#include "solid/fusion/GridIntegration.h"
#include "solid/fusion/Integration.h"
#include "solid/fusion/IntegrationFast.h"

namespace Solid {

namespace {

// The border argument of every kernel call: the last lattice plane is the border copy's.
constexpr int kKernelBorder = 1;

void fuseBlock(DepthVolume& block, const DepthFrame& frame, const Matrix4& T, float ramp,
               float maxWeight) {
    integrateFastSPX(block, frame, T, ramp, maxWeight, kKernelBorder);
}

void fuseBlock(LabelDepthVolume& block, const LabelDepthFrame& frame, const Matrix4& T, float ramp,
               float maxWeight) {
    const DepthFrame& depthOnly = frame;
    integrate(block, depthOnly, T, ramp, maxWeight, kKernelBorder);
}

}  // namespace

template <typename GridType, typename FrameType>
void integrateFastSPX_MT(GridType& grid, const FrameType& frame, const IndexSet& blocks,
                         const SensorErrorModel& errorModel, float maxWeight) {
    integrateFastSPXLSMPerFrameSetup(frame);
    const VolumeConfig& config = grid.config();
    // Lattice point (size / 2) in integer division, as for the one-by-one path.
    AR::Math::Vector<float, 4> centreOffset;
    for (int a = 0; a < 3; ++a) {
        centreOffset(a) = static_cast<float>(config.size(a) / 2) * config.spacing(a);
    }
    centreOffset(3) = 1.0f;
    // One pool per grid type, made by the first caller, ended at process exit.
    static AR::Common::WorkerPoolBase myPool;
    std::vector<const KeyType*> keys;
    keys.reserve(blocks.size());
    for (const KeyType& key : blocks) {
        keys.push_back(&key);
    }
    const Vec3 dimension = grid.dimension();
    myPool.dispatch(
        [&](int i) {
            const KeyType& key = *keys[static_cast<size_t>(i)];
            auto block = grid.get(key);
            AR_ASSERT(block);
            const Matrix4 T = blockToCamera(frame.pose, dimension, key);
            const AR::Math::Vector<float, 4> c = T * centreOffset;
            const float ramp = errorModel.getIntegrationRamp(Vec3(c(0), c(1), c(2)));
            fuseBlock(*block, frame, T, ramp, maxWeight);
        },
        static_cast<int>(keys.size()), AR::Common::kWorkerPoolAllWorkers);
}

template void integrateFastSPX_MT(DepthGrid&, const DepthFrame&, const IndexSet&,
                                  const SensorErrorModel&, float);
template void integrateFastSPX_MT(LabelDepthGrid&, const LabelDepthFrame&, const IndexSet&,
                                  const SensorErrorModel&, float);

}  // namespace Solid
