// Hit points and surface normals: each path against its own arithmetic, and
// the deliberate differences between the paths.
#include <gtest/gtest.h>

#include <cmath>

#include "geometry/prmisc.h"
#include "ray_block.h"

using kelt::bits;
using kelt::Plane;
using kelt::ShiftedTriple;
using kelt::Triple;

namespace {

// ---- Hit points ------------------------------------------------------------

// The scalar loop: one rounding, from extended precision.
float hitScalar(float d, float t, float scale, float o) {
    return float(((long double)d * scale) * t + o);
}
// The worker: single precision, distance before scale.
float hitWorker(float d, float t, float scale, float o) {
    return (d * t) * scale + o;
}

struct HitBlock {
    HitBlock(int n, int misalign)
        : n(n),
          origin(n, misalign),
          direction(n, misalign),
          distance(n, misalign),
          mask(n, misalign),
          hit(n, misalign) {}
    void randomise(kelt::Random& random) {
        random.fill(origin, -10.0f, 10.0f);
        random.fill(direction, -1.0f, 1.0f);
        random.fill(distance, 0.0f, 100.0f);
        random.fillMask(mask);
        for (int i = 0; i < n; ++i)
            if (mask[i] < 0) distance[i] = NAN;  // no hit: must not matter
        hit.fill(9.0f);
    }
    KelStatus runS0(int count) {
        return kelrHitPoint3DEpsS0_32f_M(single, direction.planes(), distance.data(), mask.data(),
                                         hit.planes(), count, scale);
    }
    KelStatus runM0(int count) {
        return kelrHitPoint3DEpsM0_32f_M(origin.planes(), direction.planes(), distance.data(),
                                         mask.data(), hit.planes(), count, scale);
    }
    // Which formula produced ray i; inactive rays must be +0.0.
    template <typename Formula>
    void expect(int count, bool singleOrigin, Formula formula) {
        for (int i = 0; i < count; ++i)
            for (int k = 0; k < 3; ++k) {
                const float o = singleOrigin ? single[k] : origin.at(k, i);
                const float expected =
                    mask[i] < 0 ? 0.0f : formula(direction.at(k, i), distance[i], scale, o);
                ASSERT_EQ(bits(hit.at(k, i)), bits(expected)) << "ray " << i << " axis " << k;
            }
    }

    const float single[3] = {1.5f, -2.25f, 0.125f};
    float scale = 0.999f;
    int n;
    Triple origin, direction;
    Plane<float> distance;
    Plane<int> mask;
    Triple hit;
};

TEST(HitPoint, EachPathKeepsItsOwnRounding) {
    kelt::Random random(31);
    int differing = 0;
    for (bool singleOrigin : {true, false}) {
        HitBlock block(256, 0);
        block.randomise(random);
        auto run = [&](int count) {
            return singleOrigin ? block.runS0(count) : block.runM0(count);
        };
        ASSERT_EQ(run(256), KEL_STS_OK);
        block.expect(256, singleOrigin, hitWorker);
        for (int i = 0; i < 256; ++i)
            for (int k = 0; k < 3; ++k) {
                const float o = singleOrigin ? block.single[k] : block.origin.at(k, i);
                const float d = block.direction.at(k, i), t = block.distance[i];
                if (block.mask[i] >= 0) {
                    EXPECT_NEAR(hitWorker(d, t, block.scale, o), hitScalar(d, t, block.scale, o),
                                2e-7f * (std::fabs(d * t) + std::fabs(o)));
                    differing += hitWorker(d, t, block.scale, o) != hitScalar(d, t, block.scale, o);
                }
            }
        block.hit.fill(9.0f);
        ASSERT_EQ(run(255), KEL_STS_OK);  // not whole groups: scalar
        block.expect(255, singleOrigin, hitScalar);
        EXPECT_EQ(block.hit.at(0, 255), 9.0f);
    }
    EXPECT_GT(differing, 0);
}

// A ray whose two roundings differ tells which path ran.
TEST(HitPoint, DispatchByCountAndAlignment) {
    kelt::Random random(32);
    float d = 0, t = 0, o = 0;
    while (hitWorker(d, t, 0.999f, o) == hitScalar(d, t, 0.999f, o)) {
        d = random.uniform(-1, 1), t = random.uniform(0, 100), o = random.uniform(-10, 10);
    }
    for (int misalignedArray = -1; misalignedArray < 5; ++misalignedArray) {
        for (int count : {6, 8}) {
            HitBlock block(8, 0);
            HitBlock shifted(8, 1);
            for (int i = 0; i < 8; ++i) {
                for (int k = 0; k < 3; ++k) {
                    block.direction.at(k, i) = shifted.direction.at(k, i) = d;
                    block.origin.at(k, i) = shifted.origin.at(k, i) = o;
                }
                block.distance[i] = shifted.distance[i] = t;
                block.mask[i] = shifted.mask[i] = 0;
            }
            // Swap one array (or one plane of each triple) for its misaligned copy.
            const float* dir[3] = {block.direction[0].data(), block.direction[1].data(),
                                   block.direction[2].data()};
            const float* org[3] = {block.origin[0].data(), block.origin[1].data(),
                                   block.origin[2].data()};
            float* hit[3] = {block.hit[0].data(), block.hit[1].data(), block.hit[2].data()};
            const float* dist = block.distance.data();
            const int* mask = block.mask.data();
            if (misalignedArray == 0) dist = shifted.distance.data();
            if (misalignedArray == 1) mask = shifted.mask.data();
            if (misalignedArray == 2) dir[1] = shifted.direction[1].data();
            if (misalignedArray == 3) hit[2] = shifted.hit[2].data();
            if (misalignedArray == 4) org[0] = shifted.origin[0].data();
            const bool worker = count == 8 && misalignedArray < 0;
            const float expected =
                worker ? hitWorker(d, t, block.scale, o) : hitScalar(d, t, block.scale, o);
            ASSERT_EQ(kelrHitPoint3DEpsM0_32f_M(org, dir, dist, mask, hit, count, block.scale), 0);
            EXPECT_EQ(hit[0][count - 1], expected) << misalignedArray << " " << count;
            // The single-origin form does not look at the origin planes.
            const bool workerS0 = count == 8 && (misalignedArray < 0 || misalignedArray == 4);
            const float origin[3] = {o, o, o};
            ASSERT_EQ(kelrHitPoint3DEpsS0_32f_M(origin, dir, dist, mask, hit, count, block.scale),
                      0);
            EXPECT_EQ(hit[0][count - 1],
                      workerS0 ? hitWorker(d, t, block.scale, o) : hitScalar(d, t, block.scale, o));
        }
    }
}

TEST(HitPoint, ScaleLimitsNullsAndEmptyCounts) {
    kelt::Random random(33);
    HitBlock block(8, 0);
    block.randomise(random);
    block.scale = 0.0f;  // the origin itself, in both paths
    for (int count : {8, 7}) {
        ASSERT_EQ(block.runS0(count), KEL_STS_OK);
        for (int i = 0; i < count; ++i)
            if (block.mask[i] >= 0) EXPECT_EQ(block.hit.at(1, i), block.single[1]);
    }
    block.hit.fill(9.0f);
    const float* dir[3] = {block.direction[0].data(), block.direction[1].data(),
                           block.direction[2].data()};
    const float* org[3] = {block.origin[0].data(), block.origin[1].data(), block.origin[2].data()};
    float* const* hit = block.hit.planes();
    const float* t = block.distance.data();
    const int* m = block.mask.data();
    EXPECT_EQ(kelrHitPoint3DEpsS0_32f_M(nullptr, dir, nullptr, m, hit, 8, 1.0f), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrHitPoint3DEpsS0_32f_M(nullptr, dir, t, nullptr, hit, 8, 1.0f), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrHitPoint3DEpsS0_32f_M(nullptr, nullptr, t, m, hit, 8, 1.0f), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrHitPoint3DEpsS0_32f_M(nullptr, dir, t, m, nullptr, 8, 1.0f), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrHitPoint3DEpsM0_32f_M(nullptr, dir, t, m, hit, 8, 1.0f), KEL_STS_NULL_PTR);
    for (int count : {0, -4, -5}) {
        EXPECT_EQ(kelrHitPoint3DEpsM0_32f_M(org, dir, t, m, hit, count, 1.0f), KEL_STS_OK);
        EXPECT_EQ(kelrHitPoint3DEpsS0_32f_M(block.single, dir, t, m, hit, count, 1.0f), KEL_STS_OK);
    }
    for (int i = 0; i < 8; ++i) EXPECT_EQ(block.hit.at(2, i), 9.0f);
}

// ---- Surface normals -------------------------------------------------------

// A mesh with random per-triangle and per-vertex normals, and hit records
// for a block of rays.
struct NormalBlock {
    NormalBlock(int n, int misalign, int stride = 4)
        : n(n),
          stride(stride),
          hitTriangle(n, misalign),
          u(n, misalign),
          v(n, misalign),
          normal(n, misalign),
          triangleNormals(3 * kTriangles + 1),
          vertexNormals(3 * kVertices + 1),
          indices(stride * kTriangles + 1) {}
    void randomise(kelt::Random& random) {
        random.fill(triangleNormals, -1.0f, 1.0f);
        random.fill(vertexNormals, -1.0f, 1.0f);
        for (int i = 0; i < indices.size(); ++i) indices[i] = random.integer(0, kVertices - 1);
        for (int i = 0; i < n; ++i) {
            hitTriangle[i] = random.integer(0, 3) == 0 ? -1 : random.integer(0, kTriangles - 1);
            const float a = random.uniform(0, 1), b = random.uniform(0, 1);
            u[i] = a < b ? a : b;
            v[i] = (a < b ? b : a) - u[i];
        }
        for (int g = 0; g + 4 <= n; g += 4) {  // coherent groups and all-miss groups
            const int kind = random.integer(0, 4);
            for (int l = 1; l < 4 && kind < 2; ++l) hitTriangle[g + l] = hitTriangle[g];
            for (int l = 0; l < 4 && kind == 2; ++l) hitTriangle[g + l] = -1 - l;
        }
        normal.fill(9.0f);
    }
    const float* bary(int k) { return k == 0 ? u.data() : v.data(); }
    KelStatus flat(int at, int count) {
        ShiftedTriple out(normal.planes(), at);
        return kelrSurfFlatNormal_32f(triangleNormals.data(), hitTriangle.data() + at, out.p,
                                      count);
    }
    KelStatus smooth(int at, int count) {
        ShiftedTriple out(normal.planes(), at);
        const float* uv[2] = {u.data() + at, v.data() + at};
        return kelrSurfSmoothNormal_32f(vertexNormals.data(), indices.data(),
                                        hitTriangle.data() + at, uv, out.p, count, stride);
    }
    // The interpolated normal, in the scalar loop's order; s in its order.
    void interpolate(int i, float n3[3]) {
        const int* tri = indices.data() + hitTriangle[i] * stride;
        const float w = (1.0f - u[i]) - v[i];
        for (int k = 0; k < 3; ++k)
            n3[k] = (vertexNormals[3 * tri[0] + k] * u[i] + vertexNormals[3 * tri[1] + k] * v[i]) +
                    vertexNormals[3 * tri[2] + k] * w;
    }

    static constexpr int kTriangles = 40, kVertices = 30;
    int n, stride;
    Plane<int> hitTriangle;
    Plane<float> u, v;
    Triple normal;
    Plane<float> triangleNormals, vertexNormals;
    Plane<int> indices;
};

TEST(SurfFlatNormal, BothPathsCopyTheTriangleNormal) {
    kelt::Random random(41);
    for (int misalign : {0, 1}) {
        NormalBlock block(256, misalign);
        block.randomise(random);
        ASSERT_EQ(block.flat(0, 256), KEL_STS_OK);
        NormalBlock scalar(256, 0);
        scalar.randomise(random);
        kelt::inScalarPieces(256, [&](int at, int count) { ASSERT_EQ(scalar.flat(at, count), 0); });
        for (NormalBlock* b : {&block, &scalar})
            for (int i = 0; i < 256; ++i)
                for (int k = 0; k < 3; ++k) {
                    const int h = b->hitTriangle[i];
                    const float expected = h < 0 ? 0.0f : b->triangleNormals[3 * h + k];
                    ASSERT_EQ(bits(b->normal.at(k, i)), bits(expected)) << i;
                }
    }
    NormalBlock block(4, 0);
    EXPECT_EQ(kelrSurfFlatNormal_32f(nullptr, block.hitTriangle.data(), block.normal.planes(), 4),
              KEL_STS_NULL_PTR);
    EXPECT_EQ(
        kelrSurfFlatNormal_32f(block.triangleNormals.data(), nullptr, block.normal.planes(), 4),
        KEL_STS_NULL_PTR);
    EXPECT_EQ(
        kelrSurfFlatNormal_32f(block.triangleNormals.data(), block.hitTriangle.data(), nullptr, 0),
        KEL_STS_OK);  // the output triple is not tested
}

// The scalar loop: square root and three divisions, nothing below 2^-23.
TEST(SurfSmoothNormal, ScalarLoopIsCorrectlyRounded) {
    kelt::Random random(42);
    for (int stride : {3, 4}) {
        NormalBlock block(255, 0, stride);
        block.randomise(random);
        ASSERT_EQ(block.smooth(0, 255), KEL_STS_OK);
        for (int i = 0; i < 255; ++i) {
            float n[3] = {0, 0, 0};
            if (block.hitTriangle[i] >= 0) block.interpolate(i, n);
            const float s = (n[2] * n[2] + n[1] * n[1]) + n[0] * n[0];
            for (int k = 0; k < 3; ++k) {
                const float expected = s >= 0x1p-23f ? n[k] / std::sqrt(s) : 0.0f;
                ASSERT_EQ(bits(block.normal.at(k, i)), bits(expected)) << i;
            }
        }
    }
}

// The worker: reciprocal-square-root estimate and one Newton step, good to
// about 22 bits; inactive lanes are +0.0. The same block misaligned by one
// float takes the scalar loop.
TEST(SurfSmoothNormal, WorkerIsWithinItsEstimateOfTheScalarLoop) {
    for (int stride : {3, 4}) {
        kelt::Random random(43), sameRandom(43);
        NormalBlock block(256, 0, stride), scalar(256, 1, stride);
        block.randomise(random);
        scalar.randomise(sameRandom);
        ASSERT_EQ(block.smooth(0, 256), KEL_STS_OK);
        ASSERT_EQ(scalar.smooth(0, 256), KEL_STS_OK);
        int differing = 0;
        for (int i = 0; i < 256; ++i)
            for (int k = 0; k < 3; ++k) {
                const float w = block.normal.at(k, i), s = scalar.normal.at(k, i);
                if (block.hitTriangle[i] < 0) ASSERT_EQ(bits(w) | bits(s), 0u) << i;
                ASSERT_NEAR(w, s, 5e-7f) << i;
                differing += w != s;
            }
        EXPECT_GT(differing, 0);
    }
}

TEST(SurfSmoothNormal, CoherentGroupEqualsGatheredGroup) {
    NormalBlock block(8, 0, 3);
    kelt::Random random(44);
    block.randomise(random);
    for (int c = 0; c < 3; ++c) block.indices[3 + c] = block.indices[c];  // triangle 1 = 0
    const int ids[8] = {0, 0, 0, 0, 0, 1, 1, 0};
    for (int i = 0; i < 8; ++i) {
        block.hitTriangle[i] = ids[i];
        block.u[i] = block.u[i % 4], block.v[i] = block.v[i % 4];
    }
    ASSERT_EQ(block.smooth(0, 8), KEL_STS_OK);
    for (int i = 0; i < 4; ++i)
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(bits(block.normal.at(k, i)), bits(block.normal.at(k, i + 4)));
}

// One triangle whose vertex normals 0 and 1 are opposite; ray 3 ends up with
// an interpolated normal of squared length about 2^-25.
void setUpShortNormals(NormalBlock& block) {
    const float vn[9] = {0.6f, 0.0f, 0.8f, -0.6f, 0.0f, -0.8f, 0.0f, 1.0f, 0.0f};
    for (int j = 0; j < 9; ++j) block.vertexNormals[j] = vn[j];
    block.indices[0] = 0, block.indices[1] = 1, block.indices[2] = 2;
    const float us[4] = {0.5f, 1.0f, 0.0f, 0.5f}, vs[4] = {0.5f, 0.0f, 0.0f, 0.5f - 0x1p-13f};
    for (int i = 0; i < 4; ++i) block.hitTriangle[i] = 0, block.u[i] = us[i], block.v[i] = vs[i];
    block.normal.fill(9.0f);
}

float lengthOf(Triple& t, int i) {
    return std::sqrt(t.at(0, i) * t.at(0, i) + t.at(1, i) * t.at(1, i) + t.at(2, i) * t.at(2, i));
}

TEST(SurfSmoothNormal, ShortNormalsDependOnThePath) {
    for (bool worker : {true, false}) {
        NormalBlock block(4, 0, 3);
        setUpShortNormals(block);
        if (worker)
            ASSERT_EQ(block.smooth(0, 4), KEL_STS_OK);
        else
            kelt::inScalarPieces(4,
                                 [&](int at, int count) { ASSERT_EQ(block.smooth(at, count), 0); });
        // Normals that cancel exactly give zero in both paths.
        for (int k = 0; k < 3; ++k) EXPECT_EQ(bits(block.normal.at(k, 0)), 0u);
        // u = 1 gives N0, u = v = 0 gives N2.
        EXPECT_NEAR(block.normal.at(0, 1), 0.6f, 1e-6f);
        EXPECT_NEAR(block.normal.at(2, 1), 0.8f, 1e-6f);
        EXPECT_NEAR(block.normal.at(1, 2), 1.0f, 1e-6f);
        // Below 2^-23 only the worker still normalises.
        EXPECT_NEAR(lengthOf(block.normal, 3), worker ? 1.0f : 0.0f, 1e-6f) << worker;
    }
}

TEST(SurfSmoothNormal, DispatchNullsAndEmptyCounts) {
    // Every array the worker needs aligned, misaligned in turn: the short
    // normal of setUpShortNormals tells which path ran.
    NormalBlock block(4, 0, 3), shifted(4, 1, 3);
    setUpShortNormals(block);
    setUpShortNormals(shifted);
    Plane<float> vertexNormals(9, 1);
    Plane<int> indices(3, 1);
    for (int j = 0; j < 9; ++j) vertexNormals[j] = block.vertexNormals[j];
    for (int j = 0; j < 3; ++j) indices[j] = block.indices[j];
    for (int misaligned = -1; misaligned < 6; ++misaligned) {
        block.normal.fill(9.0f);
        shifted.normal.fill(9.0f);
        const float* uv[2] = {misaligned == 0 ? shifted.u.data() : block.u.data(),
                              misaligned == 1 ? shifted.v.data() : block.v.data()};
        float* out[3] = {block.normal[0].data(), block.normal[1].data(),
                         misaligned == 2 ? shifted.normal[2].data() : block.normal[2].data()};
        const int* hit = misaligned == 3 ? shifted.hitTriangle.data() : block.hitTriangle.data();
        const float* vn = misaligned == 4 ? vertexNormals.data() : block.vertexNormals.data();
        const int* idx = misaligned == 5 ? indices.data() : block.indices.data();
        ASSERT_EQ(kelrSurfSmoothNormal_32f(vn, idx, hit, uv, out, 4, 3), KEL_STS_OK);
        EXPECT_EQ(out[1][3] != 0.0f, misaligned < 0) << misaligned;
    }
    const float* uv[2] = {block.u.data(), block.v.data()};
    float* const* out = block.normal.planes();
    const float* vn = block.vertexNormals.data();
    const int* idx = block.indices.data();
    const int* hit = block.hitTriangle.data();
    block.normal.fill(9.0f);
    EXPECT_EQ(kelrSurfSmoothNormal_32f(nullptr, idx, hit, uv, out, 4, 3), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrSurfSmoothNormal_32f(vn, nullptr, hit, uv, out, 4, 3), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrSurfSmoothNormal_32f(vn, idx, nullptr, uv, out, 4, 3), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrSurfSmoothNormal_32f(vn, idx, hit, nullptr, out, 4, 3), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrSurfSmoothNormal_32f(vn, idx, hit, uv, nullptr, 4, 3), KEL_STS_NULL_PTR);
    for (int count : {0, -4, -1})
        EXPECT_EQ(kelrSurfSmoothNormal_32f(vn, idx, hit, uv, out, count, 3), KEL_STS_OK);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(block.normal.at(0, i), 9.0f);
}

}  // namespace
