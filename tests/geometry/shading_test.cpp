// Masked shading arithmetic. Each function runs on the same random block
// three times: whole groups with aligned arrays (the worker), with every
// array one float off a 16-byte boundary (the scalar loop), and in pieces of
// three rays (the scalar loop again).
#include <gtest/gtest.h>

#include <cmath>

#include "geometry/prmisc.h"
#include "ray_block.h"

using kelt::bits;
using kelt::Plane;
using kelt::ShiftedTriple;
using kelt::Triple;

namespace {

const int kRays = 256;

// Per-ray inputs and outputs shared by all the shading functions.
struct ShadingBlock {
    explicit ShadingBlock(int misalign)
        : a(kRays, misalign),
          b(kRays, misalign),
          mask(kRays, misalign),
          scalar(kRays, misalign),
          out(kRays, misalign) {
        kelt::Random random(51);  // every block holds the same values
        random.fill(a, -3.0f, 3.0f);
        random.fill(b, -3.0f, 3.0f);
        random.fill(scalar, -2.0f, 2.0f);
        random.fillMask(mask);
        for (int i = 0; i < kRays; i += 9) a.at(0, i) = NAN;  // some NaN rays
        out.fill(7.0f);
    }
    Triple a, b;
    Plane<int> mask;
    Plane<float> scalar, out;
};

enum Path { kWorker, kMisaligned, kPieces };

// Calls call(block, offset, count) as the run asks; returns the block.
template <typename Call>
void run(Path how, ShadingBlock& block, Call call) {
    if (how == kPieces)
        kelt::inScalarPieces(kRays, [&](int at, int count) { ASSERT_EQ(call(at, count), 0); });
    else
        ASSERT_EQ(call(0, kRays), KEL_STS_OK);
}

float dotOf(ShadingBlock& s, int i) {
    return (s.a.at(0, i) * s.b.at(0, i) + s.a.at(1, i) * s.b.at(1, i)) +
           s.a.at(2, i) * s.b.at(2, i);
}

TEST(Dot, BothPathsGiveTheSameBits) {
    for (Path how : {kWorker, kMisaligned, kPieces}) {
        ShadingBlock s(how == kMisaligned);
        run(how, s, [&](int at, int count) {
            ShiftedTriple a(s.a.planes(), at), b(s.b.planes(), at);
            return kelrDot_32f_P3C1M(a.p, b.p, s.mask.data() + at, s.out.data() + at, count);
        });
        for (int i = 0; i < kRays; ++i)
            ASSERT_EQ(bits(s.out[i]), bits(s.mask[i] < 0 ? 0.0f : dotOf(s, i))) << how << " " << i;
    }
}

TEST(DotChangeNorm, NormalsTurnAgainstTheRay) {
    for (Path how : {kWorker, kMisaligned, kPieces}) {
        ShadingBlock s(how == kMisaligned);
        ShadingBlock before(0);
        run(how, s, [&](int at, int count) {
            ShiftedTriple d(s.a.planes(), at), n(s.b.planes(), at);
            return kelrDotChangeNorm_32f_IM(d.p, s.mask.data() + at, n.p, s.out.data() + at, count);
        });
        for (int i = 0; i < kRays; ++i) {
            const float d = dotOf(before, i);
            const bool flip = before.mask[i] >= 0 && d > 0.0f;
            ASSERT_EQ(bits(s.out[i]), bits(before.mask[i] < 0 ? 0.0f : flip ? -d : d)) << i;
            for (int k = 0; k < 3; ++k)  // inactive normals keep their bits
                ASSERT_EQ(bits(s.b.at(k, i)), bits(before.b.at(k, i)) ^ (flip ? 0x80000000u : 0));
        }
    }
    // Facing along the ray: turned over; facing against it: left alone.
    for (int count : {4, 3}) {
        Triple d(4), n(4);
        Plane<int> mask(4);
        Plane<float> dot(4);
        for (int i = 0; i < 4; ++i)
            d.at(2, i) = 1.0f, n.at(2, i) = i == 1 ? -1.0f : 1.0f, mask[i] = 0;
        ASSERT_EQ(kelrDotChangeNorm_32f_IM(d.planes(), mask.data(), n.planes(), dot.data(), count),
                  KEL_STS_OK);
        EXPECT_EQ(n.at(2, 0), -1.0f);
        EXPECT_EQ(n.at(2, 1), -1.0f);
        EXPECT_EQ(dot[0], -1.0f);
        EXPECT_EQ(dot[1], -1.0f);
    }
}

TEST(DistAttenuation, ClampedDistanceFromTheOrigin) {
    const float origin[3] = {0.25f, -0.5f, 1.0f};
    for (Path how : {kWorker, kMisaligned, kPieces}) {
        ShadingBlock s(how == kMisaligned);
        for (int i = 5; i < kRays; i += 5)  // a few points half a unit away
            for (int k = 0; k < 3; ++k) s.a.at(k, i) = origin[k] + (k == 1 ? 0.5f : 0.0f);
        s.a.at(0, 0) = origin[0], s.a.at(1, 0) = origin[1] + 3.0f, s.a.at(2, 0) = origin[2];
        s.mask[0] = 0;
        run(how, s, [&](int at, int count) {
            ShiftedTriple p(s.a.planes(), at);
            return kelrDistAttenuationSO_32f_M(origin, p.p, s.mask.data() + at, s.out.data() + at,
                                               count);
        });
        EXPECT_EQ(s.out[0], 3.0f);
        for (int i = 0; i < kRays; ++i) {
            float q = 0;
            for (int k = 0; k < 3; ++k)
                q += (s.a.at(k, i) - origin[k]) * (s.a.at(k, i) - origin[k]);
            const float expected = s.mask[i] >= 0 && q >= 1.0f ? std::sqrt(q) : 1.0f;
            ASSERT_EQ(bits(s.out[i]), bits(expected)) << how << " " << i;
        }
    }
}

TEST(MulC1P3, ScalesActiveRaysAndClearsTheRest) {
    for (Path how : {kWorker, kMisaligned, kPieces}) {
        ShadingBlock s(how == kMisaligned);
        ShadingBlock before(0);
        run(how, s, [&](int at, int count) {
            ShiftedTriple c(s.b.planes(), at);
            return kelrMul_32f_C1P3IM(s.scalar.data() + at, s.mask.data() + at, c.p, count);
        });
        for (int i = 0; i < kRays; ++i)
            for (int k = 0; k < 3; ++k) {
                const float expected = s.mask[i] < 0 ? 0.0f : before.b.at(k, i) * s.scalar[i];
                ASSERT_EQ(bits(s.b.at(k, i)), bits(expected)) << how << " " << i;
            }
    }
}

TEST(MulAndDivC1, PlainLoopsWithoutGuards) {
    ShadingBlock s(0);
    Plane<float> product(kRays), quotient(kRays);
    for (int i = 0; i < kRays; ++i) product[i] = quotient[i] = s.b.at(0, i);
    s.scalar[1] = 0.0f, s.mask[1] = 2;
    ASSERT_EQ(kelrMul_32f_C1IM(s.scalar.data(), s.mask.data(), product.data(), kRays), KEL_STS_OK);
    ASSERT_EQ(kelrDiv_32f_C1IM(s.scalar.data(), s.mask.data(), quotient.data(), kRays), KEL_STS_OK);
    for (int i = 0; i < kRays; ++i) {
        const bool active = s.mask[i] >= 0;
        ASSERT_EQ(bits(product[i]), bits(active ? s.b.at(0, i) * s.scalar[i] : 0.0f));
        ASSERT_EQ(bits(quotient[i]), bits(active ? s.b.at(0, i) / s.scalar[i] : 0.0f));
    }
    EXPECT_TRUE(std::isinf(quotient[1]) || std::isnan(quotient[1]));
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

TEST(AddMulMul, EachPathKeepsItsOwnOrderAndPrecision) {
    const float coefficient[3] = {0.7f, 0.31f, 1.3f};
    int differing = 0;
    for (Path how : {kWorker, kMisaligned, kPieces}) {
        ShadingBlock s(how == kMisaligned);
        ShadingBlock before(0);
        // src stays where the worker reads it unaligned: it must not matter.
        Triple src(kRays, 1);
        src.assign(before.a);
        for (int i = 0; i < kRays; ++i)
            if (s.mask[i] < 0) s.b.at(1, i) = kelt::floatOf(0x7FC01234u);  // a marked NaN
        run(how, s, [&](int at, int count) {
            ShiftedTriple sp(src.planes(), at), acc(s.b.planes(), at);
            return kelrAddMulMul_32f_AC1P3IM(coefficient, s.scalar.data() + at, sp.p,
                                             s.mask.data() + at, acc.p, count);
        });
        for (int i = 0; i < kRays; ++i)
            for (int k = 0; k < 3; ++k) {
                const float acc0 = k == 1 && s.mask[i] < 0 ? s.b.at(1, i) : before.b.at(k, i);
                const float f = s.scalar[i], sv = src.at(k, i), c = coefficient[k];
                const float expected = s.mask[i] < 0    ? acc0
                                       : how == kWorker ? accWorker(acc0, sv, c, f)
                                                        : accScalar(acc0, sv, c, f);
                ASSERT_EQ(bits(s.b.at(k, i)), bits(expected)) << how << " " << i;
                if (s.mask[i] >= 0 && std::isfinite(sv))
                    differing += accWorker(acc0, sv, c, f) != accScalar(acc0, sv, c, f);
            }
    }
    EXPECT_GT(differing, 0);
}

TEST(Shading, NullPointersAreCheckedAndNothingIsWritten) {
    ShadingBlock s(0);
    float* const* a = s.a.planes();
    float* const* b = s.b.planes();
    const int* m = s.mask.data();
    float* o = s.out.data();
    const float* f = s.scalar.data();
    const float origin[3] = {0, 0, 0};
    EXPECT_EQ(kelrDot_32f_P3C1M(nullptr, b, m, o, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDot_32f_P3C1M(a, nullptr, m, o, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDot_32f_P3C1M(a, b, nullptr, o, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDot_32f_P3C1M(a, b, m, nullptr, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDotChangeNorm_32f_IM(nullptr, m, b, o, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDotChangeNorm_32f_IM(a, nullptr, b, o, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDotChangeNorm_32f_IM(a, m, nullptr, o, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDotChangeNorm_32f_IM(a, m, b, nullptr, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDistAttenuationSO_32f_M(nullptr, nullptr, m, o, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDistAttenuationSO_32f_M(origin, a, nullptr, o, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrDistAttenuationSO_32f_M(origin, a, m, nullptr, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrMul_32f_C1P3IM(nullptr, m, b, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrMul_32f_C1P3IM(f, nullptr, b, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrMul_32f_C1P3IM(f, m, nullptr, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrAddMulMul_32f_AC1P3IM(nullptr, nullptr, a, m, b, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrAddMulMul_32f_AC1P3IM(nullptr, f, nullptr, m, b, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrAddMulMul_32f_AC1P3IM(nullptr, f, a, nullptr, b, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrAddMulMul_32f_AC1P3IM(nullptr, f, a, m, nullptr, 8), KEL_STS_NULL_PTR);
    // Counts of zero or less are no error and write nothing either.
    for (int count : {0, -4, -7}) {
        EXPECT_EQ(kelrDot_32f_P3C1M(a, b, m, o, count), KEL_STS_OK);
        EXPECT_EQ(kelrDotChangeNorm_32f_IM(a, m, b, o, count), KEL_STS_OK);
        EXPECT_EQ(kelrDistAttenuationSO_32f_M(origin, a, m, o, count), KEL_STS_OK);
        EXPECT_EQ(kelrMul_32f_C1P3IM(f, m, b, count), KEL_STS_OK);
        EXPECT_EQ(kelrAddMulMul_32f_AC1P3IM(origin, f, a, m, b, count), KEL_STS_OK);
    }
    ShadingBlock before(0);
    for (int i = 0; i < kRays; ++i) {
        ASSERT_EQ(s.out[i], 7.0f);
        for (int k = 0; k < 3; ++k) ASSERT_EQ(bits(s.b.at(k, i)), bits(before.b.at(k, i)));
    }
}

}  // namespace
