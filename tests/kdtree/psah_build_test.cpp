// The packing of build trees into blocks, and the release of every
// allocation whether a PSAH build succeeds, runs out of budget or is refused
// any one of its allocations.
#include <gtest/gtest.h>
#include <omp.h>

#include <vector>

#include "alloc_count.h"
#include "arrays.h"
#include "kdtree/psah.h"
#include "trees.h"

namespace {

using kel::PsahBuildNode;

// The budget the driver demands up front.
uint32_t fixedNeed(int vertexCount, int triangleCount) {
    return 12 * uint32_t(vertexCount) +
           (48 + 3 * uint32_t(sizeof(kel::PsahPatch))) * uint32_t(triangleCount) + (32u << 20) +
           kel::kStateCharge + 2 * kel::kChunkRecordCharge;
}

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

// Root z-split; its first child splits on x into a leaf and an empty leaf,
// its second on y into a split node and a leaf. Pairs follow in pre-order
// (at 16, 32, 48, 64), the empty leaf points at the next list, lists run
// left to right from byte 80.
TEST(PsahPacking, LeavesSplitsAndPreOrderPairs) {
    std::vector<int32_t> l0 = {0}, empty, l2 = {2, 3}, l3 = {4}, l4 = {5, 6};
    PsahBuildNode deepPair[2] = {leaf(&l2), leaf(&l3)};
    PsahBuildNode rightPair[2] = {inner(0, 3.0f, deepPair), leaf(&l4)};
    PsahBuildNode leftPair[2] = {leaf(&l0), leaf(&empty)};
    PsahBuildNode rootPair[2] = {inner(0, 1.0f, leftPair), inner(1, 2.0f, rightPair)};
    PsahBuildNode root = inner(2, 4.0f, rootPair);
    KDTreeNode* block = nullptr;
    int size = 0;
    ASSERT_EQ(KEL_STS_OK, ownCompactTreeRepresentation(&root, &block, &size));
    const auto bits = [](float f) { return int32_t(kelt::bitsOf(f)); };
    EXPECT_EQ(
        (std::vector<int32_t>{
            16 | 2,  bits(4.0f), 0, 0,      16 | 0,     bits(1.0f), 24 | 1, bits(2.0f), 32 - 80,
            1,       40 - 84,    0, 16 | 0, bits(3.0f), 56 - 96,    2,      64 - 84,    2,
            72 - 92, 1,          0, 2,      3,          4,          5,      6}),
        std::vector<int32_t>((int32_t*)block, (int32_t*)block + size / 4));
    kelrKDTreeFree(block);
}

struct Built {
    KelStatus status;
    KDTreeNode* tree = nullptr;
    int size = -1;
};

Built buildPsah(const kelt::Mesh& mesh, uint32_t budget, const float* clipBox = nullptr) {
    Built b;
    b.status = ownKDTBldPSAH_ML(mesh.vertices.data(), mesh.triangles.data(), mesh.vertexCount(),
                                mesh.triangleCount(), &b.tree, &b.size, 0.5f, 50, budget, clipBox);
    return b;
}

// One triangle, whole or cut to a box: below the fixed need the build is
// refused before anything is taken. Just the need: the first vertex-pointer
// record cannot get a chunk; one chunk more: the root node cannot; two more:
// the leaf's index list cannot; three: the build goes through.
TEST(PsahMemory, TheBudgetPaysForTheFixedNeedAndThreeChunks) {
    const kelt::Mesh mesh = {{0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2, 0}};
    const float unitBox[6] = {0, 0, 0, 1, 1, 1};
    const uint32_t need = fixedNeed(3, 1), chunk = kel::kChunkCost;
    const std::pair<uint32_t, KelStatus> cases[] = {{need - 1, KEL_STS_NO_MEM},
                                                    {need, KEL_STS_OVERFLOW},
                                                    {need + chunk, KEL_STS_OVERFLOW},
                                                    {need + 2 * chunk, KEL_STS_OVERFLOW},
                                                    {need + 3 * chunk, KEL_STS_OK}};
    for (const float* clip : {unitBox, static_cast<const float*>(nullptr)})
        for (const auto& [budget, expected] : cases) {
            kelt::AllocationCount count;
            const Built b = buildPsah(mesh, budget, clip);
            EXPECT_EQ(expected, b.status) << budget;
            if (expected == KEL_STS_NO_MEM) EXPECT_EQ(0, count.peakBytes());
            EXPECT_EQ(expected == KEL_STS_OK ? 1 : 0, count.liveBlocks());
            kelrKDTreeFree(b.tree);
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
    const uint32_t stores = kel::kStateCharge + 48 + (16u << 20) + (32u << 20);
    const uint32_t chunks = 3 * kel::kChunkCost;
    const std::pair<uint32_t, KelStatus> cases[] = {{fixedNeed(349526, 1), KEL_STS_NO_MEM},
                                                    {stores - 1, KEL_STS_NO_MEM},
                                                    {stores + chunks - 1, KEL_STS_OVERFLOW},
                                                    {stores + chunks, KEL_STS_OK}};
    for (const auto& [budget, expected] : cases) {
        kelt::AllocationCount count;
        const Built b = buildPsah(mesh, budget);
        EXPECT_EQ(expected, b.status) << budget;
        if (expected == KEL_STS_NO_MEM) EXPECT_EQ(0, count.peakBytes());
        EXPECT_EQ(expected == KEL_STS_OK ? 1 : 0, count.liveBlocks());
        kelrKDTreeFree(b.tree);
    }
}

// A build that runs out of budget half-way (room for the vertex-pointer and
// root chunks, not for the first index list), and, through the hooks, one
// whose N-th allocation fails, for every N the build makes, on one thread
// and on two: each unwinds with -4 or -9, writes no output and gives back
// every block it got. On two threads the number of allocations depends on
// which thread builds which subtree, so a build may end before its N-th; it
// must then have succeeded, and a whole build keeps only its tree.
TEST(PsahMemory, EveryFailureUnwindsCleanly) {
    // Large enough for the optimisation to hand subtrees to tasks.
    const kelt::Mesh mesh = kelt::randomSoup(7, 2500);
    auto expectUnwound = [](const Built& b, const kelt::AllocationCount& count) {
        EXPECT_TRUE(b.status == KEL_STS_NO_MEM || b.status == KEL_STS_OVERFLOW) << b.status;
        EXPECT_TRUE(b.tree == nullptr && b.size == -1);
        EXPECT_EQ(0, count.liveBlocks());
    };
    {
        kelt::AllocationCount count;
        const Built b = buildPsah(
            mesh, fixedNeed(mesh.vertexCount(), mesh.triangleCount()) + 2 * kel::kChunkCost);
        EXPECT_EQ(KEL_STS_OVERFLOW, b.status);
        expectUnwound(b, count);
    }
    const uint32_t budget = kelt::psahBudgetMiB(mesh.vertexCount(), mesh.triangleCount()) << 20;
    const int threads = omp_get_max_threads();
    for (int t : {1, 2}) {
        omp_set_num_threads(t);
        kelt::AllocationCount count;
        const Built whole = buildPsah(mesh, budget);
        ASSERT_EQ(KEL_STS_OK, whole.status);
        EXPECT_EQ(1, count.liveBlocks());
        kelrKDTreeFree(whole.tree);
        const long long made = count.allocations();
        // State, root patches, records, points, nodes, lists, sorted events,
        // destinations, scratch, cut log, deferred children, the tree.
        ASSERT_GE(made, 12);
        for (long long n = 1; n <= made; ++n) {
            SCOPED_TRACE(testing::Message()
                         << "allocation " << n << " of " << made << ", " << t << " threads");
            count.refuseAllocation(n);
            const Built b = buildPsah(mesh, budget);
            if (count.allocations() < n) {
                EXPECT_EQ(KEL_STS_OK, b.status);
                kelrKDTreeFree(b.tree);
                continue;
            }
            expectUnwound(b, count);
        }
    }
    omp_set_num_threads(threads);
}

}  // namespace
