// Four-ray SSE2 path of the shadow query: segments from one light to the
// points being lit, any occluder. The lanes repeat the scalar worker's
// single-precision test operation for operation, so they mark the same rays.
#include "intersect/packet.h"

namespace {

using kel::packet::laneMask;
using kel::packet::planesAt;
using kel::packet::select;

using kel::kSegmentEnd;

// The lanes of `lanes` (segments from the shared origin along r) that the
// record occludes, with the scalar shadow walk's single-precision test.
int occludingLanes(const TriangleAccel& rec, int k, int a, int b,
                   const kel::packet::SharedOriginTerms& rel, const __m128 r[3], __m128 lanes) {
    const __m128 denom = kel::packet::planeDenominator(rec, k, a, b, r);
    const __m128 t = _mm_div_ps(rel.num, denom);
    __m128 accept = _mm_and_ps(lanes, _mm_cmpgt_ps(t, _mm_setzero_ps()));
    accept = _mm_and_ps(accept, _mm_cmplt_ps(t, _mm_set1_ps(kSegmentEnd)));
    if (!_mm_movemask_ps(accept)) return 0;
    return _mm_movemask_ps(_mm_and_ps(
        accept, kel::packet::triangleWeights(rec, a, b, r, rel.ou, rel.ov, rel.num, denom,
                                             _mm_set1_ps(kel::kShadowLimits.zeroBelow))
                    .inside));
}

// One or two rows of four shadow segments: each lane stops at the first
// occluder it finds.
template <int Quads>
struct SegmentRays {
    static constexpr int kQuads = Quads;
    const TriangleAccel* accel;
    float origin[3];
    __m128 direction[Quads][3], inverse[Quads][3];
    int towardsLower[3];
    __m128i id[Quads];
    int occluded;

    __m128 splitDistance(int axis, float split, int quad) const {
        return _mm_mul_ps(_mm_set1_ps(split - origin[axis]), inverse[quad][axis]);
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel[n];
            if (rec.axes == 0) continue;
            const auto [k, a, b] = kel::projectionAxes(rec);
            const kel::packet::SharedOriginTerms rel =
                kel::packet::sharedOriginTerms(rec, k, a, b, origin);
            int found = 0;
            for (int q = 0; q < Quads; ++q) {
                const int quad = kel::packet::quadLanes(lanes, q);
                if (!quad) continue;
                const int hit = occludingLanes(rec, k, a, b, rel, direction[q], laneMask(quad));
                if (hit) id[q] = select(laneMask(hit), _mm_set1_epi32(n), id[q]);
                found |= hit << (4 * q);
            }
            occluded |= found;
            lanes &= ~found;
            if (!lanes) break;
        }
        return lanes;
    }

    // Nothing beyond the segment's end can occlude it.
    int finished(const __m128* tFar) const {
        int lanes = 0;
        for (int q = 0; q < Quads; ++q)
            lanes |= _mm_movemask_ps(_mm_cmpngt_ps(_mm_set1_ps(kSegmentEnd), tFar[q])) << (4 * q);
        return lanes;
    }
};

// Traces the segments of one or two rows of four (rows `width` elements
// apart) whose lane is in `lanes` and whose mask entry is >= 0; an occluded
// one gets mask -1 and the occluder's number, a clear one id -1. The
// inverse directions are those of the scalar shadow walk: its side of each
// split follows the sign even of a component too small to invert, and a
// component that is not a number keeps its undefined inverse.
template <int Quads>
KelStatus traceSegments(const float origin[3], const float* const direction[3],
                        const TriangleAccel* pAccel, const KDTreeNode* pTree, int* pTriangleId,
                        int* pMask, int width, int lanes) {
    SegmentRays<Quads> rays;
    __m128i mask[Quads];
    int live = 0;
    for (int q = 0; q < Quads; ++q) {
        mask[q] = _mm_load_si128(reinterpret_cast<const __m128i*>(pMask + q * width));
        live |= (kel::packet::quadLanes(lanes, q) & ~_mm_movemask_ps(_mm_castsi128_ps(mask[q])))
                << (4 * q);
    }
    if (!live) return KEL_STS_OK;
    rays.accel = pAccel;
    rays.occluded = 0;
    for (int a = 0; a < 3; ++a) {
        rays.origin[a] = origin[a];
        rays.towardsLower[a] = 0;
    }
    __m128 tNear[Quads], tFar[Quads];
    for (int q = 0; q < Quads; ++q) {
        const int row = q * width;
        const int quad = kel::packet::quadLanes(live, q);
        rays.id[q] = select(laneMask(quad), _mm_set1_epi32(-1),
                            _mm_load_si128(reinterpret_cast<const __m128i*>(pTriangleId + row)));
        for (int a = 0; a < 3; ++a) {
            const __m128 r = _mm_load_ps(direction[a] + row);
            rays.direction[q][a] = r;
            rays.towardsLower[a] |= kel::packet::towardsLower(r, quad);
            const __m128 tiny =
                _mm_cmple_ps(kel::packet::magnitude(r), _mm_set1_ps(kel::kTinyComponent));
            rays.inverse[q][a] =
                select(tiny, _mm_set1_ps(kel::kZeroInverse), _mm_div_ps(_mm_set1_ps(1.0f), r));
        }
        tNear[q] = _mm_setzero_ps();
        tFar[q] = _mm_set1_ps(kel::kSegmentReach);
    }
    const KelStatus status = kel::packet::traverse(rays, pTree, tNear, tFar, live);
    for (int q = 0; q < Quads; ++q) {
        const int row = q * width;
        _mm_store_si128(reinterpret_cast<__m128i*>(pTriangleId + row), rays.id[q]);
        _mm_store_si128(reinterpret_cast<__m128i*>(pMask + row),
                        select(laneMask(kel::packet::quadLanes(rays.occluded, q)),
                               _mm_set1_epi32(-1), mask[q]));
    }
    return status;
}

// The representative ray's nearest occluder, walked as a packet with one
// live lane: the walk ends once the current interval reaches the nearest
// hit so far.
struct NearestOccluder {
    static constexpr int kQuads = 1;
    const TriangleAccel* accel;
    float origin[3];
    __m128 direction[3], inverse[3];
    int towardsLower[3];
    __m128 distance;
    int nearest;

    __m128 splitDistance(int axis, float split, int) const {
        return _mm_mul_ps(_mm_set1_ps(split - origin[axis]), inverse[axis]);
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        // The record test's own thresholds, which the eye query uses too.
        const __m128 parallelBelow = _mm_set1_ps(float(kel::EyeQuery::kLimits.parallelBelow));
        const __m128 margin = _mm_set1_ps(float(kel::EyeQuery::kMargin));
        const __m128 zero = _mm_setzero_ps();
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel[n];
            if (rec.axes == 0 || n == nearest) continue;
            const auto [k, a, b] = kel::projectionAxes(rec);
            const kel::packet::SharedOriginTerms rel =
                kel::packet::sharedOriginTerms(rec, k, a, b, origin);
            const __m128 denom = kel::packet::planeDenominator(rec, k, a, b, direction);
            const __m128 t = _mm_div_ps(rel.num, denom);
            __m128 accept = _mm_and_ps(laneMask(lanes),
                                       _mm_cmpnlt_ps(kel::packet::magnitude(denom), parallelBelow));
            accept = _mm_and_ps(accept, _mm_cmpgt_ps(t, zero));
            accept = _mm_and_ps(accept, _mm_cmplt_ps(t, _mm_sub_ps(distance, margin)));
            if (!_mm_movemask_ps(accept)) continue;
            // No weight is zeroed here: the signs decide alone.
            const kel::packet::TriangleWeights w = kel::packet::triangleWeights(
                rec, a, b, direction, rel.ou, rel.ov, rel.num, denom, zero);
            const __m128 allNonNegative =
                _mm_and_ps(_mm_and_ps(_mm_cmpge_ps(w.wA, zero), _mm_cmpge_ps(w.wB, zero)),
                           _mm_cmpge_ps(w.wC, zero));
            const __m128 allNegative =
                _mm_and_ps(_mm_and_ps(_mm_cmplt_ps(w.wA, zero), _mm_cmplt_ps(w.wB, zero)),
                           _mm_cmplt_ps(w.wC, zero));
            accept = _mm_and_ps(accept, _mm_or_ps(allNonNegative, allNegative));
            if (!_mm_movemask_ps(accept)) continue;
            distance = select(accept, t, distance);
            nearest = n;
        }
        return lanes;
    }

    int finished(const __m128* tFar) const {
        return _mm_movemask_ps(_mm_cmpnlt_ps(tFar[0], distance));
    }
};

struct SegmentKernels {
    const float* origin;
    const float* const* direction;
    const TriangleAccel* accel;
    const KDTreeNode* tree;
    int* id;
    int* mask;
    int width;

    int nearestOccluder(int ray) {
        const float d[3] = {direction[0][ray], direction[1][ray], direction[2][ray]};
        return ownIntersectNearestOccl(origin, d, accel, tree);
    }
    void occluder4x4(int first, int triangle) {
        ownIntersectOccluder4x4(origin, planesAt<3>(direction, first).p, accel, triangle,
                                id + first, mask + first, width);
    }
    void trace4x2(int first) {
        ownIntersectAnyBlock4x2(origin, planesAt<3>(direction, first).p, accel, tree, id + first,
                                mask + first, width);
    }
    // The kernel writes only the lanes of this octant, so the row's other
    // lanes keep what their own octant's call left.
    void trace4x1(int first, int lanes) {
        ownIntersectAnyBlock4x1(origin, planesAt<3>(direction, first).p, accel, tree, id + first,
                                mask + first, lanes);
    }
};

}  // namespace

extern "C" {

KEL_API int ownIntersectNearestOccl(const float origin[3], const float direction[3],
                                    const TriangleAccel* pAccel, const KDTreeNode* pTree) {
    NearestOccluder ray;
    ray.accel = pAccel;
    ray.distance = _mm_set1_ps(kSegmentEnd);
    ray.nearest = -1;
    for (int a = 0; a < 3; ++a) {
        ray.origin[a] = origin[a];
        const float r = direction[a];
        ray.direction[a] = _mm_set1_ps(r);
        // A NaN component counts as pointing towards lower coordinates.
        ray.towardsLower[a] = !(r >= 0.0f);
        ray.inverse[a] =
            _mm_set1_ps(__builtin_fabsf(r) <= kel::kTinyComponent ? kel::kZeroInverse : 1.0f / r);
    }
    const __m128 tNear = _mm_setzero_ps(), tFar = _mm_set1_ps(kel::kSegmentReach);
    kel::packet::traverse(ray, pTree, &tNear, &tFar, 1);
    return ray.nearest;
}

KEL_API void ownIntersectOccluder4x4(const float origin[3], const float* const direction[3],
                                     const TriangleAccel* pAccel, int triangle, int* pTriangleId,
                                     int* pMask, int width) {
    const TriangleAccel& rec = pAccel[triangle];
    if (rec.axes == 0) return;
    const auto [k, a, b] = kel::projectionAxes(rec);
    const kel::packet::SharedOriginTerms rel = kel::packet::sharedOriginTerms(rec, k, a, b, origin);
    for (int row = 0; row < 4; ++row) {
        const int first = row * width;
        __m128i* maskRow = reinterpret_cast<__m128i*>(pMask + first);
        __m128i* idRow = reinterpret_cast<__m128i*>(pTriangleId + first);
        const __m128i mask = _mm_load_si128(maskRow);
        const __m128 traced = _mm_castsi128_ps(_mm_cmpgt_epi32(mask, _mm_set1_epi32(-1)));
        if (!_mm_movemask_ps(traced)) continue;
        const __m128 d[3] = {_mm_load_ps(direction[0] + first), _mm_load_ps(direction[1] + first),
                             _mm_load_ps(direction[2] + first)};
        const int occluded = occludingLanes(rec, k, a, b, rel, d, traced);
        if (!occluded) continue;
        const __m128 accept = laneMask(occluded);
        _mm_store_si128(maskRow, select(accept, _mm_set1_epi32(-1), mask));
        _mm_store_si128(idRow, select(accept, _mm_set1_epi32(triangle), _mm_load_si128(idRow)));
    }
}

KEL_API KelStatus ownIntersectAnyBlock4x1(const float origin[3], const float* const direction[3],
                                          const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                          int* pTriangleId, int* pMask, int lanes) {
    return traceSegments<1>(origin, direction, pAccel, pTree, pTriangleId, pMask, 0, lanes);
}

// The two rows go as one packet of eight lanes: they share every node visit
// and every record's set-up.
KEL_API KelStatus ownIntersectAnyBlock4x2(const float origin[3], const float* const direction[3],
                                          const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                          int* pTriangleId, int* pMask, int width) {
    return traceSegments<2>(origin, direction, pAccel, pTree, pTriangleId, pMask, width, 0xFF);
}

KEL_API KelStatus ownIntersectAnyBlock4_w7(const float origin[3], const float* const direction[3],
                                           const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                           int* pTriangleId, int* pMask, int width, int height) {
    SegmentKernels kernels{origin, direction, pAccel, pTree, pTriangleId, pMask, width};
    return kel::packet::traceShadowTiles(kernels, direction, pTriangleId, pMask, width, height);
}

}  // extern "C"
