// Four-ray SSE2 path of the eye-ray query: rays from one origin, nearest
// hit. The lanes test triangles in single precision where the scalar worker
// uses extended precision; the two can differ only for rays that pass
// within rounding of an edge, or meet two triangles within rounding of the
// same distance.
#include "intersect/packet.h"

namespace {

using kel::packet::laneMask;
using kel::packet::select;

constexpr float kFloatMax = 3.4028235e38f;
// Eye rays: parallel limit, zeroed weights and acceptance margin alike.
constexpr float kEyeLimit = 0x1p-23f;

// Four eye rays as the tree walk and the leaf tests see them.
struct EyeRays {
    const TriangleAccel* accel;
    float origin[3];
    __m128 direction[3], inverse[3];
    int towardsLower[3];
    __m128 distance, u, v;
    __m128i id;  // also the hit memory: the last triangle accepted

    __m128 splitDistance(int axis, float split) const {
        return _mm_mul_ps(_mm_set1_ps(split - origin[axis]), inverse[axis]);
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        const __m128 active = laneMask(lanes);
        const __m128 limit = _mm_set1_ps(kEyeLimit);
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel[n];
            const uint32_t axes = rec.axes;
            if (axes == 0) continue;
            const int k = (axes >> 4) & 3, a = (axes >> 2) & 3, b = axes & 3;
            const kel::packet::SharedOriginTerms rel =
                kel::packet::sharedOriginTerms(rec, k, a, b, origin);
            const kel::packet::TriangleLanes hit =
                kel::packet::testTriangle(rec, k, a, b, direction, rel.ou, rel.ov, rel.num, limit);
            const __m128i triangle = _mm_set1_epi32(n);
            __m128 accept = _mm_and_ps(active, hit.inside);
            accept = _mm_and_ps(accept, _mm_cmpnlt_ps(kel::packet::magnitude(hit.denom), limit));
            accept = _mm_and_ps(accept, _mm_cmpgt_ps(hit.t, _mm_setzero_ps()));
            accept = _mm_and_ps(accept, _mm_cmplt_ps(hit.t, _mm_sub_ps(distance, limit)));
            accept = _mm_andnot_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(id, triangle)), accept);
            if (!_mm_movemask_ps(accept)) continue;
            distance = select(accept, hit.t, distance);
            u = select(accept, _mm_div_ps(hit.wA, hit.denom), u);
            v = select(accept, _mm_div_ps(hit.wB, hit.denom), v);
            id = select(accept, triangle, id);
        }
        return lanes;
    }

    // A hit within the interval just finished is nearer than anything behind.
    int finished(__m128 tFar) const { return _mm_movemask_ps(_mm_cmpngt_ps(distance, tFar)); }
};

// Loads four rays and clips them to the box relative to the shared origin
// (lo, hi) as the scalar worker does; returns the lanes left to walk. A lane
// whose component is too small to invert skips that slab; its stand-in
// inverse takes the packet's sign on that axis so that split planes send it
// to the side of its origin in the packet's order.
int startEyeRays(EyeRays* rays, const float origin[3], const float* const direction[3],
                 const float lo[3], const float hi[3], const float* pDistance, float* const hit[2],
                 const int* pTriangleId, int lanes, __m128* tNearOut, __m128* tFarOut) {
    rays->distance = _mm_load_ps(pDistance);
    rays->u = _mm_load_ps(hit[0]);
    rays->v = _mm_load_ps(hit[1]);
    const __m128i ids = _mm_load_si128(reinterpret_cast<const __m128i*>(pTriangleId));
    rays->id = select(laneMask(lanes), _mm_set1_epi32(-1), ids);
    __m128 tNear = _mm_setzero_ps(), tFar = _mm_set1_ps(kFloatMax);
    for (int a = 0; a < 3; ++a) {
        rays->origin[a] = origin[a];
        const __m128 r = _mm_load_ps(direction[a]);
        rays->direction[a] = r;
        rays->towardsLower[a] = kel::packet::towardsLower(r, lanes);
        const __m128 tiny = kel::packet::tinyComponents(r);
        const float standIn =
            rays->towardsLower[a] ? -kel::packet::kEyeZeroInverse : kel::packet::kEyeZeroInverse;
        rays->inverse[a] = select(tiny, _mm_set1_ps(standIn), _mm_div_ps(_mm_set1_ps(1.0f), r));
        const __m128 t1 = _mm_div_ps(_mm_set1_ps(lo[a]), r);
        const __m128 t2 = _mm_div_ps(_mm_set1_ps(hi[a]), r);
        const __m128 entry = _mm_min_ps(t2, t1), exit = _mm_max_ps(t1, t2);
        tNear = select(tiny, tNear, _mm_max_ps(entry, tNear));
        tFar = select(tiny, tFar, _mm_min_ps(exit, tFar));
    }
    *tNearOut = tNear;
    *tFarOut = _mm_add_ps(tFar, _mm_set1_ps(kel::kFarExtension));
    return lanes & ~_mm_movemask_ps(_mm_cmpgt_ps(tNear, tFar));
}

KelStatus traceEyeRow(const float origin[3], const float* const direction[3],
                      const float* pSceneBox, const TriangleAccel* pAccel, const KDTreeNode* pTree,
                      float* pDistance, float* const hit[2], int* pTriangleId, int lanes) {
    float lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = pSceneBox[a] - origin[a];
        hi[a] = pSceneBox[a + 3] - origin[a];
    }
    EyeRays rays;
    rays.accel = pAccel;
    __m128 tNear, tFar;
    const int live = startEyeRays(&rays, origin, direction, lo, hi, pDistance, hit, pTriangleId,
                                  lanes, &tNear, &tFar);
    const KelStatus status =
        live ? kel::packet::traverse(rays, pTree, tNear, tFar, live) : KEL_STS_OK;
    _mm_store_ps(pDistance, rays.distance);
    _mm_store_ps(hit[0], rays.u);
    _mm_store_ps(hit[1], rays.v);
    _mm_store_si128(reinterpret_cast<__m128i*>(pTriangleId), rays.id);
    return status;
}

// The driver's kernels, on rays numbered from the start of the block.
struct EyeKernels {
    const float* origin;
    const float* const* direction;
    const float* box;
    const TriangleAccel* accel;
    const KDTreeNode* tree;
    float* distance;
    float* const* hit;
    int* id;
    int width;

    void trace4x2(int first) {
        const float* d[3] = {direction[0] + first, direction[1] + first, direction[2] + first};
        float* h[2] = {hit[0] + first, hit[1] + first};
        ownIntersectEyeBlock4x2(origin, d, box, accel, tree, distance + first, h, id + first,
                                width);
    }
    void trace4x1(int first, int lanes) {
        const float* d[3] = {direction[0] + first, direction[1] + first, direction[2] + first};
        float* h[2] = {hit[0] + first, hit[1] + first};
        ownIntersectEyeBlock4x1(origin, d, box, accel, tree, distance + first, h, id + first,
                                lanes);
    }
};

}  // namespace

extern "C" {

KEL_API KelStatus ownIntersectEyeBlock4x1(const float origin[3], const float* const direction[3],
                                          const float* pSceneBox, const TriangleAccel* pAccel,
                                          const KDTreeNode* pTree, float* pDistance,
                                          float* const hit[2], int* pTriangleId, int lanes) {
    return traceEyeRow(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit, pTriangleId,
                       lanes);
}

KEL_API KelStatus ownIntersectEyeBlock4x2(const float origin[3], const float* const direction[3],
                                          const float* pSceneBox, const TriangleAccel* pAccel,
                                          const KDTreeNode* pTree, float* pDistance,
                                          float* const hit[2], int* pTriangleId, int width) {
    const KelStatus first = traceEyeRow(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit,
                                        pTriangleId, kel::packet::kAllLanes);
    const float* d[3] = {direction[0] + width, direction[1] + width, direction[2] + width};
    float* h[2] = {hit[0] + width, hit[1] + width};
    const KelStatus second = traceEyeRow(origin, d, pSceneBox, pAccel, pTree, pDistance + width, h,
                                         pTriangleId + width, kel::packet::kAllLanes);
    return first != KEL_STS_OK ? first : second;
}

KEL_API KelStatus ownIntersectEyeBlock4_w7(const float origin[3], const float* const direction[3],
                                           const float* pSceneBox, const TriangleAccel* pAccel,
                                           const KDTreeNode* pTree, float* pDistance,
                                           float* const hit[2], int* pTriangleId, int width,
                                           int height) {
    EyeKernels kernels{origin,    direction, pSceneBox,   pAccel, pTree,
                       pDistance, hit,       pTriangleId, width};
    return kel::packet::traceNearestTiles(kernels, direction, pTriangleId, width, height);
}

}  // extern "C"
