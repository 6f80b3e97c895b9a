#include "velmora/Outputs.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ostream>

#include "velmora/Ply.h"
#include "velmora/Preview.h"

namespace VelmoraTool {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kPlanesPictureSuffix = "-planes";

// Creates the parent folder of `path` and checks that the file can be created there, without
// leaving a file behind that was not there before.
bool checkWritableFile(const std::string& path, std::string& error) {
    std::error_code code;
    const fs::path parent = fs::path(path).parent_path();
    if (!parent.empty()) {
        fs::create_directories(parent, code);
        if (code) {
            error = parent.string() + ": cannot create the folder: " + code.message();
            return false;
        }
    }
    if (fs::is_directory(path, code)) {
        error = path + ": is a folder, not a file";
        return false;
    }
    const bool existed = fs::exists(path, code);
    {
        std::ofstream probe(path, std::ios::app);
        if (!probe) {
            error = path + ": cannot create the file";
            return false;
        }
    }
    if (!existed) {
        fs::remove(path, code);
    }
    return true;
}

// Times one stage and shows it: on a terminal as a line that is completed when the stage ends,
// otherwise as one line at its end.
class Stage {
public:
    Stage(const char* name, std::ostream& out, bool interactive, OutputReport& report)
        : mName(name), mOut(out), mInteractive(interactive), mReport(report), mStart(Clock::now()) {
        if (mInteractive) {
            mOut << "velmora: " << mName << " ..." << std::flush;
        }
    }

    void done(const std::string& detail) {
        const double seconds = std::chrono::duration<double>(Clock::now() - mStart).count();
        mReport.stages.push_back({mName, seconds});
        char text[64];
        std::snprintf(text, sizeof(text), "%.2f s", seconds);
        if (mInteractive) {
            mOut << "\r\x1b[K";
        }
        mOut << "velmora: " << mName << " done in " << text << (detail.empty() ? "" : ", " + detail)
             << "\n"
             << std::flush;
    }

private:
    std::string mName;
    std::ostream& mOut;
    bool mInteractive;
    OutputReport& mReport;
    Clock::time_point mStart;
};

bool writeText(const std::string& path, const std::string& text, std::string& error) {
    std::ofstream out(path);
    out << text << "\n";
    out.flush();
    if (!out) {
        error = "cannot write";
        return false;
    }
    return true;
}

// The instance's own 16-bit id, which the library keeps in the low bytes of the second half.
unsigned instanceNumber(const Velmora::UuidBytes& uuid) {
    constexpr size_t kIdByte = 8;
    constexpr unsigned kBitsPerByte = 8;
    return uuid[kIdByte] | (static_cast<unsigned>(uuid[kIdByte + 1]) << kBitsPerByte);
}

std::string failed(const char* what, Velmora::XrResultVLM result) {
    return std::string(what) + " failed in the library (result " + std::to_string(result) + ")";
}

}  // namespace

bool OutputOptions::any() const {
    return !meshPath.empty() || !instanceMeshDir.empty() || !planesPath.empty() ||
           !instancesPath.empty() || !previewPath.empty();
}
bool OutputOptions::needMesh() const {
    return readAll || !meshPath.empty() || !previewPath.empty();
}
bool OutputOptions::needPlanes() const {
    return readAll || !planesPath.empty() || !previewPath.empty();
}
bool OutputOptions::needInstances() const {
    return needMesh() || !instancesPath.empty() || !instanceMeshDir.empty();
}

std::string previewPlanesPath(const std::string& previewPath) {
    const fs::path path(previewPath);
    return (path.parent_path() /
            (path.stem().string() + kPlanesPictureSuffix + path.extension().string()))
        .string();
}

bool prepareOutputs(const OutputOptions& options, std::string& error) {
    std::vector<std::string> files{options.meshPath, options.planesPath, options.instancesPath,
                                   options.previewPath};
    if (!options.previewPath.empty()) {
        files.push_back(previewPlanesPath(options.previewPath));
    }
    for (const std::string& file : files) {
        if (!file.empty() && !checkWritableFile(file, error)) {
            return false;
        }
    }
    if (!options.instanceMeshDir.empty()) {
        std::error_code code;
        fs::create_directories(options.instanceMeshDir, code);
        if (code || !fs::is_directory(options.instanceMeshDir) ||
            access(options.instanceMeshDir.c_str(), W_OK) != 0) {
            error = options.instanceMeshDir + ": cannot write into this folder";
            return false;
        }
    }
    return true;
}

bool writeOutputs(Velmora::IVelmora& scene, const OutputOptions& options, bool withColors,
                  std::ostream& progressOut, std::ostream& errorOut, bool interactive,
                  OutputReport& report) {
    std::string error;
    auto fail = [&errorOut](const std::string& message) {
        errorOut << "velmora: " << message << "\n";
        return false;
    };
    // Instances first: the library gives the mesh's vertices the ids of the instances it knows.
    if (options.needInstances()) {
        Stage instances("instances", progressOut, interactive, report);
        const Velmora::XrResultVLM result = readInstances(scene, report.instances);
        if (result != Velmora::kSuccess) {
            return fail(failed("instance extraction", result));
        }
        instances.done(std::to_string(report.instances.instances.size()) + " instances");
    }
    if (options.needMesh()) {
        // Meshing and colouring are timed apart: the second call finds the mesh up to date and
        // only colours it.
        Stage meshing("meshing", progressOut, interactive, report);
        Velmora::XrResultVLM result = readMesh(scene, kWholeScene, false, report.mesh);
        if (result != Velmora::kSuccess) {
            return fail(failed("meshing", result));
        }
        meshing.done(std::to_string(report.mesh.triangleCount()) + " triangles");
        if (withColors) {
            Stage colouring("colouring", progressOut, interactive, report);
            result = readMesh(scene, kWholeScene, true, report.mesh);
            if (result != Velmora::kSuccess) {
                return fail(failed("colouring", result));
            }
            colouring.done(std::to_string(report.mesh.colors.size()) + " vertex colours");
        }
    }
    if (options.needPlanes()) {
        Stage planes("planes", progressOut, interactive, report);
        const Velmora::XrResultVLM result = readPlanes(scene, report.planes);
        if (result != Velmora::kSuccess) {
            return fail(failed("plane detection", result));
        }
        planes.done(std::to_string(report.planes.planes.size()) + " planes");
    }
    if (!options.instanceMeshDir.empty()) {
        Stage meshes("instance meshes", progressOut, interactive, report);
        for (const HostInstance& instance : report.instances.instances) {
            HostMesh mesh;
            const Velmora::XrResultVLM result = readMesh(scene, instance.uuid, withColors, mesh);
            if (result != Velmora::kSuccess) {
                return fail(
                    failed(("meshing instance " + uuidText(instance.uuid)).c_str(), result));
            }
            char name[64];
            std::snprintf(name, sizeof(name), "instance-%05u-label%u.ply",
                          instanceNumber(instance.uuid), static_cast<unsigned>(instance.label));
            const std::string path = (fs::path(options.instanceMeshDir) / name).string();
            if (!writePly(path, mesh, error)) {
                return fail(path + ": " + error);
            }
            ++report.instanceMeshes;
        }
        report.files.push_back(options.instanceMeshDir + " (" +
                               std::to_string(report.instanceMeshes) + " meshes)");
        meshes.done(std::to_string(report.instanceMeshes) + " meshes");
    }
    if (!options.previewPath.empty()) {
        Stage pictures("pictures", progressOut, interactive, report);
        const Previews previews =
            renderPreviews(report.mesh, report.planes,
                           overviewCamera(sceneExtent(report.mesh, report.planes), kPreviewWidth,
                                          kPreviewHeight, options.up));
        const std::string planesPath = previewPlanesPath(options.previewPath);
        if (!writePng(options.previewPath, previews.scene, error)) {
            return fail(options.previewPath + ": " + error);
        }
        if (!writePng(planesPath, previews.planes, error)) {
            return fail(planesPath + ": " + error);
        }
        report.files.push_back(options.previewPath);
        report.files.push_back(planesPath);
        pictures.done("");
    }
    Stage writing("writing", progressOut, interactive, report);
    if (!options.meshPath.empty()) {
        if (!writePly(options.meshPath, report.mesh, error)) {
            return fail(options.meshPath + ": " + error);
        }
        report.files.push_back(options.meshPath);
    }
    if (!options.planesPath.empty()) {
        if (!writeText(options.planesPath, planesJson(report.planes), error)) {
            return fail(options.planesPath + ": " + error);
        }
        report.files.push_back(options.planesPath);
    }
    if (!options.instancesPath.empty()) {
        if (!writeText(options.instancesPath, instancesJson(report.instances), error)) {
            return fail(options.instancesPath + ": " + error);
        }
        report.files.push_back(options.instancesPath);
    }
    writing.done("");
    return true;
}

void printSummaryRow(std::ostream& out, const char* name, const std::string& value) {
    char text[64];
    std::snprintf(text, sizeof(text), "  %-18s ", name);
    out << text << value << "\n";
}

void printOutputSummary(const OutputReport& report, const std::vector<StageTime>& earlierStages,
                        std::ostream& out) {
    std::string times;
    for (const std::vector<StageTime>* stages : {&earlierStages, &report.stages}) {
        for (const StageTime& stage : *stages) {
            char text[80];
            std::snprintf(text, sizeof(text), "%s%s %.2f s", times.empty() ? "" : ", ",
                          stage.name.c_str(), stage.seconds);
            times += text;
        }
    }
    printSummaryRow(out, "stage times", times);
    printSummaryRow(out, "mesh",
                    std::to_string(report.mesh.triangleCount()) + " triangles, " +
                        std::to_string(report.mesh.positions.size()) + " vertices" +
                        (report.mesh.colors.empty() ? "" : ", coloured"));
    printSummaryRow(out, "planes", std::to_string(report.planes.planes.size()));
    printSummaryRow(out, "instances", std::to_string(report.instances.instances.size()));
    for (const std::string& file : report.files) {
        printSummaryRow(out, "written", file);
    }
}

}  // namespace VelmoraTool
