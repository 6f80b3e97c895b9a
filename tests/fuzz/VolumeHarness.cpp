// The volume harness: mutated volume files loaded into a fresh scene, queries on what was loaded,
// a save, and a reload of the saved files. Input: byte 0 chooses the run mode (bit 0: split) and,
// in split mode, which files exist (bit 1: depth grid, bit 2: label grid; neither means both);
// byte 1 the cell size; with both split files the next two bytes (little-endian) the length of
// the depth grid file; the rest is file content. The format ends the process on a version other
// than 2 and on blocks of another shape than the grid's: a host's broken files, not hostile
// input, so the harness reads the text header as the loader does and skips such files.
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "fuzz/FuzzHarness.h"
#include "fuzz/FuzzInput.h"
#include "solid/volume/IO.h"
#include "velmora/ImplState.h"
#include "velmora/Persistence.h"

namespace Velmora {
namespace Fuzz {

namespace {

constexpr float kTruncationCells = 5.0f;

// As the reader parses: a number that runs into the end of the stream counts as cut.
template <typename N>
bool readNumber(std::istream& is, N& n) {
    is >> n;
    if (is.eof())
        is.setstate(std::ios::failbit);
    return !is.fail();
}

template <typename V>
bool readTriple(std::istream& is, V& v) {
    return readNumber(is, v(0)) && readNumber(is, v(1)) && readNumber(is, v(2));
}

// Whether loading `content` into a grid with blocks of `gridSize` lattice points and samples of
// `sampleBytes` would end the process by the format's own rules.
bool loadWouldAbort(const std::string& content, const Solid::Size& gridSize, size_t sampleBytes) {
    std::istringstream is(content, std::ios::in | std::ios::binary);
    unsigned int version = 0;
    Solid::Size size;
    Solid::Vec3 spacing;
    uint64_t count = 0;
    if (!readNumber(is, version) || version != Solid::VOLUMEGRID_BINARY_VER)
        return !is.fail();
    if (!readTriple(is, size) || size(0) != gridSize(0) || size(1) != gridSize(1) ||
        size(2) != gridSize(2)) {
        return !is.fail();
    }
    if (!readTriple(is, spacing))
        return false;
    for (int a = 0; a < 3; ++a) {
        if (!(std::isfinite(spacing(a)) && spacing(a) > 0.0f))
            return false;
    }
    Solid::VolumeConfig config;
    Solid::makeVolumeConfig(config, size, spacing);
    if (!readNumber(is, count))
        return false;
    for (uint64_t i = 0; i < count; ++i) {
        Solid::KeyType key;
        Solid::Size blockSize;
        Solid::Vec3 dimension;
        if (!readTriple(is, key) || !readTriple(is, blockSize) || !readTriple(is, dimension))
            return false;
        for (int a = 0; a < 3; ++a) {
            if (blockSize(a) != config.size(a) ||
                std::memcmp(&dimension(a), &config.dimension(a), sizeof(float)) != 0) {
                return true;
            }
        }
        if (is.get() != '\n' || !is)
            return false;
        is.ignore(std::streamsize(config.numSamples) * std::streamsize(sampleBytes));
        if (!is)
            return false;
    }
    return false;
}

std::string readFile(const std::string& name) {
    std::ostringstream content;
    content << std::ifstream(name, std::ios::in | std::ios::binary).rdbuf();
    return content.str();
}

// Writes `content` to `name` when the grid of the run mode would load it without aborting;
// removes `name` otherwise, so that the load skips it.
template <typename GridType>
bool stage(const std::unique_ptr<GridType>& grid, const std::string& content,
           const std::string& name) {
    std::filesystem::remove(name);
    if (!grid ||
        loadWouldAbort(content, grid->config().size, sizeof(typename GridType::SampleType)))
        return false;
    std::ofstream(name, std::ios::out | std::ios::binary) << content;
    return true;
}

int stageAll(Impl& scene, const std::string& base, const std::string& depth,
             const std::string& label, const std::string& labelDepth) {
    Impl::State& s = internalState(scene);
    return int(stage(s.mVolumeGrid, depth, base + kDepthGridSuffix)) +
           int(stage(s.mLabelVolumeGrid, label, base + kLabelGridSuffix)) +
           int(stage(s.mLabelDepthVolumeGrid, labelDepth, base + kLabelDepthGridSuffix));
}

std::string workDirectory() {
    static const std::string directory = [] {
        const std::string d = (std::filesystem::temp_directory_path() /
                               ("velmora-fuzz-volumes-" + std::to_string(getpid())))
                                  .string();
        std::filesystem::create_directories(d);
        return d;
    }();
    return directory;
}

// Collision and placement aimed at the first four loaded blocks: at their centres, and down onto
// them from two block edges above.
template <typename GridType>
void queryLoadedBlocks(Impl& scene, const GridType& grid) {
    std::vector<Solid::KeyType> keys;
    grid.for_each([&keys](const Solid::KeyType& key, const typename GridType::Block&) {
        if (keys.size() < 4)
            keys.push_back(key);
    });
    const Solid::Vec3 dimension = grid.dimension();
    for (const Solid::KeyType& key : keys) {
        const XrVector3fVLM centre{(float(key(0)) + 0.5f) * dimension(0),
                                   (float(key(1)) + 0.5f) * dimension(1),
                                   (float(key(2)) + 0.5f) * dimension(2)};
        const float edge = dimension(2);
        fuzzCheck(scene.intersectPoint(centre, edge).collision <= 2, "collision outcome");
        fuzzCheck(scene.intersectSphere(centre, edge / 2.0f, edge).collision <= 2,
                  "collision outcome");
        PlacementInfo info{};
        const XrResultVLM r =
            scene.getPlacementInfo({centre.x, centre.y, centre.z + 2.0f * edge},
                                   {0.0f, 0.0f, -1.0f}, {1.0f, 0.0f, 0.0f}, info, 4.0f * edge);
        fuzzCheck(r == kSuccess || r == kErrorDirectionZero, "getPlacementInfo result code");
    }
}

Config configFor(int32_t mode, float cellSize) {
    Config config{};
    config.mode = mode;
    config.cellSize = cellSize;
    config.truncation = cellSize * kTruncationCells;
    config.detectPlanes = config.labelPlanes = true;
    config.planeMaxStdError = 0.01f;
    config.planeMaxAngle = 0.1f;
    config.planeSolverIterations = 10;
    config.planeContourAlpha = 0.1f;
    return config;
}

}  // namespace

void runVolumeInput(const uint8_t* data, size_t size) {
    const QuietLog quiet;
    FuzzInput in(data, size);
    forgetInstances();
    const uint8_t files = in.byte();
    const int32_t mode = (files & 1) ? kModeSplit : kModeCombined;
    const float cellSize = kCellSizes[in.byte() % 4];
    std::string depth, label, labelDepth;
    auto take = [&in](size_t count) {
        const uint8_t* bytes = in.bytes(count);
        return std::string(reinterpret_cast<const char*>(bytes), count);
    };
    if (mode == kModeCombined) {
        labelDepth = take(in.remaining());
    } else if ((files & 6) == 2) {
        depth = take(in.remaining());
    } else if ((files & 6) == 4) {
        label = take(in.remaining());
    } else {
        depth = take(in.raw<uint16_t>());
        label = take(in.remaining());
    }
    Impl scene;
    fuzzCheck(scene.init(configFor(mode, cellSize)) == kSuccess, "init");
    const std::string base = workDirectory() + "/in";
    if (stageAll(scene, base, depth, label, labelDepth) == 0)
        return;
    fuzzCheck(scene.loadVolumes(base) == 1, "loadVolumes of files that exist");
    Impl::State& s = internalState(scene);
    if (s.mVolumeGrid)
        queryLoadedBlocks(scene, *s.mVolumeGrid);
    else
        queryLoadedBlocks(scene, *s.mLabelDepthVolumeGrid);
    // Plane fitting requires the truncation band to span more than two sample spacings and ends
    // the process otherwise; a file may bring a spacing far from the configured cell size.
    const Solid::Vec3 spacing =
        s.mVolumeGrid ? s.mVolumeGrid->gridSpacing() : s.mLabelDepthVolumeGrid->gridSpacing();
    FuzzInput noArguments(nullptr, 0);
    runEveryQuery(scene, noArguments, 2.0f * spacing(0) / (cellSize * kTruncationCells) < 1.0f);
    // What was loaded saves, and the saved files load again into a fresh scene with the same
    // blocks, unless the spacing needed more digits than the format writes.
    const std::string saved = workDirectory() + "/out";
    fuzzCheck(scene.saveVolumes(saved) == 1, "saveVolumes");
    Impl reloaded;
    fuzzCheck(reloaded.init(configFor(mode, cellSize)) == kSuccess, "init");
    if (stageAll(reloaded, saved, readFile(saved + kDepthGridSuffix),
                 readFile(saved + kLabelGridSuffix),
                 readFile(saved + kLabelDepthGridSuffix)) == (mode == kModeSplit ? 2 : 1)) {
        fuzzCheck(reloaded.loadVolumes(saved) == 1, "loadVolumes of saved files");
        fuzzCheck(blockCount(reloaded) == blockCount(scene), "saved blocks reload");
    }
}

}  // namespace Fuzz
}  // namespace Velmora
