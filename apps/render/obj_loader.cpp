#include "obj_loader.h"

#include <tiny_obj_loader.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unordered_map>

namespace render {

namespace {

// Far more than any mesh the PSAH budget (a 32-bit MiB count) could hold.
const size_t kMaxTriangles = 16u << 20;

bool fail(std::string* error, const std::string& message) {
    *error = message;
    return false;
}

// A vertex's position and normal as bit patterns, so that equal means equal.
using VertexKey = std::array<uint32_t, 6>;

struct VertexKeyHash {
    size_t operator()(const VertexKey& key) const {
        size_t hash = 0;
        for (uint32_t word : key) hash = hash * 1000003u ^ word;
        return hash;
    }
};

uint32_t bitsOf(float value) {
    if (value == 0.0f) value = 0.0f;  // -0 and +0 are the same place
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// One whitespace-separated word of a line, from *at on; empty at the end.
std::string nextWord(const std::string& line, size_t* at) {
    const size_t start = line.find_first_not_of(" \t\r", *at);
    if (start == std::string::npos) {
        *at = line.size();
        return "";
    }
    *at = std::min(line.find_first_of(" \t\r", start), line.size());
    return line.substr(start, *at - start);
}

bool isFiniteNumber(const std::string& word) {
    if (word.empty() || word.find_first_not_of("0123456789+-.eE") != std::string::npos)
        return false;
    char* end = nullptr;
    const double value = std::strtod(word.c_str(), &end);
    return *end == '\0' && std::isfinite(value);
}

// The reader takes a coordinate it cannot parse ("nan", "1.5e", "abc") for
// 0 and drops a face of fewer than three corners (a file cut off mid-line)
// without a word. Both mean a broken file, so the text is checked first.
bool checkLines(const std::string& text, std::string* error) {
    size_t number = 0;
    for (size_t start = 0; start < text.size(); ++number) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        size_t at = 0;
        const std::string keyword = nextWord(line, &at);
        const std::string where = "line " + std::to_string(number + 1) + ": ";
        if (keyword == "v" || keyword == "vn") {
            for (int k = 0; k < 3; ++k) {
                const std::string word = nextWord(line, &at);
                if (word.empty()) return fail(error, where + "fewer than three coordinates");
                if (!isFiniteNumber(word))
                    return fail(error, where + "'" + word + "' is not a finite number");
            }
        } else if (keyword == "f") {
            int corners = 0;
            while (!nextWord(line, &at).empty()) ++corners;
            if (corners < 3) return fail(error, where + "a face needs at least three corners");
        }
    }
    return true;
}

bool finite(const std::vector<tinyobj::real_t>& values) {
    for (tinyobj::real_t value : values)
        if (!std::isfinite(value)) return false;
    return true;
}

// Whether every corner of every face names a normal, so the file's own
// shading can be used instead of normals computed from the faces.
bool everyCornerHasNormal(const tinyobj::ObjReader& reader) {
    const size_t normals = reader.GetAttrib().normals.size() / 3;
    for (const tinyobj::shape_t& shape : reader.GetShapes())
        for (const tinyobj::index_t& index : shape.mesh.indices)
            if (index.normal_index < 0 || size_t(index.normal_index) >= normals) return false;
    return true;
}

bool convert(const tinyobj::ObjReader& reader, Mesh* mesh, std::string* error) {
    const tinyobj::attrib_t& attrib = reader.GetAttrib();
    if (!finite(attrib.vertices) || !finite(attrib.normals))
        return fail(error, "a coordinate is not a finite number");
    const size_t positions = attrib.vertices.size() / 3;
    size_t triangles = 0;
    for (const tinyobj::shape_t& shape : reader.GetShapes()) {
        for (unsigned char corners : shape.mesh.num_face_vertices)
            if (corners != 3) return fail(error, "a face could not be cut into triangles");
        triangles += shape.mesh.num_face_vertices.size();
    }
    if (triangles == 0) return fail(error, "the file holds no triangles (no valid 'f' lines)");
    if (triangles > kMaxTriangles)
        return fail(error, std::to_string(triangles) + " triangles is more than the " +
                               std::to_string(kMaxTriangles) + " this renderer accepts");

    const bool ownNormals = everyCornerHasNormal(reader);
    // One mesh vertex per distinct position and normal, compared by value:
    // faces written with separate copies of a corner, as OBJ files often do
    // along the borders of patches, share one vertex, so normals computed
    // from the faces run smoothly across those borders; a position that
    // carries different normals on either side of a crease is split.
    std::unordered_map<VertexKey, int, VertexKeyHash> vertexOf;
    Mesh result;
    for (const tinyobj::shape_t& shape : reader.GetShapes()) {
        const std::vector<tinyobj::index_t>& indices = shape.mesh.indices;
        for (size_t face = 0; face < indices.size(); face += 3) {
            int corner[3];
            for (int k = 0; k < 3; ++k) {
                const tinyobj::index_t& index = indices[face + k];
                if (index.vertex_index < 0 || size_t(index.vertex_index) >= positions)
                    return fail(error, "face " + std::to_string(face / 3 + 1) +
                                           " names a vertex that does not exist");
                const float* p = &attrib.vertices[3 * index.vertex_index];
                Vec3 n = {0.0f, 0.0f, 0.0f};
                if (ownNormals) {
                    const float* q = &attrib.normals[3 * index.normal_index];
                    const float length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2]);
                    if (length > 0.0f) n = {q[0] / length, q[1] / length, q[2] / length};
                }
                const VertexKey key = {bitsOf(p[0]), bitsOf(p[1]), bitsOf(p[2]),
                                       bitsOf(n[0]), bitsOf(n[1]), bitsOf(n[2])};
                const auto [at, added] = vertexOf.try_emplace(key, result.vertexCount());
                if (added) result.addVertex({p[0], p[1], p[2]}, n);
                corner[k] = at->second;
            }
            result.addTriangle(corner[0], corner[1], corner[2], 0);
        }
    }
    if (!ownNormals) computeVertexNormals(&result);
    *mesh = std::move(result);
    return true;
}

}  // namespace

bool loadObjFile(const std::string& path, Mesh* mesh, std::string* error) {
    // Checked here because the reader's own message for a missing file is terse.
    if (std::filesystem::is_directory(path))
        return fail(error, "'" + path + "' is a folder, not an OBJ file");
    std::ifstream file(path, std::ios::binary);
    if (!file) return fail(error, "cannot open '" + path + "'");
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!parseObjText(text, mesh, error)) return fail(error, "'" + path + "': " + *error);
    return true;
}

bool parseObjText(const std::string& text, Mesh* mesh, std::string* error) {
    if (!checkLines(text, error)) return false;
    tinyobj::ObjReaderConfig config;
    config.triangulate = true;
    config.vertex_color = false;
    tinyobj::ObjReader reader;
    if (!reader.ParseFromString(text, "", config))
        return fail(error, "not valid OBJ: " + reader.Error());
    return convert(reader, mesh, error);
}

}  // namespace render
