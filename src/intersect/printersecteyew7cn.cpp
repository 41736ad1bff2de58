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
using kel::packet::planesAt;
using kel::packet::select;

using kel::EyeQuery;
// The eye query's parallel limit, zeroed weights and acceptance margin,
// which are alike, in single precision.
constexpr float kEyeLimit = float(EyeQuery::kMargin);
static_assert(EyeQuery::kLimits.parallelBelow == EyeQuery::kMargin &&
                  EyeQuery::kLimits.zeroBelow == EyeQuery::kMargin,
              "");
// Relative error allowed for each single-precision quantity of the sieve:
// dozens of roundings' worth, far above what its few operations can lose.
constexpr float kSieveSlack = 0x1p-18f;

// The larger of a and b. A NaN b leaves a: a lane whose direction is not a
// number hits nothing, and must not wipe out the other lanes' largest
// components, on which their error bounds rest.
inline float largest(float a, float b) {
    return b > a ? b : a;
}

// What the sieve needs of one record, shared by all lanes: its corner and
// plane relative to the shared origin (in the scalar walk's order), and
// error bounds of the single-precision quantities derived from them. The
// bounds use the packet's largest direction components, so one set serves
// every lane.
struct SieveTerms {
    __m128 ou, ov, num;
    float numError;      // of num
    float denomError;    // of a lane's denominator
    __m128 weightSlack;  // a weight beyond it (either way) has a sure sign
};

// One or two rows of four eye rays as the tree walk and the leaf tests see
// them.
template <int Quads>
struct EyeRays : kel::packet::NearestLanes<Quads> {
    using Lanes = kel::packet::NearestLanes<Quads>;
    using Lanes::distance, Lanes::u, Lanes::v, Lanes::id;
    static constexpr int kQuads = Quads;
    const TriangleAccel* accel;
    float origin[3];
    long double exactOrigin[3];
    __m128 direction[Quads][3], inverse[Quads][3];
    alignas(16) float laneDirection[3][4 * Quads];
    int towardsLower[3];        // the order of the group being walked
    int negative[3];            // per axis, the lanes that walk towards lower coordinates
    float largestComponent[3];  // over the traced lanes, per axis

    __m128 splitDistance(int axis, float split, int quad) const {
        return _mm_mul_ps(_mm_set1_ps(split - origin[axis]), inverse[quad][axis]);
    }

    // Each single-precision quantity of the sieve is off by at most
    // kSieveSlack times the magnitudes of the terms it was summed from.
    SieveTerms sieveTerms(const TriangleAccel& rec, int k, int a, int b) const {
        const float ou = rec.cu - origin[a], ov = rec.cv - origin[b];
        const float ok = rec.ck - origin[k];
        const float num = (ok + rec.nu * ou) + rec.nv * ov;
        const float numError = kSieveSlack * (__builtin_fabsf(ok) + __builtin_fabsf(rec.nu * ou) +
                                              __builtin_fabsf(rec.nv * ov));
        const float ru = largestComponent[a], rv = largestComponent[b];
        const float planeTerms =
            largestComponent[k] + __builtin_fabsf(rec.nu) * ru + __builtin_fabsf(rec.nv) * rv;
        const float hitTerms = (ru + rv) * (__builtin_fabsf(num) + numError) +
                               (__builtin_fabsf(ou) + __builtin_fabsf(ov)) * planeTerms;
        const float edgeScale =
            largest(largest(__builtin_fabsf(rec.e2u), __builtin_fabsf(rec.e2v)),
                    largest(__builtin_fabsf(rec.e1u), __builtin_fabsf(rec.e1v)));
        return {_mm_set1_ps(ou),
                _mm_set1_ps(ov),
                _mm_set1_ps(num),
                numError,
                planeTerms * kSieveSlack,
                _mm_set1_ps((hitTerms * edgeScale + planeTerms) * kSieveSlack + kEyeLimit)};
    }

    // The lanes of `candidates` in one quad that the record might hit in
    // extended precision: those whose plane lies not clearly behind the
    // origin nor beyond the current distance, whose denominator is not
    // clearly below the parallel limit, and whose single-precision weights
    // are not clearly of both signs.
    int mightHit(const TriangleAccel& rec, int k, int a, int b, const SieveTerms& rel, int quad,
                 __m128 candidates) const {
        const __m128* r = direction[quad];
        const __m128 denom = kel::packet::planeDenominator(rec, k, a, b, r);
        const __m128 denomError = _mm_set1_ps(rel.denomError);
        // t = num / denom lies in (0, distance - margin) as num * sign(denom)
        // lies in (0, (distance - margin) * |denom|); no division needed.
        const __m128 absDenom = magnitude(denom);
        const __m128 ahead = _mm_xor_ps(rel.num, _mm_andnot_ps(absDenom, denom));
        const __m128 reach =
            _mm_mul_ps(_mm_mul_ps(_mm_sub_ps(distance[quad], _mm_set1_ps(kEyeLimit)),
                                  _mm_add_ps(absDenom, denomError)),
                       _mm_set1_ps(1.0f + kSieveSlack));
        const __m128 within =
            _mm_and_ps(_mm_cmpgt_ps(ahead, _mm_set1_ps(-rel.numError)),
                       _mm_cmplt_ps(_mm_sub_ps(ahead, _mm_set1_ps(rel.numError)), reach));
        const __m128 signUnsure = _mm_cmple_ps(absDenom, denomError);
        const __m128 steep = _mm_cmpge_ps(_mm_add_ps(absDenom, denomError), _mm_set1_ps(kEyeLimit));
        const __m128 inRange =
            _mm_and_ps(_mm_and_ps(steep, _mm_or_ps(within, signUnsure)), candidates);
        if (!_mm_movemask_ps(inRange)) return 0;

        const kel::packet::TriangleWeights raw = kel::packet::triangleWeights(
            rec, a, b, r, rel.ou, rel.ov, rel.num, denom, _mm_setzero_ps());
        const __m128 negativeSlack = _mm_sub_ps(_mm_setzero_ps(), rel.weightSlack);
        const __m128 clearlyPositive = _mm_or_ps(
            _mm_or_ps(_mm_cmpgt_ps(raw.wA, rel.weightSlack), _mm_cmpgt_ps(raw.wB, rel.weightSlack)),
            _mm_cmpgt_ps(raw.wC, rel.weightSlack));
        const __m128 clearlyNegative = _mm_or_ps(
            _mm_or_ps(_mm_cmplt_ps(raw.wA, negativeSlack), _mm_cmplt_ps(raw.wB, negativeSlack)),
            _mm_cmplt_ps(raw.wC, negativeSlack));
        return _mm_movemask_ps(
            _mm_andnot_ps(_mm_and_ps(clearlyPositive, clearlyNegative), inRange));
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel[n];
            if (rec.axes == 0) continue;
            const auto [k, a, b] = kel::projectionAxes(rec);
            const SieveTerms rel = sieveTerms(rec, k, a, b);
            int sifted = 0;
            for (int q = 0; q < Quads; ++q) {
                const int quad = kel::packet::quadLanes(lanes, q);
                if (!quad) continue;
                const __m128 candidates = _mm_andnot_ps(
                    _mm_castsi128_ps(_mm_cmpeq_epi32(id[q], _mm_set1_epi32(n))), laneMask(quad));
                sifted |= mightHit(rec, k, a, b, rel, q, candidates) << (4 * q);
            }
            if (sifted) decide(rec, n, sifted);
        }
        return lanes;
    }

    // The scalar worker's extended-precision test on the sifted lanes.
    void decide(const TriangleAccel& rec, int n, int lanes) {
        alignas(16) float t[4 * Quads], hu[4 * Quads], hv[4 * Quads];
        alignas(16) int ids[4 * Quads];
        for (int q = 0; q < Quads; ++q) {
            _mm_store_ps(t + 4 * q, distance[q]);
            _mm_store_ps(hu + 4 * q, u[q]);
            _mm_store_ps(hv + 4 * q, v[q]);
            _mm_store_si128(reinterpret_cast<__m128i*>(ids + 4 * q), id[q]);
        }
        for (int lane = 0; lane < 4 * Quads; ++lane) {
            if (!(lanes >> lane & 1)) continue;
            const long double r[3] = {laneDirection[0][lane], laneDirection[1][lane],
                                      laneDirection[2][lane]};
            kel::TriangleHit<long double> hit;
            if (!kel::intersectTriangle(rec, exactOrigin, r,
                                        (long double)t[lane] - EyeQuery::kMargin, EyeQuery::kLimits,
                                        &hit))
                continue;
            t[lane] = float(hit.t);
            hu[lane] = float(hit.u);
            hv[lane] = float(hit.v);
            ids[lane] = n;
        }
        for (int q = 0; q < Quads; ++q) {
            distance[q] = _mm_load_ps(t + 4 * q);
            u[q] = _mm_load_ps(hu + 4 * q);
            v[q] = _mm_load_ps(hv + 4 * q);
            id[q] = _mm_load_si128(reinterpret_cast<const __m128i*>(ids + 4 * q));
        }
    }
};

// Traces the `lanes` of one or two rows of four eye rays (rows `width`
// elements apart). Each ray is clipped to the box relative to the shared
// origin as the scalar worker clips it; a component too small to invert
// skips that slab.
template <int Quads>
KelStatus traceEyeRays(const float origin[3], const float* const direction[3],
                       const float* pSceneBox, const TriangleAccel* pAccel, const KDTreeNode* pTree,
                       float* pDistance, float* const hit[2], int* pTriangleId, int width,
                       int lanes) {
    float lo[3], hi[3];
    EyeRays<Quads> rays;
    rays.accel = pAccel;
    for (int a = 0; a < 3; ++a) {
        lo[a] = pSceneBox[a] - origin[a];
        hi[a] = pSceneBox[a + 3] - origin[a];
        rays.origin[a] = origin[a];
        rays.exactOrigin[a] = origin[a];
        rays.negative[a] = 0;
    }
    rays.load(pDistance, hit, pTriangleId, width, lanes);
    __m128 tNear[Quads], tFar[Quads];
    int live = 0;
    for (int q = 0; q < Quads; ++q) {
        const int row = q * width;
        const int quad = kel::packet::quadLanes(lanes, q);
        __m128 entry = _mm_setzero_ps(), exit = _mm_set1_ps(kel::kFloatMax);
        for (int a = 0; a < 3; ++a) {
            const __m128 r = _mm_load_ps(direction[a] + row);
            rays.direction[q][a] = r;
            _mm_store_ps(rays.laneDirection[a] + 4 * q, r);
            rays.negative[a] |= kel::packet::invertedNegative(r) << (4 * q);
            const __m128 tiny = kel::packet::tinyComponents(r);
            rays.inverse[q][a] =
                select(tiny, _mm_set1_ps(kel::kEyeZeroInverse), _mm_div_ps(_mm_set1_ps(1.0f), r));
            const __m128 t1 = _mm_div_ps(_mm_set1_ps(lo[a]), r);
            const __m128 t2 = _mm_div_ps(_mm_set1_ps(hi[a]), r);
            kel::packet::narrowToSlab(tiny, t1, t2, &entry, &exit);
        }
        live |= kel::packet::startInterval(entry, exit, quad, q, tNear, tFar);
    }
    // A lane with an infinite component hits nothing either (its t is 0 or
    // NaN), and must not widen the other lanes' error bounds to infinity,
    // which would sieve out every record.
    for (int a = 0; a < 3; ++a) {
        rays.largestComponent[a] = 0.0f;
        for (int lane = 0; lane < 4 * Quads; ++lane) {
            const float component = __builtin_fabsf(rays.laneDirection[a][lane]);
            if ((lanes >> lane & 1) && component <= kel::kFloatMax)
                rays.largestComponent[a] = largest(rays.largestComponent[a], component);
        }
    }
    return kel::packet::traceAndStore(rays, pTree, tNear, tFar, live, pDistance, hit, pTriangleId,
                                      width);
}

}  // namespace

extern "C" {

KEL_API KelStatus ownIntersectEyeBlock4x1(const float origin[3], const float* const direction[3],
                                          const float* pSceneBox, const TriangleAccel* pAccel,
                                          const KDTreeNode* pTree, float* pDistance,
                                          float* const hit[2], int* pTriangleId, int lanes) {
    return traceEyeRays<1>(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit, pTriangleId,
                           0, lanes);
}

// The two rows go as one packet of eight lanes: they share every node visit
// and every record's set-up.
KEL_API KelStatus ownIntersectEyeBlock4x2(const float origin[3], const float* const direction[3],
                                          const float* pSceneBox, const TriangleAccel* pAccel,
                                          const KDTreeNode* pTree, float* pDistance,
                                          float* const hit[2], int* pTriangleId, int width) {
    return traceEyeRays<2>(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit, pTriangleId,
                           width, 0xFF);
}

KEL_API KelStatus ownIntersectEyeBlock4_w7(const float origin[3], const float* const direction[3],
                                           const float* pSceneBox, const TriangleAccel* pAccel,
                                           const KDTreeNode* pTree, float* pDistance,
                                           float* const hit[2], int* pTriangleId, int width,
                                           int height) {
    kel::packet::NearestKernels<const float*, ownIntersectEyeBlock4x2, ownIntersectEyeBlock4x1>
        kernels{origin, direction, pSceneBox, pAccel, pTree, pDistance, hit, pTriangleId, width};
    return kel::packet::traceNearestTiles(kernels, direction, pTriangleId, width, height);
}

}  // extern "C"
