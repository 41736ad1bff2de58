// Hit points and surface normals: each path against its own arithmetic, and
// the deliberate differences between the paths.
#include <emmintrin.h>
#include <gtest/gtest.h>

#include <cmath>

#include "kelr.h"
#include "ray_block.h"

using kelt::bits;
using kelt::nullIf;
using kelt::Plane;
using kelt::Triple;

namespace {

// The scalar loop: one rounding, from extended precision. The worker:
// single precision, distance before scale.
float hitScalar(float d, float t, float scale, float o) {
    return float(((long double)d * scale) * t + o);
}
float hitWorker(float d, float t, float scale, float o) {
    return (d * t) * scale + o;
}

TEST(HitPoint, EachPathKeepsItsOwnRounding) {
    const int n = 128;
    kelt::Random random(31);
    Triple origin(n), direction(n), hit(n);
    Plane<float> distance(n);
    Plane<int> mask(n);
    random.fill(origin, -10.0f, 10.0f);
    random.fill(direction, -1.0f, 1.0f);
    random.fill(distance, 0.0f, 100.0f);
    random.fillMask(mask);
    for (int i = 0; i < n; ++i)
        if (mask[i] < 0) distance[i] = NAN;  // no hit: must not matter
    const float single[3] = {1.5f, -2.25f, 0.125f}, scale = 0.999f;
    for (bool perRay : {true, false}) {
        auto call = [&](int at, int count, int w = -1) {
            const float* t = nullIf(w == 0, distance.data() + at);
            const int* m = nullIf(w == 1, mask.data() + at);
            float* const* d = nullIf(w == 2, direction.planes(at));
            float* const* h = nullIf(w == 3, hit.planes(at));
            return perRay ? kelrHitPoint3DEpsM0_32f_M(nullIf(w == 4, origin.planes(at)), d, t, m, h,
                                                      count, scale)
                          : kelrHitPoint3DEpsS0_32f_M(w >= 0 ? nullptr : single, d, t, m, h, count,
                                                      scale);
        };
        int differing = 0;
        kelt::onEveryPath(
            n, {&distance, &mask, &direction[1], &hit[2], &origin[0]}, [&] { hit.fill(9.0f); },
            [&](int at, int count) { return call(at, count); },
            [&](kelt::Path path) {
                // The single-origin form does not look at the origin planes.
                const bool worker = path.worker() || (!perRay && path.moved == &origin[0]);
                for (int i = 0; i < n; ++i)
                    for (int k = 0; k < 3; ++k) {
                        const float d = direction.at(k, i), t = distance[i];
                        const float o = perRay ? origin.at(k, i) : single[k];
                        const float expected = mask[i] < 0 ? 0.0f
                                               : worker    ? hitWorker(d, t, scale, o)
                                                           : hitScalar(d, t, scale, o);
                        ASSERT_EQ(bits(hit.at(k, i)), bits(expected)) << i;
                        differing += mask[i] >= 0 && hitWorker(d, t, scale, o) != expected;
                    }
            });
        EXPECT_GT(differing, 0);  // the scalar loop did run
        hit.fill(9.0f);
        // The single origin is not checked, but must not be read first.
        kelt::expectNullChecksAndEmptyCounts(perRay ? 5 : 4,
                                             [&](int w, int count) { return call(0, count, w); });
        for (float v : hit.values()) EXPECT_EQ(v, 9.0f);
    }
}

// A mesh with random per-triangle and per-vertex normals, and hit records for
// a block of rays, with groups on one triangle and groups that hit nothing.
struct NormalBlock {
    NormalBlock(int rays, int step) : n(rays), stride(step) {
        kelt::Random random(41);
        random.fill(triangleNormals, -1.0f, 1.0f);
        random.fill(vertexNormals, -1.0f, 1.0f);
        for (int i = 0; i < indices.size(); ++i) indices[i] = random.integer(0, 29);
        for (int i = 0; i < n; ++i) {
            hitTriangle[i] = random.integer(0, 3) == 0 ? -1 : random.integer(0, 39);
            const float a = random.uniform(0, 1), b = random.uniform(0, 1);
            u[i] = std::fmin(a, b);
            v[i] = std::fmax(a, b) - u[i];
        }
        for (int g = 0; g + 4 <= n; g += 4) {
            const int kind = random.integer(0, 4);
            for (int l = 1; l < 4 && kind < 2; ++l) hitTriangle[g + l] = hitTriangle[g];
            for (int l = 0; l < 4 && kind == 2; ++l) hitTriangle[g + l] = -1 - l;
        }
    }
    KelStatus flat(int at, int count, int w = -1) {
        return kelrSurfFlatNormal_32f(nullIf(w == 0, triangleNormals.data()),
                                      nullIf(w == 1, hitTriangle.data() + at), normal.planes(at),
                                      count);
    }
    KelStatus smooth(int at, int count, int w = -1) {
        const float* uv[2] = {u.data() + at, v.data() + at};
        return kelrSurfSmoothNormal_32f(nullIf(w == 0, vertexNormals.data()),
                                        nullIf(w == 1, indices.data()),
                                        nullIf(w == 2, hitTriangle.data() + at), nullIf(w == 3, uv),
                                        nullIf(w == 4, normal.planes(at)), count, stride);
    }
    // The interpolated normal of ray i (u weighs vertex 0, v vertex 1), or 0.
    void interpolate(int i, float n3[3]) {
        const int* tri = indices.data() + hitTriangle[i] * stride;
        const float w = (1.0f - u[i]) - v[i];
        for (int k = 0; k < 3 && hitTriangle[i] >= 0; ++k)
            n3[k] = (vertexNormals[3 * tri[0] + k] * u[i] + vertexNormals[3 * tri[1] + k] * v[i]) +
                    vertexNormals[3 * tri[2] + k] * w;
    }

    int n, stride;
    Plane<int> hitTriangle{n};
    Plane<float> u{n}, v{n};
    Triple normal{n};
    Plane<float> triangleNormals{120}, vertexNormals{90};
    Plane<int> indices{stride * 40};
};

TEST(SurfFlatNormal, CopiesTheTriangleNormalOnEveryPath) {
    NormalBlock b(128, 4);
    kelt::onEveryPath(
        b.n, {&b.triangleNormals, &b.hitTriangle, &b.normal[1]}, [&] { b.normal.fill(9.0f); },
        [&](int at, int count) { return b.flat(at, count); },
        [&](kelt::Path) {
            for (int i = 0; i < b.n; ++i)
                for (int k = 0; k < 3; ++k) {
                    const int h = b.hitTriangle[i];
                    ASSERT_EQ(bits(b.normal.at(k, i)),
                              bits(h < 0 ? 0.0f : b.triangleNormals[3 * h + k]))
                        << i;
                }
        });
    EXPECT_EQ(b.flat(0, 4, 0), KEL_STS_NULL_PTR);
    EXPECT_EQ(b.flat(0, 4, 1), KEL_STS_NULL_PTR);
    // The output triple is not tested.
    EXPECT_EQ(kelrSurfFlatNormal_32f(b.triangleNormals.data(), b.hitTriangle.data(), nullptr, 0),
              KEL_STS_OK);
}

// The scalar loop: s summed z first, square root and three divisions, no
// normal below 2^-23. The worker: s summed x first, 2^-23 in place of zero,
// the processor's reciprocal-square-root estimate and one Newton step.
float smoothScalar(const float n[3], int k) {
    const float s = (n[2] * n[2] + n[1] * n[1]) + n[0] * n[0];
    return s >= 0x1p-23f ? n[k] / std::sqrt(s) : 0.0f;
}
float smoothWorker(const float n[3], int k) {
    float s = (n[0] * n[0] + n[1] * n[1]) + n[2] * n[2];
    if (s == 0.0f) s = 0x1p-23f;
    const float r = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(s)));
    return n[k] * ((r * -0.5f) * ((s * r) * r - 3.0f));
}

TEST(SurfSmoothNormal, EachPathKeepsItsOwnNormalisation) {
    for (int stride : {3, 4}) {
        NormalBlock b(128, stride);
        int differing = 0;
        kelt::onEveryPath(
            b.n, {&b.vertexNormals, &b.indices, &b.hitTriangle, &b.u, &b.v, &b.normal[2]},
            [&] { b.normal.fill(9.0f); }, [&](int at, int count) { return b.smooth(at, count); },
            [&](kelt::Path path) {
                for (int i = 0; i < b.n; ++i) {
                    float n[3] = {0, 0, 0};
                    b.interpolate(i, n);
                    for (int k = 0; k < 3; ++k) {
                        const float expected = b.hitTriangle[i] < 0 ? 0.0f
                                               : path.worker()      ? smoothWorker(n, k)
                                                                    : smoothScalar(n, k);
                        ASSERT_EQ(bits(b.normal.at(k, i)), bits(expected)) << i;
                        differing += path.worker() && expected != smoothScalar(n, k);
                    }
                }
            });
        EXPECT_GT(differing, 0);
    }
    NormalBlock b(8, 3);
    b.normal.fill(9.0f);
    kelt::expectNullChecksAndEmptyCounts(5,
                                         [&](int w, int count) { return b.smooth(0, count, w); });
    for (float v : b.normal.values()) EXPECT_EQ(v, 9.0f);
}

// One triangle whose vertex normals 0 and 1 cancel: rays 0 and 1 get
// squared lengths 0 and about 2^-26, ray 2 the tiny normal 2 of squared
// length exactly 2^-23.
TEST(SurfSmoothNormal, ShortNormalsDependOnThePath) {
    NormalBlock b(4, 3);
    const float vn[9] = {0.6f, 0.0f, 0.8f, -0.6f, 0.0f, -0.8f, 0x1p-12f, 0.0f, 0x1p-12f};
    for (int j = 0; j < 9; ++j) b.vertexNormals[j] = vn[j];
    for (int c = 0; c < 3; ++c) b.indices[c] = c;
    const float us[4] = {0.5f, 0.5f, 0.0f, 1.0f}, vs[4] = {0.5f, 0.5f - 0x1p-13f, 0.0f, 0.0f};
    for (int i = 0; i < 4; ++i) b.hitTriangle[i] = 0, b.u[i] = us[i], b.v[i] = vs[i];
    for (bool worker : {true, false}) {
        b.normal.fill(9.0f);
        if (worker)
            ASSERT_EQ(b.smooth(0, 4), KEL_STS_OK);
        else
            kelt::inScalarPieces(4, [&](int at, int count) { return b.smooth(at, count); });
        for (int k = 0; k < 3; ++k) EXPECT_EQ(bits(b.normal.at(k, 0)), 0u);
        // Below 2^-23 only the worker still normalises; from it on both do.
        EXPECT_EQ(b.normal.at(0, 1) > 0.5f, worker);
        EXPECT_NEAR(b.normal.at(0, 2), std::sqrt(0.5f), 1e-6f);
        EXPECT_NEAR(b.normal.at(2, 3), 0.8f, 1e-6f);  // u = 1: vertex normal 0
    }
}

}  // namespace
