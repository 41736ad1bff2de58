// Eye, shadow and reflection rays on the scalar loops and the four-ray
// workers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "kelr.h"
#include "ray_block.h"

using kelt::bits;
using kelt::nullIf;
using kelt::Plane;
using kelt::Triple;

namespace {

// The scalar loop evaluates the per-ray formula; the workers step the row
// base by addition, so their rounding builds up down the block. Blocks
// without rays write nothing.
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
    Triple dir(8);
    dir.fill(5.0f);
    EXPECT_EQ(kelrCastEye_32f(corner, corner, corner, 0, 0, 1, 1, nullptr, 0, 0), KEL_STS_NULL_PTR);
    for (int width : {5, 4, 0, -4, -3})
        for (int height : {0, -2, width == -4 ? 2 : 0})
            EXPECT_EQ(
                kelrCastEye_32f(corner, corner, corner, 0, 0, 1, 1, dir.planes(), width, height),
                KEL_STS_OK);
    for (float v : dir.values()) EXPECT_EQ(v, 5.0f);
}

// Shadow rays of a random block, with rays that fail the test in every
// way. The scalar loop drops the active rays that fail; the workers drop
// every failing ray of a group that has an active one, inactive rays
// included.
TEST(CastShadow, MasksAndOutputsOnEveryPath) {
    const int n = 128;
    const float light[3] = {0.5f, 3.0f, -1.0f};
    kelt::Random random(21);
    Plane<float> facing(n), cosine(n);
    Triple normal(n), point(n), direction(n);
    Plane<int> mask(n);
    random.fill(facing, -1.0f, 1.0f);
    random.fill(normal, -1.0f, 1.0f);
    random.fill(point, -4.0f, 4.0f);
    random.fillMask(mask);
    for (int i = 0; i < n; i += 13) point.at(1, i) = NAN;
    // A grazing view (facing 0) and a point in the light's plane (d = 0).
    facing[1] = 0.0f;
    for (int k = 0; k < 3; ++k) point.at(k, 2) = light[k];
    mask[1] = mask[2] = 0;
    const std::vector<int> masks = mask.values();
    auto reset = [&] {
        mask.assign(masks);
        cosine.fill(7.0f);
        direction.fill(7.0f);
    };
    auto cast = [&](int at, int count, int w = -1) {
        return kelrCastShadowSO_32f(
            light, nullIf(w == 0, facing.data() + at), nullIf(w == 1, normal.planes(at)),
            nullIf(w == 2, point.planes(at)), nullIf(w == 3, mask.data() + at),
            nullIf(w == 4, cosine.data() + at), nullIf(w == 5, direction.planes(at)), count);
    };
    int rewritten = 0;
    kelt::onEveryPath(
        n, {&facing, &normal[0], &point[1], &mask, &cosine, &direction[2]}, reset,
        [&](int at, int count) { return cast(at, count); },
        [&](kelt::Path path) {
            for (int i = 0; i < n; ++i) {
                float d = 0;  // in the library's single-precision order
                for (int k = 0; k < 3; ++k) d += (point.at(k, i) - light[k]) * normal.at(k, i);
                const bool passes = facing[i] * d > 0.0f, active = masks[i] >= 0;
                const int g = i & ~3;
                const bool groupActive =
                    std::max({masks[g], masks[g + 1], masks[g + 2], masks[g + 3]}) >= 0;
                const bool dropped = !passes && (path.pieces ? active : groupActive);
                ASSERT_EQ(mask[i], dropped ? -1 : masks[i]) << i;
                rewritten += dropped && !active && masks[i] != -1;
                const bool lit = active && passes;
                ASSERT_EQ(bits(cosine[i]), bits(lit ? std::fabs(d) : 0.0f)) << i;
                for (int k = 0; k < 3; ++k)
                    ASSERT_EQ(bits(direction.at(k, i)),
                              bits(lit ? point.at(k, i) - light[k] : 0.0f));
            }
        });
    EXPECT_GT(rewritten, 0);
    reset();
    kelt::expectNullChecksAndEmptyCounts(6, [&](int w, int count) { return cast(0, count, w); });
    EXPECT_EQ(mask.values(), masks);
    for (float v : cosine.values()) EXPECT_EQ(v, 7.0f);
    for (float v : direction.values()) EXPECT_EQ(v, 7.0f);
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
    auto cast = [&](int at, int count, int w = -1) {
        return kelrCastReflectionRay_32f(
            nullIf(w == 0, d.planes(at)), nullIf(w == 1, mask.data() + at),
            nullIf(w == 2, normal.planes(at)), nullIf(w == 3, r.planes(at)), count);
    };
    kelt::onEveryPath(
        n, {&d[0], &normal[1], &r[2], &mask}, [&] { r.fill(5.0f); },
        [&](int at, int count) { return cast(at, count); },
        [&](kelt::Path) {
            EXPECT_EQ(r.at(2, 0), 1.0f);
            for (int i = 0; i < n; ++i) {
                const float s = (d.at(0, i) * normal.at(0, i) + d.at(1, i) * normal.at(1, i)) +
                                d.at(2, i) * normal.at(2, i);
                for (int k = 0; k < 3; ++k)
                    ASSERT_EQ(bits(r.at(k, i)),
                              bits(mask[i] < 0 ? 0.0f : d.at(k, i) - normal.at(k, i) * (s + s)))
                        << i;
            }
        });
    r.fill(5.0f);
    kelt::expectNullChecksAndEmptyCounts(4, [&](int w, int count) { return cast(0, count, w); });
    for (float v : r.values()) EXPECT_EQ(v, 5.0f);
}

}  // namespace
