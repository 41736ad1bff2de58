#include "weld.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <unordered_map>

namespace render {

namespace {

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

}  // namespace

int weldVertices(Mesh* mesh) {
    const int count = mesh->vertexCount();
    std::unordered_map<VertexKey, int, VertexKeyHash> welded;
    std::vector<int> newNumber(size_t(count), 0);
    Mesh result;
    for (int v = 0; v < count; ++v) {
        const float* p = &mesh->vertices[3 * size_t(v)];
        const float* n = &mesh->vertexNormals[3 * size_t(v)];
        const VertexKey key = {bitsOf(p[0]), bitsOf(p[1]), bitsOf(p[2]),
                               bitsOf(n[0]), bitsOf(n[1]), bitsOf(n[2])};
        const auto [at, added] = welded.try_emplace(key, result.vertexCount());
        if (added) result.addVertex({p[0], p[1], p[2]}, {n[0], n[1], n[2]});
        newNumber[size_t(v)] = at->second;
    }
    for (size_t t = 0; t < mesh->triangles.size(); t += 4)
        for (size_t corner = t; corner < t + 3; ++corner)
            mesh->triangles[corner] = newNumber[size_t(mesh->triangles[corner])];
    mesh->vertices.swap(result.vertices);
    mesh->vertexNormals.swap(result.vertexNormals);
    return count - mesh->vertexCount();
}

}  // namespace render
