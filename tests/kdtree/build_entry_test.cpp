// The build entry point's argument checks and their order, what the context
// does to a PSAH build, and the exact block the simple builder hands out.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "alloc_count.h"
#include "soups.h"
#include "trees.h"

namespace {

KDTreeNode* const kUntouched = reinterpret_cast<KDTreeNode*>(uintptr_t(0x1230));
const size_t kAllocatorOverhead = 32 + sizeof(void*);

KDTreeBuildContext simple(int depth = 10) {
    return KDTreeBuildContext{KDT_BUILD_SIMPLE, depth, 0.5f, 64, nullptr};
}
KDTreeBuildContext psah(int depth = 10, float weight = 0.5f, uint32_t memoryMiB = 64,
                        const float* clip = nullptr) {
    return KDTreeBuildContext{KDT_BUILD_PSAH, depth, weight, memoryMiB, clip};
}

// One triangle by default, and outputs preset to values a failing call must
// leave alone.
class BuildEntry : public ::testing::Test {
  protected:
    KelStatus build(const KDTreeBuildContext* context, int triangleCount = 1,
                    const kelt::Mesh* mesh = nullptr) {
        tree = kUntouched;
        size = -77;
        if (!mesh) mesh = &triangle;
        return kelrKDTreeBuildAlloc(&tree, mesh->vertices.data(), mesh->triangles.data(),
                                    mesh->vertexCount(), triangleCount, &size, context);
    }
    // A failing call writes neither output and allocates nothing.
    ::testing::AssertionResult failed(KelStatus status, KelStatus expected) {
        if (status != expected)
            return ::testing::AssertionFailure() << "status " << status << ", not " << expected;
        if (tree != kUntouched || size != -77 || count.allocations() != 0)
            return ::testing::AssertionFailure() << "an output was written or memory requested";
        return ::testing::AssertionSuccess();
    }

    kelt::Mesh triangle = {{0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2, 0}};
    KDTreeNode* tree = nullptr;
    int size = 0;
    kelt::AllocationCount count;
};

// Every output and mesh pointer first (even for the simple build), then the
// counts, then the context pointer, then the algorithm, its depth, the PSAH
// weight and last the budget.
TEST_F(BuildEntry, ChecksRunInOrderAndWriteNothing) {
    KDTreeBuildContext good = simple(), unknown = simple(), unknownDeep = simple(99);
    unknown.algorithm = unknownDeep.algorithm = 0x12345678;
    // Null pointers: 1 the tree, 2 the vertices, 4 the triangles, 8 the size.
    struct Case {
        int nulls, vertexCount, triangleCount;
        KDTreeBuildContext context;
        bool hasContext;
        KelStatus expected;
    };
    std::vector<Case> cases = {{1, 3, 1, good, false, KEL_STS_NULL_PTR},
                               {2, 3, 1, good, true, KEL_STS_NULL_PTR},
                               {4, 3, 1, good, true, KEL_STS_NULL_PTR},
                               {8, 3, 1, good, true, KEL_STS_NULL_PTR},
                               {1, -1, -1, unknown, true, KEL_STS_NULL_PTR},
                               {0, 3, -1, good, false, KEL_STS_SIZE},
                               {0, -1, 1, good, false, KEL_STS_SIZE},
                               {0, INT32_MIN, 0, unknown, true, KEL_STS_SIZE},
                               {0, 3, 1, good, false, KEL_STS_NULL_PTR},
                               {0, 3, 1, unknown, true, KEL_STS_BAD_ARG},
                               {0, 3, 1, unknownDeep, true, KEL_STS_BAD_ARG}};
    for (int depth : {-1, 51, INT32_MIN, INT32_MAX})
        for (const KDTreeBuildContext& c : {simple(depth), psah(depth)})
            cases.push_back({0, 3, 1, c, true, KEL_STS_OUT_OF_RANGE});
    // The weight is checked before the budget: out of range, not out of memory.
    for (float weight : {-1e-30f, -1.0f, 1.0000001f, 2.0f, float(NAN), float(-NAN), INFINITY})
        cases.push_back({0, 3, 1, psah(10, weight, 0), true, KEL_STS_OUT_OF_RANGE});
    // The budget check uses MiB << 19 in 32 bits, so 8192 MiB wraps to
    // nothing and 8192 + 31 to less than the minimum. 32 MiB passes it and is
    // refused by the builder's own fixed need before anything is allocated.
    for (uint32_t mib : {0u, 1u, 31u, 8192u, 8192u + 31u, 0x80000000u, 32u})
        cases.push_back({0, 3, 1, psah(10, 0.5f, mib), true, KEL_STS_NO_MEM});
    for (const Case& c : cases) {
        tree = kUntouched;
        size = -77;
        const KelStatus status = kelrKDTreeBuildAlloc(
            c.nulls & 1 ? nullptr : &tree, c.nulls & 2 ? nullptr : triangle.vertices.data(),
            c.nulls & 4 ? nullptr : triangle.triangles.data(), c.vertexCount, c.triangleCount,
            c.nulls & 8 ? nullptr : &size, c.hasContext ? &c.context : nullptr);
        EXPECT_TRUE(failed(status, c.expected)) << "case " << &c - cases.data();
    }
    // The limits of the accepted ranges reach the builders.
    for (float weight : {0.0f, -0.0f, 1.0f})
        for (int depth : {0, 50}) {
            KDTreeBuildContext s = simple(depth), p = psah(depth, weight, 128);
            ASSERT_EQ(build(&p), KEL_STS_OK) << weight << ", " << depth;
            kelrKDTreeFree(tree);
            ASSERT_EQ(build(&s), KEL_STS_OK) << depth;
            kelrKDTreeFree(tree);
        }
}

// A clip box apart from the mesh, or no triangle at all, gives the empty
// tree. (Depth, weight and clip box otherwise are pinned by the tree hashes.)
TEST_F(BuildEntry, PsahBuildOfNothingIsTheEmptyTree) {
    const kelt::Mesh mesh = kelt::randomSoup(5, 300);
    const float apart[6] = {5, 5, 5, 6, 6, 6};
    const KDTreeBuildContext clipped = psah(20, 1.0f, 128, apart), whole = psah(20, 1.0f, 128);
    for (int triangles : {300, 0}) {
        ASSERT_EQ(build(triangles ? &clipped : &whole, triangles, &mesh), KEL_STS_OK);
        EXPECT_EQ(std::vector<int32_t>((int32_t*)tree, (int32_t*)tree + size / 4),
                  kelt::oneLeafTree(0));
        kelrKDTreeFree(tree);
    }
}

// The simple tree is one leaf over every triangle in a block of one 8-byte
// unit more than the size covers. The size is an int32: 4 x 0x1FFFFFFB + 16
// still fits and is asked for (refused here), one more triangle does not (it
// wrapped to a 16-byte block once).
TEST_F(BuildEntry, SimpleTreeIsOneLeafInABlockThatFits) {
    const KDTreeBuildContext context = simple();
    for (int triangles : {0, 1, 2, 7, 9, 1000, 0x1FFFFFFB, 0x1FFFFFFC, 0x40000000, INT32_MAX}) {
        const uint64_t bytes = 4 * uint64_t(triangles) + 16;
        const bool refused = triangles > 1000;
        count.refuseAllocation(refused ? 1 : 0);
        const KelStatus status = build(&context, triangles);
        EXPECT_EQ(count.allocations(), bytes <= INT32_MAX ? 1 : 0) << triangles;
        if (bytes <= INT32_MAX)
            EXPECT_EQ(count.lastRequest(), (bytes / 8 + 1) * 8 + kAllocatorOverhead);
        if (refused) {
            EXPECT_EQ(status, KEL_STS_NO_MEM);
            EXPECT_TRUE(tree == kUntouched && size == -77);
            continue;
        }
        ASSERT_EQ(status, KEL_STS_OK);
        ASSERT_EQ(size, int(bytes));
        EXPECT_EQ(uintptr_t(tree) % 32, 0u);
        EXPECT_EQ(std::vector<int32_t>((int32_t*)tree, (int32_t*)tree + size / 4),
                  kelt::oneLeafTree(triangles));
        kelrKDTreeFree(tree);
    }
    EXPECT_EQ(count.liveBlocks(), 0);
}

// The simple build reads only the algorithm and the depth: a context of two
// words at the very end of a readable page is enough.
TEST_F(BuildEntry, SimpleBuildReadsTwoContextWords) {
    const long page = sysconf(_SC_PAGESIZE);
    char* pages = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    uint32_t* words = reinterpret_cast<uint32_t*>(pages + page - 8);
    words[0] = KDT_BUILD_SIMPLE;
    words[1] = 5;
    EXPECT_EQ(build(reinterpret_cast<const KDTreeBuildContext*>(words), 3), KEL_STS_OK);
    EXPECT_EQ(size, 28);
    kelrKDTreeFree(tree);
    munmap(pages, 2 * page);
}

// A PSAH leaf list fills a 16 MiB chunk at most: 4,194,304 copies of one
// triangle in one leaf build, one more is -9 instead of a list written past
// the chunk.
TEST_F(BuildEntry, PsahLeafListFitsItsChunk) {
    kelt::Mesh mesh = triangle;
    for (int triangles : {4194304, 4194305}) {
        mesh.triangles.resize(4 * size_t(triangles), 0);
        for (int n = 0; n < triangles; ++n)
            mesh.triangles[4 * n + 1] = 1, mesh.triangles[4 * n + 2] = 2;
        const KDTreeBuildContext oneLeaf = psah(0, 0.5f, kelt::psahBudgetMiB(3, triangles));
        const KelStatus status = build(&oneLeaf, triangles, &mesh);
        if (triangles == 4194305) {
            EXPECT_EQ(status, KEL_STS_OVERFLOW);
            EXPECT_TRUE(tree == kUntouched && size == -77);
            continue;
        }
        ASSERT_EQ(status, KEL_STS_OK);
        const std::vector<int32_t> expected = kelt::oneLeafTree(triangles);
        ASSERT_EQ(size, 4 * int(expected.size()));
        EXPECT_EQ(0, memcmp(tree, expected.data(), size_t(size)));
        kelrKDTreeFree(tree);
    }
    EXPECT_EQ(count.liveBlocks(), 0);
}

}  // namespace
