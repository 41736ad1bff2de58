// Masked shading arithmetic on every path: the worker, the scalar loop
// chosen by one misaligned array, and pieces of three rays.
#include <gtest/gtest.h>

#include <cmath>

#include "kelr.h"
#include "ray_block.h"

using kelt::bits;
using kelt::nullIf;
using kelt::Plane;
using kelt::Triple;

namespace {

const int kRays = 128;

// Per-ray inputs and outputs shared by the shading functions, with some NaN
// rays; b and out are restored by reset(). check() runs a call on every
// path, each of `arrays` misaligned in turn, then its null checks (w nulls
// the w-th pointer; the unchecked constant pointers are null then too, so
// the checks must come before any read) and empty counts, which must leave
// b and out alone.
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
    template <typename Call, typename Check>
    void check(std::initializer_list<kelt::Movable*> arrays, int pointers, Call call, Check each) {
        kelt::onEveryPath(
            kRays, arrays, [&] { reset(); }, [&](int at, int count) { return call(at, count, -1); },
            each);
        reset();
        kelt::expectNullChecksAndEmptyCounts(pointers,
                                             [&](int w, int count) { return call(0, count, w); });
        for (float v : out.values()) ASSERT_EQ(v, 7.0f);
        EXPECT_EQ(0, memcmp(b.values().data(), initialB.data(), 4 * initialB.size()));
    }

    Triple a, b;
    Plane<int> mask;
    Plane<float> factor, out;
    std::vector<float> initialB;
};

TEST(Dot, SameBitsOnEveryPath) {
    ShadingBlock s;
    s.check(
        {&s.a[0], &s.b[1], &s.mask, &s.out}, 4,
        [&](int at, int count, int w) {
            return kelrDot_32f_P3C1M(nullIf(w == 0, s.a.planes(at)), nullIf(w == 1, s.b.planes(at)),
                                     nullIf(w == 2, s.mask.data() + at),
                                     nullIf(w == 3, s.out.data() + at), count);
        },
        [&](kelt::Path) {
            for (int i = 0; i < kRays; ++i) {
                const float dot = (s.a.at(0, i) * s.b.at(0, i) + s.a.at(1, i) * s.b.at(1, i)) +
                                  s.a.at(2, i) * s.b.at(2, i);
                ASSERT_EQ(bits(s.out[i]), bits(s.mask[i] < 0 ? 0.0f : dot)) << i;
            }
        });
}

// Active normals turn to face against the ray, by a sign flip; inactive
// ones keep their bits.
TEST(DotChangeNorm, NormalsTurnAgainstTheRay) {
    ShadingBlock s;
    s.check(
        {&s.a[1], &s.mask, &s.b[2], &s.out}, 4,
        [&](int at, int count, int w) {
            return kelrDotChangeNorm_32f_IM(
                nullIf(w == 0, s.a.planes(at)), nullIf(w == 1, s.mask.data() + at),
                nullIf(w == 2, s.b.planes(at)), nullIf(w == 3, s.out.data() + at), count);
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
    for (int i = 0; i < kRays; i += 5)  // a few points half a unit away, one 3
        for (int k = 0; k < 3; ++k) s.a.at(k, i) = origin[k] + (k != 1 ? 0.0f : i ? 0.5f : 3.0f);
    s.mask[0] = 0;
    s.check(
        {&s.a[2], &s.mask, &s.out}, 3,
        [&](int at, int count, int w) {
            return kelrDistAttenuationSO_32f_M(
                w >= 0 ? nullptr : origin, nullIf(w == 0, s.a.planes(at)),
                nullIf(w == 1, s.mask.data() + at), nullIf(w == 2, s.out.data() + at), count);
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
    s.check(
        {&s.factor, &s.mask, &s.b[0]}, 3,
        [&](int at, int count, int w) {
            return kelrMul_32f_C1P3IM(nullIf(w == 0, s.factor.data() + at),
                                      nullIf(w == 1, s.mask.data() + at),
                                      nullIf(w == 2, s.b.planes(at)), count);
        },
        [&](kelt::Path) {
            for (int i = 0; i < kRays; ++i)
                for (int k = 0; k < 3; ++k)
                    ASSERT_EQ(bits(s.b.at(k, i)),
                              bits(s.mask[i] < 0 ? 0.0f : s.initial(k, i) * s.factor[i]))
                        << i;
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
    s.check(
        {&s.factor, &s.mask, &s.b[1], &s.a[0]}, 4,
        [&](int at, int count, int w) {
            return kelrAddMulMul_32f_AC1P3IM(
                w >= 0 ? nullptr : coefficient, nullIf(w == 0, s.factor.data() + at),
                nullIf(w == 1, s.a.planes(at)), nullIf(w == 2, s.mask.data() + at),
                nullIf(w == 3, s.b.planes(at)), count);
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

}  // namespace
