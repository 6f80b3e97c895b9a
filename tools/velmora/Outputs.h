// The files a person looks at after a run: the whole-scene mesh, one mesh per instance, the
// planes and instances as JSON, and two pictures. Shared by `fuse`, `demo` and `mesh`; the
// scene is read only through the public interface.
#ifndef VELMORA_TOOL_OUTPUTS_H
#define VELMORA_TOOL_OUTPUTS_H

#include <array>
#include <iosfwd>
#include <string>
#include <vector>

#include "velmora/SceneReadout.h"
#include "velmora/Velmora.h"

namespace VelmoraTool {

// Each path empty: that output is not written.
struct OutputOptions {
    std::string meshPath;         // PLY of the whole scene
    std::string instanceMeshDir;  // one PLY per instance
    std::string planesPath;       // JSON
    std::string instancesPath;    // JSON
    std::string previewPath;      // PNG; the plane picture goes beside it (previewPlanesPath)
    // The scene is read even when no file is asked for, e.g. for the accuracy report.
    bool readAll = false;
    // The world's up direction for the pictures, unit length.
    std::array<double, 3> up{0.0, 0.0, 1.0};

    bool any() const;
    bool needMesh() const;
    bool needPlanes() const;
    bool needInstances() const;
};

// "out/preview.png" -> "out/preview-planes.png": the picture with the plane outlines.
std::string previewPlanesPath(const std::string& previewPath);

// Makes the folders of the outputs and checks that each file can be created, so that a run does
// not fuse for minutes and then fail on a path. False with a message naming the path otherwise.
bool prepareOutputs(const OutputOptions& options, std::string& error);

// Time of one stage of a run, seconds.
struct StageTime {
    std::string name;
    double seconds = 0.0;
};

struct OutputReport {
    HostMesh mesh;
    HostPlanes planes;
    HostInstances instances;
    size_t instanceMeshes = 0;
    std::vector<StageTime> stages;
    std::vector<std::string> files;  // written, in order
};

// Reads what the options need from `scene` (the mesh with vertex colours when `withColors`),
// writes the files and times each stage. Progress lines go to `progressOut` (a line that is
// completed in place when `interactive`), problems to `errorOut`. Returns false on the first
// failure.
bool writeOutputs(Velmora::IVelmora& scene, const OutputOptions& options, bool withColors,
                  std::ostream& progressOut, std::ostream& errorOut, bool interactive,
                  OutputReport& report);

// One row of a summary table: the name padded to a column, then the value.
void printSummaryRow(std::ostream& out, const char* name, const std::string& value);

// The summary rows of a run's outputs: the times of `earlierStages` and of the output stages,
// then triangles, planes, instances and the files written.
void printOutputSummary(const OutputReport& report, const std::vector<StageTime>& earlierStages,
                        std::ostream& out);

}  // namespace VelmoraTool

#endif  // VELMORA_TOOL_OUTPUTS_H
