#include "velmora/Sequence.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "velmora/Png.h"

namespace VelmoraTool {
namespace fs = std::filesystem;
namespace {

// Digits in the file stems of the recorded layout.
constexpr int kStemDigits = 6;
// TUM: depth images hold 5000 units a metre, i.e. 5 units a millimetre.
constexpr uint32_t kTumDepthUnitsPerMm = 5;
// TUM: colour and pose are taken from the entry nearest in time to a depth image when it lies
// within this many seconds (the usual association bound for that data set).
constexpr double kTumMaxTimeDifference = 0.02;
constexpr double kNanosecondsPerSecond = 1e9;
constexpr double kMillisecondsPerSecond = 1e3;

// Parses a whole token as a double; "nan" and "inf" are numbers here.
bool parseNumber(const std::string& token, double& value) {
    if (token.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    value = std::strtod(token.c_str(), &end);
    return end == token.c_str() + token.size() && errno != ERANGE;
}

// Reads every whitespace-separated number of a text file.
bool readNumbers(const std::string& path, std::vector<double>& numbers, std::string& problem) {
    std::ifstream in(path);
    if (!in) {
        problem = fs::exists(path) ? "cannot read the file" : "missing file";
        return false;
    }
    std::string token;
    while (in >> token) {
        double value = 0.0;
        if (!parseNumber(token, value)) {
            problem = "not a number: '" + token + "'";
            return false;
        }
        numbers.push_back(value);
    }
    return true;
}

std::vector<std::string> splitLine(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> tokens;
    std::string token;
    while (in >> token) {
        tokens.push_back(token);
    }
    return tokens;
}

bool isDigits(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(),
                                        [](unsigned char c) { return std::isdigit(c) != 0; });
}

bool isDirectory(const fs::path& path) {
    std::error_code ignored;
    return fs::is_directory(path, ignored);
}

bool isFile(const fs::path& path) {
    std::error_code ignored;
    return fs::is_regular_file(path, ignored);
}

// Reads the images of one frame, validates them against each other and against the size of the
// sequence, and fills the frame. Shared by both layouts.
class FrameImageLoader {
public:
    explicit FrameImageLoader(const SequenceOptions& options) : mOptions(options) {}

    // `depthUnitsPerMm` converts the stored depth values to millimetres (1 or 5).
    bool load(const std::string& depthPath, const std::string& labelPath,
              const std::string& colorPath, uint32_t depthUnitsPerMm, Frame& frame,
              std::string& problem) {
        PngImage depth;
        std::string error;
        if (!readPng(depthPath, depth, error)) {
            problem = depthPath + ": " + error;
            return false;
        }
        if (depth.bitDepth != 16 || depth.channels != 1) {
            problem = depthPath + ": expected a 16-bit grey depth image, found " + depth.describe();
            return false;
        }
        if (depth.width == 0 || depth.height == 0) {
            problem = depthPath + ": empty image";
            return false;
        }
        if (mWidth == 0) {
            mWidth = depth.width;
            mHeight = depth.height;
        } else if (depth.width != mWidth || depth.height != mHeight) {
            problem = depthPath + ": size " + sizeText(depth.width, depth.height) +
                      " differs from the sequence's " + sizeText(mWidth, mHeight);
            return false;
        }
        frame.width = depth.width;
        frame.height = depth.height;
        const size_t pixels = size_t{depth.width} * depth.height;
        frame.depthMm.resize(pixels);
        for (size_t i = 0; i < pixels; ++i) {
            const uint32_t raw = depth.sample(static_cast<uint32_t>(i % depth.width),
                                              static_cast<uint32_t>(i / depth.width));
            // Rounded to the nearest millimetre.
            frame.depthMm[i] =
                static_cast<uint16_t>((2 * raw + depthUnitsPerMm) / (2 * depthUnitsPerMm));
        }
        frame.hasLabels = false;
        if (!labelPath.empty() && !loadLabels(labelPath, frame, problem)) {
            return false;
        }
        frame.hasColor = false;
        if (!colorPath.empty() && !loadColor(colorPath, frame, problem)) {
            return false;
        }
        return true;
    }

private:
    static std::string sizeText(uint32_t width, uint32_t height) {
        return std::to_string(width) + "x" + std::to_string(height);
    }

    bool checkSize(const std::string& path, const PngImage& image, const Frame& frame,
                   std::string& problem) const {
        if (image.width != frame.width || image.height != frame.height) {
            problem = path + ": size " + sizeText(image.width, image.height) +
                      " differs from the depth image's " + sizeText(frame.width, frame.height);
            return false;
        }
        return true;
    }

    bool loadLabels(const std::string& path, Frame& frame, std::string& problem) const {
        PngImage labels;
        std::string error;
        if (!readPng(path, labels, error)) {
            problem = path + ": " + error;
            return false;
        }
        if (labels.channels != 1) {
            problem =
                path + ": expected an 8- or 16-bit grey label image, found " + labels.describe();
            return false;
        }
        if (!checkSize(path, labels, frame, problem)) {
            return false;
        }
        const size_t pixels = size_t{frame.width} * frame.height;
        const bool mapped = mOptions.labelMap.has_value();
        // Without a map, 16-bit ids go to the library as they are; with one, the mapped classes
        // always fit a byte.
        frame.labelsAre16Bit = labels.bitDepth == 16 && !mapped;
        frame.labels8.assign(frame.labelsAre16Bit ? 0 : pixels, 0);
        frame.labels16.assign(frame.labelsAre16Bit ? pixels : 0, 0);
        for (size_t i = 0; i < pixels; ++i) {
            const uint32_t x = static_cast<uint32_t>(i % frame.width);
            const uint32_t y = static_cast<uint32_t>(i / frame.width);
            uint32_t id = labels.sample(x, y);
            if (mapped) {
                const auto found = mOptions.labelMap->find(id);
                id = found == mOptions.labelMap->end() ? 0 : found->second;
            } else if (id >= kLabelCount) {
                problem = path + ": label id " + std::to_string(id) + " at pixel (" +
                          std::to_string(x) + ", " + std::to_string(y) + ") is " +
                          std::to_string(kLabelCount) +
                          " or more; give --label-map to map ids to classes below " +
                          std::to_string(kLabelCount);
                return false;
            }
            if (frame.labelsAre16Bit) {
                frame.labels16[i] = static_cast<uint16_t>(id);
            } else {
                frame.labels8[i] = static_cast<uint8_t>(id);
            }
        }
        frame.hasLabels = true;
        return true;
    }

    bool loadColor(const std::string& path, Frame& frame, std::string& problem) const {
        PngImage color;
        std::string error;
        if (!readPng(path, color, error)) {
            problem = path + ": " + error;
            return false;
        }
        if (color.bitDepth != 8 || color.channels != 3) {
            problem = path + ": expected an 8-bit RGB colour image, found " + color.describe();
            return false;
        }
        if (!checkSize(path, color, frame, problem)) {
            return false;
        }
        frame.rgb = std::move(color.bytes);
        frame.hasColor = true;
        return true;
    }

    const SequenceOptions& mOptions;
    // Size of the first depth image read; every later image must match it.
    uint32_t mWidth = 0;
    uint32_t mHeight = 0;
};

// ---------------------------------------------------------------------------------------------
// Recorded layout.

bool readIntrinsics(const std::string& path, Intrinsics& intrinsics, std::string& error) {
    std::vector<double> numbers;
    std::string problem;
    if (!readNumbers(path, numbers, problem)) {
        error = path + ": " + problem;
        return false;
    }
    // A 4x4 matrix as the layout prescribes, or the plain 3x3 camera matrix.
    constexpr size_t kMatrix4 = 16, kMatrix3 = 9;
    const size_t columns = numbers.size() == kMatrix4 ? 4 : numbers.size() == kMatrix3 ? 3 : 0;
    if (columns == 0) {
        error = path + ": expected a 4x4 matrix (16 numbers), found " +
                std::to_string(numbers.size()) + " numbers";
        return false;
    }
    intrinsics = {numbers[0], numbers[columns + 1], numbers[2], numbers[columns + 2]};
    for (double value : {intrinsics.fx, intrinsics.fy, intrinsics.cx, intrinsics.cy}) {
        if (!std::isfinite(value) || value <= 0.0) {
            error = path + ": fx, fy, cx and cy must be finite and above zero";
            return false;
        }
    }
    return true;
}

class RecordedSequence : public FrameSource {
public:
    struct Entry {
        uint64_t number;
        std::string stem;
    };

    RecordedSequence(fs::path directory, const SequenceOptions& options, Intrinsics intrinsics,
                     std::vector<Entry> entries)
        : mDirectory(std::move(directory)),
          mOptions(options),
          mIntrinsics(intrinsics),
          mEntries(std::move(entries)),
          mHasLabels(isDirectory(mDirectory / "label")),
          mHasColor(isDirectory(mDirectory / "color")),
          mLoader(mOptions) {}

    size_t frameCount() const override { return mEntries.size(); }
    uint64_t frameNumber(size_t index) const override { return mEntries[index].number; }
    Intrinsics intrinsics() const override { return mIntrinsics; }
    bool hasLabels() const override { return mHasLabels; }
    std::string describe() const override {
        return mDirectory.string() + " (recorded layout" + (mHasLabels ? ", labels" : "") +
               (mHasColor ? ", colour" : "") + ")";
    }

    FrameStatus load(size_t index, Frame& frame, std::string& problem) override {
        const std::string& stem = mEntries[index].stem;
        const std::string posePath = (mDirectory / "pose" / (stem + ".txt")).string();
        std::vector<double> numbers;
        std::string error;
        if (!readNumbers(posePath, numbers, error)) {
            problem = posePath + ": " + error;
            return FrameStatus::kBadInput;
        }
        if (numbers.size() != frame.worldFromCamera.size()) {
            problem = posePath + ": expected a 4x4 matrix (16 numbers), found " +
                      std::to_string(numbers.size()) + " numbers";
            return FrameStatus::kBadInput;
        }
        std::copy(numbers.begin(), numbers.end(), frame.worldFromCamera.begin());
        if (!isFinitePose(frame.worldFromCamera)) {
            problem = posePath + ": tracking lost (non-finite pose)";
            return FrameStatus::kTrackingLost;
        }
        if (!checkRigid(frame.worldFromCamera, error)) {
            problem = posePath + ": " + error;
            return FrameStatus::kBadInput;
        }
        // Label and colour images are optional per frame: their streams may run at their own
        // rate, so a frame without one simply has none.
        const fs::path labelPath = mDirectory / "label" / (stem + ".png");
        const fs::path colorPath = mDirectory / "color" / (stem + ".png");
        const std::string depthPath = (mDirectory / "depth" / (stem + ".png")).string();
        if (!mLoader.load(depthPath, mHasLabels && isFile(labelPath) ? labelPath.string() : "",
                          mHasColor && isFile(colorPath) ? colorPath.string() : "", 1, frame,
                          problem)) {
            return FrameStatus::kBadInput;
        }
        // The layout has no time stamps; the frame number stands in, which keeps the order.
        frame.timestamp = static_cast<int64_t>(mEntries[index].number);
        return FrameStatus::kOk;
    }

private:
    fs::path mDirectory;
    SequenceOptions mOptions;
    Intrinsics mIntrinsics;
    std::vector<Entry> mEntries;
    bool mHasLabels;
    bool mHasColor;
    FrameImageLoader mLoader;
};

std::unique_ptr<FrameSource> openRecorded(const fs::path& directory, const SequenceOptions& options,
                                          std::string& error) {
    Intrinsics intrinsics;
    if (!readIntrinsics((directory / "intrinsic" / "intrinsic_depth.txt").string(), intrinsics,
                        error)) {
        return nullptr;
    }
    std::vector<RecordedSequence::Entry> entries;
    std::error_code code;
    for (const fs::directory_entry& file : fs::directory_iterator(directory / "depth", code)) {
        const std::string stem = file.path().stem().string();
        if (file.path().extension() == ".png" && stem.size() >= kStemDigits && isDigits(stem)) {
            entries.push_back({std::stoull(stem), stem});
        }
    }
    if (code) {
        error = (directory / "depth").string() + ": cannot list: " + code.message();
        return nullptr;
    }
    if (entries.empty()) {
        error = (directory / "depth").string() + ": no depth images named NNNNNN.png";
        return nullptr;
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.number < b.number; });
    return std::make_unique<RecordedSequence>(directory, options, intrinsics, std::move(entries));
}

// ---------------------------------------------------------------------------------------------
// TUM RGB-D layout.

struct TimedFile {
    double time;
    std::string file;
};

struct TimedPose {
    double time;
    double values[7];  // tx ty tz qx qy qz qw
};

// Reads the lines of a TUM index file that are neither blank nor comments; each must hold
// `fields` tokens and start with a number.
bool readTumLines(const fs::path& path, size_t fields, std::vector<std::vector<std::string>>& lines,
                  std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = path.string() + ": cannot read the file";
        return false;
    }
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::vector<std::string> tokens = splitLine(line);
        if (tokens.empty() || tokens[0][0] == '#') {
            continue;
        }
        double time = 0.0;
        if (tokens.size() != fields || !parseNumber(tokens[0], time)) {
            error = path.string() + ":" + std::to_string(number) + ": expected " +
                    std::to_string(fields) + " fields starting with a time stamp";
            return false;
        }
        lines.push_back(std::move(tokens));
    }
    return true;
}

bool readTumFiles(const fs::path& path, std::vector<TimedFile>& files, std::string& error) {
    std::vector<std::vector<std::string>> lines;
    constexpr size_t kFields = 2;  // time file
    if (!readTumLines(path, kFields, lines, error)) {
        return false;
    }
    for (const auto& tokens : lines) {
        double time = 0.0;
        parseNumber(tokens[0], time);
        files.push_back({time, tokens[1]});
    }
    std::sort(files.begin(), files.end(),
              [](const TimedFile& a, const TimedFile& b) { return a.time < b.time; });
    return true;
}

bool readTumPoses(const fs::path& path, std::vector<TimedPose>& poses, std::string& error) {
    constexpr size_t kFields = 8;  // time tx ty tz qx qy qz qw
    std::vector<std::vector<std::string>> lines;
    if (!readTumLines(path, kFields, lines, error)) {
        return false;
    }
    for (const auto& tokens : lines) {
        TimedPose pose{};
        parseNumber(tokens[0], pose.time);
        for (size_t i = 1; i < kFields; ++i) {
            if (!parseNumber(tokens[i], pose.values[i - 1])) {
                error = path.string() + ": not a number: '" + tokens[i] + "'";
                return false;
            }
        }
        poses.push_back(pose);
    }
    std::sort(poses.begin(), poses.end(),
              [](const TimedPose& a, const TimedPose& b) { return a.time < b.time; });
    return true;
}

// Index of the entry nearest to `time` within kTumMaxTimeDifference, or -1.
template <typename T>
long nearestInTime(const std::vector<T>& entries, double time) {
    const auto after = std::lower_bound(entries.begin(), entries.end(), time,
                                        [](const T& entry, double t) { return entry.time < t; });
    long best = -1;
    double bestDifference = kTumMaxTimeDifference;
    for (auto it : {after, after == entries.begin() ? after : after - 1}) {
        if (it != entries.end() && std::fabs(it->time - time) <= bestDifference) {
            bestDifference = std::fabs(it->time - time);
            best = static_cast<long>(it - entries.begin());
        }
    }
    return best;
}

class TumSequence : public FrameSource {
public:
    TumSequence(fs::path directory, const SequenceOptions& options,
                std::vector<TimedFile> depthFiles, std::vector<TimedFile> colorFiles,
                std::vector<TimedPose> poses)
        : mDirectory(std::move(directory)),
          mOptions(options),
          mDepthFiles(std::move(depthFiles)),
          mColorFiles(std::move(colorFiles)),
          mPoses(std::move(poses)),
          mLoader(mOptions) {}

    size_t frameCount() const override { return mDepthFiles.size(); }
    uint64_t frameNumber(size_t index) const override { return index; }
    Intrinsics intrinsics() const override { return *mOptions.intrinsics; }
    bool hasLabels() const override { return false; }
    std::string describe() const override { return mDirectory.string() + " (TUM RGB-D layout)"; }

    FrameStatus load(size_t index, Frame& frame, std::string& problem) override {
        const TimedFile& depth = mDepthFiles[index];
        const std::string depthPath = (mDirectory / depth.file).string();
        const long pose = nearestInTime(mPoses, depth.time);
        if (pose < 0) {
            char text[128];
            std::snprintf(text, sizeof(text), ": no ground-truth pose within %.0f ms",
                          kTumMaxTimeDifference * kMillisecondsPerSecond);
            problem = depthPath + text;
            return FrameStatus::kTrackingLost;
        }
        const double* v = mPoses[pose].values;
        frame.worldFromCamera = poseFromQuaternion(v[3], v[4], v[5], v[6], v[0], v[1], v[2]);
        if (!isFinitePose(frame.worldFromCamera)) {
            problem = (mDirectory / "groundtruth.txt").string() + ": tracking lost at time " +
                      std::to_string(mPoses[pose].time);
            return FrameStatus::kTrackingLost;
        }
        std::string error;
        if (!checkRigid(frame.worldFromCamera, error)) {
            problem = (mDirectory / "groundtruth.txt").string() + ": pose at time " +
                      std::to_string(mPoses[pose].time) + " is " + error;
            return FrameStatus::kBadInput;
        }
        const long color = nearestInTime(mColorFiles, depth.time);
        if (!mLoader.load(depthPath, "",
                          color < 0 ? "" : (mDirectory / mColorFiles[color].file).string(),
                          kTumDepthUnitsPerMm, frame, problem)) {
            return FrameStatus::kBadInput;
        }
        frame.timestamp = static_cast<int64_t>(std::llround(depth.time * kNanosecondsPerSecond));
        return FrameStatus::kOk;
    }

private:
    fs::path mDirectory;
    SequenceOptions mOptions;
    std::vector<TimedFile> mDepthFiles;
    std::vector<TimedFile> mColorFiles;
    std::vector<TimedPose> mPoses;
    FrameImageLoader mLoader;
};

std::unique_ptr<FrameSource> openTum(const fs::path& directory, const SequenceOptions& options,
                                     std::string& error) {
    if (!options.intrinsics) {
        error = directory.string() +
                ": a TUM RGB-D sequence holds no intrinsics; give --intrinsics fx,fy,cx,cy";
        return nullptr;
    }
    std::vector<TimedFile> depthFiles, colorFiles;
    std::vector<TimedPose> poses;
    if (!readTumFiles(directory / "depth.txt", depthFiles, error) ||
        (isFile(directory / "rgb.txt") &&
         !readTumFiles(directory / "rgb.txt", colorFiles, error)) ||
        !readTumPoses(directory / "groundtruth.txt", poses, error)) {
        return nullptr;
    }
    if (depthFiles.empty()) {
        error = (directory / "depth.txt").string() + ": lists no depth images";
        return nullptr;
    }
    return std::make_unique<TumSequence>(directory, options, std::move(depthFiles),
                                         std::move(colorFiles), std::move(poses));
}

}  // namespace

bool loadLabelMap(const std::string& path, LabelMap& map, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = path + ": " + (fs::exists(path) ? "cannot read the file" : "missing file");
        return false;
    }
    map.clear();
    std::string line;
    bool first = true;
    for (int number = 1; std::getline(in, line); ++number) {
        std::replace(line.begin(), line.end(), ',', ' ');
        const std::vector<std::string> tokens = splitLine(line);
        const bool header = first && !tokens.empty() && !isDigits(tokens[0]);
        first = first && tokens.empty();
        if (tokens.empty() || tokens[0][0] == '#' || header) {
            continue;
        }
        if (tokens.size() != 2 || !isDigits(tokens[0]) || !isDigits(tokens[1])) {
            error = path + ":" + std::to_string(number) + ": expected 'raw_id,class'";
            return false;
        }
        const unsigned long long raw = std::stoull(tokens[0]);
        const unsigned long long mappedClass = std::stoull(tokens[1]);
        if (mappedClass >= kLabelCount) {
            error = path + ":" + std::to_string(number) + ": class " + tokens[1] + " is " +
                    std::to_string(kLabelCount) + " or more";
            return false;
        }
        map[static_cast<uint32_t>(raw)] = static_cast<uint8_t>(mappedClass);
    }
    return true;
}

std::unique_ptr<FrameSource> openSequence(const std::string& directory,
                                          const SequenceOptions& options, std::string& error) {
    const fs::path root(directory);
    if (!isDirectory(root)) {
        error = directory + ": " + (fs::exists(root) ? "not a directory" : "no such directory");
        return nullptr;
    }
    if (isFile(root / "depth.txt") && isFile(root / "groundtruth.txt")) {
        return openTum(root, options, error);
    }
    if (isDirectory(root / "depth")) {
        return openRecorded(root, options, error);
    }
    error = directory +
            ": not a sequence: expected depth/ (recorded layout) or depth.txt and "
            "groundtruth.txt (TUM RGB-D layout)";
    return nullptr;
}

std::string frameStem(uint64_t frameNumber) {
    char text[32];
    std::snprintf(text, sizeof(text), "%0*llu", kStemDigits,
                  static_cast<unsigned long long>(frameNumber));
    return text;
}

bool RecordedSequenceWriter::open(const std::string& directory, const Intrinsics& intrinsics,
                                  std::string& error) {
    mDirectory = directory;
    std::error_code code;
    for (const char* sub : {"depth", "label", "color", "pose", "intrinsic"}) {
        fs::create_directories(fs::path(directory) / sub, code);
        if (code) {
            error = (fs::path(directory) / sub).string() + ": cannot create: " + code.message();
            return false;
        }
    }
    const std::string path = (fs::path(directory) / "intrinsic" / "intrinsic_depth.txt").string();
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        error = path + ": cannot create: " + std::strerror(errno);
        return false;
    }
    std::fprintf(file, "%.6f 0 %.6f 0\n0 %.6f %.6f 0\n0 0 1 0\n0 0 0 1\n", intrinsics.fx,
                 intrinsics.cx, intrinsics.fy, intrinsics.cy);
    if (std::fclose(file) != 0) {
        error = path + ": cannot write";
        return false;
    }
    return true;
}

bool RecordedSequenceWriter::write(uint64_t frameNumber, const Frame& frame, std::string& error) {
    const fs::path root(mDirectory);
    const std::string stem = frameStem(frameNumber);
    const std::string png = stem + ".png";
    std::string problem;
    const std::string depthPath = (root / "depth" / png).string();
    if (!writePng(depthPath, makeGrey16(frame.width, frame.height, frame.depthMm), problem)) {
        error = depthPath + ": " + problem;
        return false;
    }
    if (frame.hasLabels) {
        const std::string labelPath = (root / "label" / png).string();
        const PngImage labels = frame.labelsAre16Bit
                                    ? makeGrey16(frame.width, frame.height, frame.labels16)
                                    : makeGrey8(frame.width, frame.height, frame.labels8);
        if (!writePng(labelPath, labels, problem)) {
            error = labelPath + ": " + problem;
            return false;
        }
    }
    if (frame.hasColor) {
        const std::string colorPath = (root / "color" / png).string();
        if (!writePng(colorPath, makeRgb8(frame.width, frame.height, frame.rgb), problem)) {
            error = colorPath + ": " + problem;
            return false;
        }
    }
    const std::string posePath = (root / "pose" / (stem + ".txt")).string();
    std::FILE* file = std::fopen(posePath.c_str(), "w");
    if (file == nullptr) {
        error = posePath + ": cannot create: " + std::strerror(errno);
        return false;
    }
    for (int row = 0; row < 4; ++row) {
        const double* m = frame.worldFromCamera.data() + row * 4;
        std::fprintf(file, "%.9f %.9f %.9f %.9f\n", m[0], m[1], m[2], m[3]);
    }
    if (std::fclose(file) != 0) {
        error = posePath + ": cannot write";
        return false;
    }
    return true;
}

}  // namespace VelmoraTool
