// Four-ray SSE2 tracing: the tree walk that every packet kernel shares, the
// four-lane ray-triangle test, and the drivers' tiling, which cuts a block
// into 4 x 4 tiles and hands the kernels groups of rays that share the
// octant of their direction, so that the four lanes of a packet meet the
// children of every node in the same order.
#ifndef KEL_INTERSECT_PACKET_H
#define KEL_INTERSECT_PACKET_H

#include <emmintrin.h>

#include "intersect/printersect.h"

extern "C" {

// ---- Drivers: whole blocks, sides multiples of 4, planes 16-byte aligned --

KEL_API KelStatus ownIntersectEyeBlock4_w7(const float origin[3], const float* const direction[3],
                                           const float* pSceneBox, const TriangleAccel* pAccel,
                                           const KDTreeNode* pTree, float* pDistance,
                                           float* const hit[2], int* pTriangleId, int width,
                                           int height);
KEL_API KelStatus ownIntersectBlock4_w7(const float* const origin[3],
                                        const float* const direction[3], const float* pSceneBox,
                                        const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                        float* pDistance, float* const hit[2], int* pTriangleId,
                                        int width, int height);
KEL_API KelStatus ownIntersectAnyBlock4_w7(const float origin[3], const float* const direction[3],
                                           const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                           int* pTriangleId, int* pMask, int width, int height);

// ---- Packet kernels ------------------------------------------------------
// The 4x2 kernels trace the four rays at the plane pointers and the four one
// row (width elements) further on, all of one octant; the 4x1 kernels trace
// the four rays at the plane pointers whose bit is set in `lanes` (bit i:
// ray i), which share one octant, and leave the other lanes untouched.

KEL_API KelStatus ownIntersectEyeBlock4x2(const float origin[3], const float* const direction[3],
                                          const float* pSceneBox, const TriangleAccel* pAccel,
                                          const KDTreeNode* pTree, float* pDistance,
                                          float* const hit[2], int* pTriangleId, int width);
KEL_API KelStatus ownIntersectEyeBlock4x1(const float origin[3], const float* const direction[3],
                                          const float* pSceneBox, const TriangleAccel* pAccel,
                                          const KDTreeNode* pTree, float* pDistance,
                                          float* const hit[2], int* pTriangleId, int lanes);

// The rays-with-own-origins twins of the eye kernels.
KEL_API KelStatus ownIntersectBlock4x2(const float* const origin[3],
                                       const float* const direction[3], const float* pSceneBox,
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       float* pDistance, float* const hit[2], int* pTriangleId,
                                       int width);
KEL_API KelStatus ownIntersectBlock4x1(const float* const origin[3],
                                       const float* const direction[3], const float* pSceneBox,
                                       const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                       float* pDistance, float* const hit[2], int* pTriangleId,
                                       int lanes);

// Shadow segments; rays whose mask entry is negative are not traced.
KEL_API KelStatus ownIntersectAnyBlock4x2(const float origin[3], const float* const direction[3],
                                          const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                          int* pTriangleId, int* pMask, int width);
KEL_API KelStatus ownIntersectAnyBlock4x1(const float origin[3], const float* const direction[3],
                                          const TriangleAccel* pAccel, const KDTreeNode* pTree,
                                          int* pTriangleId, int* pMask, int lanes);

// Marks the rays of the 4 x 4 tile at the plane pointers (rows width
// elements apart) that `triangle` occludes, as the shadow query marks them.
KEL_API void ownIntersectOccluder4x4(const float origin[3], const float* const direction[3],
                                     const TriangleAccel* pAccel, int triangle, int* pTriangleId,
                                     int* pMask, int width);

// The nearest triangle on the segment origin + t direction, 0 < t < 1, or -1.
KEL_API int ownIntersectNearestOccl(const float origin[3], const float direction[3],
                                    const TriangleAccel* pAccel, const KDTreeNode* pTree);

}  // extern "C"

namespace kel {
namespace packet {

constexpr int kAllLanes = 0xF;

// All ones in the lanes whose bit is set.
inline __m128 laneMask(int lanes) {
    const __m128i bit = _mm_set_epi32(8, 4, 2, 1);
    return _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_and_si128(_mm_set1_epi32(lanes), bit), bit));
}

inline __m128 select(__m128 mask, __m128 a, __m128 b) {
    return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}

inline __m128i select(__m128 mask, __m128i a, __m128i b) {
    return _mm_castps_si128(select(mask, _mm_castsi128_ps(a), _mm_castsi128_ps(b)));
}

inline __m128 magnitude(__m128 x) {
    return _mm_and_ps(x, _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF)));
}

// The lanes whose component is too small to invert, as the scalar walks
// decide it (a NaN counts as small).
inline __m128 tinyComponents(__m128 r) {
    return _mm_cmpngt_ps(magnitude(r), _mm_set1_ps(kTinyComponent));
}

// 1 when a traced lane of `r` points towards lower coordinates: the shared
// order of the packet's lanes on that axis.
inline int towardsLower(__m128 r, int lanes) {
    return (_mm_movemask_ps(_mm_cmplt_ps(r, _mm_setzero_ps())) & lanes) != 0;
}

// The lanes that the nearest-hit walks send towards lower coordinates on an
// axis: negative components large enough to invert. A tiny negative one
// walks as if it were positive.
inline int invertedNegative(__m128 r) {
    return _mm_movemask_ps(_mm_andnot_ps(tinyComponents(r), _mm_cmplt_ps(r, _mm_setzero_ps())));
}

// ---- Four-lane ray-triangle test -------------------------------------------

// The accelerator record's test, step for step as the scalar walks run it in
// single precision, for four rays at once, in two parts so that a record
// whose plane no lane meets within range costs only the first.

// The denominator: the rays' direction along the record's plane normal,
// scaled so that the dominant axis counts 1.
inline __m128 planeDenominator(const TriangleAccel& rec, int k, int u, int v,
                               const __m128 direction[3]) {
    return _mm_add_ps(_mm_add_ps(direction[k], _mm_mul_ps(_mm_set1_ps(rec.nu), direction[u])),
                      _mm_mul_ps(_mm_set1_ps(rec.nv), direction[v]));
}

// Scaled barycentric weights of the vertices (A, B, C) and the lanes inside
// the triangle. ou, ov and num hold the record's corner relative to each
// ray's origin (in the u, v plane) and the scaled distance to its plane.
// Weights below zeroBelow in magnitude count as 0; the sign rule then
// reduces to "some weight positive or some negative, but not both", so one
// non-zero weight passes, as the vertex case requires.
struct TriangleWeights {
    __m128 wA, wB, wC;
    __m128 inside;
};

inline TriangleWeights triangleWeights(const TriangleAccel& rec, int u, int v,
                                       const __m128 direction[3], __m128 ou, __m128 ov, __m128 num,
                                       __m128 denom, __m128 zeroBelow) {
    const __m128 hu = _mm_sub_ps(_mm_mul_ps(direction[u], num), _mm_mul_ps(ou, denom));
    const __m128 hv = _mm_sub_ps(_mm_mul_ps(direction[v], num), _mm_mul_ps(ov, denom));
    __m128 wA =
        _mm_sub_ps(_mm_mul_ps(_mm_set1_ps(rec.e2v), hu), _mm_mul_ps(_mm_set1_ps(rec.e2u), hv));
    __m128 wB =
        _mm_sub_ps(_mm_mul_ps(_mm_set1_ps(rec.e1u), hv), _mm_mul_ps(_mm_set1_ps(rec.e1v), hu));
    __m128 wC = _mm_sub_ps(_mm_sub_ps(denom, wA), wB);
    wA = _mm_andnot_ps(_mm_cmplt_ps(magnitude(wA), zeroBelow), wA);
    wB = _mm_andnot_ps(_mm_cmplt_ps(magnitude(wB), zeroBelow), wB);
    wC = _mm_andnot_ps(_mm_cmplt_ps(magnitude(wC), zeroBelow), wC);
    const __m128 zero = _mm_setzero_ps();
    const __m128 positive = _mm_or_ps(_mm_or_ps(_mm_cmpgt_ps(wA, zero), _mm_cmpgt_ps(wB, zero)),
                                      _mm_cmpgt_ps(wC, zero));
    const __m128 negative = _mm_or_ps(_mm_or_ps(_mm_cmplt_ps(wA, zero), _mm_cmplt_ps(wB, zero)),
                                      _mm_cmplt_ps(wC, zero));
    return {wA, wB, wC, _mm_xor_ps(positive, negative)};
}

// The record's corner and plane relative to an origin that all four rays
// share: computed once, in the scalar walk's order, then broadcast.
struct SharedOriginTerms {
    __m128 ou, ov, num;
};

inline SharedOriginTerms sharedOriginTerms(const TriangleAccel& rec, int k, int u, int v,
                                           const float origin[3]) {
    const float ou = rec.cu - origin[u], ov = rec.cv - origin[v];
    const float num = (rec.ck - origin[k]) + rec.nu * ou + rec.nv * ov;
    return {_mm_set1_ps(ou), _mm_set1_ps(ov), _mm_set1_ps(num)};
}

// ---- Tree walk -------------------------------------------------------------

// A packet is one or two quads of four lanes (a 4x1 row, or the two rows of
// a 4x2 call); lane i of quad q is bit 4q + i of a lane set.
inline int quadLanes(int lanes, int quad) {
    return (lanes >> (4 * quad)) & kAllLanes;
}

// The nearest-hit kernels' results while they walk: per lane the distance,
// the barycentric u and v and the triangle id, which doubles as the hit
// memory (the last triangle accepted).
template <int Quads>
struct NearestLanes {
    __m128 distance[Quads], u[Quads], v[Quads];
    __m128i id[Quads];

    // Rows are `width` elements apart. The lanes traced start without a hit;
    // the others keep what the caller holds, so that storing leaves them as
    // they were.
    void load(const float* pDistance, float* const hit[2], const int* pTriangleId, int width,
              int lanes) {
        for (int q = 0; q < Quads; ++q) {
            const int row = q * width;
            distance[q] = _mm_load_ps(pDistance + row);
            u[q] = _mm_load_ps(hit[0] + row);
            v[q] = _mm_load_ps(hit[1] + row);
            const __m128i ids = _mm_load_si128(reinterpret_cast<const __m128i*>(pTriangleId + row));
            id[q] = select(laneMask(quadLanes(lanes, q)), _mm_set1_epi32(-1), ids);
        }
    }

    void store(float* pDistance, float* const hit[2], int* pTriangleId, int width) const {
        for (int q = 0; q < Quads; ++q) {
            const int row = q * width;
            _mm_store_ps(pDistance + row, distance[q]);
            _mm_store_ps(hit[0] + row, u[q]);
            _mm_store_ps(hit[1] + row, v[q]);
            _mm_store_si128(reinterpret_cast<__m128i*>(pTriangleId + row), id[q]);
        }
    }

    // A hit within the interval just finished is nearer than anything behind.
    int finished(const __m128* tFar) const {
        int lanes = 0;
        for (int q = 0; q < Quads; ++q)
            lanes |= _mm_movemask_ps(_mm_cmpngt_ps(distance[q], tFar[q])) << (4 * q);
        return lanes;
    }
};

// Walks the tree front to back with the lanes in `live`, each lane making the
// decisions its scalar walk would make. The packet follows one order (the
// query's towardsLower, shared by all its lanes) and keeps one stack; a child
// is entered when some lane needs it, with only those lanes taking part, and
// each lane's interval stays what its own walk would have: a deferred child
// remembers the interval [split, far end] of every lane that needs it. A
// lane ends at a leaf when the query says so (a hit within the interval just
// finished, or an occluder); the walk ends when no lane is left.
//
// Query provides: kQuads; towardsLower[3]; splitDistance(axis, split, quad)
// -> tSplit per lane; testLeaf(list, count, lanes) -> the lanes still
// looking; finished(tFar) -> lanes done with the interval ending at tFar.
template <class Query>
KelStatus traverse(Query& query, const KDTreeNode* root, const __m128* tNearIn,
                   const __m128* tFarIn, int live) {
    constexpr int Q = Query::kQuads;
    struct Deferred {
        __m128 tNear[Q], tFar[Q];
        const KDTreeNode* node;
        int lanes;
    };
    Deferred stack[kTraversalStackDepth];
    int deferred = 0;
    int ended = 0;
    __m128 tNear[Q], tFar[Q];
    for (int q = 0; q < Q; ++q) {
        tNear[q] = tNearIn[q];
        tFar[q] = tFarIn[q];
    }
    const __m128 tolerance = _mm_set1_ps(kSplitTolerance);
    const KDTreeNode* node = root;
    for (;;) {
        while (!isLeaf(node)) {
            const int axis = splitAxis(node);
            const KDTreeNode* pair = childPair(node);
            const KDTreeNode* nearChild = pair + query.towardsLower[axis];
            const KDTreeNode* farChild = pair + (1 - query.towardsLower[axis]);
            __m128 tSplit[Q];
            int farOnly = 0, nearOnly = 0;
            for (int q = 0; q < Q; ++q) {
                tSplit[q] = query.splitDistance(axis, node->data.split, q);
                farOnly |= _mm_movemask_ps(_mm_cmpgt_ps(_mm_sub_ps(tNear[q], tSplit[q]), tolerance))
                           << (4 * q);
                nearOnly |= _mm_movemask_ps(_mm_cmpgt_ps(_mm_sub_ps(tSplit[q], tFar[q]), tolerance))
                            << (4 * q);
            }
            farOnly &= live;
            nearOnly &= live;
            if (farOnly == live) {
                node = farChild;
            } else if (nearOnly == live) {
                node = nearChild;
            } else {
                if (deferred == kTraversalStackDepth) return KEL_STS_NO_MEM;
                Deferred& later = stack[deferred++];
                for (int q = 0; q < Q; ++q) {
                    const __m128 end = _mm_max_ps(_mm_min_ps(tSplit[q], tFar[q]), tNear[q]);
                    later.tNear[q] = end;
                    later.tFar[q] = tFar[q];
                    tFar[q] = end;
                }
                later.node = farChild;
                later.lanes = live & ~nearOnly;
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
        for (;;) {
            if (deferred == 0) return KEL_STS_OK;
            const Deferred& next = stack[--deferred];
            live = next.lanes & ~ended;
            if (live) {
                for (int q = 0; q < Q; ++q) {
                    tNear[q] = next.tNear[q];
                    tFar[q] = next.tFar[q];
                }
                node = next.node;
                break;
            }
        }
    }
}

// Narrows each lane's interval to one slab, except on lanes whose direction
// component is too small to invert: the scalar walks skip that slab.
inline void narrowToSlab(__m128 tiny, __m128 t1, __m128 t2, __m128* entry, __m128* exit) {
    *entry = select(tiny, *entry, _mm_max_ps(_mm_min_ps(t2, t1), *entry));
    *exit = select(tiny, *exit, _mm_min_ps(_mm_max_ps(t1, t2), *exit));
}

// Sets quad q's walking interval from its clipped one, the far end extended
// as the scalar walks extend it; returns the quad's lanes that still cross
// the box, as bits of the packet's lane set.
inline int startInterval(__m128 entry, __m128 exit, int quad, int q, __m128* tNear, __m128* tFar) {
    tNear[q] = entry;
    tFar[q] = _mm_add_ps(exit, _mm_set1_ps(kFarExtension));
    return (quad & ~_mm_movemask_ps(_mm_cmpgt_ps(entry, exit))) << (4 * q);
}

// Walks the `live` lanes in groups that share the scalar walk's order on
// every axis (`negative`: per axis, the lanes that walk towards lower
// coordinates). Lanes of one octant form one group, except that a tiny
// negative component walks as a positive one: such a lane gets a walk of
// its own rather than a stand-in order.
template <class Query>
KelStatus traverseByOrder(Query& query, const int negative[3], const KDTreeNode* root,
                          const __m128* tNear, const __m128* tFar, int live) {
    KelStatus status = KEL_STS_OK;
    while (live) {
        const int lane = __builtin_ctz(unsigned(live));
        int group = live;
        for (int a = 0; a < 3; ++a) {
            query.towardsLower[a] = negative[a] >> lane & 1;
            group &= query.towardsLower[a] ? negative[a] : ~negative[a];
        }
        const KelStatus walk = traverse(query, root, tNear, tFar, group);
        if (walk != KEL_STS_OK) status = walk;
        live &= ~group;
    }
    return status;
}

// The nearest-hit kernels' last step: walk the lanes that cross the box, then
// write back every lane loaded (the others unchanged).
template <class Rays>
KelStatus traceAndStore(Rays& rays, const KDTreeNode* tree, const __m128* tNear, const __m128* tFar,
                        int live, float* pDistance, float* const hit[2], int* pTriangleId,
                        int width) {
    const KelStatus status =
        live ? traverseByOrder(rays, rays.negative, tree, tNear, tFar, live) : KEL_STS_OK;
    rays.store(pDistance, hit, pTriangleId, width);
    return status;
}

// ---- Tiling ----------------------------------------------------------------

// The octant codes of a tile's 16 rays, one 16-bit set per axis (bit
// 4 x row + column) of the rays whose component is negative (d < 0: -0.0
// and NaN count as not negative).
struct TileOctants {
    int negative[3];
};

inline TileOctants tileOctants(const float* const direction[3], int first, int width) {
    TileOctants o;
    for (int a = 0; a < 3; ++a) {
        int bits = 0;
        for (int row = 0; row < 4; ++row) {
            const __m128 d = _mm_load_ps(direction[a] + first + row * width);
            bits |= _mm_movemask_ps(_mm_cmplt_ps(d, _mm_setzero_ps())) << (4 * row);
        }
        o.negative[a] = bits;
    }
    return o;
}

// The rays of the tile whose octant code is `code`.
inline int octantRays(const TileOctants& o, int code) {
    int rays = 0xFFFF;
    for (int a = 0; a < 3; ++a) rays &= (code >> a & 1) ? o.negative[a] : ~o.negative[a];
    return rays & 0xFFFF;
}

// Traces the `rays` of the tile at `first` (a non-empty 16-bit set) in
// octant-coherent groups: as two eight-ray packets when they share one
// octant, else one row at a time per octant, octants ascending, rows in
// order, with only that octant's lanes active.
template <class Kernels>
void traceTileByOctant(Kernels& kernels, const TileOctants& octants, int first, int width,
                       int rays) {
    for (int code = 0; code < 8; ++code) {
        if ((octantRays(octants, code) & rays) == rays) {
            kernels.trace4x2(first);
            kernels.trace4x2(first + 2 * width);
            return;
        }
    }
    for (int code = 0; code < 8; ++code) {
        const int group = octantRays(octants, code) & rays;
        for (int row = 0; row < 4; ++row) {
            const int lanes = (group >> (4 * row)) & kAllLanes;
            if (lanes) kernels.trace4x1(first + row * width, lanes);
        }
    }
}

// A driver's plane pointers advanced to the ray where a kernel starts.
template <int N, typename T>
struct PlanesAt {
    T* p[N];
};

template <int N, typename T>
PlanesAt<N, T> planesAt(T* const* planes, int first) {
    PlanesAt<N, T> at;
    for (int i = 0; i < N; ++i) at.p[i] = planes[i] + first;
    return at;
}

// Marks every ray of the block as a miss before any kernel runs, sixteen
// ids at a time while that many remain, then four at a time.
inline void fillNoHit(int* pTriangleId, int count) {
    const __m128i none = _mm_set1_epi32(-1);
    int i = 0;
    for (; count - i >= 16; i += 16) {
        __m128i* p = reinterpret_cast<__m128i*>(pTriangleId + i);
        _mm_store_si128(p, none);
        _mm_store_si128(p + 1, none);
        _mm_store_si128(p + 2, none);
        _mm_store_si128(p + 3, none);
    }
    for (; count - i >= 4; i += 4)
        _mm_store_si128(reinterpret_cast<__m128i*>(pTriangleId + i), none);
}

// The nearest-hit drivers: every tile of the block traced by octant.
// Kernels: trace4x2(first ray), trace4x1(first ray of the row, lanes).
template <class Kernels>
KelStatus traceNearestTiles(Kernels& kernels, const float* const direction[3], int* pTriangleId,
                            int width, int height) {
    fillNoHit(pTriangleId, width * height);
    for (int row = 0; row < height / 4 * 4; row += 4) {
        if (width < 1) return KEL_STS_OK;
        for (int column = 0; column < width; column += 4) {
            const int first = row * width + column;
            traceTileByOctant(kernels, tileOctants(direction, first, width), first, width, 0xFFFF);
        }
    }
    return KEL_STS_OK;
}

// The nearest-hit drivers' kernels, called on rays numbered from the start of
// the block. Origin is the shared origin (three floats) of eye rays or the
// origin planes of rays with an origin each; the two kernels take it as such.
template <typename Origin, auto kTrace4x2, auto kTrace4x1>
struct NearestKernels {
    Origin origin;
    const float* const* direction;
    const float* box;
    const TriangleAccel* accel;
    const KDTreeNode* tree;
    float* distance;
    float* const* hit;
    int* id;
    int width;

    // Every ray of an eye block starts at the one origin; only planes advance.
    struct SharedOrigin {
        const float* p;
    };
    static SharedOrigin originAt(const float* shared, int) { return {shared}; }
    static PlanesAt<3, const float> originAt(const float* const* planes, int first) {
        return planesAt<3>(planes, first);
    }

    void trace4x2(int first) {
        kTrace4x2(originAt(origin, first).p, planesAt<3>(direction, first).p, box, accel, tree,
                  distance + first, planesAt<2>(hit, first).p, id + first, width);
    }
    void trace4x1(int first, int lanes) {
        kTrace4x1(originAt(origin, first).p, planesAt<3>(direction, first).p, box, accel, tree,
                  distance + first, planesAt<2>(hit, first).p, id + first, lanes);
    }
};

// The rays of the tile at `first` whose mask entry is >= 0.
inline int tracedRays(const int* pMask, int first, int width) {
    int rays = 0;
    for (int row = 0; row < 4; ++row) {
        const __m128i m =
            _mm_load_si128(reinterpret_cast<const __m128i*>(pMask + first + row * width));
        rays |= (_mm_movemask_ps(_mm_castsi128_ps(m)) ^ kAllLanes) << (4 * row);
    }
    return rays;
}

// The shadow driver. Neighbouring points lit by one light tend to lie in the
// shadow of the same triangle: the nearest occluder of one representative
// ray is tested against each tile first, and only the rays it leaves are
// traced through the tree, grouped by octant.
// Kernels: as for traceNearestTiles, plus nearestOccluder(ray) and
// occluder4x4(first ray, triangle).
template <class Kernels>
KelStatus traceShadowTiles(Kernels& kernels, const float* const direction[3], int* pTriangleId,
                           int* pMask, int width, int height) {
    fillNoHit(pTriangleId, width * height);
    int occluder = -1;
    if (width >= 4 && height >= 4) {
        for (int column = 0; column < 4; ++column) {
            if (pMask[3 * width + column] >= 0) {
                occluder = kernels.nearestOccluder(3 * width + column);
                break;
            }
        }
    }
    for (int row = 0; row < height / 4 * 4; row += 4) {
        if (width < 1) return KEL_STS_OK;
        for (int column = 0; column < width; column += 4) {
            const int first = row * width + column;
            int rays = tracedRays(pMask, first, width);
            if (!rays) continue;
            if (occluder >= 0) {
                kernels.occluder4x4(first, occluder);
                rays = tracedRays(pMask, first, width);
                if (!rays) continue;
            }
            traceTileByOctant(kernels, tileOctants(direction, first, width), first, width, rays);
        }
    }
    return KEL_STS_OK;
}

}  // namespace packet
}  // namespace kel

#endif
