// Scene box and per-triangle normals.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "kelr.h"
#include "ray_block.h"

using kelt::bits;

namespace {

// The box grows by 0.0001 (bits 0x38D1B717) of the largest magnitude of any
// entry, on every axis alike, with a denormal-safe floor. Every extreme of
// the two mirrored rows lies on another vertex; the largest magnitude is the
// last maximum, and after mirroring the last minimum. A NaN coordinate
// replaces the running bounds and is replaced by the next vertex.
TEST(BoundBox, MarginsFollowTheLargestMagnitude) {
    const float k = 0.0001f, nan = NAN;
    struct Row {
        std::vector<float> v;
        float lo[3], hi[3], margin;
    };
    const Row rows[] = {
        {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}, std::numeric_limits<float>::min() * k},
        {{1000, 0, 0}, {1000, 0, 0}, {1000, 0, 0}, 1000 * k},
        {{-3, 1, 2, 4, -2, 0.5f, 1, 7, -1, 0.5f, 0, 9}, {-3, -2, -1}, {4, 7, 9}, 9 * k},
        {{3, -1, -2, -4, 2, -0.5f, -1, -7, 1, -0.5f, 0, -9}, {-4, -7, -9}, {3, 2, 1}, 9 * k},
        {{1, 1, 1, nan, nan, nan, 2, 2, 2}, {2, 2, 2}, {2, 2, 2}, 2 * k},
    };
    float box[6];
    for (const Row& r : rows) {
        ASSERT_EQ(kelrSetBoundBox_32f(r.v.data(), int(r.v.size() / 3), box), KEL_STS_OK);
        for (int a = 0; a < 3; ++a) {
            EXPECT_EQ(bits(box[a]), bits(r.lo[a] - r.margin)) << r.v[0] << " min " << a;
            EXPECT_EQ(bits(box[a + 3]), bits(r.hi[a] + r.margin)) << r.v[0] << " max " << a;
        }
    }
    // A NaN last vertex leaves the whole box NaN.
    ASSERT_EQ(kelrSetBoundBox_32f(rows[4].v.data(), 2, box), KEL_STS_OK);
    for (float b : box) EXPECT_TRUE(std::isnan(b));
    // No vertex: the inverted starting box, shrunk by 0.01 % of the largest float.
    for (int count : {0, -5}) {
        ASSERT_EQ(kelrSetBoundBox_32f(box, count, box), KEL_STS_OK);
        for (int a = 0; a < 3; ++a)
            EXPECT_TRUE(bits(box[a]) == 0x7F7FF971u && bits(box[a + 3]) == 0xFF7FF971u);
    }
    float kept[6] = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(kelrSetBoundBox_32f(nullptr, 3, kept), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrSetBoundBox_32f(nullptr, 0, nullptr), KEL_STS_NULL_PTR);
    for (float v : kept) EXPECT_EQ(v, 7.0f);
}

// Component `axis` of the normal of triangle (a, b, c); axis 3: 1 when any
// of its bits is set.
float normalOf(const std::vector<float>& vertices, int a, int b, int c, int axis = 2) {
    const int triangle[4] = {a, b, c, 0x7FFFFFFF};  // the fourth word is never read
    float n[3] = {9, 9, 9};
    EXPECT_EQ(kelrTriangleNormal_32f(vertices.data(), triangle, n, 1), KEL_STS_OK);
    return axis < 3 ? n[axis] : bits(n[0]) | bits(n[1]) | bits(n[2]) ? 1.0f : 0.0f;
}

TEST(TriangleNormal, OrientationAndDegenerateTriangles) {
    const std::vector<float> v = {0, 0, 0, 1, 0, 0, 0, 1, 0, 2, 0, 0};
    EXPECT_EQ(normalOf(v, 0, 1, 2, 0), 0.0f);
    EXPECT_EQ(normalOf(v, 0, 1, 2, 1), 0.0f);
    EXPECT_EQ(normalOf(v, 0, 1, 2), 1.0f);
    EXPECT_EQ(normalOf(v, 0, 2, 1), -1.0f);    // clockwise: turned over
    EXPECT_EQ(normalOf(v, 0, 1, 1, 3), 0.0f);  // repeated vertex: all bits 0
    EXPECT_EQ(normalOf(v, 0, 1, 3, 3), 0.0f);  // collinear
    // Degeneracy is judged on the squared length rounded to float: a tiny
    // triangle gets no normal although double could normalise it, while one
    // whose squared length overflows float is still normalised.
    EXPECT_EQ(normalOf({0, 0, 0, 1e-30f, 0, 0, 0, 1e-30f, 0}, 0, 1, 2, 3), 0.0f);
    EXPECT_EQ(normalOf({0, 0, 0, 1e20f, 0, 0, 0, 1e20f, 0}, 0, 1, 2), 1.0f);
}

// Double precision with edges from the third vertex, one rounding per
// component: a float computation or other edges would differ in last bits.
TEST(TriangleNormal, RandomTrianglesAgainstDouble) {
    kelt::Random random(12);
    const int count = 100;
    std::vector<float> vertices(3 * 60), normals(3 * count + 1, 42.0f);
    for (float& v : vertices) v = random.uniform(-5.0f, 5.0f);
    std::vector<int> triangles(4 * count);
    for (int& index : triangles) index = random.integer(0, 59);
    ASSERT_EQ(kelrTriangleNormal_32f(vertices.data(), triangles.data(), normals.data(), count),
              KEL_STS_OK);
    for (int t = 0; t < count; ++t) {
        const float* p[3];
        for (int c = 0; c < 3; ++c) p[c] = &vertices[3 * triangles[4 * t + c]];
        double a[3], b[3];
        for (int k = 0; k < 3; ++k)
            a[k] = double(p[0][k]) - p[2][k], b[k] = double(p[1][k]) - p[2][k];
        const double n[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                             a[0] * b[1] - a[1] * b[0]};
        const double len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(normals[3 * t + k], len == 0 ? 0.0f : float(n[k] / len)) << t;
    }
    EXPECT_EQ(normals[3 * count], 42.0f);
    // Nothing to do for no triangles, whatever the pointers.
    for (int empty : {0, -3})
        EXPECT_EQ(kelrTriangleNormal_32f(nullptr, nullptr, nullptr, empty), 0);
}

}  // namespace
