// velmora: render the built-in scene, fuse recorded RGB-D sequences, run the demo, and turn
// saved volumes into meshes, planes, instances and pictures.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "velmora/Commands.h"

namespace {

using namespace VelmoraTool;

constexpr const char* kExitCodes =
    "Exit codes: 0 done; 1 unusable input or a failure of the library; 2 bad command line; 3 done, "
    "but frames with bad input were skipped (each one named on standard error).";

// CLI11 validators that turn the compound arguments into their values.
CLI::Validator sizeValidator() {
    return CLI::Validator(
        [](std::string& text) {
            uint32_t w = 0, h = 0;
            return parseSize(text, w, h) ? std::string() : "expected WxH, e.g. 640x480";
        },
        "WxH");
}

// The output options shared by fuse, demo and mesh.
void addOutputOptions(CLI::App* command, OutputOptions& outputs) {
    command->add_option("--mesh", outputs.meshPath,
                        "Write the whole-scene mesh as binary PLY (positions, vertex colours when "
                        "colour frames were fused, instance_id per vertex)");
    command->add_option("--instance-meshes", outputs.instanceMeshDir,
                        "Write one PLY per object instance into DIR");
    command->add_option("--planes", outputs.planesPath,
                        "Write the planes as JSON: id, label, normal, offset, contour (metres), "
                        "subsumed links");
    command->add_option("--instances", outputs.instancesPath,
                        "Write the object instances as JSON: id, label, bounds, subsumed links");
    command->add_option("--preview", outputs.previewPath,
                        "Write a picture of the whole scene as PNG, and beside it NAME-planes.png "
                        "with the plane outlines drawn over it");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"velmora: scene reconstruction from depth, label and colour frames"};
    app.footer(kExitCodes);
    app.require_subcommand(1);

    RenderOptions render;
    std::string renderSize = "640x480";
    CLI::App* renderCommand = app.add_subcommand(
        "render-scene",
        "Render the built-in room (4 x 3 x 2.6 m: floor, ceiling, four walls, a table, two "
        "boxes, a ball; each object its own label and colour pattern) along a smooth camera "
        "loop, by exact ray casting, into a recorded sequence.");
    renderCommand->add_option("OUT_DIR", render.outDir, "Directory of the sequence")->required();
    renderCommand->add_option("--frames", render.frames, "Number of frames (one loop)")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    renderCommand->add_option("--size", renderSize, "Image size; intrinsics scale with it")
        ->capture_default_str()
        ->check(sizeValidator());
    renderCommand
        ->add_option("--noise", render.noiseMmAt1m,
                     "Depth noise: Gaussian, sigma = MM_AT_1M * z^2 millimetres (z in metres)")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);
    renderCommand->add_option("--seed", render.seed, "Seed of the noise")->capture_default_str();

    FuseCommandOptions fuse;
    std::string fuseMode = "split";
    std::string frameRange;
    std::string intrinsicsText;
    CLI::App* fuseCommand = app.add_subcommand(
        "fuse",
        "Replay a recorded sequence (recorded layout, or TUM RGB-D detected by depth.txt and "
        "groundtruth.txt) through submitImages and print a summary.");
    fuseCommand->add_option("SEQUENCE_DIR", fuse.sequenceDir, "Directory of the sequence")
        ->required();
    fuseCommand
        ->add_option("--mode", fuseMode,
                     "split: depth, label and colour as separate calls, as a device delivers "
                     "them; combined: depth and label (and colour) in one call, which requires "
                     "label images")
        ->capture_default_str()
        ->check(CLI::IsMember({"split", "combined"}));
    fuseCommand->add_option("--cell-size", fuse.fuse.cellSize, "Cell size, metres")
        ->capture_default_str();
    fuseCommand->add_option("--truncation", fuse.fuse.truncation, "Truncation band, metres")
        ->capture_default_str();
    fuseCommand->add_option("--frames", frameRange,
                            "FIRST:LAST inclusive frame numbers; LAST may be left out");
    fuseCommand->add_option("--every", fuse.fuse.every, "Fuse every Nth selected frame")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    fuseCommand
        ->add_option("--max-depth", fuse.fuse.maxDepthMm,
                     "Ignore depth beyond MM millimetres (0: no limit)")
        ->capture_default_str();
    fuseCommand->add_option("--label-map", fuse.labelMapPath,
                            "CSV of 'raw_id,class' lines (class below 32); ids not in the map "
                            "become class 0");
    fuseCommand
        ->add_option("--color-every", fuse.fuse.colorEvery,
                     "Submit colour with every Nth fused frame (0: never); the library "
                     "keeps each colour image as a keyframe for the life of the scene")
        ->capture_default_str();
    fuseCommand
        ->add_option("--label-every", fuse.fuse.labelEvery,
                     "Split mode: submit labels with every Nth fused frame (0: never)")
        ->capture_default_str();
    fuseCommand->add_option("--intrinsics", intrinsicsText,
                            "fx,fy,cx,cy in pixels; required for the TUM RGB-D layout");
    fuseCommand->add_option("--save", fuse.fuse.savePrefix,
                            "Save the volumes as PREFIX plus the ending of each grid");
    fuseCommand->add_option("--stats", fuse.fuse.statsPath,
                            "Write the summary and per-frame times as JSON");
    addOutputOptions(fuseCommand, fuse.fuse.outputs);

    DemoOptions demo;
    std::string demoSize = "640x480";
    CLI::App* demoCommand = app.add_subcommand(
        "demo",
        "Render the built-in scene in memory, fuse it, save the volumes, write the mesh, planes, "
        "instances and pictures into the output directory, and report the accuracy against the "
        "scene's true surfaces.");
    demoCommand->add_option("--out", demo.outDir, "Directory of all outputs")
        ->capture_default_str();
    demoCommand->add_option("--frames", demo.frames, "Number of frames (one loop)")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    demoCommand->add_option("--size", demoSize, "Image size")
        ->capture_default_str()
        ->check(sizeValidator());
    demoCommand->add_option("--stats", demo.statsPath,
                            "Write the summary, per-frame times and the accuracy as JSON");
    addOutputOptions(demoCommand, demo.outputs);

    MeshCommandOptions mesh;
    std::string meshMode = "split";
    CLI::App* meshCommand = app.add_subcommand(
        "mesh",
        "Load volumes saved by fuse --save or demo into a fresh scene and write its mesh, planes, "
        "instances and pictures.");
    meshCommand
        ->add_option("VOLUME_PREFIX", mesh.volumePrefix,
                     "Prefix of the volume files, as given to --save (demo: OUT/scene)")
        ->required();
    meshCommand->add_option("--mode", meshMode, "Run mode the volumes were saved in")
        ->capture_default_str()
        ->check(CLI::IsMember({"split", "combined"}));
    meshCommand->add_option("--cell-size", mesh.cellSize, "Cell size, metres")
        ->capture_default_str();
    meshCommand->add_option("--truncation", mesh.truncation, "Truncation band, metres")
        ->capture_default_str();
    std::string meshUp = "z";
    meshCommand
        ->add_option("--up", meshUp,
                     "World axis that points up, for the pictures: x, y, z, -x, -y or -z (fuse "
                     "and demo take it from the camera poses)")
        ->capture_default_str()
        ->check(CLI::IsMember({"x", "y", "z", "-x", "-y", "-z"}));
    addOutputOptions(meshCommand, mesh.outputs);

    AccuracyCommandOptions accuracy;
    std::string accuracySize = "640x480";
    CLI::App* accuracyCommand = app.add_subcommand(
        "accuracy",
        "Measure a mesh file (PLY, from velmora or any other program) against the built-in "
        "scene's true surfaces: distance of the vertices to the surface, and the share of the "
        "surface seen by the frames that lies within 2 cm of a vertex.");
    accuracyCommand->add_option("MESH", accuracy.meshPath, "PLY file, world metres")->required();
    accuracyCommand->add_option("--frames", accuracy.frames, "Frames of the run that saw the scene")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    accuracyCommand->add_option("--size", accuracySize, "Image size of that run")
        ->capture_default_str()
        ->check(sizeValidator());
    accuracyCommand->add_option("--stats", accuracy.statsPath, "Write the figures as JSON");

    for (CLI::App* command :
         {renderCommand, fuseCommand, demoCommand, meshCommand, accuracyCommand}) {
        command->footer(kExitCodes);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitOk : kExitUsage;
    }

    const bool interactive = isatty(fileno(stderr)) != 0;
    if (renderCommand->parsed()) {
        parseSize(renderSize, render.width, render.height);
        return runRenderScene(render, std::cout, std::cerr);
    }
    if (fuseCommand->parsed()) {
        fuse.fuse.mode = fuseMode == "combined" ? FuseMode::kCombined : FuseMode::kSplit;
        if (!frameRange.empty() &&
            !parseFrameRange(frameRange, fuse.fuse.firstFrame, fuse.fuse.lastFrame)) {
            std::cerr << "velmora: --frames: expected FIRST:LAST with FIRST <= LAST\n";
            return kExitUsage;
        }
        if (!intrinsicsText.empty()) {
            Intrinsics intrinsics;
            if (!parseIntrinsics(intrinsicsText, intrinsics)) {
                std::cerr << "velmora: --intrinsics: expected four positive numbers fx,fy,cx,cy\n";
                return kExitUsage;
            }
            fuse.intrinsics = intrinsics;
        }
        return runFuse(fuse, std::cout, std::cerr, interactive);
    }
    if (accuracyCommand->parsed()) {
        parseSize(accuracySize, accuracy.width, accuracy.height);
        return runAccuracy(accuracy, std::cout, std::cerr);
    }
    if (meshCommand->parsed()) {
        mesh.mode = meshMode == "combined" ? FuseMode::kCombined : FuseMode::kSplit;
        parseAxis(meshUp, mesh.outputs.up);
        return runMesh(mesh, std::cout, std::cerr, interactive);
    }
    parseSize(demoSize, demo.width, demo.height);
    return runDemo(demo, std::cout, std::cerr, interactive);
}
