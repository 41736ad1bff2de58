// Four-ray SSE2 path of the eye-ray query: rays from one origin, nearest
// hit. The scalar worker decides hits in extended precision, and a
// single-precision test would disagree with it for rays within rounding of
// an edge (where two neighbours must not both miss) or of the current
// distance. So the lanes only sift triangles in single precision, with
// error bounds wide enough never to drop a triangle that extended precision
// would accept; the few that remain (in practice the hits themselves) are
// decided by the scalar worker's own test, which makes the results the
// same bits as the scalar path's.
#include "intersect/packet.h"

namespace {

using kel::packet::laneMask;
using kel::packet::magnitude;
using kel::packet::select;

constexpr float kFloatMax = 3.4028235e38f;
// Eye rays: parallel limit, zeroed weights and acceptance margin alike.
constexpr float kEyeLimit = 0x1p-23f;
constexpr kel::TriangleTestLimits<long double> kExactLimits{0x1p-23L, 0x1p-23L};
// Relative error allowed for each single-precision quantity of the sieve:
// dozens of roundings' worth, far above what its few operations can lose.
constexpr float kSieveSlack = 0x1p-18f;

inline float largest(float a, float b) {
    return a > b ? a : b;
}

// Four eye rays as the tree walk and the leaf tests see them.
struct EyeRays {
    const TriangleAccel* accel;
    float origin[3];
    long double exactOrigin[3];
    __m128 direction[3], inverse[3];
    alignas(16) float laneDirection[3][4];
    int towardsLower[3];  // the order of the group being walked
    int negative[3];      // per axis, the lanes that walk towards lower coordinates
    __m128 distance, u, v;
    __m128i id;  // also the hit memory: the last triangle accepted

    __m128 splitDistance(int axis, float split) const {
        return _mm_mul_ps(_mm_set1_ps(split - origin[axis]), inverse[axis]);
    }

    // The lanes of `candidates` that the record might hit in extended
    // precision: those whose plane lies not clearly behind the origin nor
    // beyond the current distance, whose denominator is not clearly below
    // the parallel limit, and whose single-precision weights are not
    // clearly of both signs. Each quantity's error is bounded by
    // kSieveSlack times the magnitudes of the terms it was summed from.
    int mightHit(const TriangleAccel& rec, int k, int a, int b, __m128 candidates) const {
        const float ou = rec.cu - origin[a], ov = rec.cv - origin[b];
        const float ok = rec.ck - origin[k];
        const float num = (ok + rec.nu * ou) + rec.nv * ov;
        const float numError = kSieveSlack * (__builtin_fabsf(ok) + __builtin_fabsf(rec.nu * ou) +
                                              __builtin_fabsf(rec.nv * ov));
        const __m128 denom = kel::packet::planeDenominator(rec, k, a, b, direction);
        const __m128 ru = magnitude(direction[a]), rv = magnitude(direction[b]);
        const __m128 planeTerms =
            _mm_add_ps(_mm_add_ps(magnitude(direction[k]),
                                  _mm_mul_ps(_mm_set1_ps(__builtin_fabsf(rec.nu)), ru)),
                       _mm_mul_ps(_mm_set1_ps(__builtin_fabsf(rec.nv)), rv));
        const __m128 denomError = _mm_mul_ps(planeTerms, _mm_set1_ps(kSieveSlack));
        // t = num / denom lies in (0, distance - margin) as num * sign(denom)
        // lies in (0, (distance - margin) * |denom|); no division needed.
        const __m128 absDenom = magnitude(denom);
        const __m128 ahead = _mm_xor_ps(_mm_set1_ps(num), _mm_andnot_ps(absDenom, denom));
        const __m128 reach = _mm_mul_ps(_mm_mul_ps(_mm_sub_ps(distance, _mm_set1_ps(kEyeLimit)),
                                                   _mm_add_ps(absDenom, denomError)),
                                        _mm_set1_ps(1.0f + kSieveSlack));
        const __m128 within =
            _mm_and_ps(_mm_cmpgt_ps(ahead, _mm_set1_ps(-numError)),
                       _mm_cmplt_ps(_mm_sub_ps(ahead, _mm_set1_ps(numError)), reach));
        const __m128 signUnsure = _mm_cmple_ps(absDenom, denomError);
        const __m128 steep = _mm_cmpge_ps(_mm_add_ps(absDenom, denomError), _mm_set1_ps(kEyeLimit));
        const __m128 inRange =
            _mm_and_ps(_mm_and_ps(steep, _mm_or_ps(within, signUnsure)), candidates);
        if (!_mm_movemask_ps(inRange)) return 0;

        const kel::packet::TriangleWeights raw =
            kel::packet::triangleWeights(rec, a, b, direction, _mm_set1_ps(ou), _mm_set1_ps(ov),
                                         _mm_set1_ps(num), denom, _mm_setzero_ps());
        const float edgeScale =
            largest(largest(__builtin_fabsf(rec.e2u), __builtin_fabsf(rec.e2v)),
                    largest(__builtin_fabsf(rec.e1u), __builtin_fabsf(rec.e1v)));
        const __m128 hitTerms = _mm_add_ps(
            _mm_mul_ps(_mm_add_ps(ru, rv), _mm_set1_ps(__builtin_fabsf(num) + numError)),
            _mm_mul_ps(_mm_set1_ps(__builtin_fabsf(ou) + __builtin_fabsf(ov)), planeTerms));
        const __m128 weightSlack = _mm_add_ps(
            _mm_mul_ps(_mm_add_ps(_mm_mul_ps(hitTerms, _mm_set1_ps(edgeScale)), planeTerms),
                       _mm_set1_ps(kSieveSlack)),
            _mm_set1_ps(kEyeLimit));
        const __m128 negativeSlack = _mm_sub_ps(_mm_setzero_ps(), weightSlack);
        const __m128 clearlyPositive = _mm_or_ps(
            _mm_or_ps(_mm_cmpgt_ps(raw.wA, weightSlack), _mm_cmpgt_ps(raw.wB, weightSlack)),
            _mm_cmpgt_ps(raw.wC, weightSlack));
        const __m128 clearlyNegative = _mm_or_ps(
            _mm_or_ps(_mm_cmplt_ps(raw.wA, negativeSlack), _mm_cmplt_ps(raw.wB, negativeSlack)),
            _mm_cmplt_ps(raw.wC, negativeSlack));
        return _mm_movemask_ps(
            _mm_andnot_ps(_mm_and_ps(clearlyPositive, clearlyNegative), inRange));
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        const __m128 active = laneMask(lanes);
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel[n];
            const uint32_t axes = rec.axes;
            if (axes == 0) continue;
            const int k = (axes >> 4) & 3, a = (axes >> 2) & 3, b = axes & 3;
            const __m128 candidates =
                _mm_andnot_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(id, _mm_set1_epi32(n))), active);
            const int sifted = mightHit(rec, k, a, b, candidates);
            if (sifted) decide(rec, n, sifted);
        }
        return lanes;
    }

    // The scalar worker's extended-precision test on the sifted lanes.
    void decide(const TriangleAccel& rec, int n, int lanes) {
        alignas(16) float t[4], hu[4], hv[4];
        alignas(16) int ids[4];
        _mm_store_ps(t, distance);
        _mm_store_ps(hu, u);
        _mm_store_ps(hv, v);
        _mm_store_si128(reinterpret_cast<__m128i*>(ids), id);
        for (int lane = 0; lane < 4; ++lane) {
            if (!(lanes >> lane & 1)) continue;
            const long double r[3] = {laneDirection[0][lane], laneDirection[1][lane],
                                      laneDirection[2][lane]};
            kel::TriangleHit<long double> hit;
            if (!kel::intersectTriangle(rec, exactOrigin, r, (long double)t[lane] - 0x1p-23L,
                                        kExactLimits, &hit))
                continue;
            t[lane] = float(hit.t);
            hu[lane] = float(hit.u);
            hv[lane] = float(hit.v);
            ids[lane] = n;
        }
        distance = _mm_load_ps(t);
        u = _mm_load_ps(hu);
        v = _mm_load_ps(hv);
        id = _mm_load_si128(reinterpret_cast<const __m128i*>(ids));
    }

    // A hit within the interval just finished is nearer than anything behind.
    int finished(__m128 tFar) const { return _mm_movemask_ps(_mm_cmpngt_ps(distance, tFar)); }
};

// Loads four rays and clips them to the box relative to the shared origin
// (lo, hi) as the scalar worker does; returns the lanes left to walk. A lane
// whose component is too small to invert skips that slab.
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
        rays->exactOrigin[a] = origin[a];
        const __m128 r = _mm_load_ps(direction[a]);
        rays->direction[a] = r;
        _mm_store_ps(rays->laneDirection[a], r);
        rays->negative[a] = kel::packet::invertedNegative(r);
        const __m128 tiny = kel::packet::tinyComponents(r);

        rays->inverse[a] = select(tiny, _mm_set1_ps(kel::packet::kEyeZeroInverse),
                                  _mm_div_ps(_mm_set1_ps(1.0f), r));
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
        live ? kel::packet::traverseByOrder(rays, rays.negative, pTree, tNear, tFar, live)
             : KEL_STS_OK;
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
