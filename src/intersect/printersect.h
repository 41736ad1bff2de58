// Ray-scene queries: the scalar workers behind the intersection entry points,
// and the pieces that every kernel shares: reading the packed kd-tree, the
// traversal constants, the ray-triangle test on an accelerator record and
// the front-to-back tree walk, each for one ray and, beside it, for N rays
// at once in lanes.
#ifndef KEL_INTERSECT_PRINTERSECT_H
#define KEL_INTERSECT_PRINTERSECT_H

#include "core/kel_private.h"
#include "core/lanes.h"

extern "C" {

// Nearest hit for rays sharing one origin; the triangle test runs in
// extended precision. KEL_STS_NO_MEM when a ray defers more far children
// than the traversal stack holds.
KEL_API KelStatus ownIntersectEyeBlock(const float origin[3], const float* const direction[3],
                                       const float* pSceneBox, const TriangleAccel* pAccel,
                                       const KDTreeNode* pTree, float* pDistance,
                                       float* const hit[2], int* pTriangleId, int width,
                                       int height);

// Nearest hit for rays with one origin each, in single precision.
KEL_API KelStatus ownIntersectBlock(const float* const origin[3], const float* const direction[3],
                                    const float* pSceneBox, const TriangleAccel* pAccel,
                                    const KDTreeNode* pTree, float* pDistance, float* const hit[2],
                                    int* pTriangleId, int width, int height);

// Any occluder on the segments origin + t direction, 0 < t < 1, for the rays
// whose mask entry is >= 0; an occluded ray gets mask -1.
KEL_API KelStatus ownIntersectAnyBlock(const float origin[3], const float* const direction[3],
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       int* pTriangleId, int* pMask, int width, int height);

}  // extern "C"

namespace kel {
inline namespace KEL_ISA {

using lanes::Floats;
using lanes::Ints;

// ---- Packed kd-tree ------------------------------------------------------

inline bool isLeaf(const KDTreeNode* node) {
    return node->link < 0;
}
inline int splitAxis(const KDTreeNode* node) {
    return node->link & 3;
}

// The pair (below the split, above it); links are byte distances.
inline const KDTreeNode* childPair(const KDTreeNode* node) {
    return reinterpret_cast<const KDTreeNode*>(reinterpret_cast<const char*>(node) +
                                               (node->link & ~7));
}

inline const int32_t* leafTriangles(const KDTreeNode* node) {
    return reinterpret_cast<const int32_t*>(reinterpret_cast<const char*>(node) -
                                            (node->link & ~3));
}

// ---- Traversal constants -------------------------------------------------

// Far children a ray may defer; trees are at most 50 levels deep.
constexpr int kTraversalStackDepth = 50;
// A split plane this close to the current interval counts as inside it.
constexpr float kSplitTolerance = 1e-5f;
// Added to the far end of a ray's interval so that a hit on the far face of
// the box is still found.
constexpr float kFarExtension = 0.0001f;
// Direction components at or below this magnitude are treated as zero.
constexpr float kTinyComponent = 0x1p-23f;
// Finite stand-ins for the inverse of a zero direction component, so that a
// split plane through the origin gives 0 rather than 0 times infinity. Eye
// rays use the larger one.
constexpr float kEyeZeroInverse = 838860800.0f;
constexpr float kZeroInverse = 83886.078125f;
// Eye rays are clipped starting from the whole float range.
constexpr float kFloatMax = 3.4028235e38f;
// Shadow segments run from the light (t = 0) to the lit point (t = 1); the
// walk looks a little beyond the end.
constexpr float kSegmentEnd = 1.0f;
constexpr float kSegmentReach = 1.0001f;
static_assert(__builtin_bit_cast(uint32_t, kSplitTolerance) == 0x3727C5ACu, "");
static_assert(__builtin_bit_cast(uint32_t, kFarExtension) == 0x38D1B717u, "");
static_assert(__builtin_bit_cast(uint32_t, kZeroInverse) == 0x47A3D70Au, "");
static_assert(__builtin_bit_cast(uint32_t, kSegmentReach) == 0x3F800347u, "");

// ---- Ray-triangle test ---------------------------------------------------

template <typename Real>
struct TriangleHit {
    Real t, u, v;
};

// Thresholds of one query's triangle test.
template <typename Real>
struct TriangleTestLimits {
    Real parallelBelow;  // |denominator| below this: the ray runs along the plane
    Real zeroBelow;      // scaled barycentric weights below this count as 0
};

// Eye rays decide hits in extended precision, so adjacent triangles of a
// mesh rarely both claim a ray or both reject it.
struct EyeQuery {
    using Real = long double;
    static constexpr TriangleTestLimits<Real> kLimits{0x1p-23L, 0x1p-23L};
    // A new hit must be nearer by more than this, so that a triangle at the
    // same distance never replaces the current one.
    static constexpr Real kMargin = 0x1p-23L;
};

// Secondary rays start on a surface; the wider thresholds keep them from
// finding the surface they leave.
struct OwnOriginQuery {
    using Real = float;
    static constexpr TriangleTestLimits<Real> kLimits{1.1920929e-6f, 1e-5f};
    static constexpr Real kMargin = 1e-5f;
    // Rays with a distance no longer than this find nothing.
    static constexpr float kShortestRay = 1.1920929e-6f;
};

// Shadow segments reject a zero denominator through the distance test.
constexpr TriangleTestLimits<float> kShadowLimits{0.0f, 0x1p-23f};

inline float magnitude(float x) {
    return __builtin_fabsf(x);
}
inline long double magnitude(long double x) {
    return __builtin_fabsl(x);
}

// The dominant axis k of a record's normal and the axes u, v of the plane it
// is projected onto, as packed in its axis code.
struct ProjectionAxes {
    int k, u, v;
};
inline ProjectionAxes projectionAxes(const TriangleAccel& rec) {
    return {int(rec.axes >> 4) & 3, int(rec.axes >> 2) & 3, int(rec.axes) & 3};
}

// The projection of a record whose normal is dominant along axis k: u and
// v follow from k (the y projection is mirrored, which the sign of the
// projected area undoes). These are the only ones the accelerator set-up
// writes.
constexpr ProjectionAxes kProjections[3] = {{0, 1, 2}, {1, 0, 2}, {2, 0, 1}};
constexpr uint32_t axisCode(ProjectionAxes p) {
    return uint32_t(p.k << 4 | p.u << 2 | p.v);
}
// True when the record's projection is the one written for its axis k.
inline bool hasStandardProjection(const TriangleAccel& rec) {
    // Indexed by k; no axis code equals the last, made for k = 3.
    static constexpr uint32_t kCodes[4] = {axisCode(kProjections[0]), axisCode(kProjections[1]),
                                           axisCode(kProjections[2]), ~0u};
    return (rec.axes & 0x3F) == kCodes[rec.axes >> 4 & 3];
}

// Tests the ray o + t r against one record and accepts 0 < t < tMax. The
// barycentric weights are computed scaled by the denominator, so the only
// division on the way to a decision is the one giving t. A single non-zero
// weight means the ray passes through a vertex, which is a hit whatever its
// sign. Reported u and v are the weights of the first and second vertex
// after small weights were zeroed.
template <typename Real>
inline bool intersectTriangle(const TriangleAccel& rec, const Real o[3], const Real r[3], Real tMax,
                              const TriangleTestLimits<Real>& limits, TriangleHit<Real>* hit) {
    if (rec.axes == 0) return false;
    const auto [k, u, v] = projectionAxes(rec);
    const Real nu = rec.nu, nv = rec.nv;
    const Real denom = r[k] + nu * r[u] + nv * r[v];
    if (magnitude(denom) < limits.parallelBelow) return false;
    const Real ou = Real(rec.cu) - o[u], ov = Real(rec.cv) - o[v];
    const Real num = (Real(rec.ck) - o[k]) + nu * ou + nv * ov;
    const Real t = num / denom;
    if (!(t > 0 && t < tMax)) return false;
    const Real hu = r[u] * num - ou * denom;
    const Real hv = r[v] * num - ov * denom;
    Real wA = Real(rec.e2v) * hu - Real(rec.e2u) * hv;
    Real wB = Real(rec.e1u) * hv - Real(rec.e1v) * hu;
    Real wC = denom - wA - wB;
    if (magnitude(wA) < limits.zeroBelow) wA = 0;
    if (magnitude(wB) < limits.zeroBelow) wB = 0;
    if (magnitude(wC) < limits.zeroBelow) wC = 0;
    const int positive = (wA > 0) + (wB > 0) + (wC > 0);
    const int negative = (wA < 0) + (wB < 0) + (wC < 0);
    if (positive + negative == 0) return false;
    if (positive != 0 && negative != 0) return false;
    hit->t = t;
    hit->u = wA / denom;
    hit->v = wB / denom;
    return true;
}

// The same test in single precision for N rays at once, operation for
// operation, so every lane gets the bits of the scalar test: the lanes of
// `candidates` that hit, with t, u and v in `hit` (meaningful in those lanes
// only). Origin is float for rays that share one origin (the record's terms
// relative to it are then computed once, as the scalar test computes them)
// or Floats<N> for rays with their own.
template <int N, typename Origin>
KEL_LANES_INLINE lanes::Mask<float, N> intersectTriangle(const TriangleAccel& rec,
                                                         const Origin o[3], const Floats<N> r[3],
                                                         Floats<N> tMax,
                                                         const TriangleTestLimits<float>& limits,
                                                         lanes::Mask<float, N> candidates,
                                                         TriangleHit<Floats<N>>* hit) {
    if (rec.axes == 0) return lanes::laneMask<N>(0);
    const auto [k, u, v] = projectionAxes(rec);
    const float nu = rec.nu, nv = rec.nv;
    const Floats<N> denom = r[k] + nu * r[u] + nv * r[v];
    auto hits = andNot(candidates, lanes::magnitude(denom) < limits.parallelBelow);
    const Origin ou = rec.cu - o[u], ov = rec.cv - o[v];
    const Origin num = (rec.ck - o[k]) + nu * ou + nv * ov;
    const Floats<N> t = num / denom;
    hits = hits & (t > 0.0f) & (t < tMax);
    if (!hits.any()) return hits;
    const Floats<N> hu = r[u] * num - ou * denom;
    const Floats<N> hv = r[v] * num - ov * denom;
    Floats<N> wA = rec.e2v * hu - rec.e2u * hv;
    Floats<N> wB = rec.e1u * hv - rec.e1v * hu;
    Floats<N> wC = denom - wA - wB;
    wA = lanes::clearWhere(lanes::magnitude(wA) < limits.zeroBelow, wA);
    wB = lanes::clearWhere(lanes::magnitude(wB) < limits.zeroBelow, wB);
    wC = lanes::clearWhere(lanes::magnitude(wC) < limits.zeroBelow, wC);
    const auto positive = (wA > 0.0f) | (wB > 0.0f) | (wC > 0.0f);
    const auto negative = (wA < 0.0f) | (wB < 0.0f) | (wC < 0.0f);
    // Some weight positive or some negative, but not both: no weight left
    // fails, and a single one passes, as a vertex should.
    hits = hits & (positive ^ negative);
    if (!hits.any()) return hits;
    hit->t = t;
    hit->u = wA / denom;
    hit->v = wB / denom;
    return hits;
}

// ---- Tree walk -------------------------------------------------------------

// A ray as the tree walk sees it: its origin, reciprocal direction, the side
// of each split it meets first, and its interval [tNear, tFar].
struct TraversalRay {
    float origin[3];
    float inverse[3];
    int towardsLower[3];  // 1: the child above a split comes first
    float tNear, tFar;
};

// Walks the tree front to back. The leaf tester tests a leaf's triangles,
// returns true when the ray is finished, and tells through reach() how far
// the ray still looks: once that is within the interval just finished, no
// deferred child can hold anything nearer.
template <class LeafTester>
KelStatus traverse(const KDTreeNode* root, const TraversalRay& ray, LeafTester& leaves) {
    struct Deferred {
        const KDTreeNode* node;
        float tFar;
    };
    Deferred stack[kTraversalStackDepth];
    int deferred = 0;
    const KDTreeNode* node = root;
    float tNear = ray.tNear, tFar = ray.tFar;
    for (;;) {
        while (!isLeaf(node)) {
            const int axis = splitAxis(node);
            const float tSplit = (node->data.split - ray.origin[axis]) * ray.inverse[axis];
            const KDTreeNode* pair = childPair(node);
            const KDTreeNode* nearChild = pair + ray.towardsLower[axis];
            const KDTreeNode* farChild = pair + (1 - ray.towardsLower[axis]);
            if (tNear - tSplit > kSplitTolerance) {
                node = farChild;
            } else if (tSplit - tFar > kSplitTolerance) {
                node = nearChild;
            } else {
                if (deferred == kTraversalStackDepth) return KEL_STS_NO_MEM;
                stack[deferred++] = {farChild, tFar};
                const float end = tSplit < tFar ? tSplit : tFar;
                tFar = end > tNear ? end : tNear;
                node = nearChild;
            }
        }
        if (node->data.count > 0 && leaves.testLeaf(leafTriangles(node), node->data.count))
            return KEL_STS_OK;
        if (deferred == 0 || !(leaves.reach() > tFar)) return KEL_STS_OK;
        --deferred;
        tNear = tFar;
        tFar = stack[deferred].tFar;
        node = stack[deferred].node;
    }
}

// The same walk for a packet of N rays that share one order through the
// tree (the query's towardsLower), each lane making the decisions its
// scalar walk would make. Lane sets are ints, bit i for lane i. A child is
// entered when some lane of `live` needs it, with only those lanes taking
// part, and each lane's interval stays what its own walk would have: a
// deferred child remembers the interval [end, far end] of every lane that
// needs it (end is what the scalar walk's tNear is when it comes back). A
// lane ends at a leaf when the query says so (a hit within the interval
// just finished, or an occluder); the walk ends when no lane is left.
//
// Query provides: kLanes; towardsLower[3]; splitDistance(axis, split) ->
// tSplit per lane; testLeaf(list, count, lanes) -> the lanes still looking;
// finished(tFar) -> the lanes done with the interval ending at tFar.
template <class Query>
KelStatus traverse(Query& query, const KDTreeNode* root, Floats<Query::kLanes> tNear,
                   Floats<Query::kLanes> tFar, int live) {
    using Interval = Floats<Query::kLanes>;
    struct Deferred {
        Interval tNear, tFar;
        const KDTreeNode* node;
        int lanes;
    };
    Deferred stack[kTraversalStackDepth];
    int deferred = 0;
    int ended = 0;
    const KDTreeNode* node = root;
    for (;;) {
        while (!isLeaf(node)) {
            const int axis = splitAxis(node);
            const Interval tSplit = query.splitDistance(axis, node->data.split);
            const KDTreeNode* pair = childPair(node);
            const KDTreeNode* nearChild = pair + query.towardsLower[axis];
            const KDTreeNode* farChild = pair + (1 - query.towardsLower[axis]);
            const int farOnly = (tNear - tSplit > kSplitTolerance).bits() & live;
            const int nearOnly = (tSplit - tFar > kSplitTolerance).bits() & live;
            if (farOnly == live) {
                node = farChild;
            } else if (nearOnly == live) {
                node = nearChild;
            } else {
                if (deferred == kTraversalStackDepth) return KEL_STS_NO_MEM;
                const Interval end = max(min(tSplit, tFar), tNear);
                Deferred& later = stack[deferred++];
                later.tNear = end;
                later.tFar = tFar;
                later.node = farChild;
                later.lanes = live & ~nearOnly;
                tFar = end;
                live &= ~farOnly;
                node = nearChild;
            }
        }
        if (node->data.count > 0) {
            const int looking = query.testLeaf(leafTriangles(node), node->data.count, live);
            ended |= live & ~looking;
            live = looking;
        }
        ended |= live & query.finished(tFar);
        do {
            if (deferred == 0) return KEL_STS_OK;
            --deferred;
            live = stack[deferred].lanes & ~ended;
        } while (!live);
        tNear = stack[deferred].tNear;
        tFar = stack[deferred].tFar;
        node = stack[deferred].node;
    }
}

}  // namespace KEL_ISA
}  // namespace kel

#endif
