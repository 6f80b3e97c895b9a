// Meshes as binary little-endian PLY files, the form that common mesh tools (Open3D, MeshLab,
// Blender) read without help: float positions in metres, 8-bit colours with alpha when the mesh
// has colours, the instance id as an integer vertex property when it has ids, and the triangles as
// lists of three unsigned ints.
#ifndef VELMORA_TOOL_PLY_H
#define VELMORA_TOOL_PLY_H

#include <string>

#include "velmora/SceneReadout.h"

namespace VelmoraTool {

// Writes `mesh` to `path`. On failure returns false and puts the reason in `error`.
bool writePly(const std::string& path, const HostMesh& mesh, std::string& error);

// Reads the positions and triangles of a PLY file as other tools write it: ASCII or binary
// little-endian, any scalar vertex properties (x, y, z kept, the others skipped), faces as lists
// (polygons of more than three corners fanned into triangles). Other elements must come after the
// faces. On failure returns false with the reason in `error`.
bool readPlyMesh(const std::string& path, HostMesh& mesh, std::string& error);

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_PLY_H
