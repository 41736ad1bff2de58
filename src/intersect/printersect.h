// Ray-scene queries: the scalar workers behind the intersection entry points,
// and the pieces that every kernel shares: reading the packed kd-tree, the
// traversal constants, and the ray-triangle test on an accelerator record.
#ifndef KEL_INTERSECT_PRINTERSECT_H
#define KEL_INTERSECT_PRINTERSECT_H

#include "core/kel_private.h"

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

}  // namespace kel

#endif
