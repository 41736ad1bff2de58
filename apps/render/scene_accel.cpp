#include "scene_accel.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>

#include "status.h"

namespace render {

namespace {

const uint64_t kMiB = 1u << 20;

uint64_t roundUpMiB(uint64_t bytes) {
    return (bytes + kMiB - 1) / kMiB;
}

}  // namespace

uint32_t psahBudgetMiB(int vertexCount, int triangleCount) {
    const uint64_t v = uint64_t(std::max(vertexCount, 0));
    const uint64_t t = uint64_t(std::max(triangleCount, 0));
    // The library's documented budget: 32 MiB of stores and three 16 MiB
    // chunks, a chunk more per 65,536 triangles, and a bound on the stores
    // that grow with the mesh.
    const uint64_t mib = 80 + 16 * (t / 65536) + roundUpMiB(96 * t + 48 * v + 1024);
    return uint32_t(std::min<uint64_t>(mib, UINT32_MAX));
}

TreeStats walkTree(const KDTreeNode* tree, int treeSize) {
    TreeStats stats;
    const char* base = reinterpret_cast<const char*>(tree);
    auto inside = [&](const char* p, int64_t bytes) {
        return p >= base && p + bytes <= base + treeSize;
    };
    std::vector<std::pair<const KDTreeNode*, int>> pending = {{tree, 0}};
    while (!pending.empty()) {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        stats.maxDepth = std::max(stats.maxDepth, depth);
        const char* at = reinterpret_cast<const char*>(node);
        if (node->link >= 0) {
            ++stats.innerNodes;
            const char* children = at + (node->link & ~7);
            if (!inside(children, 2 * sizeof(KDTreeNode)) || children <= at)
                throw std::runtime_error("the kd-tree has a child link outside its block");
            const KDTreeNode* pair = reinterpret_cast<const KDTreeNode*>(children);
            pending.push_back({pair + 1, depth + 1});
            pending.push_back({pair, depth + 1});
        } else {
            ++stats.leaves;
            const int count = node->data.count;
            const char* list = at - (node->link & ~3);
            if (count < 0 || !inside(list, int64_t(count) * 4))
                throw std::runtime_error("the kd-tree has a leaf list outside its block");
            if (count == 0) ++stats.emptyLeaves;
            stats.triangleReferences += count;
            stats.largestLeaf = std::max(stats.largestLeaf, count);
        }
    }
    return stats;
}

SceneAccel::SceneAccel(const Mesh& mesh, const BuildSettings& settings) {
    const int vertexCount = mesh.vertexCount(), triangleCount = mesh.triangleCount();
    if (triangleCount == 0) throw std::runtime_error("the scene has no triangles");
    const float* vertices = mesh.vertices.data();
    const int* triangles = mesh.triangles.data();

    check(kelrSetBoundBox_32f(vertices, vertexCount, box_), "kelrSetBoundBox_32f");

    triangleNormals_.resize(3 * size_t(triangleCount));
    check(kelrTriangleNormal_32f(vertices, triangles, triangleNormals_.data(), triangleCount),
          "kelrTriangleNormal_32f");

    int recordSize = 0;
    check(kelrTriangleAccelGetSize(&recordSize), "kelrTriangleAccelGetSize");
    accelStorage_.resize(size_t(recordSize) * triangleCount);
    TriangleAccel* accel = reinterpret_cast<TriangleAccel*>(accelStorage_.data());
    check(kelrTriangleAccelInit(accel, vertices, triangles, triangleCount),
          "kelrTriangleAccelInit");

    buildTree(mesh, settings);
    context_.sceneBox = box_;
    context_.triangleAccel = accel;
    context_.tree = tree_;
}

void SceneAccel::buildTree(const Mesh& mesh, const BuildSettings& settings) {
    KDTreeBuildContext build = {};
    build.maxDepth = settings.maxDepth;
    build.psahWeight = settings.psahWeight;
    build.clipBox = nullptr;
    if (settings.builder == TreeBuilder::kPsah) {
        budgetMiB_ = settings.memoryMiB != 0
                         ? settings.memoryMiB
                         : psahBudgetMiB(mesh.vertexCount(), mesh.triangleCount());
        // The builder takes the budget as MiB shifted into a 32-bit byte count.
        if (budgetMiB_ >= 4096)
            throw std::runtime_error("the mesh needs a PSAH memory budget of " +
                                     std::to_string(budgetMiB_) +
                                     " MiB, more than the 4095 MiB the builder can take");
        build.algorithm = KDT_BUILD_PSAH;
        build.memoryMiB = budgetMiB_;
    } else {
        build.algorithm = KDT_BUILD_SIMPLE;
    }
    const auto start = std::chrono::steady_clock::now();
    const KelStatus status =
        kelrKDTreeBuildAlloc(&tree_, mesh.vertices.data(), mesh.triangles.data(),
                             mesh.vertexCount(), mesh.triangleCount(), &treeSize_, &build);
    buildSeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (build.algorithm == KDT_BUILD_PSAH &&
        (status == KEL_STS_OVERFLOW || status == KEL_STS_NO_MEM)) {
        // OVERFLOW: the budget ran out during the build; NO_MEM: it is below
        // what the builder sets aside before starting (or memory ran out).
        const std::string recommended =
            std::to_string(psahBudgetMiB(mesh.vertexCount(), mesh.triangleCount()));
        throw LibraryError("kelrKDTreeBuildAlloc", status,
                           "the PSAH memory budget of " + std::to_string(budgetMiB_) +
                               " MiB is too small for this mesh of " +
                               std::to_string(mesh.triangleCount()) + " triangles (" + recommended +
                               " MiB recommended); raise it with --memory");
    }
    check(status, "kelrKDTreeBuildAlloc");
    try {
        stats_ = walkTree(tree_, treeSize_);
    } catch (...) {
        kelrKDTreeFree(tree_);
        throw;
    }
}

SceneAccel::~SceneAccel() {
    kelrKDTreeFree(tree_);
}

}  // namespace render
