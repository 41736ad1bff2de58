// Ray-scene queries: nearest hit for rays from one eye, nearest hit for rays
// with their own origins, and any occluder for shadow segments. All three
// walk the kd-tree front to back with one skeleton; they differ in how a ray
// is clipped before the walk, in the triangle test's precision and
// thresholds, and in what ends a ray.
#include "intersect/printersect.h"

#include "intersect/packet.h"

namespace {

using kel::EyeQuery;
using kel::OwnOriginQuery;
using kel::TriangleHit;

// ---- Traversal -----------------------------------------------------------

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
    Deferred stack[kel::kTraversalStackDepth];
    int deferred = 0;
    const KDTreeNode* node = root;
    float tNear = ray.tNear, tFar = ray.tFar;
    for (;;) {
        while (!kel::isLeaf(node)) {
            const int axis = kel::splitAxis(node);
            const float tSplit = (node->data.split - ray.origin[axis]) * ray.inverse[axis];
            const KDTreeNode* pair = kel::childPair(node);
            const KDTreeNode* nearChild = pair + ray.towardsLower[axis];
            const KDTreeNode* farChild = pair + (1 - ray.towardsLower[axis]);
            if (tNear - tSplit > kel::kSplitTolerance) {
                node = farChild;
            } else if (tSplit - tFar > kel::kSplitTolerance) {
                node = nearChild;
            } else {
                if (deferred == kel::kTraversalStackDepth) return KEL_STS_NO_MEM;
                stack[deferred++] = {farChild, tFar};
                const float end = tSplit < tFar ? tSplit : tFar;
                tFar = end > tNear ? end : tNear;
                node = nearChild;
            }
        }
        if (node->data.count > 0 && leaves.testLeaf(kel::leafTriangles(node), node->data.count))
            return KEL_STS_OK;
        if (deferred == 0 || !(leaves.reach() > tFar)) return KEL_STS_OK;
        --deferred;
        tNear = tFar;
        tFar = stack[deferred].tFar;
        node = stack[deferred].node;
    }
}

// Keeps the nearest accepted hit of one ray, written straight to the
// caller's arrays so that a walk cut short by a full stack leaves what it
// had found.
template <class Query>
class NearestHit {
  public:
    using Real = typename Query::Real;

    NearestHit(const TriangleAccel* accel, const float o[3], const float r[3], float* distance,
               float* u, float* v, int* id)
        : accel_(accel), distance_(distance), u_(u), v_(v), id_(id) {
        for (int a = 0; a < 3; ++a) {
            o_[a] = o[a];
            r_[a] = r[a];
        }
    }

    bool testLeaf(const int32_t* triangles, int count) {
        for (int i = 0; i < count; ++i) {
            const int n = triangles[i];
            // The triangle just accepted may be listed in several leaves.
            if (n == lastAccepted_) continue;
            TriangleHit<Real> hit;
            const Real tMax = Real(*distance_) - Query::kMargin;
            if (!kel::intersectTriangle(accel_[n], o_, r_, tMax, Query::kLimits, &hit)) continue;
            *distance_ = float(hit.t);
            *u_ = float(hit.u);
            *v_ = float(hit.v);
            *id_ = n;
            lastAccepted_ = n;
        }
        return false;
    }

    float reach() const { return *distance_; }

  private:
    const TriangleAccel* accel_;
    Real o_[3], r_[3];
    float* distance_;
    float *u_, *v_;
    int* id_;
    int lastAccepted_ = -1;
};

// Stops a shadow segment at the first occluder found.
class FirstOccluder {
  public:
    FirstOccluder(const TriangleAccel* accel, const float o[3], const float r[3], int* id,
                  int* mask)
        : accel_(accel), o_(o), r_(r), id_(id), mask_(mask) {}

    bool testLeaf(const int32_t* triangles, int count) {
        for (int i = 0; i < count; ++i) {
            TriangleHit<float> hit;
            if (!kel::intersectTriangle(accel_[triangles[i]], o_, r_, kel::kSegmentEnd,
                                        kel::kShadowLimits, &hit))
                continue;
            *mask_ = -1;
            *id_ = triangles[i];
            return true;
        }
        return false;
    }

    float reach() const { return kel::kSegmentEnd; }

  private:
    const TriangleAccel* accel_;
    const float* o_;
    const float* r_;
    int* id_;
    int* mask_;
};

// ---- Ray set-up ----------------------------------------------------------

// Narrows [tNear, tFar] to the slab between the ray parameters t1 and t2;
// false when nothing is left.
bool narrowToSlab(float t1, float t2, float* tNear, float* tFar) {
    if (t1 > t2) {
        const float swap = t1;
        t1 = t2;
        t2 = swap;
    }
    if (t1 > *tNear) *tNear = t1;
    if (t2 < *tFar) *tFar = t2;
    return !(*tNear > *tFar);
}

bool isTiny(float component) {
    return !(kel::magnitude(component) > kel::kTinyComponent);
}

// Eye rays: the box is given relative to the shared origin (lo, hi). A slab
// along which the ray does not move is not tested.
bool clipEyeRay(const float r[3], const float lo[3], const float hi[3], TraversalRay* ray) {
    float tNear = 0.0f, tFar = kel::kFloatMax;
    for (int a = 0; a < 3; ++a) {
        if (isTiny(r[a])) {
            ray->inverse[a] = kel::kEyeZeroInverse;
            ray->towardsLower[a] = 0;
            continue;
        }
        ray->inverse[a] = 1.0f / r[a];
        ray->towardsLower[a] = r[a] < 0.0f;
        if (!narrowToSlab(lo[a] / r[a], hi[a] / r[a], &tNear, &tFar)) return false;
    }
    ray->tNear = tNear;
    ray->tFar = tFar + kel::kFarExtension;
    return true;
}

// Rays with their own origins: the caller's distance bounds the interval
// from the start, and a ray that does not move along an axis must start
// strictly inside that slab.
bool clipOwnOriginRay(const float o[3], const float r[3], const float* box, float distance,
                      TraversalRay* ray) {
    float tNear = 0.0f, tFar = distance;
    for (int a = 0; a < 3; ++a) {
        if (isTiny(r[a])) {
            if (!(box[a] < o[a] && o[a] < box[a + 3])) return false;
            ray->inverse[a] = kel::kZeroInverse;
            ray->towardsLower[a] = 0;
            continue;
        }
        const float inverse = 1.0f / r[a];
        ray->inverse[a] = inverse;
        ray->towardsLower[a] = r[a] < 0.0f;
        if (!narrowToSlab((box[a] - o[a]) * inverse, (box[a + 3] - o[a]) * inverse, &tNear, &tFar))
            return false;
    }
    ray->tNear = tNear;
    ray->tFar = tFar + kel::kFarExtension;
    return true;
}

// Shadow segments are not clipped to the box: the segment itself bounds
// the walk. Unlike the clipped queries, a component that is not a number
// keeps its (undefined) inverse.
void aimSegment(const float r[3], TraversalRay* ray) {
    for (int a = 0; a < 3; ++a) {
        ray->inverse[a] =
            kel::magnitude(r[a]) <= kel::kTinyComponent ? kel::kZeroInverse : 1.0f / r[a];
        ray->towardsLower[a] = r[a] < 0.0f;
    }
    ray->tNear = 0.0f;
    ray->tFar = kel::kSegmentReach;
}

void loadRay(const float* const planes[3], int i, float out[3]) {
    for (int a = 0; a < 3; ++a) out[a] = planes[a][i];
}

void copy3(const float in[3], float out[3]) {
    for (int a = 0; a < 3; ++a) out[a] = in[a];
}

}  // namespace

// ---- Scalar workers ------------------------------------------------------

extern "C" {

KEL_API KelStatus ownIntersectEyeBlock(const float origin[3], const float* const direction[3],
                                       const float* pSceneBox, const TriangleAccel* pAccel,
                                       const KDTreeNode* pTree, float* pDistance,
                                       float* const hit[2], int* pTriangleId, int width,
                                       int height) {
    if (height < 1) return KEL_STS_OK;
    float lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = pSceneBox[a] - origin[a];
        hi[a] = pSceneBox[a + 3] - origin[a];
    }
    for (int row = 0; row < height; ++row) {
        for (int column = 0; column < width; ++column) {
            const int i = row * width + column;
            pTriangleId[i] = -1;
            float r[3];
            loadRay(direction, i, r);
            TraversalRay ray;
            if (!clipEyeRay(r, lo, hi, &ray)) continue;
            copy3(origin, ray.origin);
            NearestHit<EyeQuery> leaves(pAccel, origin, r, pDistance + i, hit[0] + i, hit[1] + i,
                                        pTriangleId + i);
            if (traverse(pTree, ray, leaves) != KEL_STS_OK) return KEL_STS_NO_MEM;
        }
    }
    return KEL_STS_OK;
}

KEL_API KelStatus ownIntersectBlock(const float* const origin[3], const float* const direction[3],
                                    const float* pSceneBox, const TriangleAccel* pAccel,
                                    const KDTreeNode* pTree, float* pDistance, float* const hit[2],
                                    int* pTriangleId, int width, int height) {
    for (int row = 0; row < height; ++row) {
        for (int column = 0; column < width; ++column) {
            const int i = row * width + column;
            pTriangleId[i] = -1;
            if (!(pDistance[i] > OwnOriginQuery::kShortestRay)) continue;
            TraversalRay ray;
            float r[3];
            loadRay(origin, i, ray.origin);
            loadRay(direction, i, r);
            if (!clipOwnOriginRay(ray.origin, r, pSceneBox, pDistance[i], &ray)) continue;
            NearestHit<OwnOriginQuery> leaves(pAccel, ray.origin, r, pDistance + i, hit[0] + i,
                                              hit[1] + i, pTriangleId + i);
            if (traverse(pTree, ray, leaves) != KEL_STS_OK) return KEL_STS_NO_MEM;
        }
    }
    return KEL_STS_OK;
}

KEL_API KelStatus ownIntersectAnyBlock(const float origin[3], const float* const direction[3],
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       int* pTriangleId, int* pMask, int width, int height) {
    for (int row = 0; row < height; ++row) {
        for (int column = 0; column < width; ++column) {
            const int i = row * width + column;
            pTriangleId[i] = -1;
            if (pMask[i] < 0) continue;
            TraversalRay ray;
            float r[3];
            loadRay(direction, i, r);
            aimSegment(r, &ray);
            copy3(origin, ray.origin);
            FirstOccluder leaves(pAccel, origin, r, pTriangleId + i, pMask + i);
            if (traverse(pTree, ray, leaves) != KEL_STS_OK) return KEL_STS_NO_MEM;
        }
    }
    return KEL_STS_OK;
}

}  // extern "C"

// ---- Entry points --------------------------------------------------------

namespace {

// The four-ray path takes whole groups of four rays whose per-ray planes
// are 16-byte aligned; only the low two bits of the sides are looked at.
bool blockOfFours(int width, int height) {
    return (width & 3) + (height & 3) == 0;
}

}  // namespace

static bool localEyeFitsFourRays(const float* const direction[3], const float* pDistance,
                                 float* const hit[2], const int* pTriangleId, int width,
                                 int height) {
    return blockOfFours(width, height) && kel::planesAligned16(direction) &&
           kel::isAligned16(pDistance) && kel::planesAligned16(hit, 2) &&
           kel::isAligned16(pTriangleId);
}

static bool localOwnOriginFitsFourRays(const float* const origin[3],
                                       const float* const direction[3], const float* pDistance,
                                       float* const hit[2], const int* pTriangleId, int width,
                                       int height) {
    return blockOfFours(width, height) && kel::planesAligned16(origin) &&
           kel::planesAligned16(direction) && kel::isAligned16(pDistance) &&
           kel::planesAligned16(hit, 2) && kel::isAligned16(pTriangleId);
}

static bool localAnyFitsFourRays(const float* const direction[3], const int* pTriangleId,
                                 const int* pMask, int width, int height) {
    return blockOfFours(width, height) && kel::planesAligned16(direction) &&
           kel::isAligned16(pTriangleId) && kel::isAligned16(pMask);
}

extern "C" {

KEL_API KelStatus kelrIntersectEyeSO_32f(const float origin[3], const float* const direction[3],
                                         float* pDistance, float* const hit[2], int* pTriangleId,
                                         const IntersectContext* pContext, int width, int height) {
    if (localEyeFitsFourRays(direction, pDistance, hit, pTriangleId, width, height))
        return ownIntersectEyeBlock4_w7(origin, direction, pContext->sceneBox,
                                        pContext->triangleAccel, pContext->tree, pDistance, hit,
                                        pTriangleId, width, height);
    return ownIntersectEyeBlock(origin, direction, pContext->sceneBox, pContext->triangleAccel,
                                pContext->tree, pDistance, hit, pTriangleId, width, height);
}

KEL_API KelStatus kelrIntersectMO_32f(const float* const origin[3], const float* const direction[3],
                                      float* pDistance, float* const hit[2], int* pTriangleId,
                                      const IntersectContext* pContext, int width, int height) {
    if (localOwnOriginFitsFourRays(origin, direction, pDistance, hit, pTriangleId, width, height))
        return ownIntersectBlock4_w7(origin, direction, pContext->sceneBox, pContext->triangleAccel,
                                     pContext->tree, pDistance, hit, pTriangleId, width, height);
    return ownIntersectBlock(origin, direction, pContext->sceneBox, pContext->triangleAccel,
                             pContext->tree, pDistance, hit, pTriangleId, width, height);
}

KEL_API KelStatus kelrIntersectAnySO_32f(const float origin[3], const float* const direction[3],
                                         int* pTriangleId, int* pMask, int width, int height,
                                         const IntersectContext* pContext) {
    if (localAnyFitsFourRays(direction, pTriangleId, pMask, width, height))
        return ownIntersectAnyBlock4_w7(origin, direction, pContext->triangleAccel, pContext->tree,
                                        pTriangleId, pMask, width, height);
    return ownIntersectAnyBlock(origin, direction, pContext->triangleAccel, pContext->tree,
                                pTriangleId, pMask, width, height);
}

}  // extern "C"
