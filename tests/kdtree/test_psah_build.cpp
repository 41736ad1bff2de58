// The packing of build trees into blocks, and the release of every
// allocation when a whole PSAH build succeeds or its optimisation runs out of
// budget half-way. The trees themselves are checked in test_psah_rays.
#include <gtest/gtest.h>
#include <omp.h>

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
    ~Tree() { kelrKDTreeFree(block); }
    // Packs the build tree and returns the block's words.
    std::vector<int32_t> pack(PsahBuildNode root) {
        EXPECT_EQ(KEL_STS_OK, ownCompactTreeRepresentation(&root, &block, &size));
        return std::vector<int32_t>((int32_t*)block, (int32_t*)block + size / 4);
    }
};

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

int32_t bitsOf(float f) {
    int32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

TEST(PsahPacking, LeavesSplitsAndPreOrderPairs) {
    std::vector<int32_t> five = {4, 0, 3, 1, 2};
    Tree one, two, deep;
    EXPECT_EQ((std::vector<int32_t>{-16, 5, 0, 0, 4, 0, 3, 1, 2}), one.pack(leaf(&five)));

    std::vector<int32_t> a = {7, 8}, b = {9, 10, 11};
    PsahBuildNode pair[2] = {leaf(&a), leaf(&b)};
    EXPECT_EQ(
        (std::vector<int32_t>{16 | 1, bitsOf(0.5f), 0, 0, 16 - 32, 2, 24 - 40, 3, 7, 8, 9, 10, 11}),
        two.pack(inner(1, 0.5f, pair)));

    // Root z-split; its first child splits on x into a leaf and an empty
    // leaf, its second on y into a split node and a leaf. Pairs follow in
    // pre-order (at 16, 32, 48, 64), the empty leaf points at the next list,
    // lists run left to right from byte 80.
    std::vector<int32_t> l0 = {0}, empty, l2 = {2, 3}, l3 = {4}, l4 = {5, 6};
    PsahBuildNode deepPair[2] = {leaf(&l2), leaf(&l3)};
    PsahBuildNode rightPair[2] = {inner(0, 3.0f, deepPair), leaf(&l4)};
    PsahBuildNode leftPair[2] = {leaf(&l0), leaf(&empty)};
    PsahBuildNode rootPair[2] = {inner(0, 1.0f, leftPair), inner(1, 2.0f, rightPair)};
    EXPECT_EQ((std::vector<int32_t>{16 | 2,  bitsOf(4.0f),
                                    0,       0,  //
                                    16 | 0,  bitsOf(1.0f),
                                    24 | 1,  bitsOf(2.0f),  // 16
                                    32 - 80, 1,
                                    40 - 84, 0,  // 32
                                    16 | 0,  bitsOf(3.0f),
                                    56 - 96, 2,  // 48
                                    64 - 84, 2,
                                    72 - 92, 1,  // 64
                                    0,       2,
                                    3,       4,
                                    5,       6}),
              deep.pack(inner(2, 4.0f, rootPair)));
    kelt::TreeSummary summary;
    EXPECT_EQ("", kelt::checkTree(deep.block, deep.size, 7, &summary));
}

TEST(PsahMemory, EverythingIsReleasedOnSuccessAndOverflow) {
    const kelt::Mesh mesh = kelt::randomSoup(5, 4000);
    const uint32_t need =
        12 * uint32_t(mesh.vertexCount()) +
        (48 + 3 * uint32_t(sizeof(kel::PsahPatch))) * uint32_t(mesh.triangleCount()) + (32u << 20) +
        kel::kStateCharge + 2 * kel::kChunkRecordCharge;
    // Room to spare; then room for the vertex-pointer and root chunks but
    // not for the first index list: the optimisation stops half-way with -9.
    for (uint32_t budget : {kelt::psahBudgetMiB(mesh.vertexCount(), mesh.triangleCount()) * kMiB,
                            need + 2 * kel::kChunkCost}) {
        kelt::AllocationCount count;
        Tree tree;
        tree.status = ownKDTBldPSAH_ML(mesh.vertices.data(), mesh.triangles.data(),
                                       mesh.vertexCount(), mesh.triangleCount(), &tree.block,
                                       &tree.size, 0.5f, 50, budget, nullptr);
        const bool whole = budget != need + 2 * kel::kChunkCost;
        EXPECT_EQ(whole ? KEL_STS_OK : KEL_STS_OVERFLOW, tree.status);
        EXPECT_EQ(whole, tree.block != nullptr);
        EXPECT_EQ(whole ? 1 : 0, count.liveBlocks());  // the tree block alone
        kelrKDTreeFree(tree.block);
        tree.block = nullptr;
        EXPECT_EQ(0, count.liveBlocks());
    }
}

// From 349,526 vertices on, the vertex store (16 MiB per started 4 MiB of
// vertices) outgrows what the up-front check counts for vertices. The stores
// are charged in full: a budget that passes the check but not the stores is
// -4 with nothing allocated (the remaining budget once wrapped to about
// 4 GiB), and past the stores the budget pays for exactly the three chunks a
// one-triangle build needs.
TEST(PsahMemory, StoresThatOutgrowTheBudgetAreRefused) {
    kelt::Mesh mesh;
    mesh.vertices.assign(3 * 349526, 0.0f);
    mesh.vertices[3] = mesh.vertices[7] = 1.0f;
    mesh.addTriangle(0, 1, 2);
    const uint32_t check = 12 * 349526 + 48 + 3 * uint32_t(sizeof(kel::PsahPatch)) + (32u << 20) +
                           kel::kStateCharge + 2 * kel::kChunkRecordCharge;
    const uint32_t stores = kel::kStateCharge + 48 + 16 * kMiB + 32 * kMiB;
    const uint32_t chunks = 3 * kel::kChunkCost;
    const std::pair<uint32_t, KelStatus> cases[] = {{check, KEL_STS_NO_MEM},
                                                    {stores - 1, KEL_STS_NO_MEM},
                                                    {stores + chunks - 1, KEL_STS_OVERFLOW},
                                                    {stores + chunks, KEL_STS_OK}};
    for (const auto& [budget, expected] : cases) {
        kelt::AllocationCount count;
        Tree tree;
        tree.status =
            ownKDTBldPSAH_ML(mesh.vertices.data(), mesh.triangles.data(), mesh.vertexCount(), 1,
                             &tree.block, &tree.size, 0.5f, 50, budget, nullptr);
        EXPECT_EQ(expected, tree.status) << budget;
        if (expected == KEL_STS_NO_MEM) EXPECT_EQ(0, count.peakBytes());
        EXPECT_EQ(expected == KEL_STS_OK ? 1 : 0, count.liveBlocks());
        kelrKDTreeFree(tree.block);
        tree.block = nullptr;
    }
}

// Through the hooks the N-th allocation of a build fails, for every N the
// build makes, on one thread and on two: the build unwinds with -4 or -9,
// writes no output and gives back every block it got. On two threads the
// number of allocations depends on which thread builds which subtree, so a
// build may end before its N-th; it must then have succeeded.
TEST(PsahMemory, EachRefusedAllocationUnwindsCleanly) {
    // Large enough for the optimisation to hand subtrees to tasks.
    const kelt::Mesh mesh = kelt::randomSoup(7, 2500);
    const KDTreeBuildContext context = {
        KDT_BUILD_PSAH, 50, 0.5f, kelt::psahBudgetMiB(mesh.vertexCount(), mesh.triangleCount()),
        nullptr};
    auto build = [&](Tree* tree) {
        tree->status =
            kelrKDTreeBuildAlloc(&tree->block, mesh.vertices.data(), mesh.triangles.data(),
                                 mesh.vertexCount(), mesh.triangleCount(), &tree->size, &context);
    };
    const int threads = omp_get_max_threads();
    for (int t : {1, 2}) {
        omp_set_num_threads(t);
        kelt::AllocationCount count;
        {
            Tree whole;
            build(&whole);
            ASSERT_EQ(KEL_STS_OK, whole.status);
        }
        const long long made = count.allocations();
        // State, root patches, records, points, nodes, lists, sorted events,
        // destinations, scratch, cut log, deferred children, the tree.
        ASSERT_GE(made, 12);
        for (long long n = 1; n <= made; ++n) {
            count.refuseAllocation(n);
            Tree tree;
            build(&tree);
            if (count.allocations() < n) {
                EXPECT_EQ(KEL_STS_OK, tree.status) << n;
                continue;
            }
            EXPECT_TRUE(tree.status == KEL_STS_NO_MEM || tree.status == KEL_STS_OVERFLOW)
                << "allocation " << n << " of " << made << ", " << t << " threads: " << tree.status;
            EXPECT_TRUE(tree.block == nullptr && tree.size == -1) << n;
            EXPECT_EQ(0, count.liveBlocks()) << n;
        }
    }
    omp_set_num_threads(threads);
}

}  // namespace
