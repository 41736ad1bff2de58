// Eye, shadow and reflection rays on the scalar loops and the four-ray
// workers.
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

// The scalar loop evaluates the per-ray formula; the workers step the row
// base by addition, so their rounding builds up down the block.
TEST(CastEye, EachPathKeepsItsOwnFormula) {
    kelt::Random random(20);
    float corner[3], columnStep[3], rowStep[3];
    for (int k = 0; k < 3; ++k) {
        corner[k] = random.uniform(-1.0f, 1.0f);
        columnStep[k] = random.uniform(-0.01f, 0.01f);
        rowStep[k] = random.uniform(-0.01f, 0.01f);
    }
    const float x0 = 15, y0 = 21;  // tile (3, 7) of 5 x 3 pixels
    for (int width : {7, 16}) {
        const int height = 24;
        Triple dir(width * height);
        // The workers take any alignment: one plane off its boundary is fine.
        for (int moved = -1; moved < 3; ++moved) {
            if (moved >= 0) dir[moved].placeAt(1);
            ASSERT_EQ(kelrCastEye_32f(corner, columnStep, rowStep, 3, 7, 5, 3, dir.planes(), width,
                                      height),
                      KEL_STS_OK);
            int differing = 0;
            for (int k = 0; k < 3; ++k) {
                float base = (rowStep[k] * y0 + corner[k]) + columnStep[k] * x0;
                for (int r = 0; r < height; ++r, base += rowStep[k])
                    for (int c = 0; c < width; ++c) {
                        const float perRay =
                            (rowStep[k] * (y0 + r) + corner[k]) + columnStep[k] * (x0 + c);
                        const float stepped = columnStep[k] * float(c) + base;
                        ASSERT_EQ(dir.at(k, r * width + c), width == 7 ? perRay : stepped);
                        differing += perRay != stepped;
                    }
            }
            EXPECT_GT(differing, 0);
            if (moved >= 0) dir[moved].placeAt(0);
        }
    }
}

TEST(CastEye, EmptyBlocksAndNullTriple) {
    Triple dir(8);
    dir.fill(5.0f);
    const float f[3] = {1, 1, 1};
    EXPECT_EQ(kelrCastEye_32f(f, f, f, 0, 0, 1, 1, nullptr, 0, 0), KEL_STS_NULL_PTR);
    for (int width : {5, 4, 0, -4, -3})
        for (int height : {0, -2})
            EXPECT_EQ(kelrCastEye_32f(f, f, f, 0, 0, 1, 1, dir.planes(), width, height), 0);
    EXPECT_EQ(kelrCastEye_32f(f, f, f, 0, 0, 1, 1, dir.planes(), -4, 2), KEL_STS_OK);
    for (float v : dir.values()) EXPECT_EQ(v, 5.0f);
}

// Shadow rays of a random block, with rays that fail the test in every way.
struct ShadowBlock {
    explicit ShadowBlock(int n) : facing(n), normal(n), point(n), mask(n), cosine(n), direction(n) {
        kelt::Random random(21);
        random.fill(facing, -1.0f, 1.0f);
        random.fill(normal, -1.0f, 1.0f);
        random.fill(point, -4.0f, 4.0f);
        random.fillMask(mask);
        for (int i = 0; i < n; i += 13) point.at(1, i) = NAN;
        // A grazing view (facing 0) and a point in the light's plane (d = 0).
        facing[1] = 0.0f;
        for (int k = 0; k < 3; ++k) point.at(k, 2) = light[k];
        mask[1] = mask[2] = 0;
        masks = mask.values();
    }
    void reset() {
        mask.assign(masks);
        cosine.fill(7.0f);
        direction.fill(7.0f);
    }
    KelStatus cast(int offset, int count) {
        ShiftedTriple nrm(normal.planes(), offset), pt(point.planes(), offset),
            dir(direction.planes(), offset);
        return kelrCastShadowSO_32f(light, facing.data() + offset, nrm.p, pt.p,
                                    mask.data() + offset, cosine.data() + offset, dir.p, count);
    }
    // d in the library's single-precision order, and the test it makes.
    float d(int i) {
        float sum = 0;
        for (int k = 0; k < 3; ++k) sum += (point.at(k, i) - light[k]) * normal.at(k, i);
        return sum;
    }
    bool passes(int i) { return facing[i] * d(i) > 0.0f; }

    const float light[3] = {0.5f, 3.0f, -1.0f};
    Plane<float> facing;
    Triple normal, point;
    Plane<int> mask;
    Plane<float> cosine;
    Triple direction;
    std::vector<int> masks;
};

// The scalar loop drops the active rays that fail; the workers drop every
// failing ray of a group that has an active one, inactive rays included.
TEST(CastShadow, MasksAndOutputsOnEveryPath) {
    const int n = 128;
    ShadowBlock b(n);
    int rewritten = 0;
    kelt::onEveryPath(
        n, {&b.facing, &b.normal[0], &b.point[1], &b.mask, &b.cosine, &b.direction[2]},
        [&] { b.reset(); }, [&](int at, int count) { return b.cast(at, count); },
        [&](kelt::Path path) {
            for (int i = 0; i < n; ++i) {
                const int g = i & ~3;
                bool groupActive = false;
                for (int l = 0; l < 4; ++l) groupActive |= b.masks[g + l] >= 0;
                const bool active = b.masks[i] >= 0;
                const bool dropped = !b.passes(i) && (path.pieces ? active : groupActive);
                ASSERT_EQ(b.mask[i], dropped ? -1 : b.masks[i]) << i;
                rewritten += dropped && !active && b.masks[i] != -1;
                const bool lit = active && b.passes(i);
                ASSERT_EQ(bits(b.cosine[i]), bits(lit ? std::fabs(b.d(i)) : 0.0f)) << i;
                for (int k = 0; k < 3; ++k)
                    ASSERT_EQ(bits(b.direction.at(k, i)),
                              bits(lit ? b.point.at(k, i) - b.light[k] : 0.0f));
            }
        });
    EXPECT_GT(rewritten, 0);
}

TEST(CastShadow, NullPointersAndEmptyCounts) {
    ShadowBlock b(8);
    b.reset();
    float* const* nrm = b.normal.planes();
    float* const* pt = b.point.planes();
    float* const* dir = b.direction.planes();
    const float* f = b.facing.data();
    int* m = b.mask.data();
    float* c = b.cosine.data();
    for (int w = 0; w < 6; ++w)
        EXPECT_EQ(kelrCastShadowSO_32f(b.light, nullIf(w == 0, f), nullIf(w == 1, nrm),
                                       nullIf(w == 2, pt), nullIf(w == 3, m), nullIf(w == 4, c),
                                       nullIf(w == 5, dir), 8),
                  KEL_STS_NULL_PTR);
    for (int count : {0, -4, -3}) EXPECT_EQ(b.cast(0, count), KEL_STS_OK);
    EXPECT_EQ(b.mask.values(), b.masks);
    for (float v : b.cosine.values()) EXPECT_EQ(v, 7.0f);
    for (float v : b.direction.values()) EXPECT_EQ(v, 7.0f);
}

TEST(CastReflection, MirrorsActiveRaysOnEveryPath) {
    const int n = 128;
    kelt::Random random(23);
    Triple d(n), normal(n), r(n);
    Plane<int> mask(n);
    random.fill(d, -2.0f, 2.0f);
    random.fill(normal, -1.0f, 1.0f);
    random.fillMask(mask);
    // D = (0, 0, -1) about N = (0, 0, 1) is (0, 0, 1).
    for (int k = 0; k < 3; ++k) d.at(k, 0) = k == 2 ? -1.0f : 0.0f, normal.at(k, 0) = -d.at(k, 0);
    mask[0] = 0;
    kelt::onEveryPath(
        n, {&d[0], &normal[1], &r[2], &mask}, [&] { r.fill(5.0f); },
        [&](int at, int count) {
            ShiftedTriple di(d.planes(), at), ni(normal.planes(), at), ri(r.planes(), at);
            return kelrCastReflectionRay_32f(di.p, mask.data() + at, ni.p, ri.p, count);
        },
        [&](kelt::Path) {
            EXPECT_EQ(r.at(2, 0), 1.0f);
            for (int i = 0; i < n; ++i) {
                const float s = (d.at(0, i) * normal.at(0, i) + d.at(1, i) * normal.at(1, i)) +
                                d.at(2, i) * normal.at(2, i);
                for (int k = 0; k < 3; ++k) {
                    const float expected =
                        mask[i] < 0 ? 0.0f : d.at(k, i) - normal.at(k, i) * (s + s);
                    ASSERT_EQ(bits(r.at(k, i)), bits(expected)) << i;
                }
            }
        });
    r.fill(5.0f);
    float* const* dp = d.planes();
    float* const* np = normal.planes();
    float* const* rp = r.planes();
    for (int w = 0; w < 4; ++w)
        EXPECT_EQ(kelrCastReflectionRay_32f(nullIf(w == 0, dp), nullIf(w == 1, mask.data()),
                                            nullIf(w == 2, np), nullIf(w == 3, rp), 4),
                  KEL_STS_NULL_PTR);
    for (int count : {0, -4, -1})
        EXPECT_EQ(kelrCastReflectionRay_32f(dp, mask.data(), np, rp, count), KEL_STS_OK);
    for (float v : r.values()) EXPECT_EQ(v, 5.0f);
}

}  // namespace
