// Geometry and shading primitives: argument checks, the choice between the
// four-ray workers and the scalar loops, and the scalar loops themselves.
#include "geometry/prmisc.h"

namespace {

constexpr float kFloatMax = 3.4028235e38f;         // 0x7F7FFFFF
constexpr float kSmallestNormal = 1.1754944e-38f;  // 0x00800000
constexpr float kBoxMarginScale = 0.0001f;         // 0x38D1B717

// The workers take rays four at a time. An empty block (zero, or a negative
// multiple of four) writes nothing on either path; it goes to the scalar loop,
// which unlike the workers reads no shared origin or coefficient either.
inline bool wholeGroups(int count) {
    return count > 0 && count % 4 == 0;
}

inline bool aligned16(const void* p) {
    return kel::isAligned16(p);
}
template <typename T>
inline bool aligned16(T* const* planes) {
    return kel::planesAligned16(planes);
}
// True when every array and every plane of every triple is 16-byte aligned.
template <typename... Arrays>
inline bool allAligned(Arrays... arrays) {
    return (aligned16(arrays) && ...);
}

// The scalar frame of every masked primitive: rays in order, each active or
// inactive by the sign of its mask entry.
template <typename Active, typename Inactive>
inline KelStatus forEachRay(const int* mask, int count, Active active, Inactive inactive) {
    for (int i = 0; i < count; ++i) {
        if (mask[i] >= 0)
            active(i);
        else
            inactive(i);
    }
    return KEL_STS_OK;
}

inline void zeroTriple(float* const planes[3], int i) {
    planes[0][i] = 0.0f;
    planes[1][i] = 0.0f;
    planes[2][i] = 0.0f;
}

// Running bounds keep their value only when strictly beyond the coordinate,
// so a NaN coordinate replaces them.
inline float keepSmaller(float running, float c) {
    return running < c ? running : c;
}
inline float keepGreater(float running, float c) {
    return running > c ? running : c;
}

float boxMargin(const float box[6]) {
    float largest = kSmallestNormal;
    for (int k = 0; k < 6; ++k) largest = keepGreater(largest, __builtin_fabsf(box[k]));
    return largest * kBoxMarginScale;
}

}  // namespace

// ---- Bounding box and triangle normals ----------------------------------

extern "C" KEL_API KelStatus kelrSetBoundBox_32f(const float* pVertices, int count, float* pBox) {
    if (!pVertices) return KEL_STS_NULL_PTR;
    float box[6] = {kFloatMax, kFloatMax, kFloatMax, -kFloatMax, -kFloatMax, -kFloatMax};
    for (int i = 0; i < count; ++i) {
        const float* v = pVertices + 3 * i;
        for (int k = 0; k < 3; ++k) {
            box[k] = keepSmaller(box[k], v[k]);
            box[k + 3] = keepGreater(box[k + 3], v[k]);
        }
    }
    // The margin is relative to the largest coordinate magnitude, not to the
    // box's extent: a far-away box grows by much more than its size suggests.
    const float margin = boxMargin(box);
    for (int k = 0; k < 3; ++k) {
        pBox[k] = box[k] - margin;
        pBox[k + 3] = box[k + 3] + margin;
    }
    return KEL_STS_OK;
}

extern "C" KEL_API KelStatus kelrTriangleNormal_32f(const float* pVertices, const int* pTriangles,
                                                    float* pNormals, int count) {
    for (int t = 0; t < count; ++t) {
        const int* tri = pTriangles + 4 * t;
        const float* p0 = pVertices + 3 * tri[0];
        const float* p1 = pVertices + 3 * tri[1];
        const float* p2 = pVertices + 3 * tri[2];
        double a[3], b[3];
        for (int k = 0; k < 3; ++k) {
            a[k] = double(p0[k]) - double(p2[k]);
            b[k] = double(p1[k]) - double(p2[k]);
        }
        const double n[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                             a[0] * b[1] - a[1] * b[0]};
        const double s = (n[0] * n[0] + n[1] * n[1]) + n[2] * n[2];
        float* out = pNormals + 3 * t;
        // Degenerate means "too short for a float", so the test is made on
        // the rounded length; the division uses the exact one.
        const float sRounded = float(s);
        if (sRounded == 0.0f || sRounded != sRounded) {
            out[0] = out[1] = out[2] = 0.0f;
            continue;
        }
        const double r = __builtin_sqrt(s);
        for (int k = 0; k < 3; ++k) out[k] = float(n[k] / r);
    }
    return KEL_STS_OK;
}

// ---- Ray casting ---------------------------------------------------------

extern "C" KEL_API KelStatus kelrCastEye_32f(const float corner[3], const float columnStep[3],
                                             const float rowStep[3], int blockX, int blockY,
                                             int tileWidth, int tileHeight,
                                             float* const direction[3], int width, int height) {
    if (!direction) return KEL_STS_NULL_PTR;
    // Wrapping products: only their low 32 bits are meaningful.
    const float x0 = float(int(unsigned(blockX) * unsigned(tileWidth)));
    const float y0 = float(int(unsigned(blockY) * unsigned(tileHeight)));
    if (wholeGroups(width)) {
        if (allAligned(direction))
            return ownCastEye4al_w7(corner, columnStep, rowStep, x0, y0, direction, width, height);
        return ownCastEye4_w7(corner, columnStep, rowStep, x0, y0, direction, width, height);
    }
    for (int r = 0; r < height; ++r) {
        const float v = y0 + float(r);
        for (int c = 0; c < width; ++c) {
            const float u = x0 + float(c);
            const int i = r * width + c;
            for (int k = 0; k < 3; ++k)
                direction[k][i] = (rowStep[k] * v + corner[k]) + columnStep[k] * u;
        }
    }
    return KEL_STS_OK;
}

extern "C" KEL_API KelStatus kelrCastShadowSO_32f(const float lightPos[3], const float* pFacing,
                                                  const float* const normal[3],
                                                  const float* const point[3], int* pMask,
                                                  float* pCosine, float* const direction[3],
                                                  int count) {
    if (!pFacing || !normal || !point || !pMask || !direction || !pCosine) return KEL_STS_NULL_PTR;
    if (wholeGroups(count)) {
        if (allAligned(direction, normal, point, pFacing, pMask, pCosine))
            return ownCastShadowSOal_32f(lightPos, pFacing, normal, point, pMask, pCosine,
                                         direction, count);
        return ownCastShadowSO_32f(lightPos, pFacing, normal, point, pMask, pCosine, direction,
                                   count);
    }
    for (int i = 0; i < count; ++i) {
        pCosine[i] = 0.0f;
        zeroTriple(direction, i);
        if (pMask[i] < 0) continue;
        float toPoint[3];
        for (int k = 0; k < 3; ++k) toPoint[k] = point[k][i] - lightPos[k];
        const float d =
            toPoint[0] * normal[0][i] + toPoint[1] * normal[1][i] + toPoint[2] * normal[2][i];
        // Light and viewer must see the same side of the surface.
        if (pFacing[i] * d > 0.0f) {
            pCosine[i] = __builtin_fabsf(d);
            for (int k = 0; k < 3; ++k) direction[k][i] = toPoint[k];
        } else {
            pMask[i] = -1;
        }
    }
    return KEL_STS_OK;
}

extern "C" KEL_API KelStatus kelrCastReflectionRay_32f(const float* const incident[3],
                                                       const int* pMask,
                                                       const float* const normal[3],
                                                       float* const reflected[3], int count) {
    if (!incident || !pMask || !normal || !reflected) return KEL_STS_NULL_PTR;
    if (wholeGroups(count)) {
        if (allAligned(incident, normal, reflected, pMask))
            return ownCastReflectionRayal_32f(incident, pMask, normal, reflected, count);
        return ownCastReflectionRay_32f(incident, pMask, normal, reflected, count);
    }
    return forEachRay(
        pMask, count,
        [&](int i) {
            const float s = (incident[0][i] * normal[0][i] + incident[1][i] * normal[1][i]) +
                            incident[2][i] * normal[2][i];
            for (int k = 0; k < 3; ++k) reflected[k][i] = incident[k][i] - normal[k][i] * (s + s);
        },
        [&](int i) { zeroTriple(reflected, i); });
}

// ---- Hit points ----------------------------------------------------------

namespace {

// One rounding only, on the store: the whole expression is evaluated in
// extended precision.
template <typename Origin>
KelStatus hitPointsScalar(Origin origin, const float* const direction[3], const float* pDistance,
                          const int* pMask, float* const hitPoint[3], int count, float scale) {
    return forEachRay(
        pMask, count,
        [&](int i) {
            for (int k = 0; k < 3; ++k) {
                const long double p = ((long double)direction[k][i] * scale) * pDistance[i] +
                                      (long double)origin(k, i);
                hitPoint[k][i] = float(p);
            }
        },
        [&](int i) { zeroTriple(hitPoint, i); });
}

}  // namespace

extern "C" KEL_API KelStatus kelrHitPoint3DEpsS0_32f_M(const float origin[3],
                                                       const float* const direction[3],
                                                       const float* pDistance, const int* pMask,
                                                       float* const hitPoint[3], int count,
                                                       float scale) {
    if (!pDistance || !pMask || !direction || !hitPoint) return KEL_STS_NULL_PTR;
    if (wholeGroups(count) && allAligned(pDistance, pMask, direction, hitPoint))
        return ownHitPoint3DEpsS0_32f_M(origin, direction, pDistance, pMask, hitPoint, count,
                                        scale);
    return hitPointsScalar([&](int k, int) { return origin[k]; }, direction, pDistance, pMask,
                           hitPoint, count, scale);
}

extern "C" KEL_API KelStatus kelrHitPoint3DEpsM0_32f_M(const float* const origin[3],
                                                       const float* const direction[3],
                                                       const float* pDistance, const int* pMask,
                                                       float* const hitPoint[3], int count,
                                                       float scale) {
    if (!pDistance || !pMask || !direction || !hitPoint || !origin) return KEL_STS_NULL_PTR;
    if (wholeGroups(count) && allAligned(pDistance, pMask, direction, hitPoint, origin))
        return ownHitPoint3DEpsM0_32f_M(origin, direction, pDistance, pMask, hitPoint, count,
                                        scale);
    return hitPointsScalar([&](int k, int i) { return origin[k][i]; }, direction, pDistance, pMask,
                           hitPoint, count, scale);
}

// ---- Surface normals -----------------------------------------------------

extern "C" KEL_API KelStatus kelrSurfFlatNormal_32f(const float* pTriangleNormals,
                                                    const int* pHitTriangle, float* const normal[3],
                                                    int count) {
    if (!pTriangleNormals || !pHitTriangle) return KEL_STS_NULL_PTR;
    // The output triple is not checked, so it is not looked at when there
    // is nothing to write.
    if (count < 1) return KEL_STS_OK;
    if (wholeGroups(count) && allAligned(pTriangleNormals, pHitTriangle, normal))
        return ownSurfFlatNormal_32f(pTriangleNormals, pHitTriangle, normal, count);
    return forEachRay(
        pHitTriangle, count,
        [&](int i) {
            const float* n = pTriangleNormals + 3 * pHitTriangle[i];
            for (int k = 0; k < 3; ++k) normal[k][i] = n[k];
        },
        [&](int i) { zeroTriple(normal, i); });
}

extern "C" KEL_API KelStatus kelrSurfSmoothNormal_32f(
    const float* pVertexNormals, const int* pTriangleIndices, const int* pHitTriangle,
    const float* const barycentric[2], float* const normal[3], int count, int stride) {
    if (!pVertexNormals || !pTriangleIndices || !pHitTriangle || !barycentric || !normal)
        return KEL_STS_NULL_PTR;
    if (wholeGroups(count) && allAligned(pVertexNormals, pTriangleIndices, pHitTriangle, normal) &&
        kel::planesAligned16(barycentric, 2))
        return ownSurfSmoothNormal_32f(pVertexNormals, pTriangleIndices, pHitTriangle, barycentric,
                                       normal, count, stride);
    return forEachRay(
        pHitTriangle, count,
        [&](int i) {
            const int* tri = pTriangleIndices + pHitTriangle[i] * stride;
            const float* n0 = pVertexNormals + 3 * tri[0];
            const float* n1 = pVertexNormals + 3 * tri[1];
            const float* n2 = pVertexNormals + 3 * tri[2];
            const float u = barycentric[0][i], v = barycentric[1][i];
            const float w = (1.0f - u) - v;
            float n[3];
            for (int k = 0; k < 3; ++k) n[k] = (n0[k] * u + n1[k] * v) + n2[k] * w;
            const float s = (n[2] * n[2] + n[1] * n[1]) + n[0] * n[0];
            // Too short to give a trustworthy direction (or NaN): no normal.
            if (!(s >= kel::kShortNormalSquare)) {
                zeroTriple(normal, i);
                return;
            }
            const float length = __builtin_sqrtf(s);
            for (int k = 0; k < 3; ++k) normal[k][i] = n[k] / length;
        },
        [&](int i) { zeroTriple(normal, i); });
}

// ---- Shading arithmetic --------------------------------------------------

extern "C" KEL_API KelStatus kelrDot_32f_P3C1M(const float* const a[3], const float* const b[3],
                                               const int* pMask, float* pDot, int count) {
    if (!a || !b || !pMask || !pDot) return KEL_STS_NULL_PTR;
    if (wholeGroups(count) && allAligned(b, pMask, pDot, a))
        return ownDot_32f_P3C1M(a, b, pMask, pDot, count);
    return forEachRay(
        pMask, count,
        [&](int i) { pDot[i] = (a[0][i] * b[0][i] + a[1][i] * b[1][i]) + a[2][i] * b[2][i]; },
        [&](int i) { pDot[i] = 0.0f; });
}

extern "C" KEL_API KelStatus kelrDotChangeNorm_32f_IM(const float* const direction[3],
                                                      const int* pMask, float* const normal[3],
                                                      float* pDot, int count) {
    if (!direction || !pMask || !normal || !pDot) return KEL_STS_NULL_PTR;
    if (wholeGroups(count) && allAligned(direction, pMask, pDot, normal))
        return ownDotChangeNorm_32f_IM(direction, pMask, normal, pDot, count);
    return forEachRay(
        pMask, count,
        [&](int i) {
            const float d = (direction[0][i] * normal[0][i] + direction[1][i] * normal[1][i]) +
                            direction[2][i] * normal[2][i];
            if (d > 0.0f) {
                // Turn the normal to face against the ray.
                for (int k = 0; k < 3; ++k) normal[k][i] *= -1.0f;
                pDot[i] = -d;
            } else {
                pDot[i] = d;
            }
        },
        [&](int i) { pDot[i] = 0.0f; });
}

extern "C" KEL_API KelStatus kelrDistAttenuationSO_32f_M(const float origin[3],
                                                         const float* const point[3],
                                                         const int* pMask, float* pDistance,
                                                         int count) {
    if (!point || !pMask || !pDistance) return KEL_STS_NULL_PTR;
    if (wholeGroups(count) && allAligned(pDistance, pMask, point))
        return ownDistAttenuationSO_32f_M(origin, point, pMask, pDistance, count);
    return forEachRay(
        pMask, count,
        [&](int i) {
            const float dx = point[0][i] - origin[0];
            const float dy = point[1][i] - origin[1];
            const float dz = point[2][i] - origin[2];
            const float q = (dx * dx + dy * dy) + dz * dz;
            // Never below one unit, so dividing by it never amplifies light
            // (and a NaN distance is harmless too).
            pDistance[i] = q >= 1.0f ? __builtin_sqrtf(q) : 1.0f;
        },
        [&](int i) { pDistance[i] = 1.0f; });
}

extern "C" KEL_API KelStatus kelrMul_32f_C1P3IM(const float* pFactor, const int* pMask,
                                                float* const srcDst[3], int count) {
    if (!pFactor || !pMask || !srcDst) return KEL_STS_NULL_PTR;
    if (wholeGroups(count) && allAligned(pFactor, pMask, srcDst))
        return ownMul_32f_C1P3IM(pFactor, pMask, srcDst, count);
    return forEachRay(
        pMask, count,
        [&](int i) {
            for (int k = 0; k < 3; ++k) srcDst[k][i] *= pFactor[i];
        },
        [&](int i) { zeroTriple(srcDst, i); });
}

extern "C" KEL_API KelStatus kelrMul_32f_C1IM(const float* pFactor, const int* pMask,
                                              float* pSrcDst, int count) {
    return forEachRay(
        pMask, count, [&](int i) { pSrcDst[i] *= pFactor[i]; }, [&](int i) { pSrcDst[i] = 0.0f; });
}

extern "C" KEL_API KelStatus kelrDiv_32f_C1IM(const float* pDivisor, const int* pMask,
                                              float* pSrcDst, int count) {
    return forEachRay(
        pMask, count, [&](int i) { pSrcDst[i] /= pDivisor[i]; }, [&](int i) { pSrcDst[i] = 0.0f; });
}

extern "C" KEL_API KelStatus kelrAddMulMul_32f_AC1P3IM(const float coefficient[3],
                                                       const float* pFactor,
                                                       const float* const src[3], const int* pMask,
                                                       float* const acc[3], int count) {
    if (!pFactor || !src || !pMask || !acc) return KEL_STS_NULL_PTR;
    // src is read with unaligned loads by the worker, so it does not take part.
    if (wholeGroups(count) && allAligned(pFactor, pMask, acc))
        return ownAddMulMul_32f_AC1P3IM(coefficient, pFactor, src, pMask, acc, count);
    return forEachRay(
        pMask, count,
        [&](int i) {
            for (int k = 0; k < 3; ++k) {
                const long double term =
                    ((long double)src[k][i] * coefficient[k]) * (long double)pFactor[i];
                acc[k][i] = float((long double)acc[k][i] + term);
            }
        },
        [](int) {});
}
