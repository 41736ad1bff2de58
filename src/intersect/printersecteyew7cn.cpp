// Packet path of the eye-ray query: rays from one origin, nearest hit.
//
// The scalar worker decides hits in extended precision (long double). A
// single-precision test would disagree with it for rays within rounding of
// an edge (where two neighbours must not both miss) or of the current
// distance, so the packet path reaches the scalar worker's bits in three
// stages, each record's lanes passing on only what a stage cannot settle:
//
// 1. A sieve in single precision, all lanes at once, drops the lanes that
//    the record misses by more than the sieve's rounding errors can be: it
//    never drops a lane that extended precision would accept.
// 2. The lanes left (in practice the hits themselves) are decided in double
//    precision, four at a time, with error bounds that cover this
//    evaluation's roundings and the extended one's. A lane is accepted or
//    rejected only when the bounds make the extended test's answer
//    certain, and an accepted lane takes the double values of t, u and v
//    only when everything within their bounds rounds to the same float, so
//    that the extended values round to it too.
// 3. What the double test leaves open (a ray within a hair of an edge, a
//    vertex or the current distance) is decided by the scalar worker's own
//    extended-precision test.
//
// Compiled once per instruction set (see packetpath.h).
#include "intersect/packetpath.h"

namespace kel {
inline namespace KEL_ISA {
namespace {

using lanes::Doubles;

// The eye query's parallel limit, zeroed weights and acceptance margin,
// which are alike.
constexpr float kEyeLimit = float(EyeQuery::kMargin);
constexpr double kEyeLimitWide = double(EyeQuery::kMargin);
static_assert(EyeQuery::kLimits.parallelBelow == EyeQuery::kMargin &&
                  EyeQuery::kLimits.zeroBelow == EyeQuery::kMargin,
              "");

// ---- Sieve -------------------------------------------------------------------
//
// The sieve computes the record test in single precision. Each quantity q
// it computes lies within kSieveSlack x M(q) of the extended test's, M(q)
// being q's formula evaluated on the magnitudes of its terms: no quantity
// goes through more than ten single-precision roundings (2^-24 each, so
// 2^-20.7 in all), the extended test's own are 2^40 times smaller, and
// errors carried in from an operand are that operand's bound times the
// factor it is multiplied by, which M(q) includes. With R the sum of the
// packet's largest direction components on the three axes, D = |ok| +
// |ou| + |ov| the record's corner's distance from the origin (the sum of
// its coordinates' magnitudes), S = max(1, |nu|, |nv|) and E the record's
// largest edge coefficient:
//   num = (ok + nu ou) + nv ov      M <= S D
//   denom = r_k + nu r_u + nv r_v   M <= S R
//   hu = r_u num - ou denom         M(hu) + M(hv) <= 2 S R D
//   wA = e2v hu - e2u hv            M <= 2 E S R D (wB alike)
//   wC = denom - wA - wB            M <= S R (1 + 4 E D)
// The bounds are themselves computed in single precision, a few roundings
// off, which the slack's margin covers as well.
constexpr float kSieveSlack = 0x1p-18f;
// Below single precision's normal range, errors are absolute: this covers
// the few an almost-zero numerator can pick up.
constexpr float kSubnormalError = 0x1p-120f;

// ---- Decision ----------------------------------------------------------------
//
// The same test in double precision, four lanes at a time, with the same
// reasoning but each lane's own magnitudes:
//   num                  M = A = |ok| + |nu ou| + |nv ov|
//   denom                M = P = |r_k| + |nu r_u| + |nv r_v|
//   hu, hv               M(hu) + M(hv) = H = (|r_u| + |r_v|) A + (|ou| + |ov|) P
//   wA, wB, wC           M <= P + 2 E H
// No quantity goes through more than a dozen double roundings (2^-49 in
// all) and the extended test's are 2^11 times smaller still, so
// kDecisionSlack x M(q) bounds the distance between the two evaluations,
// with a wide margin for the roundings of the bounds themselves. The
// products of two floats are exact in double. A quotient x / denom errs by
// at most (error of x + |x / denom| x error of denom) / |denom|, plus the
// rounding of the quotient, in either evaluation.
constexpr double kDecisionSlack = 0x1p-44;

// The larger of a and b. A NaN b leaves a.
inline float largest(float a, float b) {
    return b > a ? b : a;
}

// What the decision needs of one record, shared by its lanes: the record in
// double precision, its corner and plane relative to the shared origin,
// and the magnitudes that the error bounds are made of.
struct RecordTerms {
    double nu, nv, e2u, e2v, e1u, e1v;
    double ou, ov, num;
    double numSize;     // A
    double cornerSize;  // |ou| + |ov|
    double edges;       // E
};

// The decision on four lanes: those accepted for sure with values whose
// rounding is sure, and those left to the extended test.
struct QuadDecision {
    int accepted, unsure;
    Floats<4> t, u, v;
};

// The largest of a record's edge coefficients.
inline float edgeScale(const TriangleAccel& rec) {
    return largest(largest(magnitude(rec.e2u), magnitude(rec.e2v)),
                   largest(magnitude(rec.e1u), magnitude(rec.e1v)));
}

// A packet of eye rays as the tree walk and the leaf tests see it.
template <int N>
struct EyeRays : packet::NearestLanes<N> {
    using Lanes = packet::NearestLanes<N>;
    using Lanes::distance, Lanes::u, Lanes::v, Lanes::id;
    using LaneMask = lanes::Mask<float, N>;
    static constexpr int kLanes = N;
    static constexpr int kQuads = N / 4;
    // The packet as the records projected along axis k see it: origin and
    // direction lanes in the order (k, u, v).
    struct Frame {
        float origin[3];
        Floats<N> direction[3];
    };
    const TriangleAccel* accel;
    float origin[3];
    long double exactOrigin[3];
    Frame frames[3];
    Floats<N> inverse[3];
    alignas(32) float laneDirection[3][N];
    int towardsLower[3];  // the order of the group being walked
    int negative[3];      // per axis, the lanes that walk towards lower coordinates
    float extent;         // R: the largest direction components of the traced lanes, summed

    Floats<N> splitDistance(int axis, float split) const {
        return (split - origin[axis]) * inverse[axis];
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        const LaneMask traced = lanes::laneMask<N>(lanes);
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel[n];
            if (rec.axes == 0) continue;
            // The triangle just accepted may be listed in several leaves.
            const LaneMask candidates = andNot(traced, id == Ints<N>(n));
            if (hasStandardProjection(rec)) {
                const Frame& frame = frames[projectionAxes(rec).k];
                const int sifted = sift(rec, frame, candidates);
                if (sifted) decide(rec, n, frame, sifted);
            } else {
                // Not a record the set-up writes: the frames do not fit it.
                decideExactly(rec, n, candidates.bits());
            }
        }
        return lanes;
    }

    // The lanes of `candidates` that the record might hit in extended
    // precision: all but those whose denominator is surely below the
    // parallel limit, whose plane lies surely behind the origin or beyond
    // the current distance, or whose weights surely keep opposite signs.
    int sift(const TriangleAccel& rec, const Frame& f, LaneMask candidates) const {
        const float ok = rec.ck - f.origin[0], ou = rec.cu - f.origin[1], ov = rec.cv - f.origin[2];
        const float num = (ok + rec.nu * ou) + rec.nv * ov;
        const float cornerSize = magnitude(ok) + magnitude(ou) + magnitude(ov);
        const float normalSize = largest(1.0f, largest(magnitude(rec.nu), magnitude(rec.nv)));
        const float planeSize = normalSize * extent;
        const float numError = kSieveSlack * normalSize * cornerSize + kSubnormalError;
        const float denomError = kSieveSlack * planeSize;
        // The extended test zeroes weights below kEyeLimit: one beyond this
        // keeps its sign there.
        const float signedWeight =
            kSieveSlack * planeSize * (4.0f * edgeScale(rec) * cornerSize + 1.0f) + kEyeLimit;

        const Floats<N>* r = f.direction;
        const Floats<N> denom = r[0] + rec.nu * r[1] + rec.nv * r[2];
        const Floats<N> absDenom = magnitude(denom);
        // t = num / denom lies in (0, distance - margin) as num * sign(denom)
        // lies in (0, (distance - margin) |denom|); no division needed.
        const Floats<N> ahead = mulSign(Floats<N>(num), denom);
        const Floats<N> reach =
            (distance - kEyeLimit) * (absDenom + denomError) * (1.0f + kSieveSlack);
        const LaneMask signKnown = absDenom > denomError;
        const LaneMask outside = (ahead < -numError) | (ahead - numError >= reach);
        const LaneMask steep = absDenom + denomError >= kEyeLimit;
        const LaneMask inRange = andNot(steep & candidates, signKnown & outside);
        if (!inRange.any()) return 0;

        const Floats<N> hu = r[1] * num - ou * denom;
        const Floats<N> hv = r[2] * num - ov * denom;
        const Floats<N> wA = rec.e2v * hu - rec.e2u * hv;
        const Floats<N> wB = rec.e1u * hv - rec.e1v * hu;
        const Floats<N> wC = denom - wA - wB;
        const LaneMask mixed =
            (max(wA, max(wB, wC)) > signedWeight) & (min(wA, min(wB, wC)) < -signedWeight);
        return andNot(inRange, mixed).bits();
    }

    RecordTerms recordTerms(const TriangleAccel& rec, const Frame& f) const {
        const double ok = double(rec.ck) - f.origin[0];
        const double ou = double(rec.cu) - f.origin[1], ov = double(rec.cv) - f.origin[2];
        const double nuOu = rec.nu * ou, nvOv = rec.nv * ov;
        return {rec.nu,
                rec.nv,
                rec.e2u,
                rec.e2v,
                rec.e1u,
                rec.e1v,
                ou,
                ov,
                (ok + nuOu) + nvOv,
                __builtin_fabs(ok) + __builtin_fabs(nuOu) + __builtin_fabs(nvOv),
                __builtin_fabs(ou) + __builtin_fabs(ov),
                edgeScale(rec)};
    }

    // The record test on the `lanes` of quad q in double precision.
    QuadDecision decideQuad(const RecordTerms& rec, const Frame& f, int q, int lanes) const {
        using Wide = Doubles<4>;
        const Wide rk = toDoubles(quad(f.direction[0], q));
        const Wide ra = toDoubles(quad(f.direction[1], q));
        const Wide rb = toDoubles(quad(f.direction[2], q));
        const Wide nuRa = rec.nu * ra, nvRb = rec.nv * rb;
        const Wide denom = rk + nuRa + nvRb;
        const Wide planeSize = magnitude(rk) + magnitude(nuRa) + magnitude(nvRb);
        const Wide inverse = 1.0 / denom;
        const Wide t = rec.num * inverse;
        const Wide hu = ra * rec.num - rec.ou * denom;
        const Wide hv = rb * rec.num - rec.ov * denom;
        const Wide wA = rec.e2v * hu - rec.e2u * hv;
        const Wide wB = rec.e1u * hv - rec.e1v * hu;
        const Wide wC = denom - wA - wB;
        const Wide hitSize =
            (magnitude(ra) + magnitude(rb)) * rec.numSize + rec.cornerSize * planeSize;
        const Wide denomError = kDecisionSlack * planeSize;
        const Wide weightError = kDecisionSlack * (2.0 * rec.edges * hitSize + planeSize);
        const Wide numError = Wide(kDecisionSlack * rec.numSize);

        // Each condition of the extended test, where it is sure to hold
        // and where it is sure to fail.
        const Wide absDenom = magnitude(denom);
        const auto steep = absDenom > kEyeLimitWide + denomError;
        const auto parallel = absDenom < kEyeLimitWide - denomError;
        const Wide tError = quotientError(numError, t, denomError, inverse);
        const Wide tMax = toDoubles(quad(distance, q)) - kEyeLimitWide;
        const Wide tMaxError = kDecisionSlack * magnitude(tMax);
        const auto ahead = t > tError;
        const auto behind = t < -tError;
        const auto near = t + tError < tMax - tMaxError;
        const auto far = t - tError > tMax + tMaxError;
        const Wide signedWeight = kEyeLimitWide + weightError;
        const auto allPositive = (wA > signedWeight) & (wB > signedWeight) & (wC > signedWeight);
        const auto allNegative = (wA < -signedWeight) & (wB < -signedWeight) & (wC < -signedWeight);
        const auto mixed =
            (max(wA, max(wB, wC)) > signedWeight) & (min(wA, min(wB, wC)) < -signedWeight);
        const int accept = (steep & ahead & near & (allPositive | allNegative)).bits() & lanes;
        const int reject = (parallel | behind | far | mixed).bits() & lanes;

        // With all three weights kept, the extended test reports u = wA /
        // denom and v = wB / denom.
        const Wide u = wA * inverse, v = wB * inverse;
        const Floats<4> roundedT = toFloats(t), roundedU = toFloats(u), roundedV = toFloats(v);
        const int sure = (sameRounding(t, tError) &
                          sameRounding(u, quotientError(weightError, u, denomError, inverse)) &
                          sameRounding(v, quotientError(weightError, v, denomError, inverse)))
                             .bits();
        return {accept & sure, lanes & ~reject & ~(accept & sure), roundedT, roundedU, roundedV};
    }

    static Doubles<4> quotientError(Doubles<4> numeratorError, Doubles<4> quotient,
                                    Doubles<4> denomError, Doubles<4> inverse) {
        const Doubles<4> size = magnitude(quotient);
        return (numeratorError + size * denomError) * magnitude(inverse) + kDecisionSlack * size;
    }

    // True where every value within `error` of x rounds to the same float.
    static lanes::Mask<float, 4> sameRounding(Doubles<4> x, Doubles<4> error) {
        return sameBits(toFloats(x - error), toFloats(x + error));
    }

    void decide(const TriangleAccel& rec, int n, const Frame& frame, int lanes) {
        const RecordTerms terms = recordTerms(rec, frame);
        Floats<4> t[kQuads], hitU[kQuads], hitV[kQuads];
        int accepted = 0, unsure = 0;
        for (int q = 0; q < kQuads; ++q) {
            const int quadLanes = lanes >> (4 * q) & packet::kAllLanes;
            t[q] = hitU[q] = hitV[q] = 0.0f;
            if (!quadLanes) continue;
            const QuadDecision d = decideQuad(terms, frame, q, quadLanes);
            accepted |= d.accepted << (4 * q);
            unsure |= d.unsure << (4 * q);
            t[q] = d.t;
            hitU[q] = d.u;
            hitV[q] = d.v;
        }
        if (accepted) {
            const LaneMask hit = lanes::laneMask<N>(accepted);
            distance = select(hit, fromQuads(t), distance);
            u = select(hit, fromQuads(hitU), u);
            v = select(hit, fromQuads(hitV), v);
            id = select(hit, Ints<N>(n), id);
        }
        if (unsure) decideExactly(rec, n, unsure);
    }

    static Floats<N> fromQuads(const Floats<4> quads[kQuads]) {
        if constexpr (N == 4)
            return quads[0];
        else
            return joinQuads(quads[0], quads[1]);
    }

    // The scalar worker's extended-precision test, lane by lane.
    void decideExactly(const TriangleAccel& rec, int n, int lanes) {
        alignas(32) float t[N], hitU[N], hitV[N];
        alignas(32) int ids[N];
        distance.store(t);
        u.store(hitU);
        v.store(hitV);
        id.store(ids);
        for (int lane = 0; lane < N; ++lane) {
            if (!(lanes >> lane & 1)) continue;
            const long double r[3] = {laneDirection[0][lane], laneDirection[1][lane],
                                      laneDirection[2][lane]};
            TriangleHit<long double> hit;
            if (!intersectTriangle(rec, exactOrigin, r, (long double)t[lane] - EyeQuery::kMargin,
                                   EyeQuery::kLimits, &hit))
                continue;
            t[lane] = float(hit.t);
            hitU[lane] = float(hit.u);
            hitV[lane] = float(hit.v);
            ids[lane] = n;
        }
        distance = Floats<N>::load(t);
        u = Floats<N>::load(hitU);
        v = Floats<N>::load(hitV);
        id = Ints<N>::load(ids);
    }
};

// Traces the `lanes` of a packet of eye rays (rows `width` elements apart).
// Each ray is clipped to the box relative to the shared origin as the
// scalar worker clips it; a component too small to invert skips that slab.
template <int N>
KelStatus traceEyeRays(const float origin[3], const float* const direction[3],
                       const float* pSceneBox, const TriangleAccel* pAccel, const KDTreeNode* pTree,
                       float* pDistance, float* const hit[2], int* pTriangleId, int width,
                       int lanes) {
    EyeRays<N> rays;
    rays.accel = pAccel;
    rays.load(pDistance, hit, pTriangleId, width, lanes);
    Floats<N> entry = 0.0f, exit = kFloatMax, r[3];
    rays.extent = 0.0f;
    for (int a = 0; a < 3; ++a) {
        const float lo = pSceneBox[a] - origin[a], hi = pSceneBox[a + 3] - origin[a];
        rays.origin[a] = origin[a];
        rays.exactOrigin[a] = origin[a];
        r[a] = Floats<N>::loadRows(direction[a], width);
        r[a].store(rays.laneDirection[a]);
        rays.negative[a] = packet::invertedNegative(r[a]);
        const auto tiny = packet::tinyComponents(r[a]);
        rays.inverse[a] = select(tiny, Floats<N>(kEyeZeroInverse), 1.0f / r[a]);
        packet::narrowToSlab(tiny, lo / r[a], hi / r[a], &entry, &exit);
        // A lane whose direction is not a number or infinite hits nothing
        // (its t is 0 or NaN), and must not wipe out the other lanes' largest
        // components, nor widen their error bounds to infinity, which would
        // pass every record to the slow exact tests.
        float largestComponent = 0.0f;
        for (int lane = 0; lane < N; ++lane) {
            const float component = magnitude(rays.laneDirection[a][lane]);
            if ((lanes >> lane & 1) && component <= kFloatMax)
                largestComponent = largest(largestComponent, component);
        }
        rays.extent += largestComponent;
    }
    for (int k = 0; k < 3; ++k) {
        const ProjectionAxes axes = kProjections[k];
        const int order[3] = {axes.k, axes.u, axes.v};
        for (int i = 0; i < 3; ++i) {
            rays.frames[k].origin[i] = origin[order[i]];
            rays.frames[k].direction[i] = r[order[i]];
        }
    }
    Floats<N> tNear, tFar;
    const int live = packet::startInterval(entry, exit, lanes, &tNear, &tFar);
    return packet::traceAndStore(rays, pTree, tNear, tFar, live, pDistance, hit, pTriangleId,
                                 width);
}

KelStatus traceRow(const float origin[3], const float* const direction[3], const float* pSceneBox,
                   const TriangleAccel* pAccel, const KDTreeNode* pTree, float* pDistance,
                   float* const hit[2], int* pTriangleId, int lanes) {
    return traceEyeRays<4>(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit, pTriangleId,
                           0, lanes);
}

// The two rows go as one packet of eight lanes: they share every node visit
// and every record's set-up.
KelStatus traceTwoRows(const float origin[3], const float* const direction[3],
                       const float* pSceneBox, const TriangleAccel* pAccel, const KDTreeNode* pTree,
                       float* pDistance, float* const hit[2], int* pTriangleId, int width) {
    return traceEyeRays<8>(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit, pTriangleId,
                           width, 0xFF);
}

}  // namespace

const EyePacketPath kEyePacketPath = {
    kCompiledIsa, packet::traceNearestBlock<const float*, traceTwoRows, traceRow>, traceTwoRows,
    traceRow};

}  // namespace KEL_ISA
}  // namespace kel
