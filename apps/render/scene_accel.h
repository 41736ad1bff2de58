// The library-side form of a scene: its box, the per-triangle normals and
// intersection records, and the kd-tree. Built once, then read by every
// render thread at the same time (the library keeps no state of its own).
#ifndef KELR_RENDER_SCENE_ACCEL_H
#define KELR_RENDER_SCENE_ACCEL_H

#include <cstdint>
#include <memory>
#include <vector>

#include "kelr.h"
#include "scene.h"

namespace render {

enum class TreeBuilder { kPsah, kSimple };

struct BuildSettings {
    TreeBuilder builder = TreeBuilder::kPsah;
    int maxDepth = 50;        // deepest the PSAH tree may grow (the traversal stack holds 50)
    float psahWeight = 0.2f;  // 0..1; higher values let the PSAH builder split more readily
    uint32_t memoryMiB = 0;   // PSAH working-memory budget; 0 sizes it to the mesh
};

// The PSAH budget that builds a mesh of this size, in MiB (the formula of
// the library's reference).
uint32_t psahBudgetMiB(int vertexCount, int triangleCount);

struct TreeStats {
    int innerNodes = 0;
    int leaves = 0;
    int emptyLeaves = 0;
    int maxDepth = 0;
    int64_t triangleReferences = 0;  // sum of all leaf counts; a cut triangle counts once per leaf
    int largestLeaf = 0;
};

// Walks a packed tree block of treeSize bytes. Throws std::runtime_error if a
// link points outside the block, so a damaged tree cannot crash the walk.
TreeStats walkTree(const KDTreeNode* tree, int treeSize);

class SceneAccel {
  public:
    // Throws LibraryError (naming the failed call) or std::runtime_error.
    SceneAccel(const Mesh& mesh, const BuildSettings& settings);
    ~SceneAccel();
    SceneAccel(const SceneAccel&) = delete;
    SceneAccel& operator=(const SceneAccel&) = delete;

    const IntersectContext& context() const { return context_; }
    const float* triangleNormals() const { return triangleNormals_.data(); }
    const float* box() const { return box_; }
    int treeSize() const { return treeSize_; }
    double buildSeconds() const { return buildSeconds_; }
    uint32_t budgetMiB() const { return budgetMiB_; }
    const TreeStats& stats() const { return stats_; }

  private:
    void buildTree(const Mesh& mesh, const BuildSettings& settings);

    float box_[6];
    std::vector<float> triangleNormals_;
    // TriangleAccel records, in storage whose size the library reports.
    std::vector<unsigned char> accelStorage_;
    KDTreeNode* tree_ = nullptr;
    int treeSize_ = 0;
    double buildSeconds_ = 0.0;
    uint32_t budgetMiB_ = 0;
    TreeStats stats_;
    IntersectContext context_;
};

}  // namespace render

#endif
