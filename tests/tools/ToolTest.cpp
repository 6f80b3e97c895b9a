// The built `velmora` executable, run as a subprocess: exit codes, messages and the summary.
// They check what the tool controls (frame counts, skip reports, exit codes, saving) and that
// the saved volumes load into a fresh scene.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>
#include <vector>

#include "OutputTestSupport.h"
#include "ToolTestSupport.h"
#include "velmora/Fusion.h"
#include "velmora/Png.h"
#include "velmora/Preview.h"

using namespace VelmoraTool;
using namespace VelmoraToolTest;

namespace {

const std::string kSmallSize = std::to_string(kSmallWidth) + "x" + std::to_string(kSmallHeight);

// The triangles of a mesh by the positions of their corners, each starting at its smallest
// corner so that the winding is kept but not the first vertex.
std::multiset<std::array<double, 9>> triangleSet(const PlyFile& ply) {
    std::multiset<std::array<double, 9>> triangles;
    for (const std::vector<uint32_t>& face : ply.faces) {
        std::array<std::array<double, 3>, 3> corners;
        for (size_t c = 0; c < 3; ++c) {
            corners[c] = {ply.vertices[face[c]][0], ply.vertices[face[c]][1],
                          ply.vertices[face[c]][2]};
        }
        const size_t first = std::min_element(corners.begin(), corners.end()) - corners.begin();
        std::array<double, 9> triangle;
        for (size_t c = 0; c < 3; ++c) {
            std::copy(corners[(first + c) % 3].begin(), corners[(first + c) % 3].end(),
                      triangle.begin() + 3 * c);
        }
        triangles.insert(triangle);
    }
    return triangles;
}

}  // namespace

TEST(ToolCommandLine, HelpAndUsageErrors) {
    ScratchDir scratch;
    for (const char* command : {"render-scene", "fuse", "demo", "mesh", "accuracy"}) {
        const ToolRun help = runTool(scratch, {command, "--help"});
        EXPECT_EQ(help.exitCode, kExitOk) << command;
        EXPECT_TRUE(contains(help.out, "Usage:")) << help.out;
        EXPECT_TRUE(contains(help.out, "Exit codes:")) << help.out;
    }
    EXPECT_TRUE(contains(runTool(scratch, {"fuse", "--help"}).out, "--label-map"));
    // Options the library would refuse are caught before it sees them.
    writeSceneSequence(scratch / "seq", 1);
    const std::string seq = scratch / "seq";
    const std::pair<std::vector<std::string>, const char*> usageErrors[] = {
        {{}, ""},
        {{"explode"}, ""},
        {{"fuse"}, ""},
        {{"fuse", "x", "--mode", "both"}, ""},
        {{"render-scene", "x", "--size", "64by48"}, ""},
        {{"render-scene", "x", "--frames", "0"}, ""},
        {{"fuse", seq, "--truncation", "0.05"}, "--truncation must be at least 5 cells"},
        {{"fuse", seq, "--cell-size", "0"}, "--cell-size must be above zero"},
        {{"fuse", seq, "--frames", "5:2"}, "--frames"},
        {{"fuse", seq, "--intrinsics", "1,2,3"}, "--intrinsics"},
    };
    for (const auto& [args, message] : usageErrors) {
        const ToolRun run = runTool(scratch, args);
        EXPECT_EQ(run.exitCode, kExitUsage) << message;
        EXPECT_TRUE(contains(run.err, message)) << run.err;
    }
}

// render-scene, then fuse in both modes: every frame is fused, the statistics carry one time per
// frame, and saving is requested and reported.
TEST(ToolEndToEnd, RenderThenFuse) {
    ScratchDir scratch;
    const std::string seq = scratch / "seq";
    ToolRun run = runTool(scratch, {"render-scene", seq, "--frames", "4", "--size", kSmallSize,
                                    "--noise", "1.5", "--seed", "3"});
    ASSERT_EQ(run.exitCode, kExitOk) << run.err;
    for (const char* file : {"depth/000003.png", "label/000003.png", "color/000003.png",
                             "pose/000003.txt", "intrinsic/intrinsic_depth.txt"}) {
        EXPECT_TRUE(fs::exists(fs::path(seq) / file)) << file;
    }
    PngImage depth;
    std::string error;
    ASSERT_TRUE(readPng((fs::path(seq) / "depth/000000.png").string(), depth, error)) << error;
    EXPECT_EQ(depth.describe(), "16-bit grey");
    EXPECT_EQ(depth.width, kSmallWidth);

    for (const char* mode : {"split", "combined"}) {
        SCOPED_TRACE(mode);
        const std::string stats = scratch / (std::string(mode) + ".json");
        run = runTool(scratch, {"fuse", seq, "--mode", mode, "--stats", stats, "--save",
                                scratch / "volumes/scene", "--color-every", "2"});
        ASSERT_EQ(run.exitCode, kExitOk) << run.err;
        EXPECT_EQ(summaryRow(run.out, "frames fused"), "4");
        EXPECT_EQ(summaryRow(run.out, "frames skipped"),
                  "0 (tracking lost 0, bad input 0, refused by library 0)");
        EXPECT_EQ(summaryRow(run.out, "mode"),
                  std::string(mode) + ", cell 0.020 m, truncation 0.100 m");
        EXPECT_EQ(summaryRow(run.out, "volumes"),
                  "saved with prefix " + (scratch / "volumes/scene"));
        EXPECT_TRUE(contains(summaryRow(run.out, "submitImages"), "median")) << run.out;
        EXPECT_TRUE(contains(summaryRow(run.out, "peak memory"), "MiB")) << run.out;
        // Not a terminal: plain progress lines, the last one at the end of the run.
        EXPECT_TRUE(contains(run.err, "velmora: 4/4 frames")) << run.err;
        const nlohmann::json json = nlohmann::json::parse(readText(stats));
        EXPECT_EQ(json["mode"], mode);
        EXPECT_EQ(json["framesFused"], 4);
        EXPECT_EQ(json["cellSize"], 0.02);
        ASSERT_EQ(json["frames"].size(), 4u);
        double largest = 0.0;
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(json["frames"][i]["frame"], i);
            largest = std::max(largest, json["frames"][i]["submitMs"].get<double>());
        }
        EXPECT_EQ(json["submitMs"]["max"].get<double>(), largest);
        EXPECT_TRUE(json["saved"].get<bool>());

        // The files of the run mode exist (the `mesh` command's test loads them).
        const bool split = std::strcmp(mode, "split") == 0;
        for (const char* ending : split ? std::vector<const char*>{".depthgrid", ".labelgrid"}
                                        : std::vector<const char*>{".depthlabelgrid"}) {
            EXPECT_TRUE(fs::exists(scratch / ("volumes/scene" + std::string(ending)))) << ending;
        }
    }

    // Frame selection: numbers 1 to 3, every second of them.
    run = runTool(
        scratch, {"fuse", seq, "--frames", "1:3", "--every", "2", "--stats", scratch / "sel.json"});
    ASSERT_EQ(run.exitCode, kExitOk) << run.err;
    EXPECT_EQ(summaryRow(run.out, "frames selected"), "2");
    const nlohmann::json json = nlohmann::json::parse(readText(scratch / "sel.json"));
    ASSERT_EQ(json["frames"].size(), 2u);
    EXPECT_EQ(json["frames"][0]["frame"], 1);
    EXPECT_EQ(json["frames"][1]["frame"], 3);
    run = runTool(scratch, {"fuse", seq, "--frames", "7:"});
    EXPECT_EQ(run.exitCode, kExitFailure);
    EXPECT_TRUE(contains(run.err, "no frames in the selected range")) << run.err;
}

// A lost-tracking frame is skipped and counted, but is not an error; a bad frame is skipped,
// named, counted, and makes the exit code say so.
TEST(ToolEndToEnd, SkippedFramesAreReportedAndCounted) {
    ScratchDir scratch;
    const std::string seq = scratch / "seq";
    writeSceneSequence(seq, 4);
    const std::string lostPose = (fs::path(seq) / "pose" / "000001.txt").string();
    writeText(lostPose, "nan nan nan nan\nnan nan nan nan\nnan nan nan nan\n0 0 0 1\n");
    ToolRun run = runTool(scratch, {"fuse", seq});
    EXPECT_EQ(run.exitCode, kExitOk) << run.err;
    EXPECT_EQ(summaryRow(run.out, "frames fused"), "3");
    EXPECT_EQ(summaryRow(run.out, "frames skipped"),
              "1 (tracking lost 1, bad input 0, refused by library 0)");
    EXPECT_TRUE(contains(run.err, "velmora: frame 1 skipped: " + lostPose + ": tracking lost"))
        << run.err;

    const std::string badDepth = (fs::path(seq) / "depth" / "000002.png").string();
    std::string error;
    ASSERT_TRUE(writePng(
        badDepth,
        makeGrey8(kSmallWidth, kSmallHeight, std::vector<uint8_t>(kSmallWidth * kSmallHeight, 1)),
        error));
    const std::string badLabel = (fs::path(seq) / "label" / "000003.png").string();
    std::vector<uint8_t> labels(kSmallWidth * kSmallHeight, 2);
    labels.back() = 77;
    ASSERT_TRUE(writePng(badLabel, makeGrey8(kSmallWidth, kSmallHeight, labels), error));
    run = runTool(scratch, {"fuse", seq, "--stats", scratch / "s.json"});
    EXPECT_EQ(run.exitCode, kExitFramesSkipped) << run.err;
    EXPECT_EQ(summaryRow(run.out, "frames fused"), "1");
    EXPECT_EQ(summaryRow(run.out, "frames skipped"),
              "3 (tracking lost 1, bad input 2, refused by library 0)");
    EXPECT_TRUE(contains(run.err, "velmora: frame 2 skipped: " + badDepth +
                                      ": expected a 16-bit grey depth image, found 8-bit grey"))
        << run.err;
    EXPECT_TRUE(contains(run.err, "velmora: frame 3 skipped: " + badLabel + ": label id 77"))
        << run.err;
    const nlohmann::json json = nlohmann::json::parse(readText(scratch / "s.json"));
    ASSERT_EQ(json["skipped"].size(), 3u);
    EXPECT_EQ(json["skipped"][1]["frame"], 2);
    EXPECT_EQ(json["framesSkipped"]["badInput"], 2);

    // The label map brings the ids of frame 3 below 32.
    writeText(scratch / "map.csv", "2,2\n77,12\n");
    run = runTool(scratch, {"fuse", seq, "--label-map", scratch / "map.csv"});
    EXPECT_EQ(run.exitCode, kExitFramesSkipped);
    EXPECT_EQ(summaryRow(run.out, "frames fused"), "2");
    writeText(scratch / "map.csv", "77,40\n");
    run = runTool(scratch, {"fuse", seq, "--label-map", scratch / "map.csv"});
    EXPECT_EQ(run.exitCode, kExitFailure);
    EXPECT_TRUE(contains(run.err, (scratch / "map.csv") + ":1: class 40 is 32 or more")) << run.err;

    // Nothing fused at all is a failure, not a partial success.
    run = runTool(scratch, {"fuse", seq, "--frames", "1:2"});
    EXPECT_EQ(run.exitCode, kExitFailure);
    EXPECT_TRUE(contains(run.err, "no frame was fused")) << run.err;
}

// Sequences the tool cannot use, or not wholly: each run ends with its exit code, a message
// naming the problem and the frames it fused. Combined mode needs labels with every frame and
// skips the frames without; split mode fuses those without labels. The TUM layout brings no
// intrinsics, and its first frame has no ground truth, so it is skipped as lost tracking.
TEST(ToolEndToEnd, SequencesItCannotWhollyUse) {
    ScratchDir scratch;
    const std::string unlabelled = scratch / "unlabelled", labelled = scratch / "labelled";
    const std::string seq = scratch / "seq", tum = scratch / "tum";
    writeSceneSequence(unlabelled, 2, false);
    writeSceneSequence(labelled, 3);
    fs::remove(fs::path(labelled) / "label" / "000001.png");
    writeSceneSequence(seq, 1);
    const std::string intrinsics = (fs::path(seq) / "intrinsic" / "intrinsic_depth.txt").string();
    fs::remove(intrinsics);
    writeTumSequence(tum, 3);
    const struct {
        std::vector<std::string> args;
        int exitCode;
        std::string message;  // part of the error output
        std::string fused;    // the summary's row, or "" for no summary
    } cases[] = {
        {{"fuse", unlabelled, "--mode", "combined"},
         kExitFailure,
         "combined mode requires label images",
         ""},
        {{"fuse", unlabelled}, kExitOk, "", "2"},
        {{"fuse", labelled, "--mode", "combined"},
         kExitFramesSkipped,
         "frame 1 skipped: no label image",
         "2"},
        {{"fuse", labelled}, kExitOk, "", "3"},
        {{"fuse", scratch / "absent"},
         kExitFailure,
         "velmora: " + (scratch / "absent") + ": no such directory\n",
         ""},
        {{"fuse", seq}, kExitFailure, "velmora: " + intrinsics + ": missing file\n", ""},
        {{"fuse", tum}, kExitFailure, "give --intrinsics fx,fy,cx,cy", ""},
        {{"fuse", tum, "--intrinsics", "26.25,26.25,15.5,11.5"}, kExitOk, "", "2"},
    };
    for (const auto& c : cases) {
        const ToolRun run = runTool(scratch, c.args);
        SCOPED_TRACE(c.args[1]);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
        EXPECT_TRUE(contains(run.err, c.message)) << run.err;
        if (c.fused.empty()) {
            EXPECT_EQ(run.out, "") << "nothing was fused, so there is no summary";
        } else {
            EXPECT_EQ(summaryRow(run.out, "frames fused"), c.fused);
        }
        if (c.args[1] == tum && c.exitCode == kExitOk) {
            EXPECT_TRUE(contains(summaryRow(run.out, "source"), "TUM RGB-D layout"));
        }
    }
}

// The demo writes its volumes, mesh, planes, instances and pictures into its folder and ends with
// the accuracy report, also in the statistics.
TEST(ToolEndToEnd, DemoRendersFusesSavesAndReports) {
    ScratchDir scratch;
    const ToolRun run = runTool(scratch, {"demo", "--out", scratch / "out", "--frames", "3",
                                          "--size", kSmallSize, "--stats", scratch / "s.json"});
    EXPECT_EQ(run.exitCode, kExitOk) << run.err;
    EXPECT_EQ(summaryRow(run.out, "frames fused"), "3");
    EXPECT_EQ(summaryRow(run.out, "volumes"), "saved with prefix " + (scratch / "out/scene"));
    for (const char* file :
         {"scene.ply", "planes.json", "instances.json", "preview.png", "preview-planes.png"}) {
        EXPECT_TRUE(fs::is_regular_file(scratch.path() / "out" / file)) << file;
    }
    for (const char* row : {"mesh accuracy", "completeness", "planes matched", "objects matched"}) {
        EXPECT_NE(summaryRow(run.out, row).rfind("<no row", 0), 0u) << row << run.out;
    }
    const std::string stages = summaryRow(run.out, "stage times");
    for (const char* stage :
         {"fusion", "meshing", "colouring", "planes", "instances", "pictures", "accuracy"}) {
        EXPECT_NE(stages.find(stage), std::string::npos) << stage << ": " << stages;
    }
    const nlohmann::json json = nlohmann::json::parse(readText(scratch / "s.json"));
    const nlohmann::json& accuracy = json["accuracy"];
    EXPECT_EQ(accuracy["vertices"], json["vertices"]);
    EXPECT_EQ(accuracy["planes"].size(), truePlanes().size());
    EXPECT_EQ(accuracy["objects"].size(), trueObjects().size());
    EXPECT_GT(accuracy["truthPoints"].get<size_t>(), 0u);
    EXPECT_TRUE(json["stageSeconds"].contains("meshing"));
    EXPECT_EQ(json["files"].size(), 5u);

    // The same figures for the demo's mesh file, measured on its own.
    const ToolRun measured =
        runTool(scratch, {"accuracy", scratch / "out/scene.ply", "--frames", "3", "--size",
                          kSmallSize, "--stats", scratch / "a.json"});
    ASSERT_EQ(measured.exitCode, kExitOk) << measured.err;
    EXPECT_EQ(summaryRow(measured.out, "completeness"), summaryRow(run.out, "completeness"));
    const nlohmann::json alone = nlohmann::json::parse(readText(scratch / "a.json"));
    EXPECT_EQ(alone["distance"], accuracy["distance"]);
    EXPECT_EQ(alone["truthPoints"], accuracy["truthPoints"]);
    const ToolRun missing = runTool(scratch, {"accuracy", scratch / "absent.ply"});
    EXPECT_EQ(missing.exitCode, kExitFailure);
    EXPECT_TRUE(contains(missing.err, "absent.ply: cannot open")) << missing.err;
}

// fuse writes every output asked for; `mesh` on the volumes it saved writes the same mesh.
TEST(ToolOutputs, FuseWritesTheOutputsAndMeshReproducesThem) {
    ScratchDir scratch;
    const std::string seq = scratch / "seq";
    writeSceneSequence(seq, 3);
    for (const char* mode : {"split", "combined"}) {
        SCOPED_TRACE(mode);
        const std::string dir = scratch / mode;
        // No colour: a loaded scene has no colour frames, so both meshes go without.
        ToolRun run =
            runTool(scratch, {"fuse", seq, "--mode", mode, "--color-every", "0", "--save",
                              dir + "/scene", "--mesh", dir + "/fused.ply", "--planes",
                              dir + "/planes.json", "--instances", dir + "/instances.json",
                              "--preview", dir + "/p.png", "--instance-meshes", dir + "/objects"});
        ASSERT_EQ(run.exitCode, kExitOk) << run.err;
        const PlyFile fused = readPly(dir + "/fused.ply");
        EXPECT_EQ(summaryRow(run.out, "mesh"), std::to_string(fused.faces.size()) + " triangles, " +
                                                   std::to_string(fused.vertices.size()) +
                                                   " vertices");
        const nlohmann::json planes = nlohmann::json::parse(readText(dir + "/planes.json"));
        EXPECT_EQ(std::to_string(planes["planes"].size()), summaryRow(run.out, "planes"));
        const nlohmann::json instances = nlohmann::json::parse(readText(dir + "/instances.json"));
        EXPECT_EQ(std::to_string(instances["instances"].size()), summaryRow(run.out, "instances"));
        const size_t instanceMeshes =
            std::distance(fs::directory_iterator(dir + "/objects"), fs::directory_iterator());
        EXPECT_EQ(instanceMeshes, instances["instances"].size());
        for (const char* picture : {"/p.png", "/p-planes.png"}) {
            PngImage image;
            std::string error;
            ASSERT_TRUE(readPng(dir + picture, image, error)) << error;
            EXPECT_EQ(image.width, kPreviewWidth);
            EXPECT_EQ(image.height, kPreviewHeight);
        }

        run = runTool(scratch, {"mesh", dir + "/scene", "--mode", mode, "--mesh",
                                dir + "/loaded.ply", "--preview", dir + "/loaded.png"});
        ASSERT_EQ(run.exitCode, kExitOk) << run.err;
        EXPECT_TRUE(contains(summaryRow(run.out, "stage times"), "loading")) << run.out;
        // The same surface; the order of blocks, and so of vertices, may differ.
        EXPECT_EQ(triangleSet(readPly(dir + "/loaded.ply")), triangleSet(fused));
        EXPECT_TRUE(fs::is_regular_file(dir + "/loaded-planes.png"));
    }
}

// Bad output paths and volume prefixes get a message naming them and a non-zero exit, before
// any fusion or loading is done.
TEST(ToolOutputs, BadPathsPrefixesAndModesFailClearly) {
    ScratchDir scratch;
    const std::string seq = scratch / "seq";
    writeSceneSequence(seq, 2);
    writeText(scratch / "file", "x");
    ASSERT_EQ(runTool(scratch, {"fuse", seq, "--save", scratch / "split/scene"}).exitCode, kExitOk);
    ASSERT_EQ(
        runTool(scratch, {"fuse", seq, "--mode", "combined", "--save", scratch / "combined/scene"})
            .exitCode,
        kExitOk);
    const std::string out = scratch / "m.ply";
    const std::pair<std::vector<std::string>, std::string> failures[] = {
        {{"fuse", seq, "--mesh", scratch / "file/m.ply"}, "cannot create the folder"},
        {{"fuse", seq, "--preview", scratch.path().string()}, "is a folder"},
        {{"demo", "--out", scratch / "file", "--frames", "1"}, "cannot create the folder"},
        {{"mesh", scratch / "absent", "--mesh", out}, "no volume files with this prefix"},
        {{"mesh", scratch / "split/scene", "--mode", "combined", "--mesh", out},
         "holds a split-mode volume; load it with --mode split"},
        {{"mesh", scratch / "combined/scene", "--mesh", out},
         "holds a combined-mode volume; load it with --mode combined"},
        {{"mesh", scratch / "split/scene", "--instance-meshes", scratch / "file/x"},
         "cannot write into this folder"},
    };
    for (const auto& [args, message] : failures) {
        const ToolRun run = runTool(scratch, args);
        EXPECT_EQ(run.exitCode, kExitFailure) << message;
        EXPECT_TRUE(contains(run.err, message)) << run.err;
        EXPECT_FALSE(contains(run.err, "frames,")) << "failed only after fusing: " << run.err;
    }
    const std::pair<std::vector<std::string>, std::string> usage[] = {
        {{"mesh", scratch / "split/scene"}, "nothing to write"},
        {{"mesh", scratch / "split/scene", "--truncation", "0.05", "--mesh", out},
         "--truncation must be at least 5 cells"},
    };
    for (const auto& [args, message] : usage) {
        const ToolRun run = runTool(scratch, args);
        EXPECT_EQ(run.exitCode, kExitUsage) << message;
        EXPECT_TRUE(contains(run.err, message)) << run.err;
    }
    EXPECT_FALSE(fs::exists(out));
}

// Real sensor data: holes, noise, a real room corner. No labels, so only split mode applies
// (SequencesItCannotWhollyUse covers the refusal of combined mode).
TEST(ToolEndToEnd, RealSampleSequence) {
    const std::string sample = VELMORA_SAMPLE_SEQUENCE;
    if (!fs::is_directory(sample)) {
        GTEST_SKIP() << "sample sequence not present at " << sample;
    }
    ScratchDir scratch;
    ToolRun run = runTool(scratch, {"fuse", sample, "--cell-size", "0.01", "--truncation", "0.05",
                                    "--stats", scratch / "s.json"});
    ASSERT_EQ(run.exitCode, kExitOk) << run.err;
    EXPECT_EQ(summaryRow(run.out, "frames fused"), "5");
    EXPECT_EQ(nlohmann::json::parse(readText(scratch / "s.json"))["frames"].size(), 5u);
}

// A guard on the whole pipeline: the demo's reconstruction of the built-in room, at a small size,
// stays within stated bounds of the truth.
TEST(ToolAccuracy, DemoReconstructionStaysNearTheTruth) {
    ScratchDir scratch;
    const ToolRun run = runTool(scratch, {"demo", "--out", scratch / "out", "--frames", "30",
                                          "--size", "160x120", "--stats", scratch / "s.json"});
    ASSERT_EQ(run.exitCode, kExitOk) << run.err;
    const nlohmann::json accuracy = nlohmann::json::parse(readText(scratch / "s.json"))["accuracy"];
    // The mesh lies on the true surface to a few millimetres and covers what the frames saw.
    EXPECT_GT(accuracy["vertices"].get<size_t>(), 100000u);
    EXPECT_LT(accuracy["distance"]["mean"].get<double>(), 0.003);
    EXPECT_LT(accuracy["distance"]["p95"].get<double>(), 0.01);
    EXPECT_GT(accuracy["completeness"].get<double>(), 0.98);
    // Every true plane is found within a degree or so (the ceiling, seen least, within 4) and
    // half a centimetre; every object is an instance of its label covering half its box.
    EXPECT_EQ(accuracy["planesMatched"], truePlanes().size());
    for (const nlohmann::json& plane : accuracy["planes"]) {
        EXPECT_LT(plane["angleDeg"].get<double>(), 4.0) << plane;
        EXPECT_LT(plane["offsetError"].get<double>(), 0.005) << plane;
    }
    EXPECT_EQ(accuracy["objectsMatched"], trueObjects().size());
    for (const nlohmann::json& object : accuracy["objects"]) {
        EXPECT_GT(object["overlap"].get<double>(), 0.5) << object;
    }
}
