/* kelrt7: ray-tracing primitives (libkelrt7.so.5.2).
 *
 * Every function takes plain pointers to caller-owned arrays and returns a
 * KelStatus (0 on success, a negative code on failure; there are no
 * warnings). Per-ray data is stored as planes: a "plane triple" is an array of
 * three pointers to float arrays holding the x, y and z components, and ray i
 * uses element i of each. A ray mask holds one int per ray; the ray is active
 * when its entry is >= 0.
 */
#ifndef KELR_H
#define KELR_H

#include <stddef.h>
#include <stdint.h>

#if defined(KEL_BUILDING_LIBRARY)
#define KEL_API __attribute__((visibility("default")))
#else
#define KEL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes ------------------------------------------------------ */

typedef int32_t KelStatus;

enum {
    KEL_STS_OK = 0,
    KEL_STS_INTERNAL = -2,     /* PSAH build: split counts did not match       *
                                * (NaN or infinite coordinates can cause it)  */
    KEL_STS_NO_MEM = -4,       /* allocation failed, a fixed area is full,     *
                                * or a size does not fit its type             */
    KEL_STS_BAD_ARG = -5,      /* unknown enumerated value                    */
    KEL_STS_SIZE = -6,         /* length or count out of range                */
    KEL_STS_NULL_PTR = -8,     /* a required pointer is null                  */
    KEL_STS_OVERFLOW = -9,     /* PSAH build ran out of its memory budget     */
    KEL_STS_OUT_OF_RANGE = -11 /* numeric parameter outside its interval      */
};

/* ---- Version ----------------------------------------------------------- */

typedef struct KelLibraryVersion {
    int32_t versionMajor;
    int32_t versionMinor;
    int32_t buildSeries;
    int32_t buildNumber;
    char cpuCode[4];
    const char* libraryName;
    const char* versionText;
    const char* buildDateText;
} KelLibraryVersion;

KEL_API const KelLibraryVersion* kelrGetLibVersion(void);

/* ---- Memory ------------------------------------------------------------ */

/* Replaceable allocation hooks. Set them before the first call into the
 * library; memory obtained under one pair must be released under the same. */
KEL_API extern void* (*i_malloc)(size_t size);
KEL_API extern void* (*i_calloc)(size_t count, size_t size);
KEL_API extern void* (*i_realloc)(void* block, size_t size);
KEL_API extern void (*i_free)(void* block);
KEL_API extern int32_t i_version;
KEL_API extern int32_t i_min_version;

/* 32-byte-aligned blocks of len elements; null when len < 1 or on failure. */
KEL_API int32_t* kelsMalloc_32s(int len);
KEL_API int64_t* kelsMalloc_64s(int len);
KEL_API void kelsFree(void* block);

/* ---- Vector copy, zero and sort ---------------------------------------- */

/* Source and destination must not overlap. */
KEL_API KelStatus kelsCopy_32f(const float* pSrc, float* pDst, int len);
KEL_API KelStatus kelsCopy_32s(const int32_t* pSrc, int32_t* pDst, int len);
KEL_API KelStatus kelsZero_32s(int32_t* pDst, int len);
KEL_API KelStatus kelsSortAscend_32f_I(float* pSrcDst, int len);

/* ---- Geometry ---------------------------------------------------------- */

/* Vertices: 3 floats each. Triangles: 4 ints each (3 vertex indices and a
 * word that is never read). Box: min x, y, z, max x, y, z. */
KEL_API KelStatus kelrSetBoundBox_32f(const float* pVertices, int count, float* pBox);
KEL_API KelStatus kelrTriangleNormal_32f(const float* pVertices, const int* pTriangles,
                                         float* pNormals, int count);

/* ---- Ray casting ------------------------------------------------------- */

KEL_API KelStatus kelrCastEye_32f(const float corner[3], const float columnStep[3],
                                  const float rowStep[3], int blockX, int blockY, int tileWidth,
                                  int tileHeight, float* const direction[3], int width, int height);
KEL_API KelStatus kelrCastShadowSO_32f(const float lightPos[3], const float* pFacing,
                                       const float* const normal[3], const float* const point[3],
                                       int* pMask, float* pCosine, float* const direction[3],
                                       int count);
KEL_API KelStatus kelrCastReflectionRay_32f(const float* const incident[3], const int* pMask,
                                            const float* const normal[3], float* const reflected[3],
                                            int count);

/* ---- Hit points and surface normals ------------------------------------ */

KEL_API KelStatus kelrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const direction[3],
                                            const float* pDistance, const int* pMask,
                                            float* const hitPoint[3], int count, float scale);
KEL_API KelStatus kelrHitPoint3DEpsM0_32f_M(const float* const origin[3],
                                            const float* const direction[3], const float* pDistance,
                                            const int* pMask, float* const hitPoint[3], int count,
                                            float scale);
KEL_API KelStatus kelrSurfFlatNormal_32f(const float* pTriangleNormals, const int* pHitTriangle,
                                         float* const normal[3], int count);
KEL_API KelStatus kelrSurfSmoothNormal_32f(const float* pVertexNormals, const int* pTriangleIndices,
                                           const int* pHitTriangle,
                                           const float* const barycentric[2],
                                           float* const normal[3], int count, int stride);

/* ---- Shading arithmetic ------------------------------------------------ */

KEL_API KelStatus kelrDot_32f_P3C1M(const float* const a[3], const float* const b[3],
                                    const int* pMask, float* pDot, int count);
KEL_API KelStatus kelrDotChangeNorm_32f_IM(const float* const direction[3], const int* pMask,
                                           float* const normal[3], float* pDot, int count);
KEL_API KelStatus kelrDistAttenuationSO_32f_M(const float origin[3], const float* const point[3],
                                              const int* pMask, float* pDistance, int count);
KEL_API KelStatus kelrMul_32f_C1P3IM(const float* pFactor, const int* pMask, float* const srcDst[3],
                                     int count);
KEL_API KelStatus kelrMul_32f_C1IM(const float* pFactor, const int* pMask, float* pSrcDst,
                                   int count);
KEL_API KelStatus kelrDiv_32f_C1IM(const float* pDivisor, const int* pMask, float* pSrcDst,
                                   int count);
KEL_API KelStatus kelrAddMulMul_32f_AC1P3IM(const float coefficient[3], const float* pFactor,
                                            const float* const src[3], const int* pMask,
                                            float* const acc[3], int count);

/* ---- KD-tree ----------------------------------------------------------- */

#define KDT_BUILD_SIMPLE 0x499D3DC2u
#define KDT_BUILD_PSAH 0x2D07705Bu

typedef struct KDTreeBuildContext {
    uint32_t algorithm;   /* KDT_BUILD_SIMPLE or KDT_BUILD_PSAH               */
    int32_t maxDepth;     /* 0..50                                             */
    float psahWeight;     /* 0..1, PSAH only                                   */
    uint32_t memoryMiB;   /* working-memory budget, PSAH only                  */
    const float* clipBox; /* optional build box (6 floats), PSAH only; null: all vertices */
} KDTreeBuildContext;

/* Two words per node. link >= 0: inner node, split axis in bits 0-1 and the
 * byte distance to the pair of children in the rest (children at
 * node + (link & ~7)); link < 0: leaf whose triangle list starts at
 * node - (link & ~3). */
typedef struct KDTreeNode {
    int32_t link;
    union {
        float split;   /* inner node: split position on its axis */
        int32_t count; /* leaf: number of triangles              */
    } data;
} KDTreeNode;

KEL_API KelStatus kelrKDTreeBuildAlloc(KDTreeNode** ppTree, const float* pVertices,
                                       const int* pTriangles, int vertexCount, int triangleCount,
                                       int* pTreeSize, const KDTreeBuildContext* pContext);
KEL_API void kelrKDTreeFree(KDTreeNode* pTree);

/* ---- Intersection ------------------------------------------------------ */

/* Per-triangle record, 48 bytes. Projected onto the two axes (u, v) other
 * than the dominant normal axis k; see kelrTriangleAccelInit. */
typedef struct TriangleAccel {
    uint32_t axes; /* k << 4 | u << 2 | v, bit 31 = flat; 0 for a degenerate triangle */
    float nu;      /* N[u] / N[k]   */
    float ck;      /* C[k]          */
    float nv;      /* N[v] / N[k]   */
    float cu;      /* C[u]          */
    float cv;      /* C[v]          */
    float e2u;     /* e2[u] / D     */
    float e2v;     /* e2[v] / D     */
    float e1u;     /* e1[u] / D     */
    float e1v;     /* e1[v] / D     */
    int32_t triangle;
    int32_t reserved; /* never written */
} TriangleAccel;

typedef struct IntersectContext {
    const float* sceneBox;
    const TriangleAccel* triangleAccel;
    const KDTreeNode* tree;
} IntersectContext;

KEL_API KelStatus kelrTriangleAccelGetSize(int* pSize);
KEL_API KelStatus kelrTriangleAccelInit(TriangleAccel* pAccel, const float* pVertices,
                                        const int* pTriangles, int count);

/* Nearest hit for rays sharing one origin. distance: in = far limit, out =
 * nearest hit. hit: barycentric u, v planes. triangleId: hit or -1. */
KEL_API KelStatus kelrIntersectEyeSO_32f(const float origin[3], const float* const direction[3],
                                         float* pDistance, float* const hit[2], int* pTriangleId,
                                         const IntersectContext* pContext, int width, int height);
/* Nearest hit for rays with one origin each. */
KEL_API KelStatus kelrIntersectMO_32f(const float* const origin[3], const float* const direction[3],
                                      float* pDistance, float* const hit[2], int* pTriangleId,
                                      const IntersectContext* pContext, int width, int height);
/* Any occluder on the segments origin + t * direction, 0 < t < 1. */
KEL_API KelStatus kelrIntersectAnySO_32f(const float origin[3], const float* const direction[3],
                                         int* pTriangleId, int* pMask, int width, int height,
                                         const IntersectContext* pContext);

#ifdef __cplusplus
}
#endif

#endif /* KELR_H */
