#include "scene.h"

#include <cmath>

namespace render {

int Mesh::addVertex(const Vec3& position, const Vec3& normal) {
    vertices.insert(vertices.end(), position.begin(), position.end());
    vertexNormals.insert(vertexNormals.end(), normal.begin(), normal.end());
    return vertexCount() - 1;
}

void Mesh::addTriangle(int a, int b, int c, int material) {
    triangles.insert(triangles.end(), {a, b, c, 0});
    materialOfTriangle.push_back(material);
}

void Mesh::append(const Mesh& other, int materialOffset) {
    const int base = vertexCount();
    vertices.insert(vertices.end(), other.vertices.begin(), other.vertices.end());
    vertexNormals.insert(vertexNormals.end(), other.vertexNormals.begin(),
                         other.vertexNormals.end());
    for (int t = 0; t < other.triangleCount(); ++t) {
        const int* v = &other.triangles[4 * t];
        addTriangle(v[0] + base, v[1] + base, v[2] + base,
                    other.materialOfTriangle[t] + materialOffset);
    }
}

void computeVertexNormals(Mesh* mesh) {
    std::vector<double> sum(mesh->vertices.size(), 0.0);
    const float* p = mesh->vertices.data();
    for (int t = 0; t < mesh->triangleCount(); ++t) {
        const int* v = &mesh->triangles[4 * t];
        double e1[3], e2[3];
        for (int k = 0; k < 3; ++k) {
            e1[k] = double(p[3 * v[1] + k]) - p[3 * v[0] + k];
            e2[k] = double(p[3 * v[2] + k]) - p[3 * v[0] + k];
        }
        // The unnormalised cross product weights each face by its area.
        const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                             e1[0] * e2[1] - e1[1] * e2[0]};
        for (int corner = 0; corner < 3; ++corner)
            for (int k = 0; k < 3; ++k) sum[3 * v[corner] + k] += n[k];
    }
    mesh->vertexNormals.assign(sum.size(), 0.0f);
    for (size_t i = 0; i < sum.size(); i += 3) {
        const double length =
            std::sqrt(sum[i] * sum[i] + sum[i + 1] * sum[i + 1] + sum[i + 2] * sum[i + 2]);
        if (length == 0.0) continue;  // an unused or degenerate vertex keeps a zero normal
        for (int k = 0; k < 3; ++k) mesh->vertexNormals[i + k] = float(sum[i + k] / length);
    }
}

}  // namespace render
