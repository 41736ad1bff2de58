// Shared by the PSAH build tests and the build benchmark: budgets sized to a
// mesh, seeded triangle soups that stress the split search, and the one-leaf
// reference tree.
#ifndef KEL_TEST_PSAH_SUPPORT_H
#define KEL_TEST_PSAH_SUPPORT_H

#include <cstdint>
#include <random>
#include <vector>

#include "kelr.h"
#include "mesh.h"

namespace kelt {

// A working-memory budget in MiB that comfortably fits a PSAH build of the
// mesh: the fixed stores and the first chunk of each of the three chunk lists
// (about 81 MiB), the per-triangle stores, and room for the tree to grow.
inline uint32_t psahBudgetMiB(int vertexCount, int triangleCount) {
    const uint64_t perTriangle =
        48 + 3 * (8 + sizeof(void*)) + 16 * (8 + sizeof(void*)) + 24 * sizeof(void*);
    const uint64_t bytes = 64 * uint64_t(vertexCount) + perTriangle * uint64_t(triangleCount);
    return uint32_t(128 + (bytes >> 20));
}

// A seeded soup in the unit cube. It mixes small random triangles with the
// cases that make a split search work hard: many triangles in a few shared
// planes (coplanar and axis-aligned, on a coarse grid so that event values
// repeat), degenerate ones (a repeated corner, collinear corners, a single
// point), and large ones that cross many nodes.
inline Mesh randomSoup(unsigned seed, int triangleCount) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::uniform_int_distribution<int> grid(0, 16);
    auto onGrid = [&] { return float(grid(rng)) / 16.0f; };
    Mesh mesh;
    for (int i = 0; i < triangleCount; ++i) {
        float p[3][3];
        const int kind = i % 6;
        const int axis = (i / 6) % 3;
        for (int k = 0; k < 3; ++k)
            for (int a = 0; a < 3; ++a) p[k][a] = kind == 1 || kind == 2 ? onGrid() : unit(rng);
        if (kind == 0) {  // small
            for (int k = 1; k < 3; ++k)
                for (int a = 0; a < 3; ++a) p[k][a] = p[0][a] + 0.05f * (unit(rng) - 0.5f);
        } else if (kind == 1) {  // in one of three planes per axis
            const float plane = float(1 + grid(rng) % 3) / 4.0f;
            for (auto& v : p) v[axis] = plane;
        } else if (kind == 2) {  // a right triangle with axis-aligned legs
            const int b = (axis + 1) % 3, c = (axis + 2) % 3;
            for (int a = 0; a < 3; ++a) p[1][a] = p[2][a] = p[0][a];
            p[1][b] = onGrid();
            p[2][c] = onGrid();
        } else if (kind == 3) {  // degenerate: a repeated corner, collinear, a point
            for (int a = 0; a < 3; ++a) {
                if (axis == 1) p[2][a] = 0.5f * (p[0][a] + p[1][a]);
                if (axis != 1) p[1][a] = p[0][a];
                if (axis == 2) p[2][a] = p[0][a];
            }
        }
        const int base = mesh.vertexCount();
        for (auto& v : p) mesh.addVertex(v[0], v[1], v[2]);
        mesh.addTriangle(base, base + 1, base + 2);
    }
    return mesh;
}

// The one-leaf tree over all triangles in index order: the reference every
// other tree must agree with.
inline std::vector<int32_t> oneLeafTree(int triangleCount) {
    std::vector<int32_t> words = {-16, triangleCount, 0, 0};
    for (int n = 0; n < triangleCount; ++n) words.push_back(n);
    return words;
}

// Componentwise bounds of the vertices, as floats.
inline void vertexBounds(const Mesh& mesh, float box[6]) {
    for (int k = 0; k < 3 * mesh.vertexCount(); ++k) {
        const float v = mesh.vertices[size_t(k)];
        box[k % 3] = k < 3 || v < box[k % 3] ? v : box[k % 3];
        box[k % 3 + 3] = k < 3 || v > box[k % 3 + 3] ? v : box[k % 3 + 3];
    }
}

}  // namespace kelt

#endif
