// Masked shading arithmetic on every path: the worker, the scalar loop
// chosen by one misaligned array, and pieces of three rays.
#include <gtest/gtest.h>

#include <cmath>

#include "kelr.h"
#include "ray_block.h"

using kelt::bits;
using kelt::nullIf;
using kelt::Plane;
using kelt::ShiftedTriple;
using kelt::Triple;

namespace {

const int kRays = 128;

// Per-ray inputs and outputs shared by the shading functions, with some NaN
// rays; b and out are restored by reset().
struct ShadingBlock {
    ShadingBlock() : a(kRays), b(kRays), mask(kRays), factor(kRays), out(kRays) {
        kelt::Random random(51);
        random.fill(a, -3.0f, 3.0f);
        random.fill(b, -3.0f, 3.0f);
        random.fill(factor, -2.0f, 2.0f);
        random.fillMask(mask);
        for (int i = 0; i < kRays; i += 9) a.at(0, i) = NAN;
        initialB = b.values();
    }
    void reset() {
        b.assign(initialB);
        out.fill(7.0f);
    }
    float initial(int k, int i) const { return initialB[k * kRays + i]; }
    float dot(int i) {
        return (a.at(0, i) * b.at(0, i) + a.at(1, i) * b.at(1, i)) + a.at(2, i) * b.at(2, i);
    }

    Triple a, b;
    Plane<int> mask;
    Plane<float> factor, out;
    std::vector<float> initialB;
};

TEST(Dot, SameBitsOnEveryPath) {
    ShadingBlock s;
    kelt::onEveryPath(
        kRays, {&s.a[0], &s.b[1], &s.mask, &s.out}, [&] { s.reset(); },
        [&](int at, int count) {
            ShiftedTriple a(s.a.planes(), at), b(s.b.planes(), at);
            return kelrDot_32f_P3C1M(a.p, b.p, s.mask.data() + at, s.out.data() + at, count);
        },
        [&](kelt::Path) {
            for (int i = 0; i < kRays; ++i)
                ASSERT_EQ(bits(s.out[i]), bits(s.mask[i] < 0 ? 0.0f : s.dot(i))) << i;
        });
}

// Active normals turn to face against the ray, by a sign flip; inactive
// ones keep their bits.
TEST(DotChangeNorm, NormalsTurnAgainstTheRay) {
    ShadingBlock s;
    kelt::onEveryPath(
        kRays, {&s.a[1], &s.mask, &s.b[2], &s.out}, [&] { s.reset(); },
        [&](int at, int count) {
            ShiftedTriple d(s.a.planes(), at), n(s.b.planes(), at);
            return kelrDotChangeNorm_32f_IM(d.p, s.mask.data() + at, n.p, s.out.data() + at, count);
        },
        [&](kelt::Path) {
            for (int i = 0; i < kRays; ++i) {
                const float d = (s.a.at(0, i) * s.initial(0, i) + s.a.at(1, i) * s.initial(1, i)) +
                                s.a.at(2, i) * s.initial(2, i);
                const bool flip = s.mask[i] >= 0 && d > 0.0f;
                ASSERT_EQ(bits(s.out[i]), bits(s.mask[i] < 0 ? 0.0f : flip ? -d : d)) << i;
                for (int k = 0; k < 3; ++k)
                    ASSERT_EQ(bits(s.b.at(k, i)),
                              bits(s.initial(k, i)) ^ (flip ? 0x80000000u : 0u));
            }
        });
}

TEST(DistAttenuation, ClampedDistanceFromTheOrigin) {
    ShadingBlock s;
    const float origin[3] = {0.25f, -0.5f, 1.0f};
    for (int i = 5; i < kRays; i += 5)  // a few points half a unit away
        for (int k = 0; k < 3; ++k) s.a.at(k, i) = origin[k] + (k == 1 ? 0.5f : 0.0f);
    for (int k = 0; k < 3; ++k) s.a.at(k, 0) = origin[k] + (k == 1 ? 3.0f : 0.0f);
    s.mask[0] = 0;
    kelt::onEveryPath(
        kRays, {&s.a[2], &s.mask, &s.out}, [&] { s.reset(); },
        [&](int at, int count) {
            ShiftedTriple p(s.a.planes(), at);
            return kelrDistAttenuationSO_32f_M(origin, p.p, s.mask.data() + at, s.out.data() + at,
                                               count);
        },
        [&](kelt::Path) {
            EXPECT_EQ(s.out[0], 3.0f);
            for (int i = 0; i < kRays; ++i) {
                float q = 0;
                for (int k = 0; k < 3; ++k)
                    q += (s.a.at(k, i) - origin[k]) * (s.a.at(k, i) - origin[k]);
                const float expected = s.mask[i] >= 0 && q >= 1.0f ? std::sqrt(q) : 1.0f;
                ASSERT_EQ(bits(s.out[i]), bits(expected)) << i;
            }
        });
}

TEST(MulC1P3, ScalesActiveRaysAndClearsTheRest) {
    ShadingBlock s;
    kelt::onEveryPath(
        kRays, {&s.factor, &s.mask, &s.b[0]}, [&] { s.reset(); },
        [&](int at, int count) {
            ShiftedTriple c(s.b.planes(), at);
            return kelrMul_32f_C1P3IM(s.factor.data() + at, s.mask.data() + at, c.p, count);
        },
        [&](kelt::Path) {
            for (int i = 0; i < kRays; ++i)
                for (int k = 0; k < 3; ++k) {
                    const float expected = s.mask[i] < 0 ? 0.0f : s.initial(k, i) * s.factor[i];
                    ASSERT_EQ(bits(s.b.at(k, i)), bits(expected)) << i;
                }
        });
}

TEST(MulAndDivC1, PlainLoopsWithoutGuards) {
    ShadingBlock s;
    Plane<float> product(kRays), quotient(kRays);
    for (int i = 0; i < kRays; ++i) product[i] = quotient[i] = s.b.at(0, i);
    s.factor[1] = 0.0f, s.mask[1] = 2;
    ASSERT_EQ(kelrMul_32f_C1IM(s.factor.data(), s.mask.data(), product.data(), kRays), KEL_STS_OK);
    ASSERT_EQ(kelrDiv_32f_C1IM(s.factor.data(), s.mask.data(), quotient.data(), kRays), KEL_STS_OK);
    for (int i = 0; i < kRays; ++i) {
        const bool active = s.mask[i] >= 0;
        ASSERT_EQ(bits(product[i]), bits(active ? s.b.at(0, i) * s.factor[i] : 0.0f));
        ASSERT_EQ(bits(quotient[i]), bits(active ? s.b.at(0, i) / s.factor[i] : 0.0f));
    }
    EXPECT_TRUE(std::isinf(quotient[1]));
    EXPECT_EQ(kelrDiv_32f_C1IM(nullptr, nullptr, nullptr, 0), KEL_STS_OK);
    EXPECT_EQ(kelrMul_32f_C1IM(nullptr, nullptr, nullptr, -4), KEL_STS_OK);
}

// The scalar loop: (src x coefficient) x factor in extended precision, one
// rounding. The worker: (src x factor) x coefficient in single precision.
float accScalar(float acc, float src, float c, float f) {
    return float((long double)acc + ((long double)src * c) * f);
}
float accWorker(float acc, float src, float c, float f) {
    return acc + (src * f) * c;
}

// src is not among the worker's aligned arrays; inactive accumulators,
// marked NaNs among them, keep their bits.
TEST(AddMulMul, EachPathKeepsItsOwnOrderAndPrecision) {
    ShadingBlock s;
    const float coefficient[3] = {0.7f, 0.31f, 1.3f};
    for (int i = 0; i < kRays; ++i)
        if (s.mask[i] < 0) s.initialB[kRays + i] = std::nanf("0x1234");
    int differing = 0;
    kelt::onEveryPath(
        kRays, {&s.factor, &s.mask, &s.b[1], &s.a[0]}, [&] { s.reset(); },
        [&](int at, int count) {
            ShiftedTriple src(s.a.planes(), at), acc(s.b.planes(), at);
            return kelrAddMulMul_32f_AC1P3IM(coefficient, s.factor.data() + at, src.p,
                                             s.mask.data() + at, acc.p, count);
        },
        [&](kelt::Path path) {
            const bool worker = path.worker() || path.moved == &s.a[0];
            for (int i = 0; i < kRays; ++i)
                for (int k = 0; k < 3; ++k) {
                    const float acc = s.initial(k, i), f = s.factor[i], src = s.a.at(k, i);
                    const float c = coefficient[k];
                    const float expected = s.mask[i] < 0 ? acc
                                           : worker      ? accWorker(acc, src, c, f)
                                                         : accScalar(acc, src, c, f);
                    ASSERT_EQ(bits(s.b.at(k, i)), bits(expected)) << i;
                    differing += worker && expected != accScalar(acc, src, c, f);
                }
        });
    EXPECT_GT(differing, 0);
}

TEST(Shading, NullPointersAndEmptyCounts) {
    ShadingBlock s;
    s.reset();
    float* const* a = s.a.planes();
    float* const* b = s.b.planes();
    const int* m = s.mask.data();
    float* o = s.out.data();
    const float* f = s.factor.data();
    const float origin[3] = {0, 0, 0};
    for (int w = 0; w < 4; ++w) {
        SCOPED_TRACE(w);
        EXPECT_EQ(kelrDot_32f_P3C1M(nullIf(w == 0, a), nullIf(w == 1, b), nullIf(w == 2, m),
                                    nullIf(w == 3, o), 8),
                  KEL_STS_NULL_PTR);
        EXPECT_EQ(kelrDotChangeNorm_32f_IM(nullIf(w == 0, a), nullIf(w == 1, m), nullIf(w == 2, b),
                                           nullIf(w == 3, o), 8),
                  KEL_STS_NULL_PTR);
        EXPECT_EQ(kelrAddMulMul_32f_AC1P3IM(nullptr, nullIf(w == 0, f), nullIf(w == 1, a),
                                            nullIf(w == 2, m), nullIf(w == 3, b), 8),
                  KEL_STS_NULL_PTR);
        if (w == 3) continue;
        EXPECT_EQ(kelrDistAttenuationSO_32f_M(nullptr, nullIf(w == 0, a), nullIf(w == 1, m),
                                              nullIf(w == 2, o), 8),
                  KEL_STS_NULL_PTR);
        EXPECT_EQ(kelrMul_32f_C1P3IM(nullIf(w == 0, f), nullIf(w == 1, m), nullIf(w == 2, b), 8),
                  KEL_STS_NULL_PTR);
    }
    for (int count : {0, -4, -7}) {
        EXPECT_EQ(kelrDot_32f_P3C1M(a, b, m, o, count), KEL_STS_OK);
        EXPECT_EQ(kelrDotChangeNorm_32f_IM(a, m, b, o, count), KEL_STS_OK);
        EXPECT_EQ(kelrDistAttenuationSO_32f_M(origin, a, m, o, count), KEL_STS_OK);
        EXPECT_EQ(kelrMul_32f_C1P3IM(f, m, b, count), KEL_STS_OK);
        EXPECT_EQ(kelrAddMulMul_32f_AC1P3IM(origin, f, a, m, b, count), KEL_STS_OK);
    }
    for (float v : s.out.values()) ASSERT_EQ(v, 7.0f);
    EXPECT_EQ(s.b.values(), s.initialB);
}

}  // namespace
