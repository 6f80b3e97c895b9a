// The part of the scene that needs internal types: grids, the queues and sets of changed blocks,
// and (as they land) the detectors and caches that consume them.
#ifndef VELMORA_VELMORA_IMPLSTATE_H
#define VELMORA_VELMORA_IMPLSTATE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "cv/Camera.h"
#include "solid/instances/InstanceExtractor.h"
#include "solid/planes/PlaneDetector.h"
#include "solid/surface/PolygonMesh.h"
#include "solid/volume/Frames.h"
#include "solid/volume/VolumeGrid.h"
#include "velmora/Impl.h"

namespace Velmora {

// Run modes of Config::mode.
constexpr int32_t kModeCombined = 0;  // one grid of depth and labels, fused together
constexpr int32_t kModeSplit = 1;     // a depth grid and a label grid, separate streams

// The mesh cache: one grid of block meshes per instance id asked for (0: the whole scene), and
// the blocks changed since they were brought up to date. Lock order: updatedBlocksMutex, then
// meshMutex; neither is held while blocks are meshed.
struct SurfaceExtraction {
    Solid::IndexSet updatedBlocks;  // changed since the last extraction; filled by the frame path
    // Changed blocks that an instance extraction consumed and the whole-scene grid has not
    // re-meshed yet; guarded by updatedBlocksMutex.
    Solid::IndexSet sceneMissedBlocks;
    std::mutex updatedBlocksMutex;
    std::unordered_map<uint16_t, Solid::MeshGridType> surfaceMeshes;
    // The merge of each grid since it last changed; whoever changes a grid drops its entry.
    std::unordered_map<uint16_t, Solid::PolygonMesh> mergedMeshes;
    std::mutex meshMutex;  // guards surfaceMeshes, mergedMeshes and sceneIdsEpoch
    // Counts the changes that can alter the instance id of a vertex that was not moved: the
    // block-instance ids written into the samples and the merge of instances (both only by
    // getObjectInstances), and volumes loaded. Fusing labels changes neither (a new block's
    // samples hold no instance, as a missing block gives none). Counted after the change is
    // complete, so a request that reads it before it annotates knows whether ids written by an
    // earlier request still hold.
    std::atomic<uint64_t> labelEpoch{0};
    // labelEpoch as read by the request that last gave every mesh of the whole-scene grid its
    // ids; kIdsIncomplete while some mesh lacks them.
    static constexpr uint64_t kIdsIncomplete = ~uint64_t(0);
    uint64_t sceneIdsEpoch = kIdsIncomplete;
    // The meshes the last patch of the whole-scene grid replaced, kept so that the next patch
    // re-meshes its blocks into their memory instead of freeing it and allocating anew (a frame
    // changes mostly the blocks the one before changed). Guarded by meshMutex.
    Solid::MeshGridType spareMeshes;

    // Under meshMutex: the grid of `id` merged into one mesh (an unknown id gets an empty grid);
    // a copy of the grid (sharing its streams); the grid replaced by `grid`, whose meshes carry
    // the ids of `idsEpoch` (for id 0).
    Solid::PolygonMesh getMergedMesh(uint16_t id);
    Solid::MeshGridType getMeshGrid(uint16_t id);
    void setMeshGrid(uint16_t id, Solid::MeshGridType grid, uint64_t idsEpoch);
    // Under meshMutex: whether the whole-scene grid exists and its ids are those of `epoch`, so
    // that a request needs to mesh and annotate only the changed blocks.
    bool sceneIdsCurrent(uint64_t epoch);
    // Under meshMutex: moves the meshes of `patch` into the whole-scene grid, in `order`, and
    // the meshes they replace into `patch`.
    void patchSceneGrid(Solid::MeshGridType& patch, const std::vector<Solid::KeyType>& order,
                        uint64_t idsEpoch);
    // Under meshMutex: takes the meshes replaced by the last patch (see spareMeshes).
    Solid::MeshGridType takeSpareMeshes();
    // Under meshMutex: puts each coloured block mesh of `id` in place of the cached one, but only
    // where the cache still holds the geometry that was coloured (the same position stream); a
    // block re-meshed or a grid dropped meanwhile by another request keeps the newer state.
    struct ColoredBlock {
        Solid::KeyType key;
        const void* positions;  // identity of the coloured geometry
        Solid::PolygonMesh mesh;
    };
    void putColoredBlocks(uint16_t id, const std::vector<ColoredBlock>& blocks);
};

// Colour frames kept for texturing, with the two camera models set from the first of them.
struct TextureExtraction {
    AR::CV::Camera<float> colorCalib;
    AR::CV::Camera<float> depthCalib;
    std::vector<Solid::RGBDFrame> keyframes;  // one per colour image ever submitted
    std::mutex mutex;                         // guards everything above
};

struct Impl::State {
    std::unique_ptr<Solid::DepthGrid> mVolumeGrid;       // split mode: depth
    std::unique_ptr<Solid::LabelGrid> mLabelVolumeGrid;  // split mode: labels
    // Split mode: blocks touched by depth since the last label image, which consumes them all.
    Solid::IndexSet mPendingLabelBlocks;
    std::mutex mPendingLabelMutex;
    std::unique_ptr<Solid::LabelDepthGrid> mLabelDepthVolumeGrid;  // combined mode
    // Split mode: the last depth frame rendered for a label or colour image (its camera and
    // pixels), while no depth frame or load has changed the depth grid since; the label and the
    // colour image of one view render the same frame. Frame path (and loadVolumes) only.
    Solid::DepthFrame mLastRender;
    bool mLastRenderValid = false;
    float mTruncation = 0.0f;  // copy of Config::truncation, metres
    int32_t mMode = 0;         // copy of Config::mode; values other than 0 and 1 fuse nothing
    SurfaceExtraction mSurfaces;
    Solid::IndexSet mInstanceUpdatedBlocks;       // changed since the last getObjectInstances
    std::mutex mInstanceMutex;                    // held for the whole of getObjectInstances
    std::mutex mInstanceUpdatedMutex;             // guards mInstanceUpdatedBlocks
    Solid::InstanceExtractor mInstanceExtractor;  // used under mInstanceMutex only
    Solid::PlaneDetector mPlaneDetector;          // enabled and configured by Config::detectPlanes
    Solid::IndexSet mPlaneUpdatedBlocks;          // changed since the last getPlanes
    std::mutex mPlaneMutex;                       // held for the whole of getPlanes
    std::mutex mPlaneUpdatedMutex;                // guards mPlaneUpdatedBlocks
    bool mLabelPlanes = false;                    // copy of Config::labelPlanes
    TextureExtraction mTexture;

    // Records `blocks` in the three sets of changed blocks, one mutex at a time.
    void publish(const Solid::IndexSet& blocks);
};

// The library's own code, its tests and benchmarks reach the scene state through here; the
// installed header keeps it out of a host's view.
struct StateAccess {
    static Impl::State& of(Impl& scene) { return *scene.mState; }
};

inline Impl::State& internalState(Impl& scene) {
    return StateAccess::of(scene);
}

}  // namespace Velmora

#endif  // VELMORA_VELMORA_IMPLSTATE_H
