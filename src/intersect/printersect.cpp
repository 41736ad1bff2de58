// Ray-scene queries: nearest hit for rays from one eye, nearest hit for rays
// with their own origins, and any occluder for shadow segments. All three
// walk the kd-tree front to back with one skeleton; they differ in how a ray
// is clipped before the walk, in the triangle test's precision and
// thresholds, and in what ends a ray.
#include "intersect/printersect.h"

#include "intersect/packetpath.h"

namespace {

using kel::EyeQuery;
using kel::OwnOriginQuery;
using kel::TraversalRay;
using kel::traverse;
using kel::TriangleHit;

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

// ---- Packet path -----------------------------------------------------------

namespace {

const kel::PacketPaths kSse2Paths = {kel::sse2::kEyePacketPath, kel::sse2::kOwnOriginPacketPath,
                                     kel::sse2::kShadowPacketPath};
const kel::PacketPaths kAvx2Paths = {kel::avx2::kEyePacketPath, kel::avx2::kOwnOriginPacketPath,
                                     kel::avx2::kShadowPacketPath};

}  // namespace

const kel::PacketPaths& kel::packetPaths() {
    return packetIsa() == Isa::kAvx2 ? kAvx2Paths : kSse2Paths;
}

// The exported packet workers run the build of the chosen instruction set.
extern "C" {

KEL_API KelStatus ownIntersectEyeBlock4_w7(const float origin[3], const float* const direction[3],
                                           const float* pSceneBox, const TriangleAccel* pAccel,
                                           const KDTreeNode* pTree, float* pDistance,
                                           float* const hit[2], int* pTriangleId, int width,
                                           int height) {
    return kel::packetPaths().eye.block(origin, direction, pSceneBox, pAccel, pTree, pDistance, hit,
                                        pTriangleId, width, height);
}

KEL_API KelStatus ownIntersectEyeBlock4x2(const float origin[3], const float* const direction[3],
                                          const float* pSceneBox, const TriangleAccel* pAccel,
                                          const KDTreeNode* pTree, float* pDistance,
                                          float* const hit[2], int* pTriangleId, int width) {
    return kel::packetPaths().eye.trace4x2(origin, direction, pSceneBox, pAccel, pTree, pDistance,
                                           hit, pTriangleId, width);
}

KEL_API KelStatus ownIntersectEyeBlock4x1(const float origin[3], const float* const direction[3],
                                          const float* pSceneBox, const TriangleAccel* pAccel,
                                          const KDTreeNode* pTree, float* pDistance,
                                          float* const hit[2], int* pTriangleId, int lanes) {
    return kel::packetPaths().eye.trace4x1(origin, direction, pSceneBox, pAccel, pTree, pDistance,
                                           hit, pTriangleId, lanes);
}

KEL_API KelStatus ownIntersectBlock4_w7(const float* const origin[3],
                                        const float* const direction[3], const float* pSceneBox,
                                        const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                        float* pDistance, float* const hit[2], int* pTriangleId,
                                        int width, int height) {
    return kel::packetPaths().ownOrigin.block(origin, direction, pSceneBox, pAccel, pTree,
                                              pDistance, hit, pTriangleId, width, height);
}

KEL_API KelStatus ownIntersectBlock4x2(const float* const origin[3],
                                       const float* const direction[3], const float* pSceneBox,
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       float* pDistance, float* const hit[2], int* pTriangleId,
                                       int width) {
    return kel::packetPaths().ownOrigin.trace4x2(origin, direction, pSceneBox, pAccel, pTree,
                                                 pDistance, hit, pTriangleId, width);
}

KEL_API KelStatus ownIntersectBlock4x1(const float* const origin[3],
                                       const float* const direction[3], const float* pSceneBox,
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       float* pDistance, float* const hit[2], int* pTriangleId,
                                       int lanes) {
    return kel::packetPaths().ownOrigin.trace4x1(origin, direction, pSceneBox, pAccel, pTree,
                                                 pDistance, hit, pTriangleId, lanes);
}

KEL_API KelStatus ownIntersectAnyBlock4_w7(const float origin[3], const float* const direction[3],
                                           const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                           int* pTriangleId, int* pMask, int width, int height) {
    return kel::packetPaths().shadow.block(origin, direction, pAccel, pTree, pTriangleId, pMask,
                                           width, height);
}

KEL_API KelStatus ownIntersectAnyBlock4x2(const float origin[3], const float* const direction[3],
                                          const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                          int* pTriangleId, int* pMask, int width) {
    return kel::packetPaths().shadow.trace4x2(origin, direction, pAccel, pTree, pTriangleId, pMask,
                                              width);
}

KEL_API KelStatus ownIntersectAnyBlock4x1(const float origin[3], const float* const direction[3],
                                          const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                          int* pTriangleId, int* pMask, int lanes) {
    return kel::packetPaths().shadow.trace4x1(origin, direction, pAccel, pTree, pTriangleId, pMask,
                                              lanes);
}

KEL_API void ownIntersectOccluder4x4(const float origin[3], const float* const direction[3],
                                     const TriangleAccel* pAccel, int triangle, int* pTriangleId,
                                     int* pMask, int width) {
    kel::packetPaths().shadow.occluder4x4(origin, direction, pAccel, triangle, pTriangleId, pMask,
                                          width);
}

KEL_API int ownIntersectNearestOccl(const float origin[3], const float direction[3],
                                    const TriangleAccel* pAccel, const KDTreeNode* pTree) {
    return kel::packetPaths().shadow.nearestOccluder(origin, direction, pAccel, pTree);
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
