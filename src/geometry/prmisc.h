// Four-ray SSE2 workers behind the geometry and shading primitives. The
// exported functions validate the arguments and pick a worker only when the
// ray count is a multiple of 4 and the planes it touches are suitably
// aligned; the workers themselves check nothing and return KEL_STS_OK.
//
// The "al" workers require every plane they touch to be 16-byte aligned; the
// others accept any alignment. Workers without such a pair require alignment
// of all their arrays except where noted.
#ifndef KEL_GEOMETRY_PRMISC_H
#define KEL_GEOMETRY_PRMISC_H

#include "core/kel_private.h"

namespace kel {

// 2^-23. The scalar smooth-normal loop leaves a normal whose squared length
// is below it at zero; the worker puts it in place of a squared length of
// exactly zero, so that its reciprocal estimate stays finite.
constexpr float kShortNormalSquare = 1.1920929e-07f;

}  // namespace kel

extern "C" {

// Eye-ray directions of a width x height block whose first pixel is column
// x0, row y0 of the image; width must be a multiple of 4.
KEL_API KelStatus ownCastEye4_w7(const float corner[3], const float columnStep[3],
                                 const float rowStep[3], float x0, float y0,
                                 float* const direction[3], int width, int height);
KEL_API KelStatus ownCastEye4al_w7(const float corner[3], const float columnStep[3],
                                   const float rowStep[3], float x0, float y0,
                                   float* const direction[3], int width, int height);

KEL_API KelStatus ownCastShadowSO_32f(const float lightPos[3], const float* pFacing,
                                      const float* const normal[3], const float* const point[3],
                                      int* pMask, float* pCosine, float* const direction[3],
                                      int count);
KEL_API KelStatus ownCastShadowSOal_32f(const float lightPos[3], const float* pFacing,
                                        const float* const normal[3], const float* const point[3],
                                        int* pMask, float* pCosine, float* const direction[3],
                                        int count);

KEL_API KelStatus ownCastReflectionRay_32f(const float* const incident[3], const int* pMask,
                                           const float* const normal[3], float* const reflected[3],
                                           int count);
KEL_API KelStatus ownCastReflectionRayal_32f(const float* const incident[3], const int* pMask,
                                             const float* const normal[3],
                                             float* const reflected[3], int count);

KEL_API KelStatus ownHitPoint3DEpsS0_32f_M(const float origin[3], const float* const direction[3],
                                           const float* pDistance, const int* pMask,
                                           float* const hitPoint[3], int count, float scale);
KEL_API KelStatus ownHitPoint3DEpsM0_32f_M(const float* const origin[3],
                                           const float* const direction[3], const float* pDistance,
                                           const int* pMask, float* const hitPoint[3], int count,
                                           float scale);

KEL_API KelStatus ownSurfFlatNormal_32f(const float* pTriangleNormals, const int* pHitTriangle,
                                        float* const normal[3], int count);
KEL_API KelStatus ownSurfSmoothNormal_32f(const float* pVertexNormals, const int* pTriangleIndices,
                                          const int* pHitTriangle,
                                          const float* const barycentric[2], float* const normal[3],
                                          int count, int stride);

KEL_API KelStatus ownDot_32f_P3C1M(const float* const a[3], const float* const b[3],
                                   const int* pMask, float* pDot, int count);
KEL_API KelStatus ownDotChangeNorm_32f_IM(const float* const direction[3], const int* pMask,
                                          float* const normal[3], float* pDot, int count);
KEL_API KelStatus ownDistAttenuationSO_32f_M(const float origin[3], const float* const point[3],
                                             const int* pMask, float* pDistance, int count);
KEL_API KelStatus ownMul_32f_C1P3IM(const float* pFactor, const int* pMask, float* const srcDst[3],
                                    int count);
// src may be unaligned; factor, mask and acc must be aligned.
KEL_API KelStatus ownAddMulMul_32f_AC1P3IM(const float coefficient[3], const float* pFactor,
                                           const float* const src[3], const int* pMask,
                                           float* const acc[3], int count);
}

#endif  // KEL_GEOMETRY_PRMISC_H
