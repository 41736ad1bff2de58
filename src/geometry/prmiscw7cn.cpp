// Four-ray SSE2 workers of the geometry and shading primitives. Each one
// mirrors its scalar loop in prmisc.cpp, four rays per step, in single
// precision; where the two paths round differently the difference is
// deliberate and visible to callers.
#include <emmintrin.h>

#include "geometry/prmisc.h"

namespace {

// The only difference between an aligned worker and its unaligned twin.
template <bool kAligned>
struct Lanes {
    static __m128 load(const float* p) {
        if constexpr (kAligned) return _mm_load_ps(p);
        return _mm_loadu_ps(p);
    }
    static void store(float* p, __m128 v) {
        if constexpr (kAligned)
            _mm_store_ps(p, v);
        else
            _mm_storeu_ps(p, v);
    }
    static __m128i loadMask(const int* p) {
        const __m128i* q = reinterpret_cast<const __m128i*>(p);
        if constexpr (kAligned) return _mm_load_si128(q);
        return _mm_loadu_si128(q);
    }
    static void storeMask(int* p, __m128i v) {
        __m128i* q = reinterpret_cast<__m128i*>(p);
        if constexpr (kAligned)
            _mm_store_si128(q, v);
        else
            _mm_storeu_si128(q, v);
    }
};
using AlignedLanes = Lanes<true>;
using UnalignedLanes = Lanes<false>;

// Four lanes of a plane triple.
struct Vec3 {
    __m128 x, y, z;
};

inline Vec3 splat(__m128 v) {
    return {v, v, v};
}
inline Vec3 splat(const float p[3]) {
    return {_mm_set1_ps(p[0]), _mm_set1_ps(p[1]), _mm_set1_ps(p[2])};
}
inline Vec3 operator+(Vec3 a, Vec3 b) {
    return {_mm_add_ps(a.x, b.x), _mm_add_ps(a.y, b.y), _mm_add_ps(a.z, b.z)};
}
inline Vec3 operator-(Vec3 a, Vec3 b) {
    return {_mm_sub_ps(a.x, b.x), _mm_sub_ps(a.y, b.y), _mm_sub_ps(a.z, b.z)};
}
inline Vec3 operator*(Vec3 a, __m128 s) {
    return {_mm_mul_ps(a.x, s), _mm_mul_ps(a.y, s), _mm_mul_ps(a.z, s)};
}
inline Vec3 operator*(Vec3 a, Vec3 b) {
    return {_mm_mul_ps(a.x, b.x), _mm_mul_ps(a.y, b.y), _mm_mul_ps(a.z, b.z)};
}
// Summed (x + y) + z, as the scalar loops do.
inline __m128 dot(Vec3 a, Vec3 b) {
    return _mm_add_ps(_mm_add_ps(_mm_mul_ps(a.x, b.x), _mm_mul_ps(a.y, b.y)), _mm_mul_ps(a.z, b.z));
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

// All bits set in the lanes whose mask entry is negative.
inline __m128 inactiveLanes(__m128i mask) {
    return _mm_castsi128_ps(_mm_srai_epi32(mask, 31));
}

// Active lanes keep their value, inactive ones become +0.0.
inline __m128 activeOnly(__m128 inactive, __m128 v) {
    return _mm_andnot_ps(inactive, v);
}
inline Vec3 activeOnly(__m128 inactive, Vec3 v) {
    return {activeOnly(inactive, v.x), activeOnly(inactive, v.y), activeOnly(inactive, v.z)};
}

// Per lane: ifSet where which has all bits set, ifClear elsewhere.
inline __m128 select(__m128 which, __m128 ifSet, __m128 ifClear) {
    return _mm_or_ps(_mm_and_ps(which, ifSet), _mm_andnot_ps(which, ifClear));
}

// The four-ray frame of every masked worker: a group whose four masks are
// all negative gets skip(i) and no arithmetic; any other group gets
// run(i, inactive).
template <typename L, typename Skip, typename Run>
inline KelStatus forEachGroup(const int* mask, int count, Skip skip, Run run) {
    for (int i = 0; i < count; i += 4) {
        const __m128 inactive = inactiveLanes(L::loadMask(mask + i));
        if (_mm_movemask_ps(inactive) == 0xF)
            skip(i);
        else
            run(i, inactive);
    }
    return KEL_STS_OK;
}

// x, y, z of one interleaved vector in lanes 0 to 2 (lane 3 is 0). Reads
// exactly three floats, so the last vector of an array is safe to load.
inline __m128 loadXyz(const float* p) {
    const __m128 xy = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(p));
    return _mm_movelh_ps(xy, _mm_load_ss(p + 2));
}

// Turns four interleaved vectors (one per lane, from loadXyz) into planes.
inline Vec3 lanesToPlanes(__m128 l0, __m128 l1, __m128 l2, __m128 l3) {
    _MM_TRANSPOSE4_PS(l0, l1, l2, l3);
    return {l0, l1, l2};
}

// One vector for all four lanes.
inline Vec3 broadcastXyz(const float* p) {
    const __m128 v = loadXyz(p);
    return {_mm_shuffle_ps(v, v, 0x00), _mm_shuffle_ps(v, v, 0x55), _mm_shuffle_ps(v, v, 0xAA)};
}

const __m128 kZero = {0.0f, 0.0f, 0.0f, 0.0f};
const __m128 kOne = {1.0f, 1.0f, 1.0f, 1.0f};
const __m128 kSignBit = {-0.0f, -0.0f, -0.0f, -0.0f};

// ---- Ray casting -------------------------------------------------------------

template <typename L>
KelStatus castEye4(const float corner[3], const float columnStep[3], const float rowStep[3],
                   float x0, float y0, float* const direction[3], int width, int height) {
    if (width <= 0) return KEL_STS_OK;
    const __m128 four = _mm_set1_ps(4.0f);
    for (int k = 0; k < 3; ++k) {
        // Row bases are accumulated by addition rather than recomputed, so
        // their rounding builds up down the block.
        float rowBase = (rowStep[k] * y0 + corner[k]) + columnStep[k] * x0;
        const __m128 step = _mm_set1_ps(columnStep[k]);
        float* row = direction[k];
        for (int r = 0; r < height; ++r, row += width, rowBase += rowStep[k]) {
            const __m128 base = _mm_set1_ps(rowBase);
            __m128 column = _mm_setr_ps(0.0f, 1.0f, 2.0f, 3.0f);
            for (int c = 0; c < width; c += 4, column = _mm_add_ps(column, four))
                L::store(row + c, _mm_add_ps(_mm_mul_ps(step, column), base));
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
            L::store(cosine + i, kZero);
            storeTriple<L>(direction, i, splat(kZero));
        },
        [&](int i, __m128) {
            const Vec3 toPoint = loadTriple<L>(point, i) - light;
            const __m128 d = dot(toPoint, loadTriple<L>(normal, i));
            const __m128 failed = _mm_cmpngt_ps(_mm_mul_ps(L::load(facing + i), d), kZero);
            // Every failing lane becomes -1, inactive ones included; when no
            // lane passes, that drops the whole group.
            const __m128i rewritten = _mm_or_si128(L::loadMask(mask + i), _mm_castps_si128(failed));
            L::storeMask(mask + i, rewritten);
            const __m128 dropped = inactiveLanes(rewritten);
            L::store(cosine + i, activeOnly(dropped, _mm_andnot_ps(kSignBit, d)));
            storeTriple<L>(direction, i, activeOnly(dropped, toPoint));
        });
}

template <typename L>
KelStatus castReflectionRay(const float* const incident[3], const int* mask,
                            const float* const normal[3], float* const reflected[3], int count) {
    return forEachGroup<L>(
        mask, count, [&](int i) { storeTriple<L>(reflected, i, splat(kZero)); },
        [&](int i, __m128 inactive) {
            const Vec3 d = loadTriple<L>(incident, i);
            const Vec3 n = loadTriple<L>(normal, i);
            const __m128 s = dot(d, n);
            storeTriple<L>(reflected, i, activeOnly(inactive, d - n * _mm_add_ps(s, s)));
        });
}

// ---- Hit points --------------------------------------------------------------

// Single precision throughout, multiplying by the distance before the scale
// (the scalar loop goes the other way round in extended precision).
template <typename Origin>
KelStatus hitPoints4(Origin origin, const float* const direction[3], const float* distance,
                     const int* mask, float* const hitPoint[3], int count, float scale) {
    using L = AlignedLanes;
    const __m128 scale4 = _mm_set1_ps(scale);
    return forEachGroup<L>(
        mask, count, [&](int i) { storeTriple<L>(hitPoint, i, splat(kZero)); },
        [&](int i, __m128 inactive) {
            const Vec3 p =
                (loadTriple<L>(direction, i) * L::load(distance + i)) * scale4 + origin(i);
            storeTriple<L>(hitPoint, i, activeOnly(inactive, p));
        });
}

// ---- Surface normals ---------------------------------------------------------

// Inactive lanes take this placeholder instead of reading memory.
inline __m128 vertexOrPlaceholder(const float* vertexNormals, const int* triangle, int corner) {
    return triangle ? loadXyz(vertexNormals + 3 * triangle[corner]) : kOne;
}

// The interpolated, unnormalised normals of four hits; inactive lanes hold
// placeholders. Four hits on one triangle load its vertex normals once. Only
// groups with an active lane come here, so four equal ids are four hits.
Vec3 interpolate(const float* vertexNormals, const int* triangleIndices, const int* hit, __m128 u,
                 __m128 v, int stride) {
    const __m128 w = _mm_sub_ps(_mm_sub_ps(kOne, u), v);
    Vec3 n[3];
    const __m128i ids = _mm_load_si128(reinterpret_cast<const __m128i*>(hit));
    const bool oneTriangle =
        _mm_movemask_epi8(_mm_cmpeq_epi32(ids, _mm_shuffle_epi32(ids, 0))) == 0xFFFF;
    if (oneTriangle) {
        const int* triangle = triangleIndices + hit[0] * stride;
        for (int c = 0; c < 3; ++c) n[c] = broadcastXyz(vertexNormals + 3 * triangle[c]);
    } else {
        const int* triangles[4];
        for (int l = 0; l < 4; ++l)
            triangles[l] = hit[l] < 0 ? nullptr : triangleIndices + hit[l] * stride;
        for (int c = 0; c < 3; ++c)
            n[c] = lanesToPlanes(vertexOrPlaceholder(vertexNormals, triangles[0], c),
                                 vertexOrPlaceholder(vertexNormals, triangles[1], c),
                                 vertexOrPlaceholder(vertexNormals, triangles[2], c),
                                 vertexOrPlaceholder(vertexNormals, triangles[3], c));
    }
    return (n[0] * u + n[1] * v) + n[2] * w;
}

// Reciprocal length from the hardware estimate and one Newton step: about
// 22 bits, and any non-zero vector is normalised, however short.
inline __m128 reciprocalLength(Vec3 n) {
    const __m128 floor = _mm_set1_ps(kel::kShortNormalSquare);
    __m128 s = dot(n, n);
    s = select(_mm_cmpeq_ps(s, kZero), floor, s);
    const __m128 r = _mm_rsqrt_ps(s);
    return _mm_mul_ps(_mm_mul_ps(r, _mm_set1_ps(-0.5f)),
                      _mm_sub_ps(_mm_mul_ps(_mm_mul_ps(s, r), r), _mm_set1_ps(3.0f)));
}

// The shading workers are chosen only when all their arrays are aligned
// (AddMulMul's src excepted, which it reads with unaligned loads).
using Shading = AlignedLanes;

}  // namespace

// ---- Exported workers --------------------------------------------------------

extern "C" KEL_API KelStatus ownCastEye4_w7(const float corner[3], const float columnStep[3],
                                            const float rowStep[3], float x0, float y0,
                                            float* const direction[3], int width, int height) {
    return castEye4<UnalignedLanes>(corner, columnStep, rowStep, x0, y0, direction, width, height);
}

extern "C" KEL_API KelStatus ownCastEye4al_w7(const float corner[3], const float columnStep[3],
                                              const float rowStep[3], float x0, float y0,
                                              float* const direction[3], int width, int height) {
    return castEye4<AlignedLanes>(corner, columnStep, rowStep, x0, y0, direction, width, height);
}

extern "C" KEL_API KelStatus ownCastShadowSO_32f(const float lightPos[3], const float* pFacing,
                                                 const float* const normal[3],
                                                 const float* const point[3], int* pMask,
                                                 float* pCosine, float* const direction[3],
                                                 int count) {
    return castShadowSO<UnalignedLanes>(lightPos, pFacing, normal, point, pMask, pCosine, direction,
                                        count);
}

extern "C" KEL_API KelStatus ownCastShadowSOal_32f(const float lightPos[3], const float* pFacing,
                                                   const float* const normal[3],
                                                   const float* const point[3], int* pMask,
                                                   float* pCosine, float* const direction[3],
                                                   int count) {
    return castShadowSO<AlignedLanes>(lightPos, pFacing, normal, point, pMask, pCosine, direction,
                                      count);
}

extern "C" KEL_API KelStatus ownCastReflectionRay_32f(const float* const incident[3],
                                                      const int* pMask,
                                                      const float* const normal[3],
                                                      float* const reflected[3], int count) {
    return castReflectionRay<UnalignedLanes>(incident, pMask, normal, reflected, count);
}

extern "C" KEL_API KelStatus ownCastReflectionRayal_32f(const float* const incident[3],
                                                        const int* pMask,
                                                        const float* const normal[3],
                                                        float* const reflected[3], int count) {
    return castReflectionRay<AlignedLanes>(incident, pMask, normal, reflected, count);
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
    return hitPoints4([&](int i) { return loadTriple<AlignedLanes>(origin, i); }, direction,
                      pDistance, pMask, hitPoint, count, scale);
}

extern "C" KEL_API KelStatus ownSurfFlatNormal_32f(const float* pTriangleNormals,
                                                   const int* pHitTriangle, float* const normal[3],
                                                   int count) {
    using L = AlignedLanes;
    return forEachGroup<L>(
        pHitTriangle, count, [&](int i) { storeTriple<L>(normal, i, splat(kZero)); },
        [&](int i, __m128) {
            __m128 lane[4];
            for (int l = 0; l < 4; ++l) {
                const int h = pHitTriangle[i + l];
                lane[l] = h < 0 ? kZero : loadXyz(pTriangleNormals + 3 * h);
            }
            storeTriple<L>(normal, i, lanesToPlanes(lane[0], lane[1], lane[2], lane[3]));
        });
}

extern "C" KEL_API KelStatus ownSurfSmoothNormal_32f(
    const float* pVertexNormals, const int* pTriangleIndices, const int* pHitTriangle,
    const float* const barycentric[2], float* const normal[3], int count, int stride) {
    using L = AlignedLanes;
    return forEachGroup<L>(
        pHitTriangle, count, [&](int i) { storeTriple<L>(normal, i, splat(kZero)); },
        [&](int i, __m128 inactive) {
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
        pMask, count, [&](int i) { L::store(pDot + i, kZero); },
        [&](int i, __m128 inactive) {
            L::store(pDot + i, activeOnly(inactive, dot(loadTriple<L>(a, i), loadTriple<L>(b, i))));
        });
}

extern "C" KEL_API KelStatus ownDotChangeNorm_32f_IM(const float* const direction[3],
                                                     const int* pMask, float* const normal[3],
                                                     float* pDot, int count) {
    using L = Shading;
    return forEachGroup<L>(
        pMask, count, [&](int i) { L::store(pDot + i, kZero); },
        [&](int i, __m128 inactive) {
            const Vec3 n = loadTriple<L>(normal, i);
            const __m128 d = dot(loadTriple<L>(direction, i), n);
            // Sign bit toggles only where an active normal faces along the ray.
            const __m128 flip = _mm_and_ps(activeOnly(inactive, _mm_cmpgt_ps(d, kZero)), kSignBit);
            storeTriple<L>(normal, i,
                           {_mm_xor_ps(n.x, flip), _mm_xor_ps(n.y, flip), _mm_xor_ps(n.z, flip)});
            L::store(pDot + i, activeOnly(inactive, _mm_xor_ps(d, flip)));
        });
}

extern "C" KEL_API KelStatus ownDistAttenuationSO_32f_M(const float origin[3],
                                                        const float* const point[3],
                                                        const int* pMask, float* pDistance,
                                                        int count) {
    using L = Shading;
    const Vec3 o = splat(origin);
    return forEachGroup<L>(
        pMask, count, [&](int i) { L::store(pDistance + i, kOne); },
        [&](int i, __m128 inactive) {
            const Vec3 toPoint = loadTriple<L>(point, i) - o;
            const __m128 q = dot(toPoint, toPoint);
            // NaN fails the comparison and gives 1.0 as well.
            const __m128 far = activeOnly(inactive, _mm_cmpge_ps(q, kOne));
            L::store(pDistance + i, select(far, _mm_sqrt_ps(q), kOne));
        });
}

extern "C" KEL_API KelStatus ownMul_32f_C1P3IM(const float* pFactor, const int* pMask,
                                               float* const srcDst[3], int count) {
    using L = Shading;
    return forEachGroup<L>(
        pMask, count, [&](int i) { storeTriple<L>(srcDst, i, splat(kZero)); },
        [&](int i, __m128 inactive) {
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
        [&](int i, __m128 inactive) {
            // (src x factor) x coefficient in single precision; the scalar
            // loop multiplies by the coefficient first, in extended precision.
            const Vec3 old = loadTriple<L>(acc, i);
            const Vec3 sum = old + (loadTriple<UnalignedLanes>(src, i) * L::load(pFactor + i)) * c;
            storeTriple<L>(acc, i,
                           {select(inactive, old.x, sum.x), select(inactive, old.y, sum.y),
                            select(inactive, old.z, sum.z)});
        });
}
