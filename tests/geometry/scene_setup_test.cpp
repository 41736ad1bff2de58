// Scene box and per-triangle normals.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "arrays.h"
#include "kelr.h"

using kelt::bitsOf;

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
            EXPECT_EQ(bitsOf(box[a]), bitsOf(r.lo[a] - r.margin)) << r.v[0] << " min " << a;
            EXPECT_EQ(bitsOf(box[a + 3]), bitsOf(r.hi[a] + r.margin)) << r.v[0] << " max " << a;
        }
    }
    // A NaN last vertex leaves the whole box NaN.
    ASSERT_EQ(kelrSetBoundBox_32f(rows[4].v.data(), 2, box), KEL_STS_OK);
    for (float b : box) EXPECT_TRUE(std::isnan(b));
    // No vertex: the inverted starting box, shrunk by 0.01 % of the largest float.
    for (int count : {0, -5}) {
        ASSERT_EQ(kelrSetBoundBox_32f(box, count, box), KEL_STS_OK);
        for (int a = 0; a < 3; ++a)
            EXPECT_TRUE(bitsOf(box[a]) == 0x7F7FF971u && bitsOf(box[a + 3]) == 0xFF7FF971u);
    }
    float kept[6] = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(kelrSetBoundBox_32f(nullptr, 3, kept), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrSetBoundBox_32f(nullptr, 0, nullptr), KEL_STS_NULL_PTR);
    for (float v : kept) EXPECT_EQ(v, 7.0f);
}

// The normal of every triangle against double precision with edges from
// the third vertex and one rounding per component (a float computation or
// other edges would differ in last bits), over random triangles, some of
// them degenerate, and triangles picked for orientation and degeneracy.
TEST(TriangleNormal, AgainstDouble) {
    std::mt19937 engine(12);
    std::vector<float> vertices(3 * 60);
    for (float& v : vertices) v = std::uniform_real_distribution<float>(-5.0f, 5.0f)(engine);
    // Vertices 60 to 63: a right triangle and a point collinear with its first edge.
    for (float v : {0, 0, 0, 1, 0, 0, 0, 1, 0, 2, 0, 0}) vertices.push_back(v);
    // Degeneracy is judged on the squared length rounded to float: a tiny
    // triangle gets no normal although double could normalise it, while one
    // whose squared length overflows float is still normalised.
    for (float scale : {1e-30f, 1e20f})
        for (float v : {0, 0, 0, 1, 0, 0, 0, 1, 0}) vertices.push_back(v * scale);
    std::vector<int> triangles = {
        60, 61, 62, -1, 60, 62, 61, -1, 60, 61, 61, -1,
        60, 61, 63, -1, 64, 65, 66, -1, 67, 68, 69, -1};  // the fourth word is never read
    const int picked = int(triangles.size() / 4), count = picked + 100;
    for (int t = picked; t < count; ++t)
        for (int c = 0; c < 4; ++c)
            triangles.push_back(std::uniform_int_distribution<int>(0, 59)(engine));
    std::vector<float> normals(3 * count + 1, 42.0f);
    ASSERT_EQ(kelrTriangleNormal_32f(vertices.data(), triangles.data(), normals.data(), count),
              KEL_STS_OK);
    const float expectedZ[] = {1.0f, -1.0f, 0.0f, 0.0f, 0.0f, 1.0f};  // clockwise: turned over
    for (int t = 0; t < count; ++t) {
        const float* p[3];
        for (int c = 0; c < 3; ++c) p[c] = &vertices[3 * triangles[4 * t + c]];
        double a[3], b[3];
        for (int k = 0; k < 3; ++k)
            a[k] = double(p[0][k]) - p[2][k], b[k] = double(p[1][k]) - p[2][k];
        const double n[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                             a[0] * b[1] - a[1] * b[0]};
        const double s = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
        for (int k = 0; k < 3; ++k) {
            const float expected = float(s) == 0 ? 0.0f : float(n[k] / std::sqrt(s));
            EXPECT_EQ(bitsOf(normals[3 * t + k]), bitsOf(expected)) << t;
            if (t < picked) EXPECT_EQ(normals[3 * t + k], k == 2 ? expectedZ[t] : 0.0f) << t;
        }
    }
    EXPECT_EQ(normals[3 * count], 42.0f);
    // Nothing to do for no triangles, whatever the pointers.
    for (int empty : {0, -3})
        EXPECT_EQ(kelrTriangleNormal_32f(nullptr, nullptr, nullptr, empty), 0);
}

}  // namespace
