/**
 * @file kelr.h
 * @brief kelrt7: ray-tracing primitives (libkelrt7.so.5.2).
 *
 * Every function takes plain pointers to caller-owned arrays and returns a
 * KelStatus (0 on success, a negative code on failure; there are no
 * warnings). Per-ray data is stored as planes: a "plane triple" is an array of
 * three pointers to float arrays holding the x, y and z components, and ray i
 * uses element i of each. A ray mask holds one int per ray; the ray is active
 * when its entry is >= 0.
 *
 * Conventions that hold for every function below unless its own comment says
 * otherwise (the @ref concepts page explains them at length):
 * - Argument checks run pointers first (#KEL_STS_NULL_PTR), then counts
 *   (#KEL_STS_SIZE), then values (#KEL_STS_BAD_ARG, #KEL_STS_OUT_OF_RANGE);
 *   the first failing check decides and nothing is written. Each function
 *   names the pointers it tests; the others are not tested and must be valid.
 * - A count of zero or less given to a per-ray function is no error: it
 *   returns #KEL_STS_OK and writes nothing.
 * - The library keeps no state between calls, starts no thread (except inside
 *   a PSAH build) and takes no lock: every function may run in several
 *   threads at once on distinct output arrays. Only the allocation hooks are
 *   global; set them before the first call.
 * - Per-ray functions pick a four-ray SIMD path when the count (or block
 *   width and height) is a multiple of 4 and the arrays named in their comment
 *   are 16-byte aligned, and a scalar loop otherwise. Both give the same
 *   results up to the rounding noted per function.
 * - Nothing is ever printed or logged.
 */
#ifndef KELR_H
#define KELR_H

#include <stddef.h>
#include <stdint.h>

#if defined(KEL_BUILDING_LIBRARY)
#define KEL_API __attribute__((visibility("default")))
#else
/** Marks the library's exported names; empty for callers. */
#define KEL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes ------------------------------------------------------ */

/**
 * @defgroup status Status codes
 * @brief The result of every function that reports one.
 * @{
 */

/** Signed 32-bit result: 0 is success, every error is negative. */
typedef int32_t KelStatus;

/** The status codes. No function returns a positive value. */
enum {
    /** Success. */
    KEL_STS_OK = 0,
    /** A PSAH build found its own bookkeeping inconsistent (the patches
     * distributed to a node's children did not match the counts its split
     * search predicted). Vertex coordinates that are not numbers (NaN) or
     * infinite can cause it; no tree is returned. */
    KEL_STS_INTERNAL = -2,
    /** Memory could not be obtained (an allocation hook returned null, or a
     * size would not fit its type), a PSAH budget is below what the build
     * sets aside before it starts, or the scalar ray traversal needed more
     * than 50 deferred subtrees for one ray. */
    KEL_STS_NO_MEM = -4,
    /** An enumerated argument has an unknown value (the build algorithm). */
    KEL_STS_BAD_ARG = -5,
    /** A length or count is out of range: negative, or zero where at least
     * one element is needed. */
    KEL_STS_SIZE = -6,
    /** A required pointer is null. Always the first check. */
    KEL_STS_NULL_PTR = -8,
    /** A PSAH build spent its memory budget while it was running; a larger
     * KDTreeBuildContext::memoryMiB lets it finish. */
    KEL_STS_OVERFLOW = -9,
    /** A numeric parameter lies outside its interval (tree depth, PSAH
     * weight). */
    KEL_STS_OUT_OF_RANGE = -11
};

/** @} */

/* ---- Version ----------------------------------------------------------- */

/**
 * @defgroup version Version
 * @brief Which library is loaded.
 * @{
 */

/** The library's static version record; see kelrGetLibVersion(). */
typedef struct KelLibraryVersion {
    int32_t versionMajor;      /**< Major version: 5. */
    int32_t versionMinor;      /**< Minor version: 2. */
    int32_t buildSeries;       /**< Build series of this release: 108. */
    int32_t buildNumber;       /**< Build number within the series: 270. */
    char cpuCode[4];           /**< Processor path: "t7" and two zero bytes. */
    const char* libraryName;   /**< Shared-object name, "libkelrt7.so.5.2". */
    const char* versionText;   /**< "5.2". */
    const char* buildDateText; /**< Release date text, "Jul 11 2007". */
} KelLibraryVersion;

/**
 * The version record of libkelrt7.
 *
 * @return Pointer to a static, read-only record; never null, the same record
 *         at every call. Safe from any thread.
 */
KEL_API const KelLibraryVersion* kelrGetLibVersion(void);

/** @} */

/* ---- Memory ------------------------------------------------------------ */

/**
 * @defgroup memory Memory
 * @brief Allocation hooks and the 32-byte-aligned allocator.
 *
 * Every block the library allocates, the kd-tree block included, comes from
 * kelsMalloc_32s() or kelsMalloc_64s() and goes back through kelsFree(),
 * which call the hooks #i_malloc and #i_free.
 * @{
 */

/** Allocation hook, initially the C library's malloc. The library reads it
 * anew at every allocation. Set it before the first call into the library;
 * changing it while other threads allocate is the application's affair.
 * Memory obtained under one pair of hooks must be released under the same. */
KEL_API extern void* (*i_malloc)(size_t size);
/** Hook kept for the family's other libraries, initially calloc; this library
 * never calls it. */
KEL_API extern void* (*i_calloc)(size_t count, size_t size);
/** Hook kept for the family's other libraries, initially realloc; this
 * library never calls it. */
KEL_API extern void* (*i_realloc)(void* block, size_t size);
/** Release hook, initially the C library's free; receives exactly the
 * pointers that #i_malloc returned. Same rules as #i_malloc. */
KEL_API extern void (*i_free)(void* block);
/** Version word of the hook module: 1. Not used by the library. */
KEL_API extern int32_t i_version;
/** Lowest hook-module version accepted: 0. Not used by the library. */
KEL_API extern int32_t i_min_version;

/**
 * Allocates a 32-byte-aligned block of @p len 32-bit elements.
 *
 * The block is not cleared. The raw address from #i_malloc is kept in the
 * pointer-size word just before the block; no other header exists.
 * Thread-safe as far as the installed hook is.
 *
 * @param len Number of 32-bit elements (4 bytes each).
 * @return The block, to be released with kelsFree(); null when @p len < 1
 *         (the hook is then not called), when the byte count would not fit
 *         in a size_t (only possible on i386), or when #i_malloc returns null.
 */
KEL_API int32_t* kelsMalloc_32s(int len);
/**
 * Allocates a 32-byte-aligned block of @p len 64-bit elements; as
 * kelsMalloc_32s() with 8 bytes per element.
 *
 * @param len Number of 64-bit elements (8 bytes each).
 * @return The block, or null as for kelsMalloc_32s().
 */
KEL_API int64_t* kelsMalloc_64s(int len);
/**
 * Releases a block from kelsMalloc_32s() or kelsMalloc_64s() through #i_free.
 *
 * @param block The block, or null (then nothing happens). Any other pointer
 *        is undefined behaviour.
 */
KEL_API void kelsFree(void* block);

/** @} */

/* ---- Vector copy, zero and sort ---------------------------------------- */

/**
 * @defgroup vector Vector copy, zero and sort
 * @brief Utilities the builders use, exported for callers.
 *
 * Thread safety: no state is kept between calls, so these functions may run
 * at once in any number of threads as long as their output arrays differ.
 * @{
 */

/**
 * Copies @p len floats. Source and destination must not overlap (the copy
 * direction is chosen for speed). Blocks much larger than the last-level
 * cache are written with cache-bypassing stores; the result is the same.
 *
 * @param pSrc Source, @p len floats, any alignment.
 * @param pDst Destination, @p len floats, any alignment.
 * @param len Number of elements.
 * @retval KEL_STS_OK Copied.
 * @retval KEL_STS_NULL_PTR @p pSrc or @p pDst is null (even when @p len < 1).
 * @retval KEL_STS_SIZE @p len < 1; nothing is copied.
 */
KEL_API KelStatus kelsCopy_32f(const float* pSrc, float* pDst, int len);
/**
 * Copies @p len 32-bit integers; as kelsCopy_32f().
 *
 * @param pSrc Source, @p len integers.
 * @param pDst Destination, @p len integers; must not overlap @p pSrc.
 * @param len Number of elements.
 * @retval KEL_STS_OK Copied.
 * @retval KEL_STS_NULL_PTR @p pSrc or @p pDst is null.
 * @retval KEL_STS_SIZE @p len < 1.
 */
KEL_API KelStatus kelsCopy_32s(const int32_t* pSrc, int32_t* pDst, int len);
/**
 * Sets @p len 32-bit integers to zero.
 *
 * @param pDst Destination, @p len integers, any alignment.
 * @param len Number of elements.
 * @retval KEL_STS_OK Zeroed.
 * @retval KEL_STS_NULL_PTR @p pDst is null.
 * @retval KEL_STS_SIZE @p len < 1.
 */
KEL_API KelStatus kelsZero_32s(int32_t* pDst, int len);
/**
 * Sorts floats ascending in place (quicksort finished by selection sort; no
 * allocation, bounded stack use). Not stable; -0.0 and +0.0 compare equal.
 * NaNs end up in an unspecified order, but the sort always ends.
 *
 * @param pSrcDst The array, @p len floats.
 * @param len Number of elements; 1 returns at once.
 * @retval KEL_STS_OK Sorted.
 * @retval KEL_STS_NULL_PTR @p pSrcDst is null.
 * @retval KEL_STS_SIZE @p len < 1.
 */
KEL_API KelStatus kelsSortAscend_32f_I(float* pSrcDst, int len);

/** @} */

/* ---- Geometry ---------------------------------------------------------- */

/**
 * @defgroup geometry Scene set-up
 * @brief The scene box and per-triangle normals.
 *
 * Thread safety: no state is kept between calls, so these functions may run
 * at once in any number of threads as long as their output arrays differ.
 *
 * A mesh is a vertex array (three floats x, y, z per vertex, 12 bytes) and a
 * triangle array (four ints per triangle, 16 bytes: three vertex numbers and a
 * word that is never read). A triangle's number is its position in the
 * triangle array. Vertex numbers are never range-checked.
 * @{
 */

/**
 * Computes the scene box of a vertex array, slightly enlarged.
 *
 * The box is the componentwise minimum and maximum of the vertices, grown on
 * every side by 0.01 % of the largest coordinate magnitude of the box (at
 * least 1.2e-42): the margin is relative to the distance from the origin, not
 * to the box's extent. Hand the result to the intersection functions as
 * IntersectContext::sceneBox.
 *
 * @param pVertices @p count vertices, three floats each.
 * @param count Number of vertices. With 0 or less the box is still written,
 *        inverted (min about 3.4e38, max about -3.4e38).
 * @param pBox Six floats written: min x, y, z, max x, y, z. Not tested for
 *        null.
 * @retval KEL_STS_OK Box written.
 * @retval KEL_STS_NULL_PTR @p pVertices is null; the box is left untouched.
 */
KEL_API KelStatus kelrSetBoundBox_32f(const float* pVertices, int count, float* pBox);
/**
 * Computes one unit geometric normal per triangle.
 *
 * With P0, P1, P2 a triangle's vertices, the normal is (P0 - P2) x (P1 - P2),
 * computed in double precision and normalised: counter-clockwise P0, P1, P2
 * seen from the side it points to. A degenerate triangle (coincident or
 * collinear vertices) gets (0, 0, 0). The result feeds
 * kelrSurfFlatNormal_32f().
 *
 * @param pVertices Vertex array, three floats per vertex.
 * @param pTriangles @p count triangles, four ints each (the fourth is not read).
 * @param pNormals Written: three floats per triangle, x, y, z, in triangle order.
 * @param count Number of triangles; 0 or less writes nothing.
 * @retval KEL_STS_OK Always: no argument is checked.
 */
KEL_API KelStatus kelrTriangleNormal_32f(const float* pVertices, const int* pTriangles,
                                         float* pNormals, int count);

/** @} */

/* ---- Ray casting ------------------------------------------------------- */

/**
 * @defgroup casting Ray casting
 * @brief Eye, shadow and reflection rays for a block.
 *
 * Thread safety: no state is kept between calls, so these functions may run
 * at once in any number of threads as long as their output arrays differ.
 * @{
 */

/**
 * Writes the eye-ray directions of a block of pixels, row by row.
 *
 * The block's first pixel is column x0 = @p blockX × @p tileWidth and row
 * y0 = @p blockY × @p tileHeight of the image. The ray of block column c and
 * row r gets, per axis k, direction[k][r × width + c] = corner[k] +
 * rowStep[k] × (y0 + r) + columnStep[k] × (x0 + c). Directions are not
 * normalised. No origin is written: all eye rays start at the eye, which the
 * caller passes to kelrIntersectEyeSO_32f().
 *
 * Paths: when @p width is a multiple of 4 (0 included) a four-ray path runs,
 * which adds @p rowStep row after row instead of multiplying, so its results
 * may differ from the scalar loop in the last bit on large blocks.
 *
 * @param corner Direction from the eye to image pixel (0, 0).
 * @param columnStep Direction change from one column to the next.
 * @param rowStep Direction change from one row to the next.
 * @param blockX Tile column of the block.
 * @param blockY Tile row of the block.
 * @param tileWidth Width of a tile in pixels.
 * @param tileHeight Height of a tile in pixels.
 * @param direction Plane triple written: width × height floats per plane.
 *        The three plane pointers are not tested.
 * @param width Rays per block row.
 * @param height Rows; less than 1 writes nothing.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p direction is null (even when nothing would be
 *         written).
 */
KEL_API KelStatus kelrCastEye_32f(const float corner[3], const float columnStep[3],
                                  const float rowStep[3], int blockX, int blockY, int tileWidth,
                                  int tileHeight, float* const direction[3], int width, int height);
/**
 * Makes shadow rays from one light to each hit point and culls hit points
 * whose surface turns away from the light as the viewer sees it.
 *
 * For every ray the cosine and the three direction planes are first set to
 * 0. For an active ray, d = (P - L) · N; when facing[i] × d > 0 (light and
 * viewer on the same side of the surface) the ray gets direction P - L (from
 * the light to the point, not normalised, so the point lies at t = 1 and an
 * occluder strictly between 0 and 1) and cosine |d|. Otherwise its mask
 * entry becomes -1. Entries that are negative on entry stay negative; the
 * four-ray path may rewrite them as -1.
 *
 * Four-ray path: @p count a multiple of 4; it uses aligned loads when all
 * twelve arrays are 16-byte aligned and unaligned ones otherwise.
 *
 * @param lightPos Light position L, three floats. Not tested.
 * @param pFacing One float per ray: the dot product of the viewing ray with the
 *        normal, as written by kelrDotChangeNorm_32f_IM().
 * @param normal Plane triple: surface normal N per ray.
 * @param point Plane triple: hit point P per ray.
 * @param pMask One int per ray, read and written (see above).
 * @param pCosine Written: |N · (P - L)| per lit ray, 0 otherwise (unnormalised:
 *        divide by the distance from kelrDistAttenuationSO_32f_M()).
 * @param direction Plane triple written: P - L per lit ray, 0 otherwise.
 * @param count Number of rays.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p pFacing, @p normal, @p point, @p pMask,
 *         @p direction or @p pCosine is null (tested in that order).
 */
KEL_API KelStatus kelrCastShadowSO_32f(const float lightPos[3], const float* pFacing,
                                       const float* const normal[3], const float* const point[3],
                                       int* pMask, float* pCosine, float* const direction[3],
                                       int count);
/**
 * Mirrors incident directions about surface normals: R = D - 2 (D · N) N.
 *
 * The normal is used as given (it should be of unit length). Inactive rays
 * get (0, 0, 0). The mask is never written. Four-ray path: @p count a
 * multiple of 4 (aligned loads when all ten arrays are 16-byte aligned).
 *
 * @param incident Plane triple: incident direction D per ray.
 * @param pMask One int per ray; negative entries are inactive. Triangle ids
 *        from the intersection serve as a mask directly.
 * @param normal Plane triple: unit normal N per ray.
 * @param reflected Plane triple written: R per ray.
 * @param count Number of rays.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p incident, @p pMask, @p normal or @p reflected is
 *         null.
 */
KEL_API KelStatus kelrCastReflectionRay_32f(const float* const incident[3], const int* pMask,
                                            const float* const normal[3], float* const reflected[3],
                                            int count);

/** @} */

/* ---- Hit points and surface normals ------------------------------------ */

/**
 * @defgroup hits Hit points and surface normals
 * @brief Turning intersection results into points and normals.
 *
 * Thread safety: no state is kept between calls, so these functions may run
 * at once in any number of threads as long as their output arrays differ.
 * @{
 */

/**
 * Hit points of rays that share one origin: P = origin + (direction × scale)
 * × distance.
 *
 * A @p scale slightly below 1 (0.9999) puts the point just in front of the
 * surface, so that rays started from it do not hit the same surface at
 * distance 0. Inactive rays get (0, 0, 0); their distance is not read.
 * Four-ray path: @p count a multiple of 4 and @p pDistance, @p pMask and the
 * direction and hit-point planes 16-byte aligned; the two paths multiply in a
 * different order and may differ in the last bit.
 *
 * @param origin The shared origin, three floats. Not tested.
 * @param direction Plane triple: ray directions.
 * @param pDistance One float per ray: the hit distance from the intersection.
 * @param pMask One int per ray; rays that hit nothing must be negative here
 *        (the triangle ids from the intersection are such a mask).
 * @param hitPoint Plane triple written.
 * @param count Number of rays.
 * @param scale Factor on the distance.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p pDistance, @p pMask, @p direction or @p hitPoint
 *         is null.
 */
KEL_API KelStatus kelrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const direction[3],
                                            const float* pDistance, const int* pMask,
                                            float* const hitPoint[3], int count, float scale);
/**
 * Hit points of rays with one origin each; as kelrHitPoint3DEpsS0_32f_M()
 * with origin[k][i] in place of the shared origin. The four-ray path also
 * needs the origin planes 16-byte aligned.
 *
 * @param origin Plane triple: one origin per ray.
 * @param direction Plane triple: ray directions.
 * @param pDistance One float per ray: the hit distance.
 * @param pMask One int per ray; negative entries get (0, 0, 0).
 * @param hitPoint Plane triple written.
 * @param count Number of rays.
 * @param scale Factor on the distance.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p pDistance, @p pMask, @p direction, @p hitPoint
 *         or @p origin is null (tested in that order).
 */
KEL_API KelStatus kelrHitPoint3DEpsM0_32f_M(const float* const origin[3],
                                            const float* const direction[3], const float* pDistance,
                                            const int* pMask, float* const hitPoint[3], int count,
                                            float scale);
/**
 * Flat shading normals: each ray gets the normal of the triangle it hit.
 *
 * Rays whose triangle id is negative get (0, 0, 0). Ids are not
 * range-checked. Four-ray path: @p count a multiple of 4 and all five arrays
 * 16-byte aligned; both paths give the same values.
 *
 * @param pTriangleNormals Three floats per triangle, from
 *        kelrTriangleNormal_32f().
 * @param pHitTriangle One int per ray: triangle id, or negative for no hit.
 * @param normal Plane triple written. Not tested for null.
 * @param count Number of rays.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p pTriangleNormals or @p pHitTriangle is null.
 */
KEL_API KelStatus kelrSurfFlatNormal_32f(const float* pTriangleNormals, const int* pHitTriangle,
                                         float* const normal[3], int count);
/**
 * Smooth shading normals: vertex normals interpolated with the hit's
 * barycentric coordinates, then normalised.
 *
 * n = u N0 + v N1 + (1 - u - v) N2 for the hit triangle's vertices 0, 1, 2.
 * Rays whose triangle id is negative get (0, 0, 0). The scalar loop writes
 * (0, 0, 0) when |n|² < 2^-23 and divides by the square root otherwise; the
 * four-ray path (count a multiple of 4 and all eight arrays 16-byte aligned)
 * normalises every non-zero n with a refined reciprocal square root, accurate
 * to about 22 bits. Ids and vertex numbers are not range-checked.
 *
 * @param pVertexNormals Three floats per vertex, normally unit length.
 * @param pTriangleIndices Triangle records; triangle t's vertex numbers are at
 *        t × @p stride + 0, 1, 2.
 * @param pHitTriangle One int per ray: triangle id, or negative.
 * @param barycentric Two planes u and v, as written by the intersection.
 * @param normal Plane triple written.
 * @param count Number of rays.
 * @param stride Ints per triangle record: 4 for the library's triangle layout,
 *        3 for packed triples. Not checked.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p pVertexNormals, @p pTriangleIndices,
 *         @p pHitTriangle, @p barycentric or @p normal is null.
 */
KEL_API KelStatus kelrSurfSmoothNormal_32f(const float* pVertexNormals, const int* pTriangleIndices,
                                           const int* pHitTriangle,
                                           const float* const barycentric[2],
                                           float* const normal[3], int count, int stride);

/** @} */

/* ---- Shading arithmetic ------------------------------------------------ */

/**
 * @defgroup shading Shading arithmetic
 * @brief Masked per-ray arithmetic.
 *
 * Thread safety: no state is kept between calls, so these functions may run
 * at once in any number of threads as long as their output arrays differ.
 *
 * Each function reads a mask (one int per ray, active when >= 0) and writes
 * inactive rays as its comment says. The four-ray path runs when @c count is
 * a multiple of 4 and the arrays named are 16-byte aligned; its results agree
 * with the scalar loop up to the last bit of rounding.
 * @{
 */

/**
 * Per-ray dot product: dot[i] = (a.x b.x + a.y b.y) + a.z b.z; inactive rays
 * get 0. Four-ray path: every array 16-byte aligned.
 *
 * @param a Plane triple.
 * @param b Plane triple.
 * @param pMask One int per ray.
 * @param pDot Written: one float per ray.
 * @param count Number of rays.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p a, @p b, @p pMask or @p pDot is null.
 */
KEL_API KelStatus kelrDot_32f_P3C1M(const float* const a[3], const float* const b[3],
                                    const int* pMask, float* pDot, int count);
/**
 * Turns each active normal to face against the ray and writes D · N.
 *
 * With d = D · N: when d > 0 the normal is negated and dot = -d, otherwise
 * the normal is left and dot = d, so afterwards dot <= 0 for every active
 * ray. Inactive rays get dot 0 and keep their normal. Four-ray path: every
 * array 16-byte aligned.
 *
 * @param direction Plane triple: ray directions D.
 * @param pMask One int per ray.
 * @param normal Plane triple, read and written.
 * @param pDot Written: one float per ray.
 * @param count Number of rays.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p direction, @p pMask, @p normal or @p pDot is
 *         null.
 */
KEL_API KelStatus kelrDotChangeNorm_32f_IM(const float* const direction[3], const int* pMask,
                                           float* const normal[3], float* pDot, int count);
/**
 * Distance from one point (a light) to each point, clamped to at least 1.
 *
 * distance = |P - origin| when that is >= 1, else 1 (also for NaN); inactive
 * rays get 1, so dividing by the result is always safe. Four-ray path:
 * @p pDistance, @p pMask and the point planes 16-byte aligned.
 *
 * @param origin Three floats. Not tested.
 * @param point Plane triple: one point per ray.
 * @param pMask One int per ray.
 * @param pDistance Written: one float per ray.
 * @param count Number of rays.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p point, @p pMask or @p pDistance is null.
 */
KEL_API KelStatus kelrDistAttenuationSO_32f_M(const float origin[3], const float* const point[3],
                                              const int* pMask, float* pDistance, int count);
/**
 * Scales a plane triple by a per-ray factor in place: srcDst[k][i] ×=
 * factor[i]; inactive rays get 0 in all three planes. Four-ray path: every
 * array 16-byte aligned.
 *
 * @param pFactor One float per ray.
 * @param pMask One int per ray.
 * @param srcDst Plane triple, read and written.
 * @param count Number of rays.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p pFactor, @p pMask or @p srcDst is null.
 */
KEL_API KelStatus kelrMul_32f_C1P3IM(const float* pFactor, const int* pMask, float* const srcDst[3],
                                     int count);
/**
 * Multiplies one plane by a per-ray factor in place: srcDst[i] ×= factor[i];
 * inactive rays get 0. Scalar loop only.
 *
 * @param pFactor One float per ray.
 * @param pMask One int per ray.
 * @param pSrcDst One float per ray, read and written.
 * @param count Number of rays.
 * @retval KEL_STS_OK Always: no pointer is checked (null pointers with
 *         @p count >= 1 are undefined behaviour).
 */
KEL_API KelStatus kelrMul_32f_C1IM(const float* pFactor, const int* pMask, float* pSrcDst,
                                   int count);
/**
 * Divides one plane by a per-ray divisor in place: srcDst[i] /= divisor[i];
 * inactive rays get 0. No guard: a zero divisor gives an infinity or NaN.
 * Scalar loop only.
 *
 * @param pDivisor One float per ray.
 * @param pMask One int per ray.
 * @param pSrcDst One float per ray, read and written.
 * @param count Number of rays.
 * @retval KEL_STS_OK Always: no pointer is checked.
 */
KEL_API KelStatus kelrDiv_32f_C1IM(const float* pDivisor, const int* pMask, float* pSrcDst,
                                   int count);
/**
 * Accumulates a light's contribution: acc[k][i] += src[k][i] ×
 * coefficient[k] × factor[i]. Inactive rays keep @p acc bit for bit.
 * Four-ray path: @p pFactor, @p pMask and the @p acc planes 16-byte aligned
 * (@p src may be unaligned); the scalar loop rounds once, the four-ray path
 * in single precision at each step.
 *
 * @param coefficient Three floats, one per channel (the light's colour). Not
 *        tested.
 * @param pFactor One float per ray (the intensity).
 * @param src Plane triple (the surface colour).
 * @param pMask One int per ray.
 * @param acc Plane triple, read and written.
 * @param count Number of rays.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p pFactor, @p src, @p pMask or @p acc is null.
 */
KEL_API KelStatus kelrAddMulMul_32f_AC1P3IM(const float coefficient[3], const float* pFactor,
                                            const float* const src[3], const int* pMask,
                                            float* const acc[3], int count);

/** @} */

/* ---- KD-tree ----------------------------------------------------------- */

/**
 * @defgroup kdtree KD-tree
 * @brief Building and releasing the tree block.
 * @{
 */

/** KDTreeBuildContext::algorithm: a tree of one leaf holding every triangle,
 * in order. Costs nothing to build; every ray tests every triangle. */
#define KDT_BUILD_SIMPLE 0x499D3DC2u
/** KDTreeBuildContext::algorithm: a surface-area-heuristic tree whose split
 * search runs on up to three threads. See @ref concepts for its memory
 * budget. */
#define KDT_BUILD_PSAH 0x2D07705Bu

/** Build parameters, read only. A simple build reads only the first two
 * fields, so its record may be that short. */
typedef struct KDTreeBuildContext {
    /** #KDT_BUILD_SIMPLE or #KDT_BUILD_PSAH; anything else is #KEL_STS_BAD_ARG. */
    uint32_t algorithm;
    /** Deepest level of the tree, 0..50 (checked for both algorithms, used by
     * PSAH). */
    int32_t maxDepth;
    /** PSAH only, 0..1 (NaN refused): higher values let the builder split more
     * readily, giving deeper trees. 0.2 is a good start. */
    float psahWeight;
    /** PSAH only: working-memory budget in MiB, 32..4095; the
     * @ref psah_budget "budget formula" gives one that suffices. Larger values
     * wrap around in 32 bits: the build works with memoryMiB modulo 4096. */
    uint32_t memoryMiB;
    /** PSAH only: six floats (min x, y, z, max x, y, z); triangles are cut to
     * this box and only their parts inside it are placed. Null: the box of all
     * vertices, triangles whole. */
    const float* clipBox;
} KDTreeBuildContext;

/**
 * One node of a packed tree block: two 32-bit words.
 *
 * The block holds the root at byte 0, two zero words, the child pairs (16
 * bytes each) in depth-first order, then the leaves' triangle lists (int32
 * triangle numbers). Every link is relative to the node that holds it, so the
 * block may be copied or moved as a whole and shared read-only by any number
 * of threads.
 */
typedef struct KDTreeNode {
    /** Inner node (>= 0): split axis (0 = x, 1 = y, 2 = z) in bits 0-1 and the
     * byte distance to its pair of children in the rest; the children are at
     * node + (link & ~7), the first covering the coordinates below the split.
     * Leaf (< 0): its triangle list starts at node - (link & ~3). */
    int32_t link;
    /** The second word: split position or triangle count. */
    union {
        float split;   /**< Inner node: split position on its axis. */
        int32_t count; /**< Leaf: number of triangles (0 for an empty leaf). */
    } data;
} KDTreeNode;

/**
 * Builds a kd-tree over a triangle mesh and hands the caller one packed,
 * self-relative block.
 *
 * The tree indexes triangles by their position in @p pTriangles; the same
 * numbering must be used for the TriangleAccel array. A PSAH build runs its
 * split search on up to three threads (OpenMP) and returns once they are
 * done; concurrent builds are independent of each other. All working memory
 * is released before the call returns, on success and on failure.
 *
 * Checks, in this order: the four pointers @p ppTree, @p pVertices,
 * @p pTriangles, @p pTreeSize; the counts; @p pContext; then the context's
 * fields. A PSAH build refuses a budget that cannot hold its fixed working
 * areas (#KEL_STS_NO_MEM) and stops with #KEL_STS_OVERFLOW when the budget
 * runs out later; the @ref concepts page gives a budget that suffices.
 *
 * @param ppTree Receives the tree block (32-byte aligned), owned by the caller
 *        until kelrKDTreeFree(). Written only on success.
 * @param pVertices Vertex array, three floats per vertex. Must be non-null even
 *        for a simple build, which never reads it.
 * @param pTriangles Triangle array, four ints per triangle (the fourth is not
 *        read). Vertex numbers must lie in 0 .. @p vertexCount - 1; they are
 *        not checked. Must be non-null even for a simple build.
 * @param vertexCount Number of vertices, >= 0.
 * @param triangleCount Number of triangles, >= 0 (0 gives a tree of one empty
 *        leaf).
 * @param pTreeSize Receives the block's size in bytes. Written only on success.
 * @param pContext Build parameters.
 * @retval KEL_STS_OK The tree is in *@p ppTree and its size in *@p pTreeSize.
 * @retval KEL_STS_NULL_PTR @p ppTree, @p pVertices, @p pTriangles or
 *         @p pTreeSize is null, or (after the count check) @p pContext is
 *         null.
 * @retval KEL_STS_SIZE @p vertexCount or @p triangleCount is negative.
 * @retval KEL_STS_OUT_OF_RANGE KDTreeBuildContext::maxDepth is outside 0..50,
 *         or for PSAH KDTreeBuildContext::psahWeight is outside 0..1 or NaN.
 * @retval KEL_STS_BAD_ARG KDTreeBuildContext::algorithm is unknown.
 * @retval KEL_STS_NO_MEM Memory could not be obtained, a size would not fit
 *         its type, or the tree block would exceed 2 GiB; for PSAH also a
 *         budget below 32 MiB or below the stores the build sets aside before
 *         it starts (32 MiB and about 12 V + 96 T bytes, 16 MiB more per 4 MiB
 *         of vertex data); nothing has been allocated then.
 * @retval KEL_STS_OVERFLOW PSAH: the budget ran out during the build.
 * @retval KEL_STS_INTERNAL PSAH: the build found its bookkeeping inconsistent,
 *         which vertex coordinates that are NaN can cause.
 */
KEL_API KelStatus kelrKDTreeBuildAlloc(KDTreeNode** ppTree, const float* pVertices,
                                       const int* pTriangles, int vertexCount, int triangleCount,
                                       int* pTreeSize, const KDTreeBuildContext* pContext);
/**
 * Releases a tree block through kelsFree(). Call it once per block, after the
 * last intersection that reads the block has returned.
 *
 * @param pTree A block from kelrKDTreeBuildAlloc(), or null (ignored). A
 *        block copied elsewhere by the caller is the caller's to free.
 */
KEL_API void kelrKDTreeFree(KDTreeNode* pTree);

/** @} */

/* ---- Intersection ------------------------------------------------------ */

/**
 * @defgroup intersect Intersection
 * @brief Triangle records and the three ray queries.
 *
 * The three queries validate nothing: every pointer must be valid and the
 * context's tree and records must be built over the same triangle array. They
 * read the context and write only their own per-ray arrays, so any number of
 * calls may run at once against one context from different threads.
 * @{
 */

/**
 * Per-triangle intersection record, 48 bytes, filled by
 * kelrTriangleAccelInit() and read by every query.
 *
 * With A, B, C a triangle's vertices, e1 = A - C, e2 = B - C and N = e1 × e2,
 * k is the axis on which N is largest and (u, v) the two other axes; D is the
 * area determinant of the triangle projected on (u, v). The caller allocates
 * the array (count × kelrTriangleAccelGetSize() bytes, 4-byte alignment is
 * enough) and never needs to read the fields.
 */
typedef struct TriangleAccel {
    /** k << 4 | u << 2 | v, bit 31 set when the plane is perpendicular to
     * axis k; 0 for a degenerate triangle, which no ray hits. */
    uint32_t axes;
    float nu;         /**< N[u] / N[k] */
    float ck;         /**< C[k] */
    float nv;         /**< N[v] / N[k] */
    float cu;         /**< C[u] */
    float cv;         /**< C[v] */
    float e2u;        /**< e2[u] / D */
    float e2v;        /**< e2[v] / D */
    float e1u;        /**< e1[u] / D */
    float e1v;        /**< e1[v] / D */
    int32_t triangle; /**< The triangle's number. */
    int32_t reserved; /**< Never written. */
} TriangleAccel;

/** What a query reads: the scene, read only. Fill it once after the build. */
typedef struct IntersectContext {
    /** Six floats from kelrSetBoundBox_32f(); rays are clipped to it. Not read
     * by kelrIntersectAnySO_32f(). */
    const float* sceneBox;
    /** One record per triangle, from kelrTriangleAccelInit(). */
    const TriangleAccel* triangleAccel;
    /** The tree block from kelrKDTreeBuildAlloc(), or a byte copy of it. */
    const KDTreeNode* tree;
} IntersectContext;

/**
 * The size of one TriangleAccel record in bytes.
 *
 * @param pSize Receives 48.
 * @retval KEL_STS_OK Written.
 * @retval KEL_STS_NULL_PTR @p pSize is null.
 */
KEL_API KelStatus kelrTriangleAccelGetSize(int* pSize);
/**
 * Fills one TriangleAccel record per triangle.
 *
 * Record i describes triangle i. A degenerate triangle (zero area, or a
 * normal that is NaN) gets a record that no ray hits. Call it once for the
 * whole triangle array that the tree is built over.
 *
 * @param pAccel Written: @p count records (count × 48 bytes).
 * @param pVertices Vertex array, three floats per vertex.
 * @param pTriangles Triangle array, four ints per triangle (the fourth is not
 *        read); vertex numbers are not range-checked.
 * @param count Number of triangles; 0 or less writes nothing.
 * @retval KEL_STS_OK Always: no pointer is checked.
 */
KEL_API KelStatus kelrTriangleAccelInit(TriangleAccel* pAccel, const float* pVertices,
                                        const int* pTriangles, int count);

/**
 * Finds the nearest triangle hit by each ray of a block of rays that share
 * one origin (eye rays).
 *
 * The block is @p width × @p height rays, row by row. For each ray:
 * the triangle id becomes the nearest triangle hit, or -1; on a hit the
 * distance and the barycentric u, v are written; on a miss the distance, u and
 * v are left untouched. u weights the triangle's first vertex, v its second,
 * 1 - u - v its third. A hit is accepted only nearer than the distance on
 * entry, and a later triangle replaces a hit only when nearer by more than
 * 2^-23, so ties keep the first triangle met.
 *
 * Paths: when @p width and @p height are multiples of 4 (0 included) and all
 * six per-ray arrays (direction planes, distances, hit planes, triangle ids)
 * are 16-byte aligned, the block is traced in four-ray packets; otherwise
 * by a scalar loop. Both give the same ids, and distances and u, v equal up
 * to single-precision rounding.
 *
 * @param origin The shared origin, three floats.
 * @param direction Plane triple: directions, not necessarily normalised;
 *        distances are in units of each direction's length.
 * @param pDistance One float per ray: on entry the largest distance a hit may
 *        have (e.g. FLT_MAX), on return the hit's distance.
 * @param hit Two planes u and v, written for hits only.
 * @param pTriangleId One int per ray, written for every ray.
 * @param pContext The scene box, records and tree.
 * @param width Rays per row.
 * @param height Rows.
 * @retval KEL_STS_OK Done.
 * @retval KEL_STS_NO_MEM Scalar path only: a ray needed more than 50 deferred
 *         subtrees (a tree deeper than 50, which the builders do not make).
 *         The call stops at that ray; later rays are untouched.
 */
KEL_API KelStatus kelrIntersectEyeSO_32f(const float origin[3], const float* const direction[3],
                                         float* pDistance, float* const hit[2], int* pTriangleId,
                                         const IntersectContext* pContext, int width, int height);
/**
 * Finds the nearest triangle hit by each ray of a block of rays with one
 * origin each (reflection and other secondary rays).
 *
 * As kelrIntersectEyeSO_32f(), with these differences: the distance on entry
 * bounds the search from the start, and a ray whose distance on entry is not
 * greater than 1.2e-6 (0, negative or NaN) is skipped and gets id -1, which
 * is how to switch rays off; a hit must be nearer than the entry distance
 * by more than 1e-5; the four-ray path also needs the three origin planes
 * 16-byte aligned.
 *
 * @param origin Plane triple: one origin per ray.
 * @param direction Plane triple: directions.
 * @param pDistance One float per ray: in, the far limit (not above 1.2e-6
 *        switches the ray off); out, the hit's distance.
 * @param hit Two planes u and v, written for hits only.
 * @param pTriangleId One int per ray, written for every ray.
 * @param pContext The scene box, records and tree.
 * @param width Rays per row.
 * @param height Rows.
 * @retval KEL_STS_OK Done.
 * @retval KEL_STS_NO_MEM As for kelrIntersectEyeSO_32f().
 */
KEL_API KelStatus kelrIntersectMO_32f(const float* const origin[3], const float* const direction[3],
                                      float* pDistance, float* const hit[2], int* pTriangleId,
                                      const IntersectContext* pContext, int width, int height);
/**
 * Tests the segments origin + t × direction, 0 < t < 1, for any occluder
 * (shadow rays from one light).
 *
 * A ray whose mask is negative on entry is not traced and gets id -1. A
 * traced ray that finds an occluder gets mask -1 and the occluder's triangle
 * id (the first one found, not necessarily the nearest); one that finds none
 * keeps its mask and gets id -1. Triangles at exactly t = 0 or t = 1 do not
 * occlude. The scene box is not used.
 *
 * Paths: the four-ray path runs when @p width and @p height are multiples of
 * 4 and the mask, the ids and the direction planes are 16-byte aligned; it
 * marks the same rays as the scalar loop, but where several triangles occlude
 * a ray the id it reports may name another of them.
 *
 * @param origin The light position, three floats.
 * @param direction Plane triple: from the light to each lit point, as written
 *        by kelrCastShadowSO_32f().
 * @param pTriangleId One int per ray, written for every ray.
 * @param pMask One int per ray, read and written.
 * @param width Rays per row.
 * @param height Rows.
 * @param pContext Only the records and the tree are read; @c sceneBox may be
 *        null.
 * @retval KEL_STS_OK Done.
 * @retval KEL_STS_NO_MEM As for kelrIntersectEyeSO_32f().
 */
KEL_API KelStatus kelrIntersectAnySO_32f(const float origin[3], const float* const direction[3],
                                         int* pTriangleId, int* pMask, int width, int height,
                                         const IntersectContext* pContext);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* KELR_H */
