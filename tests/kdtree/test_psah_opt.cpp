// The PSAH optimisation on hand-made patches: a minimal build state, one
// call, and the build tree it leaves, checked against brute-force pricing of
// every candidate plane.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "alloc_count.h"
#include "kdtree/psah.h"

namespace {

using namespace kel;

struct Tri {
    float v[3][3];
};
Tri tri(float ax, float ay, float az, float bx, float by, float bz, float cx, float cy, float cz) {
    return Tri{{{ax, ay, az}, {bx, by, bz}, {cx, cy, cz}}};
}

// Pre-order: every node's first two words, each leaf's triangles after them.
struct Tree {
    std::vector<int32_t> words;
    std::vector<int> axes;
    std::vector<std::vector<int>> leaves;
};

// A build state as the driver leaves it: the root's patches charged to the
// patch store, every record to the record chunks.
class PsahOpt : public ::testing::Test {
  protected:
    void TearDown() override { release(); }

    void release() {
        if (built) {
            for (PsahArena* a : {&state.records.arena, &state.points, &state.nodes, &state.lists})
                arenaRelease(a);
            kelsFree(state.rootPatches);
            releaseThreadStores(&state);
            built = false;
        }
        EXPECT_EQ(count.liveBlocks(), 0) << "leaked blocks";
    }

    // Patch i is triangle numbers[i] (i by default); the box is the bounds.
    // The point store holds one point less than asked for: the strict test
    // leaves its last entry unused.
    void prepare(const std::vector<Tri>& tris, std::vector<int> numbers = {},
                 size_t pointStorePoints = 1 << 16) {
        release();
        const int n = int(tris.size());
        mesh = tris;
        state = PsahBuildState();
        state.totalBudget = state.ledger.budget = 0xFFFFFFFFu;
        PsahWorkspace& work = state.work;
        work.ledger = &state.ledger;
        work.patches = {size_t(64 * n + 4096) * sizeof(PsahPatch), n * sizeof(PsahPatch)};
        work.points = {pointStorePoints * 12, 0};
        work.records = &state.records;
        work.pointMemory = &state.points;
        work.nodes = &state.nodes;
        work.lists = &state.lists;
        state.rootPatches = reinterpret_cast<PsahPatch*>(kelsMalloc_64s(2 * n));
        built = true;
        PsahPatch* patches = state.rootPatches;
        for (int k = 0; k < 9 * n; ++k) {
            const float c = mesh[k / 9].v[k % 9 / 3][k % 3];
            box[k % 3] = k < 3 ? c : std::min(box[k % 3], c);
            box[k % 3 + 3] = k < 3 ? c : std::max(box[k % 3 + 3], c);
        }
        for (int i = 0; i < n; ++i) {
            KelStatus st = KEL_STS_OK;
            const float** record = takeVertexRecord(&state.work, 3, &st);
            for (int k = 0; k < 3; ++k) record[k] = mesh[i].v[k];
            const uint32_t number = numbers.empty() ? i : numbers[i];
            patches[i] = PsahPatch{number << 5 | 3, extremeVertexMask(record, 3), record};
        }
        root.kind = kPsahLeaf;
        root.count = n;
        root.patches = patches;
    }

    KelStatus run(float weight, int maxDepth) {
        return ownOptimizationPSAH(&state, &root, weight, maxDepth, box);
    }

    static void walk(const PsahBuildNode* node, Tree* t) {
        t->words.insert(t->words.end(), {node->kind, node->count});
        if (node->kind != kPsahLeaf) {
            t->axes.push_back(node->kind);
            return walk(&node->children[0], t), walk(&node->children[1], t);
        }
        t->leaves.emplace_back(node->triangles, node->triangles + node->count);
        t->words.insert(t->words.end(), t->leaves.back().begin(), t->leaves.back().end());
    }
    Tree tree() const {
        Tree t;
        walk(&root, &t);
        return t;
    }
    // Runs with weight 1, expects the root's kind and, unless NaN, its split.
    void expectSplit(int maxDepth, int kind, float at = NAN) {
        ASSERT_EQ(run(1.0f, maxDepth), KEL_STS_OK);
        ASSERT_EQ(root.kind, kind);
        if (kind != kPsahLeaf && at == at) EXPECT_EQ(root.split, at);
    }
    // Free records of a size class that satisfy the predicate.
    template <typename Pred>
    int freeRecords(int size, Pred pred) const {
        int n = 0;
        for (const float** r = state.records.free[size]; r; r = *nextFreeRecord(r)) n += pred(r);
        return n;
    }

    kelt::AllocationCount count;
    std::vector<Tri> mesh;
    PsahBuildState state;
    PsahBuildNode root;
    float box[6];
    bool built = false;
};

// Random triangles inside a cube-spanning one. Every seventh lies in a plane
// z = c: c = 0.5 or 0.25 when planar is 1, 0.5 or the lower face when it is 2.
std::vector<Tri> soup(int n, unsigned seed, int planar = 2) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.15f, 0.85f), d(-0.15f, 0.15f);
    std::vector<Tri> tris(n);
    for (int i = 0; i < n; ++i) {
        const float c[3] = {u(rng), u(rng), u(rng)};
        for (auto& v : tris[i].v)
            for (int a = 0; a < 3; ++a) v[a] = c[a] + d(rng);
        if (planar > 0 && i % 7 == 0)
            for (auto& v : tris[i].v) v[2] = i % 14 ? 0.5f : planar == 1 ? 0.25f : 0.0f;
    }
    tris.push_back(tri(0, 0, 0, 1, 1, 1, 0, 1, 0));
    return tris;
}

// Brute force over every distinct event value of an axis, with the sides
// counted by the distribution rule, priced in Real and compared in double.
struct Choice {
    double cost;
    float position;
    int left, right;
};

template <typename Real>
Choice bruteForceAxis(const std::vector<Tri>& tris, const float* box, int a, double leafCost,
                      bool emptySpaceRule = true) {
    const int o1 = (a + 1) % 3, o2 = (a + 2) % 3;
    const float lo = box[a], hi = box[a + 3], e1 = box[o1 + 3] - box[o1],
                e2 = box[o2 + 3] - box[o2];
    Choice best{leafCost, 0, 0, 0};
    if (!(hi - lo > 1e-5f && (e1 > 1e-5f || e2 > 1e-5f))) return best;
    std::vector<float> mins, maxs, events;
    float ends[2][2] = {{FLT_MAX, -FLT_MAX}, {FLT_MAX, -FLT_MAX}};  // [planar][low, high]
    for (const Tri& t : tris) {
        const float mn = std::min({t.v[0][a], t.v[1][a], t.v[2][a]});
        const float mx = std::max({t.v[0][a], t.v[1][a], t.v[2][a]});
        mins.push_back(mn), maxs.push_back(mx), events.insert(events.end(), {mn, mx});
        float* e = ends[mn == mx];
        e[0] = std::min(e[0], mn), e[1] = std::max(e[1], mx);
    }
    if (ends[0][0] == FLT_MAX) ends[0][0] = lo, ends[0][1] = hi;
    const float lowest = std::min(ends[0][0], ends[1][0]),
                highest = std::max(ends[0][1], ends[1][1]);
    const int total = int(tris.size());
    const Real sum = Real(e1) + Real(e2), prod = Real(e1) * Real(e2);
    const Real r = double(prod) >= 1e-9 ? prod / sum : Real(0);
    double raw = DBL_MAX;
    auto offer = [&](float x, int l, int rr, Real bonus = 1) {
        const double c = double((Real(float(l)) * ((Real(x) - Real(lo)) + r) +
                                 Real(float(rr)) * ((Real(hi) - Real(x)) + r)) *
                                bonus);
        if (c < raw) raw = c, best = Choice{0, x, l, rr};
    };
    const float tenth = (hi - lo) * 0.1f;
    if (emptySpaceRule && lowest - lo > tenth) offer(lowest, 0, total);
    if (emptySpaceRule && hi - highest > tenth) offer(highest, total, 0);
    if (raw < DBL_MAX) return best.cost = raw * 0.699999988079071 * double(sum), best;
    int onLo = 0, onHi = 0;
    for (size_t i = 0; i < mins.size(); ++i)
        onLo += mins[i] == maxs[i] && mins[i] == lo, onHi += mins[i] == maxs[i] && mins[i] == hi;
    if (onLo) offer(lo, onLo, total - onLo, 0.7f);
    if (onHi) offer(hi, total - onHi, onHi, 0.7f);
    std::sort(events.begin(), events.end());
    events.erase(std::unique(events.begin(), events.end()), events.end());
    for (float x : events) {
        int l = 0, rr = 0, onPlane = 0;
        for (size_t i = 0; i < mins.size(); ++i) {
            const bool planar = mins[i] == maxs[i] && mins[i] == x;
            onPlane += planar, l += !planar && mins[i] < x, rr += !planar && maxs[i] > x;
        }
        offer(x, l, rr + onPlane);
        if (onPlane) offer(x, l + onPlane, rr);
    }
    return best.cost = raw * double(sum), best;
}

// The root's split, or -1 for a leaf.
template <typename Real>
int bruteForceSplit(const std::vector<Tri>& tris, const float* box, float weight, Choice* out) {
    const double dx = box[3] - box[0], dy = box[4] - box[1], dz = box[5] - box[2];
    const double n = double(tris.size()), leaf = n * (dx * (dy + dz) + dy * dz);
    const float k = float((10.0 - 9.0 * double(weight)) * 0.5057569742202759);
    Choice c[3];
    for (int a = 0; a < 3; ++a) c[a] = bruteForceAxis<Real>(tris, box, a, leaf);
    int axis =
        c[0].cost >= c[1].cost ? (c[1].cost < c[2].cost ? 1 : 2) : (c[2].cost <= c[0].cost ? 2 : 0);
    *out = c[axis];
    return n * (leaf - c[axis].cost) > std::max(leaf * k, 9.999999747378752e-06) ? axis : -1;
}

TEST_F(PsahOpt, MaxDepthZeroGivesOneLeafInPatchOrder) {
    std::vector<int> numbers(41);
    for (int i = 0; i < 41; ++i) numbers[i] = (i * 17) % 41;
    prepare(soup(40, 1), numbers);
    ASSERT_EQ(run(1.0f, 0), KEL_STS_OK);
    EXPECT_EQ(tree().leaves, std::vector<std::vector<int>>{numbers});
    EXPECT_NE(state.records.free[3], nullptr) << "leaf records go back to the free list";
}

TEST_F(PsahOpt, SmallAndWideNodesChooseTheBruteForceSplit) {
    for (int n : {30, 74, 120, 400}) {  // 400: sorted by the radix sort
        for (int planar : {0, 1, 2}) {
            SCOPED_TRACE(testing::Message() << "n = " << n << ", planar " << planar);
            const float weight = planar == 1 ? 0.0f : 1.0f;
            const std::vector<Tri> tris = soup(n, unsigned(n + planar), planar);
            prepare(tris);
            Choice want;
            const int axis = n + 1 > 75 ? bruteForceSplit<double>(tris, box, weight, &want)
                                        : bruteForceSplit<float>(tris, box, weight, &want);
            ASSERT_EQ(run(weight, 1), KEL_STS_OK);
            ASSERT_EQ(root.kind, axis < 0 ? kPsahLeaf : axis);
            if (axis >= 0)
                EXPECT_EQ(
                    std::make_tuple(root.split, root.children[0].count, root.children[1].count),
                    std::make_tuple(want.position, want.left, want.right));
        }
    }
}

// A set closed under rotating the axes prices alike on all three: the tie
// goes to z. Mirrored between x and y, with z spanning the box, it goes to y;
// mirrored between x and z, with y spanning, to z.
TEST_F(PsahOpt, AxisTiesGoToTheHigherAxis) {
    for (int copies : {2, 30}) {  // small and wide nodes
        std::vector<Tri> rotated, mirrored;
        for (int i = 0; i < 3 * copies; ++i) {
            const float o = 0.7f * float(i % 2),
                        p[3][3] = {
                            {o, o, o}, {o + 0.3f, o + 0.1f, o + 0.2f}, {o + 0.1f, o + 0.3f, o}};
            Tri t;
            for (int k = 0; k < 9; ++k)
                t.v[k / 3][k % 3] = p[k / 3][(k + i) % 3];  // rotation i % 3
            rotated.push_back(t);
            mirrored.push_back(tri(o, o + 0.1f, 0, o + 0.3f, o, 1, o + 0.2f, o + 0.3f, 0.5f));
            mirrored.push_back(tri(o + 0.1f, o, 0, o, o + 0.3f, 1, o + 0.3f, o + 0.2f, 0.5f));
        }
        std::vector<Tri> swapped = mirrored;
        for (Tri& t : swapped)
            for (auto& v : t.v) std::swap(v[1], v[2]);
        for (auto [tris, axis] :
             {std::pair(rotated, 2), std::pair(mirrored, 1), std::pair(swapped, 2)}) {
            prepare(tris);
            expectSplit(1, axis);
        }
    }
}

TEST_F(PsahOpt, FlatBoxesNeverSplitOnTheirFlatAxis) {
    for (int n : {50, 300}) {
        std::vector<Tri> tris = soup(n, 7);
        for (Tri& t : tris)
            for (auto& v : t.v) v[2] = 0.25f;
        prepare(tris);
        ASSERT_EQ(run(1.0f, 20), KEL_STS_OK);
        const std::vector<int> axes = tree().axes;
        EXPECT_GT(axes.size(), 3u);
        EXPECT_EQ(std::count(axes.begin(), axes.end(), 2), 0);

        for (Tri& t : tris)
            for (auto& v : t.v) v[1] = 0.5f;
        prepare(tris);
        expectSplit(20, kPsahLeaf);  // flat on two axes
    }
}

// A floor at z = 0 splits off into a flat left child. Planar patches in the
// middle of the box price the same on both sides of a plane through them;
// the right side, priced first, wins.
TEST_F(PsahOpt, PlanarPatches) {
    std::vector<Tri> tris = {tri(0, 0, 0, 1, 0, 0, 1, 1, 0), tri(0, 0, 0, 1, 1, 0, 0, 1, 0)};
    for (int i = 0; i < 8; ++i)
        tris.push_back(tri(0, 0, 0.05f, 1, 1, 0.05f + 0.1f * i, 0.5f, 0.5f, 1));
    prepare(tris);
    expectSplit(20, 2, 0.0f);
    EXPECT_EQ(tree().leaves[0], (std::vector<int>{0, 1}));

    tris.clear();
    for (int i = 0; i < 3; ++i)
        tris.insert(tris.end(),
                    {tri(0, 0, 0, 1, 1, 0.5f, 0, 1, 0.2f), tri(0, 0, 0.5f, 1, 1, 1, 0, 1, 0.7f),
                     tri(0, 0, 0.5f, 1, 1, 0.5f, 0, 1, 0.5f)});
    prepare(tris);
    expectSplit(1, 2, 0.5f);
    EXPECT_EQ(tree().leaves, (std::vector<std::vector<int>>{{0, 3, 6}, {1, 2, 4, 5, 7, 8}}));
}

TEST_F(PsahOpt, EmptySpaceBeyondATenthIsCutOffWithoutASweep) {
    // Two slabs in z with the box top just over a tenth above the upper one:
    // the top goes although a plane between the slabs would be cheaper.
    std::vector<Tri> tris;
    for (int i = 0; i < 4; ++i)
        tris.insert(tris.end(), {tri(0, 0, 0, 0.01f, 0.01f, 0.1f, 0, 0.01f, 0.05f),
                                 tri(0, 0, 0.8f, 0.01f, 0.01f, 0.89f, 0, 0.01f, 0.85f)});
    prepare(tris);
    box[5] = 1.0f;
    EXPECT_LT(bruteForceAxis<float>(tris, box, 2, DBL_MAX, false).cost,
              bruteForceAxis<float>(tris, box, 2, DBL_MAX).cost);
    expectSplit(1, 2, 0.89f);
    EXPECT_TRUE(root.children[1].count == 0 && root.children[1].triangles == nullptr);

    // In a box of height 10, empty space of exactly 1 does not count; 1.1
    // does, at either end, and only its bonus makes the cut pay here.
    const struct {
        float bottom, top;
        int kind;
    } cases[] = {{0, 9, kPsahLeaf}, {1, 10, kPsahLeaf}, {0, 8.9f, 2}, {1.1f, 10, 2}};
    for (const auto& c : cases) {
        prepare(std::vector<Tri>(4, tri(0, 0, c.bottom, 1, 1, c.top, 0, 1, 4.5f)));
        box[2] = 0.0f, box[5] = 10.0f;
        SCOPED_TRACE(testing::Message() << c.bottom << " " << c.top);
        expectSplit(1, c.kind, c.bottom > 0 ? c.bottom : c.top);
        if (c.kind != kPsahLeaf) EXPECT_EQ(root.children[c.bottom > 0 ? 0 : 1].count, 0);
    }
}

// The triangle (0,0,0), (2,0,0), (0,2,0) is cut at x = 1 between two
// clusters. Its pieces end up on the free lists when the leaves are made,
// where each record's first word has become the list link.
TEST_F(PsahOpt, StraddlingPatchIsCutIntoTwoPieces) {
    std::vector<Tri> tris = {tri(0, 0, 0, 2, 0, 0, 0, 2, 0)};
    for (int i = 0; i < 2; ++i)
        tris.insert(tris.end(),
                    {tri(0, 0, 0, 1, 0, 0, 0.5f, 2, 0), tri(1, 0, 0, 2, 0, 0, 1.5f, 2, 0)});
    prepare(tris, {}, 2);  // room for one new point: the last entry stays unused
    EXPECT_EQ(run(1.0f, 1), KEL_STS_OVERFLOW);

    prepare(tris, {}, 3);
    const float** cutRecord = root.patches[0].vertices;
    expectSplit(1, 0, 1.0f);
    EXPECT_EQ(tree().leaves, (std::vector<std::vector<int>>{{0, 1, 3}, {0, 2, 4}}));
    const float** left = state.records.free[4];  // (0,0,0), X1, X2, (0,2,0)
    ASSERT_NE(left, nullptr);
    EXPECT_EQ(*nextFreeRecord(left), nullptr) << "the only four-vertex record";
    const float *x1 = left[1], *x2 = left[2];
    EXPECT_EQ((std::vector<float>{x1[0], x1[1], x1[2], x2[0], x2[1], x2[2]}),
              (std::vector<float>{1, 0, 0, 1, 1, 0}));
    EXPECT_EQ(left[3], mesh[0].v[2]);
    // The right piece X1, (2,0,0), X2, and the cut patch's own record.
    EXPECT_EQ(freeRecords(3, [&](const float** r) { return r[1] == mesh[0].v[1] && r[2] == x2; }),
              1);
    EXPECT_EQ(freeRecords(3, [&](const float** r) { return r == cutRecord; }), 1);

    // With its top corner on the plane the triangle needs one new point
    // only, which fits where two did not; both pieces share the corner, as
    // does the released record.
    tris[0] = tri(0, 0, 0, 2, 0, 0, 1, 2, 0);
    prepare(tris, {}, 2);
    expectSplit(1, 0, 1.0f);
    EXPECT_EQ(freeRecords(3, [&](const float** r) { return r[2] == mesh[0].v[2]; }), 3);
}

TEST_F(PsahOpt, ExhaustedBudgetOrPatchStoreReportsOverflow) {
    prepare(soup(30, 3));
    state.ledger.budget = kChunkCost - 1;
    EXPECT_EQ(run(1.0f, 0), KEL_STS_OVERFLOW);
    prepare(soup(30, 3));
    state.work.patches.end = state.work.patches.cursor + 4 * sizeof(PsahPatch);
    EXPECT_EQ(run(1.0f, 20), KEL_STS_OVERFLOW);
}

// With no active levels every region runs on one thread; the tree must not
// change by a word, and every triangle must reach a leaf.
TEST_F(PsahOpt, SameTreeWhateverTheThreadCount) {
    Tree trees[2];
    const int levels = omp_get_max_active_levels();
    for (int pass = 0; pass < 2; ++pass) {
        omp_set_max_active_levels(pass == 0 ? levels : 0);
        prepare(soup(3000, 11));
        ASSERT_EQ(run(0.5f, 25), KEL_STS_OK);
        trees[pass] = tree();
    }
    omp_set_max_active_levels(levels);
    EXPECT_GT(trees[0].axes.size(), 500u);
    EXPECT_EQ(trees[0].words, trees[1].words);
    std::set<int> seen;
    for (const std::vector<int>& leaf : trees[0].leaves) seen.insert(leaf.begin(), leaf.end());
    EXPECT_EQ(seen.size(), 3001u);
}

}  // namespace
