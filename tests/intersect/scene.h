// Test scenes for the ray-scene queries: a mesh with its accelerator records
// and box, and 16-byte-aligned per-ray planes.
#ifndef KEL_TEST_INTERSECT_SCENE_H
#define KEL_TEST_INTERSECT_SCENE_H

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kelr.h"

namespace kelt {

struct TestScene {
    std::vector<float> vertices;
    std::vector<int> triangles;
    std::vector<TriangleAccel> accel;
    float box[6];

    int count() const { return int(triangles.size() / 4); }

    void addTriangle(const float a[3], const float b[3], const float c[3]) {
        const int base = int(vertices.size() / 3);
        vertices.insert(vertices.end(), a, a + 3);
        vertices.insert(vertices.end(), b, b + 3);
        vertices.insert(vertices.end(), c, c + 3);
        triangles.insert(triangles.end(), {base, base + 1, base + 2, -1});
    }

    // Fills the records and the box (the vertices' bounds).
    void finish() {
        accel.assign(size_t(count()), TriangleAccel{});
        kelrTriangleAccelInit(accel.data(), vertices.data(), triangles.data(), count());
        for (int a = 0; a < 3; ++a) box[a] = 3.4e38f, box[a + 3] = -3.4e38f;
        for (size_t i = 0; i < vertices.size(); ++i) {
            box[i % 3] = std::min(box[i % 3], vertices[i]);
            box[i % 3 + 3] = std::max(box[i % 3 + 3], vertices[i]);
        }
    }

    IntersectContext context(const KDTreeNode* tree) const { return {box, accel.data(), tree}; }
};

// One plane of per-ray data, 16-byte aligned; `offset` elements past an
// aligned start to make a misaligned plane.
template <typename T>
class Plane {
  public:
    explicit Plane(int n, T fill = T(), int offset = 0) : store_(size_t(n) + 8, fill) {
        const uintptr_t p = reinterpret_cast<uintptr_t>(store_.data());
        data_ = reinterpret_cast<T*>((p + 15) & ~uintptr_t(15)) + offset;
    }
    Plane(const Plane&) = delete;
    Plane& operator=(const Plane&) = delete;

    T* data() { return data_; }
    T& operator[](int i) { return data_[i]; }
    const T& operator[](int i) const { return data_[i]; }

  private:
    std::vector<T> store_;
    T* data_;
};

// Three aligned planes, x, y and z (or u and v in the first two).
struct Planes3 {
    explicit Planes3(int n, float fill = 0.0f) : x(n, fill), y(n, fill), z(n, fill) {}
    Plane<float> x, y, z;
    float* p[3] = {x.data(), y.data(), z.data()};
    void set(int i, const float v[3]) { x[i] = v[0], y[i] = v[1], z[i] = v[2]; }
    void get(int i, float v[3]) const { v[0] = x[i], v[1] = y[i], v[2] = z[i]; }
};

}  // namespace kelt

#endif
