// The PSAH build's budget at its byte-exact boundaries, and the release of
// every allocation whether a build succeeds, runs out of budget or is refused
// any one of its allocations. (The packing is pinned by the tree hashes.)
#include <gtest/gtest.h>
#include <omp.h>

#include <vector>

#include "alloc_count.h"
#include "kdtree/psah.h"
#include "soups.h"
#include "trees.h"

namespace {

// The budget the driver demands up front.
uint32_t fixedNeed(int vertexCount, int triangleCount) {
    return uint32_t(kelt::psahFixedNeedBytes(vertexCount, triangleCount));
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
// The same triangle among 349,526 vertices: from there on the vertex store
// (16 MiB per started 4 MiB of vertices) outgrows what the up-front check
// counts for vertices. The stores are charged in full: a budget that passes
// the check but not the stores is -4 with nothing allocated (the remaining
// budget once wrapped to about 4 GiB), and past the stores the budget pays
// for exactly the three chunks.
TEST(PsahMemory, BudgetBoundariesToTheByte) {
    const kelt::Mesh one = {{0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2, 0}};
    kelt::Mesh many = one;
    many.vertices.resize(3 * 349526, 0.0f);
    const float unitBox[6] = {0, 0, 0, 1, 1, 1};
    const uint32_t need = fixedNeed(3, 1), chunk = kel::kChunkCost;
    const uint32_t stores = kel::kStateCharge + 48 + (16u << 20) + (32u << 20);
    const struct {
        const kelt::Mesh& mesh;
        const float* clip;
        uint32_t budget;
        KelStatus expected;
    } cases[] = {{one, unitBox, need - 1, KEL_STS_NO_MEM},
                 {one, unitBox, need, KEL_STS_OVERFLOW},
                 {one, unitBox, need + chunk, KEL_STS_OVERFLOW},
                 {one, unitBox, need + 2 * chunk, KEL_STS_OVERFLOW},
                 {one, unitBox, need + 3 * chunk, KEL_STS_OK},
                 {one, nullptr, need - 1, KEL_STS_NO_MEM},
                 {one, nullptr, need, KEL_STS_OVERFLOW},
                 {one, nullptr, need + chunk, KEL_STS_OVERFLOW},
                 {one, nullptr, need + 2 * chunk, KEL_STS_OVERFLOW},
                 {one, nullptr, need + 3 * chunk, KEL_STS_OK},
                 {many, nullptr, fixedNeed(349526, 1), KEL_STS_NO_MEM},
                 {many, nullptr, stores - 1, KEL_STS_NO_MEM},
                 {many, nullptr, stores + 3 * chunk - 1, KEL_STS_OVERFLOW},
                 {many, nullptr, stores + 3 * chunk, KEL_STS_OK}};
    for (const auto& c : cases) {
        kelt::AllocationCount count;
        const Built b = buildPsah(c.mesh, c.budget, c.clip);
        EXPECT_EQ(c.expected, b.status) << &c - cases;
        if (c.expected == KEL_STS_NO_MEM) EXPECT_EQ(0, count.peakBytes());
        if (c.expected != KEL_STS_OK) EXPECT_TRUE(b.tree == nullptr && b.size == -1);
        EXPECT_EQ(c.expected == KEL_STS_OK ? 1 : 0, count.liveBlocks());
        kelrKDTreeFree(b.tree);
    }
}

// Through the hooks, a build whose N-th allocation fails, for every N the
// build makes, on one thread and on two: each unwinds with -4 or -9, writes
// no output and gives back every block it got. On two threads the number of
// allocations depends on which thread builds which subtree, so a build may
// end before its N-th; it must then have succeeded, and a whole build keeps
// only its tree.
TEST(PsahMemory, EveryFailureUnwindsCleanly) {
    // Large enough for the optimisation to hand subtrees to tasks.
    const kelt::Mesh mesh = kelt::randomSoup(7, 2500);
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
            EXPECT_TRUE(b.status == KEL_STS_NO_MEM || b.status == KEL_STS_OVERFLOW) << b.status;
            EXPECT_TRUE(b.tree == nullptr && b.size == -1);
            EXPECT_EQ(0, count.liveBlocks());
        }
    }
    omp_set_num_threads(threads);
}

}  // namespace

namespace {

// The extreme-vertex mask names, per axis, the lowest and highest corner:
// ties keep the lowest index, and a NaN coordinate takes over the running
// value (max x, y, z in bits 0, 5, 10; min x, y, z in bits 15, 20, 25).
TEST(PsahPatches, ExtremeVertexMaskTiesAndNaN) {
    struct Row {
        float corners[3][3];
        uint32_t mask;
    };
    const float nan = __builtin_nanf("");
    const Row rows[] = {
        // x ties at the minimum, y at the minimum, z everywhere
        {{{0, 0, 2}, {0, 1, 2}, {1, 0, 2}}, 2u | 1u << 5},
        // x ties at the maximum between corners 1 and 2
        {{{0, 5, 1}, {3, 4, 0}, {3, 6, -1}}, 1u | 2u << 5 | 1u << 20 | 2u << 25},
        // a NaN x, then 0: the last corner wins both ends
        {{{1, 0, 0}, {nan, 0, 0}, {0, 0, 0}}, 2u | 2u << 15},
    };
    for (const Row& row : rows) {
        const float* corners[3] = {row.corners[0], row.corners[1], row.corners[2]};
        EXPECT_EQ(row.mask, kel::extremeVertexMask(corners, 3)) << row.corners[0][0];
    }
}

}  // namespace
