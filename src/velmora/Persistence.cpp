// Saving and loading the volumes of the scene. Only the grids are kept: meshes, planes and
// instances are rebuilt from them by the next queries, which see every loaded block as changed.
#include "velmora/Persistence.h"

#include <fstream>

#include "common/Logger.h"
#include "common/Path.h"
#include "solid/volume/IO.h"
#include "velmora/ImplState.h"

namespace Velmora {

template <typename GridType>
bool saveVolume(const GridType& grid, const std::string& fileName) {
    std::ofstream file(fileName, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file.is_open()) {
        AR_LOG_ERROR("Failed opening file '%s'", fileName.c_str());
        return false;
    }
    file << grid;
    return true;
}

template <typename GridType>
bool loadVolume(GridType& grid, const std::string& fileName) {
    std::ifstream file(fileName, std::ios::in | std::ios::binary);
    if (!file.is_open()) {
        AR_LOG_ERROR("Failed opening file '%s'", fileName.c_str());
        return false;
    }
    file >> grid;
    return true;
}

template bool saveVolume(const Solid::DepthGrid&, const std::string&);
template bool saveVolume(const Solid::LabelGrid&, const std::string&);
template bool saveVolume(const Solid::LabelDepthGrid&, const std::string&);
template bool loadVolume(Solid::DepthGrid&, const std::string&);
template bool loadVolume(Solid::LabelGrid&, const std::string&);
template bool loadVolume(Solid::LabelDepthGrid&, const std::string&);

namespace {

// A grid the run mode does not have is no failure; a file that is absent is skipped.
template <typename GridType>
bool loadIfPresent(const std::unique_ptr<GridType>& grid, const std::string& fileName) {
    if (!grid || !AR::Common::FileSystem::doesFileExist(AR::Common::Path(fileName))) {
        return true;
    }
    return loadVolume(*grid, fileName);
}

template <typename GridType>
void collectKeys(const std::unique_ptr<GridType>& grid, Solid::IndexSet& keys) {
    if (!grid) {
        return;
    }
    grid->for_each(
        [&keys](const Solid::KeyType& key, const typename GridType::Block&) { keys.insert(key); });
}

}  // namespace

int Impl::saveVolumes(const std::string& baseName) const {
    if (!isInitialized()) {
        return 0;
    }
    const State& s = *mState;
    // Every grid is attempted, also after a failure.
    bool result = true;
    if (s.mVolumeGrid) {
        result = saveVolume(*s.mVolumeGrid, baseName + kDepthGridSuffix);
    }
    if (s.mLabelVolumeGrid) {
        result = saveVolume(*s.mLabelVolumeGrid, baseName + kLabelGridSuffix) && result;
    }
    if (s.mLabelDepthVolumeGrid) {
        result = saveVolume(*s.mLabelDepthVolumeGrid, baseName + kLabelDepthGridSuffix) && result;
    }
    return result ? 1 : 0;
}

int Impl::loadVolumes(const std::string& baseName) {
    if (!isInitialized()) {
        return 0;
    }
    State& s = *mState;
    s.mLastRenderValid = false;
    bool result = loadIfPresent(s.mVolumeGrid, baseName + kDepthGridSuffix);
    result = loadIfPresent(s.mLabelVolumeGrid, baseName + kLabelGridSuffix) && result;
    result = loadIfPresent(s.mLabelDepthVolumeGrid, baseName + kLabelDepthGridSuffix) && result;

    // Every block of the grid that carries depth counts as changed for meshes, planes and
    // instances. The sets only ever name blocks of that grid, and blocks are never removed, so
    // adding all keys leaves each set holding exactly the grid's keys.
    Solid::IndexSet loaded;
    if (s.mMode == kModeSplit) {
        collectKeys(s.mVolumeGrid, loaded);
    } else if (s.mMode == kModeCombined) {
        collectKeys(s.mLabelDepthVolumeGrid, loaded);
    }
    ++s.mSurfaces.labelEpoch;
    s.publish(loaded);
    return result ? 1 : 0;
}

}  // namespace Velmora
