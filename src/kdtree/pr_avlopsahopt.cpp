// The PSAH optimisation: grows the build tree depth first from one root leaf.
// Every node is priced as a leaf against its cheapest axis-aligned split under
// a surface-area cost model; a split hands the node's patches to two children,
// cutting the ones that straddle the plane. Small nodes are searched here in
// single precision; wide ones search their axes on separate threads in double
// precision. Nothing is allocated per node: records come from the build
// state's chunk lists, its two stack-like pools and its free lists.
#include "kdtree/psah.h"

namespace {

using kel::PsahBuildNode;
using kel::PsahBuildState;
using kel::PsahPatch;
using kel::PsahPool;
using kel::SplitDecision;

constexpr float kMinExtent = 1e-5f;
constexpr double kMinGain = double(kMinExtent);
constexpr float kEmptyFraction = 0.1f;
// Cutting off empty space pays for itself in traversal; the bonus makes such
// cuts look cheaper than the plain cost says.
constexpr float kEmptyBonusF = 0.7f;
constexpr double kEmptyBonus = double(kEmptyBonusF);
constexpr double kProductFloor = 1e-09;
constexpr double kNoCost = 1.7976931348623157e+308;
constexpr double kLeafFactorScale = 0.5057569742202759;

// Nodes up to this many patches are searched in line with comparison sorts.
constexpr int kSmallNodeMax = 75;
// From this many values on the radix sort beats the comparison sort.
constexpr int kRadixMinCount = 321;
// One entry per level of the current path; maxDepth is at most 50.
constexpr int kStackEntries = 50;
// Entries a and a + 1 are the two axes other than a.
constexpr int kOtherAxes[5] = {1, 2, 0, 1, 2};
constexpr int kMaxPieceVertices = 9;

// One axis's best split. The leaf cost stands in until a candidate is found.
struct AxisSplit {
    double cost;
    float position;
    int32_t leftCount;
    int32_t rightCount;
    int32_t planarSide;
};

// A node with its box and depth, and the pool positions to return to when
// it is taken up: the current node, or a deferred left child.
struct PsahStackEntry {
    PsahBuildNode* node;
    float box[6];
    int32_t depth;
    char* patchMark;
    char* vertexMark;
};

inline float extentOf(const float* box, int axis) {
    return box[axis + 3] - box[axis];
}

// An axis is worth sweeping only when it and at least one other axis have
// room: otherwise every candidate box is flat and the cost says nothing.
bool axisSearchable(const float* box, int axis) {
    return extentOf(box, axis) > kMinExtent && (extentOf(box, kOtherAxes[axis]) > kMinExtent ||
                                                extentOf(box, kOtherAxes[axis + 1]) > kMinExtent);
}

// n times half the box's surface area.
double leafCost(const float* box, int n) {
    const double dx = extentOf(box, 0), dy = extentOf(box, 1), dz = extentOf(box, 2);
    return double(n) * (dx * (dy + dz) + dy * dz);
}

template <typename T>
void copyRecords(const T* src, T* dst, int count) {
    kelsCopy_32s(reinterpret_cast<const int32_t*>(src), reinterpret_cast<int32_t*>(dst),
                 count * int(sizeof(T) / sizeof(int32_t)));
}

// A mark outside the pool (a null one, say) leaves it as it is.
void rewindPool(PsahPool* pool, char* mark) {
    const uintptr_t m = uintptr_t(mark);
    if (m >= uintptr_t(pool->base) && m < uintptr_t(pool->end)) pool->cursor = mark;
}

// ---------------------------------------------------------------------------
// Events of one axis: the patches' extents, sorted.

struct AxisEvents {
    float* minima;
    float* maxima;
    float* planar;
    int count;        // non-planar patches: entries in minima and maxima
    int planarCount;  // patches lying in one plane across the axis
};

void sortEvents(float* values, int count, float* workspace) {
    if (count >= kRadixMinCount)
        ownRadixSortAccend_32f_w7(values, workspace, uint32_t(count));
    else
        kelsSortAscend_32f_I(values, count);  // refuses an empty array, which needs no sort
}

// Minima and maxima are sorted independently: the sweep only counts how many
// of each lie on either side of a candidate. arrays are minima, maxima,
// planar values and sort workspace.
AxisEvents gatherEvents(const PsahPatch* patches, int n, int axis, float* const* arrays) {
    AxisEvents ev = {arrays[0], arrays[1], arrays[2], 0, 0};
    for (int i = 0; i < n; ++i) {
        const float lo = kel::patchMin(patches[i], axis), hi = kel::patchMax(patches[i], axis);
        if (lo == hi) {
            ev.planar[ev.planarCount++] = lo;
        } else {
            ev.minima[ev.count] = lo;
            ev.maxima[ev.count++] = hi;
        }
    }
    sortEvents(ev.minima, ev.count, arrays[3]);
    sortEvents(ev.maxima, ev.count, arrays[3]);
    if (ev.planarCount > 0) kelsSortAscend_32f_I(ev.planar, ev.planarCount);
    return ev;
}

// ---------------------------------------------------------------------------
// The sweep along one axis, shared by the small-node search (Real = float)
// and the wide-node search (Real = double). Candidates are compared in double
// either way; of equal costs the first one found is kept.

struct BestCandidate {
    double cost = kNoCost;
    float position = 0.0f;
    int left = 0, right = 0, planarSide = 1;
    bool found = false;

    void offer(double c, float x, int l, int r, int side) {
        if (!(c < cost)) return;
        cost = c;
        position = x;
        left = l;
        right = r;
        planarSide = side;
        found = true;
    }

    // The side for planar patches is only this sweep's to report when it saw
    // any.
    void report(double reportedCost, bool withPlanarSide, AxisSplit* out) const {
        out->cost = reportedCost;
        out->position = position;
        out->leftCount = left;
        out->rightCount = right;
        if (withPlanarSide) out->planarSide = planarSide;
    }
};

// Cost of a split at x divided by the sum of the other two extents: each
// side's length plus r, times its count. Multiplied back by that sum it is
// the sides' half surface areas weighted by their counts.
template <typename Real>
struct SplitPricer {
    Real lo, hi, r;

    Real operator()(float x, int left, int right) const {
        return Real(float(left)) * ((Real(x) - lo) + r) + Real(float(right)) * ((hi - Real(x)) + r);
    }
};

template <typename Real, bool kPlanar>
void sweepAxis(const float* minima, const float* maxima, const float* planar, int count,
               int planarCount, float lo, float hi, float e1, float e2, AxisSplit* out) {
    const int total = count + planarCount;
    const Real otherSum = Real(e1) + Real(e2);
    const Real product = Real(e1) * Real(e2);
    // A box flat on another axis has no side faces worth pricing.
    const Real r = double(product) >= kProductFloor ? product / otherSum : Real(0);
    const SplitPricer<Real> price = {Real(lo), Real(hi), r};
    BestCandidate best;

    float lowest = count > 0 ? minima[0] : lo;
    float highest = count > 0 ? maxima[count - 1] : hi;
    if (kPlanar) {
        if (planar[0] < lowest) lowest = planar[0];
        if (planar[planarCount - 1] > highest) highest = planar[planarCount - 1];
    }
    const float tenth = (hi - lo) * kEmptyFraction;
    if (lowest - lo > tenth) best.offer(double(price(lowest, 0, total)), lowest, 0, total, 1);
    if (hi - highest > tenth)
        best.offer(double(price(highest, total, 0)), highest, total, 0, kPlanar ? 0 : 1);
    if (best.found) {
        // Enough empty space pays more than any plane among the patches.
        best.report(best.cost * kEmptyBonus * double(otherSum), kPlanar, out);
        return;
    }

    if (kPlanar) {
        // Planar patches in a box face split off into a flat child, with the
        // same bonus as an empty-space cut.
        const Real bonus = Real(kEmptyBonusF);
        if (planar[0] == lo) {
            int m = 1;
            while (m < planarCount && planar[m] == lo) ++m;
            best.offer(double(price(lo, m, total - m) * bonus), lo, m, total - m, 0);
        }
        if (planar[planarCount - 1] == hi) {
            int m = 1;
            while (m < planarCount && planar[planarCount - 1 - m] == hi) ++m;
            best.offer(double(price(hi, total - m, m) * bonus), hi, total - m, m, 1);
        }
    }

    // At a candidate x: minima[0, below) < x, maxima[0, passed) <= x and
    // planar[0, planarBelow) < x.
    int below = 0, passed = 0, planarBelow = 0;
    float x = count > 0 ? minima[0] : planar[0];
    if (kPlanar && count > 0 && planar[0] < x) x = planar[0];
    for (;;) {
        while (passed < count && maxima[passed] <= x) ++passed;
        int onPlane = 0;
        if (kPlanar) {
            while (planarBelow + onPlane < planarCount && planar[planarBelow + onPlane] == x)
                ++onPlane;
        }
        const int left = below + planarBelow, right = total - planarBelow - passed;
        best.offer(double(price(x, left, right)), x, left, right, 1);
        if (onPlane > 0)
            best.offer(double(price(x, left + onPlane, right - onPlane)), x, left + onPlane,
                       right - onPlane, 0);

        while (below < count && minima[below] <= x) ++below;
        planarBelow += onPlane;
        const bool maximumAbove = passed < count;
        const bool planarAbove = kPlanar && planarBelow < planarCount;
        if (!maximumAbove && !planarAbove) break;
        float next = maximumAbove ? maxima[passed] : planar[planarBelow];
        if (planarAbove && planar[planarBelow] < next) next = planar[planarBelow];
        if (below < count && minima[below] < next) next = minima[below];
        if (!(next > x)) break;  // only a NaN stops the events from rising
        x = next;
    }

    if (best.found) best.report(best.cost * double(otherSum), kPlanar, out);
}

// Ties go to the higher axis.
int cheapestAxis(const AxisSplit* results) {
    if (results[0].cost >= results[1].cost) return results[1].cost < results[2].cost ? 1 : 2;
    return results[2].cost <= results[0].cost ? 2 : 0;
}

// The gain over the leaf is weighted by the patch count once more although
// the leaf cost already holds it: crowded nodes are split more eagerly.
void decideSplit(const AxisSplit* results, int n, double cLeaf, float k, SplitDecision* d) {
    double threshold = cLeaf * double(k);
    if (threshold < kMinGain) threshold = kMinGain;
    const int axis = cheapestAxis(results);
    const AxisSplit& best = results[axis];
    if (!(double(n) * (cLeaf - best.cost) > threshold)) {
        d->axis = -1;
        return;
    }
    d->cost = best.cost;
    d->position = best.position;
    d->axis = axis;
    d->leftCount = best.leftCount;
    d->rightCount = best.rightCount;
    d->planarSide = best.planarSide;
}

AxisSplit unsearched(double cLeaf) {
    return AxisSplit{cLeaf, 0.0f, 0, 0, 1};
}

// The sweeps of small nodes, in single precision: without planar patches and
// with them.
void sweepSmallNode_NS(const float* minima, const float* maxima, int count, float lo, float hi,
                       float e1, float e2, AxisSplit* out) {
    sweepAxis<float, false>(minima, maxima, nullptr, count, 0, lo, hi, e1, e2, out);
}
void sweepSmallNode(const float* minima, const float* maxima, const float* planar, int count,
                    int planarCount, float lo, float hi, float e1, float e2, AxisSplit* out) {
    sweepAxis<float, true>(minima, maxima, planar, count, planarCount, lo, hi, e1, e2, out);
}

// One axis of a node: its events gathered into the four arrays, then the
// sweep that fits them. Without planar patches nothing lies in any plane, and
// the side they would take is reported as the right one.
template <auto kSweepWithoutPlanar, auto kSweepWithPlanar>
void searchAxis(const PsahPatch* patches, int n, int axis, const float* box, float* const* arrays,
                AxisSplit* out) {
    const AxisEvents ev = gatherEvents(patches, n, axis, arrays);
    const float e1 = extentOf(box, kOtherAxes[axis]), e2 = extentOf(box, kOtherAxes[axis + 1]);
    if (ev.planarCount == 0) {
        kSweepWithoutPlanar(ev.minima, ev.maxima, ev.count, box[axis], box[axis + 3], e1, e2, out);
        out->planarSide = 1;
    } else {
        kSweepWithPlanar(ev.minima, ev.maxima, ev.planar, ev.count, ev.planarCount, box[axis],
                         box[axis + 3], e1, e2, out);
    }
}

// Small nodes reuse the x-axis scratch arrays for every axis.
void searchSmallNode(const PsahPatch* patches, int n, const float* box, float* const* scratch,
                     float k, SplitDecision* d) {
    AxisSplit results[3];
    for (int axis = 0; axis < 3; ++axis) {
        results[axis] = unsearched(d->cost);
        if (axisSearchable(box, axis))
            searchAxis<sweepSmallNode_NS, sweepSmallNode>(patches, n, axis, box, scratch,
                                                          &results[axis]);
    }
    decideSplit(results, n, d->cost, k, d);
}

}  // namespace

// ---------------------------------------------------------------------------
// Wide nodes: one sweep per axis in double precision.

// The sweeps of wide nodes, in double precision: without planar patches and
// with them, where the side of the patches lying in the plane is chosen too.
static void localLeftRightSearch_NS(const float* minima, const float* maxima, int count, float lo,
                                    float hi, float e1, float e2, AxisSplit* out) {
    sweepAxis<double, false>(minima, maxima, nullptr, count, 0, lo, hi, e1, e2, out);
}
static void localLeftRightSearch(const float* minima, const float* maxima, const float* planar,
                                 int count, int planarCount, float lo, float hi, float e1, float e2,
                                 AxisSplit* out) {
    sweepAxis<double, true>(minima, maxima, planar, count, planarCount, lo, hi, e1, e2, out);
}

// Runs on its own thread: reads the patches and the box, writes only this
// axis's four scratch arrays and its result.
static void searchWideAxis(int axis, const PsahBuildNode* node, const float* box,
                           float* const* scratch, AxisSplit* out) {
    searchAxis<localLeftRightSearch_NS, localLeftRightSearch>(node->patches, node->count, axis, box,
                                                              scratch + 4 * axis, out);
}

// The axes are compared only after the parallel region, so the choice does
// not depend on which thread finished first or how many threads there were.
static void localFindBestSplitSortSearch_MT(SplitDecision* decision, const PsahBuildNode* node,
                                            const float* box, float* const* scratch, float k) {
    AxisSplit results[3];
    int axes[3];
    int searched = 0;
    for (int axis = 0; axis < 3; ++axis) {
        results[axis] = unsearched(decision->cost);
        if (axisSearchable(box, axis)) axes[searched++] = axis;
    }
    if (searched == 3) {
#pragma omp parallel sections num_threads(3)
        {
#pragma omp section
            searchWideAxis(0, node, box, scratch, &results[0]);
#pragma omp section
            searchWideAxis(1, node, box, scratch, &results[1]);
#pragma omp section
            searchWideAxis(2, node, box, scratch, &results[2]);
        }
    } else if (searched == 2) {
#pragma omp parallel sections num_threads(2)
        {
#pragma omp section
            searchWideAxis(axes[0], node, box, scratch, &results[axes[0]]);
#pragma omp section
            searchWideAxis(axes[1], node, box, scratch, &results[axes[1]]);
        }
    }
    decideSplit(results, node->count, decision->cost, k, decision);
}

// ---------------------------------------------------------------------------
// Patch cut.

namespace {

// Each piece holds at most every vertex of the polygon plus both crossings.
constexpr int kChainCapacity = kMaxPieceVertices + 2;

struct Chain {
    const float* vertex[kChainCapacity];
    int count = 0;

    void push(const float* p) { vertex[count++] = p; }
    const float* last() const { return vertex[count - 1]; }
};

// A new point where the edge from p to q meets the plane, kept in the vertex
// store for as long as the pieces that share it.
const float* crossingPoint(PsahBuildState* state, const float* p, const float* q, float s,
                           int axis) {
    auto* x = static_cast<float*>(kel::takeFromPool(&state->vertexPool, 3 * sizeof(float)));
    if (x) kel::planeCrossing(p, q, axis, s, x);
    return x;
}

// A record of the chain's size, filled with its vertex pointers.
const float** recordOf(PsahBuildState* state, const Chain& chain, KelStatus* status) {
    const float** record = kel::takeVertexRecord(state, chain.count, status);
    if (record) copyRecords(chain.vertex, record, chain.count);
    return record;
}

void fillPiece(PsahPatch* out, uint32_t triangleBits, const float** record, int count) {
    out->head = triangleBits | uint32_t(count);
    out->mask = kel::extremeVertexMask(record, count);
    out->vertices = record;
}

}  // namespace

// Walks the convex polygon once from its lowest vertex on the axis: the left
// piece collects what lies below the plane, the right piece what lies above,
// and both share the two crossing points. Orientation is kept.
static KelStatus localPatchCut(const PsahPatch* patch, PsahPatch* left, PsahPatch* right, float s,
                               int axis, PsahBuildState* state) {
    const int n = kel::patchVertexCount(*patch);
    const float* const* v = patch->vertices;
    const int lowest = int(patch->mask >> (15 + 5 * axis)) & 31;
    const int highest = int(patch->mask >> (5 * axis)) & 31;
    // The walks below stop at these two vertices; without them a polygon
    // with NaN coordinates could send them round forever.
    if (!(v[lowest][axis] < s && v[highest][axis] > s)) return KEL_STS_INTERNAL;
    auto next = [n](int i) { return i + 1 == n ? 0 : i + 1; };

    Chain below, above;
    below.push(v[lowest]);
    int i = next(lowest);
    while (v[i][axis] < s) {
        below.push(v[i]);
        i = next(i);
    }
    const float* x1 = v[i];
    if (x1[axis] == s)
        i = next(i);
    else if (!(x1 = crossingPoint(state, below.last(), v[i], s, axis)))
        return KEL_STS_OVERFLOW;

    above.push(x1);
    for (bool atTop = false; !atTop; i = next(i)) {
        atTop = i == highest;
        above.push(v[i]);
    }
    while (v[i][axis] > s) {
        above.push(v[i]);
        i = next(i);
    }
    const float* x2 = v[i];
    if (x2[axis] == s)
        i = next(i);
    else if (!(x2 = crossingPoint(state, above.last(), v[i], s, axis)))
        return KEL_STS_OVERFLOW;
    above.push(x2);

    below.push(x1);
    below.push(x2);
    for (; i != lowest; i = next(i)) below.push(v[i]);

    // A triangle cut to boxes never has more corners; only rounding that
    // bent the polygon out of convexity could produce more.
    if (below.count > kMaxPieceVertices || above.count > kMaxPieceVertices) return KEL_STS_INTERNAL;
    // Both records first: a failure leaves the output patches unwritten.
    KelStatus status = KEL_STS_OK;
    const float** leftRecord = recordOf(state, below, &status);
    if (!leftRecord) return status;
    const float** rightRecord = recordOf(state, above, &status);
    if (!rightRecord) return status;
    const uint32_t triangleBits = patch->head & ~kel::kPatchCountMask;
    const float** oldRecord = patch->vertices;
    fillPiece(left, triangleBits, leftRecord, below.count);
    fillPiece(right, triangleBits, rightRecord, above.count);
    kel::releaseVertexRecord(state, oldRecord, n);
    return KEL_STS_OK;
}

// ---------------------------------------------------------------------------
// The main loop.

namespace {

enum class Side { kLeft, kRight, kBoth };

// Straddling patches go to both sides as pieces; patches lying in the plane
// follow the decision's planar side.
Side sideOf(const PsahPatch& p, const SplitDecision& d) {
    const float s = d.position;
    const float mn = kel::patchMin(p, d.axis), mx = kel::patchMax(p, d.axis);
    if (mn == mx) {
        if (s - mn > 0) return Side::kLeft;
        if (mn - s > 0) return Side::kRight;
        return d.planarSide == 0 ? Side::kLeft : Side::kRight;
    }
    if (mx - s <= 0) return Side::kLeft;
    if (s - mn > 0) return Side::kBoth;
    return Side::kRight;
}

// Hands the patches to their sides, in patch order. The search counted
// exactly these sides; a difference means the two disagree.
KelStatus distributePatches(PsahBuildState* state, const PsahPatch* patches, int n,
                            const SplitDecision& d, PsahPatch* left, PsahPatch* right) {
    int nLeft = 0, nRight = 0;
    for (int i = 0; i < n; ++i) {
        const Side side = sideOf(patches[i], d);
        // Counts only grow, so an overrun is final; stop before a side writes
        // past its place in the pool.
        if ((side != Side::kRight && nLeft == d.leftCount) ||
            (side != Side::kLeft && nRight == d.rightCount))
            return KEL_STS_INTERNAL;
        if (side == Side::kBoth) {
            KelStatus status = localPatchCut(&patches[i], &left[nLeft++], &right[nRight++],
                                             d.position, d.axis, state);
            if (status != KEL_STS_OK) return status;
        } else if (side == Side::kLeft) {
            copyRecords(&patches[i], &left[nLeft++], 1);
        } else {
            copyRecords(&patches[i], &right[nRight++], 1);
        }
    }
    return nLeft == d.leftCount && nRight == d.rightCount ? KEL_STS_OK : KEL_STS_INTERNAL;
}

// The node's patches become its triangle numbers; their vertex-pointer
// records go back to the free lists for later cuts.
KelStatus makeLeaf(PsahBuildState* state, PsahBuildNode* node) {
    const int n = node->count;
    const PsahPatch* patches = node->patches;
    KelStatus status = KEL_STS_OK;
    auto* list = static_cast<int32_t*>(
        kel::takeFromChunks(state, &state->indexChunks, uint64_t(n) * sizeof(int32_t), &status));
    if (!list) return status;
    for (int i = 0; i < n; ++i) {
        list[i] = kel::patchTriangle(patches[i]);
        kel::releaseVertexRecord(state, patches[i].vertices, kel::patchVertexCount(patches[i]));
    }
    node->triangles = list;
    return KEL_STS_OK;
}

void makeEmptyLeaf(PsahBuildNode* node) {
    node->count = 0;
    node->triangles = nullptr;
}

// Both ends strictly below the pool's end, measured as room left so that no
// end is formed past the address space.
bool fitsInPool(const PsahPool& pool, const char* from, int leftCount, int rightCount) {
    const uint64_t bytes = (uint64_t(leftCount) + uint64_t(rightCount)) * sizeof(PsahPatch);
    return bytes < uint64_t(pool.end - from);
}

}  // namespace

extern "C" KEL_API KelStatus ownOptimizationPSAH(PsahBuildState* state, PsahBuildNode* root,
                                                 float psahWeight, int maxDepth,
                                                 const float* rootBox) {
    // A larger weight lowers the bar a split has to clear.
    const float k = float((10.0 - 9.0 * double(psahWeight)) * kLeafFactorScale);
    // The current node's patches always live here; no node has more
    // patches than the root.
    PsahPatch* const working = root->patches;
    PsahStackEntry stack[kStackEntries];
    int stackSize = 0;

    PsahStackEntry w;
    w.node = root;
    kelsCopy_32f(rootBox, w.box, 6);
    w.depth = 0;
    w.patchMark = state->patchPool.cursor;
    w.vertexMark = state->vertexPool.cursor;

    for (;;) {
        rewindPool(&state->patchPool, w.patchMark);
        rewindPool(&state->vertexPool, w.vertexMark);
        PsahBuildNode* node = w.node;
        const int n = node->count;

        SplitDecision d;
        d.axis = -1;
        if (w.depth != maxDepth) {
            d.cost = leafCost(w.box, n);
            if (n > kSmallNodeMax)
                localFindBestSplitSortSearch_MT(&d, node, w.box, state->scratch, k);
            else
                searchSmallNode(working, n, w.box, state->scratch, k, &d);
        }

        if (d.axis < 0) {
            KelStatus status = makeLeaf(state, node);
            if (status != KEL_STS_OK) return status;
            if (stackSize == 0) return KEL_STS_OK;
            const PsahStackEntry& top = stack[--stackSize];
            w.node = top.node;
            kelsCopy_32f(top.box, w.box, 6);
            w.depth = top.depth;
            w.patchMark = top.patchMark;
            w.vertexMark = top.vertexMark;
            copyRecords(w.node->patches, working, w.node->count);
            w.node->patches = working;
            continue;
        }

        KelStatus status = KEL_STS_OK;
        auto* children = static_cast<PsahBuildNode*>(
            kel::takeFromChunks(state, &state->nodeChunks, 2 * sizeof(PsahBuildNode), &status));
        if (!children) return status;
        copyRecords(node, &children[0], 1);
        copyRecords(node, &children[1], 1);
        node->kind = d.axis;
        node->split = d.position;
        node->children = children;
        ++w.depth;

        if (d.leftCount == 0) {
            makeEmptyLeaf(&children[0]);
            w.node = &children[1];
            w.box[d.axis] = d.position;
            continue;
        }
        if (d.rightCount == 0) {
            makeEmptyLeaf(&children[1]);
            w.node = &children[0];
            w.box[d.axis + 3] = d.position;
            continue;
        }

        // Left patches from the pool's cursor on, right ones behind them.
        // The left ones stay until the left child is resumed; the right
        // ones move to the working array at once.
        PsahPool& pool = state->patchPool;
        if (!fitsInPool(pool, pool.cursor, d.leftCount, d.rightCount)) return KEL_STS_OVERFLOW;
        auto* leftPatches = reinterpret_cast<PsahPatch*>(pool.cursor);
        PsahPatch* rightPatches = leftPatches + d.leftCount;
        pool.cursor = reinterpret_cast<char*>(rightPatches + d.rightCount);
        status = distributePatches(state, working, n, d, leftPatches, rightPatches);
        if (status != KEL_STS_OK) return status;

        PsahStackEntry& entry = stack[stackSize++];
        entry.node = &children[0];
        kelsCopy_32f(w.box, entry.box, 6);
        entry.box[d.axis + 3] = d.position;
        entry.depth = w.depth;
        entry.patchMark = reinterpret_cast<char*>(leftPatches);
        // The pieces cut just now must outlive both subtrees.
        entry.vertexMark = state->vertexPool.cursor;

        children[0].count = d.leftCount;
        children[0].patches = leftPatches;
        copyRecords(rightPatches, working, d.rightCount);
        children[1].count = d.rightCount;
        children[1].patches = working;
        w.node = &children[1];
        w.box[d.axis] = d.position;
        w.patchMark = reinterpret_cast<char*>(rightPatches);
        w.vertexMark = state->vertexPool.cursor;
    }
}
