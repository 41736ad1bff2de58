// Scene box and per-triangle normals.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "kelr.h"
#include "ray_block.h"

using kelt::bits;

namespace {

const float kMarginScale = 0.0001f;  // the library's constant, bits 0x38D1B717

void expectBox(const float box[6], const float expected[6]) {
    for (int k = 0; k < 6; ++k) EXPECT_EQ(bits(box[k]), bits(expected[k])) << "entry " << k;
}

TEST(BoundBox, EmptyAndSingleVertexMargins) {
    EXPECT_EQ(bits(kMarginScale), 0x38D1B717u);
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
    const float floorMargin = std::numeric_limits<float>::min() * kMarginScale;
    EXPECT_NE(floorMargin, 0.0f);
    const float atOrigin[6] = {-floorMargin, -floorMargin, -floorMargin,
                               floorMargin,  floorMargin,  floorMargin};
    expectBox(box, atOrigin);
    // The margin follows the largest coordinate, on every axis alike.
    const float far[3] = {1000, 0, 0};
    ASSERT_EQ(kelrSetBoundBox_32f(far, 1, box), KEL_STS_OK);
    const float m = 1000.0f * kMarginScale;
    const float aroundFar[6] = {1000.0f - m, -m, -m, 1000.0f + m, m, m};
    expectBox(box, aroundFar);
    EXPECT_FLOAT_EQ(box[0], 999.9f);
    EXPECT_FLOAT_EQ(box[4], 0.1f);
}

TEST(BoundBox, RandomMeshAgainstDoubleBounds) {
    kelt::Random random(11);
    std::vector<float> vertices(3 * 500);
    for (float& v : vertices) v = random.uniform(-40.0f, 25.0f);
    vertices[7] = -300.0f;  // the largest magnitude sits on a minimum
    float box[6];
    ASSERT_EQ(kelrSetBoundBox_32f(vertices.data(), 500, box), KEL_STS_OK);
    double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
    for (int i = 0; i < 500; ++i)
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], double(vertices[3 * i + k]));
            hi[k] = std::max(hi[k], double(vertices[3 * i + k]));
        }
    const float m = 300.0f * kMarginScale;
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(box[k], float(lo[k]) - m);
        EXPECT_EQ(box[k + 3], float(hi[k]) + m);
    }
}

TEST(BoundBox, NanCoordinateIsReplacedByTheNextVertex) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float vertices[9] = {1, 1, 1, nan, nan, nan, 2, 2, 2};
    float box[6];
    ASSERT_EQ(kelrSetBoundBox_32f(vertices, 3, box), KEL_STS_OK);
    const float m = 2.0f * kMarginScale;
    const float expected[6] = {2 - m, 2 - m, 2 - m, 2 + m, 2 + m, 2 + m};
    expectBox(box, expected);
}

TEST(BoundBox, NullVerticesLeaveTheBoxAlone) {
    float box[6] = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(kelrSetBoundBox_32f(nullptr, 3, box), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrSetBoundBox_32f(nullptr, 0, nullptr), KEL_STS_NULL_PTR);
    for (float v : box) EXPECT_EQ(v, 7.0f);
}

struct Normal {
    float x, y, z;
};

Normal normalOf(const std::vector<float>& vertices, int a, int b, int c) {
    const int triangle[4] = {a, b, c, 0x7FFFFFFF};  // the fourth word is never read
    float n[3] = {9, 9, 9};
    EXPECT_EQ(kelrTriangleNormal_32f(vertices.data(), triangle, n, 1), KEL_STS_OK);
    return {n[0], n[1], n[2]};
}

TEST(TriangleNormal, OrientationAndDegenerateTriangles) {
    const std::vector<float> v = {0, 0, 0, 1, 0, 0, 0, 1, 0, 2, 0, 0};
    Normal n = normalOf(v, 0, 1, 2);
    EXPECT_EQ(n.x, 0.0f);
    EXPECT_EQ(n.y, 0.0f);
    EXPECT_EQ(n.z, 1.0f);
    n = normalOf(v, 0, 2, 1);  // clockwise: the normal turns over
    EXPECT_EQ(n.z, -1.0f);
    for (Normal d : {normalOf(v, 0, 1, 1), normalOf(v, 0, 1, 3)}) {  // repeated, collinear
        EXPECT_EQ(bits(d.x) | bits(d.y) | bits(d.z), 0u);
    }
    // Degeneracy is judged on the squared length rounded to float: a tiny
    // triangle underflows to a zero normal although double could normalise it...
    const std::vector<float> tiny = {0, 0, 0, 1e-30f, 0, 0, 0, 1e-30f, 0};
    n = normalOf(tiny, 0, 1, 2);
    EXPECT_EQ(bits(n.x) | bits(n.y) | bits(n.z), 0u);
    // ...while one whose squared length overflows float is still normalised.
    const std::vector<float> huge = {0, 0, 0, 1e20f, 0, 0, 0, 1e20f, 0};
    n = normalOf(huge, 0, 1, 2);
    EXPECT_EQ(n.z, 1.0f);
}

TEST(TriangleNormal, RandomTrianglesAgainstDouble) {
    kelt::Random random(12);
    const int count = 200;
    std::vector<float> vertices(3 * 90);
    for (float& v : vertices) v = random.uniform(-5.0f, 5.0f);
    std::vector<int> triangles(4 * count);
    for (int t = 0; t < count; ++t)
        for (int c = 0; c < 4; ++c) triangles[4 * t + c] = random.integer(0, 89);
    std::vector<float> normals(3 * count + 3, 42.0f);
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
        for (int k = 0; k < 3; ++k) {
            const float expected = len == 0 ? 0.0f : float(n[k] / len);
            EXPECT_EQ(normals[3 * t + k], expected) << "triangle " << t;
        }
    }
    EXPECT_EQ(normals[3 * count], 42.0f);
    // Nothing to do for no triangles, whatever the pointers.
    EXPECT_EQ(kelrTriangleNormal_32f(nullptr, nullptr, nullptr, 0), KEL_STS_OK);
    EXPECT_EQ(kelrTriangleNormal_32f(nullptr, nullptr, nullptr, -3), KEL_STS_OK);
}

}  // namespace
