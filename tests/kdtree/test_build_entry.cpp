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
};
AllocationLog* g_log = nullptr;

void* loggingMalloc(size_t bytes) {
    g_log->requests.push_back(bytes);
    return g_log->fail ? nullptr : malloc(bytes);
}

void loggingFree(void* p) {
    g_log->frees.push_back(p);
    free(p);
}

// One triangle, and outputs preset to values a failing call must leave alone.
class BuildEntry : public ::testing::Test {
  protected:
    void SetUp() override {
        g_log = &log;
        savedMalloc = i_malloc;
        savedFree = i_free;
        i_malloc = loggingMalloc;
        i_free = loggingFree;
    }
    void TearDown() override {
        i_malloc = savedMalloc;
        i_free = savedFree;
        g_log = nullptr;
    }

    KelStatus build(const KDTreeBuildContext* context, int triangleCount = 1, int vertexCount = 3) {
        tree = untouchedTree();
        size = kUntouchedSize;
        return kelrKDTreeBuildAlloc(&tree, vertices, triangles, vertexCount, triangleCount, &size,
                                    context);
    }

    // A failing call writes neither output and allocates nothing.
    ::testing::AssertionResult failedCleanly(KelStatus status, KelStatus expected) {
        if (status != expected)
            return ::testing::AssertionFailure() << "status " << status << ", not " << expected;
        if (tree != untouchedTree() || size != kUntouchedSize)
            return ::testing::AssertionFailure() << "an output was written";
        if (!log.requests.empty()) return ::testing::AssertionFailure() << "memory was requested";
        return ::testing::AssertionSuccess();
    }

    static KDTreeNode* untouchedTree() { return reinterpret_cast<KDTreeNode*>(uintptr_t(0x1230)); }
    static constexpr int kUntouchedSize = -77;

    float vertices[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    int triangles[4] = {0, 1, 2, 0};
    KDTreeNode* tree = nullptr;
    int size = 0;
    AllocationLog log;
    void* (*savedMalloc)(size_t) = nullptr;
    void (*savedFree)(void*) = nullptr;
};

KDTreeBuildContext simpleContext(int depth = 10) {
    return KDTreeBuildContext{KDT_BUILD_SIMPLE, depth, 0.5f, 64, nullptr};
}

KDTreeBuildContext psahContext(int depth = 10, float weight = 0.5f, uint32_t memoryMiB = 64) {
    return KDTreeBuildContext{KDT_BUILD_PSAH, depth, weight, memoryMiB, nullptr};
}

}  // namespace

TEST_F(BuildEntry, PointersThenCountsThenContext) {
    KDTreeBuildContext good = simpleContext();
    KDTreeBuildContext unknown = simpleContext();
    unknown.algorithm = 0x12345678;
    KDTreeNode* t = untouchedTree();
    int s = kUntouchedSize;

    // Every output and mesh pointer is required, even by the simple build.
    EXPECT_EQ(kelrKDTreeBuildAlloc(nullptr, vertices, triangles, 3, 1, &s, nullptr),
              KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrKDTreeBuildAlloc(&t, nullptr, triangles, 3, 1, &s, &good), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrKDTreeBuildAlloc(&t, vertices, nullptr, 3, 1, &s, &good), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrKDTreeBuildAlloc(&t, vertices, triangles, 3, 1, nullptr, &good),
              KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrKDTreeBuildAlloc(nullptr, vertices, triangles, -1, -1, &s, &unknown),
              KEL_STS_NULL_PTR);
    // Counts come before the context pointer, and before the algorithm.
    EXPECT_EQ(kelrKDTreeBuildAlloc(&t, vertices, triangles, 3, -1, &s, nullptr), KEL_STS_SIZE);
    EXPECT_EQ(kelrKDTreeBuildAlloc(&t, vertices, triangles, -1, 1, &s, nullptr), KEL_STS_SIZE);
    EXPECT_EQ(kelrKDTreeBuildAlloc(&t, vertices, triangles, INT32_MIN, 0, &s, &unknown),
              KEL_STS_SIZE);
    EXPECT_EQ(kelrKDTreeBuildAlloc(&t, vertices, triangles, 3, 1, &s, nullptr), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelrKDTreeBuildAlloc(&t, vertices, triangles, 3, 1, &s, &unknown), KEL_STS_BAD_ARG);
    KDTreeBuildContext unknownBadDepth = unknown;
    unknownBadDepth.maxDepth = 99;
    EXPECT_EQ(kelrKDTreeBuildAlloc(&t, vertices, triangles, 3, 1, &s, &unknownBadDepth),
              KEL_STS_BAD_ARG);
    EXPECT_EQ(t, untouchedTree());
    EXPECT_EQ(s, kUntouchedSize);
    EXPECT_TRUE(log.requests.empty());
}

TEST_F(BuildEntry, DepthIsCheckedForBothAlgorithms) {
    for (int depth : {-1, 51, INT32_MIN, INT32_MAX}) {
        KDTreeBuildContext simple = simpleContext(depth);
        EXPECT_TRUE(failedCleanly(build(&simple), KEL_STS_OUT_OF_RANGE)) << depth;
        KDTreeBuildContext psah = psahContext(depth);
        EXPECT_TRUE(failedCleanly(build(&psah), KEL_STS_OUT_OF_RANGE)) << depth;
    }
    for (int depth : {0, 50}) {
        KDTreeBuildContext simple = simpleContext(depth);
        ASSERT_EQ(build(&simple), KEL_STS_OK) << depth;
        kelrKDTreeFree(tree);
    }
}

TEST_F(BuildEntry, PsahWeightAndBudgetValidation) {
    // The weight is checked before the budget, so a bad weight with a bad
    // budget is out of range, not out of memory.
    for (float weight : {-1e-30f, -1.0f, 1.0000001f, 2.0f, float(NAN), float(-NAN), INFINITY}) {
        KDTreeBuildContext context = psahContext(10, weight, 0);
        EXPECT_TRUE(failedCleanly(build(&context), KEL_STS_OUT_OF_RANGE)) << weight;
    }
    // The budget check uses MiB << 19 in 32 bits, so 8192 MiB wraps to
    // nothing and 8192 + 31 to less than the minimum.
    for (uint32_t mib : {0u, 1u, 31u, 8192u, 8192u + 31u, 0x80000000u}) {
        KDTreeBuildContext context = psahContext(10, 0.5f, mib);
        EXPECT_TRUE(failedCleanly(build(&context), KEL_STS_NO_MEM)) << mib;
    }
}

// The limits of the accepted ranges reach the PSAH builder, which has room
// for one triangle in 128 MiB. 32 MiB passes this check and is refused by the
// builder's own fixed need before anything is allocated.
TEST_F(BuildEntry, ValidPsahContextsReachTheBuilder) {
    for (float weight : {0.0f, -0.0f, 1.0f}) {
        for (int depth : {0, 50}) {
            KDTreeBuildContext context = psahContext(depth, weight, 128);
            ASSERT_EQ(build(&context), KEL_STS_OK) << weight << ", " << depth;
            kelrKDTreeFree(tree);
        }
    }
    log.requests.clear();
    KDTreeBuildContext exact = psahContext(10, 0.5f, 32);
    EXPECT_TRUE(failedCleanly(build(&exact), KEL_STS_NO_MEM));
}

// The context's depth, weight and clip box reach the PSAH builder: depth 0
// keeps the root a leaf, a larger weight makes splits cheaper to accept, and
// a clip box apart from the mesh leaves every triangle out.
TEST_F(BuildEntry, PsahBuildFollowsTheContext) {
    const kelt::Mesh mesh = kelt::randomSoup(5, 300);
    // Triangles listed in the tree's leaves, and its size.
    auto build = [&](int depth, float weight, const float* clip, long long* listed) {
        KDTreeBuildContext context = {KDT_BUILD_PSAH, depth, weight, 128, clip};
        KDTreeNode* psah = nullptr;
        int bytes = 0;
        EXPECT_EQ(kelrKDTreeBuildAlloc(&psah, mesh.vertices.data(), mesh.triangles.data(),
                                       mesh.vertexCount(), mesh.triangleCount(), &bytes, &context),
                  KEL_STS_OK);
        kelt::TreeSummary summary;
        EXPECT_EQ("", kelt::checkTree(psah, bytes, mesh.triangleCount(), &summary));
        *listed = summary.listed;
        kelrKDTreeFree(psah);
        return bytes;
    };
    long long listed = 0;
    EXPECT_EQ(build(0, 1.0f, nullptr, &listed), 16 + 4 * 300);
    EXPECT_EQ(listed, 300);
    const int shallow = build(20, 0.0f, nullptr, &listed);
    EXPECT_GT(build(20, 1.0f, nullptr, &listed), shallow);
    const float apart[6] = {5, 5, 5, 6, 6, 6};
    build(20, 1.0f, apart, &listed);
    EXPECT_EQ(listed, 0);
}

TEST_F(BuildEntry, SimpleTreeIsOneLeafOverEveryTriangle) {
    KDTreeBuildContext context = simpleContext();
    for (int count : {0, 1, 2, 7, 9, 1000}) {
        log.requests.clear();
        log.frees.clear();
        ASSERT_EQ(build(&context, count), KEL_STS_OK) << count;
        const int expectedSize = 16 + 4 * count;
        EXPECT_EQ(size, expectedSize);
        // The block has one 8-byte unit more than the size covers.
        ASSERT_EQ(log.requests.size(), 1u);
        EXPECT_EQ(log.requests[0], size_t(expectedSize / 8 + 1) * 8 + 32 + sizeof(void*));
        EXPECT_EQ(uintptr_t(tree) % 32, 0u);

        std::vector<int32_t> expected = {-16, count, 0, 0};
        for (int t = 0; t < count; ++t) expected.push_back(t);
        std::vector<int32_t> words(expected.size());
        memcpy(words.data(), tree, expectedSize);
        EXPECT_EQ(words, expected) << count;
        // Readers find the list from the root's first word.
        const char* root = reinterpret_cast<const char*>(tree);
        EXPECT_EQ(root - (tree->link & ~3), root + 16);

        void* raw = static_cast<void**>(static_cast<void*>(tree))[-1];
        kelrKDTreeFree(tree);
        ASSERT_EQ(log.frees.size(), 1u);
        EXPECT_EQ(log.frees[0], raw);
    }
    kelrKDTreeFree(nullptr);
    EXPECT_EQ(log.frees.size(), 1u);
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
    const KDTreeBuildContext* shortContext = reinterpret_cast<const KDTreeBuildContext*>(words);
    EXPECT_EQ(build(shortContext, 3), KEL_STS_OK);
    EXPECT_EQ(size, 28);
    kelrKDTreeFree(tree);
    munmap(pages, 2 * page);
}

TEST_F(BuildEntry, SimpleBuildWithoutMemory) {
    KDTreeBuildContext context = simpleContext();
    log.fail = true;
    EXPECT_EQ(build(&context, 5), KEL_STS_NO_MEM);
    EXPECT_EQ(tree, untouchedTree());
    EXPECT_EQ(size, kUntouchedSize);
    EXPECT_TRUE(log.frees.empty());
}
