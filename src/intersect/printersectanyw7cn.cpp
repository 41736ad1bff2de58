// Packet path of the shadow query: segments from one light to the points
// being lit, any occluder. The lanes repeat the scalar worker's
// single-precision test operation for operation, so they mark the same
// rays. Compiled once per instruction set (see packetpath.h).
#include "intersect/packetpath.h"

namespace kel {
inline namespace KEL_ISA {
namespace {

// The lanes of `traced` (segments from the shared origin along r) that the
// record occludes, with the scalar shadow walk's test.
template <int N>
int occludingLanes(const TriangleAccel& rec, const float origin[3], const Floats<N> r[3],
                   int traced) {
    TriangleHit<Floats<N>> hit;
    return intersectTriangle(rec, origin, r, Floats<N>(kSegmentEnd), kShadowLimits,
                             lanes::laneMask<N>(traced), &hit)
        .bits();
}

// A packet of shadow segments: each lane stops at the first occluder it
// finds.
template <int N>
struct SegmentRays {
    static constexpr int kLanes = N;
    const TriangleAccel* accel;
    float origin[3];
    Floats<N> direction[3], inverse[3];
    int towardsLower[3];
    Ints<N> id;
    int occluded;

    Floats<N> splitDistance(int axis, float split) const {
        return (split - origin[axis]) * inverse[axis];
    }

    int testLeaf(const int32_t* triangles, int count, int lanes) {
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const int found = occludingLanes(accel[n], origin, direction, lanes);
            if (!found) continue;
            id = select(lanes::laneMask<N>(found), Ints<N>(n), id);
            occluded |= found;
            lanes &= ~found;
            if (!lanes) break;
        }
        return lanes;
    }

    // Nothing beyond the segment's end can occlude it.
    int finished(Floats<N> tFar) const { return notGreater(Floats<N>(kSegmentEnd), tFar).bits(); }
};

// Traces the segments of a packet (rows `width` elements apart) whose lane
// is in `lanes` and whose mask entry is >= 0; an occluded one gets mask -1
// and the occluder's number, a clear one id -1. The inverse directions are
// those of the scalar shadow walk: its side of each split follows the sign
// even of a component too small to invert, and a component that is not a
// number keeps its undefined inverse.
template <int N>
KelStatus traceSegments(const float origin[3], const float* const direction[3],
                        const TriangleAccel* pAccel, const KDTreeNode* pTree, int* pTriangleId,
                        int* pMask, int width, int lanes) {
    const Ints<N> mask = Ints<N>::loadRows(pMask, width);
    const int live = lanes & ~(mask < Ints<N>(0)).bits();
    if (!live) return KEL_STS_OK;
    SegmentRays<N> rays;
    rays.accel = pAccel;
    rays.occluded = 0;
    rays.id = select(lanes::laneMask<N>(live), Ints<N>(-1), Ints<N>::loadRows(pTriangleId, width));
    for (int a = 0; a < 3; ++a) {
        rays.origin[a] = origin[a];
        const Floats<N> r = Floats<N>::loadRows(direction[a], width);
        rays.direction[a] = r;
        rays.towardsLower[a] = packet::towardsLower(r, live);
        const auto tiny = lanes::magnitude(r) <= kTinyComponent;
        rays.inverse[a] = select(tiny, Floats<N>(kZeroInverse), 1.0f / r);
    }
    const KelStatus status = traverse(rays, pTree, 0.0f, kSegmentReach, live);
    rays.id.storeRows(pTriangleId, width);
    select(lanes::laneMask<N>(rays.occluded), Ints<N>(-1), mask).storeRows(pMask, width);
    return status;
}

// The nearest occluder of one segment, for the pre-test of the shadow
// driver: the record test in single precision, except that a hit counts
// when its three weights are all non-negative or all negative, and must lie
// nearer than the nearest one so far (from 1.0 down) by the eye query's
// margin.
class NearestOccluder {
  public:
    NearestOccluder(const TriangleAccel* accel, const float o[3], const float r[3])
        : accel_(accel), o_(o), r_(r) {}

    bool testLeaf(const int32_t* triangles, int count) {
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            const TriangleAccel& rec = accel_[n];
            if (rec.axes == 0 || n == nearest_) continue;
            const auto [k, u, v] = projectionAxes(rec);
            const float denom = r_[k] + rec.nu * r_[u] + rec.nv * r_[v];
            if (magnitude(denom) < float(EyeQuery::kLimits.parallelBelow)) continue;
            const float ou = rec.cu - o_[u], ov = rec.cv - o_[v];
            const float num = (rec.ck - o_[k]) + rec.nu * ou + rec.nv * ov;
            const float t = num / denom;
            if (!(t > 0 && t < distance_ - float(EyeQuery::kMargin))) continue;
            const float hu = r_[u] * num - ou * denom;
            const float hv = r_[v] * num - ov * denom;
            const float wA = rec.e2v * hu - rec.e2u * hv;
            const float wB = rec.e1u * hv - rec.e1v * hu;
            const float wC = denom - wA - wB;
            if (!(wA >= 0 && wB >= 0 && wC >= 0) && !(wA < 0 && wB < 0 && wC < 0)) continue;
            distance_ = t;
            nearest_ = n;
        }
        return false;
    }

    float reach() const { return distance_; }
    int nearest() const { return nearest_; }

  private:
    const TriangleAccel* accel_;
    const float* o_;
    const float* r_;
    float distance_ = kSegmentEnd;
    int nearest_ = -1;
};

int nearestOccluderOf(const float origin[3], const float direction[3], const TriangleAccel* pAccel,
                      const KDTreeNode* pTree) {
    TraversalRay ray;
    for (int a = 0; a < 3; ++a) {
        ray.origin[a] = origin[a];
        const float r = direction[a];
        // A NaN component counts as pointing towards lower coordinates.
        ray.towardsLower[a] = !(r >= 0.0f);
        ray.inverse[a] = magnitude(r) <= kTinyComponent ? kZeroInverse : 1.0f / r;
    }
    ray.tNear = 0.0f;
    ray.tFar = kSegmentReach;
    NearestOccluder leaves(pAccel, origin, direction);
    traverse(pTree, ray, leaves);
    return leaves.nearest();
}

// The 16 rays of a tile, two rows at a time, against one record.
void occludeTile(const float origin[3], const float* const direction[3],
                 const TriangleAccel* pAccel, int triangle, int* pTriangleId, int* pMask,
                 int width) {
    for (int pair = 0; pair < 2; ++pair) {
        const int first = 2 * pair * width;
        const Ints<8> mask = Ints<8>::loadRows(pMask + first, width);
        const int traced = ~(mask < Ints<8>(0)).bits() & 0xFF;
        if (!traced) continue;
        const Floats<8> r[3] = {Floats<8>::loadRows(direction[0] + first, width),
                                Floats<8>::loadRows(direction[1] + first, width),
                                Floats<8>::loadRows(direction[2] + first, width)};
        const int occluded = occludingLanes(pAccel[triangle], origin, r, traced);
        if (!occluded) continue;
        const auto hit = lanes::laneMask<8>(occluded);
        select(hit, Ints<8>(-1), mask).storeRows(pMask + first, width);
        select(hit, Ints<8>(triangle), Ints<8>::loadRows(pTriangleId + first, width))
            .storeRows(pTriangleId + first, width);
    }
}

KelStatus traceRow(const float origin[3], const float* const direction[3],
                   const TriangleAccel* pAccel, const KDTreeNode* pTree, int* pTriangleId,
                   int* pMask, int lanes) {
    return traceSegments<4>(origin, direction, pAccel, pTree, pTriangleId, pMask, 0, lanes);
}

// The two rows go as one packet of eight lanes: they share every node visit
// and every record's set-up.
KelStatus traceTwoRows(const float origin[3], const float* const direction[3],
                       const TriangleAccel* pAccel, const KDTreeNode* pTree, int* pTriangleId,
                       int* pMask, int width) {
    return traceSegments<8>(origin, direction, pAccel, pTree, pTriangleId, pMask, width, 0xFF);
}

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
        return nearestOccluderOf(origin, d, accel, tree);
    }
    void occluder4x4(int first, int triangle) {
        occludeTile(origin, packet::planesAt<3>(direction, first).p, accel, triangle, id + first,
                    mask + first, width);
    }
    void trace4x2(int first) {
        traceTwoRows(origin, packet::planesAt<3>(direction, first).p, accel, tree, id + first,
                     mask + first, width);
    }
    // The kernel writes only the lanes of this octant, so the row's other
    // lanes keep what their own octant's call left.
    void trace4x1(int first, int lanes) {
        traceRow(origin, packet::planesAt<3>(direction, first).p, accel, tree, id + first,
                 mask + first, lanes);
    }
};

KelStatus traceBlock(const float origin[3], const float* const direction[3],
                     const TriangleAccel* pAccel, const KDTreeNode* pTree, int* pTriangleId,
                     int* pMask, int width, int height) {
    SegmentKernels kernels{origin, direction, pAccel, pTree, pTriangleId, pMask, width};
    return packet::traceShadowTiles(kernels, direction, pTriangleId, pMask, width, height);
}

}  // namespace

const ShadowPacketPath kShadowPacketPath = {kCompiledIsa, traceBlock,  traceTwoRows,
                                            traceRow,     occludeTile, nearestOccluderOf};

}  // namespace KEL_ISA
}  // namespace kel
