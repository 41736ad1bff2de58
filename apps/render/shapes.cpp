#include "shapes.h"

#include <cmath>
#include <functional>
#include <map>
#include <utility>

namespace render {

namespace {

const float kPi = 3.14159265358979f;

Vec3 add(const Vec3& a, const Vec3& b) {
    return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}
Vec3 scale(const Vec3& a, float s) {
    return {a[0] * s, a[1] * s, a[2] * s};
}
Vec3 cross(const Vec3& a, const Vec3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
Vec3 normalize(const Vec3& a) {
    const float length = std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
    return length > 0.0f ? scale(a, 1.0f / length) : a;
}

// A surface sampled on a (columns x rows) grid of parameters (u, v) in
// [0, 1]^2. When wrapU is set the last column is the first one again, so the
// seam shares vertices and shades without a crease. Normals come from the
// triangles around each vertex.
Mesh makeGridSurface(int columns, int rows, bool wrapU,
                     const std::function<Vec3(float u, float v)>& position) {
    Mesh mesh;
    const int distinctColumns = wrapU ? columns : columns + 1;
    for (int j = 0; j <= rows; ++j)
        for (int i = 0; i < distinctColumns; ++i)
            mesh.addVertex(position(float(i) / columns, float(j) / rows), {0.0f, 0.0f, 0.0f});
    auto vertexAt = [&](int i, int j) { return j * distinctColumns + i % distinctColumns; };
    for (int j = 0; j < rows; ++j) {
        for (int i = 0; i < columns; ++i) {
            const int a = vertexAt(i, j), b = vertexAt(i + 1, j);
            const int c = vertexAt(i + 1, j + 1), d = vertexAt(i, j + 1);
            mesh.addTriangle(a, b, c, 0);
            mesh.addTriangle(a, c, d, 0);
        }
    }
    computeVertexNormals(&mesh);
    return mesh;
}

}  // namespace

Mesh makeCheckerFloor(float halfSize, int cells, float height) {
    Mesh mesh;
    const float step = 2.0f * halfSize / cells;
    for (int j = 0; j <= cells; ++j)
        for (int i = 0; i <= cells; ++i)
            mesh.addVertex({-halfSize + i * step, height, -halfSize + j * step}, {0, 1, 0});
    for (int j = 0; j < cells; ++j) {
        for (int i = 0; i < cells; ++i) {
            const int a = j * (cells + 1) + i, b = a + 1, c = a + cells + 2, d = a + cells + 1;
            const int material = (i + j) % 2;
            mesh.addTriangle(a, d, c, material);
            mesh.addTriangle(a, c, b, material);
        }
    }
    return mesh;
}

Mesh makeSphere(const Vec3& centre, float radius, int slices, int stacks) {
    Mesh mesh = makeGridSurface(slices, stacks, true, [&](float u, float v) {
        const float theta = 2.0f * kPi * u, phi = kPi * v;
        return add(centre, scale({std::sin(phi) * std::cos(theta), std::cos(phi),
                                  std::sin(phi) * std::sin(theta)},
                                 radius));
    });
    // The exact normal also holds at the poles, where the grid's rows collapse.
    for (int i = 0; i < mesh.vertexCount(); ++i) {
        const Vec3 offset = {mesh.vertices[3 * i] - centre[0], mesh.vertices[3 * i + 1] - centre[1],
                             mesh.vertices[3 * i + 2] - centre[2]};
        const Vec3 n = normalize(offset);
        for (int k = 0; k < 3; ++k) mesh.vertexNormals[3 * i + k] = n[k];
    }
    return mesh;
}

Mesh makeTorus(const Vec3& centre, float ringRadius, float tubeRadius, int segments, int sides) {
    Mesh mesh = makeGridSurface(segments, sides, true, [&](float u, float v) {
        const float theta = 2.0f * kPi * u, phi = 2.0f * kPi * v;
        const float r = ringRadius + tubeRadius * std::cos(phi);
        return add(centre, {r * std::cos(theta), tubeRadius * std::sin(phi), r * std::sin(theta)});
    });
    // The first and last rows of the grid lie on the same circle but are
    // separate vertices; the exact normal of the tube hides that seam.
    for (int i = 0; i < mesh.vertexCount(); ++i) {
        const float x = mesh.vertices[3 * i] - centre[0], z = mesh.vertices[3 * i + 2] - centre[2];
        const float ring = std::sqrt(x * x + z * z);
        const Vec3 onRing = {x / ring * ringRadius, 0.0f, z / ring * ringRadius};
        const Vec3 n =
            normalize({x - onRing[0], mesh.vertices[3 * i + 1] - centre[1], z - onRing[2]});
        for (int k = 0; k < 3; ++k) mesh.vertexNormals[3 * i + k] = n[k];
    }
    return mesh;
}

Mesh makeSpring(const Vec3& base, float coilRadius, float tubeRadius, float height, float turns,
                int segments, int sides) {
    const float rise = height - 2.0f * tubeRadius;
    auto centreLine = [&](float s) {
        const float theta = 2.0f * kPi * turns * s;
        return Vec3{base[0] + coilRadius * std::cos(theta), base[1] + tubeRadius + rise * s,
                    base[2] + coilRadius * std::sin(theta)};
    };
    Mesh mesh = makeGridSurface(sides, segments, true, [&](float u, float s) {
        const float theta = 2.0f * kPi * turns * s, phi = 2.0f * kPi * u;
        const Vec3 tangent = normalize({-coilRadius * std::sin(theta) * 2.0f * kPi * turns, rise,
                                        coilRadius * std::cos(theta) * 2.0f * kPi * turns});
        const Vec3 inward = {-std::cos(theta), 0.0f, -std::sin(theta)};
        const Vec3 binormal = normalize(cross(tangent, inward));
        return add(centreLine(s), add(scale(inward, tubeRadius * std::cos(phi)),
                                      scale(binormal, tubeRadius * std::sin(phi))));
    });
    // Round off both open ends of the tube.
    mesh.append(makeSphere(centreLine(0.0f), tubeRadius, 24, 12), 0);
    mesh.append(makeSphere(centreLine(1.0f), tubeRadius, 24, 12), 0);
    return mesh;
}

Mesh makeVase(const Vec3& base, float height, float radius, int slices, int rings) {
    return makeGridSurface(slices, rings, true, [&](float u, float v) {
        // A bulb that narrows to a neck and flares into a lip.
        const float profile =
            radius * (0.55f + 0.45f * std::sin(kPi * (1.25f * v + 0.05f)) + 0.25f * v * v * v * v);
        const float theta = 2.0f * kPi * u;
        return Vec3{base[0] + profile * std::cos(theta), base[1] + height * v,
                    base[2] + profile * std::sin(theta)};
    });
}

Mesh makeFacetedBall(const Vec3& centre, float radius, int subdivisions) {
    const float t = (1.0f + std::sqrt(5.0f)) / 2.0f;
    std::vector<Vec3> points = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0},
                                {0, -1, t}, {0, 1, t}, {0, -1, -t}, {0, 1, -t},
                                {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
    for (Vec3& p : points) p = normalize(p);
    std::vector<std::array<int, 3>> faces = {
        {0, 11, 5},  {0, 5, 1},  {0, 1, 7},  {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
        {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
        {3, 8, 9},   {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
    for (int level = 0; level < subdivisions; ++level) {
        std::map<std::pair<int, int>, int> midpoints;
        auto midpoint = [&](int a, int b) {
            const auto key = std::minmax(a, b);
            auto found = midpoints.find(key);
            if (found != midpoints.end()) return found->second;
            points.push_back(normalize(scale(add(points[a], points[b]), 0.5f)));
            return midpoints[key] = int(points.size()) - 1;
        };
        std::vector<std::array<int, 3>> finer;
        for (const auto& f : faces) {
            const int ab = midpoint(f[0], f[1]), bc = midpoint(f[1], f[2]),
                      ca = midpoint(f[2], f[0]);
            finer.insert(finer.end(),
                         {{f[0], ab, ca}, {f[1], bc, ab}, {f[2], ca, bc}, {ab, bc, ca}});
        }
        faces.swap(finer);
    }
    Mesh mesh;
    for (const auto& f : faces) {
        const Vec3 a = points[f[0]], b = points[f[1]], c = points[f[2]];
        const Vec3 faceNormal = normalize(cross(add(b, scale(a, -1)), add(c, scale(a, -1))));
        int corner[3];
        for (int k = 0; k < 3; ++k)
            corner[k] = mesh.addVertex(add(centre, scale(points[f[k]], radius)), faceNormal);
        mesh.addTriangle(corner[0], corner[1], corner[2], 0);
    }
    return mesh;
}

}  // namespace render
