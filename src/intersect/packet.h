// Packet tracing: what the packet kernels share beyond the walk and the
// triangle test (their lanes' results, clipping to the box, the choice of
// walking order), and the drivers' tiling, which cuts a block into 4 x 4
// tiles and hands the kernels groups of rays that share the octant of their
// direction, so that the lanes of a packet meet the children of every node
// in the same order. A packet is four rays of one tile row (4x1) or the
// eight of two rows (4x2); lane 4 q + i is column i of row q.
#ifndef KEL_INTERSECT_PACKET_H
#define KEL_INTERSECT_PACKET_H

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
inline namespace KEL_ISA {
namespace packet {

template <int N>
using LaneMask = lanes::Mask<float, N>;

constexpr int kAllLanes = 0xF;

// The lanes whose component is too small to invert, as the scalar walks
// decide it (a NaN counts as small).
template <int N>
inline LaneMask<N> tinyComponents(Floats<N> r) {
    return notGreater(lanes::magnitude(r), kTinyComponent);
}

// 1 when a traced lane of `r` points towards lower coordinates: the shared
// order of the packet's lanes on that axis.
template <int N>
inline int towardsLower(Floats<N> r, int lanes) {
    return ((r < 0.0f).bits() & lanes) != 0;
}

// The lanes that the nearest-hit walks send towards lower coordinates on an
// axis: negative components large enough to invert. A tiny negative one
// walks as if it were positive.
template <int N>
inline int invertedNegative(Floats<N> r) {
    return andNot(r < 0.0f, tinyComponents(r)).bits();
}

// ---- Nearest-hit kernels ---------------------------------------------------

// The nearest-hit kernels' results while they walk: per lane the distance,
// the barycentric u and v and the triangle id, which doubles as the hit
// memory (the last triangle accepted).
template <int N>
struct NearestLanes {
    Floats<N> distance, u, v;
    Ints<N> id;

    // Rows are `width` elements apart. The lanes traced start without a hit;
    // the others keep what the caller holds, so that storing leaves them as
    // they were.
    void load(const float* pDistance, float* const hit[2], const int* pTriangleId, int width,
              int lanes) {
        distance = Floats<N>::loadRows(pDistance, width);
        u = Floats<N>::loadRows(hit[0], width);
        v = Floats<N>::loadRows(hit[1], width);
        id = select(lanes::laneMask<N>(lanes), Ints<N>(-1), Ints<N>::loadRows(pTriangleId, width));
    }

    void store(float* pDistance, float* const hit[2], int* pTriangleId, int width) const {
        distance.storeRows(pDistance, width);
        u.storeRows(hit[0], width);
        v.storeRows(hit[1], width);
        id.storeRows(pTriangleId, width);
    }

    // A hit within the interval just finished is nearer than anything behind.
    int finished(Floats<N> tFar) const { return notGreater(distance, tFar).bits(); }
};

// Narrows each lane's interval to one slab, except on lanes whose direction
// component is too small to invert: the scalar walks skip that slab.
template <int N>
inline void narrowToSlab(LaneMask<N> tiny, Floats<N> t1, Floats<N> t2, Floats<N>* entry,
                         Floats<N>* exit) {
    *entry = select(tiny, *entry, max(min(t2, t1), *entry));
    *exit = select(tiny, *exit, min(max(t1, t2), *exit));
}

// Sets the walking interval from the clipped one, the far end extended as
// the scalar walks extend it; returns the lanes of `lanes` that still cross
// the box.
template <int N>
inline int startInterval(Floats<N> entry, Floats<N> exit, int lanes, Floats<N>* tNear,
                         Floats<N>* tFar) {
    *tNear = entry;
    *tFar = exit + kFarExtension;
    return lanes & ~(entry > exit).bits();
}

// Walks the `live` lanes in groups that share the scalar walk's order on
// every axis (`negative`: per axis, the lanes that walk towards lower
// coordinates). Lanes of one octant form one group, except that a tiny
// negative component walks as a positive one: such a lane gets a walk of
// its own rather than a stand-in order.
template <class Query>
KelStatus traverseByOrder(Query& query, const int negative[3], const KDTreeNode* root,
                          Floats<Query::kLanes> tNear, Floats<Query::kLanes> tFar, int live) {
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
KelStatus traceAndStore(Rays& rays, const KDTreeNode* tree, Floats<Rays::kLanes> tNear,
                        Floats<Rays::kLanes> tFar, int live, float* pDistance, float* const hit[2],
                        int* pTriangleId, int width) {
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
        const float* rows = direction[a] + first;
        o.negative[a] = (Floats<8>::loadRows(rows, width) < 0.0f).bits() |
                        (Floats<8>::loadRows(rows + 2 * width, width) < 0.0f).bits() << 8;
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
    const Ints<4> none(-1);
    int i = 0;
    for (; count - i >= 16; i += 16)
        for (int j = 0; j < 16; j += 4) none.store(pTriangleId + i + j);
    for (; count - i >= 4; i += 4) none.store(pTriangleId + i);
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

// A nearest-hit driver made of its two kernels: the whole block, tile by
// tile. Origin as for NearestKernels.
template <typename Origin, auto kTrace4x2, auto kTrace4x1>
KelStatus traceNearestBlock(Origin origin, const float* const direction[3], const float* box,
                            const TriangleAccel* accel, const KDTreeNode* tree, float* distance,
                            float* const hit[2], int* id, int width, int height) {
    NearestKernels<Origin, kTrace4x2, kTrace4x1> kernels{origin,   direction, box, accel, tree,
                                                         distance, hit,       id,  width};
    return traceNearestTiles(kernels, direction, id, width, height);
}

// The rays of the tile at `first` whose mask entry is >= 0.
inline int tracedRays(const int* pMask, int first, int width) {
    int rays = 0;
    for (int row = 0; row < 4; ++row)
        rays |= ((Ints<4>::load(pMask + first + row * width) < Ints<4>(0)).bits() ^ kAllLanes)
                << (4 * row);
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
}  // namespace KEL_ISA
}  // namespace kel

#endif
