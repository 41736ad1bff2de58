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
using kel::packet::planesAt;
using kel::packet::select;

using Limits = kel::OwnOriginQuery;

// One or two rows of four rays with their own origins.
template <int Quads>
struct OwnOriginRays : kel::packet::NearestLanes<Quads> {
    using Lanes = kel::packet::NearestLanes<Quads>;
    using Lanes::distance, Lanes::u, Lanes::v, Lanes::id;
    static constexpr int kQuads = Quads;
    const TriangleAccel* accel;
    __m128 origin[Quads][3], direction[Quads][3], inverse[Quads][3];
    int towardsLower[3];  // the order of the group being walked
    int negative[3];      // per axis, the lanes that walk towards lower coordinates

    __m128 splitDistance(int axis, float split, int quad) const {
        return _mm_mul_ps(_mm_sub_ps(_mm_set1_ps(split), origin[quad][axis]), inverse[quad][axis]);
    }

    // The scalar worker's single-precision test on the lanes of one quad.
    void testQuad(const TriangleAccel& rec, int n, int k, int a, int b, int q, int lanes) {
        const __m128* o = origin[q];
        const __m128* r = direction[q];
        const __m128 ou = _mm_sub_ps(_mm_set1_ps(rec.cu), o[a]);
        const __m128 ov = _mm_sub_ps(_mm_set1_ps(rec.cv), o[b]);
        const __m128 num = _mm_add_ps(
            _mm_add_ps(_mm_sub_ps(_mm_set1_ps(rec.ck), o[k]), _mm_mul_ps(_mm_set1_ps(rec.nu), ou)),
            _mm_mul_ps(_mm_set1_ps(rec.nv), ov));
        const __m128 denom = kel::packet::planeDenominator(rec, k, a, b, r);
        const __m128 t = _mm_div_ps(num, denom);
        const __m128i triangle = _mm_set1_epi32(n);
        __m128 accept =
            _mm_andnot_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(id[q], triangle)), laneMask(lanes));
        accept = _mm_and_ps(accept, _mm_cmpnlt_ps(kel::packet::magnitude(denom),
                                                  _mm_set1_ps(Limits::kLimits.parallelBelow)));
        accept = _mm_and_ps(accept, _mm_cmpgt_ps(t, _mm_setzero_ps()));
        accept = _mm_and_ps(accept,
                            _mm_cmplt_ps(t, _mm_sub_ps(distance[q], _mm_set1_ps(Limits::kMargin))));
        if (!_mm_movemask_ps(accept)) return;
        const kel::packet::TriangleWeights w = kel::packet::triangleWeights(
            rec, a, b, r, ou, ov, num, denom, _mm_set1_ps(Limits::kLimits.zeroBelow));
        accept = _mm_and_ps(accept, w.inside);
        if (!_mm_movemask_ps(accept)) return;
        distance[q] = select(accept, t, distance[q]);
        u[q] = select(accept, _mm_div_ps(w.wA, denom), u[q]);
        v[q] = select(accept, _mm_div_ps(w.wB, denom), v[q]);
        id[q] = select(accept, triangle, id[q]);
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel[n];
            if (rec.axes == 0) continue;
            const auto [k, a, b] = kel::projectionAxes(rec);
            for (int q = 0; q < Quads; ++q) {
                const int quad = kel::packet::quadLanes(lanes, q);
                if (quad) testQuad(rec, n, k, a, b, q, quad);
            }
        }
        return lanes;
    }
};

// Traces the `lanes` of one or two rows of four rays (rows `width` elements
// apart). Each ray is clipped to the box from its own origin, its distance
// bounding the interval from the start; a ray that does not move along an
// axis must start strictly inside that slab.
template <int Quads>
KelStatus traceOwnOriginRays(const float* const origin[3], const float* const direction[3],
                             const float* box, const TriangleAccel* pAccel, const KDTreeNode* pTree,
                             float* pDistance, float* const hit[2], int* pTriangleId, int width,
                             int lanes) {
    OwnOriginRays<Quads> rays;
    rays.accel = pAccel;
    for (int a = 0; a < 3; ++a) rays.negative[a] = 0;
    rays.load(pDistance, hit, pTriangleId, width, lanes);
    __m128 tNear[Quads], tFar[Quads];
    int live = 0;
    for (int q = 0; q < Quads; ++q) {
        const int row = q * width;
        int quad = kel::packet::quadLanes(lanes, q);
        quad &= _mm_movemask_ps(_mm_cmpgt_ps(rays.distance[q], _mm_set1_ps(Limits::kShortestRay)));
        __m128 entry = _mm_setzero_ps(), exit = rays.distance[q];
        for (int a = 0; a < 3; ++a) {
            const __m128 o = _mm_load_ps(origin[a] + row);
            const __m128 r = _mm_load_ps(direction[a] + row);
            rays.origin[q][a] = o;
            rays.direction[q][a] = r;
            rays.negative[a] |= kel::packet::invertedNegative(r) << (4 * q);
            const __m128 tiny = kel::packet::tinyComponents(r);
            const __m128 lo = _mm_set1_ps(box[a]), hi = _mm_set1_ps(box[a + 3]);
            const __m128 insideSlab = _mm_and_ps(_mm_cmplt_ps(lo, o), _mm_cmplt_ps(o, hi));
            quad &= ~_mm_movemask_ps(_mm_andnot_ps(insideSlab, tiny));
            const __m128 inverse = _mm_div_ps(_mm_set1_ps(1.0f), r);
            rays.inverse[q][a] = select(tiny, _mm_set1_ps(kel::kZeroInverse), inverse);
            const __m128 t1 = _mm_mul_ps(_mm_sub_ps(lo, o), inverse);
            const __m128 t2 = _mm_mul_ps(_mm_sub_ps(hi, o), inverse);
            kel::packet::narrowToSlab(tiny, t1, t2, &entry, &exit);
        }
        live |= kel::packet::startInterval(entry, exit, quad, q, tNear, tFar);
    }
    return kel::packet::traceAndStore(rays, pTree, tNear, tFar, live, pDistance, hit, pTriangleId,
                                      width);
}

}  // namespace

extern "C" {

KEL_API KelStatus ownIntersectBlock4x1(const float* const origin[3],
                                       const float* const direction[3], const float* pSceneBox,
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       float* pDistance, float* const hit[2], int* pTriangleId,
                                       int lanes) {
    return traceOwnOriginRays<1>(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit,
                                 pTriangleId, 0, lanes);
}

// The two rows go as one packet of eight lanes: they share every node visit.
KEL_API KelStatus ownIntersectBlock4x2(const float* const origin[3],
                                       const float* const direction[3], const float* pSceneBox,
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       float* pDistance, float* const hit[2], int* pTriangleId,
                                       int width) {
    return traceOwnOriginRays<2>(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit,
                                 pTriangleId, width, 0xFF);
}

KEL_API KelStatus ownIntersectBlock4_w7(const float* const origin[3],
                                        const float* const direction[3], const float* pSceneBox,
                                        const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                        float* pDistance, float* const hit[2], int* pTriangleId,
                                        int width, int height) {
    kel::packet::NearestKernels<const float* const*, ownIntersectBlock4x2, ownIntersectBlock4x1>
        kernels{origin, direction, pSceneBox, pAccel, pTree, pDistance, hit, pTriangleId, width};
    return kel::packet::traceNearestTiles(kernels, direction, pTriangleId, width, height);
}

}  // extern "C"
