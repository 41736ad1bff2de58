// The PSAH optimisation: grows the build tree depth first from one root leaf.
// Every node is priced as a leaf against its cheapest axis-aligned split under
// a surface-area cost model; a split hands the node's patches to two children,
// cutting the ones that straddle the plane. Small nodes are searched in single
// precision, wide ones in double. The patches' extents are sorted once, at the
// root; a split hands each sorted list to the children in order and merges in
// the pieces of the patches it cut, so no node sorts again. Nothing is
// allocated per node: records come from the build state's chunk lists, its
// two stack-like pools and its free lists.
#include <omp.h>

#include "kdtree/psah_events.h"

namespace {

using kel::PsahBuildNode;
using kel::PsahBuildState;
using kel::PsahEvent;
using kel::PsahPatch;
using kel::PsahWorkspace;
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

// Nodes up to this many patches are searched in single precision.
constexpr int kSmallNodeMax = 75;
// From this many patches on, a node's axes are worth a task each.
constexpr int kSharedSearchMinPatches = 65536;
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

inline float valueOf(float v) {
    return v;
}
inline float valueOf(const PsahEvent& e) {
    return e.value;
}

// ---------------------------------------------------------------------------
// The sweep along one axis, shared by the small-node search (Real = float)
// and the wide-node search (Real = double). Candidates are compared in double
// either way; of equal costs the first one found is kept. The events are the
// sorted lists (Elem = PsahEvent) or values gathered and sorted in place
// (Elem = float); only their values count.

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

template <typename Real, bool kPlanar, typename Elem>
void sweepAxis(const Elem* minima, const Elem* maxima, const Elem* planar, int count,
               int planarCount, float lo, float hi, float e1, float e2, AxisSplit* out) {
    const int total = count + planarCount;
    const Real otherSum = Real(e1) + Real(e2);
    const Real product = Real(e1) * Real(e2);
    // A box flat on another axis has no side faces worth pricing.
    const Real r = double(product) >= kProductFloor ? product / otherSum : Real(0);
    const SplitPricer<Real> price = {Real(lo), Real(hi), r};
    auto minimum = [minima](int i) { return valueOf(minima[i]); };
    auto maximum = [maxima](int i) { return valueOf(maxima[i]); };
    auto planarValue = [planar](int i) { return valueOf(planar[i]); };
    BestCandidate best;

    float lowest = count > 0 ? minimum(0) : lo;
    float highest = count > 0 ? maximum(count - 1) : hi;
    if (kPlanar) {
        if (planarValue(0) < lowest) lowest = planarValue(0);
        if (planarValue(planarCount - 1) > highest) highest = planarValue(planarCount - 1);
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
        if (planarValue(0) == lo) {
            int m = 1;
            while (m < planarCount && planarValue(m) == lo) ++m;
            best.offer(double(price(lo, m, total - m) * bonus), lo, m, total - m, 0);
        }
        if (planarValue(planarCount - 1) == hi) {
            int m = 1;
            while (m < planarCount && planarValue(planarCount - 1 - m) == hi) ++m;
            best.offer(double(price(hi, total - m, m) * bonus), hi, total - m, m, 1);
        }
    }

    // At a candidate x: minima[0, below) < x, maxima[0, passed) <= x and
    // planar[0, planarBelow) < x.
    int below = 0, passed = 0, planarBelow = 0;
    float x = count > 0 ? minimum(0) : planarValue(0);
    if (kPlanar && count > 0 && planarValue(0) < x) x = planarValue(0);
    for (;;) {
        while (passed < count && maximum(passed) <= x) ++passed;
        int onPlane = 0;
        if (kPlanar) {
            while (planarBelow + onPlane < planarCount && planarValue(planarBelow + onPlane) == x)
                ++onPlane;
        }
        const int left = below + planarBelow, right = total - planarBelow - passed;
        best.offer(double(price(x, left, right)), x, left, right, 1);
        if (onPlane > 0)
            best.offer(double(price(x, left + onPlane, right - onPlane)), x, left + onPlane,
                       right - onPlane, 0);

        while (below < count && minimum(below) <= x) ++below;
        planarBelow += onPlane;
        const bool maximumAbove = passed < count;
        const bool planarAbove = kPlanar && planarBelow < planarCount;
        if (!maximumAbove && !planarAbove) break;
        float next = maximumAbove ? maximum(passed) : planarValue(planarBelow);
        if (planarAbove && planarValue(planarBelow) < next) next = planarValue(planarBelow);
        if (below < count && minimum(below) < next) next = minimum(below);
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
template <typename Elem>
void sweepSmallNode_NS(const Elem* minima, const Elem* maxima, int count, float lo, float hi,
                       float e1, float e2, AxisSplit* out) {
    sweepAxis<float, false>(minima, maxima, minima, count, 0, lo, hi, e1, e2, out);
}
template <typename Elem>
void sweepSmallNode(const Elem* minima, const Elem* maxima, const Elem* planar, int count,
                    int planarCount, float lo, float hi, float e1, float e2, AxisSplit* out) {
    sweepAxis<float, true>(minima, maxima, planar, count, planarCount, lo, hi, e1, e2, out);
}

}  // namespace

// The sweeps of wide nodes, in double precision: without planar patches and
// with them, where the side of the patches lying in the plane is chosen too.
template <typename Elem>
static void localLeftRightSearch_NS(const Elem* minima, const Elem* maxima, int count, float lo,
                                    float hi, float e1, float e2, AxisSplit* out) {
    sweepAxis<double, false>(minima, maxima, minima, count, 0, lo, hi, e1, e2, out);
}
template <typename Elem>
static void localLeftRightSearch(const Elem* minima, const Elem* maxima, const Elem* planar,
                                 int count, int planarCount, float lo, float hi, float e1, float e2,
                                 AxisSplit* out) {
    sweepAxis<double, true>(minima, maxima, planar, count, planarCount, lo, hi, e1, e2, out);
}

namespace {

// One axis's events and the sweep that fits them. Without planar patches
// nothing lies in any plane, and the side they would take is reported as the
// right one.
template <bool kWide, typename Elem>
void sweepEvents(const Elem* minima, const Elem* maxima, const Elem* planar, int count,
                 int planarCount, const float* box, int axis, AxisSplit* out) {
    const float lo = box[axis], hi = box[axis + 3];
    const float e1 = extentOf(box, kOtherAxes[axis]), e2 = extentOf(box, kOtherAxes[axis + 1]);
    if (planarCount == 0) {
        if (kWide)
            localLeftRightSearch_NS(minima, maxima, count, lo, hi, e1, e2, out);
        else
            sweepSmallNode_NS(minima, maxima, count, lo, hi, e1, e2, out);
        out->planarSide = 1;
    } else if (kWide) {
        localLeftRightSearch(minima, maxima, planar, count, planarCount, lo, hi, e1, e2, out);
    } else {
        sweepSmallNode(minima, maxima, planar, count, planarCount, lo, hi, e1, e2, out);
    }
}

// ---------------------------------------------------------------------------
// Events gathered in patch order and sorted in place: what the sorted lists
// stand in for. Values that compare equal with different bits (-0.0 and
// +0.0) come out of the comparison sort in an order of its own, and NaNs
// where each sort puts them; a node whose lists hold such values is searched
// from gathered events.

void sortValues(float* values, int count, float* workspace) {
    if (count >= kRadixMinCount)
        ownRadixSortAccend_32f_w7(values, workspace, uint32_t(count));
    else
        kelsSortAscend_32f_I(values, count);  // refuses an empty array, which needs no sort
}

// Room for n floats, rounded up so that arrays of it laid end to end stay
// 16-byte aligned, as the radix sort needs.
inline size_t gatherStride(int n) {
    return (size_t(n) + 3) & ~size_t(3);
}

// Minima and maxima are sorted independently: the sweep only counts how many
// of each lie on either side of a candidate. values holds four arrays of
// gatherStride(n) floats: minima, maxima, planar values and sort workspace.
template <bool kWide>
void sweepGathered(const PsahPatch* patches, int n, int axis, const float* box, float* values,
                   AxisSplit* out) {
    const size_t stride = gatherStride(n);
    float* minima = values;
    float* maxima = values + stride;
    float* planar = values + 2 * stride;
    int count = 0, planarCount = 0;
    for (int i = 0; i < n; ++i) {
        const float lo = kel::patchMin(patches[i], axis), hi = kel::patchMax(patches[i], axis);
        if (lo == hi) {
            planar[planarCount++] = lo;
        } else {
            minima[count] = lo;
            maxima[count++] = hi;
        }
    }
    sortValues(minima, count, values + 3 * stride);
    sortValues(maxima, count, values + 3 * stride);
    if (planarCount > 0) kelsSortAscend_32f_I(planar, planarCount);
    sweepEvents<kWide>(minima, maxima, planar, count, planarCount, box, axis, out);
}

bool isNaN(const PsahEvent& e) {
    return e.value != e.value;
}

bool hasNaN(const PsahEvent* list, int n) {
    return n > 0 && (isNaN(list[0]) || isNaN(list[n - 1]));
}

// In key order -0.0 comes right before +0.0.
bool hasBothZeros(const PsahEvent* list, int n) {
    const uint32_t positiveZeroKey = kel::eventKey(0.0f);
    int lo = 0, hi = n;  // the first entry with a key of +0.0 or more
    while (lo < hi) {
        const int mid = (lo + hi) / 2;
        if (kel::eventKey(list[mid].value) < positiveZeroKey)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo > 0 && lo < n && kel::eventKey(list[lo - 1].value) == positiveZeroKey - 1 &&
           kel::eventKey(list[lo].value) == positiveZeroKey;
}

// ---------------------------------------------------------------------------
// The current node's sorted lists. Per axis one region holds the minima from
// its start and the planar values at its end, another the maxima at its end;
// no node has more patches than the root, whose count sizes the regions.

struct Working {
    PsahEvent* front[3];
    PsahEvent* back[3];
    int capacity;
    int count[3];        // non-planar patches: entries in minima and maxima
    int planarCount[3];  // patches lying in one plane across the axis

    PsahEvent* minima(int a) const { return front[a]; }
    PsahEvent* planar(int a) const { return front[a] + capacity - planarCount[a]; }
    PsahEvent* maxima(int a) const { return back[a] + capacity - count[a]; }

    // Whether the lists hold the very values a sort of gathered events
    // would; mayHoldNegativeZero tells whether -0.0 can occur at all.
    bool asGathered(int a, bool mayHoldNegativeZero) const {
        const int n = count[a], p = planarCount[a];
        if (hasNaN(minima(a), n) || hasNaN(maxima(a), n) || hasNaN(planar(a), p)) return false;
        if (!mayHoldNegativeZero) return true;
        if (n < kRadixMinCount && (hasBothZeros(minima(a), n) || hasBothZeros(maxima(a), n)))
            return false;
        return !hasBothZeros(planar(a), p);
    }
};

// A split's cut patch: where its pieces went, and its extents before the
// cut, against which the pieces' are checked.
struct CutRecord {
    int32_t left, right;
    float lo[3], hi[3];
};

// Everything the loop keeps besides the build state: the working lists, the
// per-patch destinations of the node being split, the cuts of that split,
// the deferred left children's patches and lists, and scratch for the rest.
struct Builder {
    PsahWorkspace* work = nullptr;
    PsahEvent* events = nullptr;  // the working lists' regions
    Working lists;
    int32_t* destination = nullptr;  // per patch: position in its child << 2 | Side
    kel::PsahScratch cuts;
    kel::PsahScratch scratch;
    kel::PsahArena deferred;
    bool negativeZero[3];    // some coordinate on the axis may be -0.0
    bool shareAxes = false;  // wide nodes may search their axes on several threads
};

enum Side : int32_t { kLeftSide = 0, kRightSide = 1, kBothSides = 2 };

void releaseBuilder(Builder* b) {
    kelsFree(b->events);
    kelsFree(b->destination);
    b->events = nullptr;
    b->destination = nullptr;
    kel::scratchRelease(&b->cuts);
    kel::scratchRelease(&b->scratch);
    kel::arenaRelease(&b->deferred);
}

bool isNegativeZero(float v) {
    return __builtin_bit_cast(uint32_t, v) == 0x80000000u;
}

// One axis of the root: every patch's extent gathered, to be sorted.
void gatherRootAxis(Builder* b, const PsahPatch* patches, int n, int axis) {
    Working& w = b->lists;
    const int cap = w.capacity;
    int count = 0, planarCount = 0;
    for (int i = 0; i < n; ++i) {
        const float lo = kel::patchMin(patches[i], axis), hi = kel::patchMax(patches[i], axis);
        if (isNegativeZero(lo) || isNegativeZero(hi)) b->negativeZero[axis] = true;
        if (lo == hi) {
            w.front[axis][cap - 1 - planarCount++] = PsahEvent{lo, i};
        } else {
            w.front[axis][count] = PsahEvent{lo, i};
            w.back[axis][cap - 1 - count++] = PsahEvent{hi, i};
        }
    }
    w.count[axis] = count;
    w.planarCount[axis] = planarCount;
}

// The root's lists: gathered per axis, then sorted per list. On several
// threads the axes, then the lists, are shared out as tasks; each list sorts
// with its own workspace, its place in temp (two entries per patch and axis).
void sortRootLists(Builder* b, const PsahPatch* patches, int n, bool share, PsahEvent* temp) {
#pragma omp taskgroup
    for (int a = 0; a < 3; ++a) {
#pragma omp task if (share)
        gatherRootAxis(b, patches, n, a);
    }
    const Working& w = b->lists;
#pragma omp taskgroup
    for (int a = 0; a < 3; ++a) {
        PsahEvent* workspace = temp + 2 * size_t(a) * n;
        const int count = w.count[a];
        PsahEvent* lists[3] = {w.minima(a), w.maxima(a), w.planar(a)};
        const int counts[3] = {count, count, w.planarCount[a]};
        const size_t offsets[3] = {0, size_t(count), 2 * size_t(count)};
        for (int k = 0; k < 3; ++k) {
#pragma omp task if (share)
            kel::sortEventsByKey(lists[k], counts[k], workspace + offsets[k]);
        }
    }
}

// ---------------------------------------------------------------------------
// Split search of the current node.

template <bool kWide>
KelStatus searchAxis(Builder* b, const PsahPatch* patches, int n, int axis, const float* box,
                     AxisSplit* out) {
    const Working& w = b->lists;
    if (w.asGathered(axis, b->negativeZero[axis])) {
        sweepEvents<kWide>(w.minima(axis), w.maxima(axis), w.planar(axis), w.count[axis],
                           w.planarCount[axis], box, axis, out);
        return KEL_STS_OK;
    }
    auto* values =
        static_cast<float*>(kel::scratchOf(&b->scratch, 4 * sizeof(float) * gatherStride(n)));
    if (!values) return KEL_STS_NO_MEM;
    sweepGathered<kWide>(patches, n, axis, box, values, out);
    return KEL_STS_OK;
}

}  // namespace

// The axes are compared only after all are searched, so the choice does not
// depend on the order they were searched in.
// The widest nodes, near the root, search their axes as tasks of their own
// when their lists need no scratch (no axis is searched from gathered
// events).
static KelStatus localFindBestSplitSortSearch_MT(Builder* b, SplitDecision* decision,
                                                 const PsahBuildNode* node, const float* box,
                                                 float k) {
    AxisSplit results[3];
    KelStatus statuses[3] = {KEL_STS_OK, KEL_STS_OK, KEL_STS_OK};
    bool share = b->shareAxes && node->count >= kSharedSearchMinPatches;
    for (int axis = 0; axis < 3; ++axis) {
        results[axis] = unsearched(decision->cost);
        share = share && b->lists.asGathered(axis, b->negativeZero[axis]);
    }
#pragma omp taskgroup
    for (int axis = 0; axis < 3; ++axis) {
        if (!axisSearchable(box, axis)) continue;
#pragma omp task if (share) shared(results, statuses)
        statuses[axis] = searchAxis<true>(b, node->patches, node->count, axis, box, &results[axis]);
    }
    for (KelStatus status : statuses)
        if (status != KEL_STS_OK) return status;
    decideSplit(results, node->count, decision->cost, k, decision);
    return KEL_STS_OK;
}

namespace {

KelStatus searchSmallNode(Builder* b, const PsahPatch* patches, int n, const float* box, float k,
                          SplitDecision* d) {
    AxisSplit results[3];
    for (int axis = 0; axis < 3; ++axis) {
        results[axis] = unsearched(d->cost);
        if (!axisSearchable(box, axis)) continue;
        const KelStatus status = searchAxis<false>(b, patches, n, axis, box, &results[axis]);
        if (status != KEL_STS_OK) return status;
    }
    decideSplit(results, n, d->cost, k, d);
    return KEL_STS_OK;
}

}  // namespace

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
const float* crossingPoint(PsahWorkspace* work, const float* p, const float* q, float s, int axis,
                           KelStatus* status) {
    float* x = kel::takePoint(work, status);
    if (x) kel::planeCrossing(p, q, axis, s, x);
    return x;
}

// A record of the chain's size, filled with its vertex pointers.
const float** recordOf(PsahWorkspace* work, const Chain& chain, KelStatus* status) {
    const float** record = kel::takeVertexRecord(work, chain.count, status);
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
                               int axis, PsahWorkspace* work) {
    const int n = kel::patchVertexCount(*patch);
    const float* const* v = patch->vertices;
    const int lowest = int(patch->mask >> (15 + 5 * axis)) & 31;
    const int highest = int(patch->mask >> (5 * axis)) & 31;
    // The walks below stop at these two vertices; without them a polygon
    // with NaN coordinates could send them round forever.
    if (!(v[lowest][axis] < s && v[highest][axis] > s)) return KEL_STS_INTERNAL;
    auto next = [n](int i) { return i + 1 == n ? 0 : i + 1; };

    KelStatus status = KEL_STS_OK;
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
    else if (!(x1 = crossingPoint(work, below.last(), v[i], s, axis, &status)))
        return status;

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
    else if (!(x2 = crossingPoint(work, above.last(), v[i], s, axis, &status)))
        return status;
    above.push(x2);

    below.push(x1);
    below.push(x2);
    for (; i != lowest; i = next(i)) below.push(v[i]);

    // A triangle cut to boxes never has more corners; only rounding that
    // bent the polygon out of convexity could produce more.
    if (below.count > kMaxPieceVertices || above.count > kMaxPieceVertices) return KEL_STS_INTERNAL;
    // Both records first: a failure leaves the output patches unwritten.
    const float** leftRecord = recordOf(work, below, &status);
    if (!leftRecord) return status;
    const float** rightRecord = recordOf(work, above, &status);
    if (!rightRecord) return status;
    const uint32_t triangleBits = patch->head & ~kel::kPatchCountMask;
    const float** oldRecord = patch->vertices;
    fillPiece(left, triangleBits, leftRecord, below.count);
    fillPiece(right, triangleBits, rightRecord, above.count);
    kel::releaseVertexRecord(work, oldRecord, n);
    return KEL_STS_OK;
}

// ---------------------------------------------------------------------------
// The split: patches and their lists handed to the children.

namespace {

// Straddling patches go to both sides as pieces; patches lying in the plane
// follow the decision's planar side.
Side sideOf(const PsahPatch& p, const SplitDecision& d) {
    const float s = d.position;
    const float mn = kel::patchMin(p, d.axis), mx = kel::patchMax(p, d.axis);
    if (mn == mx) {
        if (s - mn > 0) return kLeftSide;
        if (mn - s > 0) return kRightSide;
        return d.planarSide == 0 ? kLeftSide : kRightSide;
    }
    if (mx - s <= 0) return kLeftSide;
    if (s - mn > 0) return kBothSides;
    return kRightSide;
}

KelStatus logCut(Builder* b, int cuts, const PsahPatch& patch, int left, int right) {
    auto* log = static_cast<CutRecord*>(kel::scratchGrow(
        &b->cuts, sizeof(CutRecord) * size_t(cuts + 1), sizeof(CutRecord) * size_t(cuts)));
    if (!log) return KEL_STS_NO_MEM;
    CutRecord& c = log[cuts];
    c.left = left;
    c.right = right;
    for (int a = 0; a < 3; ++a) {
        c.lo[a] = kel::patchMin(patch, a);
        c.hi[a] = kel::patchMax(patch, a);
    }
    return KEL_STS_OK;
}

// Hands the patches to their sides, in patch order, and notes where each
// went. The right side may be the patch array itself: no patch is written
// ahead of the one being read. The search counted exactly these sides; a
// difference means the two disagree.
KelStatus distributePatches(Builder* b, const PsahPatch* patches, int n, const SplitDecision& d,
                            PsahPatch* left, PsahPatch* right, int* cutCount) {
    int nLeft = 0, nRight = 0, cuts = 0;
    for (int i = 0; i < n; ++i) {
        const Side side = sideOf(patches[i], d);
        // Counts only grow, so an overrun is final; stop before a side writes
        // past its place in the pool.
        if ((side != kRightSide && nLeft == d.leftCount) ||
            (side != kLeftSide && nRight == d.rightCount))
            return KEL_STS_INTERNAL;
        if (side == kBothSides) {
            KelStatus status = logCut(b, cuts++, patches[i], nLeft, nRight);
            if (status != KEL_STS_OK) return status;
            b->destination[i] = kBothSides;
            status = localPatchCut(&patches[i], &left[nLeft++], &right[nRight++], d.position,
                                   d.axis, b->work);
            if (status != KEL_STS_OK) return status;
        } else if (side == kLeftSide) {
            b->destination[i] = nLeft << 2 | kLeftSide;
            left[nLeft++] = patches[i];
        } else {
            b->destination[i] = nRight << 2 | kRightSide;
            right[nRight++] = patches[i];
        }
    }
    *cutCount = cuts;
    return nLeft == d.leftCount && nRight == d.rightCount ? KEL_STS_OK : KEL_STS_INTERNAL;
}

// One side's entries from the pieces of the cut patches, on one axis.
struct PieceEvents {
    PsahEvent* minima;
    PsahEvent* maxima;
    PsahEvent* planar;
    int count = 0, planarCount = 0;
};

// Gathers the pieces' extents on the axis, sorted by key. False when some
// piece reaches beyond the patch it was cut from: its entry would then come
// before the entry it replaces, and the lists cannot be rewritten in place.
bool gatherPieces(const CutRecord* cuts, int cutCount, const PsahPatch* left,
                  const PsahPatch* right, int axis, PieceEvents* pieces, PsahEvent* temp,
                  bool* negativeZero) {
    bool within = true;
    for (int c = 0; c < cutCount; ++c) {
        for (int side = 0; side < 2; ++side) {
            const int at = side == 0 ? cuts[c].left : cuts[c].right;
            const PsahPatch& piece = side == 0 ? left[at] : right[at];
            const float lo = kel::patchMin(piece, axis), hi = kel::patchMax(piece, axis);
            within = within && kel::eventKey(lo) >= kel::eventKey(cuts[c].lo[axis]) &&
                     kel::eventKey(hi) <= kel::eventKey(cuts[c].hi[axis]);
            if (isNegativeZero(lo) || isNegativeZero(hi)) *negativeZero = true;
            PieceEvents& p = pieces[side];
            if (lo == hi) {
                p.planar[p.planarCount++] = PsahEvent{lo, at};
            } else {
                p.minima[p.count] = PsahEvent{lo, at};
                p.maxima[p.count++] = PsahEvent{hi, at};
            }
        }
    }
    for (PieceEvents* p = pieces; p != pieces + 2; ++p) {
        kel::sortEventsByKey(p->minima, p->count, temp);
        kel::sortEventsByKey(p->maxima, p->count, temp);
        kel::sortEventsByKey(p->planar, p->planarCount, temp);
    }
    return within;
}

// Entries merged in key order from a list and the pieces' entries of a side.
struct MergeInto {
    PsahEvent* out;
    const PsahEvent* pieces;
    const PsahEvent* piecesEnd;
};

// Puts an entry on a side, after the pieces' entries that come before it.
// Upwards the side's list grows in ascending key order from its start;
// downwards it grows in descending order from one past its end, taking the
// pieces' entries from their end.
template <bool kUp>
inline void putEntry(MergeInto* m, PsahEvent e) {
    if (m->pieces != m->piecesEnd) {
        const uint32_t key = kel::eventKey(e.value);
        if (kUp) {
            while (m->pieces != m->piecesEnd && kel::eventKey(m->pieces->value) < key)
                *m->out++ = *m->pieces++;
        } else {
            while (m->piecesEnd != m->pieces && kel::eventKey(m->piecesEnd[-1].value) > key)
                *--m->out = *--m->piecesEnd;
        }
    }
    if (kUp)
        *m->out++ = e;
    else
        *--m->out = e;
}

template <bool kUp>
inline void putRest(MergeInto* m) {
    while (m->pieces != m->piecesEnd) {
        if (kUp)
            *m->out++ = *m->pieces++;
        else
            *--m->out = *--m->piecesEnd;
    }
}

// Kept entries go to their side under their new positions, cut patches'
// entries give way to their pieces'. A side's output may overwrite the list
// as it is read (the right side's does): no piece starts below, or ends
// above, the patch it comes from, so its entries are written only after that
// patch's entry was read.
template <bool kUp>
void partitionList(const PsahEvent* list, int n, const int32_t* destination, MergeInto sides[2]) {
    MergeInto left = sides[0], right = sides[1];
    for (int k = 0; k < n; ++k) {
        const PsahEvent e = list[kUp ? k : n - 1 - k];
        const int32_t to = destination[e.patch];
        const PsahEvent moved = {e.value, to >> 2};
        if ((to & 3) == kLeftSide)
            putEntry<kUp>(&left, moved);
        else if ((to & 3) == kRightSide)
            putEntry<kUp>(&right, moved);
    }
    putRest<kUp>(&left);
    putRest<kUp>(&right);
}

// A deferred left child's patches and lists, kept in the deferred arena,
// the lists per axis as minima, maxima, planar values.
struct DeferredLists {
    PsahPatch* patches;
    PsahEvent* events;
    int count[3];
    int planarCount[3];
    kel::PsahArenaMark mark;  // the arena as it was before these patches
};

// Planar entries of the list whose patch goes to the side.
int countPlanar(const PsahEvent* planar, int n, const int32_t* destination, int side) {
    int m = 0;
    for (int k = 0; k < n; ++k) m += (destination[planar[k].patch] & 3) == side;
    return m;
}

// Rewrites the working lists as the right child's and writes the left
// child's into the arena.
KelStatus partitionLists(Builder* b, const PsahPatch* left, const PsahPatch* right,
                         const SplitDecision& d, int cutCount, kel::PsahArena* arena,
                         DeferredLists* out) {
    Working& w = b->lists;
    const auto* cuts = static_cast<const CutRecord*>(b->cuts.data);
    int leftPlanar[3], rightPlanar[3];
    size_t leftEvents = 0, scratchEvents = 0;
    for (int a = 0; a < 3; ++a) {
        const int p = w.planarCount[a];
        leftPlanar[a] = countPlanar(w.planar(a), p, b->destination, kLeftSide);
        rightPlanar[a] = countPlanar(w.planar(a), p, b->destination, kRightSide);
        leftEvents += 2 * size_t(d.leftCount) - size_t(leftPlanar[a]);
        const size_t need = 8 * size_t(cutCount) + 2 * size_t(w.count[a]) + 2 * size_t(p);
        if (need > scratchEvents) scratchEvents = need;
    }
    out->events = static_cast<PsahEvent*>(kel::arenaTake(arena, sizeof(PsahEvent) * leftEvents));
    auto* scratch =
        static_cast<PsahEvent*>(kel::scratchOf(&b->scratch, sizeof(PsahEvent) * scratchEvents));
    if (!out->events || !scratch) return KEL_STS_NO_MEM;

    PsahEvent* leftLists = out->events;
    for (int a = 0; a < 3; ++a) {
        const int C = cutCount;
        PieceEvents pieces[2];
        for (int side = 0; side < 2; ++side) {
            pieces[side].minima = scratch + (3 * side) * C;
            pieces[side].maxima = scratch + (3 * side + 1) * C;
            pieces[side].planar = scratch + (3 * side + 2) * C;
        }
        PsahEvent* rest = scratch + 7 * C;  // after the pieces and their sort workspace
        const bool inPlace =
            gatherPieces(cuts, C, left, right, a, pieces, scratch + 6 * C, &b->negativeZero[a]);
        leftPlanar[a] += pieces[0].planarCount;
        rightPlanar[a] += pieces[1].planarCount;
        const int leftCount = d.leftCount - leftPlanar[a];
        const int rightCount = d.rightCount - rightPlanar[a];

        // Where pieces could overtake the entries they replace, the lists are
        // read from a copy.
        const PsahEvent* minima = w.minima(a);
        const PsahEvent* maxima = w.maxima(a);
        const int n = w.count[a], p = w.planarCount[a];
        if (!inPlace) {
            copyRecords(minima, rest, n);
            copyRecords(maxima, rest + n, n);
            minima = rest;
            maxima = rest + n;
            rest += 2 * n;
        }
        // Planar pieces may come from patches that were not planar, so the
        // planar values are always read from a copy; the right ones are
        // written behind it and moved into place.
        PsahEvent* planar = rest;
        copyRecords(w.planar(a), planar, p);
        PsahEvent* rightPlanarOut = planar + p;

        MergeInto up[2] = {{leftLists, pieces[0].minima, pieces[0].minima + pieces[0].count},
                           {w.front[a], pieces[1].minima, pieces[1].minima + pieces[1].count}};
        partitionList<true>(minima, n, b->destination, up);
        MergeInto down[2] = {
            {leftLists + 2 * leftCount, pieces[0].maxima, pieces[0].maxima + pieces[0].count},
            {w.back[a] + w.capacity, pieces[1].maxima, pieces[1].maxima + pieces[1].count}};
        partitionList<false>(maxima, n, b->destination, down);
        MergeInto flat[2] = {
            {leftLists + 2 * leftCount, pieces[0].planar, pieces[0].planar + pieces[0].planarCount},
            {rightPlanarOut, pieces[1].planar, pieces[1].planar + pieces[1].planarCount}};
        partitionList<true>(planar, p, b->destination, flat);

        w.count[a] = rightCount;
        w.planarCount[a] = rightPlanar[a];
        copyRecords(rightPlanarOut, w.planar(a), rightPlanar[a]);
        out->count[a] = leftCount;
        out->planarCount[a] = leftPlanar[a];
        leftLists += 2 * leftCount + leftPlanar[a];
    }
    return KEL_STS_OK;
}

// A popped left child's patches and lists become the working ones; the
// arena they waited in is rewound.
void restoreLists(Builder* b, const DeferredLists& lists, PsahPatch* working, int n) {
    for (int i = 0; i < n; ++i) working[i] = lists.patches[i];
    Working& w = b->lists;
    const PsahEvent* from = lists.events;
    for (int a = 0; a < 3; ++a) {
        w.count[a] = lists.count[a];
        w.planarCount[a] = lists.planarCount[a];
        copyRecords(from, w.minima(a), w.count[a]);
        copyRecords(from + w.count[a], w.maxima(a), w.count[a]);
        copyRecords(from + 2 * w.count[a], w.planar(a), w.planarCount[a]);
        from += 2 * w.count[a] + w.planarCount[a];
    }
    kel::arenaRewind(&b->deferred, lists.mark);
}

// The node's patches become its triangle numbers; their vertex-pointer
// records go back to the free lists for later cuts.
KelStatus makeLeaf(PsahWorkspace* work, PsahBuildNode* node) {
    const int n = node->count;
    const PsahPatch* patches = node->patches;
    KelStatus status = KEL_STS_OK;
    auto* list = static_cast<int32_t*>(
        kel::takeTreeMemory(work, kel::kIndexChunks, uint64_t(n) * sizeof(int32_t), &status));
    if (!list) return status;
    for (int i = 0; i < n; ++i) {
        list[i] = kel::patchTriangle(patches[i]);
        kel::releaseVertexRecord(work, patches[i].vertices, kel::patchVertexCount(patches[i]));
    }
    node->triangles = list;
    return KEL_STS_OK;
}

void makeEmptyLeaf(PsahBuildNode* node) {
    node->count = 0;
    node->triangles = nullptr;
}

// The patch store as the single-threaded build used it: the left patches
// from the node's mark on, the right ones behind them, both ending strictly
// below the store's end.
bool fitsInPatchStore(const kel::PsahStoreAccount& store, uint64_t from, int leftCount,
                      int rightCount) {
    const uint64_t leftEnd = from + uint64_t(leftCount) * sizeof(PsahPatch);
    const uint64_t rightEnd = leftEnd + uint64_t(rightCount) * sizeof(PsahPatch);
    return leftEnd < store.end && rightEnd < store.end;
}

// Where the point store stood: the charged cursor and the real memory.
struct PointMark {
    uint64_t charged;
    kel::PsahArenaMark real;
};

PointMark pointMark(const PsahWorkspace& work) {
    return PointMark{work.points.cursor, kel::arenaMark(*work.pointMemory)};
}

void rewindPoints(PsahWorkspace* work, const PointMark& mark) {
    work->points.cursor = mark.charged;
    kel::arenaRewind(work->pointMemory, mark.real);
}

struct Task;

// A node with its box and depth, and the store positions to return to when
// it is taken up: the current node, or a deferred left child with its
// patches and lists, or a left child built as a task of its own.
struct PsahStackEntry {
    PsahBuildNode* node;
    float box[6];
    int32_t depth;
    uint64_t patchMark;
    PointMark pointMark;
    DeferredLists lists;
    Task* spawned;
};

// ---------------------------------------------------------------------------
// Subtrees on several threads. Every subtree large enough becomes a task of
// its own with its own lists, points and trace; a task takes records and tree
// memory from its thread's stores. The budget is not touched while tasks run:
// each records its charges in the order it makes them, and the traces are
// replayed against the ledger in the single-threaded order (a right subtree
// before its left sibling) once all are done, so every budget ends in the
// status it always did. On one thread the charges go to the ledger at once.

// From this many patches on, a left child is built as a task of its own.
constexpr int kTaskMinPatches = 1024;

enum Stop : int { kGoOn, kOutOfMemory, kOverBudget };

struct Shared {
    PsahBuildState* state;
    float k;
    int maxDepth;
    bool parallel;
    int stop;            // Stop, read and written atomically
    uint64_t treeBytes;  // tree memory taken by all tasks, atomically
    uint64_t treeLimit;  // more than the budget could ever pay for
    Task* tasks;         // every task made, for the clean-up
};

struct Task {
    Task* next = nullptr;
    Shared* shared = nullptr;
    Builder b;
    PsahWorkspace work;
    kel::PsahArena points;
    kel::PsahTrace trace;
    PsahPatch* patches = nullptr;  // the working array
    bool ownsPatches = false;      // not the root's
    PsahStackEntry start;
};

int stopOf(const Shared* shared) {
    return __atomic_load_n(&shared->stop, __ATOMIC_RELAXED);
}

void stopAll(Shared* shared, Stop why) {
    int expected = kGoOn;
    __atomic_compare_exchange_n(&shared->stop, &expected, int(why), false, __ATOMIC_RELAXED,
                                __ATOMIC_RELAXED);
}

// Tree memory past the budget means the build runs out of it somewhere; only
// the single-threaded order can tell where.
void countTreeBytes(Task* t, uint64_t bytes) {
    if (!t->shared->parallel) return;
    if (__atomic_add_fetch(&t->shared->treeBytes, bytes, __ATOMIC_RELAXED) > t->shared->treeLimit)
        stopAll(t->shared, kOverBudget);
}

// Statuses that end a task: a real allocation failing stops every task; a
// charge failing is recorded where it happened, for the replay to find in
// its turn.
KelStatus endTask(Task* t, KelStatus status) {
    if (status == KEL_STS_NO_MEM || t->work.failure != KEL_STS_OK)
        stopAll(t->shared, kOutOfMemory);
    else if (!t->work.ledger)
        kel::traceCharge(&t->work, kel::kTraceFail, uint32_t(status));
    return status;
}

Task* newTask(Shared* shared) {
    auto* t = reinterpret_cast<Task*>(kelsMalloc_64s(int((sizeof(Task) + 7) / 8)));
    if (!t) return nullptr;
    *t = Task();
    t->shared = shared;
    t->next = __atomic_load_n(&shared->tasks, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&shared->tasks, &t->next, t, true, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED)) {
    }
    return t;
}

// The memory a task works in; its trace stays until the replay.
void releaseTaskWork(Task* t) {
    releaseBuilder(&t->b);
    kel::arenaRelease(&t->points);
    if (t->ownsPatches) kelsFree(t->patches);
    t->patches = nullptr;
}

// A task's patches must not point into the points of the task that made
// them, which rewinds its points while the new task still runs: every point
// that is not a mesh vertex gets a copy of the task's own.
KelStatus adoptPoints(Task* t, PsahPatch* patches, int n) {
    for (int i = 0; i < n; ++i) {
        const float** record = patches[i].vertices;
        for (int k = 0; k < kel::patchVertexCount(patches[i]); ++k) {
            if (isMeshVertex(t->shared->state, record[k])) continue;
            auto* copy = static_cast<float*>(kel::arenaTake(&t->points, 3 * sizeof(float)));
            if (!copy) return KEL_STS_NO_MEM;
            for (int c = 0; c < 3; ++c) copy[c] = record[k][c];
            record[k] = copy;
        }
    }
    return KEL_STS_OK;
}

// The working lists and destinations of a task whose root has n patches.
KelStatus allocateWorkingLists(Builder* b, int n) {
    Working& w = b->lists;
    w.capacity = n;
    b->events = reinterpret_cast<PsahEvent*>(kelsMalloc_64s(6 * n));
    b->destination = reinterpret_cast<int32_t*>(kelsMalloc_32s(n));
    if (!b->events || !b->destination) return KEL_STS_NO_MEM;
    for (int a = 0; a < 3; ++a) {
        w.front[a] = b->events + 2 * size_t(a) * n;
        w.back[a] = w.front[a] + n;
    }
    return KEL_STS_OK;
}

void spawnTask(Task* t);

// Hands the left child to a task of its own: its patches and lists are
// already in the task's arena, its points are copied there.
KelStatus startLeftTask(Task* parent, Task* child, const PsahStackEntry& entry) {
    child->start = entry;
    child->start.spawned = nullptr;
    for (int a = 0; a < 3; ++a) child->b.negativeZero[a] = parent->b.negativeZero[a];
    const KelStatus status = adoptPoints(child, entry.lists.patches, entry.node->count);
    if (status != KEL_STS_OK) return status;
    child->start.pointMark.real = kel::arenaMark(child->points);
    spawnTask(child);
    return KEL_STS_OK;
}

// Builds the subtree of the task's start node, depth first, the right child
// before the left one.
KelStatus growSubtree(Task* t) {
    Shared* shared = t->shared;
    Builder* b = &t->b;
    PsahWorkspace* work = &t->work;
    PsahPatch* const working = t->patches;
    PsahStackEntry stack[kStackEntries];
    int stackSize = 0;
    PsahStackEntry w = t->start;

    for (;;) {
        if (stopOf(shared) != kGoOn) return KEL_STS_OK;
        rewindPoints(work, w.pointMark);
        PsahBuildNode* node = w.node;
        const int n = node->count;

        SplitDecision d;
        d.axis = -1;
        if (w.depth != shared->maxDepth) {
            d.cost = leafCost(w.box, n);
            const KelStatus status =
                n > kSmallNodeMax ? localFindBestSplitSortSearch_MT(b, &d, node, w.box, shared->k)
                                  : searchSmallNode(b, working, n, w.box, shared->k, &d);
            if (status != KEL_STS_OK) return status;
        }

        if (d.axis < 0) {
            KelStatus status = makeLeaf(work, node);
            if (status != KEL_STS_OK) return status;
            countTreeBytes(t, uint64_t(n) * sizeof(int32_t));
            // A left child built as a task comes in its turn: its charges
            // follow the right subtree's.
            while (stackSize > 0 && stack[stackSize - 1].spawned)
                kel::traceSubtree(work, &stack[--stackSize].spawned->trace);
            if (work->failure != KEL_STS_OK) return work->failure;
            if (stackSize == 0) return KEL_STS_OK;
            const PsahStackEntry& top = stack[--stackSize];
            w = top;
            restoreLists(b, top.lists, working, w.node->count);
            w.node->patches = working;
            continue;
        }

        KelStatus status = KEL_STS_OK;
        auto* children = static_cast<PsahBuildNode*>(
            kel::takeTreeMemory(work, kel::kNodeChunks, 2 * sizeof(PsahBuildNode), &status));
        if (!children) return status;
        countTreeBytes(t, 2 * sizeof(PsahBuildNode));
        children[0] = children[1] = *node;
        node->kind = d.axis;
        node->split = d.position;
        node->children = children;
        ++w.depth;

        // A split with an empty side hands every patch, and so every list,
        // to the other side unchanged.
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

        // The patch store is charged as if the left patches went from the
        // node's mark on and the right ones behind them. The left ones wait
        // in an arena with their lists until the left child is taken up; the
        // right ones are written over the working array.
        if (!fitsInPatchStore(work->patches, w.patchMark, d.leftCount, d.rightCount))
            return KEL_STS_OVERFLOW;
        Task* child = nullptr;
        if (shared->parallel && d.leftCount >= kTaskMinPatches) {
            child = newTask(shared);
            if (!child) return KEL_STS_NO_MEM;
        }
        kel::PsahArena* arena = child ? &child->b.deferred : &b->deferred;
        PsahStackEntry& entry = stack[stackSize++];
        entry.spawned = nullptr;
        entry.lists.mark = kel::arenaMark(*arena);
        entry.lists.patches =
            static_cast<PsahPatch*>(kel::arenaTake(arena, sizeof(PsahPatch) * size_t(d.leftCount)));
        if (!entry.lists.patches) return KEL_STS_NO_MEM;
        int cutCount = 0;
        status = distributePatches(b, working, n, d, entry.lists.patches, working, &cutCount);
        if (status != KEL_STS_OK) return status;
        status = partitionLists(b, entry.lists.patches, working, d, cutCount, arena, &entry.lists);
        if (status != KEL_STS_OK) return status;

        children[0].count = d.leftCount;
        children[0].patches = entry.lists.patches;
        children[1].count = d.rightCount;
        children[1].patches = working;
        entry.node = &children[0];
        kelsCopy_32f(w.box, entry.box, 6);
        entry.box[d.axis + 3] = d.position;
        entry.depth = w.depth;
        entry.patchMark = w.patchMark;
        // The pieces cut just now must outlive both subtrees.
        entry.pointMark = pointMark(*work);
        if (child) {
            status = startLeftTask(t, child, entry);
            if (status != KEL_STS_OK) return status;
            entry.spawned = child;
        }

        w.node = &children[1];
        w.box[d.axis] = d.position;
        w.patchMark += uint64_t(d.leftCount) * sizeof(PsahPatch);
        w.pointMark = entry.pointMark;
    }
}

// A task's workspace: the ledger at once on one thread, else its trace;
// records and tree memory from the stores of the thread it runs on. The
// root's points go where the driver's went; a task's, into its own arena.
void setUpWork(Task* t, kel::PsahArena* points) {
    const PsahBuildState* state = t->shared->state;
    PsahWorkspace& work = t->work;
    work = state->work;
    work.pointMemory = points;
    t->b.work = &work;
    if (!t->shared->parallel) return;
    kel::PsahThreadStores& stores = state->threads[omp_get_thread_num()];
    work.ledger = nullptr;
    work.trace = &t->trace;
    work.records = &stores.records;
    work.nodes = &stores.nodes;
    work.lists = &stores.lists;
}

void runTask(Task* t) {
    setUpWork(t, &t->points);
    const int n = t->start.node->count;
    KelStatus status = allocateWorkingLists(&t->b, n);
    t->patches =
        reinterpret_cast<PsahPatch*>(kelsMalloc_64s(int((sizeof(PsahPatch) * size_t(n) + 7) / 8)));
    t->ownsPatches = true;
    if (status == KEL_STS_OK && !t->patches) status = KEL_STS_NO_MEM;
    if (status == KEL_STS_OK) {
        restoreLists(&t->b, t->start.lists, t->patches, n);
        t->start.node->patches = t->patches;
        status = growSubtree(t);
    }
    if (status != KEL_STS_OK) endTask(t, status);
    releaseTaskWork(t);
}

void spawnTask(Task* t) {
#pragma omp task firstprivate(t)
    runTask(t);
}

// Charges of a trace and of the traces of its subtrees, in turn, against the
// ledger; the first that fails, or a failure recorded in its place, is the
// build's status.
KelStatus replay(kel::PsahLedger* ledger, const kel::PsahTrace* trace) {
    const auto* p = static_cast<const uint8_t*>(trace->bytes.data);
    const uint8_t* end = p + trace->size;
    while (p < end) {
        const uint8_t code = *p++;
        const int low = code & 15;
        KelStatus status = KEL_STS_OK;
        switch (code & 0xF0) {
            case kel::kTraceChunk:
                status = kel::chargeChunk(ledger, kel::PsahChunkList(low), kel::traceWord(&p));
                break;
            case kel::kTraceTake:
                status = kel::chargeRecord(ledger, low);
                break;
            case kel::kTraceGive:
                kel::creditRecord(ledger, low);
                break;
            case kel::kTraceFail:
                return KelStatus(int32_t(kel::traceWord(&p)));
            default:
                status = replay(ledger, kel::traceSubtreeOf(&p));
        }
        if (status != KEL_STS_OK) return status;
    }
    return KEL_STS_OK;
}

void releaseTasks(Shared* shared) {
    for (Task* t = shared->tasks; t;) {
        Task* next = t->next;
        releaseTaskWork(t);
        kel::scratchRelease(&t->trace.bytes);
        kelsFree(t);
        t = next;
    }
}

// The root task: the root's patches in place and its lists sorted.
KelStatus startRoot(Task* t, PsahBuildNode* root, const float* rootBox) {
    const int n = root->count;
    t->patches = root->patches;
    PsahStackEntry& w = t->start;
    w.node = root;
    kelsCopy_32f(rootBox, w.box, 6);
    w.depth = 0;
    w.patchMark = t->work.patches.cursor;
    w.pointMark = pointMark(t->work);
    w.spawned = nullptr;
    KelStatus status = allocateWorkingLists(&t->b, n);
    auto* temp = reinterpret_cast<PsahEvent*>(kelsMalloc_64s(6 * n));
    if (status == KEL_STS_OK && !temp) status = KEL_STS_NO_MEM;
    if (status == KEL_STS_OK) {
        for (bool& flag : t->b.negativeZero) flag = false;
        t->b.shareAxes = t->shared->parallel;
        sortRootLists(&t->b, root->patches, n, t->b.shareAxes, temp);
    }
    kelsFree(temp);
    return status;
}

KelStatus runRoot(Task* t, PsahBuildNode* root, const float* rootBox) {
    setUpWork(t, &t->shared->state->points);
    KelStatus status = startRoot(t, root, rootBox);
    if (status == KEL_STS_OK) status = growSubtree(t);
    if (status != KEL_STS_OK) status = endTask(t, status);
    releaseTaskWork(t);
    return status;
}

// Records and tree memory for each thread of the team.
KelStatus makeThreadStores(PsahBuildState* state, int threads) {
    state->threads = reinterpret_cast<kel::PsahThreadStores*>(
        kelsMalloc_64s(int((sizeof(kel::PsahThreadStores) * size_t(threads) + 7) / 8)));
    if (!state->threads) return KEL_STS_NO_MEM;
    state->threadCount = threads;
    for (int i = 0; i < threads; ++i) state->threads[i] = kel::PsahThreadStores();
    return KEL_STS_OK;
}

}  // namespace

extern "C" KEL_API KelStatus ownOptimizationPSAH(PsahBuildState* state, PsahBuildNode* root,
                                                 float psahWeight, int maxDepth,
                                                 const float* rootBox) {
    Shared shared = {};
    shared.state = state;
    // A larger weight lowers the bar a split has to clear.
    shared.k = float((10.0 - 9.0 * double(psahWeight)) * kLeafFactorScale);
    shared.maxDepth = maxDepth;
    shared.treeLimit = state->ledger.budget;
    int threads = omp_get_max_threads();
    if (threads > omp_get_num_procs()) threads = omp_get_num_procs();
    shared.parallel = !state->sequential && threads > 1 && root->count >= 2 * kTaskMinPatches;
    if (shared.parallel && makeThreadStores(state, threads) != KEL_STS_OK) return KEL_STS_NO_MEM;

    Task* rootTask = newTask(&shared);
    if (!rootTask) return KEL_STS_NO_MEM;
    KelStatus status = KEL_STS_OK;
    if (shared.parallel) {
#pragma omp parallel num_threads(threads)
#pragma omp single
        runRoot(rootTask, root, rootBox);
        // Every task has ended at the region's barrier.
        const int stop = stopOf(&shared);
        if (stop == kOutOfMemory)
            status = KEL_STS_NO_MEM;
        else if (stop == kOverBudget)
            status = kel::kRetryOnOneThread;
        else
            status = replay(&state->ledger, &rootTask->trace);
    } else {
        status = runRoot(rootTask, root, rootBox);
        if (stopOf(&shared) == kOutOfMemory) status = KEL_STS_NO_MEM;
    }
    releaseTasks(&shared);
    return status;
}
