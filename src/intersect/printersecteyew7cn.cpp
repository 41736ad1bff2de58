// Packet path of the eye-ray query: rays from one origin, nearest hit. The
// scalar worker decides hits in extended precision, and a single-precision
// test would disagree with it for rays within rounding of an edge (where
// two neighbours must not both miss) or of the current distance. So the
// lanes only sift triangles in single precision, with error bounds wide
// enough never to drop a triangle that extended precision would accept; the
// few that remain (in practice the hits themselves) are decided by the
// scalar worker's own test, which makes the results the same bits as the
// scalar path's. Compiled once per instruction set (see packetpath.h).
#include "intersect/packetpath.h"

namespace kel {
inline namespace KEL_ISA {
namespace {

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
    float ou, ov, num;
    float numError;     // of num
    float denomError;   // of a lane's denominator
    float weightSlack;  // a weight beyond it (either way) has a sure sign
};

// A packet of eye rays as the tree walk and the leaf tests see it.
template <int N>
struct EyeRays : packet::NearestLanes<N> {
    using Lanes = packet::NearestLanes<N>;
    using Lanes::distance, Lanes::u, Lanes::v, Lanes::id;
    static constexpr int kLanes = N;
    const TriangleAccel* accel;
    float origin[3];
    long double exactOrigin[3];
    Floats<N> direction[3], inverse[3];
    alignas(32) float laneDirection[3][N];
    int towardsLower[3];        // the order of the group being walked
    int negative[3];            // per axis, the lanes that walk towards lower coordinates
    float largestComponent[3];  // over the traced lanes, per axis

    Floats<N> splitDistance(int axis, float split) const {
        return (split - origin[axis]) * inverse[axis];
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
        return {ou,
                ov,
                num,
                numError,
                planeTerms * kSieveSlack,
                (hitTerms * edgeScale + planeTerms) * kSieveSlack + kEyeLimit};
    }

    // The lanes of `candidates` that the record might hit in extended
    // precision: those whose plane lies not clearly behind the origin nor
    // beyond the current distance, whose denominator is not clearly below
    // the parallel limit, and whose single-precision weights are not
    // clearly of both signs.
    int mightHit(const TriangleAccel& rec, int k, int a, int b, const SieveTerms& rel,
                 lanes::Mask<float, N> candidates) const {
        const Floats<N>* r = direction;
        const Floats<N> denom = r[k] + rec.nu * r[a] + rec.nv * r[b];
        // t = num / denom lies in (0, distance - margin) as num * sign(denom)
        // lies in (0, (distance - margin) * |denom|); no division needed.
        const Floats<N> absDenom = lanes::magnitude(denom);
        const Floats<N> signedNum = select(denom < 0.0f, Floats<N>(-rel.num), Floats<N>(rel.num));
        const Floats<N> reach =
            (distance - kEyeLimit) * (absDenom + rel.denomError) * (1.0f + kSieveSlack);
        const auto within = (signedNum > -rel.numError) & (signedNum - rel.numError < reach);
        const auto signUnsure = absDenom <= rel.denomError;
        const auto steep = absDenom + rel.denomError >= kEyeLimit;
        const auto inRange = steep & (within | signUnsure) & candidates;
        if (!inRange.any()) return 0;

        const Floats<N> hu = r[a] * rel.num - rel.ou * denom;
        const Floats<N> hv = r[b] * rel.num - rel.ov * denom;
        const Floats<N> wA = rec.e2v * hu - rec.e2u * hv;
        const Floats<N> wB = rec.e1u * hv - rec.e1v * hu;
        const Floats<N> wC = denom - wA - wB;
        const float slack = rel.weightSlack;
        const auto clearlyPositive = (wA > slack) | (wB > slack) | (wC > slack);
        const auto clearlyNegative = (wA < -slack) | (wB < -slack) | (wC < -slack);
        return andNot(inRange, clearlyPositive & clearlyNegative).bits();
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        const auto traced = lanes::laneMask<N>(lanes);
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel[n];
            if (rec.axes == 0) continue;
            const auto [k, a, b] = projectionAxes(rec);
            const SieveTerms rel = sieveTerms(rec, k, a, b);
            const int sifted = mightHit(rec, k, a, b, rel, andNot(traced, id == Ints<N>(n)));
            if (sifted) decide(rec, n, sifted);
        }
        return lanes;
    }

    // The scalar worker's extended-precision test on the sifted lanes.
    void decide(const TriangleAccel& rec, int n, int lanes) {
        alignas(32) float t[N], hu[N], hv[N];
        alignas(32) int ids[N];
        distance.store(t);
        u.store(hu);
        v.store(hv);
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
            hu[lane] = float(hit.u);
            hv[lane] = float(hit.v);
            ids[lane] = n;
        }
        distance = Floats<N>::load(t);
        u = Floats<N>::load(hu);
        v = Floats<N>::load(hv);
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
    Floats<N> entry = 0.0f, exit = kFloatMax;
    for (int a = 0; a < 3; ++a) {
        const float lo = pSceneBox[a] - origin[a], hi = pSceneBox[a + 3] - origin[a];
        rays.origin[a] = origin[a];
        rays.exactOrigin[a] = origin[a];
        const Floats<N> r = Floats<N>::loadRows(direction[a], width);
        rays.direction[a] = r;
        r.store(rays.laneDirection[a]);
        rays.negative[a] = packet::invertedNegative(r);
        const auto tiny = packet::tinyComponents(r);
        rays.inverse[a] = select(tiny, Floats<N>(kEyeZeroInverse), 1.0f / r);
        packet::narrowToSlab(tiny, lo / r, hi / r, &entry, &exit);
        rays.largestComponent[a] = 0.0f;
        for (int lane = 0; lane < N; ++lane)
            if (lanes >> lane & 1)
                rays.largestComponent[a] =
                    largest(rays.largestComponent[a], __builtin_fabsf(rays.laneDirection[a][lane]));
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

KelStatus traceBlock(const float origin[3], const float* const direction[3], const float* pSceneBox,
                     const TriangleAccel* pAccel, const KDTreeNode* pTree, float* pDistance,
                     float* const hit[2], int* pTriangleId, int width, int height) {
    packet::NearestKernels<const float*, traceTwoRows, traceRow> kernels{
        origin, direction, pSceneBox, pAccel, pTree, pDistance, hit, pTriangleId, width};
    return packet::traceNearestTiles(kernels, direction, pTriangleId, width, height);
}

}  // namespace

const EyePacketPath kEyePacketPath = {kCompiledIsa, traceBlock, traceTwoRows, traceRow};

}  // namespace KEL_ISA
}  // namespace kel
