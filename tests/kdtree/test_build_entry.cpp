// The build entry point's argument checks and their order, and the exact
// block the simple builder hands out.
#include <gtest/gtest.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <vector>

#include "kelr.h"
#include "psah_support.h"
#include "tree_check.h"

namespace {

struct AllocationLog {
    std::vector<size_t> requests;
    std::vector<void*> frees;
    bool fail = false;
} g_log;

void* loggingMalloc(size_t bytes) {
    g_log.requests.push_back(bytes);
    return g_log.fail ? nullptr : malloc(bytes);
}
void loggingFree(void* p) {
    g_log.frees.push_back(p);
    free(p);
}

KDTreeNode* const kUntouched = reinterpret_cast<KDTreeNode*>(uintptr_t(0x1230));

// One triangle, and outputs preset to values a failing call must leave alone.
class BuildEntry : public ::testing::Test {
  protected:
    void SetUp() override {
        g_log = AllocationLog();
        i_malloc = loggingMalloc;
        i_free = loggingFree;
    }
    void TearDown() override { i_malloc = savedMalloc, i_free = savedFree; }

    KelStatus build(const KDTreeBuildContext* context, int triangleCount = 1, int vertexCount = 3,
                    const float* v = nullptr, const int* t = nullptr) {
        tree = kUntouched;
        size = -77;
        return kelrKDTreeBuildAlloc(&tree, v ? v : vertices, t ? t : triangles, vertexCount,
                                    triangleCount, &size, context);
    }

    // A failing call writes neither output and allocates nothing.
    ::testing::AssertionResult failed(KelStatus status, KelStatus expected) {
        if (status != expected)
            return ::testing::AssertionFailure() << "status " << status << ", not " << expected;
        if (tree != kUntouched || size != -77 || !g_log.requests.empty())
            return ::testing::AssertionFailure() << "an output was written or memory requested";
        return ::testing::AssertionSuccess();
    }

    float vertices[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    int triangles[4] = {0, 1, 2, 0};
    KDTreeNode* tree = nullptr;
    int size = 0;
    void* (*savedMalloc)(size_t) = i_malloc;
    void (*savedFree)(void*) = i_free;
};

KDTreeBuildContext simple(int depth = 10) {
    return KDTreeBuildContext{KDT_BUILD_SIMPLE, depth, 0.5f, 64, nullptr};
}
KDTreeBuildContext psah(int depth = 10, float weight = 0.5f, uint32_t memoryMiB = 64,
                        const float* clip = nullptr) {
    return KDTreeBuildContext{KDT_BUILD_PSAH, depth, weight, memoryMiB, clip};
}

// Every output and mesh pointer first (even for the simple build), then the
// counts, then the context pointer, then the algorithm, then its depth.
TEST_F(BuildEntry, PointersThenCountsThenContext) {
    KDTreeBuildContext good = simple(), unknown = simple(), unknownDeep = simple(99);
    unknown.algorithm = unknownDeep.algorithm = 0x12345678;
    // Null pointers: 1 the tree, 2 the vertices, 4 the triangles, 8 the size.
    const struct {
        int nulls, vertexCount, triangleCount;
        const KDTreeBuildContext* context;
        KelStatus expected;
    } cases[] = {{1, 3, 1, nullptr, KEL_STS_NULL_PTR},    {2, 3, 1, &good, KEL_STS_NULL_PTR},
                 {4, 3, 1, &good, KEL_STS_NULL_PTR},      {8, 3, 1, &good, KEL_STS_NULL_PTR},
                 {1, -1, -1, &unknown, KEL_STS_NULL_PTR}, {0, 3, -1, nullptr, KEL_STS_SIZE},
                 {0, -1, 1, nullptr, KEL_STS_SIZE},       {0, INT32_MIN, 0, &unknown, KEL_STS_SIZE},
                 {0, 3, 1, nullptr, KEL_STS_NULL_PTR},    {0, 3, 1, &unknown, KEL_STS_BAD_ARG},
                 {0, 3, 1, &unknownDeep, KEL_STS_BAD_ARG}};
    for (const auto& c : cases) {
        tree = kUntouched;
        size = -77;
        const KelStatus status =
            kelrKDTreeBuildAlloc(c.nulls & 1 ? nullptr : &tree, c.nulls & 2 ? nullptr : vertices,
                                 c.nulls & 4 ? nullptr : triangles, c.vertexCount, c.triangleCount,
                                 c.nulls & 8 ? nullptr : &size, c.context);
        EXPECT_TRUE(failed(status, c.expected)) << &c - cases;
    }
}

TEST_F(BuildEntry, DepthWeightAndBudgetChecks) {
    std::vector<std::pair<KDTreeBuildContext, KelStatus>> cases;
    for (int depth : {-1, 51, INT32_MIN, INT32_MAX})
        cases.insert(cases.end(),
                     {{simple(depth), KEL_STS_OUT_OF_RANGE}, {psah(depth), KEL_STS_OUT_OF_RANGE}});
    // The weight is checked before the budget: out of range, not out of memory.
    for (float weight : {-1e-30f, -1.0f, 1.0000001f, 2.0f, float(NAN), float(-NAN), INFINITY})
        cases.push_back({psah(10, weight, 0), KEL_STS_OUT_OF_RANGE});
    // The budget check uses MiB << 19 in 32 bits, so 8192 MiB wraps to
    // nothing and 8192 + 31 to less than the minimum. 32 MiB passes it and is
    // refused by the builder's own fixed need before anything is allocated.
    for (uint32_t mib : {0u, 1u, 31u, 8192u, 8192u + 31u, 0x80000000u, 32u})
        cases.push_back({psah(10, 0.5f, mib), KEL_STS_NO_MEM});
    for (size_t k = 0; k < cases.size(); ++k)
        EXPECT_TRUE(failed(build(&cases[k].first), cases[k].second)) << "case " << k;
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

// Depth 0 keeps the root a leaf, a larger weight makes splits cheaper to
// accept, and a clip box apart from the mesh leaves every triangle out.
TEST_F(BuildEntry, PsahBuildFollowsTheContext) {
    const kelt::Mesh mesh = kelt::randomSoup(5, 300);
    const float apart[6] = {5, 5, 5, 6, 6, 6};
    long long listed[4];
    int sizes[4];
    const KDTreeBuildContext contexts[4] = {psah(0, 1.0f, 128), psah(20, 0.0f, 128),
                                            psah(20, 1.0f, 128), psah(20, 1.0f, 128, apart)};
    for (int k = 0; k < 4; ++k) {
        ASSERT_EQ(build(&contexts[k], mesh.triangleCount(), mesh.vertexCount(),
                        mesh.vertices.data(), mesh.triangles.data()),
                  KEL_STS_OK);
        kelt::TreeSummary summary;
        EXPECT_EQ("", kelt::checkTree(tree, size, mesh.triangleCount(), &summary));
        listed[k] = summary.listed, sizes[k] = size;
        kelrKDTreeFree(tree);
    }
    EXPECT_EQ(sizes[0], 16 + 4 * 300);
    EXPECT_EQ(listed[0], 300);
    EXPECT_GT(sizes[2], sizes[1]);
    EXPECT_EQ(listed[3], 0);
}

TEST_F(BuildEntry, SimpleTreeIsOneLeafOverEveryTriangle) {
    KDTreeBuildContext context = simple();
    for (int count : {0, 1, 2, 7, 9, 1000}) {
        g_log = AllocationLog();
        ASSERT_EQ(build(&context, count), KEL_STS_OK) << count;
        const std::vector<int32_t> expected = kelt::oneLeafTree(count);
        ASSERT_EQ(size, 4 * int(expected.size()));
        // The block has one 8-byte unit more than the size covers.
        ASSERT_EQ(g_log.requests,
                  std::vector<size_t>{size_t(size / 8 + 1) * 8 + 32 + sizeof(void*)});
        EXPECT_EQ(uintptr_t(tree) % 32, 0u);
        EXPECT_EQ(std::vector<int32_t>((int32_t*)tree, (int32_t*)tree + expected.size()), expected);
        void* raw = reinterpret_cast<void**>(tree)[-1];
        kelrKDTreeFree(tree);
        EXPECT_EQ(g_log.frees, std::vector<void*>{raw});
    }
    kelrKDTreeFree(nullptr);
    EXPECT_EQ(g_log.frees.size(), 1u);
}

// The simple build reads only the algorithm and the depth: a context of two
// words at the very end of a readable page is enough.
TEST_F(BuildEntry, SimpleBuildReadsTwoContextWordsAndMayRunOutOfMemory) {
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

    KDTreeBuildContext context = simple();
    g_log = AllocationLog();
    g_log.fail = true;
    EXPECT_EQ(build(&context, 5), KEL_STS_NO_MEM);
    EXPECT_TRUE(tree == kUntouched && size == -77 && g_log.frees.empty());
}

// Sizes that do not fit are refused before anything is written. The simple
// tree's size is an int32: 4 x 0x1FFFFFFB + 16 still fits and is asked for,
// one more triangle does not (it wrapped to a 16-byte block once). A PSAH leaf
// list fills a 16 MiB chunk at most: 4,194,304 copies of one triangle in one
// leaf build, one more is -9 instead of a list written past the chunk.
TEST_F(BuildEntry, SizesThatDoNotFitAreRefused) {
    const KDTreeBuildContext context = simple();
    const size_t overhead = 32 + sizeof(void*);
    g_log.fail = true;
    for (int count : {0x1FFFFFFB, 0x1FFFFFFC, 0x40000000, INT32_MAX}) {
        g_log.requests.clear();
        tree = kUntouched;
        ASSERT_EQ(build(&context, count), KEL_STS_NO_MEM);
        EXPECT_EQ(tree, kUntouched);
        const uint64_t size = 4 * uint64_t(count) + 16;
        EXPECT_EQ(g_log.requests, size <= INT32_MAX
                                      ? std::vector<size_t>{size_t(size / 8 + 1) * 8 + overhead}
                                      : std::vector<size_t>{})
            << count;
    }
    g_log.fail = false;

    kelt::Mesh mesh;
    for (int c = 0; c < 9; ++c) mesh.vertices.push_back(vertices[c]);
    for (int count : {4194304, 4194305}) {
        mesh.triangles.resize(4 * size_t(count), 0);
        for (int n = 0; n < count; ++n)
            mesh.triangles[4 * n + 1] = 1, mesh.triangles[4 * n + 2] = 2;
        const KDTreeBuildContext oneLeaf = psah(0, 0.5f, kelt::psahBudgetMiB(3, count));
        const KelStatus status =
            build(&oneLeaf, count, 3, mesh.vertices.data(), mesh.triangles.data());
        if (count == 4194305) {
            EXPECT_EQ(status, KEL_STS_OVERFLOW);
            EXPECT_TRUE(tree == kUntouched && size == -77);
            continue;
        }
        ASSERT_EQ(status, KEL_STS_OK);
        const std::vector<int32_t> expected = kelt::oneLeafTree(count);
        ASSERT_EQ(size, 4 * int(expected.size()));
        EXPECT_EQ(0, memcmp(tree, expected.data(), size_t(size)));
        kelrKDTreeFree(tree);
    }
    EXPECT_EQ(g_log.frees.size(), g_log.requests.size());
}

}  // namespace
