#include "soups.h"

#include <array>
#include <cmath>
#include <map>
#include <random>

namespace kelt {

Mesh randomSoup(unsigned seed, int triangleCount) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::uniform_int_distribution<int> grid(0, 16);
    auto onGrid = [&] { return float(grid(rng)) / 16.0f; };
    Mesh mesh;
    for (int i = 0; i < triangleCount; ++i) {
        const int kind = i % 6, axis = (i / 6) % 3;
        if (kind == 5) {  // the previous triangle again, or its mirror across its last edge
            const int a = mesh.triangles[4 * size_t(i - 1)],
                      b = mesh.triangles[4 * size_t(i - 1) + 1],
                      c = mesh.triangles[4 * size_t(i - 1) + 2];
            if (axis == 0) {
                mesh.addTriangle(a, b, c);
                continue;
            }
            float d[3];
            for (int k = 0; k < 3; ++k)
                d[k] = mesh.vertices[3 * size_t(b) + k] + mesh.vertices[3 * size_t(c) + k] -
                       mesh.vertices[3 * size_t(a) + k];
            mesh.addTriangle(c, b, mesh.addVertex(d[0], d[1], d[2]));
            continue;
        }
        float p[3][3];
        for (auto& v : p)
            for (float& x : v) x = kind == 1 || kind == 2 ? onGrid() : unit(rng);
        if (kind == 0) {  // small
            for (int k = 1; k < 3; ++k)
                for (int a = 0; a < 3; ++a) p[k][a] = p[0][a] + 0.05f * (unit(rng) - 0.5f);
        } else if (kind == 1) {  // in one of three planes per axis
            const float plane = float(1 + grid(rng) % 3) / 4.0f;
            for (auto& v : p) v[axis] = plane;
        } else if (kind == 2) {  // a right triangle with axis-aligned legs
            for (int a = 0; a < 3; ++a) p[1][a] = p[2][a] = p[0][a];
            p[1][(axis + 1) % 3] = onGrid();
            p[2][(axis + 2) % 3] = onGrid();
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

namespace {

// Adds the quad a, b, c, d (in turn round its edge) as two triangles.
void addQuad(Mesh* mesh, int a, int b, int c, int d) {
    mesh->addTriangle(a, b, c);
    mesh->addTriangle(a, c, d);
}

}  // namespace

Mesh closedBox(int cells) {
    Mesh mesh;
    std::map<std::array<int, 3>, int> lattice;  // each corner once, shared by its faces
    auto corner = [&](std::array<int, 3> at) {
        auto found = lattice.find(at);
        if (found != lattice.end()) return found->second;
        const float step = 1.0f / float(cells);
        return lattice[at] = mesh.addVertex(at[0] * step, at[1] * step, at[2] * step);
    };
    for (int axis = 0; axis < 3; ++axis)
        for (int side = 0; side <= cells; side += cells)
            for (int i = 0; i < cells; ++i)
                for (int j = 0; j < cells; ++j) {
                    int q[4];
                    for (int k = 0; k < 4; ++k) {
                        std::array<int, 3> at;
                        at[size_t(axis)] = side;
                        at[size_t((axis + 1) % 3)] = i + (k == 1 || k == 2);
                        at[size_t((axis + 2) % 3)] = j + (k >= 2);
                        q[k] = corner(at);
                    }
                    addQuad(&mesh, q[0], q[1], q[2], q[3]);
                }
    return mesh;
}

Mesh closedSphere(int slices, int stacks) {
    Mesh mesh;
    const double pi = std::acos(-1.0);
    auto point = [&](double polar, double azimuth) {
        return mesh.addVertex(float(0.5 + 0.45 * std::sin(polar) * std::cos(azimuth)),
                              float(0.5 + 0.45 * std::cos(polar)),
                              float(0.5 + 0.45 * std::sin(polar) * std::sin(azimuth)));
    };
    const int top = point(0, 0);
    for (int r = 1; r < stacks; ++r)
        for (int s = 0; s < slices; ++s) point(pi * r / stacks, 2 * pi * s / slices);
    const int bottom = point(pi, 0);
    auto ring = [&](int r, int s) { return 1 + (r - 1) * slices + s % slices; };
    for (int s = 0; s < slices; ++s) {
        mesh.addTriangle(top, ring(1, s + 1), ring(1, s));
        mesh.addTriangle(bottom, ring(stacks - 1, s), ring(stacks - 1, s + 1));
        for (int r = 1; r + 1 < stacks; ++r)
            addQuad(&mesh, ring(r, s), ring(r, s + 1), ring(r + 1, s + 1), ring(r + 1, s));
    }
    return mesh;
}

}  // namespace kelt
