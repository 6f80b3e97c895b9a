// Helpers of the output tests: a small reader of the binary PLY files the tool writes, kept apart
// from the tool's own reader so that the writer is checked against the format itself, and the
// UUIDs the library gives objects.
#ifndef VELMORA_TESTS_TOOLS_OUTPUTTESTSUPPORT_H
#define VELMORA_TESTS_TOOLS_OUTPUTTESTSUPPORT_H

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "velmora/SceneReadout.h"

namespace VelmoraToolTest {

// A PLY file as read back: the header lines, the vertex property names, every vertex property
// as a double, and the faces.
struct PlyFile {
    std::vector<std::string> header;
    std::vector<std::string> vertexProperties;
    std::vector<std::vector<double>> vertices;  // one row per vertex, one value per property
    std::vector<std::vector<uint32_t>> faces;
};

// Reads the binary little-endian files of writePly (float, uchar and int vertex properties, a
// uchar-counted list of uint per face); fails the test on anything else.
inline PlyFile readPly(const std::string& path) {
    PlyFile ply;
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    std::vector<std::string> types;
    size_t vertexCount = 0, faceCount = 0;
    std::string line;
    while (std::getline(in, line) && line != "end_header") {
        ply.header.push_back(line);
        std::istringstream words(line);
        std::string keyword, a, b;
        words >> keyword >> a >> b;
        if (keyword == "element") {
            (a == "vertex" ? vertexCount : faceCount) = std::stoul(b);
        } else if (keyword == "property" && a != "list") {
            types.push_back(a);
            ply.vertexProperties.push_back(b);
        }
    }
    auto read = [&in](auto value) {
        in.read(reinterpret_cast<char*>(&value), sizeof(value));
        return value;
    };
    ply.vertices.resize(vertexCount);
    for (std::vector<double>& row : ply.vertices) {
        for (const std::string& type : types) {
            row.push_back(type == "float"   ? read(float{})
                          : type == "uchar" ? read(uint8_t{})
                                            : read(int32_t{}));
        }
    }
    ply.faces.resize(faceCount);
    for (std::vector<uint32_t>& face : ply.faces) {
        face.resize(read(uint8_t{}));
        for (uint32_t& corner : face) {
            corner = read(uint32_t{});
        }
    }
    EXPECT_TRUE(in.good()) << "file ends early";
    in.peek();
    EXPECT_TRUE(in.eof()) << "bytes after the last face";
    return ply;
}

// The UUID the library gives an object: kind in byte 12, the id in bytes 8 and 9.
inline Velmora::UuidBytes objectUuid(uint16_t id, uint8_t kind) {
    Velmora::UuidBytes uuid{};
    uuid[8] = static_cast<uint8_t>(id & 0xFF);
    uuid[9] = static_cast<uint8_t>(id >> 8);
    uuid[12] = kind;
    return uuid;
}

}  // namespace VelmoraToolTest

#endif  // VELMORA_TESTS_TOOLS_OUTPUTTESTSUPPORT_H
