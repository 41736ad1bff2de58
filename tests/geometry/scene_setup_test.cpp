// Scene box and per-triangle normals.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "kelr.h"
#include "ray_block.h"

using kelt::bits;

namespace {

const float kMarginScale = 0.0001f;  // bits 0x38D1B717

void expectBox(const float box[6], const float lo[3], const float hi[3], float margin) {
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(bits(box[k]), bits(lo[k] - margin)) << "min " << k;
        EXPECT_EQ(bits(box[k + 3]), bits(hi[k] + margin)) << "max " << k;
    }
}

TEST(BoundBox, EmptyBlockAndSingleVertices) {
    const float origin[3] = {0, 0, 0};
    float box[6];
    // No vertex: the inverted starting box, shrunk by 0.01 % of the largest float.
    for (int count : {0, -5}) {
        ASSERT_EQ(kelrSetBoundBox_32f(origin, count, box), KEL_STS_OK);
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(bits(box[k]), 0x7F7FF971u);
            EXPECT_EQ(bits(box[k + 3]), 0xFF7FF971u);
        }
    }
    // A point at the origin still gets the denormal-safe floor margin.
    ASSERT_EQ(kelrSetBoundBox_32f(origin, 1, box), KEL_STS_OK);
    expectBox(box, origin, origin, std::numeric_limits<float>::min() * kMarginScale);
    EXPECT_NE(box[3], 0.0f);
    // The margin follows the largest coordinate, on every axis alike.
    const float far[3] = {1000, 0, 0};
    ASSERT_EQ(kelrSetBoundBox_32f(far, 1, box), KEL_STS_OK);
    expectBox(box, far, far, 1000.0f * kMarginScale);
    EXPECT_FLOAT_EQ(box[4], 0.1f);
}

// Every extreme lies on another vertex; the largest magnitude is the last
// maximum, and after mirroring the last minimum.
TEST(BoundBox, MarginFollowsTheLargestMagnitudeOfAnyEntry) {
    for (float sign : {1.0f, -1.0f}) {
        float vertices[12] = {-3, 1, 2, 4, -2, 0.5f, 1, 7, -1, 0.5f, 0, 9};
        for (float& c : vertices) c *= sign;
        float box[6];
        ASSERT_EQ(kelrSetBoundBox_32f(vertices, 4, box), KEL_STS_OK);
        const float lo[3] = {-3, -2, -1}, hi[3] = {4, 7, 9};
        const float mirroredLo[3] = {-4, -7, -9}, mirroredHi[3] = {3, 2, 1};
        if (sign > 0)
            expectBox(box, lo, hi, 9.0f * kMarginScale);
        else
            expectBox(box, mirroredLo, mirroredHi, 9.0f * kMarginScale);
    }
}

// A NaN coordinate replaces the running bounds and is replaced by the next
// vertex; as the last vertex it leaves the whole box NaN.
TEST(BoundBox, NanCoordinates) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float vertices[9] = {1, 1, 1, nan, nan, nan, 2, 2, 2};
    float box[6];
    ASSERT_EQ(kelrSetBoundBox_32f(vertices, 3, box), KEL_STS_OK);
    const float two[3] = {2, 2, 2};
    expectBox(box, two, two, 2.0f * kMarginScale);
    ASSERT_EQ(kelrSetBoundBox_32f(vertices, 2, box), KEL_STS_OK);
    for (float b : box) EXPECT_TRUE(std::isnan(b));
}

TEST(BoundBox, NullVerticesLeaveTheBoxAlone) {
    float box[6] = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(kelrSetBoundBox_32f(nullptr, 3, box), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrSetBoundBox_32f(nullptr, 0, nullptr), KEL_STS_NULL_PTR);
    for (float v : box) EXPECT_EQ(v, 7.0f);
}

struct Normal {
    float x, y, z;
    uint32_t anyBits() const { return bits(x) | bits(y) | bits(z); }
};

Normal normalOf(const std::vector<float>& vertices, int a, int b, int c) {
    const int triangle[4] = {a, b, c, 0x7FFFFFFF};  // the fourth word is never read
    float n[3] = {9, 9, 9};
    EXPECT_EQ(kelrTriangleNormal_32f(vertices.data(), triangle, n, 1), KEL_STS_OK);
    return {n[0], n[1], n[2]};
}

TEST(TriangleNormal, OrientationAndDegenerateTriangles) {
    const std::vector<float> v = {0, 0, 0, 1, 0, 0, 0, 1, 0, 2, 0, 0};
    const Normal n = normalOf(v, 0, 1, 2);
    EXPECT_EQ(n.x, 0.0f);
    EXPECT_EQ(n.y, 0.0f);
    EXPECT_EQ(n.z, 1.0f);
    EXPECT_EQ(normalOf(v, 0, 2, 1).z, -1.0f);       // clockwise: turned over
    EXPECT_EQ(normalOf(v, 0, 1, 1).anyBits(), 0u);  // repeated vertex
    EXPECT_EQ(normalOf(v, 0, 1, 3).anyBits(), 0u);  // collinear
    // Degeneracy is judged on the squared length rounded to float: a tiny
    // triangle gets no normal although double could normalise it, while one
    // whose squared length overflows float is still normalised.
    EXPECT_EQ(normalOf({0, 0, 0, 1e-30f, 0, 0, 0, 1e-30f, 0}, 0, 1, 2).anyBits(), 0u);
    EXPECT_EQ(normalOf({0, 0, 0, 1e20f, 0, 0, 0, 1e20f, 0}, 0, 1, 2).z, 1.0f);
}

// Double precision with edges from the third vertex, one rounding per
// component: a float computation or other edges would differ in last bits.
TEST(TriangleNormal, RandomTrianglesAgainstDouble) {
    kelt::Random random(12);
    const int count = 100;
    std::vector<float> vertices(3 * 60);
    for (float& v : vertices) v = random.uniform(-5.0f, 5.0f);
    std::vector<int> triangles(4 * count);
    for (int& index : triangles) index = random.integer(0, 59);
    std::vector<float> normals(3 * count + 1, 42.0f);
    ASSERT_EQ(kelrTriangleNormal_32f(vertices.data(), triangles.data(), normals.data(), count),
              KEL_STS_OK);
    for (int t = 0; t < count; ++t) {
        const float* p[3];
        for (int c = 0; c < 3; ++c) p[c] = &vertices[3 * triangles[4 * t + c]];
        double a[3], b[3];
        for (int k = 0; k < 3; ++k) {
            a[k] = double(p[0][k]) - p[2][k];
            b[k] = double(p[1][k]) - p[2][k];
        }
        const double n[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                             a[0] * b[1] - a[1] * b[0]};
        const double len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(normals[3 * t + k], len == 0 ? 0.0f : float(n[k] / len)) << t;
    }
    EXPECT_EQ(normals[3 * count], 42.0f);
    // Nothing to do for no triangles, whatever the pointers.
    EXPECT_EQ(kelrTriangleNormal_32f(nullptr, nullptr, nullptr, 0), KEL_STS_OK);
    EXPECT_EQ(kelrTriangleNormal_32f(nullptr, nullptr, nullptr, -3), KEL_STS_OK);
}

}  // namespace
