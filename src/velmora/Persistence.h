// Saving and loading the volumes of a scene: one file per grid, named after a base name and the
// grid's ending. The layout of a file is that of the grid stream (solid/IO.h).
#ifndef VELMORA_VELMORA_PERSISTENCE_H
#define VELMORA_VELMORA_PERSISTENCE_H

#include <string>

namespace Velmora {

// Endings of the files of each grid; the ending is the only record of the sample type.
constexpr char kDepthGridSuffix[] = ".depthgrid";            // Solid::DepthGrid, split mode
constexpr char kLabelGridSuffix[] = ".labelgrid";            // Solid::LabelGrid, split mode
constexpr char kLabelDepthGridSuffix[] = ".depthlabelgrid";  // Solid::LabelDepthGrid, combined

// Writes `grid` to `fileName`. False, with the error logged, only when the file cannot be
// opened: errors while writing (a full disk) are not detected.
template <typename GridType>
bool saveVolume(const GridType& grid, const std::string& fileName);

// Reads `fileName` into `grid`. False, with the error logged, only when the file cannot be
// opened: a truncated or garbled file loads up to where it fails and still gives true.
template <typename GridType>
bool loadVolume(GridType& grid, const std::string& fileName);

// Defined in Persistence.cpp for Solid::DepthGrid, Solid::LabelGrid and Solid::LabelDepthGrid.

}  // namespace Velmora

#endif  // VELMORA_VELMORA_PERSISTENCE_H
