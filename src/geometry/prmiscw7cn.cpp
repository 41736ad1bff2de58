// Four-ray SSE2 workers of the geometry and shading primitives. Each one
// mirrors its scalar loop in prmisc.cpp, four rays per step, in single
// precision; where the two paths round differently the difference is
// deliberate and visible to callers.
#include "core/lanes.h"
#include "geometry/prmisc.h"

namespace {

using Floats = kel::lanes::Floats<4>;
using Ints = kel::lanes::Ints<4>;
using Mask = kel::lanes::Mask<float, 4>;

// The only difference between an aligned worker and its unaligned twin.
template <bool kAligned>
struct Access {
    template <typename T>
    static kel::lanes::Lanes<T, 4> load(const T* p) {
        if constexpr (kAligned) return kel::lanes::Lanes<T, 4>::load(p);
        return kel::lanes::Lanes<T, 4>::loadUnaligned(p);
    }
    template <typename T>
    static void store(T* p, kel::lanes::Lanes<T, 4> v) {
        if constexpr (kAligned)
            v.store(p);
        else
            v.storeUnaligned(p);
    }
};
using Aligned = Access<true>;
using Unaligned = Access<false>;

// Four lanes of a plane triple.
struct Vec3 {
    Floats x, y, z;
};

inline Vec3 splat(Floats v) {
    return {v, v, v};
}
inline Vec3 splat(const float p[3]) {
    return {p[0], p[1], p[2]};
}
inline Vec3 operator+(Vec3 a, Vec3 b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec3 operator-(Vec3 a, Vec3 b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vec3 operator*(Vec3 a, Floats s) {
    return {a.x * s, a.y * s, a.z * s};
}
inline Vec3 operator*(Vec3 a, Vec3 b) {
    return {a.x * b.x, a.y * b.y, a.z * b.z};
}
// Summed (x + y) + z, as the scalar loops do.
inline Floats dot(Vec3 a, Vec3 b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

template <typename L>
inline Vec3 loadTriple(const float* const planes[3], int i) {
    return {L::load(planes[0] + i), L::load(planes[1] + i), L::load(planes[2] + i)};
}
template <typename L>
inline void storeTriple(float* const planes[3], int i, Vec3 v) {
    L::store(planes[0] + i, v.x);
    L::store(planes[1] + i, v.y);
    L::store(planes[2] + i, v.z);
}

// Inactive lanes become +0.0, active ones keep their value.
inline Vec3 activeOnly(Mask inactive, Vec3 v) {
    return {clearWhere(inactive, v.x), clearWhere(inactive, v.y), clearWhere(inactive, v.z)};
}

// The four-ray frame of every masked worker: a group whose four masks are
// all negative gets skip(i) and no arithmetic; any other group gets
// run(i, inactive), inactive being true in the lanes whose mask is negative.
template <typename L, typename Skip, typename Run>
inline KelStatus forEachGroup(const int* mask, int count, Skip skip, Run run) {
    for (int i = 0; i < count; i += 4) {
        const Mask inactive = L::load(mask + i) < Ints(0);
        if (inactive.bits() == 0xF)
            skip(i);
        else
            run(i, inactive);
    }
    return KEL_STS_OK;
}

// The interleaved vectors (three floats each) that the four lanes point at.
inline Vec3 gather(const float* const lane[4]) {
    Floats c[3];
    kel::lanes::gatherXyz(lane, c);
    return {c[0], c[1], c[2]};
}
// What inactive lanes read instead of the caller's memory.
constexpr float kZeros[3] = {0.0f, 0.0f, 0.0f};
constexpr float kOnes[3] = {1.0f, 1.0f, 1.0f};

// ---- Ray casting -------------------------------------------------------------

template <typename L>
KelStatus castEye4(const float corner[3], const float columnStep[3], const float rowStep[3],
                   float x0, float y0, float* const direction[3], int width, int height) {
    if (width <= 0) return KEL_STS_OK;
    for (int k = 0; k < 3; ++k) {
        // Row bases are accumulated by addition rather than recomputed, so
        // their rounding builds up down the block.
        float rowBase = (rowStep[k] * y0 + corner[k]) + columnStep[k] * x0;
        const Floats step = columnStep[k];
        float* row = direction[k];
        for (int r = 0; r < height; ++r, row += width, rowBase += rowStep[k]) {
            Floats column = kel::lanes::floats(0.0f, 1.0f, 2.0f, 3.0f);
            for (int c = 0; c < width; c += 4, column = column + 4.0f)
                L::store(row + c, step * column + rowBase);
        }
    }
    return KEL_STS_OK;
}

template <typename L>
KelStatus castShadowSO(const float lightPos[3], const float* facing, const float* const normal[3],
                       const float* const point[3], int* mask, float* cosine,
                       float* const direction[3], int count) {
    const Vec3 light = splat(lightPos);
    return forEachGroup<L>(
        mask, count,
        [&](int i) {
            L::store(cosine + i, Floats(0.0f));
            storeTriple<L>(direction, i, splat(0.0f));
        },
        [&](int i, Mask) {
            const Vec3 toPoint = loadTriple<L>(point, i) - light;
            const Floats d = dot(toPoint, loadTriple<L>(normal, i));
            const Mask failed = notGreater(L::load(facing + i) * d, 0.0f);
            // Every failing lane becomes -1, inactive ones included; when no
            // lane passes, that drops the whole group.
            const Ints rewritten = select(failed, Ints(-1), L::load(mask + i));
            L::store(mask + i, rewritten);
            const Mask dropped = rewritten < Ints(0);
            L::store(cosine + i, clearWhere(dropped, kel::lanes::magnitude(d)));
            storeTriple<L>(direction, i, activeOnly(dropped, toPoint));
        });
}

template <typename L>
KelStatus castReflectionRay(const float* const incident[3], const int* mask,
                            const float* const normal[3], float* const reflected[3], int count) {
    return forEachGroup<L>(
        mask, count, [&](int i) { storeTriple<L>(reflected, i, splat(0.0f)); },
        [&](int i, Mask inactive) {
            const Vec3 d = loadTriple<L>(incident, i);
            const Vec3 n = loadTriple<L>(normal, i);
            const Floats s = dot(d, n);
            storeTriple<L>(reflected, i, activeOnly(inactive, d - n * (s + s)));
        });
}

// ---- Hit points --------------------------------------------------------------

// Single precision throughout, multiplying by the distance before the scale
// (the scalar loop goes the other way round in extended precision).
template <typename Origin>
KelStatus hitPoints4(Origin origin, const float* const direction[3], const float* distance,
                     const int* mask, float* const hitPoint[3], int count, float scale) {
    using L = Aligned;
    return forEachGroup<L>(
        mask, count, [&](int i) { storeTriple<L>(hitPoint, i, splat(0.0f)); },
        [&](int i, Mask inactive) {
            const Vec3 p =
                (loadTriple<L>(direction, i) * L::load(distance + i)) * scale + origin(i);
            storeTriple<L>(hitPoint, i, activeOnly(inactive, p));
        });
}

// ---- Surface normals ---------------------------------------------------------

// The interpolated, unnormalised normals of four hits; inactive lanes hold
// placeholders (1.0) rather than read the caller's memory. Four hits on one triangle
// load its vertex normals once. Only groups with an active lane come here,
// so four equal ids are four hits.
Vec3 interpolate(const float* vertexNormals, const int* triangleIndices, const int* hit, Floats u,
                 Floats v, int stride) {
    const Floats w = (1.0f - u) - v;
    Vec3 n[3];
    if ((Ints::load(hit) == Ints(hit[0])).bits() == 0xF) {
        const int* triangle = triangleIndices + hit[0] * stride;
        for (int c = 0; c < 3; ++c) n[c] = splat(vertexNormals + 3 * triangle[c]);
    } else {
        for (int c = 0; c < 3; ++c) {
            const float* lane[4];
            for (int l = 0; l < 4; ++l)
                lane[l] =
                    hit[l] < 0 ? kOnes : vertexNormals + 3 * triangleIndices[hit[l] * stride + c];
            n[c] = gather(lane);
        }
    }
    return (n[0] * u + n[1] * v) + n[2] * w;
}

// Reciprocal length from the hardware estimate and one Newton step: about
// 22 bits, and any non-zero vector is normalised, however short.
inline Floats reciprocalLength(Vec3 n) {
    Floats s = dot(n, n);
    s = select(s == 0.0f, Floats(kel::kShortNormalSquare), s);
    const Floats r = kel::lanes::reciprocalSqrtEstimate(s);
    return (r * -0.5f) * ((s * r) * r - 3.0f);
}

// The shading workers are chosen only when all their arrays are aligned
// (AddMulMul's src excepted, which it reads with unaligned loads).
using Shading = Aligned;

}  // namespace

// ---- Exported workers --------------------------------------------------------

extern "C" KEL_API KelStatus ownCastEye4_w7(const float corner[3], const float columnStep[3],
                                            const float rowStep[3], float x0, float y0,
                                            float* const direction[3], int width, int height) {
    return castEye4<Unaligned>(corner, columnStep, rowStep, x0, y0, direction, width, height);
}

extern "C" KEL_API KelStatus ownCastEye4al_w7(const float corner[3], const float columnStep[3],
                                              const float rowStep[3], float x0, float y0,
                                              float* const direction[3], int width, int height) {
    return castEye4<Aligned>(corner, columnStep, rowStep, x0, y0, direction, width, height);
}

extern "C" KEL_API KelStatus ownCastShadowSO_32f(const float lightPos[3], const float* pFacing,
                                                 const float* const normal[3],
                                                 const float* const point[3], int* pMask,
                                                 float* pCosine, float* const direction[3],
                                                 int count) {
    return castShadowSO<Unaligned>(lightPos, pFacing, normal, point, pMask, pCosine, direction,
                                   count);
}

extern "C" KEL_API KelStatus ownCastShadowSOal_32f(const float lightPos[3], const float* pFacing,
                                                   const float* const normal[3],
                                                   const float* const point[3], int* pMask,
                                                   float* pCosine, float* const direction[3],
                                                   int count) {
    return castShadowSO<Aligned>(lightPos, pFacing, normal, point, pMask, pCosine, direction,
                                 count);
}

extern "C" KEL_API KelStatus ownCastReflectionRay_32f(const float* const incident[3],
                                                      const int* pMask,
                                                      const float* const normal[3],
                                                      float* const reflected[3], int count) {
    return castReflectionRay<Unaligned>(incident, pMask, normal, reflected, count);
}

extern "C" KEL_API KelStatus ownCastReflectionRayal_32f(const float* const incident[3],
                                                        const int* pMask,
                                                        const float* const normal[3],
                                                        float* const reflected[3], int count) {
    return castReflectionRay<Aligned>(incident, pMask, normal, reflected, count);
}

extern "C" KEL_API KelStatus ownHitPoint3DEpsS0_32f_M(const float origin[3],
                                                      const float* const direction[3],
                                                      const float* pDistance, const int* pMask,
                                                      float* const hitPoint[3], int count,
                                                      float scale) {
    const Vec3 o = splat(origin);
    return hitPoints4([&](int) { return o; }, direction, pDistance, pMask, hitPoint, count, scale);
}

extern "C" KEL_API KelStatus ownHitPoint3DEpsM0_32f_M(const float* const origin[3],
                                                      const float* const direction[3],
                                                      const float* pDistance, const int* pMask,
                                                      float* const hitPoint[3], int count,
                                                      float scale) {
    return hitPoints4([&](int i) { return loadTriple<Aligned>(origin, i); }, direction, pDistance,
                      pMask, hitPoint, count, scale);
}

extern "C" KEL_API KelStatus ownSurfFlatNormal_32f(const float* pTriangleNormals,
                                                   const int* pHitTriangle, float* const normal[3],
                                                   int count) {
    using L = Aligned;
    return forEachGroup<L>(
        pHitTriangle, count, [&](int i) { storeTriple<L>(normal, i, splat(0.0f)); },
        [&](int i, Mask) {
            const float* lane[4];
            for (int l = 0; l < 4; ++l) {
                const int h = pHitTriangle[i + l];
                lane[l] = h < 0 ? kZeros : pTriangleNormals + 3 * h;
            }
            storeTriple<L>(normal, i, gather(lane));
        });
}

extern "C" KEL_API KelStatus ownSurfSmoothNormal_32f(
    const float* pVertexNormals, const int* pTriangleIndices, const int* pHitTriangle,
    const float* const barycentric[2], float* const normal[3], int count, int stride) {
    using L = Aligned;
    return forEachGroup<L>(
        pHitTriangle, count, [&](int i) { storeTriple<L>(normal, i, splat(0.0f)); },
        [&](int i, Mask inactive) {
            const Vec3 n =
                interpolate(pVertexNormals, pTriangleIndices, pHitTriangle + i,
                            L::load(barycentric[0] + i), L::load(barycentric[1] + i), stride);
            storeTriple<L>(normal, i, activeOnly(inactive, n * reciprocalLength(n)));
        });
}

extern "C" KEL_API KelStatus ownDot_32f_P3C1M(const float* const a[3], const float* const b[3],
                                              const int* pMask, float* pDot, int count) {
    using L = Shading;
    return forEachGroup<L>(
        pMask, count, [&](int i) { L::store(pDot + i, Floats(0.0f)); },
        [&](int i, Mask inactive) {
            L::store(pDot + i, clearWhere(inactive, dot(loadTriple<L>(a, i), loadTriple<L>(b, i))));
        });
}

extern "C" KEL_API KelStatus ownDotChangeNorm_32f_IM(const float* const direction[3],
                                                     const int* pMask, float* const normal[3],
                                                     float* pDot, int count) {
    using L = Shading;
    return forEachGroup<L>(
        pMask, count, [&](int i) { L::store(pDot + i, Floats(0.0f)); },
        [&](int i, Mask inactive) {
            const Vec3 n = loadTriple<L>(normal, i);
            const Floats d = dot(loadTriple<L>(direction, i), n);
            // Sign bit toggles only where an active normal faces along the ray.
            const Mask flip = andNot(d > 0.0f, inactive);
            storeTriple<L>(
                normal, i,
                {negateWhere(flip, n.x), negateWhere(flip, n.y), negateWhere(flip, n.z)});
            L::store(pDot + i, clearWhere(inactive, negateWhere(flip, d)));
        });
}

extern "C" KEL_API KelStatus ownDistAttenuationSO_32f_M(const float origin[3],
                                                        const float* const point[3],
                                                        const int* pMask, float* pDistance,
                                                        int count) {
    using L = Shading;
    const Vec3 o = splat(origin);
    return forEachGroup<L>(
        pMask, count, [&](int i) { L::store(pDistance + i, Floats(1.0f)); },
        [&](int i, Mask inactive) {
            const Vec3 toPoint = loadTriple<L>(point, i) - o;
            const Floats q = dot(toPoint, toPoint);
            // NaN fails the comparison and gives 1.0 as well.
            const Mask far = andNot(q >= 1.0f, inactive);
            L::store(pDistance + i, select(far, kel::lanes::sqrt(q), Floats(1.0f)));
        });
}

extern "C" KEL_API KelStatus ownMul_32f_C1P3IM(const float* pFactor, const int* pMask,
                                               float* const srcDst[3], int count) {
    using L = Shading;
    return forEachGroup<L>(
        pMask, count, [&](int i) { storeTriple<L>(srcDst, i, splat(0.0f)); },
        [&](int i, Mask inactive) {
            const Vec3 product = loadTriple<L>(srcDst, i) * L::load(pFactor + i);
            storeTriple<L>(srcDst, i, activeOnly(inactive, product));
        });
}

extern "C" KEL_API KelStatus ownAddMulMul_32f_AC1P3IM(const float coefficient[3],
                                                      const float* pFactor,
                                                      const float* const src[3], const int* pMask,
                                                      float* const acc[3], int count) {
    using L = Shading;
    const Vec3 c = splat(coefficient);
    return forEachGroup<L>(
        pMask, count, [](int) {},
        [&](int i, Mask inactive) {
            // (src x factor) x coefficient in single precision; the scalar
            // loop multiplies by the coefficient first, in extended precision.
            const Vec3 old = loadTriple<L>(acc, i);
            const Vec3 sum = old + (loadTriple<Unaligned>(src, i) * L::load(pFactor + i)) * c;
            storeTriple<L>(acc, i,
                           {select(inactive, old.x, sum.x), select(inactive, old.y, sum.y),
                            select(inactive, old.z, sum.z)});
        });
}
