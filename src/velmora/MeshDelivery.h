// Mesh delivery into host buffers described by PolygonMeshBufferDescriptor records, and back.
#ifndef VELMORA_VELMORA_MESHDELIVERY_H
#define VELMORA_VELMORA_MESHDELIVERY_H

#include <cstdint>

#include "solid/surface/PolygonMesh.h"
#include "velmora/Velmora.h"

namespace Velmora {

// Values of PolygonMeshBufferDescriptor::attribute; larger values pass the checks and are
// skipped.
constexpr uint32_t kBufferPosition = 0;
constexpr uint32_t kBufferColor = 1;
constexpr uint32_t kBufferTexCoord = 2;
constexpr uint32_t kBufferInstanceId = 3;
constexpr uint32_t kBufferIndex = 4;
constexpr uint32_t kNumBufferAttributes = 5;

// Validates the descriptors against the buffers and the attribute counts, and writes the counts
// into the buffers (a later descriptor of a buffer overwrites what an earlier one wrote). 0 when
// the mesh fits; -11 when a named buffer has no memory (the query call of the two-call protocol)
// or is too small; -2000014 for a bad buffer index, a wrong element size, two descriptors at one
// offset of a buffer, or first elements that overlap.
XrResultVLM checkPolygonMeshBuffer(span<const PolygonMeshBufferDescriptor> descriptors,
                                   span<PolygonMeshBuffer> buffers, uint32_t positionCount,
                                   uint32_t indexCount, uint32_t instanceIdCount,
                                   uint32_t colorCount, uint32_t texCoordCount);

// Copies the attributes into buffers that passed checkPolygonMeshBuffer: vertex attributes
// element by element `stride` bytes apart, indices in one block.
void writePolygonMeshBuffer(span<const PolygonMeshBufferDescriptor> descriptors,
                            span<PolygonMeshBuffer> buffers,
                            const Solid::PolygonMesh::Positions& positions,
                            const Solid::PolygonMesh::Indices& indices,
                            const Solid::PolygonMesh::InstanceIds& instanceIds,
                            const Solid::PolygonMesh::Colors& colors,
                            const Solid::PolygonMesh::TexCoords& texCoords);

// The reverse: a mesh read from host buffers (counts from each buffer's vertexCount and
// indexCount), for hosts and tools that feed a mesh back. The library does not call it.
Solid::PolygonMesh toSolidPolygonMesh(span<const PolygonMeshBufferDescriptor> descriptors,
                                      span<const PolygonMeshBuffer> buffers);

}  // namespace Velmora

#endif  // VELMORA_VELMORA_MESHDELIVERY_H
