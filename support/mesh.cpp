#include "mesh.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kelt {

namespace {

bool isDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Resolves a 1-based (or negative, relative) OBJ index; -1 when invalid.
int resolveIndex(long index, int vertexCount) {
    if (index > 0 && index <= vertexCount) return int(index - 1);
    if (index < 0 && -index <= vertexCount) return int(vertexCount + index);
    return -1;
}

}  // namespace

bool loadObj(const std::string& path, Mesh* mesh) {
    std::ifstream in(path);
    if (!in) return false;
    Mesh result;
    std::string line;
    std::vector<int> face;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string tag;
        fields >> tag;
        if (tag == "v") {
            float x, y, z;
            if (!(fields >> x >> y >> z)) return false;
            result.addVertex(x, y, z);
        } else if (tag == "f") {
            face.clear();
            std::string corner;
            while (fields >> corner) {
                int index =
                    resolveIndex(std::strtol(corner.c_str(), nullptr, 10), result.vertexCount());
                if (index < 0) return false;
                face.push_back(index);
            }
            if (face.size() < 3) return false;
            for (size_t k = 1; k + 1 < face.size(); ++k)
                result.addTriangle(face[0], face[k], face[k + 1]);
        }
    }
    *mesh = std::move(result);
    return true;
}

std::string sharedMeshDir() {
    if (const char* dir = std::getenv("KEL_MESH_DIR"); dir && isDirectory(dir)) return dir;
    std::string dir = std::string(KEL_SOURCE_DIR) + "/../shared/data/meshes";
    return isDirectory(dir) ? dir : std::string();
}

bool loadSharedMesh(const std::string& fileName, Mesh* mesh) {
    std::string dir = sharedMeshDir();
    return !dir.empty() && loadObj(dir + "/" + fileName, mesh);
}

void vertexBounds(const Mesh& mesh, float box[6]) {
    for (int k = 0; k < 3 * mesh.vertexCount(); ++k) {
        const float v = mesh.vertices[size_t(k)];
        box[k % 3] = k < 3 || v < box[k % 3] ? v : box[k % 3];
        box[k % 3 + 3] = k < 3 || v > box[k % 3 + 3] ? v : box[k % 3 + 3];
    }
}

}  // namespace kelt
