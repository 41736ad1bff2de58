// The accelerator records: axis choice and its ties, the flat flag,
// degenerate triangles, the words that are never touched, and whether a
// record reproduces its triangle's geometry.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "kelr.h"
#include "oracle.h"

namespace {

constexpr int32_t kUntouched = int32_t(0xDEADBEEF);
constexpr uint32_t kFlat = 0x80000000u;

// Records for triangles given as nine coordinates each (A, B, C); the spare
// word of each triangle holds garbage, which must not matter. Every record
// names its triangle and keeps its reserved word.
std::vector<TriangleAccel> recordsFor(const std::vector<std::array<float, 9>>& triangles) {
    std::vector<float> vertices;
    std::vector<int> indices;
    for (const auto& t : triangles) {
        const int base = int(vertices.size() / 3);
        vertices.insert(vertices.end(), t.begin(), t.end());
        indices.insert(indices.end(), {base, base + 1, base + 2, 0x7FFFFFFF});
    }
    std::vector<TriangleAccel> records(triangles.size());
    for (auto& r : records) r.reserved = kUntouched;
    EXPECT_EQ(KEL_STS_OK, kelrTriangleAccelInit(records.data(), vertices.data(), indices.data(),
                                                int(triangles.size())));
    for (size_t i = 0; i < records.size(); ++i)
        EXPECT_TRUE(records[i].triangle == int(i) && records[i].reserved == kUntouched) << i;
    return records;
}

TEST(TriangleAccel, AxisChoiceTiesAndFlatFlag) {
    int size = 0;
    EXPECT_EQ(KEL_STS_OK, kelrTriangleAccelGetSize(&size));
    EXPECT_EQ(48, size);
    EXPECT_EQ(KEL_STS_NULL_PTR, kelrTriangleAccelGetSize(nullptr));
    // C at the origin, so e1 = A and e2 = B; normals noted per line.
    const auto rec = recordsFor({
        {1, 0, 0, 0, 1, 0, 0, 0, 0},     // (0, 0, 1): plane z = 0
        {0, 0, 1, 1, -1, 0, 0, 0, 0},    // (1, 1, 0): x wins the tie with y
        {0, 1, 0, 1, 0, -1, 0, 0, 0},    // (-1, 0, -1): x wins the tie with z
        {1, 0, 0, 0, 1, -1, 0, 0, 0},    // (0, 1, 1): y wins the tie with z
        {1, 0, 0, 0, 0, 1, 0, 0, 0},     // (0, -1, 0): plane y = 0, facing -y
        {9, 9, 10, 7, 9, 12, 7, 8, 10},  // (2, -4, 2): y
    });
    const uint32_t axes[6] = {0x21u | kFlat, 0x06u, 0x06u, 0x12u, 0x12u | kFlat, 0x12u};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(axes[i], rec[i].axes) << i;
    // nu, ck, nv, cu, cv: N.x / N.y, C.y, N.z / N.y, C.x, C.z; then N.y / N.x.
    EXPECT_EQ((std::vector<float>{-0.5f, 8, -0.5f, 7, 10, 1, 0, 0}),
              (std::vector<float>{rec[5].nu, rec[5].ck, rec[5].nv, rec[5].cu, rec[5].cv, rec[1].nu,
                                  rec[0].nu, rec[0].nv}));
    // Facing -y: the projected area determinant is -N.y, so the weights of
    // a point inside are positive whichever side the ray comes from.
    for (float dy : {1.0f, -1.0f}) {
        const float o[3] = {0.25f, -dy, 0.25f}, r[3] = {0, dy, 0};
        oracle::Hit h;
        ASSERT_TRUE(oracle::testTriangle(oracle::Query::kEye, rec[4], o, r, 10, &h));
        EXPECT_TRUE(h.t == 1.0f && h.u == 0.25f && h.v == 0.25f) << h.t << " " << h.u << " " << h.v;
    }
}

TEST(TriangleAccel, DegenerateRecordsAndCounts) {
    const auto rec = recordsFor({
        {1, 2, 3, 1, 2, 3, 4, 5, 7},  // two equal vertices
        {0, 0, 0, 1, 1, 1, 2, 2, 2},  // collinear
        {0, 0, 0, 1, 0, 0, 0, 1, 0},
    });
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(0u, rec[i].axes);
        for (int w = 0; w < 9; ++w) EXPECT_EQ(0.0f, (&rec[i].nu)[w]) << i << " word " << w;
    }
    EXPECT_EQ(0x21u | kFlat, rec[2].axes);

    TriangleAccel untouched, copy;
    std::memset(&untouched, 0x5A, sizeof untouched);
    copy = untouched;
    const float v[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const int t[4] = {0, 1, 2, 0};
    EXPECT_EQ(KEL_STS_OK, kelrTriangleAccelInit(&copy, v, t, 0));
    EXPECT_EQ(KEL_STS_OK, kelrTriangleAccelInit(&copy, v, t, -3));
    EXPECT_EQ(0, std::memcmp(&copy, &untouched, sizeof copy));
}

// A ray aimed at a known point of a random triangle must hit it at the known
// distance with the point's barycentric weights: this ties the record to
// the triangle's geometry independently of its encoding.
TEST(TriangleAccel, RecordsReproduceTheGeometry) {
    std::mt19937 rng(20261121);
    std::uniform_real_distribution<float> coord(-2.0f, 2.0f), weight(0.05f, 0.45f);
    int tested = 0;
    for (int trial = 0; trial < 2000; ++trial) {
        std::array<float, 9> tri;
        for (float& c : tri) c = coord(rng);
        const auto rec = recordsFor({tri});
        const double a = weight(rng), b = weight(rng), c = 1.0 - a - b;
        double p[3], e1[3], e2[3];
        for (int k = 0; k < 3; ++k) {
            p[k] = a * tri[k] + b * tri[3 + k] + c * tri[6 + k];
            e1[k] = double(tri[k]) - tri[6 + k];
            e2[k] = double(tri[3 + k]) - tri[6 + k];
        }
        const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                             e1[0] * e2[1] - e1[1] * e2[0]};
        const double area = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        if (area < 0.05) continue;  // slivers: the weights are ill-conditioned
        // Slanted towards the plane from 2 direction lengths away; half of the
        // rays come from behind.
        float r[3], o[3];
        double along = 0;
        for (int k = 0; k < 3; ++k) {
            r[k] = float((trial % 2 ? 1 : -1) * n[k] / area + 0.3 * coord(rng));
            along += r[k] * n[k] / area;
            o[k] = float(p[k] - 2.0 * r[k]);
        }
        if (std::fabs(along) < 0.3) continue;
        ++tested;
        oracle::Hit h;
        ASSERT_TRUE(oracle::testTriangle(oracle::Query::kEye, rec[0], o, r, 10, &h)) << trial;
        EXPECT_TRUE(std::fabs(2.0 - h.t) < 1e-3 && std::fabs(a - h.u) < 2e-3 &&
                    std::fabs(b - h.v) < 2e-3)
            << trial;
    }
    EXPECT_GT(tested, 1000) << "too few triangles and rays were usable";
}

}  // namespace
