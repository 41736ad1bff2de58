// Packet path of the query for rays with their own origins (reflections and
// other secondary rays). Like the scalar worker it computes in single
// precision throughout, with the same operations in the same order, so the
// lanes reproduce its results bit for bit. Compiled once per instruction
// set (see packetpath.h).
#include "intersect/packetpath.h"

namespace kel {
inline namespace KEL_ISA {
namespace {

using Limits = OwnOriginQuery;

// A packet of rays with their own origins.
template <int N>
struct OwnOriginRays : packet::NearestLanes<N> {
    using Lanes = packet::NearestLanes<N>;
    using Lanes::distance, Lanes::u, Lanes::v, Lanes::id;
    static constexpr int kLanes = N;
    const TriangleAccel* accel;
    Floats<N> origin[3], direction[3], inverse[3];
    int towardsLower[3];  // the order of the group being walked
    int negative[3];      // per axis, the lanes that walk towards lower coordinates

    Floats<N> splitDistance(int axis, float split) const {
        return (split - origin[axis]) * inverse[axis];
    }

    // The scalar worker's leaf, lane by lane: every listed triangle but the
    // one just accepted, nearest hit kept.
    int testLeaf(const int32_t* triangles, int count, int lanes) {
        const auto traced = lanes::laneMask<N>(lanes);
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const auto candidates = andNot(traced, id == Ints<N>(n));
            TriangleHit<Floats<N>> hit;
            const auto hits =
                intersectTriangle(accel[n], origin, direction, distance - Limits::kMargin,
                                  Limits::kLimits, candidates, &hit);
            if (!hits.any()) continue;
            distance = select(hits, hit.t, distance);
            u = select(hits, hit.u, u);
            v = select(hits, hit.v, v);
            id = select(hits, Ints<N>(n), id);
        }
        return lanes;
    }
};

// Traces the `lanes` of a packet whose rows are `width` elements apart.
// Each ray is clipped to the box from its own origin, as the scalar worker
// clips it: its distance bounds the interval from the start, and a ray
// that does not move along an axis must start strictly inside that slab.
template <int N>
KelStatus traceOwnOriginRays(const float* const origin[3], const float* const direction[3],
                             const float* box, const TriangleAccel* pAccel, const KDTreeNode* pTree,
                             float* pDistance, float* const hit[2], int* pTriangleId, int width,
                             int lanes) {
    OwnOriginRays<N> rays;
    rays.accel = pAccel;
    rays.load(pDistance, hit, pTriangleId, width, lanes);
    lanes &= (rays.distance > Limits::kShortestRay).bits();
    Floats<N> entry = 0.0f, exit = rays.distance;
    for (int a = 0; a < 3; ++a) {
        const Floats<N> o = Floats<N>::loadRows(origin[a], width);
        const Floats<N> r = Floats<N>::loadRows(direction[a], width);
        rays.origin[a] = o;
        rays.direction[a] = r;
        rays.negative[a] = packet::invertedNegative(r);
        const auto tiny = packet::tinyComponents(r);
        const auto insideSlab = (o > box[a]) & (o < box[a + 3]);
        lanes &= ~andNot(tiny, insideSlab).bits();
        const Floats<N> inverse = 1.0f / r;
        rays.inverse[a] = select(tiny, Floats<N>(kZeroInverse), inverse);
        packet::narrowToSlab(tiny, (box[a] - o) * inverse, (box[a + 3] - o) * inverse, &entry,
                             &exit);
    }
    Floats<N> tNear, tFar;
    const int live = packet::startInterval(entry, exit, lanes, &tNear, &tFar);
    return packet::traceAndStore(rays, pTree, tNear, tFar, live, pDistance, hit, pTriangleId,
                                 width);
}

KelStatus traceRow(const float* const origin[3], const float* const direction[3],
                   const float* pSceneBox, const TriangleAccel* pAccel, const KDTreeNode* pTree,
                   float* pDistance, float* const hit[2], int* pTriangleId, int lanes) {
    return traceOwnOriginRays<4>(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit,
                                 pTriangleId, 0, lanes);
}

// The two rows go as one packet of eight lanes: they share every node visit.
KelStatus traceTwoRows(const float* const origin[3], const float* const direction[3],
                       const float* pSceneBox, const TriangleAccel* pAccel, const KDTreeNode* pTree,
                       float* pDistance, float* const hit[2], int* pTriangleId, int width) {
    return traceOwnOriginRays<8>(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit,
                                 pTriangleId, width, 0xFF);
}

}  // namespace

const OwnOriginPacketPath kOwnOriginPacketPath = {
    kCompiledIsa, packet::traceNearestBlock<const float* const*, traceTwoRows, traceRow>,
    traceTwoRows, traceRow};

}  // namespace KEL_ISA
}  // namespace kel
