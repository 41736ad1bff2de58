// The PSAH optimisation on hand-made patches: a minimal build state, one
// call, and the build tree it leaves, checked against brute-force pricing of
// every candidate plane.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cfloat>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "kdtree/psah.h"

namespace {

using namespace kel;

long g_liveBlocks = 0;
void* countingMalloc(size_t n) {
    ++g_liveBlocks;
    return malloc(n);
}
void countingFree(void* p) {
    --g_liveBlocks;
    free(p);
}

struct Tri {
    float v[3][3];
};

struct Leaf {
    float box[6];
    int depth;
    std::vector<int> triangles;
};

// A build state holding the given triangles as patches of the root, the way
// the driver leaves it: root patches, then free room, in the patch pool.
class PsahOpt : public ::testing::Test {
  protected:
    void SetUp() override {
        i_malloc = countingMalloc;
        i_free = countingFree;
    }
    void TearDown() override {
        release();
        i_malloc = malloc;
        i_free = free;
    }

    // Returns every block of the previous build; nothing may stay behind.
    void release() {
        if (built) {
            releaseChunks(&state.nodeChunks);
            releaseChunks(&state.indexChunks);
            releaseChunks(&state.recordChunks);
            kelsFree(state.patchPool.base);
            kelsFree(state.vertexPool.base);
            for (float* s : state.scratch) kelsFree(s);
            built = false;
        }
        EXPECT_EQ(g_liveBlocks, 0) << "leaked blocks";
    }

    static PsahPool makePool(size_t bytes) {
        char* base = reinterpret_cast<char*>(kelsMalloc_32s(int(bytes / 4)));
        return PsahPool{base, base + bytes, base};
    }

    // Patch i is triangle numbers[i] (i by default).
    void prepare(const std::vector<Tri>& tris, std::vector<int> numbers = {},
                 size_t vertexPoolPoints = 1 << 16) {
        release();
        const int n = int(tris.size());
        mesh.assign(tris.size() * 9, 0.0f);
        std::memcpy(mesh.data(), tris.data(), mesh.size() * sizeof(float));
        state = PsahBuildState{};
        state.budget = state.totalBudget = 0xFFFFFFFFu;
        state.vertexBegin = mesh.data();
        state.vertexEnd = state.vertexLimit = mesh.data() + mesh.size();
        state.patchPool = makePool(size_t(64 * n + 4096) * sizeof(PsahPatch));
        state.vertexPool = makePool(vertexPoolPoints * 12);
        for (float*& s : state.scratch) s = reinterpret_cast<float*>(kelsMalloc_32s(n));
        initChunkList(&state.nodeChunks);
        initChunkList(&state.indexChunks);
        initChunkList(&state.recordChunks);
        built = true;

        auto* patches =
            static_cast<PsahPatch*>(takeFromPool(&state.patchPool, n * sizeof(PsahPatch)));
        for (int i = 0; i < n; ++i) {
            KelStatus st = KEL_STS_OK;
            const float** record = takeVertexRecord(&state, 3, &st);
            for (int k = 0; k < 3; ++k) record[k] = &mesh[9 * i + 3 * k];
            int number = numbers.empty() ? i : numbers[i];
            patches[i] = PsahPatch{uint32_t(number) << 5 | 3, extremeVertexMask(record, 3), record};
        }
        root = PsahBuildNode{};
        root.kind = kPsahLeaf;
        root.count = n;
        root.patches = patches;
        for (int a = 0; a < 3; ++a) {
            box[a] = FLT_MAX;
            box[a + 3] = -FLT_MAX;
            for (size_t k = a; k < mesh.size(); k += 3) {
                box[a] = std::min(box[a], mesh[k]);
                box[a + 3] = std::max(box[a + 3], mesh[k]);
            }
        }
    }

    KelStatus run(float weight, int maxDepth) {
        return ownOptimizationPSAH(&state, &root, weight, maxDepth, box);
    }

    void collect(const PsahBuildNode* node, const float* nodeBox, int depth) {
        if (node->kind == kPsahLeaf) {
            Leaf leaf{{}, depth, {}};
            std::copy(nodeBox, nodeBox + 6, leaf.box);
            if (node->count > 0)
                leaf.triangles.assign(node->triangles, node->triangles + node->count);
            leaves.push_back(leaf);
            return;
        }
        float childBox[6];
        std::copy(nodeBox, nodeBox + 6, childBox);
        childBox[node->kind + 3] = node->split;
        collect(&node->children[0], childBox, depth + 1);
        std::copy(nodeBox, nodeBox + 6, childBox);
        childBox[node->kind] = node->split;
        collect(&node->children[1], childBox, depth + 1);
    }
    std::vector<Leaf>& treeLeaves() {
        leaves.clear();
        collect(&root, box, 0);
        return leaves;
    }
    // Every inner node's axis, pre-order.
    static void splitAxes(const PsahBuildNode* node, std::vector<int>* axes) {
        if (node->kind == kPsahLeaf) return;
        axes->push_back(node->kind);
        splitAxes(&node->children[0], axes);
        splitAxes(&node->children[1], axes);
    }
    // The tree as words, pre-order, for byte-exact comparison.
    static void serialise(const PsahBuildNode* node, std::vector<int32_t>* out) {
        out->push_back(node->kind);
        out->push_back(node->count);  // the split's bits for an inner node
        if (node->kind == kPsahLeaf) {
            if (node->count > 0)
                out->insert(out->end(), node->triangles, node->triangles + node->count);
            return;
        }
        serialise(&node->children[0], out);
        serialise(&node->children[1], out);
    }

    std::vector<float> mesh;
    PsahBuildState state;
    PsahBuildNode root;
    float box[6];
    std::vector<Leaf> leaves;
    bool built = false;
};

Tri tri(float ax, float ay, float az, float bx, float by, float bz, float cx, float cy, float cz) {
    return Tri{{{ax, ay, az}, {bx, by, bz}, {cx, cy, cz}}};
}

// Random triangles in the unit cube. Every seventh lies in a plane z = c:
// c = 0.5 or 0.25 when planar is 1, and c = 0.5 or the lower face when it
// is 2.
std::vector<Tri> soup(int n, unsigned seed, int planar = 2) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.15f, 0.85f), d(-0.15f, 0.15f);
    std::vector<Tri> tris;
    for (int i = 0; i < n; ++i) {
        float c[3] = {u(rng), u(rng), u(rng)};
        Tri t;
        for (auto& v : t.v)
            for (int a = 0; a < 3; ++a) v[a] = c[a] + d(rng);
        if (planar > 0 && i % 7 == 0)
            for (auto& v : t.v) v[2] = i % 14 ? 0.5f : planar == 1 ? 0.25f : 0.0f;
        tris.push_back(t);
    }
    tris.push_back(tri(0, 0, 0, 1, 1, 1, 0, 1, 0));  // spans the cube
    return tris;
}

// ---------------------------------------------------------------------------
// Brute force: every distinct event value of an axis, with sides counted by
// the distribution rule, priced in Real and compared in double.

struct Choice {
    double cost;
    float position;
    int left, right;
};

template <typename Real>
Choice bruteForceAxis(const std::vector<Tri>& tris, const float* box, int a, double leafCost,
                      bool emptySpaceRule = true) {
    const int o1 = (a + 1) % 3, o2 = (a + 2) % 3;  // the same pair in either order
    const float lo = box[a], hi = box[a + 3], e1 = box[o1 + 3] - box[o1],
                e2 = box[o2 + 3] - box[o2];
    Choice best{leafCost, 0, 0, 0};
    if (!(hi - lo > 1e-5f && (e1 > 1e-5f || e2 > 1e-5f))) return best;
    std::vector<float> mins, maxs, events;
    for (const Tri& t : tris) {
        mins.push_back(std::min({t.v[0][a], t.v[1][a], t.v[2][a]}));
        maxs.push_back(std::max({t.v[0][a], t.v[1][a], t.v[2][a]}));
        events.push_back(mins.back());
        events.push_back(maxs.back());
    }
    const int total = int(tris.size());
    const Real sum = Real(e1) + Real(e2), prod = Real(e1) * Real(e2);
    const Real r = double(prod) >= 1e-9 ? prod / sum : Real(0);
    auto price = [&](float x, int l, int rr) {
        return double(Real(float(l)) * ((Real(x) - Real(lo)) + r) +
                      Real(float(rr)) * ((Real(hi) - Real(x)) + r));
    };
    double bestRaw = DBL_MAX;
    auto offer = [&](double c, float x, int l, int rr) {
        if (c < bestRaw) bestRaw = c, best = Choice{0, x, l, rr};
    };
    float lowest = FLT_MAX, highest = -FLT_MAX, planarLowest = FLT_MAX, planarHighest = -FLT_MAX;
    for (size_t i = 0; i < mins.size(); ++i) {
        float& low = mins[i] == maxs[i] ? planarLowest : lowest;
        float& high = mins[i] == maxs[i] ? planarHighest : highest;
        low = std::min(low, mins[i]);
        high = std::max(high, maxs[i]);
    }
    if (lowest == FLT_MAX) lowest = lo, highest = hi;
    lowest = std::min(lowest, planarLowest);
    highest = std::max(highest, planarHighest);
    const float tenth = (hi - lo) * 0.1f;
    if (emptySpaceRule && lowest - lo > tenth) offer(price(lowest, 0, total), lowest, 0, total);
    if (emptySpaceRule && hi - highest > tenth) offer(price(highest, total, 0), highest, total, 0);
    if (bestRaw < DBL_MAX) {
        best.cost = bestRaw * 0.699999988079071 * double(sum);
        return best;
    }
    int planarLo = 0, planarHi = 0;
    for (size_t i = 0; i < mins.size(); ++i) {
        planarLo += mins[i] == maxs[i] && mins[i] == lo;
        planarHi += mins[i] == maxs[i] && mins[i] == hi;
    }
    if (planarLo)
        offer(double(Real(price(lo, planarLo, total - planarLo)) * Real(0.7f)), lo, planarLo,
              total - planarLo);
    if (planarHi)
        offer(double(Real(price(hi, total - planarHi, planarHi)) * Real(0.7f)), hi,
              total - planarHi, planarHi);
    std::sort(events.begin(), events.end());
    events.erase(std::unique(events.begin(), events.end()), events.end());
    for (float x : events) {
        int l = 0, rr = 0, onPlane = 0;
        for (size_t i = 0; i < mins.size(); ++i) {
            if (mins[i] == maxs[i] && mins[i] == x)
                ++onPlane;
            else if (maxs[i] <= x)
                ++l;
            else if (mins[i] >= x)
                ++rr;
            else
                ++l, ++rr;
        }
        offer(price(x, l, rr + onPlane), x, l, rr + onPlane);
        if (onPlane) offer(price(x, l + onPlane, rr), x, l + onPlane, rr);
    }
    best.cost = bestRaw * double(sum);
    return best;
}

// The split the search must choose for the root, or axis -1.
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
    prepare(soup(40, 1),
            {7,  3,  5,  0,  39, 38, 1,  2,  9,  4,  6,  8,  10, 11, 12, 13, 14, 15, 16, 17, 18,
             19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 40});
    ASSERT_EQ(run(1.0f, 0), KEL_STS_OK);
    ASSERT_EQ(root.kind, kPsahLeaf);
    ASSERT_EQ(root.count, 41);
    EXPECT_EQ(std::vector<int>(root.triangles, root.triangles + 4), (std::vector<int>{7, 3, 5, 0}));
    EXPECT_EQ(root.triangles[40], 40);
    EXPECT_NE(state.freeRecords[3], nullptr) << "records go back to the free list";
}

TEST_F(PsahOpt, SmallAndWideNodesChooseTheBruteForceSplit) {
    for (int n : {30, 74, 120, 400}) {
        for (int planar : {0, 1, 2}) {
            const float weight = planar == 1 ? 0.0f : 1.0f;
            std::vector<Tri> tris = soup(n, unsigned(n + planar), planar);
            prepare(tris);
            Choice expected;
            const int axis = n + 1 > 75 ? bruteForceSplit<double>(tris, box, weight, &expected)
                                        : bruteForceSplit<float>(tris, box, weight, &expected);
            ASSERT_EQ(run(weight, 1), KEL_STS_OK);
            SCOPED_TRACE(testing::Message() << "n = " << n << ", planar " << planar);
            if (axis < 0) {
                EXPECT_EQ(root.kind, kPsahLeaf);
            } else {
                ASSERT_EQ(root.kind, axis);
                EXPECT_EQ(root.split, expected.position);
                EXPECT_EQ(root.children[0].count, expected.left);
                EXPECT_EQ(root.children[1].count, expected.right);
            }
        }
    }
}

// Every triangle of a cube-symmetric set prices the same on all axes: the
// tie goes to z. Mirrored in x and y only, with z spanning the box, to y.
TEST_F(PsahOpt, AxisTiesGoToTheHigherAxis) {
    for (int copies : {2, 30}) {  // small and wide nodes
        std::vector<Tri> tris;
        for (int i = 0; i < copies; ++i) {
            float o = 0.7f * float(i % 2);
            Tri t = tri(o, o, o, o + 0.3f, o + 0.1f, o + 0.2f, o + 0.1f, o + 0.3f, o);
            for (int rot = 0; rot < 3; ++rot)
                tris.push_back(tri(t.v[0][rot], t.v[0][(rot + 1) % 3], t.v[0][(rot + 2) % 3],
                                   t.v[1][rot], t.v[1][(rot + 1) % 3], t.v[1][(rot + 2) % 3],
                                   t.v[2][rot], t.v[2][(rot + 1) % 3], t.v[2][(rot + 2) % 3]));
        }
        prepare(tris);
        ASSERT_EQ(run(1.0f, 1), KEL_STS_OK);
        EXPECT_EQ(root.kind, 2) << copies;

        tris.clear();
        for (int i = 0; i < 3 * copies; ++i) {
            float o = 0.7f * float(i % 2);
            tris.push_back(tri(o, o + 0.1f, 0, o + 0.3f, o, 1, o + 0.2f, o + 0.3f, 0.5f));
            tris.push_back(tri(o + 0.1f, o, 0, o, o + 0.3f, 1, o + 0.3f, o + 0.2f, 0.5f));
        }
        prepare(tris);
        ASSERT_EQ(run(1.0f, 1), KEL_STS_OK);
        EXPECT_EQ(root.kind, 1) << copies;
    }
}

TEST_F(PsahOpt, FlatBoxesNeverSplitOnTheirFlatAxis) {
    for (int n : {50, 300}) {
        std::vector<Tri> tris = soup(n, 7);
        for (Tri& t : tris)
            for (auto& v : t.v) v[2] = 0.25f;
        prepare(tris);
        ASSERT_EQ(run(1.0f, 20), KEL_STS_OK);
        std::vector<int> axes;
        splitAxes(&root, &axes);
        EXPECT_GT(axes.size(), 3u);
        EXPECT_EQ(std::count(axes.begin(), axes.end(), 2), 0);

        for (Tri& t : tris)
            for (auto& v : t.v) v[1] = 0.5f;
        prepare(tris);
        ASSERT_EQ(run(1.0f, 20), KEL_STS_OK);
        EXPECT_EQ(root.kind, kPsahLeaf) << "flat on two axes";
    }
}

// A floor at z = 0 under patches that span the box in x and y.
TEST_F(PsahOpt, PlanarPatchesAtTheLowerFaceSplitIntoAFlatLeftChild) {
    std::vector<Tri> tris = {tri(0, 0, 0, 1, 0, 0, 1, 1, 0), tri(0, 0, 0, 1, 1, 0, 0, 1, 0)};
    for (int i = 0; i < 8; ++i)
        tris.push_back(tri(0, 0, 0.05f, 1, 1, 0.05f + 0.1f * i, 0.5f, 0.5f, 1));
    prepare(tris);
    ASSERT_EQ(run(1.0f, 20), KEL_STS_OK);
    ASSERT_EQ(root.kind, 2);
    EXPECT_EQ(root.split, 0.0f);
    const std::vector<Leaf>& l = treeLeaves();
    EXPECT_EQ(l[0].box[5], 0.0f);
    EXPECT_EQ(l[0].triangles, (std::vector<int>{0, 1}));
}

// Two slabs in z, the upper one ending just over a tenth below the box top:
// the top is cut off at once, although a plane between the slabs is cheaper.
TEST_F(PsahOpt, EmptySpaceBeyondATenthIsCutOffWithoutASweep) {
    std::vector<Tri> tris;
    for (int i = 0; i < 4; ++i) {
        tris.push_back(tri(0, 0, 0, 0.01f, 0.01f, 0.1f, 0, 0.01f, 0.05f));
        tris.push_back(tri(0, 0, 0.8f, 0.01f, 0.01f, 0.89f, 0, 0.01f, 0.85f));
    }
    prepare(tris);
    box[5] = 1.0f;
    const Choice cut = bruteForceAxis<float>(tris, box, 2, DBL_MAX);
    const Choice sweep = bruteForceAxis<float>(tris, box, 2, DBL_MAX, false);
    EXPECT_LT(sweep.cost, cut.cost);
    ASSERT_EQ(run(1.0f, 1), KEL_STS_OK);
    ASSERT_EQ(root.kind, 2);
    EXPECT_EQ(root.split, 0.89f);
    EXPECT_EQ(root.children[1].count, 0);
    EXPECT_EQ(root.children[1].triangles, nullptr);

    // In a box of height 10, empty space of exactly 1 does not count; 1.1
    // does, at either end, and only its bonus makes the cut pay here.
    struct Case {
        float bottom, top;
        int kind;
    };
    for (Case c :
         {Case{0, 9, kPsahLeaf}, Case{1, 10, kPsahLeaf}, Case{0, 8.9f, 2}, Case{1.1f, 10, 2}}) {
        tris.assign(4, tri(0, 0, c.bottom, 1, 1, c.top, 0, 1, 4.5f));
        prepare(tris);
        box[2] = 0.0f;
        box[5] = 10.0f;
        ASSERT_EQ(run(1.0f, 1), KEL_STS_OK);
        ASSERT_EQ(root.kind, c.kind) << c.bottom << " " << c.top;
        if (c.kind == kPsahLeaf) continue;
        const bool lowEnd = c.bottom > 0;
        EXPECT_EQ(root.split, lowEnd ? c.bottom : c.top);
        EXPECT_EQ(root.children[lowEnd ? 0 : 1].count, 0);
        EXPECT_EQ(root.children[lowEnd ? 1 : 0].count, 4);
    }
}

// Planar patches in the middle of the box price the same on either side of
// a plane through them: the right side, priced first, wins.
TEST_F(PsahOpt, PlanarTieAtOnePositionGoesRight) {
    std::vector<Tri> tris;
    for (int i = 0; i < 3; ++i) {
        tris.push_back(tri(0, 0, 0, 1, 1, 0.5f, 0, 1, 0.2f));
        tris.push_back(tri(0, 0, 0.5f, 1, 1, 1, 0, 1, 0.7f));
        tris.push_back(tri(0, 0, 0.5f, 1, 1, 0.5f, 0, 1, 0.5f));
    }
    prepare(tris);
    ASSERT_EQ(run(1.0f, 1), KEL_STS_OK);
    ASSERT_EQ(root.kind, 2);
    EXPECT_EQ(root.split, 0.5f);
    const std::vector<Leaf>& l = treeLeaves();
    EXPECT_EQ(l[0].triangles, (std::vector<int>{0, 3, 6}));
    EXPECT_EQ(l[1].triangles, (std::vector<int>{1, 2, 4, 5, 7, 8}));
}

// The triangle (0,0,0), (2,0,0), (0,2,0) is cut at x = 1 between two
// clusters; the pieces are found through the free lists the leaves fill.
TEST_F(PsahOpt, StraddlingPatchIsCutIntoTwoPieces) {
    std::vector<Tri> tris = {tri(0, 0, 0, 2, 0, 0, 0, 2, 0)};
    for (int i = 0; i < 2; ++i) {
        tris.push_back(tri(0, 0, 0, 1, 0, 0, 0.5f, 2, 0));
        tris.push_back(tri(1, 0, 0, 2, 0, 0, 1.5f, 2, 0));
    }
    for (size_t points : {size_t(2), size_t(1)}) {
        prepare(tris, {}, points + 1);  // the pool keeps its last entry unused
        char* vertexBase = state.vertexPool.base;
        if (points == 1) {
            EXPECT_EQ(run(1.0f, 1), KEL_STS_OVERFLOW);
            break;
        }
        ASSERT_EQ(run(1.0f, 1), KEL_STS_OK);
        ASSERT_EQ(root.kind, 0);
        EXPECT_EQ(root.split, 1.0f);
        const std::vector<Leaf>& l = treeLeaves();
        EXPECT_EQ(l[0].triangles, (std::vector<int>{0, 1, 3}));
        EXPECT_EQ(l[1].triangles, (std::vector<int>{0, 2, 4}));
        const float* x1 = reinterpret_cast<float*>(vertexBase);
        const float* x2 = x1 + 3;
        EXPECT_EQ(std::vector<float>(x1, x1 + 6), (std::vector<float>{1, 0, 0, 1, 1, 0}));
        // Left piece: (0,0,0), X1, X2, (0,2,0). Its first word now links the
        // free list.
        const float** left = state.freeRecords[4];
        ASSERT_NE(left, nullptr);
        EXPECT_EQ(left[1], x1);
        EXPECT_EQ(left[2], x2);
        EXPECT_EQ(left[3], &mesh[6]);
        EXPECT_EQ(*nextFreeRecord(left), nullptr) << "one four-vertex piece";
        bool rightFound = false;  // X1, (2,0,0), X2
        for (const float** r = state.freeRecords[3]; r; r = *nextFreeRecord(r))
            rightFound |= r[1] == &mesh[3] && r[2] == x2;
        EXPECT_TRUE(rightFound);
    }
}

TEST_F(PsahOpt, ExhaustedBudgetOrPatchPoolReportsOverflow) {
    prepare(soup(30, 3));
    state.budget = kChunkCost - 1;
    EXPECT_EQ(run(1.0f, 0), KEL_STS_OVERFLOW);
    prepare(soup(30, 3));
    state.patchPool.end = state.patchPool.cursor + 4 * sizeof(PsahPatch);
    EXPECT_EQ(run(1.0f, 20), KEL_STS_OVERFLOW);
}

// The thread count must not change a byte of the tree; with no active
// levels every region runs on one thread.
TEST_F(PsahOpt, SameTreeWhateverTheThreadCount) {
    std::vector<int32_t> trees[2];
    const int levels = omp_get_max_active_levels();
    for (int pass = 0; pass < 2; ++pass) {
        omp_set_max_active_levels(pass == 0 ? levels : 0);
        prepare(soup(3000, 11));
        ASSERT_EQ(run(0.5f, 25), KEL_STS_OK);
        serialise(&root, &trees[pass]);
        std::vector<bool> seen(3001, false);
        for (const Leaf& l : treeLeaves())
            for (int t : l.triangles) seen[t] = true;
        EXPECT_EQ(std::count(seen.begin(), seen.end(), false), 0) << "every triangle in a leaf";
    }
    omp_set_max_active_levels(levels);
    EXPECT_GT(trees[0].size(), 1000u);
    EXPECT_EQ(trees[0], trees[1]);
}

}  // namespace
