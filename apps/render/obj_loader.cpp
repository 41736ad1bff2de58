#include "obj_loader.h"

#include <tiny_obj_loader.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

#include "weld.h"

namespace render {

namespace {

// Far more than any mesh the PSAH budget (a 32-bit MiB count) could hold.
const size_t kMaxTriangles = 16u << 20;

bool fail(std::string* error, const std::string& message) {
    *error = message;
    return false;
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
    // One mesh vertex per distinct (position, normal) pair: a position that
    // carries different normals on either side of a crease is split.
    std::map<std::pair<int, int>, int> vertexOf;
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
                const int normal = ownNormals ? index.normal_index : -1;
                const auto key = std::make_pair(index.vertex_index, normal);
                auto found = vertexOf.find(key);
                if (found == vertexOf.end()) {
                    const float* p = &attrib.vertices[3 * index.vertex_index];
                    Vec3 n = {0.0f, 0.0f, 0.0f};
                    if (normal >= 0) {
                        const float* q = &attrib.normals[3 * normal];
                        const float length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2]);
                        if (length > 0.0f) n = {q[0] / length, q[1] / length, q[2] / length};
                    }
                    found = vertexOf.emplace(key, result.addVertex({p[0], p[1], p[2]}, n)).first;
                }
                corner[k] = found->second;
            }
            result.addTriangle(corner[0], corner[1], corner[2], 0);
        }
    }
    weldVertices(&result);
    if (!ownNormals) computeVertexNormals(&result);
    *mesh = std::move(result);
    return true;
}

tinyobj::ObjReaderConfig readerConfig() {
    tinyobj::ObjReaderConfig config;
    config.triangulate = true;
    config.vertex_color = false;
    return config;
}

}  // namespace

bool loadObjFile(const std::string& path, Mesh* mesh, std::string* error) {
    // Checked here because the reader's own message for a missing file is terse.
    if (std::filesystem::is_directory(path))
        return fail(error, "'" + path + "' is a folder, not an OBJ file");
    if (!std::ifstream(path)) return fail(error, "cannot open '" + path + "'");
    tinyobj::ObjReader reader;
    if (!reader.ParseFromFile(path, readerConfig()))
        return fail(error, "'" + path + "' is not a valid OBJ file: " + reader.Error());
    if (!convert(reader, mesh, error)) return fail(error, "'" + path + "': " + *error);
    return true;
}

bool parseObjText(const std::string& text, Mesh* mesh, std::string* error) {
    tinyobj::ObjReader reader;
    if (!reader.ParseFromString(text, "", readerConfig()))
        return fail(error, "not a valid OBJ text: " + reader.Error());
    return convert(reader, mesh, error);
}

}  // namespace render
