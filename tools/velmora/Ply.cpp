#include "velmora/Ply.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

namespace VelmoraTool {
namespace {

constexpr float kColorScale = 255.0f;
constexpr uint8_t kVerticesPerTriangle = 3;

// PLY's binary form is little-endian here; the writer appends the bytes of each value in that
// order whatever the host's order is.
template <typename T>
void append(std::string& bytes, T value) {
    static_assert(std::is_integral<T>::value || std::is_floating_point<T>::value,
                  "PLY properties are plain numbers");
    unsigned char raw[sizeof(T)];
    std::memcpy(raw, &value, sizeof(T));
    const uint16_t probe = 1;
    uint8_t first = 0;
    std::memcpy(&first, &probe, 1);
    if (first != 1) {
        std::reverse(raw, raw + sizeof(T));
    }
    bytes.append(reinterpret_cast<const char*>(raw), sizeof(T));
}

uint8_t colorByte(float channel) {
    return static_cast<uint8_t>(std::lround(std::clamp(channel, 0.0f, 1.0f) * kColorScale));
}

// Byte sizes of the PLY scalar types, under both of their names.
const std::map<std::string, size_t>& scalarSizes() {
    static const std::map<std::string, size_t> sizes = {
        {"char", 1},   {"int8", 1},    {"uchar", 1},  {"uint8", 1},  {"short", 2}, {"int16", 2},
        {"ushort", 2}, {"uint16", 2},  {"int", 4},    {"int32", 4},  {"uint", 4},  {"uint32", 4},
        {"float", 4},  {"float32", 4}, {"double", 8}, {"float64", 8}};
    return sizes;
}

// One scalar of `type` from a little-endian binary stream, as a double.
bool readBinaryScalar(std::istream& in, const std::string& type, double& value) {
    unsigned char raw[sizeof(double)] = {};
    const size_t size = scalarSizes().at(type);
    if (!in.read(reinterpret_cast<char*>(raw), static_cast<std::streamsize>(size))) {
        return false;
    }
    const uint16_t probe = 1;
    uint8_t first = 0;
    std::memcpy(&first, &probe, 1);
    if (first != 1) {
        std::reverse(raw, raw + size);
    }
    auto as = [&raw](auto typed) {
        std::memcpy(&typed, raw, sizeof(typed));
        return static_cast<double>(typed);
    };
    if (type == "float" || type == "float32") {
        value = as(float{});
    } else if (type == "double" || type == "float64") {
        value = as(double{});
    } else if (type == "char" || type == "int8") {
        value = as(int8_t{});
    } else if (type == "uchar" || type == "uint8") {
        value = as(uint8_t{});
    } else if (type == "short" || type == "int16") {
        value = as(int16_t{});
    } else if (type == "ushort" || type == "uint16") {
        value = as(uint16_t{});
    } else if (type == "int" || type == "int32") {
        value = as(int32_t{});
    } else {
        value = as(uint32_t{});
    }
    return true;
}

struct PlyProperty {
    std::string name;
    std::string type;       // scalar type, or the index type of a list
    std::string countType;  // empty: not a list
};

struct PlyElement {
    std::string name;
    size_t count = 0;
    std::vector<PlyProperty> properties;
};

}  // namespace

bool readPlyMesh(const std::string& path, HostMesh& mesh, std::string& error) {
    mesh = HostMesh{};
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = std::string("cannot open: ") + std::strerror(errno);
        return false;
    }
    std::string line;
    if (!std::getline(in, line) || line != "ply") {
        error = "not a PLY file";
        return false;
    }
    bool binary = false;
    std::vector<PlyElement> elements;
    while (std::getline(in, line) && line != "end_header") {
        std::istringstream words(line);
        std::string keyword;
        words >> keyword;
        if (keyword == "format") {
            std::string format;
            words >> format;
            if (format != "ascii" && format != "binary_little_endian") {
                error = "unsupported PLY format " + format;
                return false;
            }
            binary = format == "binary_little_endian";
        } else if (keyword == "element") {
            PlyElement element;
            words >> element.name >> element.count;
            elements.push_back(element);
        } else if (keyword == "property" && !elements.empty()) {
            PlyProperty property;
            words >> property.type;
            if (property.type == "list") {
                words >> property.countType >> property.type;
            }
            words >> property.name;
            if (scalarSizes().count(property.type) == 0 ||
                (!property.countType.empty() && scalarSizes().count(property.countType) == 0)) {
                error = "unsupported PLY property: " + line;
                return false;
            }
            elements.back().properties.push_back(property);
        }
    }
    if (!in) {
        error = "PLY header without end_header";
        return false;
    }
    auto readScalar = [&in, binary](const std::string& type, double& value) {
        return binary ? readBinaryScalar(in, type, value) : static_cast<bool>(in >> value);
    };
    for (const PlyElement& element : elements) {
        if (element.name != "vertex" && element.name != "face") {
            break;  // later elements are not needed
        }
        for (size_t item = 0; item < element.count; ++item) {
            std::array<float, 3> position{};
            std::vector<uint32_t> corners;
            for (const PlyProperty& property : element.properties) {
                double value = 0.0;
                if (property.countType.empty()) {
                    if (!readScalar(property.type, value)) {
                        error = "the file ends inside the " + element.name + " data";
                        return false;
                    }
                    const size_t axis = property.name == "x"   ? 0
                                        : property.name == "y" ? 1
                                        : property.name == "z" ? 2
                                                               : 3;
                    if (axis < 3) {
                        position[axis] = static_cast<float>(value);
                    }
                    continue;
                }
                double count = 0.0;
                if (!readScalar(property.countType, count)) {
                    error = "the file ends inside the " + element.name + " data";
                    return false;
                }
                for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
                    if (!readScalar(property.type, value)) {
                        error = "the file ends inside the " + element.name + " data";
                        return false;
                    }
                    corners.push_back(static_cast<uint32_t>(value));
                }
            }
            if (element.name == "vertex") {
                mesh.positions.push_back(position);
            }
            for (size_t i = 1; i + 1 < corners.size(); ++i) {
                for (uint32_t corner : {corners[0], corners[i], corners[i + 1]}) {
                    if (corner >= mesh.positions.size()) {
                        error = "a face names vertex " + std::to_string(corner) + " of " +
                                std::to_string(mesh.positions.size());
                        return false;
                    }
                    mesh.indices.push_back(corner);
                }
            }
        }
    }
    return true;
}

bool writePly(const std::string& path, const HostMesh& mesh, std::string& error) {
    const bool withColors = !mesh.colors.empty();
    const bool withIds = !mesh.instanceIds.empty();
    std::ostringstream header;
    header << "ply\nformat binary_little_endian 1.0\ncomment written by velmora; metres\n"
           << "element vertex " << mesh.positions.size() << "\n"
           << "property float x\nproperty float y\nproperty float z\n";
    if (withColors) {
        // Alpha 0 marks a vertex that no colour frame saw; its colour is then black.
        header << "property uchar red\nproperty uchar green\nproperty uchar blue\n"
               << "property uchar alpha\n";
    }
    if (withIds) {
        header << "property int instance_id\n";
    }
    header << "element face " << mesh.triangleCount() << "\n"
           << "property list uchar uint vertex_indices\nend_header\n";
    std::string bytes = header.str();
    for (size_t v = 0; v < mesh.positions.size(); ++v) {
        for (float coordinate : mesh.positions[v]) {
            append(bytes, coordinate);
        }
        if (withColors) {
            for (float channel : mesh.colors[v]) {
                append(bytes, colorByte(channel));
            }
        }
        if (withIds) {
            append(bytes, static_cast<int32_t>(mesh.instanceIds[v]));
        }
    }
    for (size_t t = 0; t < mesh.triangleCount(); ++t) {
        append(bytes, kVerticesPerTriangle);
        for (size_t corner = 0; corner < kVerticesPerTriangle; ++corner) {
            append(bytes, mesh.indices[t * kVerticesPerTriangle + corner]);
        }
    }
    std::ofstream out(path, std::ios::binary);
    if (!out) {
        error = std::string("cannot create: ") + std::strerror(errno);
        return false;
    }
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.flush();
    if (!out) {
        error = std::string("cannot write: ") + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace VelmoraTool
