#include "velmora/Ply.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

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

}  // namespace

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
