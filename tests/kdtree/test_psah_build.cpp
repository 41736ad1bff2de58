// Whole PSAH builds: the packing of build trees into blocks, the format and
// geometric soundness of real trees over the shared meshes and seeded soups,
// and the release of every allocation when the optimisation succeeds or runs
// out of budget half-way.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "alloc_count.h"
#include "kdtree/psah.h"
#include "mesh.h"
#include "psah_support.h"
#include "tree_check.h"

namespace {

using kel::PsahBuildNode;

constexpr uint32_t kMiB = 1u << 20;

struct Tree {
    KelStatus status = KEL_STS_OK;
    KDTreeNode* block = nullptr;
    int size = -1;
    Tree() = default;
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;
    ~Tree() { kelrKDTreeFree(block); }
};

void buildPsah(const kelt::Mesh& mesh, Tree* tree, int maxDepth = 50, float weight = 0.5f,
               const float* clipBox = nullptr, uint32_t budget = 0) {
    if (budget == 0) budget = kelt::psahBudgetMiB(mesh.vertexCount(), mesh.triangleCount()) * kMiB;
    tree->status = ownKDTBldPSAH_ML(mesh.vertices.data(), mesh.triangles.data(), mesh.vertexCount(),
                                    mesh.triangleCount(), &tree->block, &tree->size, weight,
                                    maxDepth, budget, clipBox);
}

// ---- Packing -------------------------------------------------------------

PsahBuildNode leaf(std::vector<int32_t>* list) {
    PsahBuildNode n;
    n.kind = kel::kPsahLeaf;
    n.count = int32_t(list->size());
    n.triangles = list->empty() ? nullptr : list->data();
    return n;
}

PsahBuildNode inner(int axis, float split, PsahBuildNode* pair) {
    PsahBuildNode n;
    n.kind = axis;
    n.split = split;
    n.children = pair;
    return n;
}

std::vector<int32_t> words(const Tree& tree) {
    std::vector<int32_t> w(size_t(tree.size) / 4);
    std::memcpy(w.data(), tree.block, w.size() * 4);
    return w;
}

int32_t bitsOf(float f) {
    int32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

TEST(PsahPacking, LeavesSplitsAndPreOrderPairs) {
    std::vector<int32_t> five = {4, 0, 3, 1, 2};
    PsahBuildNode root = leaf(&five);
    Tree one;
    ASSERT_EQ(KEL_STS_OK, ownCompactTreeRepresentation(&root, &one.block, &one.size));
    EXPECT_EQ(36, one.size);
    EXPECT_EQ((std::vector<int32_t>{-16, 5, 0, 0, 4, 0, 3, 1, 2}), words(one));

    std::vector<int32_t> a = {7, 8}, b = {9, 10, 11};
    PsahBuildNode pair[2] = {leaf(&a), leaf(&b)};
    root = inner(1, 0.5f, pair);
    Tree two;
    ASSERT_EQ(KEL_STS_OK, ownCompactTreeRepresentation(&root, &two.block, &two.size));
    EXPECT_EQ(52, two.size);
    EXPECT_EQ(
        (std::vector<int32_t>{16 | 1, bitsOf(0.5f), 0, 0, 16 - 32, 2, 24 - 40, 3, 7, 8, 9, 10, 11}),
        words(two));

    // Root z-split; its first child splits on x into a leaf and an empty
    // leaf, its second on y into a split node and a leaf. Pairs follow in
    // pre-order, the empty leaf points at the next list, lists run left to
    // right.
    std::vector<int32_t> l0 = {0}, empty, l2 = {2, 3}, l3 = {4}, l4 = {5, 6};
    PsahBuildNode deepPair[2] = {leaf(&l2), leaf(&l3)};
    PsahBuildNode rightPair[2] = {inner(0, 3.0f, deepPair), leaf(&l4)};
    PsahBuildNode leftPair[2] = {leaf(&l0), leaf(&empty)};
    PsahBuildNode rootPair[2] = {inner(0, 1.0f, leftPair), inner(1, 2.0f, rightPair)};
    root = inner(2, 4.0f, rootPair);
    Tree deep;
    ASSERT_EQ(KEL_STS_OK, ownCompactTreeRepresentation(&root, &deep.block, &deep.size));
    EXPECT_EQ(16 + 8 * 8 + 4 * 6, deep.size);
    const std::vector<int32_t> w = words(deep);
    EXPECT_EQ(16 | 2, w[0]);
    EXPECT_EQ((32 - 16) | 0, w[4]);  // first child's pair at 32
    EXPECT_EQ((48 - 24) | 1, w[6]);  // second child's pair at 48
    EXPECT_EQ(32 - 80, w[8]);        // leaf {0}: lists start after four pairs
    EXPECT_EQ(40 - 84, w[10]);       // empty leaf: where its list would start
    EXPECT_EQ(0, w[11]);
    EXPECT_EQ((64 - 48) | 0, w[12]);  // deep pair at 64
    EXPECT_EQ(56 - 96, w[14]);        // leaf {5, 6} comes last
    EXPECT_EQ(64 - 84, w[16]);        // leaf {2, 3}
    EXPECT_EQ(72 - 92, w[18]);        // leaf {4}
    EXPECT_EQ((std::vector<int32_t>{0, 2, 3, 4, 5, 6}),
              std::vector<int32_t>(w.begin() + 20, w.end()));
    kelt::TreeSummary summary;
    EXPECT_EQ("", kelt::checkTree(deep.block, deep.size, 7, &summary));
    EXPECT_EQ(3, summary.maxDepth);
}

// ---- Real trees ----------------------------------------------------------

// A convex polygon cut by axis planes keeps at most 3 + 6 corners; the rest
// of the room absorbs rounding.
struct Polygon {
    std::array<double, 3> v[32];
    int n = 0;
    bool empty() const { return n == 0; }
    void push(const std::array<double, 3>& p) {
        if (n < 32) v[n++] = p;
    }
};

// The part of the polygon on one side of an axis plane (Sutherland-Hodgman).
Polygon clipToHalfSpace(const Polygon& in, int axis, double plane, bool keepAbove) {
    auto inside = [&](const std::array<double, 3>& p) {
        return keepAbove ? p[size_t(axis)] >= plane : p[size_t(axis)] <= plane;
    };
    Polygon out;
    for (int k = 0; k < in.n; ++k) {
        const auto& a = in.v[k];
        const auto& b = in.v[(k + 1) % in.n];
        if (inside(a)) out.push(a);
        if (inside(a) != inside(b)) {
            const double t = (plane - a[size_t(axis)]) / (b[size_t(axis)] - a[size_t(axis)]);
            std::array<double, 3> p;
            for (size_t c = 0; c < 3; ++c) p[c] = a[c] + t * (b[c] - a[c]);
            p[size_t(axis)] = plane;
            out.push(p);
        }
    }
    return out;
}

Polygon clipToSlab(const Polygon& in, int axis, double lo, double hi) {
    return clipToHalfSpace(clipToHalfSpace(in, axis, lo, true), axis, hi, false);
}

Polygon clipToBox(Polygon p, const double* box) {
    for (int a = 0; a < 3 && !p.empty(); ++a) p = clipToSlab(p, a, box[a], box[a + 3]);
    return p;
}

// Checks the tree's geometry independently of any traversal: every triangle
// whose part inside the build box reaches into a leaf's box (shrunk by a
// margin, so that touching a face does not count) must be listed in that
// leaf. Each triangle descends the tree clipped exactly, in double.
class CoverageCheck {
  public:
    CoverageCheck(const KDTreeNode* tree, const kelt::Mesh& mesh, const float* rootBox)
        : tree_(reinterpret_cast<const char*>(tree)), mesh_(mesh) {
        double extent = 0;
        for (int a = 0; a < 3; ++a) {
            box_[a] = rootBox[a];
            box_[a + 3] = rootBox[a + 3];
            extent = std::max(extent, box_[a + 3] - box_[a]);
        }
        floor_ = 1e-5 * extent;
    }

    // Number of (triangle, leaf) pairs where a reaching triangle is missing.
    int missing() {
        int misses = 0;
        for (int n = 0; n < mesh_.triangleCount(); ++n) {
            Polygon p;
            for (int k = 0; k < 3; ++k) {
                const float* v = &mesh_.vertices[size_t(3 * mesh_.triangles[size_t(4 * n + k)])];
                p.push({v[0], v[1], v[2]});
            }
            misses += descend(0, box_, clipToBox(p, box_), n);
        }
        return misses;
    }

  private:
    int descend(int offset, const double* box, const Polygon& part, int triangle) {
        if (part.empty()) return 0;
        int32_t word0, word1;
        std::memcpy(&word0, tree_ + offset, 4);
        std::memcpy(&word1, tree_ + offset + 4, 4);
        if (word0 < 0) {
            double shrunk[6];
            for (int a = 0; a < 3; ++a) {
                const double margin = std::max(1e-3 * (box[a + 3] - box[a]), floor_);
                shrunk[a] = box[a] + margin;
                shrunk[a + 3] = box[a + 3] - margin;
                if (shrunk[a] > shrunk[a + 3]) return 0;  // too thin to demand anything
            }
            if (clipToBox(part, shrunk).empty()) return 0;
            const int32_t* list = reinterpret_cast<const int32_t*>(tree_ + offset - word0);
            return std::find(list, list + word1, triangle) == list + word1;
        }
        const int axis = word0 & 3;
        float split;
        std::memcpy(&split, &word1, 4);
        const int pair = offset + (word0 & ~7);
        double below[6], above[6];
        std::copy(box, box + 6, below);
        std::copy(box, box + 6, above);
        below[axis + 3] = split;
        above[axis] = split;
        return descend(pair, below, clipToSlab(part, axis, box[axis], split), triangle) +
               descend(pair + 8, above, clipToSlab(part, axis, split, box[axis + 3]), triangle);
    }

    const char* tree_;
    const kelt::Mesh& mesh_;
    double box_[6];
    double floor_;
};

struct Case {
    std::string name;
    kelt::Mesh mesh;
    bool clipped = false;
    float clipBox[6] = {};
};

std::vector<Case> testCases() {
    std::vector<Case> cases;
    for (const char* file : {"stanford-bunny.obj", "teapot.obj", "fandisk.obj"}) {
        Case c;
        c.name = file;
        if (kelt::loadSharedMesh(file, &c.mesh)) cases.push_back(std::move(c));
    }
    for (unsigned seed : {1u, 2u, 3u}) {
        Case c;
        c.name = "soup " + std::to_string(seed);
        c.mesh = kelt::randomSoup(seed, 3000);
        cases.push_back(std::move(c));
    }
    // Clip boxes cutting through a soup and through the bunny.
    Case soup;
    soup.name = "clipped soup";
    soup.mesh = kelt::randomSoup(4, 3000);
    soup.clipped = true;
    const float soupBox[6] = {0.2f, 0.25f, 0.1f, 0.75f, 0.8f, 0.5f};
    std::copy(soupBox, soupBox + 6, soup.clipBox);
    cases.push_back(std::move(soup));
    Case bunny;
    if (kelt::loadSharedMesh("stanford-bunny.obj", &bunny.mesh)) {
        bunny.name = "clipped bunny";
        bunny.clipped = true;
        float box[6];
        kelt::vertexBounds(bunny.mesh, box);
        for (int a = 0; a < 3; ++a) {
            const float e = box[a + 3] - box[a];
            bunny.clipBox[a] = box[a] + 0.3f * e;
            bunny.clipBox[a + 3] = box[a] + 0.8f * e;
        }
        cases.push_back(std::move(bunny));
    }
    return cases;
}

TEST(PsahTrees, AreWellFormedAndListEveryTriangleWhereItReaches) {
    const std::vector<Case> cases = testCases();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // The large meshes once; the soups, quick to build, over the weights.
        const std::vector<std::pair<int, float>> settings =
            c.mesh.triangleCount() > 10000
                ? std::vector<std::pair<int, float>>{{50, 0.5f}}
                : std::vector<std::pair<int, float>>{{50, 0.5f}, {20, 0.0f}, {30, 1.0f}};
        for (const auto& params : settings) {
            SCOPED_TRACE("maxDepth " + std::to_string(params.first) + ", weight " +
                         std::to_string(params.second));
            Tree tree;
            buildPsah(c.mesh, &tree, params.first, params.second, c.clipped ? c.clipBox : nullptr);
            ASSERT_EQ(KEL_STS_OK, tree.status);
            float box[6];
            if (c.clipped)
                std::copy(c.clipBox, c.clipBox + 6, box);
            else
                kelt::vertexBounds(c.mesh, box);
            kelt::TreeSummary summary;
            ASSERT_EQ("", kelt::checkTree(tree.block, tree.size, c.mesh.triangleCount(), &summary));
            EXPECT_LE(summary.maxDepth, params.first);
            EXPECT_GT(summary.innerNodes, 0);
            // A node holds at most one patch of a triangle.
            EXPECT_FALSE(summary.duplicateInLeaf);
            // Uncut, every patch reaches some leaf.
            if (!c.clipped) EXPECT_TRUE(kelt::listsEveryTriangle(summary, c.mesh.triangleCount()));
            EXPECT_EQ(0, CoverageCheck(tree.block, c.mesh, box).missing());
        }
    }
}

// ---- Release of memory ---------------------------------------------------

TEST(PsahMemory, EverythingIsReleasedOnSuccessAndOverflow) {
    const kelt::Mesh mesh = kelt::randomSoup(5, 4000);
    const uint32_t need =
        12 * uint32_t(mesh.vertexCount()) +
        (48 + 3 * uint32_t(sizeof(kel::PsahPatch))) * uint32_t(mesh.triangleCount()) + (32u << 20) +
        uint32_t(sizeof(kel::PsahBuildState)) + 2 * uint32_t(sizeof(kel::PsahChunk));
    {
        kelt::AllocationCount count;
        Tree tree;
        buildPsah(mesh, &tree);
        ASSERT_EQ(KEL_STS_OK, tree.status);
        EXPECT_EQ(1, count.liveBlocks());  // the tree block alone
        kelrKDTreeFree(tree.block);
        tree.block = nullptr;
        EXPECT_EQ(0, count.liveBlocks());
    }
    {
        // Room for the vertex-pointer and root chunks but not for the first
        // index list: the optimisation stops half-way with -9.
        kelt::AllocationCount count;
        Tree tree;
        buildPsah(mesh, &tree, 50, 0.5f, nullptr, need + 2 * kel::kChunkCost);
        EXPECT_EQ(KEL_STS_OVERFLOW, tree.status);
        EXPECT_EQ(nullptr, tree.block);
        EXPECT_EQ(0, count.liveBlocks());
        EXPECT_GT(count.peakBytes(), int64_t(64) * kMiB);
    }
}

}  // namespace
