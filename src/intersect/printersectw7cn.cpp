// Four-ray SSE2 path of the query for rays with their own origins
// (reflections and other secondary rays). Like the scalar worker it computes
// in single precision throughout, with the same operations in the same
// order, so the lanes reproduce its results bit for bit.
//
// The kernels are exported as ownIntersectBlock4x2 / ownIntersectBlock4x1:
// the eye-ray kernels already hold the EyeBlock names in this library.
#include "intersect/packet.h"

namespace {

using kel::packet::laneMask;
using kel::packet::select;

// Secondary rays start on a surface: wider thresholds than eye rays keep them
// from finding the surface they leave.
constexpr float kParallelBelow = 1.1920929e-6f;
constexpr float kZeroBelow = 1e-5f;
constexpr float kMargin = 1e-5f;
// Rays with a shorter distance than this find nothing.
constexpr float kShortestRay = 1.1920929e-6f;

struct OwnOriginRays {
    const TriangleAccel* accel;
    __m128 origin[3], direction[3], inverse[3];
    int towardsLower[3];  // the order of the group being walked
    int negative[3];      // per axis, the lanes that walk towards lower coordinates
    __m128 distance, u, v;
    __m128i id;  // also the hit memory: the last triangle accepted

    __m128 splitDistance(int axis, float split) const {
        return _mm_mul_ps(_mm_sub_ps(_mm_set1_ps(split), origin[axis]), inverse[axis]);
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        const __m128 active = laneMask(lanes);
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel[n];
            const uint32_t axes = rec.axes;
            if (axes == 0) continue;
            const int k = (axes >> 4) & 3, a = (axes >> 2) & 3, b = axes & 3;
            const __m128 ou = _mm_sub_ps(_mm_set1_ps(rec.cu), origin[a]);
            const __m128 ov = _mm_sub_ps(_mm_set1_ps(rec.cv), origin[b]);
            const __m128 num = _mm_add_ps(_mm_add_ps(_mm_sub_ps(_mm_set1_ps(rec.ck), origin[k]),
                                                     _mm_mul_ps(_mm_set1_ps(rec.nu), ou)),
                                          _mm_mul_ps(_mm_set1_ps(rec.nv), ov));
            const __m128 denom = kel::packet::planeDenominator(rec, k, a, b, direction);
            const __m128 t = _mm_div_ps(num, denom);
            const __m128i triangle = _mm_set1_epi32(n);
            __m128 accept = _mm_andnot_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(id, triangle)), active);
            accept = _mm_and_ps(
                accept, _mm_cmpnlt_ps(kel::packet::magnitude(denom), _mm_set1_ps(kParallelBelow)));
            accept = _mm_and_ps(accept, _mm_cmpgt_ps(t, _mm_setzero_ps()));
            accept =
                _mm_and_ps(accept, _mm_cmplt_ps(t, _mm_sub_ps(distance, _mm_set1_ps(kMargin))));
            if (!_mm_movemask_ps(accept)) continue;
            const kel::packet::TriangleWeights w = kel::packet::triangleWeights(
                rec, a, b, direction, ou, ov, num, denom, _mm_set1_ps(kZeroBelow));
            accept = _mm_and_ps(accept, w.inside);
            if (!_mm_movemask_ps(accept)) continue;
            distance = select(accept, t, distance);
            u = select(accept, _mm_div_ps(w.wA, denom), u);
            v = select(accept, _mm_div_ps(w.wB, denom), v);
            id = select(accept, triangle, id);
        }
        return lanes;
    }

    int finished(__m128 tFar) const { return _mm_movemask_ps(_mm_cmpngt_ps(distance, tFar)); }
};

// Loads four rays and clips each to the box from its own origin, its
// distance bounding the interval from the start; returns the lanes left to
// walk. A ray that does not move along an axis must start strictly inside
// that slab.
int startOwnOriginRays(OwnOriginRays* rays, const float* const origin[3],
                       const float* const direction[3], const float* box, const float* pDistance,
                       float* const hit[2], const int* pTriangleId, int lanes, __m128* tNearOut,
                       __m128* tFarOut) {
    rays->distance = _mm_load_ps(pDistance);
    rays->u = _mm_load_ps(hit[0]);
    rays->v = _mm_load_ps(hit[1]);
    const __m128i ids = _mm_load_si128(reinterpret_cast<const __m128i*>(pTriangleId));
    rays->id = select(laneMask(lanes), _mm_set1_epi32(-1), ids);
    int live = lanes & _mm_movemask_ps(_mm_cmpgt_ps(rays->distance, _mm_set1_ps(kShortestRay)));
    __m128 tNear = _mm_setzero_ps(), tFar = rays->distance;
    for (int a = 0; a < 3; ++a) {
        const __m128 o = _mm_load_ps(origin[a]);
        const __m128 r = _mm_load_ps(direction[a]);
        rays->origin[a] = o;
        rays->direction[a] = r;
        rays->negative[a] = kel::packet::invertedNegative(r);
        const __m128 tiny = kel::packet::tinyComponents(r);
        const __m128 lo = _mm_set1_ps(box[a]), hi = _mm_set1_ps(box[a + 3]);
        const __m128 insideSlab = _mm_and_ps(_mm_cmplt_ps(lo, o), _mm_cmplt_ps(o, hi));
        live &= ~_mm_movemask_ps(_mm_andnot_ps(insideSlab, tiny));

        const __m128 inverse = _mm_div_ps(_mm_set1_ps(1.0f), r);
        rays->inverse[a] = select(tiny, _mm_set1_ps(kel::packet::kZeroInverse), inverse);
        const __m128 t1 = _mm_mul_ps(_mm_sub_ps(lo, o), inverse);
        const __m128 t2 = _mm_mul_ps(_mm_sub_ps(hi, o), inverse);
        const __m128 entry = _mm_min_ps(t2, t1), exit = _mm_max_ps(t1, t2);
        tNear = select(tiny, tNear, _mm_max_ps(entry, tNear));
        tFar = select(tiny, tFar, _mm_min_ps(exit, tFar));
    }
    *tNearOut = tNear;
    *tFarOut = _mm_add_ps(tFar, _mm_set1_ps(kel::kFarExtension));
    return live & ~_mm_movemask_ps(_mm_cmpgt_ps(tNear, tFar));
}

KelStatus traceOwnOriginRow(const float* const origin[3], const float* const direction[3],
                            const float* pSceneBox, const TriangleAccel* pAccel,
                            const KDTreeNode* pTree, float* pDistance, float* const hit[2],
                            int* pTriangleId, int lanes) {
    OwnOriginRays rays;
    rays.accel = pAccel;
    __m128 tNear, tFar;
    const int live = startOwnOriginRays(&rays, origin, direction, pSceneBox, pDistance, hit,
                                        pTriangleId, lanes, &tNear, &tFar);
    const KelStatus status =
        live ? kel::packet::traverseByOrder(rays, rays.negative, pTree, tNear, tFar, live)
             : KEL_STS_OK;
    _mm_store_ps(pDistance, rays.distance);
    _mm_store_ps(hit[0], rays.u);
    _mm_store_ps(hit[1], rays.v);
    _mm_store_si128(reinterpret_cast<__m128i*>(pTriangleId), rays.id);
    return status;
}

struct OwnOriginKernels {
    const float* const* origin;
    const float* const* direction;
    const float* box;
    const TriangleAccel* accel;
    const KDTreeNode* tree;
    float* distance;
    float* const* hit;
    int* id;
    int width;

    void trace4x2(int first) {
        const float* o[3] = {origin[0] + first, origin[1] + first, origin[2] + first};
        const float* d[3] = {direction[0] + first, direction[1] + first, direction[2] + first};
        float* h[2] = {hit[0] + first, hit[1] + first};
        ownIntersectBlock4x2(o, d, box, accel, tree, distance + first, h, id + first, width);
    }
    void trace4x1(int first, int lanes) {
        const float* o[3] = {origin[0] + first, origin[1] + first, origin[2] + first};
        const float* d[3] = {direction[0] + first, direction[1] + first, direction[2] + first};
        float* h[2] = {hit[0] + first, hit[1] + first};
        ownIntersectBlock4x1(o, d, box, accel, tree, distance + first, h, id + first, lanes);
    }
};

}  // namespace

extern "C" {

KEL_API KelStatus ownIntersectBlock4x1(const float* const origin[3],
                                       const float* const direction[3], const float* pSceneBox,
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       float* pDistance, float* const hit[2], int* pTriangleId,
                                       int lanes) {
    return traceOwnOriginRow(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit,
                             pTriangleId, lanes);
}

KEL_API KelStatus ownIntersectBlock4x2(const float* const origin[3],
                                       const float* const direction[3], const float* pSceneBox,
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       float* pDistance, float* const hit[2], int* pTriangleId,
                                       int width) {
    const KelStatus first = traceOwnOriginRow(origin, direction, pSceneBox, pAccel, pTree,
                                              pDistance, hit, pTriangleId, kel::packet::kAllLanes);
    const float* o[3] = {origin[0] + width, origin[1] + width, origin[2] + width};
    const float* d[3] = {direction[0] + width, direction[1] + width, direction[2] + width};
    float* h[2] = {hit[0] + width, hit[1] + width};
    const KelStatus second = traceOwnOriginRow(o, d, pSceneBox, pAccel, pTree, pDistance + width, h,
                                               pTriangleId + width, kel::packet::kAllLanes);
    return first != KEL_STS_OK ? first : second;
}

KEL_API KelStatus ownIntersectBlock4_w7(const float* const origin[3],
                                        const float* const direction[3], const float* pSceneBox,
                                        const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                        float* pDistance, float* const hit[2], int* pTriangleId,
                                        int width, int height) {
    OwnOriginKernels kernels{origin,    direction, pSceneBox,   pAccel, pTree,
                             pDistance, hit,       pTriangleId, width};
    return kel::packet::traceNearestTiles(kernels, direction, pTriangleId, width, height);
}

}  // extern "C"
