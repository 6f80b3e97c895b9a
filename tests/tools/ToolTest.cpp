// The built `velmora` executable run as a subprocess: exit codes, messages, the summary and the
// files it writes, and the volumes it saves loading into a fresh scene.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "ToolTestSupport.h"
#include "velmora/Fusion.h"
#include "velmora/Preview.h"

using namespace VelmoraToolTest;
using nlohmann::json;

// render-scene, then fuse in both modes with every output, then `mesh` on the saved volumes: the
// same surface again.
//
// Then every way the tool cannot do what it is asked, or not wholly: the exit code, a message
// naming the file or argument, the frames selected/fused ("" when it stops before fusing, without
// a summary and without leaving a file behind) and skipped; a frame selection among them. A
// lost-tracking frame is skipped and counted, but is no error; a bad frame is skipped, named,
// counted, and makes the exit code say so; a label map can bring ids below 32. Combined mode needs
// labels with every frame, split mode not; the TUM layout brings no labels, no intrinsics and its
// first frame no ground truth.
TEST(ToolEndToEnd, RenderFuseSaveMeshAndEveryWayToFail) {
    ScratchDir scratch;
    const std::string seq = scratch / "seq";
    const ToolRun help = runTool(scratch, "fuse --help");
    EXPECT_TRUE(help.exitCode == kExitOk && contains(help.out, "Exit codes:")) << help.out;
    ToolRun run =
        runTool(scratch, "render-scene " + seq + " --frames 4 --noise 1.5 --seed 3 --size 32x24");
    ASSERT_EQ(run.exitCode, kExitOk) << run.err;
    EXPECT_TRUE(fs::exists(seq + "/color/000003.png"));  // not fused below
    for (const std::string mode : {"split", "combined"}) {
        SCOPED_TRACE(mode);
        const std::string dir = scratch / mode;
        // No colour: a loaded scene has no colour frames, so both meshes go without.
        run = runTool(scratch, "fuse " + seq + " --mode " + mode + " --color-every 0 --stats " +
                                   dir + "/s.json --save " + dir + "/scene --mesh " + dir +
                                   "/fused.ply --planes " + dir + "/planes.json --instances " +
                                   dir + "/instances.json --preview " + dir +
                                   "/p.png --instance-meshes " + dir + "/objects");
        ASSERT_EQ(run.exitCode, kExitOk) << run.err;
        EXPECT_EQ(summaryRow(run.out, "mode"), mode + ", cell 0.020 m, truncation 0.100 m");
        EXPECT_EQ(summaryRow(run.out, "volumes"), "saved with prefix " + dir + "/scene");
        EXPECT_TRUE(contains(summaryRow(run.out, "submitImages"), "median")) << run.out;
        EXPECT_TRUE(contains(summaryRow(run.out, "peak memory"), "MiB")) << run.out;
        // Not a terminal: plain progress lines, the last one at the end of the run.
        EXPECT_TRUE(contains(run.err, "velmora: 4/4 frames")) << run.err;
        const json stats = json::parse(readText(dir + "/s.json"));
        EXPECT_EQ(stats["mode"], mode);
        EXPECT_EQ(stats["framesFused"], 4);
        EXPECT_EQ(stats["cellSize"], 0.02);
        EXPECT_TRUE(stats["saved"].get<bool>());
        ASSERT_EQ(stats["frames"].size(), 4u);
        double largest = 0.0;
        for (size_t i = 0; i < 4; ++i)
            largest = std::max(largest, stats["frames"][i]["submitMs"].get<double>());
        EXPECT_EQ(stats["submitMs"]["max"].get<double>(), largest);
        EXPECT_EQ(fs::exists(dir + "/scene.labelgrid"), mode == "split");
        PlyFile fused = readPly(dir + "/fused.ply");
        EXPECT_EQ(summaryRow(run.out, "mesh"), std::to_string(fused.faces.size()) + " triangles, " +
                                                   std::to_string(fused.vertices.size()) +
                                                   " vertices");
        EXPECT_EQ(std::to_string(json::parse(readText(dir + "/planes.json"))["planes"].size()),
                  summaryRow(run.out, "planes"));
        const size_t instances = json::parse(readText(dir + "/instances.json"))["instances"].size();
        EXPECT_EQ(std::to_string(instances), summaryRow(run.out, "instances"));
        EXPECT_EQ(std::distance(fs::directory_iterator(dir + "/objects"), fs::directory_iterator()),
                  static_cast<long>(instances));
        run = runTool(scratch, "mesh " + dir + "/scene --mode " + mode + " --mesh " + dir +
                                   "/loaded.ply --preview " + dir + "/loaded.png");
        ASSERT_EQ(run.exitCode, kExitOk) << run.err;
        EXPECT_TRUE(contains(summaryRow(run.out, "stage times"), "loading")) << run.out;
        // The same surface; the order of blocks, and so of vertices, may differ.
        PlyFile loaded = readPly(dir + "/loaded.ply");
        EXPECT_EQ(loaded.faces.size(), fused.faces.size());
        std::sort(loaded.vertices.begin(), loaded.vertices.end());
        std::sort(fused.vertices.begin(), fused.vertices.end());
        EXPECT_EQ(loaded.vertices, fused.vertices);
        EXPECT_TRUE(fs::is_regular_file(dir + "/loaded-planes.png"));
    }

    const std::string tum = scratch / "tum", noK = scratch / "nok", file = scratch / "file",
                      out = scratch / "m.ply", map = scratch / "map.csv", skips = scratch / "skips",
                      lostPose = skips + "/pose/000001.txt", badDepth = skips + "/depth/000002.png",
                      split = scratch / "split/scene", combined = scratch / "combined/scene",
                      absent = scratch / "absent", k = noK + "/intrinsic/intrinsic_depth.txt";
    writeSceneSequence(noK, 1);
    fs::remove(k);
    writeTumSequence(tum, 3);
    writeSceneSequence(skips, 4);
    fs::remove(skips + "/label/000000.png");
    writeText(lostPose, "nan nan nan nan\nnan nan nan nan\nnan nan nan nan\n0 0 0 1\n");
    std::vector<uint8_t> labels(kSmallWidth * kSmallHeight, 2);
    writePngOrFail(badDepth, makeGrey8(kSmallWidth, kSmallHeight, labels));
    labels.back() = 77;
    writePngOrFail(skips + "/label/000003.png", makeGrey8(kSmallWidth, kSmallHeight, labels));
    writeText(scratch / "skips.csv", "2,2\n77,12\n");
    writeText(file, "x");
    writeText(map, "77,32\n");
    const int usage = kExitUsage, failure = kExitFailure;
    const struct {
        std::string args;
        int exitCode;
        std::string message, fused, skipped = "";
    } cases[] = {
        {"", usage, "", ""},
        {"fuse", usage, "", ""},
        {"fuse x --mode both", usage, "", ""},
        {"render-scene x --size 64by48", usage, "", ""},
        {"render-scene x --frames 0", usage, "", ""},
        {"fuse " + seq + " --truncation 0.05", usage, "--truncation must be at least 5 cells", ""},
        {"fuse " + seq + " --cell-size 0", usage, "--cell-size must be above zero", ""},
        {"fuse " + seq + " --frames 5:2", usage, "--frames", ""},
        {"fuse " + seq + " --intrinsics 1,2,3", usage, "--intrinsics", ""},
        {"mesh " + split, usage, "nothing to write", ""},
        {"mesh " + split + " --truncation 0.05 --mesh " + out, usage, "--truncation must be", ""},
        {"fuse " + seq + " --frames 7:", failure, "no frames in the selected range", ""},
        {"fuse " + skips + " --frames 1:1", failure, "no frame was fused", "1/0"},
        // Numbers from 1, every second of them: 1 is lost, 3 brings a raw id the map takes.
        {"fuse " + skips + " --frames 1: --every 2 --label-map " + skips + ".csv --stats " + seq +
             ".json",
         kExitOk, "velmora: frame 1 skipped: " + lostPose + ": tracking lost", "2/1",
         "1 (tracking lost 1, bad input 0, refused by library 0)"},
        {"fuse " + skips + " --stats " + skips + ".json", kExitFramesSkipped,
         "frame 2 skipped: " + badDepth + ": expected a 16-bit grey depth image, found 8-bit grey",
         "4/1", "3 (tracking lost 1, bad input 2, refused by library 0)"},
        {"fuse " + seq + " --label-map " + map, failure, map + ":1: class 32 is 32 or more", ""},
        {"fuse " + seq + " --mesh " + file + "/m.ply", failure, "cannot create the folder", ""},
        {"fuse " + seq + " --mesh " + out + " --preview " + scratch.path().string(), failure,
         "is a folder", ""},
        {"mesh " + absent + " --mesh " + out, failure, "no volume files with this prefix", ""},
        {"mesh " + split + " --mode combined --mesh " + out, failure,
         "holds a split-mode volume; load it with --mode split", ""},
        {"mesh " + combined + " --mesh " + out, failure,
         "holds a combined-mode volume; load it with --mode combined", ""},
        {"mesh " + split + " --instance-meshes " + file + "/x", failure,
         "cannot write into this folder", ""},
        {"accuracy " + absent + ".ply", failure, "absent.ply: cannot open", ""},
        {"fuse " + tum + " --mode combined --intrinsics 1,1,1,1", failure,
         "combined mode requires label images", ""},
        {"fuse " + skips + " --mode combined --label-map " + skips + ".csv", kExitFramesSkipped,
         "frame 0 skipped: no label image", "4/1"},
        {"fuse " + absent, failure, "velmora: " + absent + ": no such directory\n", ""},
        {"fuse " + noK, failure, "velmora: " + k + ": missing file\n", ""},
        {"fuse " + tum, failure, "give --intrinsics fx,fy,cx,cy", ""},
        {"fuse " + tum + " --intrinsics 26.25,26.25,15.5,11.5", kExitOk, "", "3/2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        run = runTool(scratch, c.args);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
        EXPECT_TRUE(contains(run.err, c.message)) << run.err;
        if (!c.fused.empty()) {
            EXPECT_EQ(
                summaryRow(run.out, "frames selected") + "/" + summaryRow(run.out, "frames fused"),
                c.fused);
            if (!c.skipped.empty()) {
                EXPECT_EQ(summaryRow(run.out, "frames skipped"), c.skipped);
            }
            EXPECT_EQ(contains(c.args, tum), contains(summaryRow(run.out, "source"), "TUM RGB-D"));
        } else if (c.exitCode == failure) {
            EXPECT_FALSE(contains(run.out, "summary") || contains(run.err, "frames,"))
                << "failed only after fusing: " << run.out;
        }
    }
    EXPECT_FALSE(fs::exists(out));
    EXPECT_EQ(json::parse(readText(seq + ".json"))["frames"].at(0)["frame"], 3);
    const json stats = json::parse(readText(skips + ".json"));
    ASSERT_EQ(stats["skipped"].size(), 3u);
    EXPECT_EQ(stats["skipped"][1]["frame"], 2);
    EXPECT_EQ(stats["framesSkipped"]["badInput"], 2);
}

// The demo writes its volumes, mesh, planes, instances and pictures into its folder and ends with
// the accuracy report, also in the statistics; `accuracy` on its mesh gives the same figures. A
// guard on the whole pipeline: the reconstruction of the built-in room, at a small size, stays
// within stated bounds of the truth. And real sensor data: holes, noise, a real room corner; no
// labels, so split mode.
TEST(ToolAccuracy, DemoStaysNearTheTruthAndTheRealSampleFuses) {
    ScratchDir scratch;
    const std::string dir = scratch / "out", demo = " --frames 30 --size 160x120";
    const ToolRun run =
        runTool(scratch, "demo" + demo + " --out " + dir + " --stats " + dir + ".json");
    ASSERT_EQ(run.exitCode, kExitOk) << run.err;
    EXPECT_EQ(summaryRow(run.out, "frames fused"), "30");
    for (const char* file :
         {"scene.depthgrid", "scene.ply", "planes.json", "instances.json", "preview.png"}) {
        EXPECT_TRUE(fs::is_regular_file(dir + "/" + file)) << file;
    }
    PngImage picture;
    std::string error;
    ASSERT_TRUE(readPng(dir + "/preview-planes.png", picture, error)) << error;
    EXPECT_EQ(picture.width * 10000 + picture.height, kPreviewWidth * 10000 + kPreviewHeight);
    for (const char* row : {"mesh accuracy", "completeness", "planes matched", "objects matched"})
        EXPECT_NE(summaryRow(run.out, row).rfind("<no row", 0), 0u) << row << run.out;
    const std::string stages = summaryRow(run.out, "stage times");
    for (const char* stage :
         {"fusion", "meshing", "colouring", "planes", "instances", "pictures", "accuracy"}) {
        EXPECT_TRUE(contains(stages, stage)) << stage << ": " << stages;
    }
    const json stats = json::parse(readText(dir + ".json"));
    const json& accuracy = stats["accuracy"];
    EXPECT_TRUE(stats["stageSeconds"].contains("meshing"));
    EXPECT_EQ(stats["files"].size(), 5u);
    EXPECT_EQ(accuracy["vertices"], stats["vertices"]);
    EXPECT_GT(accuracy["truthPoints"].get<size_t>(), 0u);
    // On the true surface to a few millimetres, covering what the frames saw.
    EXPECT_GT(accuracy["vertices"].get<size_t>(), 100000u);
    EXPECT_LT(accuracy["distance"]["mean"].get<double>(), 0.003);
    EXPECT_LT(accuracy["distance"]["p95"].get<double>(), 0.01);
    EXPECT_GT(accuracy["completeness"].get<double>(), 0.98);
    // Every true plane within a degree or so (the ceiling, seen least, within 4) and half a
    // centimetre; every object an instance of its label covering half its box.
    EXPECT_EQ(accuracy["planesMatched"], truePlanes().size());
    EXPECT_EQ(accuracy["planes"].size(), truePlanes().size());
    for (const json& plane : accuracy["planes"]) {
        EXPECT_LT(plane["angleDeg"].get<double>(), 4.0) << plane;
        EXPECT_LT(plane["offsetError"].get<double>(), 0.005) << plane;
    }
    EXPECT_EQ(accuracy["objectsMatched"], trueObjects().size());
    EXPECT_EQ(accuracy["objects"].size(), trueObjects().size());
    for (const json& object : accuracy["objects"])
        EXPECT_GT(object["overlap"].get<double>(), 0.5) << object;
    const ToolRun measured =
        runTool(scratch, "accuracy " + dir + "/scene.ply" + demo + " --stats " + dir + "/a.json");
    ASSERT_EQ(measured.exitCode, kExitOk) << measured.err;
    EXPECT_EQ(summaryRow(measured.out, "completeness"), summaryRow(run.out, "completeness"));
    const json alone = json::parse(readText(dir + "/a.json"));
    EXPECT_EQ(alone["distance"], accuracy["distance"]);
    EXPECT_EQ(alone["truthPoints"], accuracy["truthPoints"]);
    EXPECT_EQ(alone["triangles"], stats["triangles"]);
    const std::string sample = VELMORA_SAMPLE_SEQUENCE;
    if (fs::is_directory(sample)) {
        const ToolRun real =
            runTool(scratch, "fuse " + sample + " --cell-size 0.01 --truncation 0.05");
        ASSERT_EQ(real.exitCode, kExitOk) << real.err;
        EXPECT_EQ(summaryRow(real.out, "frames fused"), "5");
    }
}
