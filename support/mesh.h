// Triangle meshes for tests and benchmarks: a Wavefront OBJ reader and the
// shared mesh folder.
#ifndef KEL_SUPPORT_MESH_H
#define KEL_SUPPORT_MESH_H

#include <string>
#include <vector>

namespace kelt {

struct Mesh {
    std::vector<float> vertices;  // x, y, z per vertex
    std::vector<int> triangles;   // three vertex indices and a spare word per triangle
    int vertexCount() const { return int(vertices.size() / 3); }
    int triangleCount() const { return int(triangles.size() / 4); }
    void addTriangle(int a, int b, int c) { triangles.insert(triangles.end(), {a, b, c, 0}); }
    int addVertex(float x, float y, float z) {
        for (float c : {x, y, z}) vertices.push_back(c);
        return vertexCount() - 1;
    }
    const float* corner(int triangle, int k) const {
        return &vertices[3 * size_t(triangles[4 * size_t(triangle) + size_t(k)])];
    }
};

// Reads "v" and "f" lines (v, v/vt, v//vn or v/vt/vn, negative indices
// allowed); polygons are fan-triangulated. False when the file cannot be read
// or an index is out of range.
bool loadObj(const std::string& path, Mesh* mesh);

// The folder of shared meshes (../shared/data/meshes beside the project, or
// $KEL_MESH_DIR), or "" when absent.
std::string sharedMeshDir();

// Loads stanford-bunny.obj, teapot.obj, ... from the shared folder; false
// when the folder or file is absent.
bool loadSharedMesh(const std::string& fileName, Mesh* mesh);

// Componentwise bounds of the vertices.
void vertexBounds(const Mesh& mesh, float box[6]);

}  // namespace kelt

#endif
