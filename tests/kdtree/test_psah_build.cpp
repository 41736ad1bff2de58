// The packing of build trees into blocks, and the release of every
// allocation when a whole PSAH build succeeds or its optimisation runs out of
// budget half-way. The trees themselves are checked in test_psah_rays.
#include <gtest/gtest.h>

#include <cstring>
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
