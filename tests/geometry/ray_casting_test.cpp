// Eye, shadow and reflection rays: scalar loops against the four-ray workers.
#include <gtest/gtest.h>

#include <cmath>

#include "geometry/prmisc.h"
#include "ray_block.h"

using kelt::bits;
using kelt::Plane;
using kelt::ShiftedTriple;
using kelt::Triple;

namespace {

const float kCorner[3] = {-0.73f, 0.41f, -1.0f};
const float kColumnStep[3] = {0.00137f, 0.0f, 0.0003f};
const float kRowStep[3] = {0.0001f, -0.00291f, 0.00011f};

TEST(CastEye, ScalarPathEvaluatesThePerRayFormula) {
    const int width = 5, height = 3;
    Triple dir(width * height);
    ASSERT_EQ(
        kelrCastEye_32f(kCorner, kColumnStep, kRowStep, 3, 7, 5, 3, dir.planes(), width, height),
        KEL_STS_OK);
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c)
            for (int k = 0; k < 3; ++k) {
                const float v = 21.0f + float(r), u = 15.0f + float(c);
                const float expected = (kRowStep[k] * v + kCorner[k]) + kColumnStep[k] * u;
                EXPECT_EQ(dir.at(k, r * width + c), expected);
            }
}

// The workers step the row base by addition: exact against that recurrence,
// and visibly (if slightly) different from the per-ray formula.
TEST(CastEye, WorkerAccumulatesRowBases) {
    const int width = 64, height = 64;
    Triple aligned(width * height), unaligned(width * height, 1);
    ASSERT_EQ(kelrCastEye_32f(kCorner, kColumnStep, kRowStep, 5, 9, 64, 64, aligned.planes(), width,
                              height),
              KEL_STS_OK);
    ASSERT_EQ(kelrCastEye_32f(kCorner, kColumnStep, kRowStep, 5, 9, 64, 64, unaligned.planes(),
                              width, height),
              KEL_STS_OK);
    int differing = 0;
    for (int k = 0; k < 3; ++k) {
        float base = (kRowStep[k] * 576.0f + kCorner[k]) + kColumnStep[k] * 320.0f;
        for (int r = 0; r < height; ++r, base += kRowStep[k])
            for (int c = 0; c < width; ++c) {
                const int i = r * width + c;
                ASSERT_EQ(aligned.at(k, i), kColumnStep[k] * float(c) + base);
                ASSERT_EQ(bits(unaligned.at(k, i)), bits(aligned.at(k, i)));
                const float perRay =
                    (kRowStep[k] * (576.0f + r) + kCorner[k]) + kColumnStep[k] * (320.0f + c);
                EXPECT_NEAR(aligned.at(k, i), perRay, 1e-5f);
                differing += aligned.at(k, i) != perRay;
            }
    }
    EXPECT_GT(differing, 0);
}

TEST(CastEye, EmptyBlocksAndNullTriple) {
    Triple dir(8);
    dir.fill(5.0f);
    EXPECT_EQ(kelrCastEye_32f(kCorner, kColumnStep, kRowStep, 0, 0, 1, 1, nullptr, 0, 0),
              KEL_STS_NULL_PTR);
    for (int width : {5, 4, 0, -4, -3})
        for (int height : {0, -2}) {
            EXPECT_EQ(kelrCastEye_32f(kCorner, kColumnStep, kRowStep, 0, 0, 1, 1, dir.planes(),
                                      width, height),
                      KEL_STS_OK);
        }
    EXPECT_EQ(kelrCastEye_32f(kCorner, kColumnStep, kRowStep, 0, 0, 1, 1, dir.planes(), -4, 2),
              KEL_STS_OK);
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < 8; ++i) EXPECT_EQ(dir.at(k, i), 5.0f);
}

// Shadow rays of a random block, with the inputs kept so that both paths
// can run on the same data.
struct ShadowBlock {
    explicit ShadowBlock(int n, int misalign = 0)
        : n(n),
          facing(n, misalign),
          normal(n, misalign),
          point(n, misalign),
          mask(n, misalign),
          cosine(n, misalign),
          direction(n, misalign) {}
    void randomise(kelt::Random& random) {
        random.fill(facing, -1.0f, 1.0f);
        random.fill(normal, -1.0f, 1.0f);
        random.fill(point, -4.0f, 4.0f);
        random.fillMask(mask);
        cosine.fill(7.0f);
        direction.fill(7.0f);
    }
    void copyInputs(ShadowBlock& from) {
        facing.assign(from.facing);
        normal.assign(from.normal);
        point.assign(from.point);
        mask.assign(from.mask);
        cosine.fill(7.0f);
        direction.fill(7.0f);
    }
    KelStatus cast(int offset, int count) {
        ShiftedTriple nrm(normal.planes(), offset), pt(point.planes(), offset),
            dir(direction.planes(), offset);
        return kelrCastShadowSO_32f(light, facing.data() + offset, nrm.p, pt.p,
                                    mask.data() + offset, cosine.data() + offset, dir.p, count);
    }
    // The test the library makes, in the same single-precision order.
    bool passes(int i) {
        float d = 0;
        for (int k = 0; k < 3; ++k) d += (point.at(k, i) - light[k]) * normal.at(k, i);
        return facing[i] * d > 0.0f;
    }

    const float light[3] = {0.5f, 3.0f, -1.0f};
    int n;
    Plane<float> facing;
    Triple normal, point;
    Plane<int> mask;
    Plane<float> cosine;
    Triple direction;
};

TEST(CastShadow, WorkerMatchesScalarExceptForGroupMaskRewriting) {
    const int n = 256;
    kelt::Random random(21);
    ShadowBlock scalar(n), aligned(n), unaligned(n, 1);
    scalar.randomise(random);
    aligned.copyInputs(scalar);
    unaligned.copyInputs(scalar);
    const std::vector<int> before = scalar.mask.values();
    kelt::inScalarPieces(n, [&](int at, int count) { ASSERT_EQ(scalar.cast(at, count), 0); });
    ASSERT_EQ(aligned.cast(0, n), KEL_STS_OK);
    ASSERT_EQ(unaligned.cast(0, n), KEL_STS_OK);
    int rewritten = 0;
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(bits(aligned.cosine[i]), bits(scalar.cosine[i])) << i;
        for (int k = 0; k < 3; ++k)
            ASSERT_EQ(bits(aligned.direction.at(k, i)), bits(scalar.direction.at(k, i))) << i;
        const bool active = before[i] >= 0;
        ASSERT_EQ(scalar.mask[i], active && !scalar.passes(i) ? -1 : before[i]);
        if (!active) {
            // An inactive lane keeps zeros; its mask becomes -1 when it fails
            // the test inside a group that has an active ray.
            ASSERT_EQ(bits(aligned.cosine[i]), 0u);
            const int g = i & ~3;
            const bool groupActive =
                before[g] >= 0 || before[g + 1] >= 0 || before[g + 2] >= 0 || before[g + 3] >= 0;
            const int expected = groupActive && !scalar.passes(i) ? -1 : before[i];
            ASSERT_EQ(aligned.mask[i], expected) << i;
            rewritten += expected != before[i] && expected == -1 && before[i] != -1;
        } else {
            ASSERT_EQ(aligned.mask[i], scalar.mask[i]) << i;
        }
        ASSERT_EQ(unaligned.mask[i], aligned.mask[i]);
        ASSERT_EQ(bits(unaligned.cosine[i]), bits(aligned.cosine[i]));
        for (int k = 0; k < 3; ++k)
            ASSERT_EQ(bits(unaligned.direction.at(k, i)), bits(aligned.direction.at(k, i)));
    }
    EXPECT_GT(rewritten, 0);
}

TEST(CastShadow, GroupRewritingCases) {
    // Lane 0 passes but is inactive, lanes 1-3 fail.
    ShadowBlock block(4);
    const float toward[3] = {0, 0, 1};
    for (int i = 0; i < 4; ++i)
        for (int k = 0; k < 3; ++k) {
            block.point.at(k, i) = block.light[k] + (k == 2 ? 2.0f : 0.0f);
            block.normal.at(k, i) = toward[k];
        }
    const float facing[4] = {1, -1, 0, -2};  // d = 2 > 0: only lane 0 passes
    for (int i = 0; i < 4; ++i) block.facing[i] = facing[i];
    const int masks[4] = {-7, 0, 0, 0};
    for (int i = 0; i < 4; ++i) block.mask[i] = masks[i];
    ASSERT_EQ(block.cast(0, 4), KEL_STS_OK);
    const int rewritten[4] = {-7, -1, -1, -1};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(block.mask[i], rewritten[i]);
        EXPECT_EQ(bits(block.cosine[i]), 0u);
    }
    // No lane passes: the whole group is dropped, inactive lanes too.
    const int someActive[4] = {-7, 0, -3, 5};
    for (int i = 0; i < 4; ++i) block.mask[i] = someActive[i], block.facing[i] = -1.0f;
    ASSERT_EQ(block.cast(0, 4), KEL_STS_OK);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(block.mask[i], -1);
    // All inactive: masks stay, outputs are cleared.
    const int allInactive[4] = {-7, -2, -3, -5};
    for (int i = 0; i < 4; ++i) block.mask[i] = allInactive[i];
    block.cosine.fill(3.0f);
    ASSERT_EQ(block.cast(0, 4), KEL_STS_OK);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(block.mask[i], allInactive[i]);
        EXPECT_EQ(bits(block.cosine[i]), 0u);
    }
    // The scalar path (three rays) never rewrites an inactive mask; a grazing
    // view (facing 0) and a point in the light's plane (d = 0) both fail.
    block.mask[0] = -7, block.mask[1] = 0, block.mask[2] = 0;
    block.facing[0] = -1.0f, block.facing[1] = 0.0f, block.facing[2] = 1.0f;
    block.point.at(2, 2) = block.light[2];
    ASSERT_EQ(block.cast(0, 3), KEL_STS_OK);
    EXPECT_EQ(block.mask[0], -7);
    EXPECT_EQ(block.mask[1], -1);
    EXPECT_EQ(block.mask[2], -1);
}

TEST(CastShadow, NullPointersAndEmptyCounts) {
    ShadowBlock block(8);
    kelt::Random random(22);
    block.randomise(random);
    const std::vector<int> masks = block.mask.values();
    const float* nrm[3] = {block.normal[0].data(), block.normal[1].data(), block.normal[2].data()};
    const float* pt[3] = {block.point[0].data(), block.point[1].data(), block.point[2].data()};
    float* dir[3] = {block.direction[0].data(), block.direction[1].data(),
                     block.direction[2].data()};
    const float* f = block.facing.data();
    int* m = block.mask.data();
    float* c = block.cosine.data();
    EXPECT_EQ(kelrCastShadowSO_32f(block.light, nullptr, nrm, pt, m, c, dir, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrCastShadowSO_32f(block.light, f, nullptr, pt, m, c, dir, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrCastShadowSO_32f(block.light, f, nrm, nullptr, m, c, dir, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrCastShadowSO_32f(block.light, f, nrm, pt, nullptr, c, dir, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrCastShadowSO_32f(block.light, f, nrm, pt, m, nullptr, dir, 8), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrCastShadowSO_32f(block.light, f, nrm, pt, m, c, nullptr, 8), KEL_STS_NULL_PTR);
    for (int count : {0, -4, -3}) EXPECT_EQ(block.cast(0, count), KEL_STS_OK);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(block.mask[i], masks[i]);
        EXPECT_EQ(block.cosine[i], 7.0f);
        EXPECT_EQ(block.direction.at(1, i), 7.0f);
    }
}

TEST(CastReflection, MirrorsAndMasks) {
    Triple d(4), n(4), r(4);
    Plane<int> mask(4);
    for (int i = 0; i < 4; ++i) {
        d.at(2, i) = -1.0f, n.at(2, i) = 1.0f;
        mask[i] = i == 1 ? -1 : 0;
    }
    for (int count : {4, 3}) {  // worker, then scalar
        r.fill(9.0f);
        ASSERT_EQ(kelrCastReflectionRay_32f(d.planes(), mask.data(), n.planes(), r.planes(), count),
                  KEL_STS_OK);
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(bits(r.at(0, i)) | bits(r.at(1, i)), 0u);
            EXPECT_EQ(bits(r.at(2, i)), i == 1 ? 0u : bits(1.0f));
        }
    }
    EXPECT_EQ(kelrCastReflectionRay_32f(d.planes(), mask.data(), n.planes(), nullptr, 4),
              KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrCastReflectionRay_32f(d.planes(), nullptr, n.planes(), r.planes(), 4),
              KEL_STS_NULL_PTR);
}

TEST(CastReflection, WorkerMatchesScalarExactly) {
    const int n = 256;
    kelt::Random random(23);
    Triple d(n), normal(n), scalar(n), aligned(n), unaligned(n, 1);
    Plane<int> mask(n);
    random.fill(d, -2.0f, 2.0f);
    random.fill(normal, -1.0f, 1.0f);
    random.fillMask(mask);
    aligned.fill(5.0f);
    kelt::inScalarPieces(n, [&](int at, int count) {
        ShiftedTriple di(d.planes(), at), ni(normal.planes(), at), ri(scalar.planes(), at);
        kelrCastReflectionRay_32f(di.p, mask.data() + at, ni.p, ri.p, count);
    });
    ASSERT_EQ(
        kelrCastReflectionRay_32f(d.planes(), mask.data(), normal.planes(), aligned.planes(), n),
        KEL_STS_OK);
    ASSERT_EQ(
        kelrCastReflectionRay_32f(d.planes(), mask.data(), normal.planes(), unaligned.planes(), n),
        KEL_STS_OK);
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) {
            const float dn = (d.at(0, i) * normal.at(0, i) + d.at(1, i) * normal.at(1, i)) +
                             d.at(2, i) * normal.at(2, i);
            const float expected = mask[i] < 0 ? 0.0f : d.at(k, i) - normal.at(k, i) * (dn + dn);
            ASSERT_EQ(bits(scalar.at(k, i)), bits(expected)) << i;
            ASSERT_EQ(bits(aligned.at(k, i)), bits(expected)) << i;
            ASSERT_EQ(bits(unaligned.at(k, i)), bits(expected)) << i;
        }
}

}  // namespace
