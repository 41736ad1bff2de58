// Hand-built kd-trees in the library's packed format, for exercising the
// traversal independently of the library's own builders: a median-split
// builder over a mesh, and explicit trees written node by node.
#ifndef KEL_TEST_INTERSECT_PACKED_TREE_H
#define KEL_TEST_INTERSECT_PACKED_TREE_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "kelr.h"

namespace kelt {

// A tree node before packing: a leaf with its triangle list, or an inner node
// with a split and two children (below the split, above it).
struct TreeNode {
    int axis = -1;  // -1: leaf
    float split = 0;
    std::unique_ptr<TreeNode> below, above;
    std::vector<int> triangles;

    static std::unique_ptr<TreeNode> leaf(std::vector<int> list) {
        auto n = std::make_unique<TreeNode>();
        n->triangles = std::move(list);
        return n;
    }
    static std::unique_ptr<TreeNode> inner(int axis, float split, std::unique_ptr<TreeNode> below,
                                           std::unique_ptr<TreeNode> above) {
        auto n = std::make_unique<TreeNode>();
        n->axis = axis;
        n->split = split;
        n->below = std::move(below);
        n->above = std::move(above);
        return n;
    }
};

// A packed tree block. Kept in 8-byte units so the block is 8-byte aligned
// like the library's (which is 32-byte aligned).
class PackedTree {
  public:
    explicit PackedTree(const TreeNode& root) {
        words_.assign(4, 0);
        std::vector<std::pair<size_t, const TreeNode*>> leaves;
        place(root, 0, &leaves);
        for (auto& [slot, leaf] : leaves) {
            words_[slot] = int32_t(4 * (int64_t(slot) - int64_t(words_.size())));
            words_[slot + 1] = int32_t(leaf->triangles.size());
            words_.insert(words_.end(), leaf->triangles.begin(), leaf->triangles.end());
        }
        block_.assign(words_.size() / 2 + 1, 0);
        std::memcpy(block_.data(), words_.data(), words_.size() * 4);
    }

    const KDTreeNode* root() const { return reinterpret_cast<const KDTreeNode*>(block_.data()); }

  private:
    // Child pairs follow in depth-first pre-order; leaves are recorded in
    // left-to-right order so that their lists can follow all pairs.
    void place(const TreeNode& n, size_t slot,
               std::vector<std::pair<size_t, const TreeNode*>>* leaves) {
        if (n.axis < 0) {
            leaves->push_back({slot, &n});
            return;
        }
        const size_t pair = words_.size();
        words_.resize(pair + 4, 0);
        words_[slot] = int32_t(4 * (pair - slot)) | n.axis;
        std::memcpy(&words_[slot + 1], &n.split, 4);
        place(*n.below, pair, leaves);
        place(*n.above, pair + 2, leaves);
    }

    std::vector<int32_t> words_;
    std::vector<int64_t> block_;
};

// One leaf holding triangles 0 .. count - 1.
inline std::unique_ptr<TreeNode> singleLeaf(int count) {
    std::vector<int> all(count);
    for (int i = 0; i < count; ++i) all[i] = i;
    return TreeNode::leaf(all);
}

// Splits at the median triangle centroid on the cell's longest axis; a
// triangle goes to every side its bounding box touches. Stops at leafSize
// triangles, at maxDepth, or when a split separates nothing.
class MedianSplitBuilder {
  public:
    MedianSplitBuilder(const float* vertices, const int* triangles, int count, int leafSize,
                       int maxDepth)
        : leafSize_(leafSize), maxDepth_(maxDepth), bounds_(size_t(count)) {
        for (int t = 0; t < count; ++t)
            for (int a = 0; a < 3; ++a) {
                const float* v = vertices + a;
                const float x = v[3 * triangles[4 * t]], y = v[3 * triangles[4 * t + 1]],
                            z = v[3 * triangles[4 * t + 2]];
                bounds_[t].lo[a] = std::min({x, y, z});
                bounds_[t].hi[a] = std::max({x, y, z});
            }
    }

    std::unique_ptr<TreeNode> build(const float box[6]) {
        return split(singleLeaf(int(bounds_.size()))->triangles, box, box + 3, 0);
    }

  private:
    struct Bounds {
        float lo[3], hi[3];
    };

    std::unique_ptr<TreeNode> split(std::vector<int> list, const float lo[3], const float hi[3],
                                    int depth) {
        if (int(list.size()) <= leafSize_ || depth >= maxDepth_) return TreeNode::leaf(list);
        int axis = 0;
        for (int a = 1; a < 3; ++a)
            if (hi[a] - lo[a] > hi[axis] - lo[axis]) axis = a;
        std::vector<float> centres(list.size());
        for (size_t i = 0; i < list.size(); ++i)
            centres[i] = 0.5f * (bounds_[list[i]].lo[axis] + bounds_[list[i]].hi[axis]);
        std::nth_element(centres.begin(), centres.begin() + centres.size() / 2, centres.end());
        const float at = centres[centres.size() / 2];
        if (!(at > lo[axis] && at < hi[axis])) return TreeNode::leaf(list);
        std::vector<int> below, above;
        for (int t : list) {
            if (bounds_[t].lo[axis] <= at) below.push_back(t);
            if (bounds_[t].hi[axis] >= at) above.push_back(t);
        }
        if (below.size() == list.size() && above.size() == list.size()) return TreeNode::leaf(list);
        std::vector<int>().swap(list);
        float belowHi[3] = {hi[0], hi[1], hi[2]}, aboveLo[3] = {lo[0], lo[1], lo[2]};
        belowHi[axis] = aboveLo[axis] = at;
        auto first = split(std::move(below), lo, belowHi, depth + 1);
        auto second = split(std::move(above), aboveLo, hi, depth + 1);
        return TreeNode::inner(axis, at, std::move(first), std::move(second));
    }

    int leafSize_, maxDepth_;
    std::vector<Bounds> bounds_;
};

}  // namespace kelt

#endif
